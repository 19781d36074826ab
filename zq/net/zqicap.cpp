// One exchange a connection: connect, send the request line with its headers, send the parts, read
// status, headers, encapsulated headers and chunked body. A single timer bounds all of it.
#include "zq/net/zqicap.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqbodystore.h"
#include "zq/internal/zqearlyreply.h"
#include "zq/internal/zqheaderlookup.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/internal/zqprotocolline.h"
#include "zq/io/zqhandle.h"
#include "zq/net/zqhandle_tcp.h"
#include "zq/net/zqhttp.h"
#include "zq/net/zqhttpheaders.h"
#include "zq/util/zqprintf.h"
#include "zq/util/zqstring.h"
#include "zq/util/zqtimeout.h"

static constexpr size_t BUFFER_SIZE = 4096;

enum icap_method : unsigned int { METHOD_NONE, METHOD_REQMOD, METHOD_RESPMOD, METHOD_OPTIONS };

struct zqicappart {
    unsigned char *data; // with one terminating zero behind its `size` bytes
    size_t size;
    zqhttpheaders *headers; // of the two header parts, when they could be parsed
};

struct zqicap {
    char *buffer;
    size_t bufferlen;
    zqtimeout *timeout;
    int32_t timeout_seconds;
    uint32_t timeout_microseconds;
    char *url;
    unsigned int method;
    zq_icap_request_body_callback request_body_callback;
    void *request_body_context;
    int allow204;
    zqicappart encapsulated[ZQ_ICAP_ENCAPSULATED_GEN_NUMTYPES];
    zqhandle *handle;
    int32_t statuscode;
    body_store icap_headers;
    zqhttpheaders *icap_header_table;
    unsigned long headeroffset;
    unsigned long bodyoffset;
    int hasbody;
    body_store encapsulated_headers;
    body_store response;
    early_reply early;
};

// ---- object ----

static void zq_icap_part_clear(zqicappart *part)
{
    zq_free(part->data);
    if (part->headers)
        zq_httpheaders_destroy(part->headers);
    *part = {};
}

// Method and parts serve one exchange.
static void zq_icap_reset_options(zqicap *zqicap)
{
    if (zqicap->handle)
        zq_handle_destroy(zqicap->handle);
    zqicap->handle = nullptr;
    early_reply_clear(&zqicap->early);
    zqicap->request_body_callback = nullptr;
    zqicap->request_body_context = nullptr;
    for (zqicappart &part : zqicap->encapsulated)
        zq_icap_part_clear(&part);
    zqicap->method = METHOD_NONE;
}

zqicap *zq_icap_create(void)
{
    owned<zqicap, zq_icap_destroy> icap(make_zeroed<zqicap>());
    if (!icap) {
        ZQ_LOG(7, "not enough memory for the zqicap context");
        return nullptr;
    }
    icap->bufferlen = BUFFER_SIZE;
    icap->buffer = static_cast<char *>(zq_malloc(icap->bufferlen));
    if (!icap->buffer) {
        ZQ_LOG(7, "not enough memory for receive buffer (%lu bytes)",
               static_cast<unsigned long>(icap->bufferlen));
        return nullptr;
    }
    icap->timeout = zq_timeout_create();
    if (!icap->timeout) {
        ZQ_LOG(7, "not enough memory for zqtimeout context");
        return nullptr;
    }
    icap->icap_header_table = zq_httpheaders_create();
    if (!icap->icap_header_table) {
        ZQ_LOG(7, "not enough memory for the response header hashtable");
        return nullptr;
    }
    icap->timeout_seconds = -1;
    return icap.release();
}

void zq_icap_destroy(zqicap *zqicap)
{
    ZQ_ASSERT(zqicap != NULL);

    zq_icap_reset(zqicap);
    if (zqicap->icap_header_table)
        zq_httpheaders_destroy(zqicap->icap_header_table);
    zq_free(zqicap->url);
    if (zqicap->timeout)
        zq_timeout_destroy(zqicap->timeout);
    zq_free(zqicap->buffer);
    zq_free(zqicap);
}

void zq_icap_reset(zqicap *zqicap)
{
    ZQ_ASSERT(zqicap != NULL);

    zq_icap_reset_options(zqicap);
    zqicap->headeroffset = 0;
    zqicap->bodyoffset = 0;
    zqicap->hasbody = 0;
    body_store_clear(&zqicap->icap_headers);
    body_store_clear(&zqicap->response);
    body_store_clear(&zqicap->encapsulated_headers);
}

// ---- settings ----

zqerror zq_icap_set_url(zqicap *zqicap, const char *url)
{
    ZQ_ASSERT(zqicap != NULL);
    ZQ_ASSERT(url != NULL);

    char *copy = zq_strdup(url);
    if (!copy) {
        ZQ_LOG(7, "not enough memory to set icap url to '%s'", url);
        return ZQ_ERROR_NO_MEMORY;
    }
    zq_free(zqicap->url);
    zqicap->url = copy;
    return ZQ_ERROR_NONE;
}

void zq_icap_set_timeout(zqicap *zqicap, int32_t seconds, uint32_t microseconds)
{
    zqicap->timeout_seconds = seconds;
    zqicap->timeout_microseconds = microseconds;
}

void zq_icap_set_method_reqmod(zqicap *zqicap)
{
    ZQ_ASSERT(zqicap != NULL);

    zqicap->method = METHOD_REQMOD;
}

void zq_icap_set_method_respmod(zqicap *zqicap)
{
    ZQ_ASSERT(zqicap != NULL);

    zqicap->method = METHOD_RESPMOD;
}

void zq_icap_set_method_options(zqicap *zqicap)
{
    ZQ_ASSERT(zqicap != NULL);

    zqicap->method = METHOD_OPTIONS;
}

void zq_icap_set_allow_204(zqicap *zqicap)
{
    ZQ_ASSERT(zqicap != NULL);

    zqicap->allow204 = 1;
}

