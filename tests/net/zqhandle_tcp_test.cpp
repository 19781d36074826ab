#include "zq/net/zqhandle_tcp.h"

#include <thread>

#include "tests/net/libc_faults.h"
#include "tests/net/loopback.h"
#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "zq/net/zqsocket.h"
#include "zq/util/zqlog.h"
#include "zq/util/zqsignal.h"

using Socket = Owned<zqsocket, zq_socket_destroy>;
using Handle = Owned<zqhandle, zq_handle_destroy>;

// A listening handle, one connected to it and the listener's end of the connection.
class net_zqhandle_tcp : public NetworkTest {
  protected:
    void SetUp() override
    {
        zq_log_init_threaded();
        zq_signal_ignore_sigpipe();
        zqhandle *made = nullptr;
        if (zq_handle_tcp_listen("127.0.0.1", 0, &made) == 0) {
            listener.reset(made);
            zq_handle_get_local_port(made, &port);
            client.reset(port ? zq_handle_tcp_connect("127.0.0.1", port) : nullptr);
        }
        if (client && zq_handle_accept(listener.get(), &made) == 0)
            server.reset(made);
        if (!server)
            GTEST_SKIP() << "not connected, which only injected faults may cause";
    }

    Handle listener, client, server;
    uint32_t port = 0;
    char buffer[4];
};

TEST_F(net_zqhandle_tcp, reports_errors_of_the_socket)
{
    zqhandle *handle = client.get();
    auto read = [&] { return zq_handle_read(handle, buffer, 4) ? 0 : zq_handle_get_error(handle); };
    auto write = [=] { return zq_handle_write(handle, "x", 1) ? 0 : zq_handle_get_error(handle); };
    auto wake = [=] { return zq_handle_wakeup(handle); };
    auto get_port = [this] {
        uint32_t number = 77;
        const zqerror error = zq_handle_get_local_port(server.get(), &number);
        EXPECT_EQ(number, error ? 0 : port);
        EXPECT_EQ(zq_handle_get_error(server.get()), 0u);
        return error;
    };
    const std::string reset = "104 (connection reset by peer)";
    const std::string generic = "202 (generic error)";
    zq_handle_set_read_timeout(handle, 0, 20000);
    expect(read, 201,
           {"13 recv() returned EWOULDBLOCK",
            "13 polling read for a socket returned error 201 (timed out)"});
    expect(read, 104,
           {"7 recv() returned ECONNRESET", "7 recv() returned ECONNRESET",
            "7 recv() returned error " + reset, "7 unable to read from tcp socket, error " + reset},
           "recv", {ECONNRESET, ECONNRESET});
    expect(write, 32,
           {"7 unable to write to tcp socket, error 32 (broken pipe)",
            "7 zqhandle write returned error 32 (broken pipe)"},
           "send", {EPIPE});
    zq_handle_set_write_timeout(handle, 0, 3000);
    plans["poll"] = {NOTHING};
    expect(write, 201, {}, "send", {EAGAIN});
    EXPECT_EQ(last_poll_timeout, 3);
    expect(get_port, 0, {});
    expect(get_port, 202,
           {"7 getsockname() returned error 105",
            "7 unable to fetch the local TCP port number from the socket, error " + generic,
            "7 getting the local port for the handle failed, error " + generic},
           "getsockname", {ENOBUFS});
    expect(wake, 203,
           {"6 waking up this socket is not enabled",
            "7 unable to write to the wakeup pipe, error 9",
            "7 socket wakeup returned 203 (write error)",
            "7 waking up a handle failed, error 203 (write error)"});
    server.reset();
    zq_handle_set_read_timeout(handle, 5, 0);
    EXPECT_EQ(read(), 204u);
    EXPECT_LOG();

    void *context = zq_handle_get_context(handle);
    zq_handle_set_context(handle, nullptr);
    expect(read, 22, {"7 this handle is not connected"});
    expect(write, 22,
           {"7 this handle is not connected",
            "7 zqhandle write returned error 22 (invalid argument)"});
    zq_handle_set_context(handle, context);
}

