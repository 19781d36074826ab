#include "zq/util/zqtimeout.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqclock.h"
#include "zq/internal/zqowned.h"

static constexpr int64_t UNLIMITED = -1;

struct zqtimeout {
    timeval last; // the time of the last check or set
    clock_span remaining;
    int32_t initial_seconds; // as given, negative values included
    uint32_t initial_microseconds;
};

zqtimeout *zq_timeout_create(void)
{
    return make_zeroed<zqtimeout>();
}

void zq_timeout_destroy(zqtimeout *zqtimeout)
{
    ZQ_ASSERT(zqtimeout != NULL);

    zq_free(zqtimeout);
}

void zq_timeout_set(zqtimeout *zqtimeout, int32_t seconds, uint32_t microseconds)
{
    ZQ_ASSERT(zqtimeout != NULL);
    ZQ_ASSERT(microseconds < 1000000);

    zqtimeout->initial_seconds = seconds;
    zqtimeout->initial_microseconds = microseconds;
    if (seconds < 0) {
        zqtimeout->remaining = {UNLIMITED, 0};
        return;
    }
    zqtimeout->last = clock_now();
    zqtimeout->remaining = {seconds, microseconds};
}

static void zq_timeout_report(int64_t seconds, uint32_t microseconds, int32_t *secondsptr,
                              uint32_t *microsecondsptr)
{
    if (secondsptr)
        *secondsptr = static_cast<int32_t>(seconds);
    if (microsecondsptr)
        *microsecondsptr = microseconds;
}

static bool zq_timeout_is_less(const clock_span &a, const clock_span &b)
{
    return a.seconds < b.seconds || (a.seconds == b.seconds && a.microseconds < b.microseconds);
}

// Takes `elapsed` off what is left; true when nothing remains.
static bool zq_timeout_consume(clock_span *remaining, const clock_span &elapsed)
{
    if (elapsed.seconds < 0)
        return false;
    // Equality counts as expired: callers rely on (0, 0) meaning that nothing is waited for.
    if (!zq_timeout_is_less(elapsed, *remaining)) {
        *remaining = {0, 0};
        return true;
    }
    *remaining = clock_subtract(remaining->seconds, remaining->microseconds, elapsed.seconds,
                                elapsed.microseconds);
    return false;
}

int zq_timeout_check(zqtimeout *zqtimeout, int32_t *secondsptr, uint32_t *microsecondsptr)
{
    ZQ_ASSERT(zqtimeout != NULL);

    clock_span *remaining = &zqtimeout->remaining;
    int result = -1;
    if (remaining->seconds != UNLIMITED) {
        timeval now = clock_now();
        result = zq_timeout_consume(remaining, clock_between(zqtimeout->last, now));
        zqtimeout->last = now;
    }
    zq_timeout_report(remaining->seconds, remaining->microseconds, secondsptr, microsecondsptr);
    return result;
}

void zq_timeout_reset(zqtimeout *zqtimeout, int32_t *secondsptr, uint32_t *microsecondsptr)
{
    ZQ_ASSERT(zqtimeout != NULL);

    int32_t seconds = zqtimeout->initial_seconds;
    uint32_t microseconds = zqtimeout->initial_microseconds;
    zq_timeout_set(zqtimeout, seconds, microseconds);
    zq_timeout_report(seconds, microseconds, secondsptr, microsecondsptr);
}
