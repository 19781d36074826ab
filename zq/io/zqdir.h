#ifndef ZQ_IO_ZQDIR_H
#define ZQ_IO_ZQDIR_H

#include "zq/util/zqerror.h"

ZQ_BEGIN_DECLS

/* Directories: one entry after the other, with its status fetched when first asked for, and
 * recursive removal. Names are the bytes that the file system stores; zqutf8dir.h gives composed
 * UTF-8. An iterator is used by one thread at a time.
 *
 *     while (zq_dir_next(zqdir) == 0)
 *         puts(zq_dir_fetch_name(zqdir));
 *
 * Names and status belong to the current entry, until the next zq_dir_next(). Entries are looked
 * up by the path that was opened, so a relative path needs the working directory to stay. */
ZQ_OBJECT(zqdir);

/* zq_dir_open opens a directory, the current one when `path` is null. Returns the iterator,
 * released with zq_dir_destroy(), or null when out of memory or when the directory cannot be
 * opened, which is logged at level 13 only. */
ZQ_API zqdir *zq_dir_open(const char *path);

/* zq_dir_destroy closes the directory and releases the iterator. */
ZQ_API void zq_dir_destroy(zqdir *zqdir);

/* zq_dir_next advances to the next entry, "." and ".." included, in no particular order. Returns 0
 * when there is one, -1 at the end, else the platform's errno number of the failed reading. */
ZQ_API int zq_dir_next(zqdir *zqdir);

/* zq_dir_fetch_name returns the current entry's name, which belongs to the iterator and is valid
 * until the next zq_dir_next(). Null without a current entry, zq_dir_get_error() then giving
 * ZQ_ERROR_INVALID_ARGUMENT. */
ZQ_API const char *zq_dir_fetch_name(zqdir *zqdir);

/* zq_dir_copy_name returns a copy of the name for the caller to free with zq_free(), or null. */
ZQ_API char *zq_dir_copy_name(zqdir *zqdir);

/* zq_dir_is_directory returns 1 when the current entry is a directory, 0 when it is something else
 * (a link to a directory is a link), -1 on failure. */
ZQ_API int zq_dir_is_directory(zqdir *zqdir);

/* zq_dir_is_symlink returns 1 when the current entry is a symbolic link, else 0; -1 on failure. */
ZQ_API int zq_dir_is_symlink(zqdir *zqdir);

/* zq_dir_get_size returns the current entry's size in bytes, or -1 on failure. */
ZQ_API int64_t zq_dir_get_size(zqdir *zqdir);

/* zq_dir_get_error returns ZQ_ERROR_INVALID_ARGUMENT after a name was asked for without a current
 * entry, until the end of the directory is reached; else ZQ_ERROR_NONE. */
ZQ_API zqerror zq_dir_get_error(zqdir *zqdir);

/* zq_dir_separator returns the character between the components of a path, '/'. */
ZQ_API char zq_dir_separator(void);

/* zq_dir_remove_recursive removes a directory with everything in it. Returns 0, or -1 when
 * something could not be removed: each such entry is logged, the rest is removed all the same, and
 * the directories that are not empty stay. Level 13 traces every step.
 *
 * Symbolic links in the tree are removed, never followed, even when directories are replaced by
 * links meanwhile. `path` itself may be a link to a directory: its contents are removed, the link
 * and the emptied directory stay, and the result is -1. However deep or wide the tree, it takes at
 * most four descriptors and constant stack; paths below `path` may be longer than the
 * system takes in one piece. */
ZQ_API int zq_dir_remove_recursive(const char *path);

ZQ_END_DECLS

#endif
