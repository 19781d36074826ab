#include "zq/net/zqhttp_lite.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <utility>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/fake_clock.h"
#include "tests/support/faults.h"
#include "tests/support/interpose.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scripted_server.h"

using Http = Owned<zqhttp, zq_http_destroy>;
using Lines = std::vector<LogLine>;
using Reports = std::vector<std::pair<int64_t, int64_t>>;

// ---- the system, as this test wants it ----

// Makes the waits of its lifetime, or the first few of them, time out at once by the fake clock.
// What a server has to say before it falls silent is still waited for, for `grace` milliseconds;
// with 0 nothing is.
class SkippedWaits {
  public:
    explicit SkippedWaits(int count = INT_MAX, int grace = 0)
    {
        left = count;
        grace_milliseconds = grace;
        clock = &own_clock;
    }
    ~SkippedWaits() { clock = nullptr; }

    static int wait(pollfd *fds, nfds_t count, int timeout)
    {
        static auto *const next = next_symbol<decltype(poll)>("poll");
        if (!clock || timeout < 0 || left <= 0)
            return next(fds, count, timeout);
        const int ready = grace_milliseconds ? next(fds, count, grace_milliseconds) : 0;
        if (ready != 0)
            return ready;
        left--;
        clock->advance(int64_t{timeout} * 1000);
        return 0;
    }

  private:
    FakeClock own_clock;
    static inline FakeClock *clock = nullptr;
    static inline int left = 0;
    static inline int grace_milliseconds = 0;
};

extern "C" int poll(pollfd *fds, nfds_t count, int timeout)
{
    return SkippedWaits::wait(fds, count, timeout);
}

// Of the sends that may raise SIGPIPE: those of the library.
static Fault send_fault;

extern "C" ssize_t send(int sock, const void *buffer, size_t size, int flags)
{
    static auto *const next = next_symbol<decltype(send)>("send");
    if (const int error = flags & MSG_NOSIGNAL ? 0 : send_fault.strike(); error != 0) {
        errno = error;
        return -1;
    }
    return next(sock, buffer, size, flags);
}

// ---- helpers ----

static std::string url_of(const ScriptedServer &server, const std::string &target = "/p")
{
    return "http://127.0.0.1:" + std::to_string(server.port()) + target;
}

static zqerror get(zqhttp *http, const std::string &url)
{
    const zqerror result = zq_http_set_url(http, url.c_str());
    return result == ZQ_ERROR_NONE ? zq_http_perform(http) : result;
}

static std::string body_of(zqhttp *http)
{
    void *body;
    size_t size;
    if (zq_http_get_response_body_and_size(http, &body, &size) != ZQ_ERROR_NONE)
        return "(none)";
    std::string text(static_cast<char *>(body), size);
    zq_free(body);
    return text;
}

static zqerror report(int64_t current, int64_t total, void *reports)
{
    static_cast<Reports *>(reports)->emplace_back(current, total);
    return ZQ_ERROR_NONE;
}

class zqhttp_lite : public testing::Test {
  protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        http.reset(zq_http_lite_create());
        ASSERT_TRUE(http);
    }

    LogCapture log;
    Http http;
};

// ---- requests ----

TEST_F(zqhttp_lite, sends_exactly_these_bytes)
{
    const struct {
        const char *method, *target;
        std::vector<const char *> headers;
        std::string body;
        const char *first, *rest;
    } rows[] = {
        {"GET", "/p", {}, "", "GET /p", "Content-Length: 0"},
        {"GET", "", {}, "", "GET /", "Content-Length: 0"},
        {"GET", "/a?b#c", {"A: 1", "B: 2"}, "", "GET /a?b#c", "A: 1\r\nB: 2\r\nContent-Length: 0"},
        {"POST", "/p", {}, std::string("x\0y", 3), "POST /p", "Content-Length: 3"},
        {"X", "/", {"Content-Length: 3"}, "abc", "X /", "Content-Length: 3\r\nContent-Length: 3"},
        // Only this very line keeps the automatic header back.
        {"PUT", "/p", {"content-LENGTH", "A: 1"}, "", "PUT /p", "content-LENGTH\r\nA: 1"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.rest);
        ScriptedServer server("HTTP/1.0 200 OK\r\n\r\n");
        zq_http_set_method(http.get(), row.method);
        for (const char *header : row.headers)
            zq_http_lite_add_header(http.get(), header);
        zq_http_lite_set_request_body(http.get(), row.body.data(), row.body.size());
        EXPECT_EQ(get(http.get(), url_of(server, row.target)), ZQ_ERROR_NONE);
        EXPECT_EQ(server.request(), std::string(row.first) + " HTTP/1.0\r\nHost: 127.0.0.1\r\n" +
                                        row.rest + "\r\n\r\n" + row.body);
    }
}

