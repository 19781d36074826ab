// Nothing here recurses. While a container is open, its `next`, which only a finished element uses,
// leads to what it lies in: an array, a member name, or null above the root; the `next` of a member
// name leads to its object. The chain from the innermost to the root is what a recursive parser
// would have on its stack, and it needs no memory. Destroying a tree uses `next` in the same way.

#include "zq/adt/zqjson.h"

#include <cfloat>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include <locale.h>

#include "zq/adt/zqstringhash.h"
#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/internal/zqtext.h"
#include "zq/util/zqconvert.h"

struct zqjsonnode {
    zqjsonnode *next;     // the following element, when this one is an element of an array
    zqjsonnode *children; // of an array, its first element; of a member name, the member's value
    zqstringhash *hash;   // of an object, its member names, each a string node
    zqjsonnodetype nodetype;
    struct {
        union {
            char *string;
            double number;
        };
        int64_t integer; // of a number
    } value;
};

struct zqjson {
    zqjsonnode *root; // null while nothing is parsed
};

// ---- nodes ----

static const char *zq_json_type_name(zqjsonnodetype nodetype)
{
    static constexpr const char *names[] = {"none",   "object", "array", "string",
                                            "number", "true",   "false", "null"};
    return nodetype < ZQ_JSON_TYPE_COUNT ? names[nodetype] : "unknown";
}

// Destroys a node, all that is below it, and all that its `next` leads to.
static void zq_json_node_destroy(zqjsonnode *node)
{
    while (node) {
        if (node->hash) {
            zq_stringhash_destroy(node->hash); // which leaves the members in `children`
            node->hash = nullptr;
        }
        zqjsonnode *child = node->children;
        if (child) {
            node->children = child->next;
            child->next = node;
            node = child;
            continue;
        }
        zqjsonnode *next = node->next;
        if (node->nodetype == ZQ_JSON_TYPE_STRING)
            zq_free(node->value.string);
        zq_free(node);
        node = next;
    }
}

// A member that leaves the map of its object becomes the object's child, for the object to destroy
// it: from here that would recurse once for each level below.
static void zq_json_node_hash_destroy_cb(void *value, void *context)
{
    auto *member = static_cast<zqjsonnode *>(value);
    auto *object = static_cast<zqjsonnode *>(context);
    member->next = object->children;
    object->children = member;
}

zqjsonnode *zq_json_node_create(zqjsonnodetype nodetype)
{
    ZQ_ASSERT(nodetype > ZQ_JSON_TYPE_NONE);
    ZQ_ASSERT(nodetype < ZQ_JSON_TYPE_COUNT);

    owned<zqjsonnode, zq_json_node_destroy> node(make_zeroed<zqjsonnode>());
    if (!node) {
        ZQ_LOG(7, "not enough memory for JSON node");
        return nullptr;
    }
    node->nodetype = nodetype;
    if (nodetype == ZQ_JSON_TYPE_OBJECT) {
        node->hash = zq_stringhash_create(zq_json_node_hash_destroy_cb, node.get());
        if (!node->hash) {
            ZQ_LOG(7, "not enough memory for hashtable");
            return nullptr;
        }
    }
    return node.release();
}

// ---- numbers ----

// strtod() with the decimal point of JSON, whatever the locale of the program has made of it.
static bool zq_json_strtod(const char *text, char **endptr, double *number)
{
    // The C libraries have this locale at hand and allocate nothing for it.
    locale_t c_locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    if (!c_locale) {
        ZQ_LOG(7, "not enough memory for the C locale");
        return false;
    }
    *number = strtod_l(text, endptr, c_locale);
    freelocale(c_locale);
    return true;
}

