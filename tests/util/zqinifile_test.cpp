#include "zq/util/zqinifile.h"

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch.h"

using Ini = Owned<zqinifile, zq_inifile_destroy>;

// The file as it would be written now.
static std::string written(zqinifile *ini)
{
    Scratch scratch;
    std::string file = scratch.file("out");
    EXPECT_EQ(zq_inifile_write_file(ini, file.c_str()), ZQ_ERROR_NONE + 0u);
    return read_file(file);
}

static Ini parsed(const std::string &text, zqerror expected = ZQ_ERROR_NONE)
{
    Scratch scratch;
    zqerror result = 99;
    Ini ini(zq_inifile_create_from_file(scratch.write("in.ini", text).c_str(), &result));
    EXPECT_TRUE(faults_injected() || result == expected) << result;
    return ini;
}

TEST(zqinifile, refuses_bad_lines_with_their_place)
{
    const char *bogus = "bogus characters after ']'";
    const char *no_sign = "no '=' found on non-empty non-comment line";
    const struct {
        const char *text;
        unsigned int line;
        const char *message;
    } rows[] = {
        {"a=1\n\n[s]x\n", 3, bogus},       {"[s]=1\n", 1, bogus},    {"[s] ; comment\n", 1, bogus},
        {"; one\r\n\r\nword", 3, no_sign}, {"=value\n", 1, no_sign}, {"[open\n", 1, no_sign},
    };
    LogCapture log;
    Scratch scratch;
    for (const auto &row : rows) {
        std::string file = scratch.write("bad.ini", row.text);
        zqerror result = 99;
        EXPECT_EQ(zq_inifile_create_from_file(file.c_str(), &result), nullptr);
        EXPECT_EQ(zq_inifile_create_from_file(file.c_str(), nullptr), nullptr);
        EXPECT_EQ(result, ZQ_ERROR_SYNTAX + 0u);
        LogLine line{6, "Parse error at " + file + ":" + std::to_string(row.line) + ": " +
                            row.message};
        EXPECT_EQ(log.take(), (std::vector<LogLine>{line, line}));
    }
}

TEST(zqinifile, tells_files_that_cannot_be_read_or_written)
{
    LogCapture log;
    Scratch scratch;
    zqerror result = 0;
    EXPECT_EQ(zq_inifile_create_from_file(scratch.file("none").c_str(), &result), nullptr);
    EXPECT_EQ(result, ZQ_ERROR_NOT_FOUND + 0u);
    EXPECT_EQ(zq_inifile_create_from_file(scratch.path().c_str(), &result), nullptr);
    EXPECT_EQ(result, ZQ_ERROR_GENERIC + 0u) << "a directory";
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{7, "fgets() returned error 21"}}));
    Ini ini(zq_inifile_create(nullptr));
    ASSERT_TRUE(ini);
    EXPECT_EQ(zq_inifile_write_file(ini.get(), scratch.path().c_str()), ZQ_ERROR_WRITE + 0u);
    zq_inifile_set(ini.get(), nullptr, "a", "1");
    EXPECT_EQ(zq_inifile_write_file(ini.get(), "/dev/full"), ZQ_ERROR_WRITE + 0u);
}

TEST(zqinifile, reads_lines_of_any_length)
{
    LogCapture log;
    for (size_t length : {4093u, 4094u, 4095u, 8188u, 8189u, 8190u, 40000u}) {
        const std::string line = "k=" + std::string(length - 3, 'v') + "\n";
        Ini ini = parsed(line + line + line.substr(0, length - 1));
        EXPECT_TRUE(!ini || written(ini.get()) == line + line + line) << length;
    }
}

TEST(zqinifile, a_line_may_be_too_long_for_the_memory)
{
    if (!heap_is_watched())
        GTEST_SKIP();
    LogCapture log;
    HeapFailure failure(1, HeapFailure::REALLOCATIONS);
    EXPECT_FALSE(parsed("k=" + std::string(5000, 'v'), ZQ_ERROR_NO_MEMORY));
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{7, "not enough memory for the line buffer"}}));
}

TEST(zqinifile, sets_values)
{
    const struct {
        const char *text;
        const char *section, *key, *value;
        const char *written;
    } rows[] = {
        {"", nullptr, "a", "1", "a=1\n"},
        {"", "s", " a ", " 1 ", "[s]\n a = 1 \n"},
        {"a = 0\n", nullptr, " a\t", " 1 ", "a=1\n"},
        {"a=0\na=0\nb=0\n", nullptr, "a", "1", "a=0\na=1\nb=0\n"},
        {"; top\n\n[s]\na=0\n", nullptr, "a", "1", "; top\na=1\n\n[s]\na=0\n"},
        {"a=0\n[st]\na=0\n", "s", "a", "1", "a=0\n[st]\na=0\n[s]\na=1\n"},
        {"b=0\n; end\n", nullptr, "a", "1", "b=0\na=1\n; end\n"},
        {"[s]\n; none\n\n[t]\n", "s", "b", "1", "[s]\nb=1\n; none\n\n[t]\n"},
        {"[t]\nb=0", "s", "a", "1", "[t]\nb=0\n[s]\na=1\n"},
    };
    LogCapture log;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        Ini ini = parsed(row.text);
        if (!ini)
            continue;
        std::string before = written(ini.get());
        if (zq_inifile_set(ini.get(), row.section, row.key, row.value) == ZQ_ERROR_NONE) {
            EXPECT_EQ(written(ini.get()), row.written);
            const char *key = strchr(row.key, 'a') ? "a" : "b";
            EXPECT_STREQ(zq_inifile_get(ini.get(), row.section, key), "1");
        } else {
            CHECK_PROMISE(faults_injected() && written(ini.get()) == before);
        }
    }
}

TEST(zqinifile, misuse)
{
    LogCapture log;
    Ini ini(zq_inifile_create(nullptr));
    ASSERT_TRUE(ini);
#define MISUSE(call, function, text) EXPECT_MISUSE(call, "util/zqinifile", function, text)
    MISUSE(zq_inifile_destroy(NULL), "zq_inifile_destroy", "zqinifile != NULL");
    MISUSE(zq_inifile_create_from_file(NULL, NULL), "zq_inifile_create_from_file", "filename");
    MISUSE(zq_inifile_get(NULL, "", ""), "zq_inifile_get", "inifile");
    MISUSE(zq_inifile_set(ini.get(), "", NULL, ""), "zq_inifile_set", "key");
    MISUSE(zq_inifile_set(ini.get(), "", "", NULL), "zq_inifile_set", "new_value");
}
