#ifndef ZQ_INTERNAL_ZQHASHCONTEXT_H
#define ZQ_INTERNAL_ZQHASHCONTEXT_H

#include "zq/adt/zqhash.h"

// zq_hash_create_from() for an owner who is himself the context: his copy hands its callbacks the
// copy, not the original, which may be gone by then.
zqhash *zq_hash_create_from_with_context(const zqhash *original, void *context);

#endif
