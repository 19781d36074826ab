#include "zq/util/zqlocalization.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zq/adt/zqstringhash.h"
#include "zq/internal/zqassert.h"
#include "zq/internal/zqbodystore.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/internal/zqtext.h"
#include "zq/io/zqfile.h"
#include "zq/io/zqutf8dir.h"
#include "zq/util/zqprintf.h"
#include "zq/util/zqstring.h"

struct zqlocalization {
    zqstringhash *hash; // language name to zqlanguage
};

struct zqlanguage {
    zqstringhash *hash; // msgid to msgstr
};

static void zq_localization_language_destroy(zqlanguage *language)
{
    if (language->hash)
        zq_stringhash_destroy(language->hash);
    zq_free(language);
}

using owned_localization = owned<zqlocalization, zq_localization_destroy>;
using owned_language = owned<zqlanguage, zq_localization_language_destroy>;
using owned_directory = owned<zqutf8dir, zq_utf8dir_destroy>;
using owned_file = owned<FILE, zq_file_close>;

static void zq_localization_hash_destroy_callback(void *value, void *context)
{
    ZQ_ASSERT(context == NULL);

    zq_localization_language_destroy(static_cast<zqlanguage *>(value));
}

static void zq_localization_language_hash_destroy_cb(void *value, void *context)
{
    ZQ_ASSERT(context == NULL);

    zq_free(value);
}

zqlocalization *zq_localization_create(void)
{
    owned_localization zqlocalization(make_zeroed<struct zqlocalization>());
    if (zqlocalization)
        zqlocalization->hash = zq_stringhash_create(zq_localization_hash_destroy_callback, nullptr);
    if (!zqlocalization || !zqlocalization->hash) {
        ZQ_LOG(7, "unable to create hashtable for localization");
        return nullptr;
    }
    return zqlocalization.release();
}

void zq_localization_destroy(zqlocalization *zqlocalization)
{
    ZQ_ASSERT(zqlocalization != NULL);

    if (zqlocalization->hash)
        zq_stringhash_destroy(zqlocalization->hash);
    zq_free(zqlocalization);
}

/* ---- reading PO text ---- */

namespace {

// A text that continuation lines are appended to. The store holds its terminator behind the
// position; without data nothing is pending.
struct pending_text : body_store {
    pending_text() : body_store{} {}
    ~pending_text() { clear(); }
    pending_text(const pending_text &) = delete;
    pending_text &operator=(const pending_text &) = delete;

    explicit operator bool() const { return data; }
    char *text() const { return reinterpret_cast<char *>(data); }
    void clear() { body_store_clear(this); }

    // Takes the string, which may be null.
    void reset(char *string)
    {
        clear();
        data = reinterpret_cast<unsigned char *>(string);
        position = string ? strlen(string) : 0;
        size = string ? position + 1 : 0;
    }

    bool append(const char *string)
    {
        if (!body_store_append(this, string, strlen(string) + 1))
            return false;
        position--;
        return true;
    }
};

struct po_parser {
    const char *filename;
    zqlanguage *language;
    unsigned int line;
    pending_text msgid;
    pending_text msgstr;
    zqerror error; // the last one recorded
};

constexpr size_t LINE_SIZE = 4096;

} // namespace

// Returns the text without its quotes, a backslash giving way to the byte after it.
static char *zq_localization_handle_string(const char *string)
{
    std::string_view text = string;
    if (text.starts_with('"')) {
        text.remove_prefix(1);
        if (text.ends_with('"'))
            text.remove_suffix(1);
    }
    char *decoded = text_build([text](text_writer &out) {
        bool escaped = false;
        for (char c : text) {
            escaped = c == '\\' && !escaped;
            if (!escaped)
                out.put(c);
        }
    });
    if (!decoded)
        ZQ_LOG(7, "not enough memory for handling string");
    return decoded;
}

