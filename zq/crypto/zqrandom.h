#ifndef ZQ_CRYPTO_ZQRANDOM_H
#define ZQ_CRYPTO_ZQRANDOM_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A source of random bytes: a pool of 1024 bytes into which noise is mixed and which SHA-256 stirs.
 * The first output gathers noise from /dev/urandom, the clock and some files of /proc; output is
 * then read from the pool, and after every 1024 bytes fresh noise is gathered. Files that are
 * missing are skipped silently.
 *
 * What holds: with /dev/urandom readable, no two instances or processes give the same bytes. A
 * child process notices that it was forked and gathers noise of its own before its next output, so
 * it does not repeat its parent's bytes. What does not hold: without /dev/urandom and /proc the
 * clock is the only noise, which others may guess, and which two instances seeded within the same
 * microsecond share. Output is the pool itself, so whoever reads the process's memory knows the
 * bytes up to the next gathering. Take keys from the operating system.
 *
 * Wherever an instance is taken, null means the process-wide one, which is made when first needed.
 * Neither is locked: an instance belongs to one thread at a time, and zq_random_init() is to be
 * called before threads share the process-wide one, each call then being theirs to serialise. */
ZQ_OBJECT(zqrandom);

/* zq_random_init makes the process-wide instance unless it exists. Returns 0, or -1 when out of
 * memory. */
ZQ_API int zq_random_init(void);

/* zq_random_uninit releases the process-wide instance; the next use makes a new one. */
ZQ_API void zq_random_uninit(void);

/* zq_random_create returns a new instance, or null when out of memory. Released with
 * zq_random_destroy(). */
ZQ_API zqrandom *zq_random_create(void);

/* zq_random_destroy releases the instance. */
ZQ_API void zq_random_destroy(zqrandom *zqrandom);

/* zq_random_set_filename mixes the first 1024 bytes of a file into the pool, in addition to all
 * other noise, and keeps a copy of its name. The file is never written, and it is no failure when
 * it cannot be read. Returns 0, or -1 when out of memory, nothing then being changed. */
ZQ_API int zq_random_set_filename(zqrandom *zqrandom, const char *filename);

/* zq_random_buffer fills `count` bytes at `buffer` with random bytes. Returns 0, or -1 when the
 * process-wide instance cannot be made, the buffer then being unchanged. */
ZQ_API int zq_random_buffer(zqrandom *zqrandom, void *buffer, size_t count);

/* zq_random_uint returns a random number of 32 bits, or 0xDEADBEEF when the process-wide instance
 * cannot be made. */
ZQ_API uint32_t zq_random_uint(zqrandom *zqrandom);

ZQ_END_DECLS

#endif
