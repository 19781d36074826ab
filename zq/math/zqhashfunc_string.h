#ifndef ZQ_MATH_ZQHASHFUNC_STRING_H
#define ZQ_MATH_ZQHASHFUNC_STRING_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* zq_hashfunc_string returns the hash of the bytes of `string`; 0 for "".
 *
 * The bytes are taken in groups as wide as an unsigned long, each read as a big-endian number; the
 * hash so far is rotated left by 5 bits and combined with the group by exclusive or. The value is
 * the same on machines of either byte order, but differs between 32-bit and 64-bit builds, so it is
 * not for storing. It is fast, and no defence against keys that were chosen to collide.
 * Any thread. */
ZQ_API unsigned long zq_hashfunc_string(const char *string);

ZQ_END_DECLS

#endif
