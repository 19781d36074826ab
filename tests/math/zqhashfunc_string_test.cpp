#include "zq/math/zqhashfunc_string.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>

#include "tests/support/expect.h"

namespace {
constexpr size_t WIDTH = sizeof(unsigned long);

// Byte by byte, the way the header words it.
unsigned long hash_plainly(const std::string &text)
{
    unsigned long hash = 0;
    for (size_t start = 0; start <= text.size(); start += WIDTH) {
        unsigned long group = 0;
        for (size_t i = start; i < start + WIDTH && i < text.size(); i++)
            group = group << 8 | static_cast<unsigned char>(text[i]);
        hash = (hash << 5 | hash >> (WIDTH * 8 - 5)) ^ group;
    }
    return hash;
}
} // namespace

TEST(zqhashfunc_string, known_values)
{
    EXPECT_EQ(zq_hashfunc_string(""), 0u);
    EXPECT_EQ(zq_hashfunc_string("a"), 0x61u);
    EXPECT_EQ(zq_hashfunc_string("\xff"), 0xffu);
    EXPECT_EQ(zq_hashfunc_string("abc"), 0x616263u);
    if (WIDTH == 8) {
        EXPECT_EQ(zq_hashfunc_string("abcdefg"), static_cast<unsigned long>(0x61626364656667));
        // A full group is followed by an empty one, which rotates.
        EXPECT_EQ(zq_hashfunc_string("abcdefgh"), static_cast<unsigned long>(0x2c4c6c8caccced0c));
    } else {
        EXPECT_EQ(zq_hashfunc_string("abcd"), 0x2c4c6c8cu);
    }
}

// Each string ends where its block does, so that a sanitizer sees a byte read beyond it.
TEST(zqhashfunc_string, every_length_and_byte)
{
    std::mt19937 random(5);
    for (size_t len = 0; len < 70; len++) {
        for (int i = 0; i < 20; i++) {
            std::string text;
            for (size_t at = 0; at < len; at++)
                text += static_cast<char>(random() % 255 + 1);
            auto exact = std::make_unique<char[]>(len + 1);
            memcpy(exact.get(), text.c_str(), len + 1);
            EXPECT_EQ(zq_hashfunc_string(exact.get()), hash_plainly(text)) << text;
        }
    }
}

TEST(zqhashfunc_string, misuse)
{
    EXPECT_MISUSE(zq_hashfunc_string(nullptr), "math/zqhashfunc_string", "zq_hashfunc_string",
                  "string != NULL");
}
