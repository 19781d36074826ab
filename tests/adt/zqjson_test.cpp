#include "zq/adt/zqjson.h"

#include <clocale>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <pthread.h>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "zq/util/zqlog.h"

namespace {
using Json = Owned<zqjson, zq_json_destroy>;
using Lines = std::vector<LogLine>;

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

// An array around elements.
std::string bracketed(const std::string &elements)
{
    return std::string(1, '[').append(elements).append(1, ']');
}

// Runs in a thread with a stack of 256 KiB.
void on_small_stack(void (*body)())
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    auto start = [](void *function) -> void * {
        reinterpret_cast<void (*)()>(function)();
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, start, reinterpret_cast<void *>(body)), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}
} // namespace

// ---- parsing ----

TEST(zqjson, accepted_texts)
{
    const char *texts[] = {
        "[]",
        "{}",
        " \t\r\n[ \t\r\n] \t\r\n",
        "[1,]",
        "[1 , ]",
        "{\"a\":1,}",
        "{\"a\" : 1 , } ",
        // Cut off between items.
        "[true",
        "[1 ",
        "[1,",
        "[1, ",
        "{\"a\":true",
        "{\"a\":true,",
        "{\"a\":[{\"b\":\"c\"",
        "[[[],",
        "[{\"a\":[],\"b\":[null",
        // Numbers.
        "[0]",
        "[-0]",
        "[01]",
        "[0.5]",
        "[-.5]",
        "[123.456\n]",
        "{\"a\":1}",
        "[9223372036854775807]",
        "[-9223372036854775808]",
        "[1.50\t]",
        "[100]",
        // Strings.
        "[\"\"]",
        "[\"\x01\t\n\xff\"]",
        "[\"\\u00fF\\/\\x\\\"\\\\\"]",
        "[\"12345678\\\"\",\"\\\\\"]",
    };
    for (const char *text : texts) {
        LogCapture log(13);
        EXPECT_TRUE(parsed(text)) << text;
        EXPECT_EQ(lines_of(log), Lines{}) << text;
    }
}

