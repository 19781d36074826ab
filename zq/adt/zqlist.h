#ifndef ZQ_ADT_ZQLIST_H
#define ZQ_ADT_ZQLIST_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Intrusive doubly linked lists. The link lives in the item; whoever owns a list links and unlinks
 * in place. An empty list has both pointers null, and so has a link that is in no list. */

ZQ_OBJECT(zqlistlink);
ZQ_OBJECT(zqlist);

struct zqlistlink {
    zqlistlink *next;
    zqlistlink *prev;
};

struct zqlist {
    zqlistlink *head;
    zqlistlink *tail;
};

/* zq_list_create returns a new empty list, or null when out of memory (nothing is logged).
 * Released with zq_list_destroy(). */
ZQ_API zqlist *zq_list_create(void);

/* zq_list_destroy frees the list head only, never the items. */
ZQ_API void zq_list_destroy(zqlist *zqlist);

/* zq_list_init empties a list that is embedded in another object. */
ZQ_API void zq_list_init(zqlist *zqlist);

ZQ_END_DECLS

#endif
