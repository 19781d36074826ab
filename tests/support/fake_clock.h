#ifndef TESTS_SUPPORT_FAKE_CLOCK_H
#define TESTS_SUPPORT_FAKE_CLOCK_H

#include <cstdint>

// The wall clock as gettimeofday() tells it to the whole program, which stands still for the
// lifetime of this object but for what the test does to it.
class FakeClock {
  public:
    explicit FakeClock(int64_t seconds = 1000000, int64_t microseconds = 0);
    ~FakeClock();
    FakeClock(const FakeClock &) = delete;
    FakeClock &operator=(const FakeClock &) = delete;

    // Negative microseconds set it back.
    void advance(int64_t microseconds);
    // Lets each read from now on find it so much later.
    void advance_with_each_read(int64_t microseconds);
    // How often it was read since the last call.
    int reads();
};

#endif
