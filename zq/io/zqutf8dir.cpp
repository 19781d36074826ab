#include "zq/io/zqutf8dir.h"

#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqdiriterator.h"
#include "zq/internal/zqdirremoval.h"
#include "zq/internal/zqnormalize.h"
#include "zq/internal/zqowned.h"

struct zqutf8dir : dir_iterator {
    char *nfcname; // the current entry's composed name once it was asked for
};

// ---- what makes the family ----

static zqutf8dir *zq_utf8dir_create()
{
    zqutf8dir *dir = make_zeroed<zqutf8dir>();
    if (!dir)
        ZQ_LOG(7, "not enough memory for directory handle");
    return dir;
}

static constexpr dir_family family = {
    .no_entry = "zq_utf8dir_next() has not been successfully called",
    .create = []() -> dir_iterator * { return zq_utf8dir_create(); },
    .destroy = [](dir_iterator *dir) { zq_utf8dir_destroy(static_cast<zqutf8dir *>(dir)); },
    .next = [](dir_iterator *dir) { return zq_utf8dir_next(static_cast<zqutf8dir *>(dir)); },
    .fetch_name =
        [](dir_iterator *dir) { return zq_utf8dir_fetch_name(static_cast<zqutf8dir *>(dir)); },
    // Naming another function is meant: existing readers of traces look for it.
    .trace_remove = "zq_file_remove_recursive(%s)",
    .trace_deletefile = "zq_utf8deletefile(%s)",
    .trace_rmdir = "zq_utf8rmdir(%s)",
};

// ---- reading a directory ----

zqutf8dir *zq_utf8dir_open(const char *path)
{
    owned<zqutf8dir, zq_utf8dir_destroy> dir(zq_utf8dir_create());
    if (!dir || !dir_iterator_open(dir.get(), path, ZQ_HERE))
        return nullptr;
    return dir.release();
}

void zq_utf8dir_destroy(zqutf8dir *zqutf8dir)
{
    ZQ_ASSERT(zqutf8dir != NULL);

    dir_iterator_clear(zqutf8dir);
    zq_free(zqutf8dir->nfcname);
    zq_free(zqutf8dir);
}

int zq_utf8dir_next(zqutf8dir *zqutf8dir)
{
    ZQ_ASSERT(zqutf8dir != NULL);

    zq_free(zqutf8dir->nfcname);
    zqutf8dir->nfcname = nullptr;
    return dir_iterator_next(zqutf8dir);
}

static char *zq_utf8dir_nfd_to_nfc(const char *nfd)
{
    ZQ_ASSERT(nfd != NULL);

    size_t size = strlen(nfd) + 1;
    owned_block<> nfc(static_cast<char *>(zq_malloc(size)));
    if (!nfc) {
        ZQ_LOG(7, "not enough memory for NFC string buffer (%lu bytes)",
               static_cast<unsigned long>(size));
        return nullptr;
    }
    if (!utf8_nfc(nfd, nfc.get(), size)) {
        ZQ_LOG(7, "unable to convert NFD string to NFC");
        return nullptr;
    }
    return nfc.release();
}

const char *zq_utf8dir_fetch_name(zqutf8dir *zqutf8dir)
{
    ZQ_ASSERT(zqutf8dir != NULL);

    if (!dir_iterator_has_name(zqutf8dir, family, ZQ_HERE))
        return nullptr;
    ZQ_ASSERT(zqutf8dir->entry != NULL);
    if (!zqutf8dir->nfcname)
        zqutf8dir->nfcname = zq_utf8dir_nfd_to_nfc(zqutf8dir->entry->d_name);
    if (!zqutf8dir->nfcname)
        ZQ_LOG(7, "not enough memory to convert the filename to NFC");
    return zqutf8dir->nfcname;
}

char *zq_utf8dir_copy_name(zqutf8dir *zqutf8dir)
{
    ZQ_ASSERT(zqutf8dir != NULL);

    return dir_iterator_copy_name(zqutf8dir, family, ZQ_HERE);
}

int zq_utf8dir_is_directory(zqutf8dir *zqutf8dir)
{
    ZQ_ASSERT(zqutf8dir != NULL);

    return dir_iterator_is(zqutf8dir, zq_stat_is_directory, family, ZQ_HERE);
}

int zq_utf8dir_is_symlink(zqutf8dir *zqutf8dir)
{
    ZQ_ASSERT(zqutf8dir != NULL);

    return dir_iterator_is(zqutf8dir, zq_stat_is_symlink, family, ZQ_HERE);
}

int64_t zq_utf8dir_get_size(zqutf8dir *zqutf8dir)
{
    ZQ_ASSERT(zqutf8dir != NULL);

    return dir_iterator_size(zqutf8dir, family, ZQ_HERE);
}

zqerror zq_utf8dir_get_error(zqutf8dir *zqutf8dir)
{
    ZQ_ASSERT(zqutf8dir != NULL);

    return zqutf8dir->error;
}

// ---- the rest ----

char zq_utf8dir_separator(void)
{
    return '/';
}

int zq_utf8dir_remove_recursive(const char *path)
{
    ZQ_ASSERT(path != NULL);

    return dir_remove_recursive(path, family, ZQ_HERE);
}