TEST(zqjson, refused_texts)
{
    const LogLine element = {13, "unable to parse an array element"};
    const LogLine value = {13, "unable to parse a value for a key"};
    const LogLine key = {6, "expecting a string for a key"};
    const LogLine array_end = {6, "got end-of-data in the middle of an array"};
    const LogLine object_end = {6, "got end-of-data in the middle of an object"};
    const LogLine string_end = {6, "got end-of-data in the middle of a string"};
    const LogLine number_end = {6, "got end-of-data in the middle of a number"};
    const LogLine undecoded = {7, "not enough memory for a string"};
    const struct {
        std::string text;
        Lines lines;
    } rows[] = {
        {"5", {{6, "expecting '{' or '[' but got '5'"}}},
        {" true", {{6, "expecting '{' or '[' but got 't'"}}},
        {"\"a\"", {{6, "expecting '{' or '[' but got '\"'"}}},
        {"[]]", {{6, "expected end-of-data but got ']'"}}},
        {"{\"a\":[1]} x", {{6, "expected end-of-data but got 'x'"}}},
        // Arrays.
        {"[", {array_end}},
        {"[ \n", {array_end}},
        {"[,1]", {{6, "unimplemented ','"}, element}},
        {"[1 2]", {{6, "expecting ',' or ']' but got '2'"}}},
        {"[[]}", {{6, "expecting ',' or ']' but got '}'"}}},
        {"[truex]", {{6, "expecting ',' or ']' but got 'x'"}}},
        {"[1,,2]", {{6, "unimplemented ','"}, element}},
        {"[[1,[", {array_end, element, array_end, element, array_end}},
        {"[[{\"a\":[", {array_end, value, object_end, element, array_end, element, array_end}},
        {"[[x]]", {{6, "unimplemented 'x'"}, element, element}},
        {"{\"a\":{\"b\":[[],{\"c\":!", {{6, "unimplemented '!'"}, value, element, value, value}},
        // Keywords fail in silence.
        {"[tru", {element}},
        {"[nul]", {element}},
        {"{\"a\":falsy}", {value}},
        // Objects.
        {"{", {object_end}},
        {"{ ", {object_end}},
        {"{,}", {{6, "unexpected character ',', expecting a string or '}'"}}},
        {"{a:1}", {{6, "unexpected character 'a', expecting a string or '}'"}}},
        {"{\"a\":1,]", {{6, "unexpected character ']', expecting a string or '}'"}}},
        {"{\"a\":1]", {{6, "expecting ',' or '}' but got ']'"}}},
        {"{\"a\" 1}", {{6, "expecting a colon, got '1'"}}},
        {"{\"a\" ", {{6, "got end-of-data in an object when expecting a colon"}, object_end}},
        {"{\"a\": ", {{6, std::string("unimplemented '\0'", 17)}, value, object_end}},
        {"{\"a", {string_end, key, object_end}},
        {"[{\"\\u1234\":1}]",
         {{6, "Unimplemented: Output unicode as UTF-8"}, undecoded, key, element}},
        // Strings.
        {"[\"", {string_end, element, array_end}},
        {"[\"12345678901234567", {string_end, element, array_end}},
        {"[\"a\\\"]", {string_end, element, array_end}},
        {"[\"a\\",
         {{6, "got end-of-data after an escaping backslash"}, string_end, element, array_end}},
        {"[\"\\u0100\"]", {{6, "Unimplemented: Output unicode as UTF-8"}, undecoded, element}},
        {"[\"\\u004\"]",
         {{6, "got end-of-data in a unicode character escape sequence"}, undecoded, element}},
        {"[\"\\u\"]",
         {{6, "got end-of-data in a unicode character escape sequence"}, undecoded, element}},
        {"[\"\\u00g0\"]",
         {{6, "unexpected character 'g' in the middle of a unicode character escape sequence"},
          undecoded,
          element}},
        // Numbers.
        {"[1", {number_end, element, array_end}},
        {"[-", {number_end, element, array_end}},
        {"{\"a\":1", {number_end, value, object_end}},
        {"[1.", {{6, "expected a digit after a dot in a number"}, number_end, element, array_end}},
        {"[1.]", {{6, "the next character after a dot must be a digit but was ']'"}, element}},
        {"[1..2]", {{6, "the next character after a dot must be a digit but was '.'"}, element}},
        {"[1.2.3]", {{6, "a number containing two dots not allowed"}, element}},
        {"[1e5]", {{6, "unimplemented 'e'"}, element}},
        {"[1.5E5]", {{6, "unimplemented 'E'"}, element}},
        {"[--1]", {{6, "unimplemented '-'"}, element}},
        {"[+1]", {{6, "unimplemented '+'"}, element}},
        {"[00]", {{6, "a number cannot start with two consecutive zeros"}, element}},
        {"[0.0]", {{6, "a number cannot start with two consecutive zeros"}, element}},
        {"[-0.10]", {{6, "a number cannot start with two consecutive zeros"}, element}},
        {"[010]", {{6, "a number cannot start with two consecutive zeros"}, element}},
    };
    for (const auto &row : rows) {
        LogCapture log(13);
        Json json(zq_json_create());
        ASSERT_TRUE(json);
        zq_json_parse(json.get(), "[1]");
        EXPECT_EQ(zq_json_parse(json.get(), row.text.c_str()), -1) << row.text;
        EXPECT_EQ(lines_of(log), row.lines) << row.text;
        int number = 1;
        EXPECT_EQ(zq_json_fetch_int(json.get(), &number, "#", 0ul, NULL), -1) << row.text;
        EXPECT_EQ(lines_of(log), (Lines{{6, "no JSON parsed"}})) << row.text;
    }
}