static zqerror zq_icap_parse_part_headers(zqicappart *part)
{
    owned<zqhttpheaders, zq_httpheaders_destroy> headers(zq_httpheaders_create());
    if (!headers)
        return ZQ_ERROR_NO_MEMORY;
    zqerror result = zq_httpheaders_parse_from_message(headers.get(), part->data, part->size);
    if (result == ZQ_ERROR_NONE)
        part->headers = headers.release();
    return result;
}

static zqerror zq_icap_set_encapsulated_part(zqicap *zqicap, unsigned int i, const void *data,
                                             size_t size)
{
    zqicappart *part = &zqicap->encapsulated[i];
    zq_icap_part_clear(part);
    part->data = size < SIZE_MAX ? static_cast<unsigned char *>(zq_malloc(size + 1)) : nullptr;
    if (!part->data) {
        ZQ_LOG(7, "not enough memory for the encapsulated part (%lu bytes)",
               static_cast<unsigned long>(size));
        return ZQ_ERROR_NO_MEMORY;
    }
    memcpy(part->data, data, size);
    part->data[size] = 0;
    part->size = size;
    if (i == ZQ_ICAP_ENCAPSULATED_GEN_REQHDR || i == ZQ_ICAP_ENCAPSULATED_GEN_RESHDR)
        return zq_icap_parse_part_headers(part);
    return ZQ_ERROR_NONE;
}

zqerror zq_icap_set_request_headers(zqicap *zqicap, const void *reqhdr, size_t size)
{
    ZQ_ASSERT(zqicap != NULL);
    ZQ_ASSERT(reqhdr != NULL);

    return zq_icap_set_encapsulated_part(zqicap, ZQ_ICAP_ENCAPSULATED_GEN_REQHDR, reqhdr, size);
}

zqerror zq_icap_set_response_headers(zqicap *zqicap, const void *reshdr, size_t size)
{
    ZQ_ASSERT(zqicap != NULL);
    ZQ_ASSERT(reshdr != NULL);
    ZQ_ASSERT(size > 0);

    return zq_icap_set_encapsulated_part(zqicap, ZQ_ICAP_ENCAPSULATED_GEN_RESHDR, reshdr, size);
}

zqerror zq_icap_set_request_body(zqicap *zqicap, const void *data, size_t size)
{
    ZQ_ASSERT(zqicap != NULL);
    ZQ_ASSERT(data != NULL);

    return zq_icap_set_encapsulated_part(zqicap, ZQ_ICAP_ENCAPSULATED_GEN_REQBODY, data, size);
}

zqerror zq_icap_set_response_body(zqicap *zqicap, const void *data, size_t size)
{
    ZQ_ASSERT(zqicap != NULL);
    ZQ_ASSERT(data != NULL);
    ZQ_ASSERT(size > 0);

    return zq_icap_set_encapsulated_part(zqicap, ZQ_ICAP_ENCAPSULATED_GEN_RESBODY, data, size);
}

void zq_icap_set_request_body_callback(zqicap *zqicap, zq_icap_request_body_callback callback,
                                       void *context)
{
    ZQ_ASSERT(zqicap != NULL);

    zqicap->request_body_callback = callback;
    zqicap->request_body_context = context;
}

// ---- the timer ----

static zqerror zq_icap_timeout_check(zqicap *zqicap, int32_t *seconds, uint32_t *microseconds)
{
    ZQ_ASSERT_TEXT(zqicap->timeout, "zqicap->zqtimeout");

    // Only 1 means expired; -1 stands for no limit.
    if (zq_timeout_check(zqicap->timeout, seconds, microseconds) != 1)
        return ZQ_ERROR_NONE;
    ZQ_LOG(7, "a timeout occurred");
    return ZQ_ERROR_TIMED_OUT;
}

// Gives the read that follows what is left of the time.
static zqerror zq_icap_limit_read(zqicap *zqicap)
{
    int32_t seconds;
    uint32_t microseconds;
    zqerror result = zq_icap_timeout_check(zqicap, &seconds, &microseconds);
    if (result == ZQ_ERROR_NONE)
        zq_handle_set_read_timeout(zqicap->handle, seconds, microseconds);
    return result;
}

static zqerror zq_icap_limit_write(zqicap *zqicap, zqhandle *handle)
{
    int32_t seconds;
    uint32_t microseconds;
    zqerror result = zq_icap_timeout_check(zqicap, &seconds, &microseconds);
    if (result == ZQ_ERROR_NONE)
        zq_handle_set_write_timeout(handle, seconds, microseconds);
    return result;
}

// ---- the Encapsulated header of the request ----

static bool zq_icap_has_part(const zqicap *zqicap, unsigned int i)
{
    if (zqicap->encapsulated[i].data)
        return true;
    if (!zqicap->request_body_callback)
        return false;
    return (i == ZQ_ICAP_ENCAPSULATED_GEN_REQBODY && zqicap->method == METHOD_REQMOD) ||
           (i == ZQ_ICAP_ENCAPSULATED_GEN_RESBODY && zqicap->method == METHOD_RESPMOD);
}

const char *zq_icap_build_encapsulated_header(zqicap *zqicap)
{
    ZQ_ASSERT(zqicap != NULL);
    const zqicappart *parts = zqicap->encapsulated;
    ZQ_ASSERT_TEXT(!parts[ZQ_ICAP_ENCAPSULATED_GEN_REQBODY].data ||
                       !parts[ZQ_ICAP_ENCAPSULATED_GEN_RESBODY].data,
                   "zqicap->encapsulated[ZQ_ICAP_ENCAPSULATED_GEN_REQBODY].data == NULL || "
                   "zqicap->encapsulated[ZQ_ICAP_ENCAPSULATED_GEN_RESBODY].data == NULL");

    // One buffer a thread: clients of several threads do not disturb each other.
    static thread_local char text[1024];
    static constexpr const char *names[] = {"req-hdr=", "res-hdr=", "req-body=", "res-body="};
    unsigned long offset = 0;
    size_t used = 0;
    bool has_body = false;
    text[0] = '\0';
    for (unsigned int i = 0; i < ZQ_ICAP_ENCAPSULATED_GEN_NUMTYPES; i++) {
        if (!zq_icap_has_part(zqicap, i))
            continue;
        used += static_cast<size_t>(zq_snprintf(text + used, sizeof(text) - used, "%s%s%lu",
                                                used ? ", " : "", names[i], offset));
        offset += parts[i].size;
        has_body = has_body || i >= ZQ_ICAP_ENCAPSULATED_GEN_REQBODY;
    }
    if (!has_body)
        zq_snprintf(text + used, sizeof(text) - used, "%snull-body=%lu", used ? ", " : "", offset);
    return text;
}

