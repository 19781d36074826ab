#include "zq/math/zqhashfunc_string.h"

#include <cstring>
#include <random>

#include "tests/support/expect.h"

static constexpr size_t WIDTH = sizeof(unsigned long);

// Byte by byte, the way the header words it: a full group is followed by an empty one.
static unsigned long hash_plainly(const std::string &text)
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

TEST(zqhashfunc_string, hashes_every_length_and_byte)
{
    EXPECT_EQ(zq_hashfunc_string("\xff"), 0xffu);
    EXPECT_EQ(zq_hashfunc_string("abcdefgh"),
              static_cast<unsigned long>(WIDTH == 8 ? 0x2c4c6c8caccced0c : 0x25417c89));
    // Each string ends where its block does, so that a sanitizer sees a byte read beyond it.
    std::mt19937 random(5);
    for (size_t i = 0; i < 1400; i++) {
        std::string text(i % 70, '\0');
        for (char &c : text)
            c = static_cast<char>(random() % 255 + 1);
        auto exact = std::make_unique<char[]>(text.size() + 1);
        strcpy(exact.get(), text.c_str());
        EXPECT_EQ(zq_hashfunc_string(exact.get()), hash_plainly(text)) << text;
    }
    EXPECT_MISUSE(zq_hashfunc_string(nullptr), "math/zqhashfunc_string", "zq_hashfunc_string",
                  "string != NULL");
}
