// Signals at 1 kHz to all threads that use the network: what waits ends early, with
// ZQ_ERROR_INTERRUPTED and nothing else, and no byte is lost or comes twice.

#include <chrono>
#include <functional>
#include <vector>

#include "tests/net/tcp_server.h"
#include "tests/support/log_capture.h"
#include "tests/support/random_bytes.h"
#include "tests/support/scripted_server.h"
#include "tests/support/signal_storm.h"
#include "zq/net/zqhandle_tcp.h"
#include "zq/net/zqhttp_lite.h"
#include "zq/net/zqicap.h"
#include "zq/net/zqsocket.h"
#include "zq/util/zqlog.h"
#include "zq/util/zqsignal.h"
#include "zq/util/zqtimeout.h"

using Clock = std::chrono::system_clock; // the library's
using Socket = Owned<zqsocket, zq_socket_destroy>;
using Handle = Owned<zqhandle, zq_handle_destroy>;
using Timeout = Owned<zqtimeout, zq_timeout_destroy>;
using std::chrono::milliseconds;

// A connection between two sockets and one between two handles, whose waits end after 60 seconds.
class net_signal_storm : public testing::Test {
  protected:
    void SetUp() override
    {
        zq_log_init_threaded();
        zq_signal_ignore_sigpipe();
        if (!connect_sockets() || !connect_handles())
            GTEST_SKIP() << "not connected, which only injected faults may cause";
        for (zqhandle *handle : {sender.get(), receiver.get()}) {
            zq_handle_set_read_timeout(handle, 60, 0);
            zq_handle_set_write_timeout(handle, 60, 0);
        }
    }
    bool connect_sockets()
    {
        Socket listening(zq_socket_tcp_create());
        uint32_t port;
        if (!listening || zq_socket_bind(listening.get(), "127.0.0.1", 0) != 0 ||
            zq_socket_listen(listening.get(), 1) != 0 ||
            zq_socket_get_local_port(listening.get(), &port) != 0)
            return false;
        zqerror error;
        out.reset(zq_socket_tcp_connect("127.0.0.1", port, &error));
        zqsocket *accepted = nullptr;
        if (out && zq_socket_poll_read(listening.get(), 60, 0) == 0)
            zq_socket_accept(listening.get(), &accepted);
        in.reset(accepted);
        return in && zq_socket_enable_wakeup(in.get()) == 0;
    }
    bool connect_handles()
    {
        zqhandle *made = nullptr;
        uint32_t port;
        if (zq_handle_tcp_listen("127.0.0.1", 0, &made) != 0)
            return false;
        listener.reset(made);
        if (zq_handle_get_local_port(made, &port) != 0)
            return false;
        sender.reset(zq_handle_tcp_connect("127.0.0.1", port));
        if (!sender || zq_handle_accept(listener.get(), &made) != 0)
            return false;
        receiver.reset(made);
        return true;
    }

    LogCapture log;
    Socket out, in;
    Handle listener, sender, receiver;
};

// ---- transfers ----

namespace {
struct Step {
    size_t count;
    zqerror error;
};
} // namespace

using Send = std::function<Step(const char *, size_t)>;
using Receive = std::function<Step(char *, size_t)>;