TEST(zqjson, a_text_without_anything_is_an_empty_document)
{
    LogCapture log;
    Json json(zq_json_create());
    ASSERT_TRUE(json);
    zqjsonnode *node = nullptr;
    for (const char *text : {"[1]", "", " \t\n"}) {
        ASSERT_EQ(zq_json_parse(json.get(), text), 0);
        EXPECT_EQ(zq_json_fetch_node(json.get(), &node, "#", 0ul, NULL), *text == '[' ? 0 : -1);
        EXPECT_EQ(node != nullptr, *text == '[');
    }
    EXPECT_EQ(log.take(), (Lines{{6, "no JSON parsed"}, {6, "no JSON parsed"}}));
}

// ---- queries ----

static const char DOCUMENT[] = R"({
    "list": [10, 20, 30],
    "empty": [],
    "items": [{"name": "zero"}, {"name": "one"}, {"name": "two", "name": "last wins"}],
    "big": 3000000000,
    "least": -2147483648,
    "half": 2.5, "minus": -2.5, "third": 0.3333,
    "huge": 99999999999999999999.5,
    "twelve": " 12.5 apples", "hex": "0x10", "exp": "1e2", "far": "-1e300", "nan": "nan",
    "words": "apples", "": "no name", "#": 1,
    "yes": true, "no": false, "null": null
})";

TEST(zqjson, typed_fetches)
{
    Json json = parsed(DOCUMENT);
    ASSERT_TRUE(json);
    const double none = -77; // what is to fail
    const struct {
        const char *name;
        const char *string;
        double as_int, as_int64, as_double, boolean, null;
    } rows[] = {
        {"big", nullptr, none, 3e9, 3e9, none, 0},
        {"least", nullptr, -2147483648.0, -2147483648.0, -2147483648.0, none, 0},
        {"half", nullptr, 3, 3, 2.5, none, 0},
        {"minus", nullptr, -3, -3, -2.5, none, 0},
        {"third", nullptr, 0, 0, 0.3333, none, 0},
        {"huge", nullptr, none, 9223372036854775807.0, 99999999999999999999.5, none, 0},
        {"twelve", " 12.5 apples", 13, 13, 12.5, none, 0},
        {"hex", "0x10", 16, 16, 16, none, 0},
        {"exp", "1e2", 100, 100, 100, none, 0},
        {"far", "-1e300", none, -9223372036854775808.0, -1e300, none, 0},
        {"words", "apples", none, none, none, none, 0},
        {"", "no name", none, none, none, none, 0},
        {"yes", nullptr, 1, 1, 1, 1, 0},
        {"no", nullptr, 0, 0, 0, 0, 0},
        {"null", nullptr, none, none, none, none, 1},
        {"list", nullptr, none, none, none, none, 0},
        {"items", nullptr, none, none, none, none, 0},
        {"absent", nullptr, none, none, none, none, none},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture log;
        auto expect = [none](int result, double value, double expected) {
            EXPECT_EQ(result, expected == none ? -1 : 0);
            EXPECT_EQ(value, expected == none ? 0 : expected);
        };
        const char *string = "";
        EXPECT_EQ(zq_json_fetch_string(json.get(), &string, row.name, NULL), row.string ? 0 : -1);
        EXPECT_STREQ(string, row.string);
        EXPECT_EQ(zq_json_node_fetch_string(json.get(), nullptr, &string, row.name, NULL),
                  row.string ? 0 : -1);
        EXPECT_STREQ(string, row.string);
        double number = 5;
        int result = zq_json_fetch_double(json.get(), &number, row.name, NULL);
        expect(result, number, row.as_double);
        int64_t wide = 5;
        result = zq_json_fetch_int64(json.get(), &wide, row.name, NULL);
        expect(result, static_cast<double>(wide), row.as_int64);
        wide = 5;
        result = zq_json_node_fetch_int64(json.get(), nullptr, &wide, row.name, NULL);
        expect(result, static_cast<double>(wide), row.as_int64);
        int value = 5;
        result = zq_json_fetch_boolean(json.get(), &value, row.name, NULL);
        expect(result, value, row.boolean);
        value = 5;
        result = zq_json_fetch_null(json.get(), &value, row.name, NULL);
        expect(result, value, row.null);
        EXPECT_EQ(log.take(), Lines{});

        Lines too_long;
        if (row.as_int64 != none && row.as_int == none)
            too_long = {{6, "value too long to fit in an int variable"}};
        value = 5;
        result = zq_json_fetch_int(json.get(), &value, row.name, NULL);
        expect(result, value, row.as_int);
        EXPECT_EQ(log.take(), too_long);
        value = 5;
        result = zq_json_node_fetch_int(json.get(), nullptr, &value, row.name, NULL);
        expect(result, value, row.as_int);
        EXPECT_EQ(log.take(), too_long);
    }
    int64_t wide = 5;
    EXPECT_EQ(zq_json_fetch_int64(json.get(), &wide, "nan", NULL), 0);
    EXPECT_EQ(wide, 0);
}

