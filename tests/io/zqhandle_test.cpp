#include "zq/io/zqhandle.h"

#include <algorithm>
#include <deque>
#include <random>

#include "tests/support/expect.h"
#include "tests/support/fake_clock.h"
#include "tests/support/heap.h"
#include "tests/support/log_capture.h"

using Handle = Owned<zqhandle, zq_handle_destroy>;
using Timeout = std::pair<int32_t, uint32_t>;

static Timeout read_timeout_of(zqhandle *handle)
{
    Timeout timeout;
    zq_handle_get_read_timeout(handle, &timeout.first, &timeout.second);
    return timeout;
}

// What a callback does next: transfers these bytes, or fails.
struct Event {
    std::string bytes;
    zqerror error = ZQ_ERROR_NONE;
    int64_t after = 0; // microseconds
};

// A handle whose callbacks follow a script.
class Scripted {
  public:
    explicit Scripted(const std::deque<Event> &script) : events(script), made(zq_handle_create())
    {
        if (!made)
            return;
        zq_handle_set_context(made.get(), this);
        zq_handle_set_read_callback(made.get(), [](zqhandle *h, void *buf, size_t count) {
            return of(h)->read(static_cast<char *>(buf), count);
        });
        zq_handle_set_write_callback(made.get(), [](zqhandle *h, const void *buf, size_t count) {
            Event event = of(h)->next();
            EXPECT_EQ(std::string(static_cast<const char *>(buf), count).find(event.bytes), 0u);
            zq_handle_set_error(h, event.error);
            return event.bytes.size();
        });
        zq_handle_set_connect_callback(
            made.get(), [](zqhandle *h, const char *name, uint32_t port) {
                EXPECT_EQ(name + std::to_string(port), "example.org65535");
                return of(h)->next().error;
            });
        auto step = [](zqhandle *h) { return of(h)->next().error; };
        zq_handle_set_connect_wait_callback(made.get(), step);
        zq_handle_set_poll_write_callback(made.get(), step);
    }

    // Reads with the result "BYTES ERROR".
    std::string line(size_t size = 99) { return result_of(zq_handle_read_line, size); }
    std::string some(size_t size = 99) { return result_of(zq_handle_read, size); }

    zqhandle *get() const { return made.get(); }

    std::deque<Event> events; // the end of the stream follows them
    FakeClock *clock = nullptr;
    size_t reads = 0;
    size_t largest_read = 0;
    Timeout read_timeout = {}; // of the last read

  private:
    static Scripted *of(zqhandle *handle)
    {
        return static_cast<Scripted *>(zq_handle_get_context(handle));
    }
    Event next()
    {
        Event event = events.empty() ? Event{"", ZQ_ERROR_END_OF_FILE} : events.front();
        if (!events.empty())
            events.pop_front();
        return event;
    }
    size_t read(char *buf, size_t count)
    {
        reads++;
        largest_read = std::max(largest_read, count);
        read_timeout = read_timeout_of(get());
        Event event = next();
        if (clock)
            clock->advance(event.after);
        const size_t result = event.bytes.copy(buf, count);
        if (result < event.bytes.size())
            events.push_front({event.bytes.substr(result)});
        zq_handle_set_error(get(), event.error);
        return result;
    }
    std::string result_of(size_t (*call)(zqhandle *, void *, size_t), size_t size)
    {
        std::string buf(size, '?');
        buf.resize(call(get(), buf.data(), size));
        return buf + " " + std::to_string(zq_handle_get_error(get()));
    }

    Handle made;
};

// ---- reading ----

