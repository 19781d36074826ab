#include "zq/util/zqinifile.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"

using Ini = Owned<zqinifile, zq_inifile_destroy>;

// The file as it would be written now.
static std::string written(zqinifile *ini, const Scratch &scratch = Scratch())
{
    std::string file = scratch.file("out");
    EXPECT_EQ(zq_inifile_write_file(ini, file.c_str()), ZQ_ERROR_NONE + 0u);
    std::string text = read_file(file);
    std::filesystem::remove(file); // some file systems wait for the disk when a file is replaced
    return text;
}

static Ini parsed(const std::string &text, zqerror expected = ZQ_ERROR_NONE)
{
    Scratch scratch;
    zqerror result = 99;
    Ini ini(zq_inifile_create_from_file(scratch.write("in.ini", text).c_str(), &result));
    EXPECT_TRUE(faults_injected() || result == expected) << result;
    return ini;
}

static std::string value(const Ini &ini, const char *section, const char *key)
{
    const char *found = zq_inifile_get(ini.get(), section, key);
    return found ? found : "absent";
}

TEST(zqinifile, keeps_lines_and_finds_values)
{
    const struct {
        const char *text;
        const char *section, *key, *value;
        const char *written; // null: as read
    } rows[] = {
        {"", nullptr, "a", "absent", nullptr},
        {"a=1\n", nullptr, "a", "1", nullptr},
        {"a=1\n", "s", "a", "absent", nullptr},
        {"[s]\na=1\n", nullptr, "a", "absent", nullptr},
        {"[s]\na=1\n", "S", "a", "absent", nullptr},
        {"[s]\na=1\n", "s", "A", "absent", nullptr},
        {"[ s t ]\na=1\n", "s t", "a", "1", nullptr},
        {"[s]]\t \na=1\n", "s]", "a", "1", nullptr},
        {"  [s] \n a=1\n", "s", "a", "1", "  [s] \na=1\n"},
        {"[]\na=1\n", "", "a", "1", nullptr},
        {"a = b \n", nullptr, "a", "b", nullptr},
        {"\t a b =  c d\t\n", nullptr, "a b", "c d", "a b =  c d\t\n"},
        {"a=b=c\n", nullptr, "a", "b=c", nullptr},
        {"==b\n", nullptr, "=", "b", nullptr},
        {"a=1 ; no comment\n", nullptr, "a", "1 ; no comment", nullptr},
        {"a=\"q\\n\"\n", nullptr, "a", "\"q\\n\"", nullptr},
        {"a=\n", nullptr, "a", "", nullptr},
        {"[a=1\n", nullptr, "[a", "1", nullptr},
        {" ;a=1\n\t#a=2\n \t\n\n", nullptr, "a", "absent", nullptr},
        {"a=1", nullptr, "a", "1", "a=1\n"},
        {"a=1\r\n\r\nb=2\r\r\n", nullptr, "b", "2", "a=1\n\nb=2\n"},
        {"[s]\na=1\n[t]\na=2\n[s]\na=3\n[u]\na=4\n", "s", "a", "3", nullptr},
    };
    LogCapture log;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        Ini ini = parsed(row.text);
        if (!ini)
            continue;
        EXPECT_EQ(value(ini, row.section, row.key), row.value);
        EXPECT_EQ(written(ini.get()), row.written ? row.written : row.text);
    }
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
        if (faults_injected()) {
            EXPECT_TRUE(result == 209 || result == 12 || result == 0 || result == 207) << result;
            continue;
        }
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
    if (!faults_injected()) {
        EXPECT_EQ(result, ZQ_ERROR_GENERIC + 0u) << "a directory";
        EXPECT_EQ(log.take(),
                  (std::vector<LogLine>{{7, "fgets() returned error " + std::to_string(EISDIR)}}));
    }
    Ini ini(zq_inifile_create(nullptr));
    ASSERT_TRUE(ini);
    EXPECT_EQ(zq_inifile_write_file(ini.get(), scratch.path().c_str()), ZQ_ERROR_WRITE + 0u);
    if (zq_inifile_set(ini.get(), nullptr, "a", "1") == ZQ_ERROR_NONE) {
        EXPECT_EQ(zq_inifile_write_file(ini.get(), "/dev/full"), ZQ_ERROR_WRITE + 0u);
    }
}

TEST(zqinifile, reads_lines_of_any_length)
{
    LogCapture log;
    for (size_t length :
         {4090u, 4091u, 4092u, 4093u, 4094u, 4095u, 8188u, 8189u, 8190u, 1000000u}) {
        if (faults_injected() && length > 10000)
            continue;
        SCOPED_TRACE(length);
        std::string line = "k=" + std::string(length - 3, 'v') + "\n";
        Ini ini = parsed("a=1\n" + line + line + line.substr(0, length - 1));
        if (!ini)
            continue;
        EXPECT_EQ(value(ini, nullptr, "k"), std::string(length - 3, 'v'));
        EXPECT_EQ(written(ini.get()), "a=1\n" + line + line + line);
    }
}

