#include "zq/net/zqhandle_tcp.h"

#include <gtest/gtest.h>
#include <thread>

#include "tests/net/libc_faults.h"
#include "tests/net/loopback.h"
#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/process.h"
#include "zq/util/zqlog.h"

using Handle = Owned<zqhandle, zq_handle_destroy>;

class net_zqhandle_tcp : public NetworkTest {
  protected:
    // A handle that listens on a port of the system's choice.
    void listen_on(const char *address)
    {
        zqhandle *listening = nullptr;
        zq_handle_tcp_listen(address, 0, &listening);
        listener.reset(listening);
        if (listening)
            zq_handle_get_local_port(listening, &port);
    }

    // A handle connected to a plain socket.
    void connect_to_remote()
    {
        Port plain;
        client.reset(zq_handle_tcp_connect("127.0.0.1", plain.listening().number()));
        if (client)
            remote = plain.accept();
        taken();
    }

    Handle listener;
    uint32_t port = 0;
    Handle client;
    Fd remote;
    char buffer[16] = {};
};

// ---- connections ----

TEST_F(net_zqhandle_tcp, carries_bytes_both_ways)
{
    zq_log_init_threaded();
    listen_on(nullptr);
    ASSERT_NE(port, 0u);
    client.reset(zq_handle_tcp_connect("127.0.0.1", port));
    ASSERT_NE(client, nullptr);
    zqhandle *accepted = nullptr;
    EXPECT_EQ(zq_handle_accept(listener.get(), &accepted), 0u);
    Handle server(accepted);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(taken(), (Lines{"13 connection in progress", "13 connected"}));

    // More than the buffers of the system hold, so that writing must wait for the reader.
    const std::string sent(16 << 20, 'x');
    std::thread reader([&] {
        std::string sink(1 << 16, '\0');
        size_t received = 0;
        while (size_t count = zq_handle_read(server.get(), sink.data(), sink.size()))
            received += count;
        EXPECT_EQ(received, sent.size());
        EXPECT_EQ(zq_handle_get_error(server.get()), 204u);
        EXPECT_EQ(zq_handle_write(server.get(), "bye\n", 4), 4u);
    });
    EXPECT_EQ(zq_handle_write(client.get(), sent.data(), sent.size()), sent.size());
    shutdown(last_socket, SHUT_WR); // the client's, the last that this thread made
    EXPECT_EQ(zq_handle_read_line(client.get(), buffer, sizeof(buffer)), 4u);
    EXPECT_STREQ(buffer, "bye\n");
    reader.join();

    uint32_t server_port = 0;
    EXPECT_EQ(zq_handle_get_local_port(server.get(), &server_port), 0u);
    EXPECT_EQ(server_port, port);
    EXPECT_EQ(zq_handle_accept(client.get(), &accepted), 205u); // only listeners accept
}

TEST_F(net_zqhandle_tcp, bounds_reading_and_writing)
{
    connect_to_remote();
    ASSERT_NE(client, nullptr);
    zq_handle_set_read_timeout(client.get(), 0, 30000);
    EXPECT_EQ(zq_handle_read(client.get(), buffer, sizeof(buffer)), 0u);
    EXPECT_EQ(zq_handle_get_error(client.get()), 201u);
    EXPECT_EQ(taken(), (Lines{"13 recv() returned EWOULDBLOCK",
                              "13 polling read for a socket returned error 201 (timed out)"}));

    zq_handle_set_write_timeout(client.get(), 0, 30000);
    const std::string block(1 << 24, 'x');
    EXPECT_LT(zq_handle_write(client.get(), block.data(), block.size()), block.size());
    EXPECT_EQ(zq_handle_get_error(client.get()), 201u);
    EXPECT_EQ(taken(), Lines{});
}