// Reads "-123.45" of so few digits that they and the power of ten below them are exact as doubles,
// which makes their quotient what strtod() gives. Returns false for anything longer.
static bool zq_json_read_short_fraction(const char *text, size_t len, double *number)
{
    static constexpr double powers[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                        1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
    constexpr bool exact = FLT_EVAL_METHOD == 0 && DBL_DIG == 15;
    bool negative = *text == '-';
    if (!exact || len > DBL_DIG + 1u + negative)
        return false;
    int64_t digits = 0;
    const char *dot = text + len;
    for (const char *c = text + negative; c < text + len; c++) {
        if (*c == '.')
            dot = c;
        else
            digits = digits * 10 + (*c - '0');
    }
    double quotient = static_cast<double>(digits) / powers[text + len - 1 - dot];
    *number = negative ? -quotient : quotient;
    return true;
}

// Rounds as the library does; what is beyond 64 bits becomes the nearest integer there is, and what
// is no number 0.
static int64_t zq_json_round(double number)
{
    constexpr double limit = 9223372036854775808.0;
    if (number >= limit)
        return INT64_MAX;
    if (number < -limit)
        return INT64_MIN;
    return number == number ? zq_convert_i64_from_double_round(number) : 0;
}

// ---- parser: the text ----

namespace {
struct zqjsonparser {
    struct zqjson *zqjson;
    const char *json;
    size_t jsonlen;
    size_t pos;
    zqjsonnode *open; // the innermost open container, or the member name whose value is parsed
    zqjsonnode *last; // when an array is open: its last element, or null
};

// What parsing a container, or a part of one, has come to.
enum class step {
    failed,
    opened, // a container below it, to be parsed next
    item,   // at the start of a further item
    ended,
};
} // namespace

static bool zq_json_parser_at_end(const zqjsonparser *parser)
{
    return parser->pos >= parser->jsonlen;
}

// The terminator at the end of the text.
static char zq_json_parser_byte(const zqjsonparser *parser)
{
    return parser->json[parser->pos];
}

static void zq_json_parser_skip_whitespace(zqjsonparser *parser)
{
    char c = zq_json_parser_byte(parser);
    while (c == ' ' || c == '\n' || c == '\r' || c == '\t')
        c = parser->json[++parser->pos];
}

// ---- parser: strings ----
//
// Lengths are known before bytes are read, and yet a terminator where none was is refused, and so
// is a string that has become longer: a text that changes while it is parsed does no harm.

// Whether any byte of the word is `byte`, by the borrow that only a zero byte causes.
static uint64_t zq_json_word_has(uint64_t word, unsigned char byte)
{
    constexpr uint64_t ones = 0x0101010101010101u;
    uint64_t zeroed = word ^ ones * byte;
    return (zeroed - ones) & ~zeroed & ones << 7;
}

// Moves to the next quote or backslash, or to the end of the text.
static void zq_json_parser_skip_plain(zqjsonparser *parser)
{
    size_t pos = parser->pos;
    uint64_t word;
    for (; parser->jsonlen - pos >= sizeof(word); pos += sizeof(word)) {
        memcpy(&word, parser->json + pos, sizeof(word));
        if (zq_json_word_has(word, '"') | zq_json_word_has(word, '\\'))
            break;
    }
    while (pos < parser->jsonlen && parser->json[pos] != '"' && parser->json[pos] != '\\')
        pos++;
    parser->pos = pos;
}

// Moves to the quote that ends the string. *escapes tells whether a backslash came before it.
static bool zq_json_parser_find_quote(zqjsonparser *parser, bool *escapes)
{
    *escapes = false;
    for (;;) {
        zq_json_parser_skip_plain(parser);
        if (zq_json_parser_at_end(parser))
            return false;
        if (zq_json_parser_byte(parser) == '"')
            return true;
        *escapes = true;
        parser->pos++;
        if (zq_json_parser_at_end(parser)) {
            ZQ_LOG(6, "got end-of-data after an escaping backslash");
            return false;
        }
        if (zq_json_parser_byte(parser) == '\0') {
            ZQ_LOG(6, "unexpected NUL character in the middle of a string");
            return false;
        }
        parser->pos++;
    }
}

static int zq_json_hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Reads the four digits of a \u escape, of which `len` bytes are left in the string. The code point
// becomes one byte, not UTF-8, and 0 ends the string early: both meant.
static bool zq_json_parser_decode_unicode(const char *digits, size_t len, char *byte)
{
    int code = 0;
    for (size_t i = 0; i < 4; i++) {
        if (i == len) {
            ZQ_LOG(6, "got end-of-data in a unicode character escape sequence");
            return false;
        }
        if (digits[i] == '\0') {
            ZQ_LOG(6,
                   "unexpected NUL character in the middle of a unicode character escape sequence");
            return false;
        }
        int value = zq_json_hex_value(digits[i]);
        if (value < 0) {
            ZQ_LOG(6,
                   "unexpected character '%c' in the middle of a unicode character escape sequence",
                   digits[i]);
            return false;
        }
        code = code * 16 + value;
    }
    if (code > 255) {
        ZQ_LOG(6, "Unimplemented: Output unicode as UTF-8");
        return false;
    }
    *byte = static_cast<char>(code);
    return true;
}

static char zq_json_escaped_byte(char c)
{
    switch (c) {
    case 'b':
        return '\b';
    case 'f':
        return '\f';
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case 't':
        return '\t';
    default:
        return c;
    }
}

static bool zq_json_parser_write_decoded(text_writer *out, const char *bytes, size_t len)
{
    for (size_t i = 0; i < len; i++) {
        char c = bytes[i];
        if (c == '\\') {
            c = zq_json_escaped_byte(bytes[++i]);
            if (bytes[i] == 'u') {
                if (!zq_json_parser_decode_unicode(bytes + i + 1, len - i - 1, &c))
                    return false;
                i += 4;
            }
        }
        out->put(c);
    }
    return true;
}

// Returns the decoded form of the bytes between two quotes, a new string, or null, logged.
static char *zq_json_parser_parse_string_decode(const char *bytes, size_t len, bool escapes)
{
    text_writer measure;
    if (!escapes)
        measure.length = len;
    else if (!zq_json_parser_write_decoded(&measure, bytes, len))
        return nullptr;
    if (measure.length == SIZE_MAX) {
        ZQ_LOG(7, "the decoded string is too long and would overflow");
        return nullptr;
    }
    owned_block<> string(static_cast<char *>(zq_malloc(measure.length + 1)));
    if (!string) {
        ZQ_LOG(7, "not enough memory for decoded string");
        return nullptr;
    }
    if (!escapes) {
        memcpy(string.get(), bytes, len);
    } else {
        text_writer fill{string.get(), measure.length, 0};
        if (!zq_json_parser_write_decoded(&fill, bytes, len))
            return nullptr;
        if (fill.length > measure.length) {
            ZQ_LOG(7, "not enough room for string terminator");
            return nullptr;
        }
    }
    string.get()[measure.length] = '\0';
    return string.release();
}

static bool zq_json_parser_parse_string(zqjsonparser *parser, zqjsonnode **destination)
{
    zqjsonnode *node = zq_json_node_create(ZQ_JSON_TYPE_STRING);
    if (!node)
        return false;
    *destination = node;

    const char *bytes = parser->json + ++parser->pos;
    bool escapes;
    if (!zq_json_parser_find_quote(parser, &escapes)) {
        if (zq_json_parser_at_end(parser))
            ZQ_LOG(6, "got end-of-data in the middle of a string");
        return false;
    }
    size_t len = static_cast<size_t>(parser->json + parser->pos - bytes);
    node->value.string = zq_json_parser_parse_string_decode(bytes, len, escapes);
    if (!node->value.string) {
        ZQ_LOG(7, "not enough memory for a string");
        return false;
    }
    parser->pos++;
    return true;
}

// ---- parser: numbers and keywords ----

static bool zq_json_ends_number(char c)
{
    return c == ',' || c == ']' || c == '}' || c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

// Moves to the byte that ends the number, which has to be there. A number that starts with 0 may
// contain no other 0, not even behind the dot: meant, callers rely on what is refused.
static bool zq_json_parser_scan_number(zqjsonparser *parser, bool *dotted)
{
    char first_digit = '\0';
    bool after_dot = false;
    *dotted = false;
    for (; !zq_json_parser_at_end(parser); parser->pos++) {
        char c = zq_json_parser_byte(parser);
        bool digit = c >= '0' && c <= '9';
        if (after_dot && !digit) {
            ZQ_LOG(6, "the next character after a dot must be a digit but was '%c'", c);
            return false;
        }
        after_dot = c == '.';
        if (digit) {
            if (first_digit == '0' && c == '0') {
                ZQ_LOG(6, "a number cannot start with two consecutive zeros");
                return false;
            }
            first_digit = first_digit ? first_digit : c;
        } else if (c == '.') {
            if (*dotted) {
                ZQ_LOG(6, "a number containing two dots not allowed");
                return false;
            }
            *dotted = true;
        } else if (zq_json_ends_number(c)) {
            return true;
        } else {
            ZQ_LOG(6, "unimplemented '%c'", c);
            return false;
        }
    }
    if (after_dot)
        ZQ_LOG(6, "expected a digit after a dot in a number");
    ZQ_LOG(6, "got end-of-data in the middle of a number");
    return false;
}

static bool zq_json_parser_parse_number(zqjsonparser *parser, zqjsonnode **destination)
{
    zqjsonnode *node = zq_json_node_create(ZQ_JSON_TYPE_NUMBER);
    if (!node)
        return false;
    *destination = node;

    const char *start = parser->json + parser->pos;
    if (*start == '-')
        parser->pos++;
    bool dotted;
    if (!zq_json_parser_scan_number(parser, &dotted))
        return false;

    if (!dotted) {
        zqerror err = zq_strtoi64(start, &node->value.integer);
        ZQ_ASSERT(err == ZQ_ERROR_NONE || err == ZQ_ERROR_INCOMPLETE);
        node->value.number = static_cast<double>(node->value.integer);
        return true;
    }
    const char *json = parser->json;
    size_t pos = parser->pos;
    size_t len = static_cast<size_t>(json + pos - start);
    if (!zq_json_read_short_fraction(start, len, &node->value.number)) {
        char *endptr;
        if (!zq_json_strtod(start, &endptr, &node->value.number))
            return false;
        ZQ_ASSERT(endptr == json + pos);
    }
    node->value.integer = zq_json_round(node->value.number);
    return true;
}

static bool zq_json_parser_parse_keyword(zqjsonparser *parser, zqjsonnode **destination,
                                         zqjsonnodetype nodetype)
{
    const char *keyword = zq_json_type_name(nodetype);
    size_t len = strlen(keyword);
    if (strncmp(parser->json + parser->pos, keyword, len) != 0)
        return false;
    *destination = zq_json_node_create(nodetype);
    if (!*destination) {
        ZQ_LOG(7, "not enough memory for node '%s'", keyword);
        return false;
    }
    parser->pos += len;
    return true;
}

// ---- parser: containers ----

// Creates a container and makes it the open one. Its items are parsed by the main loop.
static bool zq_json_parser_open(zqjsonparser *parser, zqjsonnode **destination,
                                zqjsonnodetype nodetype)
{
    zqjsonnode *node = zq_json_node_create(nodetype);
    if (!node)
        return false;
    *destination = node;
    node->next = parser->open;
    parser->open = node;
    parser->last = nullptr;
    parser->pos++;
    zq_json_parser_skip_whitespace(parser);
    return true;
}

// Parses a value into *destination; a container is only opened.
static bool zq_json_parser_parse_value(zqjsonparser *parser, zqjsonnode **destination)
{
    char c = zq_json_parser_byte(parser);
    switch (c) {
    case '"':
        return zq_json_parser_parse_string(parser, destination);
    case '{':
        return zq_json_parser_open(parser, destination, ZQ_JSON_TYPE_OBJECT);
    case '[':
        return zq_json_parser_open(parser, destination, ZQ_JSON_TYPE_ARRAY);
    case 't':
        return zq_json_parser_parse_keyword(parser, destination, ZQ_JSON_TYPE_TRUE);
    case 'f':
        return zq_json_parser_parse_keyword(parser, destination, ZQ_JSON_TYPE_FALSE);
    case 'n':
        return zq_json_parser_parse_keyword(parser, destination, ZQ_JSON_TYPE_NULL);
    default:
        if (c == '-' || (c >= '0' && c <= '9'))
            return zq_json_parser_parse_number(parser, destination);
        ZQ_LOG(6, "unimplemented '%c'", c);
        return false;
    }
}

// The value of `node`, an array or a member name, could not be parsed.
static void zq_json_parser_log_unparsed_value(const zqjsonnode *node)
{
    if (node->nodetype == ZQ_JSON_TYPE_ARRAY)
        ZQ_LOG(13, "unable to parse an array element");
    else
        ZQ_LOG(13, "unable to parse a value for a key");
}

// Parses what follows an item. At the end of the text, behind a comma or not, the container ends as
// if it had been closed: meant, so that a text cut off between items keeps what it has.
static step zq_json_parser_parse_separator(zqjsonparser *parser, char closing)
{
    if (zq_json_parser_at_end(parser))
        return step::ended;
    char c = zq_json_parser_byte(parser);
    if (c == closing)
        return step::item;
    if (c != ',') {
        ZQ_LOG(6, "expecting ',' or '%c' but got '%c'", closing, c);
        return step::failed;
    }
    parser->pos++;
    zq_json_parser_skip_whitespace(parser);
    return zq_json_parser_at_end(parser) ? step::ended : step::item;
}

// Moves to the next item of the open container, or behind its end. `after_item` tells that an item
// comes to its end here.
static step zq_json_parser_next_item(zqjsonparser *parser, char closing, bool after_item)
{
    step next = after_item ? zq_json_parser_parse_separator(parser, closing) : step::item;
    if (next != step::item)
        return next;
    if (zq_json_parser_at_end(parser))
        return step::failed;
    if (zq_json_parser_byte(parser) != closing)
        return step::item;
    parser->pos++;
    return step::ended;
}

// Puts the open member, whose value is complete, into its object, which is open again.
static bool zq_json_parser_finish_pair(zqjsonparser *parser)
{
    zqjsonnode *pair = parser->open;
    zqjsonnode *object = pair->next;
    if (zq_stringhash_add(object->hash, pair->value.string, pair) != 0) {
        ZQ_LOG(7, "not enough memory to add a value to the hashtable");
        return false;
    }
    pair->next = nullptr;
    parser->open = object;
    zq_json_node_destroy(object->children); // an earlier member of this name
    object->children = nullptr;
    return true;
}

// Ends the open container, which completes an item of what it lies in.
static step zq_json_parser_close(zqjsonparser *parser)
{
    zqjsonnode *node = parser->open;
    parser->open = node->next;
    parser->last = node;
    node->next = nullptr;
    zq_json_parser_skip_whitespace(parser);
    bool is_member = parser->open && parser->open->nodetype == ZQ_JSON_TYPE_STRING;
    return is_member && !zq_json_parser_finish_pair(parser) ? step::failed : step::ended;
}

// Parses elements until the array ends or one of them is a container.
static step zq_json_parser_parse_array(zqjsonparser *parser, bool after_item)
{
    zqjsonnode *array = parser->open;
    for (;; after_item = true) {
        step next = zq_json_parser_next_item(parser, ']', after_item);
        if (next != step::item)
            return next;
        zqjsonnode **destination = parser->last ? &parser->last->next : &array->children;
        if (!zq_json_parser_parse_value(parser, destination)) {
            zq_json_parser_log_unparsed_value(array);
            return step::failed;
        }
        if (parser->open != array)
            return step::opened;
        parser->last = *destination;
        zq_json_parser_skip_whitespace(parser);
    }
}

static bool zq_json_parser_parse_colon(zqjsonparser *parser)
{
    zq_json_parser_skip_whitespace(parser);
    if (zq_json_parser_at_end(parser)) {
        ZQ_LOG(6, "got end-of-data in an object when expecting a colon");
        return false;
    }
    if (zq_json_parser_byte(parser) != ':') {
        ZQ_LOG(6, "expecting a colon, got '%c'", zq_json_parser_byte(parser));
        return false;
    }
    parser->pos++;
    zq_json_parser_skip_whitespace(parser);
    return true;
}

// Parses a member, or up to its value when that is a container.
static step zq_json_parser_parse_pair(zqjsonparser *parser)
{
    zqjsonnode *pair = nullptr;
    bool named = zq_json_parser_parse_string(parser, &pair);
    if (pair) {
        pair->next = parser->open;
        parser->open = pair;
    }
    if (!named) {
        ZQ_LOG(6, "expecting a string for a key");
        return step::failed;
    }
    if (!zq_json_parser_parse_colon(parser))
        return step::failed;
    if (!zq_json_parser_parse_value(parser, &pair->children)) {
        zq_json_parser_log_unparsed_value(pair);
        return step::failed;
    }
    if (parser->open != pair)
        return step::opened;
    zq_json_parser_skip_whitespace(parser);
    return zq_json_parser_finish_pair(parser) ? step::item : step::failed;
}

// Parses members until the object ends or the value of one of them is a container.
static step zq_json_parser_parse_object(zqjsonparser *parser, bool after_item)
{
    for (;; after_item = true) {
        step next = zq_json_parser_next_item(parser, '}', after_item);
        if (next != step::item)
            return next;
        char c = zq_json_parser_byte(parser);
        if (c != '"') {
            ZQ_LOG(6, "unexpected character '%c', expecting a string or '}'", c);
            return step::failed;
        }
        next = zq_json_parser_parse_pair(parser);
        if (next != step::item)
            return next;
    }
}

// Parses what is open to the end of the root.
static step zq_json_parser_parse_open(zqjsonparser *parser)
{
    step next = step::opened;
    while (parser->open && next != step::failed) {
        bool after_item = next == step::ended;
        next = parser->open->nodetype == ZQ_JSON_TYPE_ARRAY
                   ? zq_json_parser_parse_array(parser, after_item)
                   : zq_json_parser_parse_object(parser, after_item);
        if (next == step::ended)
            next = zq_json_parser_close(parser);
    }
    return next;
}

// Takes leave of everything open after a failure in the innermost: each container reports what it
// would as the caller of the one below it. Unfinished members belong to no object yet.
static void zq_json_parser_unwind(zqjsonparser *parser)
{
    while (zqjsonnode *node = parser->open) {
        zqjsonnode *outer = node->next;
        node->next = nullptr;
        parser->open = outer;
        if (node->nodetype == ZQ_JSON_TYPE_STRING) {
            zq_json_node_destroy(node);
            continue;
        }
        if (zq_json_parser_at_end(parser))
            ZQ_LOG(6, "got end-of-data in the middle of an %s", zq_json_type_name(node->nodetype));
        if (outer)
            zq_json_parser_log_unparsed_value(outer);
    }
}

static bool zq_json_parser_parse_object_or_array(zqjsonparser *parser)
{
    // A text without anything is an empty document: meant.
    if (zq_json_parser_at_end(parser))
        return true;
    char c = zq_json_parser_byte(parser);
    if (c != '{' && c != '[') {
        ZQ_LOG(6, "expecting '{' or '[' but got '%c'", c);
        return false;
    }
    if (!zq_json_parser_parse_value(parser, &parser->zqjson->root))
        return false;
    if (zq_json_parser_parse_open(parser) == step::ended)
        return true;
    zq_json_parser_unwind(parser);
    return false;
}

static bool zq_json_parser_parse_document(zqjsonparser *parser)
{
    zq_json_parser_skip_whitespace(parser);
    if (!zq_json_parser_parse_object_or_array(parser))
        return false;
    zq_json_parser_skip_whitespace(parser);
    if (zq_json_parser_at_end(parser))
        return true;
    ZQ_LOG(6, "expected end-of-data but got '%c'", zq_json_parser_byte(parser));
    return false;
}

// ---- documents ----

static void zq_json_clear(zqjson *zqjson)
{
    zq_json_node_destroy(zqjson->root);
    zqjson->root = nullptr;
}

zqjson *zq_json_create(void)
{
    auto *json = make_zeroed<zqjson>();
    if (!json)
        ZQ_LOG(7, "not enough memory for zqjson context");
    return json;
}

void zq_json_destroy(zqjson *zqjson)
{
    ZQ_ASSERT(zqjson != NULL);

    zq_json_clear(zqjson);
    zq_free(zqjson);
}

int zq_json_parse(zqjson *zqjson, const char *json)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(json != NULL);

    zq_json_clear(zqjson);
    owned_block<zqjsonparser> parser(make_zeroed<zqjsonparser>());
    if (!parser) {
        ZQ_LOG(7, "not enough memory for JSON parser context");
        return -1;
    }
    parser->zqjson = zqjson;
    parser->json = json;
    parser->jsonlen = strlen(json);
    if (zq_json_parser_parse_document(parser.get()))
        return 0;
    zq_json_clear(zqjson);
    return -1;
}

// ---- paths ----

// Each step down a path returns the node there, or null, logged.
static zqjsonnode *zq_json_node_member(const zqjsonnode *node, const char *name)
{
    if (node->nodetype != ZQ_JSON_TYPE_OBJECT) {
        ZQ_LOG(6, "trying to access object but the node type is %s",
               zq_json_type_name(node->nodetype));
        return nullptr;
    }
    auto *member = static_cast<zqjsonnode *>(zq_stringhash_lookup(node->hash, name));
    if (!member) {
        ZQ_LOG(13, "did not find node named '%s' under an object", name);
        return nullptr;
    }
    return member->children;
}

static zqjsonnode *zq_json_node_element(const zqjsonnode *node, unsigned long index)
{
    zqjsonnode *element = node->children;
    if (!element) {
        ZQ_LOG(13, "trying to access an empty array, looking for index %lu", index);
        return nullptr;
    }
    for (unsigned long reached = 0; reached < index; reached++) {
        if (!element->next) {
            ZQ_LOG(13, "trying to access array beyond the end at index %lu, looking for index %lu",
                   reached, index);
            return nullptr;
        }
        element = element->next;
    }
    return element;
}

static int zq_json_node_fetch(const zqjson *zqjson, zqjsonnode *startnode, zqjsonnode **nodeptr,
                              va_list path)
{
    *nodeptr = nullptr;
    zqjsonnode *current = startnode;
    while (const char *name = va_arg(path, const char *)) {
        if (!current)
            current = zqjson->root;
        if (!current) {
            ZQ_LOG(6, "no JSON parsed");
            return -1;
        }
        if (strcmp(name, "#") != 0) {
            current = zq_json_node_member(current, name);
        } else if (current->nodetype == ZQ_JSON_TYPE_ARRAY) {
            current = zq_json_node_element(current, va_arg(path, unsigned long));
        } else {
            ZQ_LOG(6, "trying to access array but the node type is %s",
                   zq_json_type_name(current->nodetype));
            return -1;
        }
        if (!current)
            return -1;
    }
    // With an empty path and nothing to start from this is no node, and not the root: meant.
    *nodeptr = current;
    return 0;
}

// The node at a path, or null.
static const zqjsonnode *zq_json_node_find(const zqjson *zqjson, zqjsonnode *startnode,
                                           va_list path)
{
    zqjsonnode *node;
    zq_json_node_fetch(zqjson, startnode, &node, path);
    return node;
}

// ---- values of nodes; no node, like one of another type, has none ----

static zqjsonnodetype zq_json_node_type(const zqjsonnode *node)
{
    return node ? node->nodetype : ZQ_JSON_TYPE_NONE;
}

static int zq_json_node_convert_string(const zqjsonnode *node, const char **stringptr)
{
    bool found = zq_json_node_type(node) == ZQ_JSON_TYPE_STRING;
    *stringptr = found ? node->value.string : nullptr;
    return found ? 0 : -1;
}

static int zq_json_node_convert_double(const zqjsonnode *node, double *valueptr)
{
    *valueptr = 0;
    switch (zq_json_node_type(node)) {
    case ZQ_JSON_TYPE_NUMBER:
        *valueptr = node->value.number;
        return 0;
    case ZQ_JSON_TYPE_TRUE:
        *valueptr = 1;
        return 0;
    case ZQ_JSON_TYPE_FALSE:
        return 0;
    case ZQ_JSON_TYPE_STRING: {
        char *endptr;
        bool converted = zq_json_strtod(node->value.string, &endptr, valueptr);
        return converted && endptr != node->value.string ? 0 : -1;
    }
    default:
        return -1;
    }
}

static int zq_json_node_convert_int64(const zqjsonnode *node, int64_t *valueptr)
{
    *valueptr = 0;
    if (zq_json_node_type(node) == ZQ_JSON_TYPE_NUMBER) {
        *valueptr = node->value.integer;
        return 0;
    }
    double number;
    if (zq_json_node_convert_double(node, &number) != 0)
        return -1;
    *valueptr = zq_json_round(number);
    return 0;
}

static int zq_json_node_convert_int(const zqjsonnode *node, int *valueptr)
{
    *valueptr = 0;
    int64_t value;
    if (zq_json_node_convert_int64(node, &value) != 0)
        return -1;
    if (value < INT32_MIN || value > INT32_MAX) {
        ZQ_LOG(6, "value too long to fit in an int variable");
        return -1;
    }
    *valueptr = static_cast<int>(value);
    return 0;
}

static int zq_json_node_convert_boolean(const zqjsonnode *node, int *valueptr)
{
    zqjsonnodetype nodetype = zq_json_node_type(node);
    *valueptr = nodetype == ZQ_JSON_TYPE_TRUE;
    return nodetype == ZQ_JSON_TYPE_TRUE || nodetype == ZQ_JSON_TYPE_FALSE ? 0 : -1;
}

static int zq_json_node_convert_null(const zqjsonnode *node, int *valueptr)
{
    *valueptr = zq_json_node_type(node) == ZQ_JSON_TYPE_NULL;
    return node ? 0 : -1;
}

// ---- queries from the root ----

int zq_json_fetch_node(zqjson *zqjson, zqjsonnode **zqjsonnodeptr, ...)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(zqjsonnodeptr != NULL);

    va_list path;
    va_start(path, zqjsonnodeptr);
    int result = zq_json_node_fetch(zqjson, nullptr, zqjsonnodeptr, path);
    va_end(path);
    return result;
}

