#include "zq/net/zqhttp_lite.h"

#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqheaderlookup.h"
#include "zq/internal/zqintrusive.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/internal/zqprotocolline.h"
#include "zq/io/zqhandle.h"
#include "zq/math/zqlimit.h"
#include "zq/net/zqhandle_tcp.h"
#include "zq/util/zqprintf.h"
#include "zq/util/zqstring.h"

namespace {

constexpr size_t receive_buffer_size = 4096; // also the longest status or header line

// More than any server can send, and so the length of a body that ends with its connection.
constexpr uint64_t unknown_length = UINT64_MAX;

struct http_lite_header : zqlistlink {
    char *line;
};

// The state of one exchange, except for the buffer. The buffer takes one line at a time, then the
// pieces of the body: bufferpos <= bufferuse <= bufferlen.
struct http_lite {
    char *buffer;
    size_t bufferlen;
    size_t bufferpos;
    size_t bufferuse;
    struct zqhandle *zqhandle; // null unless connected
    char *url;
    void *requestbody;
    size_t requestbodysize;
    zqlist *requestheaderlist;
};

} // namespace

// ---- life ----

static void zq_http_lite_header_destroy(http_lite_header *header)
{
    zq_free(header->line);
    zq_free(header);
}

// URL, body and headers serve one exchange only; it ends here.
static void zq_http_lite_reset_options(http_lite *http)
{
    http->bufferpos = 0;
    http->bufferuse = 0;
    if (http->zqhandle)
        zq_handle_destroy(http->zqhandle);
    http->zqhandle = nullptr;
    zq_free(http->url);
    http->url = nullptr;
    zq_free(http->requestbody);
    http->requestbody = nullptr;
    http->requestbodysize = 0;
    if (!http->requestheaderlist)
        return;
    while (auto *header = list_take_first<http_lite_header>(http->requestheaderlist))
        zq_http_lite_header_destroy(header);
}

static void zq_http_lite_destroy_callback(void *context)
{
    auto *http = static_cast<http_lite *>(context);
    zq_http_lite_reset_options(http);
    if (http->requestheaderlist) {
        ZQ_ASSERT(http->requestheaderlist->head == NULL);
        zq_list_destroy(http->requestheaderlist);
    }
    zq_free(http->buffer);
    zq_free(http);
}

static http_lite *zq_http_lite_of(zqhttp *zqhttp)
{
    return static_cast<http_lite *>(zq_http_get_context(zqhttp));
}

static zqerror zq_http_lite_reset_callback(zqhttp *zqhttp)
{
    zq_http_lite_reset_options(zq_http_lite_of(zqhttp));
    return ZQ_ERROR_NONE;
}

static zqerror zq_http_lite_url_callback(zqhttp *zqhttp, const char *url)
{
    char *copy = zq_strdup(url);
    if (!copy)
        return ZQ_ERROR_NO_MEMORY;
    http_lite *http = zq_http_lite_of(zqhttp);
    zq_free(http->url);
    http->url = copy;
    return ZQ_ERROR_NONE;
}

// ---- steps ----

template <int level>
static zqerror zq_http_lite_check_aborted(zqhttp *zqhttp)
{
    if (!zq_http_is_aborted(zqhttp))
        return ZQ_ERROR_NONE;
    ZQ_LOG(level, "the transfer was aborted");
    return ZQ_ERROR_CANCELED;
}

// Lets the next write, or wait for a connection, last no longer than the transfer may.
static zqerror zq_http_lite_limit_write(zqhttp *zqhttp, zqhandle *zqhandle)
{
    int32_t seconds;
    uint32_t microseconds;
    const zqerror result = zq_http_timeout_check(zqhttp, &seconds, &microseconds);
    if (result == ZQ_ERROR_NONE)
        zq_handle_set_write_timeout(zqhandle, seconds, microseconds);
    return result;
}

