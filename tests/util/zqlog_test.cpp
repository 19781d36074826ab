#include "zq/util/zqlog.h"

#include <barrier>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <syslog.h>
#include <thread>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/scratch.h"
#include "zq/internal/zqlogline.h"

using testing::ElementsAre;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

static constexpr time_t NOW = 1769903947;
#define STAMP "2026-01-31 23:59:07 "

extern "C" time_t time(time_t *out) noexcept
{
    if (out)
        *out = NOW;
    return NOW;
}

// The lines of the callback as "level message", of syslog as "priority 'format' text".
static std::vector<std::string> lines;

static void receive_syslog(int priority, const char *format, va_list ap)
{
    char text[4096];
    vsnprintf(text, sizeof(text), format, ap);
    lines.push_back(std::to_string(priority) + " '" + format + "' " + text);
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

static int receive(const char *message, size_t length, unsigned int level, time_t time, void *out)
{
    EXPECT_EQ(time, NOW);
    const std::string line = std::to_string(level) + " " + std::string(message, length);
    static_cast<std::vector<std::string> *>(out)->push_back(line);
    return 0;
}

static int write(zqlog *log)
{
    return zq_log_raw(log, 7, "text");
}

static int write_macro(zqlog *log)
{
    return zq_log_macro(log, 7, "a", 1, "text");
}

static int write_path(zqlog *log, const char *file = "net/zqsocket", int line = 998,
                      const char *text = "text")
{
    zq_log_macro_mutex_lock();
    zq_log_macro_set_values(log, 7, file, line);
    int result = zq_log_macro_format("%s", text);
    zq_log_macro_mutex_unlock();
    return result;
}

class zqlog_test : public testing::Test {
  protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        renew();
        ASSERT_TRUE(log);
    }
    void TearDown() override { zq_log_uninit(); }

    void renew()
    {
        owned.reset(zq_log_create());
        log = owned.get();
        if (log)
            prepare(log);
    }
    // All outputs are ready; only the file, which is new, is enabled.
    void prepare(zqlog *target)
    {
        lines.clear();
        std::filesystem::remove(file);
        while (zq_log_logfile_set_name(target, file.c_str()) != 0) {
        }
        zq_log_callback_set(target, receive, &lines);
        zq_log_stderr_disable(target);
        zq_log_logfile_enable(target);
    }

    Scratch scratch;
    const std::string file = scratch.file("log");
    Owned<zqlog, zq_log_destroy> owned;
    zqlog *log;
};

// ---- lines and outputs ----

TEST_F(zqlog_test, all_outputs_have_their_layout)
{
    zq_log_callback_enable(log);
    zq_log_stdout_enable(log);
    zq_log_stderr_enable(log);
    zq_log_syslog_enable(log);
    CaptureStdout();
    CaptureStderr();
    int failures = zq_log(log, 7, "%s", "%s%n is longer than a prefix") |
                   zq_log_raw(log, 0, "100%% of %s", "it") | zq_log_raw(log, 8, "%s", "") |
                   zq_log_macro(log, 3, "io/zqdir", 161, "100%% of %s", "it") | write_path(log);
    const std::string text =
        STAMP "%s%n is longer than a prefix\n100% of it\n\n" STAMP
              "io/zqdir:161[3] 100% of it\n" STAMP "net/zqsocket:998[7] text\n";
    EXPECT_EQ(GetCapturedStdout(), text);
    EXPECT_EQ(GetCapturedStderr(), text);
    EXPECT_EQ(read_file(file), text);
    EXPECT_EQ(failures, 0);
    EXPECT_THAT(lines,
                ElementsAre("7 %s%n is longer than a prefix", "4 '%s' %s%n is longer than a prefix",
                            "0 100% of it", "7 '%s' 100% of it", "8 ", "4 '%s' ", "3 100% of it",
                            "1 '%s' io/zqdir:161[3] 100% of it", "7 text",
                            "4 '%s' net/zqsocket:998[7] text"));
}

static const struct {
    char initial;
    int default_level;
    void (*enable)(zqlog *);
    void (*disable)(zqlog *);
    void (*set_level)(zqlog *, int);
} outputs[] = {
    {'c', 16, zq_log_callback_enable, zq_log_callback_disable, zq_log_callback_set_level},
    {'f', 8, zq_log_logfile_enable, zq_log_logfile_disable, zq_log_logfile_set_level},
    {'o', 8, zq_log_stdout_enable, zq_log_stdout_disable, zq_log_stdout_set_level},
    {'e', 8, zq_log_stderr_enable, zq_log_stderr_disable, zq_log_stderr_set_level},
    {'s', 8, zq_log_syslog_enable, zq_log_syslog_disable, zq_log_syslog_set_level},
};

