#include "zq/util/zqmutex.h"

#include <pthread.h>

#include "zq/internal/zqassert.h"
#include "zq/util/zqmalloc.h"

struct zqmutex {
    pthread_mutex_t mutex;
};

zqmutex *zq_mutex_create(void)
{
    zqmutex *created = static_cast<zqmutex *>(zq_malloc(sizeof(zqmutex)));
    if (!created)
        return nullptr;
    if (pthread_mutex_init(&created->mutex, nullptr) != 0) {
        zq_free(created);
        return nullptr;
    }
    return created;
}

void zq_mutex_destroy(zqmutex *zqmutex)
{
    ZQ_ASSERT(zqmutex != NULL);

    int err = pthread_mutex_destroy(&zqmutex->mutex);
    ZQ_ASSERT(err == 0);
    zq_free(zqmutex);
}

void zq_mutex_lock(zqmutex *zqmutex)
{
    ZQ_ASSERT(zqmutex != NULL);

    int err = pthread_mutex_lock(&zqmutex->mutex);
    ZQ_ASSERT(err == 0);
}

void zq_mutex_unlock(zqmutex *zqmutex)
{
    ZQ_ASSERT(zqmutex != NULL);

    int err = pthread_mutex_unlock(&zqmutex->mutex);
    ZQ_ASSERT(err == 0);
}
