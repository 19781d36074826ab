// The ICAP client with c-icap, a server, and side by side with its client.
#include "zq/net/zqicap.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <thread>

#include "tests/support/expect.h"
#include "tests/support/peer_server.h"
#include "tests/support/random_bytes.h"
#include "tests/support/scripted_server.h"
#include "tests/support/zqserve.h"
#include "zq/util/zqlog.h"
#include "zq/util/zqsignal.h"

namespace fs = std::filesystem;
using Icap = Owned<zqicap, zq_icap_destroy>;

class icap_interop : public testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        zq_signal_ignore_sigpipe();
        ASSERT_EQ(zq_log_init_threaded(), 0);
        scratch = new Scratch;
        server = new PeerServer("c-icap", *scratch);
        ASSERT_TRUE(server->listens());
        url = "icap://" + server->address() + "/echo";
    }
    static void TearDownTestSuite()
    {
        delete server;
        delete scratch;
    }

    static Icap client()
    {
        Icap icap(zq_icap_create());
        zq_icap_set_url(icap.get(), url.c_str());
        zq_icap_set_timeout(icap.get(), 30, 0);
        return icap;
    }

    static Scratch *scratch;
    static PeerServer *server;
    static std::string url;
};
Scratch *icap_interop::scratch;
PeerServer *icap_interop::server;
std::string icap_interop::url;

static std::string request_headers(size_t body_size)
{
    return "POST http://h/p HTTP/1.1\r\nHost: h\r\nContent-Length: " + std::to_string(body_size) +
           "\r\n\r\n";
}

static std::string response_headers(size_t body_size)
{
    return "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
           std::to_string(body_size) + "\r\n\r\n";
}

static void set_request(zqicap *icap, const std::string &body)
{
    std::string headers = request_headers(body.size());
    zq_icap_set_method_reqmod(icap);
    zq_icap_set_request_headers(icap, headers.data(), headers.size());
    if (!body.empty())
        zq_icap_set_request_body(icap, body.data(), body.size());
}

static void set_response(zqicap *icap, const std::string &body)
{
    std::string headers = response_headers(body.size());
    std::string request = "GET http://h/p HTTP/1.1\r\nHost: h\r\n\r\n";
    zq_icap_set_method_respmod(icap);
    zq_icap_set_request_headers(icap, request.data(), request.size());
    zq_icap_set_response_headers(icap, headers.data(), headers.size());
    if (!body.empty())
        zq_icap_set_response_body(icap, body.data(), body.size());
}

// Performs, and expects the body that was sent to come back.
static void expect_echo(zqicap *icap, const std::string &body)
{
    ASSERT_EQ(zq_icap_perform(icap), ZQ_ERROR_NONE + 0u);
    ASSERT_EQ(zq_icap_get_status_code(icap), 200);
    void *data = nullptr;
    size_t size = 0;
    if (!body.empty()) {
        ASSERT_EQ(zq_icap_get_response_body_and_size(icap, &data, &size), ZQ_ERROR_NONE + 0u);
    }
    ZqString owner(static_cast<char *>(data));
    EXPECT_EQ(size, body.size());
    EXPECT_TRUE(body == std::string_view(static_cast<char *>(data), size));
}

TEST_F(icap_interop, options)
{
    Icap icap = client();
    zq_icap_set_method_options(icap.get());
    ASSERT_EQ(zq_icap_perform(icap.get()), ZQ_ERROR_NONE + 0u);
    EXPECT_EQ(zq_icap_get_status_code(icap.get()), 200);
    char *headers = nullptr;
    ASSERT_EQ(zq_icap_get_response_icap_headers(icap.get(), &headers), ZQ_ERROR_NONE + 0u);
    ZqString owner(headers);
    EXPECT_NE(std::string(headers).find("Methods: RESPMOD, REQMOD"), std::string::npos) << headers;
}

// A body grows to exactly what arrived, which the allocator of AddressSanitizer does by copying.
#ifdef __SANITIZE_ADDRESS__
static constexpr size_t largest = 3 << 20;
#else
static constexpr size_t largest = 16 << 20;
#endif

TEST_F(icap_interop, bodies_come_back)
{
    Icap icap = client();
    for (size_t size : {size_t{0}, size_t{1}, size_t{100}, size_t{4096}, size_t{4097}, largest}) {
        SCOPED_TRACE(size);
        std::string body = random_bytes(size);
        set_request(icap.get(), body);
        expect_echo(icap.get(), body);
        set_response(icap.get(), body);
        expect_echo(icap.get(), body);
        char *headers = nullptr;
        ASSERT_EQ(zq_icap_get_response_headers(icap.get(), &headers), ZQ_ERROR_NONE + 0u);
        ZqString owner(headers);
        EXPECT_EQ(std::string(headers).substr(0, 15), "HTTP/1.1 200 OK") << headers;
    }
}

