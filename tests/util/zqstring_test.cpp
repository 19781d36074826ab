#include "zq/util/zqstring.h"

#include <climits>
#include <cstring>
#include <cwchar>
#include <functional>
#include <string>

#include "tests/support/expect.h"
#include "tests/support/heap.h"

TEST(zqstring, copies)
{
    const struct {
        const char *text;
        size_t n;
        const char *copy;
        const char *lowered;
    } rows[] = {
        {"", 0, "", ""},
        {"", 5, "", ""},
        {"aBc", 0, "", ""},
        {"aBc", 2, "aB", "ab"},
        {"aBc", 3, "aBc", "abc"},
        {"aBc", SIZE_MAX, "aBc", "abc"},
        {"@AZ[`az{", SIZE_MAX, "@AZ[`az{", "@az[`az{"},
        {"\xC3\x84 \xC4\xFF", SIZE_MAX, "\xC3\x84 \xC4\xFF", "\xC3\x84 \xC4\xFF"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        ZqString copy(zq_strndup(row.text, row.n));
        ZqString lowered(zq_strndup_lowercase(row.text, row.n));
        ASSERT_TRUE(copy && lowered);
        EXPECT_STREQ(copy.get(), row.copy);
        EXPECT_STREQ(lowered.get(), row.lowered);
        if (row.n != SIZE_MAX)
            continue;
        ZqString whole(zq_strdup(row.text));
        ZqString whole_lowered(zq_strdup_lowercase(row.text));
        ASSERT_TRUE(whole && whole_lowered);
        EXPECT_STREQ(whole.get(), row.copy);
        EXPECT_STREQ(whole_lowered.get(), row.lowered);
    }
}

TEST(zqstring, a_bounded_copy_reads_no_further)
{
    char *unterminated = static_cast<char *>(malloc(3));
    ASSERT_TRUE(unterminated);
    memcpy(unterminated, "abc", 3);
    ZqString copy(zq_strndup(unterminated, 3));
    free(unterminated);
    ASSERT_TRUE(copy);
    EXPECT_STREQ(copy.get(), "abc");
}

TEST(zqstring, comparison_without_case)
{
    const struct {
        const char *s1;
        const char *s2;
        size_t n;
        int result;
    } rows[] = {
        {"", "", SIZE_MAX, 0},
        {"abc", "ABC", SIZE_MAX, 0},
        {"abc", "abd", SIZE_MAX, -1},
        {"abC", "abd", SIZE_MAX, -1},
        {"b", "A", SIZE_MAX, 1},
        {"abc", "ab", SIZE_MAX, 'c'},
        {"ab", "abc", SIZE_MAX, -'c'},
        {"\xFF", "a", SIZE_MAX, 0xFF - 'a'},
        {"_", "A", SIZE_MAX, '_' - 'a'},
        {"x", "y", 0, 0},
        {"abX", "ABy", 2, 0},
        {"abX", "ABy", 3, -1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.s1) + " " + row.s2);
        EXPECT_EQ(zq_strncasecmp(row.s1, row.s2, row.n), row.result);
        EXPECT_EQ(zq_strncasecmp(row.s2, row.s1, row.n), -row.result);
        if (row.n != SIZE_MAX)
            continue;
        EXPECT_EQ(zq_strcasecmp(row.s1, row.s2), row.result);
    }
}

TEST(zqstring, strnchr_looks_at_exactly_n_bytes)
{
    const char text[] = "ab\0ab\xE4";
    const struct {
        size_t n;
        int character;
        int at; // -1 for not found
    } rows[] = {
        {6, 'a', 0}, {6, 'b', 1},  {1, 'b', -1},        {0, 'a', -1},          {6, 0, 2},
        {2, 0, -1},  {6, 0xE4, 5}, {6, 'a' + 0x100, 0}, {6, -0x100 + 0xE4, 5}, {5, 0xE4, -1},
    };
    for (const auto &row : rows) {
        const char *found = zq_strnchr(text, row.n, row.character);
        EXPECT_EQ(found ? found - text : -1, row.at) << row.n << " " << row.character;
    }
}

TEST(zqstring, strncpy_cuts_and_never_pads)
{
    const struct {
        const char *src;
        size_t n;
        std::string dest; // of "########"
    } rows[] = {
        {"abcdef", 4, std::string("abc\0####", 8)},
        {"ab", 4, std::string("ab\0#####", 8)},
        {"abc", 4, std::string("abc\0####", 8)},
        {"abcd", 4, std::string("abc\0####", 8)},
        {"abc", 1, std::string("\0#######", 8)},
        {"", 3, std::string("\0#######", 8)},
        {"abc", 0, "########"},
    };
    for (const auto &row : rows) {
        char dest[] = "########";
        EXPECT_EQ(zq_strncpy(dest, row.src, row.n), dest);
        EXPECT_EQ(std::string(dest, 8), row.dest) << row.src << " " << row.n;
    }
}

TEST(zqstring, strstrip)
{
    const struct {
        const char *text;
        const char *stripped;
    } rows[] = {
        {"", ""},      {" \t ", ""},       {"a", "a"},           {" \t\r\n\v\fa", "a"},
        {"a \n", "a"}, {" a  b ", "a  b"}, {"\xA0 x", "\xA0 x"},
    };
    for (const auto &row : rows) {
        ZqString stripped(zq_strstrip(row.text));
        ASSERT_TRUE(stripped);
        EXPECT_STREQ(stripped.get(), row.stripped);
    }
}

