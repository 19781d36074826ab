#include "zq/crypto/zqsha1.h"

#include <bit>

#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/internal/zqsha.h"

// ---- blocks ----

static uint32_t zq_sha1_choice(uint32_t b, uint32_t c, uint32_t d)
{
    return d ^ (b & (c ^ d));
}

static uint32_t zq_sha1_parity(uint32_t b, uint32_t c, uint32_t d)
{
    return b ^ c ^ d;
}

static uint32_t zq_sha1_majority(uint32_t b, uint32_t c, uint32_t d)
{
    return (b & c) | (d & (b | c));
}

// The word of round `i`; the first sixteen are the block's own. Computed where it is used: a loop
// of its own tempts compilers to vectorise it, which makes each step wait for the stores before it.
static uint32_t zq_sha1_word(uint32_t *schedule, int i)
{
    uint32_t *word = schedule + i;
    if (i >= 16)
        *word = std::rotl(word[-3] ^ word[-8] ^ word[-14] ^ word[-16], 1);
    return *word;
}

// Twenty rounds with one logical function and one constant.
template <uint32_t (*function)(uint32_t, uint32_t, uint32_t)>
static void zq_sha1_rounds(uint32_t (&words)[5], uint32_t *schedule, int first, uint32_t constant)
{
    auto [a, b, c, d, e] = words;
    for (int i = first; i < first + 20; i++) {
        uint32_t sum =
            std::rotl(a, 5) + function(b, c, d) + e + constant + zq_sha1_word(schedule, i);
        e = d;
        d = c;
        c = std::rotl(b, 30);
        b = a;
        a = sum;
    }
    words[0] = a;
    words[1] = b;
    words[2] = c;
    words[3] = d;
    words[4] = e;
}

void zq_sha1_compress_portable(zqsha1 *zqsha1, const unsigned char *blocks, size_t count)
{
    uint32_t *state = zqsha1->state;
    uint32_t *schedule = zqsha1->schedule;
    for (; count > 0; count--, blocks += 64) {
        for (int i = 0; i < 16; i++)
            schedule[i] = sha_get_word(blocks + 4 * i);
        uint32_t words[5];
        memcpy(words, state, sizeof(words));
        zq_sha1_rounds<zq_sha1_choice>(words, schedule, 0, 0x5a827999);
        zq_sha1_rounds<zq_sha1_parity>(words, schedule, 20, 0x6ed9eba1);
        zq_sha1_rounds<zq_sha1_majority>(words, schedule, 40, 0x8f1bbcdc);
        zq_sha1_rounds<zq_sha1_parity>(words, schedule, 60, 0xca62c1d6);
        for (int i = 0; i < 5; i++)
            state[i] += words[i];
    }
}

std::atomic<sha_compress<zqsha1>> zq_sha1_compress;

static sha_compress<zqsha1> zq_sha1_choose()
{
    return sha_choose(&zq_sha1_compress, zq_sha1_find_hardware, zq_sha1_compress_portable);
}

// ---- messages ----

zqsha1 *zq_sha1_create(void)
{
    zqsha1 *created = make_zeroed<zqsha1>();
    if (!created) {
        ZQ_LOG(7, "not enough memory for SHA-1 context");
        return nullptr;
    }
    zq_sha1_init(created);
    return created;
}

void zq_sha1_destroy(zqsha1 *zqsha1)
{
    ZQ_ASSERT(zqsha1 != NULL);

    zq_free(zqsha1);
}

void zq_sha1_init(zqsha1 *zqsha1)
{
    static constexpr uint32_t initial[5] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476,
                                            0xc3d2e1f0};
    ZQ_ASSERT(zqsha1 != NULL);

    memcpy(zqsha1->state, initial, sizeof(initial));
    zqsha1->chunkuse = 0;
    zqsha1->length = 0;
}

void zq_sha1_update(zqsha1 *zqsha1, const void *data, size_t len)
{
    ZQ_ASSERT(zqsha1 != NULL);

    sha_update(zqsha1, data, len, zq_sha1_choose(), SHA_CALLER);
}

void zq_sha1_finalize(zqsha1 *zqsha1)
{
    ZQ_ASSERT(zqsha1 != NULL);

    sha_finalize(zqsha1, zq_sha1_choose(), SHA_CALLER);
}

int zq_sha1_digest(zqsha1 *zqsha1, unsigned char *digest)
{
    ZQ_ASSERT(zqsha1 != NULL);
    ZQ_ASSERT(digest != NULL);

    unsigned char *pos = digest;
    for (uint32_t word : zqsha1->state)
        pos = sha_put_word(pos, word);
    ZQ_ASSERT(pos - digest == 20);
    return 0;
}
