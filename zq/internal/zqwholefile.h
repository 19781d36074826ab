#ifndef ZQ_INTERNAL_ZQWHOLEFILE_H
#define ZQ_INTERNAL_ZQWHOLEFILE_H

#include <cstdio>

#include "zq/internal/zqlogline.h"

// Whole-file load and save, behind the native and the UTF-8 functions.

// Opens for whole_file_load(); null on failure.
FILE *whole_file_open(const char *filename);

// Takes and closes the stream; a null one fails. On failure the data is null and its length 0.
int whole_file_load(FILE *file, char **dataptr, size_t *datalenptr);

int whole_file_save(const char *filename, const void *data, size_t datalen);

// Where the two families of saving with a backup differ.
struct backup_style {
    log_place place;
    bool hides_failed_backup; // a previous file that cannot be made the backup still gives 0
};

int whole_file_save_with_backup(const char *filename, const void *data, size_t datalen,
                                const backup_style &style);

int whole_file_load_with_backup(const char *filename, char **dataptr, size_t *datalenptr,
                                log_place place);

#endif
