#ifndef ZQ_NET_ZQHTTPHEADERS_H
#define ZQ_NET_ZQHTTPHEADERS_H

#include "zq/util/zqerror.h"

ZQ_BEGIN_DECLS

/* A table of received header fields. Names are kept and looked up in lower case; a field that
 * occurs several times keeps its last value. A table belongs to one thread at a time. */
ZQ_OBJECT(zqhttpheaders);

/* zq_httpheaders_create returns an empty table, or null when out of memory. */
ZQ_API zqhttpheaders *zq_httpheaders_create(void);

/* zq_httpheaders_destroy releases the table and all its values. */
ZQ_API void zq_httpheaders_destroy(zqhttpheaders *zqhttpheaders);

/* zq_httpheaders_clear removes every field. Always ZQ_ERROR_NONE. */
ZQ_API zqerror zq_httpheaders_clear(zqhttpheaders *zqhttpheaders);

/* zq_httpheaders_add stores copies of a field's name and value, replacing an earlier value. `value`
 * may be null, which zq_httpheaders_get() does not tell from a missing field. ZQ_ERROR_NO_MEMORY
 * leaves the table unchanged. */
ZQ_API zqerror zq_httpheaders_add(zqhttpheaders *zqhttpheaders, const char *name,
                                  const char *value);

/* zq_httpheaders_get returns the value of a field, its name in any letter case, or null when it is
 * missing (or memory is). The text belongs to the table and is valid until the field is replaced or
 * the table cleared or destroyed. */
ZQ_API const char *zq_httpheaders_get(zqhttpheaders *zqhttpheaders, const char *name);

/* zq_httpheaders_parse adds the fields of a header block of `bufferlen` bytes, which ends at its
 * first empty line, at a zero byte or with the last byte. Lines end with LF, CR or CR LF. Spaces
 * and tabs around a value are removed; the name is everything before the first colon, as it is.
 * Continuation lines are not joined.
 *   ZQ_ERROR_SYNTAX     a line has no colon
 *   ZQ_ERROR_NO_MEMORY  out of memory
 * Either leaves the fields before it in the table. */
ZQ_API zqerror zq_httpheaders_parse(zqhttpheaders *zqhttpheaders, const void *buffer,
                                    size_t bufferlen);

/* zq_httpheaders_parse_from_message is zq_httpheaders_parse() for a block that begins with a
 * request or status line, which it skips. */
ZQ_API zqerror zq_httpheaders_parse_from_message(zqhttpheaders *zqhttpheaders, const void *buffer,
                                                 size_t bufferlen);

ZQ_END_DECLS

#endif
