#include "zq/adt/zqxml.h"

#include <cstdarg>
#include <cstring>
#include <string_view>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/util/zqstring.h"

// Every node is described by offsets and lengths into the document's one copy of the text. The link
// to the parent lets parser and output leave a level again without a stack; destruction needs no
// memory either, since it rebuilds the tree into a chain while taking it apart.
struct zqxmlnode {
    zqxmlnode *level; // the next sibling
    zqxmlnode *children;
    unsigned long tagstart;
    unsigned long taglen;
    unsigned long attributestart;
    unsigned long attributelen;
    unsigned long valuestart;
    unsigned long valuelen; // 0: no value
    zqxmlnode *parent;
};

struct zqxml {
    char *xml;
    unsigned long xmllen;
    unsigned long pos;
    zqxmlnode *root;
};

using owned_xml = owned<zqxml, zq_xml_destroy>;

static void zq_xml_clear(zqxml *zqxml)
{
    zqxmlnode *node = zqxml->root;
    while (node) {
        // The first child takes its parent's place in the chain, the parent follows it with one
        // child less: each node is moved up once and freed once.
        zqxmlnode *child = node->children;
        if (child) {
            node->children = child->level;
            child->level = node;
            node = child;
        } else {
            zqxmlnode *next = node->level;
            zq_free(node);
            node = next;
        }
    }
    zq_free(zqxml->xml);
    *zqxml = {};
}

zqxml *zq_xml_create(void)
{
    auto *zqxml = make_zeroed<struct zqxml>();
    if (!zqxml)
        ZQ_LOG(7, "not enough memory for zqxml");
    return zqxml;
}

void zq_xml_destroy(zqxml *zqxml)
{
    ZQ_ASSERT(zqxml != NULL);

    zq_xml_clear(zqxml);
    zq_free(zqxml);
}

/* ---- parsing ---- */

namespace {

enum tag_state {
    outside_tag,
    in_tag_name,
    in_attributes,
    in_content,
    in_end_tag,
    element_complete
};
enum value_state { no_value, in_value, value_ended };

// A level is a chain of siblings. A node is linked when its first byte is seen, so that the tree
// owns everything at every moment; a level that ends takes its last node, which is blank, off
// again.
struct xml_parser {
    zqxml *document;
    zqxmlnode **place; // where the level's next node is linked
    zqxmlnode *parent; // the element whose children are being read, null at the top level
    zqxmlnode *node;   // null after a complete element
    tag_state tag;
    value_state value;
    unsigned long endtagstart;

    unsigned long pos() const { return document->pos; }
    char byte(unsigned long at) const { return document->xml[at]; }
    std::string_view text(unsigned long start, unsigned long len) const
    {
        return {document->xml + start, len};
    }
};

} // namespace

static bool zq_xml_parser_add_node(xml_parser *parser)
{
    auto *node = make_zeroed<zqxmlnode>();
    if (!node) {
        ZQ_LOG(7, "not enough memory for zqxmlnode");
        return false;
    }
    node->parent = parser->parent;
    *parser->place = node;
    parser->node = node;
    return true;
}

static void zq_xml_parser_begin_level(xml_parser *parser)
{
    parser->parent = parser->node;
    parser->place = &parser->node->children;
    parser->node = nullptr;
    parser->tag = outside_tag;
    parser->value = no_value;
}

// Goes back to the element whose end tag is at hand, at the state it has after a child.
static void zq_xml_parser_end_level(xml_parser *parser)
{
    zqxmlnode *blank = parser->node;
    ZQ_ASSERT(blank->tagstart == 0);
    ZQ_ASSERT(blank->taglen == 0);
    ZQ_ASSERT(blank->attributestart == 0);
    ZQ_ASSERT(blank->attributelen == 0);
    ZQ_ASSERT(blank->valuestart == 0);
    ZQ_ASSERT(blank->valuelen == 0);
    ZQ_ASSERT(blank->children == NULL);
    ZQ_ASSERT(blank->level == NULL);
    zq_free(blank);
    *parser->place = nullptr;

    parser->node = parser->parent;
    parser->parent = parser->node ? parser->node->parent : nullptr;
    parser->tag = in_content;
    parser->value = value_ended;
}

