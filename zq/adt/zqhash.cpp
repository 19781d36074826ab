// Between calls a table is steady, with the main array alone, or resizing, with one more array that
// is larger or smaller and receives every item added: the target. The main array then only loses
// items and gives way to the target when it is empty. `entries` is the sum over the arrays, every
// item is in one chain of one array, and no two items have equal keys.

#include "zq/adt/zqhash.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqhashcontext.h"
#include "zq/internal/zqintrusive.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/internal/zqreciprocal.h"
#include "zq/math/zqlimit.h"

static constexpr unsigned long MIN_SLOTCOUNT = 5;

namespace {
struct zqhasharray {
    unsigned long slotcount; // MIN_SLOTCOUNT at least
    zqlist *slots;           // each with its items in the order of their arrival
    unsigned long entries;
    reciprocal<unsigned long> slotreciprocal; // of slotcount
};
} // namespace

struct zqhash {
    unsigned long minslotcount;
    zqhasharray *hasharray; // the main array
    zqhasharray *biggerarray;
    zqhasharray *smallerarray;
    unsigned long entries;
    zq_hash_calc_callback calchashcallback;
    zq_hash_compare_callback comparecallback;
    zq_hash_destroy_callback destroycallback;
    unsigned long linkoffset;
    void *context;
    unsigned long firstslot; // while resizing: no slot of the main array before this one has items
};

using owned_hash = owned<zqhash, zq_hash_destroy>;

static zqlistlink *zq_hash_link(const zqhash *zqhash, const void *item)
{
    char *address = static_cast<char *>(const_cast<void *>(item));
    return reinterpret_cast<zqlistlink *>(address + zqhash->linkoffset);
}

// Null for null.
static void *zq_hash_item(const zqhash *zqhash, zqlistlink *link)
{
    return link ? reinterpret_cast<char *>(link) - zqhash->linkoffset : nullptr;
}

static unsigned long zq_hash_calc(const zqhash *zqhash, const void *item)
{
    return zqhash->calchashcallback(item, zqhash->context);
}

// ---- one array ----

static void zq_hash_array_destroy(zqhasharray *zqhasharray)
{
    zq_free(zqhasharray->slots);
    zq_free(zqhasharray);
}

static zqhasharray *zq_hash_array_create(unsigned long slotcount)
{
    ZQ_ASSERT(slotcount >= 5);

    owned<zqhasharray, zq_hash_array_destroy> array(make_zeroed<zqhasharray>());
    if (!array) {
        ZQ_LOG(7, "not enough memory for hash array structure");
        return nullptr;
    }
    array->slotcount = slotcount;
    array->slotreciprocal = reciprocal<unsigned long>::of(slotcount);
    array->slots = static_cast<zqlist *>(zq_calloc(slotcount, sizeof(zqlist)));
    if (!array->slots) {
        ZQ_LOG(7, "not enough memory for hash array slots (%lu bytes)",
               static_cast<unsigned long>(zq_sizet_multiply_and_limit(slotcount, sizeof(zqlist))));
        return nullptr;
    }
    return array.release();
}

static unsigned long zq_hash_array_slot(const zqhasharray *zqhasharray, unsigned long hash)
{
    return zqhasharray->slotreciprocal.remainder(hash, zqhasharray->slotcount);
}

static zqlist *zq_hash_array_chain(const zqhasharray *zqhasharray, unsigned long hash)
{
    return &zqhasharray->slots[zq_hash_array_slot(zqhasharray, hash)];
}

static void zq_hash_array_add(const zqhash *zqhash, zqhasharray *zqhasharray, unsigned long hash,
                              void *item)
{
    list_append(zq_hash_array_chain(zqhasharray, hash), zq_hash_link(zqhash, item));
    zqhasharray->entries++;
}

