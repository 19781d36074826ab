#include "zq/crypto/zqsha256.h"

#include <bit>

#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/internal/zqsha.h"

// ---- blocks ----

// Names as in FIPS 180-4, section 4.1.2: capital sigmas serve the rounds, small ones the schedule.
static uint32_t zq_sha256_capital_sigma0(uint32_t x)
{
    return std::rotr(x, 2) ^ std::rotr(x, 13) ^ std::rotr(x, 22);
}

static uint32_t zq_sha256_capital_sigma1(uint32_t x)
{
    return std::rotr(x, 6) ^ std::rotr(x, 11) ^ std::rotr(x, 25);
}

static uint32_t zq_sha256_small_sigma0(uint32_t x)
{
    return std::rotr(x, 7) ^ std::rotr(x, 18) ^ (x >> 3);
}

static uint32_t zq_sha256_small_sigma1(uint32_t x)
{
    return std::rotr(x, 17) ^ std::rotr(x, 19) ^ (x >> 10);
}

static void zq_sha256_expand(uint32_t *schedule, const unsigned char *block)
{
    for (int i = 0; i < 16; i++)
        schedule[i] = sha_get_word(block + 4 * i);
    for (int i = 16; i < 64; i++)
        schedule[i] = zq_sha256_small_sigma1(schedule[i - 2]) + schedule[i - 7] +
                      zq_sha256_small_sigma0(schedule[i - 15]) + schedule[i - 16];
}

static void zq_sha256_rounds(uint32_t *state, const uint32_t *schedule, const uint32_t *constants)
{
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
    for (int i = 0; i < 64; i++) {
        uint32_t choice = g ^ (e & (f ^ g));
        uint32_t majority = (a & b) | (c & (a | b));
        uint32_t t1 = h + zq_sha256_capital_sigma1(e) + choice + constants[i] + schedule[i];
        uint32_t t2 = zq_sha256_capital_sigma0(a) + majority;
        h = g;
        g = f;
        f = e;
        e = d + t1;
        d = c;
        c = b;
        b = a;
        a = t1 + t2;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    state[5] += f;
    state[6] += g;
    state[7] += h;
}

void zq_sha256_compress_portable(zqsha256 *zqsha256, const unsigned char *blocks, size_t count)
{
    for (; count > 0; count--, blocks += 64) {
        zq_sha256_expand(zqsha256->schedule, blocks);
        zq_sha256_rounds(zqsha256->state, zqsha256->schedule, zqsha256->constants);
    }
}

std::atomic<sha_compress<zqsha256>> zq_sha256_compress;

static sha_compress<zqsha256> zq_sha256_choose()
{
    return sha_choose(&zq_sha256_compress, zq_sha256_find_hardware, zq_sha256_compress_portable);
}

// ---- messages ----

zqsha256 *zq_sha256_create(void)
{
    zqsha256 *created = make_zeroed<zqsha256>();
    if (!created) {
        ZQ_LOG(7, "not enough memory for SHA256 context");
        return nullptr;
    }
    zq_sha256_init(created);
    return created;
}

void zq_sha256_destroy(zqsha256 *zqsha256)
{
    ZQ_ASSERT(zqsha256 != NULL);

    zq_free(zqsha256);
}

void zq_sha256_init(zqsha256 *zqsha256)
{
    static constexpr uint32_t initial[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                            0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    static constexpr uint32_t constants[64] = {
        0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4,
        0xab1c5ed5, 0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe,
        0x9bdc06a7, 0xc19bf174, 0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f,
        0x4a7484aa, 0x5cb0a9dc, 0x76f988da, 0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7,
        0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967, 0x27b70a85, 0x2e1b2138, 0x4d2c6dfc,
        0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85, 0xa2bfe8a1, 0xa81a664b,
        0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070, 0x19a4c116,
        0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
        0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7,
        0xc67178f2};
    ZQ_ASSERT(zqsha256 != NULL);

    memcpy(zqsha256->state, initial, sizeof(initial));
    memcpy(zqsha256->constants, constants, sizeof(constants));
    zqsha256->chunkuse = 0;
    zqsha256->length = 0;
}

void zq_sha256_update(zqsha256 *zqsha256, const void *data, size_t len)
{
    ZQ_ASSERT(zqsha256 != NULL);

    sha_update(zqsha256, data, len, zq_sha256_choose(), SHA_CALLER);
}

void zq_sha256_finalize(zqsha256 *zqsha256)
{
    ZQ_ASSERT(zqsha256 != NULL);

    sha_finalize(zqsha256, zq_sha256_choose(), SHA_CALLER);
}

int zq_sha256_digest(zqsha256 *zqsha256, unsigned char *digest)
{
    ZQ_ASSERT(zqsha256 != NULL);
    ZQ_ASSERT(digest != NULL);

    unsigned char *pos = digest;
    for (uint32_t word : zqsha256->state)
        pos = sha_put_word(pos, word);
    ZQ_ASSERT(pos - digest == 32);
    return 0;
}
