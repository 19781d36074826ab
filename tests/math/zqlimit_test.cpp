#include "zq/math/zqlimit.h"

#include <climits>
#include <gtest/gtest.h>

TEST(zqlimit, largest_numbers)
{
    EXPECT_EQ(zq_limit_max_unsigned_int(), 4294967295u);
    EXPECT_EQ(zq_limit_max_unsigned_long(), ULONG_MAX);
    EXPECT_EQ(zq_limit_max_size_t(), SIZE_MAX);
}

TEST(zqlimit, multiplication_saturates)
{
    constexpr size_t root = size_t{1} << (sizeof(size_t) * 4);
    const struct {
        size_t a;
        size_t b;
        size_t product;
    } rows[] = {
        {0, 0, 0},
        {0, 7, 0},
        {0, SIZE_MAX, 0},
        {1, SIZE_MAX, SIZE_MAX},
        {3, 5, 15},
        {2, SIZE_MAX / 2, SIZE_MAX - 1},
        {2, SIZE_MAX / 2 + 1, SIZE_MAX},
        {2, SIZE_MAX, SIZE_MAX},
        {3, SIZE_MAX / 3, SIZE_MAX},
        {root, root, SIZE_MAX},
        {root, root - 1, SIZE_MAX - root + 1},
        {SIZE_MAX, SIZE_MAX, SIZE_MAX},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(zq_sizet_multiply_and_limit(row.a, row.b), row.product) << row.a << " " << row.b;
        EXPECT_EQ(zq_sizet_multiply_and_limit(row.b, row.a), row.product) << row.b << " " << row.a;
    }
}
