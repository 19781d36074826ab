// The ICAP client: replies that come in pieces, early, and slowly give what they give when they
// come at once, or run out of time where time was limited; bodies beside a plain decoder.

#include "zq/net/zqicap.h"

#include <optional>

#include "fuzz/support/fuzz.h"
#include "fuzz/support/peer.h"
#include "zq/internal/zqowned.h"

namespace {
enum Method { REQMOD, RESPMOD, OPTIONS };
enum Part { REQHDR = 1, RESHDR = 2, REQBODY = 4, RESBODY = 8, CALLBACK = 16 };

struct Settings {
    Method method;
    unsigned int parts;
    bool chunked, allow204, reset;
    int64_t limit; // in microseconds; -1: none
};

struct Outcome {
    zqerror result = ZQ_ERROR_NONE;
    int32_t status = 0;
    std::string icap_headers, headers, body, request;
    int64_t elapsed = 0;
    bool reset = false;
};
} // namespace

static size_t next_piece(void *buffer, size_t capacity, void *context)
{
    auto *left = static_cast<size_t *>(context);
    const size_t size = std::min({capacity, *left, size_t{1000}});
    std::fill_n(static_cast<char *>(buffer), size, 'p');
    *left -= size;
    return size;
}

static void set_parts(zqicap *icap, const Settings &settings, size_t *callback_left)
{
    const std::string encoding = settings.chunked ? "Transfer-Encoding: Chunked\r\n" : "";
    const std::string reqhdr = "POST /p HTTP/1.1\r\n" + encoding + "\r\n";
    const std::string reshdr = "HTTP/1.1 200 OK\r\n" + encoding + "\r\n";
    const std::string body(3000, 'b');
    if (settings.parts & REQHDR)
        zq_icap_set_request_headers(icap, reqhdr.data(), reqhdr.size());
    if (settings.parts & RESHDR)
        zq_icap_set_response_headers(icap, reshdr.data(), reshdr.size());
    if (settings.parts & REQBODY)
        zq_icap_set_request_body(icap, body.data(), body.size());
    if (settings.parts & RESBODY)
        zq_icap_set_response_body(icap, body.data(), body.size());
    *callback_left = 2500;
    if (settings.parts & CALLBACK)
        zq_icap_set_request_body_callback(icap, next_piece, callback_left);
}

static std::string text_of(zqicap *icap, zqerror (*get)(zqicap *, char **))
{
    char *text;
    const zqerror result = get(icap, &text);
    const owned_block<> owner(text);
    FUZZ_CHECK(result == (text ? ZQ_ERROR_NONE : ZQ_ERROR_INVALID_ARGUMENT));
    return text ? text : "";
}

static std::string body_of(zqicap *icap)
{
    void *data;
    size_t size;
    const zqerror result = zq_icap_get_response_body_and_size(icap, &data, &size);
    const owned_block<> owner(static_cast<char *>(data));
    FUZZ_CHECK(result == (data ? ZQ_ERROR_NONE : ZQ_ERROR_INVALID_ARGUMENT) && !data == !size);
    return std::string(owner.get(), size);
}

static Outcome exchange(zqicap *icap, const Settings &settings, Peer &peer)
{
    void (*const set_method[])(zqicap *) = {zq_icap_set_method_reqmod, zq_icap_set_method_respmod,
                                            zq_icap_set_method_options};
    size_t callback_left;
    set_method[settings.method](icap);
    set_parts(icap, settings, &callback_left);
    const int64_t start = fake_time;
    peer.deadline = settings.limit < 0 ? INT64_MAX : start + settings.limit;
    Outcome outcome;
    outcome.result = zq_icap_perform(icap);
    outcome.status = zq_icap_get_status_code(icap);
    outcome.icap_headers = text_of(icap, zq_icap_get_response_icap_headers);
    outcome.headers = text_of(icap, zq_icap_get_response_headers);
    outcome.body = body_of(icap);
    outcome.request = peer.requests.back();
    outcome.elapsed = fake_time - start;
    outcome.reset = peer.reset;
    if (settings.reset)
        zq_icap_reset(icap);
    return outcome;
}

