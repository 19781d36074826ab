#include "zq/io/zqtruncate.h"

#include <unistd.h>

#include "zq/internal/zqassert.h"

int zq_truncate(const char *filename, int64_t length)
{
    ZQ_ASSERT(filename != NULL);

    return truncate(filename, static_cast<off_t>(length));
}