// The initials of the outputs that one line reaches.
static std::string reached(zqlog *log, int level, const std::string &file)
{
    lines.clear();
    std::ofstream(file).close();
    CaptureStdout();
    CaptureStderr();
    zq_log_raw(log, static_cast<unsigned int>(level), "line");
    std::string initials;
    for (const std::string &line : lines)
        initials += line.find('\'') == std::string::npos ? 'c' : 's';
    return (read_file(file) == "line\n" ? "f" : "") + initials +
           (GetCapturedStdout() == "line\n" ? "o" : "") +
           (GetCapturedStderr() == "line\n" ? "e" : "");
}

// Every setter takes null for the default log.
TEST_F(zqlog_test, each_output_has_its_switch_and_its_threshold)
{
    EXPECT_EQ(reached(nullptr, 8, file), "e");
    EXPECT_EQ(reached(nullptr, 9, file), "");
    for (zqlog *tried : {log, static_cast<zqlog *>(nullptr)}) {
        while (zq_log_init() != 0) {
        }
        prepare(tried);
        zq_log_logfile_disable(tried);
        for (const auto &output : outputs) {
            const std::string only(1, output.initial);
            SCOPED_TRACE(only + (tried ? " of a log" : " of the default log"));
            EXPECT_EQ(reached(tried, 0, file), "");
            output.enable(tried);
            for (int level : {output.default_level, 13, 0}) {
                if (level != output.default_level)
                    output.set_level(tried, level);
                EXPECT_EQ(reached(tried, level, file), only);
                EXPECT_EQ(reached(tried, level + 1, file), "");
            }
            output.set_level(tried, -1);
            EXPECT_EQ(reached(tried, 0, file), "");
            output.disable(tried);
        }
        for (int i = 0; i < 5; i++) {
            outputs[i].enable(tried);
            outputs[i].set_level(tried, i);
        }
        const char *expected[] = {"fcsoe", "fsoe", "soe", "se", "s"};
        for (int level = 0; level < 5; level++)
            EXPECT_EQ(reached(tried, level, file), expected[level]);
    }
}

TEST_F(zqlog_test, a_line_that_nothing_admits_is_not_formatted)
{
    zq_log_logfile_set_level(log, 6);
    while (zq_log_init() != 0) {
    }
    // Formatting this would crash.
    auto *text = reinterpret_cast<const char *>(16);
    const long before = heap_allocations();
    EXPECT_EQ(zq_log(log, 7, "%s", text), 0);
    EXPECT_EQ(write_path(log, text, 1, text), 0);
    EXPECT_EQ(zq_log_raw(nullptr, 9, "%s", text), 0);
    // The library does not even evaluate the arguments.
    int evaluated = 0;
    ZQ_LOG(9, "%d", ++evaluated);
    EXPECT_EQ(heap_allocations(), before);
    EXPECT_EQ(evaluated, 0);
    prepare(nullptr);
    zq_log_logfile_set_level(nullptr, 9);
    ZQ_LOG(9, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 1);
}

TEST_F(zqlog_test, one_output_that_fails_fails_the_line)
{
    const zq_log_callback refuse = [](const char *, size_t, unsigned int, time_t, void *) {
        return 7;
    };
    zq_log_callback_enable(log);
    for (zq_log_callback callback : {zq_log_callback{nullptr}, refuse}) {
        zq_log_callback_set(log, callback, nullptr);
        EXPECT_EQ(write(log), -1);
        EXPECT_EQ(zq_log_raw(log, 17, "not admitted"), 0);
    }
    EXPECT_EQ(read_file(file), "text\ntext\n");
    zq_log_callback_set(log, receive, &lines);
    ASSERT_EQ(zq_log_logfile_set_name(log, scratch.file("later/log").c_str()), 0);
    EXPECT_EQ(zq_log_logfile_recreate(log), -1);
    EXPECT_EQ(write(log), -1);
    std::filesystem::create_directory(scratch.file("later")); // the next line tries again
    EXPECT_EQ(write(log), 0);
    ASSERT_EQ(zq_log_logfile_set_name(log, "/dev/full"), 0);
    EXPECT_EQ(write(log), -1);
    EXPECT_THAT(lines, ElementsAre("7 text", "7 text", "7 text"));
    EXPECT_EQ(read_file(scratch.file("later/log")), "text\n");
    // What cannot be rendered reaches no output.
    EXPECT_EQ(zq_log(log, 1, "%lc", wint_t{0x7FFFFFFF}), -1);
    EXPECT_EQ(lines.size(), 3u);
}

