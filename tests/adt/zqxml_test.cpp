#include "zq/adt/zqxml.h"

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"
#include "tests/support/small_stack.h"

using Xml = Owned<zqxml, zq_xml_destroy>;

static std::string output(zqxml *xml)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    EXPECT_EQ(zq_xml_output(xml, out), 0);
    fclose(out);
    std::string result(text, size);
    free(text);
    return result;
}

TEST(zqxml, reads_and_writes_trees)
{
    const struct {
        const char *text, *output;
    } rows[] = {
        {"", ""},
        {"<?xml version=\"1.0\"?><a b='2'>1</a>",
         "<?xml version=\"1.0\"?>\n<a b='2'>\n  1\n</a>\n"},
        // What is odd about it.
        {"<abc d=\"e\"/>", "<abc d=\"e\"/a>\n"},
        {"<a/>\n", "<a/a>\n<?>\n"},
        {"<a></a?>", "<aa>\n"},
        {"<a\tb></a\tb>", "<a\tba>\n"},
        {"<a>v<b>w</b> \r\n<b/></a>", "<a>\n  v\n  <b>\n    w\n  </b>\n  <b/b>\n</a>\n"},
        {"v<a></a>", "<a>\n  v\n</a>\n"},
        {"<a>1</a></b>anything >", "<a>\n  1\n</a>\n"},
    };
    LogCapture log;
    Xml xml(zq_xml_create());
    ASSERT_TRUE(xml);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        log.take();
        if (zq_xml_parse(xml.get(), row.text) == 0) {
            EXPECT_EQ(output(xml.get()), row.output);
        } else {
            const std::string line = testing::PrintToString(log.take());
            CHECK_PROMISE(line.starts_with("{ [7] not enough memory for "));
            CHECK_PROMISE(output(xml.get()).empty());
        }
    }
}

TEST(zqxml, refuses_with_a_reason_and_is_empty_then)
{
    const struct {
        const char *text, *line; // no line: refused silently
    } rows[] = {
        {"<a<", "unexpected '<', tagstate 1"},
        {"<a <", "unexpected '<', tagstate 2"},
        {"<a></a<", "unexpected '<', tagstate 4"},
        {"<", "xml too short to finish this tag"},
        {"<a>v<", "xml too short to finish this tag"},
        {"v>", "unexpected '>', tagstate 0"},
        {"<a>v>", "unexpected '>', tagstate 3"},
        {"<a><b/>>", "unexpected '>', tagstate 0"},
        {"<a></>", "end tag len 0 != start tag len 1"},
        {"<a></ab>", "end tag len 2 != start tag len 1"},
        {"<a></A>", "end tag does not match with start tag"},
        {"<x><y>1</z></x>", "end tag does not match with start tag"},
        {"<a", "XML ended unexpectedly, tagstate 1"},
        {"<a ", "XML ended unexpectedly, tagstate 2"},
        {"<a>", "XML ended unexpectedly, tagstate 3"},
        {"<a><b/> ", "XML ended unexpectedly, tagstate 3"},
        {"<a></", "XML ended unexpectedly, tagstate 4"},
        {"<x><y>1</y>text<z/></x>", nullptr},
        {"<x><y>1</y>\t</x>", nullptr},
        {"<x>v<y/>text</x>", nullptr},
        {"v<a>w</a>", nullptr},
        {"<a/>v</b>", nullptr},
    };
    LogCapture log;
    Xml xml(zq_xml_create());
    ASSERT_TRUE(xml);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        zq_xml_parse(xml.get(), "<old/>");
        log.take();
        EXPECT_EQ(zq_xml_parse(xml.get(), row.text), -1);
        std::vector<LogLine> lines;
        if (row.line)
            lines.push_back({6, row.line});
        EXPECT_EQ(log.take(), lines);
        CHECK_PROMISE(output(xml.get()).empty());
    }
}

TEST(zqxml, finds_values_by_path)
{
    LogCapture log;
    Xml xml(zq_xml_create());
    ASSERT_TRUE(xml);
    if (zq_xml_parse(xml.get(), "<x><y>2</y><Y/><y><z#>4 </z#></y></x>") != 0)
        return; // for lack of memory
    const char *start = "unset";
    size_t len = 99;
    zq_xml_query_value_const(xml.get(), &start, &len, "x#", 0u, "y#", 1u, "z##", 0u, nullptr);
    EXPECT_EQ(std::string(start, len), "4 ");
    EXPECT_EQ(zq_xml_query_value_const(xml.get(), &start, &len, "x", "y", "z", nullptr), -1);
    CHECK_PROMISE(!start && len == 0);
    ZqString copy(zq_xml_query_value(xml.get(), "x", "y", nullptr));
    EXPECT_STREQ(copy.get(), "2");
    EXPECT_EQ(log.take(), std::vector<LogLine>{});
}

static std::string repeated(const std::string &text, size_t count)
{
    std::string result;
    for (size_t i = 0; i < count; i++)
        result += text;
    return result;
}

TEST(zqxml, depth_and_length_cost_no_stack)
{
    const size_t count = faults_injected() ? 20 : 1000000;
    const size_t depth = faults_injected() ? 20 : 5000; // the indentation grows with its square
    const std::string nested = repeated("<a>", count) + repeated("</a>", count);
    const std::string siblings = "<x>" + repeated("<a/>", count) + "<b>last</b></x>";
    const std::string top_level = repeated("<a/>", count) + "<b>last</b>";
    LogCapture log;
    on_small_stack([&] {
        Xml xml(zq_xml_create());
        ASSERT_TRUE(xml);
        for (const std::string &text : {nested, top_level, siblings}) {
            EXPECT_EQ(zq_xml_parse(xml.get(), text.substr(0, text.size() - 1).c_str()), -1);
            EXPECT_EQ(zq_xml_parse(xml.get(), text.c_str()), 0);
        }
        if (output(xml.get()).empty())
            return; // not parsed for lack of memory
        EXPECT_EQ(output(xml.get()).size(), 8 * count + 31);
        ZqString last(zq_xml_query_value(xml.get(), "x", "b", nullptr));
        EXPECT_STREQ(last.get(), "last");

        std::string deep = repeated("<a>", depth) + repeated("</a>", depth);
        if (zq_xml_parse(xml.get(), deep.c_str()) != 0)
            return;
        // 2 * 2 * (0 + 1 + ... + depth - 1) of indentation; the innermost has no end tag line.
        size_t lines = depth * 4 + (depth - 1) * 5 + 1;
        EXPECT_EQ(output(xml.get()).size(), 2 * depth * (depth - 1) + lines - 2 * (depth - 1));
    });
}

TEST(zqxml, misuse)
{
    LogCapture log;
    Xml xml(zq_xml_create());
    ASSERT_TRUE(xml);
    const char *value;
    size_t len;
#define MISUSE(call, function, expression) EXPECT_MISUSE(call, "adt/zqxml", function, expression)
    MISUSE(zq_xml_parse(NULL, ""), "zq_xml_parse", "zqxml != NULL");
    MISUSE(zq_xml_output(xml.get(), NULL), "zq_xml_output", "out != NULL");
    MISUSE(zq_xml_query_value_const(xml.get(), NULL, &len, NULL), "zq_xml_query_value_const",
           "valueptr != NULL");
    MISUSE(zq_xml_query_value_const(xml.get(), &value, NULL, NULL), "zq_xml_query_value_const",
           "valuelenptr != NULL");
    MISUSE(zq_xml_query_value(xml.get(), NULL), "zq_xml_query_path", "zqxmlnode != NULL");
}
