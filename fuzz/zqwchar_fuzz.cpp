// Decoding and encoding beside iconv() and beside each other.
// The input: how many elements and bytes there is room for, a text to decode, characters to encode.

#include "zq/adt/zqwchar.h"

#include <algorithm>
#include <iconv.h>
#include <memory>
#include <vector>

#include "fuzz/support/fuzz.h"
#include "zq/util/zqmalloc.h"

namespace {
// One direction of the C library's conversion, which lives as long as the program.
class Iconv {
  public:
    Iconv(const char *to, const char *from) : descriptor(iconv_open(to, from)) {}
    ~Iconv() { iconv_close(descriptor); }
    // False for text that is not strictly what it should be.
    bool convert(std::string text, std::string *result) const
    {
        result->resize(text.size() * sizeof(wchar_t));
        char *in = text.data(), *out = result->data();
        size_t in_left = text.size(), out_left = result->size();
        iconv(descriptor, nullptr, nullptr, nullptr, nullptr);
        if (iconv(descriptor, &in, &in_left, &out, &out_left) == static_cast<size_t>(-1))
            return false;
        result->resize(result->size() - out_left);
        return true;
    }

  private:
    iconv_t descriptor;
};
} // namespace

static std::string bytes_of(const std::wstring &characters)
{
    return {reinterpret_cast<const char *>(characters.data()), characters.size() * sizeof(wchar_t)};
}

// The bytes of a character by its first byte; 0 when it cannot be one.
static size_t sequence_length(char first)
{
    const unsigned char byte = static_cast<unsigned char>(first);
    return byte < 0x80   ? 1
           : byte < 0xC0 ? 0
           : byte < 0xE0 ? 2
           : byte < 0xF0 ? 3
           : byte < 0xF8 ? 4
                         : 0;
}

// The promised number of characters, or -1: looseness goes no further than the shape of the bytes.
static long count_characters(const std::string &text)
{
    long count = 0;
    for (size_t at = 0; at < text.size(); count++) {
        const size_t length = sequence_length(text[at]);
        if (length == 0 || at + length > text.size())
            return -1;
        for (size_t end = at++ + length; at < end; at++)
            if ((text[at] & 0xC0) != 0x80)
                return -1;
    }
    return count;
}

// Each buffer is exactly as large as it is said to be, so that a sanitizer sees its bounds.
static std::wstring check_decoding(const std::string &text, size_t room)
{
    const std::vector<char> utf8(text.c_str(), text.c_str() + text.size() + 1);
    const long expected = count_characters(text);
    size_t count = 0;
    FUZZ_CHECK(zq_wchar_buffer_from_utf8(nullptr, &count, utf8.data()) == !text.empty());
    FUZZ_CHECK(count == static_cast<size_t>(std::max(expected, 0L)));
    size_t length = room;
    std::vector<wchar_t> buffer(room, L'x');
    const int result = zq_wchar_buffer_from_utf8(buffer.data(), &length, utf8.data());
    FUZZ_CHECK(length == count && result == (expected < 0 || count > room));
    if (expected < 0)
        return {}; // to decode it into a new string would be misuse

    const std::unique_ptr<wchar_t, decltype(&zq_free)> decoded(zq_wchar_from_utf8(utf8.data()),
                                                               zq_free);
    FUZZ_CHECK(decoded);
    const std::wstring characters(decoded.get(), count);
    const size_t stored = std::min(count, room);
    FUZZ_CHECK(characters.compare(0, stored, buffer.data(), stored) == 0);
    FUZZ_CHECK(decoded.get()[count] == 0 && (count >= room || buffer[count] == 0));
    static const Iconv strict("WCHAR_T", "UTF-8");
    std::string strictly;
    FUZZ_CHECK(!strict.convert(text, &strictly) || strictly == bytes_of(characters));
    return characters.c_str(); // up to a 0 in disguise
}

static bool encodable(const std::wstring &characters)
{
    return std::none_of(characters.begin(), characters.end(), [](wchar_t character) {
        return static_cast<int32_t>(character) > 0x10FFFF;
    });
}

static std::string check_encoding(const std::wstring &characters, size_t room)
{
    const std::vector<wchar_t> wide(characters.c_str(), characters.c_str() + characters.size() + 1);
    FUZZ_CHECK(zq_wchar_strlen(wide.data()) == characters.size());
    size_t length = room;
    std::vector<char> buffer(room, 'x');
    const int result = zq_wchar_to_utf8_buffer(buffer.data(), &length, wide.data());
    const std::unique_ptr<char, decltype(&zq_free)> encoded(zq_wchar_to_utf8(wide.data()), zq_free);
    if (!encodable(characters)) {
        FUZZ_CHECK(result == -1 && length == 0 && !encoded);
        return {};
    }
    FUZZ_CHECK(encoded);
    FUZZ_CHECK(result == (length >= room));
    const std::string utf8(encoded.get(), length); // a negative character can be a zero byte
    FUZZ_CHECK(encoded.get()[length] == '\0');
    size_t whole = 0; // bytes of the characters that fit
    while (whole < length && whole + sequence_length(utf8[whole]) <= room)
        whole += sequence_length(utf8[whole]);
    FUZZ_CHECK(utf8.compare(0, whole, buffer.data(), whole) == 0);
    FUZZ_CHECK(result != 0 || buffer[length] == '\0');
    static const Iconv strict("UTF-8", "WCHAR_T");
    std::string strictly;
    FUZZ_CHECK(!strict.convert(bytes_of(characters), &strictly) || strictly == utf8);
    return utf8;
}

void fuzz(Input &input)
{
    const size_t room = input.byte();
    const std::string text = input.text();
    const std::wstring decoded = check_decoding(text, room);
    const std::string encoded = check_encoding(decoded, room);
    // Text in its shortest form, or as long, comes back as it was.
    FUZZ_CHECK(encoded.size() <= text.size());
    FUZZ_CHECK(encoded.size() < text.size() || encoded == text);

    // Three bytes make a character of either sign.
    std::wstring characters;
    while (!input.empty()) {
        const uint32_t high = input.byte(), middle = input.byte(), low = input.byte();
        const uint32_t value = high << 24 | middle << 16 | low << 8;
        characters += static_cast<wchar_t>(static_cast<int32_t>(value) >> 8);
    }
    characters = characters.c_str();
    const std::string utf8 = check_encoding(characters, room);
    const bool negative = std::any_of(characters.begin(), characters.end(), [](wchar_t character) {
        return static_cast<int32_t>(character) < 0;
    });
    if (!negative && encodable(characters))
        FUZZ_CHECK(check_decoding(utf8, room) == characters);
}
