#include "zq/net/zqhttp.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/fake_clock.h"
#include "tests/support/faults.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch.h"

using Http = Owned<zqhttp, zq_http_destroy>;
using Lines = std::vector<LogLine>;
using Reports = std::vector<std::pair<int64_t, int64_t>>;

// ---- URLs ----

TEST(zqhttp, parses_urls)
{
    const struct {
        const char *url, *scheme, *host;
        uint32_t port;
        const char *query;
    } rows[] = {
        {"http://example:8080/a/b?c=d#e", "http", "example", 8080, "/a/b?c=d#e"},
        {"icap://srv/reqmod", "icap", "srv", 1344, "/reqmod"},
        {"https://h", "https", "h", 443, "/"},
        {"ftp://h//x", "ftp", "h", 21, "//x"},
        {"http://user:pw@host:81/", "http", "host", 81, "/"},
        {"http://a@b@c/", "http", "c", 80, "/"},
        {"http://h/@:x:y", "http", "h", 80, "/@:x:y"},
        {"http:///x", "http", "", 80, "/x"},
        {"://h:1/", "", "h", 1, "/"},
        {"http://h?x=1", "http", "h?x=1", 80, "/"},
        {"http://h:65535", "http", "h", 65535, "/"},
        {"http://h: +80/", "http", "h", 80, "/"}, // as strtoul() reads numbers
        {"x://h:7/", "x", "h", 7, "/"},
        {"HTTP://h/", "HTTP", "h", 0, "/"},
    };
    LogCapture log(13);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.url);
        char *scheme, *host, *query;
        uint32_t port;
        log.take();
        const zqerror result = zq_http_parse_url(row.url, &scheme, &host, &port, &query);
        ZqString scheme_owner(scheme), host_owner(host), query_owner(query);
        if (result != ZQ_ERROR_NONE) {
            CHECK_PROMISE(result == ZQ_ERROR_NO_MEMORY && !scheme && !host && !query);
            continue;
        }
        EXPECT_STREQ(scheme, row.scheme);
        EXPECT_STREQ(host, row.host);
        EXPECT_EQ(port, row.port);
        EXPECT_STREQ(query, row.query);
        EXPECT_EQ(zq_http_parse_url(row.url, nullptr, nullptr, nullptr, nullptr), ZQ_ERROR_NONE);
    }
    const LogLine unrecognized = {13, "unrecognized scheme 'HTTP' in URL 'HTTP://h/'"};
    EXPECT_EQ(log.take(), Lines(2, unrecognized));
}

TEST(zqhttp, rejects_urls)
{
    const char *bad_port = "the port number must be between 1-65535";
    const struct {
        const char *url;
        std::string line;
    } rows[] = {
        {"plain", "URL 'plain' has no colon after scheme"},
        {"", "URL '' has no colon after scheme"},
        {"h:80", "URL 'h:80' has no :// after scheme"},
        {"http:/h", "URL 'http:/h' has no :// after scheme"},
        {"http://[::1]:80/", "URL 'http://[::1]:80/' has two colons in hostname or username"},
        {"http://a:1:2@c/", "URL 'http://a:1:2@c/' has two colons in hostname or username"},
        {"http://h:0/", bad_port},
        {"http://h:/", bad_port},
        {"http://h:65536/", bad_port},
        {"http://h:x", bad_port},
        {"http://h:-1", bad_port},
        {"http://h:18446744073709551617/", bad_port},
        {"http://h:80x/", "invalid character 'x' in port number"},
        {"http://h:80?x", "invalid character '?' in port number"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.url);
        char *scheme, *host, *query;
        uint32_t port;
        LogCapture log(13);
        const zqerror result = zq_http_parse_url(row.url, &scheme, &host, &port, &query);
        CHECK_PROMISE(!scheme && !host && !query && port == 0);
        EXPECT_EQ(result, ZQ_ERROR_INVALID_ARGUMENT);
        EXPECT_EQ(log.take(), (Lines{{6, row.line}}));
    }
}