TEST_F(icap_interop, unchanged_content_may_be_answered_by_204)
{
    Icap icap = client();
    zq_icap_set_allow_204(icap.get());
    set_response(icap.get(), "");
    EXPECT_EQ(zq_icap_perform(icap.get()), ZQ_ERROR_NONE + 0u);
    EXPECT_EQ(zq_icap_get_status_code(icap.get()), 204);
}

TEST_F(icap_interop, threads_do_not_disturb_each_other)
{
    std::vector<std::thread> threads;
    for (size_t i = 0; i < 8; i++) {
        threads.emplace_back([i] {
            Icap icap = client();
            for (size_t round = 0; round < 20; round++) {
                std::string body = random_bytes(1000 * i + round + 1);
                if (round % 2)
                    set_request(icap.get(), body);
                else
                    set_response(icap.get(), body);
                expect_echo(icap.get(), body);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

static void remove(std::string &text, const std::string &part)
{
    for (size_t at; (at = text.find(part)) != std::string::npos;)
        text.erase(at, part.size());
}

// The same file through c-icap's client and through ours goes out as the same bytes but for two
// lines: theirs names itself in a User-Agent line, and leaves the port out of the request's URL
// where ours sends the URL as it was given.
TEST_F(icap_interop, requests_agree_with_another_client)
{
    const std::string answer = "ICAP/1.0 204 No Content\r\nConnection: close\r\n\r\n";
    std::string file = scratch->write("file", "hello");
    std::string theirs;
    {
        ScriptedServer scripted(answer);
        run({"timeout", "10", "c-icap-client", "-i", "127.0.0.1", "-p",
             std::to_string(scripted.port()), "-s", "echo", "-nopreview", "-no204", "-f", file});
        theirs = scripted.request();
    }
    remove(theirs, "User-Agent: C-ICAP-Client-Library/0.5.10\r\n");
    size_t respmod = theirs.find("RESPMOD ");
    size_t header = theirs.find("HTTP/1.0 200 OK");
    size_t body = theirs.find("5\r\nhello");
    ASSERT_TRUE(respmod < header && header < body && body != std::string::npos) << theirs;

    std::string ours;
    for (bool options : {true, false}) {
        ScriptedServer scripted(answer);
        std::string port = ":" + std::to_string(scripted.port());
        Icap icap = client();
        zq_icap_set_url(icap.get(), ("icap://127.0.0.1" + port + "/echo").c_str());
        if (options) {
            zq_icap_set_method_options(icap.get());
        } else {
            zq_icap_set_method_respmod(icap.get());
            zq_icap_set_response_headers(icap.get(), theirs.data() + header, body - header);
            zq_icap_set_response_body(icap.get(), "hello", 5);
        }
        EXPECT_EQ(zq_icap_perform(icap.get()), ZQ_ERROR_NONE + 0u);
        std::string request = scripted.request();
        remove(request, port);
        ours += request;
    }
    EXPECT_EQ(ours, theirs);
}

TEST_F(icap_interop, the_example_asks_the_same)
{
    std::string file = scratch->write("page", "hello\n");
    for (const char *option : {"--reqmod", "--respmod"}) {
        Outcome outcome = run({example("zqicap"), url, option, file, "--timeout", "10"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out, "hello\n");
        EXPECT_EQ(outcome.err.substr(0, 16), "ICAP status 200\n") << outcome.err;
    }
    EXPECT_EQ(run({example("zqicap"), "--options", url}).status, 0);

    std::string nobody = "icap://127.0.0.1:" + std::to_string(free_port()) + "/echo";
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string error;
    } rows[] = {
        {{nobody}, 4, "zqicap: " + nobody + ": connection refused\n"},
        {{"plain"}, 3, "zqicap: plain: invalid argument\n"},
        {{url, "--reqmod", "/nonexistent"},
         9,
         "zqicap: unable to read '/nonexistent': No such file or directory\n"},
        {{url, url}, 2, "zqicap: one URL at a time, please\n"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> command = {example("zqicap")};
        command.insert(command.end(), row.arguments.begin(), row.arguments.end());
        Outcome outcome = run(command);
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_EQ(outcome.err, row.error);
    }
}