TEST_F(zqhttp_lite, a_proxy_gets_the_whole_url)
{
    ScriptedServer proxy("HTTP/1.0 200 OK\r\n\r\n");
    zq_http_set_proxy(http.get(), "127.0.0.1", proxy.port());
    EXPECT_EQ(get(http.get(), "http://user@far.invalid:81/a?b"), ZQ_ERROR_NONE);
    EXPECT_EQ(proxy.request(), "GET http://user@far.invalid:81/a?b HTTP/1.0\r\n"
                               "Host: far.invalid\r\nContent-Length: 0\r\n\r\n");
}

TEST_F(zqhttp_lite, url_body_and_headers_serve_one_exchange)
{
    ScriptedServer second("HTTP/1.0 200 OK\r\n\r\n");
    ScriptedServer first("HTTP/1.0 302 Found\r\nLocation: " + url_of(second, "/q") + "\r\n\r\n");
    zq_http_set_method_post(http.get());
    zq_http_lite_add_header(http.get(), "A: 1");
    zq_http_lite_set_request_body(http.get(), "replaced", 8);
    zq_http_lite_set_request_body(http.get(), "body", 4);
    EXPECT_EQ(get(http.get(), url_of(first)), ZQ_ERROR_NONE);
    EXPECT_EQ(first.request(),
              "POST /p HTTP/1.0\r\nHost: 127.0.0.1\r\nA: 1\r\nContent-Length: 4\r\n\r\nbody");
    EXPECT_EQ(second.request(), "POST /q HTTP/1.0\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\n\r\n");

    log.take();
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(log.take(), (Lines{{6, "no URL set"}}));

    ScriptedServer third("HTTP/1.0 200 OK\r\n\r\n");
    zq_http_lite_add_header(http.get(), "A: 1");
    zq_http_lite_set_request_body(http.get(), "body", 4);
    EXPECT_EQ(zq_http_reset(http.get()), ZQ_ERROR_NONE);
    EXPECT_EQ(get(http.get(), url_of(third)), ZQ_ERROR_NONE);
    EXPECT_EQ(third.request(), "GET /p HTTP/1.0\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\n\r\n");
}

TEST_F(zqhttp_lite, uploads_more_than_sockets_hold)
{
    std::string body(4 << 20, '\0');
    for (size_t i = 0; i < body.size(); i++)
        body[i] = static_cast<char>(i * i >> 7);
    ScriptedServer server("HTTP/1.0 200 OK\r\n\r\n");
    zq_http_set_method_put(http.get());
    zq_http_lite_set_request_body(http.get(), body.data(), body.size());
    EXPECT_EQ(get(http.get(), url_of(server)), ZQ_ERROR_NONE);
    EXPECT_TRUE(server.request().ends_with("\r\n\r\n" + body));
}

TEST_F(zqhttp_lite, a_connection_may_break_at_any_write)
{
    const std::string reason = ", error 32 (broken pipe)";
    const LogLine at_write = {7, "unable to send data" + reason};
    const char *steps[] = {"sending request failed",
                           "unable to send header 'A: 1'",
                           "unable to send header 'A: 1' end of line",
                           "unable to send content length",
                           "unable to send end of headers",
                           "unable to send the request body"};
    for (int write = 1; const char *step : steps) {
        SCOPED_TRACE(step);
        ScriptedServer server("HTTP/1.0 200 OK\r\n\r\n");
        zq_http_lite_add_header(http.get(), "A: 1");
        zq_http_lite_set_request_body(http.get(), "body", 4);
        log.take();
        send_fault.arm(EPIPE, write++);
        EXPECT_EQ(get(http.get(), url_of(server)), ZQ_ERROR_BROKEN_PIPE);
        Lines lines = log.take();
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(lines[lines.size() - 2], at_write);
        EXPECT_EQ(lines.back(), (LogLine{7, step + reason}));
    }
    send_fault.arm(0, 0);
}

// ---- replies ----

