#include "zq/net/zqhttp.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqbodystore.h"
#include "zq/internal/zqheaderlookup.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/io/zqfile.h"
#include "zq/net/zqhttpheaders.h"
#include "zq/util/zqprintf.h"
#include "zq/util/zqstring.h"
#include "zq/util/zqtimeout.h"

namespace {

constexpr unsigned int max_attempts = 10; // the first request and nine redirects

enum http_method : uint32_t {
    METHOD_NONE, // left by a custom method that could not be copied
    METHOD_CUSTOM,
    METHOD_GET,
    METHOD_POST,
    METHOD_PUT,
    METHOD_DELETE,
};

struct progress_record {
    zq_http_progress_callback callback;
    void *context;
    int64_t total; // -1 while unknown
    int64_t current;
};

struct time_left {
    int32_t seconds; // -1 without a limit
    uint32_t microseconds;
};

struct url_parts {
    owned_block<> scheme;
    owned_block<> hostname;
    uint32_t port = 0;
    owned_block<> query;
};

} // namespace

struct zqhttp {
    char *proxyhostname;
    uint32_t proxyport;

    int32_t timeout_seconds;
    uint32_t timeout_microseconds;
    struct zqtimeout *zqtimeout; // of the full transfer
    int32_t idle_timeout_seconds;
    uint32_t idle_timeout_microseconds;
    struct zqtimeout *idle_zqtimeout;
    struct zqtimeout *progress_zqtimeout; // paces the progress callbacks

    zq_http_proxy_callback proxycallback;
    void *proxycontext;

    char *baseurl; // up to, not including, the path
    uint32_t method;
    char *custommethod;

    int32_t statuscode;
    int aborted;
    progress_record upload;
    progress_record download;

    struct zqhttpheaders *responseheaders;
    zq_http_response_body_callback responsecallback;
    void *responsecontext;
    body_store response; // the body, unless there is a callback for it

    void *context;
    zq_http_destroy_callback destroy_callback;
    zq_http_reset_callback reset_callback;
    zq_http_url_callback url_callback;
    zq_http_perform_callback perform_callback;
};

// ---- URLs ----

// Finds the host in the authority that begins at `start`. Where it ends is a ':' before the port,
// or the end of the authority. Only '/' ends that: "h?x" is a host, and IPv6 literals have too many
// colons. Both are meant; the parser stays this simple.
static zqerror zq_http_url_find_host(const char *url, const char *start, const char **hostptr,
                                     const char **endptr)
{
    const char *colon = nullptr;
    const char *pos = start;
    for (; *pos != '\0' && *pos != '/'; pos++) {
        if (*pos == '@') {
            start = pos + 1;
            colon = nullptr;
        } else if (*pos == ':' && colon) {
            ZQ_LOG(6, "URL '%s' has two colons in hostname or username", url);
            return ZQ_ERROR_INVALID_ARGUMENT;
        } else if (*pos == ':') {
            colon = pos;
        }
    }
    *hostptr = start;
    *endptr = colon ? colon : pos;
    return ZQ_ERROR_NONE;
}

