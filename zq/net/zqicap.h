#ifndef ZQ_NET_ZQICAP_H
#define ZQ_NET_ZQICAP_H

#include "zq/util/zqerror.h"

ZQ_BEGIN_DECLS

/* A client of the Internet Content Adaptation Protocol (RFC 3507): one REQMOD, RESPMOD or OPTIONS
 * request with encapsulated HTTP parts goes to an ICAP server over a connection of its own, and the
 * reply is collected.
 *
 * Method and parts serve exactly one zq_icap_perform(), which clears them whatever its outcome;
 * URL, timeout and Allow: 204 stay. Bodies go out chunked, unless the HTTP headers set with them
 * announce "Transfer-Encoding: chunked": then they are taken to be chunked already, and the body of
 * the reply is kept with its chunk framing. Trailers, previews and the "ieof" extension are not
 * supported.
 *
 * An object belongs to one thread at a time; several objects may be used by several threads. Like
 * all users of sockets, programs call zq_signal_ignore_sigpipe() once. */
ZQ_OBJECT(zqicap);

/* One encapsulated part of a request; parts are not handed out. */
ZQ_OBJECT(zqicappart);

/* The parts, as indexes. */
enum {
    ZQ_ICAP_ENCAPSULATED_GEN_REQHDR = 0,
    ZQ_ICAP_ENCAPSULATED_GEN_RESHDR = 1,
    ZQ_ICAP_ENCAPSULATED_GEN_REQBODY = 2,
    ZQ_ICAP_ENCAPSULATED_GEN_RESBODY = 3,
    ZQ_ICAP_ENCAPSULATED_GEN_NUMTYPES = 4
};

/* Puts at most `capacity` bytes of the body at `buffer` and returns their number; 0 ends the body.
 */
typedef size_t (*zq_icap_request_body_callback)(void *buffer, size_t capacity, void *context);

/* zq_icap_create returns a client without a timeout, or null when out of memory. */
ZQ_API zqicap *zq_icap_create(void);

/* zq_icap_destroy releases the client with all that it holds. */
ZQ_API void zq_icap_destroy(zqicap *zqicap);

/* zq_icap_reset clears method, parts and body callback, and forgets the last reply. URL, timeout
 * and Allow: 204 are kept. */
ZQ_API void zq_icap_reset(zqicap *zqicap);

/* ---- the request ---- */

/* zq_icap_set_url stores a copy of an absolute URL such as "icap://host/service"; the port is 1344
 * unless the URL has one. ZQ_ERROR_NO_MEMORY keeps the old one. */
ZQ_API zqerror zq_icap_set_url(zqicap *zqicap, const char *url);

/* zq_icap_set_timeout limits the whole of each following exchange; seconds below 0: no limit. */
ZQ_API void zq_icap_set_timeout(zqicap *zqicap, int32_t seconds, uint32_t microseconds);

/* zq_icap_set_method_reqmod makes the next request a REQMOD: request headers are required, response
 * parts are not allowed. */
ZQ_API void zq_icap_set_method_reqmod(zqicap *zqicap);
/* zq_icap_set_method_respmod makes the next request a RESPMOD: response headers are required, a
 * request body is not allowed. */
ZQ_API void zq_icap_set_method_respmod(zqicap *zqicap);
/* zq_icap_set_method_options makes the next request an OPTIONS, which has no parts. */
ZQ_API void zq_icap_set_method_options(zqicap *zqicap);

/* zq_icap_set_allow_204 lets servers answer 204 when they change nothing; for all following
 * requests of this object. */
ZQ_API void zq_icap_set_allow_204(zqicap *zqicap);

/* zq_icap_set_request_headers stores a copy of an HTTP request line with its header block, `size`
 * bytes that include the final empty line.
 *   ZQ_ERROR_NO_MEMORY  out of memory
 *   ZQ_ERROR_SYNTAX     a header line has no colon; the part is set all the same */
ZQ_API zqerror zq_icap_set_request_headers(zqicap *zqicap, const void *reqhdr, size_t size);
/* zq_icap_set_response_headers stores an HTTP status line with its header block (size above 0).
 * Errors as for zq_icap_set_request_headers(). */
