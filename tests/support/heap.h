#ifndef TESTS_SUPPORT_HEAP_H
#define TESTS_SUPPORT_HEAP_H

// A program that includes this has its own malloc(), calloc() and realloc() in front of the
// system's, which can count and fail the allocations of a thread.

// False under ThreadSanitizer, where it cannot, and while the library injects faults, where nobody
// can tell which allocation is to fail.
bool heap_is_watched();

// The allocations that this thread has asked for so far, those of realloc() left out.
long heap_allocations();

// Lets the n-th allocation from now on fail, 1 being the next one, in this thread and while the
// object lives. Those of realloc(), which the library does not inject faults into, are counted
// apart.
class HeapFailure {
  public:
    enum Calls { ALLOCATIONS, REALLOCATIONS };
    explicit HeapFailure(long nth, Calls calls = ALLOCATIONS);
    ~HeapFailure();
    HeapFailure(const HeapFailure &) = delete;
    HeapFailure &operator=(const HeapFailure &) = delete;
};

#endif