TEST(zqjson, paths)
{
    Json json = parsed(DOCUMENT);
    ASSERT_TRUE(json);
    LogCapture log(13);
    const char *string = nullptr;
    EXPECT_EQ(zq_json_fetch_string(json.get(), &string, "items", "#", 2ul, "name", NULL), 0);
    EXPECT_STREQ(string, "last wins");

    zqjsonnode *items = nullptr;
    ASSERT_EQ(zq_json_fetch_node(json.get(), &items, "items", NULL), 0);
    zqjsonnode *item = nullptr;
    ASSERT_EQ(zq_json_node_fetch_node(json.get(), items, &item, "#", 0ul, NULL), 0);
    for (const char *name : {"zero", "one", "last wins"}) {
        ASSERT_TRUE(item);
        EXPECT_EQ(zq_json_node_fetch_string(json.get(), item, &string, "name", NULL), 0);
        EXPECT_STREQ(string, name);
        item = zq_json_node_fetch_next(json.get(), item);
    }
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(zq_json_node_fetch_next(json.get(), items), nullptr);

    zqjsonnode *node = items;
    EXPECT_EQ(zq_json_node_fetch_node(json.get(), items, &node, NULL), 0);
    EXPECT_EQ(node, items);
    EXPECT_EQ(zq_json_fetch_node(json.get(), &node, NULL), 0);
    EXPECT_EQ(node, nullptr) << "an empty path from nowhere is not the root";
    int value = 5;
    EXPECT_EQ(zq_json_fetch_null(json.get(), &value, NULL), -1);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(lines_of(log), Lines{});

    auto fails = [&](int result, Lines lines) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(node, nullptr);
        EXPECT_EQ(lines_of(log), lines);
        node = items;
    };
    node = items;
    fails(zq_json_fetch_node(json.get(), &node, "list", "#", 5ul, NULL),
          {{13, "trying to access array beyond the end at index 2, looking for index 5"}});
    fails(zq_json_fetch_node(json.get(), &node, "empty", "#", 0ul, NULL),
          {{13, "trying to access an empty array, looking for index 0"}});
    fails(zq_json_fetch_node(json.get(), &node, "List", "#", 0ul, NULL),
          {{13, "did not find node named 'List' under an object"}});
    fails(zq_json_fetch_node(json.get(), &node, "#", 0ul, NULL),
          {{6, "trying to access array but the node type is object"}});
    const struct {
        const char *name, *type;
    } types[] = {{"list", "array"}, {"words", "string"}, {"big", "number"},
                 {"yes", "true"},   {"no", "false"},     {"null", "null"}};
    for (const auto &row : types) {
        fails(zq_json_fetch_node(json.get(), &node, row.name, "name", NULL),
              {{6, std::string("trying to access object but the node type is ") + row.type}});
    }
}

TEST(zqjson, strings_are_decoded)
{
    Json json = parsed(R"(["\u0041\u00ff", "\b\f\n\r\t\"\\\/\q", "cut\u0000off", "é"])"
                       "\n");
    ASSERT_TRUE(json);
    const char *expected[] = {"A\xff", "\b\f\n\r\t\"\\/q", "cut", "é"};
    for (unsigned long i = 0; i < 4; i++) {
        const char *string = nullptr;
        EXPECT_EQ(zq_json_fetch_string(json.get(), &string, "#", i, NULL), 0);
        EXPECT_STREQ(string, expected[i]);
    }
    // Names as well; the member that comes last replaces the earlier ones.
    json = parsed(R"({"a\u0062": {"x": [1]}, "ab\u0000c": [{}], "ab": 3})");
    ASSERT_TRUE(json);
    int value = 0;
    EXPECT_EQ(zq_json_fetch_int(json.get(), &value, "ab", NULL), 0);
    EXPECT_EQ(value, 3);
}

