#ifndef ZQ_UTIL_ZQMALLOC_H
#define ZQ_UTIL_ZQMALLOC_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* All memory that the library allocates or hands out comes from these wrappers over the system
 * allocator. They add no header: zq_free() and free() release each other's blocks. The presence of
 * the environment variable ZQMALLOC_FAILMODE, looked up on the first zq_malloc, zq_calloc or
 * zq_cmalloc, switches fault injection on for the life of the process (zqmallocfail.h).
 * Nothing here logs. Any thread, except that fault injection is decided by the first call. */

/* zq_malloc allocates `size` bytes; null on failure. A size of 0 is passed through as it is. */
ZQ_API void *zq_malloc(size_t size);

/* zq_calloc allocates `count` zeroed elements of `size` bytes; null on failure or overflow. */
ZQ_API void *zq_calloc(size_t count, size_t size);

/* zq_cmalloc allocates one zeroed block of `size` bytes; null on failure. */
ZQ_API void *zq_cmalloc(size_t size);

/* zq_realloc resizes a block; null on failure, the block then being unchanged. A size of 0 counts
 * as 1, so the call never frees. It never fails by injection. */
ZQ_API void *zq_realloc(void *ptr, size_t size);

/* zq_free releases a block; null is allowed. */
ZQ_API void zq_free(void *ptr);

/* zq_memdup returns a new block with a copy of `size` bytes (one byte when `size` is 0, its content
 * unspecified), or null when out of memory. The caller frees it with zq_free(). */
ZQ_API void *zq_memdup(const void *memory, size_t size);

/* zq_malloc_uninit releases the in-memory database of fault injection; the mode stays as it is. */
ZQ_API void zq_malloc_uninit(void);

ZQ_END_DECLS

#endif
