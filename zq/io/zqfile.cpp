#include "zq/io/zqfile.h"

#include <cerrno>
#include <climits>
#include <sys/stat.h>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqwholefile.h"

// ---- opening ----

static FILE *zq_file_fopen(const char *filename, const char *mode)
{
    ZQ_ASSERT(filename != NULL);
    ZQ_ASSERT(mode != NULL);

    return fopen(filename, mode);
}

FILE *zq_file_create_binary(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_file_fopen(filename, "wb");
}

FILE *zq_file_open_binary(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_file_fopen(filename, "rb");
}

FILE *zq_file_update_binary(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_file_fopen(filename, "rb+");
}

FILE *zq_file_create_ascii(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_file_fopen(filename, "w");
}

FILE *zq_file_open_ascii(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_file_fopen(filename, "r");
}

FILE *zq_file_append_ascii(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_file_fopen(filename, "a");
}

// ---- stream operations ----

size_t zq_file_read(FILE *file, void *buffer, size_t count)
{
    ZQ_ASSERT(file != NULL);
    ZQ_ASSERT(buffer != NULL);

    return fread(buffer, 1, count, file);
}

size_t zq_file_write(FILE *file, const void *buffer, size_t count)
{
    ZQ_ASSERT(file != NULL);
    ZQ_ASSERT(buffer != NULL);

    return fwrite(buffer, 1, count, file);
}

int zq_file_seek(FILE *file, long offset, int whence)
{
    ZQ_ASSERT(file != NULL);
    ZQ_ASSERT(whence == SEEK_SET || whence == SEEK_CUR || whence == SEEK_END);

    return fseek(file, offset, whence);
}

static int zq_file_seek_relative_64(FILE *file, int64_t offset)
{
    if (offset < 0)
        return zq_file_seek_backwards_64(file, -static_cast<uint64_t>(offset));
    return zq_file_seek_forwards_64(file, static_cast<uint64_t>(offset));
}

int zq_file_seek64(FILE *file, int64_t offset, int whence)
{
    ZQ_ASSERT(file != NULL);
    ZQ_ASSERT(whence == SEEK_SET || whence == SEEK_CUR || whence == SEEK_END);

    int result;
    switch (whence) {
    case SEEK_SET:
        if (offset < 0) {
            ZQ_LOG(6, "SEEK_SET cannot be called with a negative offset");
            return -1;
        }
        rewind(file);
        return zq_file_seek_forwards_64(file, static_cast<uint64_t>(offset));
    case SEEK_END:
        result = fseek(file, 0, SEEK_END);
        if (result != 0) {
            ZQ_LOG(6, "Failed to seek at the end of the file");
            return result;
        }
        return zq_file_seek_relative_64(file, offset);
    case SEEK_CUR:
        return zq_file_seek_relative_64(file, offset);
    default:
        // Kept beside the assertion on purpose: neither check relies on the other.
        ZQ_LOG(6, "Called with an invalid value %d for whence", whence);
        errno = EINVAL;
        return -1;
    }
}

// The steps below let 64-bit distances work where a `long` has 32 bits.

int zq_file_seek_forwards_64(FILE *file, uint64_t distance)
{
    ZQ_ASSERT(file != NULL);

    int result = 0;
    while (distance > 0 && result == 0) {
        long step = distance <= LONG_MAX ? static_cast<long>(distance) : LONG_MAX;
        result = fseek(file, step, SEEK_CUR);
        distance -= static_cast<uint64_t>(step);
    }
    return result;
}

int zq_file_seek_backwards_64(FILE *file, uint64_t distance)
{
    ZQ_ASSERT(file != NULL);

    int result = 0;
    while (distance > 0 && result == 0) {
        long step = distance <= LONG_MAX ? -static_cast<long>(distance) : LONG_MIN;
        result = fseek(file, step, SEEK_CUR);
        distance -= -static_cast<uint64_t>(step);
    }
    return result;
}

int64_t zq_file_get_length(FILE *file)
{
    fpos_t position;
    if (fgetpos(file, &position) != 0)
        return -1;
    if (fseek(file, 0, SEEK_END) != 0)
        return -1;
    off_t length = ftello(file);
    if (fsetpos(file, &position) != 0)
        return -1;
    return length;
}

int zq_file_close(FILE *file)
{
    ZQ_ASSERT(file != NULL);

    return fclose(file);
}

// ---- whole files ----

int zq_file_exists(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    struct stat status;
    if (stat(filename, &status) == 0)
        return 1;
    return errno == ENOENT ? 0 : -1;
}

int zq_file_data_save(const char *filename, const void *data, size_t datalen)
{
    ZQ_ASSERT(filename != NULL);
    ZQ_ASSERT(data != NULL || datalen == 0);

    return whole_file_save(filename, data, datalen);
}

int zq_file_data_load(const char *filename, char **dataptr, size_t *datalenptr)
{
    ZQ_ASSERT(filename != NULL);
    ZQ_ASSERT(dataptr != NULL);

    return whole_file_load(whole_file_open(filename), dataptr, datalenptr);
}

int zq_file_data_save_with_backup(const char *filename, const void *data, size_t datalen)
{
    ZQ_ASSERT(filename != NULL);
    ZQ_ASSERT(data != NULL || datalen == 0);

    return whole_file_save_with_backup(filename, data, datalen,
                                       {.place = ZQ_HERE, .hides_failed_backup = false});
}

int zq_file_data_load_with_backup(const char *filename, char **dataptr, size_t *datalenptr)
{
    ZQ_ASSERT(filename != NULL);
    ZQ_ASSERT(dataptr != NULL);

    return whole_file_load_with_backup(filename, dataptr, datalenptr, ZQ_HERE);
}
