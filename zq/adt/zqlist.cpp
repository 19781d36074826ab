#include "zq/adt/zqlist.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqowned.h"

zqlist *zq_list_create(void)
{
    return make_zeroed<struct zqlist>();
}

void zq_list_destroy(zqlist *zqlist)
{
    ZQ_ASSERT(zqlist != NULL);

    zq_free(zqlist);
}

void zq_list_init(zqlist *zqlist)
{
    ZQ_ASSERT(zqlist != NULL);

    zqlist->head = nullptr;
    zqlist->tail = nullptr;
}
