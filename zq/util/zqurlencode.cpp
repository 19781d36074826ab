#include "zq/util/zqurlencode.h"

#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/internal/zqtext.h"
#include "zq/util/zqstring.h"

enum : unsigned char { CLASS_ENCODED, CLASS_UNRESERVED, CLASS_EXEMPTED };

struct zqurlencode {
    unsigned char classes[256]; // by byte value
};

static void zq_urlencode_mark(zqurlencode *context, const char *chars, unsigned char mark)
{
    for (const char *c = chars; *c; c++)
        context->classes[static_cast<unsigned char>(*c)] = mark;
}

zqurlencode *zq_urlencode_create(void)
{
    zqurlencode *created = static_cast<zqurlencode *>(zq_malloc(sizeof(zqurlencode)));
    if (!created) {
        ZQ_LOG(7, "not enough memory for URL encoding context");
        return nullptr;
    }
    zq_urlencode_reset(created);
    return created;
}

void zq_urlencode_destroy(zqurlencode *zqurlencode)
{
    ZQ_ASSERT(zqurlencode != NULL);

    zq_free(zqurlencode);
}

void zq_urlencode_reset(zqurlencode *zqurlencode)
{
    ZQ_ASSERT(zqurlencode != NULL);

    memset(zqurlencode->classes, CLASS_ENCODED, sizeof(zqurlencode->classes));
    zq_urlencode_mark(zqurlencode,
                      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!'()*",
                      CLASS_UNRESERVED);
}

void zq_urlencode_skip(zqurlencode *zqurlencode, const char *skipchars)
{
    ZQ_ASSERT(zqurlencode != NULL);
    ZQ_ASSERT(skipchars != NULL);

    zq_urlencode_mark(zqurlencode, skipchars, CLASS_EXEMPTED);
}

static void zq_urlencode_put(text_writer *out, unsigned char byte, bool passes)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    if (passes) {
        out->put(static_cast<char>(byte));
    } else if (byte == ' ') {
        out->put('+');
    } else {
        out->put('%');
        out->put(digits[byte >> 4]);
        out->put(digits[byte & 15]);
    }
}

zqerror zq_urlencode_buffer(zqurlencode *zqurlencode, char *dst, size_t *dstlenptr, const char *src,
                            size_t srclen)
{
    ZQ_ASSERT(zqurlencode != NULL);
    ZQ_ASSERT(dstlenptr != NULL);
    ZQ_ASSERT(dst != NULL || *dstlenptr == 0);
    ZQ_ASSERT(src != NULL);

    zqerror result = ZQ_ERROR_NONE;
    text_writer out = {dst, *dstlenptr, 0};
    for (size_t i = 0; i < srclen; i++) {
        const unsigned char byte = static_cast<unsigned char>(src[i]);
        const bool passes = zqurlencode->classes[byte] != CLASS_ENCODED;
        if (out.length > SIZE_MAX - (passes || byte == ' ' ? 1 : 3)) {
            result = ZQ_ERROR_INVALID_ARGUMENT;
            break;
        }
        zq_urlencode_put(&out, byte, passes);
    }
    // An encoding that fills the buffer exactly is complete, though not terminated: meant, callers
    // who need a terminator pass one byte more.
    if (out.length < out.capacity)
        dst[out.length] = '\0';
    else if (out.length > out.capacity && result == ZQ_ERROR_NONE)
        result = ZQ_ERROR_OUT_OF_RANGE;
    *dstlenptr = out.length;
    return result;
}

// Encodes into a new buffer, whose text is known to take `len` bytes.
static zqerror zq_urlencode_fill(zqurlencode *context, char **dstptr, const char *src,
                                 size_t srclen, size_t len)
{
    size_t dstlen;
    if (__builtin_add_overflow(len, 1, &dstlen)) {
        ZQ_LOG(6, "the encoded buffer needed is too long to fit the memory space");
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    owned_block<> dst(static_cast<char *>(zq_malloc(dstlen)));
    if (!dst) {
        ZQ_LOG(7, "not enough memory for encoded buffer (%lu bytes)",
               static_cast<unsigned long>(dstlen));
        return ZQ_ERROR_NO_MEMORY;
    }
    zqerror result = zq_urlencode_buffer(context, dst.get(), &dstlen, src, srclen);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to encode buffer, error %d (%s)", result, zq_error_string(result));
        return result;
    }
    ZQ_ASSERT(dstlen == len);
    *dstptr = dst.release();
    return ZQ_ERROR_NONE;
}

zqerror zq_urlencode_string(zqurlencode *zqurlencode, char **dstptr, const char *src)
{
    ZQ_ASSERT(zqurlencode != NULL);
    ZQ_ASSERT(dstptr != NULL);
    ZQ_ASSERT(src != NULL);

    char *dst = nullptr;
    const size_t srclen = strlen(src);
    size_t len = 0;
    zqerror result = zq_urlencode_buffer(zqurlencode, nullptr, &len, src, srclen);
    if (result == ZQ_ERROR_NONE) { // only an empty string needs no room
        dst = zq_strdup("");
        if (!dst) {
            ZQ_LOG(7, "not enough memory for an empty result string");
            result = ZQ_ERROR_NO_MEMORY;
        }
    } else if (result == ZQ_ERROR_OUT_OF_RANGE) {
        result = zq_urlencode_fill(zqurlencode, &dst, src, srclen, len);
    } else {
        ZQ_LOG(7, "encoding resulted an unexpected error %d (%s)", result, zq_error_string(result));
    }
    ZQ_ASSERT(dst == NULL || result == ZQ_ERROR_NONE);
    ZQ_ASSERT(dst != NULL || result != ZQ_ERROR_NONE);
    *dstptr = dst;
    return result;
}

char *zq_urlencode(const char *src)
{
    ZQ_ASSERT(src != NULL);

    owned<zqurlencode, zq_urlencode_destroy> context(zq_urlencode_create());
    if (!context) {
        ZQ_LOG(7, "unable to create URL encoding context");
        return nullptr;
    }
    char *dst;
    zqerror result = zq_urlencode_string(context.get(), &dst, src);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "unable to urlencode string '%s', error %d (%s)", src, result,
               zq_error_string(result));
    return dst;
}
