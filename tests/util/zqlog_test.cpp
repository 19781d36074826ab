#include "zq/util/zqlog.h"

#include <atomic>
#include <barrier>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <map>
#include <set>
#include <sstream>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/interpose.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "zq/internal/zqlogline.h"

using testing::ElementsAre;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

using Log = Owned<zqlog, zq_log_destroy>;

// 2026-01-31 23:59:07 UTC
static constexpr time_t NOW = 1769903947;
static constexpr char STAMP[] = "2026-01-31 23:59:07 ";

extern "C" time_t time(time_t *out) noexcept
{
    if (out)
        *out = NOW;
    return NOW;
}

// ---- syslog ----

struct SyslogLine {
    int priority;
    std::string format;
    std::string text;
    bool operator==(const SyslogLine &) const = default;
};

static void PrintTo(const SyslogLine &line, std::ostream *out)
{
    *out << line.priority << " '" << line.format << "' " << line.text;
}

static std::vector<SyslogLine> syslog_lines;

static void receive_syslog(int priority, const char *format, va_list ap)
{
    char text[4096];
    vsnprintf(text, sizeof(text), format, ap);
    syslog_lines.push_back({priority, format, text});
}

extern "C" void syslog(int priority, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    receive_syslog(priority, format, ap);
    va_end(ap);
}

// What syslog() becomes where the C library's checks are compiled in.
extern "C" void __syslog_chk(int priority, int, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    receive_syslog(priority, format, ap);
    va_end(ap);
}

static std::vector<SyslogLine> take_syslog()
{
    return std::move(syslog_lines);
}

// ---- a log under test ----

struct Received {
    std::string message;
    unsigned int level;
    time_t time;
    bool operator==(const Received &) const = default;
};

static void PrintTo(const Received &line, std::ostream *out)
{
    *out << line.level << " " << line.message;
}

static int receive(const char *message, size_t length, unsigned int level, time_t time,
                   void *userdata)
{
    auto *lines = static_cast<std::vector<Received> *>(userdata);
    lines->push_back({std::string(message, length), level, time});
    return 0;
}

static int refuse(const char *, size_t, unsigned int, time_t, void *)
{
    return 7;
}

// A log without outputs.
static Log quiet_log()
{
    Log log(zq_log_create());
    if (log)
        zq_log_stderr_disable(log.get());
    return log;
}

static int log_macro_path(zqlog *zqlog, unsigned int level, const char *text)
{
    zq_log_macro_mutex_lock();
    zq_log_macro_set_values(zqlog, level, "net/zqsocket", 998);
    int result = zq_log_macro_format("%s", text);
    zq_log_macro_mutex_unlock();
    return result;
}

class zqlog_test : public testing::Test {
  protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        home = std::filesystem::current_path();
        syslog_lines.clear();
    }

    void TearDown() override
    {
        std::filesystem::current_path(home);
        zq_log_uninit();
    }

    // For tests of files without a name: a working directory of the test's own. The walk keeps its
    // database in the one it started in.
    bool enter_scratch()
    {
        if (faults_injected())
            return false;
        std::filesystem::current_path(scratch.path());
        return true;
    }

    Scratch scratch;

  private:
    std::filesystem::path home;
};

// ---- lines ----

TEST_F(zqlog_test, a_fresh_log_writes_levels_0_to_8_to_standard_error)
{
    Log log(zq_log_create());
    ASSERT_TRUE(log);
    std::string expected;
    CaptureStderr();
    CaptureStdout();
    for (unsigned int level = 0; level <= 17; level++) {
        EXPECT_EQ(zq_log_raw(log.get(), level, "level %u", level), 0);
        if (level <= 8)
            expected += "level " + std::to_string(level) + "\n";
    }
    EXPECT_EQ(zq_log_raw(log.get(), UINT32_MAX, "largest level"), 0);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(GetCapturedStderr(), expected);
}

