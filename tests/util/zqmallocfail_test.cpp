#include "zq/util/zqmallocfail.h"

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstdio>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/interpose.h"
#include "tests/support/scratch.h"

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using Text = std::unique_ptr<char, decltype([](char *text) { free(text); })>;

static constexpr char DATABASE[] = "zqmallocfail.db";
static constexpr char TOO_LONG[] =
    "zq_mallocfail_file_load: buffer too short for loading stackframes (4096 bytes)\n";

static std::atomic<bool> unbuffered_streams;

extern "C" FILE *fopen(const char *name, const char *mode)
{
    static auto *const real = next_symbol<FILE *(const char *, const char *)>("fopen");
    FILE *stream = real(name, mode);
    if (stream && unbuffered_streams)
        setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

// Two call sites; each call returns whether it was given memory.
[[gnu::noinline]] static bool site_one()
{
    char *block = static_cast<char *>(zq_mallocfail_malloc(10));
    bool given = block != nullptr;
    free(block);
    return given;
}

[[gnu::noinline]] static bool site_two()
{
    char *block = static_cast<char *>(zq_mallocfail_calloc(5, 2));
    bool given = block != nullptr;
    for (int i = 0; given && i < 10; i++)
        EXPECT_EQ(block[i], 0);
    free(block);
    return given;
}

// Asks from a thread of its own, so that the path is the same from everywhere.
static bool ask(bool (*site)())
{
    bool given = false;
    std::thread([&] { given = site(); }).join();
    return given;
}

static std::vector<std::string> database_lines()
{
    std::istringstream text(read_file(DATABASE));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

static void write_database(const std::string &text)
{
    unlink(DATABASE);
    FILE *file = fopen(DATABASE, "w");
    ASSERT_TRUE(file);
    fputs(text.c_str(), file);
    fclose(file);
}

// Every test has a working directory and so a database of its own. In the walk these tests would
// take the walk's database for theirs.
class zqmallocfail : public testing::Test {
  protected:
    void SetUp() override
    {
        if (faults_injected())
            GTEST_SKIP() << "tests the fault injection itself";
        home = get_current_dir_name();
        ASSERT_EQ(chdir(scratch.path().c_str()), 0);
        zq_mallocfail_uninit();
    }

    void TearDown() override
    {
        unbuffered_streams = false;
        zq_mallocfail_uninit();
        if (!home)
            return;
        EXPECT_EQ(chdir(home), 0);
        free(home);
    }

    // The path of ask(site), found out with a database that is then forgotten.
    std::string path_of(bool (*site)())
    {
        unlink(DATABASE);
        zq_mallocfail_uninit();
        EXPECT_FALSE(ask(site));
        std::string path = database_lines().at(0);
        zq_mallocfail_uninit();
        unlink(DATABASE);
        return path;
    }

    Scratch scratch;
    char *home = nullptr;
};

TEST_F(zqmallocfail, a_path_fails_once)
{
    EXPECT_FALSE(ask(site_one));
    EXPECT_TRUE(ask(site_one));
    EXPECT_EQ(database_lines().size(), 1u);
    EXPECT_FALSE(ask(site_two));
    EXPECT_TRUE(ask(site_two));
    EXPECT_EQ(database_lines().size(), 2u);
    // From another caller the same site is another path.
    EXPECT_FALSE(site_one());
    EXPECT_EQ(database_lines().size(), 3u);
}

TEST_F(zqmallocfail, recorded_paths_succeed_in_a_later_run)
{
    EXPECT_FALSE(ask(site_one));
    zq_mallocfail_uninit();
    EXPECT_TRUE(ask(site_one));
    EXPECT_EQ(database_lines().size(), 1u);

    zq_mallocfail_uninit();
    zq_mallocfail_uninit();
    unlink(DATABASE);
    EXPECT_FALSE(ask(site_one));
}

TEST_F(zqmallocfail, one_of_many_threads_fails)
{
    std::barrier start(8);
    std::atomic<int> failures = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            failures += !site_one();
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(database_lines().size(), 1u);
}

TEST_F(zqmallocfail, a_thousand_paths_are_known)
{
    const std::string path = path_of(site_one);
    std::string text;
    for (int i = 0; i < 1000; i++)
        text += path + "," + std::to_string(i) + "\n";
    write_database(text + path + "\n");
    EXPECT_TRUE(ask(site_one));
    EXPECT_FALSE(ask(site_two));
    EXPECT_EQ(database_lines().size(), 1002u);
}

TEST_F(zqmallocfail, loading_stops_at_a_line_too_long)
{
    const std::string path = path_of(site_one);
    const struct {
        size_t length; // with the line feed
        bool loads;
    } rows[] = {{1, true},     {4094, true},  {4095, false},
                {4096, false}, {4097, false}, {9000, false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.length);
        const std::string filler = std::string(row.length - 1, 'x') + "\n";
        for (bool before : {true, false}) {
            zq_mallocfail_uninit();
            write_database(before ? path + "\n" + filler : filler + path + "\n");
            testing::internal::CaptureStderr();
            bool given = ask(site_one);
            EXPECT_EQ(testing::internal::GetCapturedStderr(), row.loads ? "" : TOO_LONG);
            EXPECT_EQ(given, before || row.loads);
        }
    }
}

TEST_F(zqmallocfail, the_last_line_needs_no_line_feed)
{
    write_database(path_of(site_one));
    EXPECT_TRUE(ask(site_one));
}

// What cannot be written is still remembered for the rest of the run.
TEST_F(zqmallocfail, a_file_that_cannot_be_written)
{
    const struct {
        const char *target;
        bool buffered;
        const char *report;
    } rows[] = {
        {"/", true, "unable to append stacktrace in file zqmallocfail.db\n"},
        {"/dev/full", false, "unable to write stacktrace in file zqmallocfail.db\n"},
        {"/dev/full", true, ""}, // only closing the file fails
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.report);
        zq_mallocfail_uninit();
        ask(site_two); // loads the database, which such targets cannot be
        unlink(DATABASE);
        ASSERT_EQ(symlink(row.target, DATABASE), 0);
        unbuffered_streams = !row.buffered;
        testing::internal::CaptureStderr();
        EXPECT_FALSE(ask(site_one));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.report);
        EXPECT_TRUE(ask(site_one));
        unlink(DATABASE);
    }
}