// ---- chunk detection ----

zqerror zq_icap_http_part_has_chunked_transfer(const zqicappart *part, int *value_out)
{
    ZQ_ASSERT(part != NULL);
    ZQ_ASSERT(value_out != NULL);

    *value_out = 0;
    const char *value =
        part->headers ? httpheaders_lookup(part->headers, "transfer-encoding") : nullptr;
    if (!value)
        return ZQ_ERROR_NONE;
    owned_block<> lowered(zq_strdup_lowercase(value));
    if (!lowered)
        return ZQ_ERROR_NO_MEMORY;
    if (strstr(lowered.get(), "chunked")) {
        ZQ_LOG(10, "Part already chunk-encoded, not encoding again");
        *value_out = 1;
    }
    return ZQ_ERROR_NONE;
}

zqerror zq_icap_part_is_chunk_encoded(zqicap *zqicap, unsigned int i, int *value_out)
{
    ZQ_ASSERT(zqicap != NULL);
    ZQ_ASSERT(value_out != NULL);

    const zqicappart *parts = zqicap->encapsulated;
    switch (i) {
    case ZQ_ICAP_ENCAPSULATED_GEN_REQBODY:
        return zq_icap_http_part_has_chunked_transfer(&parts[ZQ_ICAP_ENCAPSULATED_GEN_REQHDR],
                                                      value_out);
    case ZQ_ICAP_ENCAPSULATED_GEN_RESBODY:
        return zq_icap_http_part_has_chunked_transfer(&parts[ZQ_ICAP_ENCAPSULATED_GEN_RESHDR],
                                                      value_out);
    default:
        *value_out = 0;
        return ZQ_ERROR_NONE;
    }
}

// ---- sending the parts ----

// Writes all, taking an early reply whenever the server stops reading; the timer is looked at only
// then. False with the handle's error set.
static bool zq_icap_write(zqicap *zqicap, const void *data, size_t size)
{
    static constexpr uint32_t stall_microseconds = 20000;
    const char *rest = static_cast<const char *>(data);
    for (;;) {
        zq_handle_set_write_timeout(zqicap->handle, 0, stall_microseconds);
        size_t count = zq_handle_write(zqicap->handle, rest, size);
        if (count == size)
            return true;
        if (zq_handle_get_error(zqicap->handle) != ZQ_ERROR_TIMED_OUT ||
            zq_timeout_check(zqicap->timeout, nullptr, nullptr) == 1)
            return false;
        rest += count;
        size -= count;
        if (!early_reply_collect(&zqicap->early, zqicap->handle, zqicap->timeout)) {
            zq_handle_set_error(zqicap->handle, ZQ_ERROR_NO_MEMORY);
            return false;
        }
    }
}

// The CR LF behind the data is left to the chunk end or missing between chunks: servers have been
// fed this framing since the first release, so it stays.
static zqerror zq_icap_send_chunk(zqicap *zqicap, const void *chunkdata, size_t chunklen)
{
    ZQ_ASSERT(chunklen > 0);

    owned_block<> size_line(zq_strdupf("%lx\r\n", static_cast<unsigned long>(chunklen)));
    if (!size_line) {
        ZQ_LOG(7, "not enough memory for chunk length");
        return ZQ_ERROR_NO_MEMORY;
    }
    size_t size_line_len = strlen(size_line.get());
    ZQ_LOG(10, "chunk len: %lx", static_cast<unsigned long>(size_line_len));
    if (!zq_icap_write(zqicap, size_line.get(), size_line_len)) {
        zqerror error = zq_handle_get_error(zqicap->handle);
        ZQ_LOG(7, "unable to send chunk length, error %d (%s)", error, zq_error_string(error));
        return error;
    }
    if (!zq_icap_write(zqicap, chunkdata, chunklen)) {
        zqerror error = zq_handle_get_error(zqicap->handle);
        ZQ_LOG(7, "unable to send chunk data, error %d (%s)", error, zq_error_string(error));
        return error;
    }
    return ZQ_ERROR_NONE;
}

static zqerror zq_icap_send_chunk_end(zqicap *zqicap)
{
    static constexpr char chunk_end[] = "\r\n0\r\n\r\n";
    if (zq_icap_write(zqicap, chunk_end, sizeof(chunk_end) - 1))
        return ZQ_ERROR_NONE;
    zqerror error = zq_handle_get_error(zqicap->handle);
    ZQ_LOG(7, "unable to send the chunk end, error %d (%s)", error, zq_error_string(error));
    return error;
}

static zqerror zq_icap_send_body_pieces(zqicap *zqicap, unsigned char *piece, bool chunk_encoded)
{
    for (;;) {
        size_t size =
            zqicap->request_body_callback(piece, BUFFER_SIZE, zqicap->request_body_context);
        if (size == 0)
            return ZQ_ERROR_NONE;
        zqerror result = ZQ_ERROR_NONE;
        if (!chunk_encoded)
            result = zq_icap_send_chunk(zqicap, piece, size);
        else if (!zq_icap_write(zqicap, piece, size))
            result = zq_handle_get_error(zqicap->handle);
        if (result != ZQ_ERROR_NONE) {
            ZQ_LOG(7, "unable to send encapsulated part, error %d (%s)", result,
                   zq_error_string(result));
            return result;
        }
    }
}

