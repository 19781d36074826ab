#include "zq/io/zqhandle.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>

#include "tests/support/expect.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "zq/util/zqlog.h"

using Handle = Owned<zqhandle, zq_handle_destroy>;
using Lines = std::vector<LogLine>;

// The log of one failure, or of none when there is no text.
static Lines failure(const char *text)
{
    return text ? Lines{{7, text}} : Lines{};
}

// ---- an implementation that follows a script ----

namespace {
// One thing that happens when the handle is read: bytes that arrive or an error, after some time.
struct Arrival {
    std::string data;
    zqerror error = ZQ_ERROR_NONE;
    int64_t after = 0; // microseconds
};

// One result of the write callback or of the poll: bytes taken, or an error.
struct Taken {
    size_t count;
    zqerror error = ZQ_ERROR_NONE;
};

struct Script {
    std::deque<Arrival> arrivals = {}; // the end of the stream follows them
    FakeClock *clock = nullptr;
    size_t reads = 0;
    size_t largest_read = 0;
    std::vector<std::pair<int32_t, uint32_t>> read_timeouts = {};

    std::deque<Taken> takes = {};
    std::deque<zqerror> polls = {};
    std::string written = {};

    std::deque<zqerror> results = {}; // of the other callbacks
    int destroyed = 0;
    zqhandle *connection = nullptr;
};
} // namespace

static Script *script_of(zqhandle *handle)
{
    return static_cast<Script *>(zq_handle_get_context(handle));
}

template <class T>
static T next_of(std::deque<T> &queue)
{
    T value = queue.front();
    queue.pop_front();
    return value;
}

static size_t fail_with(zqhandle *handle, zqerror error)
{
    zq_handle_set_error(handle, error);
    return 0;
}

static size_t script_read(zqhandle *handle, void *buf, size_t count)
{
    Script *script = script_of(handle);
    script->reads++;
    script->largest_read = std::max(script->largest_read, count);
    int32_t seconds;
    uint32_t microseconds;
    zq_handle_get_read_timeout(handle, &seconds, &microseconds);
    script->read_timeouts.push_back({seconds, microseconds});
    if (script->arrivals.empty())
        return fail_with(handle, ZQ_ERROR_END_OF_FILE);
    Arrival &arrival = script->arrivals.front();
    if (script->clock)
        script->clock->advance(std::exchange(arrival.after, 0));
    if (arrival.error != ZQ_ERROR_NONE)
        return fail_with(handle, next_of(script->arrivals).error);
    size_t result = arrival.data.copy(static_cast<char *>(buf), count);
    arrival.data.erase(0, result);
    if (arrival.data.empty())
        script->arrivals.pop_front();
    return result;
}

static size_t script_write(zqhandle *handle, const void *buf, size_t count)
{
    Script *script = script_of(handle);
    Taken taken = next_of(script->takes);
    if (taken.error != ZQ_ERROR_NONE)
        return fail_with(handle, taken.error);
    size_t result = std::min(count, taken.count);
    script->written.append(static_cast<const char *>(buf), result);
    return result;
}

static zqerror script_poll_write(zqhandle *handle)
{
    return next_of(script_of(handle)->polls);
}

static zqerror script_connect(zqhandle *handle, const char *name, uint32_t port)
{
    EXPECT_STREQ(name, "example.org");
    EXPECT_EQ(port, 65535u);
    return next_of(script_of(handle)->results);
}

static zqerror script_step(zqhandle *handle)
{
    return next_of(script_of(handle)->results);
}

static zqerror script_local_port(zqhandle *handle, uint32_t *portptr)
{
    *portptr = 8080;
    return next_of(script_of(handle)->results);
}

static zqerror script_accept(zqhandle *handle, zqhandle **connectionhandleptr)
{
    *connectionhandleptr = script_of(handle)->connection;
    return next_of(script_of(handle)->results);
}

static void script_destroy(zqhandle *handle)
{
    script_of(handle)->destroyed++;
}

