#include "zq/internal/zqdiriterator.h"

#include <cerrno>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqowned.h"
#include "zq/io/zqdir.h"
#include "zq/util/zqprintf.h"
#include "zq/util/zqstring.h"

bool dir_iterator_open(dir_iterator *dir, const char *path, log_place place)
{
    if (path) {
        dir->path = zq_strdup(path);
        if (!dir->path) {
            ZQ_LOG_AT(place, 7, "not enough memory for path '%s'", path);
            return false;
        }
    }
    const char *name = path ? path : ".";
    dir->stream = opendir(name);
    if (!dir->stream) {
        int error = errno;
        ZQ_LOG_AT(place, 13, "unable to open directory '%s', error %d", name, error);
        return false;
    }
    return true;
}

void dir_iterator_clear(dir_iterator *dir)
{
    if (dir->zqstat)
        zq_stat_destroy(dir->zqstat);
    if (dir->stream)
        closedir(dir->stream);
    zq_free(dir->path);
}

int dir_iterator_next(dir_iterator *dir)
{
    dir->statvalid = 0;
    errno = 0;
    dir->entry = readdir(dir->stream);
    int error = errno;
    dir->valid = dir->entry != nullptr;
    if (dir->valid)
        return 0;
    if (error != 0)
        return error;
    dir->error = ZQ_ERROR_NONE;
    return -1;
}

bool dir_iterator_has_name(dir_iterator *dir, const dir_family &family, log_place place)
{
    if (dir->valid)
        return true;
    dir->error = ZQ_ERROR_INVALID_ARGUMENT;
    ZQ_LOG_AT(place, 6, "%s", family.no_entry);
    return false;
}

char *dir_iterator_copy_name(dir_iterator *dir, const dir_family &family, log_place place)
{
    const char *name = family.fetch_name(dir);
    if (!name) {
        ZQ_LOG_AT(place, 6, "unable to fetch entry name");
        return nullptr;
    }
    char *copy = zq_strdup(name);
    if (!copy)
        ZQ_LOG_AT(place, 7, "not enough memory for copying name '%s'", name);
    return copy;
}

// ---- status ----

static bool dir_iterator_stat_path(dir_iterator *dir, const char *path, log_place place)
{
    dir->statvalid = zq_stat_lstat(dir->zqstat, path) == 0;
    if (dir->statvalid)
        return true;
    ZQ_LOG_AT(place, 7, "unable to stat '%s'", path);
    return false;
}

// Makes the status that of the current entry; false after logging.
static bool dir_iterator_check_stat(dir_iterator *dir, const dir_family &family, log_place place)
{
    if (dir->statvalid)
        return true;
    const char *name = family.fetch_name(dir);
    if (!name) {
        ZQ_LOG_AT(place, 6, "unable to fetch the entry name");
        return false;
    }
    if (!dir->zqstat)
        dir->zqstat = zq_stat_create();
    if (!dir->zqstat) {
        ZQ_LOG_AT(place, 7, "unable to create zqstat context");
        return false;
    }
    if (!dir->path)
        return dir_iterator_stat_path(dir, name, place);
    owned_block<> path(zq_strdupf("%s%c%s", dir->path, zq_dir_separator(), name));
    if (!path) {
        ZQ_LOG_AT(place, 7, "not enough memory for stat path");
        return false;
    }
    return dir_iterator_stat_path(dir, path.get(), place);
}

// The status of the current entry, or null after logging.
static zqstat *dir_iterator_status(dir_iterator *dir, const dir_family &family, log_place place)
{
    if (!dir->valid) {
        ZQ_LOG_AT(place, 6, "%s", family.no_entry);
        return nullptr;
    }
    if (!dir_iterator_check_stat(dir, family, place)) {
        ZQ_ASSERT_TEXT(dir->statvalid == 0, "zqdir->statvalid == 0");
        ZQ_LOG_AT(place, 6, "calling stat() has failed");
        return nullptr;
    }
    return dir->zqstat;
}

int dir_iterator_is(dir_iterator *dir, int (*predicate)(zqstat *), const dir_family &family,
                    log_place place)
{
    zqstat *status = dir_iterator_status(dir, family, place);
    if (!status)
        return -1;
    int answer = predicate(status);
    if (answer < 0)
        ZQ_LOG_AT(place, 6, "INTERNAL ERROR: stat result was not valid");
    return answer;
}

int64_t dir_iterator_size(dir_iterator *dir, const dir_family &family, log_place place)
{
    zqstat *status = dir_iterator_status(dir, family, place);
    return status ? zq_stat_get_size(status) : -1;
}