// The error of a handle after an operation. That a wait has timed out says nothing yet: it may only
// have been cut short for a progress report.
static zqerror zq_http_lite_handle_error(zqhttp *zqhttp, zqhandle *zqhandle)
{
    const zqerror result = zq_handle_get_error(zqhandle);
    return result == ZQ_ERROR_TIMED_OUT ? zq_http_timeout_check(zqhttp, nullptr, nullptr) : result;
}

// ---- connecting ----

static zqerror zq_http_lite_wait_in_progress(zqhttp *zqhttp, zqhandle *zqhandle)
{
    zqerror result = ZQ_ERROR_IN_PROGRESS;
    while (result == ZQ_ERROR_IN_PROGRESS) {
        zq_http_progress_download_check(zqhttp);
        if (zq_http_lite_limit_write(zqhttp, zqhandle) != ZQ_ERROR_NONE) {
            ZQ_LOG(7, "a timeout occurred");
            return ZQ_ERROR_TIMED_OUT;
        }
        result = zq_handle_connect_wait(zqhandle);
    }
    return result;
}

// Goes on waiting after a wait that has timed out.
static zqerror zq_http_lite_wait_on(zqhttp *zqhttp, zqhandle *zqhandle)
{
    zqerror result = ZQ_ERROR_TIMED_OUT;
    while (result == ZQ_ERROR_TIMED_OUT) {
        const zqerror timeout = zq_http_lite_limit_write(zqhttp, zqhandle);
        if (timeout != ZQ_ERROR_NONE) {
            ZQ_LOG(7, "a timeout occurred");
            return timeout;
        }
        result = zq_handle_connect_wait(zqhandle);
        zq_http_progress_download_check(zqhttp);
    }
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "connection failed, error %d (%s)", result, zq_error_string(result));
    return result;
}

static zqerror zq_http_lite_connect_handle(zqhttp *zqhttp, zqhandle *zqhandle, const char *host,
                                           uint32_t port)
{
    zq_http_reset_idle_timeout(zqhttp);
    if (zq_http_lite_limit_write(zqhttp, zqhandle) != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "a timeout occurred");
        return ZQ_ERROR_TIMED_OUT;
    }
    zqerror result = zq_handle_connect_begin(zqhandle, host, port);
    if (result == ZQ_ERROR_IN_PROGRESS)
        result = zq_http_lite_wait_in_progress(zqhttp, zqhandle);
    if (result == ZQ_ERROR_NONE)
        return result;

    zq_http_progress_download_check(zqhttp);
    if (result == ZQ_ERROR_TIMED_OUT)
        return zq_http_lite_wait_on(zqhttp, zqhandle);
    ZQ_LOG(7, "connection failed, error %d (%s)", result, zq_error_string(result));
    return result;
}

static zqerror zq_http_lite_connect(zqhttp *zqhttp, http_lite *http, const char *host,
                                    uint32_t port)
{
    ZQ_ASSERT(host != NULL);
    ZQ_ASSERT(port > 0);
    ZQ_ASSERT(port < 65536);

    owned<zqhandle, zq_handle_destroy> handle(zq_handle_tcp_create());
    if (!handle) {
        ZQ_LOG(7, "unable to create zqhandle");
        return ZQ_ERROR_NO_MEMORY;
    }
    const zqerror result = zq_http_lite_connect_handle(zqhttp, handle.get(), host, port);
    if (result == ZQ_ERROR_NONE)
        http->zqhandle = handle.release();
    return result;
}

// ---- sending ----

static zqerror zq_http_lite_limit_send(zqhttp *zqhttp, zqhandle *zqhandle)
{
    const zqerror result = zq_http_lite_limit_write(zqhttp, zqhandle);
    switch (result) {
    case ZQ_ERROR_NONE:
        break;
    case ZQ_ERROR_TIMED_OUT:
        ZQ_LOG(7, "a timeout occurred");
        break;
    case ZQ_ERROR_TIMER_EXPIRED:
        ZQ_LOG(7, "the full transfer timer expired");
        break;
    default:
        ZQ_LOG(7, "unexpected error checking the timeout, error %d (%s)", result,
               zq_error_string(result));
        break;
    }
    return result;
}