static Handle make_handle(Script *script)
{
    Handle handle(zq_handle_create());
    if (!handle)
        return handle;
    zq_handle_set_context(handle.get(), script);
    zq_handle_set_destroy_callback(handle.get(), script_destroy);
    zq_handle_set_read_callback(handle.get(), script_read);
    zq_handle_set_write_callback(handle.get(), script_write);
    zq_handle_set_poll_write_callback(handle.get(), script_poll_write);
    zq_handle_set_connect_callback(handle.get(), script_connect);
    zq_handle_set_connect_wait_callback(handle.get(), script_step);
    zq_handle_set_local_port_callback(handle.get(), script_local_port);
    zq_handle_set_accept_callback(handle.get(), script_accept);
    zq_handle_set_wakeup_callback(handle.get(), script_step);
    return handle;
}

// ---- reading ----

namespace {
struct Result {
    std::string bytes;
    zqerror error;
    bool operator==(const Result &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Result &result)
{
    return out << '"' << result.bytes << "\" " << result.error;
}

struct ReadRow {
    const char *what;
    std::deque<Arrival> arrivals;
    size_t size;
    std::vector<Result> lines;
    size_t reads;
    const char *log = nullptr;
    int32_t timeout_seconds = -1;
    uint32_t timeout_microseconds = 0;
};
} // namespace

static Result read_line(zqhandle *handle, size_t size)
{
    std::string buf(size, '?');
    buf.resize(zq_handle_read_line(handle, buf.data(), size));
    return {buf, zq_handle_get_error(handle)};
}

static Result read_some(zqhandle *handle, size_t count)
{
    std::string buf(count, '?');
    buf.resize(zq_handle_read(handle, buf.data(), count));
    return {buf, zq_handle_get_error(handle)};
}

// A line of `count` letters with `before` and `after` around it.
static std::string padded(const char *before, size_t count, const char *after)
{
    return std::string(before).append(count, 'x').append(after);
}

TEST(zqhandle, lines)
{
    const ReadRow rows[] = {
        {"joined from several reads", {{"ab"}, {"c"}, {"d\n"}}, 99, {{"abcd\n", 0}}, 3},
        {"from one read", {{"a\n\nb\n"}}, 99, {{"a\n", 0}, {"\n", 0}, {"b\n", 0}}, 1},
        {"carriage return and zero are bytes",
         {{std::string("a\0\r\n", 4)}},
         99,
         {{std::string("a\0\r\n", 4), 0}},
         1},
        {"begun in the buffer, ended by a read",
         {{"a\nb"}, {"c\n"}},
         99,
         {{"a\n", 0}, {"bc\n", 0}},
         2},
        {"longer than the caller's memory", {{"abcdefg\n"}}, 4, {{"abcd", 0}, {"efg\n", 0}}, 2},
        {"as long as the caller's memory", {{"abc\ndef\n"}}, 4, {{"abc\n", 0}, {"def\n", 0}}, 2},
        {"byte by byte", {{"ab\n"}}, 1, {{"a", 0}, {"b", 0}, {"\n", 0}, {"", 204}}, 4},
        {"longer than a chunk",
         {{padded("", 9000, "\ny")}},
         9999,
         {{padded("", 9000, "\n"), 0}, {"y", 204}},
         4},
        {"filling the buffer but for one byte",
         {{padded("\n", 4095, "\n")}},
         9999,
         {{"\n", 0}, {padded("", 4095, "\n"), 0}, {"", 204}},
         3},
        {"a buffered line taken in pieces", {{"\nabcdef\ng"}}, 99, {{"\n", 0}}, 1},
        {"ended by the end of the stream", {{"abc"}}, 99, {{"abc", 204}, {"", 204}}, 3},
        {"ended by a timeout, then continued",
         {{"ab"}, {"", 201}, {"c\n"}},
         99,
         {{"ab", 201}, {"c\n", 0}},
         3},
        {"ended by an error",
         {{"ab"}, {"", 104}},
         99,
         {{"ab", 104}},
         2,
         "unable to read data from the handle, error 104 (connection reset by peer)"},
        {"the deadline covers the line",
         {{"a", 0, 1000000}, {"b", 0, 1000000}, {"c\n"}},
         99,
         {{"ab", 201}, {"c\n", 0}},
         3,
         nullptr,
         2,
         0},
        {"no time, but for what is buffered", {{"a\nb\n"}}, 99, {{"", 201}}, 0, {}, 0, 0},
    };
    for (const ReadRow &row : rows) {
        SCOPED_TRACE(row.what);
        LogCapture log;
        FakeClock clock;
        Script script{.arrivals = row.arrivals, .clock = &clock};
        Handle handle = make_handle(&script);
        ASSERT_TRUE(handle);
        zq_handle_set_read_timeout(handle.get(), row.timeout_seconds, row.timeout_microseconds);
        for (const Result &line : row.lines)
            EXPECT_EQ(read_line(handle.get(), row.size), line);
        EXPECT_LE(script.largest_read, 4096u);
        EXPECT_EQ(script.reads, row.reads);
        EXPECT_EQ(log.take(), failure(row.log));
        int32_t seconds;
        uint32_t microseconds;
        zq_handle_get_read_timeout(handle.get(), &seconds, &microseconds);
        EXPECT_EQ(seconds, row.timeout_seconds);
        EXPECT_EQ(microseconds, row.timeout_microseconds);
    }
}

TEST(zqhandle, each_read_of_a_line_gets_the_time_left)
{
    FakeClock clock;
    Script script{.arrivals = {{"a", 0, 500000}, {"b\nrest\n", 0, 700001}}, .clock = &clock};
    Handle handle = make_handle(&script);
    ASSERT_TRUE(handle);
    zq_handle_set_read_timeout(handle.get(), 1, 250000);
    EXPECT_EQ(read_line(handle.get(), 99), (Result{"ab\n", 0}));
    using Pairs = std::vector<std::pair<int32_t, uint32_t>>;
    EXPECT_EQ(script.read_timeouts, (Pairs{{1, 250000}, {0, 750000}}));
    // What is buffered needs no time.
    zq_handle_set_read_timeout(handle.get(), 0, 0);
    EXPECT_EQ(read_line(handle.get(), 99), (Result{"rest\n", 0}));
    EXPECT_EQ(read_line(handle.get(), 99), (Result{"", 201}));
    EXPECT_EQ(script.reads, 2u);
}

TEST(zqhandle, reads_serve_the_buffer_first)
{
    LogCapture log;
    Script script{.arrivals = {{"line\nabcdefgh"}, {"ij"}, {"", 104}, {"kl\nm"}, {"", 104}}};
    Handle handle = make_handle(&script);
    ASSERT_TRUE(handle);
    EXPECT_EQ(read_line(handle.get(), 99), (Result{"line\n", 0}));
    EXPECT_EQ(read_some(handle.get(), 3), (Result{"abc", 0}));
    EXPECT_EQ(read_line(handle.get(), 2), (Result{"de", 0}));
    EXPECT_EQ(script.reads, 1u);
    EXPECT_EQ(read_some(handle.get(), 99), (Result{"fghij", 0}));
    EXPECT_EQ(read_some(handle.get(), 99), (Result{"", 104}));
    EXPECT_EQ(read_line(handle.get(), 99), (Result{"kl\n", 0}));
    // An error behind buffered bytes is for the next call.
    EXPECT_EQ(read_some(handle.get(), 99), (Result{"m", 0}));
    EXPECT_EQ(read_some(handle.get(), 99), (Result{"", 204}));
    EXPECT_TRUE(log.take().empty());
}

TEST(zqhandle, buffered_bytes_outlive_the_read_callback)
{
    LogCapture log;
    Script script{.arrivals = {{"a\nb\ncd"}}};
    Handle handle = make_handle(&script);
    ASSERT_TRUE(handle);
    EXPECT_EQ(read_line(handle.get(), 99), (Result{"a\n", 0}));
    zq_handle_set_read_callback(handle.get(), nullptr);
    EXPECT_EQ(read_line(handle.get(), 99), (Result{"b\n", 0}));
    EXPECT_EQ(read_line(handle.get(), 1), (Result{"c", 0}));
    EXPECT_EQ(read_line(handle.get(), 99), (Result{"d", 0}));
    EXPECT_TRUE(log.take().empty());
    const Lines unsupported = {{6, "this handle cannot be used for reading"}};
    EXPECT_EQ(read_line(handle.get(), 99), (Result{"", 205}));
    EXPECT_EQ(log.take(), unsupported);
    EXPECT_EQ(read_some(handle.get(), 99), (Result{"", 205}));
    EXPECT_EQ(log.take(), unsupported);
}

// Reads of both kinds beside a plain string: nothing is lost, doubled or reordered.
TEST(zqhandle, any_mixture_of_reads_yields_the_stream)
{
    std::mt19937 random(7);
    auto below = [&random](size_t limit) { return random() % limit; };
    for (int round = 0; round < 200; round++) {
        std::string text;
        Script script;
        while (text.size() < 9000) {
            std::string chunk;
            size_t length = 1 + below(below(3) ? 40 : 6000);
            while (chunk.size() < length)
                chunk += below(20) ? static_cast<char>('a' + below(26)) : '\n';
            text += chunk;
            script.arrivals.push_back({chunk});
        }
        Handle handle = make_handle(&script);
        ASSERT_TRUE(handle);
        for (size_t at = 0; at < text.size();) {
            size_t size = 1 + below(below(4) ? 50 : 5000);
            bool line = below(2);
            Result result = line ? read_line(handle.get(), size) : read_some(handle.get(), size);
            std::string expected = text.substr(at, line ? size : result.bytes.size());
            if (line && expected.find('\n') != expected.npos)
                expected.resize(expected.find('\n') + 1);
            ASSERT_EQ(result.bytes, expected);
            ASSERT_FALSE(expected.empty());
            at += expected.size();
        }
        ASSERT_EQ(read_line(handle.get(), 9), (Result{"", 204}));
    }
}

// ---- without memory ----

namespace {
struct UnbufferedRow {
    std::deque<Arrival> arrivals;
    size_t size;
    Result first, second;
};
} // namespace

static const UnbufferedRow unbuffered_rows[] = {
    {{{"ab\ncd\nef"}}, 99, {"ab\n", 0}, {"cd\n", 0}},
    {{{"abcd\n"}}, 4, {"abcd", 0}, {"\n", 0}},
    {{{"ab"}, {"", 104}, {"c\n"}}, 9, {"ab", 104}, {"c\n", 0}},
    {{}, 9, {"", 204}, {"", 204}},
};

// Runs in a program of its own, where each allocation fails the first time it is tried.
static void expect_first_tries_to_fail(const UnbufferedRow &row)
{
    LogCapture log;
    while (zq_log(nullptr, 7, "%0300d", 0) != 0) {
    }
    log.take();
    Script script{.arrivals = row.arrivals};
    Handle handle;
    std::vector<Lines> logs;
    while (!handle) {
        handle = make_handle(&script);
        logs.push_back(log.take());
    }
    EXPECT_EQ(logs, (std::vector<Lines>{{{7, "not enough memory for zqhandle"}}, {}, {}}));

    for (const Result *expected : {&row.first, &row.second}) {
        EXPECT_EQ(read_line(handle.get(), row.size), *expected);
        if (expected == &row.first) {
            EXPECT_EQ(script.largest_read, 1u);
        } else {
            EXPECT_EQ(script.largest_read, row.size) << "by now there is a buffer";
        }
    }
    EXPECT_TRUE(log.take().empty());
}

TEST(zqhandle, without_memory_lines_are_read_byte_by_byte)
{
    const std::string marker = "ZQ_TEST_FIRST_TRY";
    if (const char *row = getenv(marker.c_str())) {
        expect_first_tries_to_fail(unbuffered_rows[atoi(row)]);
        return;
    }
    if (faults_injected())
        return; // what is to fail here may have failed before
    for (size_t row = 0; row < std::size(unbuffered_rows); row++) {
        Scratch scratch;
        Outcome outcome = run({"env", "-C", scratch.path(), "ZQMALLOC_FAILMODE=1",
                               marker + "=" + std::to_string(row),
                               std::filesystem::read_symlink("/proc/self/exe"),
                               "--gtest_filter=zqhandle.without_memory*"});
        EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
    }
}

// ---- writing ----

TEST(zqhandle, write)
{
    const struct {
        const char *what;
        std::deque<Taken> takes;
        std::deque<zqerror> polls;
        const char *written;
        zqerror error;
        const char *log;
    } rows[] = {
        {"at once", {{99}}, {}, "abcdef", 0, nullptr},
        {"in pieces", {{1}, {2}, {99}}, {}, "abcdef", 0, nullptr},
        {"polling", {{0, 11}, {2}, {0, 11}, {0, 11}, {4}}, {0, 0, 0}, "abcdef", 0, nullptr},
        {"poll times out", {{2}, {0, 11}}, {201}, "ab", 201, nullptr},
        {"poll fails",
         {{2}, {0, 11}},
         {12},
         "ab",
         12,
         "poll write callback returned error 12 (not enough memory)"},
        {"an error",
         {{3}, {0, 32}},
         {},
         "abc",
         32,
         "zqhandle write returned error 32 (broken pipe)"},
        {"an error at once",
         {{0, 104}},
         {},
         "",
         104,
         "zqhandle write returned error 104 (connection reset by peer)"},
        {"would block without a poll",
         {{2}, {0, 11}},
         {},
         "ab",
         0,
         "zqhandle write would block but the handle does not have support for polling writes"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        LogCapture log;
        Script script{.takes = row.takes, .polls = row.polls};
        Handle handle = make_handle(&script);
        ASSERT_TRUE(handle);
        if (row.polls.empty())
            zq_handle_set_poll_write_callback(handle.get(), nullptr);
        zq_handle_set_error(handle.get(), ZQ_ERROR_GENERIC);
        EXPECT_EQ(zq_handle_write(handle.get(), "abcdef", 6), strlen(row.written));
        EXPECT_EQ(script.written, row.written);
        EXPECT_EQ(zq_handle_get_error(handle.get()), row.error);
        EXPECT_EQ(log.take(), failure(row.log));
        EXPECT_TRUE(script.takes.empty() && script.polls.empty());
    }
}

// ---- the other operations ----

TEST(zqhandle, connect)
{
    const struct {
        std::deque<zqerror> results;
        zqerror result;
    } rows[] = {{{0}, 0}, {{111}, 111}, {{115, 115, 115, 0}, 0}, {{115, 201}, 201}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.result);
        Script script{.results = row.results};
        Handle handle = make_handle(&script);
        ASSERT_TRUE(handle);
        zq_handle_set_error(handle.get(), ZQ_ERROR_EXISTS);
        EXPECT_EQ(zq_handle_connect(handle.get(), "example.org", 65535), row.result);
        EXPECT_TRUE(script.results.empty());

        script.results = row.results;
        EXPECT_EQ(zq_handle_connect_begin(handle.get(), "example.org", 65535), row.results[0]);
        for (size_t i = 1; i < row.results.size(); i++)
            EXPECT_EQ(zq_handle_connect_wait(handle.get()), row.results[i]);
        EXPECT_EQ(zq_handle_get_error(handle.get()), ZQ_ERROR_EXISTS + 0u) << "left alone";
    }
    LogCapture log;
    Script script{.results = {115}};
    Handle handle = make_handle(&script);
    ASSERT_TRUE(handle);
    zq_handle_set_connect_wait_callback(handle.get(), nullptr);
    EXPECT_EQ(zq_handle_connect(handle.get(), "example.org", 65535), 115u);
    EXPECT_EQ(log.take(), (Lines{{6, "connect in progress but no wait callback available"}}));
}

TEST(zqhandle, accept_wakeup_and_local_port)
{
    for (zqerror result : {0u, 11u, 201u, 213u}) {
        SCOPED_TRACE(result);
        LogCapture log;
        Script script{.results = {result, result, result}};
        Handle handle = make_handle(&script);
        ASSERT_TRUE(handle);
        auto expect_log = [&](bool logged, const std::string &what) {
            std::string code = std::to_string(result) + " (" + zq_error_string(result) + ")";
            EXPECT_EQ(log.take(), failure(logged ? (what + code).c_str() : nullptr));
        };
        uint32_t port = 0;
        EXPECT_EQ(zq_handle_get_local_port(handle.get(), &port), result);
        EXPECT_EQ(port, 8080u);
        EXPECT_EQ(zq_handle_get_error(handle.get()), 0u) << "left alone";
        expect_log(result != 0, "getting the local port for the handle failed, error ");

        script.connection = result == 0 ? handle.get() : nullptr;
        zqhandle *connection = handle.get();
        EXPECT_EQ(zq_handle_accept(handle.get(), &connection), result);
        EXPECT_EQ(connection, script.connection);
        EXPECT_EQ(zq_handle_get_error(handle.get()), result);
        expect_log(result == 11, "accepting an incoming connection failed, error ");

        zq_handle_set_error(handle.get(), ZQ_ERROR_EXISTS);
        EXPECT_EQ(zq_handle_wakeup(handle.get()), result);
        EXPECT_EQ(zq_handle_get_error(handle.get()), result);
        expect_log(result != 0, "waking up a handle failed, error ");
    }
}

TEST(zqhandle, a_bare_handle_supports_nothing)
{
    LogCapture log;
    Handle handle(zq_handle_create());
    ASSERT_TRUE(handle);
    static char buf[9];
    const std::pair<zqerror (*)(zqhandle *), const char *> rows[] = {
        {[](zqhandle *h) { return zq_handle_connect(h, "example.org", 1); },
         "this handle cannot be used to connect"},
        {[](zqhandle *h) { return zq_handle_connect_begin(h, "example.org", 1); },
         "this handle cannot be used to connect"},
        {zq_handle_connect_wait, "this handle cannot be used to wait for connection"},
        {[](zqhandle *h) {
             uint32_t port;
             return zq_handle_get_local_port(h, &port) + zq_handle_get_error(h);
         },
         "this handle does not support getting the local port number"},
        {[](zqhandle *h) { return zq_handle_read(h, buf, 9) ? 0 : zq_handle_get_error(h); },
         "this handle cannot be used for reading"},
        {[](zqhandle *h) { return zq_handle_read_line(h, buf, 9) ? 0 : zq_handle_get_error(h); },
         "this handle cannot be used for reading"},
        {[](zqhandle *h) { return zq_handle_write(h, buf, 9) ? 0 : zq_handle_get_error(h); },
         "this handle cannot be used for writing"},
        {[](zqhandle *h) {
             zqhandle *connection = h;
             zqerror result = zq_handle_accept(h, &connection);
             return connection ? zqerror{ZQ_ERROR_NONE} : result;
         },
         "this handle does not support accepting incoming connections"},
        {zq_handle_wakeup, "this handle does not support waking up"},
    };
    for (const auto &[call, text] : rows) {
        EXPECT_EQ(call(handle.get()), ZQ_ERROR_UNSUPPORTED + 0u) << text;
        EXPECT_EQ(log.take(), (Lines{{6, text}}));
    }
    EXPECT_EQ(zq_handle_get_error(handle.get()), ZQ_ERROR_UNSUPPORTED + 0u);
}

TEST(zqhandle, settings)
{
    Script script;
    Handle handle = make_handle(&script);
    ASSERT_TRUE(handle);
    const struct {
        int32_t seconds;
        uint32_t microseconds;
        std::pair<int32_t, uint32_t> stored;
    } rows[] = {{0, 0, {0, 0}}, {5, 6, {5, 6}}, {-1, 0, {-1, 0}}, {-7, 8, {-1, 0}}};
    auto expect_pair = [](auto get, zqhandle *of, std::pair<int32_t, uint32_t> pair) {
        int32_t seconds;
        uint32_t microseconds;
        get(of, &seconds, &microseconds);
        EXPECT_EQ(std::pair(seconds, microseconds), pair);
    };
    std::pair<int32_t, uint32_t> other{-1, 0};
    for (const auto &row : rows) {
        zq_handle_set_write_timeout(handle.get(), row.seconds, row.microseconds);
        expect_pair(zq_handle_get_write_timeout, handle.get(), row.stored);
        expect_pair(zq_handle_get_read_timeout, handle.get(), other);
        zq_handle_set_read_timeout(handle.get(), row.seconds, row.microseconds);
        expect_pair(zq_handle_get_read_timeout, handle.get(), row.stored);
        other = row.stored;
    }
    EXPECT_EQ(zq_handle_get_error(handle.get()), 0u);
    handle.reset();
    EXPECT_EQ(script.destroyed, 1);
}

TEST(zqhandle, misuse)
{
    const char *source = "io/zqhandle";
    char buf[1];
    uint32_t port, microseconds;
    int32_t seconds;
    zqhandle *other = nullptr;
    using Call = void (*)(zqhandle *, void *, size_t);
    Handle handle(zq_handle_create());
    ASSERT_TRUE(handle);
    zqhandle *h = handle.get();

    EXPECT_MISUSE(zq_handle_set_error(h, 215), source, "zq_handle_set_error",
                  "zqerror < ZQ_ERROR_COUNT");
    using Connect = zqerror (*)(zqhandle *, const char *, uint32_t);
    const std::pair<Connect, const char *> connects[] = {
        {zq_handle_connect, "zq_handle_connect"},
        {zq_handle_connect_begin, "zq_handle_connect_begin"}};
    for (const auto &[connect, name] : connects) {
        EXPECT_MISUSE(connect(nullptr, "x", 1), source, name, "zqhandle != NULL");
        EXPECT_MISUSE(connect(h, nullptr, 1), source, name, "name != NULL");
        EXPECT_MISUSE(connect(h, "x", 0), source, name, "port > 0");
        EXPECT_MISUSE(connect(h, "x", 65536), source, name, "port < 65536");
    }
    const struct {
        Call call;
        const char *name, *count;
    } transfers[] = {
        {[](zqhandle *of, void *p, size_t n) { zq_handle_read(of, p, n); }, "zq_handle_read",
         "count > 0"},
        {[](zqhandle *of, void *p, size_t n) { zq_handle_write(of, p, n); }, "zq_handle_write",
         "count > 0"},
        {[](zqhandle *of, void *p, size_t n) { zq_handle_read_line(of, p, n); },
         "zq_handle_read_line", "size > 0"},
    };
    for (const auto &[call, name, count] : transfers) {
        EXPECT_MISUSE(call(nullptr, buf, 1), source, name, "zqhandle != NULL");
        EXPECT_MISUSE(call(h, nullptr, 1), source, name, "buf != NULL");
        EXPECT_MISUSE(call(h, buf, 0), source, name, count);
    }
    using Get = void (*)(zqhandle *, int32_t *, uint32_t *);
    const std::pair<Get, const char *> gets[] = {
        {zq_handle_get_read_timeout, "zq_handle_get_read_timeout"},
        {zq_handle_get_write_timeout, "zq_handle_get_write_timeout"}};
    for (const auto &[get, name] : gets) {
        EXPECT_MISUSE(get(nullptr, &seconds, &microseconds), source, name, "zqhandle != NULL");
        EXPECT_MISUSE(get(h, nullptr, &microseconds), source, name, "secondsptr != NULL");
        EXPECT_MISUSE(get(h, &seconds, nullptr), source, name, "microsecondsptr != NULL");
    }
    EXPECT_MISUSE(zq_handle_get_local_port(h, nullptr), source, "zq_handle_get_local_port",
                  "portptr != NULL");
    EXPECT_MISUSE(zq_handle_accept(h, nullptr), source, "zq_handle_accept",
                  "connectionhandleptr != NULL");

#define EXPECT_NULL_MISUSE(function, ...)                                                          \
    EXPECT_MISUSE(function(nullptr __VA_OPT__(, ) __VA_ARGS__), source, #function,                 \
                  "zqhandle != NULL")
    EXPECT_NULL_MISUSE(zq_handle_destroy);
    EXPECT_NULL_MISUSE(zq_handle_set_context, buf);
    EXPECT_NULL_MISUSE(zq_handle_get_context);
    EXPECT_NULL_MISUSE(zq_handle_set_error, 0);
    EXPECT_NULL_MISUSE(zq_handle_get_error);
    EXPECT_NULL_MISUSE(zq_handle_set_read_timeout, 0, 0);
    EXPECT_NULL_MISUSE(zq_handle_set_write_timeout, 0, 0);
    EXPECT_NULL_MISUSE(zq_handle_connect_wait);
    EXPECT_NULL_MISUSE(zq_handle_get_local_port, &port);
    EXPECT_NULL_MISUSE(zq_handle_accept, &other);
    EXPECT_NULL_MISUSE(zq_handle_wakeup);
    EXPECT_NULL_MISUSE(zq_handle_set_destroy_callback, nullptr);
    EXPECT_NULL_MISUSE(zq_handle_set_connect_callback, nullptr);
    EXPECT_NULL_MISUSE(zq_handle_set_connect_wait_callback, nullptr);
    EXPECT_NULL_MISUSE(zq_handle_set_read_callback, nullptr);
    EXPECT_NULL_MISUSE(zq_handle_set_write_callback, nullptr);
    EXPECT_NULL_MISUSE(zq_handle_set_poll_write_callback, nullptr);
    EXPECT_NULL_MISUSE(zq_handle_set_local_port_callback, nullptr);
    EXPECT_NULL_MISUSE(zq_handle_set_accept_callback, nullptr);
    EXPECT_NULL_MISUSE(zq_handle_set_wakeup_callback, nullptr);
#undef EXPECT_NULL_MISUSE
}
