#ifndef ZQ_NET_ZQHTTP_H
#define ZQ_NET_ZQHTTP_H

#include <stdio.h>

#include "zq/util/zqerror.h"

ZQ_BEGIN_DECLS

/* An HTTP client without a network: a zqhttp holds the settings of a request, runs the transfer
 * with its redirects, timeouts, abort and progress reports, and collects the response. A transport
 * does the exchange itself; zq_http_lite_create() (zqhttp_lite.h) makes an object with the
 * library's own.
 *
 *     zqhttp *http = zq_http_lite_create();
 *     if (http != NULL && zq_http_set_url(http, "http://localhost/") == ZQ_ERROR_NONE &&
 *         zq_http_perform(http) == ZQ_ERROR_NONE)
 *         printf("%d\n", (int)zq_http_get_status_code(http));
 *     if (http != NULL)
 *         zq_http_destroy(http);
 *
 * An object belongs to one thread at a time; of the setters, only zq_http_abort() and, in the proxy
 * callback, zq_http_set_proxy() may be called while zq_http_perform() runs. */
ZQ_OBJECT(zqhttp);

/* Called before each attempt, also after a redirect, with the parts of the URL's server. It may
 * call zq_http_set_proxy(). A result other than ZQ_ERROR_NONE ends the transfer with it. */
typedef zqerror (*zq_http_proxy_callback)(zqhttp *zqhttp, const char *scheme, const char *hostname,
                                          uint32_t port, void *context);

/* Receives one piece of the response body, at least one byte. A result other than ZQ_ERROR_NONE
 * ends the transfer with it. */
typedef zqerror (*zq_http_response_body_callback)(const void *data, size_t size, void *context);

/* Receives the bytes transferred so far and their total, -1 while unknown. A result other than
 * ZQ_ERROR_NONE aborts the transfer. */
typedef zqerror (*zq_http_progress_callback)(int64_t current, int64_t total, void *context);

/* ---- URLs ---- */

/* zq_http_parse_url splits an absolute URL, as in "http://user@host:81/path?query#fragment", into
 * "http", "host", 81 and "/path?query#fragment".
 *
 * Every output may be null. The caller frees each text with zq_free(). On failure all texts are
 * null and the port is 0, or that of the URL when only the query could not be copied.
 * Scheme and host are copied as they are, user information is skipped. Only '/' ends the host, and
 * IPv6 literals are not supported. Without a port in the URL it is that of the scheme (ftp 21,
 * http 80, https 443, icap 1344, in lower case), or 0. The query is "/" when the URL has none.
 *   ZQ_ERROR_INVALID_ARGUMENT  no "://", two colons in the host, or a port outside 1 to 65535
 *   ZQ_ERROR_NO_MEMORY         out of memory
 * Any thread. */
ZQ_API zqerror zq_http_parse_url(const char *url, char **schemeptr, char **hostnameptr,
                                 uint32_t *portptr, char **queryptr);

/* ---- life ---- */

/* zq_http_generic_create returns an object without a transport, for a transport to fill in, or null
 * when out of memory. Method GET, no proxy, no limit on the transfer, 30 seconds of idle time. */
ZQ_API zqhttp *zq_http_generic_create(void);

/* zq_http_destroy releases the object and its transport. */
ZQ_API void zq_http_destroy(zqhttp *zqhttp);

/* zq_http_reset forgets request and response: URL, method, body and progress callbacks, status code
 * and body. Proxy, proxy callback, timeouts and received headers stay. Returns the result of the
 * transport's own reset. */
ZQ_API zqerror zq_http_reset(zqhttp *zqhttp);

/* ---- settings ---- */

/* zq_http_set_proxy sets the proxy, its port from 1 to 65535; a null `hostname` means none.
 * Returns ZQ_ERROR_NO_MEMORY, the old setting being kept, when the name cannot be copied. */
ZQ_API zqerror zq_http_set_proxy(zqhttp *zqhttp, const char *hostname, uint32_t port);

/* zq_http_get_proxy reports the proxy; each output may be null. The name belongs to the object and
 * is null when there is none. */
