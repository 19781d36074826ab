#include "zq/crypto/zqrandom.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/fake_clock.h"
#include "tests/support/interpose.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch.h"
#include "zq/crypto/zqsha256.h"
#include "zq/util/zqconvert.h"

namespace {
// While one lives, the only noise is what it gives: the files in `files`, and a clock that stands.
struct Noise {
    std::map<std::string, std::string> files;
    std::vector<std::string> opened; // also what was not there
    FakeClock clock;
    Noise();
    ~Noise();
};

Noise *noise = nullptr;

constexpr time_t stopped = 1000000000;
} // namespace

Noise::Noise() : clock(stopped, 123456)
{
    noise = this;
}

Noise::~Noise()
{
    noise = nullptr;
}

extern "C" FILE *fopen(const char *name, const char *mode)
{
    if (!noise || (strncmp(name, "/proc/", 6) != 0 && strcmp(name, "/dev/urandom") != 0))
        return next_symbol<decltype(fopen)>("fopen")(name, mode);
    noise->opened.push_back(name);
    auto file = noise->files.find(name);
    if (file != noise->files.end())
        return fmemopen(file->second.data(), file->second.size(), "rb");
    errno = ENOENT;
    return nullptr;
}

extern "C" time_t time(time_t *out)
{
    if (!noise)
        return next_symbol<decltype(time)>("time")(out);
    return stopped;
}

static const std::vector<std::string> light_noise = {
    "/dev/urandom",      "/proc/interrupts", "/proc/meminfo",   "/proc/net/rt_cache",
    "/proc/sched_debug", "/proc/self/sched", "/proc/timer_list"};

using Random = Owned<zqrandom, zq_random_destroy>;

static std::string draw(zqrandom *random, size_t count, size_t piece = SIZE_MAX)
{
    std::string bytes(count, 'x');
    for (size_t at = 0; at < count; at += std::min(piece, count - at))
        EXPECT_EQ(zq_random_buffer(random, bytes.data() + at, std::min(piece, count - at)), 0);
    return bytes;
}

static std::string sha256(const std::string &message)
{
    Owned<zqsha256, zq_sha256_destroy> hash(zq_sha256_create());
    if (!hash)
        return "";
    zq_sha256_update(hash.get(), message.data(), message.size());
    zq_sha256_finalize(hash.get());
    unsigned char digest[32];
    zq_sha256_digest(hash.get(), digest);
    ZqString hex(zq_bin2hex(digest, sizeof(digest)));
    return hex ? hex.get() : "";
}

// The expected digests come from an independent implementation of the pool.
TEST(zqrandom, the_same_noise_gives_the_same_stream)
{
    Noise given;
    std::string &urandom = given.files["/dev/urandom"];
    for (int i = 0; i < 300; i++) // more than is read of it
        urandom += static_cast<char>(i % 251);
    given.files["/proc/interrupts"] = "interrupts\n";
    given.files["/proc/meminfo"] = std::string(300000, 'm'); // likewise
    for (size_t piece : {size_t{1}, size_t{100}, size_t{1024}, SIZE_MAX}) {
        Random random(zq_random_create());
        ASSERT_TRUE(random);
        EXPECT_EQ(sha256(draw(random.get(), 3000, piece)),
                  "f272803cd02c5114e7c6869057916dafafca0905cf9930d5efd40cb05a650c48")
            << piece;
    }
    // A file is mixed in up to the size of the pool.
    Scratch scratch;
    for (size_t size : {1024u, 5000u}) {
        Random random(zq_random_create());
        ASSERT_TRUE(random);
        std::string name = scratch.write("seed", std::string(size, 'f'));
        ASSERT_EQ(zq_random_set_filename(random.get(), "/dev/null"), 0);
        ASSERT_EQ(zq_random_set_filename(random.get(), name.c_str()), 0);
        EXPECT_EQ(sha256(draw(random.get(), 3000)),
                  "8e158196c8665d8c39cd8766123c6e8ce09651453fe2af7dcd4bf87d0a474069")
            << size;
        EXPECT_EQ(read_file(name).size(), size);
    }
}

TEST(zqrandom, noise_is_gathered_first_and_after_every_pool)
{
    Noise none;
    Random random(zq_random_create());
    ASSERT_TRUE(random);
    EXPECT_TRUE(none.opened.empty());
    draw(random.get(), 1023);
    EXPECT_EQ(none.opened, light_noise);
    draw(random.get(), 1);
    EXPECT_EQ(none.opened.size(), 2 * light_noise.size());
    none.opened.clear();
    draw(random.get(), 1025);
    EXPECT_EQ(none.opened, light_noise);
}

