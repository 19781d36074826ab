#include "tests/support/heap.h"

#include <cstddef>
#include <dlfcn.h>

static thread_local long allocations;
static thread_local long failing; // the number of the allocation to fail, 0 for none

HeapFailure::HeapFailure(long nth)
{
    failing = allocations + nth;
}

HeapFailure::~HeapFailure()
{
    failing = 0;
}

long heap_allocations()
{
    return allocations;
}

// ThreadSanitizer cannot stand a call of instrumented code before it has set itself up.
#ifdef __SANITIZE_THREAD__

bool heap_is_watched()
{
    return false;
}

#else

bool heap_is_watched()
{
    return true;
}

static bool next_fails()
{
    return ++allocations == failing;
}

extern "C" void *malloc(size_t size)
{
    static auto *real = reinterpret_cast<void *(*)(size_t)>(dlsym(RTLD_NEXT, "malloc"));
    return next_fails() ? nullptr : real(size);
}

extern "C" void *calloc(size_t count, size_t size)
{
    static auto *real = reinterpret_cast<void *(*)(size_t, size_t)>(dlsym(RTLD_NEXT, "calloc"));
    return next_fails() ? nullptr : real(count, size);
}

#endif
