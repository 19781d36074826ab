#include "zq/adt/zqwchar.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iconv.h>
#include <random>
#include <string>

#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/log_capture.h"

using Lines = std::vector<LogLine>;

struct ZqWide {
    void operator()(wchar_t *block) const { zq_free(block); }
};
using WideOwner = std::unique_ptr<wchar_t, ZqWide>;

static constexpr wchar_t UNTOUCHED = L'?';

static std::wstring wide(std::initializer_list<int32_t> values)
{
    return {values.begin(), values.end()};
}

TEST(zqwchar, decodes)
{
    const struct {
        const char *utf8;
        std::wstring wstring;
    } rows[] = {
        {"", L""},
        {"abc\x7F", L"abc\x7F"},
        {"\xC3\xA9", wide({0xE9})},
        {"\xDF\xBF\xE0\xA0\x80", wide({0x7FF, 0x800})},
        {"\xEF\xBF\xBF\xF0\x90\x80\x80", wide({0xFFFF, 0x10000})},
        {"\xF4\x8F\xBF\xBF", wide({0x10FFFF})},
        // what strict decoders refuse
        {"\xC1\x81\xE0\x80\x81\xF0\x80\x80\x81", wide({0x41, 1, 1})},
        {"\xED\xA0\x80", wide({0xD800})},
        {"\xF4\x90\x80\x80\xF7\xBF\xBF\xBF", wide({0x110000, 0x1FFFFF})},
        {"a\xC0\x80z", wide({'a', 0, 'z'})},
    };
    for (const auto &row : rows) {
        size_t len = 0;
        // Measuring finds no room, except for nothing.
        EXPECT_EQ(zq_wchar_buffer_from_utf8(nullptr, &len, row.utf8), row.wstring.empty() ? 0 : 1);
        EXPECT_EQ(len, row.wstring.size());
        WideOwner copy(zq_wchar_from_utf8(row.utf8));
        if (copy) {
            EXPECT_EQ(std::wstring(copy.get(), len + 1), row.wstring + L'\0');
            EXPECT_EQ(zq_wchar_strlen(copy.get()), wcslen(row.wstring.c_str()));
        }
    }
}

TEST(zqwchar, refuses_bytes_that_are_not_utf8)
{
    const struct {
        const char *utf8;
        const char *line;
    } rows[] = {
        {"a\x80", "invalid UTF-8 first byte 0x80"},
        {"\xBF", "invalid UTF-8 first byte 0xbf"},
        {"\xF8\x88\x80\x80\x80", "invalid UTF-8 first byte 0xf8"},
        {"\xFF", "invalid UTF-8 first byte 0xff"},
        {"\xC3", "invalid UTF-8 continuation byte 0x00"},
        {"\xE2\x82", "invalid UTF-8 continuation byte 0x00"},
        {"\xE2\x82x", "invalid UTF-8 continuation byte 0x78"},
        {"\xF0\x9F\xC3\xA9", "invalid UTF-8 continuation byte 0xc3"},
    };
    for (const auto &row : rows) {
        LogCapture log;
        wchar_t array[8];
        size_t len = 8;
        EXPECT_EQ(zq_wchar_buffer_from_utf8(array, &len, row.utf8), 1);
        EXPECT_EQ(len, 0u);
        EXPECT_EQ(log.take(), (Lines{{6, row.line}}));
    }
}

TEST(zqwchar, decodes_into_buffers_without_room_for_the_terminator)
{
    const struct {
        size_t capacity;
        int result;
        std::wstring array;
    } rows[] = {
        {0, 1, L"????"}, {2, 1, L"ab??"}, {3, 0, L"abc?"}, {4, 0, std::wstring(L"abc\0", 4)}};
    for (const auto &row : rows) {
        std::wstring array(4, UNTOUCHED);
        size_t len = row.capacity;
        EXPECT_EQ(zq_wchar_buffer_from_utf8(array.data(), &len, "abc"), row.result);
        EXPECT_EQ(len, 3u);
        EXPECT_EQ(array, row.array);
    }
}

TEST(zqwchar, encodes)
{
    const struct {
        std::wstring wstring;
        std::string utf8;
    } rows[] = {
        {L"", ""},
        {wide({'a', 0x7F, 0x80}), "a\x7F\xC2\x80"},
        {wide({0x7FF, 0x800}), "\xDF\xBF\xE0\xA0\x80"},
        {wide({0xD800, 0xFFFF}), "\xED\xA0\x80\xEF\xBF\xBF"},
        {wide({0x10000, 0x10FFFF}), "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {wide({-1, INT32_MIN + 'a', 'b'}), "\x7F"
                                           "ab"},
    };
    for (const auto &row : rows) {
        size_t len = 0;
        EXPECT_EQ(zq_wchar_to_utf8_buffer(nullptr, &len, row.wstring.c_str()), 1);
        EXPECT_EQ(len, row.utf8.size());
        ZqString copy(zq_wchar_to_utf8(row.wstring.c_str()));
        if (copy) {
            EXPECT_EQ(copy.get(), row.utf8);
        }
    }
    for (int32_t value : {0x110000, INT32_MAX}) {
        LogCapture log;
        char buffer[8];
        size_t len = 8;
        EXPECT_EQ(zq_wchar_to_utf8_buffer(buffer, &len, wide({'a', value}).c_str()), -1);
        EXPECT_EQ(len, 0u);
        EXPECT_EQ(zq_wchar_to_utf8(wide({value}).c_str()), nullptr);
        std::string text = value == INT32_MAX ? "7fffffff" : "00110000";
        LogLine line{6, "invalid wide character 0x" + text};
        EXPECT_EQ(log.take(), (Lines{line, line}));
    }
}

