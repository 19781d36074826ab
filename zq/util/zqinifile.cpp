#include "zq/util/zqinifile.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqintrusive.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/internal/zqtext.h"
#include "zq/io/zqfile.h"
#include "zq/util/zqprintf.h"
#include "zq/util/zqstring.h"

namespace {

struct zqinifileline : zqlistlink {
    char *line;    // as it is written back, without a line end
    char *section; // null in front of the first header
    char *key;     // null for headers, comments and blank lines
    char *value;
};

} // namespace

struct zqinifile {
    zqlist lines; // in file order
};

static void zq_inifile_line_destroy(zqinifileline *line)
{
    zq_free(line->line);
    zq_free(line->section);
    zq_free(line->key);
    zq_free(line->value);
    zq_free(line);
}

using owned_line = owned<zqinifileline, zq_inifile_line_destroy>;
using owned_inifile = owned<zqinifile, zq_inifile_destroy>;
using owned_file = owned<FILE, zq_file_close>;

static char *zq_inifile_key_line(const char *key, const char *value)
{
    return text_build([&](text_writer &out) {
        out.put(key);
        out.put('=');
        out.put(value);
    });
}

// `section` and `key` may be null. What is looked up is stripped, what is written back is not.
static zqinifileline *zq_inifile_line_create(const char *section, const char *key,
                                             const char *value)
{
    ZQ_ASSERT(value);

    owned_line line(make_zeroed<zqinifileline>());
    bool complete = line && (!section || (line->section = zq_strstrip(section))) &&
                    (!key || (line->key = zq_strstrip(key))) &&
                    (line->line = key ? zq_inifile_key_line(key, value) : zq_strdup(value)) &&
                    (line->value = zq_strstrip(value));
    if (!complete) {
        ZQ_LOG(7, "not enough memory for the line");
        return nullptr;
    }
    return line.release();
}

static void zq_inifile_set_error(zqerror *zqerrorptr, zqerror code)
{
    if (zqerrorptr)
        *zqerrorptr = code;
}

zqinifile *zq_inifile_create(zqerror *zqerrorptr)
{
    auto *inifile = make_zeroed<zqinifile>();
    if (!inifile)
        ZQ_LOG(7, "not enough memory for zqinifile");
    zq_inifile_set_error(zqerrorptr, inifile ? ZQ_ERROR_NONE : ZQ_ERROR_NO_MEMORY);
    return inifile;
}

void zq_inifile_destroy(zqinifile *zqinifile)
{
    ZQ_ASSERT(zqinifile != NULL);

    for (zqinifileline *line : list_items<zqinifileline>(&zqinifile->lines))
        zq_inifile_line_destroy(line);
    zq_free(zqinifile);
}

/* ---- reading ---- */

namespace {

struct ini_reader {
    const char *filename;
    FILE *file;
    zqinifile *inifile;
    unsigned int line_number;
    owned_block<> line; // the current line, terminated
    size_t size;
    owned_block<> section; // null in front of the first header
    zqerror error;         // why the last function returned false

    bool fail(zqerror code)
    {
        error = code;
        return false;
    }
};

constexpr size_t FIRST_LINE_SIZE = 4095;

} // namespace

static bool zq_inifile_grow_line(ini_reader *reader)
{
    size_t size;
    if (__builtin_mul_overflow(reader->size, 2, &size)) {
        ZQ_LOG(6, "the line length is too long");
        return reader->fail(ZQ_ERROR_OUT_OF_RANGE);
    }
    char *grown = static_cast<char *>(zq_realloc(reader->line.get(), size));
    if (!grown) {
        ZQ_LOG(7, "not enough memory for the line buffer");
        return reader->fail(ZQ_ERROR_NO_MEMORY);
    }
    (void)reader->line.release();
    reader->line.reset(grown);
    reader->size = size;
    return true;
}

// Reads one line, whatever its length; false at the end of the file too.
static bool zq_inifile_read_line(ini_reader *reader)
{
    size_t used = 0;
    for (;;) {
        size_t room = reader->size - used;
        if (room > INT_MAX)
            room = INT_MAX;
        // Only when the line fills the room is this byte overwritten, with the terminator. Unlike
        // the length of the text this tells a full buffer from a line with a NUL in it.
        char *last = reader->line.get() + used + room - 1;
        *last = 1;
        if (!fgets(reader->line.get() + used, static_cast<int>(room), reader->file)) {
            int number = errno;
            if (!feof(reader->file)) {
                ZQ_LOG(7, "fgets() returned error %d", number);
                return reader->fail(ZQ_ERROR_GENERIC);
            }
            return used > 0 || reader->fail(ZQ_ERROR_END_OF_FILE);
        }
        if (*last != '\0' || last[-1] == '\n')
            return true;
        used += room - 1;
        if (used + 1 == reader->size && !zq_inifile_grow_line(reader))
            return false;
    }
}

