#include "zq/util/zqmallocfail.h"

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <set>
#include <thread>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/interpose.h"
#include "tests/support/scratch.h"

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

using Text = std::unique_ptr<char, decltype([](char *text) { free(text); })>;

static const std::string DATABASE = "zqmallocfail.db";
static const std::string LOADING = "zq_mallocfail_file_load: ";

static std::atomic<bool> unbuffered_streams;

extern "C" FILE *fopen(const char *name, const char *mode)
{
    FILE *stream = next_symbol<&fopen>()(name, mode);
    if (stream && unbuffered_streams)
        setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

// Two call sites; each call returns whether it was given memory.
[[gnu::noinline]] static bool site_one()
{
    Text block(static_cast<char *>(zq_mallocfail_malloc(10)));
    return block != nullptr;
}

[[gnu::noinline]] static bool site_two()
{
    Text block(static_cast<char *>(zq_mallocfail_calloc(5, 2)));
    EXPECT_TRUE(!block || memcmp(block.get(), "\0\0\0\0\0\0\0\0\0", 10) == 0);
    return block != nullptr;
}

// Asks from a thread of its own, so that the path is the same from everywhere.
static bool ask(bool (*site)(), long failing = 0)
{
    bool given = false;
    std::thread([&] {
        HeapFailure failure(failing);
        given = site();
    }).join();
    return given;
}

// Every test has a working directory and so a database of its own. In the walk these tests would
// take the walk's database for theirs.
class zqmallocfail : public testing::Test {
  protected:
    void SetUp() override
    {
        if (faults_injected())
            GTEST_SKIP() << "tests the fault injection itself";
        std::filesystem::current_path(scratch.path());
        // The path of site_one(), with a database that is then forgotten.
        zq_mallocfail_uninit();
        EXPECT_FALSE(ask(site_one));
        path = read_file(DATABASE);
        load("");
    }
    void TearDown() override
    {
        unbuffered_streams = false;
        std::filesystem::current_path(home);
        zq_mallocfail_uninit();
    }
    // Lets the next decision load this database.
    void load(const std::string &text)
    {
        zq_mallocfail_uninit();
        unlink(DATABASE.c_str());
        if (!text.empty())
            scratch.write(DATABASE, text);
    }
    long lines()
    {
        const std::string text = read_file(DATABASE);
        return std::count(text.begin(), text.end(), '\n');
    }

    const std::filesystem::path home = std::filesystem::current_path();
    Scratch scratch;
    std::string path; // and a line feed
};

TEST_F(zqmallocfail, a_path_fails_once)
{
    EXPECT_FALSE(ask(site_two));
    EXPECT_TRUE(ask(site_two));
    // From another caller, and for one of many threads.
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
    EXPECT_EQ(lines(), 2);
}

TEST_F(zqmallocfail, loading_stops_at_a_line_that_is_too_long)
{
    load(std::string(4095, 'x') + "\n" + path);
    CaptureStderr();
    EXPECT_FALSE(ask(site_one));
    EXPECT_EQ(GetCapturedStderr(),
              LOADING + "buffer too short for loading stackframes (4096 bytes)\n");
}

// What cannot be written is still remembered for the rest of the run.
TEST_F(zqmallocfail, a_file_that_cannot_be_written)
{
    const struct {
        const char *target;
        bool buffered;
        std::string report;
    } rows[] = {
        {"/", true, "unable to append stacktrace in file " + DATABASE + "\n"},
        {"/dev/full", false, "unable to write stacktrace in file " + DATABASE + "\n"},
        {"/dev/full", true, ""}, // only closing the file fails
    };
    for (const auto &row : rows) {
        load("");
        ask(site_two); // loads the database, which such targets cannot be
        unlink(DATABASE.c_str());
        ASSERT_EQ(symlink(row.target, DATABASE.c_str()), 0);
        unbuffered_streams = !row.buffered;
        CaptureStderr();
        EXPECT_FALSE(ask(site_one));
        EXPECT_EQ(GetCapturedStderr(), row.report);
        EXPECT_TRUE(ask(site_one));
    }
}

[[gnu::noinline]] static char *backtrace_below(int depth)
{
    char *text = depth > 0 ? backtrace_below(depth - 1) : zq_mallocfail_backtrace_stacktrace();
    asm("");
    return text;
}

// Stands for the fault decision, the only one that the libunwind generator works for.
extern "C" [[gnu::noinline]] char *zq_mallocfail_checkfail()
{
    char *text = zq_mallocfail_unwind_stacktrace();
    asm("");
    return text;
}

extern "C" [[gnu::noinline]] char *stack_caller(char *(*stacktrace)())
{
    char *text = stacktrace();
    asm("");
    return text;
}

TEST_F(zqmallocfail, stacks_as_texts)
{
    // Frames without addresses, 50 at most.
    Text text(stack_caller(zq_mallocfail_backtrace_stacktrace));
    ASSERT_TRUE(text);
    EXPECT_THAT(text.get(), Not(ContainsRegex("[[ ]")));
    EXPECT_THAT(text.get(), HasSubstr("),/"));
    EXPECT_THAT(text.get(), HasSubstr("(main+0x"));
    // The sanitizers catch the call of backtrace() and add a frame of their own in front.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_THAT(text.get(), ContainsRegex("^[^,]*.stack_caller[+]0x"));
#endif
    const Text deep(backtrace_below(60));
    ASSERT_TRUE(deep);
    const std::string frames = deep.get();
    EXPECT_GE(std::count(frames.begin(), frames.end(), ','), 50 - 4 - 1);
    EXPECT_LE(std::count(frames.begin(), frames.end(), ','), 50 - 1);
    // Names at addresses.
    text.reset(stack_caller(zq_mallocfail_checkfail));
    ASSERT_TRUE(text);
    EXPECT_THAT(text.get(), testing::StartsWith("stack_caller@"));
    EXPECT_THAT(text.get(), HasSubstr(",__libc_start_main,"));
    EXPECT_THAT(text.get(), ContainsRegex(",main@[0-9a-f]+,"));
    EXPECT_MISUSE(zq_mallocfail_unwind_stacktrace(), "util/zqmallocfail",
                  "zq_mallocfail_unwind_skip", R"(strcmp(name, "zq_mallocfail_checkfail") == 0)");
}

// Whatever the database lacks memory for makes the path a new one; loading says where it stopped.
TEST_F(zqmallocfail, without_memory)
{
    if (!heap_is_watched())
        GTEST_SKIP() << "cannot fail allocations";
    EXPECT_MISUSE(ask(site_one, 1), "util/zqmallocfail", "zq_mallocfail_backtrace_stacktrace",
                  "symbols != NULL");
    EXPECT_MISUSE(ask(site_one, 2), "util/zqmallocfail", "zq_mallocfail_checkfail",
                  "stacktrace != NULL");
    std::set<std::string> reports;
    for (long nth = 6; nth < 40; nth++) {
        load("123456789\n" + path);
        CaptureStderr();
        const bool given = ask(nth % 2 ? site_one : site_two, nth / 2);
        const std::string text = GetCapturedStderr();
        EXPECT_FALSE(given && !text.empty()) << nth;
        reports.insert(text);
    }
    const std::string none = LOADING + "not enough memory for ";
    const std::string path_size = std::to_string(path.size());
    EXPECT_THAT(reports, testing::ElementsAre(
                             "", "unable to append stacktrace in file zqmallocfail.db\n",
                             none + "line buffer (4096 bytes)\n",
                             testing::MatchesRegex(none + "stackframe entry .[0-9]+ bytes.\n"),
                             none + "stacktrace (10 bytes)\n",
                             none + "stacktrace (" + path_size + " bytes)\n"));
}