static zqerror zq_icap_send_callback_body(zqicap *zqicap)
{
    ZQ_LOG(7, "call request body callback");
    int chunk_encoded;
    zqerror result =
        zq_icap_part_is_chunk_encoded(zqicap, ZQ_ICAP_ENCAPSULATED_GEN_REQBODY, &chunk_encoded);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "zq_icap_part_is_chunk_encoded() returned error %d (%s)", result,
               zq_error_string(result));
        return result;
    }
    owned_block<unsigned char> piece(static_cast<unsigned char *>(zq_malloc(BUFFER_SIZE)));
    if (!piece) {
        ZQ_LOG(7, "not enough memory for chunk send buffer");
        return ZQ_ERROR_NO_MEMORY;
    }
    result = zq_icap_send_body_pieces(zqicap, piece.get(), chunk_encoded);
    if (result == ZQ_ERROR_NONE && !chunk_encoded)
        result = zq_icap_send_chunk_end(zqicap);
    return result;
}

static zqerror zq_icap_send_raw_part(zqicap *zqicap, const zqicappart *part)
{
    if (part->size == 0 || zq_icap_write(zqicap, part->data, part->size))
        return ZQ_ERROR_NONE;
    zqerror error = zq_handle_get_error(zqicap->handle);
    ZQ_LOG(7, "unable to send encapsulated part, error %d (%s)", error, zq_error_string(error));
    return error;
}

static zqerror zq_icap_send_encapsulated_part(zqicap *zqicap, unsigned int i)
{
    ZQ_ASSERT(i < ZQ_ICAP_ENCAPSULATED_GEN_NUMTYPES);

    bool is_body = i >= ZQ_ICAP_ENCAPSULATED_GEN_REQBODY;
    // A callback feeds the body of a REQMOD only, whatever the Encapsulated header of a RESPMOD
    // says.
    if (i == ZQ_ICAP_ENCAPSULATED_GEN_REQBODY && zqicap->request_body_callback &&
        zqicap->method == METHOD_REQMOD)
        return zq_icap_send_callback_body(zqicap);

    const zqicappart *part = &zqicap->encapsulated[i];
    if (!part->data)
        return ZQ_ERROR_NONE;
    int chunk_encoded = 0;
    zqerror result = is_body ? zq_icap_part_is_chunk_encoded(zqicap, i, &chunk_encoded)
                             : static_cast<zqerror>(ZQ_ERROR_NONE);
    if (result != ZQ_ERROR_NONE)
        return result;
    if (!is_body || chunk_encoded)
        return zq_icap_send_raw_part(zqicap, part);

    ZQ_ASSERT(part->size == zqicap->encapsulated[i].size);
    result = zq_icap_send_chunk(zqicap, part->data, part->size);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to send chunk, error %d (%s)", result, zq_error_string(result));
        return result;
    }
    return zq_icap_send_chunk_end(zqicap);
}

// ---- sending the request ----

static bool zq_icap_parts_are_valid(const zqicap *zqicap)
{
    const zqicappart *parts = zqicap->encapsulated;
    bool reqhdr = parts[ZQ_ICAP_ENCAPSULATED_GEN_REQHDR].data;
    bool reshdr = parts[ZQ_ICAP_ENCAPSULATED_GEN_RESHDR].data;
    bool reqbody = parts[ZQ_ICAP_ENCAPSULATED_GEN_REQBODY].data;
    bool resbody = parts[ZQ_ICAP_ENCAPSULATED_GEN_RESBODY].data;
    switch (zqicap->method) {
    case METHOD_REQMOD:
        if (reqhdr && !reshdr && !resbody)
            return true;
        ZQ_LOG(7, "invalid set of encapsulated parts for REQMOD");
        return false;
    case METHOD_RESPMOD:
        if (reshdr && !reqbody)
            return true;
        ZQ_LOG(7, "invalid set of encapsulated parts for RESPMOD");
        return false;
    case METHOD_OPTIONS:
        if (!reqhdr && !reshdr && !reqbody && !resbody)
            return true;
        ZQ_LOG(7, "no encapsulated parts allowed for OPTIONS");
        return false;
    default:
        ZQ_LOG(7, "no method set for request");
        return false;
    }
}

static zqerror zq_icap_send_request_text(zqicap *zqicap, const char *request)
{
    zqerror result = zq_icap_limit_write(zqicap, zqicap->handle);
    if (result != ZQ_ERROR_NONE)
        return result;
    size_t size = strlen(request);
    size_t written = 0;
    while (written < size) {
        size_t count = zq_handle_write(zqicap->handle, request + written, size - written);
        zqerror error = zq_handle_get_error(zqicap->handle);
        if (count != size - written && error != ZQ_ERROR_NONE) {
            ZQ_LOG(7, "short write, %lu/%lu bytes written", static_cast<unsigned long>(count),
                   static_cast<unsigned long>(size - written));
            return error;
        }
        written += count;
    }
    return ZQ_ERROR_NONE;
}

static zqerror zq_icap_send_request(zqicap *zqicap, const char *method, const char *url,
                                    const char *host)
{
    if (!zq_icap_parts_are_valid(zqicap))
        return ZQ_ERROR_PROTOCOL;
    owned_block<> request(zq_strdupf("%s %s ICAP/1.0\r\nHost: %s\r\n%sEncapsulated: %s\r\n\r\n",
                                     method, url, host, zqicap->allow204 ? "Allow: 204\r\n" : "",
                                     zq_icap_build_encapsulated_header(zqicap)));
    if (!request) {
        ZQ_LOG(7, "not enough memory for request");
        return ZQ_ERROR_NO_MEMORY;
    }
    zqerror result = zq_icap_send_request_text(zqicap, request.get());
    for (unsigned int i = 0; i < ZQ_ICAP_ENCAPSULATED_GEN_NUMTYPES && result == ZQ_ERROR_NONE; i++)
        result = zq_icap_send_encapsulated_part(zqicap, i);
    return result;
}

