#include "zq/internal/zqbodystore.h"

#include <cstring>

#include "zq/util/zqmalloc.h"

bool body_store_append(body_store *store, const void *data, size_t size)
{
    if (!store->data || store->size - store->position < size) {
        size_t needed;
        if (__builtin_add_overflow(store->position, size, &needed))
            return false;
        void *grown = zq_realloc(store->data, needed);
        if (!grown)
            return false;
        store->data = static_cast<unsigned char *>(grown);
        store->size = needed;
    }
    memcpy(store->data + store->position, data, size);
    store->position += size;
    return true;
}

void body_store_clear(body_store *store)
{
    zq_free(store->data);
    *store = {};
}
