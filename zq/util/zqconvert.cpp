#include "zq/util/zqconvert.h"

#include <cctype>
#include <climits>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/util/zqmalloc.h"

// ---- reading integers ----

static bool zq_strtoi64_is(int (*is_class)(int), const char *c)
{
    return is_class(static_cast<unsigned char>(*c));
}

// Reads digits up to the first other byte, which *string then points to. Returns false as soon as
// the value becomes smaller. That misses some values that wrap around: meant, so that a number
// means today what it has always meant.
static bool zq_strtoi64_read_digits(const char **string, uint64_t *value)
{
    *value = 0;
    for (; zq_strtoi64_is(isdigit, *string); ++*string) {
        uint64_t next = *value * 10 + static_cast<uint64_t>(**string - '0');
        if (next < *value)
            return false;
        *value = next;
    }
    return true;
}

zqerror zq_strtoi64(const char *string, int64_t *out)
{
    ZQ_ASSERT(string != NULL);
    ZQ_ASSERT(out != NULL);

    *out = 0;
    while (zq_strtoi64_is(isspace, string))
        string++;
    bool negative = *string == '-';
    if (*string == '-' || *string == '+')
        string++;

    const char *digits = string;
    uint64_t value;
    if (!zq_strtoi64_read_digits(&string, &value))
        return ZQ_ERROR_OUT_OF_RANGE;
    if (string == digits)
        return ZQ_ERROR_SYNTAX;
    if (value > static_cast<uint64_t>(INT64_MAX) + negative)
        return ZQ_ERROR_OUT_OF_RANGE;
    *out = static_cast<int64_t>(negative ? 0 - value : value);
    return *string ? ZQ_ERROR_INCOMPLETE : ZQ_ERROR_NONE;
}

// ---- sizes ----

int zq_convert_int_from_size_t(int *out, size_t value)
{
    ZQ_ASSERT(out != NULL);

    *out = static_cast<int>(static_cast<uint32_t>(value));
    return value <= INT_MAX ? 0 : -1;
}

int zq_convert_int_from_size_t_and_limit(int *out, size_t value)
{
    ZQ_ASSERT(out != NULL);

    bool limited = value > INT_MAX;
    *out = limited ? INT_MAX : static_cast<int>(value);
    return limited;
}

int zq_convert_uint_from_size_t_and_limit(unsigned int *out, size_t value)
{
    ZQ_ASSERT(out != NULL);

    bool limited = value > UINT_MAX;
    *out = limited ? UINT_MAX : static_cast<unsigned int>(value);
    return limited;
}

// ---- rounding ----

// Through memory, so that a processor that computes with more digits rounds as the others do.
static double zq_convert_away_from_zero(double value)
{
    const volatile double moved = value >= 0 ? value + 0.5 : value - 0.5;
    return moved;
}

long zq_convert_long_from_double_round(double value)
{
    return static_cast<long>(zq_convert_away_from_zero(value));
}

int64_t zq_convert_i64_from_double_round(double value)
{
    return static_cast<int64_t>(zq_convert_away_from_zero(value));
}

// ---- characters ----

void zq_convert_custr_from_cstr(const unsigned char **destptr, const char *src)
{
    ZQ_ASSERT(destptr != NULL);
    ZQ_ASSERT(src != NULL);

    *destptr = reinterpret_cast<const unsigned char *>(src);
}

void zq_convert_cstr_from_custr(const char **destptr, const unsigned char *src)
{
    ZQ_ASSERT(destptr != NULL);
    ZQ_ASSERT(src != NULL);

    *destptr = reinterpret_cast<const char *>(src);
}

// ---- hexadecimal text ----

char *zq_bin2hex(const void *buf, size_t size)
{
    ZQ_ASSERT(buf != NULL);

    size_t len = 2 * size + 1;
    if (len <= size) {
        ZQ_LOG(6, "size is too high for a size_t");
        return nullptr;
    }
    char *result = static_cast<char *>(zq_malloc(len));
    if (!result) {
        ZQ_LOG(7, "not enough memory for conversion result");
        return nullptr;
    }
    static constexpr char digits[] = "0123456789abcdef";
    const unsigned char *bytes = static_cast<const unsigned char *>(buf);
    char *out = result;
    for (size_t i = 0; i < size; i++) {
        *out++ = digits[bytes[i] >> 4];
        *out++ = digits[bytes[i] & 15];
    }
    *out = '\0';
    return result;
}
