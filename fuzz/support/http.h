#ifndef FUZZ_SUPPORT_HTTP_H
#define FUZZ_SUPPORT_HTTP_H

#include "fuzz/support/fuzz.h"
#include "zq/internal/zqowned.h"
#include "zq/net/zqhttp.h"

// The body kept in memory, as both getters give it; empty when there is none.
inline std::string stored_body(zqhttp *http)
{
    char *text;
    void *data;
    size_t size;
    const zqerror result = zq_http_get_response_body(http, &text);
    FUZZ_CHECK(zq_http_get_response_body_and_size(http, &data, &size) == result);
    const owned_block<> text_owner(text), data_owner(static_cast<char *>(data));
    if (result != ZQ_ERROR_NONE) {
        FUZZ_CHECK(result == ZQ_ERROR_INVALID_ARGUMENT && !data && !text && size == 0);
        return "";
    }
    const std::string body(data_owner.get(), size);
    FUZZ_CHECK(size > 0 && std::string(text, size + 1) == body + '\0');
    return body;
}

#endif
