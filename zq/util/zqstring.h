#ifndef ZQ_UTIL_ZQSTRING_H
#define ZQ_UTIL_ZQSTRING_H

#include <wchar.h>

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Copying, comparing and searching strings. New strings are freed with zq_free(); a copy that
 * cannot be allocated is null and nothing is logged. White space and letter case follow the C
 * library's classes in the current locale unless stated otherwise. Any thread. */

/* zq_strdup returns a copy of `string`. */
ZQ_API char *zq_strdup(const char *string);

/* zq_strndup returns a terminated copy of at most `n` bytes of `string`. */
ZQ_API char *zq_strndup(const char *string, size_t n);

/* zq_strdup_lowercase returns a copy in which the ASCII letters A to Z are lowered, in any locale.
 */
ZQ_API char *zq_strdup_lowercase(const char *string);

/* zq_strndup_lowercase is zq_strdup_lowercase for at most `n` bytes. */
ZQ_API char *zq_strndup_lowercase(const char *string, size_t n);

/* zq_strcasecmp compares byte by byte after tolower(): 0 when equal, else the difference of the
 * first differing lowered bytes. */
ZQ_API int zq_strcasecmp(const char *s1, const char *s2);

/* zq_strncasecmp is zq_strcasecmp for at most `n` bytes; 0 when `n` is 0. */
ZQ_API int zq_strncasecmp(const char *s1, const char *s2, size_t n);

/* zq_strnchr returns the first of exactly `n` bytes equal to `character`, or null. It does not stop
 * at a terminator, so that 0 can be searched for. */
ZQ_API char *zq_strnchr(const char *string, size_t n, int character);

/* zq_strncpy copies `src` into the `n` bytes at `dest`, cutting it to n - 1 bytes, always
 * terminated, never padded. Writes nothing when `n` is 0. Returns `dest`. */
ZQ_API char *zq_strncpy(char *dest, const char *src, size_t n);

/* zq_strstrip returns a copy without leading and trailing white space. */
ZQ_API char *zq_strstrip(const char *str);

/* zq_endswith returns 1 when `string` ends with `suffix`, else 0. */
ZQ_API int zq_endswith(const char *string, const char *suffix);

/* zq_wcslen returns the number of characters before the terminating 0. */
ZQ_API size_t zq_wcslen(const wchar_t *wstring);

/* zq_wcsdup returns a copy of a wide string; null also when its size would not fit a size_t. */
ZQ_API wchar_t *zq_wcsdup(const wchar_t *wstring);

/* zq_wcscmp returns 0 when equal, else the difference of the first differing characters. */
ZQ_API int zq_wcscmp(const wchar_t *s1, const wchar_t *s2);

/* zq_wcsncmp is zq_wcscmp for at most `n` characters. */
ZQ_API int zq_wcsncmp(const wchar_t *s1, const wchar_t *s2, size_t n);

ZQ_END_DECLS

#endif
