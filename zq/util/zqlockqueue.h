#ifndef ZQ_UTIL_ZQLOCKQUEUE_H
#define ZQ_UTIL_ZQLOCKQUEUE_H

#include "zq/util/zqerror.h"
#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* An unbounded first-in first-out queue of the caller's pointers, for any number of producing and
 * consuming threads. Setting the end mark closes it for pushes; what is still queued is handed out
 * before consumers are told ZQ_ERROR_END_OF_FILE.
 *
 * Items travel in elements. A caller may allocate an element once and move it from queue to queue;
 * zq_lockqueue_push() and zq_lockqueue_pop() make and free one for each item. An element belongs to
 * the queue from a successful push until it is popped; items are always the caller's. Nothing here
 * logs. */
ZQ_OBJECT(zqlockqueue);
ZQ_OBJECT(zqlockqueue_element);

/* Releases an item that is left in a queue. */
typedef void (*zq_lockqueue_destroy_callback)(void *item);

/* ---- queues ---- */

/* zq_lockqueue_create returns an empty queue, or null. *error_out, unless it is null, receives
 * ZQ_ERROR_NONE, ZQ_ERROR_NO_MEMORY, or ZQ_ERROR_GENERIC when the queue's condition variable cannot
 * be made. */
ZQ_API zqlockqueue *zq_lockqueue_create(zqerror *error_out);

/* zq_lockqueue_destroy releases a queue that nobody uses any more. The items left in it go to
 * `callback`, unless that is null, in their order. */
ZQ_API void zq_lockqueue_destroy(zqlockqueue *queue, zq_lockqueue_destroy_callback callback);

/* zq_lockqueue_set_end closes the queue for pushes, for good, and wakes all consumers. */
ZQ_API void zq_lockqueue_set_end(zqlockqueue *queue);

/* ---- items ---- */

/* zq_lockqueue_push appends an item, which may be null. Returns ZQ_ERROR_NONE, ZQ_ERROR_NO_MEMORY,
 * or ZQ_ERROR_WRITE after the end mark. */
ZQ_API zqerror zq_lockqueue_push(zqlockqueue *queue, void *item);

/* zq_lockqueue_pop takes the first item, waiting for one. *error_out receives ZQ_ERROR_NONE, or
 * ZQ_ERROR_END_OF_FILE when there is none and the end mark is set; only this tells a null item from
 * none. */
ZQ_API void *zq_lockqueue_pop(zqlockqueue *queue, zqerror *error_out);

/* zq_lockqueue_pop_try is zq_lockqueue_pop() without waiting: *error_out receives
 * ZQ_ERROR_NOT_FOUND when there is no item yet. */
ZQ_API void *zq_lockqueue_pop_try(zqlockqueue *queue, zqerror *error_out);

/* ---- elements ---- */

/* zq_lockqueue_element_create returns an element with a null item, or null when out of memory. */
ZQ_API zqlockqueue_element *zq_lockqueue_element_create(void);

/* zq_lockqueue_element_destroy releases an element that is in no queue, not its item. */
ZQ_API void zq_lockqueue_element_destroy(zqlockqueue_element *element);

/* zq_lockqueue_element_set_item stores the item. */
ZQ_API void zq_lockqueue_element_set_item(zqlockqueue_element *element, void *item);

/* zq_lockqueue_element_get_item returns the item. */
ZQ_API void *zq_lockqueue_element_get_item(zqlockqueue_element *element);

/* zq_lockqueue_push_element appends an element that is in no queue. Returns ZQ_ERROR_NONE, or
 * ZQ_ERROR_WRITE after the end mark; the element is then still the caller's. */
ZQ_API zqerror zq_lockqueue_push_element(zqlockqueue *queue, zqlockqueue_element *element);

/* zq_lockqueue_pop_element takes the first element, waiting for one. Null comes with
 * ZQ_ERROR_END_OF_FILE in *error_out, unless that is null. */
ZQ_API zqlockqueue_element *zq_lockqueue_pop_element(zqlockqueue *queue, zqerror *error_out);

/* zq_lockqueue_pop_element_try is zq_lockqueue_pop_element() without waiting: ZQ_ERROR_NOT_FOUND
 * when there is no element yet. */
ZQ_API zqlockqueue_element *zq_lockqueue_pop_element_try(zqlockqueue *queue, zqerror *error_out);

ZQ_END_DECLS

#endif