// All ways to write a line, to all streams.
TEST_F(zqlog_test, layout)
{
    const struct {
        const char *name;
        int (*write)(zqlog *);
        std::string line;
    } rows[] = {
        {"zq_log", [](zqlog *log) { return zq_log(log, 7, "100%% of %s", "it"); },
         STAMP + std::string("100% of it\n")},
        {"zq_log_raw", [](zqlog *log) { return zq_log_raw(log, 7, "100%% of %s", "it"); },
         "100% of it\n"},
        {"zq_log_macro",
         [](zqlog *log) { return zq_log_macro(log, 3, "io/zqdir", 161, "100%% of %s", "it"); },
         STAMP + std::string("io/zqdir:161[3] 100% of it\n")},
        {"macro path", [](zqlog *log) { return log_macro_path(log, 7, "unable to write"); },
         STAMP + std::string("net/zqsocket:998[7] unable to write\n")},
        {"empty", [](zqlog *log) { return zq_log(log, 7, "%s", ""); }, STAMP + std::string("\n")},
        {"raw empty", [](zqlog *log) { return zq_log_raw(log, 7, "%s", ""); }, "\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Log log(zq_log_create());
        ASSERT_TRUE(log);
        const std::string name = scratch.file(row.name);
        CaptureStdout();
        CaptureStderr();
        zq_log_raw(log.get(), 8, "a first line as long as any prefix");
        GetCapturedStderr();

        zq_log_stdout_enable(log.get());
        zq_log_logfile_enable(log.get());
        bool named = zq_log_logfile_set_name(log.get(), name.c_str()) == 0;
        CaptureStderr();
        int result = named ? row.write(log.get()) : -1;
        std::string standard_error = GetCapturedStderr();
        EXPECT_EQ(GetCapturedStdout(), row.line);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(standard_error, row.line);
        EXPECT_EQ(read_file(name), row.line);
    }
}

TEST_F(zqlog_test, messages_may_be_long)
{
    Log log = quiet_log();
    ASSERT_TRUE(log);
    std::vector<Received> lines;
    std::vector<Received> expected;
    zq_log_callback_set(log.get(), receive, &lines);
    zq_log_callback_enable(log.get());
    for (size_t length : {0u, 10u, 11u, 5u, 100000u, 0u, 300000u, 20u}) {
        std::string text(length, 'x');
        if (zq_log(log.get(), 16, "%s", text.c_str()) == 0)
            expected.push_back({text, 16, NOW});
    }
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(lines.size(), 8u);
}

TEST_F(zqlog_test, what_cannot_be_rendered_fails)
{
    Log log(zq_log_create());
    ASSERT_TRUE(log);
    constexpr wint_t no_character = 0x7FFFFFFF;
    CaptureStderr();
    EXPECT_EQ(zq_log(log.get(), 1, "%lc", no_character), -1);
    EXPECT_EQ(zq_log_raw(log.get(), 1, "%lc", no_character), -1);
    zq_log_macro_set_values(log.get(), 1, "a", 1);
    EXPECT_EQ(zq_log_macro_format("%lc", no_character), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
}

// ---- outputs and thresholds ----

namespace {
struct Output {
    const char *name;
    int default_level;
    void (*enable)(zqlog *);
    void (*disable)(zqlog *);
    void (*set_level)(zqlog *, int);
};
} // namespace

static const Output outputs[] = {
    {"callback", 16, zq_log_callback_enable, zq_log_callback_disable, zq_log_callback_set_level},
    {"file", 8, zq_log_logfile_enable, zq_log_logfile_disable, zq_log_logfile_set_level},
    {"stdout", 8, zq_log_stdout_enable, zq_log_stdout_disable, zq_log_stdout_set_level},
    {"stderr", 8, zq_log_stderr_enable, zq_log_stderr_disable, zq_log_stderr_set_level},
    {"syslog", 8, zq_log_syslog_enable, zq_log_syslog_disable, zq_log_syslog_set_level},
};

class zqlog_outputs : public zqlog_test {
  protected:
    // Prepares all outputs of a log, none being enabled. False when memory runs out.
    bool prepare(zqlog *log)
    {
        zq_log_stderr_disable(log);
        zq_log_callback_set(log, receive, &received);
        return zq_log_logfile_set_name(log, scratch.file("log").c_str()) == 0;
    }

    // The names of the outputs that one line reaches.
    std::set<std::string> reached(zqlog *log, unsigned int level)
    {
        received.clear();
        std::filesystem::remove(scratch.file("log"));
        if (zq_log_logfile_set_name(log, scratch.file("log").c_str()) != 0)
            return {"none for lack of memory"};
        CaptureStdout();
        CaptureStderr();
        zq_log_raw(log, level, "line");
        std::set<std::string> names;
        if (GetCapturedStdout() == "line\n")
            names.insert("stdout");
        if (GetCapturedStderr() == "line\n")
            names.insert("stderr");
        if (received == std::vector<Received>{{"line", level, NOW}})
            names.insert("callback");
        if (read_file(scratch.file("log")) == "line\n")
            names.insert("file");
        if (take_syslog().size() == 1)
            names.insert("syslog");
        return names;
    }

    std::vector<Received> received;
};

TEST_F(zqlog_outputs, each_has_its_switch_and_its_threshold)
{
    Log log(zq_log_create());
    ASSERT_TRUE(log);
    ASSERT_TRUE(prepare(log.get()));
    const std::set<std::string> none;
    for (const Output &output : outputs) {
        SCOPED_TRACE(output.name);
        const std::set<std::string> only = {output.name};
        unsigned int level = static_cast<unsigned int>(output.default_level);
        EXPECT_EQ(reached(log.get(), 0), none);
        output.enable(log.get());
        EXPECT_EQ(reached(log.get(), level), only);
        EXPECT_EQ(reached(log.get(), level + 1), none);
        output.set_level(log.get(), 13);
        EXPECT_EQ(reached(log.get(), 13), only);
        EXPECT_EQ(reached(log.get(), 14), none);
        output.set_level(log.get(), 0);
        EXPECT_EQ(reached(log.get(), 0), only);
        EXPECT_EQ(reached(log.get(), 1), none);
        output.set_level(log.get(), -1);
        EXPECT_EQ(reached(log.get(), 0), none);
        output.set_level(log.get(), 16);
        output.disable(log.get());
    }
}

TEST_F(zqlog_outputs, a_line_goes_to_all_that_admit_it)
{
    Log log(zq_log_create());
    ASSERT_TRUE(log);
    ASSERT_TRUE(prepare(log.get()));
    std::set<std::string> expected;
    for (int i = 0; i < 5; i++) {
        outputs[i].enable(log.get());
        outputs[i].set_level(log.get(), i);
        expected.insert(outputs[i].name);
    }
    for (unsigned int level = 0; level < 5; level++) {
        EXPECT_EQ(reached(log.get(), level), expected) << level;
        expected.erase(outputs[level].name);
    }
}

// Every setter takes null for the default log, and a line of the library asks its thresholds first.
TEST_F(zqlog_outputs, the_default_log)
{
    while (zq_log_init() != 0) {
    }
    EXPECT_EQ(zq_log_init(), 0);
    ASSERT_TRUE(prepare(nullptr));
    for (const Output &output : outputs) {
        SCOPED_TRACE(output.name);
        output.enable(nullptr);
        output.set_level(nullptr, 13);
        EXPECT_EQ(reached(nullptr, 13), std::set<std::string>{output.name});
        int evaluated = 0;
        ZQ_LOG(14, "not admitted %d", ++evaluated);
        EXPECT_EQ(evaluated, 0);
        CaptureStdout();
        CaptureStderr();
        ZQ_LOG(13, "admitted %d", ++evaluated);
        GetCapturedStdout();
        GetCapturedStderr();
        EXPECT_EQ(evaluated, 1);
        output.disable(nullptr);
    }
    zq_log_syslog_set_facility(nullptr, LOG_LOCAL3);
    EXPECT_EQ(zq_log_syslog_map(nullptr, 4, 1), 0);
    take_syslog();
    zq_log_syslog_enable(nullptr);
    EXPECT_EQ(zq_log(nullptr, 4, "line"), 0);
    EXPECT_THAT(take_syslog(), ElementsAre(SyslogLine{LOG_LOCAL3 | 1, "%s", "line"}));
}

// ---- the callback ----

TEST_F(zqlog_test, the_callback_sees_the_bare_message)
{
    Log log = quiet_log();
    ASSERT_TRUE(log);
    std::vector<Received> lines;
    zq_log_callback_set(log.get(), receive, &lines);
    zq_log_callback_enable(log.get());
    if (faults_injected())
        return;
    EXPECT_EQ(zq_log(log.get(), 16, "a message that is longer than the prefix"), 0);
    EXPECT_EQ(zq_log_raw(log.get(), 0, "two"), 0);
    EXPECT_EQ(zq_log_macro(log.get(), 1, "io/zqdir", 1, "three"), 0);
    EXPECT_EQ(log_macro_path(log.get(), 2, "four"), 0);
    EXPECT_THAT(lines, ElementsAre(Received{"a message that is longer than the prefix", 16, NOW},
                                   Received{"two", 0, NOW}, Received{"three", 1, NOW},
                                   Received{"four", 2, NOW}));
}

TEST_F(zqlog_test, a_failing_callback_fails_the_line_but_not_the_other_outputs)
{
    Log log(zq_log_create());
    ASSERT_TRUE(log);
    zq_log_callback_enable(log.get());
    for (zq_log_callback callback : {zq_log_callback{nullptr}, zq_log_callback{refuse}}) {
        zq_log_callback_set(log.get(), callback, nullptr);
        CaptureStderr();
        EXPECT_EQ(zq_log_raw(log.get(), 1, "line"), -1);
        EXPECT_EQ(GetCapturedStderr(), "line\n");
        EXPECT_EQ(zq_log_raw(log.get(), 17, "line"), 0); // not admitted
    }
}

// ---- the file ----

TEST_F(zqlog_test, the_file_without_a_name)
{
    if (!enter_scratch())
        GTEST_SKIP() << "changes the working directory";
    scratch.write("zqdefault.log", "before\n");
    Log log = quiet_log();
    ASSERT_TRUE(log);
    zq_log_logfile_enable(log.get());
    EXPECT_EQ(read_file("zqdefault.log"), "before\n");
    EXPECT_EQ(zq_log_raw(log.get(), 8, "one"), 0);
    EXPECT_EQ(read_file("zqdefault.log"), "before\none\n");
    EXPECT_EQ(zq_log_raw(log.get(), 8, "two"), 0);
    EXPECT_EQ(read_file("zqdefault.log"), "before\none\ntwo\n");

    EXPECT_EQ(zq_log_logfile_set_name(log.get(), "named.log"), 0);
    EXPECT_EQ(zq_log_raw(log.get(), 8, "three"), 0);
    EXPECT_EQ(read_file("zqdefault.log"), "before\none\ntwo\n");
    EXPECT_EQ(read_file("named.log"), "three\n");
}

TEST_F(zqlog_test, rotation)
{
    const std::string name = scratch.file("log");
    const std::string old = scratch.file("log.1");
    Log log = quiet_log();
    ASSERT_TRUE(log);
    ASSERT_EQ(zq_log_logfile_set_name(log.get(), name.c_str()), 0);
    // Disabled: nothing happens.
    EXPECT_EQ(zq_log_logfile_recreate(log.get()), 0);
    EXPECT_FALSE(std::filesystem::exists(name));

    zq_log_logfile_enable(log.get());
    if (zq_log_raw(log.get(), 8, "one") != 0)
        return;
    std::filesystem::rename(name, old);
    EXPECT_EQ(zq_log_raw(log.get(), 8, "two"), 0);
    EXPECT_EQ(read_file(old), "one\ntwo\n");
    EXPECT_EQ(zq_log_logfile_recreate(log.get()), 0);
    EXPECT_EQ(zq_log_logfile_recreate(log.get()), 0);
    EXPECT_EQ(zq_log_raw(log.get(), 8, "three"), 0);
    EXPECT_EQ(read_file(old), "one\ntwo\n");
    EXPECT_EQ(read_file(name), "three\n");
}

TEST_F(zqlog_test, a_file_that_cannot_be_opened_is_tried_again)
{
    const std::string directory = scratch.file("later");
    const std::string name = directory + "/log";
    Log log(zq_log_create());
    ASSERT_TRUE(log);
    ASSERT_EQ(zq_log_logfile_set_name(log.get(), name.c_str()), 0);
    zq_log_logfile_enable(log.get());
    CaptureStderr();
    EXPECT_EQ(zq_log_logfile_recreate(log.get()), -1);
    EXPECT_EQ(zq_log_raw(log.get(), 8, "one"), -1);
    std::filesystem::create_directory(directory);
    EXPECT_EQ(zq_log_raw(log.get(), 8, "two"), 0);
    EXPECT_EQ(GetCapturedStderr(), "one\ntwo\n");
    EXPECT_EQ(read_file(name), "two\n");
}

TEST_F(zqlog_test, a_full_disk_fails_the_line)
{
    Log log = quiet_log();
    ASSERT_TRUE(log);
    ASSERT_EQ(zq_log_logfile_set_name(log.get(), "/dev/full"), 0);
    zq_log_logfile_enable(log.get());
    EXPECT_EQ(zq_log(log.get(), 8, "line"), -1);
    EXPECT_EQ(log_macro_path(log.get(), 8, "line"), -1);
}

static int close_counted(void *cookie)
{
    ++*static_cast<int *>(cookie);
    return 0;
}

static FILE *counted_stream(int *closed)
{
    return fopencookie(closed, "w", {nullptr, nullptr, nullptr, close_counted});
}

TEST_F(zqlog_test, an_adopted_stream_is_closed_by_the_log)
{
    int closed[4] = {};
    {
        Log log = quiet_log();
        ASSERT_TRUE(log);
        zq_log_logfile_enable(log.get());
        zq_log_logfile_set_filehandle(log.get(), counted_stream(&closed[0]));
        zq_log_logfile_set_filehandle(log.get(), counted_stream(&closed[1]));
        EXPECT_THAT(closed, ElementsAre(1, 0, 0, 0));
        while (zq_log_logfile_set_name(log.get(), scratch.file("log").c_str()) != 0) {
        }
        EXPECT_THAT(closed, ElementsAre(1, 1, 0, 0));
        zq_log_logfile_set_filehandle(log.get(), counted_stream(&closed[2]));
        EXPECT_EQ(zq_log_logfile_recreate(log.get()), 0);
        EXPECT_THAT(closed, ElementsAre(1, 1, 1, 0));
        zq_log_logfile_set_filehandle(log.get(), counted_stream(&closed[3]));
        zq_log_raw(log.get(), 1, "line");
    }
    EXPECT_THAT(closed, ElementsAre(1, 1, 1, 1));
}

// ---- syslog ----

TEST_F(zqlog_test, syslog_priorities)
{
    const int priorities[17] = {7, 0, 0, 1, 2, 3, 3, 4, 4, 5, 6, 5, 6, 7, 7, 7, 7};
    Log log = quiet_log();
    ASSERT_TRUE(log);
    zq_log_syslog_enable(log.get());
    zq_log_syslog_set_level(log.get(), 17);
    if (faults_injected())
        return;
    for (int facility : {0, LOG_DAEMON}) {
        if (facility != 0)
            zq_log_syslog_set_facility(log.get(), facility);
        for (unsigned int level = 0; level <= 17; level++) {
            EXPECT_EQ(zq_log(log.get(), level, "line"), 0);
            // A level that the map does not have is like its last one.
            int priority = priorities[level <= 16 ? level : 16] | facility;
            EXPECT_THAT(take_syslog(), ElementsAre(SyslogLine{priority, "%s", "line"}));
        }
    }
}

TEST_F(zqlog_test, syslog_map)
{
    Log log = quiet_log();
    ASSERT_TRUE(log);
    const struct {
        int level;
        int result;
    } rows[] = {{-1, -1}, {0, 0}, {8, 0}, {16, 0}, {17, -1}, {INT32_MAX, -1}, {INT32_MIN, -1}};
    for (const auto &row : rows)
        EXPECT_EQ(zq_log_syslog_map(log.get(), row.level, 0x1234), row.result) << row.level;
    zq_log_syslog_enable(log.get());
    if (faults_injected())
        return;
    EXPECT_EQ(zq_log(log.get(), 8, "line"), 0);
    EXPECT_THAT(take_syslog(), ElementsAre(SyslogLine{0x1234, "%s", "line"}));
}

TEST_F(zqlog_test, syslog_texts)
{
    Log log = quiet_log();
    ASSERT_TRUE(log);
    zq_log_syslog_enable(log.get());
    if (faults_injected())
        return;
    EXPECT_EQ(zq_log(log.get(), 7, "%s", "%s%n 100%"), 0);
    EXPECT_EQ(zq_log_raw(log.get(), 7, "raw"), 0);
    EXPECT_EQ(log_macro_path(log.get(), 7, "%d"), 0);
    EXPECT_THAT(take_syslog(),
                ElementsAre(SyslogLine{4, "%s", "%s%n 100%"}, SyslogLine{4, "%s", "raw"},
                            SyslogLine{4, "%s", "net/zqsocket:998[7] %d"}));
}

TEST_F(zqlog_test, syslog_without_memory)
{
    if (!heap_is_watched() || faults_injected())
        GTEST_SKIP() << "cannot tell which allocation fails";
    Log log = quiet_log();
    ASSERT_TRUE(log);
    zq_log_syslog_enable(log.get());
    EXPECT_EQ(log_macro_path(log.get(), 7, "grows the buffers"), 0);
    take_syslog();
    const struct {
        long failing;
        SyslogLine line;
    } rows[] = {
        {1, {4, "not enough memory for logging string", "not enough memory for logging string"}},
        {2, {4, "<not enough memory for prefix> %s", "<not enough memory for prefix> text"}},
    };
    for (const auto &row : rows) {
        {
            HeapFailure failure(row.failing);
            EXPECT_EQ(log_macro_path(log.get(), 7, "text"), 0);
        }
        EXPECT_THAT(take_syslog(), ElementsAre(row.line));
    }
}

// ---- lack of memory ----

TEST_F(zqlog_test, lack_of_memory)
{
    if (!heap_is_watched() || faults_injected())
        GTEST_SKIP() << "cannot tell which allocation fails";
    const std::string stamp = STAMP;
    const struct {
        const char *name;
        long failing;
        int (*write)(zqlog *);
        int result;
        std::string line;
    } rows[] = {
        {"message", 1, [](zqlog *log) { return zq_log(log, 7, "text"); }, -1, ""},
        {"raw message", 1, [](zqlog *log) { return zq_log_raw(log, 7, "text"); }, -1, ""},
        {"macro prefix", 1, [](zqlog *log) { return zq_log_macro(log, 7, "a", 1, "text"); }, -1,
         ""},
        {"prefix", 1, [](zqlog *log) { return log_macro_path(log, 7, "text"); }, 0,
         stamp + "text\n"},
        {"message behind a prefix", 2, [](zqlog *log) { return log_macro_path(log, 7, "text"); },
         -1, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(zq_log_init(), 0);
        Log log(zq_log_create());
        ASSERT_TRUE(log);
        int result = 0;
        CaptureStderr();
        {
            HeapFailure failure(row.failing);
            result = row.write(log.get());
        }
        EXPECT_EQ(GetCapturedStderr(), row.line);
        EXPECT_EQ(result, row.result);
    }
}

// A buffer that cannot grow is lost, and made anew by the next line.
TEST_F(zqlog_test, the_log_survives_its_own_lack_of_memory)
{
    if (!heap_is_watched() || faults_injected())
        GTEST_SKIP() << "cannot tell which allocation fails";
    Log log(zq_log_create());
    ASSERT_TRUE(log);
    const std::string text(1000, 'x');
    CaptureStderr();
    EXPECT_EQ(zq_log_raw(log.get(), 7, "short"), 0);
    int result = 0;
    {
        HeapFailure failure(1);
        result = zq_log_raw(log.get(), 7, "%s", text.c_str());
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(zq_log_raw(log.get(), 7, "short"), 0);
    EXPECT_EQ(zq_log_raw(log.get(), 7, "%s", text.c_str()), 0);
    {
        HeapFailure failure(1);
        result = zq_log_logfile_set_name(log.get(), "name");
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(GetCapturedStderr(), "short\nshort\n" + text + "\n");
}

TEST_F(zqlog_test, a_name_that_cannot_be_copied_keeps_the_old_one)
{
    if (!heap_is_watched() || faults_injected())
        GTEST_SKIP() << "cannot tell which allocation fails";
    const std::string name = scratch.file("log");
    const std::string other = scratch.file("other");
    Log log = quiet_log();
    ASSERT_TRUE(log);
    zq_log_logfile_enable(log.get());
    ASSERT_EQ(zq_log_logfile_set_name(log.get(), name.c_str()), 0);
    EXPECT_EQ(zq_log_raw(log.get(), 1, "one"), 0);
    int result = 0;
    {
        HeapFailure failure(1);
        result = zq_log_logfile_set_name(log.get(), other.c_str());
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(zq_log_raw(log.get(), 1, "two"), 0);
    EXPECT_EQ(zq_log_logfile_recreate(log.get()), 0);
    EXPECT_EQ(zq_log_raw(log.get(), 1, "three"), 0);
    EXPECT_EQ(read_file(name), "one\ntwo\nthree\n");
}

static void disable_without_memory()
{
    zq_log_uninit();
    HeapFailure failure(1);
    zq_log_stderr_disable(nullptr);
}

TEST_F(zqlog_test, the_default_log_without_memory)
{
    if (!heap_is_watched() || faults_injected())
        GTEST_SKIP() << "cannot tell which allocation fails";
    const struct {
        const char *name;
        long failing;
        int (*call)();
    } rows[] = {
        {"state", 1, zq_log_init},
        {"log", 2, zq_log_init},
        {"threaded state", 1, zq_log_init_threaded},
        {"threaded log", 2, zq_log_init_threaded},
        {"macro mutex", 3, zq_log_init_threaded},
        {"zq_log", 1, [] { return zq_log(nullptr, 7, "text"); }},
        {"zq_log_raw", 2, [] { return zq_log_raw(nullptr, 7, "text"); }},
        {"zq_log_macro", 1, [] { return zq_log_macro(nullptr, 7, "a", 1, "text"); }},
        {"zq_log_create", 1, [] { return zq_log_create() ? 0 : -1; }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        zq_log_uninit();
        int result = 0;
        {
            HeapFailure failure(row.failing);
            result = row.call();
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(zq_log_init_threaded(), 0);
    }
    EXPECT_MISUSE(disable_without_memory(), "util/zqlog", "zq_log_target",
                  "zq_log_global->defaultlog != NULL");
}

// ---- lines that nothing admits ----

TEST_F(zqlog_test, a_line_that_nothing_admits_is_not_formatted)
{
    Log log = quiet_log();
    ASSERT_TRUE(log);
    zq_log_callback_set_level(log.get(), 16);
    zq_log_stdout_set_level(log.get(), 16);
    while (zq_log_init() != 0) {
    }
    // Formatting this would crash.
    auto *text = reinterpret_cast<const char *>(16);
    long before = heap_allocations();
    EXPECT_EQ(zq_log(log.get(), 1, "%s", text), 0);
    EXPECT_EQ(zq_log_raw(log.get(), 1, "%s", text), 0);
    zq_log_macro_set_values(log.get(), 1, text, 1);
    EXPECT_EQ(zq_log_macro_format("%s", text), 0);
    EXPECT_EQ(zq_log(nullptr, 9, "%s", text), 0);
    ZQ_LOG(9, "%s", text);
    EXPECT_EQ(heap_allocations(), before);
}

// ---- zq_log_macro ----

static int write_then_macro(const char *message, const char *file)
{
    Log log(zq_log_create());
    if (!log)
        return -1;
    if (message)
        zq_log_raw(log.get(), 7, "%s", message);
    return zq_log_macro(log.get(), 7, file, 1, "text");
}

// The prefix "a:1[7]" is held against the message's buffer.
TEST_F(zqlog_test, macro_needs_a_message_buffer_longer_than_its_prefix)
{
    const struct {
        const char *message;
        bool stops;
    } rows[] = {{nullptr, true}, {"", true}, {"12345", true}, {"123456", false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.message ? row.message : "no message");
        if (row.stops) {
            EXPECT_MISUSE(write_then_macro(row.message, "a"), "util/zqlog", "zq_log_macro",
                          "count < zqlog->buflen");
            continue;
        }
        CaptureStderr();
        int result = write_then_macro(row.message, "a");
        EXPECT_EQ(GetCapturedStderr(), row.message + std::string("\n") + STAMP + "a:1[7] text\n");
        EXPECT_EQ(result, 0);
    }
}

// Lines dropped unformatted would have made the message buffer large enough.
TEST_F(zqlog_test, macro_behind_a_line_that_nothing_admits)
{
    Log log(zq_log_create());
    ASSERT_TRUE(log);
    EXPECT_EQ(zq_log(log.get(), 9, "a first line as long as any prefix"), 0);
    CaptureStderr();
    EXPECT_EQ(zq_log_macro(log.get(), 7, "a", 1, "text"), 0);
    EXPECT_EQ(GetCapturedStderr(), STAMP + std::string("a:1[7] text\n"));
}

// ---- state ----

TEST_F(zqlog_test, the_macro_path_makes_and_remakes_the_default_log)
{
    for (int round = 0; round < 2; round++) {
        zq_log_uninit();
        zq_log_uninit();
        CaptureStderr();
        EXPECT_EQ(log_macro_path(nullptr, 8, "text"), 0);
        EXPECT_EQ(log_macro_path(nullptr, 9, "text"), 0);
        EXPECT_EQ(GetCapturedStderr(), STAMP + std::string("net/zqsocket:998[8] text\n"));
    }
    CaptureStderr();
    EXPECT_EQ(zq_log_raw(nullptr, 8, "text"), 0);
    EXPECT_EQ(GetCapturedStderr(), "text\n");
}

TEST_F(zqlog_test, null_is_misuse)
{
    EXPECT_MISUSE(zq_log_destroy(nullptr), "util/zqlog", "zq_log_destroy", "zqlog != NULL");
    EXPECT_MISUSE(zq_log_macro(nullptr, 1, nullptr, 1, "text"), "util/zqlog", "zq_log_macro",
                  "file != NULL");
}

// ---- threads ----

class zqlog_threads : public zqlog_test {
  protected:
    static constexpr int THREADS = 8;
    static constexpr int LINES = 200;

    // Lets every thread write its lines at once: write(thread, line).
    static void write_all(const std::function<void(int, int)> &write)
    {
        std::barrier start(THREADS);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < THREADS; thread++) {
            threads.emplace_back([&, thread] {
                start.arrive_and_wait();
                for (int line = 0; line < LINES; line++)
                    write(thread, line);
            });
        }
        for (std::thread &thread : threads)
            thread.join();
    }

    // Lengths differ, so that buffers grow under way.
    static std::string text(int thread, int line)
    {
        std::string text = std::to_string(thread) + "-" + std::to_string(line) + "-";
        return text + std::string(static_cast<size_t>(line), static_cast<char>('a' + thread));
    }

    // All lines whole and, of each thread, in their order. The prefix tells the thread as well.
    static void expect_whole_lines(const std::string &name, bool with_source)
    {
        std::map<int, int> next;
        std::istringstream file(read_file(name));
        for (std::string line; std::getline(file, line);) {
            int thread = 0;
            size_t skipped = sizeof(STAMP) - 1;
            std::string source;
            if (with_source) {
                ASSERT_EQ(sscanf(line.c_str() + skipped, "thread:%d[7] ", &thread), 1) << line;
                source = "thread:" + std::to_string(thread) + "[7] ";
            } else {
                ASSERT_EQ(sscanf(line.c_str() + skipped, "%d-", &thread), 1) << line;
            }
            ASSERT_EQ(line, STAMP + source + text(thread, next[thread]++));
        }
        ASSERT_EQ(next.size(), static_cast<size_t>(THREADS));
        for (const auto &[thread, lines] : next)
            EXPECT_EQ(lines, LINES) << thread;
    }
};

TEST_F(zqlog_threads, the_macro_path)
{
    if (faults_injected())
        GTEST_SKIP() << "lines may be lost";
    const std::string name = scratch.file("log");
    ASSERT_EQ(zq_log_init_threaded(), 0);
    zq_log_stderr_disable(nullptr);
    ASSERT_EQ(zq_log_logfile_set_name(nullptr, name.c_str()), 0);
    zq_log_logfile_enable(nullptr);
    write_all([](int thread, int line) {
        zq_log_macro_mutex_lock();
        zq_log_macro_set_values(nullptr, 7, "thread", thread);
        EXPECT_EQ(zq_log_macro_format("%s", text(thread, line).c_str()), 0);
        zq_log_macro_mutex_unlock();
    });
    expect_whole_lines(name, true);
}

TEST_F(zqlog_threads, the_library)
{
    if (faults_injected())
        GTEST_SKIP() << "lines may be lost";
    ASSERT_EQ(zq_log_init_threaded(), 0);
    std::vector<Received> lines;
    zq_log_stderr_disable(nullptr);
    zq_log_callback_set(nullptr, receive, &lines);
    zq_log_callback_set_level(nullptr, 7);
    zq_log_callback_enable(nullptr);
    write_all([](int thread, int line) {
        ZQ_LOG(7, "%s", text(thread, line).c_str());
        ZQ_LOG(8, "not admitted");
    });
    std::set<std::string> messages;
    for (const Received &line : lines)
        messages.insert(line.message);
    EXPECT_EQ(lines.size(), static_cast<size_t>(THREADS * LINES));
    for (int thread = 0; thread < THREADS; thread++) {
        for (int line = 0; line < LINES; line++)
            EXPECT_TRUE(messages.count(text(thread, line)));
    }
}

TEST_F(zqlog_threads, one_log)
{
    const std::string name = scratch.file("log");
    if (zq_log_init_threaded() != 0 && !faults_injected())
        FAIL();
    Log log = quiet_log();
    ASSERT_TRUE(log);
    while (zq_log_logfile_set_name(log.get(), name.c_str()) != 0) {
    }
    zq_log_logfile_enable(log.get());
    if (faults_injected()) {
        // Also a log without memory for its mutex writes.
        zq_log(log.get(), 7, "line");
        zq_log(log.get(), 7, "line");
        return;
    }
    write_all([&](int thread, int line) {
        EXPECT_EQ(zq_log(log.get(), 7, "%s", text(thread, line).c_str()), 0);
    });
    expect_whole_lines(name, false);
}
