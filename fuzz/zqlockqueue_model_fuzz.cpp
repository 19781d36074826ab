// The input is a program of operations on two queues, beside two of the standard library.
// Waiting calls are made when they need not wait.

#include "zq/util/zqlockqueue.h"

#include <deque>
#include <memory>

#include "fuzz/support/fuzz.h"

using Element = std::unique_ptr<zqlockqueue_element, decltype(&zq_lockqueue_element_destroy)>;

static std::deque<void *> left; // by a queue that is destroyed

namespace {
struct Popped {
    void *item;
    zqerror error;
};

class Model {
  public:
    ~Model() { zq_lockqueue_destroy(queue, nullptr); }
    void push(void *item) { FUZZ_CHECK(zq_lockqueue_push(queue, item) == expect_push(item)); }
    void push_element(Element &element);
    void pop(bool may_wait);
    void pop_element(Element &element, bool may_wait, bool wants_error);
    void set_end();
    void restart();

  private:
    static zqlockqueue *create();
    bool would_wait() const { return items.empty() && !ended; }
    zqerror expect_push(void *item);
    Popped expect_pop();

    zqlockqueue *queue = create();
    std::deque<void *> items;
    bool ended = false;
};
} // namespace

zqlockqueue *Model::create()
{
    zqerror error = ZQ_ERROR_GENERIC;
    zqlockqueue *const created = zq_lockqueue_create(&error);
    FUZZ_CHECK(created && error == ZQ_ERROR_NONE);
    return created;
}

zqerror Model::expect_push(void *item)
{
    if (ended)
        return ZQ_ERROR_WRITE;
    items.push_back(item);
    return ZQ_ERROR_NONE;
}

Popped Model::expect_pop()
{
    if (items.empty())
        return {nullptr, ended ? ZQ_ERROR_END_OF_FILE : ZQ_ERROR_NOT_FOUND};
    void *const first = items.front();
    items.pop_front();
    return {first, ZQ_ERROR_NONE};
}

void Model::push_element(Element &element)
{
    const zqerror error = zq_lockqueue_push_element(queue, element.get());
    FUZZ_CHECK(error == expect_push(zq_lockqueue_element_get_item(element.get())));
    if (error == ZQ_ERROR_NONE)
        element.release();
}

void Model::pop(bool may_wait)
{
    zqerror error = ZQ_ERROR_GENERIC;
    void *const item = may_wait && !would_wait() ? zq_lockqueue_pop(queue, &error)
                                                 : zq_lockqueue_pop_try(queue, &error);
    const Popped expected = expect_pop();
    FUZZ_CHECK(item == expected.item && error == expected.error);
}

void Model::pop_element(Element &element, bool may_wait, bool wants_error)
{
    zqerror error = ZQ_ERROR_GENERIC;
    zqerror *const error_out = wants_error ? &error : nullptr;
    element.reset(may_wait && !would_wait() ? zq_lockqueue_pop_element(queue, error_out)
                                            : zq_lockqueue_pop_element_try(queue, error_out));
    const Popped expected = expect_pop();
    FUZZ_CHECK((element != nullptr) == (expected.error == ZQ_ERROR_NONE));
    FUZZ_CHECK(!element || zq_lockqueue_element_get_item(element.get()) == expected.item);
    FUZZ_CHECK(!wants_error || error == expected.error);
}

void Model::set_end()
{
    zq_lockqueue_set_end(queue);
    ended = true;
}

void Model::restart()
{
    left.clear();
    zq_lockqueue_destroy(queue, [](void *item) { left.push_back(item); });
    FUZZ_CHECK(left == items);
    items.clear();
    ended = false;
    queue = create();
}

static void run_step(Model &model, Element &element, Input &input, uintptr_t step)
{
    void *const item = reinterpret_cast<void *>(step % 5 ? step : 0);
    const unsigned int operation = input.byte();
    switch (operation % 8) {
    case 0:
    case 1:
        return model.push(item);
    case 2:
        return model.pop(operation & 8);
    case 3:
    case 4:
        if (!element) {
            element.reset(zq_lockqueue_element_create());
            FUZZ_CHECK(element && !zq_lockqueue_element_get_item(element.get()));
            zq_lockqueue_element_set_item(element.get(), item);
        }
        return model.push_element(element);
    case 5:
        return model.pop_element(element, operation & 8, operation & 16);
    case 6:
        return operation & 8 ? model.set_end() : model.pop(false);
    default:
        return operation & 8 ? model.restart() : model.push(item);
    }
}

void fuzz(Input &input)
{
    Model models[2];
    Element element(nullptr, zq_lockqueue_element_destroy); // travels from queue to queue
    for (uintptr_t step = 1; !input.empty(); step++) {
        const unsigned int queue = input.below(2);
        run_step(models[queue], element, input, step);
    }
    for (Model &model : models)
        model.restart();
}