static zqerror zq_http_lite_write(zqhttp *zqhttp, http_lite *http, const void *buf, size_t size)
{
    ZQ_ASSERT(buf != NULL);

    for (const char *pos = static_cast<const char *>(buf);;) {
        zqerror result = zq_http_lite_check_aborted<7>(zqhttp);
        if (result == ZQ_ERROR_NONE)
            result = zq_http_lite_limit_send(zqhttp, http->zqhandle);
        if (result != ZQ_ERROR_NONE || size == 0)
            return result;

        const size_t count = zq_handle_write(http->zqhandle, pos, size);
        if (count > 0) {
            zq_http_reset_idle_timeout(zqhttp);
            pos += count;
            size -= count;
        } else {
            result = zq_http_lite_handle_error(zqhttp, http->zqhandle);
            if (result != ZQ_ERROR_NONE) {
                ZQ_LOG(7, "unable to send data, error %d (%s)", result, zq_error_string(result));
                return result;
            }
        }
        zq_http_progress_upload_check(zqhttp);
    }
}

static zqerror zq_http_lite_send_request_line(zqhttp *zqhttp, http_lite *http, const char *method,
                                              const char *target, const char *host)
{
    // The host goes without the port of the URL; that is meant.
    owned_block<> text(zq_strdupf("%s %s %s\r\nHost: %s\r\n", method, target, "HTTP/1.0", host));
    if (!text) {
        ZQ_LOG(7, "not enough memory for request");
        return ZQ_ERROR_NO_MEMORY;
    }
    const zqerror result = zq_http_lite_write(zqhttp, http, text.get(), strlen(text.get()));
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "sending request failed, error %d (%s)", result, zq_error_string(result));
    return result;
}

static zqerror zq_http_lite_send_header(zqhttp *zqhttp, http_lite *http, const char *line)
{
    zqerror result = zq_http_lite_write(zqhttp, http, line, strlen(line));
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to send header '%s', error %d (%s)", line, result,
               zq_error_string(result));
        return result;
    }
    result = zq_http_lite_write(zqhttp, http, "\r\n", 2);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "unable to send header '%s' end of line, error %d (%s)", line, result,
               zq_error_string(result));
    return result;
}

static zqerror zq_http_lite_send_content_length(zqhttp *zqhttp, http_lite *http)
{
    if (http->requestbodysize > zq_limit_max_unsigned_long()) {
        ZQ_LOG(7, "The request body length is too long");
        return ZQ_ERROR_OUT_OF_RANGE;
    }
    owned_block<> text(
        zq_strdupf("Content-Length: %lu\r\n", static_cast<unsigned long>(http->requestbodysize)));
    if (!text) {
        ZQ_LOG(7, "not enough memory for sending content length");
        return ZQ_ERROR_NO_MEMORY;
    }
    const zqerror result = zq_http_lite_write(zqhttp, http, text.get(), strlen(text.get()));
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "unable to send content length, error %d (%s)", result, zq_error_string(result));
    return result;
}

static zqerror zq_http_lite_send_headers(zqhttp *zqhttp, http_lite *http)
{
    bool has_length = false;
    for (const http_lite_header *header : list_items<http_lite_header>(http->requestheaderlist)) {
        const zqerror result = zq_http_lite_send_header(zqhttp, http, header->line);
        if (result != ZQ_ERROR_NONE)
            return result;
        // The whole line is compared, so that a "Content-Length: 5" goes out beside the automatic
        // one. Callers' requests depend on it.
        if (zq_strcasecmp(header->line, "content-length") == 0)
            has_length = true;
    }
    zqerror result = ZQ_ERROR_NONE;
    if (!has_length)
        result = zq_http_lite_send_content_length(zqhttp, http);
    if (result != ZQ_ERROR_NONE)
        return result;
    result = zq_http_lite_write(zqhttp, http, "\r\n", 2);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "unable to send end of headers, error %d (%s)", result, zq_error_string(result));
    return result;
}