// Sets the pending text from a line. What cannot be decoded is recorded, and parsing goes on.
static void zq_localization_begin(po_parser *parser, pending_text *pending, const char *name,
                                  const char *string)
{
    pending->reset(zq_localization_handle_string(string));
    if (*pending)
        return;
    ZQ_LOG(7, "unable to handle %s in %s line %u", name, parser->filename, parser->line);
    parser->error = ZQ_ERROR_SYNTAX;
}

// False ends the parsing.
static bool zq_localization_continue(po_parser *parser, const char *string)
{
    if (!parser->msgid) {
        ZQ_LOG(6, "a continuation line without preceeding msgid in %s line %u", parser->filename,
               parser->line);
        parser->error = ZQ_ERROR_SYNTAX;
        return true;
    }
    const char *name = parser->msgstr ? "msgstr" : "msgid";
    pending_text *pending = parser->msgstr ? &parser->msgstr : &parser->msgid;
    owned_block<> decoded(zq_localization_handle_string(string));
    if (!decoded) {
        ZQ_LOG(7, "unable to handle %s in %s line %u", name, parser->filename, parser->line);
        parser->error = ZQ_ERROR_SYNTAX;
        return true;
    }
    if (!pending->append(decoded.get())) {
        ZQ_LOG(7, "not enough memory to append %s", name);
        parser->error = ZQ_ERROR_NO_MEMORY;
        return false;
    }
    return true;
}

// Adds the pending pair, if there is one, to the language. False ends the parsing.
static bool zq_localization_complete(po_parser *parser)
{
    if (!parser->msgstr)
        return true;
    if (zq_stringhash_add(parser->language->hash, parser->msgid.text(), parser->msgstr.text()) !=
        0) {
        ZQ_LOG(7, "unable to add string for %s in %s line %u", parser->msgid.text(),
               parser->filename, parser->line);
        parser->error = ZQ_ERROR_NO_MEMORY;
        return false;
    }
    parser->msgstr.data = nullptr; // the language's now
    parser->msgstr.clear();
    parser->msgid.clear();
    return true;
}

// False ends the parsing.
static bool zq_localization_parse_line(po_parser *parser, const char *line)
{
    static constexpr std::string_view msgid = "msgid ";
    static constexpr std::string_view msgstr = "msgstr ";

    if (*line == '\0' || *line == '#')
        return true;
    if (*line == '"')
        return zq_localization_continue(parser, line);
    if (!zq_localization_complete(parser))
        return false;
    if (strncmp(line, msgid.data(), msgid.size()) == 0) {
        zq_localization_begin(parser, &parser->msgid, "msgid", line + msgid.size());
    } else if (strncmp(line, msgstr.data(), msgstr.size()) != 0) {
        ZQ_LOG(6, "unrecognized line '%s' in %s line %u", line, parser->filename, parser->line);
        parser->error = ZQ_ERROR_SYNTAX;
    } else if (parser->msgid) {
        zq_localization_begin(parser, &parser->msgstr, "msgstr", line + msgstr.size());
    } else {
        ZQ_LOG(6, "msgstr without preceeding msgid in %s line %u", parser->filename, parser->line);
        parser->error = ZQ_ERROR_SYNTAX;
    }
    return true;
}

static void zq_localization_trim_newline(char *line)
{
    size_t len = strlen(line);
    if (len > 0 && line[len - 1] == '\n')
        len--;
    if (len > 0 && line[len - 1] == '\r')
        len--;
    line[len] = '\0';
}

static zqerror zq_localization_load_po(zqlanguage *language, const char *filename, FILE *file,
                                       char *buffer)
{
    po_parser parser = {};
    parser.filename = filename;
    parser.language = language;
    while (fgets(buffer, LINE_SIZE, file)) {
        parser.line++;
        zq_localization_trim_newline(buffer);
        if (!zq_localization_parse_line(&parser, buffer))
            return parser.error;
    }
    int number = errno;
    if (ferror(file)) {
        ZQ_LOG(7, "fgets() returned error %d", number);
        return ZQ_ERROR_GENERIC;
    }
    // A file with errors loses its last pair, which is meant: it may be cut short.
    if (parser.error == ZQ_ERROR_NONE)
        zq_localization_complete(&parser);
    return parser.error;
}