TEST_F(zqhttp_lite, delivers_replies)
{
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const struct {
        std::string reply;
        int32_t status;
        const char *body;
    } rows[] = {
        {ok + "Content-Length: 5\r\n\r\nhello", 200, "hello"},
        {ok + "Content-Length: 5\r\n\r\nhello, world", 200, "hello"},
        {ok + "Content-Length: 50\r\n\r\nhello", 200, "hello"},
        {ok + "Content-Length: 0\r\n\r\nhello", 200, "(none)"},
        {ok + "Content-Length: 3000000000\r\n\r\nhello", 200, "hello"},
        {ok + "Content-Length: -5\r\n\r\nhello", 200, "hello"},
        {ok + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n", 200, "5\r\nhello\r\n"},
        {ok + "\r\nhello", 200, "hello"},
        {"HTTP/1.0 200\n\nhello", 200, "hello"},
        {"HTTP/9.x 404 Not Found\r\n\r\n", 404, "(none)"},
        {"HTTP/1.1 204 No Content\r\n\r\n", 204, "(none)"},
        {"HTTP/  \r\n\r\n", 0, "(none)"},
        {"HTTP/1.1 99999999999999999999 OK\r\n\r\n", 1661992959, "(none)"}, // wraps
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.reply);
        for (size_t piece : {0u, 1u}) {
            ScriptedServer server(row.reply, piece);
            EXPECT_EQ(get(http.get(), url_of(server)), ZQ_ERROR_NONE);
            EXPECT_EQ(zq_http_get_status_code(http.get()), row.status);
            EXPECT_EQ(body_of(http.get()), row.body);
        }
    }
}

TEST_F(zqhttp_lite, rejects_replies)
{
    const LogLine cut = {7, "reading input line failed, error 204 (end of file)"};
    const LogLine no_status = {7, "reading HTTP status code failed, error 204 (end of file)"};
    const LogLine no_headers = {7, "unable to read HTTP headers, error 204 (end of file)"};
    const std::pair<const char *, Lines> rows[] = {
        {"HTTP/1.1 20x OK\r\n\r\n",
         {{6, "Invalid result code digit 'x' in response 'HTTP/1.1 20x OK'"}}},
        {"HTTP/1.1\r\n\r\n", {{6, "The HTTP response 'HTTP/1.1' did not have the result code"}}},
        {"ICY 200 OK\r\n\r\n", {{6, "The HTTP response 'ICY 200 OK' did not start with 'HTTP/'"}}},
        {"", {cut, no_status}},
        {"HTTP/1.1 200 OK\r\nA: 1\r\n", {cut, no_headers}},
    };
    for (const auto &[reply, lines] : rows) {
        SCOPED_TRACE(reply);
        ScriptedServer server(reply);
        log.take();
        const zqerror expected = lines[0] == cut ? ZQ_ERROR_END_OF_FILE : ZQ_ERROR_PROTOCOL;
        EXPECT_EQ(get(http.get(), url_of(server)), expected);
        EXPECT_EQ(log.take(), lines);
    }
}

TEST_F(zqhttp_lite, header_values_are_trimmed_of_leading_spaces_only)
{
    ScriptedServer server("HTTP/1.0 200 OK\r\nA:   1 \t\r\nB:\t2\r\nC\r\n d: x:y\r\nA : 3\r\n"
                          "E:\r\n\r\n");
    EXPECT_EQ(get(http.get(), url_of(server)), ZQ_ERROR_NONE);
    EXPECT_EQ(log.take(), (Lines{{6, "header 'C' without a colon"}}));
    const std::pair<const char *, const char *> rows[] = {
        {"a", "1 \t"}, {"B", "\t2"}, {"c", nullptr}, {" D", "x:y"}, {"a ", "3"}, {"e", ""}};
    for (const auto &[name, value] : rows)
        EXPECT_STREQ(zq_http_get_response_header(http.get(), name), value) << name;
}

TEST_F(zqhttp_lite, a_reply_may_be_cut_off_anywhere)
{
    const std::string reply = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";
    const size_t head = reply.size() - 5;
    for (size_t len = 0; len < reply.size(); len++) {
        SCOPED_TRACE(len);
        ScriptedServer server(reply.substr(0, len));
        const zqerror expected = len < head ? ZQ_ERROR_END_OF_FILE : ZQ_ERROR_NONE;
        EXPECT_EQ(get(http.get(), url_of(server)), expected);
        EXPECT_EQ(body_of(http.get()), len <= head ? "(none)" : reply.substr(head, len - head));
    }
}

