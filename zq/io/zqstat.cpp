#include "zq/io/zqstat.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqfilestatus.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"

struct zqstat : file_status {};

zqstat *zq_stat_create(void)
{
    zqstat *status = make_zeroed<zqstat>();
    if (!status)
        ZQ_LOG(7, "not enough memory for zqstat");
    return status;
}

void zq_stat_destroy(zqstat *zqstat)
{
    ZQ_ASSERT(zqstat != NULL);

    zq_free(zqstat);
}

int zq_stat_lstat(zqstat *zqstat, const char *path)
{
    ZQ_ASSERT(zqstat != NULL);
    ZQ_ASSERT(path != NULL);

    return zqstat->take(path);
}

int zq_stat_is_directory(zqstat *zqstat)
{
    ZQ_ASSERT(zqstat != NULL);

    return zqstat->is(S_IFDIR);
}

int zq_stat_is_symlink(zqstat *zqstat)
{
    ZQ_ASSERT(zqstat != NULL);

    return zqstat->is(S_IFLNK);
}

int64_t zq_stat_get_size(zqstat *zqstat)
{
    ZQ_ASSERT(zqstat != NULL);

    return zqstat->size();
}
