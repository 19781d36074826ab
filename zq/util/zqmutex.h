#ifndef ZQ_UTIL_ZQMUTEX_H
#define ZQ_UTIL_ZQMUTEX_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A POSIX mutex with default attributes: neither recursive nor error-checking. A lock, unlock or
 * destroy that the platform refuses is misuse and stops the process. */
ZQ_OBJECT(zqmutex);

/* zq_mutex_create returns an unlocked mutex, or null (nothing is logged). */
ZQ_API zqmutex *zq_mutex_create(void);

/* zq_mutex_destroy releases an unlocked mutex. */
ZQ_API void zq_mutex_destroy(zqmutex *zqmutex);

/* zq_mutex_lock waits until the calling thread holds the mutex. */
ZQ_API void zq_mutex_lock(zqmutex *zqmutex);

/* zq_mutex_unlock releases the mutex that the calling thread holds. */
ZQ_API void zq_mutex_unlock(zqmutex *zqmutex);

ZQ_END_DECLS

#endif
