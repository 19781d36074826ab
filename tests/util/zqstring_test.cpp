#include "zq/util/zqstring.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <cwchar>
#include <tuple>

#include "tests/support/expect.h"
#include "tests/support/heap.h"

TEST(zqstring, copies)
{
    const std::tuple<const char *, size_t, const char *, const char *> rows[] = {
        {"", 5, "", ""},
        {"aBc", 0, "", ""},
        {"aBc", 2, "aB", "ab"},
        {"aBc", 3, "aBc", "abc"},
        {"@AZ[`az{", SIZE_MAX, "@AZ[`az{", "@az[`az{"},
        {"\xC3\x84 \xC4\xFF", SIZE_MAX, "\xC3\x84 \xC4\xFF", "\xC3\x84 \xC4\xFF"}};
    for (const auto &[text, n, copied, lowered] : rows) {
        // Not terminated where the bound is reached first.
        const size_t size = std::min(n, strlen(text) + 1);
        ZqString source(static_cast<char *>(malloc(size)));
        memcpy(source.get(), text, size);
        ZqString copies[] = {ZqString(zq_strndup(source.get(), n)), ZqString(zq_strdup(copied)),
                             ZqString(zq_strndup_lowercase(source.get(), n)),
                             ZqString(zq_strdup_lowercase(copied))};
        for (int i = 0; i < 4; i++) {
            ASSERT_TRUE(copies[i]);
            EXPECT_STREQ(copies[i].get(), i < 2 ? copied : lowered);
        }
    }
}

TEST(zqstring, comparison_without_case)
{
    const std::tuple<const char *, const char *, size_t, int> rows[] = {
        {"", "", 9, 0},       {"abc", "ABC", 9, 0},  {"abC", "abd", 9, -1},
        {"b", "A", 9, 1},     {"abc", "ab", 9, 'c'}, {"\xFF", "a", 9, 0xFF - 'a'},
        {"_", "A", 9, -2},    {"x", "y", 0, 0},      {"abX", "ABy", 2, 0},
        {"abX", "ABy", 3, -1}};
    for (const auto &[s1, s2, n, result] : rows) {
        EXPECT_EQ(zq_strncasecmp(s1, s2, n), result) << s1 << " " << s2;
        EXPECT_EQ(zq_strncasecmp(s2, s1, n), -result) << s1 << " " << s2;
        EXPECT_EQ(n == 9 ? zq_strcasecmp(s1, s2) : result, result) << s1 << " " << s2;
    }
}

TEST(zqstring, strnchr_looks_at_exactly_n_bytes)
{
    const char text[] = "ab\0ab\xE4";
    const std::tuple<size_t, int, int> rows[] = {
        {6, 'a', 0}, {6, 'b', 1},  {1, 'b', -1},        {0, 'a', -1},          {6, 0, 2},
        {2, 0, -1},  {6, 0xE4, 5}, {6, 'a' + 0x100, 0}, {6, -0x100 + 0xE4, 5}, {5, 0xE4, -1}};
    for (const auto &[n, character, at] : rows) {
        const char *found = zq_strnchr(text, n, character);
        EXPECT_EQ(found ? found - text : -1, at) << n << " " << character;
    }
}

TEST(zqstring, strncpy_cuts_and_never_pads)
{
    const std::tuple<const char *, size_t, const char *> rows[] = {
        {"abcdef", 4, "abc0####"}, {"ab", 4, "ab0#####"},  {"abc", 4, "abc0####"},
        {"abcd", 4, "abc0####"},   {"abc", 1, "0#######"}, {"", 3, "0#######"},
        {"abc", 0, "########"}};
    for (const auto &[src, n, expected] : rows) {
        char dest[] = "########";
        EXPECT_EQ(zq_strncpy(dest, src, n), dest);
        for (int i = 0; i < 8; i++)
            EXPECT_EQ(dest[i] ? dest[i] : '0', expected[i]) << src << " " << n;
    }
}

TEST(zqstring, strstrip_and_endswith)
{
    const std::pair<const char *, const char *> texts[] = {
        {"", ""},      {" \t ", ""},       {"a", "a"},          {" \t\r\n\v\fa", "a"},
        {"a \n", "a"}, {" a  b ", "a  b"}, {"\xA0 x", "\xA0 x"}};
    for (const auto &[text, expected] : texts) {
        ZqString stripped(zq_strstrip(text));
        ASSERT_TRUE(stripped);
        EXPECT_STREQ(stripped.get(), expected);
    }
    for (const char *suffix : {".txt", "file.txt", ""})
        EXPECT_EQ(zq_endswith("file.txt", suffix), 1) << suffix;
    for (const char *suffix : {".TXT", "a/file.txt", "file"})
        EXPECT_EQ(zq_endswith("file.txt", suffix), 0) << suffix;
}

TEST(zqstring, wide_strings)
{
    EXPECT_EQ(zq_wcslen(L"a\u00E4\U0001F600"), 3u);
    std::unique_ptr<wchar_t, ZqFree> copy(zq_wcsdup(L"a\U0001F600"));
    ASSERT_TRUE(copy);
    EXPECT_STREQ(copy.get(), L"a\U0001F600");

    const wchar_t least[] = {WCHAR_MIN, 0};
    const wchar_t most[] = {WCHAR_MAX, 0};
    const std::tuple<const wchar_t *, const wchar_t *, size_t, int> rows[] = {
        {L"", L"", 9, 0},     {L"ab", L"aB", 9, 32},    {L"a", L"ab", 9, -'b'},
        {L"ax", L"ay", 1, 0}, {L"ax", L"ay", 2, -1},    {L"a\u1000", L"a", 9, 0x1000},
        {L"x", L"y", 0, 0},   {L"a\0x", L"a\0y", 3, 0}, {least, most, 9, 1}};
    for (const auto &[s1, s2, n, result] : rows) {
        EXPECT_EQ(zq_wcsncmp(s1, s2, n), result);
        EXPECT_EQ(n == 9 ? zq_wcscmp(s1, s2) : result, result);
    }
}

TEST(zqstring, failures)
{
    EXPECT_MISUSE(zq_strdup_lowercase(nullptr), "util/zqstring", "zq_string_copy_lowercase",
                  "string != NULL");
    EXPECT_MISUSE(zq_strncpy(nullptr, "", 1), "util/zqstring", "zq_strncpy", "dest != NULL");
    EXPECT_MISUSE(zq_strstrip(nullptr), "util/zqstring", "zq_strstrip", "str");
    EXPECT_MISUSE(zq_wcscmp(L"", nullptr), "util/zqstring", "zq_wcscmp", "s2 != NULL");
    if (!heap_is_watched())
        GTEST_SKIP();
    void *(*const calls[])() = {[]() -> void * { return zq_strndup("a", 1); },
                                []() -> void * { return zq_strdup_lowercase("a"); },
                                []() -> void * { return zq_strstrip("a"); },
                                []() -> void * { return zq_wcsdup(L"a"); }};
    for (const auto &call : calls) {
        HeapFailure failure(1);
        EXPECT_EQ(call(), nullptr) << &call - calls;
    }
}
