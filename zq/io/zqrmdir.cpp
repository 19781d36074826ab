#include "zq/io/zqrmdir.h"

#include <unistd.h>

#include "zq/internal/zqassert.h"

int zq_rmdir(const char *pathname)
{
    ZQ_ASSERT(pathname != NULL);

    return rmdir(pathname);
}

int zq_utf8rmdir(const char *pathname)
{
    ZQ_ASSERT(pathname != NULL);

    return zq_rmdir(pathname);
}
