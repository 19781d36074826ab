#ifndef ZQ_IO_ZQMKDIR_H
#define ZQ_IO_ZQMKDIR_H

#include "zq/util/zqerror.h"

ZQ_BEGIN_DECLS

/* Making directories, with permissions 0777 under the process mask. Any thread. */

/* zq_mkdir makes one directory. The platform's mkdir() result: 0, or -1 with errno set. */
ZQ_API int zq_mkdir(const char *pathname);

/* zq_mkdir_recursive makes a directory and those above it that are missing.
 *   ZQ_ERROR_NONE                  it is there now, newly or already
 *   ZQ_ERROR_EXISTS                something that is not a directory has that name
 *   ZQ_ERROR_PERMISSION_DENIED     EPERM, EACCES
 *   ZQ_ERROR_NOT_DIRECTORY         ENOTDIR, ENOENT: part of the path is not a directory
 *   ZQ_ERROR_NO_MEMORY, ZQ_ERROR_NO_SPACE, ZQ_ERROR_READ_ONLY_FILESYSTEM,
 *   ZQ_ERROR_TOO_MANY_LINKS, ZQ_ERROR_SYMLINK_LOOP, ZQ_ERROR_NAME_TOO_LONG
 *                                  as the system says
 *   ZQ_ERROR_GENERIC               anything else, with its number logged
 * A link to a directory counts as no directory at the end of the path (ZQ_ERROR_EXISTS), and as
 * one on the way. A file's name with a slash after it gives ZQ_ERROR_NONE where mkdir() finds that
 * it exists. Directories made before a failure stay. */
ZQ_API zqerror zq_mkdir_recursive(const char *pathname);

/* zq_mkdir_file_path makes the directories that are missing above a file: everything before the
 * last slash of `filename`. Returns 0, also when there is nothing to make, or -1 after logging. */
ZQ_API int zq_mkdir_file_path(const char *filename);

/* zq_utf8mkdir is zq_mkdir() for a UTF-8 path. */
ZQ_API int zq_utf8mkdir(const char *pathname);

/* zq_utf8mkdir_recursive is zq_mkdir_recursive() for a UTF-8 path. */
ZQ_API zqerror zq_utf8mkdir_recursive(const char *pathname);

/* zq_utf8mkdir_file_path is zq_mkdir_file_path() for a UTF-8 name. */
ZQ_API int zq_utf8mkdir_file_path(const char *filename);

ZQ_END_DECLS

#endif