TEST(zqinifile, a_nul_byte_ends_the_text_of_its_line_only)
{
    using namespace std::string_literals;
    // One NUL where the first buffer ends, one in the middle of a line.
    Ini ini = parsed("k="s + std::string(4091, 'v') + "\0rest\nb=2\0x\nc=3\n"s);
    ASSERT_TRUE(ini);
    EXPECT_EQ(written(ini.get()), "k=" + std::string(4091, 'v') + "\nb=2\nc=3\n");
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
        {"[s]\na=0\n", nullptr, "a", "1", "a=1\n[s]\na=0\n"},
        {"; top\n\n[s]\na=0\n", nullptr, "a", "1", "; top\na=1\n\n[s]\na=0\n"},
        {"b=0\n; end\n", nullptr, "a", "1", "b=0\na=1\n; end\n"},
        {"[s]\na=0\n\n[t]\nb=0\n", "s", "b", "1", "[s]\na=0\nb=1\n\n[t]\nb=0\n"},
        {"[s]\n; none\n\n[t]\n", "s", "b", "1", "[s]\nb=1\n; none\n\n[t]\n"},
        {"[s]\na=0\n[t]\n[s]\n", "s", "b", "1", "[s]\na=0\nb=1\n[t]\n[s]\n"},
        {"[t]\n", "t", "b", "1", "[t]\nb=1\n"},
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
            std::string key = row.key[0] == ' ' ? "a" : row.key;
            EXPECT_EQ(value(ini, row.section, key.c_str()), "1");
        } else {
            CHECK_PROMISE(faults_injected() && written(ini.get()) == before);
        }
    }
}

TEST(zqinifile, deletes_every_line_of_a_key)
{
    LogCapture log;
    Ini ini = parsed("a=1\n[s]\na=1\n; a\na=2\nb=3\n[t]\na=1\n[s]\na=4\n");
    ASSERT_TRUE(ini);
    unsigned int count = 99;
    zq_inifile_delete_all(ini.get(), "s", "a", &count);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(written(ini.get()), "a=1\n[s]\n; a\nb=3\n[t]\na=1\n[s]\n");
    zq_inifile_delete_all(ini.get(), "s", "a", &count);
    EXPECT_EQ(count, 0u);
    zq_inifile_delete_all(ini.get(), nullptr, "a", nullptr);
    EXPECT_EQ(written(ini.get()), "[s]\n; a\nb=3\n[t]\na=1\n[s]\n");
}

// ---- files of real programs ----

static std::string stripped(const std::string &text)
{
    const char *space = " \t\r\n\v\f";
    size_t start = text.find_first_not_of(space);
    return start == std::string::npos
               ? ""
               : text.substr(start, text.find_last_not_of(space) - start + 1);
}

struct Expected {
    std::vector<std::string> lines;
    size_t last = SIZE_MAX; // the last line with a key
    bool in_section = false;
    std::string section, key;
};

// What reading and writing must give, found with other means than the library's.
static Expected expected(const std::string &content)
{
    Expected result;
    std::string section;
    bool in_section = false;
    for (size_t at = 0; at < content.size();) {
        size_t end = std::min(content.find('\n', at), content.size());
        std::string line = content.substr(at, end - at);
        line.erase(line.find_last_not_of("\r") + 1);
        at = end + 1;
        std::string text = stripped(line);
        if (text[0] == '[' && text.back() == ']') {
            in_section = true;
            section = stripped(text.substr(1, text.size() - 2));
        } else if (!text.empty() && text[0] != ';' && text[0] != '#') {
            line = line.substr(line.find(text[0]));
            result.last = result.lines.size();
            result.in_section = in_section;
            result.section = section;
            result.key = stripped(line.substr(0, line.find('=', 1)));
        }
        result.lines.push_back(line);
    }
    return result;
}

