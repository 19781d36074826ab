#include "zq/util/zqpath.h"

#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/log_capture.h"

using Path = Owned<zqpath, zq_path_destroy>;

TEST(zqpath, renders_what_was_appended)
{
    Path path(zq_path_create());
    ASSERT_NE(path, nullptr);
    EXPECT_STREQ(zq_path_peek(path.get()), "");
    const struct {
        const char *append; // null removes the last
        int result;
        const char *rendered;
        const char *line;
    } rows[] = {
        {nullptr, -1, "", "the path is empty, unable to remove the last item"},
        {"a", 0, "a", nullptr},
        {"b", 0, "a/b", nullptr},
        {"c\\ ", 0, "a/b/c\\ ", nullptr},
        {"", -1, "a/b/c\\ ", "path component cannot be empty"},
        {"d/", -1, "a/b/c\\ ", "path component 'd/' must not contain a slash"},
        {"/", -1, "a/b/c\\ ", "path component '/' must not contain a slash"},
        {nullptr, 0, "a/b", nullptr},
        {"..", 0, "a/b/..", nullptr},
        {nullptr, 0, "a/b", nullptr},
        {nullptr, 0, "a", nullptr},
        {nullptr, 0, "", nullptr},
        {nullptr, -1, "", "the path is empty, unable to remove the last item"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.rendered);
        LogCapture log;
        EXPECT_EQ(row.append ? zq_path_append(path.get(), row.append)
                             : zq_path_remove_last(path.get()),
                  row.result);
        EXPECT_EQ(log.take(), row.line ? (Lines{{6, row.line}}) : Lines{});
        const char *peeked = zq_path_peek(path.get());
        EXPECT_STREQ(peeked, row.rendered);
        EXPECT_EQ(zq_path_peek(path.get()), peeked); // rendered once
        ZqString copy(zq_path_get(path.get()));
        EXPECT_STREQ(copy.get(), row.rendered);
        EXPECT_NE(copy.get(), peeked);
    }
    zq_path_append(path.get(), "x");
    zq_path_append(path.get(), "y");
    EXPECT_STREQ(zq_path_peek(path.get()), "x/y");
    zq_path_clear(path.get());
    EXPECT_STREQ(zq_path_peek(path.get()), "");
    zq_path_append(path.get(), "z");
    EXPECT_STREQ(zq_path_peek(path.get()), "z");
}

TEST(zqpath, lines_without_memory)
{
    if (!faults_injected()) {
        expect_lines_without_memory(
            "zqpath.lines_without_memory",
            {"[7] not enough memory for zqpath context", "[7] not enough memory for zqpath list",
             "[7] not enough memory for path item", "[7] not enough memory for path item name",
             "[7] not enough memory for rendering the path",
             "[7] not enough memory for making a duplicate of the path"});
        return;
    }
    FaultLines lines;
    Path path(zq_path_create());
    lines.step();
    if (!path)
        return;
    bool appended = zq_path_append(path.get(), "a") == 0;
    lines.step();
    ZqString copy(zq_path_get(path.get()));
    lines.step();
    // A failed append leaves the path as it was.
    const char *peeked = zq_path_peek(path.get());
    CHECK_PROMISE(!peeked || std::string(peeked) == (appended ? "a" : ""));
}

TEST(zqpath, stops_on_misuse)
{
    Path path(zq_path_create());
    ASSERT_NE(path, nullptr);
#define ROW(function, ...)                                                                         \
    EXPECT_MISUSE(function(NULL __VA_OPT__(, ) __VA_ARGS__), "util/zqpath", #function,             \
                  "zqpath != NULL")
    ROW(zq_path_destroy);
    ROW(zq_path_append, "a");
    ROW(zq_path_remove_last);
    ROW(zq_path_peek);
    ROW(zq_path_get);
    ROW(zq_path_clear);
    EXPECT_MISUSE(zq_path_append(path.get(), NULL), "util/zqpath", "zq_path_append",
                  "name != NULL");
}
