#include "zq/crypto/zqrandom.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/fake_clock.h"
#include "tests/support/interpose.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch.h"
#include "zq/util/zqconvert.h"

static constexpr time_t stopped = 1000000000;

namespace {
// While one lives, the only noise is what it gives: the files in `files`, and a clock that stands.
struct Noise {
    static inline Noise *current = nullptr;
    std::map<std::string, std::string> files;
    std::vector<std::string> opened; // also what was not there
    FakeClock clock{stopped, 123456};
    Noise() { current = this; }
    ~Noise() { current = nullptr; }
};
} // namespace

extern "C" FILE *fopen(const char *name, const char *mode)
{
    Noise *noise = Noise::current;
    if (!noise || (strncmp(name, "/proc/", 6) != 0 && strcmp(name, "/dev/urandom") != 0))
        return next_symbol<&fopen>()(name, mode);
    noise->opened.push_back(name);
    std::string &content = noise->files[name];
    return content.empty() ? nullptr : fmemopen(content.data(), content.size(), "rb");
}

extern "C" time_t time(time_t *out)
{
    return Noise::current ? stopped : next_symbol<&time>()(out);
}

using Random = Owned<zqrandom, zq_random_destroy>;

static std::string draw(zqrandom *random, size_t count, size_t piece = SIZE_MAX)
{
    std::string bytes(count, 'x');
    for (size_t at = 0; at < count; at += std::min(piece, count - at))
        EXPECT_EQ(zq_random_buffer(random, bytes.data() + at, std::min(piece, count - at)), 0);
    return bytes;
}

// The numbers that follow 3000 bytes come from an independent implementation of the pool.
TEST(zqrandom, the_same_noise_gives_the_same_stream)
{
    Noise given;
    std::string &urandom = given.files["/dev/urandom"];
    for (int i = 0; i < 300; i++) // more than is read of it
        urandom += static_cast<char>(i % 251);
    given.files["/proc/interrupts"] = "interrupts\n";
    given.files["/proc/meminfo"] = std::string(300000, 'm'); // likewise
    std::string first;
    for (size_t piece : {1u, 100u, 1024u, 3000u}) {
        Random random(zq_random_create());
        ASSERT_TRUE(random);
        std::string bytes = draw(random.get(), 3000, piece);
        EXPECT_EQ(zq_random_uint(random.get()), 0xa675a3acu) << piece;
        EXPECT_TRUE(bytes == (first.empty() ? first = bytes : first)) << piece;
    }
    // A file is mixed in up to the size of the pool.
    Scratch scratch;
    for (size_t size : {1024u, 5000u}) {
        Random random(zq_random_create());
        ASSERT_TRUE(random);
        std::string name = scratch.write("seed", std::string(size, 'f'));
        ASSERT_EQ(zq_random_set_filename(random.get(), "/dev/null"), 0);
        ASSERT_EQ(zq_random_set_filename(random.get(), name.c_str()), 0);
        draw(random.get(), 3000);
        EXPECT_EQ(zq_random_uint(random.get()), 0xb01213b2u) << size;
        EXPECT_EQ(read_file(name).size(), size);
    }
}

// Null is the process-wide instance.
TEST(zqrandom, noise_is_gathered_first_and_after_every_pool_and_may_be_missing)
{
    LogCapture log(16);
    zq_random_uninit();
    Noise none;
    if (zq_random_init() != 0)
        return;
    std::string first = draw(nullptr, 1023);
    const std::vector<std::string> light_noise = {
        "/dev/urandom",      "/proc/interrupts", "/proc/meminfo",   "/proc/net/rt_cache",
        "/proc/sched_debug", "/proc/self/sched", "/proc/timer_list"};
    EXPECT_EQ(none.opened, light_noise);
    EXPECT_GT(std::set<char>(first.begin(), first.end()).size(), 200u);
    draw(nullptr, 1);
    EXPECT_EQ(none.opened.size(), 2 * light_noise.size());
    EXPECT_NE(draw(nullptr, 1023), first);
    none.opened.clear();
    zq_random_uint(nullptr); // crosses the end of the pool
    EXPECT_EQ(none.opened, light_noise);
    EXPECT_EQ(zq_random_set_filename(nullptr, "/proc/is/not/there"), 0);
    EXPECT_EQ(none.opened.size(), light_noise.size() + 1);
    zq_random_uninit();
    EXPECT_EQ(log.take(), std::vector<LogLine>{});
}

TEST(zqrandom, a_forked_child_does_not_repeat_its_parent)
{
    Random random(zq_random_create());
    ASSERT_TRUE(random);
    draw(random.get(), 10);
    Scratch scratch;
    pid_t child = fork();
    if (child == 0) {
        scratch.write("theirs", draw(random.get(), 64));
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    const std::string theirs = read_file(scratch.file("theirs"));
    EXPECT_EQ(theirs.size(), 64u);
    EXPECT_NE(theirs, draw(random.get(), 64));
}

// Under injected faults these calls fail one by one; otherwise nothing may be logged.
TEST(zqrandom, without_memory_each_call_says_why)
{
    LogCapture log;
    auto text = [&] { return testing::PrintToString(log.take()); };
    zq_random_uninit();
    char bytes[] = "kept";
    if (zq_random_buffer(nullptr, bytes, 4) != 0) {
        CHECK_PROMISE(strcmp(bytes, "kept") == 0);
        CHECK_PROMISE(text().ends_with(", [7] unable to initialize the global random context, "
                                       "[7] unable to get the global zqrandom context }"));
    }
    zq_random_uninit();
    uint32_t number = zq_random_uint(nullptr);
    std::string said = text();
    CHECK_PROMISE(said == "{}" || (said.ends_with(", [7] generating random integer failed }") &&
                                   number == 0xdeadbeef));
    zq_random_uninit();
    if (zq_random_set_filename(nullptr, "/dev/urandom") != 0) {
        CHECK_PROMISE(text() != "{}");
    }
    zq_random_uninit();

    Random random(zq_random_create());
    if (!random) {
        said = text();
        CHECK_PROMISE(said == "{ [7] not enough memory for zqrandom context }" ||
                      said.ends_with("[7] unable to create zqsha256 module context }") ||
                      said == "{ [7] not enough memory for the random pool }");
    } else if (zq_random_set_filename(random.get(), "seed") != 0) {
        CHECK_PROMISE(text() ==
                      "{ [7] not enough memory for copying random storage file name 'seed' }");
    }
    EXPECT_EQ(log.take(), std::vector<LogLine>{});
}

TEST(zqrandom, misuse)
{
    EXPECT_MISUSE(zq_random_destroy(nullptr), "crypto/zqrandom", "zq_random_destroy",
                  "zqrandom != NULL");
    EXPECT_MISUSE(zq_random_buffer(nullptr, nullptr, 1), "crypto/zqrandom", "zq_random_buffer",
                  "buffer != NULL || count == 0");
}
