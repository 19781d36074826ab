// zqhttpheaders beside a std::map, and the fields of a block written out and parsed again.

#include "zq/net/zqhttpheaders.h"

#include <cctype>
#include <map>
#include <optional>

#include "fuzz/support/fuzz.h"
#include "zq/internal/zqowned.h"

using Table = owned<zqhttpheaders, zq_httpheaders_destroy>;
using Fields = std::map<std::string, std::optional<std::string>>; // without a value: null

static std::string in_case(std::string text, int (*convert)(int))
{
    for (char &c : text) {
        if (isascii(c))
            c = static_cast<char>(convert(c));
    }
    return text;
}

static std::string without_blanks(std::string_view value)
{
    const size_t start = value.find_first_not_of(" \t");
    return start == value.npos
               ? ""
               : std::string(value.substr(start, value.find_last_not_of(" \t") + 1 - start));
}

// Adds the fields of a block as the header describes it.
static zqerror read_block(std::string_view block, bool from_message, Fields *fields)
{
    for (bool first = true; !block.empty(); first = false) {
        const std::string_view line =
            block.substr(0, block.find_first_of(std::string_view("\0\r\n", 3)));
        if (line.empty())
            break;
        const size_t colon = line.find(':');
        if (first && from_message) {
        } else if (colon == line.npos) {
            return ZQ_ERROR_SYNTAX;
        } else {
            (*fields)[in_case(std::string(line.substr(0, colon)), tolower)] =
                without_blanks(line.substr(colon + 1));
        }
        block.remove_prefix(line.size());
        if (block.starts_with('\r'))
            block.remove_prefix(1);
        if (block.starts_with('\n'))
            block.remove_prefix(1);
    }
    return ZQ_ERROR_NONE;
}

static void check(const Table &table, const Fields &fields)
{
    for (const auto &[name, value] : fields) {
        const char *found = zq_httpheaders_get(table.get(), in_case(name, toupper).c_str());
        FUZZ_CHECK(value ? found && *value == found : !found);
    }
}

static void parse(const Table &table, const std::string &block, bool from_message, Fields *fields)
{
    const zqerror expected = read_block(block, from_message, fields);
    const auto function = from_message ? zq_httpheaders_parse_from_message : zq_httpheaders_parse;
    // Of exactly this size, for a sanitizer to see the first byte too many.
    const auto copy = std::make_unique<char[]>(block.size());
    block.copy(copy.get(), block.size());
    FUZZ_CHECK(function(table.get(), copy.get(), block.size()) == expected);
    check(table, *fields);
}

// What is added by hand need not be a field of a block, so a table of its own takes it.
static void add_fields(Input &input)
{
    const Table table(zq_httpheaders_create());
    Fields fields;
    for (unsigned int left = input.below(8); left > 0; left--) {
        const std::string name = input.text();
        std::optional<std::string> value;
        if (input.below(4) > 0)
            value = input.text();
        FUZZ_CHECK(zq_httpheaders_add(table.get(), name.c_str(),
                                      value ? value->c_str() : nullptr) == ZQ_ERROR_NONE);
        fields[in_case(name, tolower)] = value;
        check(table, fields);
    }
    FUZZ_CHECK(zq_httpheaders_clear(table.get()) == ZQ_ERROR_NONE);
    for (auto &[name, value] : fields)
        value.reset();
    check(table, fields);
}

void fuzz(Input &input)
{
    const bool from_message = input.below(2);
    add_fields(input);
    const Table table(zq_httpheaders_create());
    Fields fields;
    parse(table, input.rest(), from_message, &fields);

    std::string block;
    for (const auto &[name, value] : fields)
        block += name + ": " + *value + "\r\n";
    FUZZ_CHECK(zq_httpheaders_clear(table.get()) == ZQ_ERROR_NONE);
    parse(table, block, false, &fields);
}