TEST_F(zqhttp_lite, an_announced_length_needs_no_end_of_the_stream)
{
    ScriptedServer server("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n01234567890123456789", 0,
                          ScriptedServer::STALL);
    zq_http_set_timeout(http.get(), 1, 0);
    EXPECT_EQ(get(http.get(), url_of(server)), ZQ_ERROR_NONE);
    EXPECT_EQ(body_of(http.get()), "0123456789");
}

TEST_F(zqhttp_lite, lines_have_4096_bytes)
{
    const LogLine too_long = {6, "input line was too long to fit the buffer (4096 bytes)"};
    for (size_t len : {4096u, 4097u, 5000u}) {
        SCOPED_TRACE(len);
        const std::string line = "A:" + std::string(len - 4, 'x') + "\r\n";
        ScriptedServer server("HTTP/1.0 200 OK\r\n" + line + "\r\n");
        log.take();
        const zqerror result = get(http.get(), url_of(server));
        if (len > 4096) {
            EXPECT_EQ(result, ZQ_ERROR_MESSAGE_TOO_LONG);
            const LogLine last = {7, "unable to read HTTP headers, error 90 (message too long)"};
            EXPECT_EQ(log.take(), (Lines{too_long, last}));
        } else if (const char *value = zq_http_get_response_header(http.get(), "a")) {
            EXPECT_EQ(value, line.substr(2, len - 4));
        }
    }
    ScriptedServer server("HTTP/1.0 200 " + std::string(5000, 'x') + "\r\n\r\n");
    EXPECT_EQ(get(http.get(), url_of(server)), ZQ_ERROR_MESSAGE_TOO_LONG);
    const LogLine last = {7, "reading HTTP status code failed, error 90 (message too long)"};
    EXPECT_EQ(log.take(), (Lines{too_long, last}));
}

TEST_F(zqhttp_lite, rejects_what_it_cannot_fetch)
{
    const std::string refused = "http://127.0.0.1:" + std::to_string(free_port()) + "/";
    EXPECT_EQ(get(http.get(), "https://x/"), ZQ_ERROR_UNSUPPORTED);
    EXPECT_EQ(get(http.get(), "HTTP://x/"), ZQ_ERROR_UNSUPPORTED);
    EXPECT_EQ(get(http.get(), "http://h:99999/"), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(log.take(), (Lines{{6, "the URL 'https://x/' must start with http://"},
                                 {6, "the URL 'HTTP://x/' must start with http://"},
                                 {6, "the port number must be between 1-65535"}}));
    EXPECT_EQ(get(http.get(), refused), ZQ_ERROR_CONNECTION_REFUSED);
    const Lines lines = log.take();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), (LogLine{7, "connection failed, error 111 (connection refused)"}));
}

// ---- time ----

TEST_F(zqhttp_lite, a_silent_server_is_given_up)
{
    const LogLine full = {7, "the full transfer timer expired"};
    const LogLine idle = {7, "idle timeout occurred"};
    const struct {
        const char *reply; // and then silence
        int32_t seconds;   // for the whole transfer
        Lines log;
    } rows[] = {
        {"",
         2,
         {full,
          {7, "reading input line failed, error 62 (timer expired)"},
          {7, "reading HTTP status code failed, error 62 (timer expired)"}}},
        {"HTTP/1.0 200 OK\r\nA: ",
         -1,
         {idle,
          {7, "reading input line failed, error 201 (timed out)"},
          {7, "unable to read HTTP headers, error 201 (timed out)"}}},
        {"HTTP/1.0 200 OK\r\n\r\n",
         600,
         {full, {7, "unable to read more body information, error 62 (timer expired)"}}},
        // What came with the headers is delivered after the wait for more.
        {"HTTP/1.0 200 OK\r\n\r\nhello", 600, {full, {7, "a timeout occurred"}}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.reply);
        ScriptedServer server(row.reply, 0, ScriptedServer::STALL);
        SkippedWaits waits(INT_MAX, 50);
        zq_http_set_timeout(http.get(), row.seconds, 0);
        log.take();
        const zqerror expected = row.seconds < 0 ? ZQ_ERROR_TIMED_OUT : ZQ_ERROR_TIMER_EXPIRED;
        EXPECT_EQ(get(http.get(), url_of(server)), expected);
        EXPECT_EQ(log.take(), row.log);
    }
}

