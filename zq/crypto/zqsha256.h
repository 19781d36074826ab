#ifndef ZQ_CRYPTO_ZQSHA256_H
#define ZQ_CRYPTO_ZQSHA256_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* SHA-256 (FIPS 180-4) as a stream. The digest of a message is init, update as often as needed,
 * finalize, digest. Finishing and reading are apart: zq_sha256_finalize() pads and processes the
 * last block, zq_sha256_digest() writes out the chaining value as it stands.
 *
 * The processor's SHA instructions are used where it has them. A context belongs to one thread at a
 * time. */
ZQ_OBJECT(zqsha256);

/* zq_sha256_create returns a new, initialised context, or null when out of memory. Released with
 * zq_sha256_destroy(). */
ZQ_API zqsha256 *zq_sha256_create(void);

/* zq_sha256_destroy releases the context. */
ZQ_API void zq_sha256_destroy(zqsha256 *zqsha256);

/* zq_sha256_init starts a new message, whatever was fed before. */
ZQ_API void zq_sha256_init(zqsha256 *zqsha256);

/* zq_sha256_update feeds `len` bytes; `data` may be null when `len` is 0. */
ZQ_API void zq_sha256_update(zqsha256 *zqsha256, const void *data, size_t len);

/* zq_sha256_finalize ends the message: it pads and processes what remains. The context is not
 * reset. Data fed afterwards continues from the chaining value reached, and the bytes of an
 * incomplete block still count as waiting. */
ZQ_API void zq_sha256_finalize(zqsha256 *zqsha256);

/* zq_sha256_digest writes the 32 bytes of the chaining value to `digest`, which after
 * zq_sha256_finalize() is the digest of the message. The context does not change. Returns 0. */
ZQ_API int zq_sha256_digest(zqsha256 *zqsha256, unsigned char *digest);

ZQ_END_DECLS

#endif
