#include "zq/util/zqlocalization.h"

#include <clocale>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <libintl.h>
#include <map>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"

using Localization = Owned<zqlocalization, zq_localization_destroy>;
using Lines = std::vector<LogLine>;

// Text domains: a directory for each, a file for each language.
class Catalogues {
  public:
    std::string write(const std::string &domain, const std::string &file, const std::string &text)
    {
        std::filesystem::create_directory(scratch.file(domain));
        return scratch.write(domain + "/" + file, text);
    }
    const char *path() const { return scratch.path().c_str(); }
    zqerror load(const Localization &set, const char *domain) const
    {
        return zq_localization_load_utf8(set.get(), path(), domain);
    }

  private:
    Scratch scratch;
};

// The lines since the last call, without the traces of the hash tables below.
static Lines take(LogCapture &log)
{
    Lines lines = log.take();
    std::erase_if(
        lines, [](const LogLine &line) { return line.text.find("hash array") != line.text.npos; });
    return lines;
}

static std::string translation(const Localization &set, const char *language, const char *string)
{
    const char *found =
        zq_localization_localize(zq_localization_language_get(set.get(), language), string);
    return found ? found : "none";
}

TEST(zqlocalization, loads_a_domain_and_lists_its_languages)
{
    LogCapture log(13);
    Catalogues files;
    Localization set(zq_localization_create());
    ASSERT_TRUE(set);
    ZqString list(zq_localization_list_languages(set.get()));
    if (!faults_injected()) {
        EXPECT_STREQ(list.get(), "");
        EXPECT_EQ(take(log), (Lines{{9, "no languages loaded"}}));
        EXPECT_EQ(files.load(set, "app"), ZQ_ERROR_NOT_FOUND + 0u);
        EXPECT_EQ(take(log).back(),
                  (LogLine{7, "unable to open directory '" + std::string(files.path()) + "/app'"}));
    }

    std::string pair = "msgid \"Hello\"\nmsgstr \"Hallo\"\n";
    files.write("app", "de.po", pair);
    files.write("app", "en.po", "msgid \"Hello\"\nmsgstr \"Hello\"");
    files.write("app", "x.po", "");
    files.write("app", "notes.txt", pair);
    files.write("app", ".po", pair);
    files.write("app/fr.po", "fr.po", pair);
    files.write("more", "de.po", "msgid \"Hello\"\nmsgstr \"Moin\"\nmsgid \"b\"\nmsgstr \"c\"\n");
    for (const char *domain : {"app", "more"}) {
        zqerror result = files.load(set, domain);
        EXPECT_TRUE(result == ZQ_ERROR_NONE || faults_injected()) << result;
    }
    list.reset(zq_localization_list_languages(set.get()));
    if (faults_injected())
        return;
    EXPECT_STREQ(list.get(), "de/en/x");
    EXPECT_EQ(translation(set, "de", "Hello"), "Moin") << "the later entry counts";
    EXPECT_EQ(translation(set, "de", "b"), "c");
    EXPECT_EQ(translation(set, "en", "Hello"), "Hello");
    EXPECT_EQ(translation(set, "de", "hello"), "none");
    take(log);
    EXPECT_EQ(translation(set, "fr", "Hello"), "none") << "no language, no translation";
    EXPECT_EQ(take(log), (Lines{{13, "no language 'fr'"}}));
}