TEST(zqstring, endswith)
{
    const struct {
        const char *string;
        const char *suffix;
        int result;
    } rows[] = {
        {"file.txt", ".txt", 1},
        {"file.txt", "file.txt", 1},
        {"file.txt", "", 1},
        {"", "", 1},
        {"file.txt", ".TXT", 0},
        {"txt", ".txt", 0},
        {"", "a", 0},
        {"a.txt.", ".txt", 0},
    };
    for (const auto &row : rows)
        EXPECT_EQ(zq_endswith(row.string, row.suffix), row.result) << row.string << row.suffix;
}

TEST(zqstring, wide_strings)
{
    EXPECT_EQ(zq_wcslen(L""), 0u);
    EXPECT_EQ(zq_wcslen(L"a\u00E4\U0001F600"), 3u);
    std::unique_ptr<wchar_t, ZqFree> copy(zq_wcsdup(L"a\U0001F600"));
    ASSERT_TRUE(copy);
    EXPECT_STREQ(copy.get(), L"a\U0001F600");

    const wchar_t least[] = {WCHAR_MIN, 0};
    const wchar_t most[] = {WCHAR_MAX, 0};
    const struct {
        const wchar_t *s1;
        const wchar_t *s2;
        size_t n;
        int result;
    } rows[] = {
        {L"", L"", SIZE_MAX, 0},
        {L"ab", L"ab", SIZE_MAX, 0},
        {L"ab", L"aB", SIZE_MAX, 32},
        {L"a", L"ab", SIZE_MAX, -'b'},
        {L"a\u1000", L"a", SIZE_MAX, 0x1000},
        {L"ax", L"ay", 1, 0},
        {L"ax", L"ay", 2, -1},
        {L"x", L"y", 0, 0},
        {L"a\0x", L"a\0y", 3, 0},
        {least, most, SIZE_MAX, 1},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(zq_wcsncmp(row.s1, row.s2, row.n), row.result);
        if (row.n != SIZE_MAX)
            continue;
        EXPECT_EQ(zq_wcscmp(row.s1, row.s2), row.result);
    }
}

TEST(zqstring, without_memory_there_is_no_copy)
{
    if (!heap_is_watched() || faults_injected())
        GTEST_SKIP() << "cannot tell which allocation fails";
    const struct {
        const char *name;
        void *(*copy)();
    } rows[] = {
        {"zq_strdup", []() -> void * { return zq_strdup("a"); }},
        {"zq_strndup", []() -> void * { return zq_strndup("a", 1); }},
        {"zq_strdup_lowercase", []() -> void * { return zq_strdup_lowercase("a"); }},
        {"zq_strndup_lowercase", []() -> void * { return zq_strndup_lowercase("a", 1); }},
        {"zq_strstrip", []() -> void * { return zq_strstrip("a"); }},
        {"zq_wcsdup", []() -> void * { return zq_wcsdup(L"a"); }},
    };
    for (const auto &row : rows) {
        HeapFailure failure(1);
        EXPECT_EQ(row.copy(), nullptr) << row.name;
    }
}

TEST(zqstring, null_is_misuse)
{
    char dest[2];
    const struct {
        const char *function;
        const char *expression;
        std::function<void()> call;
    } rows[] = {
        {"zq_strdup", "string != NULL", [] { zq_strdup(nullptr); }},
        {"zq_strndup", "string != NULL", [] { zq_strndup(nullptr, 1); }},
        {"zq_string_copy_lowercase", "string != NULL", [] { zq_strdup_lowercase(nullptr); }},
        {"zq_string_copy_lowercase", "string != NULL", [] { zq_strndup_lowercase(nullptr, 1); }},
        {"zq_strcasecmp", "s1 != NULL", [] { zq_strcasecmp(nullptr, ""); }},
        {"zq_strcasecmp", "s2 != NULL", [] { zq_strcasecmp("", nullptr); }},
        {"zq_strncasecmp", "s1 != NULL", [] { zq_strncasecmp(nullptr, "", 1); }},
        {"zq_strncasecmp", "s2 != NULL", [] { zq_strncasecmp("", nullptr, 1); }},
        {"zq_strnchr", "string != NULL", [] { zq_strnchr(nullptr, 0, 'a'); }},
        {"zq_strncpy", "dest != NULL", [] { zq_strncpy(nullptr, "", 1); }},
        {"zq_strncpy", "src != NULL", [&] { zq_strncpy(dest, nullptr, 1); }},
        {"zq_strstrip", "str", [] { zq_strstrip(nullptr); }},
        {"zq_endswith", "string != NULL", [] { zq_endswith(nullptr, ""); }},
        {"zq_endswith", "suffix != NULL", [] { zq_endswith("", nullptr); }},
        {"zq_wcslen", "wstring != NULL", [] { zq_wcslen(nullptr); }},
        {"zq_wcsdup", "wstring != NULL", [] { zq_wcsdup(nullptr); }},
        {"zq_wcscmp", "s1 != NULL", [] { zq_wcscmp(nullptr, L""); }},
        {"zq_wcscmp", "s2 != NULL", [] { zq_wcscmp(L"", nullptr); }},
        {"zq_wcsncmp", "s1 != NULL", [] { zq_wcsncmp(nullptr, L"", 1); }},
        {"zq_wcsncmp", "s2 != NULL", [] { zq_wcsncmp(L"", nullptr, 1); }},
    };
    for (const auto &row : rows)
        EXPECT_MISUSE(row.call(), "util/zqstring", row.function, row.expression);
}