TEST(zqhttp, a_long_url_is_no_trouble)
{
    const std::string long_part(1 << 20, 'x');
    char *host, *query;
    const std::string url = "http://" + long_part + "/" + long_part;
    if (zq_http_parse_url(url.c_str(), nullptr, &host, nullptr, &query) != ZQ_ERROR_NONE)
        return;
    EXPECT_EQ(host, long_part);
    EXPECT_EQ(query, "/" + long_part);
    zq_free(host);
    zq_free(query);
}

// ---- an object with a scripted transport ----

static zqerror discard(const void *, size_t, void *)
{
    return ZQ_ERROR_NONE;
}

static zqerror report(int64_t current, int64_t total, void *reports)
{
    static_cast<Reports *>(reports)->emplace_back(current, total);
    return ZQ_ERROR_NONE;
}

// A transport that plays one step for each exchange, the last one for ever.
struct Script {
    using Step = std::function<zqerror(zqhttp *)>;
    std::vector<Step> steps;
    std::vector<std::string> urls;
    size_t performed = 0;
    int resets = 0;
    int *destroyed = nullptr;

    static Script *of(zqhttp *http) { return static_cast<Script *>(zq_http_get_context(http)); }

    void attach(zqhttp *http)
    {
        zq_http_set_context(http, this);
        zq_http_set_destroy_callback(http, [](void *context) {
            if (auto *script = static_cast<Script *>(context); script->destroyed)
                ++*script->destroyed;
        });
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
    }
};

static Script::Step reply(int status,
                          std::vector<std::pair<const char *, const char *>> headers = {},
                          std::vector<std::string> body = {})
{
    return [=](zqhttp *http) -> zqerror {
        zqerror result = ZQ_ERROR_NONE;
        zq_http_set_status_code(http, status);
        for (const auto &[name, value] : headers)
            result = result ? result : zq_http_write_response_header(http, name, value);
        for (const std::string &piece : body)
            result =
                result ? result : zq_http_write_response_body(http, piece.data(), piece.size());
        return result;
    };
}

static std::string body_of(zqhttp *http)
{
    char *text;
    if (zq_http_get_response_body(http, &text) != ZQ_ERROR_NONE)
        return "(none)";
    return ZqString(text).get();
}

class zqhttp_request : public testing::Test {
  protected:
    void SetUp() override
    {
        http.reset(zq_http_generic_create());
        ASSERT_TRUE(http);
        script.attach(http.get());
        script.steps = {reply(200)};
    }

    Script script;
    LogCapture log;
    Http http;
};

TEST_F(zqhttp_request, settings)
{
    int32_t seconds;
    uint32_t microseconds;
    zq_http_get_idle_timeout(http.get(), &seconds, &microseconds);
    EXPECT_EQ(std::pair(seconds, microseconds), std::pair(30, 0u));
    zq_http_set_idle_timeout(http.get(), -7, 5);
    zq_http_get_idle_timeout(http.get(), &seconds, &microseconds);
    EXPECT_EQ(std::pair(seconds, microseconds), std::pair(-7, 5u));

    const char *host = "";
    uint32_t port = 9;
    zq_http_get_proxy(http.get(), &host, &port);
    EXPECT_EQ(host, nullptr);
    if (zq_http_set_proxy(http.get(), "proxy", 65535) == ZQ_ERROR_NONE) {
        zq_http_get_proxy(http.get(), &host, nullptr);
        zq_http_get_proxy(http.get(), nullptr, &port);
        EXPECT_STREQ(host, "proxy");
        EXPECT_EQ(port, 65535u);
    }
    EXPECT_EQ(zq_http_set_proxy(http.get(), nullptr, 1), ZQ_ERROR_NONE);
    zq_http_get_proxy(http.get(), &host, &port);
    EXPECT_EQ(host, nullptr);
    EXPECT_EQ(port, 0u);
}

TEST_F(zqhttp_request, methods)
{
    EXPECT_STREQ(zq_http_get_method(http.get()), "GET");
    for (const char *method : {"POST", "PUT", "DELETE", "GET", "get", "PROPFIND", ""}) {
        const zqerror result = zq_http_set_method(http.get(), method);
        EXPECT_STREQ(zq_http_get_method(http.get()), result == ZQ_ERROR_NONE ? method : "GET");
    }
    zq_http_set_method_post(http.get());
    EXPECT_STREQ(zq_http_get_method(http.get()), "POST");
    zq_http_set_method_put(http.get());
    EXPECT_STREQ(zq_http_get_method(http.get()), "PUT");
    zq_http_set_method_delete(http.get());
    EXPECT_STREQ(zq_http_get_method(http.get()), "DELETE");
    zq_http_set_method_get(http.get());
    EXPECT_STREQ(zq_http_get_method(http.get()), "GET");
}