TEST_F(zqhttp_lite, a_connection_that_does_not_come_is_given_up)
{
    ScriptedServer server("");
    zq_http_set_timeout(http.get(), 3, 500000);
    Reports reports;
    zq_http_set_download_progress_callback(http.get(), report, &reports);
    SkippedWaits waits;
    log.take();
    EXPECT_EQ(get(http.get(), url_of(server)), ZQ_ERROR_TIMER_EXPIRED);
    const LogLine polled = {7, "polling for connecting socket returned error 201 (timed out)"};
    EXPECT_EQ(log.take(), (Lines{polled,
                                 polled,
                                 polled,
                                 polled,
                                 {7, "the full transfer timer expired"},
                                 {7, "a timeout occurred"}}));
    EXPECT_EQ(reports, Reports(4, {0, -1})); // at the start, then once a second
}

TEST_F(zqhttp_lite, waits_are_interrupted_for_progress)
{
    Reports reports;
    zq_http_set_download_progress_callback(http.get(), report, &reports);
    {
        ScriptedServer server("HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\nhello");
        SkippedWaits waits(2);
        EXPECT_EQ(get(http.get(), url_of(server)), ZQ_ERROR_NONE);
    }
    // At the start, twice while connecting, at the start and at the end of the body.
    EXPECT_EQ(reports, (Reports{{0, -1}, {0, -1}, {0, -1}, {0, 5}, {5, 5}}));

    ScriptedServer silent("", 0, ScriptedServer::STALL);
    SkippedWaits waits(INT_MAX, 20);
    zq_http_set_timeout(http.get(), 2, 500000);
    reports.clear();
    EXPECT_EQ(get(http.get(), url_of(silent)), ZQ_ERROR_TIMER_EXPIRED);
    EXPECT_EQ(reports, Reports(3, {0, -1}));
}

TEST_F(zqhttp_lite, the_transfer_limit_starts_afresh_with_each_read_of_the_body)
{
    FakeClock clock;
    struct Reader {
        FakeClock *clock;
        int64_t cost; // of each 4096 bytes
        size_t received;
    } reader = {&clock, 1500000, 0};
    zq_http_set_response_body_callback(
        http.get(),
        [](const void *, size_t size, void *context) -> zqerror {
            auto *self = static_cast<Reader *>(context);
            if ((self->received + size) / 4096 > self->received / 4096)
                self->clock->advance(self->cost);
            self->received += size;
            return ZQ_ERROR_NONE;
        },
        &reader);
    const std::string reply =
        "HTTP/1.0 200 OK\r\nContent-Length: 20480\r\n\r\n" + std::string(20480, 'x');
    ScriptedServer patient(reply);
    zq_http_set_timeout(http.get(), 2, 0);
    EXPECT_EQ(get(http.get(), url_of(patient)), ZQ_ERROR_NONE);
    EXPECT_EQ(reader.received, 20480u);

    // The time that a callback takes counts as idle.
    ScriptedServer server(reply);
    reader = {&clock, 30000000, 0};
    zq_http_set_timeout(http.get(), -1, 0);
    log.take();
    EXPECT_EQ(get(http.get(), url_of(server)), ZQ_ERROR_TIMED_OUT);
    EXPECT_LT(reader.received, 8192u);
    EXPECT_EQ(log.take(), (Lines{{7, "idle timeout occurred"}, {7, "a timeout occurred"}}));
}

// ---- abort ----

