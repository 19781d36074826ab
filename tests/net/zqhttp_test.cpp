#include "zq/net/zqhttp.h"

#include <functional>
#include <tuple>

#include "tests/net/http.h"
#include "tests/support/fake_clock.h"
#include "tests/support/faults.h"
#include "tests/support/heap.h"
#include "tests/support/scratch.h"

using Time = std::pair<int32_t, uint32_t>;

// ---- URLs ----

TEST(zqhttp, parses_urls)
{
    const std::pair<const char *, const char *> rows[] = {
        {"http://user:pw@example:8080/a/b?c=d#e", "http example 8080 /a/b?c=d#e"},
        {"http://a@b@c/@:x:y", "http c 80 /@:x:y"},
        {"http://h: +80/", "http h 80 /"}, // as strtoul() reads numbers
        {"HTTP://h/", "HTTP h 0 /"}};
    LogCapture log(13);
    for (const auto &[url, expected] : rows) {
        char *scheme, *host, *query;
        uint32_t port;
        log.take();
        const zqerror result = zq_http_parse_url(url, &scheme, &host, &port, &query);
        ZqString scheme_owner(scheme), host_owner(host), query_owner(query);
        if (result != ZQ_ERROR_NONE) {
            CHECK_PROMISE(result == ZQ_ERROR_NO_MEMORY && !scheme && !host && !query);
            continue;
        }
        const std::string parts = std::string(scheme) + " " + host + " " + std::to_string(port);
        EXPECT_EQ(parts + " " + query, expected);
        EXPECT_EQ(zq_http_parse_url(url, nullptr, nullptr, nullptr, nullptr), ZQ_ERROR_NONE);
    }
    EXPECT_EQ(log.take(), Lines(2, {13, "unrecognized scheme 'HTTP' in URL 'HTTP://h/'"}));
}

TEST(zqhttp, rejects_urls)
{
    const std::pair<const char *, const char *> rows[] = {
        {"plain", "URL 'plain' has no colon after scheme"},
        {"http:/h", "URL 'http:/h' has no :// after scheme"},
        {"http://a:1:2@c/", "URL 'http://a:1:2@c/' has two colons in hostname or username"},
        {"http://h:65536/", "the port number must be between 1-65535"},
        {"http://h:80x/", "invalid character 'x' in port number"}};
    for (const auto &[url, line] : rows) {
        char *scheme, *host, *query;
        uint32_t port;
        LogCapture log(13);
        const zqerror result = zq_http_parse_url(url, &scheme, &host, &port, &query);
        CHECK_PROMISE(!scheme && !host && !query && port == 0);
        EXPECT_EQ(result, ZQ_ERROR_INVALID_ARGUMENT) << url;
        EXPECT_EQ(log.take(), (Lines{{6, line}}));
    }
}

// ---- an object with a scripted transport ----

static zqerror discard(const void *, size_t, void *)
{
    return ZQ_ERROR_NONE;
}

// A transport that plays one step for each exchange, the last one for ever.
struct Script {
    using Step = std::function<zqerror(zqhttp *)>;
    std::vector<Step> steps;
    std::vector<std::string> urls;
    size_t performed = 0;
    int resets = 0;
    int destroyed = 0;

    static Script *of(zqhttp *http) { return static_cast<Script *>(zq_http_get_context(http)); }

    zqhttp *attach(zqhttp *http)
    {
        if (!http)
            return nullptr;
        zq_http_set_context(http, this);
        zq_http_set_destroy_callback(
            http, [](void *context) { static_cast<Script *>(context)->destroyed++; });
        zq_http_set_reset_callback(http, [](zqhttp *self) -> zqerror {
            of(self)->resets++;
            return ZQ_ERROR_BUSY;
        });
        zq_http_set_url_callback(http, [](zqhttp *self, const char *url) -> zqerror {
            of(self)->urls.emplace_back(url);
            return *url ? ZQ_ERROR_NONE : ZQ_ERROR_SERVER;
        });
        zq_http_set_perform_callback(http, [](zqhttp *self) -> zqerror {
            Script *script = of(self);
            const size_t last = script->steps.size() - 1;
            return script->steps[std::min(script->performed++, last)](self);
        });
        return http;
    }
};

