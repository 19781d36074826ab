#include "zq/util/zqcond.h"

#include <pthread.h>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqowned.h"

struct zqcond {
    pthread_mutex_t mutex;
    pthread_cond_t cond; // always used with `mutex`
};

zqcond *zq_cond_create(void)
{
    owned_block<zqcond> created(make_zeroed<zqcond>());
    if (!created || pthread_mutex_init(&created->mutex, nullptr) != 0)
        return nullptr;
    if (pthread_cond_init(&created->cond, nullptr) != 0) {
        int res = pthread_mutex_destroy(&created->mutex);
        ZQ_ASSERT(res == 0);
        return nullptr;
    }
    return created.release();
}

void zq_cond_destroy(zqcond *zqcond)
{
    ZQ_ASSERT(zqcond != NULL);

    int err = pthread_cond_destroy(&zqcond->cond);
    ZQ_ASSERT(err == 0);
    err = pthread_mutex_destroy(&zqcond->mutex);
    ZQ_ASSERT(err == 0);
    zq_free(zqcond);
}

void zq_cond_lock(zqcond *zqcond)
{
    ZQ_ASSERT(zqcond != NULL);

    int err = pthread_mutex_lock(&zqcond->mutex);
    ZQ_ASSERT(err == 0);
}

void zq_cond_unlock(zqcond *zqcond)
{
    ZQ_ASSERT(zqcond != NULL);

    int err = pthread_mutex_unlock(&zqcond->mutex);
    ZQ_ASSERT(err == 0);
}

void zq_cond_wait(zqcond *zqcond)
{
    ZQ_ASSERT(zqcond != NULL);

    int err = pthread_cond_wait(&zqcond->cond, &zqcond->mutex);
    ZQ_ASSERT(err == 0);
}

void zq_cond_signal(zqcond *zqcond)
{
    ZQ_ASSERT(zqcond != NULL);

    int err = pthread_cond_signal(&zqcond->cond);
    ZQ_ASSERT(err == 0);
}

void zq_cond_broadcast(zqcond *zqcond)
{
    ZQ_ASSERT(zqcond != NULL);

    int err = pthread_cond_broadcast(&zqcond->cond);
    ZQ_ASSERT(err == 0);
}
