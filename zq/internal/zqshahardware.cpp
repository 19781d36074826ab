#include "zq/internal/zqsha.h"

#if defined(__x86_64__)

#include <cpuid.h>
#include <immintrin.h>

#define SHA_TARGET gnu::target("sha,sse4.1")

namespace {
// The schedule: the four most recent groups of four words, in a ring.
struct x86_schedule {
    __m128i group[4];
    __m128i &at(int index) { return group[index & 3]; }
};
} // namespace

[[SHA_TARGET]] static __m128i zq_sha_x86_load(const void *pos)
{
    return _mm_loadu_si128(static_cast<const __m128i *>(pos));
}

[[SHA_TARGET]] static void zq_sha_x86_store(void *pos, __m128i value)
{
    _mm_storeu_si128(static_cast<__m128i *>(pos), value);
}

// ---- SHA-1 with the x86 SHA instructions ----

// Twenty rounds in five groups. `e` is the value of `abcd` one group ago; in the first group of a
// block it is the state's fifth word.
template <int function>
[[SHA_TARGET, gnu::always_inline]] static inline void zq_sha1_x86_rounds(__m128i *abcd, __m128i *e,
                                                                         x86_schedule *words)
{
#pragma GCC unroll 5
    for (int index = 5 * function; index < 5 * function + 5; index++) {
        __m128i word = words->at(index);
        __m128i sum = index == 0 ? _mm_add_epi32(*e, word) : _mm_sha1nexte_epu32(*e, word);
        *e = *abcd;
        *abcd = _mm_sha1rnds4_epu32(*abcd, sum, function);
        __m128i next = _mm_sha1msg1_epu32(word, words->at(index + 1));
        next = _mm_xor_si128(next, words->at(index + 2));
        words->at(index) = _mm_sha1msg2_epu32(next, words->at(index + 3));
    }
}

[[SHA_TARGET]] static void zq_sha1_compress_x86(zqsha1 *zqsha1, const unsigned char *blocks,
                                                size_t count)
{
    const __m128i swap = _mm_set_epi64x(0x0001020304050607, 0x08090a0b0c0d0e0f);
    __m128i abcd = _mm_shuffle_epi32(zq_sha_x86_load(zqsha1->state), 0x1b);
    __m128i e = _mm_set_epi32(static_cast<int>(zqsha1->state[4]), 0, 0, 0);
    for (; count > 0; count--, blocks += 64) {
        const __m128i saved_abcd = abcd;
        const __m128i saved_e = e;
        x86_schedule words;
        for (int i = 0; i < 4; i++)
            words.at(i) = _mm_shuffle_epi8(zq_sha_x86_load(blocks + 16 * i), swap);
        zq_sha1_x86_rounds<0>(&abcd, &e, &words);
        zq_sha1_x86_rounds<1>(&abcd, &e, &words);
        zq_sha1_x86_rounds<2>(&abcd, &e, &words);
        zq_sha1_x86_rounds<3>(&abcd, &e, &words);
        abcd = _mm_add_epi32(abcd, saved_abcd);
        e = _mm_sha1nexte_epu32(e, saved_e);
    }
    zq_sha_x86_store(zqsha1->state, _mm_shuffle_epi32(abcd, 0x1b));
    zqsha1->state[4] = static_cast<uint32_t>(_mm_extract_epi32(e, 3));
}

// ---- SHA-256 with the x86 SHA instructions ----

[[SHA_TARGET, gnu::always_inline]] static inline void
zq_sha256_x86_rounds(__m128i *abef, __m128i *cdgh, x86_schedule *words, const uint32_t *constants)
{
#pragma GCC unroll 16
    for (int index = 0; index < 16; index++) {
        __m128i word = words->at(index);
        __m128i sum = _mm_add_epi32(word, zq_sha_x86_load(constants + 4 * index));
        *cdgh = _mm_sha256rnds2_epu32(*cdgh, *abef, sum);
        *abef = _mm_sha256rnds2_epu32(*abef, *cdgh, _mm_shuffle_epi32(sum, 0x0e));
        __m128i next = _mm_sha256msg1_epu32(word, words->at(index + 1));
        next = _mm_add_epi32(next, _mm_alignr_epi8(words->at(index + 3), words->at(index + 2), 4));
        words->at(index) = _mm_sha256msg2_epu32(next, words->at(index + 3));
    }
}