TEST_F(zqhttp_request, without_a_transport)
{
    Http bare(zq_http_generic_create());
    ASSERT_TRUE(bare);
    log.take();
    EXPECT_EQ(zq_http_set_url(bare.get(), "http://h/"), ZQ_ERROR_UNSUPPORTED);
    EXPECT_EQ(zq_http_perform(bare.get()), ZQ_ERROR_UNSUPPORTED);
    EXPECT_EQ(zq_http_reset(bare.get()), ZQ_ERROR_NONE);
    EXPECT_EQ(log.take(),
              (Lines{{6, "this HTTP implementation does not support setting the URL"},
                     {6, "The HTTP implementation does not support performing an operation"}}));
}

TEST_F(zqhttp_request, the_transport_sees_a_url_first)
{
    EXPECT_EQ(zq_http_set_url(http.get(), ""), ZQ_ERROR_SERVER);
    EXPECT_EQ(zq_http_set_url(http.get(), "http:/h"), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(script.urls, (std::vector<std::string>{"", "http:/h"}));
    EXPECT_EQ(log.take(), (Lines{{6, "invalid URL 'http:/h'"}}));
}

TEST_F(zqhttp_request, follows_redirects)
{
    const struct {
        const char *url, *location, *next;
    } rows[] = {
        {"http://h:81/a", "/next", "http://h:81/next"},
        {"http://u@h?x", "/", "http://u@h?x/"},
        {"http://h/a", "http://i/b", "http://i/b"},
        {"http://h/a", "//i/b", "http://h//i/b"},
    };
    for (const auto &row : rows) {
        script.performed = 0;
        script.urls.clear();
        script.steps = {reply(301, {{"Location", row.location}}, {"moved"}), reply(200)};
        zq_http_set_url(http.get(), row.url);
        if (zq_http_perform(http.get()) == ZQ_ERROR_NO_MEMORY)
            continue;
        EXPECT_EQ(script.urls, (std::vector<std::string>{row.url, row.next}));
        // Nothing of the redirect itself is left.
        EXPECT_EQ(zq_http_get_response_header(http.get(), "location"), nullptr);
        EXPECT_EQ(body_of(http.get()), "(none)");
    }
}

TEST_F(zqhttp_request, redirects_to_nowhere)
{
    zq_http_set_url(http.get(), "http://h/a");
    script.steps = {reply(301)};
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_PROTOCOL);
    script.steps = {reply(301, {{"Location", "b"}})}; // relative: taken for a whole URL
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_INVALID_ARGUMENT);
    script.steps = {reply(302, {{"Location", ""}})};
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_SERVER);
    EXPECT_EQ(log.take(), (Lines{{7, "Redirect without Location header"},
                                 {6, "invalid URL 'b'"},
                                 {7, "Unable to set the redirect URL 'b'"},
                                 {7, "Unable to set the redirect URL ''"}}));
}

TEST_F(zqhttp_request, gives_up_after_ten_attempts)
{
    script.steps = {reply(302, {{"location", "/x"}})};
    zq_http_set_url(http.get(), "http://h/");
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_OUT_OF_RANGE);
    EXPECT_EQ(script.performed, 10u);
    EXPECT_EQ(zq_http_get_status_code(http.get()), 302);
    EXPECT_EQ(log.take(), (Lines{{7, "Too many redirects (10)"}}));

    for (int status : {200, 204, 300, 303, 307, 404, 500}) {
        script.performed = 0;
        script.steps = {reply(status, {{"Location", "/x"}})};
        EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_NONE);
        EXPECT_EQ(zq_http_get_status_code(http.get()), status);
        EXPECT_EQ(script.performed, 1u);
    }
}

