#include "zq/net/zqhttpheaders.h"

#include <string_view>

#include "tests/support/expect.h"
#include "tests/support/faults.h"

using namespace std::string_view_literals;
using Headers = Owned<zqhttpheaders, zq_httpheaders_destroy>;

TEST(zqhttpheaders, parses_blocks)
{
    const auto parse = zq_httpheaders_parse;
    const auto message = zq_httpheaders_parse_from_message;
    const LogLine skipped = {10, "skipping first line, should be HTTP request or status line"};
    const LogLine no_colon = {7, "no colon (:) found while parsing the headers"};
    const struct {
        zqerror (*parse)(zqhttpheaders *, const void *, size_t);
        std::string_view block;
        std::vector<std::pair<const char *, const char *>> fields; // null: not in the table
        Lines log = {};
    } rows[] = {
        {parse,
         "Name:  a b \r\nX :\t1\r\n\r\nY: 2",
         {{"name", "a b"}, {"x ", "1"}, {"y", nullptr}}},
        {parse, "A: 1\rB: 2\nC: 3\n\rD: 4", {{"b", "2"}, {"c", "3"}, {"d", nullptr}}},
        {parse, "A: 1\r\r\nB: 2", {{"a", "1"}, {"b", nullptr}}},
        {parse, "A: 1\0B: 2"sv, {{"a", "1"}, {"b", nullptr}}},
        {parse, "A: 1\n\0\nB: 2"sv, {{"a", "1"}, {"b", nullptr}}},
        {parse, "A: 1\n\tfolded\nB: 2", {{"a", "1"}, {"b", nullptr}}, {no_colon}},
        {parse, "\r\nA: 1", {{"a", nullptr}}},
        {parse, "HTTP/1.1 200 OK\r\nA: 1\r\n\r\n", {{"a", nullptr}}, {no_colon}},
        {message, "HTTP/1.1 200 OK\r\nA: 1\r\n\r\n", {{"a", "1"}}, {skipped}},
        {message, "GET http://h/ HTTP/1.0\nA", {{"get http", nullptr}}, {skipped, no_colon}},
        {message, "\nA: 1", {{"a", nullptr}}}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.block);
        // Exactly as many bytes as given may be looked at.
        std::unique_ptr<char[]> block(new char[row.block.size()]);
        row.block.copy(block.get(), row.block.size());
        Headers headers(zq_httpheaders_create());
        ASSERT_TRUE(headers);
        LogCapture log;
        const bool fails = !row.log.empty() && row.log.back() == no_colon;
        EXPECT_EQ(row.parse(headers.get(), block.get(), row.block.size()),
                  fails ? ZQ_ERROR_SYNTAX : ZQ_ERROR_NONE);
        EXPECT_EQ(log.take(), row.log);
        for (const auto &[name, value] : row.fields)
            EXPECT_STREQ(zq_httpheaders_get(headers.get(), name), value) << name;
    }
    EXPECT_MISUSE(zq_httpheaders_parse_from_message(nullptr, "", 0), "net/zqhttpheaders",
                  "zq_httpheaders_parse_from_message", "zqhttpheaders != NULL");
}

TEST(zqhttpheaders, lines_without_memory)
{
    if (!faults_injected()) {
        const std::string none = "[7] not enough memory for ";
        const std::string unable = "[7] unable to ";
        expect_lines_without_memory(
            "zqhttpheaders.lines_without_memory",
            {none + "zqhttpheaders structure", none + "the response header hashtable",
             none + "duplicating header name 'Name'", none + "duplicating value 'value'",
             unable + "store the header 'name' value 'value'",
             unable + "store the header 'null' value '<NULL>'",
             unable + "convert the header name to lowercase", none + "header name",
             none + "header value", unable + "store the header 'n' value 'v'"});
        return;
    }
    FaultLines lines;
    for (int tries = 0; tries < 20; tries++) {
        Headers headers(lines.step(zq_httpheaders_create()));
        if (!headers)
            continue;
        zqerror result = lines.step(zq_httpheaders_add(headers.get(), "Name", "value"));
        const char *value = lines.step(zq_httpheaders_get(headers.get(), "name"));
        CHECK_PROMISE(result == ZQ_ERROR_NONE || (result == ZQ_ERROR_NO_MEMORY && !value));
        lines.step(zq_httpheaders_add(headers.get(), "null", nullptr));
        result = lines.step(zq_httpheaders_parse(headers.get(), "N: v\nO: w", 9));
        CHECK_PROMISE(result == ZQ_ERROR_NONE || result == ZQ_ERROR_NO_MEMORY);
    }
}
