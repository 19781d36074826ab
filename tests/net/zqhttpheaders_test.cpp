#include "zq/net/zqhttpheaders.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/log_capture.h"

using namespace std::string_view_literals;
using Headers = Owned<zqhttpheaders, zq_httpheaders_destroy>;
using Fields = std::vector<std::pair<const char *, const char *>>;

static const LogLine skipped = {10, "skipping first line, should be HTTP request or status line"};
static const LogLine no_colon = {7, "no colon (:) found while parsing the headers"};

TEST(zqhttpheaders, parses_blocks)
{
    const struct {
        zqerror (*parse)(zqhttpheaders *, const void *, size_t);
        std::string_view block;
        zqerror result;
        Fields fields; // a null value: not in the table
        std::vector<LogLine> log;
    } rows[] = {
        {zq_httpheaders_parse,
         "Content-Type:  text/plain \r\nX-A:\t1\r\n\r\nX-B: 2\r\n",
         0,
         {{"content-type", "text/plain"}, {"X-A", "1"}, {"x-b", nullptr}},
         {}},
        {zq_httpheaders_parse, "A: 1\nA: 2\n", 0, {{"a", "2"}}, {}},
        {zq_httpheaders_parse, "Name : v", 0, {{"name ", "v"}, {"name", nullptr}}, {}},
        {zq_httpheaders_parse, "X:\r\nY: \t \n", 0, {{"x", ""}, {"y", ""}}, {}},
        {zq_httpheaders_parse, ":v\nA:b:c", 0, {{"", "v"}, {"a", "b:c"}}, {}},
        {zq_httpheaders_parse,
         "A: 1\rB: 2\r\nC: 3\n\rD: 4",
         0,
         {{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", nullptr}},
         {}},
        {zq_httpheaders_parse, "A: 1\r\r\nB: 2", 0, {{"a", "1"}, {"b", nullptr}}, {}},
        {zq_httpheaders_parse, "A: 1\0B: 2"sv, 0, {{"a", "1"}, {"b", nullptr}}, {}},
        {zq_httpheaders_parse, "A: 1\n\0\nB: 2"sv, 0, {{"a", "1"}, {"b", nullptr}}, {}},
        {zq_httpheaders_parse, "A: 1\n folded: x\n", 0, {{"a", "1"}, {" folded", "x"}}, {}},
        {zq_httpheaders_parse,
         "A: 1\n\tfolded\nB: 2",
         ZQ_ERROR_SYNTAX,
         {{"a", "1"}, {"b", nullptr}},
         {no_colon}},
        {zq_httpheaders_parse, "", 0, {}, {}},
        {zq_httpheaders_parse, "\r\nA: 1", 0, {{"a", nullptr}}, {}},
        {zq_httpheaders_parse,
         "HTTP/1.1 200 OK\r\nServer: s\r\n\r\n",
         ZQ_ERROR_SYNTAX,
         {{"server", nullptr}},
         {no_colon}},
        {zq_httpheaders_parse_from_message,
         "HTTP/1.1 200 OK\r\nServer: s\r\n\r\n",
         0,
         {{"server", "s"}},
         {skipped}},
        {zq_httpheaders_parse_from_message,
         "GET http://h/ HTTP/1.0\nFoo",
         ZQ_ERROR_SYNTAX,
         {{"get http", nullptr}},
         {skipped, no_colon}},
        {zq_httpheaders_parse_from_message, "\nA: 1", 0, {{"a", nullptr}}, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.block);
        // Exactly as many bytes as given may be looked at.
        std::unique_ptr<char[]> block(new char[row.block.size()]);
        row.block.copy(block.get(), row.block.size());
        Headers headers(zq_httpheaders_create());
        ASSERT_TRUE(headers);
        LogCapture log;
        EXPECT_EQ(row.parse(headers.get(), block.get(), row.block.size()), row.result);
        EXPECT_EQ(log.take(), row.log);
        for (const auto &[name, value] : row.fields)
            EXPECT_STREQ(zq_httpheaders_get(headers.get(), name), value) << name;
    }
}

TEST(zqhttpheaders, keeps_the_last_value_under_the_lowered_name)
{
    Headers headers(zq_httpheaders_create());
    ASSERT_TRUE(headers);
    EXPECT_EQ(zq_httpheaders_get(headers.get(), "X"), nullptr);
    EXPECT_EQ(zq_httpheaders_add(headers.get(), "X-\xC3\x84", "1"), ZQ_ERROR_NONE);
    EXPECT_EQ(zq_httpheaders_add(headers.get(), "x-\xC3\x84", "2"), ZQ_ERROR_NONE);
    EXPECT_STREQ(zq_httpheaders_get(headers.get(), "X-\xC3\x84"), "2");
    EXPECT_EQ(zq_httpheaders_add(headers.get(), "X", nullptr), ZQ_ERROR_NONE);
    EXPECT_EQ(zq_httpheaders_get(headers.get(), "x"), nullptr);
    EXPECT_EQ(zq_httpheaders_add(headers.get(), "x", "set"), ZQ_ERROR_NONE);
    EXPECT_STREQ(zq_httpheaders_get(headers.get(), "x"), "set");
    EXPECT_EQ(zq_httpheaders_add(headers.get(), "x", nullptr), ZQ_ERROR_NONE);

    EXPECT_EQ(zq_httpheaders_clear(headers.get()), ZQ_ERROR_NONE);
    EXPECT_EQ(zq_httpheaders_get(headers.get(), "X-\xC3\x84"), nullptr);
    EXPECT_EQ(zq_httpheaders_add(headers.get(), "x", nullptr), ZQ_ERROR_NONE);
}

TEST(zqhttpheaders, lines_without_memory)
{
    if (!faults_injected()) {
        expect_lines_without_memory("zqhttpheaders.lines_without_memory",
                                    {"[7] not enough memory for zqhttpheaders structure",
                                     "[7] not enough memory for the response header hashtable",
                                     "[7] not enough memory for duplicating header name 'Name'",
                                     "[7] not enough memory for duplicating value 'value'",
                                     "[7] unable to store the header 'name' value 'value'",
                                     "[7] unable to store the header 'null' value '<NULL>'",
                                     "[7] unable to convert the header name to lowercase",
                                     "[7] not enough memory for header name",
                                     "[7] not enough memory for header value",
                                     "[7] unable to store the header 'n' value 'v'"});
        return;
    }
    FaultLines lines;
    for (int tries = 0; tries < 20; tries++) {
        Headers headers(zq_httpheaders_create());
        lines.step();
        if (!headers)
            continue;
        zqerror result = zq_httpheaders_add(headers.get(), "Name", "value");
        lines.step();
        const char *value = zq_httpheaders_get(headers.get(), "name");
        lines.step();
        CHECK_PROMISE(result == ZQ_ERROR_NONE || (result == ZQ_ERROR_NO_MEMORY && !value));
        zq_httpheaders_add(headers.get(), "null", nullptr);
        lines.step();
        result = zq_httpheaders_parse(headers.get(), "N: v\nO: w", 9);
        CHECK_PROMISE(result == ZQ_ERROR_NONE || result == ZQ_ERROR_NO_MEMORY);
        lines.step();
    }
}

TEST(zqhttpheaders, misuse)
{
    if (faults_injected())
        GTEST_SKIP();
    Headers headers(zq_httpheaders_create());
    const char *source = "net/zqhttpheaders";
    EXPECT_MISUSE(zq_httpheaders_destroy(nullptr), source, "zq_httpheaders_destroy",
                  "zqhttpheaders != NULL");
    EXPECT_MISUSE(zq_httpheaders_add(headers.get(), nullptr, "v"), source, "zq_httpheaders_add",
                  "name != NULL");
    EXPECT_MISUSE(zq_httpheaders_get(headers.get(), nullptr), source, "zq_httpheaders_get",
                  "name != NULL");
    EXPECT_MISUSE(zq_httpheaders_parse(headers.get(), nullptr, 1), source, "zq_httpheaders_parse",
                  "buffer != NULL");
    EXPECT_MISUSE(zq_httpheaders_parse_from_message(nullptr, "", 0), source,
                  "zq_httpheaders_parse_from_message", "zqhttpheaders != NULL");
}
