// Two PO files of one language, loaded one after the other, beside a map. The files, a zero byte
// between them.

#include "zq/util/zqlocalization.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <vector>

#include "fuzz/support/fuzz.h"
#include "tests/support/scratch.h"
#include "zq/internal/zqowned.h"

using Entries = std::map<std::string, std::string>;

static std::string decoded(std::string text)
{
    if (text.starts_with('"')) {
        text.erase(0, 1);
        text.erase(text.size() - text.ends_with('"'));
    }
    for (size_t i = 0; (i = text.find('\\', i)) != std::string::npos; i++)
        text.erase(i, 1);
    return text;
}

// The lines as they are read: in pieces of 4095 bytes, each up to a zero byte.
static std::vector<std::string> pieces(const std::string &bytes)
{
    std::vector<std::string> result;
    for (size_t begin = 0, end; begin < bytes.size(); begin = end) {
        end = std::min({bytes.find('\n', begin), begin + 4094, bytes.size() - 1}) + 1;
        std::string piece = bytes.substr(begin, end - begin).c_str();
        piece.erase(piece.size() - piece.ends_with('\n'));
        piece.erase(piece.size() - piece.ends_with('\r'));
        result.push_back(piece);
    }
    return result;
}

// Returns whether every line is understood.
static bool read(const std::vector<std::string> &lines, Entries *entries)
{
    std::optional<std::string> msgid, msgstr;
    const auto complete = [&] {
        if (msgstr)
            (*entries)[*msgid] = *msgstr;
        if (msgstr)
            msgid.reset();
        msgstr.reset();
    };
    bool understood = true;
    for (const std::string &line : lines) {
        if (line.empty() || line[0] == '#')
            continue;
        if (line[0] == '"') {
            if (msgid)
                *(msgstr ? msgstr : msgid) += decoded(line);
            understood = understood && msgid;
            continue;
        }
        complete();
        if (line.starts_with("msgid "))
            msgid = decoded(line.substr(6));
        else if (line.starts_with("msgstr ") && msgid)
            msgstr = decoded(line.substr(7));
        else
            understood = false;
    }
    if (understood)
        complete();
    return understood;
}

static const Scratch &locales()
{
    static const Scratch scratch;
    static const bool made = std::filesystem::create_directories(scratch.file("first/fr.po")) &&
                             std::filesystem::create_directory(scratch.file("second"));
    FUZZ_CHECK(made);
    return scratch;
}

void fuzz(Input &input)
{
    const Scratch &scratch = locales();
    const owned<zqlocalization, zq_localization_destroy> localization(zq_localization_create());
    Entries entries;
    std::vector<std::string> lines;
    for (const char *domain : {"first", "second"}) {
        const std::string bytes = domain[0] == 'f' ? input.text() : input.rest();
        scratch.write(domain + std::string("/de.po"), bytes);
        lines = pieces(bytes);
        const zqerror expected = read(lines, &entries) ? ZQ_ERROR_NONE : ZQ_ERROR_SYNTAX;
        FUZZ_CHECK(zq_localization_load_utf8(localization.get(), scratch.path().c_str(), domain) ==
                   expected);
    }
    const owned_block<> languages(zq_localization_list_languages(localization.get()));
    FUZZ_CHECK(languages.get() == std::string("de"));

    zqlanguage *language = zq_localization_language_get(localization.get(), "de");
    for (const auto &[msgid, msgstr] : entries) {
        FUZZ_CHECK(zq_localization_localize(language, msgid.c_str()) == msgstr);
        lines.push_back(msgstr);
    }
    for (const std::string &line : lines)
        FUZZ_CHECK(!zq_localization_localize(language, line.c_str()) == !entries.contains(line));
}
