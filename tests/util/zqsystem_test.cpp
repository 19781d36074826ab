#include "zq/util/zqsystem.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <sys/select.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/interpose.h"
#include "tests/support/log_capture.h"

static Fault uname_fault;
static Fault gethostname_fault;
static Fault select_fault;
static std::string long_hostname;
static struct timeval slept;

extern "C" int uname(struct utsname *names) noexcept
{
    static auto *const next = next_symbol<int(struct utsname *)>("uname");
    if (int error = uname_fault.strike()) {
        errno = error;
        return -1;
    }
    return next(names);
}

extern "C" int gethostname(char *name, size_t size) noexcept
{
    static auto *const next = next_symbol<int(char *, size_t)>("gethostname");
    if (int error = gethostname_fault.strike()) {
        errno = error;
        return -1;
    }
    if (long_hostname.empty())
        return next(name, size);
    // As systems do that cut the name without terminating it.
    memcpy(name, long_hostname.data(), std::min(size, long_hostname.size()));
    return 0;
}

extern "C" int select(int count, fd_set *reads, fd_set *writes, fd_set *exceptions,
                      struct timeval *timeout)
{
    EXPECT_EQ(count, 0);
    EXPECT_FALSE(reads || writes || exceptions);
    slept = *timeout;
    return select_fault.strike() ? -1 : 0;
}

TEST(zqsystem, names)
{
    struct utsname names;
    ASSERT_EQ(uname(&names), 0);
    const struct {
        char *(*get)(void);
        std::string name;
    } rows[] = {
        {zq_gethostname, names.nodename},
        {zq_uname_sysname, names.sysname},
        {zq_uname_nodename, names.nodename},
        {zq_uname_version, std::string(names.release) + " " + names.version},
    };
    for (const auto &row : rows) {
        ZqString name(row.get());
        ASSERT_TRUE(name);
        EXPECT_EQ(name.get(), row.name);
    }
}

TEST(zqsystem, a_host_name_that_was_cut_is_terminated)
{
    long_hostname = std::string(300, 'h');
    ZqString name(zq_gethostname());
    long_hostname.clear();
    ASSERT_TRUE(name);
    EXPECT_EQ(name.get(), std::string(256, 'h'));
}

TEST(zqsystem, failures_are_logged)
{
    if (faults_injected())
        GTEST_SKIP() << "other failures come first";
    const struct {
        char *(*get)(void);
        Fault *fault; // or the allocation to fail
        long failing;
        std::vector<LogLine> lines;
    } rows[] = {
        {zq_gethostname, nullptr, 1, {{7, "not enough memory for gethostname() buffer"}}},
        {zq_gethostname, &gethostname_fault, 0, {{7, "gethostname() failed: errno 14"}}},
        {zq_gethostname, nullptr, 2, {{7, "not enough memory for hostname"}}},
        {zq_uname_sysname, &uname_fault, 0, {}},
        {zq_uname_sysname, nullptr, 1, {{7, "not enough memory for the operating system name"}}},
        {zq_uname_nodename, &uname_fault, 0, {{7, "uname() failed, errno 14"}}},
        {zq_uname_nodename, nullptr, 1, {{7, "not enough memory for the node name"}}},
        {zq_uname_version, &uname_fault, 0, {{7, "uname() returned an error"}}},
        {zq_uname_version, nullptr, 1, {{7, "not enough memory for the operating system version"}}},
    };
    for (const auto &row : rows) {
        if (!row.fault && !heap_is_watched())
            continue;
        LogCapture log;
        if (row.fault)
            row.fault->arm(EFAULT);
        HeapFailure failure(row.failing);
        EXPECT_EQ(row.get(), nullptr);
        EXPECT_EQ(log.take(), row.lines);
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
}

TEST(zqsystem, sleep_is_a_select_without_descriptors)
{
    EXPECT_EQ(zq_sleep(4000000000, 999999), 0);
    EXPECT_EQ(slept.tv_sec, 4000000000);
    EXPECT_EQ(slept.tv_usec, 999999);
    select_fault.arm(EINTR);
    EXPECT_EQ(zq_sleep(0, 1), -1);
}

TEST(zqsystem, time)
{
    time_t stored = 0;
    time_t before = time(nullptr);
    time_t told = zq_time(&stored);
    EXPECT_EQ(told, stored);
    EXPECT_LE(before, told);
    EXPECT_LE(told, zq_time(nullptr));

    struct tm expected = {};
    struct tm local = {};
    localtime_r(&told, &expected);
    EXPECT_EQ(zq_localtime_r(&told, &local), &local);
    EXPECT_EQ(mktime(&local), mktime(&expected));
    time_t never = INT64_MAX;
    EXPECT_EQ(zq_localtime_r(&never, &local), nullptr);
}

TEST(zqsystem, null_is_misuse)
{
    struct tm local;
    time_t now = 0;
    const struct {
        const char *function;
        const char *expression;
        std::function<void()> call;
    } rows[] = {
        {"zq_setenv", "name != NULL", [] { zq_setenv(nullptr, "", 1); }},
        {"zq_setenv", "value != NULL", [] { zq_setenv("A", nullptr, 1); }},
        {"zq_unsetenv", "name != NULL", [] { zq_unsetenv(nullptr); }},
        {"zq_localtime_r", "timep", [&] { zq_localtime_r(nullptr, &local); }},
        {"zq_localtime_r", "result", [&] { zq_localtime_r(&now, nullptr); }},
    };
    for (const auto &row : rows)
        EXPECT_MISUSE(row.call(), "util/zqsystem", row.function, row.expression);
}