// Carries more than the buffers of the system hold. The receiver is interrupted before the first
// byte and behind it, in the middle of a line, and the sender while it waits for room; either goes
// on where it was.
static void expect_carried(const Send &send, const Receive &receive)
{
    const std::string sent = random_bytes(16 << 20);
    std::atomic<int> receiver_interrupted{0}, sender_interrupted{0};
    std::atomic<bool> intact{true};
    auto goes_on = [&](size_t at, const Step &step) {
        return intact && at < sent.size() && (!step.error || step.error == ZQ_ERROR_INTERRUPTED);
    };
    std::thread sending([&] {
        Step step = {0, ZQ_ERROR_NONE};
        for (size_t at = 0; goes_on(at, step); at += step.count) {
            while (receiver_interrupted < (at == 0 ? 1 : 2))
                std::this_thread::yield();
            step = send(sent.data() + at, at == 0 ? 1 : sent.size() - at);
            sender_interrupted += step.error == ZQ_ERROR_INTERRUPTED;
        }
        EXPECT_EQ(step.error, 0u);
        EXPECT_GE(sender_interrupted++, 1);
    });
    std::string received(sent.size(), '\0');
    size_t at = 0;
    Step step = {0, ZQ_ERROR_NONE};
    for (; goes_on(at, step); at += step.count) {
        step = receive(&received[at], sent.size() - at);
        intact = received.compare(at, step.count, sent, at, step.count) == 0;
        if (step.error != ZQ_ERROR_NONE && ++receiver_interrupted == 2) {
            while (sender_interrupted == 0)
                std::this_thread::yield();
        }
    }
    receiver_interrupted += 2; // nobody waits for what will not come
    sending.join();
    EXPECT_EQ(step.error, 0u);
    EXPECT_EQ(at, sent.size());
    EXPECT_TRUE(intact);
}

TEST_F(net_signal_storm, no_byte_is_lost_or_doubled)
{
    if (faults_injected())
        GTEST_SKIP() << "carrying bytes allocates nothing";
    SignalStorm storm;
    auto write_socket = [this](const char *bytes, size_t size) -> Step {
        const size_t count = zq_socket_write(out.get(), bytes, size);
        zqerror error = zq_socket_get_error(out.get());
        if (error == ZQ_ERROR_WOULD_BLOCK)
            error = zq_socket_poll_write(out.get(), 60, 0);
        return {count, error};
    };
    auto read_socket = [this](char *bytes, size_t size) -> Step {
        const size_t count = zq_socket_read_with_timeout(in.get(), bytes, size, 60, 0);
        return {count, zq_socket_get_error(in.get())};
    };
    auto write_handle = [this](const char *bytes, size_t size) -> Step {
        const size_t count = zq_handle_write(sender.get(), bytes, size);
        return {count, zq_handle_get_error(sender.get())};
    };
    auto read_handle_by = [this](auto call) {
        return [this, call](char *bytes, size_t size) -> Step {
            const size_t count = call(receiver.get(), bytes, size);
            return {count, zq_handle_get_error(receiver.get())};
        };
    };
    expect_carried(write_socket, read_socket);
    expect_carried(write_handle, read_handle_by(zq_handle_read));
    expect_carried(write_handle, read_handle_by(zq_handle_read_line));
    EXPECT_NE(joined(log.take()).find("poll write callback returned error 4"), std::string::npos);
}

// ---- waits ----

TEST_F(net_signal_storm, waits_last_their_time_when_they_are_gone_on_with)
{
    SignalStorm storm;
    char buffer[8];
    const std::function<zqerror(int32_t, uint32_t)> waits[] = {
        [&](int32_t seconds, uint32_t useconds) {
            zq_socket_read_with_timeout(in.get(), buffer, 8, seconds, useconds);
            return zq_socket_get_error(in.get());
        },
        [&](int32_t seconds, uint32_t useconds) {
            zq_handle_set_read_timeout(receiver.get(), seconds, useconds);
            zq_handle_read_line(receiver.get(), buffer, 8);
            return zq_handle_get_error(receiver.get());
        },
        [&](int32_t seconds, uint32_t useconds) {
            zqhandle *accepted;
            zq_handle_set_read_timeout(listener.get(), seconds, useconds);
            const zqerror error = zq_handle_accept(listener.get(), &accepted);
            EXPECT_EQ(accepted, nullptr);
            return error;
        },
    };
    Timeout timeout(zq_timeout_create());
    ASSERT_TRUE(timeout);
    for (const auto &wait : waits) {
        int32_t seconds = 0;
        uint32_t useconds = 30000;
        const auto start = Clock::now();
        zq_timeout_set(timeout.get(), seconds, useconds);
        while (zq_timeout_check(timeout.get(), &seconds, &useconds) != 1) {
            const zqerror error = wait(seconds, useconds);
            EXPECT_TRUE(error == ZQ_ERROR_INTERRUPTED || error == ZQ_ERROR_TIMED_OUT) << error;
        }
        EXPECT_GE(Clock::now() - start, milliseconds(29));
        for (int tries = 0; tries < 1000 && wait(60, 0) != ZQ_ERROR_INTERRUPTED; tries++) {
        }
        EXPECT_EQ(wait(60, 0), ZQ_ERROR_INTERRUPTED + 0u) << "without a limit to speak of";
    }
}

