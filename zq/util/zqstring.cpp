#include "zq/util/zqstring.h"

#include <cctype>
#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/util/zqmalloc.h"

static char *zq_string_copy(const char *string, size_t len)
{
    char *copy = static_cast<char *>(zq_malloc(len + 1));
    if (!copy)
        return nullptr;
    memcpy(copy, string, len);
    copy[len] = '\0';
    return copy;
}

char *zq_strdup(const char *string)
{
    ZQ_ASSERT(string != NULL);

    return zq_string_copy(string, strlen(string));
}

char *zq_strndup(const char *string, size_t n)
{
    ZQ_ASSERT(string != NULL);

    return zq_string_copy(string, strnlen(string, n));
}

static char *zq_string_copy_lowercase(const char *string, size_t n)
{
    ZQ_ASSERT(string != NULL);

    char *copy = zq_string_copy(string, strnlen(string, n));
    if (!copy)
        return nullptr;
    for (char *c = copy; *c; c++) {
        if (*c >= 'A' && *c <= 'Z')
            *c |= 0x20;
    }
    return copy;
}

char *zq_strdup_lowercase(const char *string)
{
    return zq_string_copy_lowercase(string, SIZE_MAX);
}

char *zq_strndup_lowercase(const char *string, size_t n)
{
    return zq_string_copy_lowercase(string, n);
}

int zq_strcasecmp(const char *s1, const char *s2)
{
    ZQ_ASSERT(s1 != NULL);
    ZQ_ASSERT(s2 != NULL);

    return zq_strncasecmp(s1, s2, SIZE_MAX);
}

int zq_strncasecmp(const char *s1, const char *s2, size_t n)
{
    ZQ_ASSERT(s1 != NULL);
    ZQ_ASSERT(s2 != NULL);

    for (size_t i = 0; i < n; i++) {
        int difference =
            tolower(static_cast<unsigned char>(s1[i])) - tolower(static_cast<unsigned char>(s2[i]));
        if (difference != 0 || s1[i] == '\0')
            return difference;
    }
    return 0;
}

char *zq_strnchr(const char *string, size_t n, int character)
{
    ZQ_ASSERT(string != NULL);

    return static_cast<char *>(const_cast<void *>(memchr(string, character, n)));
}

char *zq_strncpy(char *dest, const char *src, size_t n)
{
    ZQ_ASSERT(dest != NULL);
    ZQ_ASSERT(src != NULL);

    if (n == 0)
        return dest;
    size_t len = strnlen(src, n - 1);
    memcpy(dest, src, len);
    dest[len] = '\0';
    return dest;
}

char *zq_strstrip(const char *str)
{
    ZQ_ASSERT(str);

    const char *start = str;
    while (isspace(static_cast<unsigned char>(*start)))
        start++;
    const char *end = start + strlen(start);
    while (end > start && isspace(static_cast<unsigned char>(end[-1])))
        end--;
    ZQ_ASSERT(end >= start);
    return zq_string_copy(start, static_cast<size_t>(end - start));
}

int zq_endswith(const char *string, const char *suffix)
{
    ZQ_ASSERT(string != NULL);
    ZQ_ASSERT(suffix != NULL);

    size_t len = strlen(string);
    size_t suffixlen = strlen(suffix);
    return suffixlen <= len && memcmp(string + len - suffixlen, suffix, suffixlen) == 0;
}

size_t zq_wcslen(const wchar_t *wstring)
{
    ZQ_ASSERT(wstring != NULL);

    return wcslen(wstring);
}

wchar_t *zq_wcsdup(const wchar_t *wstring)
{
    ZQ_ASSERT(wstring != NULL);

    size_t len = wcslen(wstring);
    if (len >= SIZE_MAX / sizeof(wchar_t))
        return nullptr;
    return static_cast<wchar_t *>(zq_memdup(wstring, (len + 1) * sizeof(wchar_t)));
}

int zq_wcscmp(const wchar_t *s1, const wchar_t *s2)
{
    ZQ_ASSERT(s1 != NULL);
    ZQ_ASSERT(s2 != NULL);

    return zq_wcsncmp(s1, s2, SIZE_MAX);
}

int zq_wcsncmp(const wchar_t *s1, const wchar_t *s2, size_t n)
{
    ZQ_ASSERT(s1 != NULL);
    ZQ_ASSERT(s2 != NULL);

    for (size_t i = 0; i < n; i++) {
        if (s1[i] != s2[i]) {
            // Wraps rather than overflows where the difference does not fit.
            return static_cast<int>(static_cast<unsigned int>(s1[i]) -
                                    static_cast<unsigned int>(s2[i]));
        }
        if (s1[i] == L'\0')
            return 0;
    }
    return 0;
}
