#include "zq/math/zqlimit.h"

#include <climits>

unsigned int zq_limit_max_unsigned_int(void)
{
    return UINT_MAX;
}

unsigned long zq_limit_max_unsigned_long(void)
{
    return ULONG_MAX;
}

size_t zq_limit_max_size_t(void)
{
    return SIZE_MAX;
}

size_t zq_sizet_multiply_and_limit(size_t a, size_t b)
{
    size_t product;
    return __builtin_mul_overflow(a, b, &product) ? SIZE_MAX : product;
}
