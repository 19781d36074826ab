#ifndef ZQ_IO_ZQUTF8STAT_H
#define ZQ_IO_ZQUTF8STAT_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* The functions of zqstat.h for UTF-8 paths. */
ZQ_OBJECT(zqutf8stat);

/* zq_utf8stat_create is zq_stat_create(); released with zq_utf8stat_destroy(). */
ZQ_API zqutf8stat *zq_utf8stat_create(void);

/* zq_utf8stat_destroy releases the object. */
ZQ_API void zq_utf8stat_destroy(zqutf8stat *zqutf8stat);

/* zq_utf8stat_lstat is zq_stat_lstat() for a UTF-8 path. */
ZQ_API int zq_utf8stat_lstat(zqutf8stat *zqutf8stat, const char *path);

/* zq_utf8stat_is_directory returns 1 for a directory, else 0; -1 without a status. */
ZQ_API int zq_utf8stat_is_directory(zqutf8stat *zqutf8stat);

/* zq_utf8stat_is_symlink returns 1 for a symbolic link, else 0; -1 without a status. */
ZQ_API int zq_utf8stat_is_symlink(zqutf8stat *zqutf8stat);

/* zq_utf8stat_get_size returns the size in bytes, or -1 without a status. */
ZQ_API int64_t zq_utf8stat_get_size(zqutf8stat *zqutf8stat);

ZQ_END_DECLS

#endif
