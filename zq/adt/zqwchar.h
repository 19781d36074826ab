#ifndef ZQ_ADT_ZQWCHAR_H
#define ZQ_ADT_ZQWCHAR_H

#include <wchar.h>

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Conversion between UTF-8 and wide strings, one code point an element, ended by 0. Validation is
 * loose: decoding accepts overlong forms, surrogates and values up to 0x1FFFFF, and encoding
 * surrogates. C0 80 decodes to a 0, which ends the wide string early. Any thread. */

/* zq_wchar_strlen returns the number of elements before the 0. */
ZQ_API size_t zq_wchar_strlen(const wchar_t *wstring);

/* zq_wchar_to_utf8 returns the string in UTF-8, for the caller to free with zq_free(), or null:
 * out of memory, or a character above 0x10FFFF, both logged. */
ZQ_API char *zq_wchar_to_utf8(const wchar_t *wstring);

/* zq_wchar_to_utf8_buffer encodes into the *utf8lenptr bytes at `utf8`, as many whole characters as
 * fit, and stores in *utf8lenptr the bytes that the whole string needs without its terminator.
 * `utf8` may be null when *utf8lenptr is 0, to measure. A negative character is written as its low
 * 7 bits, a zero byte when these are 0. Returns
 *    0  the string and its terminator are in the buffer
 *    1  the buffer is too small
 *   -1  a character above 0x10FFFF, which is logged; *utf8lenptr is 0 */
ZQ_API int zq_wchar_to_utf8_buffer(char *utf8, size_t *utf8lenptr, const wchar_t *wstring);

/* zq_wchar_from_utf8 returns the string as wide characters, for the caller to free with zq_free(),
 * or null when out of memory. Text that is not UTF-8 is misuse and ends in the assertion
 * "res == 0": check it with zq_wchar_buffer_from_utf8() first. */
ZQ_API wchar_t *zq_wchar_from_utf8(const char *utf8);

/* zq_wchar_buffer_from_utf8 decodes into the *warraylenptr elements at `warray`, as many characters
 * as fit, and stores in *warraylenptr the number of characters there are. `warray` may be null when
 * *warraylenptr is 0, to measure. Unlike encoding it needs no room for the terminator: a 0 is
 * stored only if there is an element left for it. Returns
 *    0  all characters are in the buffer
 *    1  the buffer is too small; or the text is not UTF-8, which is logged, *warraylenptr being 0
 */
ZQ_API int zq_wchar_buffer_from_utf8(wchar_t *warray, size_t *warraylenptr, const char *utf8);

ZQ_END_DECLS

#endif