/* ---- loading ---- */

static zqlanguage *zq_localization_language_create(void)
{
    owned_language language(make_zeroed<zqlanguage>());
    if (!language) {
        ZQ_LOG(7, "not enough memory for zqlanguage context");
        return nullptr;
    }
    language->hash = zq_stringhash_create(zq_localization_language_hash_destroy_cb, nullptr);
    if (!language->hash) {
        ZQ_LOG(7, "unable to create localization language hashtable");
        return nullptr;
    }
    return language.release();
}

// Returns the language of that name, made and added where there is none yet.
static zqlanguage *zq_localization_language_need(zqlocalization *zqlocalization, const char *name)
{
    void *known = zq_stringhash_lookup(zqlocalization->hash, name);
    if (known)
        return static_cast<zqlanguage *>(known);
    owned_language language(zq_localization_language_create());
    if (!language)
        return nullptr;
    if (zq_stringhash_add(zqlocalization->hash, name, language.get()) != 0) {
        ZQ_LOG(7, "unable to add language '%s' to localization context", name);
        return nullptr;
    }
    return language.release();
}

static zqerror zq_localization_load_file(zqlocalization *zqlocalization, const char *name,
                                         const char *filename)
{
    owned_file file(zq_file_open_ascii(filename));
    if (!file)
        return ZQ_ERROR_NOT_FOUND;
    owned_block<> buffer(static_cast<char *>(zq_malloc(LINE_SIZE)));
    if (!buffer) {
        ZQ_LOG(7, "not enough memory for read buffer");
        return ZQ_ERROR_NO_MEMORY;
    }
    zqlanguage *language = zq_localization_language_need(zqlocalization, name);
    if (!language) {
        ZQ_LOG(7, "unable to add language '%s'", name);
        return ZQ_ERROR_NO_MEMORY;
    }
    zqerror result = zq_localization_load_po(language, filename, file.get(), buffer.get());
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "unable to load po file %s, error %d (%s)", filename, static_cast<int>(result),
               zq_error_string(result));
    return result;
}

// `name` is the file's name in `directory`.
static zqerror zq_localization_load_named(zqlocalization *zqlocalization, const char *directory,
                                          const char *name)
{
    owned_block<> language(zq_strndup(name, strlen(name) - strlen(".po")));
    if (!language) {
        ZQ_LOG(7, "not enough memory for the language name");
        return ZQ_ERROR_NO_MEMORY;
    }
    owned_block<> filename(zq_strdupf("%s%c%s", directory, zq_utf8dir_separator(), name));
    if (!filename) {
        ZQ_LOG(7, "not enough memory for localization file name");
        return ZQ_ERROR_NO_MEMORY;
    }
    zqerror result = zq_localization_load_file(zqlocalization, language.get(), filename.get());
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(13, "failed to load localization file %s, error %d (%s)", filename.get(),
               static_cast<int>(result), zq_error_string(result));
    return result;
}

static zqerror zq_localization_load_entry(zqlocalization *zqlocalization, const char *directory,
                                          zqutf8dir *entry)
{
    const char *name = zq_utf8dir_fetch_name(entry);
    if (!name) {
        ZQ_LOG(7, "fetching the directory entry name failed");
        return ZQ_ERROR_GENERIC;
    }
    int is_directory = zq_utf8dir_is_directory(entry);
    if (is_directory < 0) {
        ZQ_LOG(7, "error checking if '%s' is a directory", name);
        return ZQ_ERROR_GENERIC;
    }
    if (is_directory || strlen(name) <= strlen(".po") || !zq_endswith(name, ".po"))
        return ZQ_ERROR_NONE;
    return zq_localization_load_named(zqlocalization, directory, name);
}

