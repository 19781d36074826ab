#ifndef FUZZ_SUPPORT_CLOCK_H
#define FUZZ_SUPPORT_CLOCK_H

#include <cstdint>
#include <sys/time.h>

// The wall clock of the fuzzer that includes this (once), in microseconds. It stands still but for
// what the fuzzer does to it; each run sets it.
inline int64_t fake_time = 0;

extern "C" int gettimeofday(timeval *time, void *) noexcept
{
    *time = {fake_time / 1000000, fake_time % 1000000};
    return 0;
}

#endif
