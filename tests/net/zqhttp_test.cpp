#include "zq/net/zqhttp.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"

using Lines = std::vector<LogLine>;

/* ---- URLs ---- */

TEST(zqhttp, parses_urls)
{
    const LogLine bad_port = {6, "the port number must be between 1-65535"};
    const struct {
        const char *url;
        const char *scheme; // null when the URL is rejected
        const char *host;
        uint32_t port;
        const char *query;
        LogLine line = {0, ""};
    } rows[] = {
        {"http://example:8080/a/b?c=d#e", "http", "example", 8080, "/a/b?c=d#e"},
        {"icap://srv/reqmod", "icap", "srv", 1344, "/reqmod"},
        {"https://h", "https", "h", 443, "/"},
        {"ftp://h//x", "ftp", "h", 21, "//x"},
        {"http://user:pw@host:81/", "http", "host", 81, "/"},
        {"http://a@b@c/", "http", "c", 80, "/"},
        {"http://a:1:2@c/",
         nullptr,
         nullptr,
         0,
         nullptr,
         {6, "URL 'http://a:1:2@c/' has two colons in hostname or username"}},
        {"http://h/@:x:y", "http", "h", 80, "/@:x:y"},
        {"http:///x", "http", "", 80, "/x"},
        {"://h:1/", "", "h", 1, "/"},
        {"http://h?x=1", "http", "h?x=1", 80, "/"},
        {"http://h:65535", "http", "h", 65535, "/"},
        {"http://h: +80/", "http", "h", 80, "/"}, // as strtoul() reads numbers
        {"http://h:0/", nullptr, nullptr, 0, nullptr, bad_port},
        {"http://h:/", nullptr, nullptr, 0, nullptr, bad_port},
        {"http://h:65536/", nullptr, nullptr, 0, nullptr, bad_port},
        {"http://h:x", nullptr, nullptr, 0, nullptr, bad_port},
        {"http://h:-1", nullptr, nullptr, 0, nullptr, bad_port},
        {"http://h:18446744073709551617/", nullptr, nullptr, 0, nullptr, bad_port},
        {"http://h:80x/",
         nullptr,
         nullptr,
         0,
         nullptr,
         {6, "invalid character 'x' in port number"}},
        {"http://h:80?x",
         nullptr,
         nullptr,
         0,
         nullptr,
         {6, "invalid character '?' in port number"}},
        {"HTTP://h/", "HTTP", "h", 0, "/", {13, "unrecognized scheme 'HTTP' in URL 'HTTP://h/'"}},
        {"x://h:7/", "x", "h", 7, "/"},
        {"h:80", nullptr, nullptr, 0, nullptr, {6, "URL 'h:80' has no :// after scheme"}},
        {"http:/h", nullptr, nullptr, 0, nullptr, {6, "URL 'http:/h' has no :// after scheme"}},
        {"plain", nullptr, nullptr, 0, nullptr, {6, "URL 'plain' has no colon after scheme"}},
        {"", nullptr, nullptr, 0, nullptr, {6, "URL '' has no colon after scheme"}},
        {"http://[::1]:80/",
         nullptr,
         nullptr,
         0,
         nullptr,
         {6, "URL 'http://[::1]:80/' has two colons in hostname or username"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.url);
        const zqerror expected = row.scheme ? ZQ_ERROR_NONE : ZQ_ERROR_INVALID_ARGUMENT;
        const Lines expected_log = row.line.level ? Lines{row.line} : Lines{};
        char *scheme, *host, *query;
        uint32_t port = 99;
        LogCapture log(13);
        zqerror result = zq_http_parse_url(row.url, &scheme, &host, &port, &query);
        ZqString scheme_owner(scheme), host_owner(host), query_owner(query);
        if (result == ZQ_ERROR_NO_MEMORY) {
            EXPECT_TRUE(!scheme && !host && !query);
            continue;
        }
        EXPECT_EQ(result, expected);
        EXPECT_STREQ(scheme, row.scheme);
        EXPECT_STREQ(host, row.host);
        EXPECT_EQ(port, row.port);
        EXPECT_STREQ(query, row.query);
        EXPECT_EQ(log.take(), expected_log);
        EXPECT_EQ(zq_http_parse_url(row.url, nullptr, nullptr, nullptr, nullptr), expected);
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
