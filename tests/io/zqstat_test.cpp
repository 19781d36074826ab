#include "zq/io/zqstat.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>

#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/scratch.h"
#include "zq/io/zqutf8stat.h"

// Both sets behave alike: the tests are instantiated over them.
#define SET(type, prefix)                                                                          \
    struct type##_set {                                                                            \
        using Status = Owned<type, prefix##_destroy>;                                              \
        static constexpr auto create = prefix##_create;                                            \
        static constexpr auto take = prefix##_lstat;                                               \
        static constexpr auto is_directory = prefix##_is_directory;                                \
        static constexpr auto is_symlink = prefix##_is_symlink;                                    \
        static constexpr auto get_size = prefix##_get_size;                                        \
    }
SET(zqstat, zq_stat);
SET(zqutf8stat, zq_utf8stat);

template <class Set>
class zqstat_test : public testing::Test {
};
using Sets = testing::Types<zqstat_set, zqutf8stat_set>;
TYPED_TEST_SUITE(zqstat_test, Sets);

TYPED_TEST(zqstat_test, answers_for_the_file_itself)
{
    using Set = TypeParam;
    Scratch scratch;
    scratch.write("file", "12345");
    std::filesystem::create_directory(scratch.file("directory"));
    std::filesystem::create_symlink("directory", scratch.file("link"));
    scratch.write("large", "");
    std::filesystem::resize_file(scratch.file("large"), 5'000'000'000);
    const struct {
        const char *name;
        int result;
        int directory;
        int symlink;
        int64_t size; // 0: any
    } rows[] = {
        {"file", 0, 0, 0, 5}, {"none", -1, -1, -1, -1},       {"directory", 0, 1, 0, 0},
        {"link", 0, 0, 1, 9}, {"large", 0, 0, 0, 5000000000}, {"file/none", -1, -1, -1, -1},
        {"file", 0, 0, 0, 5},
    };
    typename Set::Status status(Set::create());
    ASSERT_NE(status, nullptr);
    EXPECT_EQ(Set::is_directory(status.get()), -1);
    EXPECT_EQ(Set::is_symlink(status.get()), -1);
    EXPECT_EQ(Set::get_size(status.get()), -1);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Set::take(status.get(), scratch.file(row.name).c_str()), row.result);
        EXPECT_EQ(Set::is_directory(status.get()), row.directory);
        EXPECT_EQ(Set::is_symlink(status.get()), row.symlink);
        int64_t size = Set::get_size(status.get());
        EXPECT_EQ(size, row.size == 0 ? size : row.size);
    }
    EXPECT_EQ(Set::take(status.get(), ""), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(zqstat, lines_without_memory)
{
    if (!faults_injected()) {
        expect_lines_without_memory("zqstat.lines_without_memory",
                                    {"[7] not enough memory for zqstat"});
        return;
    }
    FaultLines lines;
    zqstat_set::Status native(zq_stat_create());
    lines.step();
    zqutf8stat_set::Status utf8(zq_utf8stat_create());
}

TEST(zqstat, stops_on_misuse)
{
    zqstat_set::Status native(zq_stat_create());
    zqutf8stat_set::Status utf8(zq_utf8stat_create());
    ASSERT_TRUE(native && utf8);
#define ROW(source, function, ...)                                                                 \
    EXPECT_MISUSE(function(NULL __VA_OPT__(, ) __VA_ARGS__), "io/" source, #function,              \
                  source " != NULL")
    ROW("zqstat", zq_stat_destroy);
    ROW("zqstat", zq_stat_lstat, "");
    ROW("zqstat", zq_stat_is_directory);
    ROW("zqstat", zq_stat_is_symlink);
    ROW("zqstat", zq_stat_get_size);
    ROW("zqutf8stat", zq_utf8stat_destroy);
    ROW("zqutf8stat", zq_utf8stat_lstat, "");
    ROW("zqutf8stat", zq_utf8stat_is_directory);
    ROW("zqutf8stat", zq_utf8stat_is_symlink);
    ROW("zqutf8stat", zq_utf8stat_get_size);
    EXPECT_MISUSE(zq_stat_lstat(native.get(), NULL), "io/zqstat", "zq_stat_lstat", "path != NULL");
    EXPECT_MISUSE(zq_utf8stat_lstat(utf8.get(), NULL), "io/zqutf8stat", "zq_utf8stat_lstat",
                  "path != NULL");
}