// Converts the port at *posptr and moves on behind it.
static zqerror zq_http_url_parse_port(const char **posptr, uint32_t *portptr)
{
    char *end;
    const unsigned long port = strtoul(*posptr, &end, 10);
    if (port == 0 || port >= 65536) {
        ZQ_LOG(6, "the port number must be between 1-65535");
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    if (*end != '/' && *end != '\0') {
        ZQ_LOG(6, "invalid character '%c' in port number", *end);
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    *portptr = static_cast<uint32_t>(port);
    *posptr = end;
    return ZQ_ERROR_NONE;
}

// A scheme of others is no error: its port is 0, for the caller to judge.
static uint32_t zq_http_url_default_port(const char *scheme, const char *url)
{
    static constexpr struct {
        const char *scheme;
        uint32_t port;
    } ports[] = {{"ftp", 21}, {"http", 80}, {"https", 443}, {"icap", 1344}};
    for (const auto &row : ports) {
        if (strcmp(row.scheme, scheme) == 0)
            return row.port;
    }
    ZQ_LOG(13, "unrecognized scheme '%s' in URL '%s'", scheme, url);
    return 0;
}

static zqerror zq_http_url_parse_authority(const char *url, const char *pos, url_parts *parts)
{
    const char *host;
    const char *hostend;
    zqerror result = zq_http_url_find_host(url, pos, &host, &hostend);
    if (result != ZQ_ERROR_NONE)
        return result;

    pos = hostend;
    if (*pos == ':') {
        pos++;
        result = zq_http_url_parse_port(&pos, &parts->port);
        if (result != ZQ_ERROR_NONE)
            return result;
    } else {
        parts->port = zq_http_url_default_port(parts->scheme.get(), url);
    }

    parts->hostname.reset(zq_strndup(host, static_cast<size_t>(hostend - host)));
    if (!parts->hostname) {
        ZQ_LOG(7, "not enough memory for hostname");
        parts->port = 0;
        return ZQ_ERROR_NO_MEMORY;
    }
    parts->query.reset(zq_strdup(*pos == '/' ? pos : "/"));
    if (!parts->query) {
        ZQ_LOG(7, "not enough memory for query part of the URL");
        return ZQ_ERROR_NO_MEMORY;
    }
    return ZQ_ERROR_NONE;
}

static zqerror zq_http_url_parse(const char *url, url_parts *parts)
{
    const char *colon = strchr(url, ':');
    if (!colon) {
        ZQ_LOG(6, "URL '%s' has no colon after scheme", url);
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    parts->scheme.reset(zq_strndup(url, static_cast<size_t>(colon - url)));
    if (!parts->scheme) {
        ZQ_LOG(7, "not enough memory for URL scheme");
        return ZQ_ERROR_NO_MEMORY;
    }
    if (strncmp(colon, "://", 3) != 0) {
        ZQ_LOG(6, "URL '%s' has no :// after scheme", url);
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    return zq_http_url_parse_authority(url, colon + 3, parts);
}

zqerror zq_http_parse_url(const char *url, char **schemeptr, char **hostnameptr, uint32_t *portptr,
                          char **queryptr)
{
    ZQ_ASSERT(url != NULL);

    url_parts parts;
    const zqerror result = zq_http_url_parse(url, &parts);
    if (result != ZQ_ERROR_NONE) {
        parts.scheme.reset();
        parts.hostname.reset();
    }
    if (schemeptr)
        *schemeptr = parts.scheme.release();
    if (hostnameptr)
        *hostnameptr = parts.hostname.release();
    if (portptr)
        *portptr = parts.port;
    if (queryptr)
        *queryptr = parts.query.release();
    return result;
}

// ---- life ----

static void zq_http_destroy_timeout(zqtimeout *zqtimeout)
{
    if (zqtimeout)
        zq_timeout_destroy(zqtimeout);
}

static void zq_http_progress_reset(progress_record *record)
{
    record->total = -1;
    record->current = 0;
}

zqhttp *zq_http_generic_create(void)
{
    owned<zqhttp, zq_http_destroy> http(make_zeroed<zqhttp>());
    if (!http) {
        ZQ_LOG(7, "not enough memory for the zqhttp context");
        return nullptr;
    }
    http->timeout_seconds = -1;
    http->idle_timeout_seconds = 30;
    http->method = METHOD_GET;
    zq_http_progress_reset(&http->upload);
    zq_http_progress_reset(&http->download);

    http->zqtimeout = zq_timeout_create();
    if (!http->zqtimeout) {
        ZQ_LOG(7, "not enough memory for zqtimeout context");
        return nullptr;
    }
    http->idle_zqtimeout = zq_timeout_create();
    if (!http->idle_zqtimeout) {
        ZQ_LOG(7, "not enough memory for idle timeout");
        return nullptr;
    }
    http->progress_zqtimeout = zq_timeout_create();
    if (!http->progress_zqtimeout) {
        ZQ_LOG(7, "not enough memory for progress callback timeout");
        return nullptr;
    }
    http->responseheaders = zq_httpheaders_create();
    if (!http->responseheaders) {
        ZQ_LOG(7, "unable to create the response headers module context");
        return nullptr;
    }
    return http.release();
}

void zq_http_destroy(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    if (zqhttp->destroy_callback)
        zqhttp->destroy_callback(zqhttp->context);
    body_store_clear(&zqhttp->response);
    if (zqhttp->responseheaders)
        zq_httpheaders_destroy(zqhttp->responseheaders);
    zq_free(zqhttp->custommethod);
    zq_free(zqhttp->baseurl);
    zq_http_destroy_timeout(zqhttp->zqtimeout);
    zq_http_destroy_timeout(zqhttp->idle_zqtimeout);
    zq_http_destroy_timeout(zqhttp->progress_zqtimeout);
    zq_free(zqhttp->proxyhostname);
    zq_free(zqhttp);
}

zqerror zq_http_reset(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqerror result = ZQ_ERROR_NONE;
    if (zqhttp->reset_callback)
        result = zqhttp->reset_callback(zqhttp);
    zq_free(zqhttp->baseurl);
    zqhttp->baseurl = nullptr;
    zqhttp->method = METHOD_GET;
    zqhttp->statuscode = 0;
    zqhttp->aborted = 0;
    zq_http_set_progress_callbacks(zqhttp, nullptr, nullptr, nullptr, nullptr);
    zq_http_progress_reset(&zqhttp->upload);
    zq_http_progress_reset(&zqhttp->download);
    zq_http_set_response_body_callback(zqhttp, nullptr, nullptr);
    body_store_clear(&zqhttp->response);
    return result;
}

// ---- settings ----

zqerror zq_http_set_proxy(zqhttp *zqhttp, const char *hostname, uint32_t port)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(port <= 65535);
    ZQ_ASSERT(hostname == NULL || port > 0);

    char *copy = hostname ? zq_strdup(hostname) : nullptr;
    if (hostname && !copy) {
        ZQ_LOG(7, "not enough memory for proxy hostname '%s'", hostname);
        return ZQ_ERROR_NO_MEMORY;
    }
    zq_free(zqhttp->proxyhostname);
    zqhttp->proxyhostname = copy;
    zqhttp->proxyport = hostname ? port : 0;
    return ZQ_ERROR_NONE;
}

void zq_http_get_proxy(zqhttp *zqhttp, const char **hostnameptr, uint32_t *portptr)
{
    ZQ_ASSERT(zqhttp != NULL);

    if (hostnameptr)
        *hostnameptr = zqhttp->proxyhostname;
    if (portptr)
        *portptr = zqhttp->proxyport;
}

void zq_http_set_proxy_callback(zqhttp *zqhttp, zq_http_proxy_callback callback, void *context)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->proxycallback = callback;
    zqhttp->proxycontext = context;
}

void zq_http_set_timeout(zqhttp *zqhttp, int32_t seconds, uint32_t microseconds)
{
    zqhttp->timeout_seconds = seconds;
    zqhttp->timeout_microseconds = microseconds;
}

void zq_http_set_idle_timeout(zqhttp *zqhttp, int32_t seconds, uint32_t microseconds)
{
    zqhttp->idle_timeout_seconds = seconds;
    zqhttp->idle_timeout_microseconds = microseconds;
}

void zq_http_get_idle_timeout(zqhttp *zqhttp, int32_t *secondsptr, uint32_t *microsecondsptr)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(secondsptr != NULL);
    ZQ_ASSERT(microsecondsptr != NULL);

    *secondsptr = zqhttp->idle_timeout_seconds;
    *microsecondsptr = zqhttp->idle_timeout_microseconds;
}

// The end of "scheme://authority", or null when there are not two slashes.
static const char *zq_http_find_path(const char *url)
{
    const char *slash = strchr(url, '/');
    if (slash)
        slash = strchr(slash + 1, '/');
    if (!slash)
        return nullptr;
    const char *path = strchr(slash + 1, '/');
    return path ? path : slash + strlen(slash);
}

zqerror zq_http_set_url(zqhttp *zqhttp, const char *url)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(url != NULL);

    if (!zqhttp->url_callback) {
        ZQ_LOG(6, "this HTTP implementation does not support setting the URL");
        return ZQ_ERROR_UNSUPPORTED;
    }
    const zqerror result = zqhttp->url_callback(zqhttp, url);
    if (result != ZQ_ERROR_NONE)
        return result;

    const char *path = zq_http_find_path(url);
    if (!path) {
        ZQ_LOG(6, "invalid URL '%s'", url);
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    char *baseurl = zq_strndup(url, static_cast<size_t>(path - url));
    if (!baseurl) {
        ZQ_LOG(7, "not enough memory for base URL");
        return ZQ_ERROR_NO_MEMORY;
    }
    zq_free(zqhttp->baseurl);
    zqhttp->baseurl = baseurl;
    return ZQ_ERROR_NONE;
}

void zq_http_set_method_get(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->method = METHOD_GET;
}

void zq_http_set_method_post(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->method = METHOD_POST;
}

void zq_http_set_method_put(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->method = METHOD_PUT;
}

void zq_http_set_method_delete(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->method = METHOD_DELETE;
}

static constexpr struct {
    http_method method;
    const char *text;
} zq_http_methods[] = {
    {METHOD_GET, "GET"},
    {METHOD_POST, "POST"},
    {METHOD_PUT, "PUT"},
    {METHOD_DELETE, "DELETE"},
};

zqerror zq_http_set_method(zqhttp *zqhttp, const char *method)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(method != NULL);

    for (const auto &row : zq_http_methods) {
        if (strcmp(row.text, method) == 0) {
            zqhttp->method = row.method;
            return ZQ_ERROR_NONE;
        }
    }
    zq_free(zqhttp->custommethod);
    zqhttp->custommethod = zq_strdup(method);
    if (!zqhttp->custommethod) {
        ZQ_LOG(7, "not enough memory for setting method to '%s'", method);
        zqhttp->method = METHOD_NONE;
        return ZQ_ERROR_NO_MEMORY;
    }
    zqhttp->method = METHOD_CUSTOM;
    return ZQ_ERROR_NONE;
}

