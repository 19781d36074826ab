// zq_http_parse_url() beside a reading of the same URL with plain searches, and what it splits put
// together and split again.

#include "zq/net/zqhttp.h"

#include <algorithm>
#include <optional>

#include "fuzz/support/fuzz.h"
#include "zq/internal/zqowned.h"

namespace {
struct Parts {
    std::string scheme, host, query;
    uint32_t port = 0;
    bool operator==(const Parts &) const = default;
};
} // namespace

static std::optional<Parts> parse(const std::string &url)
{
    char unset;
    char *scheme = &unset, *host = &unset, *query = &unset;
    uint32_t port = 1;
    const zqerror result = zq_http_parse_url(url.c_str(), &scheme, &host, &port, &query);
    FUZZ_CHECK(zq_http_parse_url(url.c_str(), nullptr, nullptr, nullptr, nullptr) == result);
    if (result != ZQ_ERROR_NONE) {
        FUZZ_CHECK(result == ZQ_ERROR_INVALID_ARGUMENT && !scheme && !host && !query && port == 0);
        return {};
    }
    const owned_block<> owners[] = {owned_block<>(scheme), owned_block<>(host),
                                    owned_block<>(query)};
    return Parts{scheme, host, query, port};
}

// 0 when it is no number that could be a port.
static uint32_t read_port(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of('0'), text.size()));
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != text.npos)
        return 0;
    return static_cast<uint32_t>(std::stoul(std::string(text)));
}

static uint32_t default_port(std::string_view scheme)
{
    return scheme == "ftp"     ? 21
           : scheme == "http"  ? 80
           : scheme == "https" ? 443
           : scheme == "icap"  ? 1344
                               : 0;
}

// The server's part without user information, of which each piece may have one colon.
static std::optional<std::string_view> find_server(std::string_view authority)
{
    for (;;) {
        const size_t at = authority.find('@');
        const std::string_view piece = authority.substr(0, at);
        if (piece.find(':') != piece.rfind(':'))
            return {};
        if (at == authority.npos)
            return piece;
        authority.remove_prefix(at + 1);
    }
}

// Whether the parts are those of the URL, or there are none because it must be refused.
static bool is_right(std::string_view url, const std::optional<Parts> &parts)
{
    const size_t colon = url.find(':');
    if (colon == url.npos || url.substr(colon, 3) != "://")
        return !parts;
    const std::string_view rest = url.substr(colon + 3);
    const size_t path = std::min(rest.find('/'), rest.size());
    const auto server = find_server(rest.substr(0, path));
    if (!server)
        return !parts;

    Parts expected{std::string(url.substr(0, colon)),
                   std::string(server->substr(0, server->find(':'))),
                   path < rest.size() ? std::string(rest.substr(path)) : "/",
                   default_port(url.substr(0, colon))};
    if (const size_t at = server->find(':'); at != server->npos) {
        const std::string_view text = server->substr(at + 1);
        // strtoul() also takes white space and a sign, and wraps a negative number around.
        const bool plain = text.find_first_of("\t\n\v\f\r +-") != 0;
        expected.port = plain ? read_port(text) : parts ? parts->port : 0;
        if (expected.port == 0 || expected.port > 65535)
            return !parts;
    }
    return parts == expected;
}

void fuzz(Input &input)
{
    const std::string url = input.text();
    const std::optional<Parts> parts = parse(url);
    FUZZ_CHECK(is_right(url, parts));
    if (!parts)
        return;
    const std::string port = parts->port > 0 ? ":" + std::to_string(parts->port) : "";
    FUZZ_CHECK(parse(parts->scheme + "://" + parts->host + port + parts->query) == parts);
}