TEST(zqjson, fractions_are_those_of_strtod)
{
    std::mt19937_64 random(3);
    Json json(zq_json_create());
    ASSERT_TRUE(json);
    for (int i = 0; i < (faults_injected() ? 20 : 5000); i++) {
        // Up to about the digits that a double needs, and at times many more.
        std::string number(i % 2 ? "-" : "");
        if (i % 50 == 0)
            number.append(1 + random() % 400, '9');
        number.append(std::to_string(random() >> random() % 64 | 1)).append(1, '.');
        for (size_t digits = random() % 20 + 1; digits > 0; digits--)
            number += static_cast<char>('0' + random() % 10);
        double value = 0;
        if (zq_json_parse(json.get(), bracketed(number).c_str()) == 0)
            zq_json_fetch_double(json.get(), &value, "#", 0ul, NULL);
        EXPECT_EQ(value, strtod(number.c_str(), nullptr)) << number;
    }
}

TEST(zqjson, numbers_do_not_depend_on_the_locale)
{
    if (faults_injected())
        GTEST_SKIP();
    Scratch scratch;
    std::string source = "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\ngrouping 3;3\n"
                         "END LC_NUMERIC\nLC_CTYPE\ncopy \"POSIX\"\nEND LC_CTYPE\n";
    run({"localedef", "-c", "-i", scratch.write("source", source), "-f", "ANSI_X3.4-1968",
         scratch.file("comma")});
    setenv("LOCPATH", scratch.path().c_str(), 1);
    const char *comma = setlocale(LC_NUMERIC, "comma");
    unsetenv("LOCPATH");
    if (!comma)
        GTEST_SKIP() << "no locale with a decimal comma can be made here";
    EXPECT_EQ(strtod("1,5", nullptr), 1.5);
    Json json = parsed(R"([2.5, "2.5"])");
    double number = 0;
    for (unsigned long i = 0; i < 2 && json; i++) {
        EXPECT_EQ(zq_json_fetch_double(json.get(), &number, "#", i, NULL), 0);
        EXPECT_EQ(number, 2.5);
    }
    setlocale(LC_NUMERIC, "C");
    EXPECT_TRUE(json);
}

// ---- depth and length ----

static void parse_and_query_deep(const std::string &opening, const std::string &closing,
                                 size_t depth, bool array)
{
    Json json = parsed(repeated(depth, opening) + "[7]" + repeated(depth, closing));
    ASSERT_TRUE(json);
    zqjsonnode *node = nullptr;
    int result = array ? zq_json_fetch_node(json.get(), &node, "#", 0ul, NULL)
                       : zq_json_fetch_node(json.get(), &node, "a", NULL);
    for (size_t level = 1; level < depth && result == 0; level++) {
        result = array ? zq_json_node_fetch_node(json.get(), node, &node, "#", 0ul, NULL)
                       : zq_json_node_fetch_node(json.get(), node, &node, "a", NULL);
    }
    int value = 0;
    EXPECT_EQ(zq_json_node_fetch_int(json.get(), node, &value, "#", 0ul, NULL), 0);
    EXPECT_EQ(value, 7);
}

