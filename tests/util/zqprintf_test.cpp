#include "zq/util/zqprintf.h"

#include <cstring>
#include <functional>
#include <string>
#include <wchar.h>

#include "tests/support/expect.h"
#include "tests/support/heap.h"

// What the platform's formatter cannot render: a wide character that is none.
static constexpr wint_t NO_CHARACTER = 0x7FFFFFFF;

// The v-functions through their callers: formats, and checks that text and result agree.
static int format_all(char **text, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    va_list again;
    va_copy(again, ap);
    int result = zq_vasprintf(text, format, ap);
    ZqString other(zq_vstrdupf(format, again));
    va_end(again);
    va_end(ap);
    if (*text && other) {
        EXPECT_STREQ(*text, other.get());
        EXPECT_EQ(strlen(*text), static_cast<size_t>(result));
    }
    return result;
}

TEST(zqprintf, new_strings)
{
    char *text = nullptr;
    std::string longest(100000, 'x');
    format_all(&text, "%s|%05d|%%", longest.c_str(), 42);
    ZqString built(text);
    ASSERT_TRUE(built);
    EXPECT_EQ(built.get(), longest + "|00042|%");

    EXPECT_EQ(zq_asprintf(&text, "%s", ""), 0);
    ZqString empty(text);
    ASSERT_TRUE(empty);
    EXPECT_STREQ(empty.get(), "");

    ZqString duplicate(zq_strdupf("%c-%c", 'a', 'b'));
    ASSERT_TRUE(duplicate);
    EXPECT_STREQ(duplicate.get(), "a-b");
}

TEST(zqprintf, failures_leave_null)
{
    char unset;
    char *text = &unset;
    EXPECT_LT(zq_asprintf(&text, "%lc", NO_CHARACTER), 0);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(zq_strdupf("%lc", NO_CHARACTER), nullptr);
    if (!heap_is_watched() || faults_injected())
        return;
    text = &unset;
    {
        HeapFailure failure(1);
        EXPECT_EQ(zq_asprintf(&text, "%d", 1), -1);
    }
    EXPECT_EQ(text, nullptr);
    HeapFailure failure(1);
    EXPECT_EQ(zq_strdupf("%d", 1), nullptr);
}

TEST(zqprintf, buffers_are_always_terminated)
{
    EXPECT_EQ(zq_snprintf(nullptr, 0, "%d", 12345), 5);
    const struct {
        size_t size;
        std::string buffer; // of "########"
    } rows[] = {
        {0, "########"},
        {1, std::string("\0#######", 8)},
        {4, std::string("123\0####", 8)},
        {6, std::string("12345\0##", 8)},
        {8, std::string("12345\0#\0", 8)}, // the last byte is written whatever fits
    };
    for (const auto &row : rows) {
        char buffer[] = "########";
        EXPECT_EQ(zq_snprintf(buffer, row.size, "%d", 12345), 5);
        EXPECT_EQ(std::string(buffer, 8), row.buffer) << row.size;
    }
    char buffer[] = "########";
    EXPECT_LT(zq_snprintf(buffer, 8, "%lc", NO_CHARACTER), 0);
    EXPECT_EQ(buffer[7], '\0');
}

TEST(zqprintf, standard_error)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(zq_stdio_printf_stderr("%s %d\n", "number", 7), 9);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "number 7\n");
}

TEST(zqprintf, null_is_misuse)
{
    char *text;
    char buffer[2];
    const char *null = nullptr;
    const struct {
        const char *function;
        const char *expression;
        std::function<void()> call;
    } rows[] = {
        {"zq_asprintf", "strp != NULL", [] { zq_asprintf(nullptr, "%s", ""); }},
        {"zq_asprintf", "format != NULL", [&] { zq_asprintf(&text, null, 0); }},
        {"zq_vasprintf", "strp != NULL", [] { format_all(nullptr, "%s", ""); }},
        {"zq_strdupf", "format != NULL", [&] { zq_strdupf(null, 0); }},
        {"zq_snprintf", "str != NULL || size == 0", [] { zq_snprintf(nullptr, 1, "%s", ""); }},
        {"zq_snprintf", "format != NULL", [&] { zq_snprintf(buffer, 2, null, 0); }},
        {"zq_stdio_printf_stderr", "format != NULL", [&] { zq_stdio_printf_stderr(null, 0); }},
    };
    for (const auto &row : rows)
        EXPECT_MISUSE(row.call(), "util/zqprintf", row.function, row.expression);
}
