#include "tests/support/heap.h"

#include <cstddef>

#include "tests/support/expect.h"
#include "tests/support/interpose.h"

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
    return !faults_injected();
}

static bool next_fails()
{
    return ++allocations == failing;
}

extern "C" void *malloc(size_t size)
{
    static auto *real = next_symbol<void *(size_t)>("malloc");
    return next_fails() ? nullptr : real(size);
}

extern "C" void *calloc(size_t count, size_t size)
{
    static auto *real = next_symbol<void *(size_t, size_t)>("calloc");
    return next_fails() ? nullptr : real(count, size);
}

#endif
