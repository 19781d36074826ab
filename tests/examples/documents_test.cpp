// The tools that read and change documents: zqini, zqjson, zqxml.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/process.h"
#include "tests/support/scratch.h"

static Outcome tool(const std::string &name, std::vector<std::string> words,
                    const std::string &input = "")
{
    words.insert(words.begin(), ZQ_TEST_BINARY "/examples/" + name);
    return run(words, input);
}

TEST(documents, zqini_reads_and_changes)
{
    Scratch scratch;
    const std::string text = "; hosts\r\ntop = 1\n\n[web]\n  host = a.example\nport=80\n";
    std::string file = scratch.write("conf.ini", text);
    chmod(file.c_str(), 0600);
    EXPECT_EQ(tool("zqini", {"get", file, "web", "host"}).out, "a.example\n");
    EXPECT_EQ(tool("zqini", {"get", file, "", "top"}).out, "1\n");
    EXPECT_EQ(tool("zqini", {"get", "-", "web", "port"}, text).out, "80\n");

    EXPECT_EQ(tool("zqini", {"set", file, "web", "port", " 8080 "}).status, 0);
    EXPECT_EQ(tool("zqini", {"set", file, "db", "host", "b.example"}).status, 0);
    EXPECT_EQ(tool("zqini", {"delete", file, "web", "host"}).status, 0);
    EXPECT_EQ(read_file(file), "; hosts\ntop = 1\n\n[web]\nport=8080\n[db]\nhost=b.example\n");
    EXPECT_NE(read_file(file + ".bak").find("host = a.example"), std::string::npos);
    struct stat status;
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u) << "a secret stays one";

    std::string fresh = scratch.file("new.ini");
    EXPECT_EQ(tool("zqini", {"set", fresh, "", "a", "1"}).status, 0);
    EXPECT_EQ(read_file(fresh), "a=1\n");
}

TEST(documents, zqini_tells_failures_apart_and_leaves_the_file)
{
    Scratch scratch;
    std::string file = scratch.write("conf.ini", "a=1\n");
    std::string bad = scratch.write("bad.ini", "word\n");
    const struct {
        std::vector<std::string> words;
        int status;
        std::string error;
    } rows[] = {
        {{"get", file, "", "b"}, 1, "there is no key 'b'"},
        {{"delete", file, "s", "a"}, 1, "there is no key 'a'"},
        {{"get", file, ""}, 2, "usage: zqini"},
        {{"set", file, "", "a"}, 2, "usage: zqini"},
        {{"get", file, "", "a", "1"}, 2, "usage: zqini"},
        {{"get", scratch.file("none"), "", "a"}, 3, "unable to read"},
        {{"get", bad, "", "a"}, 4, "Parse error at " + bad + ":1: no '=' found"},
        {{"set", scratch.file("none/conf.ini"), "", "a", "1"}, 5, "unable to write"},
        {{"set", file, "", "a", "1\n[s]"}, 7, "cannot hold the value of 'a'"},
        {{"set", file, "", "[s]", "1"}, 7, "cannot hold the value of '[s]'"},
        {{"set", file, "s]\nb=1", "a", "1"}, 7, "cannot hold the value of 'a'"},
    };
    for (const auto &row : rows) {
        Outcome outcome = tool("zqini", row.words);
        EXPECT_EQ(outcome.status, row.status) << row.error;
        EXPECT_NE(outcome.err.find(row.error), std::string::npos) << outcome.err;
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(read_file(file), "a=1\n");
    }
    EXPECT_NE(access(scratch.file("conf.ini.zqini").c_str(), F_OK), 0);
    EXPECT_EQ(tool("zqini", {"--help"}).status, 0);
}

