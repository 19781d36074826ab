#ifndef ZQ_IO_ZQUTF8DIR_H
#define ZQ_IO_ZQUTF8DIR_H

#include "zq/util/zqerror.h"

ZQ_BEGIN_DECLS

/* Directories like zqdir.h, with UTF-8 names in composed form: what the file system stores
 * decomposed (Unicode NFD) is handed out composed (NFC, Unicode Standard Annex 15). Status and
 * removal look entries up by the composed name too. A file system that keeps names byte for byte
 * does not find a decomposed entry that way; zqdir.h works on stored names.
 *
 * A name cannot be fetched when it is not UTF-8, or in the rare case that its composed form is
 * longer than the stored one (a few characters have only decomposed forms). */
ZQ_OBJECT(zqutf8dir);

/* zq_utf8dir_open opens a directory, the current one when `path` is null. Returns the iterator,
 * released with zq_utf8dir_destroy(), or null when out of memory or when the directory cannot be
 * opened, which is logged at level 13 only. */
ZQ_API zqutf8dir *zq_utf8dir_open(const char *path);

/* zq_utf8dir_destroy closes the directory and releases the iterator. */
ZQ_API void zq_utf8dir_destroy(zqutf8dir *zqutf8dir);

/* zq_utf8dir_next advances to the next entry, "." and ".." included. Returns 0 when there is one,
 * -1 at the end, else the platform's errno number of the failed reading. */
ZQ_API int zq_utf8dir_next(zqutf8dir *zqutf8dir);

/* zq_utf8dir_fetch_name returns the current entry's composed name, which belongs to the iterator
 * and is valid until the next zq_utf8dir_next(). Null when the name cannot be converted, and
 * without a current entry (zq_utf8dir_get_error() then gives ZQ_ERROR_INVALID_ARGUMENT). */
ZQ_API const char *zq_utf8dir_fetch_name(zqutf8dir *zqutf8dir);

/* zq_utf8dir_copy_name returns a copy of the composed name for the caller to free with zq_free(),
 * or null. */
ZQ_API char *zq_utf8dir_copy_name(zqutf8dir *zqutf8dir);

/* zq_utf8dir_is_directory returns 1 when the current entry is a directory, 0 when it is something
 * else (a link to a directory is a link), -1 on failure. */
ZQ_API int zq_utf8dir_is_directory(zqutf8dir *zqutf8dir);

/* zq_utf8dir_is_symlink returns 1 when the current entry is a symbolic link, else 0; -1 on
 * failure. */
ZQ_API int zq_utf8dir_is_symlink(zqutf8dir *zqutf8dir);

/* zq_utf8dir_get_size returns the current entry's size in bytes, or -1 on failure. */
ZQ_API int64_t zq_utf8dir_get_size(zqutf8dir *zqutf8dir);

/* zq_utf8dir_get_error returns ZQ_ERROR_INVALID_ARGUMENT after a name was asked for
 * without a current entry, until the end of the directory is reached; else ZQ_ERROR_NONE. */
ZQ_API zqerror zq_utf8dir_get_error(zqutf8dir *zqutf8dir);

/* zq_utf8dir_separator returns the character between the components of a path, '/'. */
ZQ_API char zq_utf8dir_separator(void);

/* zq_utf8dir_remove_recursive is zq_dir_remove_recursive() by composed names. An entry that is not
 * found under its composed name is logged and stays. */
ZQ_API int zq_utf8dir_remove_recursive(const char *path);

ZQ_END_DECLS

#endif
