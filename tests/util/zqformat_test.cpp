#include "zq/util/zqformat.h"

#include <tuple>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/log_capture.h"

static const char *const null = nullptr;

TEST(zqformat, what_is_not_given_is_left_out_and_logged)
{
    const std::string in = " format string '";
    const std::tuple<const char *, const char *, std::string> rows[] = {
        {"%%%a%%%", "%1%", ""},
        {"<%ab%,%a%,% a%>", "<,1,>",
         "[6] no variable 'ab' given for" + in +
             "<%ab%,%a%,% a%>'; [6] no variable ' a' given for" + in + "<%ab%,%a%,% a%>'"},
        {"%", "%", "[6] unterminated variable '' in" + in + "%'"},
        {"%a%%b", "1%b", "[6] unterminated variable 'b' in" + in + "%a%%b'"},
        {"%s%d", "d", "[6] no variable 's' given for" + in + "%s%d'"}}; // no printf conversions
    for (const auto &[format, expected, lines] : rows) {
        LogCapture log;
        ZqString text(zq_format(format, "a", "1", "a", "shadowed", NULL));
        EXPECT_STREQ(text.get(), expected);
        EXPECT_EQ(joined(log.take()), lines);
    }
}

// The line that reports a null value shows the value in place of the name.
TEST(zqformat, a_null_value_fails_the_call)
{
    const std::pair<const char *, size_t> rows[] = {
        {"text before %b%", 1},
        {"%z%", 1}, // is not searched for behind the null value
        {"%c% and %b%", 2},
        {"%a%", 0},
        {"no variable", 0}};
    for (const auto &[format, count] : rows) {
        LogCapture log;
        ZqString text(zq_format(format, "a", "1", "b", null, "c", "3", NULL));
        Lines lines(count, {6, "value given for '(null)' was NULL"});
        if (count)
            lines.push_back({6, "initial formatting returned error 22 (invalid argument)"});
        EXPECT_EQ(!text, count > 0) << format;
        EXPECT_EQ(log.take(), lines) << format;
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
        EXPECT_EQ(zq_format("x%a%", "a", "1", NULL), nullptr);
        EXPECT_EQ(log.take(), lines[failing - 1]) << failing;
    }
}