TEST(zqjson, any_depth_on_a_small_stack)
{
    if (faults_injected())
        GTEST_SKIP();
    on_small_stack([] {
        parse_and_query_deep("[", "]", 1000000, true);
        parse_and_query_deep("{\"a\":", "}", 300000, false);
        parse_and_query_deep("{\"a\":1,\"a\":", ",\"b\":{}}", 100000, false);

        // Deep values that are replaced while the parser is deep down itself, and at its end.
        std::string deep = repeated(50000, "{\"a\":[") + repeated(50000, "]}");
        EXPECT_TRUE(
            parsed(repeated(1000, "[") + "{\"x\":" + deep + ",\"x\":" + deep + ",\"x\":true"));

        // Failures deep down.
        LogCapture log;
        EXPECT_FALSE(parsed(repeated(1000000, "[") + "x"));
        EXPECT_FALSE(parsed(repeated(200000, "{\"a\":{},\"b\":[") + "x"));
        EXPECT_FALSE(parsed("{\"x\":" + deep + ",\"x\":" + deep + ",\"x\":!"));
        EXPECT_EQ(log.take().size(), 3u);
    });
}

TEST(zqjson, any_length_on_a_small_stack)
{
    if (faults_injected())
        GTEST_SKIP();
    on_small_stack([] {
        Json json = parsed(bracketed(repeated(2000000, "1,") + "2"));
        ASSERT_TRUE(json);
        int value = 0;
        EXPECT_EQ(zq_json_fetch_int(json.get(), &value, "#", 2000000ul, NULL), 0);
        EXPECT_EQ(value, 2);

        std::string text;
        for (int i = 0; i < 200000; i++) {
            std::string number = std::to_string(i);
            text.append(i ? ",\"member" : "{\"member").append(number).append("\":").append(number);
        }
        json = parsed(text + "}");
        ASSERT_TRUE(json);
        for (int i = 0; i < 200000; i += 4999) {
            std::string name = "member";
            name += std::to_string(i);
            EXPECT_EQ(zq_json_fetch_int(json.get(), &value, name.c_str(), NULL), 0);
            EXPECT_EQ(value, i);
        }
    });
}

// The lines of a failure at a great depth come innermost first, as from a parser that recurses.
namespace {
struct DeepFailure {
    static constexpr size_t DEPTH = 100000;
    size_t count = 0;
    size_t wrong = 0;

    static int receive(const char *message, size_t, unsigned int, time_t, void *userdata)
    {
        auto *self = static_cast<DeepFailure *>(userdata);
        if (strstr(message, "hash array"))
            return 0;
        // In each array an object; in each object an array; the innermost array is cut off.
        const char *cycle[] = {"array", "value for a key", "object", "array element"};
        self->wrong += !strstr(message, cycle[self->count % 4]);
        self->count++;
        return 0;
    }
};
} // namespace

TEST(zqjson, lines_of_a_deep_failure)
{
    if (faults_injected())
        GTEST_SKIP();
    on_small_stack([] {
        DeepFailure failure;
        LogCapture quiet;
        zq_log_callback_set(nullptr, DeepFailure::receive, &failure);
        zq_log_callback_set_level(nullptr, 13);
        EXPECT_FALSE(parsed(repeated(DeepFailure::DEPTH, "[{\"a\":") + "["));
        EXPECT_EQ(failure.count, 4 * DeepFailure::DEPTH + 1);
        EXPECT_EQ(failure.wrong, 0u);
    });
}

// ---- beside another parser ----

static std::string hex(const char *text)
{
    std::ostringstream digits;
    for (; *text; text++)
        digits << "0123456789abcdef"[static_cast<unsigned char>(*text) >> 4]
               << "0123456789abcdef"[*text & 15];
    return digits.str();
}

static std::string unhex(const std::string &digits)
{
    std::string text;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        text += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return text;
}

// Walks a path of the oracle's, such as .6e616d65#2 .
static zqjsonnode *node_at(zqjson *json, zqjsonnode *root, const std::string &path)
{
    zqjsonnode *node = root;
    for (size_t at = 0; at < path.size() && node;) {
        size_t end = std::min(path.find_first_of(".#", at + 1), path.size());
        std::string step = path.substr(at + 1, end - at - 1);
        if (path[at] == '#')
            zq_json_node_fetch_node(json, node, &node, "#", std::stoul(step), NULL);
        else
            zq_json_node_fetch_node(json, node, &node, unhex(step).c_str(), NULL);
        at = end;
    }
    return node;
}

