#include "zq/util/zqthreadpool.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/util/zqlockqueue.h"
#include "zq/util/zqthread.h"

struct zqthreadpool_params {
    uint32_t num_threads;
    void *global_context;
    zq_threadpool_thread_ctx_create_callback thread_ctx_create;
    zq_threadpool_thread_ctx_destroy_callback thread_ctx_destroy;
    zq_threadpool_request_handler_callback request_handler;
};

namespace {
enum threadpool_state { BUILDING, RUNNING, STOPPED };

struct threadpool_worker {
    zqthread *thread; // null unless it was started
    zqthreadpool *pool;
    bool context_created;
    void *context;
};
} // namespace

struct zqthreadpool {
    threadpool_state state;
    zqlockqueue *input;
    zqlockqueue *output;
    zqthreadpool_params params;
    threadpool_worker *workers; // params.num_threads of them
};

// ---- parameters ----

zqthreadpool_params *zq_threadpool_params_create_defaults(void)
{
    zqthreadpool_params *created = make_zeroed<zqthreadpool_params>();
    if (created)
        zq_threadpool_params_set_defaults(created);
    return created;
}

void zq_threadpool_params_set_defaults(zqthreadpool_params *params)
{
    ZQ_ASSERT(params != NULL);

    *params = {};
    params->num_threads = 1;
}

void zq_threadpool_params_set_num_threads(zqthreadpool_params *params, uint32_t num_threads)
{
    ZQ_ASSERT(params != NULL);

    params->num_threads = num_threads;
}

void zq_threadpool_params_set_thread_ctx_create(zqthreadpool_params *params,
                                                zq_threadpool_thread_ctx_create_callback callback)
{
    ZQ_ASSERT(params != NULL);

    params->thread_ctx_create = callback;
}

void zq_threadpool_params_set_thread_ctx_destroy(zqthreadpool_params *params,
                                                 zq_threadpool_thread_ctx_destroy_callback callback)
{
    ZQ_ASSERT(params != NULL);

    params->thread_ctx_destroy = callback;
}

void zq_threadpool_params_set_request_handler(zqthreadpool_params *params,
                                              zq_threadpool_request_handler_callback callback)
{
    ZQ_ASSERT(params != NULL);

    params->request_handler = callback;
}

void zq_threadpool_params_set_global_context(zqthreadpool_params *params, void *global_context)
{
    ZQ_ASSERT(params != NULL);

    params->global_context = global_context;
}

void zq_threadpool_params_destroy(zqthreadpool_params *params)
{
    ZQ_ASSERT(params != NULL);

    zq_free(params);
}

// ---- the worker threads ----

// The element that brought the request also carries it on, so nothing is allocated here.
static void zq_threadpool_process(const threadpool_worker *worker, zqlockqueue_element *element)
{
    const zqthreadpool_params &params = worker->pool->params;
    if (params.request_handler)
        params.request_handler(params.global_context, worker->context,
                               zq_lockqueue_element_get_item(element));
    zqerror queue_error = zq_lockqueue_push_element(worker->pool->output, element);
    ZQ_ASSERT(queue_error == ZQ_ERROR_NONE);
}

static void *zq_threadpool_worker_thread(void *context)
{
    auto *worker = static_cast<threadpool_worker *>(context);
    for (;;) {
        zqerror queue_error;
        zqlockqueue_element *element = zq_lockqueue_pop_element(worker->pool->input, &queue_error);
        if (element) {
            ZQ_ASSERT(queue_error == ZQ_ERROR_NONE);
            zq_threadpool_process(worker, element);
        } else if (queue_error != ZQ_ERROR_NOT_FOUND) {
            ZQ_ASSERT(queue_error == ZQ_ERROR_END_OF_FILE);
            return nullptr;
        }
    }
}

// Lets the workers that were started finish what is queued, and waits for their end.
static void zq_threadpool_end_workers(zqthreadpool *pool)
{
    zq_lockqueue_set_end(pool->input);
    for (uint32_t i = 0; i < pool->params.num_threads; i++) {
        threadpool_worker *worker = &pool->workers[i];
        if (!worker->thread)
            continue;
        int res = zq_thread_join(worker->thread, nullptr);
        ZQ_ASSERT(res == 0);
        zq_thread_destroy(worker->thread);
        worker->thread = nullptr;
    }
}

// ---- creation ----

static zqerror zq_threadpool_create_context(threadpool_worker *worker, uint32_t number)
{
    const zqthreadpool_params &params = worker->pool->params;
    if (!params.thread_ctx_create)
        return ZQ_ERROR_NONE;
    zqerror error = ZQ_ERROR_GENERIC;
    void *context = params.thread_ctx_create(params.global_context, &error);
    if (error != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "failed to create thread context for thread %u", number);
        return error;
    }
    worker->context = context;
    worker->context_created = true;
    return ZQ_ERROR_NONE;
}

