// zq_json_parse() and every query, beside RapidJSON. A text, a zero byte, and paths.

#include "zq/adt/zqjson.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <map>
#include <rapidjson/document.h>

#include "fuzz/support/fuzz.h"
#include "fuzz/support/path.h"
#include "zq/internal/zqowned.h"

namespace {
// A \u escape gives one byte.
struct Bytes : rapidjson::UTF8<> {
    template <class Stream>
    static void Encode(Stream &out, unsigned int code)
    {
        out.Put(static_cast<char>(code));
    }
};
using Value = rapidjson::GenericValue<Bytes>;
using Document = rapidjson::GenericDocument<Bytes>;
constexpr unsigned int LIKE_THE_LIBRARY = rapidjson::kParseIterativeFlag |
                                          rapidjson::kParseFullPrecisionFlag |
                                          rapidjson::kParseTrailingCommasFlag;

} // namespace

// ---- texts ----

// An integer that does not fit 64 bits is misuse, and so is a minus sign alone.
static bool is_misuse(const std::string &number, char after)
{
    int64_t value;
    return number.find('.') == std::string::npos && after && strchr(",]} \t\r\n", after) &&
           std::from_chars(number.data(), number.data() + number.size(), value).ec != std::errc();
}

// Takes over the text of a document, with other numbers in place of those that are misuse.
class Texts {
  public:
    explicit Texts(const std::string &document) : source(document)
    {
        while (position < source.size()) {
            const char c = source[position];
            if (c == '"')
                take_string();
            else if (c == '-' || is_digit(c))
                take_number();
            else
                take_other(c);
        }
        common = common && open.empty();
        strict += std::string(open.rbegin(), open.rend());
    }

    std::string text;   // for the library
    std::string strict; // the same without what is particular about it, for RapidJSON
    bool common = true; // what RapidJSON accepts the library has to accept as well

  private:
    static bool is_digit(char c) { return c >= '0' && c <= '9'; }
    char at(size_t index) const { return index < source.size() ? source[index] : '\0'; }

    // A text may end before what is open has been closed.
    void take_other(char c)
    {
        if (c == '[' || c == '{')
            open += c == '[' ? ']' : '}';
        else if ((c == ']' || c == '}') && !open.empty())
            open.pop_back();
        text += c;
        strict += c;
        position++;
    }

    // Numbers may start with a 0 or, behind the sign, with the dot. They have no exponent, and no
    // other 0 once they started with one.
    void take_number()
    {
        const size_t end =
            std::min(source.find_first_not_of("0123456789.", position + 1), source.size());
        // RapidJSON rounds some fractions of more than 767 digits wrongly.
        std::string number = source.substr(position, std::min<size_t>(end - position, 767));
        // It reads beyond its tables where one is too small for a double.
        if (strtod(number.c_str(), nullptr) == 0)
            number = number.substr(0, 300);
        position = end;
        if (is_misuse(number, at(end)))
            number = number.substr(0, 15) + "1";
        text += number;

        const size_t first = number[0] == '-';
        const size_t digit = std::min(number.find_first_of("0123456789"), number.size());
        const bool exponent = at(end) == 'e' || at(end) == 'E';
        if (!at(end) || (number.compare(digit, 1, "0") == 0 && number.rfind('0') != digit))
            common = false;
        if (number.compare(first, 1, ".") == 0)
            number.insert(first, 1, '0');
        else if (number.compare(first, 1, "0") == 0 && first + 1 < number.size() &&
                 is_digit(number[first + 1]))
            number.erase(first, 1);
        strict += number;
        if (exponent) // which nobody is to accept
            strict += '?';
    }

    // Any byte may be escaped, control characters need not be. \u goes up to \u00ff.
    void take_string()
    {
        const size_t begin = position++;
        strict += '"';
        while (position < source.size() && source[position] != '"') {
            char c = source[position++];
            const bool escaped = c == '\\' && position < source.size();
            if (escaped)
                c = source[position++];
            if (escaped && c == 'u' && source.compare(position, 2, "00") != 0)
                common = false;
            if (escaped ? strchr("\"\\/bfnrtu", c) != nullptr
                        : static_cast<unsigned char>(c) >= ' ') {
                strict += escaped ? "\\" : "";
                strict += c;
            } else {
                char escape[8];
                snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned char>(c));
                strict += escape;
            }
        }
        if (position < source.size()) {
            strict += '"';
            position++;
        }
        text.append(source, begin, position - begin);
    }

    const std::string &source;
    size_t position = 0;
    std::string open; // the closing brackets that are missing, the last one first to come
};

// ---- queries ----

static const Value *member(const Value &object, const std::string &name)
{
    const Value *last = nullptr;
    for (const auto &item : object.GetObject()) {
        if (name == item.name.GetString())
            last = &item.value;
    }
    return last;
}

using JsonPath = Path<unsigned long>;

static const Value *find(const Value *value, const JsonPath &path)
{
    for (const auto &[name, index] : path) {
        if (!index)
            value = value->IsObject() ? member(*value, name) : nullptr;
        else
            value = value->IsArray() && *index < value->Size()
                        ? &(*value)[static_cast<rapidjson::SizeType>(*index)]
                        : nullptr;
        if (!value)
            break;
    }
    return value;
}

// Returns whether there is a number; without one both are 0.
static bool number_of(const Value *value, double *number, int64_t *integer)
{
    bool found = value && (value->IsNumber() || value->IsBool());
    *number = 0;
    if (found) {
        *number = value->IsBool() ? value->GetBool() : value->GetDouble();
    } else if (value && value->IsString()) {
        char *end;
        *number = strtod(value->GetString(), &end);
        found = end != value->GetString();
    }
    if (value && value->IsInt64())
        *integer = value->GetInt64();
    else if (*number >= 0x1p63 || *number < -0x1p63)
        *integer = *number > 0 ? INT64_MAX : INT64_MIN;
    else if (const volatile double moved = *number + std::copysign(0.5, *number); moved == moved)
        *integer = static_cast<int64_t>(moved); // volatile: rounded to a double on every processor
    else
        *integer = 0;
    return found;
}

