// Threads and the locks that they share.
#include "zq/util/zqthread.h"

#include <cerrno>
#include <semaphore>

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"
#include "tests/support/manual_errors.h"
#include "tests/support/thread_faults.h"
#include "zq/internal/zqlocks.h"

using Thread = Owned<zqthread, zq_thread_destroy>;
using Mutex = Owned<zqmutex, zq_mutex_destroy>;
using Cond = Owned<zqcond, zq_cond_destroy>;
using RwLock = Owned<zqrwlock, zq_rwlock_destroy>;

// ---- threads ----

static void *add_one(void *context)
{
    return static_cast<char *>(context) + 1;
}

TEST(zqthread, failures_leave_the_state_as_it_was)
{
    LogCapture log;
    char place[2];
    Thread thread(zq_thread_create());
    ASSERT_TRUE(thread);
    auto expect = [&log](auto run, const std::string &call) {
        for (const int error : manual_errors.at(call)) {
            SystemCalls calls(failing(call, error));
            EXPECT_EQ(run(), error);
            EXPECT_EQ(log.take(), (std::vector<LogLine>{
                                      {7, call + "() returned error " + std::to_string(error)}}));
        }
    };
    expect([&] { return zq_thread_start(thread.get(), add_one, place); }, "pthread_create");
    ASSERT_EQ(zq_thread_start(thread.get(), add_one, place), 0);
    void *result = nullptr;
    expect([&] { return zq_thread_join(thread.get(), &result); }, "pthread_join");
    EXPECT_EQ(zq_thread_join(thread.get(), &result), 0);
    EXPECT_EQ(result, place + 1);
}

namespace {
struct Waiter {
    std::binary_semaphore started{0}, released{0};
    pthread_t identifier = {};
};
} // namespace

static void *wait_for_release(void *context)
{
    auto *waiter = static_cast<Waiter *>(context);
    waiter->identifier = pthread_self();
    waiter->started.release();
    waiter->released.acquire();
    return context;
}

TEST(zqthread, destroy_leaves_the_running_thread_alone)
{
    Thread thread(zq_thread_create());
    ASSERT_TRUE(thread);
    Waiter waiter;
    ASSERT_EQ(zq_thread_start(thread.get(), wait_for_release, &waiter), 0);
    waiter.started.acquire();
    thread.reset();
    waiter.released.release();
    void *result = nullptr;
    ASSERT_EQ(pthread_join(waiter.identifier, &result), 0);
    EXPECT_EQ(result, &waiter);
}

// ---- locks ----

namespace {
// What several threads do at once, each `ROUNDS` times, to `value`, which the lock guards.
struct Shared {
    static constexpr int THREADS = 4;
    static constexpr int ROUNDS = 2000;
    zqmutex *mutex = nullptr;
    zqcond *cond = nullptr;
    zqrwlock *rwlock = nullptr;
    int value = 0;
    int readers = 0; // guarded by the cond
};
} // namespace

static void run_together(void *(*routine)(void *), Shared *shared)
{
    Thread threads[Shared::THREADS];
    int started = 0;
    for (Thread &thread : threads) {
        thread.reset(zq_thread_create());
        if (thread && zq_thread_start(thread.get(), routine, shared) == 0)
            started++;
        else
            thread.reset();
    }
    for (Thread &thread : threads) {
        if (thread) {
            EXPECT_EQ(zq_thread_join(thread.get(), nullptr), 0);
        }
    }
    EXPECT_EQ(started, Shared::THREADS);
}

template <class Lock, auto Shared::*lock>
static void *count_under(void *context)
{
    auto *shared = static_cast<Shared *>(context);
    for (int i = 0; i < Shared::ROUNDS; i++) {
        Lock guard(shared->*lock);
        shared->value++;
    }
    return nullptr;
}

// Returns only when all readers hold the lock at the same time.
static void *read_together(void *context)
{
    auto *shared = static_cast<Shared *>(context);
    read_lock reading(shared->rwlock);
    cond_lock lock(shared->cond);
    if (++shared->readers == Shared::THREADS)
        zq_cond_broadcast(shared->cond);
    while (shared->readers < Shared::THREADS)
        zq_cond_wait(shared->cond);
    return nullptr;
}

TEST(zqlocks, writers_exclude_and_readers_share)
{
    Mutex mutex(zq_mutex_create());
    RwLock rwlock(zq_rwlock_create());
    Cond cond(zq_cond_create());
    ASSERT_TRUE(mutex && rwlock && cond);
    Shared shared{.mutex = mutex.get(), .cond = cond.get(), .rwlock = rwlock.get()};
    run_together(count_under<mutex_lock, &Shared::mutex>, &shared);
    run_together(count_under<write_lock, &Shared::rwlock>, &shared);
    if (faults_injected())
        return; // a reader that cannot be started would leave the others waiting
    EXPECT_EQ(shared.value, 2 * Shared::THREADS * Shared::ROUNDS);
    run_together(read_together, &shared);
}

TEST(zqlocks, creators_clean_up_silently)
{
    LogCapture log;
    auto expect = [](const std::string &call, auto *create) {
        for (const int error : manual_errors.at(call)) {
            SystemCalls calls(failing(call, error));
            EXPECT_EQ(create(), nullptr);
        }
    };
    expect("pthread_mutex_init", zq_mutex_create);
    expect("pthread_mutex_init", zq_cond_create);
    expect("pthread_cond_init", zq_cond_create);
    expect("pthread_rwlock_init", zq_rwlock_create);
    EXPECT_TRUE(log.take().empty());
}

// ---- misuse ----