static Script::Step reply(int status, const char *location = nullptr,
                          std::vector<std::string> body = {})
{
    return [=](zqhttp *http) -> zqerror {
        zqerror result = ZQ_ERROR_NONE;
        zq_http_set_status_code(http, status);
        if (location)
            result = zq_http_write_response_header(http, "Location", location);
        for (const std::string &piece : body)
            result =
                result ? result : zq_http_write_response_body(http, piece.data(), piece.size());
        return result;
    };
}

class zqhttp_request : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(http); }

    zqerror perform(std::vector<Script::Step> steps)
    {
        script.performed = 0;
        script.steps = steps;
        log.take();
        return zq_http_perform(http);
    }
    std::string proxy()
    {
        const char *host;
        uint32_t port;
        zq_http_get_proxy(http, &host, &port);
        return (host ? host : "(none)") + std::string(":") + std::to_string(port);
    }
    int32_t idle_seconds()
    {
        int32_t seconds;
        uint32_t microseconds;
        zq_http_get_idle_timeout(http, &seconds, &microseconds);
        return seconds;
    }

    Script script;
    LogCapture log;
    Http owned{script.attach(zq_http_generic_create())};
    zqhttp *const http = owned.get();
};

TEST_F(zqhttp_request, settings)
{
    EXPECT_EQ(idle_seconds(), 30);
    EXPECT_EQ(proxy(), "(none):0");
    const bool proxied = zq_http_set_proxy(http, "proxy", 65535) == ZQ_ERROR_NONE;
    EXPECT_EQ(proxy(), proxied ? "proxy:65535" : "(none):0");
    EXPECT_EQ(zq_http_set_proxy(http, nullptr, 1), ZQ_ERROR_NONE);
    EXPECT_EQ(proxy(), "(none):0");
    EXPECT_STREQ(zq_http_get_method(http), "GET");
    for (const char *method : {"POST", "PUT", "DELETE", "GET", "get", "PROPFIND", ""}) {
        const zqerror result = zq_http_set_method(http, method);
        EXPECT_STREQ(zq_http_get_method(http), result == ZQ_ERROR_NONE ? method : "GET");
    }
    const std::pair<void (*)(zqhttp *), const char *> methods[] = {
        {zq_http_set_method_post, "POST"},
        {zq_http_set_method_put, "PUT"},
        {zq_http_set_method_delete, "DELETE"},
        {zq_http_set_method_get, "GET"}};
    for (const auto &[set, method] : methods) {
        set(http);
        EXPECT_STREQ(zq_http_get_method(http), method);
    }
}

