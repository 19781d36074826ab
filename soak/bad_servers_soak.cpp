// The HTTP and the ICAP client with servers that refuse, vanish, reset, stall or trickle, many at
// once: each call ends with the documented error in the documented time.
#include <algorithm>
#include <vector>

#include "soak/support/soak.h"
#include "tests/net/loopback.h"
#include "tests/support/expect.h"
#include "tests/support/process.h"
#include "tests/support/scripted_server.h"
#include "zq/net/zqhttp_lite.h"
#include "zq/net/zqicap.h"

namespace {

enum Ending { CLOSE, STALL, RESET, TRICKLE, REFUSE, IGNORE };

// How long a client waits, in seconds; negative for ever.
struct Limits {
    double all;
    double idle; // the HTTP client alone has this
};

struct Behaviour {
    const char *name;
    std::string reply;
    Ending ending;
    Limits limits;
    double after; // seconds until the call ends
    std::vector<zqerror> errors;
};

} // namespace

static constexpr double slack = 2;
static constexpr Limits patient = {30, 30};

static uint32_t microseconds(double seconds)
{
    return static_cast<uint32_t>((seconds - static_cast<int>(seconds)) * 1e6);
}

static zqerror get(uint32_t port, const Limits &limits)
{
    const Owned<zqhttp, zq_http_destroy> http(zq_http_lite_create());
    if (limits.all >= 0)
        zq_http_set_timeout(http.get(), static_cast<int32_t>(limits.all), microseconds(limits.all));
    zq_http_set_idle_timeout(http.get(), static_cast<int32_t>(limits.idle),
                             microseconds(limits.idle));
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/";
    const zqerror error = zq_http_set_url(http.get(), url.c_str());
    return error == ZQ_ERROR_NONE ? zq_http_perform(http.get()) : error;
}

static zqerror modify(uint32_t port, const Limits &limits)
{
    const std::string headers = "HTTP/1.1 200 OK\r\n\r\n";
    const Owned<zqicap, zq_icap_destroy> icap(zq_icap_create());
    zq_icap_set_timeout(icap.get(), static_cast<int32_t>(limits.all), microseconds(limits.all));
    zq_icap_set_url(icap.get(), ("icap://127.0.0.1:" + std::to_string(port) + "/s").c_str());
    zq_icap_set_method_respmod(icap.get());
    zq_icap_set_response_headers(icap.get(), headers.data(), headers.size());
    zq_icap_set_response_body(icap.get(), "body", 4);
    return zq_icap_perform(icap.get());
}

// One call of a client with a server of its own.
static bool call(zqerror (*client)(uint32_t, const Limits &), const Behaviour &behaviour)
{
    const double begin = now();
    zqerror error;
    if (behaviour.ending == REFUSE) {
        error = client(Port().number(), behaviour.limits);
    } else if (behaviour.ending == IGNORE) {
        Port port;
        port.listening(0);
        const Fd first = connect_to(port.number()); // there is no room for a second one
        error = client(port.number(), behaviour.limits);
    } else {
        const bool trickles = behaviour.ending == TRICKLE;
        ScriptedServer server(behaviour.reply, trickles ? 1 : 0,
                              behaviour.ending == STALL   ? ScriptedServer::STALL
                              : behaviour.ending == RESET ? ScriptedServer::RESET
                                                          : ScriptedServer::CLOSE,
                              std::chrono::seconds(trickles ? 1 : 0));
        error = client(server.port(), behaviour.limits);
    }
    const double took = now() - begin;
    const bool right = std::ranges::count(behaviour.errors, error) != 0 &&
                       took > behaviour.after - 0.1 && took < behaviour.after * 1.5 + slack;
    if (!right)
        fprintf(stderr, "%s: error %u (%s) after %.1f s\n", behaviour.name, error,
                zq_error_string(error), took);
    return right;
}