TEST_F(net_signal_storm, each_wakeup_ends_one_wait)
{
    SignalStorm storm;
    const int wakeups = 300;
    std::thread waker([this] {
        for (int i = 0; i < wakeups; i++) {
            EXPECT_EQ(zq_socket_wakeup(in.get()), 0u);
            usleep(200); // so that they are waited for
        }
    });
    int woken = 0;
    zqerror error = ZQ_ERROR_INTERRUPTED;
    while (woken < wakeups && (error == ZQ_ERROR_INTERRUPTED || error == ZQ_ERROR_WAKEUP)) {
        error = zq_socket_poll_read(in.get(), 60, 0);
        woken += error == ZQ_ERROR_WAKEUP;
    }
    waker.join();
    EXPECT_EQ(woken, wakeups);
    EXPECT_EQ(zq_socket_get_error(in.get()), ZQ_ERROR_WAKEUP + 0u) << "not what the waker records";
    Shelter shelter;
    EXPECT_EQ(zq_socket_poll_read(in.get(), 0, 0), ZQ_ERROR_TIMED_OUT + 0u);
}

// ---- the server ----

// Sends all; false when something else than a signal keeps it from that.
static bool write_on(zqhandle *handle, const char *bytes, size_t size)
{
    for (size_t sent = 0; sent < size;) {
        sent += zq_handle_write(handle, bytes + sent, size - sent);
        const zqerror error = zq_handle_get_error(handle);
        if (error != ZQ_ERROR_NONE && error != ZQ_ERROR_INTERRUPTED)
            return false;
    }
    return true;
}

static void echo(zqtcpserver *, zqhandle *handle, void *)
{
    std::vector<char> buffer(1 << 16);
    zq_handle_set_read_timeout(handle, 60, 0);
    for (size_t count = 0; count > 0 || zq_handle_get_error(handle) == ZQ_ERROR_NONE ||
                           zq_handle_get_error(handle) == ZQ_ERROR_INTERRUPTED;) {
        count = zq_handle_read(handle, buffer.data(), buffer.size());
        if (count > 0 && !write_on(handle, buffer.data(), count))
            return;
    }
}

TEST(net_signal_storm_server, accepts_serves_and_ends)
{
    LogCapture log;
    SignalStorm storm;
    Server server(nullptr, echo);
    ASSERT_TRUE(server.is_running());
    const uint32_t port = server.port();
    bool seen = false;
    for (int tries = 0; tries < 10000 && !seen; tries++) {
        seen = joined(log.take()).find("accept returned 4 (") != std::string::npos;
        usleep(1000);
    }
    EXPECT_TRUE(seen);
    std::vector<std::thread> clients;
    for (size_t number = 1; number <= 4; number++) {
        clients.push_back(sheltered<std::thread>([=] {
            for (size_t round = 0; round < 16; round++) {
                const std::string sent = random_bytes((60 << 10) + 16 * number + round);
                Fd client = connect_to(port);
                send_text(client, sent);
                shutdown(client.get(), SHUT_WR);
                EXPECT_TRUE(receive_all(client) == sent);
            }
        }));
    }
    for (std::thread &client : clients)
        client.join();
}

// ---- exchanges ----

static const std::string &body()
{
    static const std::string bytes = random_bytes(faults_injected() ? 1 << 16 : 2 << 20);
    return bytes;
}

static std::string http_head()
{
    return "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(body().size()) + "\r\n\r\n";
}

