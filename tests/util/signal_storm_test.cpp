// Signals at 1 kHz to threads that wait for one another: nothing is lost, ends early or hangs.

#include <chrono>
#include <deque>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/signal_storm.h"
#include "zq/util/zqlockqueue.h"
#include "zq/util/zqsystem.h"
#include "zq/util/zqthread.h"
#include "zq/util/zqthreadpool.h"

using Clock = std::chrono::steady_clock;

static constexpr uintptr_t ITEMS = 100;

// Sleeps until it was interrupted ten times and then slept once to the end.
static void *sleep_and_return(void *context)
{
    int interrupted = 0;
    for (bool slept = false; !slept || interrupted < 10;) {
        const unsigned int microseconds = interrupted < 10 ? 20000 : 50;
        const auto start = Clock::now();
        slept = zq_sleep(0, microseconds) == 0;
        interrupted += !slept;
        EXPECT_TRUE(!slept || Clock::now() - start >= std::chrono::microseconds(microseconds));
    }
    return context;
}

TEST(util_signal_storm, joins_wait_for_the_end_of_sleepers)
{
    SignalStorm storm;
    std::deque<Owned<zqthread, zq_thread_destroy>> threads;
    for (int i = 0; i < 8; i++) {
        Owned<zqthread, zq_thread_destroy> thread(zq_thread_create());
        if (thread && zq_thread_start(thread.get(), sleep_and_return, thread.get()) == 0)
            threads.push_back(std::move(thread));
    }
    EXPECT_EQ(threads.size(), 8u);
    for (const auto &thread : threads) {
        void *result = nullptr;
        EXPECT_EQ(zq_thread_join(thread.get(), &result), 0);
        EXPECT_EQ(result, thread.get());
    }
}

// Slowly, so that whoever takes the items waits for them.
static void *push_items(void *context)
{
    auto *queue = static_cast<zqlockqueue *>(context);
    for (uintptr_t i = 0; i < ITEMS; i++) {
        EXPECT_EQ(zq_lockqueue_push(queue, reinterpret_cast<void *>(i)), 0u);
        zq_sleep(0, 500);
    }
    zq_lockqueue_set_end(queue);
    return nullptr;
}

TEST(util_signal_storm, queues_keep_order_and_end)
{
    SignalStorm storm;
    zqlockqueue *queue = zq_lockqueue_create(nullptr);
    Owned<zqthread, zq_thread_destroy> thread(zq_thread_create());
    ASSERT_TRUE(queue && thread);
    ASSERT_EQ(zq_thread_start(thread.get(), push_items, queue), 0);
    zqerror error = ZQ_ERROR_NONE;
    for (uintptr_t i = 0; i <= ITEMS && error == ZQ_ERROR_NONE; i++) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(zq_lockqueue_pop(queue, &error)), i < ITEMS ? i : 0);
    }
    EXPECT_EQ(error, ZQ_ERROR_END_OF_FILE + 0u);
    EXPECT_EQ(zq_thread_join(thread.get(), nullptr), 0);
    zq_lockqueue_destroy(queue, nullptr);
}

static void handle(void *, void *, void *request)
{
    zq_sleep(0, 500);
    ++*static_cast<int *>(request);
}

TEST(util_signal_storm, pools_handle_every_request_once)
{
    SignalStorm storm;
    Owned<zqthreadpool_params, zq_threadpool_params_destroy> params(
        zq_threadpool_params_create_defaults());
    ASSERT_TRUE(params);
    zq_threadpool_params_set_num_threads(params.get(), 3);
    zq_threadpool_params_set_request_handler(params.get(), handle);
    Owned<zqthreadpool, zq_threadpool_destroy> pool(zq_threadpool_create(params.get(), nullptr));
    ASSERT_TRUE(pool);
    std::vector<int> requests(ITEMS, 0);
    size_t submitted = 0;
    for (int &request : requests)
        submitted += zq_threadpool_submit_request(pool.get(), &request) == 0;
    for (size_t i = 0; i < submitted; i++)
        EXPECT_EQ(*static_cast<int *>(zq_threadpool_get_result(pool.get(), nullptr)), 1);
    zq_threadpool_stop(pool.get());
    EXPECT_EQ(zq_threadpool_get_result_try(pool.get(), nullptr), nullptr);
    EXPECT_EQ(submitted, ITEMS);
}
