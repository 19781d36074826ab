#include "zq/util/zqmallocfail.h"

#include <cstdlib>

void *zq_mallocfail_malloc(size_t size)
{
    return malloc(size);
}

void *zq_mallocfail_calloc(size_t count, size_t size)
{
    return calloc(count, size);
}

void zq_mallocfail_uninit(void) {}