const char *zq_http_get_method(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    if (zqhttp->method == METHOD_CUSTOM)
        return zqhttp->custommethod;
    for (const auto &row : zq_http_methods) {
        if (row.method == zqhttp->method)
            return row.text;
    }
    if (zqhttp->method != METHOD_NONE)
        ZQ_LOG(6, "INTERNAL ERROR: Unrecognized method %u", zqhttp->method);
    return "GET";
}

void zq_http_set_response_body_callback(zqhttp *zqhttp, zq_http_response_body_callback callback,
                                        void *context)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->responsecallback = callback;
    zqhttp->responsecontext = context;
}

void zq_http_set_upload_progress_callback(zqhttp *zqhttp, zq_http_progress_callback callback,
                                          void *context)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->upload.callback = callback;
    zqhttp->upload.context = context;
}

void zq_http_set_download_progress_callback(zqhttp *zqhttp, zq_http_progress_callback callback,
                                            void *context)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->download.callback = callback;
    zqhttp->download.context = context;
}

void zq_http_set_progress_callbacks(zqhttp *zqhttp, zq_http_progress_callback upcallback,
                                    void *upcontext, zq_http_progress_callback downcallback,
                                    void *downcontext)
{
    ZQ_ASSERT(zqhttp != NULL);

    zq_http_set_upload_progress_callback(zqhttp, upcallback, upcontext);
    zq_http_set_download_progress_callback(zqhttp, downcallback, downcontext);
}

