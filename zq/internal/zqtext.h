#ifndef ZQ_INTERNAL_ZQTEXT_H
#define ZQ_INTERNAL_ZQTEXT_H

#include <algorithm>
#include <cstring>
#include <string_view>

#include "zq/util/zqmalloc.h"

// Writes into a buffer as far as it reaches and counts on beyond it.
struct text_writer {
    char *out = nullptr;
    size_t capacity = 0;
    size_t length = 0;

    void put(char c)
    {
        if (length < capacity)
            out[length] = c;
        length++;
    }

    void put(std::string_view text)
    {
        if (length < capacity)
            memcpy(out + length, text.data(), std::min(text.size(), capacity - length));
        length += text.size();
    }
};

// Runs `write(text_writer &)` once to measure and once to fill one exact allocation, so that the
// two passes cannot disagree. Returns the terminated text, or null when out of memory.
template <class Write>
char *text_build(Write write, void *(*allocate)(size_t) = zq_malloc)
{
    text_writer measure;
    write(measure);
    char *text = static_cast<char *>(allocate(measure.length + 1));
    if (!text)
        return nullptr;
    text_writer fill{text, measure.length, 0};
    write(fill);
    text[measure.length] = '\0';
    return text;
}

#endif
