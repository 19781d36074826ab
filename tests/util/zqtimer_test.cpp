#include "zq/util/zqtimer.h"

#include <cmath>

#include "tests/support/expect.h"
#include "tests/support/fake_clock.h"

using Timer = Owned<zqtimer, zq_timer_destroy>;

static void expect(decltype(zq_timer_getsplit) *get, const Timer &timer, uint64_t amount,
                   int32_t seconds, uint32_t microseconds, double rate)
{
    int32_t got_seconds;
    uint32_t got_microseconds;
    double got_rate;
    get(timer.get(), amount, &got_seconds, &got_microseconds, &got_rate);
    EXPECT_EQ(got_seconds, seconds);
    EXPECT_EQ(got_microseconds, microseconds);
    EXPECT_DOUBLE_EQ(got_rate, rate);
}

TEST(zqtimer, measures_from_the_start_and_from_the_stored_split)
{
    FakeClock clock(1000000, 900000);
    Timer timer(zq_timer_create());
    ASSERT_TRUE(timer);
    EXPECT_EQ(clock.reads(), 1);

    clock.advance(2000000);
    zq_timer_split(timer.get());
    expect(zq_timer_gettotal, timer, 1000000, 2, 0, 500000.0);
    expect(zq_timer_getsplit, timer, 1000000, 2, 0, 500000.0);

    zq_timer_storesplit(timer.get());
    clock.advance(250000);
    expect(zq_timer_gettotal, timer, 10, 2, 0, 5.0);
    zq_timer_split(timer.get());
    EXPECT_EQ(clock.reads(), 2);
    expect(zq_timer_getsplit, timer, 10, 0, 250000, 40.0);
    expect(zq_timer_gettotal, timer, 9, 2, 250000, 4.0);
    expect(zq_timer_gettotal, timer, UINT64_MAX, 2, 250000, 18446744073709551616.0 / 2.25);

    zq_timer_start(timer.get());
    EXPECT_EQ(clock.reads(), 1);
    clock.advance(-300000);
    zq_timer_split(timer.get());
    expect(zq_timer_gettotal, timer, 3, -1, 700000, -10.0);
    expect(zq_timer_getsplit, timer, 0, -1, 700000, -0.0);
}

TEST(zqtimer, no_time_gives_what_floating_point_gives)
{
    FakeClock clock;
    Timer timer(zq_timer_create());
    ASSERT_TRUE(timer);
    expect(zq_timer_gettotal, timer, 1, 0, 0, INFINITY);
    double rate = 0;
    zq_timer_getsplit(timer.get(), 0, nullptr, nullptr, &rate);
    EXPECT_TRUE(std::isnan(rate));
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
    EXPECT_MISUSE(zq_timer_getsplit(nullptr, 0, nullptr, nullptr, nullptr), source,
                  "zq_timer_getsplit", null);
    EXPECT_MISUSE(zq_timer_gettotal(nullptr, 0, nullptr, nullptr, nullptr), source,
                  "zq_timer_gettotal", null);
}