int zq_json_fetch_string(zqjson *zqjson, const char **stringptr, ...)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(stringptr != NULL);

    va_list path;
    va_start(path, stringptr);
    int result = zq_json_node_convert_string(zq_json_node_find(zqjson, nullptr, path), stringptr);
    va_end(path);
    return result;
}

int zq_json_fetch_int(zqjson *zqjson, int *valueptr, ...)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(valueptr != NULL);

    va_list path;
    va_start(path, valueptr);
    int result = zq_json_node_convert_int(zq_json_node_find(zqjson, nullptr, path), valueptr);
    va_end(path);
    return result;
}

int zq_json_fetch_int64(zqjson *zqjson, int64_t *valueptr, ...)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(valueptr != NULL);

    va_list path;
    va_start(path, valueptr);
    int result = zq_json_node_convert_int64(zq_json_node_find(zqjson, nullptr, path), valueptr);
    va_end(path);
    return result;
}

int zq_json_fetch_double(zqjson *zqjson, double *valueptr, ...)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(valueptr != NULL);

    va_list path;
    va_start(path, valueptr);
    int result = zq_json_node_convert_double(zq_json_node_find(zqjson, nullptr, path), valueptr);
    va_end(path);
    return result;
}

int zq_json_fetch_boolean(zqjson *zqjson, int *valueptr, ...)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(valueptr != NULL);

    va_list path;
    va_start(path, valueptr);
    int result = zq_json_node_convert_boolean(zq_json_node_find(zqjson, nullptr, path), valueptr);
    va_end(path);
    return result;
}