TEST(zqrandom, missing_sources_are_skipped_silently)
{
    LogCapture log(16);
    Noise none;
    Random random(zq_random_create());
    ASSERT_TRUE(random);
    EXPECT_EQ(zq_random_set_filename(random.get(), "/proc/is/not/there"), 0);
    std::string first = draw(random.get(), 1024);
    EXPECT_NE(first, draw(random.get(), 1024));
    EXPECT_GT(std::set<char>(first.begin(), first.end()).size(), 200u);
    EXPECT_EQ(log.take(), std::vector<LogLine>{});
}

TEST(zqrandom, instances_differ)
{
    Random one(zq_random_create());
    Random two(zq_random_create());
    ASSERT_TRUE(one && two);
    EXPECT_NE(draw(one.get(), 64), draw(two.get(), 64));
    EXPECT_NE(zq_random_uint(one.get()), zq_random_uint(one.get()));
}

TEST(zqrandom, an_integer_is_four_bytes_of_the_stream)
{
    Noise none;
    Random bytes(zq_random_create());
    Random number(zq_random_create());
    ASSERT_TRUE(bytes && number);
    uint32_t expected = 0;
    for (char c : draw(bytes.get(), 4))
        expected = expected << 8 | static_cast<unsigned char>(c);
    EXPECT_EQ(zq_random_uint(number.get()), expected);
}

TEST(zqrandom, a_forked_child_does_not_repeat_its_parent)
{
    Random random(zq_random_create());
    ASSERT_TRUE(random);
    draw(random.get(), 10);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pid_t child = fork();
    if (child == 0) {
        char bytes[64];
        zq_random_buffer(random.get(), bytes, sizeof(bytes));
        _exit(write(ends[1], bytes, sizeof(bytes)) == 64 ? 0 : 1);
    }
    std::string theirs(64, 0);
    EXPECT_EQ(read(ends[0], theirs.data(), theirs.size()), 64);
    EXPECT_NE(theirs, draw(random.get(), 64));
    close(ends[0]);
    close(ends[1]);
    waitpid(child, nullptr, 0);
}

TEST(zqrandom, null_is_the_process_wide_instance)
{
    zq_random_uninit();
    zq_random_uninit();
    Noise none;
    if (zq_random_init() != 0)
        return;
    EXPECT_EQ(zq_random_init(), 0);
    draw(nullptr, 100);
    zq_random_uint(nullptr);
    EXPECT_EQ(zq_random_set_filename(nullptr, "/proc/is/not/there"), 0);
    draw(nullptr, 100);
    EXPECT_EQ(none.opened.size(), light_noise.size() + 1) << "seeded once";
    zq_random_uninit();
    if (zq_random_init() != 0)
        return;
    draw(nullptr, 1);
    EXPECT_EQ(none.opened.size(), 2 * light_noise.size() + 1);
    zq_random_uninit();
}

// Under injected faults these calls fail one by one; otherwise nothing may be logged.
TEST(zqrandom, without_memory_each_call_says_why)
{
    LogCapture log;
    const LogLine no_global = {7, "unable to initialize the global random context"};
    zq_random_uninit();
    char bytes[4] = {'k', 'e', 'p', 't'};
    if (zq_random_buffer(nullptr, bytes, sizeof(bytes)) != 0) {
        auto lines = log.take();
        CHECK_PROMISE(memcmp(bytes, "kept", 4) == 0);
        CHECK_PROMISE(lines.size() >= 3 && lines.end()[-2] == no_global);
        CHECK_PROMISE((lines.back() == LogLine{7, "unable to get the global zqrandom context"}));
    }
    zq_random_uninit();
    uint32_t number = zq_random_uint(nullptr);
    auto lines = log.take();
    if (!lines.empty()) {
        CHECK_PROMISE((lines.back() == LogLine{7, "generating random integer failed"}));
        CHECK_PROMISE(number == 0xdeadbeef);
    }
    zq_random_uninit();

    Random random(zq_random_create());
    if (!random) {
        const std::set<std::string> reasons = {"not enough memory for zqrandom context",
                                               "unable to create zqsha256 module context",
                                               "not enough memory for the random pool"};
        CHECK_PROMISE(reasons.count(log.take().back().text));
    } else if (zq_random_set_filename(random.get(), "seed") != 0) {
        const LogLine line = {7, "not enough memory for copying random storage file name 'seed'"};
        CHECK_PROMISE((log.take() == std::vector<LogLine>{line}));
    }
    EXPECT_EQ(log.take(), std::vector<LogLine>{});
}

TEST(zqrandom, misuse_stops_the_process)
{
    EXPECT_MISUSE(zq_random_destroy(nullptr), "crypto/zqrandom", "zq_random_destroy",
                  "zqrandom != NULL");
    EXPECT_MISUSE(zq_random_set_filename(nullptr, nullptr), "crypto/zqrandom",
                  "zq_random_set_filename", "filename != NULL");
    EXPECT_MISUSE(zq_random_buffer(nullptr, nullptr, 1), "crypto/zqrandom", "zq_random_buffer",
                  "buffer != NULL || count == 0");
}
