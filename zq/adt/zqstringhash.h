#ifndef ZQ_ADT_ZQSTRINGHASH_H
#define ZQ_ADT_ZQSTRINGHASH_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A map from strings to pointers of the caller's, over the hash table of zqhash.h. Keys are
 * compared byte by byte, case included, and copied when added. As with that table, a lookup may
 * move items: every call must be serialised by the caller. */

ZQ_OBJECT(zqstringhash);
ZQ_OBJECT(zqstringhashitem);

/* Releases a value that leaves the map; must not call back into the map. */
typedef void (*zq_stringhash_destroy_value_callback)(void *value, void *context);

/* zq_stringhash_create returns a new empty map, or null when out of memory.
 *
 * `destroyvaluecallback` is called with each value that is replaced, removed or left at the end,
 * and with `destroyvaluecontext`; when it is null, values are never released by the map.
 * Released with zq_stringhash_destroy(). */
ZQ_API zqstringhash *zq_stringhash_create(zq_stringhash_destroy_value_callback destroyvaluecallback,
                                          void *destroyvaluecontext);

/* zq_stringhash_create_from returns a new empty map with the value callback and its context of
 * `original`, or null when out of memory. The entries are not copied, and the new map may outlive
 * the original. */
ZQ_API zqstringhash *zq_stringhash_create_from(const zqstringhash *original);

/* zq_stringhash_destroy releases every key and value, then the map. */
ZQ_API void zq_stringhash_destroy(zqstringhash *stringhash);

/* zq_stringhash_clear releases every key and value and leaves the map empty. */
ZQ_API void zq_stringhash_clear(zqstringhash *zqstringhash);

/* zq_stringhash_add stores `value`, which may be null, under a copy of `key`; a value that the key
 * had before is released. Returns 0, or -1 when out of memory: the map is then unchanged, the value
 * still belongs to the caller, and nothing is logged. */
ZQ_API int zq_stringhash_add(zqstringhash *stringhash, const char *key, void *value);

/* zq_stringhash_remove releases the key and its value. Returns 0, or -1 when there is no such key.
 */
ZQ_API int zq_stringhash_remove(zqstringhash *stringhash, const char *key);

/* zq_stringhash_lookup returns the value of the key, borrowed from the map, or null when there is
 * no such key (which a stored null looks like too). */
ZQ_API void *zq_stringhash_lookup(zqstringhash *stringhash, const char *key);

/* zq_stringhash_enumerate_start returns a handle to the first entry, in no particular order, or
 * null when the map is empty.
 *
 * *keyptr receives the entry's key, borrowed from the map, and *valueptr its value, or both null
 * with a null handle; either pointer may be null. */
ZQ_API zqstringhashitem *zq_stringhash_enumerate_start(zqstringhash *stringhash,
                                                       const char **keyptr, void **valueptr);

/* zq_stringhash_enumerate_next returns a handle to the entry after the one last returned, or null
 * at the end; keys and values as in zq_stringhash_enumerate_start(). Every entry is seen once if
 * the map is not used otherwise in between, by lookups neither. */
ZQ_API zqstringhashitem *zq_stringhash_enumerate_next(zqstringhash *stringhash,
                                                      zqstringhashitem *prevstringhashitem,
                                                      const char **keyptr, void **valueptr);

ZQ_END_DECLS

#endif
