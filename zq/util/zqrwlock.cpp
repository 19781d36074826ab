#include "zq/util/zqrwlock.h"

#include <pthread.h>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqowned.h"

struct zqrwlock {
    pthread_rwlock_t rwlock;
};

zqrwlock *zq_rwlock_create(void)
{
    owned_block<zqrwlock> created(make_zeroed<zqrwlock>());
    if (!created || pthread_rwlock_init(&created->rwlock, nullptr) != 0)
        return nullptr;
    return created.release();
}

void zq_rwlock_destroy(zqrwlock *zqrwlock)
{
    ZQ_ASSERT(zqrwlock != NULL);

    int err = pthread_rwlock_destroy(&zqrwlock->rwlock);
    ZQ_ASSERT(err == 0);
    zq_free(zqrwlock);
}

void zq_rwlock_rdlock(zqrwlock *zqrwlock)
{
    ZQ_ASSERT(zqrwlock != NULL);

    int err = pthread_rwlock_rdlock(&zqrwlock->rwlock);
    ZQ_ASSERT(err == 0);
}

void zq_rwlock_wrlock(zqrwlock *zqrwlock)
{
    ZQ_ASSERT(zqrwlock != NULL);

    int err = pthread_rwlock_wrlock(&zqrwlock->rwlock);
    ZQ_ASSERT(err == 0);
}

void zq_rwlock_unlock(zqrwlock *zqrwlock)
{
    ZQ_ASSERT(zqrwlock != NULL);

    int err = pthread_rwlock_unlock(&zqrwlock->rwlock);
    ZQ_ASSERT(err == 0);
}
