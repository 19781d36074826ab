#ifndef TESTS_SUPPORT_HEAP_H
#define TESTS_SUPPORT_HEAP_H

// A program that includes this has its own malloc() and calloc() in front of the system's, which
// can count and fail the allocations of a thread.

// False under ThreadSanitizer, where it cannot, and while the library injects faults, where nobody
// can tell which allocation is to fail.
bool heap_is_watched();

// The allocations that this thread has asked for so far.
long heap_allocations();

// Lets the n-th allocation from now on fail, 1 being the next one, in this thread and while the
// object lives.
class HeapFailure {
  public:
    explicit HeapFailure(long nth);
    ~HeapFailure();
    HeapFailure(const HeapFailure &) = delete;
    HeapFailure &operator=(const HeapFailure &) = delete;
};

#endif
