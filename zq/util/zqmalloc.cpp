#include "zq/util/zqmalloc.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/util/zqmallocfail.h"
#include "zq/util/zqprintf.h"

enum : int { FAULT_UNDETERMINED = -1, FAULT_OFF = 0, FAULT_ON = 1 };

static std::atomic<int> fault_mode{FAULT_UNDETERMINED};

[[gnu::cold, gnu::noinline]] static int zq_malloc_decide_fault_mode()
{
    int mode = FAULT_OFF;
    if (getenv("ZQMALLOC_FAILMODE")) {
        zq_stdio_printf_stderr("ZQMALLOC_FAILMODE enabled!\n");
        mode = FAULT_ON;
    }
    fault_mode.store(mode, std::memory_order_relaxed);
    return mode;
}

static bool zq_malloc_injects_faults()
{
    int mode = fault_mode.load(std::memory_order_relaxed);
    if (mode == FAULT_UNDETERMINED) [[unlikely]]
        mode = zq_malloc_decide_fault_mode();
    return mode == FAULT_ON;
}

void *zq_malloc(size_t size)
{
    if (zq_malloc_injects_faults()) [[unlikely]]
        return zq_mallocfail_malloc(size);
    return malloc(size);
}

void *zq_calloc(size_t count, size_t size)
{
    if (zq_malloc_injects_faults()) [[unlikely]]
        return zq_mallocfail_calloc(count, size);
    return calloc(count, size);
}

void *zq_cmalloc(size_t size)
{
    return zq_calloc(1, size);
}

void *zq_realloc(void *ptr, size_t size)
{
    return realloc(ptr, size ? size : 1);
}

void zq_free(void *ptr)
{
    free(ptr);
}

void *zq_memdup(const void *memory, size_t size)
{
    ZQ_ASSERT(memory != NULL);

    void *copy = zq_malloc(size ? size : 1);
    if (copy)
        memcpy(copy, memory, size);
    return copy;
}

void zq_malloc_uninit(void)
{
    zq_mallocfail_uninit();
}