TEST_F(net_zqhandle_tcp, connects_once_or_tells_why_not)
{
    EXPECT_LOG("13 connection in progress", "13 connected");
    auto connect_again = [this] { return zq_handle_connect(client.get(), "127.0.0.1", port); };
    expect(connect_again, 206, {"7 this handle is already connected"});
    EXPECT_EQ(zq_handle_write(client.get(), "x", 1), 1u);
    EXPECT_EQ(zq_handle_read(server.get(), buffer, 4), 1u);
    EXPECT_EQ(zq_handle_tcp_connect("127.0.0.1", Port().number()), nullptr);
    EXPECT_LOG("13 connection in progress", "7 connection refused",
               "7 zq_socket_tcp_connect_next() returned 111 (connection refused)",
               "7 unable to connect, zqerror 111 (connection refused)");
    client.reset(zq_handle_tcp_create());
    ASSERT_NE(client, nullptr);
    zq_handle_set_write_timeout(client.get(), 1, 500000); // that of connecting, too
    plans["poll"] = {NOTHING};
    EXPECT_EQ(connect_again(), 201u);
    EXPECT_EQ(last_poll_timeout, 1500);
}

// ---- listen ----

TEST_F(net_zqhandle_tcp, reports_why_it_cannot_listen)
{
    auto listen_on = [this](const char *address) {
        return [=, this] {
            zqhandle *listening = listener.get();
            const zqerror error = zq_handle_tcp_listen(address, port, &listening);
            CHECK_PROMISE(listening == nullptr);
            return error;
        };
    };
    auto not_bound = [this](const std::string &address) {
        return "7 unable to bind the TCP socket to " + address + " port " + std::to_string(port) +
               ", error 202 (generic error)";
    };
    expect(listen_on(nullptr), 202, {"7 bind() returned error 98", not_bound("0.0.0.0")});
    expect(listen_on("::1"), 202, {"7 bind() returned error 97", not_bound("::1")});
    expect(
        listen_on("localhost"), 202,
        {"7 getaddrinfo() returned error -2 (Name or service not known)", not_bound("localhost")});
    expect(listen_on("127.0.0.2"), 202,
           {"7 pipe() returned error 24", "7 unable to enable wakeup on the listen socket",
            "7 unable to start listening to incoming TCP connections, error 202 (generic error)"},
           "pipe", {EMFILE});
}

TEST_F(net_zqhandle_tcp, waits_for_connections_until_one_comes)
{
    zqhandle *accepted = nullptr;
    for (int round = 0; round < 20; round++) {
        std::thread waker([this] { zq_handle_wakeup(listener.get()); });
        EXPECT_EQ(zq_handle_accept(listener.get(), &accepted), 213u);
        waker.join();
    }
    auto accept_nothing = [this] {
        zqhandle *nothing = listener.get();
        const zqerror error = zq_handle_accept(listener.get(), &nothing);
        EXPECT_EQ(nothing, nullptr);
        EXPECT_EQ(zq_handle_get_error(listener.get()), error);
        return error;
    };
    zq_handle_wakeup(listener.get());
    expect(accept_nothing, 213, {});
    zq_handle_set_read_timeout(listener.get(), 0, 20000);
    expect(accept_nothing, 201, {});
    EXPECT_EQ(last_poll_timeout, 20);
    expect(accept_nothing, 12,
           {"7 unable to accept tcp socket, error 12 (not enough memory)",
            "7 accepting an incoming connection failed, error 12 (not enough memory)"},
           "poll", {ENOMEM});
    client.reset(zq_handle_tcp_connect("127.0.0.1", port));
    ASSERT_NE(client, nullptr);
    zq_handle_set_read_timeout(listener.get(), 5, 0);
    expect(accept_nothing, 11,
           {"7 socket accept returned 11 (would block)",
            "7 accepting an incoming connection failed, error 11 (would block)"},
           "accept", {EAGAIN}); // as another thread takes it first
    EXPECT_EQ(zq_handle_accept(listener.get(), &accepted), 0u);
    server.reset(accepted);
    ASSERT_NE(server, nullptr);
    int32_t seconds = 77; // those of the listener are its own
    uint32_t microseconds = 77;
    zq_handle_get_read_timeout(server.get(), &seconds, &microseconds);
    EXPECT_EQ(std::pair(seconds, microseconds), std::pair(-1, 0u));
}

