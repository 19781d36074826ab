#include "zq/util/zqprintf.h"

#include <cstring>
#include <wchar.h>

#include "tests/support/expect.h"
#include "tests/support/heap.h"

// What the platform's formatter cannot render: a wide character that is none.
static constexpr wint_t NO_CHARACTER = 0x7FFFFFFF;

TEST(zqprintf, new_strings)
{
    for (size_t length : {0u, 1u, 100000u}) {
        const std::string expected = std::string(length, 'x') + "|00042|%";
        char *text = nullptr;
        const int result = zq_asprintf(&text, "%s|%05d|%%", std::string(length, 'x').c_str(), 42);
        ZqString built(text);
        ZqString duplicate(zq_strdupf("%s", expected.c_str()));
        ASSERT_TRUE(built && duplicate);
        EXPECT_EQ(built.get(), expected);
        EXPECT_EQ(duplicate.get(), expected);
        EXPECT_EQ(static_cast<size_t>(result), expected.size());
    }
}

TEST(zqprintf, failures_leave_null)
{
    char unset;
    char *text = &unset;
    EXPECT_LT(zq_asprintf(&text, "%lc", NO_CHARACTER), 0);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(zq_strdupf("%lc", NO_CHARACTER), nullptr);
    const char *null = nullptr;
    EXPECT_MISUSE(zq_asprintf(nullptr, "%s", ""), "util/zqprintf", "zq_asprintf", "strp != NULL");
    EXPECT_MISUSE(zq_strdupf(null, 0), "util/zqprintf", "zq_strdupf", "format != NULL");
    EXPECT_MISUSE(zq_snprintf(nullptr, 1, "%s", ""), "util/zqprintf", "zq_snprintf",
                  "str != NULL || size == 0");
    if (!heap_is_watched())
        GTEST_SKIP();
    text = &unset;
    HeapFailure failure(1);
    EXPECT_EQ(zq_asprintf(&text, "%d", 1), -1);
    EXPECT_EQ(text, nullptr);
    HeapFailure next(1);
    EXPECT_EQ(zq_strdupf("%d", 1), nullptr);
}

TEST(zqprintf, buffers_are_always_terminated)
{
    EXPECT_EQ(zq_snprintf(nullptr, 0, "%d", 12345), 5);
    const std::pair<size_t, const char *> rows[] = {
        {0, "########"},
        {1, "0#######"},
        {4, "1230####"},
        {6, "123450##"},
        {8, "123450#0"}}; // the last byte is written whatever fits
    for (const auto &[size, expected] : rows) {
        char buffer[] = "########";
        EXPECT_EQ(zq_snprintf(buffer, size, "%d", 12345), 5);
        for (int i = 0; i < 8; i++)
            EXPECT_EQ(buffer[i] ? buffer[i] : '0', expected[i]) << size;
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
