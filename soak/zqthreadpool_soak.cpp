// A thread pool that two threads submit to and collect from. Each request is a byte, marked once by
// its handler and once by its collector.
#include <atomic>
#include <vector>

#include "soak/support/soak.h"
#include "tests/support/expect.h"
#include "zq/util/zqthreadpool.h"

using Params = Owned<zqthreadpool_params, zq_threadpool_params_destroy>;
using Pool = Owned<zqthreadpool, zq_threadpool_destroy>;
using Request = std::atomic<unsigned char>;

static constexpr long batch = 500; // requests under way for each submitter
static constexpr unsigned char handled = 1, collected = 16;

static void handle(void *, void *, void *request)
{
    *static_cast<Request *>(request) += handled;
}

static bool pass(zqthreadpool *pool, Request *requests)
{
    for (long i = 0; i < batch; i++) {
        if (zq_threadpool_submit_request(pool, &requests[i]) != ZQ_ERROR_NONE)
            return false;
    }
    // They may be those of the other thread, which then collects these.
    for (long i = 0; i < batch; i++)
        *static_cast<Request *>(zq_threadpool_get_result(pool, nullptr)) += collected;
    return true;
}

int main(int argc, char **argv)
{
    Soak soak("zqthreadpool", argc, argv);
    Params params(zq_threadpool_params_create_defaults());
    zq_threadpool_params_set_num_threads(params.get(), 4);
    zq_threadpool_params_set_request_handler(params.get(), handle);
    Pool pool(zq_threadpool_create(params.get(), nullptr));
    const long count = soak.scaled(10000000, batch) / batch * batch;
    std::vector<Request> requests(static_cast<size_t>(count));

    soak.row("requests through 4 threads", count / 10 / batch * batch, count, [&](long amount) {
        for (Request &request : requests)
            request = 0;
        Tally tally = repeat(amount / batch, 2, [&](long i) {
            return pass(pool.get(), &requests[static_cast<size_t>(i * batch)]);
        });
        tally.count = amount;
        for (long i = 0; i < amount; i++)
            tally.wrong += requests[static_cast<size_t>(i)] == handled + collected ? 0 : 1;
        return tally;
    });
    return soak.status();
}