static void serve_body(zqtcpserver *, zqhandle *handle, void *)
{
    const std::string head = http_head();
    char line[4096] = "";
    while (line[0] != '\r') {
        if (zq_handle_read_line(handle, line, sizeof(line)) == 0 &&
            zq_handle_get_error(handle) != ZQ_ERROR_INTERRUPTED)
            return;
    }
    if (write_on(handle, head.data(), head.size()))
        write_on(handle, body().data(), body().size());
}

static zqerror append(const void *data, size_t size, void *received)
{
    static_cast<std::string *>(received)->append(static_cast<const char *>(data), size);
    return ZQ_ERROR_NONE;
}

// 0 stands for the whole body and nothing else.
static zqerror download(zqhttp *http, uint32_t port)
{
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/";
    std::string received;
    zq_http_set_response_body_callback(http, append, &received);
    zqerror error = zq_http_set_url(http, url.c_str());
    if (error == ZQ_ERROR_NONE)
        error = zq_http_perform(http);
    EXPECT_TRUE(error != ZQ_ERROR_NONE || received == body());
    EXPECT_TRUE(body().starts_with(received));
    return error;
}

// Here too: the server has the whole request, and the client the reply.
static zqerror filter(zqicap *icap, const std::string &reply)
{
    const std::string headers = "POST / HTTP/1.1\r\nHost: h\r\n\r\n";
    auto server = sheltered<ScriptedServer>(reply, size_t{0}, ScriptedServer::STALL);
    const std::string url = "icap://127.0.0.1:" + std::to_string(server.port()) + "/s";
    if (zq_icap_set_url(icap, url.c_str()) != ZQ_ERROR_NONE)
        return ZQ_ERROR_NO_MEMORY;
    zq_icap_set_method_reqmod(icap);
    zq_icap_set_request_headers(icap, headers.data(), headers.size());
    zq_icap_set_request_body(icap, body().data(), body().size());
    const zqerror error = zq_icap_perform(icap);
    if (error == ZQ_ERROR_NONE) {
        EXPECT_EQ(zq_icap_get_status_code(icap), 204);
        EXPECT_NE(server.request().find("\r\n" + body() + "\r\n0\r\n\r\n"), std::string::npos);
    }
    return error;
}

// A client is hit, or what it does comes through whole. The same client can be used again.
static void expect_hit_or_whole(const std::function<zqerror()> &exchange)
{
    SignalStorm storm;
    for (int i = 0; i < 5; i++) {
        const zqerror error = exchange();
        EXPECT_TRUE(error == ZQ_ERROR_NONE || error == ZQ_ERROR_INTERRUPTED) << error;
    }
    Shelter shelter;
    EXPECT_EQ(exchange(), 0u);
}

TEST(net_signal_storm_clients, http)
{
    zq_signal_ignore_sigpipe();
    LogCapture log;
    Server server(nullptr, serve_body);
    Owned<zqhttp, zq_http_destroy> http(zq_http_lite_create());
    ASSERT_TRUE(server.is_running() && http);
    expect_hit_or_whole([&] { return download(http.get(), server.port()); });

    SignalStorm storm;
    auto stalling =
        sheltered<ScriptedServer>(http_head() + body().front(), size_t{0}, ScriptedServer::STALL);
    log.take();
    EXPECT_EQ(download(http.get(), stalling.port()), ZQ_ERROR_INTERRUPTED + 0u);
    EXPECT_NE(joined(log.take()).find("error 4 (interrupted system call)"), std::string::npos);
}

TEST(net_signal_storm_clients, icap)
{
    zq_signal_ignore_sigpipe();
    LogCapture log;
    Owned<zqicap, zq_icap_destroy> icap(zq_icap_create());
    ASSERT_TRUE(icap);
    expect_hit_or_whole([&] { return filter(icap.get(), "ICAP/1.0 204 No Content\r\n\r\n"); });

    SignalStorm storm;
    log.take();
    EXPECT_EQ(filter(icap.get(), ""), ZQ_ERROR_INTERRUPTED + 0u);
    EXPECT_NE(joined(log.take()).find("error 4 (interrupted system call)"), std::string::npos);
}
