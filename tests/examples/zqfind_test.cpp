#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/scratch.h"

namespace fs = std::filesystem;

static Outcome zqfind(std::vector<std::string> words)
{
    words.insert(words.begin(), ZQ_TEST_BINARY "/examples/zqfind");
    return run(words);
}

// The lines in order, without the spaces that align the sizes.
static std::vector<std::string> sorted(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line.substr(line.find_first_not_of(' ')));
    std::sort(lines.begin(), lines.end());
    return lines;
}

// What find(1) says of the same tree.
static std::vector<std::string> found(const std::string &top)
{
    std::string text;
    for (auto [type, format] : {std::pair("d", "%s %p/\n"), {"l", "%s %p@\n"}, {"f", "%s %p\n"}})
        text += run({"find", top, "-mindepth", "1", "-type", type, "-printf", format}).out;
    return sorted(text);
}

TEST(zqfind, agrees_with_find)
{
    Scratch scratch;
    fs::create_directories(scratch.file("a/b/c"));
    fs::create_directories(scratch.file("empty"));
    scratch.write("a/five", "12345");
    scratch.write("a/b/gr\xC3\xB6\xC3\x9F", std::string(100'000, 'x'));
    scratch.write(".hidden file", "");
    fs::create_symlink("../..", scratch.file("a/b/up"));
    fs::create_symlink("nowhere", scratch.file("dangling"));
    for (const std::string &top : {scratch.path(), scratch.path() + "/"}) {
        for (const auto &words : {std::vector<std::string>{top}, {"--stored", top}}) {
            Outcome outcome = zqfind(words);
            EXPECT_EQ(outcome.status, 0);
            EXPECT_EQ(outcome.err, "");
            EXPECT_EQ(sorted(outcome.out), found(top));
            EXPECT_EQ(sorted(outcome.out).size(), 9u);
        }
    }
}

TEST(zqfind, agrees_with_find_on_a_real_tree)
{
    EXPECT_EQ(sorted(zqfind({ZQ_TEST_SOURCE "/tests"}).out), found(ZQ_TEST_SOURCE "/tests"));
}

TEST(zqfind, shows_stored_names_on_request)
{
    Scratch scratch;
    scratch.write("e\xCC\x81", "1");
    scratch.write("\xFF", "1");
    scratch.write("plain", "1");
    EXPECT_EQ(sorted(zqfind({"--stored", scratch.path()}).out), found(scratch.path()));
    Outcome outcome = zqfind({scratch.path()});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(sorted(outcome.out), std::vector{"1 " + scratch.file("plain")});
    EXPECT_EQ(
        sorted(outcome.err),
        (std::vector{
            "zqfind: " + scratch.file("\xC3\xA9") + ": not found by that name; try --stored",
            "zqfind: " + scratch.path() + ": a name in it cannot be composed; --stored lists it"}));
}

TEST(zqfind, says_what_is_wrong)
{
    const struct {
        std::vector<std::string> words;
        int status;
        std::string err;
    } rows[] = {
        {{"/none"}, 1, "zqfind: /none: No such file or directory\n"},
        {{"/dev/null"}, 1, "zqfind: /dev/null: Not a directory\n"},
        {{}, 2, "usage: zqfind"},
        {{"/", "/"}, 2, "usage: zqfind"},
        {{"--other"}, 2, "usage: zqfind"},
        {{"--stored"}, 2, "usage: zqfind"},
    };
    for (const auto &row : rows) {
        Outcome outcome = zqfind(row.words);
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err.substr(0, row.err.size()), row.err);
    }
    Outcome help = zqfind({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.substr(0, 13), "usage: zqfind");
}
