#include "zq/util/zqthreadpool.h"

#include <atomic>
#include <cerrno>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"
#include "tests/support/thread_faults.h"

using Params = Owned<zqthreadpool_params, zq_threadpool_params_destroy>;
using Pool = Owned<zqthreadpool, zq_threadpool_destroy>;

namespace {
struct Request {
    int value = 0;
    std::atomic<int> handled{0};
};

// What the callbacks share: the global context.
struct World {
    std::atomic<int> created{0}, destroyed{0}, handled{0};
    int failing_context = -1; // the number of the context that cannot be made
    zqerror failure = 0;
};

// The context of one thread; the thread sanitizer tells when two use it.
struct ThreadContext {
    World *world;
    int handled;
};
} // namespace

static void *create_context(void *global, zqerror *error_out)
{
    auto *world = static_cast<World *>(global);
    EXPECT_EQ(*error_out, ZQ_ERROR_GENERIC + 0u);
    if (world->created == world->failing_context) {
        if (world->failure)
            *error_out = world->failure;
        return nullptr;
    }
    world->created++;
    *error_out = ZQ_ERROR_NONE;
    return new ThreadContext{world, 0};
}

static void destroy_context(void *global, void *context)
{
    auto *world = static_cast<World *>(global);
    auto *own = static_cast<ThreadContext *>(context);
    EXPECT_EQ(own->world, world);
    world->destroyed++;
    world->handled += own->handled;
    delete own;
}

static void handle_request(void *, void *context, void *request)
{
    static_cast<ThreadContext *>(context)->handled++;
    auto *own = static_cast<Request *>(request);
    own->value *= 2;
    own->handled++;
}

static Params make_params(uint32_t num_threads, World *world)
{
    Params params(zq_threadpool_params_create_defaults());
    if (!params)
        return params;
    zq_threadpool_params_set_num_threads(params.get(), num_threads);
    zq_threadpool_params_set_global_context(params.get(), world);
    zq_threadpool_params_set_thread_ctx_create(params.get(), create_context);
    zq_threadpool_params_set_thread_ctx_destroy(params.get(), destroy_context);
    zq_threadpool_params_set_request_handler(params.get(), handle_request);
    return params;
}

TEST(zqthreadpool, defaults_are_one_thread_that_passes_requests_on)
{
    World world;
    Params params = make_params(7, &world);
    ASSERT_TRUE(params);
    zq_threadpool_params_set_defaults(params.get());
    zqerror error = 999;
    Pool pool(zq_threadpool_create(params.get(), &error));
    ASSERT_TRUE(pool);
    EXPECT_EQ(error, 0u);
    params.reset(); // the pool has its own copy
    EXPECT_EQ(zq_threadpool_get_result_try(pool.get(), &error), nullptr);
    EXPECT_EQ(error, 207u);
    std::vector<Request> requests(1000);
    size_t submitted = 0;
    while (submitted < requests.size() &&
           zq_threadpool_submit_request(pool.get(), &requests[submitted]) == 0)
        submitted++;
    EXPECT_EQ(submitted, requests.size());
    for (size_t i = 0; i < submitted; i++) {
        error = 999;
        ASSERT_EQ(zq_threadpool_get_result(pool.get(), &error), &requests[i]);
        ASSERT_EQ(error, 0u);
    }
    EXPECT_EQ(world.created, 0);
}

TEST(zqthreadpool, stop_finishes_what_was_submitted)
{
    World world;
    Params params = make_params(3, &world);
    ASSERT_TRUE(params);
    Pool pool(zq_threadpool_create(params.get(), nullptr));
    ASSERT_TRUE(pool);
    std::vector<Request> requests(500);
    int submitted = 0;
    for (Request &request : requests) {
        request.value = 21;
        submitted += zq_threadpool_submit_request(pool.get(), &request) == 0;
    }
    zq_threadpool_stop(pool.get());
    zq_threadpool_stop(pool.get());
    zqerror refused = zq_threadpool_submit_request(pool.get(), &requests[0]);
    EXPECT_TRUE(refused == 203u || (faults_injected() && refused == 12u));
    std::set<void *> collected;
    for (int i = 0; i < submitted; i++) {
        auto *result = static_cast<Request *>(zq_threadpool_get_result(pool.get(), nullptr));
        ASSERT_TRUE(collected.insert(result).second);
        ASSERT_EQ(result->value, 42);
    }
    zqerror error = 999;
    EXPECT_EQ(zq_threadpool_get_result_try(pool.get(), &error), nullptr);
    EXPECT_EQ(error, 207u) << "the output is not ended";
    EXPECT_EQ(zq_threadpool_get_result_try(pool.get(), nullptr), nullptr);
    EXPECT_EQ(world.destroyed, 0);
    pool.reset();
    EXPECT_EQ(world.destroyed, 3);
    EXPECT_EQ(world.handled, submitted);
}