static zqerror zq_threadpool_start_thread(threadpool_worker *worker, uint32_t number)
{
    owned<zqthread, zq_thread_destroy> thread(zq_thread_create());
    if (!thread) {
        ZQ_LOG(7, "failed to create thread %u", number);
        return ZQ_ERROR_GENERIC;
    }
    if (zq_thread_start(thread.get(), zq_threadpool_worker_thread, worker) != 0) {
        ZQ_LOG(7, "failed to start thread %u", number);
        return ZQ_ERROR_GENERIC;
    }
    worker->thread = thread.release();
    return ZQ_ERROR_NONE;
}

static zqerror zq_threadpool_start_workers(zqthreadpool *pool)
{
    for (uint32_t i = 0; i < pool->params.num_threads; i++) {
        threadpool_worker *worker = &pool->workers[i];
        worker->pool = pool;
        zqerror error = zq_threadpool_create_context(worker, i);
        if (error == ZQ_ERROR_NONE)
            error = zq_threadpool_start_thread(worker, i);
        if (error != ZQ_ERROR_NONE) {
            // What they wait on is about to be released.
            zq_threadpool_end_workers(pool);
            return error;
        }
    }
    return ZQ_ERROR_NONE;
}

static zqerror zq_threadpool_build(zqthreadpool *pool)
{
    zqerror error;
    pool->input = zq_lockqueue_create(&error);
    if (!pool->input) {
        ZQ_LOG(7, "failed to create input queue");
        return error;
    }
    pool->output = zq_lockqueue_create(&error);
    if (!pool->output) {
        ZQ_LOG(7, "failed to create output queue");
        return error;
    }
    pool->workers = static_cast<threadpool_worker *>(
        zq_calloc(pool->params.num_threads, sizeof(threadpool_worker)));
    if (!pool->workers) {
        ZQ_LOG(7, "failed to allocate thread array");
        return ZQ_ERROR_NO_MEMORY;
    }
    return zq_threadpool_start_workers(pool);
}

static zqthreadpool *zq_threadpool_make(const zqthreadpool_params *params, zqerror *error)
{
    if (!params) {
        ZQ_LOG(7, "zq_threadpool_create() called with NULL params");
        *error = ZQ_ERROR_INVALID_ARGUMENT;
        return nullptr;
    }
    owned<zqthreadpool, zq_threadpool_destroy> pool(make_zeroed<zqthreadpool>());
    if (!pool) {
        ZQ_LOG(7, "failed to allocate pool structure");
        *error = ZQ_ERROR_NO_MEMORY;
        return nullptr;
    }
    pool->params = *params;
    *error = zq_threadpool_build(pool.get());
    if (*error != ZQ_ERROR_NONE)
        return nullptr;
    pool->state = RUNNING;
    return pool.release();
}

zqthreadpool *zq_threadpool_create(const zqthreadpool_params *params, zqerror *error_out)
{
    zqerror error;
    zqthreadpool *created = zq_threadpool_make(params, &error);
    if (error_out)
        *error_out = error;
    return created;
}

// ---- requests ----

zqerror zq_threadpool_submit_request(zqthreadpool *pool, void *request)
{
    ZQ_ASSERT(pool != NULL);

    return zq_lockqueue_push(pool->input, request);
}

void *zq_threadpool_get_result(zqthreadpool *pool, zqerror *error_out)
{
    ZQ_ASSERT(pool != NULL);

    zqerror unused;
    return zq_lockqueue_pop(pool->output, error_out ? error_out : &unused);
}

void *zq_threadpool_get_result_try(zqthreadpool *pool, zqerror *error_out)
{
    ZQ_ASSERT(pool != NULL);

    zqerror unused;
    return zq_lockqueue_pop_try(pool->output, error_out ? error_out : &unused);
}

// ---- the end ----

void zq_threadpool_stop(zqthreadpool *pool)
{
    ZQ_ASSERT(pool != NULL);

    if (pool->state != RUNNING)
        return;
    zq_threadpool_end_workers(pool);
    pool->state = STOPPED;
}

static void zq_threadpool_destroy_workers(zqthreadpool *pool)
{
    const zqthreadpool_params &params = pool->params;
    for (uint32_t i = 0; i < params.num_threads; i++) {
        if (params.thread_ctx_destroy && pool->workers[i].context_created)
            params.thread_ctx_destroy(params.global_context, pool->workers[i].context);
    }
    zq_free(pool->workers);
}

void zq_threadpool_destroy(zqthreadpool *pool)
{
    ZQ_ASSERT(pool != NULL);

    zq_threadpool_stop(pool);
    if (pool->workers)
        zq_threadpool_destroy_workers(pool);
    if (pool->output)
        zq_lockqueue_destroy(pool->output, nullptr);
    if (pool->input)
        zq_lockqueue_destroy(pool->input, nullptr);
    zq_free(pool);
}
