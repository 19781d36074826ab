#include "zq/util/zqconvert.h"

#include <climits>
#include <tuple>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/log_capture.h"

TEST(zqconvert, strtoi64)
{
    const std::tuple<const char *, zqerror, int64_t> rows[] = {
        {"\v+000000000000000000000000000007", ZQ_ERROR_NONE, 7},
        {"0x10", ZQ_ERROR_INCOMPLETE, 0},
        {"- 1", ZQ_ERROR_SYNTAX, 0},
        {"\xB2", ZQ_ERROR_SYNTAX, 0},
        {"18446744073709551616", ZQ_ERROR_OUT_OF_RANGE, 0},
        // Wraps around without becoming smaller than 2200000000000000000, which goes unnoticed.
        {"22000000000000000000", ZQ_ERROR_NONE, 3553255926290448384},
        {"-22000000000000000000x", ZQ_ERROR_INCOMPLETE, -3553255926290448384}};
    for (const auto &[string, result, expected] : rows) {
        int64_t value = 99;
        EXPECT_EQ(zq_strtoi64(string, &value), result) << string;
        EXPECT_EQ(value, expected) << string;
    }
}

TEST(zqconvert, sizes)
{
    for (size_t value : {size_t{0}, size_t{INT_MAX}, size_t{INT_MAX} + 1, size_t{UINT_MAX},
                         size_t{UINT_MAX} + 6, SIZE_MAX}) {
        SCOPED_TRACE(value);
        const bool large = value > INT_MAX;
        const bool very_large = value > UINT_MAX;
        int number = 99;
        unsigned int unumber = 99;
        EXPECT_EQ(zq_convert_int_from_size_t(&number, value), large ? -1 : 0);
        EXPECT_EQ(number, static_cast<int>(value)); // the low bits
        EXPECT_EQ(zq_convert_int_from_size_t_and_limit(&number, value), large);
        EXPECT_EQ(number, large ? INT_MAX : static_cast<int>(value));
        EXPECT_EQ(zq_convert_uint_from_size_t_and_limit(&unumber, value), very_large);
        EXPECT_EQ(unumber, very_large ? UINT_MAX : static_cast<unsigned int>(value));
    }
}

TEST(zqconvert, halves_go_away_from_zero)
{
    const std::pair<double, int64_t> rows[] = {{0, 0},
                                               {0.49, 0},
                                               {0.5, 1},
                                               {2.5, 3},
                                               {2.6, 3},
                                               {4503599627370495.5, 4503599627370496},
                                               // Where adding the half rounds.
                                               {0.49999999999999994, 1},
                                               {4503599627370497, 4503599627370498}};
    for (const auto &[value, rounded] : rows) {
        EXPECT_EQ(zq_convert_i64_from_double_round(value), rounded) << value;
        EXPECT_EQ(zq_convert_i64_from_double_round(-value), -rounded) << value;
        if (rounded > LONG_MAX)
            continue;
        EXPECT_EQ(zq_convert_long_from_double_round(value), rounded) << value;
        EXPECT_EQ(zq_convert_long_from_double_round(-value), -rounded) << value;
    }
}

TEST(zqconvert, characters)
{
    const char *text = "a\xE4";
    const unsigned char *custr = nullptr;
    zq_convert_custr_from_cstr(&custr, text);
    EXPECT_EQ(static_cast<const void *>(custr), text);
    const char *back = nullptr;
    zq_convert_cstr_from_custr(&back, custr);
    EXPECT_EQ(back, text);
    EXPECT_MISUSE(zq_convert_cstr_from_custr(nullptr, custr), "util/zqconvert",
                  "zq_convert_cstr_from_custr", "destptr != NULL");
}

TEST(zqconvert, bin2hex)
{
    ZqString empty(zq_bin2hex("", 0));
    ZqString text(zq_bin2hex("\0\x01\x23\x45\x67\x89\xAB\xCD\xEF\xFF", 10));
    ASSERT_TRUE(empty && text);
    EXPECT_STREQ(empty.get(), "");
    EXPECT_STREQ(text.get(), "000123456789abcdefff");
    LogCapture log;
    const LogLine too_large = {6, "size is too high for a size_t"};
    EXPECT_EQ(zq_bin2hex("", SIZE_MAX / 2 + 1), nullptr);
    EXPECT_EQ(zq_bin2hex("", SIZE_MAX), nullptr);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{too_large, too_large}));
    if (!heap_is_watched())
        GTEST_SKIP();
    HeapFailure failure(1);
    EXPECT_EQ(zq_bin2hex("a", 1), nullptr);
    const std::vector<LogLine> no_memory = {{7, "not enough memory for conversion result"}};
    EXPECT_EQ(log.take(), no_memory);
}
