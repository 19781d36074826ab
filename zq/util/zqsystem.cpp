#include "zq/util/zqsystem.h"

#include "zq/internal/zqassert.h"

time_t zq_time(time_t *tloc)
{
    return time(tloc);
}

struct tm *zq_localtime_r(const time_t *timep, struct tm *result)
{
    ZQ_ASSERT(timep);
    ZQ_ASSERT(result);

    return localtime_r(timep, result);
}