ZQ_API void zq_http_get_proxy(zqhttp *zqhttp, const char **hostnameptr, uint32_t *portptr);

/* zq_http_set_proxy_callback stores the callback and its context; null for none. */
ZQ_API void zq_http_set_proxy_callback(zqhttp *zqhttp, zq_http_proxy_callback callback,
                                       void *context);

/* zq_http_set_timeout limits the whole transfer, from the next zq_http_perform() on; negative
 * seconds mean no limit. While a body is read the limit starts afresh with each read. */
ZQ_API void zq_http_set_timeout(zqhttp *zqhttp, int32_t seconds, uint32_t microseconds);

/* zq_http_set_idle_timeout limits the time in which nothing is sent or received; negative seconds
 * mean no limit. It does not cut a read of the body short: while a server is silent there, only
 * zq_http_set_timeout() ends the wait. */
ZQ_API void zq_http_set_idle_timeout(zqhttp *zqhttp, int32_t seconds, uint32_t microseconds);

/* zq_http_get_idle_timeout reports the idle timeout as it was set. */
ZQ_API void zq_http_get_idle_timeout(zqhttp *zqhttp, int32_t *secondsptr,
                                     uint32_t *microsecondsptr);

/* zq_http_set_url hands the URL to the transport and keeps the part up to its path.
 *   ZQ_ERROR_UNSUPPORTED       the transport takes no URL
 *   ZQ_ERROR_INVALID_ARGUMENT  fewer than two slashes
 *   ZQ_ERROR_NO_MEMORY         out of memory
 * and whatever the transport returns. The URL is not parsed before zq_http_perform(). */
ZQ_API zqerror zq_http_set_url(zqhttp *zqhttp, const char *url);

/* zq_http_set_method_get makes the next requests GET, as they are in a new object. */
ZQ_API void zq_http_set_method_get(zqhttp *zqhttp);

/* zq_http_set_method_post makes the next requests POST. */
ZQ_API void zq_http_set_method_post(zqhttp *zqhttp);

/* zq_http_set_method_put makes the next requests PUT. */
ZQ_API void zq_http_set_method_put(zqhttp *zqhttp);

/* zq_http_set_method_delete makes the next requests DELETE. */
ZQ_API void zq_http_set_method_delete(zqhttp *zqhttp);

/* zq_http_set_method sets any method, sent as it is written. Returns ZQ_ERROR_NO_MEMORY, the object
 * then being without a method, when it cannot be copied. */
ZQ_API zqerror zq_http_set_method(zqhttp *zqhttp, const char *method);

/* zq_http_get_method returns the method's text, "GET" when there is none. A custom text belongs to
 * the object and is valid until the method is set again. */
ZQ_API const char *zq_http_get_method(zqhttp *zqhttp);

/* zq_http_set_response_body_callback streams the body to the callback instead of keeping it in
 * memory; null for memory. Large bodies are better streamed: in memory they grow piece by piece, to
 * their exact size each time. */
ZQ_API void zq_http_set_response_body_callback(zqhttp *zqhttp,
                                               zq_http_response_body_callback callback,
                                               void *context);

/* zq_http_set_upload_progress_callback sets the callback told of sending, at most about once a
 * second and at the edges of each phase. */
ZQ_API void zq_http_set_upload_progress_callback(zqhttp *zqhttp, zq_http_progress_callback callback,
                                                 void *context);

/* zq_http_set_download_progress_callback sets the callback told of receiving, likewise. */
ZQ_API void zq_http_set_download_progress_callback(zqhttp *zqhttp,
                                                   zq_http_progress_callback callback,
                                                   void *context);

/* zq_http_set_progress_callbacks sets both progress callbacks. */
ZQ_API void zq_http_set_progress_callbacks(zqhttp *zqhttp, zq_http_progress_callback upcallback,
                                           void *upcontext, zq_http_progress_callback downcallback,
                                           void *downcontext);

/* ---- the transfer ---- */

