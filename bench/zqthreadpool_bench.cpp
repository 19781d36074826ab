// What a request costs on its way through the thread pool, and what the queue under it costs.
#include <benchmark/benchmark.h>
#include <memory>

#include "zq/util/zqlockqueue.h"
#include "zq/util/zqthreadpool.h"

using Params = std::unique_ptr<zqthreadpool_params, decltype(&zq_threadpool_params_destroy)>;
using Pool = std::unique_ptr<zqthreadpool, decltype(&zq_threadpool_destroy)>;

static void handle_request(void *, void *, void *request)
{
    ++*static_cast<int *>(request);
}

// Requests in flight are bounded, as in a program that collects while it submits.
static void pool_requests(benchmark::State &state)
{
    Params params(zq_threadpool_params_create_defaults(), zq_threadpool_params_destroy);
    zq_threadpool_params_set_num_threads(params.get(), static_cast<uint32_t>(state.range(0)));
    zq_threadpool_params_set_request_handler(params.get(), handle_request);
    Pool pool(zq_threadpool_create(params.get(), nullptr), zq_threadpool_destroy);
    constexpr int BATCH = 256;
    int requests[BATCH] = {};
    for (auto _ : state) {
        for (int &request : requests)
            zq_threadpool_submit_request(pool.get(), &request);
        for (int i = 0; i < BATCH; i++)
            benchmark::DoNotOptimize(zq_threadpool_get_result(pool.get(), nullptr));
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
}

static void queue_push_pop(benchmark::State &state)
{
    zqlockqueue *queue = zq_lockqueue_create(nullptr);
    zqerror error;
    for (auto _ : state) {
        zq_lockqueue_push(queue, &error);
        benchmark::DoNotOptimize(zq_lockqueue_pop(queue, &error));
    }
    state.SetItemsProcessed(state.iterations());
    zq_lockqueue_destroy(queue, nullptr);
}

BENCHMARK(pool_requests)->Arg(1)->Arg(2)->Arg(4)->UseRealTime();
BENCHMARK(queue_push_pop);

BENCHMARK_MAIN();
