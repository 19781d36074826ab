#include "zq/util/zqthread.h"

#include <pthread.h>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"

struct zqthread {
    int state; // ZQ_THREAD_STATE_*
    pthread_t thread;
};

zqthread *zq_thread_create(void)
{
    zqthread *created = make_zeroed<zqthread>();
    if (!created)
        ZQ_LOG(7, "not enough memory for thread context");
    return created;
}

void zq_thread_destroy(zqthread *zqthread)
{
    ZQ_ASSERT(zqthread != NULL);

    zq_free(zqthread);
}

int zq_thread_start(zqthread *zqthread, zq_thread_start_callback callback, void *context)
{
    ZQ_ASSERT(zqthread != NULL);
    ZQ_ASSERT(zqthread->state == ZQ_THREAD_STATE_NONE);

    // Before the thread exists, so that it may itself see the state.
    zqthread->state = ZQ_THREAD_STATE_RUNNING;
    int err = pthread_create(&zqthread->thread, nullptr, callback, context);
    if (err != 0) {
        ZQ_LOG(7, "pthread_create() returned error %d", err);
        zqthread->state = ZQ_THREAD_STATE_NONE;
    }
    return err;
}

int zq_thread_join(zqthread *zqthread, void **resultptr)
{
    ZQ_ASSERT(zqthread != NULL);
    ZQ_ASSERT(zqthread->state == ZQ_THREAD_STATE_RUNNING);

    int err = pthread_join(zqthread->thread, resultptr);
    if (err != 0) {
        ZQ_LOG(7, "pthread_join() returned error %d", err);
        return err;
    }
    zqthread->state = ZQ_THREAD_STATE_JOINED;
    return 0;
}