TEST(zqthreadpool, requests_from_and_to_many_threads)
{
    const size_t SIDES = 2, EACH = faults_injected() ? 50 : 3000;
    World world;
    Params params = make_params(4, &world);
    ASSERT_TRUE(params);
    Pool pool(zq_threadpool_create(params.get(), nullptr));
    ASSERT_TRUE(pool);
    std::vector<Request> requests(SIDES * EACH);
    std::atomic<size_t> submitted{0}, collected{0}, working{SIDES};
    std::vector<std::thread> threads;
    for (size_t side = 0; side < SIDES; side++) {
        threads.emplace_back([&, side] {
            for (size_t i = 0; i < EACH; i++)
                submitted +=
                    zq_threadpool_submit_request(pool.get(), &requests[side * EACH + i]) == 0;
            working--;
        });
        threads.emplace_back([&] {
            while (working > 0 || collected < submitted) {
                if (zq_threadpool_get_result_try(pool.get(), nullptr))
                    collected++;
                else
                    std::this_thread::yield();
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(collected, SIDES * EACH);
    size_t once = 0;
    for (const Request &request : requests)
        once += request.handled == 1;
    EXPECT_EQ(once, submitted);
    Request last[50]; // handled, and left to the caller when they are not collected
    for (Request &request : last)
        submitted += zq_threadpool_submit_request(pool.get(), &request) == 0;
    pool.reset();
    EXPECT_EQ(static_cast<size_t>(world.handled), submitted);
}

TEST(zqthreadpool, failed_creation_leaves_nothing_behind)
{
    const std::string no_context = "[7] failed to create thread context for thread ";
    const std::string no_thread =
        "[7] pthread_create() returned error 11; [7] failed to start thread ";
    const struct {
        int failing_context;
        zqerror failure;       // 0 when the callback does not say
        size_t failing_thread; // from 1
        zqerror error;
        std::string lines;
        int contexts;
    } rows[] = {
        {0, 111, 0, 111, no_context + "0", 0}, {1, 111, 0, 111, no_context + "1", 1},
        {2, 0, 0, 202, no_context + "2", 2},   {-1, 0, 1, 202, no_thread + "0", 1},
        {-1, 0, 3, 202, no_thread + "2", 3},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.lines);
        LogCapture log;
        World world{.failing_context = row.failing_context, .failure = row.failure};
        Params params = make_params(3, &world);
        ASSERT_TRUE(params);
        zqerror error = 999;
        {
            SystemCalls calls(failing("pthread_create", EAGAIN, row.failing_thread));
            EXPECT_EQ(zq_threadpool_create(params.get(), &error), nullptr);
        }
        EXPECT_EQ(world.destroyed, world.created);
        EXPECT_EQ(world.created, row.contexts);
        EXPECT_EQ(error, row.error);
        EXPECT_EQ(joined(log.take()), row.lines);
    }
    LogCapture log;
    zqerror error = 999;
    EXPECT_EQ(zq_threadpool_create(nullptr, &error), nullptr);
    EXPECT_EQ(error, 22u);
    EXPECT_EQ(zq_threadpool_create(nullptr, nullptr), nullptr);
    const LogLine line = {7, "zq_threadpool_create() called with NULL params"};
    EXPECT_EQ(log.take(), (Lines{line, line}));
}

// Allocation after allocation fails under fault injection; a failure is as good as complete.
TEST(zqthreadpool, creation_without_memory)
{
    LogCapture log;
    World world;
    Params params;
    while (!params)
        params = make_params(2, &world);
    for (bool created = false; !created;) {
        zqerror error = 999;
        Pool pool(zq_threadpool_create(params.get(), &error));
        created = pool != nullptr;
        EXPECT_EQ(error == 0, created);
        EXPECT_TRUE(created || faults_injected());
        pool.reset();
        EXPECT_EQ(world.created, world.destroyed);
    }
}

TEST(zqthreadpool, misuse)
{
    const char *source = "util/zqthreadpool";
#define EXPECT_NULL_MISUSE(name, function, ...)                                                    \
    EXPECT_MISUSE(function(nullptr __VA_OPT__(, ) __VA_ARGS__), source, #function, name " != NULL")
    EXPECT_NULL_MISUSE("params", zq_threadpool_params_set_defaults);
    EXPECT_NULL_MISUSE("params", zq_threadpool_params_set_num_threads, 1);
    EXPECT_NULL_MISUSE("params", zq_threadpool_params_set_thread_ctx_create, nullptr);
    EXPECT_NULL_MISUSE("params", zq_threadpool_params_set_thread_ctx_destroy, nullptr);
    EXPECT_NULL_MISUSE("params", zq_threadpool_params_set_request_handler, nullptr);
    EXPECT_NULL_MISUSE("params", zq_threadpool_params_set_global_context, nullptr);
    EXPECT_NULL_MISUSE("params", zq_threadpool_params_destroy);
    EXPECT_NULL_MISUSE("pool", zq_threadpool_submit_request, nullptr);
    EXPECT_NULL_MISUSE("pool", zq_threadpool_get_result, nullptr);
    EXPECT_NULL_MISUSE("pool", zq_threadpool_get_result_try, nullptr);
    EXPECT_NULL_MISUSE("pool", zq_threadpool_stop);
    EXPECT_NULL_MISUSE("pool", zq_threadpool_destroy);
#undef EXPECT_NULL_MISUSE
}
