// Encoding byte by byte, as the header words it.
// The input: the capacity of a buffer, two texts of exempted bytes, the bytes to encode.

#include "zq/util/zqurlencode.h"

#include <memory>
#include <vector>

#include "fuzz/support/fuzz.h"
#include "zq/util/zqmalloc.h"

using Encoded = std::unique_ptr<char, decltype(&zq_free)>;

static std::string encode(const std::string &source, const std::string &exempted = "")
{
    const std::string passing =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!'()*" + exempted;
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string result;
    for (char c : source) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (passing.find(c) != std::string::npos)
            result += c;
        else if (c == ' ')
            result += '+';
        else
            (result += '%') += {digits[byte / 16], digits[byte % 16]};
    }
    return result;
}

// The buffer is exactly as large as it is said to be, so that a sanitizer sees its bounds.
static void check_buffer(zqurlencode *context, size_t capacity, const std::string &source,
                         const std::string &expected)
{
    std::vector<char> buffer(capacity, 'x');
    size_t length = capacity;
    const zqerror error =
        zq_urlencode_buffer(context, buffer.data(), &length, source.data(), source.size());
    FUZZ_CHECK(length == expected.size());
    FUZZ_CHECK(error == (length > capacity ? ZQ_ERROR_OUT_OF_RANGE : ZQ_ERROR_NONE));
    FUZZ_CHECK(expected.compare(0, capacity, buffer.data(), std::min(length, capacity)) == 0);
    FUZZ_CHECK(length >= capacity || buffer[length] == '\0');
}

static void check_string(zqurlencode *context, const std::string &source,
                         const std::string &expected)
{
    char *string = nullptr;
    const zqerror error = zq_urlencode_string(context, &string, source.c_str());
    const Encoded encoded(string, zq_free);
    FUZZ_CHECK(error == ZQ_ERROR_NONE && encoded && encoded.get() == expected);
}

void fuzz(Input &input)
{
    const size_t capacity = input.byte();
    std::string exempted = input.text(), more = input.text();
    const std::string source = input.rest();
    const std::string text = source.c_str();
    const std::unique_ptr<zqurlencode, decltype(&zq_urlencode_destroy)> context(
        zq_urlencode_create(), zq_urlencode_destroy);

    zq_urlencode_skip(context.get(), exempted.c_str());
    zq_urlencode_skip(context.get(), more.c_str());
    exempted += more;
    const std::string expected = encode(source, exempted);
    for (size_t room : {size_t{0}, capacity, expected.size(), expected.size() + 1})
        check_buffer(context.get(), room, source, expected);
    check_string(context.get(), text, encode(text, exempted));

    zq_urlencode_reset(context.get());
    check_string(context.get(), text, encode(text));
    const Encoded plain(zq_urlencode(text.c_str()), zq_free);
    FUZZ_CHECK(plain && plain.get() == encode(text));
}