TEST_F(zqlog_test, rotation)
{
    zq_log_logfile_disable(log);
    EXPECT_EQ(zq_log_logfile_recreate(log), 0);
    EXPECT_FALSE(std::filesystem::exists(file));
    zq_log_logfile_enable(log);
    if (zq_log_raw(log, 8, "one") != 0)
        return;
    std::filesystem::rename(file, file + ".1");
    EXPECT_EQ(zq_log_raw(log, 8, "two"), 0);
    EXPECT_EQ(zq_log_logfile_recreate(log), 0);
    EXPECT_EQ(zq_log_raw(log, 8, "three"), 0);
    EXPECT_EQ(read_file(file + ".1"), "one\ntwo\n");
    EXPECT_EQ(read_file(file), "three\n");
    if (faults_injected())
        return; // the walk keeps its database in the working directory
    const auto home = std::filesystem::current_path();
    std::filesystem::current_path(scratch.path());
    scratch.write("zqdefault.log", "before\n");
    zq_log_stderr_disable(nullptr);
    zq_log_logfile_enable(nullptr);
    EXPECT_EQ(zq_log_raw(nullptr, 8, "one"), 0);
    EXPECT_EQ(read_file("zqdefault.log"), "before\none\n");
    std::filesystem::current_path(home);
}

TEST_F(zqlog_test, an_adopted_stream_is_closed_by_the_log)
{
    int closed = 0;
    cookie_io_functions_t functions = {};
    functions.close = [](void *cookie) { return ++*static_cast<int *>(cookie), 0; };
    const auto adopt = [&] {
        zq_log_logfile_set_filehandle(log, fopencookie(&closed, "w", functions));
        write(log);
        return closed;
    };
    EXPECT_EQ(adopt(), 0);
    EXPECT_EQ(adopt(), 1);
    prepare(log);
    EXPECT_EQ(closed, 2);
    EXPECT_EQ(adopt(), 2);
    EXPECT_EQ(zq_log_logfile_recreate(log), 0);
    EXPECT_EQ(closed, 3);
    EXPECT_EQ(adopt(), 3);
    owned.reset();
    EXPECT_EQ(closed, 4);
}

// A level that the map does not have is like its last one.
TEST_F(zqlog_test, syslog_priorities)
{
    int priorities[] = {7, 0, 0, 1, 2, 3, 3, 4, 4, 5, 6, 5, 6, 7, 7, 7, 7, 7};
    zq_log_syslog_set_level(log, 17);
    zq_log_syslog_enable(log);
    for (int facility : {0, LOG_DAEMON}) {
        zq_log_syslog_set_facility(log, facility);
        for (unsigned int level = 0; level <= 17; level++) {
            lines.clear();
            EXPECT_EQ(zq_log(log, level, "line"), 0);
            const std::string priority = std::to_string(priorities[level] | facility);
            EXPECT_THAT(lines, ElementsAre(priority + " '%s' line"));
        }
        for (int level : {-1, 17, INT32_MAX, INT32_MIN})
            EXPECT_EQ(zq_log_syslog_map(log, level, 1), -1) << level;
        for (int level : {0, 8, 16})
            EXPECT_EQ(zq_log_syslog_map(log, level, priorities[level] = 0x1200 + level), 0);
        priorities[17] = priorities[16];
    }
}

// The prefix "a:1[7]" is held against the message's buffer: meant.
TEST_F(zqlog_test, macro_needs_a_message_buffer_longer_than_its_prefix)
{
    EXPECT_MISUSE(write_macro(log), "util/zqlog", "zq_log_macro", "count < zqlog->buflen");
    EXPECT_EQ(zq_log_raw(log, 7, "12345"), 0);
    EXPECT_MISUSE(write_macro(log), "util/zqlog", "zq_log_macro", "count < zqlog->buflen");
    EXPECT_EQ(zq_log_raw(log, 7, "123456"), 0);
    EXPECT_EQ(write_macro(log), 0);
    EXPECT_EQ(read_file(file), "12345\n123456\n" STAMP "a:1[7] text\n");
    EXPECT_EQ(zq_log_macro(log, 9, "a", 1, "not admitted"), 0);
    EXPECT_EQ(read_file(file), "12345\n123456\n" STAMP "a:1[7] text\n");
    // Lines dropped unformatted would have made the buffer large enough.
    renew();
    ASSERT_TRUE(log);
    EXPECT_EQ(zq_log(log, 9, "not admitted"), 0);
    EXPECT_EQ(write_macro(log), 0);
    EXPECT_MISUSE(zq_log_macro(nullptr, 1, nullptr, 1, "text"), "util/zqlog", "zq_log_macro",
                  "file != NULL");
}

// ---- lack of memory ----

