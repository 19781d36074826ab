#ifndef ZQ_UTIL_ZQPATH_H
#define ZQ_UTIL_ZQPATH_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A path as a stack of components, for walking a directory tree: append a component on the way
 * down, remove it on the way up. The path is rendered when asked for, the components joined with
 * '/', and kept until the stack changes. It never begins or ends with a separator. One thread at a
 * time. */
ZQ_OBJECT(zqpath);

/* zq_path_create returns a new empty path, or null when out of memory. Released with
 * zq_path_destroy(). */
ZQ_API zqpath *zq_path_create(void);

/* zq_path_destroy releases the path and its components. */
ZQ_API void zq_path_destroy(zqpath *zqpath);

/* zq_path_append adds a copy of `name` at the end. Returns 0, or -1 with the path unchanged: the
 * name is empty or contains '/', or out of memory. */
ZQ_API int zq_path_append(zqpath *zqpath, const char *name);

/* zq_path_remove_last removes the last component. Returns 0, or -1 when the path is empty. */
ZQ_API int zq_path_remove_last(zqpath *zqpath);

/* zq_path_peek returns the rendered path, "" when it is empty. It belongs to the path and is valid
 * until the next change. Null when out of memory. */
ZQ_API const char *zq_path_peek(zqpath *zqpath);

/* zq_path_get returns a copy of the rendered path for the caller to free with zq_free(), or null
 * when out of memory. */
ZQ_API char *zq_path_get(zqpath *zqpath);

/* zq_path_clear removes every component. */
ZQ_API void zq_path_clear(zqpath *zqpath);

ZQ_END_DECLS

#endif