static void *zq_hash_array_lookup(const zqhash *zqhash, const zqhasharray *zqhasharray,
                                  unsigned long hash, const void *searchitem)
{
    zqlistlink *link = zq_hash_array_chain(zqhasharray, hash)->head;
    for (; link; link = link->next) {
        void *item = zq_hash_item(zqhash, link);
        if (zqhash->comparecallback(item, searchitem, zqhash->context) == 0)
            return item;
    }
    return nullptr;
}

// Returns the item with an equal key, unlinked, or null.
static void *zq_hash_array_remove(const zqhash *zqhash, zqhasharray *zqhasharray,
                                  unsigned long hash, const void *searchitem)
{
    void *item = zq_hash_array_lookup(zqhash, zqhasharray, hash, searchitem);
    if (item) {
        list_unlink(zq_hash_array_chain(zqhasharray, hash), zq_hash_link(zqhash, item));
        zqhasharray->entries--;
    }
    return item;
}

// Whether this very item is in the array.
static bool zq_hash_array_check_item(const zqhash *zqhash, const zqhasharray *zqhasharray,
                                     unsigned long hash, const void *item)
{
    const zqlistlink *wanted = zq_hash_link(zqhash, item);
    const zqlistlink *link = zq_hash_array_chain(zqhasharray, hash)->head;
    while (link && link != wanted)
        link = link->next;
    return link != nullptr;
}

static void *zq_hash_array_enumerate_check_slot(const zqhash *zqhash,
                                                const zqhasharray *zqhasharray, unsigned long slot)
{
    ZQ_ASSERT(slot < zqhasharray->slotcount);

    return zq_hash_item(zqhash, zqhasharray->slots[slot].head);
}

// The first item of the first slot that has any, from `startslot` on, or null.
static void *zq_hash_array_enumerate_slot(const zqhash *zqhash, const zqhasharray *zqhasharray,
                                          unsigned long startslot)
{
    ZQ_ASSERT(startslot < zqhasharray->slotcount);

    void *item = nullptr;
    for (unsigned long slot = startslot; slot < zqhasharray->slotcount && !item; slot++)
        item = zq_hash_array_enumerate_check_slot(zqhash, zqhasharray, slot);
    return item;
}

static void *zq_hash_array_enumerate_start(const zqhash *zqhash, const zqhasharray *zqhasharray)
{
    return zq_hash_array_enumerate_slot(zqhash, zqhasharray, 0);
}

static void zq_hash_destroy_item(zqhash *hash, zqlist *zqlist, void *item)
{
    ZQ_ASSERT(hash != NULL);
    ZQ_ASSERT(zqlist != NULL);
    ZQ_ASSERT(item != NULL);

    list_unlink(zqlist, zq_hash_link(hash, item));
    hash->destroycallback(item, hash->context);
    hash->entries--;
}

static void zq_hash_array_clear(zqhash *zqhash, zqhasharray *zqhasharray)
{
    ZQ_ASSERT(zqhasharray->slots != NULL);

    for (unsigned long slot = 0; slot < zqhasharray->slotcount; slot++) {
        zqlist *chain = &zqhasharray->slots[slot];
        while (chain->head) {
            zq_hash_destroy_item(zqhash, chain, zq_hash_item(zqhash, chain->head));
            zqhasharray->entries--;
        }
    }
    ZQ_ASSERT(zqhasharray->entries == 0);
}

// ---- resizing ----

// The array that receives new items; the main array when no resize is in progress.
static zqhasharray *zq_hash_target(const zqhash *zqhash)
{
    if (zqhash->biggerarray) {
        ZQ_ASSERT(zqhash->smallerarray == NULL);
        return zqhash->biggerarray;
    }
    return zqhash->smallerarray ? zqhash->smallerarray : zqhash->hasharray;
}

static void zq_hash_start_growing(zqhash *zqhash)
{
    ZQ_ASSERT(zqhash->biggerarray == NULL);
    ZQ_ASSERT(zqhash->smallerarray == NULL);

    unsigned long oldcount = zqhash->hasharray->slotcount;
    unsigned long newcount = 4 * oldcount + 1;
    if (newcount <= oldcount)
        return;
    ZQ_LOG(13, "start growing hashtable to %lu slots", newcount);
    zqhash->biggerarray = zq_hash_array_create(newcount);
    zqhash->firstslot = 0;
    if (!zqhash->biggerarray)
        ZQ_LOG(7, "not enough memory to grow the hashtable from %lu to %lu slots", oldcount,
               newcount);
}