static void zq_xml_parser_end_element(xml_parser *parser)
{
    parser->place = &parser->node->level;
    parser->node = nullptr;
    parser->tag = outside_tag;
    parser->value = no_value;
    parser->endtagstart = 0;
}

namespace {

enum class step {
    next,  // on with the next byte
    again, // the same byte once more, for another level
    stop,  // the document ends here
    fail,
};

} // namespace

static step zq_xml_parser_end_tag(xml_parser *parser)
{
    if (parser->tag == in_content) {
        parser->tag = in_end_tag;
        parser->endtagstart = parser->pos() + 2;
        return step::next;
    }
    // Text in front of the end tag of something that was never opened.
    if (parser->value != no_value)
        return step::fail;
    bool top_level = !parser->parent;
    zq_xml_parser_end_level(parser);
    return top_level ? step::stop : step::again;
}

static step zq_xml_parser_less_than(xml_parser *parser)
{
    if (parser->value == in_value) {
        parser->node->valuelen = parser->pos() - parser->node->valuestart;
        parser->value = value_ended;
    }
    if (parser->tag != outside_tag && parser->tag != in_content) {
        ZQ_LOG(6, "unexpected '<', tagstate %d", parser->tag);
        return step::fail;
    }
    if (parser->pos() + 1 >= parser->document->xmllen) {
        ZQ_LOG(6, "xml too short to finish this tag");
        return step::fail;
    }
    if (parser->byte(parser->pos() + 1) == '/')
        return zq_xml_parser_end_tag(parser);
    if (parser->tag == in_content) {
        zq_xml_parser_begin_level(parser);
        return step::again;
    }
    parser->node->tagstart = parser->pos() + 1;
    parser->tag = in_tag_name;
    return step::next;
}

static bool zq_xml_parser_match_end_tag(const xml_parser *parser, unsigned long end)
{
    const zqxmlnode *node = parser->node;
    unsigned long endtaglen = end - parser->endtagstart;
    if (endtaglen != node->taglen) {
        ZQ_LOG(6, "end tag len %lu != start tag len %lu", endtaglen, node->taglen);
        return false;
    }
    if (parser->text(parser->endtagstart, endtaglen) !=
        parser->text(node->tagstart, node->taglen)) {
        ZQ_LOG(6, "end tag does not match with start tag");
        return false;
    }
    return true;
}

static step zq_xml_parser_greater_than(xml_parser *parser)
{
    if (parser->tag == outside_tag || parser->tag == in_content) {
        ZQ_LOG(6, "unexpected '>', tagstate %d", parser->tag);
        return step::fail;
    }
    // A guard: a value ends at '<', before any tag.
    if (parser->value == in_value) {
        ZQ_LOG(6, "unexpected value state %d", parser->value);
        return step::fail;
    }

    // Only the question mark of a declaration is cut off. The slash of an empty-element tag stays,
    // which is meant: queries and the output see it.
    char before = parser->byte(parser->pos() - 1);
    unsigned long end = before == '?' ? parser->pos() - 1 : parser->pos();
    zqxmlnode *node = parser->node;
    if (parser->tag == in_attributes)
        node->attributelen = end - node->attributestart;
    else if (parser->tag == in_tag_name)
        node->taglen = end - node->tagstart;
    else if (!zq_xml_parser_match_end_tag(parser, end))
        return step::fail;

    if (parser->tag == in_end_tag || before == '?' || before == '/')
        zq_xml_parser_end_element(parser);
    else
        parser->tag = in_content;
    return step::next;
}

static bool zq_xml_is_blank(char c)
{
    return c == ' ' || c == '\r' || c == '\n';
}

// Goes to the last of the bytes that mean nothing to a name, attributes or a value.
static void zq_xml_parser_skip_run(xml_parser *parser)
{
    const char *next = parser->document->xml + parser->pos() + 1;
    while (*next && *next != '<' && *next != '>' && *next != ' ')
        next++;
    parser->document->pos = static_cast<unsigned long>(next - 1 - parser->document->xml);
}

