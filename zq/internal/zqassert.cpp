#include "zq/internal/zqassert.h"

#include <cstdio>
#include <cstdlib>

void zq_assert_failed(const char *function, const char *file, int line, const char *expression)
{
    fprintf(stderr, "%s:%d: %s: assertion \"%s\" failed\n", file, line, function, expression);
    fflush(stderr);
    abort();
}
