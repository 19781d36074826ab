#ifndef ZQ_IO_ZQFILE_H
#define ZQ_IO_ZQFILE_H

#include <stdio.h>

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Files: buffered streams, whole-file load and save, and saving with a backup. Names are in the
 * platform's own encoding; zqutf8file.h takes UTF-8 names.
 *
 * A file is the platform's FILE, the caller's from the open call to zq_file_close(). Failures are
 * returned with the platform's errno set and are not logged, except where stated. There are no
 * locks beyond those of the streams themselves: any thread. */

/* ---- opening; each returns the stream, or null with errno set ---- */

/* zq_file_create_binary creates or empties a file for writing (mode "wb"). */
ZQ_API FILE *zq_file_create_binary(const char *filename);

/* zq_file_open_binary opens an existing file for reading ("rb"). */
ZQ_API FILE *zq_file_open_binary(const char *filename);

/* zq_file_update_binary opens an existing file for reading and writing ("rb+"). */
ZQ_API FILE *zq_file_update_binary(const char *filename);

/* zq_file_create_ascii creates or empties a text file for writing ("w"). */
ZQ_API FILE *zq_file_create_ascii(const char *filename);

/* zq_file_open_ascii opens an existing text file for reading ("r"). */
ZQ_API FILE *zq_file_open_ascii(const char *filename);

/* zq_file_append_ascii opens or creates a text file for writing at its end ("a"). */
ZQ_API FILE *zq_file_append_ascii(const char *filename);

/* ---- stream operations ---- */

/* zq_file_read reads up to `count` bytes. Returns the bytes read; fewer than `count` at the end of
 * the file or on an error, which feof() and ferror() tell apart. */
ZQ_API size_t zq_file_read(FILE *file, void *buffer, size_t count);

/* zq_file_write writes `count` bytes. Returns the bytes taken, fewer than `count` on an error. The
 * stream buffers: what was taken may still fail to be stored, which zq_file_close() reports. */
ZQ_API size_t zq_file_write(FILE *file, const void *buffer, size_t count);

/* zq_file_seek is the platform's fseek(): 0, or -1 with errno set. `whence` is SEEK_SET, SEEK_CUR
 * or SEEK_END. */
ZQ_API int zq_file_seek(FILE *file, long offset, int whence);

/* zq_file_seek64 is zq_file_seek for 64-bit offsets, whatever the width of a `long`. Returns 0, or
 * the non-zero result of the platform's seek that failed. A negative offset with SEEK_SET gives -1
 * and a log line. SEEK_SET first rewinds the stream, which clears its error indicator and reports
 * no failure of its own. */
ZQ_API int zq_file_seek64(FILE *file, int64_t offset, int whence);

/* zq_file_seek_forwards_64 moves `distance` bytes forward from the current position. Returns 0, or
 * the result of the platform's seek that failed; on failure part of the way may have been gone. */
ZQ_API int zq_file_seek_forwards_64(FILE *file, uint64_t distance);

/* zq_file_seek_backwards_64 moves `distance` bytes backward; results as for forwards. */
ZQ_API int zq_file_seek_backwards_64(FILE *file, uint64_t distance);

/* zq_file_get_length returns the length of the file in bytes, or -1. The position is kept. */
ZQ_API int64_t zq_file_get_length(FILE *file);

/* zq_file_close is the platform's fclose(): 0, or EOF with errno set when buffered data could not
 * be stored. The stream is gone either way. */
ZQ_API int zq_file_close(FILE *file);

/* ---- whole files ---- */

/* zq_file_exists returns 1 when there is a file of any type with that name (links are followed), 0
 * when there is none, -1 when that cannot be told, as behind a directory without permission. */
ZQ_API int zq_file_exists(const char *filename);

/* zq_file_data_save makes `data` the whole content of the file. `data` may be null when `datalen`
 * is 0. Returns 0, or -1 when the file cannot be created or does not take all the data; it may then
 * exist with part of it. The result of closing the file is not looked at, so data still buffered
 * then, as on a full disk, can be lost unnoticed. */
ZQ_API int zq_file_data_save(const char *filename, const void *data, size_t datalen);

/* zq_file_data_load reads a whole file into a new block, which the caller frees with zq_free(). The
 * block has one more byte after the data, always 0, so that text can be used as a string at once;
 * *datalenptr does not count it. `datalenptr` may be null. Returns 0, or -1 with *dataptr null and
 * *datalenptr 0. */
ZQ_API int zq_file_data_load(const char *filename, char **dataptr, size_t *datalenptr);

/* zq_file_data_save_with_backup saves like zq_file_data_save, but through a temporary file beside
 * the target (its name with ".tmp") and keeps the previous content as a backup (its name with
 * ".bak"), so that zq_file_data_load_with_backup() finds the new or the previous content even when
 * the process ends in between. The steps: write the temporary file; if the target exists, delete
 * the old backup and rename the target as the backup; rename the temporary file as the target.
 *
 * Returns 0, or non-zero after logging why:
 *   the temporary file cannot be written    target and backup are untouched (nothing is logged
 *                                           about the writing itself)
 *   the target cannot be made the backup    the target is untouched, the old backup is gone
 *   the target cannot be put in place       the previous content is in the backup only
 * The temporary file is deleted after a failure. Data is handed to the system, not forced to the
 * disk: a crash of the whole machine is not covered, and as with zq_file_data_save() the closing of
 * the temporary file is not looked at. Two saves of one name at once disturb each other. */
ZQ_API int zq_file_data_save_with_backup(const char *filename, const void *data, size_t datalen);

/* zq_file_data_load_with_backup loads like zq_file_data_load; if, and only if, the file cannot be
 * opened it loads the backup of zq_file_data_save_with_backup() instead. */
ZQ_API int zq_file_data_load_with_backup(const char *filename, char **dataptr, size_t *datalenptr);

ZQ_END_DECLS

#endif
