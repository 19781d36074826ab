#ifndef ZQ_UTIL_ZQUUID_H
#define ZQ_UTIL_ZQUUID_H

#include "zq/crypto/zqrandom.h"
#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Random UUIDs: version 4 of RFC 9562. */
ZQ_OBJECT(zquuid);

/* zq_uuid_create returns a new context that draws from the process-wide random source, or null when
 * out of memory. Released with zq_uuid_destroy(). */
ZQ_API zquuid *zq_uuid_create(void);

/* zq_uuid_destroy releases the context, not its random source. */
ZQ_API void zq_uuid_destroy(zquuid *zquuid);

/* zq_uuid_set_random sets the random source, which must outlive its use here; null is the
 * process-wide one. */
ZQ_API void zq_uuid_set_random(zquuid *zquuid, zqrandom *zqrandom);

/* zq_uuid_random returns a new UUID as 36 lower-case characters, such as
 * "0e24a5f7-98cb-4c5e-b6a4-2f0f1c6cd8e4", which the caller frees with zq_free(). Null when out of
 * memory. */
ZQ_API char *zq_uuid_random(zquuid *zquuid);

ZQ_END_DECLS

#endif
