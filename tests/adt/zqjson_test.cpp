#include "zq/adt/zqjson.h"

#include <bit>
#include <clocale>
#include <cmath>
#include <random>
#include <tuple>

#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "tests/support/small_stack.h"
#include "tests/support/system_calls.h"

DEFINE_SYSTEM_CALL(locale_t, newlocale, (int mask, const char *name, locale_t base), "", 0,
                   (mask, name, base), noexcept)

namespace {
using Json = Owned<zqjson, zq_json_destroy>;

// The lines of the JSON functions; the hash tables below trace as well.
Lines lines_of(LogCapture &log)
{
    Lines lines = log.take();
    std::erase_if(lines, [](const LogLine &line) { return line.text.find("hash") < 40; });
    return lines;
}

// A document with this text, or null when it cannot be parsed.
Json parsed(const std::string &text)
{
    Json json(zq_json_create());
    if (json && zq_json_parse(json.get(), text.c_str()) != 0)
        json.reset();
    return json;
}

std::string repeated(size_t count, const std::string &text)
{
    std::string all;
    for (size_t i = 0; i < count; i++)
        all += text;
    return all;
}
} // namespace

// ---- parsing ----

// Accepting leaves nothing in the log.
TEST(zqjson, accepted_texts)
{
    const char *texts[] = {"",
                           "[1 , ]",
                           "{\"a\" : 1 , } ",
                           "[-.5\t,1\n,2\r]",
                           "[{\"a\":[],\"b\":[null",
                           "[01]",
                           "[9223372036854775807,-9223372036854775808]",
                           "[\"\x01\xff\\u00fF\"]"};
    for (const char *text : texts) {
        LogCapture log(13);
        EXPECT_TRUE(parsed(text)) << text;
        EXPECT_EQ(lines_of(log), Lines{}) << text;
    }
}

// What follows the first line of a failure, each a letter below.
static Lines following(const std::string &letters)
{
    const std::map<char, LogLine> lines = {{'e', {13, "unable to parse an array element"}},
                                           {'v', {13, "unable to parse a value for a key"}},
                                           {'k', {6, "expecting a string for a key"}},
                                           {'m', {7, "not enough memory for a string"}},
                                           {'A', {6, "got end-of-data in the middle of an array"}},
                                           {'O', {6, "got end-of-data in the middle of an object"}},
                                           {'S', {6, "got end-of-data in the middle of a string"}},
                                           {'N', {6, "got end-of-data in the middle of a number"}}};
    Lines result;
    for (char letter : letters)
        result.push_back(lines.at(letter));
    return result;
}

TEST(zqjson, refused_texts)
{
    const std::string zeros = "a number cannot start with two consecutive zeros";
    const std::string in_escape = " in the middle of a unicode character escape sequence";
    const std::string unicode = "Unimplemented: Output unicode as UTF-8";
    const struct {
        const char *text;
        std::string first, following;
    } rows[] = {
        {" true", "expecting '{' or '[' but got 't'", ""},
        {"{\"a\":[1]} x", "expected end-of-data but got 'x'", ""},
        {"[,1]", "unimplemented ','", "e"},
        {"[truex]", "expecting ',' or ']' but got 'x'", ""},
        {"{\"a\":{\"b\":[[],{\"c\":!", "unimplemented '!'", "vevv"},
        {"{,}", "unexpected character ',', expecting a string or '}'", ""},
        {"{\"a\":1,]", "unexpected character ']', expecting a string or '}'", ""},
        {"{\"a\":1]", "expecting ',' or '}' but got ']'", ""},
        {"{\"a\" 1}", "expecting a colon, got '1'", ""},
        {"{\"a\" ", "got end-of-data in an object when expecting a colon", "O"},
        {"{\"a\": ", std::string("unimplemented '\0'", 17), "vO"},
        {"[{\"\\u1234\":1}]", unicode, "mke"},
        {"[\"a\\", "got end-of-data after an escaping backslash", "SeA"},
        {"[\"\\u0100\"]", unicode, "me"},
        {"[\"\\u004\"]", "got end-of-data in a unicode character escape sequence", "me"},
        {"[\"\\u0:00\"]", "unexpected character ':'" + in_escape, "me"},
        {"[1.", "expected a digit after a dot in a number", "NeA"},
        {"[1.]", "the next character after a dot must be a digit but was ']'", "e"},
        {"[1.2.3]", "a number containing two dots not allowed", "e"},
        {"[1.5E5]", "unimplemented 'E'", "e"},
        {"[00]", zeros, "e"},
        {"[-0.10]", zeros, "e"},
        // No reason of their own: keywords fail in silence.
        {"[tru", "", "e"},
        {"{\"a\":falsy}", "", "v"},
        {"[ \n", "", "A"},
        {"{ ", "", "O"},
        {"[1", "", "NeA"},
        {"{\"a", "", "SkO"},
        {"[\"12345678901234567", "", "SeA"},
        {"[\"a\\\"]", "", "SeA"},
        {"[[{\"a\":[", "", "AvOeAeA"},
    };
    for (const auto &row : rows) {
        LogCapture log(13);
        Json json(zq_json_create());
        ASSERT_TRUE(json);
        zq_json_parse(json.get(), "[1]");
        EXPECT_EQ(zq_json_parse(json.get(), row.text), -1) << row.text;
        Lines lines = following(row.following);
        if (!row.first.empty())
            lines.insert(lines.begin(), {6, row.first});
        EXPECT_EQ(lines_of(log), lines) << row.text;
        int number = 1;
        EXPECT_EQ(zq_json_fetch_int(json.get(), &number, "#", 0ul, NULL), -1) << row.text;
        EXPECT_EQ(lines_of(log), (Lines{{6, "no JSON parsed"}})) << row.text;
    }
}

