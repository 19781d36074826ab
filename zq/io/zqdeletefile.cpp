#include "zq/io/zqdeletefile.h"

#include <cerrno>
#include <unistd.h>

#include "zq/adt/zqwchar.h"
#include "zq/internal/zqassert.h"
#include "zq/internal/zqowned.h"

int zq_deletefile(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return unlink(filename);
}

int zq_utf8deletefile(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_deletefile(filename);
}

int zq_wdeletefile(const wchar_t *wfilename)
{
    ZQ_ASSERT(wfilename != NULL);

    owned_block<> filename(zq_wchar_to_utf8(wfilename));
    if (!filename) {
        errno = ENOMEM;
        return -1;
    }
    return zq_deletefile(filename.get());
}
