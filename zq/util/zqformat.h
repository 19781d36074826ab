#ifndef ZQ_UTIL_ZQFORMAT_H
#define ZQ_UTIL_ZQFORMAT_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* zq_format replaces the named variables of `format` and returns the new string, which the caller
 * frees with zq_free(), or null on failure.
 *
 * A variable is a name between two percent signs; "%%" is one percent sign. The arguments are pairs
 * of strings, name and value, closed by a null name; names are case-sensitive and the first pair of
 * a name wins:
 *
 *     zq_format("%host%:%port%", "host", "localhost", "port", "80", (char *) NULL)
 *
 * There are no printf conversions and values are never taken as formats. Two mistakes are logged
 * (level 6) and do not fail the call: a variable without a pair, which becomes nothing, and a
 * percent sign that opens a variable without an end, which stays as it is with the text behind it.
 * A null value before the pair that is searched for does fail it (level 6). So does lack of memory
 * (level 7). Any thread, logging permitting. */
ZQ_API char *zq_format(const char *format, ...) ZQ_SENTINEL;

ZQ_END_DECLS

#endif
