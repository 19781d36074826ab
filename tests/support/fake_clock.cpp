#include "tests/support/fake_clock.h"

#include <atomic>
#include <sys/time.h>

#include "tests/support/interpose.h"

static std::atomic<bool> faked{false};
static std::atomic<int64_t> fake_time{0}; // in microseconds
static std::atomic<int64_t> step{0};      // with each read
static std::atomic<int> read_count{0};

FakeClock::FakeClock(int64_t seconds, int64_t microseconds)
{
    fake_time = seconds * 1000000 + microseconds;
    step = 0;
    read_count = 0;
    faked = true;
}

FakeClock::~FakeClock()
{
    faked = false;
}

void FakeClock::advance(int64_t microseconds)
{
    fake_time += microseconds;
}

void FakeClock::advance_with_each_read(int64_t microseconds)
{
    step = microseconds;
}

int FakeClock::reads()
{
    return read_count.exchange(0);
}

extern "C" int gettimeofday(timeval *time, void *zone) noexcept
{
    if (!faked)
        return next_symbol<&gettimeofday>()(time, zone);
    read_count++;
    const int64_t now = fake_time += step;
    *time = {static_cast<time_t>(now / 1000000), static_cast<suseconds_t>(now % 1000000)};
    return 0;
}
