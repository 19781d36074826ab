#ifndef ZQ_INTERNAL_ZQSHA_H
#define ZQ_INTERNAL_ZQSHA_H

#include <algorithm>
#include <atomic>
#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/zqdefs.h"

// What SHA-1 and SHA-256 share: a message is cut into blocks of 64 bytes, padded, and closed with
// its length in bits. They differ in their state and in what processes a block.

struct zqsha1 {
    uint32_t state[5];
    unsigned char chunk[64]; // an incomplete block
    size_t chunkuse;         // bytes waiting in `chunk`, below 64 between calls
    uint64_t length;         // bytes fed since init
    uint32_t schedule[80];
};

struct zqsha256 {
    uint32_t state[8];
    uint32_t constants[64];
    unsigned char chunk[64];
    size_t chunkuse;
    uint64_t length;
    uint32_t schedule[64];
};

// ---- what processes blocks ----

// Takes `count` blocks of 64 bytes into the state.
template <class T>
using sha_compress = void (*)(T *context, const unsigned char *blocks, size_t count);

void zq_sha1_compress_portable(zqsha1 *zqsha1, const unsigned char *blocks, size_t count);
void zq_sha256_compress_portable(zqsha256 *zqsha256, const unsigned char *blocks, size_t count);

// The code for this machine's SHA instructions; null where it has none.
sha_compress<zqsha1> zq_sha1_find_hardware();
sha_compress<zqsha256> zq_sha256_find_hardware();

// The code in use; null until the first block. Tests and benchmarks set it to compare.
extern std::atomic<sha_compress<zqsha1>> zq_sha1_compress;
extern std::atomic<sha_compress<zqsha256>> zq_sha256_compress;

// Threads that choose at once choose the same.
template <class T>
sha_compress<T> sha_choose(std::atomic<sha_compress<T>> *chosen, sha_compress<T> (*find_hardware)(),
                           sha_compress<T> portable)
{
    sha_compress<T> compress = chosen->load(std::memory_order_relaxed);
    if (!compress) [[unlikely]] {
        compress = find_hardware();
        if (!compress)
            compress = portable;
        chosen->store(compress, std::memory_order_relaxed);
    }
    return compress;
}

// ---- big-endian words ----

inline uint32_t sha_get_word(const unsigned char *pos)
{
    return static_cast<uint32_t>(pos[0]) << 24 | static_cast<uint32_t>(pos[1]) << 16 |
           static_cast<uint32_t>(pos[2]) << 8 | pos[3];
}

inline unsigned char *sha_put_word(unsigned char *pos, uint32_t word)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        *pos++ = static_cast<unsigned char>(word >> shift);
    return pos;
}

// ---- messages ----

// The function of a family on whose behalf the code below runs; reports carry its name.
struct sha_caller {
    const char *function;
    const char *file;
    int line;
};

#define SHA_CALLER (sha_caller{__func__, __FILE__, __LINE__})
#define SHA_ASSERT(caller, expression)                                                             \
    do {                                                                                           \
        if (!(expression)) [[unlikely]]                                                            \
            zq_assert_failed(caller.function, caller.file, caller.line, #expression);              \
    } while (0)

template <class T>
void sha_update(T *context, const void *data, size_t len, sha_compress<T> compress,
                sha_caller caller)
{
    const unsigned char *pos = static_cast<const unsigned char *>(data);
    size_t left = len;
    if (context->chunkuse > 0 && left > 0) {
        size_t copycount = std::min(sizeof(context->chunk) - context->chunkuse, left);
        SHA_ASSERT(caller, copycount > 0);
        memcpy(context->chunk + context->chunkuse, pos, copycount);
        context->chunkuse += copycount;
        pos += copycount;
        left -= copycount;
        if (context->chunkuse == sizeof(context->chunk)) {
            compress(context, context->chunk, 1);
            context->chunkuse = 0;
        }
    }
    if (left >= 64) {
        compress(context, pos, left / 64);
        pos += left / 64 * 64;
        left %= 64;
    }
    SHA_ASSERT(caller, left < 64);
    if (left > 0) {
        memcpy(context->chunk, pos, left);
        context->chunkuse = left;
    }
    context->length += len;
}

// Pads in place and leaves `chunkuse` as it was: the bytes that waited keep waiting, which whoever
// feeds more after a finalize counts on.
template <class T>
void sha_finalize(T *context, sha_compress<T> compress, sha_caller caller)
{
    size_t chunkuse = context->chunkuse;
    context->chunk[chunkuse++] = 0x80;
    if (chunkuse > 56) {
        memset(context->chunk + chunkuse, 0, sizeof(context->chunk) - chunkuse);
        compress(context, context->chunk, 1);
        chunkuse = 0;
    }
    SHA_ASSERT(caller, chunkuse <= 56);
    memset(context->chunk + chunkuse, 0, 56 - chunkuse);
    uint64_t bits = context->length * 8;
    unsigned char *pos = sha_put_word(context->chunk + 56, static_cast<uint32_t>(bits >> 32));
    sha_put_word(pos, static_cast<uint32_t>(bits));
    compress(context, context->chunk, 1);
}

#endif