TEST_F(zqmallocfail, a_backtrace_is_joined_frames_without_addresses)
{
    Text text(zq_mallocfail_backtrace_stacktrace());
    ASSERT_TRUE(text);
    EXPECT_THAT(text.get(), Not(HasSubstr("[")));
    EXPECT_THAT(text.get(), Not(HasSubstr(" ")));
    EXPECT_THAT(text.get(), HasSubstr("),/"));
    EXPECT_THAT(text.get(), HasSubstr("(main+0x"));
}

// The sanitizers catch the call of backtrace() and add a frame of their own in front.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" [[gnu::noinline]] char *backtrace_caller()
{
    char *text = zq_mallocfail_backtrace_stacktrace();
    asm("");
    return text;
}

TEST_F(zqmallocfail, a_backtrace_begins_with_the_caller)
{
    Text text(backtrace_caller());
    ASSERT_TRUE(text);
    std::string first = text.get();
    first.resize(first.find(','));
    EXPECT_THAT(first, HasSubstr("(backtrace_caller+0x"));
}
#endif

[[gnu::noinline]] static char *backtrace_below(int depth)
{
    char *text = depth > 0 ? backtrace_below(depth - 1) : zq_mallocfail_backtrace_stacktrace();
    asm("");
    return text;
}

TEST_F(zqmallocfail, a_backtrace_has_50_frames_at_most)
{
    Text text(backtrace_below(60));
    ASSERT_TRUE(text);
    auto commas = std::count(text.get(), text.get() + strlen(text.get()), ',');
    EXPECT_GE(commas, 50 - 4 - 1);
    EXPECT_LE(commas, 50 - 1);
    EXPECT_THAT(text.get(), Not(HasSubstr("(main+")));
}

// Stands for the fault decision, the only one that the libunwind generator works for.
extern "C" [[gnu::noinline]] char *zq_mallocfail_checkfail()
{
    char *text = zq_mallocfail_unwind_stacktrace();
    asm("");
    return text;
}

extern "C" [[gnu::noinline]] char *unwind_caller()
{
    char *text = zq_mallocfail_checkfail();
    asm("");
    return text;
}

TEST_F(zqmallocfail, an_unwound_stack_is_names_at_addresses)
{
    Text text(unwind_caller());
    ASSERT_TRUE(text);
    EXPECT_THAT(text.get(), StartsWith("unwind_caller@"));
    std::istringstream stream(text.get());
    bool start_main = false;
    for (std::string frame; std::getline(stream, frame, ',');) {
        if (frame == "__libc_start_main")
            start_main = true;
        else
            EXPECT_THAT(frame, testing::MatchesRegex("[^@]*@[0-9a-f]+"));
    }
    EXPECT_TRUE(start_main);
}

TEST_F(zqmallocfail, unwinding_serves_the_fault_decision_only)
{
    EXPECT_MISUSE(zq_mallocfail_unwind_stacktrace(), "util/zqmallocfail",
                  "zq_mallocfail_unwind_skip", R"(strcmp(name, "zq_mallocfail_checkfail") == 0)");
}

static void ask_without_memory(long nth)
{
    HeapFailure failure(nth);
    site_one();
}

TEST_F(zqmallocfail, without_memory_for_the_path_there_is_no_decision)
{
    if (!heap_is_watched())
        GTEST_SKIP() << "cannot fail allocations";
    EXPECT_MISUSE(ask_without_memory(1), "util/zqmallocfail", "zq_mallocfail_backtrace_stacktrace",
                  "symbols != NULL");
    EXPECT_MISUSE(ask_without_memory(2), "util/zqmallocfail", "zq_mallocfail_checkfail",
                  "stacktrace != NULL");
}

// Whatever the database lacks memory for makes the path a new one; loading says where it stopped.
TEST_F(zqmallocfail, without_memory_for_the_database_paths_are_new)
{
    if (!heap_is_watched())
        GTEST_SKIP() << "cannot fail allocations";
    const std::string path = path_of(site_one);
    std::set<std::string> reports;
    for (long nth = 3; nth < 20; nth++) {
        SCOPED_TRACE(nth);
        zq_mallocfail_uninit();
        write_database("first\n" + path + "\n");
        testing::internal::CaptureStderr();
        bool given = false;
        std::thread([&] {
            HeapFailure failure(nth);
            given = site_one();
        }).join();
        std::string text = testing::internal::GetCapturedStderr();
        EXPECT_FALSE(given && !text.empty());
        reports.insert(text);
    }
    const std::string loading = "zq_mallocfail_file_load: not enough memory for ";
    const std::string size = std::to_string(path.size() + 1);
    EXPECT_THAT(reports, testing::ElementsAre(
                             "", "unable to append stacktrace in file zqmallocfail.db\n",
                             loading + "line buffer (4096 bytes)\n",
                             testing::MatchesRegex(loading + "stackframe entry .[0-9]+ bytes.\n"),
                             loading + "stacktrace (" + size + " bytes)\n",
                             loading + "stacktrace (6 bytes)\n"));
}
