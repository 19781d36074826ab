#include "zq/util/zqsystem.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <sys/select.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/log_capture.h"
#include "tests/support/system_calls.h"

static std::string hostname = "host";
static struct timeval slept;

extern "C" int uname(struct utsname *names) noexcept
{
    return SystemCalls::make({"uname"}, [names](size_t) {
        *names = {"system", "node", "release", "version", "machine", ""};
        return 0;
    });
}

// As systems do that cut the name without terminating it.
extern "C" int gethostname(char *name, size_t size) noexcept
{
    return SystemCalls::make({"gethostname"}, [name, size](size_t) {
        memcpy(name, hostname.c_str(), std::min(size, hostname.size() + 1));
        return 0;
    });
}

extern "C" int select(int count, fd_set *reads, fd_set *writes, fd_set *exceptions,
                      struct timeval *timeout)
{
    return SystemCalls::make({"select"}, [=](size_t) {
        EXPECT_TRUE(count == 0 && !reads && !writes && !exceptions);
        slept = *timeout;
        return 0;
    });
}

TEST(zqsystem, names)
{
    const std::pair<char *(*)(), const char *> rows[] = {{zq_gethostname, "host"},
                                                         {zq_uname_sysname, "system"},
                                                         {zq_uname_nodename, "node"},
                                                         {zq_uname_version, "release version"}};
    for (const auto &[get, expected] : rows) {
        ZqString name(get());
        ASSERT_TRUE(name);
        EXPECT_STREQ(name.get(), expected);
    }
    hostname = std::string(300, 'h');
    ZqString cut(zq_gethostname());
    hostname = "host";
    ASSERT_TRUE(cut);
    EXPECT_EQ(cut.get(), std::string(256, 'h'));
}

TEST(zqsystem, failures_are_logged)
{
    if (!heap_is_watched())
        GTEST_SKIP();
    const struct {
        char *(*get)(void);
        long failing; // the allocation, or 0 for the system call
        const char *line;
    } rows[] = {{zq_gethostname, 0, "gethostname() failed: errno 14"},
                {zq_gethostname, 1, "not enough memory for gethostname() buffer"},
                {zq_gethostname, 2, "not enough memory for hostname"},
                {zq_uname_sysname, 0, nullptr},
                {zq_uname_sysname, 1, "not enough memory for the operating system name"},
                {zq_uname_nodename, 0, "uname() failed, errno 14"},
                {zq_uname_nodename, 1, "not enough memory for the node name"},
                {zq_uname_version, 0, "uname() returned an error"},
                {zq_uname_version, 1, "not enough memory for the operating system version"}};
    for (const auto &row : rows) {
        LogCapture log;
        std::optional<SystemCalls> calls;
        if (row.failing == 0)
            calls.emplace([](const SystemCall &) { return EFAULT; });
        HeapFailure failure(row.failing);
        EXPECT_EQ(row.get(), nullptr);
        std::vector<LogLine> lines;
        if (row.line)
            lines.push_back({7, row.line});
        EXPECT_EQ(log.take(), lines);
    }
}

TEST(zqsystem, environment)
{
    EXPECT_EQ(zq_setenv("ZQ_TEST_NAME", "one", 0), 0);
    EXPECT_EQ(zq_setenv("ZQ_TEST_NAME", "two", 0), 0);
    EXPECT_STREQ(getenv("ZQ_TEST_NAME"), "one");
    EXPECT_EQ(zq_setenv("ZQ_TEST_NAME", "two", 1), 0);
    EXPECT_STREQ(getenv("ZQ_TEST_NAME"), "two");
    EXPECT_EQ(zq_unsetenv("ZQ_TEST_NAME"), 0);
    EXPECT_EQ(getenv("ZQ_TEST_NAME"), nullptr);
    EXPECT_EQ(zq_setenv("A=B", "", 1), -1);
    EXPECT_EQ(zq_unsetenv("A=B"), -1);
    EXPECT_MISUSE(zq_setenv("A", nullptr, 1), "util/zqsystem", "zq_setenv", "value != NULL");
}

TEST(zqsystem, sleep_is_a_select_without_descriptors)
{
    EXPECT_EQ(zq_sleep(4000000000, 999999), 0);
    EXPECT_EQ(slept.tv_sec, 4000000000);
    EXPECT_EQ(slept.tv_usec, 999999);
    SystemCalls calls(failing("select", EINTR));
    EXPECT_EQ(zq_sleep(0, 1), -1);
}

TEST(zqsystem, time)
{
    time_t stored = 0;
    const time_t before = time(nullptr);
    const time_t now = zq_time(&stored);
    EXPECT_EQ(now, stored);
    EXPECT_LE(before, stored);
    EXPECT_LE(stored, zq_time(nullptr));
    struct tm local = {};
    EXPECT_EQ(zq_localtime_r(&stored, &local), &local);
    EXPECT_EQ(mktime(&local), stored);
    time_t never = INT64_MAX;
    EXPECT_EQ(zq_localtime_r(&never, &local), nullptr);
    EXPECT_MISUSE(zq_localtime_r(&never, nullptr), "util/zqsystem", "zq_localtime_r", "result");
}
