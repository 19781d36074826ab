#ifndef ZQ_CRYPTO_ZQSHA1_H
#define ZQ_CRYPTO_ZQSHA1_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* SHA-1 (FIPS 180-4) as a stream. The digest of a message is init, update as often as needed,
 * finalize, digest. Finishing and reading are apart: zq_sha1_finalize() pads and processes the last
 * block, zq_sha1_digest() writes out the chaining value as it stands. SHA-1 no longer withstands
 * made collisions; it is here for the formats that use it.
 *
 * The processor's SHA instructions are used where it has them. A context belongs to one thread at a
 * time. */
ZQ_OBJECT(zqsha1);

/* zq_sha1_create returns a new, initialised context, or null when out of memory. Released with
 * zq_sha1_destroy(). */
ZQ_API zqsha1 *zq_sha1_create(void);

/* zq_sha1_destroy releases the context. */
ZQ_API void zq_sha1_destroy(zqsha1 *zqsha1);

/* zq_sha1_init starts a new message, whatever was fed before. */
ZQ_API void zq_sha1_init(zqsha1 *zqsha1);

/* zq_sha1_update feeds `len` bytes; `data` may be null when `len` is 0. */
ZQ_API void zq_sha1_update(zqsha1 *zqsha1, const void *data, size_t len);

/* zq_sha1_finalize ends the message: it pads and processes what remains. The context is not reset.
 * Data fed afterwards continues from the chaining value reached, and the bytes of an incomplete
 * block still count as waiting. */
ZQ_API void zq_sha1_finalize(zqsha1 *zqsha1);

/* zq_sha1_digest writes the 20 bytes of the chaining value to `digest`, which after
 * zq_sha1_finalize() is the digest of the message. The context does not change. Returns 0. */
ZQ_API int zq_sha1_digest(zqsha1 *zqsha1, unsigned char *digest);

ZQ_END_DECLS

#endif
