// zq_xml_parse(), zq_xml_output() and the queries, beside a reader of the same format that goes by
// its grammar. A text, a zero byte, and paths.

#include "zq/adt/zqxml.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "fuzz/support/fuzz.h"
#include "fuzz/support/path.h"
#include "zq/internal/zqowned.h"

namespace {
struct Node {
    std::string_view tag, attributes, value;
    std::vector<Node> children;

    bool is_leaf() const { return value.empty() && children.empty(); }
};

// Every function takes what it reads from the front of what is left, or returns false.
class Reader {
  public:
    explicit Reader(std::string_view text) : left(text) {}

    // Anything behind an element makes one more node at the top level.
    bool read_level(std::vector<Node> *nodes, bool top)
    {
        while (!left.empty()) {
            Node &node = nodes->emplace_back();
            skip_blanks();
            if (top && !left.starts_with('<') && !read_text(&node.value)) {
                node.value = {};
                return left.empty();
            }
            if (left.starts_with("</")) {
                const bool blank = node.value.empty();
                nodes->pop_back();
                return blank;
            }
            if (!left.starts_with('<') || !read_element(&node))
                return false;
        }
        return top;
    }

  private:
    void skip_blanks()
    {
        left.remove_prefix(std::min(left.find_first_not_of(" \r\n"), left.size()));
    }

    std::string_view take(size_t size)
    {
        const std::string_view taken = left.substr(0, size);
        left.remove_prefix(taken.size());
        return taken;
    }

    // Up to the next tag.
    bool read_text(std::string_view *text)
    {
        *text = take(left.find_first_of("<>"));
        return left.starts_with('<');
    }

    // All of "<...>" without the brackets.
    bool read_tag(std::string_view *tag)
    {
        take(1);
        *tag = take(left.find_first_of("<>"));
        return take(1) == ">";
    }

    static std::string_view without_question_mark(std::string_view text)
    {
        return text.substr(0, text.size() - text.ends_with('?'));
    }

    // Text in front of it may have become the value.
    bool read_element(Node *node)
    {
        std::string_view tag;
        if (!read_tag(&tag))
            return false;
        const bool complete = tag.ends_with('?') || tag.ends_with('/');
        tag = without_question_mark(tag);
        node->tag = tag.substr(0, tag.find(' '));
        node->attributes = tag.substr(std::min(node->tag.size() + 1, tag.size()));
        if (complete)
            return true;
        skip_blanks();
        if (node->value.empty() && !read_text(&node->value))
            return false;
        if (!left.starts_with("</") && !read_level(&node->children, false))
            return false;
        return read_tag(&tag) && tag.starts_with('/') &&
               without_question_mark(tag.substr(1)) == node->tag;
    }

    std::string_view left;
};
} // namespace

static void write(const std::vector<Node> &nodes, size_t depth, std::string *out)
{
    const std::string indent(2 * depth, ' ');
    for (const Node &node : nodes) {
        *out += indent + "<" + std::string(node.tag);
        if (!node.attributes.empty())
            *out += " " + std::string(node.attributes);
        if (node.is_leaf()) {
            *out += (node.tag.empty() ? "?" : std::string(node.tag.substr(0, 1))) + ">\n";
            continue;
        }
        *out += ">\n";
        if (!node.value.empty())
            *out += indent + "  " + std::string(node.value) + "\n";
        write(node.children, depth + 1, out);
        *out += indent + "</" + std::string(node.tag) + ">\n";
    }
}

// Whether what is written for the nodes can be read again.
static bool is_readable(const std::vector<Node> &nodes)
{
    return std::all_of(nodes.begin(), nodes.end(), [](const Node &node) {
        if (node.is_leaf())
            return node.tag.empty() || node.tag.starts_with('?');
        const std::string_view end = node.attributes.empty() ? node.tag : node.attributes;
        return !end.ends_with('?') && !end.ends_with('/') && !node.tag.ends_with('?') &&
               is_readable(node.children);
    });
}

static std::string output(zqxml *xml)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    FUZZ_CHECK(zq_xml_output(xml, out) == 0);
    fclose(out);
    const owned_block<> owner(text);
    return {text, size};
}

// The text with values that lost the blanks behind them.
static std::string without_blanks(std::string text)
{
    std::erase_if(text, [](char c) { return strchr(" \r\n", c); });
    return text;
}

// Parses and writes, both as the grammar says. Returns what was written.
static std::string parse(zqxml *xml, const std::string &text, std::vector<Node> *nodes)
{
    std::string expected;
    const bool accepted = Reader(text).read_level(nodes, true);
    FUZZ_CHECK((zq_xml_parse(xml, text.c_str()) == 0) == accepted);
    if (!accepted)
        nodes->clear();
    write(*nodes, 0, &expected);
    FUZZ_CHECK(output(xml) == expected);
    return expected;
}

// ---- queries ----

static const Node *find(const std::vector<Node> *nodes, std::string_view tag, unsigned int skip)
{
    for (const Node &node : *nodes) {
        if (node.tag == tag && skip-- == 0)
            return &node;
    }
    return nullptr;
}

// Takes a path from the input, with tags of the document's or others, and asks for it.
static void query(zqxml *xml, const std::vector<Node> &nodes, Input &input)
{
    Path<unsigned int> path;
    const Node *found = nodes.empty() ? nullptr : &nodes[0];
    const std::vector<Node> *level = &nodes;
    for (size_t steps = input.below(PATH_MAX_STEPS + 1); steps > 0; steps--) {
        const unsigned int kind = input.byte();
        const bool known = level && !level->empty() && kind % 4 != 0;
        const std::string tag(known ? (*level)[kind % level->size()].tag : input.text());
        const bool indexed = kind % 2 == 0 || tag.ends_with('#');
        const unsigned int index = indexed ? input.below(3) : 0;
        path.push_back({indexed ? tag + "#" : tag, indexed ? std::optional(index) : std::nullopt});
        found = level ? find(level, tag, index) : nullptr;
        level = found ? &found->children : nullptr;
    }
    // An empty path needs a first node.
    if (path.empty() && !found)
        return;

    const char *value;
    size_t size;
    const auto query_const = [&](auto... steps) {
        return zq_xml_query_value_const(xml, &value, &size, steps..., NULL);
    };
    const auto query_copy = [&](auto... steps) { return zq_xml_query_value(xml, steps..., NULL); };
    const std::string_view expected = found ? found->value : std::string_view();
    FUZZ_CHECK(along(path, 0, query_const) == (found ? 0 : -1));
    FUZZ_CHECK(!value == expected.empty() && std::string_view(value, size) == expected);
    const owned_block<> copy(along(path, 0, query_copy));
    FUZZ_CHECK(copy ? found && copy.get() == expected : !found);
}

void fuzz(Input &input)
{
    const std::string text = input.text();
    const owned<zqxml, zq_xml_destroy> xml(zq_xml_create());
    std::vector<Node> nodes;
    const std::string written = parse(xml.get(), text, &nodes);
    for (int count = 0; !input.empty() && count < 20; count++)
        query(xml.get(), nodes, input);

    std::vector<Node> again;
    const std::string rewritten = parse(xml.get(), written, &again);
    if (!nodes.empty() && is_readable(nodes))
        FUZZ_CHECK(without_blanks(rewritten) == without_blanks(written) + "<?>");
}