TEST(zqwchar, encodes_into_buffers_with_room_for_the_terminator)
{
    const struct {
        const wchar_t *wstring;
        size_t capacity;
        int result;
        size_t len;
        std::string buffer;
    } rows[] = {
        {L"abc", 2, 1, 3, "ab??"},
        {L"abc", 3, 1, 3, "abc?"},
        {L"abc", 4, 0, 3, std::string("abc\0", 4)},
        {L"\x20AC"
         L"a",
         2, 1, 4, "????"}, // no part of a character, and nothing after it
        {L"", 0, 1, 0, "????"},
    };
    for (const auto &row : rows) {
        std::string buffer(4, '?');
        size_t len = row.capacity;
        EXPECT_EQ(zq_wchar_to_utf8_buffer(buffer.data(), &len, row.wstring), row.result);
        EXPECT_EQ(len, row.len);
        EXPECT_EQ(buffer, row.buffer);
    }
}

TEST(zqwchar, agrees_with_iconv_on_valid_text)
{
    std::mt19937 random(7);
    iconv_t to_utf8 = iconv_open("UTF-8", "WCHAR_T");
    ASSERT_NE(to_utf8, reinterpret_cast<iconv_t>(-1));
    for (int round = 0; round < 300; round++) {
        std::wstring text;
        for (size_t len = random() % 50; len > 0; len--) {
            wchar_t c = static_cast<wchar_t>(1 + random() % (0x10FFFF >> random() % 16));
            if (c < 0xD800 || c > 0xDFFF)
                text += c;
        }
        std::string expected(text.size() * 4 + 1, '\0');
        char *in = reinterpret_cast<char *>(text.data());
        char *out = expected.data();
        size_t inleft = text.size() * sizeof(wchar_t);
        size_t outleft = expected.size();
        ASSERT_EQ(iconv(to_utf8, &in, &inleft, &out, &outleft), 0u);
        expected.resize(expected.size() - outleft);

        ZqString utf8(zq_wchar_to_utf8(text.c_str()));
        WideOwner back(zq_wchar_from_utf8(expected.c_str()));
        if (utf8 && back) {
            EXPECT_EQ(utf8.get(), expected);
            EXPECT_EQ(back.get(), text);
        }
    }
    iconv_close(to_utf8);
}

TEST(zqwchar, lines_without_memory)
{
    if (!faults_injected()) {
        expect_lines_without_memory("zqwchar.lines_without_memory",
                                    {"[7] not enough memory for UTF-8 string",
                                     "[7] not enough memory for wide character string"});
        return;
    }
    FaultLines lines;
    ZqString utf8(zq_wchar_to_utf8(L"a"));
    lines.step();
    WideOwner wstring(zq_wchar_from_utf8("a"));
}

TEST(zqwchar, stops_on_misuse)
{
    size_t one = 1;
    char byte;
    wchar_t element;
#define ROW(call, function, expression) EXPECT_MISUSE(call, "adt/zqwchar", function, expression)
    ROW(zq_wchar_strlen(NULL), "zq_wchar_strlen", "wstring != NULL");
    ROW(zq_wchar_to_utf8(NULL), "zq_wchar_to_utf8", "wstring != NULL");
    ROW(zq_wchar_from_utf8(NULL), "zq_wchar_from_utf8", "utf8 != NULL");
    ROW(zq_wchar_buffer_from_utf8(NULL, &one, ""), "zq_wchar_buffer_from_utf8",
        "warray != NULL || *warraylenptr == 0");
    ROW(zq_wchar_buffer_from_utf8(&element, &one, NULL), "zq_wchar_buffer_from_utf8",
        "utf8 != NULL");
    ROW(zq_wchar_to_utf8_buffer(NULL, &one, L""), "zq_wchar_to_utf8_buffer",
        "utf8 != NULL || *utf8lenptr == 0");
    ROW(zq_wchar_to_utf8_buffer(&byte, &one, NULL), "zq_wchar_to_utf8_buffer", "wstring != NULL");
    // Text that is not UTF-8 is found by the second pass only.
    ROW(zq_wchar_from_utf8("a\xFF"), "zq_wchar_from_utf8", "res == 0");
}
