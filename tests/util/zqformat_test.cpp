#include "zq/util/zqformat.h"

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/log_capture.h"

using Lines = std::vector<LogLine>;

static const char *const null = nullptr;

static char *format_pairs(const char *format)
{
    return zq_format(format, "a", "1", "b", "2", "long name", "a value of some length", "empty", "",
                     "A", "upper", "a", "shadowed", "percent", "%a%", NULL);
}

TEST(zqformat, variables_are_replaced)
{
    const struct {
        const char *format, *text;
        std::vector<const char *> missing, unterminated; // names reported as
    } rows[] = {{"", "", {}, {}},
                {"plain", "plain", {}, {}},
                {"%a%-%b%%A%", "1-2upper", {}, {}},
                {"<%long name%,%empty%>", "<a value of some length,>", {}, {}},
                {"%percent%", "%a%", {}, {}},
                {"100%%", "100%", {}, {}},
                {"%%a%%", "%a%", {}, {}},
                {"%%%a%%%", "%1%", {}, {}},
                {"<%z%,%a%,% a%>", "<,1,>", {"z", " a"}, {}},
                {"%", "%", {}, {""}},
                {"x%y", "x%y", {}, {"y"}},
                {"%a%%b", "1%b", {}, {"b"}},
                {"%s%d", "d", {"s"}, {}}}; // no printf conversions
    for (const auto &row : rows) {
        SCOPED_TRACE(row.format);
        const std::string in = row.format;
        Lines lines;
        for (const std::string name : row.missing)
            lines.push_back({6, "no variable '" + name + "' given for format string '" + in + "'"});
        for (const std::string rest : row.unterminated)
            lines.push_back(
                {6, "unterminated variable '" + rest + "' in format string '" + in + "'"});
        LogCapture log;
        ZqString text(format_pairs(row.format));
        if (faults_injected())
            continue;
        ASSERT_TRUE(text);
        EXPECT_STREQ(text.get(), row.text);
        EXPECT_EQ(log.take(), lines);
    }
    LogCapture log; // a pair behind the end does not count
    ZqString late(zq_format("<%b%>", "a", "1", null, "b", "2", NULL));
    ASSERT_TRUE(late);
    EXPECT_STREQ(late.get(), "<>");
}

// The line that reports a null value shows the value in place of the name.
TEST(zqformat, a_null_value_fails_the_call)
{
    const std::pair<const char *, size_t> rows[] = {
        {"text before %b%", 1}, {"%z%", 1}, // is not searched for behind the null value
        {"%c% and %b%", 2},     {"%b% and %", 1}, {"%a%", 0}, {"no variable", 0}};
    for (const auto &[format, count] : rows) {
        SCOPED_TRACE(format);
        LogCapture log;
        ZqString text(zq_format(format, "a", "1", "b", null, "c", "3", NULL));
        if (faults_injected())
            continue;
        EXPECT_EQ(!text, count > 0);
        Lines lines(count, {6, "value given for '(null)' was NULL"});
        if (count)
            lines.push_back({6, "initial formatting returned error 22 (invalid argument)"});
        EXPECT_EQ(log.take(), lines);
    }
    EXPECT_MISUSE(zq_format(null, NULL), "util/zqformat", "zq_format", "format != NULL");
}

TEST(zqformat, lines_without_memory)
{
    if (!heap_is_watched())
        GTEST_SKIP();
    const LogLine name = {7, "not enough memory for variable name"};
    const Lines lines[] = {{name, {6, "initial formatting returned error 12 (not enough memory)"}},
                           {{7, "not enough memory for formatting string"}},
                           {name, {6, "final formatting returned error 12 (not enough memory)"}}};
    for (long failing : {1, 2, 3}) {
        LogCapture log;
        HeapFailure failure(failing);
        EXPECT_EQ(format_pairs("x%a%"), nullptr);
        EXPECT_EQ(log.take(), lines[failing - 1]) << failing;
    }
}
