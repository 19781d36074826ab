#ifndef ZQ_INTERNAL_ZQDIRITERATOR_H
#define ZQ_INTERNAL_ZQDIRITERATOR_H

#include <dirent.h>

#include "zq/internal/zqlogline.h"
#include "zq/io/zqstat.h"
#include "zq/util/zqerror.h"

// A directory being read, as both directory families keep it. Helpers log in the name of their
// caller.
struct dir_iterator {
    char *path; // null: the current directory, opened without a name
    DIR *stream;
    int valid;     // `entry` is the current entry
    dirent *entry; // the platform's, good until the next one is read
    int statvalid; // `zqstat` holds the status of the current entry
    struct zqstat *zqstat;
    zqerror error; // of misuse
};

// How the two families differ.
struct dir_family {
    const char *no_entry; // the report of asking without an entry
    dir_iterator *(*create)();
    void (*destroy)(dir_iterator *dir);
    int (*next)(dir_iterator *dir);
    const char *(*fetch_name)(dir_iterator *dir);
    // what removal traces, each with one path
    const char *trace_remove;
    const char *trace_deletefile;
    const char *trace_rmdir;
};

// False after logging.
bool dir_iterator_open(dir_iterator *dir, const char *path, log_place place);

// Releases what the iterator owns, all of which may be missing.
void dir_iterator_clear(dir_iterator *dir);

// The result of zq_dir_next().
int dir_iterator_next(dir_iterator *dir);

// Whether there is a current entry to fetch the name of; logged and kept as an error if not.
bool dir_iterator_has_name(dir_iterator *dir, const dir_family &family, log_place place);

char *dir_iterator_copy_name(dir_iterator *dir, const dir_family &family, log_place place);

// The answer of a zq_stat predicate about the current entry, or -1.
int dir_iterator_is(dir_iterator *dir, int (*predicate)(zqstat *), const dir_family &family,
                    log_place place);

// The current entry's size, or -1.
int64_t dir_iterator_size(dir_iterator *dir, const dir_family &family, log_place place);

#endif