// ---- queries ----

static const char DOCUMENT[] = R"({
    "list": [10, 20, 30], "empty": [], "big": 3000000000, "least": -2147483648, "half": -2.5, "twelve": " 12.5 apples",
    "far": "-1e300", "nan": "nan", "array": [], "string": "", "number": 0, "true": true,
    "false": false, "null": null
})";

static constexpr double NONE = -77; // what is to fail

template <class T>
static void expect(int (*fetch)(zqjson *, T *, ...), const Json &json, const char *name,
                   double expected)
{
    T value = 5;
    EXPECT_EQ(fetch(json.get(), &value, name, NULL), expected == NONE ? -1 : 0) << name;
    const volatile double fetched = static_cast<double>(value); // no more digits than a double
    EXPECT_EQ(double{fetched}, expected == NONE ? 0 : expected) << name;
}

TEST(zqjson, typed_fetches)
{
    Json json = parsed(DOCUMENT);
    ASSERT_TRUE(json);
    const std::tuple<const char *, double, double> rows[] = {
        {"big", 3e9, 3e9},     {"least", -2147483648.0, -2147483648.0},
        {"half", -3, -2.5},    {"far", -9223372036854775807.0, -1e300},
        {"twelve", 13, 12.5},  {"null", NONE, NONE},
        {"absent", NONE, NONE}};
    LogCapture log;
    for (const auto &[name, integer, number] : rows) {
        expect(zq_json_fetch_double, json, name, number);
        expect(zq_json_fetch_int64, json, name, integer);
        EXPECT_EQ(log.take(), Lines{}) << name;
        const bool too_long = fabs(integer) > 2147483648.0;
        expect(zq_json_fetch_int, json, name, too_long ? NONE : integer);
        EXPECT_EQ(log.take(), Lines(too_long, {6, "value too long to fit in an int variable"}));
    }
    expect(zq_json_fetch_boolean, json, "false", 0);
    expect(zq_json_fetch_boolean, json, "number", NONE);
    expect(zq_json_fetch_null, json, "null", 1);
    expect(zq_json_fetch_null, json, "absent", NONE);
    expect(zq_json_fetch_null, json, nullptr, NONE);
    expect(zq_json_fetch_int64, json, "nan", 0);
}