TEST_F(zqhttp_lite, aborts_wherever_a_callback_says_so)
{
    const LogLine aborting = {10, "aborting transfer"};
    const LogLine up = {7, "The upload progress callback returned 206, aborting the transfer"};
    const LogLine down = {7, "The download progress callback returned 206, aborting the transfer"};
    const LogLine sending = {10, "the transfer was aborted"};
    const LogLine aborted = {7, "the transfer was aborted"};
    const struct {
        int uploads, downloads; // the first call of each that refuses
        bool requested;
        Lines log;
    } rows[] = {
        {9, 1, false, {down, aborting, aborted}},
        {1, 9, false, {up, aborting, sending, up, aborting}},
        {2, 9, true, {up, aborting, sending}},
        {9, 2, true, {down, aborting, aborted, down, aborting}},
        {9, 3, true, {down, aborting, aborted}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        FakeClock clock;
        ScriptedServer server("HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\nhello");
        int uploads = row.uploads;
        int downloads = row.downloads;
        zq_http_progress_callback refuse = [](int64_t, int64_t, void *context) -> zqerror {
            return --*static_cast<int *>(context) <= 0 ? ZQ_ERROR_BUSY : ZQ_ERROR_NONE;
        };
        zq_http_set_progress_callbacks(http.get(), refuse, &uploads, refuse, &downloads);
        log.take();
        EXPECT_EQ(get(http.get(), url_of(server)), ZQ_ERROR_CANCELED);
        EXPECT_EQ(log.take(), row.log);
        EXPECT_FALSE(zq_http_is_aborted(http.get()));
        if (!row.requested) {
            EXPECT_EQ(server.request(), "");
        }
    }
}

TEST_F(zqhttp_lite, a_body_callback_ends_the_transfer)
{
    ScriptedServer first("HTTP/1.0 200 OK\r\n\r\nhello");
    zq_http_set_response_body_callback(
        http.get(),
        [](const void *, size_t, void *context) -> zqerror {
            zq_http_abort(static_cast<zqhttp *>(context));
            return ZQ_ERROR_NONE;
        },
        http.get());
    log.take();
    EXPECT_EQ(get(http.get(), url_of(first)), ZQ_ERROR_CANCELED);
    EXPECT_EQ(log.take(), (Lines{{10, "aborting transfer"}, {7, "the transfer was aborted"}}));

    // The code that ends a stream is a failure like others here.
    ScriptedServer second("HTTP/1.0 200 OK\r\n\r\nhello");
    zq_http_set_response_body_callback(
        http.get(), [](const void *, size_t, void *) -> zqerror { return ZQ_ERROR_END_OF_FILE; },
        nullptr);
    EXPECT_EQ(get(http.get(), url_of(second)), ZQ_ERROR_END_OF_FILE);
    EXPECT_EQ(log.take(),
              (Lines{{7, "the write callback did not accept the data, error 204 (end of file)"}}));
}

// ---- resources and misuse ----

TEST_F(zqhttp_lite, every_exchange_closes_its_connection)
{
    for (const char *reply : {"HTTP/1.0 200 OK\r\n\r\nhello", "", "nonsense\r\n"}) {
        const size_t before = open_descriptors();
        for (int i = 0; i < 5; i++) {
            ScriptedServer server(reply);
            get(http.get(), url_of(server));
        }
        EXPECT_EQ(open_descriptors(), before);
    }
}

TEST(zqhttp_lite_memory, lines_without_memory)
{
    if (!faults_injected()) {
        expect_lines_without_memory(
            "zqhttp_lite_memory.lines_without_memory",
            {"[7] not enough memory for the zqhttp context; "
             "[7] unable to create generic zqhttp context",
             "[7] not enough memory for zqhttp lite context",
             "[7] not enough memory for receive buffer (4096 bytes)",
             "[7] not enough memory for request header list",
             "[7] not enough memory for request body (4 bytes)",
             "[7] not enough memory for header entry", "[7] not enough memory for header line",
             "[7] not enough memory for base URL", "[7] not enough memory for request",
             "[7] not enough memory for sending content length",
             "[7] not enough memory for zqhandle; [7] unable to create an zqhandle; "
             "[7] unable to create zqhandle",
             "[7] not enough memory for duplicating header name 'A'; "
             "[7] unable to store the header 'A' value '1'"});
        return;
    }
    FaultLines lines;
    for (int tries = 0; tries < 40; tries++) {
        Http http(zq_http_lite_create());
        lines.step();
        if (!http)
            continue;
        zq_http_lite_set_request_body(http.get(), "body", 4);
        lines.step();
        zq_http_lite_add_header(http.get(), "B: 2");
        lines.step();
        ScriptedServer server("HTTP/1.0 200 OK\r\nA: 1\r\n\r\n");
        const zqerror result = get(http.get(), url_of(server));
        CHECK_PROMISE(result == ZQ_ERROR_NONE || result == ZQ_ERROR_NO_MEMORY ||
                      result == ZQ_ERROR_CANNOT_CONNECT);
        lines.step();
    }
}

TEST_F(zqhttp_lite, misuse)
{
    if (faults_injected())
        GTEST_SKIP();
    const char *source = "net/zqhttp_lite";
    Http other(zq_http_generic_create());
    EXPECT_MISUSE(zq_http_lite_set_request_body(http.get(), nullptr, 1), source,
                  "zq_http_lite_set_request_body", "data != NULL");
    EXPECT_MISUSE(zq_http_lite_set_request_body(other.get(), "", 0), source,
                  "zq_http_lite_set_request_body", "http != NULL");
    EXPECT_MISUSE(zq_http_lite_add_header(http.get(), nullptr), source, "zq_http_lite_add_header",
                  "header != NULL");
}