static void zq_inifile_trim_newline(char *line)
{
    size_t len = strlen(line);
    while (len > 0 && (line[len - 1] == '\r' || line[len - 1] == '\n'))
        len--;
    line[len] = '\0';
}

static char *zq_inifile_skip_space(char *text)
{
    while (isspace(static_cast<unsigned char>(*text)))
        text++;
    return text;
}

static bool zq_inifile_parse_error(ini_reader *reader, const char *message)
{
    owned_block<> place(
        zq_strdupf("Parse error at %s:%u: ", reader->filename, reader->line_number));
    if (!place) {
        // Code 0 is meant here: callers tell failure by the null result.
        ZQ_LOG(7, "not enough memory for the parse error message");
        return reader->fail(ZQ_ERROR_NONE);
    }
    ZQ_LOG(6, "%s%s", place.get(), message);
    return reader->fail(ZQ_ERROR_SYNTAX);
}

static bool zq_inifile_append_line(ini_reader *reader, const char *key, const char *value)
{
    zqinifileline *line = zq_inifile_line_create(reader->section.get(), key, value);
    if (!line)
        return reader->fail(ZQ_ERROR_NO_MEMORY);
    list_append(&reader->inifile->lines, line);
    return true;
}

// `name` is what follows the opening bracket, `end` the last closing one.
static bool zq_inifile_parse_header(ini_reader *reader, const char *name, char *end)
{
    if (*zq_inifile_skip_space(end + 1) != '\0')
        return zq_inifile_parse_error(reader, "bogus characters after ']'");
    reader->section.reset(zq_strndup(name, static_cast<size_t>(end - name)));
    if (!reader->section) {
        ZQ_LOG(7, "not enough memory for the section");
        return reader->fail(ZQ_ERROR_NO_MEMORY);
    }
    return zq_inifile_append_line(reader, nullptr, reader->line.get());
}

static bool zq_inifile_parse_key(ini_reader *reader, char *key)
{
    char *sign = strchr(key + 1, '=');
    if (!sign)
        return zq_inifile_parse_error(reader, "no '=' found on non-empty non-comment line");
    *sign = '\0';
    return zq_inifile_append_line(reader, key, sign + 1);
}

static bool zq_inifile_parse_line(ini_reader *reader)
{
    zq_inifile_trim_newline(reader->line.get());
    char *text = zq_inifile_skip_space(reader->line.get());
    if (*text == '\0' || *text == ';' || *text == '#')
        return zq_inifile_append_line(reader, nullptr, reader->line.get());
    char *end = *text == '[' ? strrchr(text, ']') : nullptr;
    if (end)
        return zq_inifile_parse_header(reader, text + 1, end);
    return zq_inifile_parse_key(reader, text);
}

static bool zq_inifile_read(ini_reader *reader)
{
    reader->line.reset(static_cast<char *>(zq_malloc(FIRST_LINE_SIZE)));
    if (!reader->line) {
        ZQ_LOG(7, "not enough memory for the line buffer");
        return reader->fail(ZQ_ERROR_NO_MEMORY);
    }
    reader->size = FIRST_LINE_SIZE;
    while (zq_inifile_read_line(reader)) {
        reader->line_number++;
        if (!zq_inifile_parse_line(reader))
            return false;
    }
    return reader->error == ZQ_ERROR_END_OF_FILE;
}

zqinifile *zq_inifile_create_from_file(const char *filename, zqerror *zqerrorptr)
{
    ZQ_ASSERT(filename);

    owned_file file(zq_file_open_binary(filename));
    if (!file) {
        zq_inifile_set_error(zqerrorptr, ZQ_ERROR_NOT_FOUND);
        return nullptr;
    }
    owned_inifile inifile(zq_inifile_create(zqerrorptr));
    if (!inifile)
        return nullptr;

    ini_reader reader = {};
    reader.filename = filename;
    reader.file = file.get();
    reader.inifile = inifile.get();
    if (!zq_inifile_read(&reader)) {
        zq_inifile_set_error(zqerrorptr, reader.error);
        return nullptr;
    }
    return inifile.release();
}

/* ---- looking up ---- */

static bool zq_inifile_in_section(const zqinifileline *line, const char *section)
{
    if (!line->section || !section)
        return line->section == section;
    return strcmp(line->section, section) == 0;
}

static bool zq_inifile_has_key(const zqinifileline *line, const char *section, const char *key)
{
    return line->key && strcmp(line->key, key) == 0 && zq_inifile_in_section(line, section);
}