template <class F>
static auto without_memory(long failing, F call)
{
    HeapFailure failure(failing);
    return call();
}

TEST_F(zqlog_test, a_line_fails_for_lack_of_memory_and_the_log_survives)
{
    if (!heap_is_watched())
        GTEST_SKIP();
    const auto write_longer = [&] { return zq_log_raw(log, 7, "longer than before"); };
    ASSERT_EQ(zq_log_init(), 0);
    EXPECT_EQ(without_memory(1, [&] { return write(log); }), -1);
    EXPECT_EQ(write(log), 0);
    EXPECT_EQ(without_memory(1, write_longer), -1);
    EXPECT_EQ(write_longer(), 0);
    EXPECT_EQ(without_memory(1, [&] { return write_macro(log); }), -1);
    EXPECT_EQ(without_memory(1, [&] { return zq_log_logfile_set_name(log, "other"); }), -1);
    EXPECT_EQ(without_memory(1, [&] { return write_path(log); }), 0); // without its prefix
    zq_log_syslog_enable(log);
    EXPECT_EQ(write_path(log), 0);
    lines.clear();
    for (long failing : {1, 2})
        EXPECT_EQ(without_memory(failing, [&] { return write_path(log); }), 0);
    const std::string path_line = STAMP "net/zqsocket:998[7] text\n";
    EXPECT_EQ(read_file(file),
              "text\nlonger than before\n" STAMP "text\n" + path_line + path_line + path_line);
    const std::string none = "not enough memory for logging string";
    const std::string part = "<not enough memory for prefix> ";
    EXPECT_THAT(lines,
                ElementsAre("4 '" + none + "' " + none, "4 '" + part + "%s' " + part + "text"));
    // Without memory for its mutex a log writes.
    ASSERT_EQ(zq_log_init_threaded(), 0);
    EXPECT_EQ(without_memory(1, [&] { return write(log); }), 0);
}

TEST_F(zqlog_test, the_default_log_may_fail_to_be_made)
{
    if (!heap_is_watched())
        GTEST_SKIP();
    const std::pair<int (*)(), long> rows[] = {{zq_log_init, 2},
                                               {zq_log_init_threaded, 3},
                                               {[] { return write(nullptr); }, 2},
                                               {[] { return write_macro(nullptr); }, 2},
                                               {[] { return zq_log_create() ? 0 : -1; }, 1}};
    for (const auto &[call, allocations] : rows) {
        for (long failing = 1; failing <= allocations; failing++) {
            zq_log_uninit();
            EXPECT_EQ(without_memory(failing, call), -1) << failing << " of " << allocations;
            EXPECT_EQ(zq_log_init_threaded(), 0);
        }
    }
    zq_log_uninit();
    EXPECT_MISUSE(without_memory(1, [] { return zq_log_stderr_disable(nullptr); }), "util/zqlog",
                  "zq_log_target", "zq_log_global->defaultlog != NULL");
}

// ---- threads ----

// Lengths differ, so that buffers grow under way.
static std::string text_of(int thread, int line)
{
    return std::to_string(line) + std::string(static_cast<size_t>(line + 1), char('a' + thread));
}

// Every thread writes its lines at once to the default log; each of them has to come out whole and,
// of each thread, in their order.
static void expect_whole_lines(const std::string &file, bool with_source,
                               void (*write_line)(int thread, const char *text))
{
    std::barrier start(8);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; thread++) {
        threads.emplace_back([&, thread] {
            start.arrive_and_wait();
            for (int line = 0; line < 200; line++)
                write_line(thread, text_of(thread, line).c_str());
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    int next[8] = {};
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        const int thread = line.back() - 'a';
        ASSERT_TRUE(thread >= 0 && thread < 8) << line;
        const std::string source = "thread:" + std::to_string(thread) + "[7] ";
        ASSERT_EQ(line, STAMP + (with_source ? source : "") + text_of(thread, next[thread]++));
    }
    EXPECT_THAT(next, testing::Each(200));
}

TEST_F(zqlog_test, lines_of_threads_stay_whole)
{
    if (faults_injected())
        GTEST_SKIP() << "lines may be lost";
    ASSERT_EQ(zq_log_init_threaded(), 0);
    prepare(nullptr);
    expect_whole_lines(file, false, [](int, const char *text) { zq_log(nullptr, 7, "%s", text); });
    prepare(nullptr);
    expect_whole_lines(file, true, [](int thread, const char *text) {
        write_path(nullptr, "thread", thread, text);
    });
    prepare(nullptr);
    expect_whole_lines(file, true, [](int thread, const char *text) {
        ZQ_LOG_AT((log_place{"thread", thread}), 7, "%s", text);
        ZQ_LOG(9, "not admitted");
    });
}
