#ifndef ZQ_INTERNAL_ZQHEADERLOOKUP_H
#define ZQ_INTERNAL_ZQHEADERLOOKUP_H

#include "zq/net/zqhttpheaders.h"

// zq_httpheaders_get() for a name in lower case. It takes no memory, so that null always means that
// there is no such field: what a message means must not change when memory runs out.
const char *httpheaders_lookup(zqhttpheaders *headers, const char *lowercase_name);

#endif