// The last occurrence counts.
static zqinifileline *zq_inifile_get_line(const zqinifile *inifile, const char *section,
                                          const char *key)
{
    for (zqlistlink *link = inifile->lines.tail; link; link = link->prev) {
        auto *line = static_cast<zqinifileline *>(link);
        if (zq_inifile_has_key(line, section, key))
            return line;
    }
    return nullptr;
}

const char *zq_inifile_get(zqinifile *inifile, const char *section, const char *key)
{
    ZQ_ASSERT(inifile);
    ZQ_ASSERT(key);

    const zqinifileline *line = zq_inifile_get_line(inifile, section, key);
    return line ? line->value : nullptr;
}

/* ---- changing ---- */

// On failure the line is unchanged.
static zqerror zq_inifile_line_change(zqinifileline *line, const char *key, const char *value)
{
    owned_block<> stripped(zq_strstrip(value));
    owned_block<> text(stripped ? zq_inifile_key_line(key, stripped.get()) : nullptr);
    if (!text) {
        ZQ_LOG(7, "not enough memory for the line");
        return ZQ_ERROR_NO_MEMORY;
    }
    zq_free(line->value);
    zq_free(line->line);
    line->value = stripped.release();
    line->line = text.release();
    return ZQ_ERROR_NONE;
}

static zqinifileline *zq_inifile_header_create(const char *section)
{
    owned_block<> text(zq_strdupf("[%s]", section));
    if (!text) {
        ZQ_LOG(7, "not enough memory for the line");
        return nullptr;
    }
    return zq_inifile_line_create(section, nullptr, text.get());
}

// The line behind which a new key of the section belongs: its last key, else its first line; null
// when the section has no line.
static zqlistlink *zq_inifile_section_end(const zqinifile *inifile, const char *section)
{
    zqlistlink *first = nullptr;
    for (zqlistlink *link = inifile->lines.tail; link; link = link->prev) {
        auto *line = static_cast<zqinifileline *>(link);
        if (!zq_inifile_in_section(line, section))
            continue;
        if (line->key)
            return link;
        first = link;
    }
    return first;
}

// On failure the file is unchanged: everything is made before anything is linked.
static zqerror zq_inifile_add(zqinifile *inifile, const char *section, const char *key,
                              const char *value)
{
    zqlistlink *position = zq_inifile_section_end(inifile, section);
    owned_line header;
    if (!position && section) {
        header.reset(zq_inifile_header_create(section));
        if (!header)
            return ZQ_ERROR_NO_MEMORY;
    }
    zqinifileline *line = zq_inifile_line_create(section, key, value);
    if (!line)
        return ZQ_ERROR_NO_MEMORY;

    if (header) {
        position = header.release();
        list_append(&inifile->lines, position);
    }
    list_insert_after(&inifile->lines, position, line);
    return ZQ_ERROR_NONE;
}

zqerror zq_inifile_set(zqinifile *inifile, const char *section, const char *key,
                       const char *new_value)
{
    ZQ_ASSERT(inifile);
    ZQ_ASSERT(key);
    ZQ_ASSERT(new_value);

    owned_block<> stripped(zq_strstrip(key));
    if (!stripped) {
        ZQ_LOG(7, "not enough memory for the key");
        return ZQ_ERROR_NO_MEMORY;
    }
    zqinifileline *line = zq_inifile_get_line(inifile, section, stripped.get());
    if (line)
        return zq_inifile_line_change(line, stripped.get(), new_value);
    return zq_inifile_add(inifile, section, key, new_value);
}

void zq_inifile_delete_all(zqinifile *inifile, const char *section, const char *key,
                           unsigned int *count)
{
    ZQ_ASSERT(inifile);
    ZQ_ASSERT(key);

    unsigned int deleted = 0;
    for (zqinifileline *line : list_items<zqinifileline>(&inifile->lines)) {
        if (!zq_inifile_has_key(line, section, key))
            continue;
        list_unlink(&inifile->lines, line);
        zq_inifile_line_destroy(line);
        deleted++;
    }
    if (count)
        *count = deleted;
}

/* ---- writing ---- */

zqerror zq_inifile_write_file(zqinifile *inifile, const char *filename)
{
    ZQ_ASSERT(inifile);
    ZQ_ASSERT(filename);

    FILE *file = zq_file_create_binary(filename);
    if (!file)
        return ZQ_ERROR_WRITE;
    bool written = true;
    for (const zqinifileline *line : list_items<zqinifileline>(&inifile->lines)) {
        written = fputs(line->line, file) >= 0 && fputc('\n', file) != EOF;
        if (!written)
            break;
    }
    bool closed = zq_file_close(file) == 0;
    return written && closed ? ZQ_ERROR_NONE : ZQ_ERROR_WRITE;
}