static zqerror zq_icap_connect(zqicap *zqicap, const char *host, uint32_t port)
{
    ZQ_ASSERT(host != NULL);
    ZQ_ASSERT(port > 0);
    ZQ_ASSERT(port < 65536);

    owned<zqhandle, zq_handle_destroy> handle(zq_handle_tcp_create());
    if (!handle) {
        ZQ_LOG(7, "unable to create zqhandle");
        return ZQ_ERROR_NO_MEMORY;
    }
    zqerror result = zq_icap_limit_write(zqicap, handle.get());
    if (result != ZQ_ERROR_NONE)
        return result;
    result = zq_handle_connect(handle.get(), host, port);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "connection failed, error %d (%s)", result, zq_error_string(result));
        return result;
    }
    zqicap->handle = handle.release();
    return ZQ_ERROR_NONE;
}

// ---- reading lines of the reply ----

namespace {
// How the failures of reading one kind of line are told.
struct line_texts {
    const char *unreadable;
    const char *too_long;
    const char *unterminated;
};
} // namespace

// Reads one line into the buffer, terminated and without its line end; *length is what was
// received.
static zqerror zq_icap_read_line(zqicap *zqicap, const line_texts &texts, size_t *length)
{
    zqerror result = zq_icap_limit_read(zqicap);
    if (result != ZQ_ERROR_NONE)
        return result;
    size_t count =
        early_reply_read_line(&zqicap->early, zqicap->handle, zqicap->buffer, zqicap->bufferlen);
    if (count == 0) {
        zqerror error = zq_handle_get_error(zqicap->handle);
        ZQ_LOG(7, texts.unreadable, error, zq_error_string(error));
        return error;
    }
    if (zqicap->buffer[count - 1] != '\n' && count == zqicap->bufferlen) {
        ZQ_LOG(6, texts.too_long, static_cast<unsigned long>(zqicap->bufferlen));
        return ZQ_ERROR_MESSAGE_TOO_LONG;
    }
    if (zqicap->buffer[count - 1] != '\n') {
        ZQ_LOG(6, "%s", texts.unterminated);
        return ZQ_ERROR_INTERNAL;
    }
    *length = count;
    return ZQ_ERROR_NONE;
}

static zqerror zq_icap_read_status_code(zqicap *zqicap)
{
    static constexpr line_texts texts = {
        "unable to read ICAP result code, error %d (%s)",
        "The result code line was too long to fit the buffer (%lu bytes)",
        "reading a line did not terminate at a linefeed"};
    size_t length;
    zqerror result = zq_icap_read_line(zqicap, texts, &length);
    if (result != ZQ_ERROR_NONE)
        return result;

    char *line = zqicap->buffer;
    line[protocol_line_trim(line, length)] = '\0';
    char bad_digit;
    switch (protocol_parse_status(line, "ICAP/", &zqicap->statuscode, &bad_digit)) {
    case status_line::bad_prefix:
        ZQ_LOG(6, "The ICAP response '%s' did not start with '%s'", line, "ICAP/");
        return ZQ_ERROR_PROTOCOL;
    case status_line::no_code:
        ZQ_LOG(6, "The ICAP response '%s' did not have the result code", line);
        return ZQ_ERROR_PROTOCOL;
    case status_line::bad_digit:
        ZQ_LOG(6, "Invalid result code digit '%c' in response '%s'", bad_digit, line);
        return ZQ_ERROR_PROTOCOL;
    case status_line::valid:
        break;
    }
    ZQ_LOG(10, "the ICAP status code is %d", zqicap->statuscode);
    return ZQ_ERROR_NONE;
}

static zqerror zq_icap_read_icap_headers(zqicap *zqicap)
{
    static constexpr line_texts texts = {
        "unable to read ICAP headers, error %d (%s)",
        "The header line was too long to fit the buffer (%lu bytes)",
        "reading a header line did not terminate at a linefeed"};
    for (;;) {
        size_t length;
        zqerror result = zq_icap_read_line(zqicap, texts, &length);
        if (result != ZQ_ERROR_NONE)
            return result;
        if (!body_store_append(&zqicap->icap_headers, zqicap->buffer, length)) {
            ZQ_LOG(7, "not enough memory for raw ICAP response headers (%lu bytes)",
                   static_cast<unsigned long>(zqicap->icap_headers.position + length));
            return ZQ_ERROR_NO_MEMORY;
        }
        size_t trimmed = protocol_line_trim(zqicap->buffer, length);
        if (trimmed == 0)
            return ZQ_ERROR_NONE;
        result = zq_httpheaders_parse(zqicap->icap_header_table, zqicap->buffer, trimmed);
        if (result != ZQ_ERROR_NONE) {
            ZQ_LOG(7, "parsing headers failed");
            return result;
        }
    }
}

// ---- the Encapsulated header of the reply ----

namespace {
enum encapsulated_flag : unsigned int {
    REQ_HDR = 1,
    RES_HDR = 2,
    REQ_BODY = 4,
    RES_BODY = 8,
    OPT_BODY = 16,
    NULL_BODY = 32
};

struct encapsulated_value {
    unsigned int flags;
    unsigned long offsets[6]; // in the order of the flags; 0 for what is not given

    unsigned long offset(encapsulated_flag flag) const { return offsets[__builtin_ctz(flag)]; }

    // The offset of the first of the given elements, else that of the null body.
    unsigned long first_of(encapsulated_flag first, encapsulated_flag second) const
    {
        return flags & first ? offset(first) : flags & second ? offset(second) : offset(NULL_BODY);
    }
};
} // namespace