static zqerror zq_http_lite_send_body(zqhttp *zqhttp, http_lite *http)
{
    if (http->requestbodysize == 0)
        return ZQ_ERROR_NONE;

    ZQ_ASSERT(http->requestbody != NULL);
    zq_http_progress_upload_check(zqhttp);
    const zqerror result =
        zq_http_lite_write(zqhttp, http, http->requestbody, http->requestbodysize);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "unable to send the request body, error %d (%s)", result,
               zq_error_string(result));
    return result;
}

static zqerror zq_http_lite_send_request(zqhttp *zqhttp, http_lite *http, const char *method,
                                         const char *target, const char *host)
{
    ZQ_ASSERT(method != NULL);
    ZQ_ASSERT(target != NULL);
    ZQ_ASSERT(host != NULL);
    ZQ_ASSERT(http->zqhandle != NULL);

    zq_http_progress_upload_force(zqhttp);
    zqerror result = zq_http_lite_check_aborted<10>(zqhttp);
    if (result == ZQ_ERROR_NONE)
        result = zq_http_lite_send_request_line(zqhttp, http, method, target, host);
    if (result == ZQ_ERROR_NONE)
        result = zq_http_lite_send_headers(zqhttp, http);
    if (result == ZQ_ERROR_NONE)
        result = zq_http_lite_send_body(zqhttp, http);

    zq_http_progress_upload_force(zqhttp);
    return result == ZQ_ERROR_NONE ? zq_http_lite_check_aborted<10>(zqhttp) : result;
}

// ---- receiving ----

// Lets the next read of a line last no longer than the transfer may.
static zqerror zq_http_lite_limit_read(zqhttp *zqhttp, zqhandle *zqhandle)
{
    int32_t seconds;
    uint32_t microseconds;
    const zqerror result = zq_http_timeout_check(zqhttp, &seconds, &microseconds);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "checking timeout, error %d (%s)", result, zq_error_string(result));
        return result;
    }
    zq_handle_set_read_timeout(zqhandle, seconds, microseconds);
    return ZQ_ERROR_NONE;
}

// Reads a line with its LF and returns the bytes read; *zqerrorptr tells whether it is complete.
static size_t zq_http_lite_read_line(zqhttp *zqhttp, http_lite *http, char *buffer,
                                     size_t bufferlen, zqerror *zqerrorptr)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(http != NULL);
    ZQ_ASSERT(buffer != NULL);
    ZQ_ASSERT(bufferlen > 0);
    ZQ_ASSERT(zqerrorptr != NULL);

    size_t use = 0;
    while (use < bufferlen) {
        *zqerrorptr = zq_http_lite_check_aborted<7>(zqhttp);
        if (*zqerrorptr == ZQ_ERROR_NONE)
            *zqerrorptr = zq_http_lite_limit_read(zqhttp, http->zqhandle);
        if (*zqerrorptr != ZQ_ERROR_NONE)
            return use;

        const size_t count = zq_handle_read_line(http->zqhandle, buffer + use, bufferlen - use);
        use += count;
        if (count > 0)
            zq_http_reset_idle_timeout(zqhttp);
        *zqerrorptr = zq_http_lite_handle_error(zqhttp, http->zqhandle);
        if (*zqerrorptr != ZQ_ERROR_NONE) {
            ZQ_LOG(7, "reading input line failed, error %d (%s)", *zqerrorptr,
                   zq_error_string(*zqerrorptr));
            return use;
        }
        zq_http_progress_download_check(zqhttp);
        if (use > 0 && buffer[use - 1] == '\n')
            return use;
    }
    ZQ_LOG(6, "input line was too long to fit the buffer (%lu bytes)",
           static_cast<unsigned long>(bufferlen));
    *zqerrorptr = ZQ_ERROR_MESSAGE_TOO_LONG;
    return use;
}

