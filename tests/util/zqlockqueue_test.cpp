#include "zq/util/zqlockqueue.h"

#include <cerrno>
#include <thread>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/thread_faults.h"

static void destroy_queue(zqlockqueue *queue)
{
    zq_lockqueue_destroy(queue, nullptr);
}

using Queue = Owned<zqlockqueue, destroy_queue>;
using Element = Owned<zqlockqueue_element, zq_lockqueue_element_destroy>;

// Items are numbers in pointer's clothing; 0 is the null item, which is one like others.
static void *item(uintptr_t number)
{
    return reinterpret_cast<void *>(number);
}

static uintptr_t number(void *of)
{
    return reinterpret_cast<uintptr_t>(of);
}

TEST(zqlockqueue, the_end_mark_closes_for_pushes_and_lets_pops_drain)
{
    Queue queue(zq_lockqueue_create(nullptr));
    Element element(zq_lockqueue_element_create());
    ASSERT_TRUE(queue && element);
    zqerror error = 999;
    EXPECT_EQ(zq_lockqueue_pop_try(queue.get(), &error), nullptr);
    EXPECT_EQ(error, 207u);
    ASSERT_EQ(zq_lockqueue_push(queue.get(), item(1)), 0u);
    zq_lockqueue_set_end(queue.get());
    zqerror push_result = zq_lockqueue_push(queue.get(), item(4));
    EXPECT_TRUE(push_result == 203u || (faults_injected() && push_result == 12u));
    EXPECT_EQ(zq_lockqueue_push_element(queue.get(), element.get()), 203u);
    zq_lockqueue_element_set_item(element.get(), item(4));
    EXPECT_EQ(number(zq_lockqueue_element_get_item(element.get())), 4u);
    EXPECT_EQ(number(zq_lockqueue_pop(queue.get(), &error)), 1u);
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(zq_lockqueue_pop(queue.get(), &error), nullptr);
    EXPECT_EQ(error, 204u);
}

TEST(zqlockqueue, destroy_hands_out_what_is_left_in_order)
{
    static std::vector<uintptr_t> destroyed;
    destroyed.clear();
    zqlockqueue *queue = zq_lockqueue_create(nullptr);
    ASSERT_TRUE(queue);
    std::vector<uintptr_t> pushed;
    for (uintptr_t i : {5u, 0u, 7u}) {
        if (zq_lockqueue_push(queue, item(i)) == 0)
            pushed.push_back(i);
    }
    zq_lockqueue_destroy(queue, [](void *left) { destroyed.push_back(number(left)); });
    EXPECT_EQ(destroyed, pushed);
}

TEST(zqlockqueue, create_tells_why_it_failed)
{
    zqerror error = 999;
    for (const char *call : {"pthread_mutex_init", "pthread_cond_init"}) {
        SystemCalls calls(failing(call, ENOMEM));
        EXPECT_EQ(zq_lockqueue_create(&error), nullptr);
        EXPECT_TRUE(error == 202u || (faults_injected() && error == 12u));
    }
    Queue queue(zq_lockqueue_create(&error));
    EXPECT_EQ(error == 0, queue != nullptr);
}

TEST(zqlockqueue, blocked_consumers_wake_for_an_item_and_for_the_end)
{
    Queue queue(zq_lockqueue_create(nullptr));
    ASSERT_TRUE(queue);
    std::atomic<int> got{0}, ended{0};
    std::vector<std::thread> consumers;
    for (int i = 0; i < 3; i++)
        consumers.emplace_back([&] {
            zqerror error;
            while (zq_lockqueue_pop(queue.get(), &error), error == 0)
                got++;
            ended += error == 204;
        });
    usleep(2000); // so that most of them wait
    int pushed = zq_lockqueue_push(queue.get(), item(1)) == 0;
    while (got < pushed)
        std::this_thread::yield();
    EXPECT_EQ(ended, 0);
    zq_lockqueue_set_end(queue.get());
    for (std::thread &consumer : consumers)
        consumer.join();
    EXPECT_EQ(got, pushed);
    EXPECT_EQ(ended, 3);
}

// Every item comes out once, and those of one producer reach a consumer in their order.
TEST(zqlockqueue, many_producers_and_consumers)
{
    const uintptr_t SIDES = 3, EACH = faults_injected() ? 50 : 5000;
    Queue queue(zq_lockqueue_create(nullptr));
    ASSERT_TRUE(queue);
    std::vector<std::atomic<int>> seen(SIDES * EACH);
    std::atomic<size_t> pushed{0}, disorder{0};
    std::vector<std::thread> producers, consumers;
    for (uintptr_t side = 0; side < SIDES; side++) {
        producers.emplace_back([&, side] {
            for (uintptr_t i = 0; i < EACH; i++)
                pushed += zq_lockqueue_push(queue.get(), item(side * EACH + i)) == 0;
        });
        consumers.emplace_back([&] {
            std::vector<uintptr_t> next(SIDES);
            zqerror error;
            for (;;) {
                uintptr_t popped = number(zq_lockqueue_pop(queue.get(), &error));
                if (error != 0)
                    break;
                seen[popped]++;
                disorder += popped % EACH < next[popped / EACH];
                next[popped / EACH] = popped % EACH + 1;
            }
        });
    }
    for (std::thread &producer : producers)
        producer.join();
    zq_lockqueue_set_end(queue.get());
    for (std::thread &consumer : consumers)
        consumer.join();
    size_t once = 0;
    for (const std::atomic<int> &count : seen)
        once += count == 1;
    EXPECT_EQ(once, pushed);
    EXPECT_EQ(pushed, SIDES * EACH);
    EXPECT_EQ(disorder, 0u);
}

TEST(zqlockqueue, misuse)
{
    const char *source = "util/zqlockqueue";
    Queue queue(zq_lockqueue_create(nullptr));
    ASSERT_TRUE(queue);
    zqerror error;
    EXPECT_MISUSE(zq_lockqueue_pop(queue.get(), nullptr), source, "zq_lockqueue_pop",
                  "error_out != NULL");
    EXPECT_MISUSE(zq_lockqueue_pop_try(queue.get(), nullptr), source, "zq_lockqueue_pop_try",
                  "error_out != NULL");
    EXPECT_MISUSE(zq_lockqueue_push_element(queue.get(), nullptr), source,
                  "zq_lockqueue_push_element", "element != NULL");
#define EXPECT_NULL_MISUSE(name, function, ...)                                                    \
    EXPECT_MISUSE(function(nullptr __VA_OPT__(, ) __VA_ARGS__), source, #function, name " != NULL")
    EXPECT_NULL_MISUSE("queue", zq_lockqueue_destroy, nullptr);
    EXPECT_NULL_MISUSE("queue", zq_lockqueue_set_end);
    EXPECT_NULL_MISUSE("queue", zq_lockqueue_push, nullptr);
    EXPECT_NULL_MISUSE("queue", zq_lockqueue_pop, &error);
    EXPECT_NULL_MISUSE("queue", zq_lockqueue_pop_try, &error);
    EXPECT_NULL_MISUSE("queue", zq_lockqueue_push_element, nullptr);
    EXPECT_NULL_MISUSE("queue", zq_lockqueue_pop_element, &error);
    EXPECT_NULL_MISUSE("queue", zq_lockqueue_pop_element_try, &error);
    EXPECT_NULL_MISUSE("element", zq_lockqueue_element_destroy);
    EXPECT_NULL_MISUSE("element", zq_lockqueue_element_set_item, nullptr);
    EXPECT_NULL_MISUSE("element", zq_lockqueue_element_get_item);
#undef EXPECT_NULL_MISUSE
}