TEST_F(net_zqhandle_tcp, reports_errors_of_the_socket)
{
    connect_to_remote();
    ASSERT_NE(client, nullptr);
    zqhandle *handle = client.get();

    plan(RECV, {ECONNRESET, ECONNRESET});
    EXPECT_EQ(zq_handle_read(handle, buffer, sizeof(buffer)), 0u);
    EXPECT_EQ(zq_handle_get_error(handle), 104u);
    EXPECT_EQ(taken(),
              (Lines{"7 recv() returned ECONNRESET", "7 recv() returned ECONNRESET",
                     "7 recv() returned error 104 (connection reset by peer)",
                     "7 unable to read from tcp socket, error 104 (connection reset by peer)"}));
    plan(SEND, {EPIPE});
    EXPECT_EQ(zq_handle_write(handle, "x", 1), 0u);
    EXPECT_EQ(zq_handle_get_error(handle), 32u);
    EXPECT_EQ(taken(), (Lines{"7 unable to write to tcp socket, error 32 (broken pipe)",
                              "7 zqhandle write returned error 32 (broken pipe)"}));
    plan(SEND, {EAGAIN}); // not logged as such; the poll that follows fails
    plan(POLL, {EINTR});
    EXPECT_EQ(zq_handle_write(handle, "x", 1), 0u);
    EXPECT_EQ(zq_handle_get_error(handle), 4u);
    EXPECT_EQ(taken(), (Lines{"7 poll write callback returned error 4 (interrupted system call)"}));

    uint32_t unknown = 77;
    plan(GETSOCKNAME, {ENOBUFS});
    EXPECT_EQ(zq_handle_get_local_port(handle, &unknown), 202u);
    EXPECT_EQ(unknown, 0u);
    EXPECT_EQ(taken(),
              (Lines{"7 getsockname() returned error 105",
                     "7 unable to fetch the local TCP port number from the socket, error 202 "
                     "(generic error)",
                     "7 getting the local port for the handle failed, error 202 (generic error)"}));
    EXPECT_EQ(zq_handle_wakeup(handle), 203u);
    EXPECT_EQ(taken(), (Lines{"6 waking up this socket is not enabled",
                              "7 unable to write to the wakeup pipe, error 9",
                              "7 socket wakeup returned 203 (write error)",
                              "7 waking up a handle failed, error 203 (write error)"}));
    remote.reset();
    EXPECT_EQ(zq_handle_read(handle, buffer, sizeof(buffer)), 0u);
    EXPECT_EQ(zq_handle_get_error(handle), 204u);
    EXPECT_EQ(taken(), Lines{});
}

TEST_F(net_zqhandle_tcp, needs_its_context)
{
    client.reset(zq_handle_tcp_create());
    ASSERT_NE(client, nullptr);
    zqhandle *handle = client.get();
    void *context = zq_handle_get_context(handle);
    zq_handle_set_context(handle, nullptr);
    EXPECT_EQ(zq_handle_read(handle, buffer, 1), 0u);
    EXPECT_EQ(zq_handle_get_error(handle), 22u);
    EXPECT_EQ(taken(), (Lines{"7 this handle is not connected"}));
    EXPECT_EQ(zq_handle_write(handle, "x", 1), 0u);
    EXPECT_EQ(zq_handle_get_error(handle), 22u);
    EXPECT_EQ(taken(), (Lines{"7 this handle is not connected",
                              "7 zqhandle write returned error 22 (invalid argument)"}));
    zq_handle_set_context(handle, context);
    // Without a connection it is the socket that is missing.
    EXPECT_MISUSE(zq_handle_read(handle, buffer, 1), "net/zqsocket", "zq_socket_read_with_timeout",
                  "zqsocket != NULL");
}

// ---- connect ----

TEST_F(net_zqhandle_tcp, connects_once)
{
    connect_to_remote();
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(zq_handle_connect(client.get(), "127.0.0.1", 9), 206u);
    EXPECT_EQ(taken(), (Lines{"7 this handle is already connected"}));
    EXPECT_EQ(zq_handle_write(client.get(), "still", 5), 5u);
    EXPECT_EQ(receive_text(remote), "still");
}

TEST_F(net_zqhandle_tcp, reports_why_it_cannot_connect)
{
    Port refusing;
    EXPECT_EQ(Handle(zq_handle_tcp_connect("127.0.0.1", refusing.number())), nullptr);
    EXPECT_EQ(taken(), (Lines{"13 connection in progress", "7 connection refused",
                              "7 zq_socket_tcp_connect_next() returned 111 (connection refused)",
                              "7 unable to connect, zqerror 111 (connection refused)"}));

    FakeHost host(EAI_NONAME);
    EXPECT_EQ(Handle(zq_handle_tcp_connect("host", 80)), nullptr);
    EXPECT_EQ(taken(), (Lines{resolver_failed(),
                              "7 zq_socket_tcp_connect_next() returned 200 (cannot connect)",
                              "7 failed to connect host tcp port 80, error 200 (cannot connect)",
                              "7 unable to connect, zqerror 200 (cannot connect)"}));
}