TEST_F(zqhttp_request, asks_for_a_proxy_before_each_attempt)
{
    std::vector<std::string> asked;
    zq_http_set_proxy_callback(
        http.get(),
        [](zqhttp *self, const char *scheme, const char *host, uint32_t port,
           void *context) -> zqerror {
            auto *list = static_cast<std::vector<std::string> *>(context);
            list->push_back(std::string(scheme) + " " + host + " " + std::to_string(port));
            return zq_http_set_proxy(self, host, 8000 + static_cast<uint32_t>(list->size()));
        },
        &asked);
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_NONE);
    EXPECT_TRUE(asked.empty()); // there is no URL yet
    script.performed = 0;
    script.steps = {reply(302, {{"Location", "http://i:81/"}}), reply(200)};
    zq_http_set_url(http.get(), "http://u@h/a");
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_NONE);
    EXPECT_EQ(asked, (std::vector<std::string>{"http h 80", "http i 81"}));
    const char *host;
    uint32_t port;
    zq_http_get_proxy(http.get(), &host, &port);
    EXPECT_STREQ(host, "i");
    EXPECT_EQ(port, 8002u);

    log.take();
    script.performed = 0;
    zq_http_set_proxy_callback(
        http.get(),
        [](zqhttp *, const char *, const char *, uint32_t, void *) -> zqerror {
            return ZQ_ERROR_SERVER;
        },
        nullptr);
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_SERVER);
    zq_http_set_url(http.get(), "http://h:x/");
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(script.performed, 0u);
    EXPECT_EQ(log.take(),
              (Lines{{7, "the proxy callback returned error 211 (server returned an error)"},
                     {6, "the port number must be between 1-65535"},
                     {7, "unable to parse URL 'http://h:x'"}}));
}

// ---- the response ----

TEST_F(zqhttp_request, keeps_the_body_in_memory)
{
    char *text = nullptr;
    void *body = &text;
    size_t size = 9;
    EXPECT_EQ(zq_http_get_response_body(http.get(), &text), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(zq_http_get_response_body_and_size(http.get(), &body, &size),
              ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(body, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(log.take(),
              (Lines{{6, "no response data available"}, {6, "no response data available"}}));

    script.steps = {reply(200, {}, {"he", std::string("l\0l", 3), "o"})};
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_NONE);
    if (zq_http_get_response_body(http.get(), &text) == ZQ_ERROR_NONE) {
        EXPECT_EQ(std::string(text, 7), std::string("hel\0lo\0", 7));
    }
    if (zq_http_get_response_body_and_size(http.get(), &body, &size) == ZQ_ERROR_NONE) {
        EXPECT_EQ(std::string(static_cast<char *>(body), size), std::string("hel\0lo", 6));
    }
    zq_free(text);
    zq_free(body);
}

TEST_F(zqhttp_request, streams_the_body_to_a_callback)
{
    std::string received;
    zq_http_set_response_body_callback(
        http.get(),
        [](const void *data, size_t size, void *context) -> zqerror {
            static_cast<std::string *>(context)->append(static_cast<const char *>(data), size);
            return size == 3 ? ZQ_ERROR_NO_SPACE : ZQ_ERROR_NONE;
        },
        &received);
    script.steps = {reply(200, {}, {"a", "bc", "def", "g"})};
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_NO_SPACE);
    EXPECT_EQ(received, "abcdef");
    EXPECT_EQ(body_of(http.get()), "(none)");
}

TEST_F(zqhttp_request, header_numbers)
{
    const struct {
        const char *value;
        zqerror result;
        int32_t number;
    } rows[] = {
        {"12", 0, 12},
        {" -5 apples", 0, -5},
        {"x", 0, 0},
        {"2147483647", 0, INT32_MAX},
        {"-2147483648", 0, INT32_MIN},
        {"2147483648", ZQ_ERROR_OUT_OF_RANGE, -1},
        {"3000000000", ZQ_ERROR_OUT_OF_RANGE, -1},
        {"99999999999999999999", ZQ_ERROR_OUT_OF_RANGE, -1},
        {nullptr, ZQ_ERROR_NOT_FOUND, -1},
    };
    int32_t number = 7;
    EXPECT_EQ(zq_http_get_response_header_int(http.get(), "N", &number), ZQ_ERROR_NOT_FOUND);
    EXPECT_EQ(number, -1);
    for (const auto &row : rows) {
        if (zq_http_write_response_header(http.get(), "N", row.value) != ZQ_ERROR_NONE)
            continue;
        EXPECT_EQ(zq_http_get_response_header_int(http.get(), "n", &number), row.result);
        EXPECT_EQ(number, row.number);
    }
}

TEST_F(zqhttp_request, the_content_length_is_the_download_total)
{
    const struct {
        const char *value;
        int64_t total;
        const char *line;
    } rows[] = {
        {"12", 12, nullptr},
        {"12 abc", 12, nullptr},
        {"", 0, nullptr},
        {"9223372036854775807", INT64_MAX, nullptr},
        {"12abc", -1, "the Content-LENGTH header contains a value '12abc' with non-digits"},
        {"-1", -1, "the Content-LENGTH header contains a value '-1' with non-digits"},
        {"9223372036854775808", -1,
         "the Content-LENGTH header value 9223372036854775808 is too large for a signed 64-bit "
         "integer"},
        // Wraps to a larger number, which is not noticed.
        {"22000000000000000000", 3553255926290448384, nullptr},
    };
    Reports reports;
    zq_http_set_download_progress_callback(http.get(), report, &reports);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.value);
        log.take();
        zq_http_write_response_header(http.get(), "Content-LENGTH", row.value);
        zq_http_write_response_header(http.get(), "Content-LENGTH", nullptr);
        zq_http_progress_download_force(http.get());
        EXPECT_EQ(reports.back().second, row.total);
        if (row.line) {
            EXPECT_EQ(log.take(),
                      (Lines{{6, row.line}, {6, "considering the content length unknown"}}));
        }
    }
}

