#ifndef ZQ_INTERNAL_ZQBODYSTORE_H
#define ZQ_INTERNAL_ZQBODYSTORE_H

#include "zq/zqdefs.h"

// A received body, grown to exactly what arrived: bodies are kept long and appended to briefly.
struct body_store {
    unsigned char *data;
    size_t size;     // bytes allocated
    size_t position; // bytes stored
};

// False when out of memory, the store then being unchanged.
bool body_store_append(body_store *store, const void *data, size_t size);

void body_store_clear(body_store *store);

#endif
