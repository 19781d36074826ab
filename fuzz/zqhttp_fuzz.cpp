// The HTTP client object over a transport that does what the input says, beside a model of it: the
// attempts with their redirects, headers, bodies, counts of progress and the time that is left.

#include "zq/net/zqhttp.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>

#include "fuzz/support/clock.h"
#include "fuzz/support/http.h"

namespace {
struct Timer {
    int32_t seconds = -1; // none
    uint32_t microseconds = 0;
    int64_t start = 0;
};

struct Model {
    Input &input;
    zqhttp *http = nullptr;
    bool stream = false, progress = false;
    Timer full = {}, idle = {};

    std::string url = {};                 // the transport's next
    std::optional<std::string> base = {}; // the server's part of the last URL that has one
    zqerror expected = ZQ_ERROR_NONE;     // what the transfer comes to, unless
    bool again = false;                   // there is another attempt

    unsigned int attempts = 0;
    int32_t status = 0;
    std::map<std::string, std::optional<std::string>> headers = {};
    std::string body = {};
    int64_t current = 0;
    int64_t total = -1;
    bool total_is_known = true; // not where a number may have wrapped around
};
} // namespace

static Model &model_of(zqhttp *http)
{
    return *static_cast<Model *>(zq_http_get_context(http));
}

// ---- time ----

static int64_t in_microseconds(int32_t seconds, uint32_t microseconds)
{
    return seconds < 0 ? INT64_MAX : int64_t{seconds} * 1000000 + microseconds;
}

static int64_t time_left(const Timer &timer)
{
    const int64_t limit = in_microseconds(timer.seconds, timer.microseconds);
    return limit == INT64_MAX ? limit : std::max<int64_t>(0, limit - (fake_time - timer.start));
}

static zqerror check_time(const Model &model)
{
    return time_left(model.full) == 0   ? ZQ_ERROR_TIMER_EXPIRED
           : time_left(model.idle) == 0 ? ZQ_ERROR_TIMED_OUT
                                        : ZQ_ERROR_NONE;
}

static void pass_time(Model &model)
{
    fake_time += int64_t{model.input.byte()} * 50000;
}

static void reset_idle_timeout(Model &model)
{
    zq_http_reset_idle_timeout(model.http);
    model.idle.start = fake_time;
}

static void reset_timeout(Model &model)
{
    int32_t seconds;
    uint32_t microseconds;
    zq_http_timeout_reset(model.http, &seconds, &microseconds);
    FUZZ_CHECK(seconds == model.full.seconds && microseconds == model.full.microseconds);
    model.full.start = fake_time;
}

static void compare_time(Model &model)
{
    int32_t seconds;
    uint32_t microseconds;
    FUZZ_CHECK(zq_http_timeout_check(model.http, &seconds, &microseconds) == check_time(model));
    const int64_t left = in_microseconds(seconds, microseconds);
    const int64_t expected = std::min(time_left(model.full), time_left(model.idle));
    // A report that is due within a second shortens the wait.
    FUZZ_CHECK(model.progress ? left <= std::min<int64_t>(expected, 1000000) : left == expected);
}

// ---- the callbacks ----

static zqerror take_body(const void *data, size_t size, void *context)
{
    Model &model = *static_cast<Model *>(context);
    FUZZ_CHECK(size > 0);
    model.body.append(static_cast<const char *>(data), size);
    return ZQ_ERROR_NONE;
}

static zqerror note_download(int64_t current, int64_t total, void *context)
{
    Model &model = *static_cast<Model *>(context);
    FUZZ_CHECK(current == model.current);
    FUZZ_CHECK(!model.total_is_known || total == model.total);
    return model.input.below(16) == 15 ? ZQ_ERROR_BUSY : ZQ_ERROR_NONE;
}

static zqerror take_url(zqhttp *http, const char *url)
{
    FUZZ_CHECK(model_of(http).url == url);
    return ZQ_ERROR_NONE;
}