TEST(zqhandle, lines)
{
    const std::string x4095(4095, 'x');
    const std::string x9000(9000, 'x');
    const std::string zero("a\0\r\n", 4);
    const struct {
        std::deque<Event> arrivals;
        size_t size;
        std::vector<std::string> lines;
        size_t reads;
    } rows[] = {
        {{{"ab"}, {"c"}, {"d\n"}}, 99, {"abcd\n 0"}, 3},
        {{{"a\n\nb\n"}}, 99, {"a\n 0", "\n 0", "b\n 0"}, 1},
        {{{zero}}, 99, {zero + " 0"}, 1},
        {{{"a\nb"}, {"c\n"}}, 99, {"a\n 0", "bc\n 0"}, 2},
        {{{"abcdefg\n"}}, 4, {"abcd 0", "efg\n 0"}, 2},
        {{{"abc\ndef\n"}}, 4, {"abc\n 0", "def\n 0"}, 2},
        {{{"ab\n"}}, 1, {"a 0", "b 0", "\n 0", " 204"}, 4},
        {{{x9000 + "\ny"}}, 9999, {x9000 + "\n 0", "y 204"}, 4},
        {{{"\n" + x4095 + "\n"}}, 9999, {"\n 0", x4095 + "\n 0", " 204"}, 3},
        {{{"abc"}}, 99, {"abc 204", " 204"}, 3},
        {{{"ab"}, {"", 201}, {"c\n"}}, 99, {"ab 201", "c\n 0"}, 3},
    };
    for (const auto &row : rows) {
        LogCapture log;
        Scripted handle(row.arrivals);
        ASSERT_TRUE(handle.get());
        for (const std::string &line : row.lines)
            EXPECT_EQ(handle.line(row.size), line);
        EXPECT_LE(handle.largest_read, 4096u);
        EXPECT_EQ(handle.reads, row.reads) << row.lines[0];
        EXPECT_TRUE(log.take().empty());
    }
}

TEST(zqhandle, the_deadline_covers_the_line)
{
    FakeClock clock;
    Scripted handle({{"a", 0, 500000}, {"b\nrest\n", 0, 700001}, {"c", 0, 1250000}, {"d\ne\n"}});
    ASSERT_TRUE(handle.get());
    handle.clock = &clock;
    zq_handle_set_read_timeout(handle.get(), 1, 250000);
    EXPECT_EQ(handle.line(), "ab\n 0");
    EXPECT_EQ(handle.read_timeout, (Timeout{0, 750000}));
    EXPECT_EQ(handle.line(), "rest\n 0");
    EXPECT_EQ(handle.line(), "c 201");
    EXPECT_EQ(handle.read_timeout, (Timeout{1, 250000}));
    EXPECT_EQ(read_timeout_of(handle.get()), (Timeout{1, 250000}));
    EXPECT_EQ(handle.line(), "d\n 0");
    // What is buffered needs no time.
    zq_handle_set_read_timeout(handle.get(), 0, 0);
    EXPECT_EQ(handle.line(), "e\n 0");
    EXPECT_EQ(handle.line(), " 201");
    EXPECT_EQ(handle.reads, 4u);
    zq_handle_set_read_timeout(handle.get(), -7, 8);
    EXPECT_EQ(read_timeout_of(handle.get()), (Timeout{-1, 0}));
}

TEST(zqhandle, reads_serve_the_buffer_first)
{
    LogCapture log;
    Scripted handle({{"line\nabcdefgh"},
                     {"ij"},
                     {"", 104},
                     {"kl\nm"},
                     {"", 104},
                     {"no"},
                     {"", 104},
                     {"p\nq\nrs"}});
    ASSERT_TRUE(handle.get());
    EXPECT_EQ(handle.line(), "line\n 0");
    EXPECT_EQ(handle.some(3), "abc 0");
    EXPECT_EQ(handle.line(2), "de 0");
    EXPECT_EQ(handle.reads, 1u);
    EXPECT_EQ(handle.some(), "fghij 0");
    EXPECT_EQ(handle.some(), " 104");
    EXPECT_EQ(handle.line(), "kl\n 0");
    EXPECT_EQ(handle.some(), "m 0"); // the error behind it is lost
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(handle.line(), "no 104");
    EXPECT_EQ(log.take(), (Lines{{7, "unable to read data from the handle, error 104 (connection "
                                     "reset by peer)"}}));
    // Buffered bytes outlive the read callback.
    EXPECT_EQ(handle.line(), "p\n 0");
    zq_handle_set_read_callback(handle.get(), nullptr);
    EXPECT_EQ(handle.line(), "q\n 0");
    EXPECT_EQ(handle.line(1), "r 0");
    EXPECT_EQ(handle.some(), "s 0");
    EXPECT_TRUE(log.take().empty());
}

