#include "zq/util/zqlockqueue.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqintrusive.h"
#include "zq/internal/zqlocks.h"
#include "zq/internal/zqowned.h"

struct zqlockqueue_element : zqlistlink {
    void *item;
};

struct zqlockqueue {
    zqcond *cond;  // guards all fields; consumers wait on it
    zqlist queued; // pushed at the tail, popped at the head
    bool end;
};

using owned_element = owned<zqlockqueue_element, zq_lockqueue_element_destroy>;

static void zq_lockqueue_report(zqerror *error_out, zqerror error)
{
    if (error_out)
        *error_out = error;
}

// ---- queues ----

static zqlockqueue *zq_lockqueue_make(zqerror *error)
{
    *error = ZQ_ERROR_NO_MEMORY;
    owned_block<zqlockqueue> created(make_zeroed<zqlockqueue>());
    if (!created)
        return nullptr;
    *error = ZQ_ERROR_GENERIC;
    created->cond = zq_cond_create();
    if (!created->cond)
        return nullptr;
    *error = ZQ_ERROR_NONE;
    return created.release();
}

zqlockqueue *zq_lockqueue_create(zqerror *error_out)
{
    zqerror error;
    zqlockqueue *created = zq_lockqueue_make(&error);
    zq_lockqueue_report(error_out, error);
    return created;
}

void zq_lockqueue_destroy(zqlockqueue *queue, zq_lockqueue_destroy_callback callback)
{
    ZQ_ASSERT(queue != NULL);

    for (zqlockqueue_element *element : list_items<zqlockqueue_element>(&queue->queued)) {
        if (callback)
            callback(element->item);
        zq_lockqueue_element_destroy(element);
    }
    zq_cond_destroy(queue->cond);
    zq_free(queue);
}

void zq_lockqueue_set_end(zqlockqueue *queue)
{
    ZQ_ASSERT(queue != NULL);

    cond_lock lock(queue->cond);
    queue->end = true;
    zq_cond_broadcast(queue->cond);
}

// ---- pushing and popping ----

static zqerror zq_lockqueue_append(zqlockqueue *queue, zqlockqueue_element *element)
{
    cond_lock lock(queue->cond);
    bool open = !queue->end;
    if (open)
        list_append(&queue->queued, element);
    zq_cond_signal(queue->cond);
    return open ? ZQ_ERROR_NONE : ZQ_ERROR_WRITE;
}

enum class when_empty { wait, give_up };

static zqlockqueue_element *zq_lockqueue_take(zqlockqueue *queue, when_empty policy, zqerror *error)
{
    cond_lock lock(queue->cond);
    while (policy == when_empty::wait && !queue->queued.head && !queue->end)
        zq_cond_wait(queue->cond);
    zqlockqueue_element *element = list_take_first<zqlockqueue_element>(&queue->queued);
    if (element)
        *error = ZQ_ERROR_NONE;
    else
        *error = queue->end ? ZQ_ERROR_END_OF_FILE : ZQ_ERROR_NOT_FOUND;
    return element;
}

// ---- items ----

zqerror zq_lockqueue_push(zqlockqueue *queue, void *item)
{
    ZQ_ASSERT(queue != NULL);

    owned_element element(zq_lockqueue_element_create());
    if (!element)
        return ZQ_ERROR_NO_MEMORY;
    element->item = item;
    zqerror error = zq_lockqueue_append(queue, element.get());
    if (error == ZQ_ERROR_NONE)
        element.release();
    return error;
}

void *zq_lockqueue_pop(zqlockqueue *queue, zqerror *error_out)
{
    ZQ_ASSERT(queue != NULL);
    ZQ_ASSERT(error_out != NULL);

    owned_element element(zq_lockqueue_take(queue, when_empty::wait, error_out));
    if (!element)
        return nullptr;
    ZQ_ASSERT(*error_out == ZQ_ERROR_NONE);
    return element->item;
}

void *zq_lockqueue_pop_try(zqlockqueue *queue, zqerror *error_out)
{
    ZQ_ASSERT(queue != NULL);
    ZQ_ASSERT(error_out != NULL);

    owned_element element(zq_lockqueue_take(queue, when_empty::give_up, error_out));
    if (!element)
        return nullptr;
    ZQ_ASSERT(*error_out == ZQ_ERROR_NONE);
    return element->item;
}

// ---- elements ----

zqlockqueue_element *zq_lockqueue_element_create(void)
{
    return make_zeroed<zqlockqueue_element>();
}

void zq_lockqueue_element_destroy(zqlockqueue_element *element)
{
    ZQ_ASSERT(element != NULL);

    zq_free(element);
}

void zq_lockqueue_element_set_item(zqlockqueue_element *element, void *item)
{
    ZQ_ASSERT(element != NULL);

    element->item = item;
}

void *zq_lockqueue_element_get_item(zqlockqueue_element *element)
{
    ZQ_ASSERT(element != NULL);

    return element->item;
}

zqerror zq_lockqueue_push_element(zqlockqueue *queue, zqlockqueue_element *element)
{
    ZQ_ASSERT(queue != NULL);
    ZQ_ASSERT(element != NULL);

    return zq_lockqueue_append(queue, element);
}

zqlockqueue_element *zq_lockqueue_pop_element(zqlockqueue *queue, zqerror *error_out)
{
    ZQ_ASSERT(queue != NULL);

    zqerror error;
    zqlockqueue_element *element = zq_lockqueue_take(queue, when_empty::wait, &error);
    zq_lockqueue_report(error_out, error);
    return element;
}

zqlockqueue_element *zq_lockqueue_pop_element_try(zqlockqueue *queue, zqerror *error_out)
{
    ZQ_ASSERT(queue != NULL);

    zqerror error;
    zqlockqueue_element *element = zq_lockqueue_take(queue, when_empty::give_up, &error);
    zq_lockqueue_report(error_out, error);
    return element;
}
