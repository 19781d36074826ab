#include "zq/io/zqmkdir.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch.h"
#include "tests/support/small_stack.h"
#include "zq/io/zqrmdir.h"

TEST(zqmkdir, makes_and_removes_one_directory)
{
    mode_t mask = umask(027);
    using Call = int (*)(const char *);
    const std::pair<Call, Call> sets[] = {{zq_mkdir, zq_rmdir}, {zq_utf8mkdir, zq_utf8rmdir}};
    for (const auto &[make, remove] : sets) {
        Scratch scratch;
        std::string path = scratch.file("a");
        EXPECT_EQ(make(path.c_str()), 0);
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFDIR | 0750u);
        EXPECT_EQ(remove(path.c_str()), 0);
        EXPECT_FALSE(std::filesystem::exists(path));
    }
    umask(mask);
}

TEST(zqmkdir, makes_what_is_missing)
{
    const struct {
        const char *path; // below a directory with a file "file" and links "link" to "." and
                          // "dangling" to nothing
        zqerror result;
        const char *made; // a directory afterwards
    } rows[] = {
        {"a", 0, "a"},           {"b/c/d", 0, "b/c/d"},
        {"b", 0, "b"},           {"e//f///g/", 0, "e/f/g"},
        {"/h", 0, "h"},          {".", 0, "."},
        {"file", 17, "."},       {"file/", 0, "."}, // mkdir() says EEXIST of the slash
        {"file/a", 20, "."},     {"file/a/b", 20, "."},
        {"link", 17, "."},       {"link/i", 0, "i"},
        {"link/j/k", 0, "j/k"},  {"dangling", 17, "."},
        {"dangling/a", 20, "."},
    };
    for (auto make : {zq_mkdir_recursive, zq_utf8mkdir_recursive}) {
        Scratch scratch;
        scratch.write("file", "");
        std::filesystem::create_symlink(".", scratch.file("link"));
        std::filesystem::create_symlink("nowhere", scratch.file("dangling"));
        for (const auto &row : rows) {
            EXPECT_EQ(make(scratch.file(row.path).c_str()), row.result) << row.path;
            EXPECT_TRUE(std::filesystem::is_directory(scratch.file(row.made))) << row.path;
        }
        std::filesystem::create_symlink("loop", scratch.file("loop"));
        EXPECT_EQ(make(scratch.file("loop/a").c_str()), ZQ_ERROR_SYMLINK_LOOP + 0u);
    }
    EXPECT_EQ(zq_mkdir_recursive("/"), 0u);
    EXPECT_EQ(zq_mkdir_recursive(""), ZQ_ERROR_NOT_DIRECTORY + 0u);
}

TEST(zqmkdir, makes_relative_paths)
{
    if (faults_injected()) // which keeps its state in the working directory
        return;
    Scratch scratch;
    std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(scratch.path());
    EXPECT_EQ(zq_mkdir_recursive("a"), 0u);
    EXPECT_EQ(zq_mkdir_recursive("b/c"), 0u);
    EXPECT_EQ(zq_mkdir_file_path("d/e/f"), 0);
    std::filesystem::current_path(before);
    EXPECT_TRUE(std::filesystem::is_directory(scratch.file("a")));
    EXPECT_TRUE(std::filesystem::is_directory(scratch.file("b/c")));
    EXPECT_TRUE(std::filesystem::is_directory(scratch.file("d/e")));
    EXPECT_FALSE(std::filesystem::exists(scratch.file("d/e/f")));
}

TEST(zqmkdir, takes_paths_of_any_length)
{
    Scratch scratch;
    std::string path = scratch.path();
    for (int i = 0; i < 20'000; i++)
        path.append("/").append(100, 'd'); // few of them fit into a path that can be made
    on_small_stack([&] { EXPECT_EQ(zq_mkdir_recursive(path.c_str()), 36u); });
}

TEST(zqmkdir, makes_the_directories_of_a_file)
{
    for (auto make : {zq_mkdir_file_path, zq_utf8mkdir_file_path}) {
        Scratch scratch;
        LogCapture log;
        for (const char *nothing_to_make : {"", "file", "/file", "/", "//file"})
            EXPECT_EQ(make(nothing_to_make), 0) << nothing_to_make;
        EXPECT_EQ(make(scratch.file("a/b/c").c_str()), 0);
        EXPECT_TRUE(std::filesystem::is_directory(scratch.file("a/b")));
        EXPECT_FALSE(std::filesystem::exists(scratch.file("a/b/c")));
        EXPECT_EQ(log.take(), Lines{});
        std::string file = scratch.write("file", "");
        EXPECT_EQ(make((file + "/c").c_str()), -1);
        EXPECT_EQ(log.take(), (Lines{{7, "creating path '" + file +
                                             "' failed, error 17 (item already exists)"}}));
    }
}

TEST(zqmkdir, lines_without_memory)
{
    if (!faults_injected()) {
        expect_lines_without_memory(
            "zqmkdir.lines_without_memory",
            {"[7] not enough memory for parent directory path name",
             "[7] not enough memory for copying path name for file '/dev/null/a/b'"});
        return;
    }
    FaultLines lines;
    zqerror result = zq_mkdir_recursive("/dev/null/a");
    CHECK_PROMISE(result == ZQ_ERROR_NO_MEMORY || result == ZQ_ERROR_NOT_DIRECTORY);
    lines.step();
    errno = 0;
    CHECK_PROMISE(zq_mkdir_file_path("/dev/null/a/b") == -1);
}

TEST(zqmkdir, stops_on_misuse)
{
#define ROW(source, function, expression)                                                          \
    EXPECT_MISUSE(function(NULL), source, #function, expression)
    ROW("io/zqmkdir", zq_mkdir, "pathname != NULL");
    ROW("io/zqmkdir", zq_mkdir_recursive, "pathname != NULL");
    ROW("io/zqmkdir", zq_mkdir_file_path, "filename != NULL");
    ROW("io/zqmkdir", zq_utf8mkdir, "pathname != NULL");
    ROW("io/zqmkdir", zq_utf8mkdir_recursive, "pathname != NULL");
    ROW("io/zqmkdir", zq_utf8mkdir_file_path, "filename != NULL");
    ROW("io/zqrmdir", zq_rmdir, "pathname != NULL");
    ROW("io/zqrmdir", zq_utf8rmdir, "pathname != NULL");
}
