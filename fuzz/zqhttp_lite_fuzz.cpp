// The HTTP/1.0 transport: replies that come in pieces, slowly and with stalled writes give what
// they give when they come at once, or run out of time where time was limited.

#include "zq/net/zqhttp_lite.h"

#include "fuzz/support/http.h"
#include "fuzz/support/peer.h"

namespace {
struct Limit {
    int32_t seconds;
    uint32_t microseconds;
};

enum Body { MEMORY, STREAM, FILE_STREAM, REFUSED, ABORTED, BODY_COUNT };

struct Settings {
    Body body;
    bool post, progress, proxy;
    Limit idle, full;
};

struct Outcome {
    zqerror result = ZQ_ERROR_NONE;
    int32_t status = 0;
    int32_t length = -1;              // as announced
    std::string body;                 // of all attempts, unless kept in memory
    std::vector<std::string> headers; // the values of those that the last reply names
    std::vector<std::string> requests;
};

// What the callbacks are given.
struct Received {
    const Settings &settings;
    zqhttp *http;
    std::string body;
    int64_t progress = 0;
};
} // namespace

static const char *const url = "http://h:81/p?q";

static zqerror receive(const void *data, size_t size, void *context)
{
    auto *received = static_cast<Received *>(context);
    received->body.append(static_cast<const char *>(data), size);
    const bool enough = received->body.size() > 10;
    if (enough && received->settings.body == ABORTED)
        zq_http_abort(received->http);
    return enough && received->settings.body == REFUSED ? ZQ_ERROR_NO_SPACE : ZQ_ERROR_NONE;
}

static zqerror note_progress(int64_t current, int64_t, void *context)
{
    auto *received = static_cast<Received *>(context);
    FUZZ_CHECK(current >= received->progress);
    received->progress = current;
    return ZQ_ERROR_NONE;
}

static void prepare(zqhttp *http, const Settings &settings, Received *received)
{
    FUZZ_CHECK(zq_http_set_url(http, url) == ZQ_ERROR_NONE);
    zq_http_set_idle_timeout(http, settings.idle.seconds, settings.idle.microseconds);
    zq_http_set_timeout(http, settings.full.seconds, settings.full.microseconds);
    if (settings.body != MEMORY)
        zq_http_set_response_body_callback(http, receive, received);
    if (settings.progress)
        zq_http_set_download_progress_callback(http, note_progress, received);
    if (settings.proxy)
        zq_http_set_proxy(http, "proxy", 3128);
    if (settings.post) {
        const std::string content(300, 'c');
        zq_http_set_method_post(http);
        zq_http_lite_set_request_body(http, content.data(), content.size());
        zq_http_lite_add_header(http, "Name: value");
    }
}

static std::vector<std::string> read_headers(zqhttp *http, std::string_view reply)
{
    std::vector<std::string> values;
    while (!reply.empty() && values.size() < 50) {
        const std::string line(reply.substr(0, reply.find('\n')));
        const char *value =
            zq_http_get_response_header(http, line.substr(0, line.find(':')).c_str());
        values.emplace_back(value ? value : "(none)");
        reply.remove_prefix(std::min(reply.size(), line.size() + 1));
    }
    return values;
}

static Outcome perform(const Settings &settings, Peer &peer)
{
    const owned<zqhttp, zq_http_destroy> http(zq_http_lite_create());
    Received received{settings, http.get(), "", 0};
    prepare(http.get(), settings, &received);
    Outcome outcome;
    outcome.result = zq_http_perform(http.get());
    outcome.status = zq_http_get_status_code(http.get());
    zq_http_get_response_header_int(http.get(), "Content-Length", &outcome.length);
    outcome.body = settings.body == MEMORY ? stored_body(http.get()) : received.body;
    outcome.requests = peer.requests;
    if (!peer.requests.empty())
        outcome.headers = read_headers(http.get(), peer.reply());
    if (outcome.result == ZQ_ERROR_NONE && settings.progress && settings.body == STREAM)
        FUZZ_CHECK(received.progress == static_cast<int64_t>(received.body.size()));
    FUZZ_CHECK(zq_http_reset(http.get()) == ZQ_ERROR_NONE);
    FUZZ_CHECK(zq_http_perform(http.get()) == ZQ_ERROR_INVALID_ARGUMENT);
    return outcome;
}