// ---- memory and misuse ----

TEST(net_zqhandle_tcp_memory, lines_without_memory)
{
    if (!faults_injected()) {
        const std::string no_object = "[7] not enough memory for zqsocket structure; ";
        const std::string no_tcp = "[7] unable to create a TCP socket";
        const std::string no_handle = "[7] not enough memory for TCP handle; ";
        const std::string no_context = "; [7] unable to create socket connect context";
        const std::string failed = "[7] accepting an incoming connection failed, error 12 (not "
                                   "enough memory)";
        expect_lines_without_memory(
            "net_zqhandle_tcp_memory.lines_without_memory",
            {no_object + no_tcp, "[7] unable to create timeout context; " + no_tcp,
             "[7] not enough memory for struct sockaddr_storage",
             "[7] not enough memory for socket connect context" + no_context,
             "[7] not enough memory for socket connect timeout context" + no_context,
             no_object + no_tcp +
                 " for IPv4; [7] zq_socket_tcp_connect_next() returned 200 (cannot connect)",
             no_object + "[7] unable to create a connection socket",
             "[7] not enough memory for zqhandle; [7] unable to create an zqhandle; [7] unable to "
             "create an zqhandle",
             no_handle + "[7] unable to create an zqhandle",
             no_handle + "[7] unable to create a client TCP handle; " + failed,
             no_object + no_tcp + "; " + no_tcp,
             "[7] unable to create timeout context; [7] unable to connect, zqerror " +
                 code_text(12)});
        return;
    }
    FaultLines lines;
    const size_t open = open_descriptors();
    zqhandle *made = nullptr;
    zqerror error = zq_handle_tcp_listen("127.0.0.1", 0, &made);
    Handle listener(made);
    CHECK_PROMISE(listener ? error == 0 : error != 0 && open_descriptors() == open);
    lines.step();
    Socket sock(zq_socket_tcp_create());
    lines.step();
    ASSERT_TRUE(listener && sock);
    zq_socket_bind(sock.get(), "127.0.0.1", 0);
    zq_socket_listen(sock.get(), 10);
    uint32_t port = 77;
    error = zq_socket_get_local_port(sock.get(), &port);
    CHECK_PROMISE(error == 0 || (error == 12 && port == 0));
    lines.step();
    ASSERT_NE(port, 0u);
    Socket client(zq_socket_tcp_connect_async("127.0.0.1", port, &error));
    CHECK_PROMISE(client ? error == 115 : error == 12 || error == 200);
    lines.step();
    zqsocket *accepted = sock.get();
    const size_t before = open_descriptors();
    error = zq_socket_accept(sock.get(), &accepted);
    Socket connection(accepted);
    CHECK_PROMISE(connection ? error == 0 : open_descriptors() == before);
    lines.step();
    zq_handle_get_local_port(listener.get(), &port);
    lines.step();
    ASSERT_NE(port, 0u);
    Handle connected(zq_handle_tcp_connect("127.0.0.1", port));
    lines.step();
    ASSERT_NE(connected, nullptr);
    error = zq_handle_accept(listener.get(), &made);
    Handle server(made);
    CHECK_PROMISE(server ? error == 0 : error == 12);
}

TEST_F(net_zqhandle_tcp, stops_on_misuse)
{
    Handle made(zq_handle_tcp_create());
    ASSERT_NE(made, nullptr);
    // Without a connection it is the socket that is missing.
    EXPECT_MISUSE(zq_handle_read(made.get(), buffer, 1), "net/zqsocket",
                  "zq_socket_read_with_timeout", "zqsocket != NULL");
    EXPECT_MISUSE(zq_handle_tcp_listen("127.0.0.1", 65536, nullptr), "net/zqhandle_tcp",
                  "zq_handle_tcp_listen", "port <= 65535");
    plans["connect"] = {ENETUNREACH}; // failing at once comes with a socket
    EXPECT_MISUSE(zq_handle_connect(made.get(), "127.0.0.1", 9), "net/zqhandle_tcp",
                  "zq_handle_tcp_connect_callback",
                  "result == ZQ_ERROR_NONE || result == ZQ_ERROR_IN_PROGRESS");
}
