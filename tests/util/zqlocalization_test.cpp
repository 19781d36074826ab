#include "zq/util/zqlocalization.h"

#include <filesystem>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch.h"

using Localization = Owned<zqlocalization, zq_localization_destroy>;

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

TEST(zqlocalization, says_what_it_does_not_understand)
{
    // In the lines logged, @ stands for the name of the file.
    const std::pair<const char *, const char *> rows[] = {
        {"# a\nmsgid \"a\"\r\n\"\\n\"\nmsgstr \"\"\n", ""},
        {"msgstr \"x\"\nmsgid \"last\"\nmsgstr \"b\"\n",
         "[6] msgstr without preceeding msgid in @ line 1"},
        {"msgid \"a\"\nmsgstr \"b\"\nmsgstr \"c\"\n",
         "[6] msgstr without preceeding msgid in @ line 3"},
        {"\"x\"\n", "[6] a continuation line without preceeding msgid in @ line 1"},
        {"\n msgid \"c\"\nmsgid\t\"d\"\n", "[6] unrecognized line ' msgid \"c\"' in @ line 2; "
                                           "[6] unrecognized line 'msgid\t\"d\"' in @ line 3"},
    };
    const std::string failed =
        "; [7] unable to load po file @, error 209 (invalid syntax); "
        "[13] failed to load localization file @, error 209 (invalid syntax)";
    LogCapture log(13);
    Catalogues files;
    for (const auto &[text, expected] : rows) {
        const std::string file = files.write("app", "de.po", text);
        Localization set(zq_localization_create());
        ASSERT_TRUE(set);
        take(log);
        const zqerror result = files.load(set, "app");
        std::string lines = joined(take(log));
        CHECK_PROMISE(result == ZQ_ERROR_NONE || !lines.empty());
        EXPECT_EQ(result, *expected ? ZQ_ERROR_SYNTAX + 0u : 0u) << text;
        EXPECT_EQ(translation(set, "de", "last"), "none") << "an error costs the last pair";
        for (size_t at; (at = lines.find(file)) != lines.npos;)
            lines.replace(at, file.size(), "@");
        EXPECT_EQ(lines, *expected ? expected + failed : "") << text;
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
#define MISUSE(call, function, text) EXPECT_MISUSE(call, "util/zqlocalization", function, text)
    const char *none = "zqlocalization != NULL";
    MISUSE(zq_localization_destroy(NULL), "zq_localization_destroy", none);
    MISUSE(zq_localization_load_utf8(NULL, "", ""), "zq_localization_load_utf8", none);
    MISUSE(zq_localization_load_utf8(catalogues, NULL, ""), "zq_localization_load_utf8",
           "localepath != NULL");
    MISUSE(zq_localization_load_utf8(catalogues, "", NULL), "zq_localization_load_utf8",
           "textdomain != NULL");
    MISUSE(zq_localization_list_languages(NULL), "zq_localization_list_languages", none);
    MISUSE(zq_localization_language_get(NULL, ""), "zq_localization_language_get", none);
    MISUSE(zq_localization_language_get(catalogues, NULL), "zq_localization_language_get",
           "language != NULL");
    MISUSE(zq_localization_localize(NULL, NULL), "zq_localization_localize", "string != NULL");
}
