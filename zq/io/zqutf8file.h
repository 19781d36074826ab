#ifndef ZQ_IO_ZQUTF8FILE_H
#define ZQ_IO_ZQUTF8FILE_H

#include <stdio.h>

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* The functions of zqfile.h for UTF-8 names. Streams opened here are read, written, moved and
 * closed with the zq_file functions. Names are passed on as they are, without normalisation. */

/* zq_utf8file_create_binary is zq_file_create_binary() for a UTF-8 name. */
ZQ_API FILE *zq_utf8file_create_binary(const char *filename);

/* zq_utf8file_open_binary is zq_file_open_binary() for a UTF-8 name. */
ZQ_API FILE *zq_utf8file_open_binary(const char *filename);

/* zq_utf8file_create_ascii is zq_file_create_ascii() for a UTF-8 name. */
ZQ_API FILE *zq_utf8file_create_ascii(const char *filename);

/* zq_utf8file_append_ascii is zq_file_append_ascii() for a UTF-8 name. */
ZQ_API FILE *zq_utf8file_append_ascii(const char *filename);

/* zq_utf8file_exists is zq_file_exists() for a UTF-8 name. */
ZQ_API int zq_utf8file_exists(const char *filename);

/* zq_utf8file_data_save is zq_file_data_save() for a UTF-8 name. */
ZQ_API int zq_utf8file_data_save(const char *filename, const void *data, size_t datalen);

/* zq_utf8file_data_load is zq_file_data_load() for a UTF-8 name. */
ZQ_API int zq_utf8file_data_load(const char *filename, char **dataptr, size_t *datalenptr);

/* zq_utf8file_data_save_with_backup is zq_file_data_save_with_backup() for a UTF-8 name, with one
 * difference: when the target cannot be made the backup it logs that, deletes the temporary file
 * and returns 0, although the new data was not stored. */
ZQ_API int zq_utf8file_data_save_with_backup(const char *filename, const void *data,
                                             size_t datalen);

/* zq_utf8file_data_load_with_backup is zq_file_data_load_with_backup() for a UTF-8 name. */
ZQ_API int zq_utf8file_data_load_with_backup(const char *filename, char **dataptr,
                                             size_t *datalenptr);

ZQ_END_DECLS

#endif