// Reads a line into the buffer as a terminated text without its end, whose LF leaves room for that.
static zqerror zq_http_lite_read_text_line(zqhttp *zqhttp, http_lite *http, size_t *lenptr)
{
    zqerror result;
    const size_t use = zq_http_lite_read_line(zqhttp, http, http->buffer, http->bufferlen, &result);
    if (result != ZQ_ERROR_NONE)
        return result;
    *lenptr = protocol_line_trim(http->buffer, use);
    http->buffer[*lenptr] = '\0';
    return ZQ_ERROR_NONE;
}

static zqerror zq_http_lite_read_status_code(zqhttp *zqhttp, http_lite *http)
{
    ZQ_ASSERT(http->bufferuse == http->bufferpos);
    ZQ_ASSERT(http->bufferuse == 0);
    ZQ_ASSERT(http->bufferpos == 0);

    size_t len;
    const zqerror result = zq_http_lite_read_text_line(zqhttp, http, &len);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "reading HTTP status code failed, error %d (%s)", result,
               zq_error_string(result));
        return result;
    }
    int status;
    char bad_digit;
    switch (protocol_parse_status(http->buffer, "HTTP/", &status, &bad_digit)) {
    case status_line::bad_prefix:
        ZQ_LOG(6, "The HTTP response '%s' did not start with '%s'", http->buffer, "HTTP/");
        return ZQ_ERROR_PROTOCOL;
    case status_line::no_code:
        ZQ_LOG(6, "The HTTP response '%s' did not have the result code", http->buffer);
        return ZQ_ERROR_PROTOCOL;
    case status_line::bad_digit:
        ZQ_LOG(6, "Invalid result code digit '%c' in response '%s'", bad_digit, http->buffer);
        return ZQ_ERROR_PROTOCOL;
    case status_line::valid:
        break;
    }
    ZQ_LOG(13, "the HTTP status code is %d", status);
    zq_http_set_status_code(zqhttp, status);
    return ZQ_ERROR_NONE;
}

// Splits a header line in place. Only spaces before the value are skipped, not tabs, and none after
// it; that is meant.
static zqerror zq_http_lite_store_header(zqhttp *zqhttp, char *line)
{
    char *value = strchr(line, ':');
    if (value) {
        *value++ = '\0';
        value += strspn(value, " ");
    } else {
        ZQ_LOG(6, "header '%s' without a colon", line);
    }
    const zqerror result = zq_http_write_response_header(zqhttp, line, value);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "unable to store the header '%s' value '%s'", line, value ? value : "<NULL>");
    return result;
}

static zqerror zq_http_lite_read_headers(zqhttp *zqhttp, http_lite *http)
{
    for (;;) {
        size_t len;
        zqerror result = zq_http_lite_read_text_line(zqhttp, http, &len);
        if (result != ZQ_ERROR_NONE) {
            ZQ_LOG(7, "unable to read HTTP headers, error %d (%s)", result,
                   zq_error_string(result));
            return result;
        }
        if (len == 0)
            return ZQ_ERROR_NONE;
        result = zq_http_lite_store_header(zqhttp, http->buffer);
        if (result != ZQ_ERROR_NONE)
            return result;
    }
}

// A length beyond 32 bits counts as unknown, and so does a negative one.
static uint64_t zq_http_lite_get_body_length(zqhttp *zqhttp)
{
    int32_t length;
    if (http_lookup_response_int(zqhttp, "content-length", &length) != ZQ_ERROR_NONE || length < 0)
        return unknown_length;
    return static_cast<uint64_t>(length);
}

// As much of what remains as `available` allows.
static size_t zq_http_lite_piece(uint64_t remaining, size_t available)
{
    return remaining < available ? static_cast<size_t>(remaining) : available;
}

