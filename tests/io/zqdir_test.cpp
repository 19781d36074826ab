#include "zq/io/zqdir.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/limit.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "tests/support/small_stack.h"
#include "tests/support/system_faults.h"
#include "zq/io/zqutf8dir.h"

namespace fs = std::filesystem;

// ---- both sets, which the tests are instantiated over ----

#define SET(type, prefix, remove_trace, delete_trace, rmdir_trace)                                 \
    struct type##_set {                                                                            \
        using Dir = Owned<type, prefix##_destroy>;                                                 \
        static constexpr auto open = prefix##_open;                                                \
        static constexpr auto next = prefix##_next;                                                \
        static constexpr auto fetch_name = prefix##_fetch_name;                                    \
        static constexpr auto copy_name = prefix##_copy_name;                                      \
        static constexpr auto is_directory = prefix##_is_directory;                                \
        static constexpr auto is_symlink = prefix##_is_symlink;                                    \
        static constexpr auto get_size = prefix##_get_size;                                        \
        static constexpr auto get_error = prefix##_get_error;                                      \
        static constexpr auto separator = prefix##_separator;                                      \
        static constexpr auto remove_recursive = prefix##_remove_recursive;                        \
        static constexpr const char *no_entry =                                                    \
            #prefix "_next() has not been successfully called";                                    \
        static constexpr const char *trace_remove = remove_trace;                                  \
        static constexpr const char *trace_delete = delete_trace;                                  \
        static constexpr const char *trace_rmdir = rmdir_trace;                                    \
    }
SET(zqdir, zq_dir, "zq_dir_remove_recursive", "zq_deletefile", "zq_rmdir");
// The first names another function; that is how its traces read.
SET(zqutf8dir, zq_utf8dir, "zq_file_remove_recursive", "zq_utf8deletefile", "zq_utf8rmdir");

template <class Set>
class zqdir_test : public testing::Test {
};
using Sets = testing::Types<zqdir_set, zqutf8dir_set>;
TYPED_TEST_SUITE(zqdir_test, Sets);

// The current entry's name, "" without memory for it.
template <class Set>
static std::string name_of(const typename Set::Dir &dir)
{
    const char *name = Set::fetch_name(dir.get());
    return name ? name : "";
}

// ---- reading ----

TYPED_TEST(zqdir_test, lists_entries_with_their_status)
{
    using Set = TypeParam;
    Scratch scratch;
    scratch.write("file", "12345");
    fs::create_directory(scratch.file("directory"));
    fs::create_symlink("directory", scratch.file("link"));
    using Status = std::tuple<int, int, int64_t>; // is a directory, is a link, size
    const std::map<std::string, Status> expected = {{".", {1, 0, 0}},
                                                    {"..", {1, 0, 0}},
                                                    {"file", {0, 0, 5}},
                                                    {"directory", {1, 0, 0}},
                                                    {"link", {0, 1, 9}}};

    SystemCalls calls;
    typename Set::Dir dir(Set::open(scratch.path().c_str()));
    ASSERT_NE(dir, nullptr);
    std::map<std::string, Status> found;
    while (Set::next(dir.get()) == 0) {
        ZqString name(Set::copy_name(dir.get()));
        const char *fetched = Set::fetch_name(dir.get());
        if (!name || !fetched) // out of memory
            continue;
        EXPECT_STREQ(fetched, name.get());
        EXPECT_EQ(Set::fetch_name(dir.get()), fetched);
        int directory = Set::is_directory(dir.get());
        int symlink = Set::is_symlink(dir.get());
        // The size of a directory is the file system's business.
        found[name.get()] = {directory, symlink, directory == 1 ? 0 : Set::get_size(dir.get())};
    }
    EXPECT_EQ(found, expected);
    EXPECT_EQ(std::count_if(calls.seen.begin(), calls.seen.end(),
                            [](const SystemCall &call) { return call.name == "lstat"; }),
              5); // one an entry
    EXPECT_EQ(Set::next(dir.get()), -1);
    EXPECT_EQ(Set::separator(), '/');
}

TYPED_TEST(zqdir_test, opens_the_current_directory_without_a_path)
{
    using Set = TypeParam;
    if (faults_injected()) // which keeps its state in the working directory
        return;
    Scratch scratch;
    scratch.write("file", "12345");
    fs::path before = fs::current_path();
    fs::current_path(scratch.path());
    typename Set::Dir dir(Set::open(nullptr));
    ASSERT_NE(dir, nullptr);
    while (Set::next(dir.get()) == 0) {
        bool file = name_of<Set>(dir) == "file";
        EXPECT_EQ(Set::is_directory(dir.get()), file ? 0 : 1);
    }
    fs::current_path(before);
    EXPECT_EQ(Set::open(""), nullptr);
}