static void zq_hash_start_shrinking(zqhash *zqhash)
{
    ZQ_ASSERT(zqhash->biggerarray == NULL);
    ZQ_ASSERT(zqhash->smallerarray == NULL);

    unsigned long oldcount = zqhash->hasharray->slotcount;
    unsigned long newcount = (oldcount - 1) / 4;
    if (newcount < zqhash->minslotcount)
        newcount = zqhash->minslotcount;
    ZQ_LOG(13, "start shrinking hashtable to %lu slots", newcount);
    zqhash->smallerarray = zq_hash_array_create(newcount);
    zqhash->firstslot = 0;
    if (!zqhash->smallerarray)
        ZQ_LOG(7, "not enough memory to shrink the hashtable from %lu to %lu slots", oldcount,
               newcount);
}

static void zq_hash_check_if_main_empty(zqhash *zqhash)
{
    ZQ_ASSERT(zqhash->biggerarray != NULL || zqhash->smallerarray != NULL);

    if (zqhash->hasharray->entries != 0)
        return;
    zqhasharray *targethasharray = zqhash->biggerarray;
    if (targethasharray) {
        ZQ_LOG(13, "replacing the main hash array with the bigger one");
    } else {
        targethasharray = zqhash->smallerarray;
        ZQ_ASSERT(targethasharray != NULL);
        ZQ_LOG(13, "replacing the main hash array with the smaller one");
    }
    zq_hash_array_destroy(zqhash->hasharray);
    zqhash->hasharray = targethasharray;
    zqhash->biggerarray = nullptr;
    zqhash->smallerarray = nullptr;
}

// Moves the first item of the main array. Its slot is where the next search begins: during a resize
// nothing is added to the main array, so the slots before it stay empty.
static void zq_hash_move_one_item(zqhash *zqhash, zqhasharray *targethasharray)
{
    zqhasharray *main = zqhash->hasharray;
    void *firstitem = nullptr;
    if (main->entries > 0)
        firstitem = zq_hash_array_enumerate_slot(zqhash, main, zqhash->firstslot);
    if (firstitem) {
        unsigned long hash = zq_hash_calc(zqhash, firstitem);
        zqhash->firstslot = zq_hash_array_slot(main, hash);
        void *it = zq_hash_array_remove(zqhash, main, hash, firstitem);
        ZQ_ASSERT(it == firstitem);
        zq_hash_array_add(zqhash, targethasharray, hash, it);
    }
    zq_hash_check_if_main_empty(zqhash);
}

// ---- creating and destroying ----

zqhash *zq_hash_create(unsigned long linkoffset, zq_hash_calc_callback calchashcallback,
                       zq_hash_compare_callback comparecallback,
                       zq_hash_destroy_callback destroycallback, void *context)
{
    ZQ_ASSERT(calchashcallback != NULL);
    ZQ_ASSERT(comparecallback != NULL);
    ZQ_ASSERT(destroycallback != NULL);

    owned_hash hash(make_zeroed<zqhash>());
    if (!hash) {
        ZQ_LOG(7, "not enough memory for zqhash structure");
        return nullptr;
    }
    hash->minslotcount = MIN_SLOTCOUNT;
    ZQ_LOG(13, "create an initial hash array of size %lu", hash->minslotcount);
    hash->hasharray = zq_hash_array_create(hash->minslotcount);
    if (!hash->hasharray)
        return nullptr;
    hash->calchashcallback = calchashcallback;
    hash->comparecallback = comparecallback;
    hash->destroycallback = destroycallback;
    hash->linkoffset = linkoffset;
    hash->context = context;
    return hash.release();
}

