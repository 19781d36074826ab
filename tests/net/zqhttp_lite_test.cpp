#include "zq/net/zqhttp_lite.h"

#include <csignal>

#include "tests/net/http.h"
#include "tests/net/libc_faults.h"
#include "tests/support/fake_clock.h"
#include "tests/support/faults.h"
#include "tests/support/heap.h"
#include "tests/support/scripted_server.h"

static const std::string OK = "HTTP/1.1 200 OK\r\n";

// Makes the waits of its lifetime, or the first few of them, time out at once by the fake clock.
// What a server has to say before it falls silent is still waited for, for `grace` milliseconds;
// with 0 nothing is.
class SkippedWaits {
  public:
    explicit SkippedWaits(int count = INT_MAX, int grace = 0)
        : left(count), grace_milliseconds(grace)
    {
    }

  private:
    int decide(const SystemCall &call)
    {
        const int timeout = last_poll_timeout;
        if (call.name != "poll" || timeout < 0 || left <= 0)
            return PASS;
        if (grace_milliseconds && poll(last_poll.data(), last_poll.size(), grace_milliseconds) != 0)
            return PASS;
        left--;
        clock.advance(int64_t{timeout} * 1000);
        return NOTHING;
    }

    int left;
    int grace_milliseconds;
    FakeClock clock;
    SystemCalls calls{[this](const SystemCall &call) { return decide(call); }};
};

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

class zqhttp_lite : public testing::Test {
  protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(http);
    }
    zqerror fetch(const std::string &url)
    {
        log.take();
        return get(http, url);
    }
    zqerror fetch(const ScriptedServer &server) { return fetch(url_of(server)); }
    std::string body() { return body_of(http); }
    void set_request(const char *method, const std::string &content)
    {
        zq_http_set_method(http, method);
        zq_http_lite_set_request_body(http, content.data(), content.size());
    }

    LogCapture log;
    Http owned{zq_http_lite_create()};
    zqhttp *const http = owned.get();
};

// ---- requests ----

TEST_F(zqhttp_lite, sends_exactly_these_bytes)
{
    const struct {
        const char *method, *target;
        std::vector<const char *> headers;
        std::string body, first, rest;
    } rows[] = {
        {"GET", "", {}, "", "GET /", "Content-Length: 0"},
        {"GET", "/a?b#c", {"A: 1", "B: 2"}, "", "GET /a?b#c", "A: 1\r\nB: 2\r\nContent-Length: 0"},
        {"POST", "/p", {}, std::string("x\0y", 3), "POST /p", "Content-Length: 3"},
        {"X", "/", {"Content-Length: 3"}, "abc", "X /", "Content-Length: 3\r\nContent-Length: 3"},
        // Only this very line keeps the automatic header back.
        {"PUT", "/p", {"content-LENGTH", "A: 1"}, "", "PUT /p", "content-LENGTH\r\nA: 1"}};
    for (const auto &row : rows) {
        ScriptedServer server(OK + "\r\n");
        for (const char *header : row.headers)
            zq_http_lite_add_header(http, header);
        set_request(row.method, "replaced");
        set_request(row.method, row.body);
        EXPECT_EQ(fetch(url_of(server, row.target)), ZQ_ERROR_NONE);
        EXPECT_EQ(server.request(), row.first + " HTTP/1.0\r\nHost: 127.0.0.1\r\n" + row.rest +
                                        "\r\n\r\n" + row.body);
    }
    ScriptedServer proxy(OK + "\r\n");
    zq_http_set_method_get(http);
    zq_http_set_proxy(http, "127.0.0.1", proxy.port());
    EXPECT_EQ(fetch("http://user@far.invalid:81/a?b"), ZQ_ERROR_NONE);
    EXPECT_EQ(proxy.request(), "GET http://user@far.invalid:81/a?b HTTP/1.0\r\n"
                               "Host: far.invalid\r\nContent-Length: 0\r\n\r\n");
}

