#include "zq/math/zqhashfunc_string.h"

#include <bit>
#include <cstring>

#include "zq/internal/zqassert.h"

namespace {
using word = unsigned long;
constexpr size_t WORD_SIZE = sizeof(word);
} // namespace

// The bytes at `bytes` as a big-endian number, on machines of either order.
template <class T>
static word zq_hashfunc_load(const char *bytes)
{
    T value;
    memcpy(&value, bytes, sizeof(value));
    if constexpr (std::endian::native == std::endian::big)
        return value;
    else if constexpr (sizeof(T) == 8)
        return static_cast<word>(__builtin_bswap64(value));
    else if constexpr (sizeof(T) == 4)
        return __builtin_bswap32(value);
    else
        return __builtin_bswap16(value);
}

// Fewer bytes than a word, from two loads that overlap: both agree on the bytes they share.
template <class T>
static word zq_hashfunc_load_overlapping(const char *bytes, size_t len)
{
    word first = zq_hashfunc_load<T>(bytes);
    word last = zq_hashfunc_load<T>(bytes + len - sizeof(T));
    return first << (len - sizeof(T)) * 8 | last;
}

static word zq_hashfunc_load_tail(const char *bytes, size_t len)
{
    if constexpr (WORD_SIZE > 4) {
        if (len >= 4)
            return zq_hashfunc_load_overlapping<uint32_t>(bytes, len);
    }
    if (len >= 2)
        return zq_hashfunc_load_overlapping<uint16_t>(bytes, len);
    return len == 0 ? 0 : static_cast<unsigned char>(*bytes);
}

unsigned long zq_hashfunc_string(const char *string)
{
    ZQ_ASSERT(string != NULL);

    size_t len = strlen(string);
    word hash = 0;
    for (; len >= WORD_SIZE; string += WORD_SIZE, len -= WORD_SIZE)
        hash = std::rotl(hash, 5) ^ zq_hashfunc_load<word>(string);
    // A length that is a multiple of the word gets this round, too.
    return std::rotl(hash, 5) ^ zq_hashfunc_load_tail(string, len);
}
