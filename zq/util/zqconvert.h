#ifndef ZQ_UTIL_ZQCONVERT_H
#define ZQ_UTIL_ZQCONVERT_H

#include "zq/util/zqerror.h"
#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Conversions between numbers, sizes, character types and hexadecimal text. Any thread. */

/* zq_strtoi64 reads a decimal integer from the start of `string`. White space (the C library's
 * class) and one sign may come first.
 *   ZQ_ERROR_NONE          *out holds the value
 *   ZQ_ERROR_INCOMPLETE    text follows the digits, be it white space; *out holds the value so far
 *   ZQ_ERROR_SYNTAX        no digit, as in "" or "-"; *out is 0
 *   ZQ_ERROR_OUT_OF_RANGE  does not fit 64 bits; *out is 0
 * Of the numbers that have 20 digits or more, those that wrap around 64 bits without becoming
 * smaller at any digit are not noticed as out of range. Logs and allocates nothing. */
ZQ_API zqerror zq_strtoi64(const char *string, int64_t *out);

/* zq_convert_int_from_size_t stores the low 32 bits of `value`. Returns 0 when *out is the value,
 * or -1 when the value does not fit a non-negative int. */
ZQ_API int zq_convert_int_from_size_t(int *out, size_t value);

/* zq_convert_int_from_size_t_and_limit stores `value`, or 2147483647 when it is larger. Returns 1
 * when it was limited, else 0. */
ZQ_API int zq_convert_int_from_size_t_and_limit(int *out, size_t value);

/* zq_convert_uint_from_size_t_and_limit stores `value`, or 4294967295 when it is larger. Returns 1
 * when it was limited, else 0. */
ZQ_API int zq_convert_uint_from_size_t_and_limit(unsigned int *out, size_t value);

/* zq_convert_long_from_double_round rounds to the nearest integer, halves away from zero, by adding
 * 0.5 in the sign of the value and cutting the fraction off. The sum is a double too, so that odd
 * integers between 2^52 and 2^53 give their even neighbour away from zero, and the largest value
 * below 0.5 gives 1. The result must fit a long. */
ZQ_API long zq_convert_long_from_double_round(double value);

/* zq_convert_i64_from_double_round is the same for a result that must fit 64 bits. */
ZQ_API int64_t zq_convert_i64_from_double_round(double value);

/* zq_convert_custr_from_cstr stores `src` in *destptr as a string of unsigned characters; nothing
 * is copied. */
ZQ_API void zq_convert_custr_from_cstr(const unsigned char **destptr, const char *src);

/* zq_convert_cstr_from_custr stores `src` in *destptr as a string of characters; nothing is
 * copied. */
ZQ_API void zq_convert_cstr_from_custr(const char **destptr, const unsigned char *src);

/* zq_bin2hex returns `size` bytes as 2 * size lower-case hexadecimal digits in a new string, which
 * the caller frees with zq_free(). Null, logged, when out of memory (level 7) or when the length
 * does not fit a size_t (level 6). */
ZQ_API char *zq_bin2hex(const void *buf, size_t size);

ZQ_END_DECLS

#endif