TEST(documents, zqjson_prints_values)
{
    const std::string text = R"({"a":{"b":[1,-2.5,0.1,true,null,"x y",[[7]]]},"#":{},
                                 "big":9007199254740993,"s":"12"})";
    const struct {
        std::vector<std::string> path;
        int status;
        std::string out, error;
    } rows[] = {
        {{"a", "b", "#", "0"}, 0, "1\n", ""},
        {{"a", "b", "#", "1"}, 0, "-2.5\n", ""},
        {{"a", "b", "#", "2"}, 0, "0.1\n", ""},
        {{"a", "b", "#", "3"}, 0, "true\n", ""},
        {{"a", "b", "#", "4"}, 0, "null\n", ""},
        {{"a", "b", "#", "5"}, 0, "x y\n", ""},
        {{"a", "b", "#", "6", "#", "0", "#", "0"}, 0, "7\n", ""},
        {{"big"}, 0, "9007199254740993\n", ""},
        {{"s"}, 0, "12\n", ""},
        {{"a", "b"}, 1, "", "an object or an array"},
        {{"a"}, 1, "", "an object or an array"},
        {{"none"}, 1, "", "no value at this path"},
        {{"a", "b", "#", "7"}, 1, "", "no value at this path"},
        {{"a", "b", "#"}, 1, "", "# is followed by the index"},
        {{"a", "b", "#", "-1"}, 1, "", "# is followed by the index"},
        {{"a", "a", "a", "a", "a", "a", "a", "a", "a"}, 1, "", "8 steps at most"},
        {{}, 2, "", "usage: zqjson"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> words = row.path;
        words.insert(words.begin(), "-");
        Outcome outcome = tool("zqjson", words, text);
        EXPECT_EQ(outcome.status, row.status) << outcome.err;
        EXPECT_EQ(outcome.out, row.out);
        EXPECT_NE(outcome.err.find(row.error), std::string::npos) << outcome.err;
    }
    EXPECT_EQ(tool("zqjson", {"/nonexistent", "a"}).status, 3);
    Outcome bad = tool("zqjson", {"-", "a"}, "{\"a\":1");
    EXPECT_EQ(bad.status, 4);
    EXPECT_NE(bad.err.find("got end-of-data in the middle of a number"), std::string::npos);
    EXPECT_EQ(tool("zqjson", {"-", "a"}, std::string("{}\0", 3)).status, 3) << "no text";
    EXPECT_EQ(tool("zqjson", {"--help"}).status, 0);
}

TEST(documents, zqxml_prints_values)
{
    Scratch scratch;
    std::string file =
        scratch.write("order.xml", "<?xml version=\"1.0\"?>\n<order>\n <item>a</item>"
                                   "<item><price>2 </price></item>\n</order>");
    const struct {
        std::vector<std::string> path;
        int status;
        std::string out, error;
    } rows[] = {
        {{"order", "item"}, 0, "a\n", ""},
        {{"order", "item#", "1", "price"}, 0, "2 \n", ""},
        {{"order#", "0", "item#", "0"}, 0, "a\n", ""},
        {{"order"}, 0, "\n", ""},
        {{"order", "price"}, 1, "", "no element at this path"},
        {{"order", "item#", "2"}, 1, "", "no element at this path"},
        {{"order", "item#", "x"}, 2, "", "'item#' is followed by an index"},
        {{"order", "item#"}, 2, "", "'item#' is followed by an index"},
        {std::vector<std::string>(13, "a"), 2, "", "12 steps at most"},
        {{}, 2, "", "usage: zqxml"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> words = row.path;
        words.insert(words.begin(), file);
        Outcome outcome = tool("zqxml", words);
        EXPECT_EQ(outcome.status, row.status) << outcome.err;
        EXPECT_EQ(outcome.out, row.out);
        EXPECT_NE(outcome.err.find(row.error), std::string::npos) << outcome.err;
    }
    std::string deep;
    for (int i = 0; i < 12; i++)
        deep = "<a>" + (deep.empty() ? "v" : deep) + "</a>";
    std::vector<std::string> path(13, "a");
    path[0] = "-";
    EXPECT_EQ(tool("zqxml", path, deep).out, "v\n");
    EXPECT_EQ(tool("zqxml", {"/nonexistent", "a"}).status, 3);
    Outcome bad = tool("zqxml", {"-", "a"}, "<a></b>");
    EXPECT_EQ(bad.status, 4);
    EXPECT_NE(bad.err.find("end tag does not match with start tag"), std::string::npos);
    EXPECT_EQ(tool("zqxml", {"-", "a"}, "<a><b/>text</a>").status, 4);
    EXPECT_EQ(tool("zqxml", {"--help"}).status, 0);
}
