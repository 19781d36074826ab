#ifndef ZQ_UTIL_ZQTIMEOUT_H
#define ZQ_UTIL_ZQTIMEOUT_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A deadline that counts down: each check takes off the time since the check before and tells what
 * is left, so that a sequence of waits, each given the rest, ends when the deadline does. Seconds
 * below 0 mean no limit. Time is the wall clock; setting it back costs nothing but the time since
 * the last check. A timeout belongs to one thread. */
ZQ_OBJECT(zqtimeout);

/* zq_timeout_create returns a timeout that counts as expired until it is set, or null when out of
 * memory (nothing is logged). Released with zq_timeout_destroy(). */
ZQ_API zqtimeout *zq_timeout_create(void);

/* zq_timeout_destroy releases a timeout. */
ZQ_API void zq_timeout_destroy(zqtimeout *zqtimeout);

/* zq_timeout_set starts counting down from that time, or never to expire when `seconds` is below 0.
 * `microseconds` must be below 1000000. A timeout of (0, 0) is expired at its first check. */
ZQ_API void zq_timeout_set(zqtimeout *zqtimeout, int32_t seconds, uint32_t microseconds);

/* zq_timeout_check returns 1 when the time is used up, 0 while some is left and -1 without a limit:
 * test for 1, not for non-zero. The out-pointers, either of which may be null, get the time left:
 * (0, 0) when expired, (-1, 0) without a limit. After the clock was set back since the last check
 * the time left is unchanged and the result 0. Each check but that of an unlimited timeout reads
 * the clock once. */
ZQ_API int zq_timeout_check(zqtimeout *zqtimeout, int32_t *secondsptr, uint32_t *microsecondsptr);

/* zq_timeout_reset sets the timeout again to what zq_timeout_set() was last given, and reports that
 * pair as it was given through the out-pointers, either of which may be null. */
ZQ_API void zq_timeout_reset(zqtimeout *zqtimeout, int32_t *secondsptr, uint32_t *microsecondsptr);

ZQ_END_DECLS

#endif
