#include "zq/io/zqrename.h"

#include <cstdio>

#include "zq/internal/zqassert.h"

int zq_rename(const char *oldpath, const char *newpath)
{
    ZQ_ASSERT(oldpath != NULL);
    ZQ_ASSERT(newpath != NULL);

    return rename(oldpath, newpath);
}

int zq_utf8rename(const char *oldpath, const char *newpath)
{
    ZQ_ASSERT(oldpath != NULL);
    ZQ_ASSERT(newpath != NULL);

    return zq_rename(oldpath, newpath);
}
