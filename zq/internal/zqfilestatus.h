#ifndef ZQ_INTERNAL_ZQFILESTATUS_H
#define ZQ_INTERNAL_ZQFILESTATUS_H

#include <cstdint>
#include <sys/stat.h>

// The status of a file, as both status families keep it; the answers are theirs.
struct file_status {
    int valid; // `record` holds a status
    struct stat record;

    int take(const char *path)
    {
        int result = lstat(path, &record);
        valid = result == 0;
        return result;
    }

    int is(mode_t type) const { return valid ? (record.st_mode & S_IFMT) == type : -1; }

    int64_t size() const { return valid ? record.st_size : -1; }
};

#endif