TEST_F(zqhttp_request, bodies_beyond_63_bits)
{
    zq_http_set_response_body_callback(http.get(), discard, nullptr);
    const size_t largest = INT64_MAX;
    log.take();
    EXPECT_EQ(zq_http_write_response_body(http.get(), "", largest + 1), ZQ_ERROR_OUT_OF_RANGE);
    EXPECT_EQ(zq_http_write_response_body(http.get(), "", largest), ZQ_ERROR_NONE);
    EXPECT_EQ(zq_http_write_response_body(http.get(), "", 1), ZQ_ERROR_OUT_OF_RANGE);
    EXPECT_EQ(
        log.take(),
        (Lines{
            {6, "The data size is so large that it doesn't fit in a 64-bit signed integer"},
            {6,
             "The total data size is so large that it doesn't fit in a 64-bit signed integer"}}));
}

TEST_F(zqhttp_request, reset_forgets_the_request_but_not_the_connection_settings)
{
    script.steps = {reply(200, {{"A", "1"}}, {"body"})};
    zq_http_set_proxy(http.get(), "proxy", 3128);
    zq_http_set_idle_timeout(http.get(), 5, 0);
    zq_http_set_method_put(http.get());
    Reports reports;
    zq_http_set_progress_callbacks(http.get(), report, &reports, report, &reports);
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_NONE);
    reports.clear();

    EXPECT_EQ(zq_http_reset(http.get()), ZQ_ERROR_BUSY); // the transport's result
    EXPECT_EQ(script.resets, 1);
    EXPECT_STREQ(zq_http_get_method(http.get()), "GET");
    EXPECT_EQ(zq_http_get_status_code(http.get()), 0);
    EXPECT_EQ(body_of(http.get()), "(none)");
    zq_http_progress_upload_force(http.get());
    zq_http_progress_download_force(http.get());
    EXPECT_EQ(reports, Reports{});
    int32_t seconds;
    uint32_t microseconds;
    zq_http_get_idle_timeout(http.get(), &seconds, &microseconds);
    EXPECT_EQ(seconds, 5);
    const char *host;
    zq_http_get_proxy(http.get(), &host, nullptr);
    EXPECT_STREQ(host, "proxy");

    int destroyed = 0;
    script.destroyed = &destroyed;
    http.reset();
    EXPECT_EQ(destroyed, 1);
}

// ---- time ----