TYPED_TEST(zqdir_test, keeps_an_error_when_there_is_no_entry)
{
    using Set = TypeParam;
    Scratch scratch;
    typename Set::Dir dir(Set::open(scratch.path().c_str()));
    ASSERT_NE(dir, nullptr);
    auto expect_no_entry = [&](zqerror before) {
        const LogLine no_entry{6, Set::no_entry};
        LogCapture log;
        EXPECT_EQ(Set::is_directory(dir.get()), -1);
        EXPECT_EQ(Set::is_symlink(dir.get()), -1);
        EXPECT_EQ(Set::get_size(dir.get()), -1);
        EXPECT_EQ(log.take(), Lines(3, no_entry));
        EXPECT_EQ(Set::get_error(dir.get()), before);
        EXPECT_EQ(Set::copy_name(dir.get()), nullptr);
        EXPECT_EQ(log.take(), (Lines{no_entry, {6, "unable to fetch entry name"}}));
        EXPECT_EQ(Set::get_error(dir.get()), 22u);
    };
    expect_no_entry(0);
    EXPECT_EQ(Set::next(dir.get()), 0);
    {
        SystemCalls calls(failing("readdir", EIO));
        EXPECT_EQ(Set::next(dir.get()), EIO);
    }
    expect_no_entry(22); // kept until the end
    while (Set::next(dir.get()) == 0) {
    }
    expect_no_entry(0);
}

TEST(zqdir, lines_without_memory)
{
    if (!faults_injected()) {
        const std::string stat = "; [6] calling stat() has failed";
        const std::string nfc = "; [7] not enough memory to convert the filename to NFC";
        expect_lines_without_memory(
            "zqdir.lines_without_memory",
            {"[7] not enough memory for directory handle",
             "[7] not enough memory for path '/dev/fd/'",
             "[7] not enough memory for copying name '.'",
             "[7] not enough memory for zqstat; [7] unable to create zqstat context" + stat,
             "[7] not enough memory for stat path" + stat,
             "[7] not enough memory for NFC string buffer (2 bytes)" + nfc,
             "[7] not enough memory for NFC string buffer (3 bytes)" + nfc +
                 "; [6] unable to fetch entry name",
             "[7] not enough memory for NFC string buffer (2 bytes)" + nfc +
                 "; [6] unable to fetch the entry name" + stat});
        return;
    }
    FaultLines lines;
    zqdir_set::Dir dir(zq_dir_open("/dev/fd/"));
    lines.step();
    if (dir && zq_dir_next(dir.get()) == 0) {
        ZqString name(zq_dir_copy_name(dir.get()));
        lines.step();
        zq_dir_get_size(dir.get());
        lines.step();
    }
    zqutf8dir_set::Dir utf8dir(zq_utf8dir_open("/dev/fd/"));
    lines.step();
    if (utf8dir && zq_utf8dir_next(utf8dir.get()) == 0) {
        zq_utf8dir_fetch_name(utf8dir.get());
        lines.step();
        zq_utf8dir_next(utf8dir.get());
        ZqString name(zq_utf8dir_copy_name(utf8dir.get()));
        lines.step();
        while (zq_utf8dir_next(utf8dir.get()) == 0) { // 0, 1, 2
            zq_utf8dir_get_size(utf8dir.get());
            lines.step();
        }
    }
}

// ---- removing ----

static LogLine trace(const char *function, const std::string &path)
{
    return {13, std::string(function) + "(" + path + ")"};
}

TYPED_TEST(zqdir_test, removes_a_tree_and_traces_every_step)
{
    using Set = TypeParam;
    Scratch scratch;
    scratch.write("keep", "kept");
    std::string top = scratch.file("top");
    fs::create_directories(top + "/s/t");
    fs::create_symlink("../../..", top + "/s/t/link");
    fs::create_symlink("nowhere", top + "/dangling");
    {
        LogCapture log(13);
        EXPECT_EQ(Set::remove_recursive((top + "/").c_str()), 0);
        EXPECT_EQ(
            log.take(),
            (Lines{trace(Set::trace_delete, top + "//dangling"),
                   trace(Set::trace_remove, top + "//s"), trace(Set::trace_remove, top + "//s/t"),
                   trace(Set::trace_delete, top + "//s/t/link"),
                   trace(Set::trace_rmdir, top + "//s/t"), trace(Set::trace_rmdir, top + "//s"),
                   trace(Set::trace_rmdir, top + "/")}));
    }
    EXPECT_FALSE(fs::exists(top));
    EXPECT_EQ(read_file(scratch.file("keep")), "kept");
}