// Any byte but '<', '>' and the space that ends a tag name.
static step zq_xml_parser_other(xml_parser *parser)
{
    bool in_tag = parser->tag != outside_tag && parser->tag != in_content;
    if (in_tag || parser->value == in_value) {
        zq_xml_parser_skip_run(parser);
        return step::next;
    }
    if (parser->value == value_ended && parser->tag != in_content) {
        // A guard: outside a tag a value ends only where the next tag begins.
        ZQ_LOG(6, "tagstate %d, valuestate %d", parser->tag, parser->value);
        return step::fail;
    }
    if (zq_xml_is_blank(parser->byte(parser->pos())))
        return step::next;
    // Mixed content fails without a line. The children of an element begin with a tag, so text at
    // their level stands after a child.
    if (parser->value == value_ended || (parser->parent && parser->tag == outside_tag))
        return step::fail;
    parser->node->valuestart = parser->pos();
    parser->value = in_value;
    return step::next;
}

static step zq_xml_parser_step(xml_parser *parser)
{
    if (!parser->node && !zq_xml_parser_add_node(parser))
        return step::fail;
    char c = parser->byte(parser->pos());
    if (c == '<')
        return zq_xml_parser_less_than(parser);
    if (c == '>')
        return zq_xml_parser_greater_than(parser);
    if (c == ' ' && parser->tag == in_tag_name) {
        parser->node->taglen = parser->pos() - parser->node->tagstart;
        parser->node->attributestart = parser->pos() + 1;
        parser->tag = in_attributes;
        return step::next;
    }
    return zq_xml_parser_other(parser);
}

static bool zq_xml_parser_run(xml_parser *parser)
{
    zqxml *document = parser->document;
    while (document->pos < document->xmllen) {
        step result = zq_xml_parser_step(parser);
        if (result == step::fail)
            return false;
        if (result == step::stop)
            return true;
        if (result == step::next)
            document->pos++;
    }
    // A level that just began or just lost its last child is an element still in its content.
    tag_state open = parser->tag == outside_tag && parser->parent ? in_content : parser->tag;
    if (open != outside_tag) {
        ZQ_LOG(6, "XML ended unexpectedly, tagstate %d", open);
        return false;
    }
    return true;
}

int zq_xml_parse(zqxml *zqxml, const char *text)
{
    ZQ_ASSERT(zqxml != NULL);
    ZQ_ASSERT(text != NULL);

    zq_xml_clear(zqxml);
    unsigned long len = strlen(text);
    zqxml->xml = zq_strndup(text, len);
    if (!zqxml->xml) {
        ZQ_LOG(7, "not enough memory for the XML (%lu bytes)", len);
        return -1;
    }
    zqxml->xmllen = len;

    xml_parser parser = {};
    parser.document = zqxml;
    parser.place = &zqxml->root;
    if (!zq_xml_parser_run(&parser)) {
        zq_xml_clear(zqxml);
        return -1;
    }
    return 0;
}

/* ---- output ---- */

namespace {

struct xml_writer {
    const zqxml *document;
    FILE *out;
    size_t depth;

    void put(const char *text) const { fputs(text, out); }
    void put(unsigned long start, unsigned long len) const
    {
        fwrite(document->xml + start, 1, len, out);
    }
    void indent(size_t levels) const
    {
        static const char spaces[] =
            "                                                                ";
        size_t left = levels * 2;
        for (size_t part; left > 0; left -= part) {
            part = left < sizeof(spaces) - 1 ? left : sizeof(spaces) - 1;
            fwrite(spaces, 1, part, out);
        }
    }
};

} // namespace

static void zq_xml_write_start_tag(const xml_writer *writer, const zqxmlnode *node)
{
    writer->indent(writer->depth);
    writer->put("<");
    writer->put(node->tagstart, node->taglen);
    if (node->attributelen > 0) {
        writer->put(" ");
        writer->put(node->attributestart, node->attributelen);
    }
    // The tag's first byte closes the '?' of a declaration. That any other empty element gets its
    // first letter there is meant as well.
    if (node->valuelen == 0 && !node->children) {
        if (node->taglen > 0)
            writer->put(node->tagstart, 1);
        else
            writer->put("?");
    }
    writer->put(">\n");
}