// Moves past ", " to the next element.
static bool zq_icap_scan_separator(const char **position, const char *encapsulated)
{
    const char *c = *position;
    if (c[0] != ',') {
        ZQ_LOG(6, "expected separator ',' in encapsulated header but got '%c'", c[0]);
        return false;
    }
    if (c[1] == '\0') {
        ZQ_LOG(6, "unexpected end of string after a comma in encapsulated header '%s'",
               encapsulated);
        return false;
    }
    if (c[1] != ' ') {
        ZQ_LOG(6, "expected space after a comma in encapsulated header but got '%c'", c[1]);
        return false;
    }
    *position = c + 2;
    return true;
}

// Each element is tried once, in this order, so a value in another order is refused.
static bool zq_icap_scan_encapsulated(const char *encapsulated, encapsulated_value *value)
{
    static constexpr const char *names[] = {
        "req-hdr=", "res-hdr=", "req-body=", "res-body=", "opt-body=", "null-body="};
    const char *position = encapsulated;
    for (unsigned int i = 0; i < sizeof(names) / sizeof(names[0]); i++) {
        size_t len = strlen(names[i]);
        if (strncmp(position, names[i], len) != 0)
            continue;
        char *end;
        errno = 0;
        value->offsets[i] = strtoul(position + len, &end, 10);
        if (errno != 0) {
            ZQ_LOG(6, "converting the value in the encapsulated header '%s' failed", encapsulated);
            return false;
        }
        value->flags |= 1U << i;
        position = end;
        if (*position == '\0')
            return true;
        if (!zq_icap_scan_separator(&position, encapsulated))
            return false;
    }
    return false;
}

static zqerror zq_icap_check_elements(unsigned int method, unsigned int flags,
                                      const char *encapsulated)
{
    if ((flags & NULL_BODY) && (flags & (REQ_BODY | RES_BODY | OPT_BODY))) {
        ZQ_LOG(6, "other kind of bodies cannot be given when null-body is given: '%s'",
               encapsulated);
        return ZQ_ERROR_PROTOCOL;
    }
    if ((flags & REQ_HDR) && (flags & RES_HDR))
        ZQ_LOG(6, "req-hdr and res-hdr cannot be present at the same time: '%s'", encapsulated);
    if ((flags & OPT_BODY) && method != METHOD_OPTIONS) {
        ZQ_LOG(6, "opt-body can only be present in OPTIONS method: '%s'", encapsulated);
        return ZQ_ERROR_PROTOCOL;
    }
    switch (method) {
    case METHOD_OPTIONS:
        if (!(flags & ~static_cast<unsigned int>(OPT_BODY | NULL_BODY)))
            return ZQ_ERROR_NONE;
        ZQ_LOG(6, "OPTIONS method can only contain opt-body or null-body: '%s'", encapsulated);
        return ZQ_ERROR_PROTOCOL;
    case METHOD_RESPMOD:
        if (!(flags & (REQ_HDR | REQ_BODY | OPT_BODY)))
            return ZQ_ERROR_NONE;
        ZQ_LOG(6, "RESPMOD method can only contain res-hdr and res-body or null-body: '%s'",
               encapsulated);
        return ZQ_ERROR_PROTOCOL;
    case METHOD_REQMOD:
        // Without request elements the server has answered with an HTTP response, which is allowed.
        if (!(flags & (REQ_HDR | REQ_BODY)) || !(flags & (RES_HDR | RES_BODY | OPT_BODY)))
            return ZQ_ERROR_NONE;
        ZQ_LOG(6,
               "REQMOD method can only contain req-hdr and req-body or res-hdr and res-body (or "
               "null-body): '%s'",
               encapsulated);
        return ZQ_ERROR_PROTOCOL;
    default:
        ZQ_LOG(6, "unhandled ICAP method %u", method);
        return ZQ_ERROR_INTERNAL;
    }
}

static zqerror zq_icap_store_offsets(zqicap *zqicap, const encapsulated_value &value,
                                     const char *encapsulated)
{
    unsigned long headeroffset = 0;
    unsigned long bodyoffset = 0;
    switch (zqicap->method) {
    case METHOD_RESPMOD:
        if (!(value.flags & (RES_BODY | NULL_BODY))) {
            ZQ_LOG(6, "no body for RESPMOD in encapsulated: '%s'", encapsulated);
            return ZQ_ERROR_PROTOCOL;
        }
        headeroffset = value.offset(RES_HDR);
        bodyoffset = value.first_of(RES_BODY, NULL_BODY);
        break;
    case METHOD_OPTIONS:
        if (!(value.flags & (OPT_BODY | NULL_BODY))) {
            ZQ_LOG(6, "no body for OPTIONS in encapsulated: '%s'", encapsulated);
            return ZQ_ERROR_PROTOCOL;
        }
        bodyoffset = value.first_of(OPT_BODY, NULL_BODY);
        break;
    case METHOD_REQMOD:
        if (!(value.flags & (REQ_BODY | RES_BODY | NULL_BODY))) {
            ZQ_LOG(6, "no body for REQMOD in encapsulated: '%s'", encapsulated);
            return ZQ_ERROR_PROTOCOL;
        }
        headeroffset = value.offset(value.flags & REQ_HDR ? REQ_HDR : RES_HDR);
        bodyoffset = value.first_of(REQ_BODY, RES_BODY);
        break;
    default:
        ZQ_LOG(6, "INTERNAL ERROR: unhandled method %u", zqicap->method);
        return ZQ_ERROR_INTERNAL;
    }
    zqicap->headeroffset = headeroffset;
    zqicap->bodyoffset = bodyoffset;
    zqicap->hasbody = !(value.flags & NULL_BODY);
    if (headeroffset != 0) {
        ZQ_LOG(6, "XXX UNSUPPORTED: non-zero encapsulated body header offset: '%s'", encapsulated);
        return ZQ_ERROR_UNSUPPORTED;
    }
    return ZQ_ERROR_NONE;
}

static zqerror zq_icap_parse_encapsulated_header(zqicap *zqicap, const char *encapsulated)
{
    encapsulated_value value = {};
    if (!zq_icap_scan_encapsulated(encapsulated, &value))
        return ZQ_ERROR_PROTOCOL;
    zqerror result = zq_icap_check_elements(zqicap->method, value.flags, encapsulated);
    if (result != ZQ_ERROR_NONE)
        return result;
    return zq_icap_store_offsets(zqicap, value, encapsulated);
}

