#ifndef ZQ_IO_ZQTRUNCATE_H
#define ZQ_IO_ZQTRUNCATE_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* zq_truncate cuts a file to `length` bytes, or extends it with zeros. The platform's truncate()
 * result: 0, or -1 with errno set. Nothing is logged. Any thread. */
ZQ_API int zq_truncate(const char *filename, int64_t length);

ZQ_END_DECLS

#endif