/* zq_http_perform runs the transfer and follows redirects, status 301 and 302, up to ten attempts
 * in all. Any other status is a success: see zq_http_get_status_code(). A Location is used as it
 * is, or after the server's part of the URL when it begins with '/'. ZQ_ERROR_UNSUPPORTED    no
 * transport, or not for this URL ZQ_ERROR_TIMER_EXPIRED  the full-transfer timeout
 *   ZQ_ERROR_TIMED_OUT      the idle timeout
 *   ZQ_ERROR_CANCELED       zq_http_abort() was called, or a progress callback aborted
 *   ZQ_ERROR_PROTOCOL       the reply is not HTTP, or a redirect goes nowhere
 *   ZQ_ERROR_OUT_OF_RANGE   too many redirects
 * and whatever the callbacks and the transport return. */
ZQ_API zqerror zq_http_perform(zqhttp *zqhttp);

/* zq_http_abort ends the running transfer at its next step; it is meant for callbacks. The end of
 * a transfer clears it. */
ZQ_API void zq_http_abort(zqhttp *zqhttp);

/* zq_http_is_aborted returns 1 once the running transfer was aborted, else 0. */
ZQ_API int zq_http_is_aborted(zqhttp *zqhttp);

/* ---- the response ---- */

/* zq_http_get_status_code returns the status of the last exchange, 0 when there was none. */
ZQ_API int32_t zq_http_get_status_code(zqhttp *zqhttp);

/* zq_http_get_response_header returns a response header, its name in any letter case, or null when
 * it is missing (or memory is, which is logged). The text belongs to the object and is valid until
 * the next zq_http_perform(). */
ZQ_API const char *zq_http_get_response_header(zqhttp *zqhttp, const char *name);

/* zq_http_get_response_header_int reads a response header as a decimal number; text after it is
 * ignored. On failure *valueptr is -1.
 *   ZQ_ERROR_NOT_FOUND     zq_http_get_response_header() gives null
 *   ZQ_ERROR_OUT_OF_RANGE  it does not fit 32 bits */
ZQ_API zqerror zq_http_get_response_header_int(zqhttp *zqhttp, const char *name, int32_t *valueptr);

/* zq_http_get_response_body returns a copy of the body kept in memory, with a terminating zero; the
 * caller frees it with zq_free(). On failure *bodyptr is null.
 *   ZQ_ERROR_INVALID_ARGUMENT  there is none
 *   ZQ_ERROR_OUT_OF_RANGE      it is too long for a terminated copy
 *   ZQ_ERROR_NO_MEMORY         out of memory */
ZQ_API zqerror zq_http_get_response_body(zqhttp *zqhttp, char **bodyptr);

/* zq_http_get_response_body_and_size returns a copy of the body kept in memory and its size in
 * bytes; the caller frees it with zq_free(). On failure they are null and 0.
 *   ZQ_ERROR_INVALID_ARGUMENT  there is none
 *   ZQ_ERROR_NO_MEMORY         out of memory */
ZQ_API zqerror zq_http_get_response_body_and_size(zqhttp *zqhttp, void **bodyptr, size_t *sizeptr);

/* ---- downloads in one call ---- */

/* Makes the object of a download, such as zq_http_lite_create. */
typedef zqhttp *(*zq_http_create_callback)(void);

/* zq_http_generic_get_url_to_fileptr_with_timeout writes what a GET of `url` delivers to an open
 * file, within the full-transfer timeout (negative seconds: none).
 *   ZQ_ERROR_GENERIC  no object could be made, or the status was not 200
 *   ZQ_ERROR_WRITE    the file did not take a piece
 * and whatever zq_http_set_url() and zq_http_perform() return. A part may have been written. */
ZQ_API zqerror zq_http_generic_get_url_to_fileptr_with_timeout(const char *url, FILE *file,
                                                               int32_t seconds,
                                                               uint32_t microseconds,
                                                               zq_http_create_callback createfunc);

/* zq_http_generic_get_url_to_file downloads without a limit into a new file, which stays, partly
 * written, when the download fails. ZQ_ERROR_WRITE also when the file cannot be created. */
ZQ_API zqerror zq_http_generic_get_url_to_file(const char *url, const char *filename,
                                               zq_http_create_callback createfunc);

/* ---- for transports: the implementation ---- */