TEST_F(zqhttp_lite, url_body_and_headers_serve_one_exchange)
{
    const std::string plain = "HTTP/1.0\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\n\r\n";
    ScriptedServer second(OK + "\r\n");
    ScriptedServer first("HTTP/1.0 302 Found\r\nLocation: " + url_of(second, "/q") + "\r\n\r\n");
    zq_http_lite_add_header(http, "A: 1");
    set_request("POST", "body");
    EXPECT_EQ(fetch(first), ZQ_ERROR_NONE);
    EXPECT_EQ(first.request(),
              "POST /p HTTP/1.0\r\nHost: 127.0.0.1\r\nA: 1\r\nContent-Length: 4\r\n\r\nbody");
    EXPECT_EQ(second.request(), "POST /q " + plain);

    log.take();
    EXPECT_EQ(zq_http_perform(http), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(log.take(), (Lines{{6, "no URL set"}}));

    ScriptedServer third(OK + "\r\n");
    zq_http_lite_add_header(http, "A: 1");
    set_request("POST", "body");
    EXPECT_EQ(zq_http_reset(http), ZQ_ERROR_NONE);
    EXPECT_EQ(fetch(third), ZQ_ERROR_NONE);
    EXPECT_EQ(third.request(), "GET /p " + plain);
}

namespace {
// A client about to send a body with a header of its own to a server that answers with "hello".
struct Prepared {
    Prepared()
    {
        recv_waits = true;
        signal(SIGPIPE, SIG_IGN);
        zq_http_lite_add_header(http.get(), "A: 1");
        zq_http_lite_set_request_body(http.get(), "body", 4);
        zq_http_set_url(http.get(), url_of(server).c_str());
    }
    ~Prepared() { recv_waits = false; }

    ScriptedServer server{OK + "Content-Length: 5\r\n\r\nhello"};
    Http http{zq_http_lite_create()};
};
} // namespace

// What fails on the way of its request.
static const std::string sends[] = {"sending request failed",
                                    "unable to send header 'A: 1'",
                                    "unable to send header 'A: 1' end of line",
                                    "unable to send content length",
                                    "unable to send end of headers",
                                    "unable to send the request body"};

// But for connect(): a TCP handle asserts that it does not fail at once.
TEST(zqhttp_lite_system, calls_may_fail_anywhere)
{
    std::vector<std::string> ends;
    for (const std::string &send : sends)
        ends.push_back("[7] unable to send data, error %; [7] " + send + ", error %");
    walk_system_faults<Prepared>(
        [](Prepared &world) { return zq_http_perform(world.http.get()); },
        [&](Prepared &world, const SystemFault &fault, zqerror result, const Lines &lines) {
            if (!expect_exchange(fault, result, lines, ends))
                return;
            EXPECT_EQ(body_of(world.http.get()), "hello");
            EXPECT_TRUE(world.server.request().ends_with("A: 1\r\nContent-Length: 4\r\n\r\nbody"));
        },
        {.left_out = {"connect"}});
}

// ---- replies ----

TEST_F(zqhttp_lite, delivers_replies)
{
    const struct {
        std::string reply;
        int32_t status;
        const char *body;
    } rows[] = {{OK + "Content-Length: 5\r\n\r\nhello, world", 200, "hello"},
                {OK + "Content-Length: 50\r\n\r\nhello", 200, "hello"},
                {OK + "Content-Length: 0\r\n\r\nhello", 200, "(none)"},
                {OK + "Content-Length: 3000000000\r\n\r\nhello", 200, "hello"},
                {OK + "Content-Length: -5\r\n\r\nhello", 200, "hello"},
                {OK + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n", 200, "5\r\nhello\r\n"},
                {"HTTP/1.0 200\n\nhello", 200, "hello"},
                {"HTTP/9.x 404 Not Found\r\n\r\n", 404, "(none)"},
                {"HTTP/  \r\n\r\n", 0, "(none)"},
                {"HTTP/1.1 99999999999999999999 OK\r\n\r\n", 1661992959, "(none)"}}; // wraps
    for (const auto &row : rows) {
        SCOPED_TRACE(row.reply);
        EXPECT_EQ(fetch(ScriptedServer(row.reply)), ZQ_ERROR_NONE);
        EXPECT_EQ(zq_http_get_status_code(http), row.status);
        EXPECT_EQ(body(), row.body);
    }
    // An announced length needs no end of the stream.
    zq_http_set_timeout(http, 1, 0);
    const std::string reply = OK + "Content-Length: 5\r\n\r\nhello, world";
    EXPECT_EQ(fetch(ScriptedServer(reply, 0, ScriptedServer::STALL)), ZQ_ERROR_NONE);
    EXPECT_EQ(body(), "hello");
}

TEST_F(zqhttp_lite, rejects_replies)
{
    const LogLine cut = {7, "reading input line failed, error 204 (end of file)"};
    const LogLine too_long = {6, "input line was too long to fit the buffer (4096 bytes)"};
    const std::string status = "reading HTTP status code failed, error ";
    const std::string headers = "unable to read HTTP headers, error ";
    const std::string fill(4094 - 2, 'x');
    const struct {
        std::string reply;
        zqerror result;
        Lines lines;
    } rows[] = {{"HTTP/1.1 20x OK\r\n\r\n",
                 ZQ_ERROR_PROTOCOL,
                 {{6, "Invalid result code digit 'x' in response 'HTTP/1.1 20x OK'"}}},
                {"HTTP/1.1\r\n\r\n",
                 ZQ_ERROR_PROTOCOL,
                 {{6, "The HTTP response 'HTTP/1.1' did not have the result code"}}},
                {"ICY 200 OK\r\n\r\n",
                 ZQ_ERROR_PROTOCOL,
                 {{6, "The HTTP response 'ICY 200 OK' did not start with 'HTTP/'"}}},
                {"", ZQ_ERROR_END_OF_FILE, {cut, {7, status + "204 (end of file)"}}},
                {"HTTP/1.1 20", ZQ_ERROR_END_OF_FILE, {cut, {7, status + "204 (end of file)"}}},
                {OK + "A: 1", ZQ_ERROR_END_OF_FILE, {cut, {7, headers + "204 (end of file)"}}},
                {OK + "A: 1\r\n", ZQ_ERROR_END_OF_FILE, {cut, {7, headers + "204 (end of file)"}}},
                {OK + "A:" + fill + "\r\n\r\n", ZQ_ERROR_NONE, {}},
                {OK + "A:" + fill + "x\r\n\r\n",
                 ZQ_ERROR_MESSAGE_TOO_LONG,
                 {too_long, {7, headers + "90 (message too long)"}}},
                {"HTTP/1.0 200 " + fill + "\r\n\r\n",
                 ZQ_ERROR_MESSAGE_TOO_LONG,
                 {too_long, {7, status + "90 (message too long)"}}}};
    for (const auto &row : rows) {
        EXPECT_EQ(fetch(ScriptedServer(row.reply)), row.result) << row.reply;
        EXPECT_EQ(log.take(), row.lines) << row.reply;
    }
}

TEST_F(zqhttp_lite, header_values_are_trimmed_of_leading_spaces_only)
{
    const std::string reply = OK + "A:   1 \t\r\nB:\t2\r\nC\r\n d: x:y\r\nA : 3\r\nE:\r\n\r\n";
    EXPECT_EQ(fetch(ScriptedServer(reply)), ZQ_ERROR_NONE);
    EXPECT_EQ(log.take(), (Lines{{6, "header 'C' without a colon"}}));
    const std::pair<const char *, const char *> rows[] = {
        {"a", "1 \t"}, {"B", "\t2"}, {"c", nullptr}, {" D", "x:y"}, {"a ", "3"}, {"e", ""}};
    for (const auto &[name, value] : rows)
        EXPECT_STREQ(zq_http_get_response_header(http, name), value) << name;
}

TEST_F(zqhttp_lite, rejects_what_it_cannot_fetch)
{
    EXPECT_EQ(fetch("HTTP://x/"), ZQ_ERROR_UNSUPPORTED);
    EXPECT_EQ(log.take(), (Lines{{6, "the URL 'HTTP://x/' must start with http://"}}));
    EXPECT_EQ(fetch("http://h:99999/"), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(log.take(), (Lines{{6, "the port number must be between 1-65535"}}));
    const std::string refused = "http://127.0.0.1:" + std::to_string(free_port()) + "/";
    EXPECT_EQ(fetch(refused), ZQ_ERROR_CONNECTION_REFUSED);
    const Lines lines = log.take();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), (LogLine{7, "connection failed, error 111 (connection refused)"}));
}

// ---- time ----

TEST_F(zqhttp_lite, a_silent_server_is_given_up)
{
    const LogLine full = {7, "the full transfer timer expired"};
    const std::string line = "reading input line failed, error ";
    const std::string status = "reading HTTP status code failed, error 62 (timer expired)";
    const struct {
        std::string reply; // and then silence
        int32_t seconds;   // for the whole transfer
        Lines log;
    } rows[] = {{"", 2, {full, {7, line + "62 (timer expired)"}, {7, status}}},
                {OK + "A: ",
                 -1,
                 {{7, "idle timeout occurred"},
                  {7, line + "201 (timed out)"},
                  {7, "unable to read HTTP headers, error 201 (timed out)"}}},
                {OK + "\r\n",
                 600,
                 {full, {7, "unable to read more body information, error 62 (timer expired)"}}},
                // What came with the headers is delivered after the wait for more.
                {OK + "\r\nhello", 600, {full, {7, "a timeout occurred"}}}};
    for (const auto &row : rows) {
        ScriptedServer server(row.reply, 0, ScriptedServer::STALL);
        SkippedWaits waits(INT_MAX, 50);
        zq_http_set_timeout(http, row.seconds, 0);
        EXPECT_EQ(fetch(server), row.seconds < 0 ? ZQ_ERROR_TIMED_OUT : ZQ_ERROR_TIMER_EXPIRED);
        EXPECT_EQ(log.take(), row.log) << row.reply;
    }
}

TEST_F(zqhttp_lite, waits_are_interrupted_for_progress)
{
    Reports reports;
    zq_http_set_download_progress_callback(http, report, &reports);
    zq_http_set_timeout(http, 3, 500000);
    {
        // A connection that does not come.
        ScriptedServer server("");
        SkippedWaits waits;
        EXPECT_EQ(fetch(server), ZQ_ERROR_TIMER_EXPIRED);
    }
    Lines lines(4, {7, "polling for connecting socket returned error 201 (timed out)"});
    lines.push_back({7, "the full transfer timer expired"});
    lines.push_back({7, "a timeout occurred"});
    EXPECT_EQ(log.take(), lines);
    EXPECT_EQ(reports, Reports(4, {0, -1})); // at the start, then once a second
    reports.clear();
    {
        ScriptedServer server(OK + "Content-Length: 5\r\n\r\nhello");
        SkippedWaits waits(2);
        EXPECT_EQ(fetch(server), ZQ_ERROR_NONE);
    }
    // At the start, twice while connecting, at the start and at the end of the body.
    EXPECT_EQ(reports, (Reports{{0, -1}, {0, -1}, {0, -1}, {0, 5}, {5, 5}}));
    reports.clear();
    ScriptedServer silent("", 0, ScriptedServer::STALL);
    SkippedWaits waits(INT_MAX, 20);
    EXPECT_EQ(fetch(silent), ZQ_ERROR_TIMER_EXPIRED);
    EXPECT_EQ(reports, Reports(4, {0, -1}));
}

TEST_F(zqhttp_lite, the_transfer_limit_starts_afresh_with_each_read_of_the_body)
{
    static FakeClock *clock;
    FakeClock own_clock;
    clock = &own_clock;
    const auto read = [](const void *, size_t size, void *received) -> zqerror {
        *static_cast<size_t *>(received) += size;
        clock->advance(1500000);
        return ZQ_ERROR_NONE;
    };
    size_t received = 0;
    zq_http_set_response_body_callback(http, read, &received);
    const std::string reply = OK + "Content-Length: 20480\r\n\r\n" + std::string(20480, 'x');
    zq_http_set_timeout(http, 2, 0);
    EXPECT_EQ(fetch(ScriptedServer(reply)), ZQ_ERROR_NONE);
    EXPECT_EQ(received, 20480u);
    // The time that a callback takes counts as idle.
    zq_http_set_timeout(http, -1, 0);
    zq_http_set_idle_timeout(http, 1, 0);
    EXPECT_EQ(fetch(ScriptedServer(reply)), ZQ_ERROR_TIMED_OUT);
    EXPECT_LT(received, 20480u + 8192u);
    EXPECT_EQ(log.take(), (Lines{{7, "idle timeout occurred"}, {7, "a timeout occurred"}}));
}

// ---- abort ----

TEST_F(zqhttp_lite, time_may_be_over_anywhere)
{
    if (faults_injected())
        return;
    std::set<std::string> found;
    for (const bool idle : {false, true}) {
        for (int32_t seconds = 0; seconds < 60; seconds++) {
            Prepared world;
            FakeClock clock;
            clock.advance_with_each_read(1000000);
            const auto limit = idle ? zq_http_set_idle_timeout : zq_http_set_timeout;
            limit(world.http.get(), seconds, 0);
            log.take();
            const zqerror result = zq_http_perform(world.http.get());
            const std::string lines = joined(log.take());
            EXPECT_EQ(result == ZQ_ERROR_NONE, lines.empty());
            found.insert(lines);
        }
    }
    const std::string full = "[7] the full transfer timer expired; ",
                      over = "[7] a timeout occurred",
                      idle_over = "[7] idle timeout occurred; " + over;
    std::set<std::string> expected = {"", idle_over, full + over, full + over + "; " + full + over,
                                      idle_over +
                                          "; [7] sending request failed, error 201 (timed out)"};
    for (const char *read : {"reading HTTP status code failed", "unable to read HTTP headers"})
        expected.insert(full + "[7] checking timeout, error 62 (timer expired); [7] " + read +
                        ", error 62 (timer expired)");
    for (const std::string &send : sends)
        expected.insert(full + full + "[7] " + send + ", error 62 (timer expired)");
    for (const std::string &lines : expected)
        EXPECT_TRUE(found.contains(lines)) << lines;
}

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
    } rows[] = {{9, 1, false, {down, aborting, aborted}},
                {1, 9, false, {up, aborting, sending, up, aborting}},
                {2, 9, true, {up, aborting, sending}},
                {9, 2, true, {down, aborting, aborted, down, aborting}},
                {9, 3, true, {down, aborting, aborted}}};
    FakeClock clock;
    for (const auto &row : rows) {
        ScriptedServer server(OK + "Content-Length: 5\r\n\r\nhello");
        int uploads = row.uploads;
        int downloads = row.downloads;
        const auto refuse = [](int64_t, int64_t, void *context) -> zqerror {
            return --*static_cast<int *>(context) <= 0 ? ZQ_ERROR_BUSY : ZQ_ERROR_NONE;
        };
        zq_http_set_progress_callbacks(http, refuse, &uploads, refuse, &downloads);
        EXPECT_EQ(fetch(server), ZQ_ERROR_CANCELED);
        EXPECT_EQ(log.take(), row.log) << &row - rows;
        EXPECT_FALSE(zq_http_is_aborted(http));
        EXPECT_TRUE(row.requested || server.request().empty());
    }
}