TEST(zqthread, misuse)
{
    const char *source = "util/zqthread";
    char place[2];
    Thread thread(zq_thread_create());
    ASSERT_TRUE(thread);
    EXPECT_MISUSE(zq_thread_join(thread.get(), nullptr), source, "zq_thread_join",
                  "zqthread->state == ZQ_THREAD_STATE_RUNNING");
    ASSERT_EQ(zq_thread_start(thread.get(), add_one, place), 0);
    ASSERT_EQ(zq_thread_join(thread.get(), nullptr), 0);
    EXPECT_MISUSE(zq_thread_start(thread.get(), add_one, place), source, "zq_thread_start",
                  "zqthread->state == ZQ_THREAD_STATE_NONE");
    EXPECT_MISUSE(zq_thread_join(thread.get(), nullptr), source, "zq_thread_join",
                  "zqthread->state == ZQ_THREAD_STATE_RUNNING");
    const char *null = "zqthread != NULL";
    EXPECT_MISUSE(zq_thread_destroy(nullptr), source, "zq_thread_destroy", null);
    EXPECT_MISUSE(zq_thread_start(nullptr, add_one, place), source, "zq_thread_start", null);
    EXPECT_MISUSE(zq_thread_join(nullptr, nullptr), source, "zq_thread_join", null);
}

TEST(zqlocks, misuse)
{
    EXPECT_MISUSE(zq_mutex_destroy(nullptr), "util/zqmutex", "zq_mutex_destroy", "zqmutex != NULL");
    EXPECT_MISUSE(zq_mutex_lock(nullptr), "util/zqmutex", "zq_mutex_lock", "zqmutex != NULL");
    EXPECT_MISUSE(zq_mutex_unlock(nullptr), "util/zqmutex", "zq_mutex_unlock", "zqmutex != NULL");
    const std::pair<void (*)(zqcond *), const char *> cond_calls[] = {
        {zq_cond_destroy, "zq_cond_destroy"}, {zq_cond_lock, "zq_cond_lock"},
        {zq_cond_unlock, "zq_cond_unlock"},   {zq_cond_wait, "zq_cond_wait"},
        {zq_cond_signal, "zq_cond_signal"},   {zq_cond_broadcast, "zq_cond_broadcast"}};
    for (const auto &[call, name] : cond_calls)
        EXPECT_MISUSE(call(nullptr), "util/zqcond", name, "zqcond != NULL");
    const std::pair<void (*)(zqrwlock *), const char *> rwlock_calls[] = {
        {zq_rwlock_destroy, "zq_rwlock_destroy"},
        {zq_rwlock_rdlock, "zq_rwlock_rdlock"},
        {zq_rwlock_wrlock, "zq_rwlock_wrlock"},
        {zq_rwlock_unlock, "zq_rwlock_unlock"}};
    for (const auto &[call, name] : rwlock_calls)
        EXPECT_MISUSE(call(nullptr), "util/zqrwlock", name, "zqrwlock != NULL");
}

// Not under ThreadSanitizer, see thread_faults.h.
#ifndef __SANITIZE_THREAD__
TEST(zqlocks, what_the_platform_refuses_is_misuse)
{
    Mutex mutex(zq_mutex_create());
    Cond cond(zq_cond_create());
    RwLock rwlock(zq_rwlock_create());
    ASSERT_TRUE(mutex && cond && rwlock);
    auto expect = [](const std::string &source, auto *function, auto *object,
                     const std::string &name, const std::string &call) {
        auto refused = [&] {
            SystemCalls calls(failing(call, EINVAL));
            function(object);
        };
        EXPECT_MISUSE(refused(), source, name, "err == 0");
    };
#define EXPECT_REFUSAL(object, function, call)                                                     \
    expect("util/zq" #object, function, object.get(), #function, #call)
    EXPECT_REFUSAL(mutex, zq_mutex_lock, pthread_mutex_lock);
    EXPECT_REFUSAL(mutex, zq_mutex_unlock, pthread_mutex_unlock);
    EXPECT_REFUSAL(mutex, zq_mutex_destroy, pthread_mutex_destroy);
    EXPECT_REFUSAL(cond, zq_cond_lock, pthread_mutex_lock);
    EXPECT_REFUSAL(cond, zq_cond_unlock, pthread_mutex_unlock);
    EXPECT_REFUSAL(cond, zq_cond_wait, pthread_cond_wait);
    EXPECT_REFUSAL(cond, zq_cond_signal, pthread_cond_signal);
    EXPECT_REFUSAL(cond, zq_cond_broadcast, pthread_cond_broadcast);
    EXPECT_REFUSAL(cond, zq_cond_destroy, pthread_cond_destroy);
    EXPECT_REFUSAL(cond, zq_cond_destroy, pthread_mutex_destroy);
    EXPECT_REFUSAL(rwlock, zq_rwlock_rdlock, pthread_rwlock_rdlock);
    EXPECT_REFUSAL(rwlock, zq_rwlock_wrlock, pthread_rwlock_wrlock);
    EXPECT_REFUSAL(rwlock, zq_rwlock_unlock, pthread_rwlock_unlock);
    EXPECT_REFUSAL(rwlock, zq_rwlock_destroy, pthread_rwlock_destroy);
#undef EXPECT_REFUSAL
    auto create_half = [] {
        SystemCalls calls([](const SystemCall &call) {
            return call.name == "pthread_cond_init" || call.name == "pthread_mutex_destroy";
        });
        zq_cond_create();
    };
    EXPECT_MISUSE(create_half(), "util/zqcond", "zq_cond_create", "res == 0");
}
#endif
