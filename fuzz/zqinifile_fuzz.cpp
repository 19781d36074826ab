// An INI file that is read, changed, written and read again, beside a vector of its lines. A count
// of changes, the changes, and the file.

#include "zq/util/zqinifile.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include "fuzz/support/fuzz.h"
#include "tests/support/scratch.h"
#include "zq/internal/zqowned.h"

namespace {
using Ini = owned<zqinifile, zq_inifile_destroy>;
using Name = std::optional<std::string>;

struct Line {
    Name section, key;
    std::string value, written;
};
using Lines = std::vector<Line>;

struct Change {
    unsigned int kind, line;
    Name section;
    std::string key, value;
};
} // namespace

static const char SPACE[] = " \t\n\v\f\r";

static std::string stripped(const std::string &text)
{
    const size_t first = text.find_first_not_of(SPACE);
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(SPACE) - first + 1);
}

static const char *c_str(const Name &name)
{
    return name ? name->c_str() : nullptr;
}

// ---- reading ----

static bool parse_line(const std::string &text, Name *section, Lines *lines)
{
    const size_t first = text.find_first_not_of(SPACE);
    if (first == std::string::npos || text[first] == ';' || text[first] == '#') {
        lines->push_back({*section, {}, {}, text});
        return true;
    }
    const size_t bracket = text.rfind(']');
    if (text[first] == '[' && bracket != std::string::npos) {
        *section = stripped(text.substr(first + 1, bracket - first - 1));
        lines->push_back({*section, {}, {}, text});
        return stripped(text.substr(bracket + 1)).empty();
    }
    const size_t sign = text.find('=', first + 1);
    if (sign == std::string::npos)
        return false;
    lines->push_back({*section, stripped(text.substr(0, sign)), stripped(text.substr(sign + 1)),
                      text.substr(first)});
    return true;
}

static bool parse(const std::string &bytes, Lines *lines)
{
    Name section;
    for (size_t begin = 0, end; begin < bytes.size(); begin = end + 1) {
        end = std::min(bytes.find('\n', begin), bytes.size());
        std::string text = bytes.substr(begin, end - begin).c_str(); // up to a zero byte
        text.erase(text.find_last_not_of('\r') + 1);
        if (!parse_line(text, &section, lines))
            return false;
    }
    return true;
}

// Reads the file, whose content this is, with the library too. Null when it has bad syntax.
static Ini read(const std::string &path, const std::string &bytes, Lines *lines)
{
    zqerror error;
    Ini ini(zq_inifile_create_from_file(path.c_str(), &error));
    const bool accepted = parse(bytes, lines);
    FUZZ_CHECK(accepted ? ini && error == ZQ_ERROR_NONE : !ini && error == ZQ_ERROR_SYNTAX);
    return ini;
}

static std::string write(zqinifile *ini, const std::string &path, const Lines &lines)
{
    std::string expected;
    for (const Line &line : lines)
        expected += line.written + "\n";
    FUZZ_CHECK(zq_inifile_write_file(ini, path.c_str()) == ZQ_ERROR_NONE);
    FUZZ_CHECK(read_file(path) == expected);
    return expected;
}

// ---- changes ----

static auto last_line(Lines &lines, const Name &section, const Name &key)
{
    return std::find_if(lines.rbegin(), lines.rend(), [&](const Line &line) {
        return line.section == section && line.key == key;
    });
}

static void set(Lines &lines, const Name &section, const std::string &key, const std::string &value)
{
    if (const auto line = last_line(lines, section, stripped(key)); line != lines.rend()) {
        line->value = stripped(value);
        line->written = stripped(key) + "=" + stripped(value);
        return;
    }
    const auto in_section = [&](const Line &line) { return line.section == section; };
    const auto last_key = std::find_if(lines.rbegin(), lines.rend(), [&](const Line &line) {
        return line.key && in_section(line);
    });
    auto position = last_key.base();
    if (last_key == lines.rend()) {
        position = std::find_if(lines.begin(), lines.end(), in_section);
        if (position != lines.end())
            ++position;
        else if (section)
            position =
                lines.insert(position, {stripped(*section), {}, {}, "[" + *section + "]"}) + 1;
        else
            position = lines.begin();
    }
    lines.insert(position, {section ? Name(stripped(*section)) : Name(), stripped(key),
                            stripped(value), key + "=" + value});
}

static void apply(zqinifile *ini, Lines &lines, const Change &change)
{
    Name section = change.section;
    std::string key = change.key;
    // Mostly of a line that is there.
    if (change.line > 0 && !lines.empty()) {
        const Line &line = lines[change.line % lines.size()];
        section = line.section;
        key = line.key.value_or(key);
    }
    switch (change.kind) {
    case 0:
        FUZZ_CHECK(zq_inifile_set(ini, c_str(section), key.c_str(), change.value.c_str()) ==
                   ZQ_ERROR_NONE);
        set(lines, section, key, change.value);
        break;
    case 1: {
        unsigned int count;
        zq_inifile_delete_all(ini, c_str(section), key.c_str(), &count);
        FUZZ_CHECK(count == std::erase_if(lines, [&](const Line &line) {
                       return line.section == section && line.key == key;
                   }));
        break;
    }
    }
    const char *value = zq_inifile_get(ini, c_str(section), key.c_str());
    const auto line = last_line(lines, section, key);
    FUZZ_CHECK(line == lines.rend() ? !value : value && line->value == value);
}

// Whether a change can be read again as it was meant.
static bool is_plain(const Change &change)
{
    const std::string key = stripped(change.key);
    return !key.empty() && !strchr(";#[", key[0]) && key.find('=', 1) == std::string::npos &&
           (change.section.value_or("") + change.key + change.value).find('\n') ==
               std::string::npos;
}

static std::vector<Change> read_changes(Input &input)
{
    std::vector<Change> changes(input.below(32));
    for (Change &change : changes) {
        const unsigned int kind = input.byte();
        change.kind = kind % 3;
        change.line = input.byte();
        if (kind & 4)
            change.section = input.text();
        change.key = input.text();
        change.value = input.text();
    }
    return changes;
}

void fuzz(Input &input)
{
    static const Scratch scratch;
    static const std::string path = scratch.file("ini");
    const std::vector<Change> changes = read_changes(input);
    const std::string bytes = input.rest();
    scratch.write("ini", bytes);

    Lines lines;
    const Ini ini = read(path, bytes, &lines);
    if (!ini)
        return;
    for (const Change &change : changes)
        apply(ini.get(), lines, change);
    const std::string written = write(ini.get(), path, lines);

    Lines lines_again;
    const Ini again = read(path, written, &lines_again);
    if (!std::all_of(changes.begin(), changes.end(), is_plain))
        return;
    FUZZ_CHECK(again && std::equal(lines.begin(), lines.end(), lines_again.begin(),
                                   lines_again.end(), [](const Line &line, const Line &line_again) {
                                       return line.section == line_again.section &&
                                              line.key == line_again.key &&
                                              line.value == line_again.value;
                                   }));
    for (const Line &line : lines_again) {
        if (line.key)
            FUZZ_CHECK(last_line(lines_again, line.section, line.key)->value ==
                       zq_inifile_get(again.get(), c_str(line.section), line.key->c_str()));
    }
    if (changes.empty())
        FUZZ_CHECK(write(again.get(), path, lines_again) == written);
}
