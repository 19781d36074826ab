#include "zq/util/zqformat.h"

#include <cstdarg>
#include <cstring>
#include <string_view>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/internal/zqtext.h"
#include "zq/util/zqerror.h"
#include "zq/util/zqstring.h"

namespace {
// One walk over a format. Without a buffer it measures; mistakes in the format are then left to the
// filling walk, so that each is logged once.
struct format_walk {
    const char *format;
    text_writer out;
    zqerror error; // the first one

    bool fills() const { return out.out != nullptr; }

    void put(std::string_view text)
    {
        out.put(text);
        if (out.length > out.capacity && error == ZQ_ERROR_NONE)
            error = ZQ_ERROR_OUT_OF_RANGE;
    }

    // Measuring runs out of room as a matter of course, which must not hide what went wrong.
    void fail(zqerror code)
    {
        if (error == ZQ_ERROR_NONE || error == ZQ_ERROR_OUT_OF_RANGE)
            error = code;
    }
};
} // namespace

// Appends the value of the first pair with that name; nothing when there is none.
static void zq_format_put_value(format_walk &walk, const char *variable, va_list pairs)
{
    const char *name;
    while ((name = va_arg(pairs, const char *)) != nullptr) {
        const char *value = va_arg(pairs, const char *);
        if (!value) {
            // Shows the missing value, not the name it was given for: meant, it has always been so.
            // Volatile, or compilers warn of the null that they see.
            const char *volatile shown = value;
            ZQ_LOG(6, "value given for '%s' was NULL", shown);
            walk.fail(ZQ_ERROR_INVALID_ARGUMENT);
            return;
        }
        if (strcmp(name, variable) == 0) {
            walk.put(value);
            return;
        }
    }
    if (walk.fills())
        ZQ_LOG(6, "no variable '%s' given for format string '%s'", variable, walk.format);
}

static bool zq_format_put_variable(format_walk &walk, std::string_view name, va_list ap)
{
    owned_block<> variable(zq_strndup(name.data(), name.size()));
    if (!variable) {
        ZQ_LOG(7, "not enough memory for variable name");
        walk.fail(ZQ_ERROR_NO_MEMORY);
        return false;
    }
    va_list pairs;
    va_copy(pairs, ap);
    zq_format_put_value(walk, variable.get(), pairs);
    va_end(pairs);
    return true;
}

// What stands between two percent signs, the second one at `end`. Returns false when the walk
// cannot go on.
static bool zq_format_put_closed(format_walk &walk, const char *name, const char *end, va_list ap)
{
    if (name < end)
        return zq_format_put_variable(walk, {name, static_cast<size_t>(end - name)}, ap);
    char ch = *end;
    ZQ_ASSERT(ch == '%');
    walk.put({end, 1});
    return true;
}

static void zq_format_put_unterminated(format_walk &walk, const char *name)
{
    if (walk.fills())
        ZQ_LOG(6, "unterminated variable '%s' in format string '%s'", name, walk.format);
    walk.put("%");
    walk.put(name);
}

// *bufferlenptr is the size of the buffer and becomes the size that the whole text takes.
static zqerror zq_format_internal(char *buffer, size_t *bufferlenptr, const char *format,
                                  va_list ap)
{
    ZQ_ASSERT(bufferlenptr != NULL);
    ZQ_ASSERT(*bufferlenptr == 0 || buffer != NULL);
    ZQ_ASSERT(format != NULL);

    format_walk walk = {format, {buffer, *bufferlenptr, 0}, ZQ_ERROR_NONE};
    const char *name = nullptr; // of the variable that is open
    bool goes_on = true;
    for (const char *c = format; *c && goes_on; c++) {
        if (!name) {
            if (*c == '%')
                name = c + 1;
            else
                walk.put({c, 1});
        } else if (*c == '%') {
            goes_on = zq_format_put_closed(walk, name, c, ap);
            name = nullptr;
        }
    }
    if (name)
        zq_format_put_unterminated(walk, name);
    walk.put({"", 1});
    *bufferlenptr = walk.out.length;
    return walk.error;
}

static char *zq_format_allocate(const char *format, va_list ap)
{
    size_t resultlen = 0;
    zqerror err = zq_format_internal(nullptr, &resultlen, format, ap);
    if (err != ZQ_ERROR_OUT_OF_RANGE) {
        ZQ_LOG(6, "initial formatting returned error %d (%s)", static_cast<int>(err),
               zq_error_string(err));
        return nullptr;
    }
    ZQ_ASSERT(resultlen > 0);
    owned_block<> result(static_cast<char *>(zq_malloc(resultlen)));
    if (!result) {
        ZQ_LOG(7, "not enough memory for formatting string");
        return nullptr;
    }
    err = zq_format_internal(result.get(), &resultlen, format, ap);
    if (err != ZQ_ERROR_NONE) {
        ZQ_LOG(6, "final formatting returned error %d (%s)", static_cast<int>(err),
               zq_error_string(err));
        return nullptr;
    }
    return result.release();
}

char *zq_format(const char *format, ...)
{
    ZQ_ASSERT(format != NULL);

    va_list ap;
    va_start(ap, format);
    char *result = zq_format_allocate(format, ap);
    va_end(ap);
    return result;
}