// ---- the transfer ----

static void zq_http_begin_transfer(zqhttp *zqhttp)
{
    zq_timeout_set(zqhttp->zqtimeout, zqhttp->timeout_seconds, zqhttp->timeout_microseconds);
    zq_http_reset_idle_timeout(zqhttp);
    zq_http_progress_reset(&zqhttp->upload);
    zq_http_progress_reset(&zqhttp->download);

    const bool reports = zqhttp->upload.callback || zqhttp->download.callback;
    zq_timeout_set(zqhttp->progress_zqtimeout, reports ? 1 : -1, 0);
    zq_http_progress_download_force(zqhttp);
}

// What happens between the steps of an attempt.
static zqerror zq_http_pause(zqhttp *zqhttp)
{
    zq_http_progress_download_check(zqhttp);
    const zqerror result = zq_http_timeout_check(zqhttp, nullptr, nullptr);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "a timeout occurred");
    return result;
}

static zqerror zq_http_ask_for_proxy(zqhttp *zqhttp)
{
    // A missing URL is for the transport to report.
    if (!zqhttp->proxycallback || !zqhttp->baseurl)
        return ZQ_ERROR_NONE;

    char *scheme;
    char *hostname;
    uint32_t port;
    zqerror result = zq_http_parse_url(zqhttp->baseurl, &scheme, &hostname, &port, nullptr);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to parse URL '%s'", zqhttp->baseurl);
        return result;
    }
    result = zqhttp->proxycallback(zqhttp, scheme, hostname, port, zqhttp->proxycontext);
    zq_free(scheme);
    zq_free(hostname);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "the proxy callback returned error %d (%s)", result, zq_error_string(result));
    return result;
}

