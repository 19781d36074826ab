#include "zq/adt/zqwchar.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"

size_t zq_wchar_strlen(const wchar_t *wstring)
{
    ZQ_ASSERT(wstring != NULL);

    return wcslen(wstring);
}

// ---- encoding ----

// Elements are signed, whatever the platform's wchar_t is.
static int32_t zq_wchar_value(wchar_t character)
{
    return static_cast<int32_t>(character);
}

// The bytes that a character takes; 0 when it cannot be encoded.
static size_t zq_wchar_utf8_length(int32_t value)
{
    if (value < 0x80)
        return 1; // negative ones on purpose too
    if (value < 0x800)
        return 2;
    if (value < 0x10000)
        return 3;
    return value <= 0x10FFFF ? 4 : 0;
}

// Writes one character and returns its length; 0 when it cannot be encoded.
static size_t zq_wchar_utf8_convert(char *buffer, wchar_t character)
{
    ZQ_ASSERT(buffer != NULL);

    // The lead byte's mark by length.
    static constexpr uint32_t marks[] = {0, 0, 0xC0, 0xE0, 0xF0};

    size_t len = zq_wchar_utf8_length(zq_wchar_value(character));
    uint32_t rest = static_cast<uint32_t>(character);
    if (len == 1)
        rest &= 0x7F;
    for (size_t i = len; i > 1; i--) {
        buffer[i - 1] = static_cast<char>(0x80 | (rest & 0x3F));
        rest >>= 6;
    }
    if (len > 0)
        buffer[0] = static_cast<char>(marks[len] | rest);
    return len;
}

int zq_wchar_to_utf8_buffer(char *utf8, size_t *utf8lenptr, const wchar_t *wstring)
{
    ZQ_ASSERT(utf8 != NULL || *utf8lenptr == 0);
    ZQ_ASSERT(wstring != NULL);

    const size_t capacity = *utf8lenptr;
    size_t count = 0;
    for (; *wstring; wstring++) {
        size_t len = zq_wchar_utf8_length(zq_wchar_value(*wstring));
        if (len == 0) {
            ZQ_LOG(6, "invalid wide character 0x%08x", static_cast<unsigned int>(*wstring));
            *utf8lenptr = 0;
            return -1;
        }
        if (count + len <= capacity)
            zq_wchar_utf8_convert(utf8 + count, *wstring);
        count += len;
    }
    *utf8lenptr = count;
    if (count >= capacity)
        return 1;
    utf8[count] = '\0';
    return 0;
}

char *zq_wchar_to_utf8(const wchar_t *wstring)
{
    ZQ_ASSERT(wstring != NULL);

    size_t utf8len = 0;
    if (zq_wchar_to_utf8_buffer(nullptr, &utf8len, wstring) < 0)
        return nullptr;
    owned_block<> utf8(static_cast<char *>(zq_malloc(utf8len + 1)));
    if (!utf8) {
        ZQ_LOG(7, "not enough memory for UTF-8 string");
        return nullptr;
    }
    size_t capacity = utf8len + 1;
    int error = zq_wchar_to_utf8_buffer(utf8.get(), &capacity, wstring);
    ZQ_ASSERT(error == 0);
    return utf8.release();
}

// ---- decoding ----

// Takes the lead byte's bits as *value and returns the number of continuation bytes that follow; -1
// for a byte that cannot lead.
static int zq_wchar_lead(unsigned char byte, uint32_t *value)
{
    *value = byte;
    if (byte < 0x80)
        return 0;
    *value = byte & 0x1Fu;
    if ((byte & 0xE0) == 0xC0)
        return 1;
    *value = byte & 0x0Fu;
    if ((byte & 0xF0) == 0xE0)
        return 2;
    *value = byte & 0x07u;
    if ((byte & 0xF8) == 0xF0)
        return 3;
    return -1;
}

// Decodes one character and returns what follows it, or null after logging what is wrong.
static const char *zq_wchar_decode(const char *utf8, wchar_t *character)
{
    unsigned char byte = static_cast<unsigned char>(*utf8++);
    uint32_t value;
    int following = zq_wchar_lead(byte, &value);
    if (following < 0) {
        ZQ_LOG(6, "invalid UTF-8 first byte 0x%02x", byte);
        return nullptr;
    }
    for (; following > 0; following--) {
        byte = static_cast<unsigned char>(*utf8++);
        if ((byte & 0xC0) != 0x80) {
            ZQ_LOG(6, "invalid UTF-8 continuation byte 0x%02x", byte);
            return nullptr;
        }
        value = value << 6 | (byte & 0x3Fu);
    }
    *character = static_cast<wchar_t>(value);
    return utf8;
}

int zq_wchar_buffer_from_utf8(wchar_t *warray, size_t *warraylenptr, const char *utf8)
{
    ZQ_ASSERT(warray != NULL || *warraylenptr == 0);
    ZQ_ASSERT(utf8 != NULL);

    const size_t capacity = *warraylenptr;
    size_t count = 0;
    while (*utf8) {
        wchar_t character;
        utf8 = zq_wchar_decode(utf8, &character);
        if (!utf8) {
            // The same answer as for a buffer that is too small, on purpose.
            *warraylenptr = 0;
            return 1;
        }
        if (count < capacity)
            warray[count] = character;
        count++;
    }
    if (count < capacity)
        warray[count] = L'\0';
    *warraylenptr = count;
    return count <= capacity ? 0 : 1;
}

wchar_t *zq_wchar_from_utf8(const char *utf8)
{
    ZQ_ASSERT(utf8 != NULL);

    size_t warraylen = 0;
    zq_wchar_buffer_from_utf8(nullptr, &warraylen, utf8);
    owned_block<wchar_t> array(static_cast<wchar_t *>(zq_calloc(warraylen + 1, sizeof(wchar_t))));
    if (!array) {
        ZQ_LOG(7, "not enough memory for wide character string");
        return nullptr;
    }
    wchar_t *wstring = array.get();
    wstring[warraylen] = L'\0';
    size_t len = warraylen;
    int res = zq_wchar_buffer_from_utf8(wstring, &len, utf8);
    // Text that is not UTF-8 ends here, on purpose: the measuring pass does not tell it apart.
    ZQ_ASSERT(res == 0);
    ZQ_ASSERT(len == warraylen);
    ZQ_ASSERT(wstring[warraylen] == 0);
    return array.release();
}