// Reads a piece of the body into the empty buffer. Where the stream ends nothing remains, whatever
// length was announced.
static zqerror zq_http_lite_read_piece(zqhttp *zqhttp, http_lite *http, uint64_t *remaining)
{
    ZQ_ASSERT(http->bufferpos == http->bufferuse);

    http->bufferpos = 0;
    http->bufferuse = 0;
    int32_t seconds;
    uint32_t microseconds;
    zqerror result = zq_http_timeout_check(zqhttp, &seconds, &microseconds);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "a timeout occurred");
        return result;
    }
    // During the body the transfer's whole time limits each single read; that is meant. Without a
    // limit only the checks between reads bound a silent server.
    zq_http_timeout_reset(zqhttp, &seconds, &microseconds);
    zq_handle_set_read_timeout(http->zqhandle, seconds, microseconds);

    const size_t size = zq_http_lite_piece(*remaining, http->bufferlen);
    http->bufferuse = zq_handle_read(http->zqhandle, http->buffer, size);
    if (http->bufferuse > 0)
        zq_http_reset_idle_timeout(zqhttp);
    else
        result = zq_http_lite_handle_error(zqhttp, http->zqhandle);
    zq_http_progress_download_check(zqhttp);
    ZQ_ASSERT(http->bufferuse <= http->bufferlen);

    if (result == ZQ_ERROR_END_OF_FILE) {
        *remaining = 0;
        return ZQ_ERROR_NONE;
    }
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "unable to read more body information, error %d (%s)", result,
               zq_error_string(result));
    return result;
}

static zqerror zq_http_lite_deliver_piece(zqhttp *zqhttp, http_lite *http, uint64_t *remaining)
{
    const size_t available = http->bufferuse - http->bufferpos;
    const size_t size = zq_http_lite_piece(*remaining, available);
    zq_http_reset_idle_timeout(zqhttp);
    const zqerror result =
        zq_http_write_response_body(zqhttp, http->buffer + http->bufferpos, size);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "the write callback did not accept the data, error %d (%s)", result,
               zq_error_string(result));
        return result;
    }
    http->bufferpos += size;
    *remaining -= size;
    return ZQ_ERROR_NONE;
}

// Delivers what the server sends, up to the announced length. One that closes early has sent all
// that there is.
static zqerror zq_http_lite_read_body(zqhttp *zqhttp, http_lite *http)
{
    uint64_t remaining = zq_http_lite_get_body_length(zqhttp);
    zq_http_progress_download_force(zqhttp);
    zqerror result = ZQ_ERROR_NONE;
    while (result == ZQ_ERROR_NONE && remaining > 0) {
        ZQ_ASSERT(http->bufferpos <= http->bufferuse);
        result = zq_http_lite_check_aborted<7>(zqhttp);
        if (result != ZQ_ERROR_NONE)
            break;
        if (http->bufferpos < http->bufferuse)
            result = zq_http_lite_deliver_piece(zqhttp, http, &remaining);
        else
            result = zq_http_lite_read_piece(zqhttp, http, &remaining);
    }
    zq_http_progress_download_force(zqhttp);
    return result == ZQ_ERROR_NONE ? zq_http_lite_check_aborted<7>(zqhttp) : result;
}

// ---- the exchange ----

// Each step runs only when the one before it has succeeded.
static zqerror zq_http_lite_exchange(zqhttp *zqhttp, http_lite *http, const char *hostname,
                                     uint32_t port, const char *query)
{
    const char *target = query;
    const char *peer;
    uint32_t peerport;
    zq_http_get_proxy(zqhttp, &peer, &peerport);
    if (peer) {
        target = http->url;
    } else {
        peer = hostname;
        peerport = port;
    }

    zqerror result = zq_http_lite_check_aborted<7>(zqhttp);
    if (result == ZQ_ERROR_NONE)
        result = zq_http_lite_connect(zqhttp, http, peer, peerport);
    if (result == ZQ_ERROR_NONE)
        result = zq_http_lite_check_aborted<7>(zqhttp);
    if (result == ZQ_ERROR_NONE)
        result =
            zq_http_lite_send_request(zqhttp, http, zq_http_get_method(zqhttp), target, hostname);
    if (result == ZQ_ERROR_NONE)
        result = zq_http_lite_read_status_code(zqhttp, http);
    if (result == ZQ_ERROR_NONE)
        result = zq_http_lite_read_headers(zqhttp, http);
    if (result == ZQ_ERROR_NONE)
        result = zq_http_lite_read_body(zqhttp, http);
    return result;
}

