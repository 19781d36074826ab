#include "zq/util/zqconvert.h"

#include <climits>
#include <functional>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/log_capture.h"

TEST(zqconvert, strtoi64)
{
    const struct {
        const char *string;
        zqerror result;
        int64_t value;
    } rows[] = {
        {"0", ZQ_ERROR_NONE, 0},
        {"-0", ZQ_ERROR_NONE, 0},
        {"  -42", ZQ_ERROR_NONE, -42},
        {" \t\r\n\v\f+42", ZQ_ERROR_NONE, 42},
        {"000000000000000000000000000007", ZQ_ERROR_NONE, 7},
        {"9223372036854775807", ZQ_ERROR_NONE, INT64_MAX},
        {"-9223372036854775807", ZQ_ERROR_NONE, -INT64_MAX},
        {"-9223372036854775808", ZQ_ERROR_NONE, INT64_MIN},
        {"42abc", ZQ_ERROR_INCOMPLETE, 42},
        {"-42 ", ZQ_ERROR_INCOMPLETE, -42},
        {"4.2", ZQ_ERROR_INCOMPLETE, 4},
        {"0x10", ZQ_ERROR_INCOMPLETE, 0},
        {"42\xFF", ZQ_ERROR_INCOMPLETE, 42},
        {"-9223372036854775808-", ZQ_ERROR_INCOMPLETE, INT64_MIN},
        {"", ZQ_ERROR_SYNTAX, 0},
        {"  ", ZQ_ERROR_SYNTAX, 0},
        {"abc", ZQ_ERROR_SYNTAX, 0},
        {"-", ZQ_ERROR_SYNTAX, 0},
        {"+-1", ZQ_ERROR_SYNTAX, 0},
        {"- 1", ZQ_ERROR_SYNTAX, 0},
        {"\xB2", ZQ_ERROR_SYNTAX, 0},
        {"9223372036854775808", ZQ_ERROR_OUT_OF_RANGE, 0},
        {"-9223372036854775809", ZQ_ERROR_OUT_OF_RANGE, 0},
        {"9223372036854775808x", ZQ_ERROR_OUT_OF_RANGE, 0},
        {"18446744073709551615", ZQ_ERROR_OUT_OF_RANGE, 0},
        {"18446744073709551616", ZQ_ERROR_OUT_OF_RANGE, 0},
        {"99999999999999999999x", ZQ_ERROR_OUT_OF_RANGE, 0},
        // Wraps around without becoming smaller than 2200000000000000000, which goes unnoticed.
        {"22000000000000000000", ZQ_ERROR_NONE, 3553255926290448384},
        {"-22000000000000000000x", ZQ_ERROR_INCOMPLETE, -3553255926290448384},
    };
    for (const auto &row : rows) {
        int64_t value = 99;
        EXPECT_EQ(zq_strtoi64(row.string, &value), row.result) << row.string;
        EXPECT_EQ(value, row.value) << row.string;
    }
}

TEST(zqconvert, sizes)
{
    const struct {
        size_t value;
        int low;
        int fits;
        int limited;
        unsigned int ulimited;
    } rows[] = {
        {0, 0, 0, 0, 0},
        {2147483647, INT_MAX, 0, INT_MAX, 2147483647},
        {2147483648, INT_MIN, -1, INT_MAX, 2147483648},
        {4294967295, -1, -1, INT_MAX, UINT_MAX},
        {4294967296, 0, -1, INT_MAX, UINT_MAX},
        {0x100000005, 5, -1, INT_MAX, UINT_MAX},
        {SIZE_MAX, -1, -1, INT_MAX, UINT_MAX},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.value);
        int number = 99;
        unsigned int unumber = 99;
        EXPECT_EQ(zq_convert_int_from_size_t(&number, row.value), row.fits);
        EXPECT_EQ(number, row.low);
        EXPECT_EQ(zq_convert_int_from_size_t_and_limit(&number, row.value), row.value > INT_MAX);
        EXPECT_EQ(number, row.limited);
        EXPECT_EQ(zq_convert_uint_from_size_t_and_limit(&unumber, row.value), row.value > UINT_MAX);
        EXPECT_EQ(unumber, row.ulimited);
    }
}