static std::string joined(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

// Reads, writes, edits the last key. False when the file is not an INI file to us.
static bool edits_one_line_only(const std::string &path, const Scratch &scratch)
{
    SCOPED_TRACE(path);
    zqerror result;
    Ini ini(zq_inifile_create_from_file(path.c_str(), &result));
    if (!ini) {
        EXPECT_EQ(result, ZQ_ERROR_SYNTAX + 0u);
        return false;
    }
    Expected wanted = expected(read_file(path));
    EXPECT_EQ(written(ini.get(), scratch), joined(wanted.lines));
    if (wanted.last == SIZE_MAX)
        return true;
    const char *section = wanted.in_section ? wanted.section.c_str() : nullptr;
    EXPECT_EQ(zq_inifile_set(ini.get(), section, wanted.key.c_str(), "a new value"),
              ZQ_ERROR_NONE + 0u);
    wanted.lines[wanted.last] = wanted.key + "=a new value";
    EXPECT_EQ(written(ini.get(), scratch), joined(wanted.lines));
    return true;
}

TEST(zqinifile, edits_samples_of_real_files)
{
    if (faults_injected())
        GTEST_SKIP() << "the same paths as above";
    LogCapture log;
    Scratch scratch;
    for (const char *name :
         {"fstrim.timer", "gitconfig", "php.ini", "pip.ini", "user-dirs.desktop"})
        EXPECT_TRUE(edits_one_line_only(std::string(ZQ_TEST_DATA "/ini/") + name, scratch));
}

TEST(zqinifile, edits_the_files_of_this_machine)
{
    if (faults_injected())
        GTEST_SKIP() << "the same paths as above";
    namespace fs = std::filesystem;
    LogCapture log;
    Scratch scratch;
    size_t edited = 0;
    for (const char *root : {"/usr/lib/systemd", "/etc/systemd", "/usr/share/applications",
                             "/etc/xdg", "/usr/lib/php", "/usr/lib/python3/dist-packages"}) {
        std::error_code ignored;
        for (const auto &entry : fs::recursive_directory_iterator(
                 root, fs::directory_options::skip_permission_denied, ignored)) {
            std::string kind = entry.path().extension();
            if (fs::is_regular_file(entry.path(), ignored) &&
                (kind == ".service" || kind == ".socket" || kind == ".timer" || kind == ".target" ||
                 kind == ".mount" || kind == ".conf" || kind == ".desktop" || kind == ".ini" ||
                 kind == ".txt"))
                edited += edits_one_line_only(entry.path(), scratch);
        }
    }
    if (edited == 0)
        GTEST_SKIP() << "no configuration files of systemd, desktop, PHP or Python here";
    RecordProperty("edited", std::to_string(edited));
}

TEST(zqinifile, edits_what_git_and_python_read)
{
    if (faults_injected())
        GTEST_SKIP() << "needs no faults in other programs";
    Scratch scratch;
    LogCapture log;
    std::string file = scratch.file("config");
    for (const char *key : {"user.name", "remote.origin.url", "core.editor"}) {
        if (run({"git", "config", "-f", file, key, "old value"}).status == 127)
            GTEST_SKIP() << "git is not installed";
    }
    Ini ini(zq_inifile_create_from_file(file.c_str(), nullptr));
    ASSERT_TRUE(ini);
    EXPECT_EQ(value(ini, "remote \"origin\"", "url"), "old value");
    EXPECT_EQ(zq_inifile_set(ini.get(), "remote \"origin\"", "url", "new value"), 0u);
    EXPECT_EQ(zq_inifile_set(ini.get(), "remote \"origin\"", "tagOpt", "--tags"), 0u);
    zq_inifile_delete_all(ini.get(), "core", "editor", nullptr);
    EXPECT_EQ(zq_inifile_write_file(ini.get(), file.c_str()), 0u);
    EXPECT_EQ(run({"git", "config", "-f", file, "-l"}).out,
              "user.name=old value\nremote.origin.url=new value\nremote.origin.tagopt=--tags\n");

    const char *reader = "import configparser, sys; c = configparser.ConfigParser();"
                         "c.read(sys.argv[1]);"
                         "print({s: dict(c[s]) for s in c.sections()})";
    EXPECT_EQ(run({"python3", "-c", reader, file}).out,
              "{'user': {'name': 'old value'}, 'remote \"origin\"': "
              "{'url': 'new value', 'tagopt': '--tags'}, 'core': {}}\n");
}

TEST(zqinifile, misuse)
{
    LogCapture log;
    Ini ini(zq_inifile_create(nullptr));
    ASSERT_TRUE(ini);
    zqinifile *file = ini.get();
    const char *source = "util/zqinifile";
    EXPECT_MISUSE(zq_inifile_destroy(NULL), source, "zq_inifile_destroy", "zqinifile != NULL");
    EXPECT_MISUSE(zq_inifile_create_from_file(NULL, NULL), source, "zq_inifile_create_from_file",
                  "filename");
    EXPECT_MISUSE(zq_inifile_get(NULL, "", ""), source, "zq_inifile_get", "inifile");
    EXPECT_MISUSE(zq_inifile_get(file, "", NULL), source, "zq_inifile_get", "key");
    EXPECT_MISUSE(zq_inifile_set(NULL, "", "", ""), source, "zq_inifile_set", "inifile");
    EXPECT_MISUSE(zq_inifile_set(file, "", NULL, ""), source, "zq_inifile_set", "key");
    EXPECT_MISUSE(zq_inifile_set(file, "", "", NULL), source, "zq_inifile_set", "new_value");
    EXPECT_MISUSE(zq_inifile_delete_all(NULL, "", "", NULL), source, "zq_inifile_delete_all",
                  "inifile");
    EXPECT_MISUSE(zq_inifile_delete_all(file, "", NULL, NULL), source, "zq_inifile_delete_all",
                  "key");
    EXPECT_MISUSE(zq_inifile_write_file(NULL, ""), source, "zq_inifile_write_file", "inifile");
    EXPECT_MISUSE(zq_inifile_write_file(file, NULL), source, "zq_inifile_write_file", "filename");
}