TEST(zqjson, paths)
{
    Json json = parsed(DOCUMENT);
    ASSERT_TRUE(json);
    LogCapture log(13);
    zqjsonnode *list = nullptr, *node = nullptr;
    EXPECT_EQ(zq_json_fetch_node(json.get(), &list, "list", NULL), 0);
    EXPECT_EQ(zq_json_fetch_node(json.get(), &node, NULL), 0);
    EXPECT_EQ(node, nullptr) << "an empty path from nowhere is not the root";
    EXPECT_EQ(lines_of(log), Lines{});

    auto fails = [&](int result, LogLine line) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(node, nullptr);
        EXPECT_EQ(lines_of(log), Lines{line});
        node = list;
    };
    fails(zq_json_fetch_node(json.get(), &node, "list", "#", 5ul, NULL),
          {13, "trying to access array beyond the end at index 2, looking for index 5"});
    fails(zq_json_fetch_node(json.get(), &node, "empty", "#", 0ul, NULL),
          {13, "trying to access an empty array, looking for index 0"});
    fails(zq_json_fetch_node(json.get(), &node, "List", "#", 0ul, NULL),
          {13, "did not find node named 'List' under an object"});
    fails(zq_json_fetch_node(json.get(), &node, "#", 0ul, NULL),
          {6, "trying to access array but the node type is object"});
    for (const char *type : {"array", "string", "number", "true", "false", "null"})
        fails(zq_json_fetch_node(json.get(), &node, type, "name", NULL),
              {6, std::string("trying to access object but the node type is ") + type});
    json = parsed(" \t\n");
    ASSERT_TRUE(json);
    fails(zq_json_fetch_node(json.get(), &node, "a", NULL), {6, "no JSON parsed"});
}

TEST(zqjson, fractions_are_those_of_strtod)
{
    std::mt19937_64 random(3);
    auto below = [&](size_t limit) { return static_cast<size_t>(random() % limit); };
    for (int i = 0; i < (faults_injected() ? 20 : 5000); i++) {
        // Up to about the digits that a double needs, and at times many more.
        std::string number(i % 2 ? "-" : "");
        if (i % 50 == 0)
            number.append(1 + below(400), '9');
        number.append(std::to_string(random() >> random() % 64 | 1)).append(1, '.');
        for (size_t digits = below(20) + 1; digits > 0; digits--)
            number += static_cast<char>('0' + random() % 10);
        Json json = parsed("{\"n\":" + number + "}");
        ASSERT_TRUE(json) << number;
        expect(zq_json_fetch_double, json, "n", strtod(number.c_str(), nullptr));
    }
}

TEST(zqjson, numbers_do_not_depend_on_the_locale)
{
    if (faults_injected())
        GTEST_SKIP();
    Scratch scratch;
    std::string source = "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\ngrouping 3;3\n"
                         "END LC_NUMERIC\nLC_CTYPE\ncopy \"POSIX\"\nEND LC_CTYPE\n";
    const bool big = std::endian::native == std::endian::big;
    run({"localedef", big ? "--big-endian" : "--little-endian", "-c", "-i",
         scratch.write("source", source), "-f", "ANSI_X3.4-1968", scratch.file("comma")});
    setenv("LOCPATH", scratch.path().c_str(), 1);
    if (!setlocale(LC_NUMERIC, "comma"))
        GTEST_SKIP() << "no locale with a decimal comma can be made here";
    unsetenv("LOCPATH");
    Json json = parsed(R"({"short": 2.5, "long": 2.50000000000000000000, "string": "2.5"})");
    EXPECT_TRUE(json);
    for (const char *name : {"short", "long", "string"})
        expect(zq_json_fetch_double, json, name, 2.5);
    setlocale(LC_NUMERIC, "C");
}

// ---- depth and length ----

TEST(zqjson, numbers_need_the_c_locale)
{
    LogCapture log;
    SystemCalls calls(failing("newlocale", ENOMEM));
    EXPECT_FALSE(parsed("[0.123456789123456789]"));
    if (!faults_injected()) {
        EXPECT_EQ(log.take(), (Lines{{7, "not enough memory for the C locale"}}));
    }
}

