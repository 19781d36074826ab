#ifndef TESTS_NET_HTTP_H
#define TESTS_NET_HTTP_H

// What the tests of HTTP clients share.

#include <vector>

#include "tests/support/expect.h"
#include "zq/net/zqhttp.h"

using Http = Owned<zqhttp, zq_http_destroy>;
using Reports = std::vector<std::pair<int64_t, int64_t>>; // of progress

inline zqerror report(int64_t current, int64_t total, void *reports)
{
    static_cast<Reports *>(reports)->emplace_back(current, total);
    return ZQ_ERROR_NONE;
}

// The body kept in memory, or "(none)".
inline std::string body_of(zqhttp *http)
{
    void *data;
    size_t size;
    if (zq_http_get_response_body_and_size(http, &data, &size) != ZQ_ERROR_NONE)
        return "(none)";
    const ZqString owner(static_cast<char *>(data));
    return std::string(owner.get(), size);
}

#endif