static zqerror zq_http_attempt(zqhttp *zqhttp)
{
    if (!zqhttp->perform_callback) {
        ZQ_LOG(6, "The HTTP implementation does not support performing an operation");
        return ZQ_ERROR_UNSUPPORTED;
    }
    zq_httpheaders_clear(zqhttp->responseheaders);
    body_store_clear(&zqhttp->response);
    zqerror result = zq_http_pause(zqhttp);
    if (result == ZQ_ERROR_NONE)
        result = zq_http_ask_for_proxy(zqhttp);
    if (result == ZQ_ERROR_NONE)
        result = zq_http_pause(zqhttp);
    if (result != ZQ_ERROR_NONE)
        return result;
    zqhttp->statuscode = 0;
    return zqhttp->perform_callback(zqhttp);
}

static bool zq_http_is_redirected(const zqhttp *zqhttp)
{
    return zqhttp->statuscode == 301 || zqhttp->statuscode == 302;
}

// Only a location that begins with '/' is resolved; any other is taken for an absolute URL.
static zqerror zq_http_follow_redirect(zqhttp *zqhttp)
{
    ZQ_LOG(13, "Got HTTP redirect (301/302)");
    zqerror result = zq_http_pause(zqhttp);
    if (result != ZQ_ERROR_NONE)
        return result;
    const char *location = httpheaders_lookup(zqhttp->responseheaders, "location");
    if (!location) {
        ZQ_LOG(7, "Redirect without Location header");
        return ZQ_ERROR_PROTOCOL;
    }

    owned_block<> joined;
    if (*location == '/') {
        const char *baseurl = zqhttp->baseurl ? zqhttp->baseurl : "";
        joined.reset(zq_strdupf("%s%s", baseurl, location));
        if (!joined) {
            ZQ_LOG(7, "not enough memory for the redirect URL '%s%s'", baseurl, location);
            return ZQ_ERROR_NO_MEMORY;
        }
        location = joined.get();
    }
    result = zq_http_set_url(zqhttp, location);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "Unable to set the redirect URL '%s'", location);
    return result;
}

static zqerror zq_http_transfer(zqhttp *zqhttp)
{
    for (unsigned int attempt = 0; attempt < max_attempts; attempt++) {
        zqerror result = zq_http_attempt(zqhttp);
        if (result != ZQ_ERROR_NONE || !zq_http_is_redirected(zqhttp))
            return result;
        result = zq_http_follow_redirect(zqhttp);
        if (result != ZQ_ERROR_NONE)
            return result;
    }
    ZQ_LOG(7, "Too many redirects (%u)", max_attempts);
    return ZQ_ERROR_OUT_OF_RANGE;
}

zqerror zq_http_perform(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    zq_http_begin_transfer(zqhttp);
    const zqerror result = zq_http_transfer(zqhttp);
    zqhttp->aborted = 0;
    return result;
}

void zq_http_abort(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    ZQ_LOG(10, "aborting transfer");
    zqhttp->aborted = 1;
}

int zq_http_is_aborted(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    return zqhttp->aborted;
}

// ---- the response ----

int32_t zq_http_get_status_code(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    return zqhttp->statuscode;
}

const char *zq_http_get_response_header(zqhttp *zqhttp, const char *name)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(name != NULL);
    ZQ_ASSERT(zqhttp->responseheaders != NULL);

    return zq_httpheaders_get(zqhttp->responseheaders, name);
}

// The number in a header, whose text is null when it is missing.
static zqerror zq_http_parse_header_int(const char *text, int32_t *valueptr)
{
    *valueptr = -1;
    if (!text)
        return ZQ_ERROR_NOT_FOUND;
    errno = 0;
    const long value = strtol(text, nullptr, 10);
    if (errno == ERANGE || value < INT32_MIN || value > INT32_MAX)
        return ZQ_ERROR_OUT_OF_RANGE;
    *valueptr = static_cast<int32_t>(value);
    return ZQ_ERROR_NONE;
}

