#ifndef FUZZ_SUPPORT_FUZZ_H
#define FUZZ_SUPPORT_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

// The bytes of one run, taken from the front. Past the end there are zeros and empty texts.
class Input {
  public:
    Input(const uint8_t *data, size_t size) : left(reinterpret_cast<const char *>(data), size) {}

    bool empty() const { return left.empty(); }
    uint8_t byte()
    {
        uint8_t first = left.empty() ? 0 : static_cast<uint8_t>(left.front());
        left.remove_prefix(left.empty() ? 0 : 1);
        return first;
    }
    // Below `limit`, which is at most 256.
    unsigned int below(unsigned int limit) { return byte() % limit; }
    std::string bytes(size_t count)
    {
        std::string taken(left.substr(0, count));
        left.remove_prefix(taken.size());
        return taken;
    }
    // Up to a zero byte, which is skipped.
    std::string text()
    {
        std::string taken = bytes(left.find('\0'));
        byte();
        return taken;
    }
    std::string rest() { return bytes(left.size()); }

  private:
    std::string_view left;
};

// What a fuzzer is: called once for every input. Neither leaks nor state may stay behind.
void fuzz(Input &input);

// The library must have made this true; the run ends when it has not.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition);              \
            abort();                                                                               \
        }                                                                                          \
    } while (0)

#endif