// ---- reading headers and body of the reply ----

static zqerror zq_icap_store_in_memory(zqicap *zqicap, const void *data, size_t size)
{
    ZQ_ASSERT(data != NULL);
    ZQ_ASSERT(size > 0);

    if (!body_store_append(&zqicap->response, data, size)) {
        ZQ_LOG(7, "not enough memory for response body (%lu bytes)",
               static_cast<unsigned long>(zqicap->response.position + size));
        return ZQ_ERROR_NO_MEMORY;
    }
    return ZQ_ERROR_NONE;
}

static zqerror zq_icap_store(zqicap *zqicap, const void *data, size_t size)
{
    zqerror result = zq_icap_store_in_memory(zqicap, data, size);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "the write callback did not accept the data, error %d (%s)", result,
               zq_error_string(result));
    }
    return result;
}

// Reads and stores `length` bytes, fewer when the stream ends. `unreadable` tells a failed read.
static zqerror zq_icap_read_bytes(zqicap *zqicap, unsigned long length, const char *unreadable)
{
    while (length > 0) {
        zqerror result = zq_icap_limit_read(zqicap);
        if (result != ZQ_ERROR_NONE)
            return result;
        size_t want = length < zqicap->bufferlen ? static_cast<size_t>(length) : zqicap->bufferlen;
        size_t count = early_reply_read(&zqicap->early, zqicap->handle, zqicap->buffer, want);
        if (count == 0) {
            zqerror error = zq_handle_get_error(zqicap->handle);
            if (error == ZQ_ERROR_END_OF_FILE)
                return ZQ_ERROR_NONE;
            ZQ_LOG(7, unreadable, error, zq_error_string(error));
            return error;
        }
        result = zq_icap_store(zqicap, zqicap->buffer, count);
        if (result != ZQ_ERROR_NONE)
            return result;
        length -= count;
    }
    return ZQ_ERROR_NONE;
}

static zqerror zq_icap_read_encapsulated_headers(zqicap *zqicap, unsigned long length)
{
    ZQ_ASSERT_TEXT(!zqicap->encapsulated_headers.data, "zqicap->encapsulatedheaders == NULL");

    zqerror result = zq_icap_read_bytes(
        zqicap, length, "unable to read encapsulated headers information, error %d (%s)");
    if (result == ZQ_ERROR_NONE) {
        zqicap->encapsulated_headers = zqicap->response;
        zqicap->response = {};
    }
    return result;
}

// Reads a chunk's size line and leaves its text in the buffer, empty at the end of the body.
static zqerror zq_icap_read_chunk_size(zqicap *zqicap, unsigned long *size)
{
    static constexpr line_texts texts = {
        "unable to read chunk size, error %d (%s)",
        "The chunk size line was too long to fit the buffer (%lu bytes)",
        "reading a chunk size line did not terminate at a linefeed"};
    size_t length;
    zqerror result = zq_icap_read_line(zqicap, texts, &length);
    if (result != ZQ_ERROR_NONE)
        return result;

    char *line = zqicap->buffer;
    line[protocol_line_trim(line, length)] = '\0';
    char *end;
    errno = 0;
    *size = strtoul(line, &end, 16);
    if (errno != 0) {
        ZQ_LOG(7, "unable to parse the chunk size '%s'", line);
        return ZQ_ERROR_PROTOCOL;
    }
    if (*end != '\0') {
        ZQ_LOG(7, "extra data after the chunk size in '%s'", line);
        return ZQ_ERROR_PROTOCOL;
    }
    return ZQ_ERROR_NONE;
}

// Reads the data of one chunk and the line end behind it; the buffer holds the size text.
static zqerror zq_icap_read_chunk(zqicap *zqicap, unsigned long size, bool keep_framing)
{
    zqerror result = ZQ_ERROR_NONE;
    if (keep_framing) {
        size_t len = strlen(zqicap->buffer);
        result = zq_icap_store(zqicap, zqicap->buffer, len);
        if (result == ZQ_ERROR_NONE)
            result = zq_icap_store(zqicap, "\r\n", 2);
    }
    if (result == ZQ_ERROR_NONE)
        result =
            zq_icap_read_bytes(zqicap, size, "unable to read more body information, error %d (%s)");
    if (result == ZQ_ERROR_NONE && keep_framing)
        result = zq_icap_store(zqicap, "\r\n", 2);
    if (result == ZQ_ERROR_NONE)
        result = zq_icap_limit_read(zqicap);
    if (result == ZQ_ERROR_NONE)
        early_reply_read_line(&zqicap->early, zqicap->handle, zqicap->buffer, zqicap->bufferlen);
    return result;
}

// Whether the body of the reply keeps its chunk framing: when the client's own had one.
static zqerror zq_icap_keeps_framing(zqicap *zqicap, int *keep_framing)
{
    unsigned int body = zqicap->method == METHOD_REQMOD    ? ZQ_ICAP_ENCAPSULATED_GEN_REQBODY
                        : zqicap->method == METHOD_RESPMOD ? ZQ_ICAP_ENCAPSULATED_GEN_RESBODY
                                                           : ZQ_ICAP_ENCAPSULATED_GEN_NUMTYPES;
    return zq_icap_part_is_chunk_encoded(zqicap, body, keep_framing);
}

static zqerror zq_icap_read_body_chunked(zqicap *zqicap)
{
    int keep_framing;
    zqerror result = zq_icap_keeps_framing(zqicap, &keep_framing);
    unsigned long size = 1;
    while (result == ZQ_ERROR_NONE && size != 0) {
        result = zq_icap_read_chunk_size(zqicap, &size);
        if (result != ZQ_ERROR_NONE || zqicap->buffer[0] == '\0')
            break;
        result = zq_icap_read_chunk(zqicap, size, keep_framing);
    }
    // The zero chunk is in the store already; callers have come to expect this second one.
    if (result == ZQ_ERROR_NONE && keep_framing)
        result = zq_icap_store(zqicap, "0\r\n\r\n", 5);
    return result;
}