static zqerror zq_localization_load_directory(zqlocalization *zqlocalization, const char *path)
{
    owned_directory directory(zq_utf8dir_open(path));
    if (!directory) {
        ZQ_LOG(7, "unable to open directory '%s'", path);
        return ZQ_ERROR_NOT_FOUND;
    }
    int next;
    while ((next = zq_utf8dir_next(directory.get())) == 0) {
        zqerror result = zq_localization_load_entry(zqlocalization, path, directory.get());
        if (result != ZQ_ERROR_NONE)
            return result;
    }
    if (next != -1) {
        ZQ_LOG(7, "unable to read directory '%s', error %d", path, next);
        return ZQ_ERROR_GENERIC;
    }
    return ZQ_ERROR_NONE;
}

zqerror zq_localization_load_utf8(zqlocalization *zqlocalization, const char *localepath,
                                  const char *textdomain)
{
    ZQ_ASSERT(zqlocalization != NULL);
    ZQ_ASSERT(localepath != NULL);
    ZQ_ASSERT(textdomain != NULL);

    char separator = zq_utf8dir_separator();
    owned_block<> path(zq_strdupf("%s%c%s", localepath, separator, textdomain));
    if (!path) {
        ZQ_LOG(7, "not enough memory for localization directory path '%s%c%s'", localepath,
               separator, textdomain);
        return ZQ_ERROR_NO_MEMORY;
    }
    return zq_localization_load_directory(zqlocalization, path.get());
}

/* ---- asking ---- */

static int zq_localization_compare_function(const void *name1, const void *name2)
{
    return strcmp(*static_cast<const char *const *>(name1),
                  *static_cast<const char *const *>(name2));
}

// Calls `visit(name)` for every language.
template <class Visit>
static void zq_localization_each_language(zqstringhash *languages, Visit visit)
{
    const char *name;
    zqstringhashitem *item = zq_stringhash_enumerate_start(languages, &name, nullptr);
    while (item) {
        visit(name);
        item = zq_stringhash_enumerate_next(languages, item, &name, nullptr);
    }
}

static char *zq_localization_empty_list(void)
{
    ZQ_LOG(9, "no languages loaded");
    char *list = zq_strdup("");
    if (!list)
        ZQ_LOG(7, "not enough memory for an empty list of languages");
    return list;
}

char *zq_localization_list_languages(zqlocalization *zqlocalization)
{
    ZQ_ASSERT(zqlocalization != NULL);

    unsigned long count = 0;
    zq_localization_each_language(zqlocalization->hash, [&](const char *) { count++; });
    if (count == 0)
        return zq_localization_empty_list();

    owned_block<const char *> block(
        static_cast<const char **>(zq_malloc(count * sizeof(const char *))));
    const char **names = block.get();
    if (!names) {
        ZQ_LOG(7, "not enough memory for an array of %lu languages", count);
        return nullptr;
    }
    const char **end = names;
    zq_localization_each_language(zqlocalization->hash, [&](const char *name) { *end++ = name; });
    qsort(names, count, sizeof(*names), zq_localization_compare_function);

    char *list = text_build([&](text_writer &out) {
        for (const char **name = names; name < end; name++) {
            if (name > names)
                out.put('/');
            out.put(*name);
        }
    });
    if (!list)
        ZQ_LOG(7, "not enough memory for the list of languages");
    return list;
}

zqlanguage *zq_localization_language_get(zqlocalization *zqlocalization, const char *language)
{
    ZQ_ASSERT(zqlocalization != NULL);
    ZQ_ASSERT(language != NULL);

    void *found = zq_stringhash_lookup(zqlocalization->hash, language);
    if (!found)
        ZQ_LOG(13, "no language '%s'", language);
    return static_cast<zqlanguage *>(found);
}

const char *zq_localization_localize(zqlanguage *zqlanguage, const char *string)
{
    ZQ_ASSERT(string != NULL);

    if (!zqlanguage)
        return nullptr;
    ZQ_ASSERT(zqlanguage->hash != NULL);
    return static_cast<const char *>(zq_stringhash_lookup(zqlanguage->hash, string));
}