zqerror zq_http_get_response_header_int(zqhttp *zqhttp, const char *name, int32_t *valueptr)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(name != NULL);
    ZQ_ASSERT(valueptr != NULL);

    return zq_http_parse_header_int(zq_http_get_response_header(zqhttp, name), valueptr);
}

zqerror http_lookup_response_int(zqhttp *zqhttp, const char *lowercase_name, int32_t *valueptr)
{
    return zq_http_parse_header_int(httpheaders_lookup(zqhttp->responseheaders, lowercase_name),
                                    valueptr);
}

zqerror zq_http_get_response_body(zqhttp *zqhttp, char **bodyptr)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(bodyptr != NULL);

    *bodyptr = nullptr;
    const body_store &body = zqhttp->response;
    if (!body.data) {
        ZQ_LOG(6, "no response data available");
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    if (body.size + 1 < body.size) {
        ZQ_LOG(6, "body length too high, size would wrap around");
        return ZQ_ERROR_OUT_OF_RANGE;
    }
    char *copy = static_cast<char *>(zq_malloc(body.size + 1));
    if (!copy) {
        ZQ_LOG(7, "not enough memory for response body (%lu bytes)",
               static_cast<unsigned long>(body.size + 1));
        return ZQ_ERROR_NO_MEMORY;
    }
    memcpy(copy, body.data, body.size);
    copy[body.size] = '\0';
    *bodyptr = copy;
    return ZQ_ERROR_NONE;
}

zqerror zq_http_get_response_body_and_size(zqhttp *zqhttp, void **bodyptr, size_t *sizeptr)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(bodyptr != NULL);
    ZQ_ASSERT(sizeptr != NULL);

    *bodyptr = nullptr;
    *sizeptr = 0;
    const body_store &body = zqhttp->response;
    if (!body.data) {
        ZQ_LOG(6, "no response data available");
        return ZQ_ERROR_INVALID_ARGUMENT;
    }
    *bodyptr = zq_memdup(body.data, body.size);
    if (!*bodyptr)
        return ZQ_ERROR_NO_MEMORY;
    *sizeptr = body.size;
    return ZQ_ERROR_NONE;
}

// ---- downloads in one call ----

static zqerror zq_http_write_to_file(const void *data, size_t size, void *context)
{
    const size_t written = zq_file_write(static_cast<FILE *>(context), data, size);
    if (written != size) {
        ZQ_LOG(7, "short write %lu/%lu bytes", static_cast<unsigned long>(written),
               static_cast<unsigned long>(size));
        return ZQ_ERROR_WRITE;
    }
    return ZQ_ERROR_NONE;
}

zqerror zq_http_generic_get_url_to_fileptr_with_timeout(const char *url, FILE *file,
                                                        int32_t seconds, uint32_t microseconds,
                                                        zq_http_create_callback createfunc)
{
    ZQ_ASSERT(url != NULL);
    ZQ_ASSERT(file != NULL);
    ZQ_ASSERT(createfunc != NULL);

    owned<zqhttp, zq_http_destroy> http(createfunc());
    if (!http) {
        ZQ_LOG(7, "unable to create the HTTP context");
        return ZQ_ERROR_GENERIC;
    }
    zqerror result = zq_http_set_url(http.get(), url);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to set the URL, error %d (%s)", result, zq_error_string(result));
        return result;
    }
    zq_http_set_response_body_callback(http.get(), zq_http_write_to_file, file);
    zq_http_set_timeout(http.get(), seconds, microseconds);
    result = zq_http_perform(http.get());
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to download, error %d (%s)", result, zq_error_string(result));
        return result;
    }
    const int32_t status = zq_http_get_status_code(http.get());
    if (status != 200) {
        ZQ_LOG(7, "The HTTP server returned status code %d", status);
        return ZQ_ERROR_GENERIC;
    }
    return ZQ_ERROR_NONE;
}

zqerror zq_http_generic_get_url_to_file(const char *url, const char *filename,
                                        zq_http_create_callback createfunc)
{
    ZQ_ASSERT(url != NULL);
    ZQ_ASSERT(filename != NULL);
    ZQ_ASSERT(createfunc != NULL);

    FILE *file = zq_file_create_binary(filename);
    if (!file) {
        ZQ_LOG(7, "unable to create the output file '%s'", filename);
        return ZQ_ERROR_WRITE;
    }
    const zqerror result =
        zq_http_generic_get_url_to_fileptr_with_timeout(url, file, -1, 0, createfunc);
    // What the stream still held may not fit on the disk.
    if (zq_file_close(file) != 0 && result == ZQ_ERROR_NONE)
        return ZQ_ERROR_WRITE;
    return result;
}

