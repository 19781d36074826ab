#include "zq/net/zqhttp.h"

#include <cstdlib>
#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/util/zqstring.h"

namespace {

struct url_parts {
    owned_block<> scheme;
    owned_block<> hostname;
    uint32_t port = 0;
    owned_block<> query;
};

} // namespace

/* ---- URLs ---- */

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