TEST_F(zqhttp_lite, a_body_callback_ends_the_transfer)
{
    const auto abort = [](const void *, size_t, void *context) -> zqerror {
        zq_http_abort(static_cast<zqhttp *>(context));
        return ZQ_ERROR_NONE;
    };
    zq_http_set_response_body_callback(http, abort, http);
    EXPECT_EQ(fetch(ScriptedServer(OK + "\r\nhello")), ZQ_ERROR_CANCELED);
    EXPECT_EQ(log.take(), (Lines{{10, "aborting transfer"}, {7, "the transfer was aborted"}}));

    // The code that ends a stream is a failure like others here.
    const auto end = [](const void *, size_t, void *) -> zqerror { return ZQ_ERROR_END_OF_FILE; };
    zq_http_set_response_body_callback(http, end, nullptr);
    EXPECT_EQ(fetch(ScriptedServer(OK + "\r\nhello")), ZQ_ERROR_END_OF_FILE);
    EXPECT_EQ(log.take(),
              (Lines{{7, "the write callback did not accept the data, error 204 (end of file)"}}));
}

// ---- lack of memory, misuse ----

TEST(zqhttp_lite_memory, lines_without_memory)
{
    if (!faults_injected()) {
        const std::string none = "[7] not enough memory for ";
        expect_lines_without_memory(
            "zqhttp_lite_memory.lines_without_memory",
            {none + "the zqhttp context; [7] unable to create generic zqhttp context",
             none + "zqhttp lite context", none + "receive buffer (4096 bytes)",
             none + "request header list", none + "request body (4 bytes)", none + "header entry",
             none + "header line", none + "base URL", none + "request",
             none + "sending content length",
             none + "zqhandle; [7] unable to create an zqhandle; [7] unable to create zqhandle",
             none + "duplicating header name 'A'; [7] unable to store the header 'A' value '1'"});
        return;
    }
    FaultLines lines;
    for (int tries = 0; tries < 40; tries++) {
        Http http(lines.step(zq_http_lite_create()));
        if (!http)
            continue;
        lines.step(zq_http_lite_set_request_body(http.get(), "body", 4));
        lines.step(zq_http_lite_add_header(http.get(), "B: 2"));
        ScriptedServer server(OK + "A: 1\r\n\r\n");
        const zqerror result = lines.step(get(http.get(), url_of(server)));
        CHECK_PROMISE(result == ZQ_ERROR_NONE || result == ZQ_ERROR_NO_MEMORY ||
                      result == ZQ_ERROR_CANNOT_CONNECT);
    }
}

TEST_F(zqhttp_lite, an_announced_length_holds_whatever_allocation_fails)
{
    if (!heap_is_watched())
        GTEST_SKIP();
    long nth = 0, made; // none fails in the first round, in which libc takes what it keeps
    do {
        SCOPED_TRACE(nth);
        const ScriptedServer server(OK + "Content-Length: 5\r\n\r\nhello, world");
        ASSERT_EQ(zq_http_set_url(http, url_of(server).c_str()), ZQ_ERROR_NONE);
        const long before = heap_allocations();
        zqerror result;
        {
            HeapFailure failure(nth);
            result = zq_http_perform(http);
        }
        made = heap_allocations() - before;
        if (result == ZQ_ERROR_NONE) {
            EXPECT_EQ(body(), "hello");
        }
    } while (made >= nth++);
}

TEST_F(zqhttp_lite, misuse)
{
    Http other(zq_http_generic_create());
    EXPECT_MISUSE(zq_http_lite_set_request_body(other.get(), "", 0), "net/zqhttp_lite",
                  "zq_http_lite_set_request_body", "http != NULL");
}