int main(int argc, char **argv)
{
    Soak soak("bad_servers", argc, argv);
    const auto rows = [&](const char *name, auto client, const std::vector<Behaviour> &behaviours) {
        for (const Behaviour &behaviour : behaviours) {
            const long count = soak.scaled(behaviour.after >= 1 ? 40 : 200, 20);
            const long warm_up = behaviour.after > 0 ? 20 : count;
            soak.row(std::string(name) + " " + behaviour.name, warm_up, count, [&](long amount) {
                return repeat(amount, 20, [&](long) { return call(client, behaviour); });
            });
        }
    };
    const Limits brief = {0.2, -1}, idle = {-1, 0.2};
    const std::string http = "HTTP/1.0 200 OK\r\n";
    // A reset is seen as such or, by the read that is tried once more, as an end.
    const std::vector<zqerror> reset = {ZQ_ERROR_CONNECTION_RESET, ZQ_ERROR_BROKEN_PIPE,
                                        ZQ_ERROR_END_OF_FILE};
    rows("HTTP", get,
         {{"no word", "", STALL, brief, 0.2, {ZQ_ERROR_TIMER_EXPIRED}},
          {"no word, idle", "", STALL, idle, 0.2, {ZQ_ERROR_TIMED_OUT}},
          {"refused", "", REFUSE, patient, 0, {ZQ_ERROR_CONNECTION_REFUSED}},
          {"not accepted", "", IGNORE, brief, 0.2, {ZQ_ERROR_TIMER_EXPIRED}},
          {"not accepted, idle", "", IGNORE, idle, 0.2, {ZQ_ERROR_TIMED_OUT}},
          {"stall in the status line", "HTTP/1.0 2", STALL, brief, 0.2, {ZQ_ERROR_TIMER_EXPIRED}},
          {"stall in the headers, idle", http + "A: b", STALL, idle, 0.2, {ZQ_ERROR_TIMED_OUT}},
          {"stall in the body", http + "\r\nbo", STALL, brief, 0.2, {ZQ_ERROR_TIMER_EXPIRED}},
          {"a byte a second", http, TRICKLE, {1.5, -1}, 1.5, {ZQ_ERROR_TIMER_EXPIRED}},
          {"a byte a second, never idle", "HTTP/ 200\n\n", TRICKLE, {-1, 1.5}, 11, {ZQ_ERROR_NONE}},
          {"closed at once", "", CLOSE, patient, 0, {ZQ_ERROR_END_OF_FILE}},
          {"closed in the headers", http + "A: b", CLOSE, patient, 0, {ZQ_ERROR_END_OF_FILE}},
          {"closed in the body",
           http + "Content-Length: 9\r\n\r\nbo",
           CLOSE,
           patient,
           0,
           {ZQ_ERROR_NONE}},
          {"reset at once", "", RESET, patient, 0, reset},
          {"reset in the headers", http + "A: b", RESET, patient, 0, reset},
          {"reset in the body",
           http + "\r\nbo",
           RESET,
           patient,
           0,
           {ZQ_ERROR_NONE, ZQ_ERROR_CONNECTION_RESET, ZQ_ERROR_BROKEN_PIPE}}});

    const std::string icap = "ICAP/1.0 200 OK\r\nEncapsulated: res-hdr=0, res-body=19\r\n";
    const std::string headers = icap + "\r\nHTTP/1.1 200 OK\r\n\r\n";
    rows(
        "ICAP", modify,
        {{"refused", "", REFUSE, patient, 0, {ZQ_ERROR_CONNECTION_REFUSED}},
         {"not accepted", "", IGNORE, brief, 0.2, {ZQ_ERROR_TIMED_OUT}},
         {"no word", "", STALL, brief, 0.2, {ZQ_ERROR_TIMED_OUT}},
         {"stall in the status line", "ICAP/1.0 2", STALL, brief, 0.2, {ZQ_ERROR_INTERNAL}},
         {"stall in the ICAP headers", icap, STALL, brief, 0.2, {ZQ_ERROR_TIMED_OUT}},
         {"stall in the HTTP headers", icap + "\r\nHTTP/", STALL, brief, 0.2, {ZQ_ERROR_TIMED_OUT}},
         {"stall in the body", headers + "9\r\nbo", STALL, brief, 0.2, {ZQ_ERROR_TIMED_OUT}},
         {"a byte a second", icap, TRICKLE, {1.5, -1}, 1.5, {ZQ_ERROR_INTERNAL}},
         {"closed at once", "", CLOSE, patient, 0, {ZQ_ERROR_END_OF_FILE}},
         {"closed in the status line", "ICAP/1.0 2", CLOSE, patient, 0, {ZQ_ERROR_INTERNAL}},
         {"closed in the HTTP headers",
          icap + "\r\nHTTP/",
          CLOSE,
          patient,
          0,
          {ZQ_ERROR_END_OF_FILE}},
         {"closed in the body", headers + "9\r\nbo", CLOSE, patient, 0, {ZQ_ERROR_END_OF_FILE}},
         {"reset at once", "", RESET, patient, 0, reset},
         {"reset in the body", headers + "9\r\nbo", RESET, patient, 0, reset}});
    return soak.status();
}