[[SHA_TARGET]] static void zq_sha256_compress_x86(zqsha256 *zqsha256, const unsigned char *blocks,
                                                  size_t count)
{
    const __m128i swap = _mm_set_epi64x(0x0c0d0e0f08090a0b, 0x0405060700010203);
    // The instructions want the state as ABEF and CDGH, from the highest lane down.
    __m128i badc = _mm_shuffle_epi32(zq_sha_x86_load(zqsha256->state), 0xb1);
    __m128i hgfe = _mm_shuffle_epi32(zq_sha_x86_load(zqsha256->state + 4), 0x1b);
    __m128i abef = _mm_alignr_epi8(badc, hgfe, 8);
    __m128i cdgh = _mm_blend_epi16(hgfe, badc, 0xf0);
    for (; count > 0; count--, blocks += 64) {
        const __m128i saved_abef = abef;
        const __m128i saved_cdgh = cdgh;
        x86_schedule words;
        for (int i = 0; i < 4; i++)
            words.at(i) = _mm_shuffle_epi8(zq_sha_x86_load(blocks + 16 * i), swap);
        zq_sha256_x86_rounds(&abef, &cdgh, &words, zqsha256->constants);
        abef = _mm_add_epi32(abef, saved_abef);
        cdgh = _mm_add_epi32(cdgh, saved_cdgh);
    }
    __m128i feba = _mm_shuffle_epi32(abef, 0x1b);
    __m128i dchg = _mm_shuffle_epi32(cdgh, 0xb1);
    zq_sha_x86_store(zqsha256->state, _mm_blend_epi16(feba, dchg, 0xf0));
    zq_sha_x86_store(zqsha256->state + 4, _mm_alignr_epi8(dchg, feba, 8));
}

// ---- the choice ----

static bool zq_sha_x86_available()
{
    unsigned int eax, ebx, ecx, edx;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx))
        return false;
    const unsigned int needed = bit_SSSE3 | bit_SSE4_1;
    if ((ecx & needed) != needed)
        return false;
    return __get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) && (ebx & bit_SHA);
}

sha_compress<zqsha1> zq_sha1_find_hardware()
{
    return zq_sha_x86_available() ? zq_sha1_compress_x86 : nullptr;
}

sha_compress<zqsha256> zq_sha256_find_hardware()
{
    return zq_sha_x86_available() ? zq_sha256_compress_x86 : nullptr;
}

#elif defined(__aarch64__) && !defined(__AARCH64EB__) && defined(__ARM_FEATURE_CRYPTO)

#include <arm_neon.h>
#if defined(__linux__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

namespace {
// The schedule: the four most recent groups of four words, in a ring.
struct arm_schedule {
    uint32x4_t group[4];
    uint32x4_t &at(int index) { return group[index & 3]; }
};
} // namespace

static arm_schedule zq_sha_arm_load(const unsigned char *block)
{
    arm_schedule words;
    for (int i = 0; i < 4; i++)
        words.at(i) = vreinterpretq_u32_u8(vrev32q_u8(vld1q_u8(block + 16 * i)));
    return words;
}

// ---- SHA-1 with the AArch64 cryptographic extension ----

using sha1_arm_function = uint32x4_t (*)(uint32x4_t, uint32_t, uint32x4_t);

static inline uint32x4_t zq_sha1_arm_choice(uint32x4_t abcd, uint32_t e, uint32x4_t sum)
{
    return vsha1cq_u32(abcd, e, sum);
}

static inline uint32x4_t zq_sha1_arm_parity(uint32x4_t abcd, uint32_t e, uint32x4_t sum)
{
    return vsha1pq_u32(abcd, e, sum);
}

static inline uint32x4_t zq_sha1_arm_majority(uint32x4_t abcd, uint32_t e, uint32x4_t sum)
{
    return vsha1mq_u32(abcd, e, sum);
}