TYPED_TEST(zqdir_test, empties_the_directory_that_a_link_at_the_top_leads_to)
{
    using Set = TypeParam;
    Scratch scratch;
    fs::create_directories(scratch.file("target/a"));
    fs::create_symlink("target", scratch.file("link"));
    LogCapture log;
    EXPECT_EQ(Set::remove_recursive(scratch.file("link").c_str()), -1);
    EXPECT_EQ(log.take(), (Lines{{7, "unable to remove directory '" + scratch.file("link") +
                                         "', error " + std::to_string(ENOTDIR)}}));
    EXPECT_TRUE(fs::is_symlink(scratch.file("link")));
    EXPECT_TRUE(fs::is_empty(scratch.file("target")));
}

TYPED_TEST(zqdir_test, goes_on_after_a_failure_and_keeps_what_is_not_empty)
{
    using Set = TypeParam;
    Scratch scratch;
    std::string top = scratch.file("top");
    for (const char *directory : {"/a/fails", "/b/c", "/d/unreadable", "/e"})
        fs::create_directories(top + directory);
    for (const char *file : {"/stays", "/goes", "/b/c/goes", "/b/stays", "/d/goes"})
        mknod((top + file).c_str(), S_IFREG | 0600, 0);
    LogCapture log;
    {
        SystemCalls calls([](const SystemCall &call) {
            const bool removes = call.name == "unlinkat";
            return removes && (call.path == "stays" || call.path == "fails") ? EBUSY
                   : call.name == "openat" && call.path == "unreadable"      ? EACCES
                                                                             : PASS;
        });
        EXPECT_EQ(Set::remove_recursive(top.c_str()), -1);
    }
    Lines lines = log.take();
    std::sort(lines.begin(), lines.end(), [](auto &a, auto &b) { return a.text < b.text; });
    EXPECT_EQ(lines, (Lines{{7, "unable to delete file '" + top + "/b/stays'"},
                            {7, "unable to delete file '" + top + "/stays'"},
                            {7, "unable to remove directory '" + top + "/a/fails', error " +
                                    std::to_string(EBUSY)}}));
    std::vector<std::string> left;
    for (const auto &entry : fs::recursive_directory_iterator(top))
        left.push_back(entry.path().string().substr(top.size()));
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (std::vector<std::string>{"/a", "/a/fails", "/b", "/b/stays", "/d",
                                              "/d/unreadable", "/stays"}));
}

TYPED_TEST(zqdir_test, never_leaves_the_tree_when_it_changes_meanwhile)
{
    using Set = TypeParam;
    Scratch scratch;
    std::string top = scratch.file("top");
    std::string outside = scratch.file("outside");
    fs::create_directory(outside);
    mknod((outside + "/kept").c_str(), S_IFREG | 0600, 0);
    {
        // A directory becomes a link just before it is opened.
        fs::create_directories(top + "/swapped");
        SystemCalls calls([&](const SystemCall &call) {
            if (call.name == "openat" && call.path == "swapped") {
                fs::remove(top + "/swapped");
                fs::create_symlink(outside, top + "/swapped");
            }
            return PASS;
        });
        EXPECT_EQ(Set::remove_recursive(top.c_str()), -1);
        fs::remove(top + "/swapped");
    }
    {
        // A directory is moved away, so that ".." leads elsewhere.
        fs::create_directories(top + "/a/moved/c");
        SystemCalls calls([&](const SystemCall &call) {
            if (call.path == "..")
                fs::rename(top + "/a/moved", outside + "/moved");
            return PASS;
        });
        LogCapture log;
        EXPECT_EQ(Set::remove_recursive(top.c_str()), -1);
        EXPECT_EQ(log.take(), (Lines{{7, "unable to return from directory '" + top +
                                             "/a/moved', error " + std::to_string(ESTALE)}}));
        EXPECT_TRUE(fs::exists(outside + "/moved"));
    }
    EXPECT_TRUE(fs::exists(outside + "/kept"));
}

