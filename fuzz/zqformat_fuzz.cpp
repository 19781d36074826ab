// zq_format() beside the header's rules over std::string.
// The input: how many pairs there are, which values are missing, the pairs, the format.

#include "zq/util/zqformat.h"

#include <array>
#include <memory>
#include <optional>

#include "fuzz/support/fuzz.h"
#include "zq/util/zqmalloc.h"

namespace {
struct Pair {
    std::string name, value;
    const char *given_name, *given_value; // null for none
};

using Pairs = std::array<Pair, 4>;
} // namespace

// Appends the value of a name; returns false when a null comes before it.
static bool append(std::string *result, std::string_view name, const Pairs &pairs)
{
    for (const Pair &pair : pairs) {
        if (!pair.given_name)
            break;
        if (!pair.given_value)
            return false;
        if (pair.name == name) {
            *result += pair.value;
            break;
        }
    }
    return true;
}

static std::optional<std::string> expand(std::string_view format, const Pairs &pairs)
{
    std::string result;
    for (size_t open; (open = format.find('%')) != format.npos;) {
        const size_t close = format.find('%', open + 1);
        if (close == format.npos)
            break;
        const std::string_view name = format.substr(open + 1, close - open - 1);
        result += format.substr(0, open);
        format.remove_prefix(close + 1);
        if (name.empty())
            result += '%';
        else if (!append(&result, name, pairs))
            return std::nullopt;
    }
    return result.append(format);
}

void fuzz(Input &input)
{
    Pairs pairs;
    const unsigned int count = input.below(pairs.size() + 1);
    const unsigned int missing = input.byte();
    for (unsigned int i = 0; i < pairs.size(); i++) {
        Pair &pair = pairs[i];
        pair.name = input.text();
        pair.value = input.text();
        pair.given_name = i < count ? pair.name.c_str() : nullptr;
        pair.given_value = missing >> i & 1 ? nullptr : pair.value.c_str();
    }
    const std::string format = input.text();
    const auto &[a, b, c, d] = pairs;
    const std::unique_ptr<char, decltype(&zq_free)> text(
        zq_format(format.c_str(), a.given_name, a.given_value, b.given_name, b.given_value,
                  c.given_name, c.given_value, d.given_name, d.given_value,
                  static_cast<char *>(nullptr)),
        zq_free);
    const std::optional<std::string> expected = expand(format, pairs);
    FUZZ_CHECK((text != nullptr) == expected.has_value());
    FUZZ_CHECK(!text || text.get() == *expected);
}