ZQ_API zqerror zq_icap_set_response_headers(zqicap *zqicap, const void *reshdr, size_t size);
/* zq_icap_set_request_body stores a copy of the body; performing with one of size 0 is misuse,
 * unless it counts as chunked already. ZQ_ERROR_NO_MEMORY leaves no body. */
ZQ_API zqerror zq_icap_set_request_body(zqicap *zqicap, const void *data, size_t size);
/* zq_icap_set_response_body stores a copy of the body (size above 0). ZQ_ERROR_NO_MEMORY leaves no
 * body. */
ZQ_API zqerror zq_icap_set_response_body(zqicap *zqicap, const void *data, size_t size);
/* zq_icap_set_request_body_callback streams the request body of a REQMOD from a callback, asked for
 * up to 4096 bytes at a time; a stored request body is then not sent. Each piece goes out as one
 * chunk. With RESPMOD the callback only makes the Encapsulated header announce a response body. */
ZQ_API void zq_icap_set_request_body_callback(zqicap *zqicap,
                                              zq_icap_request_body_callback callback,
                                              void *context);

/* zq_icap_perform sends the request and reads the reply.
 *   ZQ_ERROR_INVALID_ARGUMENT  no method, no URL or an unusable URL
 *   ZQ_ERROR_PROTOCOL          parts that do not go with the method (nothing is sent), or a reply
 *                              that breaks the protocol
 *   ZQ_ERROR_MESSAGE_TOO_LONG  a line of the reply exceeds 4096 bytes
 *   ZQ_ERROR_INTERNAL          a line of the reply was cut off
 *   ZQ_ERROR_UNSUPPORTED       the reply's headers do not come first
 *   ZQ_ERROR_SYNTAX            an ICAP header of the reply has no colon
 *   ZQ_ERROR_TIMED_OUT         the time is used up
 *   ZQ_ERROR_NO_MEMORY         out of memory
 * or what connecting, reading or writing failed with. The raw ICAP headers of replies accumulate
 * until zq_icap_reset(). */
ZQ_API zqerror zq_icap_perform(zqicap *zqicap);

/* zq_icap_build_encapsulated_header returns the value of the Encapsulated header for the present
 * parts, such as "req-hdr=0, req-body=120". The text belongs to the library and is valid until the
 * calling thread calls this or zq_icap_perform() again. */
ZQ_API const char *zq_icap_build_encapsulated_header(zqicap *zqicap);

/* zq_icap_part_is_chunk_encoded stores 1 when part `i` is a body whose HTTP headers announce
 * "Transfer-Encoding: chunked", else 0. ZQ_ERROR_NO_MEMORY when it cannot tell. */
ZQ_API zqerror zq_icap_part_is_chunk_encoded(zqicap *zqicap, unsigned int i, int *value_out);

/* zq_icap_http_part_has_chunked_transfer does the same for the header part itself. */
ZQ_API zqerror zq_icap_http_part_has_chunked_transfer(const zqicappart *part, int *value_out);

/* ---- the reply ---- */

/* zq_icap_get_status_code returns the ICAP status of the last reply, 0 before the first. */
ZQ_API int32_t zq_icap_get_status_code(zqicap *zqicap);

/* zq_icap_get_response_icap_headers stores a new terminated copy of the ICAP header lines as they
 * were received, which the caller frees with zq_free().
 *   ZQ_ERROR_INVALID_ARGUMENT  there are none
 *   ZQ_ERROR_NO_MEMORY         out of memory */
ZQ_API zqerror zq_icap_get_response_icap_headers(zqicap *zqicap, char **headersptr);

/* zq_icap_get_response_headers is the same for the encapsulated HTTP header block. */
ZQ_API zqerror zq_icap_get_response_headers(zqicap *zqicap, char **headersptr);

/* zq_icap_get_response_body_and_size stores a new copy of the encapsulated body and its size; on
 * failure null and 0. Errors as for zq_icap_get_response_icap_headers(). */
ZQ_API zqerror zq_icap_get_response_body_and_size(zqicap *zqicap, void **bodyptr, size_t *sizeptr);

ZQ_END_DECLS

#endif