int zq_json_fetch_null(zqjson *zqjson, int *valueptr, ...)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(valueptr != NULL);

    va_list path;
    va_start(path, valueptr);
    int result = zq_json_node_convert_null(zq_json_node_find(zqjson, nullptr, path), valueptr);
    va_end(path);
    return result;
}

// ---- queries from a node ----

int zq_json_node_fetch_node(zqjson *zqjson, zqjsonnode *startnode, zqjsonnode **zqjsonnodeptr, ...)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(zqjsonnodeptr != NULL);

    va_list path;
    va_start(path, zqjsonnodeptr);
    int result = zq_json_node_fetch(zqjson, startnode, zqjsonnodeptr, path);
    va_end(path);
    return result;
}

int zq_json_node_fetch_string(zqjson *zqjson, zqjsonnode *startnode, const char **stringptr, ...)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(stringptr != NULL);

    va_list path;
    va_start(path, stringptr);
    int result = zq_json_node_convert_string(zq_json_node_find(zqjson, startnode, path), stringptr);
    va_end(path);
    return result;
}

int zq_json_node_fetch_int(zqjson *zqjson, zqjsonnode *startnode, int *valueptr, ...)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(valueptr != NULL);

    va_list path;
    va_start(path, valueptr);
    int result = zq_json_node_convert_int(zq_json_node_find(zqjson, startnode, path), valueptr);
    va_end(path);
    return result;
}

int zq_json_node_fetch_int64(zqjson *zqjson, zqjsonnode *startnode, int64_t *valueptr, ...)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(valueptr != NULL);

    va_list path;
    va_start(path, valueptr);
    int result = zq_json_node_convert_int64(zq_json_node_find(zqjson, startnode, path), valueptr);
    va_end(path);
    return result;
}

zqjsonnode *zq_json_node_fetch_next(zqjson *zqjson, zqjsonnode *node)
{
    ZQ_ASSERT(zqjson != NULL);
    ZQ_ASSERT(node != NULL);

    return node->next;
}
