#ifndef ZQ_INTERNAL_ZQRECIPROCAL_H
#define ZQ_INTERNAL_ZQRECIPROCAL_H

#include <bit>
#include <climits>
#include <cstddef>
#include <cstdint>

template <size_t size>
struct twice_as_wide;
template <>
struct twice_as_wide<4> {
    using type = uint64_t;
};
#ifdef __SIZEOF_INT128__
template <>
struct twice_as_wide<8> {
    __extension__ using type = unsigned __int128;
};
#endif

// Remainders by a divisor that stays the same for long, at the price of two multiplications and
// exact for every dividend: figure 4.1 of Granlund and Montgomery, "Division by Invariant Integers
// using Multiplication", 1994. The divisor is at least 2; its owner keeps it.
template <class Word>
struct reciprocal {
    using wide = typename twice_as_wide<sizeof(Word)>::type;
    static constexpr unsigned int bits = sizeof(Word) * CHAR_BIT;

    Word factor; // the fraction (2^(shift + 1) - divisor) / divisor in units of 2^-bits, plus 1
    unsigned int shift; // 2^(shift + 1) is the least power of two that is not below the divisor

    static constexpr reciprocal of(Word divisor)
    {
        unsigned int shift = static_cast<unsigned int>(std::bit_width(divisor - 1)) - 1;
        wide power = wide{1} << (shift + 1);
        return {static_cast<Word>(((power - divisor) << bits) / divisor + 1), shift};
    }

    constexpr Word remainder(Word dividend, Word divisor) const
    {
        Word high = static_cast<Word>((static_cast<wide>(factor) * dividend) >> bits);
        Word quotient = (high + ((dividend - high) >> 1)) >> shift;
        return dividend - quotient * divisor;
    }
};

#endif
