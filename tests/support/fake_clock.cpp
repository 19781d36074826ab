#include "tests/support/fake_clock.h"

#include <atomic>
#include <sys/time.h>

#include "tests/support/interpose.h"

static std::atomic<bool> faked{false};
static std::atomic<int64_t> fake_time{0}; // in microseconds
static std::atomic<int> read_count{0};

FakeClock::FakeClock(int64_t seconds, int64_t microseconds)
{
    fake_time = seconds * 1000000 + microseconds;
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

int FakeClock::reads()
{
    return read_count.exchange(0);
}

extern "C" int gettimeofday(timeval *time, void *zone) noexcept
{
    if (!faked)
        return next_symbol<&gettimeofday>()(time, zone);
    read_count++;
    *time = {static_cast<time_t>(fake_time / 1000000),
             static_cast<suseconds_t>(fake_time % 1000000)};
    return 0;
}