// Makes every query from a node, null for the root. `value` is what is to be found, null for
// nothing.
static void query(zqjson *json, zqjsonnode *start, const JsonPath &path, const Value *value)
{
#define FETCH(name, ...)                                                                           \
    (along(path, 0, [&](auto... steps) { return name(json, __VA_ARGS__, steps..., NULL); }) == 0)

    const bool found = value, has_string = found && value->IsString();
    double number, expected_number;
    int64_t integer, expected_integer;
    const bool has_number = number_of(value, &expected_number, &expected_integer);
    const bool has_int = has_number && expected_integer == static_cast<int>(expected_integer);
    const int expected_int = has_int ? static_cast<int>(expected_integer) : 0;
    zqjsonnode *node, *again;
    const char *string;
    int small;

    FUZZ_CHECK(FETCH(zq_json_node_fetch_node, start, &node) == found && !node == !found);
    FUZZ_CHECK(FETCH(zq_json_node_fetch_string, start, &string) == has_string);
    FUZZ_CHECK(has_string ? strcmp(string, value->GetString()) == 0 : !string);
    FUZZ_CHECK(FETCH(zq_json_node_fetch_int, start, &small) == has_int && small == expected_int);
    FUZZ_CHECK(FETCH(zq_json_node_fetch_int64, start, &integer) == has_number);
    FUZZ_CHECK(integer == expected_integer);
    if (start)
        return;

    FUZZ_CHECK(FETCH(zq_json_fetch_node, &again) == found && again == node);
    const char *const before = string;
    FUZZ_CHECK(FETCH(zq_json_fetch_string, &string) == has_string && string == before);
    FUZZ_CHECK(FETCH(zq_json_fetch_int, &small) == has_int && small == expected_int);
    FUZZ_CHECK(FETCH(zq_json_fetch_int64, &integer) == has_number && integer == expected_integer);
    FUZZ_CHECK(FETCH(zq_json_fetch_double, &number) == has_number);
    FUZZ_CHECK(number == expected_number || (std::isnan(number) && std::isnan(expected_number)));
    FUZZ_CHECK(FETCH(zq_json_fetch_boolean, &small) == (found && value->IsBool()));
    FUZZ_CHECK(small == (found && value->IsTrue()));
    FUZZ_CHECK(FETCH(zq_json_fetch_null, &small) == found && small == (found && value->IsNull()));
#undef FETCH
}

static void walk(zqjson *json, const Value &root)
{
    std::vector<std::pair<zqjsonnode *, const Value *>> left = {{nullptr, &root}};
    while (!left.empty()) {
        zqjsonnode *const parent = left.back().first; // null for the root
        const Value *const container = left.back().second;
        left.pop_back();
        const auto visit = [&](zqjsonnode *node, const Step<unsigned long> &step,
                               const Value *value) {
            FUZZ_CHECK(node);
            query(json, node, {}, value);
            if (container == &root)
                query(json, nullptr, {step}, value);
            left.emplace_back(node, value);
        };
        zqjsonnode *node;
        if (container->IsArray()) {
            unsigned long index = 0;
            zq_json_node_fetch_node(json, parent, &node, "#", 0ul, NULL);
            for (const Value &value : container->GetArray()) {
                visit(node, {"#", index++}, &value);
                node = zq_json_node_fetch_next(json, node);
            }
            FUZZ_CHECK(!node);
        } else if (container->IsObject()) {
            std::map<std::string, const Value *> members; // of equal names the last
            for (const auto &item : container->GetObject())
                members[item.name.GetString()] = &item.value;
            members.erase("#"); // which a path cannot name
            for (const auto &[name, value] : members) {
                zq_json_node_fetch_node(json, parent, &node, name.c_str(), NULL);
                visit(node, {name, {}}, value);
                FUZZ_CHECK(!zq_json_node_fetch_next(json, node));
            }
        }
    }
}

static JsonPath read_path(Input &input)
{
    JsonPath path;
    for (size_t steps = 1 + input.below(PATH_MAX_STEPS); steps > 0; steps--) {
        if (const unsigned int kind = input.byte(); kind % 2 == 0)
            path.push_back({"#", kind / 2});
        else if (const std::string name = input.text(); name != "#")
            path.push_back({name, {}});
    }
    return path;
}

void fuzz(Input &input)
{
    const std::string source = input.text();
    const Texts texts(source);
    const owned<zqjson, zq_json_destroy> json(zq_json_create());
    const bool accepted = zq_json_parse(json.get(), texts.text.c_str()) == 0;

    Document reference;
    reference.Parse<LIKE_THE_LIBRARY>(texts.strict.c_str());
    const rapidjson::ParseErrorCode error = reference.GetParseError();
    const bool container = !error && (reference.IsObject() || reference.IsArray());
    const bool blank = error == rapidjson::kParseErrorDocumentEmpty;
    // RapidJSON refuses what is infinite as a double.
    const bool infinite = error == rapidjson::kParseErrorNumberTooBig;
    FUZZ_CHECK(accepted ? container || blank || infinite : !container || !texts.common);
    if (infinite)
        return;
    const Value *const root = accepted && container ? &reference : nullptr;
    if (root)
        walk(json.get(), *root);
    for (int count = 0; !input.empty() && count < 20; count++) {
        const JsonPath path = read_path(input);
        if (!path.empty())
            query(json.get(), nullptr, path, root ? find(root, path) : nullptr);
    }
}