TEST_F(net_zqhandle_tcp, stops_waiting_for_a_host_that_does_not_answer)
{
    Port full;
    Handle first(zq_handle_tcp_connect("127.0.0.1", full.listening(0).number()));
    client.reset(zq_handle_tcp_create());
    ASSERT_NE(client, nullptr);
    zq_handle_set_write_timeout(client.get(), 0, 200000);
    EXPECT_EQ(zq_handle_connect(client.get(), "127.0.0.1", full.number()), 201u);
    EXPECT_GE(seconds_since_begun(), 0.199);
    EXPECT_LT(seconds_since_begun(), 5);
}

TEST_F(net_zqhandle_tcp, stops_on_a_connect_that_fails_at_once)
{
    client.reset(zq_handle_tcp_create());
    ASSERT_NE(client, nullptr);
    plan(CONNECT, {ENETUNREACH});
    EXPECT_MISUSE(zq_handle_connect(client.get(), "127.0.0.1", 9), "net/zqhandle_tcp",
                  "zq_handle_tcp_connect_callback",
                  "result == ZQ_ERROR_NONE || result == ZQ_ERROR_IN_PROGRESS");
}

// ---- listen ----

TEST_F(net_zqhandle_tcp, reports_why_it_cannot_listen)
{
    Port held;
    held.listening();
    const std::string bind_failed = "7 unable to bind the TCP socket to ";
    const std::string at_port = " port " + number(held.number()) + ", error 202 (generic error)";
    const std::string listen_failed =
        "7 unable to start listening to incoming TCP connections, error 202 (generic error)";
    const struct {
        const char *address;
        Call call;
        int err;
        Lines lines;
    } rows[] = {
        {"127.0.0.1",
         BIND,
         PASS,
         {"7 bind() returned error 98", bind_failed + "127.0.0.1" + at_port}},
        {nullptr, BIND, EACCES, {"7 bind() returned error 13", bind_failed + "0.0.0.0" + at_port}},
        {"::1", BIND, EAFNOSUPPORT, {"7 bind() returned error 97", bind_failed + "::1" + at_port}},
        {"localhost", BIND, PASS, {resolver_failed(), bind_failed + "localhost" + at_port}},
        {"127.0.0.2",
         SOCKET,
         EMFILE,
         {"7 socket() call failed, error 24", "7 unable to initialize socket",
          "7 unable to create a TCP socket", "7 unable to create a TCP socket"}},
        {"127.0.0.2",
         PIPE,
         EMFILE,
         {"7 pipe() returned error 24", "7 unable to enable wakeup on the listen socket",
          listen_failed}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.lines.front());
        const size_t open = open_descriptors();
        plan(row.call, {row.err});
        zqhandle *listening = reinterpret_cast<zqhandle *>(&held);
        EXPECT_EQ(zq_handle_tcp_listen(row.address, held.number(), &listening), 202u);
        forget_plans(); // sanitizers make pipes too
        require(listening == nullptr);
        EXPECT_EQ(taken(), row.lines);
        EXPECT_EQ(open_descriptors(), open);
    }
    zqhandle *listening = nullptr;
    EXPECT_EQ(zq_handle_tcp_listen("::1", 0, &listening), 202u); // listeners are IPv4
}

TEST_F(net_zqhandle_tcp, waits_for_connections_no_longer_than_told)
{
    listen_on("127.0.0.1");
    ASSERT_NE(listener, nullptr);
    zq_handle_set_read_timeout(listener.get(), 0, 100000);
    zqhandle *accepted = listener.get();
    EXPECT_EQ(zq_handle_accept(listener.get(), &accepted), 201u);
    EXPECT_GE(seconds_since_begun(), 0.1);
    EXPECT_LT(seconds_since_begun(), 5);
    EXPECT_EQ(accepted, nullptr);

    accepted = listener.get();
    EXPECT_EQ(zq_handle_wakeup(listener.get()), 0u);
    EXPECT_EQ(zq_handle_accept(listener.get(), &accepted), 213u);
    EXPECT_EQ(accepted, nullptr);
    EXPECT_EQ(zq_handle_get_error(listener.get()), 213u);
    EXPECT_EQ(taken(), Lines{});

    plan(POLL, {ENOMEM});
    EXPECT_EQ(zq_handle_accept(listener.get(), &accepted), 12u);
    EXPECT_EQ(taken(),
              (Lines{"7 unable to accept tcp socket, error 12 (not enough memory)",
                     "7 accepting an incoming connection failed, error 12 (not enough memory)"}));
}

