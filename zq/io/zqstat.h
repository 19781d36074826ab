#ifndef ZQ_IO_ZQSTAT_H
#define ZQ_IO_ZQSTAT_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* The status of a file, asked once and looked at often. The getters answer -1 until a
 * zq_stat_lstat() has succeeded, and again after one that failed. */
ZQ_OBJECT(zqstat);

/* zq_stat_create returns a new object without a status, or null when out of memory. Released with
 * zq_stat_destroy(). */
ZQ_API zqstat *zq_stat_create(void);

/* zq_stat_destroy releases the object. */
ZQ_API void zq_stat_destroy(zqstat *zqstat);

/* zq_stat_lstat takes the status of `path`; of a symbolic link itself, not of what it points to.
 * The platform's lstat() result: 0, or -1 with errno set. Nothing is logged. */
ZQ_API int zq_stat_lstat(zqstat *zqstat, const char *path);

/* zq_stat_is_directory returns 1 for a directory, else 0; -1 without a status. */
ZQ_API int zq_stat_is_directory(zqstat *zqstat);

/* zq_stat_is_symlink returns 1 for a symbolic link, else 0; -1 without a status. */
ZQ_API int zq_stat_is_symlink(zqstat *zqstat);

/* zq_stat_get_size returns the size in bytes, or -1 without a status. */
ZQ_API int64_t zq_stat_get_size(zqstat *zqstat);

ZQ_END_DECLS

#endif