// One client makes one exchange for each reply.
static std::vector<Outcome> exchange_all(const Settings &settings, const Script &script)
{
    Peer peer(script);
    const owned<zqicap, zq_icap_destroy> icap(zq_icap_create());
    zq_icap_set_url(icap.get(), "icap://h/s?x");
    if (settings.limit >= 0)
        zq_icap_set_timeout(icap.get(), static_cast<int32_t>(settings.limit / 1000000),
                            static_cast<uint32_t>(settings.limit % 1000000));
    if (settings.allow204)
        zq_icap_set_allow_204(icap.get());
    std::vector<Outcome> outcomes;
    for (size_t i = 0; i < std::min<size_t>(script.replies.size(), 4); i++)
        outcomes.push_back(exchange(icap.get(), settings, peer));
    return outcomes;
}

// ---- what must be true ----

static std::string_view take_line(std::string_view *text)
{
    const std::string_view line = text->substr(0, text->find('\n'));
    text->remove_prefix(std::min(text->size(), line.size() + 1));
    return line.ends_with('\r') ? line.substr(0, line.size() - 1) : line;
}

// Nothing where a size line is more than plain hexadecimal digits.
static std::optional<std::string> decode(std::string_view rest, bool framing)
{
    std::string body;
    for (size_t size = 1; size > 0;) {
        const std::string line(take_line(&rest));
        if (line.empty())
            break;
        if (line.find_first_not_of("0123456789abcdefABCDEF") != line.npos || line.size() > 8)
            return {};
        size = std::stoul(line, nullptr, 16);
        const std::string data(rest.substr(0, size));
        rest.remove_prefix(data.size());
        body += framing ? line + "\r\n" + data + "\r\n" : data;
        take_line(&rest);
    }
    return framing ? body + "0\r\n\r\n" : body;
}

// `rest` is the first reply, whose headers stand behind no others.
static void check_success(const Settings &settings, const Outcome &outcome, std::string_view rest)
{
    if (rest.find('\0') != rest.npos || settings.reset)
        return;
    take_line(&rest);
    FUZZ_CHECK(rest.starts_with(outcome.icap_headers));
    rest.remove_prefix(outcome.icap_headers.size());
    if (outcome.status == 204)
        FUZZ_CHECK(outcome.headers.empty() && outcome.body.empty());
    if (outcome.status == 204 || outcome.icap_headers.find("null-body") != std::string::npos)
        return;
    FUZZ_CHECK(rest.starts_with(outcome.headers));
    const bool framing = settings.chunked && settings.method != OPTIONS &&
                         settings.parts & (settings.method == REQMOD ? REQHDR : RESHDR);
    const auto body = decode(rest.substr(outcome.headers.size()), framing);
    FUZZ_CHECK(!body || outcome.body == *body);
}

// False when the exchange has ended early, which later ones inherit.
static bool compare(const Settings &settings, const Outcome &whole, const Outcome &pieces)
{
    FUZZ_CHECK(whole.request.starts_with(pieces.request) ||
               pieces.request.starts_with(whole.request));
    const bool out_of_time = settings.limit >= 0 && pieces.elapsed >= settings.limit;
    FUZZ_CHECK(out_of_time || pieces.result != ZQ_ERROR_TIMED_OUT);
    if (out_of_time) // a line that is cut off has a code of its own
        FUZZ_CHECK(pieces.result == ZQ_ERROR_TIMED_OUT || pieces.result == ZQ_ERROR_INTERNAL ||
                   pieces.result == whole.result || pieces.reset);
    else if (pieces.reset)
        FUZZ_CHECK(pieces.result == ZQ_ERROR_CONNECTION_RESET);
    if (out_of_time || pieces.reset)
        return false;
    FUZZ_CHECK(pieces.result == whole.result && pieces.status == whole.status);
    FUZZ_CHECK(pieces.icap_headers == whole.icap_headers && pieces.headers == whole.headers);
    FUZZ_CHECK(pieces.body == whole.body && pieces.request == whole.request);
    return true;
}

static Settings read_settings(Input &input)
{
    static const int64_t limits[] = {-1, 30000000, 30000};
    Settings settings = {};
    settings.method = static_cast<Method>(input.below(3));
    settings.parts = input.below(32);
    settings.chunked = input.below(2);
    settings.allow204 = input.below(2);
    settings.reset = input.below(2);
    settings.limit = limits[input.below(3)];
    return settings;
}

void fuzz(Input &input)
{
    const Settings settings = read_settings(input);
    const Script script(input);
    const std::vector<Outcome> whole = exchange_all(settings, script.without_plans());
    if (whole[0].result == ZQ_ERROR_NONE)
        check_success(settings, whole[0], script.replies[0]);
    const std::vector<Outcome> pieces = exchange_all(settings, script);
    for (size_t i = 0; i < whole.size(); i++) {
        if (!compare(settings, whole[i], pieces[i]))
            break;
    }
}
