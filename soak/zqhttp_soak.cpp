// One HTTP client object for all transfers with nginx.
#include <filesystem>

#include "soak/support/soak.h"
#include "tests/support/expect.h"
#include "tests/support/peer_server.h"
#include "zq/net/zqhttp_lite.h"

static bool transfer(zqhttp *http, const std::string &server, long number)
{
    const struct {
        const char *target;
        std::string sent; // posted, unless empty
        int32_t status;
        std::string received;
    } rows[] = {{"/page.txt", "", 200, "a page\n"},
                {"/relative", "", 200, "a page\n"}, // by way of a redirect
                {"/large", "", 200, std::string(100000, 'x')},
                {"/none", "", 404, ""},
                {"/echo", std::string(5000, 'y'), 200, "POST /echo 127.0.0.1 yes 5000"}};
    const auto &row = rows[static_cast<size_t>(number) % std::size(rows)];
    zq_http_set_method_get(http);
    if (!row.sent.empty()) {
        zq_http_set_method_post(http);
        zq_http_lite_set_request_body(http, row.sent.data(), row.sent.size());
        zq_http_lite_add_header(http, "X-Test: yes");
    }
    zqerror error = zq_http_set_url(http, ("http://" + server + row.target).c_str());
    if (error == ZQ_ERROR_NONE)
        error = zq_http_perform(http);
    void *body = nullptr;
    size_t size = 0;
    zq_http_get_response_body_and_size(http, &body, &size);
    const ZqString owner(static_cast<char *>(body));
    const bool right =
        error == ZQ_ERROR_NONE && zq_http_get_status_code(http) == row.status &&
        (row.status != 200 || row.received == std::string(static_cast<char *>(body), size));
    if (!right)
        fprintf(stderr, "%s: error %u, status %d, %zu bytes\n", row.target, error,
                zq_http_get_status_code(http), size);
    return right;
}

int main(int argc, char **argv)
{
    Soak soak("zqhttp", argc, argv);
    const Scratch scratch;
    std::filesystem::create_directory(scratch.file("www"));
    scratch.write("www/page.txt", "a page\n");
    scratch.write("www/large", std::string(100000, 'x'));
    const PeerServer nginx("nginx", scratch);
    const Owned<zqhttp, zq_http_destroy> http(zq_http_lite_create());
    const long count = soak.scaled(20000);
    soak.row("transfers of one object", count / 10, count, [&](long amount) {
        return repeat(amount, 1, [&](long i) { return transfer(http.get(), nginx.address(), i); });
    });
    return soak.status();
}
