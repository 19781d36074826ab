#include "zq/io/zqutf8stat.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqfilestatus.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"

struct zqutf8stat : file_status {};

zqutf8stat *zq_utf8stat_create(void)
{
    zqutf8stat *status = make_zeroed<zqutf8stat>();
    if (!status)
        ZQ_LOG(7, "not enough memory for zqstat");
    return status;
}

void zq_utf8stat_destroy(zqutf8stat *zqutf8stat)
{
    ZQ_ASSERT(zqutf8stat != NULL);

    zq_free(zqutf8stat);
}

int zq_utf8stat_lstat(zqutf8stat *zqutf8stat, const char *path)
{
    ZQ_ASSERT(zqutf8stat != NULL);
    ZQ_ASSERT(path != NULL);

    return zqutf8stat->take(path);
}

int zq_utf8stat_is_directory(zqutf8stat *zqutf8stat)
{
    ZQ_ASSERT(zqutf8stat != NULL);

    return zqutf8stat->is(S_IFDIR);
}

int zq_utf8stat_is_symlink(zqutf8stat *zqutf8stat)
{
    ZQ_ASSERT(zqutf8stat != NULL);

    return zqutf8stat->is(S_IFLNK);
}

int64_t zq_utf8stat_get_size(zqutf8stat *zqutf8stat)
{
    ZQ_ASSERT(zqutf8stat != NULL);

    return zqutf8stat->size();
}