TEST(zqjson, any_depth_and_length_on_a_small_stack)
{
    if (faults_injected())
        GTEST_SKIP();
    on_small_stack([] {
        const size_t depth = 100000;
        Json json =
            parsed(repeated(depth, "[{\"a\":1,\"a\":[") + "[7]" + repeated(depth, "],\"b\":{}}]"));
        ASSERT_TRUE(json);
        zqjsonnode *node = nullptr;
        for (size_t level = 0; level < depth; level++)
            zq_json_node_fetch_node(json.get(), node, &node, "#", 0ul, "a", "#", 0ul, NULL);
        int value = 0;
        EXPECT_EQ(zq_json_node_fetch_int(json.get(), node, &value, "#", 0ul, NULL), 0);
        EXPECT_EQ(value, 7);

        // Deep values that are replaced while the parser is deep down itself, and at its end.
        const std::string deep = repeated(50000, "{\"a\":[") + repeated(50000, "]}");
        const std::string twice = "{\"x\":" + deep + ",\"x\":" + deep + ",\"x\":";
        EXPECT_TRUE(parsed(repeated(1000, "[") + twice + "true"));
        LogCapture log(13);
        EXPECT_FALSE(parsed(twice + "!"));
        log.take();

        // The lines of a failure come innermost first, as from a parser that recurses.
        EXPECT_FALSE(parsed(repeated(depth, "[{\"a\":") + "["));
        const Lines lines = lines_of(log);
        const Lines cycle = following("AvOe");
        EXPECT_EQ(lines.size(), 4 * depth + 1);
        for (size_t i = 0; i < lines.size(); i++)
            ASSERT_EQ(lines[i], cycle[i % 4]) << i;

        std::string text = "{\"list\":[" + repeated(500000, "1,") + "2]";
        for (int i = 0; i < 50000; i++)
            text += ",\"member" + std::to_string(i) + "\":" + std::to_string(i);
        json = parsed(text + "}");
        ASSERT_TRUE(json);
        EXPECT_EQ(zq_json_fetch_int(json.get(), &value, "list", "#", 500000ul, NULL), 0);
        EXPECT_EQ(value, 2);
        for (int i = 0; i < 50000; i += 999)
            expect(zq_json_fetch_int, json, ("member" + std::to_string(i)).c_str(), i);
    });
}

// ---- failures of memory, misuse ----

TEST(zqjson, lines_without_memory)
{
    if (!faults_injected()) {
        const std::string none = "[7] not enough memory for ";
        const std::string node = none + "JSON node";
        expect_lines_without_memory("zqjson.lines_without_memory",
                                    {none + "zqjson context", none + "JSON parser context", node,
                                     node + "; " + none + "node 'true'",
                                     node + "; [6] expecting a string for a key",
                                     none + "decoded string; " + none + "a string",
                                     none + "zqhash structure; " + none + "hashtable",
                                     "[7] not enough memory to add a value to the hashtable"});
        return;
    }
    FaultLines lines;
    Json json(zq_json_create());
    lines.step();
    if (!json)
        return;
    for (const char *text : {"[true]", "[1]", "[\"\\n\"]", "{\"a\":2.5}", "{\"a\":{\"b\":1}}"})
        while (zq_json_parse(json.get(), text) != 0)
            lines.step();
}

TEST(zqjson, misuse)
{
    Json owner(zq_json_create());
    zqjson *json = owner.get();
    ASSERT_TRUE(json);
    zqjsonnode **nowhere = nullptr;
#define MISUSE(call, function, expression) EXPECT_MISUSE(call, "adt/zqjson", function, expression)
    MISUSE(zq_json_node_create(ZQ_JSON_TYPE_NONE), "zq_json_node_create",
           "nodetype > ZQ_JSON_TYPE_NONE");
    MISUSE(zq_json_node_create(ZQ_JSON_TYPE_COUNT), "zq_json_node_create",
           "nodetype < ZQ_JSON_TYPE_COUNT");
    MISUSE(zq_json_parse(json, nullptr), "zq_json_parse", "json != NULL");
    MISUSE(zq_json_fetch_node(json, nowhere, NULL), "zq_json_fetch_node", "zqjsonnodeptr != NULL");
    MISUSE(zq_json_node_fetch_next(json, nullptr), "zq_json_node_fetch_next", "node != NULL");
    // Integers that the 64-bit conversion rejects.
    for (const char *text : {"[-]", "[9223372036854775808]", "[-9223372036854775809]"})
        MISUSE(zq_json_parse(json, text), "zq_json_parser_parse_number",
               "err == ZQ_ERROR_NONE || err == ZQ_ERROR_INCOMPLETE");
}
