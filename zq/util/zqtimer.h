#ifndef ZQ_UTIL_ZQTIMER_H
#define ZQ_UTIL_ZQTIMER_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A stopwatch with three times: its start, a running split and a stored split. Time is the wall
 * clock. A timer belongs to one thread. */
ZQ_OBJECT(zqtimer);

/* zq_timer_create returns a started timer, or null when out of memory (nothing is logged). Released
 * with zq_timer_destroy(). */
ZQ_API zqtimer *zq_timer_create(void);

/* zq_timer_destroy releases a timer. */
ZQ_API void zq_timer_destroy(zqtimer *zqtimer);

/* zq_timer_start sets all three times to now. */
ZQ_API void zq_timer_start(zqtimer *zqtimer);

/* zq_timer_split sets the split to now. */
ZQ_API void zq_timer_split(zqtimer *zqtimer);

/* zq_timer_storesplit sets the stored split to the split. */
ZQ_API void zq_timer_storesplit(zqtimer *zqtimer);

/* zq_timer_getsplit reports the time from the stored split to the split, and `amount` a second over
 * that time as `*rateptr`. Each out-pointer may be null. Over no time at all the rate is what
 * floating point makes of it: infinity, or not a number for an amount of 0. */
ZQ_API void zq_timer_getsplit(zqtimer *zqtimer, uint64_t amount, int32_t *secondsptr,
                              uint32_t *microsecondsptr, double *rateptr);

/* zq_timer_gettotal is zq_timer_getsplit() for the time from the start to the split. */
ZQ_API void zq_timer_gettotal(zqtimer *zqtimer, uint64_t amount, int32_t *secondsptr,
                              uint32_t *microsecondsptr, double *rateptr);

ZQ_END_DECLS

#endif
