#ifndef ZQ_INTERNAL_ZQOWNED_H
#define ZQ_INTERNAL_ZQOWNED_H

#include <memory>

#include "zq/util/zqmalloc.h"

template <auto destroy>
struct destroyed_by {
    template <class T>
    void operator()(T *object) const
    {
        destroy(object);
    }
};

// The owner of an object between its create and destroy functions.
template <class T, auto destroy>
using owned = std::unique_ptr<T, destroyed_by<destroy>>;

// The owner of a zq_malloc block.
template <class T = char>
using owned_block = std::unique_ptr<T, destroyed_by<zq_free>>;

template <class T>
[[nodiscard]] T *make_zeroed()
{
    return static_cast<T *>(zq_cmalloc(sizeof(T)));
}

#endif
