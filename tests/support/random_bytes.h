#ifndef TESTS_SUPPORT_RANDOM_BYTES_H
#define TESTS_SUPPORT_RANDOM_BYTES_H

#include <cstring>
#include <random>
#include <string>

// The same ones for the same size; a piece that is lost, doubled or moved does not go unnoticed.
inline std::string random_bytes(size_t size)
{
    std::string bytes(size, '\0');
    std::mt19937_64 random(size);
    for (size_t at = 0; at < size; at += sizeof(uint64_t)) {
        const uint64_t word = random();
        memcpy(&bytes[at], &word, std::min(size - at, sizeof(word)));
    }
    return bytes;
}

#endif
