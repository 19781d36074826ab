#include "zq/util/zquninit.h"

#include "zq/crypto/zqrandom.h"
#include "zq/util/zqlog.h"
#include "zq/util/zqmalloc.h"

void zq_uninit(void)
{
    zq_log_uninit();
    zq_malloc_uninit();
    zq_random_uninit();
}
