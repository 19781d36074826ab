#include "zq/util/zqformat.h"

#include <ostream>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/log_capture.h"

using Lines = std::vector<LogLine>;

namespace {
struct Case {
    const char *format;
    const char *text; // null for failure
    Lines lines;
};
std::ostream &operator<<(std::ostream &out, const Case &row)
{
    return out << "\"" << row.format << "\"";
}
} // namespace

static char *format_pairs(const char *format)
{
    return zq_format(format, "a", "1", "b", "2", "long name", "a value of some length", "empty", "",
                     "A", "upper", "a", "shadowed", "percent", "%a%", NULL);
}

static LogLine missing(const std::string &name, const std::string &format)
{
    return {6, "no variable '" + name + "' given for format string '" + format + "'"};
}

static LogLine unterminated(const std::string &rest, const std::string &format)
{
    return {6, "unterminated variable '" + rest + "' in format string '" + format + "'"};
}

TEST(zqformat, variables_are_replaced)
{
    const Case rows[] = {
        {"", "", {}},
        {"plain", "plain", {}},
        {"%a%", "1", {}},
        {"%a%-%b%", "1-2", {}},
        {"%a%%b%", "12", {}},
        {"%A%%a%", "upper1", {}},
        {"<%long name%>", "<a value of some length>", {}},
        {"<%empty%>", "<>", {}},
        {"%percent%", "%a%", {}},
        {"100%%", "100%", {}},
        {"%%%%", "%%", {}},
        {"%%a%%", "%a%", {}},
        {"%%%a%%%", "%1%", {}},
        {"%z%", "", {missing("z", "%z%")}},
        {"<%z%,%a%,% a%>",
         "<,1,>",
         {missing("z", "<%z%,%a%,% a%>"), missing(" a", "<%z%,%a%,% a%>")}},
        {"%", "%", {unterminated("", "%")}},
        {"x%y", "x%y", {unterminated("y", "x%y")}},
        {"%a%%b", "1%b", {unterminated("b", "%a%%b")}},
        {"%s%d", "d", {missing("s", "%s%d")}}, // no printf conversions
    };
    for (const Case &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row));
        LogCapture log;
        ZqString text(format_pairs(row.format));
        if (faults_injected())
            continue;
        ASSERT_TRUE(text);
        EXPECT_STREQ(text.get(), row.text);
        EXPECT_EQ(log.take(), row.lines);
    }
}

TEST(zqformat, a_pair_behind_the_end_does_not_count)
{
    LogCapture log;
    const char *const end = nullptr;
    ZqString text(zq_format("<%a%>", end, "a", "1", NULL));
    ZqString late(zq_format("<%b%>", "a", "1", end, "b", "2", NULL));
    ASSERT_TRUE(text && late);
    EXPECT_STREQ(text.get(), "<>");
    EXPECT_STREQ(late.get(), "<>");
}

// The line that reports a null value shows the value in place of the name.
TEST(zqformat, a_null_value_fails_the_call)
{
    const char *const null = nullptr;
    const LogLine line = {6, "value given for '(null)' was NULL"};
    const LogLine last = {6, "initial formatting returned error 22 (invalid argument)"};
    const struct {
        const char *format;
        bool fails;
        Lines lines;
    } rows[] = {
        {"%b%", true, {line, last}},
        {"text before %b%", true, {line, last}},
        {"%z%", true, {line, last}}, // is not searched for behind the null value
        {"%c% and %b%", true, {line, line, last}},
        {"%b% and %", true, {line, last}},
        {"%a%", false, {}},
        {"no variable", false, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.format);
        LogCapture log;
        ZqString text(zq_format(row.format, "a", "1", "b", null, "c", "3", NULL));
        if (faults_injected())
            continue;
        EXPECT_EQ(!text, row.fails);
        EXPECT_EQ(log.take(), row.lines);
    }
}

TEST(zqformat, lines_without_memory)
{
    if (!heap_is_watched() || faults_injected())
        GTEST_SKIP() << "cannot tell which allocation fails";
    const struct {
        long failing;
        Lines lines;
    } rows[] = {
        {1,
         {{7, "not enough memory for variable name"},
          {6, "initial formatting returned error 12 (not enough memory)"}}},
        {2, {{7, "not enough memory for formatting string"}}},
        {3,
         {{7, "not enough memory for variable name"},
          {6, "final formatting returned error 12 (not enough memory)"}}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.failing);
        LogCapture log;
        HeapFailure failure(row.failing);
        EXPECT_EQ(format_pairs("x%a%"), nullptr);
        EXPECT_EQ(log.take(), row.lines);
    }
}

TEST(zqformat, null_is_misuse)
{
    const char *const null = nullptr;
    EXPECT_MISUSE(zq_format(null, NULL), "util/zqformat", "zq_format", "format != NULL");
}