TEST(zqconvert, halves_go_away_from_zero)
{
    const struct {
        double value;
        int64_t rounded;
    } rows[] = {
        {0.0, 0},
        {-0.0, 0},
        {0.49, 0},
        {-0.49, 0},
        {0.5, 1},
        {-0.5, -1},
        {2.5, 3},
        {-2.5, -3},
        {2.4, 2},
        {-2.6, -3},
        {1e15, 1000000000000000},
        {-4503599627370495.5, -4503599627370496},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(zq_convert_i64_from_double_round(row.value), row.rounded) << row.value;
        EXPECT_EQ(zq_convert_long_from_double_round(row.value), row.rounded) << row.value;
    }
}

TEST(zqconvert, character_types_are_retyped_in_place)
{
    const char *text = "a\xE4";
    const unsigned char *custr = nullptr;
    zq_convert_custr_from_cstr(&custr, text);
    EXPECT_EQ(static_cast<const void *>(custr), text);
    EXPECT_EQ(custr[1], 0xE4);
    const char *back = nullptr;
    zq_convert_cstr_from_custr(&back, custr);
    EXPECT_EQ(back, text);
}

TEST(zqconvert, bin2hex)
{
    const struct {
        std::string bytes;
        const char *text;
    } rows[] = {
        {"", ""},
        {std::string("\0\xAB", 2), "00ab"},
        {"\x01\x23\x45\x67\x89\xAB\xCD\xEF\xFF", "0123456789abcdefff"},
    };
    for (const auto &row : rows) {
        ZqString text(zq_bin2hex(row.bytes.data(), row.bytes.size()));
        ASSERT_TRUE(text);
        EXPECT_STREQ(text.get(), row.text);
    }
}

TEST(zqconvert, bin2hex_failures_are_logged)
{
    LogCapture log;
    const std::vector<LogLine> too_large = {{6, "size is too high for a size_t"}};
    for (size_t size : {SIZE_MAX / 2 + 1, SIZE_MAX}) {
        EXPECT_EQ(zq_bin2hex("", size), nullptr);
        EXPECT_EQ(log.take(), too_large) << size;
    }
    if (!heap_is_watched() || faults_injected())
        return;
    HeapFailure failure(1);
    EXPECT_EQ(zq_bin2hex("a", 1), nullptr);
    const std::vector<LogLine> no_memory = {{7, "not enough memory for conversion result"}};
    EXPECT_EQ(log.take(), no_memory);
}

TEST(zqconvert, null_is_misuse)
{
    int64_t i64;
    const unsigned char *custr;
    const char *cstr;
    const struct {
        const char *function;
        const char *expression;
        std::function<void()> call;
    } rows[] = {
        {"zq_strtoi64", "string != NULL", [&] { zq_strtoi64(nullptr, &i64); }},
        {"zq_strtoi64", "out != NULL", [] { zq_strtoi64("1", nullptr); }},
        {"zq_convert_int_from_size_t", "out != NULL",
         [] { zq_convert_int_from_size_t(nullptr, 1); }},
        {"zq_convert_int_from_size_t_and_limit", "out != NULL",
         [] { zq_convert_int_from_size_t_and_limit(nullptr, 1); }},
        {"zq_convert_uint_from_size_t_and_limit", "out != NULL",
         [] { zq_convert_uint_from_size_t_and_limit(nullptr, 1); }},
        {"zq_convert_custr_from_cstr", "destptr != NULL",
         [] { zq_convert_custr_from_cstr(nullptr, ""); }},
        {"zq_convert_custr_from_cstr", "src != NULL",
         [&] { zq_convert_custr_from_cstr(&custr, nullptr); }},
        {"zq_convert_cstr_from_custr", "destptr != NULL",
         [&] { zq_convert_cstr_from_custr(nullptr, reinterpret_cast<const unsigned char *>("")); }},
        {"zq_convert_cstr_from_custr", "src != NULL",
         [&] { zq_convert_cstr_from_custr(&cstr, nullptr); }},
        {"zq_bin2hex", "buf != NULL", [] { zq_bin2hex(nullptr, 0); }},
    };
    for (const auto &row : rows)
        EXPECT_MISUSE(row.call(), "util/zqconvert", row.function, row.expression);
}