TEST_F(zqhttp_request, waits_are_as_short_as_the_nearest_limit)
{
    FakeClock clock;
    Reports reports;
    const struct {
        std::pair<int32_t, uint32_t> full, idle;
        bool progress;
        int64_t passed;
        zqerror result;
        std::pair<int32_t, uint32_t> left;
    } rows[] = {
        {{-1, 0}, {-1, 0}, false, 5000000, 0, {-1, 0}},
        {{-1, 0}, {30, 0}, false, 1500000, 0, {28, 500000}},
        {{20, 3}, {20, 2}, false, 1, 0, {20, 1}},
        {{20, 0}, {30, 0}, false, 1, 0, {19, 999999}},
        {{20, 0}, {30, 0}, true, 400000, 0, {0, 600000}},
        {{0, 500000}, {30, 0}, true, 400000, 0, {0, 100000}},
        {{20, 0}, {30, 0}, true, 1000000, 0, {0, 0}},
        {{2, 0}, {1, 0}, false, 1000000, ZQ_ERROR_TIMED_OUT, {0, 0}},
        {{1, 0}, {1, 0}, false, 1000000, ZQ_ERROR_TIMER_EXPIRED, {0, 0}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        zq_http_set_timeout(http.get(), row.full.first, row.full.second);
        zq_http_set_idle_timeout(http.get(), row.idle.first, row.idle.second);
        zq_http_set_download_progress_callback(http.get(), row.progress ? report : nullptr,
                                               &reports);
        bool performed = false;
        script.steps = {[&](zqhttp *self) -> zqerror {
            clock.advance(row.passed);
            performed = true;
            int32_t seconds = 99;
            uint32_t microseconds = 99;
            EXPECT_EQ(zq_http_timeout_check(self, &seconds, &microseconds), row.result);
            EXPECT_EQ(std::pair(seconds, microseconds), row.left);
            zq_http_timeout_reset(self, &seconds, &microseconds);
            EXPECT_EQ(std::pair(seconds, microseconds), row.full);
            zq_http_reset_idle_timeout(self);
            EXPECT_EQ(zq_http_timeout_check(self, nullptr, nullptr), ZQ_ERROR_NONE);
            return ZQ_ERROR_NONE;
        }};
        EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_NONE);
        EXPECT_TRUE(performed);
    }
    EXPECT_EQ(log.take(),
              (Lines{{7, "idle timeout occurred"}, {7, "the full transfer timer expired"}}));
}

TEST_F(zqhttp_request, time_runs_out_between_attempts)
{
    FakeClock clock;
    zq_http_set_url(http.get(), "http://h/");
    zq_http_set_timeout(http.get(), 2, 0);
    script.steps = {[&](zqhttp *self) -> zqerror {
        clock.advance(1000000);
        return reply(302, {{"Location", "/"}})(self);
    }};
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_TIMER_EXPIRED);
    EXPECT_EQ(script.performed, 2u);
    EXPECT_EQ(log.take(),
              (Lines{{7, "the full transfer timer expired"}, {7, "a timeout occurred"}}));
}

TEST_F(zqhttp_request, reports_progress_once_a_second)
{
    FakeClock clock;
    Reports down, up;
    zq_http_set_progress_callbacks(http.get(), report, &up, report, &down);
    zq_http_set_response_body_callback(http.get(), discard, nullptr);
    script.steps = {[&](zqhttp *self) -> zqerror {
        EXPECT_EQ(down.size(), 1u); // the transfer began
        zq_http_write_response_header(self, "Content-Length", "100");
        for (int piece = 0; piece < 25; piece++) {
            clock.advance(100000);
            zq_http_write_response_body(self, "data", 4);
            zq_http_progress_upload_check(self);
            zq_http_progress_download_check(self);
        }
        clock.advance(1000000);
        zq_http_progress_upload_check(self);
        zq_http_progress_upload_force(self);
        clock.advance(999999);
        zq_http_progress_download_check(self);
        return ZQ_ERROR_NONE;
    }};
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_NONE);
    EXPECT_EQ(down, (Reports{{0, -1}, {40, 100}, {80, 100}}));
    EXPECT_EQ(up, (Reports{{0, -1}, {0, -1}}));
}

TEST_F(zqhttp_request, a_report_that_nobody_wants_does_not_stay_due)
{
    FakeClock clock;
    Reports reports;
    zq_http_set_upload_progress_callback(http.get(), report, &reports);
    script.steps = {[&](zqhttp *self) -> zqerror {
        int32_t seconds;
        clock.advance(1000000);
        zq_http_progress_download_check(self);
        zq_http_timeout_check(self, &seconds, nullptr);
        EXPECT_EQ(seconds, 1); // a wait may take time again
        return ZQ_ERROR_NONE;
    }};
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_NONE);
}

