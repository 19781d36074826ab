#ifndef ZQ_IO_ZQRENAME_H
#define ZQ_IO_ZQRENAME_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* zq_rename renames a file within its file system, replacing a file that has the new name. The
 * platform's rename() result: 0, or -1 with errno set. Nothing is logged. Any thread. */
ZQ_API int zq_rename(const char *oldpath, const char *newpath);

/* zq_utf8rename is zq_rename() for UTF-8 names. */
ZQ_API int zq_utf8rename(const char *oldpath, const char *newpath);

ZQ_END_DECLS

#endif