TEST(zqlocalization, reads_po_text)
{
    // In the lines logged, @ stands for the name of the file.
    const struct {
        const char *text;
        const char *msgid, *msgstr;
        Lines lines;
    } rows[] = {
        {"msgid \"a\"\n\"b\"\n\"c\"\nmsgstr \"\"\n\"d\"\n\n\"e\"\n", "abc", "de", {}},
        {"msgid \"\"\nmsgstr \"header\"\n\"\\n\"\n", "", "headern", {}},
        {"msgid \"a\"\r\nmsgstr \"b\"\r\n", "a", "b", {}},
        {"# one\nmsgid \"a\"\n#: two\nmsgstr \"b\"\n#~ msgid \"c\"\n", "a", "b", {}},
        {"msgid \"\\\"\\\\\\t\"\nmsgstr \"b\\", "\"\\t", "b", {}},
        {"msgid a\nmsgstr b\"\n", "a", "b\"", {}},
        {"msgid \"\nmsgstr \" \"x\"y \n", "", " \"x\"y ", {}},
        {"msgid \"old\"\nmsgid \"a\"\nmsgstr \"b\"\n", "a", "b", {}},
        {"msgid \"a\"\nmsgstr \"b\"\nmsgid \"a\"\nmsgstr \"c\"\n", "a", "c", {}},
        {"msgid \"a\"\nmsgstr \"b\"\nmsgid \"never finished\"", "a", "b", {}},
        // Errors do not stop the parsing, but cost the last pair.
        {"msgstr \"x\"\nmsgid \"a\"\nmsgstr \"b\"\nmsgid \"last\"\nmsgstr \"x\"\n",
         "a",
         "b",
         {{6, "msgstr without preceeding msgid in @ line 1"}}},
        {"msgid \"a\"\nmsgstr \"b\"\nmsgstr \"c\"\n",
         "a",
         "b",
         {{6, "msgstr without preceeding msgid in @ line 3"}}},
        {"\"x\"\nmsgid \"a\"\nmsgstr \"b\"\n",
         "a",
         "none",
         {{6, "a continuation line without preceeding msgid in @ line 1"}}},
        {"msgid \"a\"\nmsgstr \"b\"\n msgid \"c\"\nmsgid\t\"d\"\n",
         "a",
         "b",
         {{6, "unrecognized line ' msgid \"c\"' in @ line 3"},
          {6, "unrecognized line 'msgid\t\"d\"' in @ line 4"}}},
        {"msgctxt \"menu\"\nmsgid \"a\"\nmsgstr \"b\"\nmsgid \"n\"\nmsgid_plural \"ns\"\n"
         "msgstr[0] \"x\"\n",
         "a",
         "b",
         {{6, "unrecognized line 'msgctxt \"menu\"' in @ line 1"},
          {6, "unrecognized line 'msgid_plural \"ns\"' in @ line 5"},
          {6, "unrecognized line 'msgstr[0] \"x\"' in @ line 6"}}},
    };
    LogCapture log(13);
    Catalogues files;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        std::string file = files.write("app", "de.po", row.text);
        Localization set(zq_localization_create());
        ASSERT_TRUE(set);
        take(log);
        zqerror result = files.load(set, "app");
        if (faults_injected()) {
            CHECK_PROMISE(result == ZQ_ERROR_NONE || !take(log).empty());
            continue;
        }
        EXPECT_EQ(translation(set, "de", row.msgid), row.msgstr);
        EXPECT_EQ(translation(set, "de", "last"), "none");
        EXPECT_EQ(result, row.lines.empty() ? 0 : ZQ_ERROR_SYNTAX + 0u);

        Lines expected = row.lines;
        for (LogLine &line : expected)
            line.text.replace(line.text.find('@'), 1, file);
        if (!expected.empty()) {
            expected.push_back(
                {7, "unable to load po file " + file + ", error 209 (invalid syntax)"});
            expected.push_back(
                {13, "failed to load localization file " + file + ", error 209 (invalid syntax)"});
        }
        EXPECT_EQ(take(log), expected);
    }
}

TEST(zqlocalization, tells_a_file_that_cannot_be_opened)
{
    LogCapture log(13);
    Catalogues files;
    std::string file = files.write("app", "de.po", "");
    std::filesystem::remove(file);
    std::filesystem::create_symlink("nowhere", file);
    Localization set(zq_localization_create());
    ASSERT_TRUE(set);
    take(log);
    EXPECT_EQ(files.load(set, "app"), ZQ_ERROR_NOT_FOUND + 0u);
    EXPECT_EQ(take(log), (Lines{{13, "failed to load localization file " + file +
                                         ", error 207 (item not found)"}}));
    EXPECT_EQ(zq_localization_language_get(set.get(), "de"), nullptr);
}

TEST(zqlocalization, reads_long_lines_in_pieces)
{
    // A piece has 4095 bytes: what follows them is a line of its own, here a continuation.
    LogCapture log;
    Catalogues files;
    std::string key(4095 - strlen("msgid \""), 'k');
    files.write("app", "de.po", "msgid \"" + key + "\"more\"\nmsgstr \"b\"\n");
    Localization set(zq_localization_create());
    ASSERT_TRUE(set);
    if (files.load(set, "app") == ZQ_ERROR_NONE) {
        EXPECT_EQ(translation(set, "de", (key + "more").c_str()), "b");
    }
}

TEST(zqlocalization, a_text_may_be_too_long_for_the_memory)
{
    if (!heap_is_watched())
        GTEST_SKIP();
    Catalogues files;
    const std::string file =
        files.write("app", "de.po", "msgid \"a\"\n\"b\"\nmsgstr \"c\"\n\"d\"\n");
    for (auto [nth, name] : {std::pair(1, "msgid"), {2, "msgstr"}}) {
        Localization set(zq_localization_create());
        LogCapture log;
        HeapFailure failure(nth, HeapFailure::REALLOCATIONS);
        EXPECT_EQ(files.load(set, "app"), ZQ_ERROR_NO_MEMORY + 0u);
        EXPECT_EQ(log.take(), (Lines{{7, std::string("not enough memory to append ") + name},
                                     {7, "unable to load po file " + file +
                                             ", error 12 (not enough memory)"}}));
    }
}

