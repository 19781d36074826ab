#include "zq/adt/zqstringhash.h"

#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqhashcontext.h"
#include "zq/internal/zqintrusive.h"
#include "zq/internal/zqowned.h"
#include "zq/math/zqhashfunc_string.h"
#include "zq/util/zqstring.h"

struct zqstringhash {
    zqhash *hash; // its context is this map
    zq_stringhash_destroy_value_callback destroyvaluecallback;
    void *destroyvaluecontext;
};

struct zqstringhashitem {
    char *key;
    void *value;
    zqlistlink link;
    unsigned long keyhash; // kept, so that moves and most comparisons do not touch the key
};

using owned_stringhash = owned<zqstringhash, zq_stringhash_destroy>;

// ---- what the hash table calls ----

static unsigned long zq_stringhash_calchashitem(const void *item, void *context)
{
    ZQ_ASSERT(item != NULL);
    ZQ_ASSERT(context != NULL);

    return static_cast<const zqstringhashitem *>(item)->keyhash;
}

static int zq_stringhash_compareitem(const void *item1, const void *item2, void *context)
{
    ZQ_ASSERT(item1 != NULL);
    ZQ_ASSERT(item2 != NULL);
    ZQ_ASSERT(context != NULL);

    const auto *stored = static_cast<const zqstringhashitem *>(item1);
    const auto *searched = static_cast<const zqstringhashitem *>(item2);
    return stored->keyhash != searched->keyhash || strcmp(stored->key, searched->key) != 0;
}

static void zq_stringhash_destroyitem(void *item, void *context)
{
    ZQ_ASSERT(item != NULL);
    ZQ_ASSERT(context != NULL);

    auto *stringhashitem = static_cast<zqstringhashitem *>(item);
    const auto *stringhash = static_cast<const zqstringhash *>(context);
    zq_free(stringhashitem->key);
    if (stringhash->destroyvaluecallback)
        stringhash->destroyvaluecallback(stringhashitem->value, stringhash->destroyvaluecontext);
    zq_free(stringhashitem);
}

// ---- the map ----

zqstringhash *zq_stringhash_create(zq_stringhash_destroy_value_callback destroyvaluecallback,
                                   void *destroyvaluecontext)
{
    owned_stringhash map(make_zeroed<zqstringhash>());
    if (!map)
        return nullptr;
    map->hash = zq_hash_create(offsetof(zqstringhashitem, link), zq_stringhash_calchashitem,
                               zq_stringhash_compareitem, zq_stringhash_destroyitem, map.get());
    if (!map->hash)
        return nullptr;
    map->destroyvaluecallback = destroyvaluecallback;
    map->destroyvaluecontext = destroyvaluecontext;
    return map.release();
}

zqstringhash *zq_stringhash_create_from(const zqstringhash *original)
{
    ZQ_ASSERT(original != NULL);

    owned_stringhash map(make_zeroed<zqstringhash>());
    if (!map)
        return nullptr;
    map->hash = zq_hash_create_from_with_context(original->hash, map.get());
    if (!map->hash)
        return nullptr;
    map->destroyvaluecallback = original->destroyvaluecallback;
    map->destroyvaluecontext = original->destroyvaluecontext;
    return map.release();
}

void zq_stringhash_destroy(zqstringhash *stringhash)
{
    ZQ_ASSERT(stringhash != NULL);

    if (stringhash->hash)
        zq_hash_destroy(stringhash->hash);
    zq_free(stringhash);
}

void zq_stringhash_clear(zqstringhash *zqstringhash)
{
    ZQ_ASSERT(zqstringhash != NULL);

    zq_hash_clear(zqstringhash->hash);
}

int zq_stringhash_add(zqstringhash *stringhash, const char *key, void *value)
{
    ZQ_ASSERT(stringhash != NULL);
    ZQ_ASSERT(key != NULL);

    owned_block<zqstringhashitem> item(make_zeroed<zqstringhashitem>());
    if (!item)
        return -1;
    item->key = zq_strdup(key);
    if (!item->key)
        return -1;
    item->value = value;
    item->keyhash = zq_hashfunc_string(key);
    zq_hash_add(stringhash->hash, item.release());
    return 0;
}

static zqstringhashitem *zq_stringhash_find(zqstringhash *stringhash, const char *key)
{
    // The table reads no more than the key and its hash of the item it is to look for.
    const zqstringhashitem searchitem = {
        const_cast<char *>(key), nullptr, {}, zq_hashfunc_string(key)};
    return static_cast<zqstringhashitem *>(zq_hash_lookup(stringhash->hash, &searchitem));
}

int zq_stringhash_remove(zqstringhash *stringhash, const char *key)
{
    ZQ_ASSERT(stringhash != NULL);
    ZQ_ASSERT(key != NULL);

    zqstringhashitem *item = zq_stringhash_find(stringhash, key);
    if (!item)
        return -1;
    zq_hash_remove(stringhash->hash, item);
    zq_stringhash_destroyitem(item, stringhash);
    return 0;
}

void *zq_stringhash_lookup(zqstringhash *stringhash, const char *key)
{
    ZQ_ASSERT(stringhash != NULL);
    ZQ_ASSERT(key != NULL);

    const zqstringhashitem *item = zq_stringhash_find(stringhash, key);
    return item ? item->value : nullptr;
}

// ---- enumerating ----

static zqstringhashitem *zq_stringhash_deliver(void *handle, const char **keyptr, void **valueptr)
{
    auto *item = static_cast<zqstringhashitem *>(handle);
    if (keyptr)
        *keyptr = item ? item->key : nullptr;
    if (valueptr)
        *valueptr = item ? item->value : nullptr;
    return item;
}

zqstringhashitem *zq_stringhash_enumerate_start(zqstringhash *stringhash, const char **keyptr,
                                                void **valueptr)
{
    ZQ_ASSERT(stringhash != NULL);

    return zq_stringhash_deliver(zq_hash_enumerate_start(stringhash->hash), keyptr, valueptr);
}

zqstringhashitem *zq_stringhash_enumerate_next(zqstringhash *stringhash,
                                               zqstringhashitem *prevstringhashitem,
                                               const char **keyptr, void **valueptr)
{
    ZQ_ASSERT(stringhash != NULL);
    ZQ_ASSERT(prevstringhashitem != NULL);

    return zq_stringhash_deliver(zq_hash_enumerate_next(stringhash->hash, prevstringhashitem),
                                 keyptr, valueptr);
}