// What is at a node, in the words of the oracle; what has no fetch function is taken as expected.
static std::string described(zqjson *json, zqjsonnode *node, const std::string &expected)
{
    const char *string = nullptr;
    int value = 0;
    if (zq_json_node_fetch_string(json, node, &string, NULL) == 0)
        return "string " + hex(string);
    int64_t integer = 0;
    if (expected.starts_with("number ") &&
        zq_json_node_fetch_int64(json, node, &integer, NULL) == 0)
        return "number " + std::to_string(integer);
    if (zq_json_node_fetch_int(json, node, &value, NULL) == 0)
        return value ? "true" : "false";
    return expected == "null" || expected == "object" || expected == "array" ? expected : "nothing";
}

// `lines` are the oracle's on this file.
static void compare_with_oracle(const std::string &file, std::istream &lines)
{
    SCOPED_TRACE(file);
    // The root is made an element, since a path leads on from it.
    Json json = parsed(bracketed(read_file(file)));
    ASSERT_TRUE(json) << read_file(file);
    zqjsonnode *root = nullptr;
    ASSERT_EQ(zq_json_fetch_node(json.get(), &root, "#", 0ul, NULL), 0);
    size_t count = 0;
    for (std::string line; std::getline(lines, line) && !line.empty(); count++) {
        std::string path = line.substr(0, line.find('\t'));
        std::string expected = line.substr(line.find('\t') + 1);
        zqjsonnode *node = node_at(json.get(), root, path);
        ASSERT_TRUE(node) << path;
        EXPECT_EQ(described(json.get(), node, expected), expected) << path;
    }
    EXPECT_GT(count, 1u);
}

TEST(zqjson, files_of_real_programs_and_generated_ones)
{
    if (faults_injected())
        GTEST_SKIP();
    Scratch scratch;
    const std::string script = ZQ_TEST_DATA "/json/oracle.py";
    ASSERT_EQ(run({"python3", script, "generate", scratch.path(), "12"}).status, 0);
    std::vector<std::string> files;
    for (const std::string &directory : {std::string(ZQ_TEST_DATA "/json"), scratch.path()}) {
        for (const auto &entry : std::filesystem::directory_iterator(directory)) {
            if (entry.path().extension() == ".json")
                files.push_back(entry.path());
        }
    }
    EXPECT_GE(files.size(), 16u);
    std::vector<std::string> command = {"python3", script, "paths"};
    command.insert(command.end(), files.begin(), files.end());
    Outcome oracle = run(command);
    ASSERT_EQ(oracle.status, 0) << oracle.err;
    std::istringstream lines(oracle.out);
    for (const std::string &file : files)
        compare_with_oracle(file, lines);
}

// ---- failures of memory, misuse ----

TEST(zqjson, lines_without_memory)
{
    if (!faults_injected()) {
        const std::string node = "[7] not enough memory for JSON node";
        expect_lines_without_memory(
            "zqjson.lines_without_memory",
            {
                "[7] not enough memory for zqjson context",
                "[7] not enough memory for JSON parser context",
                node,
                node + "; [7] not enough memory for node 'true'",
                node + "; [6] expecting a string for a key",
                "[7] not enough memory for decoded string; [7] not enough memory for a string",
                "[7] not enough memory for zqhash structure; [7] not enough memory for hashtable",
                "[7] not enough memory to add a value to the hashtable",
            });
        return;
    }
    FaultLines lines;
    Json json(zq_json_create());
    lines.step();
    if (!json)
        return;
    for (const char *text :
         {"[true]", "[1]", "[\"a\"]", "[\"\\n\"]", "{\"a\":2.5}", "{\"a\":{\"b\":1}}"}) {
        // Each call of a fresh kind fails once only, and leaves nothing behind.
        while (zq_json_parse(json.get(), text) != 0) {
            lines.step();
            zqjsonnode *node = nullptr;
            zq_json_fetch_node(json.get(), &node, "#", 0ul, NULL);
            EXPECT_EQ(node, nullptr);
            lines.step();
        }
        lines.step();
    }
}

