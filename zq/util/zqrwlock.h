#ifndef ZQ_UTIL_ZQRWLOCK_H
#define ZQ_UTIL_ZQRWLOCK_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A POSIX reader-writer lock with default attributes. A call that the platform refuses is misuse
 * and stops the process. */
ZQ_OBJECT(zqrwlock);

/* zq_rwlock_create returns an unheld lock, or null (nothing is logged). */
ZQ_API zqrwlock *zq_rwlock_create(void);

/* zq_rwlock_destroy releases an unheld lock. */
ZQ_API void zq_rwlock_destroy(zqrwlock *zqrwlock);

/* zq_rwlock_rdlock waits until the calling thread holds the lock together with other readers. */
ZQ_API void zq_rwlock_rdlock(zqrwlock *zqrwlock);

/* zq_rwlock_wrlock waits until the calling thread alone holds the lock. */
ZQ_API void zq_rwlock_wrlock(zqrwlock *zqrwlock);

/* zq_rwlock_unlock releases the lock that the calling thread holds. */
ZQ_API void zq_rwlock_unlock(zqrwlock *zqrwlock);

ZQ_END_DECLS

#endif
