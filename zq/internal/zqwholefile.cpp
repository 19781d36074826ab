#include "zq/internal/zqwholefile.h"

#include <cerrno>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqowned.h"
#include "zq/io/zqdeletefile.h"
#include "zq/io/zqfile.h"
#include "zq/io/zqrename.h"
#include "zq/util/zqprintf.h"

// The streams here never reach a caller, so programs started meanwhile need not inherit them.

FILE *whole_file_open(const char *filename)
{
    return fopen(filename, "rbe");
}

// The content from the start to the end of `file`, or null.
static char *whole_file_read(FILE *file, size_t *lenptr)
{
    // A file whose end cannot be found would pass for an empty one.
    off_t end = fseek(file, 0, SEEK_END) == 0 ? ftello(file) : -1;
    if (end < 0)
        return nullptr;
    if (static_cast<uint64_t>(end) >= PTRDIFF_MAX) {
        // Some directories claim this length.
        errno = EFBIG;
        return nullptr;
    }
    if (fseek(file, 0, SEEK_SET) != 0)
        return nullptr;

    size_t len = static_cast<size_t>(end);
    owned_block<> data(static_cast<char *>(zq_malloc(len + 1)));
    if (!data)
        return nullptr;
    data.get()[len] = '\0';
    if (zq_file_read(file, data.get(), len) != len)
        return nullptr;
    *lenptr = len;
    return data.release();
}

int whole_file_load(FILE *file, char **dataptr, size_t *datalenptr)
{
    size_t len = 0;
    *dataptr = nullptr;
    if (file) {
        *dataptr = whole_file_read(file, &len);
        zq_file_close(file);
    }
    if (datalenptr)
        *datalenptr = len;
    return *dataptr ? 0 : -1;
}

int whole_file_save(const char *filename, const void *data, size_t datalen)
{
    FILE *file = fopen(filename, "wbe");
    if (!file)
        return -1;
    size_t written = 0;
    if (datalen != 0) {
        ZQ_ASSERT(data != NULL);
        written = zq_file_write(file, data, datalen);
    }
    // Not looking at the result of closing is meant: the answer is about writing alone.
    zq_file_close(file);
    return written == datalen ? 0 : -1;
}

// The names beside a target, whose renames stay within one file system.
static char *whole_file_temporary_name(const char *filename)
{
    return zq_strdupf("%s.tmp", filename);
}

static char *whole_file_backup_name(const char *filename)
{
    return zq_strdupf("%s.bak", filename);
}

// Returns whether the temporary file has become the target; *result is what to report.
static bool whole_file_replace(const char *filename, const char *temporary, const char *backup,
                               const backup_style &style, int *result)
{
    if (zq_file_exists(filename) == 1) {
        zq_deletefile(backup); // there may be none
        *result = zq_rename(filename, backup);
        if (*result != 0) {
            ZQ_LOG_AT(style.place, 7, "unable to rename the previous file as the backup file");
            if (style.hides_failed_backup)
                *result = 0;
            return false;
        }
    }
    *result = zq_rename(temporary, filename);
    if (*result != 0)
        ZQ_LOG_AT(style.place, 7, "unable to rename '%s' as '%s'", temporary, filename);
    return *result == 0;
}

int whole_file_save_with_backup(const char *filename, const void *data, size_t datalen,
                                const backup_style &style)
{
    owned_block<> temporary(whole_file_temporary_name(filename));
    if (!temporary) {
        ZQ_LOG_AT(style.place, 7, "not enough memory for temporary file name");
        return -1;
    }
    owned_block<> backup(whole_file_backup_name(filename));
    if (!backup) {
        ZQ_LOG_AT(style.place, 7, "not enough memory for backup file name");
        return -1;
    }

    int result = whole_file_save(temporary.get(), data, datalen);
    if (result == 0 && whole_file_replace(filename, temporary.get(), backup.get(), style, &result))
        return 0;
    if (zq_deletefile(temporary.get()) != 0)
        ZQ_LOG_AT(style.place, 7, "unable to delete the temporary file");
    return result;
}

int whole_file_load_with_backup(const char *filename, char **dataptr, size_t *datalenptr,
                                log_place place)
{
    FILE *file = whole_file_open(filename);
    if (!file) {
        owned_block<> backup(whole_file_backup_name(filename));
        if (backup)
            file = whole_file_open(backup.get());
        else
            ZQ_LOG_AT(place, 7, "not enough memory for backup file name '%s.bak'", filename);
    }
    return whole_file_load(file, dataptr, datalenptr);
}
