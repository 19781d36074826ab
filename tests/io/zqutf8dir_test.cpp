#include "zq/io/zqutf8dir.h"

#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

#include "tests/support/expect.h"
#include "tests/support/interpose.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "zq/adt/zqwchar.h"
#include "zq/io/zqdir.h"

namespace fs = std::filesystem;
using Dir = Owned<zqutf8dir, zq_utf8dir_destroy>;

// The next entry's name while it is set, so that no file system stands between.
static const char *given_name;

extern "C" struct dirent *readdir(DIR *stream)
{
    static dirent entry;
    if (!given_name)
        return next_symbol<&readdir>()(stream);
    snprintf(entry.d_name, sizeof(entry.d_name), "%s", given_name);
    return &entry;
}

// The composed form of a name, or "(none)".
static std::string composed(zqutf8dir *dir, const std::string &name)
{
    given_name = name.c_str();
    EXPECT_EQ(zq_utf8dir_next(dir), 0);
    given_name = nullptr;
    const char *fetched = zq_utf8dir_fetch_name(dir);
    return fetched ? fetched : "(none)";
}

TEST(zqutf8dir, composes_names)
{
    const struct {
        std::string stored;
        std::string name;
    } rows[] = {
        {"plain ASCII.txt", "plain ASCII.txt"},
        {"e\xCC\x81", "\xC3\xA9"},
        {"\xC3\xA9", "\xC3\xA9"},
        {"a\xCC\xA3\xCC\x82 a\xCC\x82\xCC\xA3", "\xE1\xBA\xAD \xE1\xBA\xAD"}, // marks in any order
        {"q\xCC\x87\xCC\xA3", "q\xCC\xA3\xCC\x87"},                           // none composed
        {"\xE1\x84\x92\xE1\x85\xA1\xE1\x86\xAB", "\xED\x95\x9C"},             // Hangul
        {"\xE2\x84\xAB", "\xC3\x85"},                                         // the angstrom sign
        {"\xEF\xAC\x81", "\xEF\xAC\x81"}, // a ligature is another character
        {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
        // Decomposed forms only, which are longer than what is stored.
        {"\xE0\xA5\x98", "(none)"},
        {"\xF0\x9D\x85\x9E", "(none)"},
        // Longer in part, and yet not as a whole.
        {"\xE0\xA5\x98\xE1\x84\x92\xE1\x85\xA1\xE1\x86\xAB",
         "\xE0\xA4\x95\xE0\xA4\xBC\xED\x95\x9C"},
        // not UTF-8
        {"a\xFF", "(none)"},
        {"\xC3", "(none)"},
        {"\xC0\xAF", "(none)"},
        {"\xED\xA0\x80", "(none)"},
    };
    Dir dir(zq_utf8dir_open("/"));
    ASSERT_NE(dir, nullptr);
    for (const auto &row : rows) {
        LogCapture log;
        EXPECT_EQ(composed(dir.get(), row.stored), row.name);
        Lines expected;
        if (row.name == "(none)")
            expected = {{7, "unable to convert NFD string to NFC"},
                        {7, "not enough memory to convert the filename to NFC"}};
        EXPECT_EQ(log.take(), expected);
    }
}

TEST(zqutf8dir, looks_entries_up_by_composed_names)
{
    Scratch scratch;
    scratch.write("e\xCC\x81", "12345");
    Dir dir(zq_utf8dir_open(scratch.path().c_str()));
    Owned<zqdir, zq_dir_destroy> stored(zq_dir_open(scratch.path().c_str()));
    ASSERT_TRUE(dir && stored);
    for (const char *name = "."; name && *name == '.';) {
        ASSERT_EQ(zq_utf8dir_next(dir.get()), 0);
        name = zq_utf8dir_fetch_name(dir.get());
    }
    for (const char *name = "."; *name == '.'; name = zq_dir_fetch_name(stored.get()))
        ASSERT_EQ(zq_dir_next(stored.get()), 0);
    EXPECT_STREQ(zq_utf8dir_fetch_name(dir.get()), "\xC3\xA9");
    EXPECT_STREQ(zq_dir_fetch_name(stored.get()), "e\xCC\x81");
    EXPECT_EQ(zq_dir_get_size(stored.get()), 5);
    LogCapture log;
    EXPECT_EQ(zq_utf8dir_get_size(dir.get()), -1);
    EXPECT_EQ(log.take(), (Lines{{7, "unable to stat '" + scratch.file("\xC3\xA9") + "'"},
                                 {6, "calling stat() has failed"}}));
    fs::rename(scratch.file("e\xCC\x81"), scratch.file("\xC3\xA9"));
    EXPECT_EQ(zq_utf8dir_get_size(dir.get()), 5);
}

TEST(zqutf8dir, removes_by_composed_names)
{
    Scratch scratch;
    const std::string top = scratch.file("top"), composed = "'" + top + "/\xC3\xA9'";
    const std::pair<std::string, Lines> rows[] = {
        {"\xC3\xA9", {}},
        {"e\xCC\x81",
         {{7, "unable to stat " + composed},
          {6, "calling stat() has failed"},
          {7, "unable to delete file " + composed}}},
        {"\xFF",
         {{7, "unable to convert NFD string to NFC"},
          {7, "not enough memory to convert the filename to NFC"},
          {7, "not enough memory for fetching directory entry name"}}},
    };
    for (const auto &[stored, lines] : rows) {
        fs::remove_all(top);
        fs::create_directory(top);
        scratch.write("top/" + stored, "");
        LogCapture log;
        EXPECT_EQ(zq_utf8dir_remove_recursive(top.c_str()), lines.empty() ? 0 : -1);
        EXPECT_EQ(log.take(), lines);
        EXPECT_EQ(fs::exists(top), !lines.empty());
    }
}

// ---- the normalisation test of the Unicode character database ----

// The file, plain or compressed, where distributions put it; "" when it is not installed.
static std::string normalization_test()
{
    for (const char *path : {"/usr/share/unicode/NormalizationTest.txt",
                             "/usr/share/unicode/NormalizationTest.txt.bz2"}) {
        if (fs::exists(path))
            return run({"bzcat", "-f", path}).out;
    }
    return "";
}

// Whether the platform's Unicode library knows the character: its data can be older than the test.
static bool known(uint32_t c)
{
    auto category =
        reinterpret_cast<const char *(*)(int32_t)>(dlsym(RTLD_DEFAULT, "utf8proc_category_string"));
    return !category || strcmp(category(static_cast<int32_t>(c)), "Cn") != 0;
}

static std::string unicode_version()
{
    auto version =
        reinterpret_cast<const char *(*)()>(dlsym(RTLD_DEFAULT, "utf8proc_unicode_version"));
    return version ? version() : "?";
}

static std::string utf8(uint32_t c)
{
    const wchar_t wide[] = {static_cast<wchar_t>(c), 0};
    return ZqString(zq_wchar_to_utf8(wide)).get();
}

// One column: code points in hexadecimal. False when one of them is not known.
static bool read_column(const std::string &column, std::string *text)
{
    std::istringstream in(column);
    text->clear();
    for (uint32_t c; in >> std::hex >> c;) {
        if (!known(c))
            return false;
        *text += utf8(c);
    }
    return true;
}

static void expect_composed(zqutf8dir *dir, const std::string &name, const std::string &expected)
{
    // What is longer composed than stored is refused.
    EXPECT_EQ(composed(dir, name), expected.size() > name.size() ? "(none)" : expected);
}

TEST(zqutf8dir, passes_the_normalization_test_of_unicode)
{
    if (faults_injected())
        return;
    std::string test = normalization_test();
    if (test.empty())
        GTEST_SKIP() << "the package unicode-data is not installed";
    LogCapture log;
    Dir dir(zq_utf8dir_open("/"));
    ASSERT_NE(dir, nullptr);
    std::set<std::string> listed; // the single characters that the file lists
    std::istringstream lines(test);
    size_t passed = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#' || line[0] == '@')
            continue;
        std::istringstream in(line);
        std::string column, c[5];
        bool all_known = true;
        for (std::string &text : c)
            all_known = std::getline(in, column, ';') && read_column(column, &text) && all_known;
        listed.insert(c[0]);
        if (!all_known)
            continue;
        for (int i : {0, 1, 2})
            expect_composed(dir.get(), c[i], c[1]);
        for (int i : {3, 4})
            expect_composed(dir.get(), c[i], c[3]);
        passed++;
    }
    EXPECT_GT(passed, 18'000u);
    // All others are their own composed form, unless they are newer than the test.
    const bool same_version =
        test.find("NormalizationTest-" + unicode_version()) != std::string::npos;
    for (uint32_t c = 0x80; same_version && c < 0x30000; c++) {
        bool surrogate = c >= 0xD800 && c <= 0xDFFF;
        if (!surrogate && !listed.count(utf8(c)))
            expect_composed(dir.get(), utf8(c), utf8(c));
    }
}
