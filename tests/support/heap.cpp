#include "tests/support/heap.h"

#include <cstddef>

#include "tests/support/expect.h"
#include "tests/support/interpose.h"

// By the kind of calls.
static thread_local long asked_for[2];
static thread_local long failing[2]; // the number of the allocation to fail, 0 for none

HeapFailure::HeapFailure(long nth, Calls calls)
{
    failing[calls] = asked_for[calls] + nth;
}

HeapFailure::~HeapFailure()
{
    failing[ALLOCATIONS] = failing[REALLOCATIONS] = 0;
}

long heap_allocations()
{
    return asked_for[HeapFailure::ALLOCATIONS];
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

NOT_INSTRUMENTED static bool next_fails(HeapFailure::Calls calls = HeapFailure::ALLOCATIONS)
{
    return ++asked_for[calls] == failing[calls];
}

extern "C" void *malloc(size_t size)
{
    return next_fails() ? nullptr : next_symbol<&malloc>()(size);
}

extern "C" void *calloc(size_t count, size_t size)
{
    return next_fails() ? nullptr : next_symbol<&calloc>()(count, size);
}

extern "C" void *realloc(void *block, size_t size)
{
    return next_fails(HeapFailure::REALLOCATIONS) ? nullptr : next_symbol<&realloc>()(block, size);
}

#endif