TEST_F(net_zqhandle_tcp, loses_a_connection_to_another_thread)
{
    listen_on("127.0.0.1");
    ASSERT_NE(port, 0u);
    client.reset(zq_handle_tcp_connect("127.0.0.1", port));
    ASSERT_NE(client, nullptr);
    zq_handle_set_read_timeout(listener.get(), 5, 0);
    taken();
    plan(ACCEPT, {EAGAIN});
    zqhandle *accepted = listener.get();
    EXPECT_EQ(zq_handle_accept(listener.get(), &accepted), 11u);
    EXPECT_EQ(accepted, nullptr);
    EXPECT_EQ(taken(),
              (Lines{"7 socket accept returned 11 (would block)",
                     "7 accepting an incoming connection failed, error 11 (would block)"}));

    // The timeouts of a connection are not those of its listener.
    EXPECT_EQ(zq_handle_accept(listener.get(), &accepted), 0u);
    Handle server(accepted);
    ASSERT_NE(server, nullptr);
    int32_t seconds = 77;
    uint32_t microseconds = 77;
    zq_handle_get_read_timeout(server.get(), &seconds, &microseconds);
    EXPECT_EQ(seconds, -1);
    EXPECT_EQ(microseconds, 0u);
}

TEST_F(net_zqhandle_tcp, is_woken_by_another_thread)
{
    listen_on("127.0.0.1");
    ASSERT_NE(listener, nullptr);
    zqhandle *accepted = nullptr;
    for (int round = 0; round < 20; round++) {
        std::thread waker([this] { zq_handle_wakeup(listener.get()); });
        EXPECT_EQ(zq_handle_accept(listener.get(), &accepted), 213u);
        waker.join();
    }
}

// ---- memory and misuse ----

TEST_F(net_zqhandle_tcp, lines_without_memory)
{
    if (!faults_injected()) {
        expect_lines_without_memory(
            "net_zqhandle_tcp.lines_without_memory",
            {"[7] not enough memory for zqhandle; [7] unable to create an zqhandle; "
             "[7] unable to create an zqhandle",
             "[7] not enough memory for TCP handle; [7] unable to create an zqhandle",
             "[7] not enough memory for TCP handle; [7] unable to create a client TCP handle; "
             "[7] accepting an incoming connection failed, error 12 (not enough memory)",
             "[7] unable to create timeout context; "
             "[7] unable to connect, zqerror 12 (not enough memory)"});
        return;
    }
    FaultLines lines;
    const size_t open = open_descriptors();
    zqhandle *listening = listener.get();
    zqerror error = zq_handle_tcp_listen("127.0.0.1", 0, &listening);
    listener.reset(listening);
    require(listening ? error == 0 : error != 0 && open_descriptors() == open);
    lines.step();
    ASSERT_NE(listener, nullptr);
    zq_handle_get_local_port(listener.get(), &port);
    ASSERT_NE(port, 0u);
    lines.step();
    client.reset(zq_handle_tcp_connect("127.0.0.1", port));
    lines.step();
    ASSERT_NE(client, nullptr);
    zqhandle *accepted = listener.get();
    error = zq_handle_accept(listener.get(), &accepted);
    require(accepted ? error == 0 : error == 12);
    Handle server(accepted);
}

TEST_F(net_zqhandle_tcp, stops_on_misuse)
{
    zqhandle *listening = nullptr;
    EXPECT_MISUSE(zq_handle_tcp_connect(nullptr, 1), "net/zqhandle_tcp", "zq_handle_tcp_connect",
                  "name != NULL");
    EXPECT_MISUSE(zq_handle_tcp_connect("a", 0), "net/zqhandle_tcp", "zq_handle_tcp_connect",
                  "port > 0");
    EXPECT_MISUSE(zq_handle_tcp_connect("a", 65536), "net/zqhandle_tcp", "zq_handle_tcp_connect",
                  "port < 65536");
    EXPECT_MISUSE(zq_handle_tcp_listen("127.0.0.1", 65536, &listening), "net/zqhandle_tcp",
                  "zq_handle_tcp_listen", "port <= 65535");
    EXPECT_MISUSE(zq_handle_tcp_listen("127.0.0.1", 0, nullptr), "net/zqhandle_tcp",
                  "zq_handle_tcp_listen", "listenhandleptr != NULL");
}
