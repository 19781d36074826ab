#include "zq/io/zqdir.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqdiriterator.h"
#include "zq/internal/zqdirremoval.h"
#include "zq/internal/zqowned.h"

struct zqdir : dir_iterator {};

// ---- what makes the family ----

static zqdir *zq_dir_create()
{
    zqdir *dir = make_zeroed<zqdir>();
    if (!dir)
        ZQ_LOG(7, "not enough memory for directory handle");
    return dir;
}

static constexpr dir_family family = {
    .no_entry = "zq_dir_next() has not been successfully called",
    .create = []() -> dir_iterator * { return zq_dir_create(); },
    .destroy = [](dir_iterator *dir) { zq_dir_destroy(static_cast<zqdir *>(dir)); },
    .next = [](dir_iterator *dir) { return zq_dir_next(static_cast<zqdir *>(dir)); },
    .fetch_name = [](dir_iterator *dir) { return zq_dir_fetch_name(static_cast<zqdir *>(dir)); },
    .trace_remove = "zq_dir_remove_recursive(%s)",
    .trace_deletefile = "zq_deletefile(%s)",
    .trace_rmdir = "zq_rmdir(%s)",
};

// ---- reading a directory ----

zqdir *zq_dir_open(const char *path)
{
    owned<zqdir, zq_dir_destroy> dir(zq_dir_create());
    if (!dir || !dir_iterator_open(dir.get(), path, ZQ_HERE))
        return nullptr;
    return dir.release();
}

void zq_dir_destroy(zqdir *zqdir)
{
    ZQ_ASSERT(zqdir != NULL);

    dir_iterator_clear(zqdir);
    zq_free(zqdir);
}

int zq_dir_next(zqdir *zqdir)
{
    ZQ_ASSERT(zqdir != NULL);

    return dir_iterator_next(zqdir);
}

const char *zq_dir_fetch_name(zqdir *zqdir)
{
    ZQ_ASSERT(zqdir != NULL);

    if (!dir_iterator_has_name(zqdir, family, ZQ_HERE))
        return nullptr;
    ZQ_ASSERT(zqdir->entry != NULL);
    return zqdir->entry->d_name;
}

char *zq_dir_copy_name(zqdir *zqdir)
{
    ZQ_ASSERT(zqdir != NULL);

    return dir_iterator_copy_name(zqdir, family, ZQ_HERE);
}

int zq_dir_is_directory(zqdir *zqdir)
{
    ZQ_ASSERT(zqdir != NULL);

    return dir_iterator_is(zqdir, zq_stat_is_directory, family, ZQ_HERE);
}

int zq_dir_is_symlink(zqdir *zqdir)
{
    ZQ_ASSERT(zqdir != NULL);

    return dir_iterator_is(zqdir, zq_stat_is_symlink, family, ZQ_HERE);
}

int64_t zq_dir_get_size(zqdir *zqdir)
{
    ZQ_ASSERT(zqdir != NULL);

    return dir_iterator_size(zqdir, family, ZQ_HERE);
}

zqerror zq_dir_get_error(zqdir *zqdir)
{
    ZQ_ASSERT(zqdir != NULL);

    return zqdir->error;
}

// ---- the rest ----

char zq_dir_separator(void)
{
    return '/';
}

int zq_dir_remove_recursive(const char *path)
{
    ZQ_ASSERT(path != NULL);

    return dir_remove_recursive(path, family, ZQ_HERE);
}
