#ifndef ZQ_IO_ZQRMDIR_H
#define ZQ_IO_ZQRMDIR_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* zq_rmdir removes one empty directory. The platform's rmdir() result: 0, or -1 with errno set.
 * Nothing is logged. Any thread. */
ZQ_API int zq_rmdir(const char *pathname);

/* zq_utf8rmdir is zq_rmdir() for a UTF-8 path. */
ZQ_API int zq_utf8rmdir(const char *pathname);

ZQ_END_DECLS

#endif