static void zq_xml_write_value(const xml_writer *writer, const zqxmlnode *node)
{
    if (node->valuelen == 0)
        return;
    writer->indent(writer->depth + 1);
    writer->put(node->valuestart, node->valuelen);
    writer->put("\n");
}

static void zq_xml_write_end_tag(const xml_writer *writer, const zqxmlnode *node)
{
    if (node->valuelen == 0 && !node->children)
        return;
    writer->indent(writer->depth);
    writer->put("</");
    writer->put(node->tagstart, node->taglen);
    writer->put(">\n");
}

// Ends the node and every parent whose last child this was. Returns the next node, or null.
static const zqxmlnode *zq_xml_write_leave(xml_writer *writer, const zqxmlnode *node)
{
    zq_xml_write_end_tag(writer, node);
    while (!node->level && node->parent) {
        node = node->parent;
        writer->depth--;
        zq_xml_write_end_tag(writer, node);
    }
    return node->level;
}

int zq_xml_output(zqxml *zqxml, FILE *out)
{
    ZQ_ASSERT(zqxml != NULL);
    ZQ_ASSERT(out != NULL);

    xml_writer writer{zqxml, out, 0};
    const zqxmlnode *node = zqxml->root;
    while (node) {
        zq_xml_write_start_tag(&writer, node);
        zq_xml_write_value(&writer, node);
        if (node->children) {
            node = node->children;
            writer.depth++;
        } else {
            node = zq_xml_write_leave(&writer, node);
        }
    }
    return 0;
}

/* ---- queries ---- */

// Returns the node of that tag after skipping `skip` of them, or null.
static const zqxmlnode *zq_xml_find_sibling(const zqxml *zqxml, const zqxmlnode *node,
                                            std::string_view tag, unsigned int skip)
{
    for (; node; node = node->level) {
        if (std::string_view(zqxml->xml + node->tagstart, node->taglen) == tag && skip-- == 0)
            return node;
    }
    return nullptr;
}

static int zq_xml_query_path(const zqxml *zqxml, std::string_view *value, va_list path)
{
    const zqxmlnode *zqxmlnode = zqxml->root;
    bool first = true;
    while (const char *name = va_arg(path, const char *)) {
        std::string_view tag = name;
        unsigned int skip = 0;
        if (tag.ends_with('#')) {
            tag.remove_suffix(1);
            skip = va_arg(path, unsigned int);
        }
        zqxmlnode = zq_xml_find_sibling(zqxml, first ? zqxmlnode : zqxmlnode->children, tag, skip);
        if (!zqxmlnode)
            return -1;
        first = false;
    }
    ZQ_ASSERT(zqxmlnode != NULL);
    if (zqxmlnode->valuelen > 0)
        *value = {zqxml->xml + zqxmlnode->valuestart, zqxmlnode->valuelen};
    return 0;
}

char *zq_xml_query_value(zqxml *zqxml, ...)
{
    ZQ_ASSERT(zqxml != NULL);

    std::string_view value;
    va_list path;
    va_start(path, zqxml);
    int result = zq_xml_query_path(zqxml, &value, path);
    va_end(path);
    if (result != 0)
        return nullptr;

    char *copy = zq_strndup(value.empty() ? "" : value.data(), value.size());
    if (!copy)
        ZQ_LOG(7, "not enough memory for value (%lu bytes)",
               static_cast<unsigned long>(value.size()));
    return copy;
}

int zq_xml_query_value_const(zqxml *zqxml, const char **valueptr, size_t *valuelenptr, ...)
{
    ZQ_ASSERT(zqxml != NULL);
    ZQ_ASSERT(valueptr != NULL);
    ZQ_ASSERT(valuelenptr != NULL);

    std::string_view value;
    va_list path;
    va_start(path, valuelenptr);
    int result = zq_xml_query_path(zqxml, &value, path);
    va_end(path);
    *valueptr = value.data();
    *valuelenptr = value.size();
    return result;
}
