#ifndef ZQ_UTIL_ZQURLENCODE_H
#define ZQ_UTIL_ZQURLENCODE_H

#include "zq/util/zqerror.h"
#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Percent-encoding for URLs and form bodies (application/x-www-form-urlencoded). The letters A-Z
 * and a-z, the digits and - . _ ~ ! ' ( ) * pass unchanged, a space becomes "+", and every other
 * byte "%" with two upper-case hexadecimal digits. A context can exempt further bytes. */
ZQ_OBJECT(zqurlencode);

/* zq_urlencode_create returns a new context without exemptions, or null when out of memory.
 * Released with zq_urlencode_destroy(). */
ZQ_API zqurlencode *zq_urlencode_create(void);

/* zq_urlencode_destroy releases the context. */
ZQ_API void zq_urlencode_destroy(zqurlencode *zqurlencode);

/* zq_urlencode_reset removes all exemptions. */
ZQ_API void zq_urlencode_reset(zqurlencode *zqurlencode);

/* zq_urlencode_skip exempts the bytes of the string `skipchars`: they pass unchanged, an exempted
 * space as a space. Exemptions add up until zq_urlencode_reset(). */
ZQ_API void zq_urlencode_skip(zqurlencode *zqurlencode, const char *skipchars);

/* zq_urlencode_buffer encodes `srclen` bytes of `src` into `dst`, which may be null when the
 * capacity is 0. *dstlenptr is the capacity of `dst` on entry and receives the length that the
 * whole encoding has. No byte is written beyond the capacity, so a capacity of 0 measures.
 *   ZQ_ERROR_NONE              the encoding is in `dst`, terminated only if it is shorter than the
 *                              capacity; pass one byte more than measured to get a terminator
 *   ZQ_ERROR_OUT_OF_RANGE      `dst` is too small; it holds the beginning, unterminated
 *   ZQ_ERROR_INVALID_ARGUMENT  the length does not fit a size_t; *dstlenptr is the length so far
 * Allocates nothing. Any thread, as long as nobody changes the context. */
ZQ_API zqerror zq_urlencode_buffer(zqurlencode *zqurlencode, char *dst, size_t *dstlenptr,
                                   const char *src, size_t srclen);

/* zq_urlencode_string encodes the string `src` into a new one, which the caller frees with
 * zq_free(). *dstptr receives it, or null when the result is not ZQ_ERROR_NONE.
 *   ZQ_ERROR_NO_MEMORY         out of memory
 *   ZQ_ERROR_INVALID_ARGUMENT  the encoding would not fit the memory space */
ZQ_API zqerror zq_urlencode_string(zqurlencode *zqurlencode, char **dstptr, const char *src);

/* zq_urlencode encodes the string `src`, without exemptions, into a new one, which the caller frees
 * with zq_free(). Null when out of memory. */
ZQ_API char *zq_urlencode(const char *src);

ZQ_END_DECLS

#endif
