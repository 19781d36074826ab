// File names are UTF-8 on the platforms served, so nearly everything is the native function's.
#include "zq/io/zqutf8file.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqwholefile.h"
#include "zq/io/zqfile.h"

FILE *zq_utf8file_create_binary(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_file_create_binary(filename);
}

FILE *zq_utf8file_open_binary(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_file_open_binary(filename);
}

FILE *zq_utf8file_create_ascii(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_file_create_ascii(filename);
}

FILE *zq_utf8file_append_ascii(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_file_append_ascii(filename);
}

int zq_utf8file_exists(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_file_exists(filename);
}

int zq_utf8file_data_save(const char *filename, const void *data, size_t datalen)
{
    ZQ_ASSERT(filename != NULL);
    ZQ_ASSERT(data != NULL || datalen == 0);

    return zq_file_data_save(filename, data, datalen);
}

int zq_utf8file_data_load(const char *filename, char **dataptr, size_t *datalenptr)
{
    ZQ_ASSERT(filename != NULL);
    ZQ_ASSERT(dataptr != NULL);

    return zq_file_data_load(filename, dataptr, datalenptr);
}

int zq_utf8file_data_save_with_backup(const char *filename, const void *data, size_t datalen)
{
    ZQ_ASSERT(filename != NULL);
    ZQ_ASSERT(data != NULL || datalen == 0);

    // Hiding that failure is meant: callers of this set rely on 0 there.
    return whole_file_save_with_backup(filename, data, datalen,
                                       {.place = ZQ_HERE, .hides_failed_backup = true});
}

int zq_utf8file_data_load_with_backup(const char *filename, char **dataptr, size_t *datalenptr)
{
    ZQ_ASSERT(filename != NULL);
    ZQ_ASSERT(dataptr != NULL);

    return whole_file_load_with_backup(filename, dataptr, datalenptr, ZQ_HERE);
}