zqhash *zq_hash_create_from_with_context(const zqhash *original, void *context)
{
    owned_hash hash(make_zeroed<zqhash>());
    if (!hash) {
        ZQ_LOG(7, "not enough memory for duplicating hashtable");
        return nullptr;
    }
    hash->minslotcount = original->minslotcount;
    hash->hasharray = zq_hash_array_create(hash->minslotcount);
    if (!hash->hasharray)
        return nullptr;
    hash->calchashcallback = original->calchashcallback;
    hash->comparecallback = original->comparecallback;
    hash->destroycallback = original->destroycallback;
    hash->linkoffset = original->linkoffset;
    hash->context = context;
    return hash.release();
}

zqhash *zq_hash_create_from(const zqhash *original)
{
    ZQ_ASSERT(original != NULL);

    return zq_hash_create_from_with_context(original, original->context);
}

void zq_hash_destroy(zqhash *zqhash)
{
    ZQ_ASSERT(zqhash != NULL);

    if (zqhash->hasharray) {
        zq_hash_clear(zqhash);
        ZQ_ASSERT(zqhash->entries == 0);
        zq_hash_array_destroy(zqhash->hasharray);
    }
    zq_free(zqhash);
}

static void zq_hash_discard_array(zqhash *zqhash, zqhasharray **array)
{
    if (!*array)
        return;
    zq_hash_array_clear(zqhash, *array);
    zq_hash_array_destroy(*array);
    *array = nullptr;
}

void zq_hash_clear(zqhash *zqhash)
{
    ZQ_ASSERT(zqhash != NULL);

    zq_hash_discard_array(zqhash, &zqhash->biggerarray);
    zq_hash_discard_array(zqhash, &zqhash->smallerarray);
    zq_hash_array_clear(zqhash, zqhash->hasharray);
    if (zqhash->hasharray->slotcount == zqhash->minslotcount)
        return;
    zqhasharray *array = zq_hash_array_create(zqhash->minslotcount);
    if (!array) {
        ZQ_LOG(7, "not enough memory to return the hash array to the minimum size, keeping the "
                  "current size");
        return;
    }
    zq_hash_array_destroy(zqhash->hasharray);
    zqhash->hasharray = array;
}

// ---- items ----

static void zq_hash_replace(zqhash *zqhash, zqhasharray *zqhasharray, unsigned long hash,
                            const void *item)
{
    void *old = zq_hash_array_remove(zqhash, zqhasharray, hash, item);
    if (old) {
        zqhash->destroycallback(old, zqhash->context);
        zqhash->entries--;
    }
}

void zq_hash_add(zqhash *zqhash, void *item)
{
    ZQ_ASSERT(zqhash != NULL);
    ZQ_ASSERT(item != NULL);

    unsigned long hash = zq_hash_calc(zqhash, item);
    zqhasharray *main = zqhash->hasharray;
    zqhasharray *target = zq_hash_target(zqhash);
    zq_hash_replace(zqhash, main, hash, item);
    if (target != main)
        zq_hash_replace(zqhash, target, hash, item);

    zq_hash_array_add(zqhash, target, hash, item);
    zqhash->entries++;
    if (target != main)
        zq_hash_move_one_item(zqhash, target);
    else if (main->entries >= main->slotcount - main->slotcount / 10)
        zq_hash_start_growing(zqhash);
}

void zq_hash_remove(zqhash *zqhash, void *item)
{
    ZQ_ASSERT(zqhash != NULL);
    ZQ_ASSERT(item != NULL);

    unsigned long hash = zq_hash_calc(zqhash, item);
    zqhasharray *main = zqhash->hasharray;
    zqhasharray *targethasharray = zq_hash_target(zqhash);
    bool resizing = targethasharray != main;
    // Membership counts only while resizing; a steady table takes the caller's word. Both are
    // meant.
    if (resizing && !zq_hash_array_check_item(zqhash, targethasharray, hash, item) &&
        !zq_hash_array_check_item(zqhash, main, hash, item))
        return;

    // Always the target's slot and count, even for an item still in the main array: meant, since
    // callers look the item up first, and that has moved it to the target.
    list_unlink(zq_hash_array_chain(targethasharray, hash), zq_hash_link(zqhash, item));
    ZQ_ASSERT(targethasharray->entries > 0);
    targethasharray->entries--;
    ZQ_ASSERT(zqhash->entries > 0);
    zqhash->entries--;

    if (resizing)
        zq_hash_move_one_item(zqhash, targethasharray);
    else if (main->entries <= main->slotcount / 10 && main->slotcount > zqhash->minslotcount)
        zq_hash_start_shrinking(zqhash);
}