// Paths far beyond what the system takes, made a step at a time.
static void make_deep_tree(const std::string &top, int levels)
{
    fs::create_directory(top);
    int fd = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < levels; level++) {
        mkdirat(fd, "deep", 0700);
        mknodat(fd, "file", S_IFREG | 0600, 0);
        int below = openat(fd, "deep", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(fd);
        fd = below;
    }
    close(fd);
}

TEST(zqdir, removes_deep_trees_with_little_stack_and_few_descriptors)
{
    const ScratchPlace place(ScratchPlace::memory()); // for large trees
    Scratch scratch;
    std::string top = scratch.file("top");
    make_deep_tree(top, faults_injected() ? 5 : 10'000);
    size_t descriptors = open_descriptors();
    int next = dup(0);
    close(next);
    on_small_stack([&] {
        const Limit few(RLIMIT_NOFILE, static_cast<rlim_t>(next + 4));
        EXPECT_EQ(zq_dir_remove_recursive(top.c_str()), 0);
    });
    EXPECT_FALSE(fs::exists(top));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(zqdir, removes_wide_trees)
{
    const ScratchPlace place(ScratchPlace::memory()); // for large trees
    Scratch scratch;
    std::string top = scratch.file("top");
    fs::create_directory(top);
    for (int i = 0; i < (faults_injected() ? 5 : 100'000); i++) {
        std::string entry = top + "/" + std::to_string(i);
        mknod(entry.c_str(), S_IFREG | 0600, 0);
        if (i % 100 == 0)
            fs::create_directory(entry + ".d");
    }
    on_small_stack([&] { EXPECT_EQ(zq_dir_remove_recursive(top.c_str()), 0); });
    EXPECT_FALSE(fs::exists(top));
}

TEST(zqdir, lines_without_memory_of_removal)
{
    if (!faults_injected()) {
        expect_lines_without_memory("zqdir.lines_without_memory_of_removal",
                                    {"[7] not enough memory for directory handle",
                                     "[7] not enough memory for path 'none/'",
                                     "[7] not enough memory for path"});
        return;
    }
    FaultLines lines;
    EXPECT_EQ(zq_dir_remove_recursive("none/"), -1);
    lines.step();
    for (auto remove : {zq_dir_remove_recursive, zq_utf8dir_remove_recursive}) {
        Scratch scratch;
        // Names that the text of a path has to grow for.
        const std::string name(200, 'n');
        fs::create_directories(scratch.file("top/" + name + "/" + name + "/b"));
        scratch.write("top/" + name + "/" + name + "m", "");
        bool removed = remove(scratch.file("top").c_str()) == 0;
        CHECK_PROMISE(removed != fs::exists(scratch.file("top")));
        lines.step();
    }
}

// ---- misuse ----

TEST(zqdir, stops_on_misuse)
{
#define ROW(source, function, expression)                                                          \
    EXPECT_MISUSE(function(NULL), "io/" source, #function, expression)
    ROW("zqdir", zq_dir_destroy, "zqdir != NULL");
    ROW("zqdir", zq_dir_next, "zqdir != NULL");
    ROW("zqdir", zq_dir_fetch_name, "zqdir != NULL");
    ROW("zqdir", zq_dir_copy_name, "zqdir != NULL");
    ROW("zqdir", zq_dir_is_directory, "zqdir != NULL");
    ROW("zqdir", zq_dir_is_symlink, "zqdir != NULL");
    ROW("zqdir", zq_dir_get_size, "zqdir != NULL");
    ROW("zqdir", zq_dir_get_error, "zqdir != NULL");
    ROW("zqdir", zq_dir_remove_recursive, "path != NULL");
    ROW("zqutf8dir", zq_utf8dir_destroy, "zqutf8dir != NULL");
    ROW("zqutf8dir", zq_utf8dir_next, "zqutf8dir != NULL");
    ROW("zqutf8dir", zq_utf8dir_fetch_name, "zqutf8dir != NULL");
    ROW("zqutf8dir", zq_utf8dir_copy_name, "zqutf8dir != NULL");
    ROW("zqutf8dir", zq_utf8dir_is_directory, "zqutf8dir != NULL");
    ROW("zqutf8dir", zq_utf8dir_is_symlink, "zqutf8dir != NULL");
    ROW("zqutf8dir", zq_utf8dir_get_size, "zqutf8dir != NULL");
    ROW("zqutf8dir", zq_utf8dir_get_error, "zqutf8dir != NULL");
    ROW("zqutf8dir", zq_utf8dir_remove_recursive, "path != NULL");
}
