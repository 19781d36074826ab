#include "zq/util/zqprintf.h"

#include <cstdio>

#include "zq/internal/zqassert.h"
#include "zq/util/zqmalloc.h"

// Measures, allocates and formats. Returns the new text, or null with *needlen negative when the
// format cannot be rendered, with *needlen telling the length otherwise.
static char *zq_printf_allocate(const char *format, va_list ap, int *needlen, int *count)
{
    va_list measuring;
    va_copy(measuring, ap);
    *needlen = zq_vsnprintf(nullptr, 0, format, measuring);
    va_end(measuring);
    if (*needlen < 0)
        return nullptr;

    size_t size = static_cast<size_t>(*needlen) + 1;
    char *text = static_cast<char *>(zq_malloc(size));
    if (text)
        *count = zq_vsnprintf(text, size, format, ap);
    return text;
}

int zq_asprintf(char **strp, const char *format, ...)
{
    ZQ_ASSERT(strp != NULL);
    ZQ_ASSERT(format != NULL);

    va_list ap;
    va_start(ap, format);
    int result = zq_vasprintf(strp, format, ap);
    va_end(ap);
    return result;
}

int zq_vasprintf(char **strp, const char *format, va_list ap)
{
    ZQ_ASSERT(strp != NULL);
    ZQ_ASSERT(format != NULL);

    int needlen;
    int result;
    *strp = zq_printf_allocate(format, ap, &needlen, &result);
    if (!*strp)
        return needlen < 0 ? needlen : -1;
    ZQ_ASSERT(result == needlen);
    return result;
}

char *zq_strdupf(const char *format, ...)
{
    ZQ_ASSERT(format != NULL);

    va_list ap;
    va_start(ap, format);
    char *text = zq_vstrdupf(format, ap);
    va_end(ap);
    return text;
}

char *zq_vstrdupf(const char *format, va_list ap)
{
    ZQ_ASSERT(format != NULL);

    int needlen;
    int count;
    char *text = zq_printf_allocate(format, ap, &needlen, &count);
    if (text)
        ZQ_ASSERT(count == needlen);
    return text;
}

int zq_snprintf(char *str, size_t size, const char *format, ...)
{
    ZQ_ASSERT(str != NULL || size == 0);
    ZQ_ASSERT(format != NULL);

    va_list ap;
    va_start(ap, format);
    int result = zq_vsnprintf(str, size, format, ap);
    va_end(ap);
    return result;
}

int zq_vsnprintf(char *str, size_t size, const char *format, va_list ap)
{
    ZQ_ASSERT(str != NULL || size == 0);
    ZQ_ASSERT(format != NULL);

    int result = vsnprintf(str, size, format, ap);
    if (str && size)
        str[size - 1] = '\0';
    return result;
}

int zq_stdio_printf_stderr(const char *format, ...)
{
    ZQ_ASSERT(format != NULL);

    va_list ap;
    va_start(ap, format);
    int result = vfprintf(stderr, format, ap);
    va_end(ap);
    return result;
}
