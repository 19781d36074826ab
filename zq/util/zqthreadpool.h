#ifndef ZQ_UTIL_ZQTHREADPOOL_H
#define ZQ_UTIL_ZQTHREADPOOL_H

#include "zq/util/zqerror.h"
#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A fixed number of threads that take requests from one queue, hand each to a handler and pass it
 * on to a second queue, from which it is collected. A request is the caller's pointer: what is
 * collected is what was submitted, the handler having worked on it in place. With one thread,
 * requests come out in the order they went in, with more in the order they are done.
 *
 * Requests may be submitted and collected by any threads. Creating, stopping and destroying belong
 * to one thread. */
ZQ_OBJECT(zqthreadpool);

/* How a pool is to be; may be destroyed once the pool is created. */
ZQ_OBJECT(zqthreadpool_params);

/* Makes the context of one thread. It must store ZQ_ERROR_NONE in *error_out (ZQ_ERROR_GENERIC
 * until then) for the result to count; anything else makes zq_threadpool_create() fail. Runs in the
 * creating thread. */
typedef void *(*zq_threadpool_thread_ctx_create_callback)(void *global_context, zqerror *error_out);

/* Releases the context of one thread. Runs in the thread that destroys the pool. */
typedef void (*zq_threadpool_thread_ctx_destroy_callback)(void *global_context,
                                                          void *thread_context);

/* Handles one request. It runs in all threads of the pool at once, each with its own thread context
 * and all with the same global context. */
typedef void (*zq_threadpool_request_handler_callback)(void *global_context, void *thread_context,
                                                       void *request);

/* ---- parameters ---- */

/* zq_threadpool_params_create_defaults returns parameters for one thread, everything else null, or
 * null when out of memory (nothing is logged). Released with zq_threadpool_params_destroy(). */
ZQ_API zqthreadpool_params *zq_threadpool_params_create_defaults(void);

/* zq_threadpool_params_set_defaults sets everything back to that. */
ZQ_API void zq_threadpool_params_set_defaults(zqthreadpool_params *params);

/* zq_threadpool_params_set_num_threads sets the number of threads. */
ZQ_API void zq_threadpool_params_set_num_threads(zqthreadpool_params *params, uint32_t num_threads);

/* zq_threadpool_params_set_thread_ctx_create sets what makes a thread's context; null: none is. */
ZQ_API void
zq_threadpool_params_set_thread_ctx_create(zqthreadpool_params *params,
                                           zq_threadpool_thread_ctx_create_callback callback);

/* zq_threadpool_params_set_thread_ctx_destroy sets what releases a thread's context; null: nothing
 * does. */
ZQ_API void
zq_threadpool_params_set_thread_ctx_destroy(zqthreadpool_params *params,
                                            zq_threadpool_thread_ctx_destroy_callback callback);

/* zq_threadpool_params_set_request_handler sets the handler; null: requests pass straight through.
 */
ZQ_API void
zq_threadpool_params_set_request_handler(zqthreadpool_params *params,
                                         zq_threadpool_request_handler_callback callback);

/* zq_threadpool_params_set_global_context sets the pointer that every callback gets. */
ZQ_API void zq_threadpool_params_set_global_context(zqthreadpool_params *params,
                                                    void *global_context);

/* zq_threadpool_params_destroy releases the parameters. */
ZQ_API void zq_threadpool_params_destroy(zqthreadpool_params *params);

/* ---- pools ---- */

/* zq_threadpool_create returns a running pool, or null. *error_out, unless it is null, receives
 * ZQ_ERROR_NONE or
 *   ZQ_ERROR_INVALID_ARGUMENT  `params` is null
 *   ZQ_ERROR_NO_MEMORY
 *   ZQ_ERROR_GENERIC           a thread or a condition variable cannot be made
 *   another                    as the callback for a thread's context says
 * On failure, threads that were started have ended and contexts that were made are released. */
ZQ_API zqthreadpool *zq_threadpool_create(const zqthreadpool_params *params, zqerror *error_out);

/* zq_threadpool_submit_request queues a request. Returns ZQ_ERROR_NONE, ZQ_ERROR_NO_MEMORY, or
 * ZQ_ERROR_WRITE after the pool was stopped. */
ZQ_API zqerror zq_threadpool_submit_request(zqthreadpool *pool, void *request);

/* zq_threadpool_get_result returns a request that is done, waiting for one: for ever when none is
 * under way, even after the pool was stopped. *error_out, unless it is null, receives
 * ZQ_ERROR_NONE. */
ZQ_API void *zq_threadpool_get_result(zqthreadpool *pool, zqerror *error_out);

/* zq_threadpool_get_result_try is zq_threadpool_get_result() without waiting: ZQ_ERROR_NOT_FOUND
 * when nothing is done yet. */
ZQ_API void *zq_threadpool_get_result_try(zqthreadpool *pool, zqerror *error_out);

/* zq_threadpool_stop waits until all submitted requests are done and the threads have ended;
 * results stay collectable. Stopping again does nothing. */
ZQ_API void zq_threadpool_stop(zqthreadpool *pool);

/* zq_threadpool_destroy stops the pool and releases it together with the threads' contexts.
 * Requests that were not collected remain the caller's. */
ZQ_API void zq_threadpool_destroy(zqthreadpool *pool);

ZQ_END_DECLS

#endif
