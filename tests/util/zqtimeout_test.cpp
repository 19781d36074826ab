#include "zq/util/zqtimeout.h"

#include "tests/support/expect.h"
#include "tests/support/fake_clock.h"

using Timeout = Owned<zqtimeout, zq_timeout_destroy>;

namespace {
struct Check {
    int64_t advance; // microseconds before it
    int result;
    int32_t seconds;
    uint32_t microseconds;
};

struct Row {
    const char *what;
    int32_t seconds;
    uint32_t microseconds;
    std::vector<Check> checks;
};
} // namespace

TEST(zqtimeout, check_takes_off_the_time_since_the_last_one)
{
    const Row rows[] = {
        {"counts down, expires, stays expired",
         2,
         0,
         {{500000, 0, 1, 500000}, {1600000, 1, 0, 0}, {0, 1, 0, 0}, {5000000, 1, 0, 0}}},
        {"borrows a second", 2, 100000, {{200000, 0, 1, 900000}, {900000, 0, 1, 0}}},
        {"one microsecond is left", 0, 300000, {{299999, 0, 0, 1}, {1, 1, 0, 0}}},
        {"using it up exactly is expiry", 3, 5, {{3000005, 1, 0, 0}}},
        {"same seconds, fewer microseconds", 3, 5, {{3000004, 0, 0, 1}}},
        {"nothing is expired at once", 0, 0, {{0, 1, 0, 0}}},
        {"set back by less than a second", 2, 0, {{-700000, 0, 2, 0}, {500000, 0, 1, 500000}}},
        {"set back by much", 0, 10, {{-900000000, 0, 0, 10}, {9, 0, 0, 1}, {1, 1, 0, 0}}},
        {"unlimited", -1, 0, {{0, -1, -1, 0}, {9000000, -1, -1, 0}}},
        {"any negative value is unlimited", -5, 7, {{9000000, -1, -1, 0}}},
        {"the longest", INT32_MAX, 999999, {{1, 0, INT32_MAX, 999998}}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        // Late in its second, so that differences carry into the next one.
        FakeClock clock(1000000, 900000);
        Timeout timeout(zq_timeout_create());
        ASSERT_TRUE(timeout);
        zq_timeout_set(timeout.get(), row.seconds, row.microseconds);
        EXPECT_EQ(clock.reads(), row.seconds < 0 ? 0 : 1);
        for (const Check &check : row.checks) {
            clock.advance(check.advance);
            int32_t seconds = 77;
            uint32_t microseconds = 77;
            EXPECT_EQ(zq_timeout_check(timeout.get(), &seconds, &microseconds), check.result);
            EXPECT_EQ(seconds, check.seconds);
            EXPECT_EQ(microseconds, check.microseconds);
            EXPECT_EQ(clock.reads(), row.seconds < 0 ? 0 : 1);
        }
    }
}

TEST(zqtimeout, reset_sets_and_reports_the_pair_as_given)
{
    const std::pair<int32_t, uint32_t> rows[] = {{3, 4}, {0, 0}, {-1, 0}, {-5, 7}};
    for (const auto &[given_seconds, given_microseconds] : rows) {
        SCOPED_TRACE(given_seconds);
        FakeClock clock;
        Timeout timeout(zq_timeout_create());
        ASSERT_TRUE(timeout);
        EXPECT_EQ(zq_timeout_check(timeout.get(), nullptr, nullptr), 1) << "expired until set";
        zq_timeout_set(timeout.get(), given_seconds, given_microseconds);
        clock.advance(2500000);
        zq_timeout_check(timeout.get(), nullptr, nullptr);
        int32_t seconds = 77;
        uint32_t microseconds = 77;
        zq_timeout_reset(timeout.get(), &seconds, &microseconds);
        EXPECT_EQ(seconds, given_seconds);
        EXPECT_EQ(microseconds, given_microseconds);
        zq_timeout_reset(timeout.get(), nullptr, nullptr);
        int result = zq_timeout_check(timeout.get(), &seconds, &microseconds);
        EXPECT_EQ(result, given_seconds < 0 ? -1 : given_seconds == 0);
        EXPECT_EQ(seconds, given_seconds < 0 ? -1 : given_seconds);
        EXPECT_EQ(microseconds, given_seconds < 0 ? 0 : given_microseconds);
    }
}

TEST(zqtimeout, misuse)
{
    const char *source = "util/zqtimeout", *null = "zqtimeout != NULL";
    Timeout timeout(zq_timeout_create());
    ASSERT_TRUE(timeout);
    EXPECT_MISUSE(zq_timeout_set(timeout.get(), 0, 1000000), source, "zq_timeout_set",
                  "microseconds < 1000000");
    EXPECT_MISUSE(zq_timeout_set(nullptr, 0, 0), source, "zq_timeout_set", null);
    EXPECT_MISUSE(zq_timeout_check(nullptr, nullptr, nullptr), source, "zq_timeout_check", null);
    EXPECT_MISUSE(zq_timeout_reset(nullptr, nullptr, nullptr), source, "zq_timeout_reset", null);
    EXPECT_MISUSE(zq_timeout_destroy(nullptr), source, "zq_timeout_destroy", null);
}
