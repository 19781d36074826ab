#include "zq/util/zqtimer.h"

#include <cmath>
#include <gtest/gtest.h>

#include "tests/support/expect.h"
#include "tests/support/fake_clock.h"

using Timer = Owned<zqtimer, zq_timer_destroy>;

namespace {
struct Reading {
    int32_t seconds;
    uint32_t microseconds;
    double rate;
};
} // namespace

static Reading get_split(zqtimer *timer, uint64_t amount)
{
    Reading reading;
    zq_timer_getsplit(timer, amount, &reading.seconds, &reading.microseconds, &reading.rate);
    return reading;
}

static Reading get_total(zqtimer *timer, uint64_t amount)
{
    Reading reading;
    zq_timer_gettotal(timer, amount, &reading.seconds, &reading.microseconds, &reading.rate);
    return reading;
}

static void expect_reading(const Reading &reading, int32_t seconds, uint32_t microseconds,
                           double rate)
{
    EXPECT_EQ(reading.seconds, seconds);
    EXPECT_EQ(reading.microseconds, microseconds);
    EXPECT_DOUBLE_EQ(reading.rate, rate);
}

TEST(zqtimer, measures_from_the_start_and_from_the_stored_split)
{
    FakeClock clock(1000000, 900000);
    Timer timer(zq_timer_create());
    ASSERT_TRUE(timer);
    EXPECT_EQ(clock.reads(), 1);

    clock.advance(2000000);
    zq_timer_split(timer.get());
    expect_reading(get_total(timer.get(), 1000000), 2, 0, 500000.0);
    expect_reading(get_split(timer.get(), 1000000), 2, 0, 500000.0);

    zq_timer_storesplit(timer.get());
    clock.advance(250000);
    expect_reading(get_total(timer.get(), 10), 2, 0, 5.0);
    zq_timer_split(timer.get());
    EXPECT_EQ(clock.reads(), 2);
    expect_reading(get_split(timer.get(), 10), 0, 250000, 40.0);
    expect_reading(get_total(timer.get(), 9), 2, 250000, 4.0);
    expect_reading(get_total(timer.get(), UINT64_MAX), 2, 250000, 18446744073709551616.0 / 2.25);

    zq_timer_start(timer.get());
    EXPECT_EQ(clock.reads(), 1);
    clock.advance(-300000);
    zq_timer_split(timer.get());
    expect_reading(get_total(timer.get(), 3), -1, 700000, -10.0);
    expect_reading(get_split(timer.get(), 0), -1, 700000, -0.0);
}

TEST(zqtimer, no_time_gives_what_floating_point_gives)
{
    FakeClock clock;
    Timer timer(zq_timer_create());
    ASSERT_TRUE(timer);
    EXPECT_TRUE(std::isinf(get_total(timer.get(), 1).rate));
    EXPECT_TRUE(std::isnan(get_split(timer.get(), 0).rate));
    zq_timer_getsplit(timer.get(), 1, nullptr, nullptr, nullptr);
    zq_timer_gettotal(timer.get(), 1, nullptr, nullptr, nullptr);
}

TEST(zqtimer, misuse)
{
    const char *source = "util/zqtimer", *null = "zqtimer != NULL";
    EXPECT_MISUSE(zq_timer_destroy(nullptr), source, "zq_timer_destroy", null);
    EXPECT_MISUSE(zq_timer_start(nullptr), source, "zq_timer_start", null);
    EXPECT_MISUSE(zq_timer_split(nullptr), source, "zq_timer_split", null);
    EXPECT_MISUSE(zq_timer_storesplit(nullptr), source, "zq_timer_storesplit", null);
    EXPECT_MISUSE(get_split(nullptr, 0), source, "zq_timer_getsplit", null);
    EXPECT_MISUSE(get_total(nullptr, 0), source, "zq_timer_gettotal", null);
}