// Reads of both kinds beside a plain string: nothing is lost, doubled or reordered.
TEST(zqhandle, any_mixture_of_reads_yields_the_stream)
{
    std::mt19937 random(7);
    auto below = [&random](size_t limit) { return random() % limit; };
    for (int round = 0; round < 200; round++) {
        std::string text;
        Scripted handle({});
        ASSERT_TRUE(handle.get());
        while (text.size() < 9000) {
            std::string chunk(1 + below(below(3) ? 40 : 6000), 'x');
            for (char &c : chunk)
                c = below(20) ? static_cast<char>('a' + below(26)) : '\n';
            text += chunk;
            handle.events.push_back({chunk});
        }
        for (size_t at = 0; at < text.size();) {
            const size_t size = 1 + below(below(4) ? 50 : 5000);
            const bool line = below(2);
            const std::string result = line ? handle.line(size) : handle.some(size);
            std::string expected = text.substr(at, line ? size : result.rfind(' '));
            if (line && expected.find('\n') != expected.npos)
                expected.resize(expected.find('\n') + 1);
            at += expected.size();
            const bool ended = line && expected.size() < size && expected.back() != '\n';
            ASSERT_EQ(result, expected + (ended ? " 204" : " 0"));
            ASSERT_FALSE(expected.empty());
        }
        ASSERT_EQ(handle.line(), " 204");
    }
}

TEST(zqhandle, without_memory_lines_are_read_byte_by_byte)
{
    if (!heap_is_watched() || faults_injected())
        return;
    LogCapture log;
    for (long nth : {1, 2}) {
        HeapFailure failure(nth);
        EXPECT_EQ(zq_handle_create(), nullptr);
    }
    EXPECT_EQ(log.take(), (Lines{{7, "not enough memory for zqhandle"}})); // but for its timeout
    Scripted handle({{"ab\ncd"}, {"", 104}, {"e\nfgh"}});
    for (const char *result : {"ab\n 0", "cd 104", "e\n 0"}) {
        HeapFailure failure(1);
        EXPECT_EQ(handle.line(9), result);
    }
    EXPECT_EQ(handle.largest_read, 1u);
    HeapFailure failure(1);
    EXPECT_EQ(handle.line(2), "fg 0");
    EXPECT_EQ(handle.line(9), "h 204");
    EXPECT_EQ(handle.largest_read, 9u); // by now there is a buffer
}

// ---- the other operations ----

TEST(zqhandle, write)
{
    const std::string no_poll =
        "zqhandle write would block but the handle does not have support for polling writes";
    const std::string bad_poll = "poll write callback returned error 12 (not enough memory)";
    const struct {
        std::deque<Event> events;
        size_t written;
        zqerror error;
        std::string line;
        bool polls = true;
    } rows[] = {
        {{{"a"}, {"bc"}, {"def"}}, 6, 0, ""},
        {{{"", 11}, {}, {"ab"}, {"", 11}, {}, {"", 11}, {}, {"cdef"}}, 6, 0, ""},
        {{{"ab"}, {"", 11}, {"", 201}}, 2, 201, ""},
        {{{"ab"}, {"", 11}, {"", 12}}, 2, 12, bad_poll},
        {{{"ab"}, {"", 11}}, 2, 0, no_poll, false}, // only the count tells
        {{{"abc"}, {"", 32}}, 3, 32, "zqhandle write returned error 32 (broken pipe)"},
    };
    for (const auto &row : rows) {
        LogCapture log;
        Scripted handle(row.events);
        ASSERT_TRUE(handle.get());
        if (!row.polls)
            zq_handle_set_poll_write_callback(handle.get(), nullptr);
        zq_handle_set_error(handle.get(), ZQ_ERROR_GENERIC);
        EXPECT_EQ(zq_handle_write(handle.get(), "abcdef", 6), row.written) << row.line;
        EXPECT_EQ(zq_handle_get_error(handle.get()), row.error);
        EXPECT_EQ(log.take(), row.line.empty() ? Lines{} : (Lines{{7, row.line}}));
        EXPECT_TRUE(handle.events.empty());
    }
}

