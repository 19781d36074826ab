#ifndef ZQ_UTIL_ZQTHREAD_H
#define ZQ_UTIL_ZQTHREAD_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A POSIX thread with default attributes, started once and joined once. A thread object is used by
 * one thread at a time. */
ZQ_OBJECT(zqthread);

/* The life of a thread object. */
enum {
    ZQ_THREAD_STATE_NONE = 0,    /* never started, or not startable when it was tried */
    ZQ_THREAD_STATE_RUNNING = 1, /* started and not yet joined */
    ZQ_THREAD_STATE_JOINED = 2
};

/* What a thread runs; its result goes to whoever joins the thread. */
typedef void *(*zq_thread_start_callback)(void *context);

/* zq_thread_create returns a thread object that is not started, or null when out of memory.
 * Released with zq_thread_destroy(). */
ZQ_API zqthread *zq_thread_create(void);

/* zq_thread_destroy releases the object only: a running thread runs on, neither joined nor
 * detached. */
ZQ_API void zq_thread_destroy(zqthread *zqthread);

/* zq_thread_start runs `callback` with `context` in a new thread. The object must be in state
 * ZQ_THREAD_STATE_NONE. Returns 0, or the number that pthread_create() returned, which is the
 * platform's and no zqerror; the object can then be started again. */
ZQ_API int zq_thread_start(zqthread *zqthread, zq_thread_start_callback callback, void *context);

/* zq_thread_join waits for the thread to end; its result goes to *resultptr unless that is null.
 * The object must be in state ZQ_THREAD_STATE_RUNNING. Returns 0, or the number that pthread_join()
 * returned, which is the platform's and no zqerror; the state is then unchanged. */
ZQ_API int zq_thread_join(zqthread *zqthread, void **resultptr);

ZQ_END_DECLS

#endif