TEST(zqlocalization, misuse)
{
    LogCapture log;
    Localization set(zq_localization_create());
    ASSERT_TRUE(set);
    zqlocalization *catalogues = set.get();
    EXPECT_EQ(zq_localization_localize(NULL, "a"), nullptr);
    const char *source = "util/zqlocalization";
    EXPECT_MISUSE(zq_localization_destroy(NULL), source, "zq_localization_destroy",
                  "zqlocalization != NULL");
    EXPECT_MISUSE(zq_localization_load_utf8(NULL, "", ""), source, "zq_localization_load_utf8",
                  "zqlocalization != NULL");
    EXPECT_MISUSE(zq_localization_load_utf8(catalogues, NULL, ""), source,
                  "zq_localization_load_utf8", "localepath != NULL");
    EXPECT_MISUSE(zq_localization_load_utf8(catalogues, "", NULL), source,
                  "zq_localization_load_utf8", "textdomain != NULL");
    EXPECT_MISUSE(zq_localization_list_languages(NULL), source, "zq_localization_list_languages",
                  "zqlocalization != NULL");
    EXPECT_MISUSE(zq_localization_language_get(NULL, ""), source, "zq_localization_language_get",
                  "zqlocalization != NULL");
    EXPECT_MISUSE(zq_localization_language_get(catalogues, NULL), source,
                  "zq_localization_language_get", "language != NULL");
    EXPECT_MISUSE(zq_localization_localize(NULL, NULL), source, "zq_localization_localize",
                  "string != NULL");
}

// ---- catalogues of real programs ----

extern "C" int _nl_msg_cat_cntr; // tells gettext that the language changed

// The msgids of a compiled catalogue, without those that have a context or plural forms.
static std::vector<std::string> simple_msgids(const std::string &mo)
{
    std::string data = read_file(mo);
    auto number = [&](size_t at) {
        uint32_t value = 0;
        if (at + sizeof(value) <= data.size())
            memcpy(&value, data.data() + at, sizeof(value));
        return size_t(value);
    };
    std::vector<std::string> msgids;
    for (size_t i = 0; number(0) == 0x950412de && i < number(8); i++) {
        size_t entry = number(12) + 8 * i;
        std::string msgid = data.substr(number(entry + 4), number(entry));
        if (msgid.find('\0') == std::string::npos && msgid.find('\4') == std::string::npos)
            msgids.push_back(msgid);
    }
    return msgids;
}

// In a PO file a line feed is written \n, which is the letter n to us.
static std::string as_we_decode(std::string text)
{
    const std::map<char, char> letters = {{'\n', 'n'}, {'\t', 't'}, {'\r', 'r'}, {'\a', 'a'},
                                          {'\b', 'b'}, {'\f', 'f'}, {'\v', 'v'}};
    for (char &c : text) {
        if (auto found = letters.find(c); found != letters.end())
            c = found->second;
    }
    return text;
}

// Compares every entry of one language with gettext's answer. Returns how many there were.
static size_t agree_with_gettext(const Localization &set, const std::string &domain,
                                 const std::string &language, const std::string &mo)
{
    setenv("LANGUAGE", language.c_str(), 1);
    _nl_msg_cat_cntr++;
    size_t compared = 0;
    std::map<std::string, std::string> expected;
    for (const std::string &msgid : simple_msgids(mo))
        expected[as_we_decode(msgid)] = as_we_decode(dgettext(domain.c_str(), msgid.c_str()));
    for (const auto &[msgid, msgstr] : expected) {
        EXPECT_EQ(translation(set, language.c_str(), msgid.c_str()), msgstr) << language;
        compared++;
    }
    return compared;
}

TEST(zqlocalization, agrees_with_gettext_on_installed_catalogues)
{
    if (faults_injected())
        GTEST_SKIP() << "the same paths as above";
    if (run({"msgunfmt", "--version"}).status != 0)
        GTEST_SKIP() << "msgunfmt, of the package gettext, is not installed";
    const std::string locales = "/usr/share/locale";
    LogCapture log;
    setlocale(LC_ALL, "C.UTF-8");
    size_t compared = 0;
    for (const char *domain :
         {"iso_4217", "iso_15924", "gettext-runtime", "libc", "grep", "make"}) {
        SCOPED_TRACE(domain);
        bindtextdomain(domain, locales.c_str());
        Catalogues files;
        std::map<std::string, std::string> catalogues;
        for (const char *language : {"de", "fr", "es", "ja", "ru", "sv"}) {
            std::string mo = locales + "/" + language + "/LC_MESSAGES/" + domain + ".mo";
            std::string po = run({"msgunfmt", mo}).out;
            // gettext answers in UTF-8; plural forms and contexts are beyond the format.
            if (po.find("charset=UTF-8") == std::string::npos ||
                po.find("\nmsgid_plural ") != std::string::npos ||
                po.find("\nmsgctxt ") != std::string::npos)
                continue;
            files.write(domain, std::string(language) + ".po", po);
            catalogues[language] = mo;
        }
        Localization set(zq_localization_create());
        ASSERT_TRUE(set);
        if (catalogues.empty())
            continue;
        EXPECT_EQ(files.load(set, domain), ZQ_ERROR_NONE + 0u);
        EXPECT_EQ(log.take(), Lines());
        for (const auto &[language, mo] : catalogues)
            compared += agree_with_gettext(set, domain, language, mo);
    }
    unsetenv("LANGUAGE");
    if (compared == 0)
        GTEST_SKIP() << "no catalogues of iso-codes, gettext-base, libc-l10n, grep or make here";
    RecordProperty("compared", std::to_string(compared));
}
