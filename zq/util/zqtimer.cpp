#include "zq/util/zqtimer.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqclock.h"
#include "zq/util/zqmalloc.h"

struct zqtimer {
    timeval start;
    timeval storedsplit;
    timeval split;
};

zqtimer *zq_timer_create(void)
{
    zqtimer *created = static_cast<zqtimer *>(zq_malloc(sizeof(zqtimer)));
    if (created)
        zq_timer_start(created);
    return created;
}

void zq_timer_destroy(zqtimer *zqtimer)
{
    ZQ_ASSERT(zqtimer != NULL);

    zq_free(zqtimer);
}

void zq_timer_start(zqtimer *zqtimer)
{
    ZQ_ASSERT(zqtimer != NULL);

    timeval now = clock_now();
    zqtimer->start = now;
    zqtimer->storedsplit = now;
    zqtimer->split = now;
}

void zq_timer_split(zqtimer *zqtimer)
{
    ZQ_ASSERT(zqtimer != NULL);

    zqtimer->split = clock_now();
}

void zq_timer_storesplit(zqtimer *zqtimer)
{
    ZQ_ASSERT(zqtimer != NULL);

    zqtimer->storedsplit = zqtimer->split;
}

static void zq_timer_report(const clock_span &span, uint64_t amount, int32_t *secondsptr,
                            uint32_t *microsecondsptr, double *rateptr)
{
    if (secondsptr)
        *secondsptr = static_cast<int32_t>(span.seconds);
    if (microsecondsptr)
        *microsecondsptr = span.microseconds;
    if (rateptr) {
        double seconds = span.microseconds / 1000000.0 + static_cast<double>(span.seconds);
        *rateptr = static_cast<double>(amount) / seconds;
    }
}

void zq_timer_getsplit(zqtimer *zqtimer, uint64_t amount, int32_t *secondsptr,
                       uint32_t *microsecondsptr, double *rateptr)
{
    ZQ_ASSERT(zqtimer != NULL);

    zq_timer_report(clock_between(zqtimer->storedsplit, zqtimer->split), amount, secondsptr,
                    microsecondsptr, rateptr);
}

void zq_timer_gettotal(zqtimer *zqtimer, uint64_t amount, int32_t *secondsptr,
                       uint32_t *microsecondsptr, double *rateptr)
{
    ZQ_ASSERT(zqtimer != NULL);

    zq_timer_report(clock_between(zqtimer->start, zqtimer->split), amount, secondsptr,
                    microsecondsptr, rateptr);
}