// Twenty rounds in five groups, of which `first` is the number of the first.
template <sha1_arm_function function, int first>
[[gnu::always_inline]] static inline void zq_sha1_arm_rounds(uint32x4_t *abcd, uint32_t *e,
                                                             arm_schedule *words, uint32_t constant)
{
#pragma GCC unroll 5
    for (int index = first; index < first + 5; index++) {
        uint32x4_t word = words->at(index);
        uint32_t next_e = vsha1h_u32(vgetq_lane_u32(*abcd, 0));
        *abcd = function(*abcd, *e, vaddq_u32(word, vdupq_n_u32(constant)));
        *e = next_e;
        uint32x4_t next = vsha1su0q_u32(word, words->at(index + 1), words->at(index + 2));
        words->at(index) = vsha1su1q_u32(next, words->at(index + 3));
    }
}

static void zq_sha1_compress_arm(zqsha1 *zqsha1, const unsigned char *blocks, size_t count)
{
    uint32x4_t abcd = vld1q_u32(zqsha1->state);
    uint32_t e = zqsha1->state[4];
    for (; count > 0; count--, blocks += 64) {
        const uint32x4_t saved_abcd = abcd;
        const uint32_t saved_e = e;
        arm_schedule words = zq_sha_arm_load(blocks);
        zq_sha1_arm_rounds<zq_sha1_arm_choice, 0>(&abcd, &e, &words, 0x5a827999);
        zq_sha1_arm_rounds<zq_sha1_arm_parity, 5>(&abcd, &e, &words, 0x6ed9eba1);
        zq_sha1_arm_rounds<zq_sha1_arm_majority, 10>(&abcd, &e, &words, 0x8f1bbcdc);
        zq_sha1_arm_rounds<zq_sha1_arm_parity, 15>(&abcd, &e, &words, 0xca62c1d6);
        abcd = vaddq_u32(abcd, saved_abcd);
        e += saved_e;
    }
    vst1q_u32(zqsha1->state, abcd);
    zqsha1->state[4] = e;
}

// ---- SHA-256 with the AArch64 cryptographic extension ----

[[gnu::always_inline]] static inline void zq_sha256_arm_rounds(uint32x4_t *abcd, uint32x4_t *efgh,
                                                               arm_schedule *words,
                                                               const uint32_t *constants)
{
#pragma GCC unroll 16
    for (int index = 0; index < 16; index++) {
        uint32x4_t word = words->at(index);
        uint32x4_t sum = vaddq_u32(word, vld1q_u32(constants + 4 * index));
        uint32x4_t old_abcd = *abcd;
        *abcd = vsha256hq_u32(*abcd, *efgh, sum);
        *efgh = vsha256h2q_u32(*efgh, old_abcd, sum);
        uint32x4_t next = vsha256su0q_u32(word, words->at(index + 1));
        words->at(index) = vsha256su1q_u32(next, words->at(index + 2), words->at(index + 3));
    }
}

static void zq_sha256_compress_arm(zqsha256 *zqsha256, const unsigned char *blocks, size_t count)
{
    uint32x4_t abcd = vld1q_u32(zqsha256->state);
    uint32x4_t efgh = vld1q_u32(zqsha256->state + 4);
    for (; count > 0; count--, blocks += 64) {
        const uint32x4_t saved_abcd = abcd;
        const uint32x4_t saved_efgh = efgh;
        arm_schedule words = zq_sha_arm_load(blocks);
        zq_sha256_arm_rounds(&abcd, &efgh, &words, zqsha256->constants);
        abcd = vaddq_u32(abcd, saved_abcd);
        efgh = vaddq_u32(efgh, saved_efgh);
    }
    vst1q_u32(zqsha256->state, abcd);
    vst1q_u32(zqsha256->state + 4, efgh);
}

// ---- the choice ----

#if defined(__linux__)
static bool zq_sha_arm_available()
{
    const unsigned long needed = HWCAP_SHA1 | HWCAP_SHA2;
    return (getauxval(AT_HWCAP) & needed) == needed;
}
#else
// Compilers for other systems are told of the extension only where every machine has it.
static bool zq_sha_arm_available()
{
    return true;
}
#endif

sha_compress<zqsha1> zq_sha1_find_hardware()
{
    return zq_sha_arm_available() ? zq_sha1_compress_arm : nullptr;
}

sha_compress<zqsha256> zq_sha256_find_hardware()
{
    return zq_sha_arm_available() ? zq_sha256_compress_arm : nullptr;
}

#else

sha_compress<zqsha1> zq_sha1_find_hardware()
{
    return nullptr;
}

sha_compress<zqsha256> zq_sha256_find_hardware()
{
    return nullptr;
}

#endif