// ---- for transports: the implementation ----

void zq_http_set_context(zqhttp *zqhttp, void *context)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->context = context;
}

void *zq_http_get_context(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    return zqhttp->context;
}

void zq_http_set_destroy_callback(zqhttp *zqhttp, zq_http_destroy_callback callback)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->destroy_callback = callback;
}

void zq_http_set_reset_callback(zqhttp *zqhttp, zq_http_reset_callback callback)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->reset_callback = callback;
}

void zq_http_set_url_callback(zqhttp *zqhttp, zq_http_url_callback callback)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->url_callback = callback;
}

void zq_http_set_perform_callback(zqhttp *zqhttp, zq_http_perform_callback callback)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->perform_callback = callback;
}

// ---- for transports: reporting the response ----

void zq_http_set_status_code(zqhttp *zqhttp, int32_t code)
{
    ZQ_ASSERT(zqhttp != NULL);

    zqhttp->statuscode = code;
}

// The number up to a space or the end, or -1. Only an overflow that makes the number smaller is
// noticed; that is meant.
static int64_t zq_http_parse_content_length(const char *name, const char *value)
{
    int64_t length = 0;
    for (const char *c = value; *c != '\0' && *c != ' '; c++) {
        if (*c < '0' || *c > '9') {
            ZQ_LOG(6, "the %s header contains a value '%s' with non-digits", name, value);
            return -1;
        }
        const uint64_t digit = static_cast<uint64_t>(*c - '0');
        const int64_t next = static_cast<int64_t>(static_cast<uint64_t>(length) * 10 + digit);
        if (next < length) {
            ZQ_LOG(6, "the %s header value %s is too large for a signed 64-bit integer", name,
                   value);
            return -1;
        }
        length = next;
    }
    return length;
}

zqerror zq_http_write_response_header(zqhttp *zqhttp, const char *name, const char *value)
{
    ZQ_ASSERT(zqhttp != NULL);

    const zqerror result = zq_httpheaders_add(zqhttp->responseheaders, name, value);
    if (value && zq_strcasecmp(name, "content-length") == 0) {
        zqhttp->download.total = zq_http_parse_content_length(name, value);
        if (zqhttp->download.total < 0)
            ZQ_LOG(6, "considering the content length unknown");
    }
    return result;
}

// Calls a progress callback; the next call is due in a second.
static void zq_http_progress_report(zqhttp *zqhttp, const progress_record *record, const char *what)
{
    if (!record->callback)
        return;
    zq_timeout_set(zqhttp->progress_zqtimeout, 1, 0);
    const zqerror result = record->callback(record->current, record->total, record->context);
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "%s callback returned %d, aborting the transfer", what, result);
        zq_http_abort(zqhttp);
    }
}

// Whether a callback is to be called. The timer is shared: where only the other direction has a
// callback, a second that has passed starts again, or every later wait would return at once.
static bool zq_http_progress_is_due(zqhttp *zqhttp, const progress_record *record)
{
    if (zq_timeout_check(zqhttp->progress_zqtimeout, nullptr, nullptr) != 1)
        return false;
    if (!record->callback)
        zq_timeout_set(zqhttp->progress_zqtimeout, 1, 0);
    return record->callback != nullptr;
}

static void zq_http_progress_check(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    if (!zq_http_progress_is_due(zqhttp, &zqhttp->download))
        return;
    ZQ_LOG(13, "download progress callback is due");
    zq_http_progress_report(zqhttp, &zqhttp->download, "The progress");
}

static zqerror zq_http_store_in_memory(zqhttp *zqhttp, const void *data, size_t size)
{
    if (!body_store_append(&zqhttp->response, data, size)) {
        ZQ_LOG(7, "not enough memory for response body (%lu bytes)",
               static_cast<unsigned long>(zqhttp->response.position + size));
        return ZQ_ERROR_NO_MEMORY;
    }
    return ZQ_ERROR_NONE;
}