TEST_F(zqhttp_request, aborts)
{
    FakeClock clock;
    zq_http_progress_callback refuse = [](int64_t, int64_t, void *context) -> zqerror {
        return ++*static_cast<int *>(context) > 1 ? ZQ_ERROR_BUSY : ZQ_ERROR_NONE;
    };
    const LogLine aborting = {10, "aborting transfer"};
    const struct {
        std::function<void(zqhttp *)> provoke;
        Lines log;
    } rows[] = {
        {zq_http_abort, {aborting}},
        {zq_http_progress_download_force,
         {{7, "The download progress callback returned 206, aborting the transfer"}, aborting}},
        {[](zqhttp *self) {
             zq_http_progress_upload_force(self);
             zq_http_progress_upload_force(self);
         },
         {{7, "The upload progress callback returned 206, aborting the transfer"}, aborting}},
        {[&](zqhttp *self) {
             clock.advance(1000000);
             zq_http_write_response_body(self, "x", 1);
         },
         {{7, "The progress callback returned 206, aborting the transfer"}, aborting}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.log[0].text);
        int up = 0;
        int down = 0;
        log.take();
        zq_http_set_progress_callbacks(http.get(), refuse, &up, refuse, &down);
        script.steps = {[&](zqhttp *self) -> zqerror {
            EXPECT_FALSE(zq_http_is_aborted(self));
            row.provoke(self);
            EXPECT_EQ(zq_http_is_aborted(self), 1);
            return ZQ_ERROR_CANCELED;
        }};
        EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_CANCELED);
        EXPECT_FALSE(zq_http_is_aborted(http.get()));
        EXPECT_EQ(log.take(), row.log);
    }
}

// ---- downloads ----

static Script *download_script;

static zqhttp *create_scripted()
{
    zqhttp *http = zq_http_generic_create();
    if (http)
        download_script->attach(http);
    return http;
}

static zqhttp *create_nothing()
{
    return nullptr;
}

class zqhttp_download : public testing::Test {
  protected:
    void SetUp() override { download_script = &script; }
    zqerror get(const std::string &file, const Script::Step &step, const char *url = "http://h/",
                zq_http_create_callback create = create_scripted)
    {
        script.steps = {step};
        return zq_http_generic_get_url_to_file(url, file.c_str(), create);
    }

    Scratch scratch;
    Script script;
    LogCapture log;
    const std::string path = scratch.file("a");
};

TEST_F(zqhttp_download, writes_the_body)
{
    int destroyed = 0;
    script.destroyed = &destroyed;
    if (get(path, reply(200, {}, {"con", "tent"})) != ZQ_ERROR_NONE)
        return;
    EXPECT_EQ(read_file(path), "content");
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(log.take(), Lines{});
}