static Outcome download(const Settings &settings, Peer &peer)
{
    char *text;
    size_t size;
    FILE *file = open_memstream(&text, &size);
    Outcome outcome;
    outcome.result = zq_http_generic_get_url_to_fileptr_with_timeout(
        url, file, settings.full.seconds, settings.full.microseconds, zq_http_lite_create);
    fclose(file);
    outcome.body.assign(text, size);
    free(text);
    outcome.requests = peer.requests;
    return outcome;
}

static Outcome exchange(const Settings &settings, Peer &peer)
{
    return settings.body == FILE_STREAM ? download(settings, peer) : perform(settings, peer);
}

// ---- what must be true ----

static std::string_view body_of(std::string_view reply)
{
    for (;;) {
        const std::string_view line = reply.substr(0, reply.find('\n'));
        reply.remove_prefix(line.size() + 1);
        if (line.empty() || line == "\r")
            return reply;
    }
}

// The body is all that the last reply holds behind its headers, up to the announced length.
static void check_body(const Settings &settings, const Outcome &outcome, const Peer &peer)
{
    std::string_view body = body_of(peer.reply());
    if (outcome.length >= 0)
        body = body.substr(0, static_cast<size_t>(outcome.length));
    FUZZ_CHECK(settings.body == MEMORY ? outcome.body == body : outcome.body.ends_with(body));
}

static bool is_prefix(const std::string &one, const std::string &other)
{
    return one.starts_with(other) || other.starts_with(one);
}

static bool is_timeout(zqerror result)
{
    return result == ZQ_ERROR_TIMED_OUT || result == ZQ_ERROR_TIMER_EXPIRED;
}

// That the limit had passed; while connecting either limit gives the one code.
static void check_timeout(const Settings &settings, const Outcome &outcome, const Peer &peer)
{
    auto passed = [](const Limit &limit, int64_t time) {
        return limit.seconds >= 0 && time >= int64_t{limit.seconds} * 1000000 + limit.microseconds;
    };
    FUZZ_CHECK(passed(settings.full, fake_time) ||
               (outcome.result == ZQ_ERROR_TIMED_OUT && passed(settings.idle, peer.quiet)));
}

static void compare(const Settings &settings, const Outcome &whole, const Outcome &pieces,
                    const Peer &peer)
{
    const size_t connections = pieces.requests.size();
    FUZZ_CHECK(connections <= whole.requests.size());
    if (settings.body != MEMORY || connections == whole.requests.size())
        FUZZ_CHECK(is_prefix(whole.body, pieces.body));
    for (size_t i = 0; i < connections; i++)
        FUZZ_CHECK(is_prefix(whole.requests[i], pieces.requests[i]));
    if (is_timeout(pieces.result)) {
        check_timeout(settings, pieces, peer);
        return;
    }
    if (peer.reset) {
        FUZZ_CHECK(pieces.result == ZQ_ERROR_CONNECTION_RESET);
        return;
    }
    FUZZ_CHECK(pieces.requests == whole.requests);
    if (settings.body != REFUSED && settings.body != ABORTED)
        FUZZ_CHECK(pieces.body == whole.body);
    if (settings.body == FILE_STREAM) {
        const bool other = whole.result == ZQ_ERROR_NONE && whole.status != 200;
        FUZZ_CHECK(pieces.result == (other ? zqerror{ZQ_ERROR_GENERIC} : whole.result));
        return;
    }
    FUZZ_CHECK(pieces.result == whole.result && pieces.status == whole.status);
    FUZZ_CHECK(pieces.length == whole.length && pieces.headers == whole.headers);
}

static Settings read_settings(Input &input)
{
    static const Limit limits[] = {{30, 0}, {-1, 0}, {0, 500000}, {2, 1}};
    Settings settings = {};
    settings.body = static_cast<Body>(input.below(BODY_COUNT));
    settings.post = input.below(2);
    settings.progress = input.below(2);
    settings.proxy = input.below(2);
    settings.idle = limits[input.below(4)];
    settings.full = limits[input.below(4)];
    if (settings.body == FILE_STREAM) { // which sets nothing but the limit of the whole
        settings.post = settings.progress = settings.proxy = false;
        settings.idle = limits[0];
    }
    return settings;
}

void fuzz(Input &input)
{
    const Settings settings = read_settings(input);
    const Script script(input);
    Outcome whole;
    {
        Settings streamed = settings;
        if (settings.body == FILE_STREAM)
            streamed.body = STREAM;
        Peer peer(script.without_plans());
        whole = exchange(streamed, peer);
        if (whole.result == ZQ_ERROR_NONE)
            check_body(settings, whole, peer);
    }
    Peer peer(script);
    compare(settings, whole, exchange(settings, peer), peer);
}
