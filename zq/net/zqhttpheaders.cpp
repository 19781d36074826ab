#include "zq/net/zqhttpheaders.h"

#include "zq/adt/zqstringhash.h"
#include "zq/internal/zqassert.h"
#include "zq/internal/zqheaderlookup.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/util/zqstring.h"

struct zqhttpheaders {
    zqstringhash *hash; // lower-cased names to owned values, which may be null
};

namespace {
// A line of a header block, without its end.
struct header_line {
    const char *text;
    size_t len;
    const char *colon; // the first one, or null
};
} // namespace

// A field without a value comes here as well: a server that sends one must not stop the process.
static void zq_httpheaders_header_destroy(void *item, void *context)
{
    ZQ_ASSERT(context == NULL);

    zq_free(item);
}

zqhttpheaders *zq_httpheaders_create(void)
{
    owned<zqhttpheaders, zq_httpheaders_destroy> headers(make_zeroed<zqhttpheaders>());
    if (!headers) {
        ZQ_LOG(7, "not enough memory for zqhttpheaders structure");
        return nullptr;
    }
    headers->hash = zq_stringhash_create(zq_httpheaders_header_destroy, nullptr);
    if (!headers->hash) {
        ZQ_LOG(7, "not enough memory for the response header hashtable");
        return nullptr;
    }
    return headers.release();
}

void zq_httpheaders_destroy(zqhttpheaders *zqhttpheaders)
{
    ZQ_ASSERT(zqhttpheaders != NULL);

    if (zqhttpheaders->hash)
        zq_stringhash_destroy(zqhttpheaders->hash);
    zq_free(zqhttpheaders);
}

zqerror zq_httpheaders_clear(zqhttpheaders *zqhttpheaders)
{
    ZQ_ASSERT(zqhttpheaders != NULL);

    zq_stringhash_clear(zqhttpheaders->hash);
    return ZQ_ERROR_NONE;
}

static zqerror zq_httpheaders_store(zqhttpheaders *zqhttpheaders, const char *name,
                                    owned_block<> value)
{
    if (zq_stringhash_add(zqhttpheaders->hash, name, value.get()) != 0) {
        ZQ_LOG(7, "unable to store the header '%s' value '%s'", name,
               value ? value.get() : "<NULL>");
        return ZQ_ERROR_NO_MEMORY;
    }
    value.release();
    return ZQ_ERROR_NONE;
}

zqerror zq_httpheaders_add(zqhttpheaders *zqhttpheaders, const char *name, const char *value)
{
    ZQ_ASSERT(zqhttpheaders != NULL);
    ZQ_ASSERT(name != NULL);

    owned_block<> key(zq_strdup_lowercase(name));
    if (!key) {
        ZQ_LOG(7, "not enough memory for duplicating header name '%s'", name);
        return ZQ_ERROR_NO_MEMORY;
    }
    owned_block<> copy(value ? zq_strdup(value) : nullptr);
    if (value && !copy) {
        ZQ_LOG(7, "not enough memory for duplicating value '%s'", value);
        return ZQ_ERROR_NO_MEMORY;
    }
    return zq_httpheaders_store(zqhttpheaders, key.get(), std::move(copy));
}

const char *httpheaders_lookup(zqhttpheaders *headers, const char *lowercase_name)
{
    return static_cast<const char *>(zq_stringhash_lookup(headers->hash, lowercase_name));
}

const char *zq_httpheaders_get(zqhttpheaders *zqhttpheaders, const char *name)
{
    ZQ_ASSERT(zqhttpheaders != NULL);
    ZQ_ASSERT(name != NULL);

    owned_block<> key(zq_strdup_lowercase(name));
    if (!key) {
        ZQ_LOG(7, "unable to convert the header name to lowercase");
        return nullptr;
    }
    return httpheaders_lookup(zqhttpheaders, key.get());
}

// A zero byte ends a line too, which makes a stray one look like the empty line after the fields.
static header_line zq_httpheaders_scan_line(const char *text, size_t left)
{
    header_line line = {text, 0, nullptr};
    for (; line.len < left; line.len++) {
        const char c = text[line.len];
        if (c == '\0' || c == '\n' || c == '\r')
            break;
        if (c == ':' && !line.colon)
            line.colon = text + line.len;
    }
    return line;
}

// The number of bytes of an optional CR and an optional LF.
static size_t zq_httpheaders_scan_line_end(const char *text, size_t left)
{
    size_t len = 0;
    if (len < left && text[len] == '\r')
        len++;
    if (len < left && text[len] == '\n')
        len++;
    return len;
}

static bool zq_httpheaders_is_blank(char c)
{
    return c == ' ' || c == '\t';
}

static zqerror zq_httpheaders_parse_field(zqhttpheaders *zqhttpheaders, const header_line &line)
{
    if (!line.colon) {
        ZQ_LOG(7, "no colon (:) found while parsing the headers");
        return ZQ_ERROR_SYNTAX;
    }
    owned_block<> name(
        zq_strndup_lowercase(line.text, static_cast<size_t>(line.colon - line.text)));
    if (!name) {
        ZQ_LOG(7, "not enough memory for header name");
        return ZQ_ERROR_NO_MEMORY;
    }

    const char *start = line.colon + 1;
    const char *end = line.text + line.len;
    while (start < end && zq_httpheaders_is_blank(*start))
        start++;
    while (end > start && zq_httpheaders_is_blank(end[-1]))
        end--;
    owned_block<> value(zq_strndup(start, static_cast<size_t>(end - start)));
    if (!value) {
        ZQ_LOG(7, "not enough memory for header value");
        return ZQ_ERROR_NO_MEMORY;
    }
    return zq_httpheaders_store(zqhttpheaders, name.get(), std::move(value));
}

static zqerror zq_httpheaders_parse_block(zqhttpheaders *zqhttpheaders, const void *buffer,
                                          size_t bufferlen, bool skip_first_line)
{
    const char *pos = static_cast<const char *>(buffer);
    const char *const end = pos + bufferlen;
    for (bool first = true; pos < end; first = false) {
        const header_line line = zq_httpheaders_scan_line(pos, static_cast<size_t>(end - pos));
        if (line.len == 0)
            return ZQ_ERROR_NONE;
        if (first && skip_first_line) {
            ZQ_LOG(10, "skipping first line, should be HTTP request or status line");
        } else {
            const zqerror result = zq_httpheaders_parse_field(zqhttpheaders, line);
            if (result != ZQ_ERROR_NONE)
                return result;
        }
        pos += line.len;
        pos += zq_httpheaders_scan_line_end(pos, static_cast<size_t>(end - pos));
    }
    return ZQ_ERROR_NONE;
}

zqerror zq_httpheaders_parse(zqhttpheaders *zqhttpheaders, const void *buffer, size_t bufferlen)
{
    ZQ_ASSERT(zqhttpheaders != NULL);
    ZQ_ASSERT(buffer != NULL);

    return zq_httpheaders_parse_block(zqhttpheaders, buffer, bufferlen, false);
}

zqerror zq_httpheaders_parse_from_message(zqhttpheaders *zqhttpheaders, const void *buffer,
                                          size_t bufferlen)
{
    ZQ_ASSERT(zqhttpheaders != NULL);
    ZQ_ASSERT(buffer != NULL);

    return zq_httpheaders_parse_block(zqhttpheaders, buffer, bufferlen, true);
}
