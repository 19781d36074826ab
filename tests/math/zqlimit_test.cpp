#include "zq/math/zqlimit.h"

#include <climits>
#include <gtest/gtest.h>

TEST(zqlimit, largest_numbers_and_saturating_products)
{
    EXPECT_EQ(zq_limit_max_unsigned_int(), 4294967295u);
    EXPECT_EQ(zq_limit_max_unsigned_long(), ULONG_MAX);
    EXPECT_EQ(zq_limit_max_size_t(), SIZE_MAX);
    constexpr size_t root = size_t{1} << (sizeof(size_t) * 4);
    const size_t rows[][3] = {
        {0, 0, 0},
        {0, SIZE_MAX, 0},
        {1, SIZE_MAX, SIZE_MAX},
        {2, SIZE_MAX / 2, SIZE_MAX - 1},
        {2, SIZE_MAX / 2 + 1, SIZE_MAX},
        {root, root, SIZE_MAX},
        {root, root - 1, SIZE_MAX - root + 1},
        {SIZE_MAX, SIZE_MAX, SIZE_MAX},
    };
    for (const auto &[a, b, product] : rows) {
        EXPECT_EQ(zq_sizet_multiply_and_limit(a, b), product) << a << " " << b;
        EXPECT_EQ(zq_sizet_multiply_and_limit(b, a), product) << b << " " << a;
    }
}
