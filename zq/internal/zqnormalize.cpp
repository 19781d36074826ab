#include "zq/internal/zqnormalize.h"

#ifdef __APPLE__

#include <CoreFoundation/CoreFoundation.h>
#include <memory>

namespace {
struct cf_release {
    void operator()(CFTypeRef object) const { CFRelease(object); }
};
template <class T>
using cf_owned = std::unique_ptr<std::remove_pointer_t<T>, cf_release>;
} // namespace

bool utf8_nfc(const char *text, char *buffer, size_t size)
{
    cf_owned<CFStringRef> string(CFStringCreateWithCStringNoCopy(
        kCFAllocatorDefault, text, kCFStringEncodingUTF8, kCFAllocatorNull));
    if (!string)
        return false;
    cf_owned<CFMutableStringRef> composed(
        CFStringCreateMutableCopy(kCFAllocatorDefault, 0, string.get()));
    if (!composed)
        return false;
    CFStringNormalize(composed.get(), kCFStringNormalizationFormC);
    return CFStringGetCString(composed.get(), buffer, static_cast<CFIndex>(size),
                              kCFStringEncodingUTF8);
}

#else

#include <cstring>
#include <utf8proc.h>

#include "zq/internal/zqowned.h"

static constexpr auto FORM = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE);

// The decomposed text, for utf8proc_reencode() to compose and encode in place; null on failure.
static utf8proc_int32_t *utf8_decompose(const char *text, size_t len, utf8proc_ssize_t *count)
{
    const auto *bytes = reinterpret_cast<const utf8proc_uint8_t *>(text);
    const auto bytecount = static_cast<utf8proc_ssize_t>(len);
    *count = utf8proc_decompose(bytes, bytecount, nullptr, 0, FORM);
    if (*count < 0)
        return nullptr;
    // One more for the terminator.
    owned_block<utf8proc_int32_t> points(static_cast<utf8proc_int32_t *>(
        zq_calloc(static_cast<size_t>(*count) + 1, sizeof(utf8proc_int32_t))));
    if (!points || utf8proc_decompose(bytes, bytecount, points.get(), *count, FORM) != *count)
        return nullptr;
    return points.release();
}

bool utf8_nfc(const char *text, char *buffer, size_t size)
{
    utf8proc_ssize_t count;
    owned_block<utf8proc_int32_t> points(utf8_decompose(text, strlen(text), &count));
    if (!points)
        return false;
    utf8proc_ssize_t len = utf8proc_reencode(points.get(), count, FORM);
    if (len < 0 || static_cast<size_t>(len) >= size)
        return false;
    memcpy(buffer, points.get(), static_cast<size_t>(len) + 1);
    return true;
}

#endif
