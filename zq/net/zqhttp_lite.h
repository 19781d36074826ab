#ifndef ZQ_NET_ZQHTTP_LITE_H
#define ZQ_NET_ZQHTTP_LITE_H

#include "zq/net/zqhttp.h"

ZQ_BEGIN_DECLS

/* The HTTP/1.0 transport for a zqhttp (RFC 1945): plain TCP, one connection for each exchange, no
 * TLS, no keep-alive. A chunked body is delivered with its chunk framing, since HTTP/1.0 has none.
 * A status or header line may have 4096 bytes with its line end; a longer one ends the transfer
 * with ZQ_ERROR_MESSAGE_TOO_LONG.
 *
 * URL, request body and added headers serve exactly one exchange. Set them again before each
 * zq_http_perform(); a redirected request goes out without body and added headers.
 *
 * Sockets are written without any no-signal option: an application calls zq_signal_ignore_sigpipe()
 * once, or a server that closes early ends it with SIGPIPE. */

/* zq_http_lite_create returns a zqhttp that speaks HTTP/1.0, or null when out of memory. Everything
 * but the request body and headers is set through the functions of zqhttp.h. */
ZQ_API zqhttp *zq_http_lite_create(void);

/* zq_http_lite_set_request_body keeps a copy of the body for the next exchange, replacing an
 * earlier one. Returns ZQ_ERROR_NO_MEMORY, the earlier one then being kept, when it cannot be
 * copied. */
ZQ_API zqerror zq_http_lite_set_request_body(zqhttp *zqhttp, const void *data, size_t size);

/* zq_http_lite_add_header adds a copy of one complete header line, "Name: value" without line end,
 * to the next exchange. A Content-Length line goes out beside the automatic one. Returns
 * ZQ_ERROR_NO_MEMORY when it cannot be copied. */
ZQ_API zqerror zq_http_lite_add_header(zqhttp *zqhttp, const char *header);

ZQ_END_DECLS

#endif