/* Releases the transport's context. */
typedef void (*zq_http_destroy_callback)(void *context);
/* Forgets the transport's request. */
typedef zqerror (*zq_http_reset_callback)(zqhttp *zqhttp);
/* Keeps a copy of the full URL. */
typedef zqerror (*zq_http_url_callback)(zqhttp *zqhttp, const char *url);
/* Performs one exchange; reports status, headers and body through the functions below. */
typedef zqerror (*zq_http_perform_callback)(zqhttp *zqhttp);

/* zq_http_set_context stores the transport's own pointer. */
ZQ_API void zq_http_set_context(zqhttp *zqhttp, void *context);

/* zq_http_get_context returns the transport's own pointer. */
ZQ_API void *zq_http_get_context(zqhttp *zqhttp);

/* zq_http_set_destroy_callback stores the callback of zq_http_destroy(). */
ZQ_API void zq_http_set_destroy_callback(zqhttp *zqhttp, zq_http_destroy_callback callback);

/* zq_http_set_reset_callback stores the callback of zq_http_reset(). */
ZQ_API void zq_http_set_reset_callback(zqhttp *zqhttp, zq_http_reset_callback callback);

/* zq_http_set_url_callback stores the callback of zq_http_set_url(). */
ZQ_API void zq_http_set_url_callback(zqhttp *zqhttp, zq_http_url_callback callback);

/* zq_http_set_perform_callback stores the callback that zq_http_perform() calls for each attempt.
 */
ZQ_API void zq_http_set_perform_callback(zqhttp *zqhttp, zq_http_perform_callback callback);

/* ---- for transports: reporting the response ---- */

/* zq_http_set_status_code reports the status. */
ZQ_API void zq_http_set_status_code(zqhttp *zqhttp, int32_t code);

/* zq_http_write_response_header reports one header; `value` may be null. Content-Length sets the
 * total of the download progress, -1 when it is no number. Returns ZQ_ERROR_NO_MEMORY when the
 * header cannot be stored. */
ZQ_API zqerror zq_http_write_response_header(zqhttp *zqhttp, const char *name, const char *value);

/* zq_http_write_response_body reports a piece of the body of at least one byte, which goes to
 * memory or to the body callback, whose failure is returned. ZQ_ERROR_NO_MEMORY     it cannot be
 * kept in memory ZQ_ERROR_OUT_OF_RANGE  its size, or that of all pieces, does not fit a signed
 * 64-bit integer */
ZQ_API zqerror zq_http_write_response_body(zqhttp *zqhttp, const void *data, size_t size);

/* ---- for transports: time and progress ---- */

/* zq_http_timeout_check reports how long the next wait may last, -1 seconds for no limit, 0 on
 * failure; both outputs may be null. A wait also ends when a progress report is due.
 *   ZQ_ERROR_TIMER_EXPIRED  the full-transfer timeout has passed
 *   ZQ_ERROR_TIMED_OUT      the idle timeout has passed */
ZQ_API zqerror zq_http_timeout_check(zqhttp *zqhttp, int32_t *secondsptr,
                                     uint32_t *microsecondsptr);

/* zq_http_timeout_reset starts the full-transfer timeout afresh and reports its full length. */
ZQ_API void zq_http_timeout_reset(zqhttp *zqhttp, int32_t *secondsptr, uint32_t *microsecondsptr);

/* zq_http_reset_idle_timeout starts the idle timeout afresh: something was sent or received. */
ZQ_API void zq_http_reset_idle_timeout(zqhttp *zqhttp);

/* zq_http_progress_upload_check reports upload progress when the last report is a second old. */
ZQ_API void zq_http_progress_upload_check(zqhttp *zqhttp);

/* zq_http_progress_download_check reports download progress when the last report is a second old.
 */
ZQ_API void zq_http_progress_download_check(zqhttp *zqhttp);

/* zq_http_progress_upload_force reports upload progress now. */
ZQ_API void zq_http_progress_upload_force(zqhttp *zqhttp);

/* zq_http_progress_download_force reports download progress now. */
ZQ_API void zq_http_progress_download_force(zqhttp *zqhttp);

ZQ_END_DECLS

#endif