static zqerror zq_http_lite_perform_url(zqhttp *zqhttp, http_lite *http)
{
    if (!http->url) {
        ZQ_LOG(6, "no URL set");
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    char *scheme;
    char *hostname;
    uint32_t port;
    char *query;
    zqerror result = zq_http_parse_url(http->url, &scheme, &hostname, &port, &query);
    if (result != ZQ_ERROR_NONE)
        return result;

    if (strcmp(scheme, "http") == 0) {
        result = zq_http_lite_exchange(zqhttp, http, hostname, port, query);
    } else {
        ZQ_LOG(6, "the URL '%s' must start with http://", http->url);
        result = ZQ_ERROR_UNSUPPORTED;
    }
    zq_free(scheme);
    zq_free(hostname);
    zq_free(query);
    return result;
}

static zqerror zq_http_lite_perform_callback(zqhttp *zqhttp)
{
    http_lite *http = zq_http_lite_of(zqhttp);
    const zqerror result = zq_http_lite_perform_url(zqhttp, http);
    zq_http_lite_reset_options(http);
    return result;
}

// ---- the public functions ----

zqhttp *zq_http_lite_create(void)
{
    owned<zqhttp, zq_http_destroy> zqhttp(zq_http_generic_create());
    if (!zqhttp) {
        ZQ_LOG(7, "unable to create generic zqhttp context");
        return nullptr;
    }
    auto *http = make_zeroed<http_lite>();
    if (!http) {
        ZQ_LOG(7, "not enough memory for zqhttp lite context");
        return nullptr;
    }
    zq_http_set_context(zqhttp.get(), http);
    zq_http_set_destroy_callback(zqhttp.get(), zq_http_lite_destroy_callback);
    zq_http_set_reset_callback(zqhttp.get(), zq_http_lite_reset_callback);
    zq_http_set_url_callback(zqhttp.get(), zq_http_lite_url_callback);
    zq_http_set_perform_callback(zqhttp.get(), zq_http_lite_perform_callback);

    http->buffer = static_cast<char *>(zq_malloc(receive_buffer_size));
    if (!http->buffer) {
        ZQ_LOG(7, "not enough memory for receive buffer (%lu bytes)",
               static_cast<unsigned long>(receive_buffer_size));
        return nullptr;
    }
    http->bufferlen = receive_buffer_size;
    http->requestheaderlist = zq_list_create();
    if (!http->requestheaderlist) {
        ZQ_LOG(7, "not enough memory for request header list");
        return nullptr;
    }
    return zqhttp.release();
}

zqerror zq_http_lite_set_request_body(zqhttp *zqhttp, const void *data, size_t size)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(data != NULL);
    http_lite *http = zq_http_lite_of(zqhttp);
    ZQ_ASSERT(http != NULL);

    void *copy = zq_memdup(data, size);
    if (!copy) {
        ZQ_LOG(7, "not enough memory for request body (%lu bytes)",
               static_cast<unsigned long>(size));
        return ZQ_ERROR_NO_MEMORY;
    }
    zq_free(http->requestbody);
    http->requestbody = copy;
    http->requestbodysize = size;
    return ZQ_ERROR_NONE;
}

zqerror zq_http_lite_add_header(zqhttp *zqhttp, const char *header)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(header != NULL);
    http_lite *http = zq_http_lite_of(zqhttp);
    ZQ_ASSERT(http != NULL);

    owned<http_lite_header, zq_http_lite_header_destroy> entry(make_zeroed<http_lite_header>());
    if (!entry) {
        ZQ_LOG(7, "not enough memory for header entry");
        return ZQ_ERROR_NO_MEMORY;
    }
    entry->line = zq_strdup(header);
    if (!entry->line) {
        ZQ_LOG(7, "not enough memory for header line");
        return ZQ_ERROR_NO_MEMORY;
    }
    list_append(http->requestheaderlist, entry.release());
    return ZQ_ERROR_NONE;
}