TEST_F(zqhttp_request, the_transport_sees_a_url_first)
{
    EXPECT_EQ(zq_http_set_url(http, ""), ZQ_ERROR_SERVER);
    EXPECT_EQ(zq_http_set_url(http, "http:/h"), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(script.urls, (std::vector<std::string>{"", "http:/h"}));
    Http bare(zq_http_generic_create());
    ASSERT_TRUE(bare);
    EXPECT_EQ(zq_http_set_url(bare.get(), "http://h/"), ZQ_ERROR_UNSUPPORTED);
    EXPECT_EQ(zq_http_perform(bare.get()), ZQ_ERROR_UNSUPPORTED);
    EXPECT_EQ(zq_http_reset(bare.get()), ZQ_ERROR_NONE);
    EXPECT_EQ(log.take(),
              (Lines{{6, "invalid URL 'http:/h'"},
                     {6, "this HTTP implementation does not support setting the URL"},
                     {6, "The HTTP implementation does not support performing an operation"}}));
}

TEST_F(zqhttp_request, redirects_that_lead_nowhere)
{
    zq_http_set_url(http, "http://h/");
    EXPECT_EQ(perform({reply(302, "/x")}), ZQ_ERROR_OUT_OF_RANGE);
    EXPECT_EQ(script.performed, 10u);
    EXPECT_EQ(zq_http_get_status_code(http), 302);
    EXPECT_EQ(log.take(), (Lines{{7, "Too many redirects (10)"}}));

    EXPECT_EQ(perform({reply(301)}), ZQ_ERROR_PROTOCOL);
    EXPECT_EQ(log.take(), (Lines{{7, "Redirect without Location header"}}));
    EXPECT_EQ(perform({reply(302, "")}), ZQ_ERROR_SERVER);
    EXPECT_EQ(log.take(), (Lines{{7, "Unable to set the redirect URL ''"}}));
    EXPECT_EQ(perform({reply(301, "b")}), ZQ_ERROR_INVALID_ARGUMENT); // taken for a whole URL
    EXPECT_EQ(log.take(),
              (Lines{{6, "invalid URL 'b'"}, {7, "Unable to set the redirect URL 'b'"}}));
}

TEST_F(zqhttp_request, asks_for_a_proxy_before_each_attempt)
{
    std::vector<std::string> asked;
    const auto choose = [](zqhttp *self, const char *scheme, const char *host, uint32_t port,
                           void *context) -> zqerror {
        auto *list = static_cast<std::vector<std::string> *>(context);
        list->push_back(std::string(scheme) + " " + host + " " + std::to_string(port));
        zq_http_set_proxy(self, host, 8000 + static_cast<uint32_t>(list->size()));
        return list->size() > 2 ? ZQ_ERROR_SERVER : ZQ_ERROR_NONE;
    };
    zq_http_set_proxy_callback(http, choose, &asked);
    EXPECT_EQ(perform({reply(200)}), ZQ_ERROR_NONE);
    EXPECT_TRUE(asked.empty()); // there is no URL yet
    zq_http_set_url(http, "http://u@h/a");
    EXPECT_EQ(perform({reply(302, "http://i:81/"), reply(200)}), ZQ_ERROR_NONE);
    EXPECT_EQ(asked, (std::vector<std::string>{"http h 80", "http i 81"}));
    EXPECT_EQ(proxy(), "i:8002");

    EXPECT_EQ(perform({reply(200)}), ZQ_ERROR_SERVER);
    EXPECT_EQ(log.take(),
              (Lines{{7, "the proxy callback returned error 211 (server returned an error)"}}));
    zq_http_set_url(http, "http://h:x/");
    EXPECT_EQ(perform({reply(200)}), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(script.performed, 0u);
    EXPECT_EQ(log.take(), (Lines{{6, "the port number must be between 1-65535"},
                                 {7, "unable to parse URL 'http://h:x'"}}));
}

// ---- the response ----

TEST_F(zqhttp_request, keeps_the_body_in_memory_or_streams_it)
{
    char *text;
    void *body = &text;
    size_t size = 9;
    EXPECT_EQ(zq_http_get_response_body(http, &text), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(zq_http_get_response_body_and_size(http, &body, &size), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_TRUE(!text && !body && size == 0);
    EXPECT_EQ(log.take(), Lines(2, {6, "no response data available"}));

    EXPECT_EQ(perform({reply(200, nullptr, {"he", std::string("l\0l", 3), "o"})}), ZQ_ERROR_NONE);
    if (zq_http_get_response_body(http, &text) == ZQ_ERROR_NONE &&
        zq_http_get_response_body_and_size(http, &body, &size) == ZQ_ERROR_NONE) {
        EXPECT_EQ(std::string(text, 7), std::string("hel\0lo\0", 7));
        EXPECT_EQ(std::string(static_cast<char *>(body), size), std::string("hel\0lo", 6));
    }
    zq_free(text);
    zq_free(body);

    std::string received;
    const auto receive = [](const void *data, size_t length, void *context) -> zqerror {
        static_cast<std::string *>(context)->append(static_cast<const char *>(data), length);
        return length == 3 ? ZQ_ERROR_NO_SPACE : ZQ_ERROR_NONE;
    };
    zq_http_set_response_body_callback(http, receive, &received);
    EXPECT_EQ(perform({reply(200, nullptr, {"a", "bc", "def", "g"})}), ZQ_ERROR_NO_SPACE);
    EXPECT_EQ(received, "abcdef");
    EXPECT_EQ(body_of(http), "(none)");
}

TEST_F(zqhttp_request, the_content_length_is_the_download_total)
{
    const std::tuple<const char *, int64_t, const char *> rows[] = {
        {"9223372036854775807", INT64_MAX, nullptr},
        {"-1", -1, "the Content-LENGTH header contains a value '-1' with non-digits"},
        {"9223372036854775808", -1,
         "the Content-LENGTH header value 9223372036854775808 is too large for a signed 64-bit "
         "integer"},
        // Wraps to a larger number, which is not noticed.
        {"22000000000000000000", 3553255926290448384, nullptr}};
    Reports reports;
    zq_http_set_download_progress_callback(http, report, &reports);
    for (const auto &[value, total, line] : rows) {
        log.take();
        zq_http_write_response_header(http, "Content-LENGTH", value);
        zq_http_write_response_header(http, "Content-LENGTH", nullptr);
        zq_http_progress_download_force(http);
        EXPECT_EQ(reports.back().second, total);
        Lines lines;
        if (line)
            lines = {{6, line}, {6, "considering the content length unknown"}};
        EXPECT_EQ(log.take(), lines);
    }
}

TEST_F(zqhttp_request, bodies_beyond_63_bits)
{
    zq_http_set_response_body_callback(http, discard, nullptr);
    const size_t largest = SIZE_MAX / 2;
    EXPECT_EQ(zq_http_write_response_body(http, "", largest + 1), ZQ_ERROR_OUT_OF_RANGE);
    EXPECT_EQ(zq_http_write_response_body(http, "", largest), ZQ_ERROR_NONE);
    EXPECT_EQ(zq_http_write_response_body(http, "", 1), ZQ_ERROR_OUT_OF_RANGE);
    const std::string end = "data size is so large that it doesn't fit in a 64-bit signed integer";
    EXPECT_EQ(log.take(), (Lines{{6, "The " + end}, {6, "The total " + end}}));
}

TEST_F(zqhttp_request, reset_forgets_the_request_but_not_the_connection_settings)
{
    const bool proxied = zq_http_set_proxy(http, "proxy", 3128) == ZQ_ERROR_NONE;
    zq_http_set_idle_timeout(http, 5, 0);
    zq_http_set_method_put(http);
    Reports reports;
    zq_http_set_progress_callbacks(http, report, &reports, report, &reports);
    perform({reply(200, nullptr, {"body"})});
    reports.clear();

    EXPECT_EQ(zq_http_reset(http), ZQ_ERROR_BUSY); // the transport's result
    EXPECT_EQ(script.resets, 1);
    EXPECT_STREQ(zq_http_get_method(http), "GET");
    EXPECT_EQ(zq_http_get_status_code(http), 0);
    EXPECT_EQ(body_of(http), "(none)");
    zq_http_progress_upload_force(http);
    zq_http_progress_download_force(http);
    EXPECT_EQ(reports, Reports{});
    EXPECT_EQ(idle_seconds(), 5);
    EXPECT_EQ(proxy(), proxied ? "proxy:3128" : "(none):0");
    owned.reset();
    EXPECT_EQ(script.destroyed, 1);
}

// ---- time ----

TEST_F(zqhttp_request, waits_are_as_short_as_the_nearest_limit)
{
    FakeClock clock;
    Reports reports;
    const struct {
        Time full, idle;
        bool progress;
        int64_t passed;
        zqerror result;
        Time left;
    } rows[] = {{{20, 3}, {20, 2}, false, 1, 0, {20, 1}},
                {{20, 0}, {30, 0}, true, 400000, 0, {0, 600000}},
                {{0, 500000}, {30, 0}, true, 400000, 0, {0, 100000}},
                {{20, 0}, {30, 0}, true, 1000000, 0, {0, 0}},
                {{2, 0}, {1, 0}, false, 1000000, ZQ_ERROR_TIMED_OUT, {0, 0}},
                {{1, 0}, {1, 0}, false, 1000000, ZQ_ERROR_TIMER_EXPIRED, {0, 0}}};
    Lines lines;
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        zq_http_set_timeout(http, row.full.first, row.full.second);
        zq_http_set_idle_timeout(http, row.idle.first, row.idle.second);
        zq_http_set_download_progress_callback(http, row.progress ? report : nullptr, &reports);
        EXPECT_EQ(perform({[&](zqhttp *) -> zqerror {
                      clock.advance(row.passed);
                      Time left;
                      EXPECT_EQ(zq_http_timeout_check(http, &left.first, &left.second), row.result);
                      EXPECT_EQ(left, row.left);
                      zq_http_timeout_reset(http, &left.first, &left.second);
                      EXPECT_EQ(left, row.full);
                      zq_http_reset_idle_timeout(http);
                      return zq_http_timeout_check(http, nullptr, nullptr);
                  }}),
                  ZQ_ERROR_NONE);
        EXPECT_EQ(script.performed, 1u);
        for (const LogLine &line : log.take())
            lines.push_back(line);
    }
    EXPECT_EQ(lines, (Lines{{7, "idle timeout occurred"}, {7, "the full transfer timer expired"}}));
    zq_http_set_url(http, "http://h/");
    zq_http_set_timeout(http, 2, 0);
    zq_http_set_idle_timeout(http, -1, 0);
    EXPECT_EQ(perform({[&](zqhttp *) -> zqerror {
                  clock.advance(1000000);
                  return reply(302, "/")(http);
              }}),
              ZQ_ERROR_TIMER_EXPIRED);
    EXPECT_EQ(script.performed, 2u);
    EXPECT_EQ(log.take(),
              (Lines{{7, "the full transfer timer expired"}, {7, "a timeout occurred"}}));
}

TEST_F(zqhttp_request, reports_progress_once_a_second)
{
    FakeClock clock;
    Reports down, up;
    zq_http_set_progress_callbacks(http, report, &up, report, &down);
    zq_http_set_response_body_callback(http, discard, nullptr);
    perform({[&](zqhttp *) -> zqerror {
        EXPECT_EQ(down.size(), 1u); // the transfer began
        zq_http_write_response_header(http, "Content-Length", "100");
        for (int piece = 0; piece < 25; piece++) {
            clock.advance(100000);
            zq_http_write_response_body(http, "data", 4);
            zq_http_progress_upload_check(http);
            zq_http_progress_download_check(http);
        }
        clock.advance(1000000);
        zq_http_progress_upload_check(http);
        zq_http_progress_upload_force(http);
        clock.advance(999999);
        zq_http_progress_download_check(http);
        return ZQ_ERROR_NONE;
    }});
    EXPECT_EQ(down, (Reports{{0, -1}, {40, 100}, {80, 100}}));
    EXPECT_EQ(up, (Reports{{0, -1}, {0, -1}}));

    // A report that nobody wants does not stay due: a wait may take time again.
    zq_http_set_download_progress_callback(http, nullptr, nullptr);
    perform({[&](zqhttp *) -> zqerror {
        int32_t seconds;
        clock.advance(1000000);
        zq_http_progress_download_check(http);
        zq_http_timeout_check(http, &seconds, nullptr);
        EXPECT_EQ(seconds, 1);
        return ZQ_ERROR_NONE;
    }});
}

TEST_F(zqhttp_request, aborts)
{
    FakeClock clock;
    const zq_http_progress_callback refuse = [](int64_t, int64_t, void *context) -> zqerror {
        return ++*static_cast<int *>(context) > 1 ? ZQ_ERROR_BUSY : ZQ_ERROR_NONE;
    };
    const std::pair<const char *, std::function<void()>> rows[] = {
        {nullptr, [&] { zq_http_abort(http); }},
        {"download progress", [&] { zq_http_progress_download_force(http); }},
        {"upload progress",
         [&] {
             zq_http_progress_upload_force(http);
             zq_http_progress_upload_force(http);
         }},
        {"progress", [&] {
             clock.advance(1000000);
             zq_http_write_response_body(http, "x", 1);
         }}};
    for (const auto &[callback, provoke] : rows) {
        int up = 0;
        int down = 0;
        zq_http_set_progress_callbacks(http, refuse, &up, refuse, &down);
        EXPECT_EQ(perform({[&, &act = provoke](zqhttp *) -> zqerror {
                      EXPECT_FALSE(zq_http_is_aborted(http));
                      act();
                      EXPECT_EQ(zq_http_is_aborted(http), 1);
                      return ZQ_ERROR_CANCELED;
                  }}),
                  ZQ_ERROR_CANCELED);
        EXPECT_FALSE(zq_http_is_aborted(http));
        Lines lines;
        if (callback)
            lines = {{7, "The " + std::string(callback) +
                             " callback returned 206, aborting the transfer"}};
        lines.push_back({10, "aborting transfer"});
        EXPECT_EQ(log.take(), lines);
    }
}

// ---- downloads ----

static Script *download_script;

TEST(zqhttp, downloads)
{
    Scratch scratch;
    Script script;
    LogCapture log;
    download_script = &script;
    const std::string path = scratch.file("a");
    const std::string none = scratch.file("none/a");
    const auto create = [] { return download_script->attach(zq_http_generic_create()); };
    const auto get = [&](const std::string &file, const Script::Step &step, const char *url,
                         zq_http_create_callback creator) {
        script.steps = {step};
        return zq_http_generic_get_url_to_file(url, file.c_str(), creator);
    };
    const char *url = "http://h/";
    if (get(path, reply(200, nullptr, {"con", "tent"}), url, create) != ZQ_ERROR_NONE)
        return;
    EXPECT_EQ(read_file(path), "content");
    EXPECT_EQ(script.destroyed, 1);
    EXPECT_EQ(log.take(), Lines{});

    // What came before a failure is left.
    EXPECT_EQ(get(path, reply(404, nullptr, {"none"}), url, create), ZQ_ERROR_GENERIC);
    EXPECT_EQ(read_file(path), "none");
    const Script::Step breaks = [](zqhttp *http) -> zqerror {
        reply(200, nullptr, {"par"})(http);
        return ZQ_ERROR_CONNECTION_RESET;
    };
    EXPECT_EQ(get(path, breaks, url, create), ZQ_ERROR_CONNECTION_RESET);
    EXPECT_EQ(read_file(path), "par");
    EXPECT_EQ(get(path, reply(200), "http:", create), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(get(path, reply(200), url, []() -> zqhttp * { return nullptr; }), ZQ_ERROR_GENERIC);
    EXPECT_EQ(get(none, reply(200), url, create), ZQ_ERROR_WRITE);
    const auto large = reply(200, nullptr, {std::string(100000, 'x')});
    EXPECT_EQ(get("/dev/full", large, url, create), ZQ_ERROR_WRITE);
    EXPECT_EQ(log.take(), (Lines{{7, "The HTTP server returned status code 404"},
                                 {7, "unable to download, error 104 (connection reset by peer)"},
                                 {6, "invalid URL 'http:'"},
                                 {7, "unable to set the URL, error 22 (invalid argument)"},
                                 {7, "unable to create the HTTP context"},
                                 {7, "unable to create the output file '" + none + "'"},
                                 {7, "short write 0/100000 bytes"},
                                 {7, "unable to download, error 203 (write error)"}}));
    // What the stream still held is written when it is closed.
    EXPECT_EQ(get("/dev/full", reply(200, nullptr, {"small"}), url, create), ZQ_ERROR_WRITE);
}

// ---- lack of memory, misuse ----

TEST(zqhttp, lines_without_memory)
{
    const std::string none = "[7] not enough memory for ";
    if (!faults_injected()) {
        expect_lines_without_memory(
            "zqhttp.lines_without_memory",
            {none + "URL scheme", none + "hostname", none + "query part of the URL",
             none + "the zqhttp context", none + "zqtimeout context", none + "idle timeout",
             none + "progress callback timeout",
             none + "zqhttpheaders structure; "
                    "[7] unable to create the response headers module context",
             none + "proxy hostname 'proxy'", none + "base URL",
             none + "setting method to 'PROPFIND'", none + "the redirect URL 'http://h/a'",
             none + "response body (5 bytes)"});
        return;
    }
    FaultLines lines;
    for (int tries = 0; tries < 20; tries++) {
        lines.step(zq_http_parse_url("http://h/", nullptr, nullptr, nullptr, nullptr));
        Script script;
        Http http(lines.step(script.attach(zq_http_generic_create())));
        if (!http)
            continue;
        lines.step(zq_http_set_proxy(http.get(), "proxy", 1));
        lines.step(zq_http_set_url(http.get(), "http://h/"));
        lines.step(zq_http_set_method(http.get(), "PROPFIND"));
        script.steps = {reply(302, "/a"), reply(200, nullptr, {"body"})};
        lines.step(zq_http_perform(http.get()));
        char *text;
        lines.step(zq_http_get_response_body(http.get(), &text));
        const ZqString owner(text);
    }
}

TEST_F(zqhttp_request, a_body_may_be_too_long_for_the_memory)
{
    if (!heap_is_watched())
        GTEST_SKIP();
    EXPECT_EQ(perform({[&](zqhttp *) {
                  HeapFailure failure(1, HeapFailure::REALLOCATIONS);
                  return zq_http_write_response_body(http, "body", 4);
              }}),
              ZQ_ERROR_NO_MEMORY);
    EXPECT_EQ(log.take(), (Lines{{7, "not enough memory for response body (4 bytes)"}}));
}

TEST_F(zqhttp_request, misuse)
{
    EXPECT_MISUSE(zq_http_set_proxy(http, "h", 65536), "net/zqhttp", "zq_http_set_proxy",
                  "port <= 65535");
    EXPECT_MISUSE(zq_http_set_proxy(http, "h", 0), "net/zqhttp", "zq_http_set_proxy",
                  "hostname == NULL || port > 0");
    EXPECT_MISUSE(zq_http_write_response_body(http, "", 0), "net/zqhttp",
                  "zq_http_write_response_body", "size > 0");
}