TEST(zqhandle, connect)
{
    LogCapture log;
    Scripted handle(
        {{}, {"", 111}, {"", 115}, {"", 115}, {"", 115}, {"", 201}, {"", 115}, {"", 0}, {"", 115}});
    ASSERT_TRUE(handle.get());
    zq_handle_set_error(handle.get(), ZQ_ERROR_EXISTS);
    for (zqerror result : {0u, 111u, 201u})
        EXPECT_EQ(zq_handle_connect(handle.get(), "example.org", 65535), result);
    EXPECT_EQ(zq_handle_connect_begin(handle.get(), "example.org", 65535), 115u);
    EXPECT_EQ(zq_handle_connect_wait(handle.get()), 0u);
    zq_handle_set_connect_wait_callback(handle.get(), nullptr);
    EXPECT_EQ(zq_handle_connect(handle.get(), "example.org", 65535), 115u);
    EXPECT_EQ(log.take(), (Lines{{6, "connect in progress but no wait callback available"}}));
    EXPECT_EQ(zq_handle_get_error(handle.get()), ZQ_ERROR_EXISTS + 0u) << "left alone";
}

TEST(zqhandle, a_bare_handle_supports_nothing)
{
    LogCapture log;
    Handle handle(zq_handle_create());
    ASSERT_TRUE(handle);
    zqhandle *h = handle.get();
    zqhandle *connection = h;
    uint32_t port;
    char buf[9];
    auto expect = [&](zqerror result, const std::string &text) {
        EXPECT_EQ(result, 205u) << text;
        EXPECT_EQ(log.take(), (Lines{{6, "this handle " + text}}));
    };
    expect(zq_handle_connect(h, "a", 1), "cannot be used to connect");
    expect(zq_handle_connect_begin(h, "a", 1), "cannot be used to connect");
    expect(zq_handle_connect_wait(h), "cannot be used to wait for connection");
    expect(zq_handle_get_local_port(h, &port), "does not support getting the local port number");
    EXPECT_EQ(zq_handle_get_error(h), 0u);
    expect(zq_handle_accept(h, &connection), "does not support accepting incoming connections");
    EXPECT_EQ(connection, nullptr);
    expect(zq_handle_wakeup(h), "does not support waking up");
    for (auto call : {zq_handle_read, zq_handle_read_line})
        expect(call(h, buf, 9) ? 0 : zq_handle_get_error(h), "cannot be used for reading");
    expect(zq_handle_write(h, buf, 9) ? 0 : zq_handle_get_error(h), "cannot be used for writing");
}

#define MISUSE(function, expression, ...)                                                          \
    EXPECT_MISUSE(function(__VA_ARGS__), "io/zqhandle", #function, expression)

TEST(zqhandle, misuse)
{
    Scripted handle({Event()});
    ASSERT_TRUE(handle.get());
    char buf[1];
    int32_t seconds;
    MISUSE(zq_handle_wakeup, "zqhandle != NULL", nullptr);
    MISUSE(zq_handle_set_error, "zqerror < ZQ_ERROR_COUNT", handle.get(), 215);
    MISUSE(zq_handle_connect, "port < 65536", handle.get(), "x", 65536);
    MISUSE(zq_handle_read_line, "size > 0", handle.get(), buf, 0);
    MISUSE(zq_handle_get_read_timeout, "microsecondsptr != NULL", handle.get(), &seconds, nullptr);
    MISUSE(zq_handle_accept, "connectionhandleptr != NULL", handle.get(), nullptr);
    MISUSE(zq_handle_read, "result > 0 || zqhandle->error != ZQ_ERROR_NONE", handle.get(), buf, 1);
}
