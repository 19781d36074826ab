// The Encapsulated header of ICAP replies beside its grammar and its rules, one after the other.

#include <map>
#include <optional>

#include "fuzz/support/fuzz.h"
#include "fuzz/support/peer.h"
#include "zq/internal/zqowned.h"
#include "zq/net/zqicap.h"

using Offsets = std::map<std::string, unsigned long>;

namespace {
enum Method { REQMOD, RESPMOD, OPTIONS };

struct Verdict {
    zqerror result = ZQ_ERROR_PROTOCOL;
    size_t header_size = 0;
    bool has_body = false;
};
} // namespace

static const std::string_view names[] = {"req-hdr",  "res-hdr",  "req-body",
                                         "res-body", "opt-body", "null-body"};

// Reads "name=offset" elements in the order of `names`. False when the value must be refused. Where
// only strtoul() knows, at a sign, white space or too large a number, *judged becomes false.
static bool read_offsets(std::string_view value, Offsets *offsets, bool *judged)
{
    for (const std::string_view name : names) {
        if (!value.starts_with(name) || !value.substr(name.size()).starts_with('='))
            continue;
        value.remove_prefix(name.size() + 1);
        const std::string digits(value.substr(0, value.find_first_not_of("0123456789")));
        value.remove_prefix(digits.size());
        if (digits.size() > 19 || (digits.empty() && value.find_first_of("\t\n\v\f\r +-") == 0))
            *judged = false;
        if (!*judged)
            return false;
        (*offsets)[std::string(name)] = digits.empty() ? 0 : std::stoul(digits);
        if (value.empty())
            return true;
        if (!value.starts_with(", "))
            return false;
        value.remove_prefix(2);
    }
    return false;
}

static Verdict judge(Method method, Offsets &offsets)
{
    auto has = [&](const char *name) { return offsets.count(name) > 0; };
    const bool any_body = has("req-body") || has("res-body") || has("opt-body");
    const bool request = has("req-hdr") || has("req-body");
    const bool response = has("res-hdr") || has("res-body");
    const bool allowed[] = {!has("opt-body") && !(request && response),
                            !has("opt-body") && !request, !request && !response};
    if (!allowed[method] || any_body == has("null-body") || (has("req-body") && has("res-body")))
        return {};
    unsigned long header = 0, body = 0;
    for (const auto &[name, offset] : offsets)
        (name.ends_with("-hdr") ? header : body) = offset;
    return {header == 0 ? zqerror{ZQ_ERROR_NONE} : zqerror{ZQ_ERROR_UNSUPPORTED}, body, any_body};
}

static void check(Method method, const std::string &value, const std::optional<Verdict> &verdict)
{
    static const char request[] = "GET / HTTP/1.0\r\n\r\n", response[] = "HTTP/1.0 200 OK\r\n\r\n";
    const std::string headers(verdict ? std::min(verdict->header_size, size_t{10000}) : 100, 'h');
    const bool complete = verdict && headers.size() == verdict->header_size;
    Script script;
    script.replies = {"ICAP/1.0 200 OK\r\nEncapsulated: " + value + "\r\n\r\n" + headers +
                      (complete ? "3\r\nabc\r\n0\r\n\r\n" : "")};
    Peer peer(script);
    const owned<zqicap, zq_icap_destroy> icap(zq_icap_create());
    zq_icap_set_url(icap.get(), "icap://h/");
    if (method == REQMOD) {
        zq_icap_set_method_reqmod(icap.get());
        zq_icap_set_request_headers(icap.get(), request, sizeof(request) - 1);
    } else if (method == RESPMOD) {
        zq_icap_set_method_respmod(icap.get());
        zq_icap_set_response_headers(icap.get(), response, sizeof(response) - 1);
    } else {
        zq_icap_set_method_options(icap.get());
    }
    const zqerror result = zq_icap_perform(icap.get());
    if (!verdict)
        return;
    const bool cut_off = verdict->result == ZQ_ERROR_NONE && verdict->has_body && !complete;
    FUZZ_CHECK(result == (cut_off ? zqerror{ZQ_ERROR_END_OF_FILE} : verdict->result));
    if (result != ZQ_ERROR_NONE)
        return;

    char *received;
    void *body;
    size_t size;
    zq_icap_get_response_headers(icap.get(), &received);
    zq_icap_get_response_body_and_size(icap.get(), &body, &size);
    const owned_block<> header_owner(received), body_owner(static_cast<char *>(body));
    FUZZ_CHECK(received ? received == headers : headers.empty());
    FUZZ_CHECK(std::string(body_owner.get(), size) == (verdict->has_body ? "abc" : ""));
}

void fuzz(Input &input)
{
    const Method method = static_cast<Method>(input.below(3));
    // What ends a line or is cut from its ends is not part of a value.
    std::string value = input.text().substr(0, 4000);
    value.erase(std::min(value.find_first_of("\r\n"), value.size()));
    value.erase(value.find_last_not_of(" \t") + 1);
    value.erase(0, value.find_first_not_of(" \t"));

    Offsets offsets;
    bool judged = true;
    Verdict verdict;
    if (read_offsets(value, &offsets, &judged))
        verdict = judge(method, offsets);
    check(method, value, judged ? std::optional(verdict) : std::nullopt);
}