// ---- the transport ----

static void set_status(Model &model)
{
    static const int32_t statuses[] = {200, 301, 302, 404, 300, 303, 307};
    model.status = statuses[model.input.below(7)];
    zq_http_set_status_code(model.http, model.status);
}

static void write_header(Model &model)
{
    static const char *const names[] = {"Content-Length", "location", "LOCATION"};
    const unsigned int which = model.input.below(4);
    const std::string name = which < 3 ? names[which] : model.input.text();
    std::optional<std::string> value;
    if (model.input.below(8) > 0)
        value = model.input.text();
    FUZZ_CHECK(zq_http_write_response_header(model.http, name.c_str(),
                                             value ? value->c_str() : nullptr) == ZQ_ERROR_NONE);
    std::string key = name;
    std::transform(key.begin(), key.end(), key.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    model.headers[key] = value;
    if (key != "content-length" || !value)
        return;
    const std::string digits = value->substr(0, value->find(' '));
    const bool plain = digits.find_first_not_of("0123456789") == digits.npos;
    model.total_is_known = !plain || digits.size() <= 18;
    if (model.total_is_known)
        model.total = !plain ? -1 : digits.empty() ? 0 : std::stoll(digits);
}

static void write_body(Model &model)
{
    const std::string piece = model.input.text();
    if (piece.empty())
        return;
    const size_t size = model.body.size();
    model.current += static_cast<int64_t>(piece.size()); // the object may report it at once
    FUZZ_CHECK(zq_http_write_response_body(model.http, piece.data(), piece.size()) ==
               ZQ_ERROR_NONE);
    if (!model.stream)
        model.body += piece;
    FUZZ_CHECK(model.body.substr(size) == piece);
}

static void abort_transfer(Model &model)
{
    zq_http_abort(model.http);
    FUZZ_CHECK(zq_http_is_aborted(model.http) == 1);
}

static void check_progress(Model &model)
{
    zq_http_progress_upload_check(model.http);
    zq_http_progress_download_check(model.http);
}

// ---- the transfer ----

static std::optional<std::string> base_of(const std::string &url)
{
    size_t slash = url.find('/');
    slash = slash == url.npos ? slash : url.find('/', slash + 1);
    if (slash == url.npos)
        return {};
    return url.substr(0, url.find('/', slash + 1));
}

// What comes before the transport's part of an attempt.
static zqerror expect_attempt(Model &model)
{
    model.headers.clear();
    if (!model.stream)
        model.body.clear();
    if (const zqerror late = check_time(model); late != ZQ_ERROR_NONE)
        return late;
    model.again = true;
    return ZQ_ERROR_NONE;
}

// What comes behind it.
static zqerror expect_redirect(Model &model)
{
    if (model.status != 301 && model.status != 302)
        return ZQ_ERROR_NONE;
    if (const zqerror late = check_time(model); late != ZQ_ERROR_NONE)
        return late;
    const std::optional<std::string> location = model.headers["location"];
    if (!location)
        return ZQ_ERROR_PROTOCOL;
    model.url = location->starts_with('/') ? model.base.value_or("") + *location : *location;
    const auto base = base_of(model.url);
    if (!base)
        return ZQ_ERROR_INVALID_ARGUMENT;
    model.base = base;
    return model.attempts == 10 ? zqerror{ZQ_ERROR_OUT_OF_RANGE} : expect_attempt(model);
}

static zqerror act(Model &model)
{
    static const zqerror errors[] = {ZQ_ERROR_CONNECTION_RESET, ZQ_ERROR_CANCELED};
    static void (*const actions[])(Model &) = {set_status,    write_header,   write_body,
                                               pass_time,     compare_time,   reset_idle_timeout,
                                               reset_timeout, abort_transfer, check_progress};
    unsigned int action;
    while ((action = model.input.below(11)) > 1)
        actions[action - 2](model);
    return action == 0 ? zqerror{ZQ_ERROR_NONE} : errors[model.input.below(2)];
}

static zqerror exchange(zqhttp *http)
{
    Model &model = model_of(http);
    FUZZ_CHECK(model.again);
    model.again = false;
    model.attempts++;
    model.status = 0;
    const zqerror result = act(model);
    model.expected = result != ZQ_ERROR_NONE ? result : expect_redirect(model);
    return result;
}

static void perform(Model &model)
{
    model.full.start = model.idle.start = fake_time;
    model.attempts = 0;
    model.current = 0;
    model.total = -1;
    model.total_is_known = true;
    model.expected = expect_attempt(model);
    FUZZ_CHECK(zq_http_perform(model.http) == model.expected && !model.again);
    FUZZ_CHECK(zq_http_is_aborted(model.http) == 0);
}

// ---- the response ----

static void check_header(zqhttp *http, const char *name, const std::optional<std::string> &value)
{
    const char *found = zq_http_get_response_header(http, name);
    int32_t number = 1;
    const zqerror result = zq_http_get_response_header_int(http, name, &number);
    if (!value) {
        FUZZ_CHECK(!found && result == ZQ_ERROR_NOT_FOUND && number == -1);
        return;
    }
    FUZZ_CHECK(found && *value == found);
    const long long expected = strtoll(value->c_str(), nullptr, 10); // or an end of its range
    const bool fits = expected >= INT32_MIN && expected <= INT32_MAX;
    FUZZ_CHECK(result == (fits ? ZQ_ERROR_NONE : ZQ_ERROR_OUT_OF_RANGE));
    FUZZ_CHECK(number == (fits ? expected : -1));
}

static void check_response(const Model &model)
{
    FUZZ_CHECK(zq_http_get_status_code(model.http) == model.status);
    auto headers = model.headers;
    headers.try_emplace("no such header");
    for (const auto &[name, value] : headers)
        check_header(model.http, name.c_str(), value);
    FUZZ_CHECK(stored_body(model.http) == (model.stream ? "" : model.body));
}

// ---- an object with several transfers ----

static zqhttp *make_client(Model &model)
{
    zqhttp *http = zq_http_generic_create();
    zq_http_set_context(http, &model);
    zq_http_set_url_callback(http, take_url);
    zq_http_set_perform_callback(http, exchange);
    return http;
}

static void configure(Model &model)
{
    static const Timer limits[] = {{-1, 0}, {0, 0}, {0, 500000}, {3, 1}};
    zqhttp *http = model.http;
    model.stream = model.input.below(2);
    model.progress = model.input.below(2);
    model.full = limits[model.input.below(4)];
    model.idle = limits[model.input.below(4)];
    zq_http_set_response_body_callback(http, model.stream ? take_body : nullptr, &model);
    zq_http_set_download_progress_callback(http, model.progress ? note_download : nullptr, &model);
    zq_http_set_timeout(http, model.full.seconds, model.full.microseconds);
    zq_http_set_idle_timeout(http, model.idle.seconds, model.idle.microseconds);

    const std::string method = model.input.text();
    zq_http_set_method(http, method.c_str());
    FUZZ_CHECK(zq_http_get_method(http) == method);
    model.url = model.input.text();
    const auto base = base_of(model.url);
    FUZZ_CHECK(zq_http_set_url(http, model.url.c_str()) ==
               (base ? ZQ_ERROR_NONE : ZQ_ERROR_INVALID_ARGUMENT));
    if (base)
        model.base = base;
}

void fuzz(Input &input)
{
    fake_time = 0;
    Model model{input};
    const owned<zqhttp, zq_http_destroy> http(make_client(model));
    model.http = http.get();
    do {
        configure(model);
        perform(model);
        check_response(model);
        if (input.below(2)) {
            FUZZ_CHECK(zq_http_reset(http.get()) == ZQ_ERROR_NONE);
            model.base = {};
            model.status = 0;
            model.body.clear();
            check_response(model); // its headers stay
        }
    } while (!input.empty());
}
