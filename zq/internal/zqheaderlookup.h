#ifndef ZQ_INTERNAL_ZQHEADERLOOKUP_H
#define ZQ_INTERNAL_ZQHEADERLOOKUP_H

#include "zq/net/zqhttp.h"
#include "zq/net/zqhttpheaders.h"

// These take a name in lower case and no memory, so that a field which is not found is not there:
// what a message means must not change when memory runs out.

// As zq_httpheaders_get().
const char *httpheaders_lookup(zqhttpheaders *headers, const char *lowercase_name);

// As zq_http_get_response_header_int().
zqerror http_lookup_response_int(zqhttp *zqhttp, const char *lowercase_name, int32_t *valueptr);

#endif
