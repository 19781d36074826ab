#include "zq/net/zqsocket.h"

#include <climits>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

#include "tests/net/libc_faults.h"
#include "tests/net/loopback.h"
#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/process.h"
#include "zq/util/zqsignal.h"

using Socket = Owned<zqsocket, zq_socket_destroy>;

static Socket connect_to(Port &port)
{
    zqerror error;
    return Socket(zq_socket_tcp_connect("127.0.0.1", port.number(), &error));
}

class net_zqsocket : public NetworkTest {};

// A listener, a socket connected to it and the listener's end of the connection.
class net_zqsocket_connection : public NetworkTest {
  protected:
    void SetUp() override
    {
        zq_signal_ignore_sigpipe();
        local = connect_to(port.listening());
        if (!local)
            GTEST_SKIP() << "not connected, which only injected faults may cause";
        remote = port.accept();
        taken();
    }

    Port port;
    Socket local;
    Fd remote;
    char buffer[64] = {};
};

// ---- create ----

TEST_F(net_zqsocket, makes_a_nonblocking_socket_or_nothing)
{
    const Lines no_socket = {"7 socket() call failed, error 24", "7 unable to initialize socket",
                             "7 unable to create a TCP socket"};
    const Lines blocking = {"7 fcntl() returned error -1",
                            "7 unable to set the socket to non-blocking mode",
                            "7 unable to initialize socket", "7 unable to create a TCP socket"};
    const struct {
        const char *name;
        std::deque<int> sockets;
        std::deque<int> fcntls;
        Lines lines;
    } rows[] = {
        {"all well", {}, {}, {}},
        {"no socket", {EMFILE}, {}, no_socket},
        {"flags cannot be read", {}, {EBADF}, blocking},
        {"flags cannot be set", {}, {PASS, EBADF}, blocking},
        {"close-on-exec cannot be set", {}, {PASS, PASS, EBADF}, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const size_t open = open_descriptors();
        plan(SOCKET, row.sockets);
        plan(FCNTL, row.fcntls);
        Socket made(zq_socket_tcp_create());
        EXPECT_EQ(made == nullptr, !row.lines.empty());
        EXPECT_EQ(taken(), row.lines);
        EXPECT_EQ(open_descriptors() - open, made ? 1u : 0u);
        if (made) {
            EXPECT_EQ(zq_socket_get_error(made.get()), ZQ_ERROR_NONE + 0u);
            EXPECT_TRUE(fcntl(last_socket, F_GETFL) & O_NONBLOCK);
            EXPECT_EQ(fcntl(last_socket, F_GETFD) & FD_CLOEXEC,
                      row.fcntls.empty() ? FD_CLOEXEC : 0);
        }
    }
    plan(FCNTL, {PASS, EBADF}); // nothing to set: the second call is the one for close-on-exec
    EXPECT_NE(Socket(zq_socket_create(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)), nullptr);
}

// ---- connect: the errno table, for connect() itself and for the pending error of the socket ----

struct ConnectRow {
    int err;
    zqerror code;
    std::string line;
};

static std::vector<ConnectRow> connect_rows()
{
    std::vector<ConnectRow> rows = {
        {EINTR, 4, "7 connect() returned error 4"},
        {ENETUNREACH, 101, "7 connect() returned network unreachable"},
        {ETIMEDOUT, 110, "7 connect() returned timeout"},
        {ECONNREFUSED, 111, "7 connection refused"},
        {EBADF, 208, "6 INTERNAL ERROR: connect() returned EBADF"},
        {EFAULT, 208, "6 INTERNAL ERROR: connect() returned EFAULT"},
        {ENOTSOCK, 208, "6 INTERNAL ERROR: connect() returned ENOTSOCK"},
        {EISCONN, 208, "6 INTERNAL ERROR: connect() returned EISCONN"},
        {EHOSTUNREACH, 202, "6 connect() returned an unhandled error 113"},
    };
    for (int err : {EPERM, EACCES, EAGAIN, EALREADY, EAFNOSUPPORT, EADDRINUSE})
        rows.push_back({err, 202, "7 connect() returned error " + number(err)});
    return rows;
}

TEST_F(net_zqsocket, maps_the_errors_of_connect)
{
    for (const ConnectRow &row : connect_rows()) {
        SCOPED_TRACE(strerror(row.err));
        FakeHost host({"127.0.0.1"});
        zqerror error = 0;
        plan(CONNECT, {row.err});
        Socket made(zq_socket_tcp_connect_async("host", 9, &error));
        EXPECT_NE(made, nullptr); // a socket and a failure together
        EXPECT_EQ(error, row.code);
        EXPECT_EQ(taken(),
                  (Lines{row.line, "7 zq_socket_tcp_connect_next() returned " + code_text(error)}));
        EXPECT_EQ(host.borrowed, 0);

        // On an existing socket, and with the socket thrown away.
        Socket existing(zq_socket_tcp_create());
        if (!existing)
            continue;
        plan(CONNECT, {row.err});
        EXPECT_EQ(zq_socket_connect(existing.get(), "host", 9), row.code);
        EXPECT_EQ(zq_socket_get_error(existing.get()), row.code);
        EXPECT_EQ(taken(),
                  (Lines{row.line, "7 zq_socket_connect_next() returned " + code_text(row.code),
                         "7 failed to connect host tcp port 9, error " + code_text(row.code)}));
        plan(CONNECT, {row.err});
        EXPECT_EQ(Socket(zq_socket_tcp_connect("host", 9, &error)), nullptr);
        EXPECT_EQ(error, row.code);
        taken();
    }
}

TEST_F(net_zqsocket, maps_the_pending_errors_of_a_connect_in_progress)
{
    Port port;
    port.listening();
    for (const ConnectRow &row : connect_rows()) {
        SCOPED_TRACE(strerror(row.err));
        zqerror error = 0;
        Socket made(zq_socket_tcp_connect_async("127.0.0.1", port.number(), &error));
        EXPECT_EQ(error, 115u);
        if (!made || error != 115)
            continue;
        EXPECT_EQ(taken(), (Lines{"13 connection in progress"}));
        pending_error = row.err;
        EXPECT_EQ(zq_socket_connect_wait(made.get(), 5, 0), row.code);
        EXPECT_EQ(taken(), (Lines{row.line, "7 zq_socket_tcp_connect_next() returned " +
                                                code_text(row.code)}));
        EXPECT_EQ(zq_socket_get_error(made.get()), 0u); // the wait leaves it alone
        EXPECT_EQ(zq_socket_connect_wait(made.get(), 5, 0), 212u);
        EXPECT_EQ(taken(), (Lines{"6 invalid call, no connect context present"}));
    }
}

// ---- connect: hosts of several addresses ----

TEST_F(net_zqsocket, connects_over_ipv4_and_ipv6)
{
    for (const char *address : {"127.0.0.1", "::1"}) {
        if (strchr(address, ':') && !has_ipv6())
            continue;
        SCOPED_TRACE(address);
        Port port(address);
        port.listening();
        zqerror error = 77;
        Socket made(zq_socket_tcp_connect(address, port.number(), &error));
        EXPECT_EQ(error, 0u);
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(taken(), (Lines{"13 connection in progress", "13 connected"}));
        Fd remote = port.accept();
        EXPECT_EQ(zq_socket_write(made.get(), "hello", 5), 5u);
        EXPECT_EQ(receive_text(remote), "hello");

        // An IPv6 socket reports port 0.
        uint32_t local_port = 77;
        EXPECT_EQ(zq_socket_get_local_port(made.get(), &local_port), 0u);
        EXPECT_EQ(local_port == 0, strchr(address, ':') != nullptr);
    }
}

TEST_F(net_zqsocket, tries_every_address_of_a_host)
{
    Port port("127.0.0.2");
    port.listening();
    Port refusing("127.0.0.1", port.number());
    const Lines refused = {"13 connection in progress", "7 connection refused",
                           "13 connection in progress", "13 connected"};
    const Lines no_ipv6 = {"7 socket() call failed, error 97", "7 unable to initialize socket",
                           "7 unable to create a TCP socket for IPv6", "13 connection in progress",
                           "13 connected"};
    const Lines no_ipv4_again = {
        "13 connection in progress", "7 connection refused", "7 socket() call failed, error 24",
        "7 unable to create a TCP socket for IPv4",
        "7 zq_socket_tcp_connect_next() returned 111 (connection refused)"};
    const Lines unreachable = {"7 connect() returned network unreachable", "7 connection refused",
                               "7 zq_socket_tcp_connect_next() returned 101 (network unreachable)"};
    const struct {
        std::vector<std::string> addresses;
        std::deque<int> sockets;
        std::deque<int> connects;
        zqerror code;
        Lines lines;
    } rows[] = {
        {{"127.0.0.1", "127.0.0.2"}, {}, {}, 0, refused},
        {{"::1", "::1", "127.0.0.2"}, {EAFNOSUPPORT}, {}, 0, no_ipv6},
        // The second socket fails, so the address that would answer is passed over.
        {{"127.0.0.1", "127.0.0.1", "127.0.0.2"}, {PASS, EMFILE}, {}, 111, no_ipv4_again},
        {{"127.0.0.1", "127.0.0.2"}, {}, {ENETUNREACH, ECONNREFUSED}, 101, unreachable},
        {{"unix", "127.0.0.2"},
         {},
         {},
         0,
         {"6 unimplemented address family 1", "13 connection in progress", "13 connected"}},
        {{"none", "127.0.0.2"},
         {},
         {},
         200,
         {"7 zq_socket_tcp_connect_next() returned 200 (cannot connect)",
          "7 failed to connect host tcp port " + number(port.number()) +
              ", error 200 (cannot connect)"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.addresses));
        FakeHost host(row.addresses);
        plan(SOCKET, row.sockets);
        plan(CONNECT, row.connects);
        zqerror error = 77;
        Socket made(zq_socket_tcp_connect_with_timeout("host", port.number(), 5, 0, &error));
        EXPECT_EQ(error, row.code);
        EXPECT_EQ(made == nullptr, error != 0);
        EXPECT_EQ(taken(), row.lines);
        EXPECT_EQ(host.borrowed, 0);
        EXPECT_EQ(host.hints.ai_flags, AI_ADDRCONFIG | AI_V4MAPPED);
        EXPECT_EQ(host.hints.ai_family, AF_UNSPEC);
        EXPECT_EQ(host.hints.ai_socktype, SOCK_STREAM);
        EXPECT_EQ(host.hints.ai_protocol, IPPROTO_TCP);
        if (made)
            port.accept();
    }
}

TEST_F(net_zqsocket, cannot_connect_to_a_host_that_does_not_resolve)
{
    FakeHost host(EAI_NONAME);
    zqerror error = 77;
    EXPECT_EQ(Socket(zq_socket_tcp_connect("host", 80, &error)), nullptr);
    EXPECT_EQ(error, 200u);
    EXPECT_EQ(taken(), (Lines{resolver_failed(),
                              "7 zq_socket_tcp_connect_next() returned 200 (cannot connect)",
                              "7 failed to connect host tcp port 80, error 200 (cannot connect)"}));

    Socket existing(zq_socket_tcp_create());
    ASSERT_NE(existing, nullptr);
    EXPECT_EQ(zq_socket_connect_async(existing.get(), "host", 80), 200u);
    EXPECT_EQ(taken(), (Lines{resolver_failed(),
                              "7 zq_socket_connect_next() returned 200 (cannot connect)"}));
    EXPECT_EQ(host.hints.ai_family, AF_INET);
    EXPECT_EQ(host.hints.ai_socktype, SOCK_STREAM);
}

// ---- connect: time ----

TEST_F(net_zqsocket, goes_on_with_a_connect_after_its_time_was_over)
{
    Port port("127.0.0.2");
    port.listening();
    Port refusing("127.0.0.1", port.number());
    FakeHost host({"127.0.0.1", "127.0.0.2"});
    Socket made(zq_socket_tcp_create());
    ASSERT_NE(made, nullptr);
    zqerror error = zq_socket_connect_async(made.get(), "host", port.number());
    EXPECT_EQ(error, 115u);
    EXPECT_EQ(zq_socket_get_error(made.get()), error);
    taken();

    plan(POLL, {POLL_TIMES_OUT});
    EXPECT_EQ(zq_socket_connect_wait(made.get(), 0, 1), 201u);
    EXPECT_EQ(taken(), (Lines{"7 polling for connecting socket returned error 201 (timed out)"}));

    // The refusal is known at once, and with it the time is over.
    EXPECT_EQ(zq_socket_connect_wait(made.get(), 0, 0), 201u);
    EXPECT_EQ(taken(), (Lines{"7 connection refused", "13 connection in progress",
                              "13 connect timeout occurred"}));
    EXPECT_EQ(zq_socket_connect_wait(made.get(), 5, 0), 0u);
    EXPECT_EQ(taken(), (Lines{"13 connected"}));
    EXPECT_EQ(zq_socket_get_error(made.get()), error);
    EXPECT_EQ(zq_socket_connect_wait(made.get(), 5, 0), 212u);
}

TEST_F(net_zqsocket, gives_up_a_connect_when_a_call_fails)
{
    Port port;
    port.listening();
    Socket made(zq_socket_tcp_create());
    ASSERT_NE(made, nullptr);
    zq_socket_connect_async(made.get(), "127.0.0.1", port.number());
    taken();
    plan(POLL, {EINTR});
    EXPECT_EQ(zq_socket_connect_wait(made.get(), -1, 0), 4u);
    EXPECT_EQ(
        taken(),
        (Lines{"7 polling for connecting socket returned error 4 (interrupted system call)"}));
    EXPECT_EQ(zq_socket_connect_wait(made.get(), -1, 0), 212u);

    zq_socket_connect_async(made.get(), "127.0.0.1", port.number());
    taken();
    plan(GETSOCKOPT, {ENOBUFS});
    EXPECT_EQ(zq_socket_connect_wait(made.get(), 5, 0), 202u);
    EXPECT_EQ(taken(), (Lines{"7 getsockopt() failed, error 105"}));
    EXPECT_EQ(zq_socket_connect_wait(made.get(), 5, 0), 212u);

    // The same socket can try again, also while an attempt is in progress.
    EXPECT_EQ(zq_socket_connect_async(made.get(), "127.0.0.1", port.number()), 115u);
    EXPECT_EQ(zq_socket_connect(made.get(), "127.0.0.1", port.number()), 0u);
}

TEST_F(net_zqsocket, stops_waiting_for_a_host_that_does_not_answer)
{
    Port port;
    port.listening(0);
    Socket first = connect_to(port); // fills the backlog: later connections get no answer
    begun = std::chrono::steady_clock::now();
    zqerror error = 0;
    EXPECT_EQ(
        Socket(zq_socket_tcp_connect_with_timeout("127.0.0.1", port.number(), 0, 200000, &error)),
        nullptr);
    EXPECT_EQ(error, 201u);
    if (error == 201) {
        EXPECT_GE(seconds_since_begun(), 0.2);
        EXPECT_LT(seconds_since_begun(), 2);
    }
}

// ---- listen ----

TEST_F(net_zqsocket, binds_listens_and_accepts)
{
    Socket listener(zq_socket_tcp_create());
    ASSERT_NE(listener, nullptr);
    zqsocket *sock = listener.get();
    EXPECT_EQ(zq_socket_bind(sock, "0.0.0.0", 0), 0u);
    EXPECT_EQ(zq_socket_listen(sock, 10), 0u);
    uint32_t port = 0;
    EXPECT_EQ(zq_socket_get_local_port(sock, &port), 0u);
    zqsocket *accepted = sock;
    EXPECT_EQ(zq_socket_accept(sock, &accepted), 11u);
    EXPECT_EQ(accepted, nullptr);
    EXPECT_EQ(zq_socket_get_error(sock), 11u);
    EXPECT_EQ(taken(), Lines{});

    ASSERT_NE(port, 0u);
    zqerror error = 0;
    Socket client(zq_socket_tcp_connect("127.0.0.1", port, &error));
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(zq_socket_poll_read(sock, 5, 0), 0u);
    EXPECT_EQ(zq_socket_accept(sock, &accepted), 0u);
    Socket connection(accepted);
    ASSERT_NE(connection, nullptr);
    uint32_t connection_port = 0;
    EXPECT_EQ(zq_socket_get_local_port(connection.get(), &connection_port), 0u);
    EXPECT_EQ(connection_port, port);
    char buffer[8];
    EXPECT_EQ(zq_socket_write(client.get(), "ping", 4), 4u);
    EXPECT_EQ(zq_socket_read(connection.get(), buffer, sizeof(buffer)), 4u);
    EXPECT_EQ(zq_socket_read_with_timeout(connection.get(), buffer, sizeof(buffer), 0, 1000), 0u);
    EXPECT_EQ(zq_socket_get_error(connection.get()), 201u);
}

TEST_F(net_zqsocket, reports_what_fails_before_a_connection)
{
    Socket listener(zq_socket_tcp_create());
    ASSERT_NE(listener, nullptr);
    zqsocket *sock = listener.get();
    Port held;
    held.listening();
    uint32_t port = 77;
    auto bind_to = [&](const char *address) {
        return zq_socket_bind(sock, address, held.number());
    };
    auto ask_port = [&] { return zq_socket_get_local_port(sock, &port); };
    auto start = [&] { return zq_socket_listen(sock, 10); };
    const struct {
        Call call;
        int err;
        std::function<zqerror()> operation;
        Lines lines;
    } rows[] = {
        {BIND, PASS, [&] { return bind_to("localhost"); }, {resolver_failed()}},
        {BIND, PASS, [&] { return bind_to("127.0.0.1"); }, {"7 bind() returned error 98"}},
        {BIND, EACCES, [&] { return bind_to("127.0.0.1"); }, {"7 bind() returned error 13"}},
        {GETSOCKNAME, ENOBUFS, ask_port, {"7 getsockname() returned error 105"}},
        {PIPE,
         EMFILE,
         start,
         {"7 pipe() returned error 24", "7 unable to enable wakeup on the listen socket"}},
        {LISTEN, EADDRINUSE, start, {"7 listen() returned error 98"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.lines.front());
        plan(row.call, {row.err});
        EXPECT_EQ(row.operation(), 202u);
        forget_plans(); // sanitizers make pipes too
        EXPECT_EQ(zq_socket_get_error(sock), 202u);
        EXPECT_EQ(taken(), row.lines);
    }
    EXPECT_EQ(port, 0u);
}

TEST_F(net_zqsocket, knows_only_the_families_of_the_internet)
{
    Socket sock(zq_socket_create(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_NE(sock, nullptr);
    uint32_t port = 77;
    zqerror error = zq_socket_get_local_port(sock.get(), &port);
    EXPECT_EQ(error, 205u);
    EXPECT_EQ(port, 0u);
    EXPECT_EQ(taken(), (Lines{"6 unimplemented address family 1"}));

    FakeHost host({"unix"});
    EXPECT_EQ(zq_socket_bind(sock.get(), "host", 0), 202u);
    EXPECT_EQ(taken(), (Lines{"6 unimplemented address family 1"}));
    EXPECT_EQ(host.borrowed, 0);
    EXPECT_EQ(host.hints.ai_flags, AI_NUMERICHOST);
}

TEST_F(net_zqsocket, reports_what_fails_in_accept)
{
    Socket listener(zq_socket_tcp_create());
    ASSERT_NE(listener, nullptr);
    zqsocket *sock = listener.get();
    zqsocket *accepted = sock;
    EXPECT_EQ(zq_socket_accept(sock, &accepted), 22u); // does not listen
    EXPECT_EQ(accepted, nullptr);
    EXPECT_EQ(taken(), Lines{});

    uint32_t port = 0;
    zq_socket_bind(sock, "127.0.0.1", 0);
    zq_socket_listen(sock, 10);
    zq_socket_get_local_port(sock, &port);
    ASSERT_NE(port, 0u);
    const struct {
        Call call;
        int err;
        Lines lines;
    } rows[] = {
        {ACCEPT, EMFILE, {"7 accept() returned error 24"}},
        {ACCEPT, EINTR, {"7 accept() returned error 4"}},
        {FCNTL,
         EBADF,
         {"7 fcntl() returned error -1",
          "7 unable to set the connection socket to non-blocking mode"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.lines.back());
        zqerror error;
        Socket client(zq_socket_tcp_connect("127.0.0.1", port, &error));
        zq_socket_poll_read(sock, client ? 5 : 0, 0);
        taken();
        const size_t open = open_descriptors();
        accepted = sock;
        plan(row.call, {row.err});
        EXPECT_EQ(zq_socket_accept(sock, &accepted), 202u);
        EXPECT_EQ(accepted, nullptr);
        EXPECT_EQ(taken(), row.lines);
        EXPECT_EQ(open_descriptors(), open);
    }
}

// ---- read and write ----

TEST_F(net_zqsocket_connection, maps_the_errors_of_recv)
{
    const struct {
        int err;
        zqerror code;
        std::string line;
    } rows[] = {
        {EINTR, 4, "7 recv() returned EINTR"},
        {EAGAIN, 11, "13 recv() returned EWOULDBLOCK"},
        {ENOMEM, 12, "7 recv() returned not enough memory"},
        {ECONNRESET, 104, "7 recv() returned ECONNRESET"},
        {ECONNREFUSED, 208, "7 INTERNAL ERROR: recv() returned connection refused"},
        {EBADF, 208, "6 INTERNAL ERROR: recv() returned EBADF"},
        {EFAULT, 208, "6 INTERNAL ERROR: recv() returned EFAULT"},
        {EINVAL, 208, "6 INTERNAL ERROR: recv() returned EINVAL"},
        {ENOTSOCK, 208, "6 INTERNAL ERROR: recv() returned ENOTSOCK"},
        {ENOTCONN, 208, "6 INTERNAL ERROR: recv() returned ENOTCONN"},
        {EIO, 202, "6 recv() returned an unhandled error 5"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        // One failure is made good by the one further try.
        ASSERT_TRUE(send_text(remote, "abc"));
        plan(RECV, {row.err});
        EXPECT_EQ(zq_socket_read(local.get(), buffer, sizeof(buffer)), 3u);
        EXPECT_EQ(zq_socket_get_error(local.get()), 0u);
        EXPECT_EQ(calls_of(RECV), 2);
        EXPECT_EQ(taken(), (Lines{row.line}));

        // Two failures are final, though a third try would read.
        ASSERT_TRUE(send_text(remote, "abc"));
        plan(RECV, {row.err, row.err});
        EXPECT_EQ(zq_socket_read_with_timeout(local.get(), buffer, sizeof(buffer), 5, 0), 0u);
        EXPECT_EQ(zq_socket_get_error(local.get()), row.code);
        EXPECT_EQ(calls_of(RECV), 2);
        EXPECT_EQ(taken(),
                  (Lines{row.line, row.line, "7 recv() returned error " + code_text(row.code)}));
        EXPECT_EQ(zq_socket_read(local.get(), buffer, sizeof(buffer)), 3u);
        taken();
    }
}

TEST_F(net_zqsocket_connection, reads_nothing_in_no_time)
{
    ASSERT_TRUE(send_text(remote, "abc"));
    ASSERT_EQ(zq_socket_poll_read(local.get(), 5, 0), 0u);
    plan(RECV, {});
    EXPECT_EQ(zq_socket_read_with_timeout(local.get(), buffer, sizeof(buffer), 0, 0), 0u);
    EXPECT_EQ(zq_socket_get_error(local.get()), 201u);
    EXPECT_EQ(calls_of(RECV), 0);
    EXPECT_EQ(taken(), Lines{});
    EXPECT_EQ(zq_socket_read(local.get(), buffer, 2), 2u);
    EXPECT_EQ(zq_socket_read(local.get(), buffer, 2), 1u);
}

TEST_F(net_zqsocket_connection, waits_no_longer_than_told)
{
    const std::string would_block = "13 recv() returned EWOULDBLOCK";
    begun = std::chrono::steady_clock::now();
    EXPECT_EQ(zq_socket_read_with_timeout(local.get(), buffer, sizeof(buffer), 0, 50000), 0u);
    EXPECT_EQ(zq_socket_get_error(local.get()), 201u);
    EXPECT_GE(seconds_since_begun(), 0.049);
    EXPECT_LT(seconds_since_begun(), 5);
    EXPECT_EQ(taken(),
              (Lines{would_block, "13 polling read for a socket returned error 201 (timed out)"}));

    plan(POLL, {EINTR});
    EXPECT_EQ(zq_socket_read_with_timeout(local.get(), buffer, sizeof(buffer), 5, 0), 0u);
    EXPECT_EQ(zq_socket_get_error(local.get()), 4u);
    EXPECT_GT(last_poll_timeout, 4000);
    EXPECT_LE(last_poll_timeout, 5000);
    EXPECT_EQ(taken(),
              (Lines{would_block,
                     "13 polling read for a socket returned error 4 (interrupted system call)"}));
}

TEST_F(net_zqsocket_connection, sees_the_peer_close)
{
    ASSERT_TRUE(send_text(remote, "abc"));
    remote.reset();
    EXPECT_EQ(zq_socket_read(local.get(), buffer, sizeof(buffer)), 3u);
    EXPECT_EQ(zq_socket_read(local.get(), buffer, sizeof(buffer)), 0u);
    EXPECT_EQ(zq_socket_get_error(local.get()), 204u);
    EXPECT_EQ(taken(), Lines{});

    // The first write makes the peer answer with a reset, which the next one meets.
    EXPECT_EQ(zq_socket_write(local.get(), "x", 1), 1u);
    EXPECT_EQ(zq_socket_poll_read(local.get(), 5, 0), 0u);
    EXPECT_EQ(zq_socket_write(local.get(), "x", 1), 0u);
    EXPECT_EQ(zq_socket_get_error(local.get()), 32u);
    EXPECT_EQ(taken(), Lines{});
}

TEST_F(net_zqsocket_connection, sees_the_peer_reset)
{
    reset_connection(remote);
    EXPECT_EQ(zq_socket_poll_read(local.get(), 5, 0), 0u);
    EXPECT_EQ(zq_socket_write(local.get(), "x", 1), 0u);
    EXPECT_EQ(zq_socket_get_error(local.get()), 104u);
    EXPECT_EQ(taken(), (Lines{"7 unable to write to socket, error 104"}));
}

TEST_F(net_zqsocket_connection, maps_the_errors_of_send)
{
    const struct {
        int err;
        zqerror code;
        Lines lines;
    } rows[] = {
        {EAGAIN, 11, {}},
        {ECONNRESET, 104, {"7 unable to write to socket, error 104"}},
        {EPIPE, 32, {}},
        {EINTR, 202, {"7 an unmapped error value 4"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(strerror(row.err));
        plan(SEND, {row.err});
        EXPECT_EQ(zq_socket_write(local.get(), "x", 1), 0u);
        EXPECT_EQ(zq_socket_get_error(local.get()), row.code);
        EXPECT_EQ(calls_of(SEND), 1);
        EXPECT_EQ(taken(), row.lines);
    }
    EXPECT_EQ(zq_socket_write(local.get(), "x", 1), 1u);
    EXPECT_EQ(zq_socket_get_error(local.get()), 0u);
}

TEST_F(net_zqsocket_connection, polls_until_the_peer_reads)
{
    const std::string block(1 << 20, 'x');
    size_t sent = 0;
    while (size_t count = zq_socket_write(local.get(), block.data(), block.size()))
        sent += count;
    EXPECT_EQ(zq_socket_get_error(local.get()), 11u);
    EXPECT_EQ(zq_socket_poll_write(local.get(), 0, 10000), 201u);
    EXPECT_EQ(zq_socket_get_error(local.get()), 201u);
    std::string sink(block.size(), '\0');
    while (sent > 0)
        sent -= static_cast<size_t>(recv(remote.get(), sink.data(), sink.size(), 0));
    EXPECT_EQ(zq_socket_poll_write(local.get(), 5, 0), 0u);
    EXPECT_EQ(taken(), Lines{});
}

// ---- wait ----

using Poll = zqerror (*)(zqsocket *, int32_t, uint32_t);

TEST_F(net_zqsocket_connection, maps_the_errors_of_poll)
{
    const struct {
        int err;
        zqerror code;
        Lines lines;
    } rows[] = {
        {ENOMEM, 12, {}},          {EINTR, 4, {}},
        {EFAULT, 208, {}},         {EINVAL, 208, {}},
        {POLL_TIMES_OUT, 201, {}}, {EIO, 202, {"6 poll() returned an unhandled error 5"}},
    };
    for (Poll poll_call : {zq_socket_poll_read, zq_socket_poll_write}) {
        for (const auto &row : rows) {
            SCOPED_TRACE(row.err);
            plan(POLL, {row.err});
            EXPECT_EQ(poll_call(local.get(), -1, 0), row.code);
            EXPECT_EQ(zq_socket_get_error(local.get()), row.code);
            EXPECT_EQ(taken(), row.lines);
        }
    }
    plan(POLL, {POLL_WITHOUT_EVENT, POLL_WITHOUT_EVENT});
    EXPECT_EQ(zq_socket_poll_write(local.get(), -1, 0), 0u); // any event will do
    EXPECT_EQ(zq_socket_poll_read(local.get(), -1, 0), 208u);
    EXPECT_EQ(taken(), (Lines{"6 INTERNAL ERROR: poll() returned 1 but no event is available"}));
}

TEST_F(net_zqsocket_connection, rounds_waits_up_to_milliseconds)
{
    const struct {
        int32_t seconds;
        uint32_t microseconds;
        int milliseconds;
    } rows[] = {
        {0, 0, 0},
        {0, 1, 1},
        {0, 999, 1},
        {0, 1000, 1},
        {1, 500000, 1500},
        {1, 500001, 1501},
        {2, 999999, 3000},
        {-1, 0, -1},
        {-7, 5, -1},
        {INT32_MIN, 0, -1},
        {2147483, 0, 2147483000},
        {INT32_MAX, 999999, INT_MAX},
    };
    for (Poll poll_call : {zq_socket_poll_read, zq_socket_poll_write}) {
        for (const auto &row : rows) {
            SCOPED_TRACE(row.seconds);
            plan(POLL, {POLL_TIMES_OUT});
            EXPECT_EQ(poll_call(local.get(), row.seconds, row.microseconds), 201u);
            EXPECT_EQ(last_poll_timeout, row.milliseconds);
        }
    }
}

// ---- wake up ----

TEST_F(net_zqsocket_connection, wakes_one_wait_for_each_call)
{
    EXPECT_EQ(zq_socket_enable_wakeup(local.get()), 0u);
    EXPECT_EQ(zq_socket_wakeup(local.get()), 0u);
    EXPECT_EQ(zq_socket_wakeup(local.get()), 0u);
    EXPECT_EQ(zq_socket_poll_read(local.get(), -1, 0), 213u);
    EXPECT_EQ(zq_socket_read(local.get(), buffer, sizeof(buffer)), 0u);
    EXPECT_EQ(zq_socket_get_error(local.get()), 213u);
    EXPECT_EQ(zq_socket_poll_read(local.get(), 0, 0), 201u);
    EXPECT_EQ(taken(),
              (Lines{"13 recv() returned EWOULDBLOCK",
                     "13 polling read for a socket returned error 213 (wakeup requested)"}));

    // Data goes first; the wake-up waits for the next poll.
    ASSERT_TRUE(send_text(remote, "abc"));
    EXPECT_EQ(zq_socket_poll_read(local.get(), 5, 0), 0u);
    EXPECT_EQ(zq_socket_wakeup(local.get()), 0u);
    EXPECT_EQ(zq_socket_poll_read(local.get(), -1, 0), 0u);
    EXPECT_EQ(zq_socket_read(local.get(), buffer, sizeof(buffer)), 3u);
    EXPECT_EQ(zq_socket_poll_write(local.get(), 5, 0), 0u); // never sees it
    plan(READ, {EIO});
    EXPECT_EQ(zq_socket_poll_read(local.get(), -1, 0), 213u);
    EXPECT_EQ(taken(), (Lines{"8 wakeup pipe read failed, error 5"}));
}

TEST_F(net_zqsocket_connection, cannot_be_woken_without_a_pipe)
{
    EXPECT_EQ(zq_socket_wakeup(local.get()), 203u);
    EXPECT_EQ(zq_socket_get_error(local.get()), 203u);
    EXPECT_EQ(taken(), (Lines{"6 waking up this socket is not enabled",
                              "7 unable to write to the wakeup pipe, error 9"}));
    plan(PIPE, {ENFILE});
    EXPECT_EQ(zq_socket_enable_wakeup(local.get()), 202u);
    EXPECT_EQ(taken(), (Lines{"7 pipe() returned error 23"}));
    EXPECT_EQ(zq_socket_enable_wakeup(local.get()), 0u);
    EXPECT_EQ(zq_socket_get_error(local.get()), 203u); // enabling leaves it alone
    EXPECT_EQ(zq_socket_wakeup(local.get()), 0u);
    EXPECT_EQ(zq_socket_get_error(local.get()), 0u);
}

TEST_F(net_zqsocket_connection, keeps_its_wakeup_pipe_for_good)
{
    const size_t open = open_descriptors();
    EXPECT_EQ(zq_socket_enable_wakeup(local.get()), 0u);
    EXPECT_EQ(zq_socket_enable_wakeup(local.get()), 0u);
    EXPECT_EQ(open_descriptors(), open + 2);
    local.reset();
    EXPECT_EQ(open_descriptors(), open + 2 - 1); // the socket itself is closed
}

TEST_F(net_zqsocket_connection, never_blocks_a_waking_thread)
{
    EXPECT_EQ(zq_socket_enable_wakeup(local.get()), 0u);
    int count = 0;
    while (zq_socket_wakeup(local.get()) == 0)
        count++;
    EXPECT_GE(count, 4096);
    EXPECT_EQ(zq_socket_get_error(local.get()), 203u);
    EXPECT_EQ(taken(), (Lines{"7 unable to write to the wakeup pipe, error 11"}));
}

TEST_F(net_zqsocket_connection, is_woken_by_another_thread)
{
    ASSERT_EQ(zq_socket_enable_wakeup(local.get()), 0u);
    constexpr int rounds = 200;
    std::thread waker([this] {
        for (int round = 0; round < rounds; round++)
            zq_socket_wakeup(local.get());
    });
    // What the owner records outlives what the waker does.
    for (int round = 0; round < rounds; round++) {
        EXPECT_EQ(zq_socket_read_with_timeout(local.get(), buffer, sizeof(buffer), 10, 0), 0u);
    }
    waker.join();
    EXPECT_EQ(zq_socket_get_error(local.get()), 213u);
    EXPECT_EQ(zq_socket_poll_read(local.get(), 0, 0), 201u);
}

// ---- memory and misuse ----

TEST_F(net_zqsocket, lines_without_memory)
{
    if (!faults_injected()) {
        expect_lines_without_memory(
            "net_zqsocket.lines_without_memory",
            {"[7] not enough memory for zqsocket structure; [7] unable to create a TCP socket",
             "[7] unable to create timeout context; [7] unable to create a TCP socket",
             "[7] not enough memory for struct sockaddr_storage",
             "[7] not enough memory for socket connect context; "
             "[7] unable to create socket connect context",
             "[7] not enough memory for socket connect timeout context; "
             "[7] unable to create socket connect context",
             "[7] not enough memory for zqsocket structure; "
             "[7] unable to create a TCP socket for IPv4; "
             "[7] zq_socket_tcp_connect_next() returned 200 (cannot connect)",
             "[7] not enough memory for zqsocket structure; "
             "[7] unable to create a connection socket",
             "[7] unable to create timeout context; [7] unable to create a connection socket"});
        return;
    }
    FaultLines lines;
    Socket listener(zq_socket_tcp_create());
    lines.step();
    ASSERT_NE(listener, nullptr);
    zq_socket_bind(listener.get(), "127.0.0.1", 0);
    zq_socket_listen(listener.get(), 10);
    uint32_t port = 77;
    zqerror error = zq_socket_get_local_port(listener.get(), &port);
    require(error == 0 || (error == 12 && port == 0));
    lines.step();
    ASSERT_NE(port, 0u);

    Socket client(zq_socket_tcp_connect_async("127.0.0.1", port, &error));
    require(client ? error == 115 : error == 12 || error == 200);
    lines.step();
    ASSERT_NE(client, nullptr);
    const size_t open = open_descriptors();
    zqsocket *accepted = listener.get();
    error = zq_socket_accept(listener.get(), &accepted);
    require(accepted ? error == 0 : error == 12 && open_descriptors() == open);
    if (accepted)
        zq_socket_destroy(accepted);
}

#define MISUSE(call, expression) EXPECT_MISUSE(call, "net/zqsocket", name_of(#call), expression)

static std::string name_of(const std::string &call)
{
    return call.substr(0, call.find('('));
}

TEST_F(net_zqsocket, stops_on_misuse)
{
    zqerror error = 0;
    uint32_t port = 0;
    char buffer[1] = {};
    zqsocket *none = nullptr;
    zqsocket *out = nullptr;
    Socket made(zq_socket_tcp_create());
    ASSERT_NE(made, nullptr);
    zqsocket *sock = made.get();
    const char *const self = "zqsocket != NULL";
    const char *const microseconds = "timeoutusecs < 1000000";

    MISUSE(zq_socket_destroy(none), self);
    MISUSE(zq_socket_tcp_connect(nullptr, 1, &error), "name != NULL");
    MISUSE(zq_socket_tcp_connect("a", 0, &error), "port > 0");
    MISUSE(zq_socket_tcp_connect("a", 65536, &error), "port < 65536");
    MISUSE(zq_socket_tcp_connect("a", 1, nullptr), "zqerrorptr != NULL");
    MISUSE(zq_socket_tcp_connect_with_timeout("a", 1, 0, 1000000, &error), microseconds);
    MISUSE(zq_socket_tcp_connect_async("a", 65536, &error), "port < 65536");
    MISUSE(zq_socket_connect(none, "a", 1), self);
    MISUSE(zq_socket_connect_async(sock, "a", 0), "port > 0");
    MISUSE(zq_socket_connect_wait(sock, -2, 0), "timeoutsecs >= -1");
    MISUSE(zq_socket_connect_wait(sock, 0, 1000000), microseconds);
    MISUSE(zq_socket_bind(sock, nullptr, 0), "address != NULL");
    MISUSE(zq_socket_bind(sock, "127.0.0.1", 65536), "port < 65536");
    MISUSE(zq_socket_get_local_port(none, &port), self);
    MISUSE(zq_socket_get_local_port(sock, nullptr), "portptr != NULL");
    MISUSE(zq_socket_listen(none, 1), self);
    MISUSE(zq_socket_accept(none, &out), self);
    MISUSE(zq_socket_accept(sock, nullptr), "connectionsocketptr != NULL");
    MISUSE(zq_socket_write(sock, nullptr, 1), "buf != NULL");
    MISUSE(zq_socket_write(sock, "a", 0), "len > 0");
    MISUSE(zq_socket_read(sock, buffer, 0), "maxlen > 0");
    MISUSE(zq_socket_read_with_timeout(none, buffer, 1, 0, 0), self);
    MISUSE(zq_socket_read_with_timeout(sock, buffer, 1, 0, 1000000), microseconds);
    MISUSE(zq_socket_poll_read(sock, 0, 1000000), microseconds);
    MISUSE(zq_socket_poll_write(none, 0, 0), self);
    MISUSE(zq_socket_enable_wakeup(none), self);
    MISUSE(zq_socket_wakeup(none), self);
    MISUSE(zq_socket_get_error(none), self);
}