TEST(zqjson, single_nodes)
{
    zqjsonnode *node = zq_json_node_create(ZQ_JSON_TYPE_NUMBER);
    ASSERT_TRUE(node);
    Json json(zq_json_create());
    int value = 1;
    EXPECT_EQ(json ? zq_json_node_fetch_int(json.get(), node, &value, NULL) : 0, 0);
    EXPECT_EQ(json ? value : 0, 0);
    zq_free(node);
    EXPECT_MISUSE(zq_json_node_create(ZQ_JSON_TYPE_NONE), "adt/zqjson", "zq_json_node_create",
                  "nodetype > ZQ_JSON_TYPE_NONE");
    EXPECT_MISUSE(zq_json_node_create(ZQ_JSON_TYPE_COUNT), "adt/zqjson", "zq_json_node_create",
                  "nodetype < ZQ_JSON_TYPE_COUNT");
}

template <class T>
static void fetch_misuse(zqjson *json, int (*fetch)(zqjson *, T *, ...), const char *function,
                         const char *pointer)
{
    T out = {};
    T *nowhere = nullptr;
    EXPECT_MISUSE(fetch(nullptr, &out, NULL), "adt/zqjson", function, "zqjson != NULL");
    EXPECT_MISUSE(fetch(json, nowhere, NULL), "adt/zqjson", function, pointer);
}

template <class T>
static void node_fetch_misuse(zqjson *json, int (*fetch)(zqjson *, zqjsonnode *, T *, ...),
                              const char *function, const char *pointer)
{
    T out = {};
    T *nowhere = nullptr;
    EXPECT_MISUSE(fetch(nullptr, nullptr, &out, NULL), "adt/zqjson", function, "zqjson != NULL");
    EXPECT_MISUSE(fetch(json, nullptr, nowhere, NULL), "adt/zqjson", function, pointer);
}

TEST(zqjson, misuse)
{
    Json json(zq_json_create());
    ASSERT_TRUE(json);
    zqjson *none = nullptr;
    const char *source = "adt/zqjson";
    EXPECT_MISUSE(zq_json_destroy(none), source, "zq_json_destroy", "zqjson != NULL");
    EXPECT_MISUSE(zq_json_parse(none, ""), source, "zq_json_parse", "zqjson != NULL");
    EXPECT_MISUSE(zq_json_parse(json.get(), nullptr), source, "zq_json_parse", "json != NULL");

#define ROW(function) json.get(), function, #function
    fetch_misuse(ROW(zq_json_fetch_node), "zqjsonnodeptr != NULL");
    fetch_misuse(ROW(zq_json_fetch_string), "stringptr != NULL");
    fetch_misuse(ROW(zq_json_fetch_int), "valueptr != NULL");
    fetch_misuse(ROW(zq_json_fetch_int64), "valueptr != NULL");
    fetch_misuse(ROW(zq_json_fetch_double), "valueptr != NULL");
    fetch_misuse(ROW(zq_json_fetch_boolean), "valueptr != NULL");
    fetch_misuse(ROW(zq_json_fetch_null), "valueptr != NULL");
    node_fetch_misuse(ROW(zq_json_node_fetch_node), "zqjsonnodeptr != NULL");
    node_fetch_misuse(ROW(zq_json_node_fetch_string), "stringptr != NULL");
    node_fetch_misuse(ROW(zq_json_node_fetch_int), "valueptr != NULL");
    node_fetch_misuse(ROW(zq_json_node_fetch_int64), "valueptr != NULL");
#undef ROW
    EXPECT_MISUSE(zq_json_node_fetch_next(json.get(), nullptr), source, "zq_json_node_fetch_next",
                  "node != NULL");

    // Integers that the 64-bit conversion rejects.
    for (const char *text : {"[-]", "[9223372036854775808]", "[-9223372036854775809]"}) {
        EXPECT_MISUSE(zq_json_parse(json.get(), text), source, "zq_json_parser_parse_number",
                      "err == ZQ_ERROR_NONE || err == ZQ_ERROR_INCOMPLETE");
    }
}
