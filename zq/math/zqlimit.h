#ifndef ZQ_MATH_ZQLIMIT_H
#define ZQ_MATH_ZQLIMIT_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Size arithmetic that never wraps. Any thread. */

/* zq_limit_max_unsigned_int returns the largest unsigned int. */
ZQ_API unsigned int zq_limit_max_unsigned_int(void);

/* zq_limit_max_unsigned_long returns the largest unsigned long. */
ZQ_API unsigned long zq_limit_max_unsigned_long(void);

/* zq_limit_max_size_t returns the largest size_t. */
ZQ_API size_t zq_limit_max_size_t(void);

/* zq_sizet_multiply_and_limit returns a times b, or the largest size_t when that would overflow. */
ZQ_API size_t zq_sizet_multiply_and_limit(size_t a, size_t b);

ZQ_END_DECLS

#endif