static zqerror zq_http_count_download(zqhttp *zqhttp, uint64_t size)
{
    if (size > INT64_MAX) {
        ZQ_LOG(6, "The data size is so large that it doesn't fit in a 64-bit signed integer");
        return ZQ_ERROR_OUT_OF_RANGE;
    }
    int64_t current;
    if (__builtin_add_overflow(zqhttp->download.current, static_cast<int64_t>(size), &current)) {
        ZQ_LOG(6, "The total data size is so large that it doesn't fit in a 64-bit signed integer");
        return ZQ_ERROR_OUT_OF_RANGE;
    }
    zqhttp->download.current = current;
    return ZQ_ERROR_NONE;
}

zqerror zq_http_write_response_body(zqhttp *zqhttp, const void *data, size_t size)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(data != NULL);
    ZQ_ASSERT(size > 0);

    zqerror result = zqhttp->responsecallback
                         ? zqhttp->responsecallback(data, size, zqhttp->responsecontext)
                         : zq_http_store_in_memory(zqhttp, data, size);
    if (result == ZQ_ERROR_NONE)
        result = zq_http_count_download(zqhttp, size);
    if (result == ZQ_ERROR_NONE)
        zq_http_progress_check(zqhttp);
    return result;
}

// ---- for transports: time and progress ----

// Lowers *left to what is left of a timeout. True when that has expired.
static bool zq_http_take_time_left(zqtimeout *zqtimeout, time_left *left)
{
    time_left own;
    const int state = zq_timeout_check(zqtimeout, &own.seconds, &own.microseconds);
    const bool shorter = own.seconds < left->seconds ||
                         (own.seconds == left->seconds && own.microseconds < left->microseconds);
    if (own.seconds >= 0 && (left->seconds < 0 || shorter))
        *left = own;
    return state == 1;
}

zqerror zq_http_timeout_check(zqhttp *zqhttp, int32_t *secondsptr, uint32_t *microsecondsptr)
{
    ZQ_ASSERT(zqhttp != NULL);
    ZQ_ASSERT(zqhttp->zqtimeout);

    zqerror result = ZQ_ERROR_NONE;
    time_left left = {-1, 0};
    if (zq_http_take_time_left(zqhttp->zqtimeout, &left)) {
        ZQ_LOG(7, "the full transfer timer expired");
        result = ZQ_ERROR_TIMER_EXPIRED;
    }
    if (zq_http_take_time_left(zqhttp->idle_zqtimeout, &left) && result == ZQ_ERROR_NONE) {
        ZQ_LOG(7, "idle timeout occurred");
        result = ZQ_ERROR_TIMED_OUT;
    }
    // A report that is due leaves no time, so that the next wait returns at once.
    zq_http_take_time_left(zqhttp->progress_zqtimeout, &left);
    if (secondsptr)
        *secondsptr = left.seconds;
    if (microsecondsptr)
        *microsecondsptr = left.microseconds;
    return result;
}

void zq_http_timeout_reset(zqhttp *zqhttp, int32_t *secondsptr, uint32_t *microsecondsptr)
{
    ZQ_ASSERT(zqhttp != NULL);

    zq_timeout_set(zqhttp->zqtimeout, zqhttp->timeout_seconds, zqhttp->timeout_microseconds);
    if (secondsptr)
        *secondsptr = zqhttp->timeout_seconds;
    if (microsecondsptr)
        *microsecondsptr = zqhttp->timeout_microseconds;
}

void zq_http_reset_idle_timeout(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    zq_timeout_set(zqhttp->idle_zqtimeout, zqhttp->idle_timeout_seconds,
                   zqhttp->idle_timeout_microseconds);
}

void zq_http_progress_upload_check(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    if (!zq_http_progress_is_due(zqhttp, &zqhttp->upload))
        return;
    ZQ_LOG(13, "upload progress callback is due");
    zq_http_progress_upload_force(zqhttp);
}

void zq_http_progress_download_check(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    if (!zq_http_progress_is_due(zqhttp, &zqhttp->download))
        return;
    ZQ_LOG(13, "download progress callback is due");
    zq_http_progress_download_force(zqhttp);
}

void zq_http_progress_upload_force(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    zq_http_progress_report(zqhttp, &zqhttp->upload, "The upload progress");
}

void zq_http_progress_download_force(zqhttp *zqhttp)
{
    ZQ_ASSERT(zqhttp != NULL);

    zq_http_progress_report(zqhttp, &zqhttp->download, "The download progress");
}
