#ifndef ZQ_INTERNAL_ZQCLOCK_H
#define ZQ_INTERNAL_ZQCLOCK_H

#include <cstdint>
#include <sys/time.h>

// A span of wall clock time, or with negative seconds how far the clock was set back.
struct clock_span {
    int64_t seconds;
    uint32_t microseconds; // always counted forward, below a million
};

inline timeval clock_now()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return now;
}

// `to` minus `from`, of pairs whose microseconds are below a million.
inline clock_span clock_subtract(int64_t to_seconds, int64_t to_microseconds, int64_t from_seconds,
                                 int64_t from_microseconds)
{
    int64_t seconds = to_seconds - from_seconds;
    int64_t microseconds = to_microseconds - from_microseconds;
    if (microseconds < 0) {
        microseconds += 1000000;
        seconds--;
    }
    return {seconds, static_cast<uint32_t>(microseconds)};
}

inline clock_span clock_between(const timeval &from, const timeval &to)
{
    return clock_subtract(to.tv_sec, to.tv_usec, from.tv_sec, from.tv_usec);
}

#endif