void *zq_hash_lookup(zqhash *zqhash, const void *searchitem)
{
    ZQ_ASSERT(zqhash != NULL);
    ZQ_ASSERT(searchitem != NULL);

    unsigned long hash = zq_hash_calc(zqhash, searchitem);
    zqhasharray *main = zqhash->hasharray;
    zqhasharray *target = zq_hash_target(zqhash);
    void *item = zq_hash_array_lookup(zqhash, target, hash, searchitem);
    if (item || target == main)
        return item;

    item = zq_hash_array_lookup(zqhash, main, hash, searchitem);
    if (!item)
        return nullptr;
    void *it = zq_hash_array_remove(zqhash, main, hash, searchitem);
    ZQ_ASSERT(it == item);
    zq_hash_array_add(zqhash, target, hash, item);
    zq_hash_check_if_main_empty(zqhash);
    return item;
}

// ---- enumerating ----

void *zq_hash_enumerate_start(const zqhash *zqhash)
{
    ZQ_ASSERT(zqhash != NULL);

    const zqhasharray *target = zq_hash_target(zqhash);
    void *item = zq_hash_array_enumerate_start(zqhash, target);
    if (item || target == zqhash->hasharray)
        return item;
    return zq_hash_array_enumerate_start(zqhash, zqhash->hasharray);
}

void *zq_hash_enumerate_next(const zqhash *zqhash, const void *item)
{
    ZQ_ASSERT(zqhash != NULL);
    ZQ_ASSERT(item != NULL);

    const zqlistlink *link = zq_hash_link(zqhash, item);
    if (link->next)
        return zq_hash_item(zqhash, link->next);

    // The item ends its chain, and so its array is the one whose chain for it has this tail.
    unsigned long hash = zq_hash_calc(zqhash, item);
    const zqhasharray *main = zqhash->hasharray;
    const zqhasharray *array = zq_hash_target(zqhash);
    if (array != main && zq_hash_array_chain(array, hash)->tail != link) {
        array = main;
        if (zq_hash_array_chain(main, hash)->tail != link) {
            ZQ_LOG(6, "invalid hash item");
            ZQ_ASSERT(0);
        }
    }

    unsigned long slot = zq_hash_array_slot(array, hash) + 1;
    void *next = nullptr;
    if (slot < array->slotcount)
        next = zq_hash_array_enumerate_slot(zqhash, array, slot);
    if (!next && array != main)
        next = zq_hash_array_enumerate_start(zqhash, main);
    return next;
}

// ---- debugging ----

static void zq_hash_debug_array(const zqhasharray *zqhasharray, unsigned long *entries,
                                unsigned long *slots)
{
    if (entries)
        *entries = zqhasharray ? zqhasharray->entries : 0;
    if (slots)
        *slots = zqhasharray ? zqhasharray->slotcount : 0;
}

void zq_hash_debug_state(const zqhash *zqhash, unsigned long *mainentries, unsigned long *mainslots,
                         unsigned long *biggerentries, unsigned long *biggerslots,
                         unsigned long *smallerentries, unsigned long *smallerslots)
{
    ZQ_ASSERT(zqhash != NULL);

    zq_hash_debug_array(zqhash->hasharray, mainentries, mainslots);
    zq_hash_debug_array(zqhash->biggerarray, biggerentries, biggerslots);
    zq_hash_debug_array(zqhash->smallerarray, smallerentries, smallerslots);
}
