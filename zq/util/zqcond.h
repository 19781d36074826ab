#ifndef ZQ_UTIL_ZQCOND_H
#define ZQ_UTIL_ZQCOND_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A POSIX condition variable together with the mutex it is used with. A call that the platform
 * refuses is misuse and stops the process. Waits may wake spuriously: check the predicate in a
 * loop. */
ZQ_OBJECT(zqcond);

/* zq_cond_create returns a condition variable with its mutex unlocked, or null (nothing is logged).
 */
ZQ_API zqcond *zq_cond_create(void);

/* zq_cond_destroy releases a condition variable that nobody waits on or holds. */
ZQ_API void zq_cond_destroy(zqcond *zqcond);

/* zq_cond_lock waits until the calling thread holds the condition variable's mutex. */
ZQ_API void zq_cond_lock(zqcond *zqcond);

/* zq_cond_unlock releases the mutex. */
ZQ_API void zq_cond_unlock(zqcond *zqcond);

/* zq_cond_wait releases the mutex, which the caller holds, waits, and takes it again. */
ZQ_API void zq_cond_wait(zqcond *zqcond);

/* zq_cond_signal wakes at least one waiter. */
ZQ_API void zq_cond_signal(zqcond *zqcond);

/* zq_cond_broadcast wakes all waiters. */
ZQ_API void zq_cond_broadcast(zqcond *zqcond);

ZQ_END_DECLS

#endif
