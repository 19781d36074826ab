// One ICAP client object for all exchanges with c-icap, whose echo service gives back what it got.
#include "soak/support/soak.h"
#include "tests/support/expect.h"
#include "tests/support/peer_server.h"
#include "zq/net/zqicap.h"

static void set_parts(zqicap *icap, const std::string &body, bool reqmod)
{
    const std::string length = "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
    const std::string request = "POST http://h/p HTTP/1.1\r\nHost: h\r\n" + length;
    const std::string response = "HTTP/1.1 200 OK\r\n" + length;
    zq_icap_set_request_headers(icap, request.data(), request.size());
    if (reqmod) {
        zq_icap_set_method_reqmod(icap);
        zq_icap_set_request_body(icap, body.data(), body.size());
    } else {
        zq_icap_set_method_respmod(icap);
        zq_icap_set_response_headers(icap, response.data(), response.size());
        zq_icap_set_response_body(icap, body.data(), body.size());
    }
}

static bool exchange(zqicap *icap, long number)
{
    const std::string body(static_cast<size_t>(number % 9999 + 1), 'x');
    set_parts(icap, body, number % 2 != 0);
    const zqerror error = zq_icap_perform(icap);
    void *echo = nullptr;
    size_t size = 0;
    zq_icap_get_response_body_and_size(icap, &echo, &size);
    const ZqString owner(static_cast<char *>(echo));
    const bool right = error == ZQ_ERROR_NONE && zq_icap_get_status_code(icap) == 200 &&
                       body == std::string(static_cast<char *>(echo), size);
    if (!right)
        fprintf(stderr, "exchange %ld: error %u, status %d, %zu bytes\n", number, error,
                zq_icap_get_status_code(icap), size);
    zq_icap_reset(icap);
    return right;
}

int main(int argc, char **argv)
{
    Soak soak("zqicap", argc, argv);
    const Scratch scratch;
    const PeerServer server("c-icap", scratch);
    const Owned<zqicap, zq_icap_destroy> icap(zq_icap_create());
    zq_icap_set_url(icap.get(), ("icap://" + server.address() + "/echo").c_str());
    const long count = soak.scaled(20000);
    soak.row("exchanges of one object", count / 10, count, [&](long amount) {
        return repeat(amount, 1, [&](long i) { return exchange(icap.get(), i); });
    });
    return soak.status();
}
