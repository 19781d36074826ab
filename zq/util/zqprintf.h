#ifndef ZQ_UTIL_ZQPRINTF_H
#define ZQ_UTIL_ZQPRINTF_H

#include <stdarg.h>

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* printf-like formatting. Nothing here logs: callers know what the text was for. Any thread. */

/* zq_asprintf formats into a new string and stores it in *strp, which the caller frees with
 * zq_free(). Returns its length, or a negative number with *strp null: what the platform's
 * formatter returned, or -1 when out of memory. */
ZQ_API int zq_asprintf(char **strp, const char *format, ...) ZQ_PRINTF(2, 3);

/* zq_vasprintf is zq_asprintf with an argument list. */
ZQ_API int zq_vasprintf(char **strp, const char *format, va_list ap) ZQ_PRINTF(2, 0);

/* zq_strdupf formats into a new string, which the caller frees with zq_free(); null on failure. */
ZQ_API char *zq_strdupf(const char *format, ...) ZQ_PRINTF(1, 2);

/* zq_vstrdupf is zq_strdupf with an argument list. */
ZQ_API char *zq_vstrdupf(const char *format, va_list ap) ZQ_PRINTF(1, 0);

/* zq_snprintf formats into `size` bytes at `str` and always terminates a non-empty buffer. `str`
 * may be null when `size` is 0. Returns the length that the whole text has, or a negative number.
 */
ZQ_API int zq_snprintf(char *str, size_t size, const char *format, ...) ZQ_PRINTF(3, 4);

/* zq_vsnprintf is zq_snprintf with an argument list. */
ZQ_API int zq_vsnprintf(char *str, size_t size, const char *format, va_list ap) ZQ_PRINTF(3, 0);

/* zq_stdio_printf_stderr writes to standard error, for messages that must not go through the
 * logger. Returns what the platform's formatted write returns. */
ZQ_API int zq_stdio_printf_stderr(const char *format, ...) ZQ_PRINTF(1, 2);

ZQ_END_DECLS

#endif
