#include "zq/adt/zqwchar.h"

#include <tuple>

#include "tests/support/expect.h"
#include "tests/support/faults.h"

using Wide = std::basic_string<wchar_t>;

using WideOwner = std::unique_ptr<wchar_t, ZqFree>;

TEST(zqwchar, decodes_and_encodes)
{
    const char edges[] = "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\xA0\x80\xEF\xBF\xBF"
                         "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
    const struct {
        const char *utf8;
        Wide wide;
        const char *again; // null: as before
    } rows[] = {
        {edges, {0x7F, 0x80, 0x7FF, 0x800, 0xD800, 0xFFFF, 0x10000, 0x10FFFF}, nullptr},
        // What strict decoders refuse.
        {"\xC1\x81\xE0\x80\x81\xF0\x80\x80\x82", {0x41, 1, 2}, "A\1\2"},
        {"\xF7\xBF\xBF\xBF", {0x1FFFFF}, nullptr},
        {"a\xC0\x80z", {'a', 0, 'z'}, "a"},
    };
    for (const auto &row : rows) {
        size_t len = 0;
        EXPECT_EQ(zq_wchar_buffer_from_utf8(nullptr, &len, row.utf8), 1);
        EXPECT_EQ(len, row.wide.size());
        WideOwner wide(zq_wchar_from_utf8(row.utf8));
        if (wide) {
            EXPECT_EQ(Wide(wide.get(), len + 1), row.wide + L'\0');
            EXPECT_EQ(zq_wchar_strlen(wide.get()), wcslen(row.wide.c_str()));
        }
        if (row.wide == Wide{0x1FFFFF})
            continue; // has no UTF-8
        const std::string again = row.again ? row.again : row.utf8;
        EXPECT_EQ(zq_wchar_to_utf8_buffer(nullptr, &(len = 0), row.wide.c_str()), 1);
        EXPECT_EQ(len, again.size());
        ZqString utf8(zq_wchar_to_utf8(row.wide.c_str()));
        EXPECT_TRUE(!utf8 || utf8.get() == again) << row.utf8;
    }
    ZqString negative(zq_wchar_to_utf8(Wide{wchar_t(-1), wchar_t(INT32_MIN + 'a'), 'b'}.c_str()));
    EXPECT_TRUE(!negative || negative.get() == std::string("\x7F"
                                                           "ab"));
}

TEST(zqwchar, refuses)
{
    const struct {
        const char *utf8, *line;
    } rows[] = {
        {"a\x80", "invalid UTF-8 first byte 0x80"},
        {"\xF8\x88\x80\x80\x80", "invalid UTF-8 first byte 0xf8"},
        {"\xE2\x82", "invalid UTF-8 continuation byte 0x00"},
        {"\xF0\x9F\xC3\xA9", "invalid UTF-8 continuation byte 0xc3"},
    };
    LogCapture log;
    wchar_t wide[8];
    for (const auto &row : rows) {
        size_t len = 8;
        EXPECT_EQ(zq_wchar_buffer_from_utf8(wide, &len, row.utf8), 1);
        EXPECT_EQ(len, 0u);
        EXPECT_EQ(log.take(), (Lines{{6, row.line}}));
    }
    for (auto [value, digits] :
         {std::pair(wchar_t{0x110000}, "00110000"), {wchar_t{INT32_MAX}, "7fffffff"}}) {
        char utf8[8];
        size_t len = 8;
        EXPECT_EQ(zq_wchar_to_utf8_buffer(utf8, &len, Wide{'a', value}.c_str()), -1);
        EXPECT_EQ(len, 0u);
        EXPECT_EQ(zq_wchar_to_utf8(Wide{value}.c_str()), nullptr);
        EXPECT_EQ(log.take(), Lines(2, {6, std::string("invalid wide character 0x") + digits}));
    }
}

// Room is needed for the terminator; no part of a character is written.
TEST(zqwchar, encodes_into_buffers)
{
    const std::tuple<size_t, int, std::string> rows[] = {
        {0, 1, "????"}, {2, 1, "a???"}, {3, 1, "aé?"}, {4, 0, {"aé\0", 4}}};
    for (const auto &[capacity, result, expected] : rows) {
        std::string buffer(4, '?');
        size_t len = capacity;
        EXPECT_EQ(zq_wchar_to_utf8_buffer(buffer.data(), &len, L"aé"), result);
        EXPECT_EQ(len, 3u);
        EXPECT_EQ(buffer, expected);
    }
}

TEST(zqwchar, lines_without_memory)
{
    if (!faults_injected())
        return expect_lines_without_memory("zqwchar.lines_without_memory",
                                           {"[7] not enough memory for UTF-8 string",
                                            "[7] not enough memory for wide character string"});
    FaultLines lines;
    ZqString utf8(zq_wchar_to_utf8(L"a"));
    lines.step();
    WideOwner wide(zq_wchar_from_utf8("a"));
}

TEST(zqwchar, misuse)
{
    size_t one = 1;
#define MISUSE(call, function, text) EXPECT_MISUSE(call, "adt/zqwchar", function, text)
    MISUSE(zq_wchar_strlen(NULL), "zq_wchar_strlen", "wstring != NULL");
    MISUSE(zq_wchar_buffer_from_utf8(NULL, &one, ""), "zq_wchar_buffer_from_utf8",
           "warray != NULL || *warraylenptr == 0");
    MISUSE(zq_wchar_to_utf8_buffer(NULL, &one, L""), "zq_wchar_to_utf8_buffer",
           "utf8 != NULL || *utf8lenptr == 0");
    // Text that is not UTF-8 is found by the second pass only.
    MISUSE(zq_wchar_from_utf8("a\xFF"), "zq_wchar_from_utf8", "res == 0");
}