// ---- the exchange ----

static zqerror zq_icap_read_encapsulated(zqicap *zqicap)
{
    const char *encapsulated = httpheaders_lookup(zqicap->icap_header_table, "encapsulated");
    if (!encapsulated) {
        ZQ_LOG(6, "no Encapsulated header in the ICAP response");
        return ZQ_ERROR_PROTOCOL;
    }
    zqerror result = zq_icap_parse_encapsulated_header(zqicap, encapsulated);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(6, "unable to parse Encapsulated header");
        return result;
    }
    ZQ_ASSERT(zqicap->headeroffset == 0);
    ZQ_ASSERT_TEXT(!zqicap->response.data, "zqicap->responsedata == NULL");
    result = zq_icap_read_encapsulated_headers(zqicap, zqicap->bodyoffset - zqicap->headeroffset);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(6, "unable to read icap header");
        return result;
    }
    if (!zqicap->hasbody)
        return ZQ_ERROR_NONE;
    result = zq_icap_read_body_chunked(zqicap);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(6, "unable to read encapsulated chunked body");
    return result;
}

static zqerror zq_icap_read_reply(zqicap *zqicap)
{
    zqerror result = zq_icap_read_status_code(zqicap);
    if (result == ZQ_ERROR_NONE)
        result = zq_icap_read_icap_headers(zqicap);
    // 204 tells the caller to go on with its own content; nothing follows.
    if (result == ZQ_ERROR_NONE && zqicap->statuscode != 204)
        result = zq_icap_read_encapsulated(zqicap);
    return result;
}

static const char *zq_icap_method_text(const zqicap *zqicap)
{
    static constexpr const char *texts[] = {nullptr, "REQMOD", "RESPMOD", "OPTIONS"};
    return texts[zqicap->method];
}

static zqerror zq_icap_exchange(zqicap *zqicap)
{
    const char *method = zq_icap_method_text(zqicap);
    if (!method) {
        ZQ_LOG(6, "INTERNAL ERROR: Unrecognized method %u", zqicap->method);
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    if (!zqicap->url) {
        ZQ_LOG(6, "no URL set");
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    char *hostname;
    uint32_t port;
    zqerror result = zq_http_parse_url(zqicap->url, nullptr, &hostname, &port, nullptr);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to parse the URL '%s'", zqicap->url);
        return result;
    }
    owned_block<> host(hostname);
    result = zq_icap_connect(zqicap, host.get(), port);
    if (result == ZQ_ERROR_NONE)
        result = zq_icap_send_request(zqicap, method, zqicap->url, host.get());
    if (result == ZQ_ERROR_NONE)
        result = zq_icap_read_reply(zqicap);
    return result;
}

zqerror zq_icap_perform(zqicap *zqicap)
{
    ZQ_ASSERT(zqicap != NULL);

    zq_timeout_set(zqicap->timeout, zqicap->timeout_seconds, zqicap->timeout_microseconds);
    zq_httpheaders_clear(zqicap->icap_header_table);
    body_store_clear(&zqicap->response);
    body_store_clear(&zqicap->encapsulated_headers);
    zqerror result = zq_icap_exchange(zqicap);
    zq_icap_reset_options(zqicap);
    return result;
}

// ---- the reply's getters ----

int32_t zq_icap_get_status_code(zqicap *zqicap)
{
    ZQ_ASSERT(zqicap != NULL);

    return zqicap->statuscode;
}

// Copies a header block as text; the two messages tell that there is none, or no memory.
static zqerror zq_icap_copy_headers(const body_store *headers, char **headersptr, const char *none,
                                    const char *no_memory)
{
    *headersptr = nullptr;
    if (!headers->data) {
        ZQ_LOG(6, "%s", none);
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    char *copy = static_cast<char *>(zq_malloc(headers->position + 1));
    if (!copy) {
        ZQ_LOG(7, "%s", no_memory);
        return ZQ_ERROR_NO_MEMORY;
    }
    memcpy(copy, headers->data, headers->position);
    copy[headers->position] = '\0';
    *headersptr = copy;
    return ZQ_ERROR_NONE;
}

zqerror zq_icap_get_response_icap_headers(zqicap *zqicap, char **headersptr)
{
    ZQ_ASSERT(zqicap != NULL);
    ZQ_ASSERT(headersptr != NULL);

    return zq_icap_copy_headers(&zqicap->icap_headers, headersptr,
                                "no ICAP response headers available",
                                "not enough memory for the ICAP response headers");
}

zqerror zq_icap_get_response_headers(zqicap *zqicap, char **headersptr)
{
    ZQ_ASSERT(zqicap != NULL);
    ZQ_ASSERT(headersptr != NULL);

    return zq_icap_copy_headers(&zqicap->encapsulated_headers, headersptr,
                                "no encapsulated response headers available",
                                "not enough memory for the encapsulated response headers");
}

zqerror zq_icap_get_response_body_and_size(zqicap *zqicap, void **bodyptr, size_t *sizeptr)
{
    ZQ_ASSERT(zqicap != NULL);
    ZQ_ASSERT(bodyptr != NULL);
    ZQ_ASSERT(sizeptr != NULL);

    *bodyptr = nullptr;
    *sizeptr = 0;
    const body_store &response = zqicap->response;
    if (!response.data) {
        ZQ_LOG(6, "no response data available");
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    *bodyptr = zq_memdup(response.data, response.position);
    if (!*bodyptr) {
        ZQ_LOG(7, "not enough memory for response body (%lu bytes)",
               static_cast<unsigned long>(response.position));
        return ZQ_ERROR_NO_MEMORY;
    }
    *sizeptr = response.position;
    return ZQ_ERROR_NONE;
}