TEST_F(zqhttp_download, leaves_what_came_before_a_failure)
{
    EXPECT_EQ(get(path, reply(404, {}, {"none"})), ZQ_ERROR_GENERIC);
    EXPECT_EQ(read_file(path), "none");
    Script::Step breaks = [](zqhttp *http) -> zqerror {
        reply(200, {}, {"par"})(http);
        return ZQ_ERROR_CONNECTION_RESET;
    };
    EXPECT_EQ(get(path, breaks), ZQ_ERROR_CONNECTION_RESET);
    EXPECT_EQ(read_file(path), "par");
    EXPECT_EQ(get(path, reply(200), "http:"), ZQ_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(get(path, reply(200), "http://h/", create_nothing), ZQ_ERROR_GENERIC);
    EXPECT_EQ(read_file(path), "");
    EXPECT_EQ(log.take(), (Lines{{7, "The HTTP server returned status code 404"},
                                 {7, "unable to download, error 104 (connection reset by peer)"},
                                 {6, "invalid URL 'http:'"},
                                 {7, "unable to set the URL, error 22 (invalid argument)"},
                                 {7, "unable to create the HTTP context"}}));
}

TEST_F(zqhttp_download, files_that_take_nothing)
{
    const std::string none = scratch.file("none/a");
    EXPECT_EQ(get(none, reply(200)), ZQ_ERROR_WRITE);
    EXPECT_EQ(get("/dev/full", reply(200, {}, {std::string(100000, 'x')})), ZQ_ERROR_WRITE);
    EXPECT_EQ(log.take(), (Lines{{7, "unable to create the output file '" + none + "'"},
                                 {7, "short write 0/100000 bytes"},
                                 {7, "unable to download, error 203 (write error)"}}));
    // What the stream still held is written when it is closed.
    EXPECT_EQ(get("/dev/full", reply(200, {}, {"small"})), ZQ_ERROR_WRITE);
}

// ---- what failures log, and misuse ----

TEST(zqhttp, lines_without_memory)
{
    if (!faults_injected()) {
        expect_lines_without_memory("zqhttp.lines_without_memory",
                                    {"[7] not enough memory for URL scheme",
                                     "[7] not enough memory for hostname",
                                     "[7] not enough memory for query part of the URL",
                                     "[7] not enough memory for the zqhttp context",
                                     "[7] not enough memory for zqtimeout context",
                                     "[7] not enough memory for idle timeout",
                                     "[7] not enough memory for progress callback timeout",
                                     "[7] not enough memory for zqhttpheaders structure; "
                                     "[7] unable to create the response headers module context",
                                     "[7] not enough memory for proxy hostname 'proxy'",
                                     "[7] not enough memory for base URL",
                                     "[7] not enough memory for setting method to 'PROPFIND'",
                                     "[7] not enough memory for the redirect URL 'http://h/a'",
                                     "[7] not enough memory for response body (5 bytes)"});
        return;
    }
    FaultLines lines;
    for (int tries = 0; tries < 20; tries++) {
        zq_http_parse_url("http://h/", nullptr, nullptr, nullptr, nullptr);
        lines.step();
    }
    for (int tries = 0; tries < 20; tries++) {
        Http http(zq_http_generic_create());
        lines.step();
        if (!http)
            continue;
        Script script;
        script.attach(http.get());
        zq_http_set_proxy(http.get(), "proxy", 1);
        lines.step();
        zq_http_set_url(http.get(), "http://h/");
        lines.step();
        zq_http_set_method(http.get(), "PROPFIND");
        lines.step();
        script.steps = {reply(302, {{"Location", "/a"}}), reply(200, {}, {"body"})};
        zq_http_perform(http.get());
        lines.step();
        char *text;
        zq_http_get_response_body(http.get(), &text);
        zq_free(text);
        lines.step();
    }
}

TEST_F(zqhttp_request, misuse)
{
    if (faults_injected())
        GTEST_SKIP();
    const char *source = "net/zqhttp";
    char *text;
    int32_t number;
    EXPECT_MISUSE(zq_http_parse_url(nullptr, nullptr, nullptr, nullptr, nullptr), source,
                  "zq_http_parse_url", "url != NULL");
    EXPECT_MISUSE(zq_http_perform(nullptr), source, "zq_http_perform", "zqhttp != NULL");
    EXPECT_MISUSE(zq_http_set_proxy(http.get(), "h", 65536), source, "zq_http_set_proxy",
                  "port <= 65535");
    EXPECT_MISUSE(zq_http_set_proxy(http.get(), "h", 0), source, "zq_http_set_proxy",
                  "hostname == NULL || port > 0");
    EXPECT_MISUSE(zq_http_get_idle_timeout(http.get(), &number, nullptr), source,
                  "zq_http_get_idle_timeout", "microsecondsptr != NULL");
    EXPECT_MISUSE(zq_http_get_response_header(http.get(), nullptr), source,
                  "zq_http_get_response_header", "name != NULL");
    EXPECT_MISUSE(zq_http_get_response_body(nullptr, &text), source, "zq_http_get_response_body",
                  "zqhttp != NULL");
    EXPECT_MISUSE(zq_http_write_response_body(http.get(), "", 0), source,
                  "zq_http_write_response_body", "size > 0");
    EXPECT_MISUSE(zq_http_generic_get_url_to_fileptr_with_timeout("u", stdout, 1, 0, nullptr),
                  source, "zq_http_generic_get_url_to_fileptr_with_timeout", "createfunc != NULL");
}
