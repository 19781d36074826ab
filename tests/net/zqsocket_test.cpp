#include "zq/net/zqsocket.h"

#include <climits>

#include "tests/net/libc_faults.h"
#include "tests/net/loopback.h"
#include "tests/support/expect.h"
#include "tests/support/fake_clock.h"
#include "zq/util/zqsignal.h"

using Socket = Owned<zqsocket, zq_socket_destroy>;

static const std::string in_progress = "13 connection in progress";
static const std::string connected = "13 connected";
static const std::string refused = "7 connection refused";
static const std::string would_block = "13 recv() returned EWOULDBLOCK";
static const std::string no_tcp = "7 unable to create a TCP socket";
static const std::string not_initialized = "7 unable to initialize socket";
static const std::string other_family = "6 unimplemented address family 1";

static std::string next_returned(zqerror error)
{
    return "7 zq_socket_tcp_connect_next() returned " + code_text(error);
}

static std::string polling_for(const std::string &what, zqerror error)
{
    return what + " socket returned error " + code_text(error);
}

static std::string internal_error(const std::string &call, int err)
{
    return "6 INTERNAL ERROR: " + call + "() returned " + strerrorname_np(err);
}

static zqerror recorded(zqsocket *sock, zqerror result)
{
    EXPECT_EQ(zq_socket_get_error(sock), result);
    return result;
}

// A socket connected to a plain one.
class net_zqsocket : public NetworkTest {
  protected:
    void SetUp() override
    {
        zq_signal_ignore_sigpipe();
        zqerror error;
        local.reset(zq_socket_tcp_connect("127.0.0.1", port.listening().number(), &error));
        if (!local)
            GTEST_SKIP() << "not connected, which only injected faults may cause";
        sock = local.get();
        remote = port.accept();
        taken();
    }
    // Reads at most two bytes; the result is "BYTES ERROR".
    std::string read_text(int32_t seconds, uint32_t microseconds = 0)
    {
        char buf[2];
        size_t count = zq_socket_read_with_timeout(sock, buf, sizeof(buf), seconds, microseconds);
        return std::string(buf, count) + " " + std::to_string(zq_socket_get_error(sock));
    }

    Port port;
    Socket local;
    zqsocket *sock = nullptr;
    Fd remote;
};

// ---- the errors of the system ----

TEST_F(net_zqsocket, failing_to_create)
{
    auto create = [] { return Socket(zq_socket_tcp_create()) ? 0u : 202u; };
    const std::string blocking = "7 fcntl() returned error -1";
    const std::string stays_blocking = "7 unable to set the socket to non-blocking mode";
    expect(create, 0, {});
    expect_each(create, "socket", {}, {202, "7 socket() call failed, error %"},
                [](zqerror, const std::string &line) {
                    return Lines{line, not_initialized, no_tcp};
                });
    expect_each(create, "fcntl", {}, {202, blocking}, [&](zqerror, const std::string &line) {
        return Lines{line, stays_blocking, not_initialized, no_tcp};
    });
    expect(create, 202, {blocking, stays_blocking, not_initialized, no_tcp}, "fcntl",
           {PASS, EBADF});
    expect(create, 0, {}, "fcntl", {PASS, PASS, EBADF}); // that of close-on-exec
    const int fd = Fd(dup(0)).get();                     // the lowest free one, which is the next
    Socket made(zq_socket_create(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    plans["fcntl"] = {PASS, EBADF}; // nothing to set: the second call is that of close-on-exec
    EXPECT_NE(Socket(zq_socket_create(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)), nullptr);
}

TEST_F(net_zqsocket, failing_to_connect)
{
    auto connect_async = [] {
        zqerror error = 0;
        Socket made(zq_socket_tcp_connect_async("127.0.0.1", 9, &error));
        EXPECT_NE(made, nullptr); // a socket and a failure together
        return error;
    };
    std::map<int, Mapping> table = {
        {EINPROGRESS, {115, in_progress}},
        {EINTR, {4, "7 connect() returned error 4"}},
        {ENETUNREACH, {101, "7 connect() returned network unreachable"}},
        {ETIMEDOUT, {110, "7 connect() returned timeout"}},
        {ECONNREFUSED, {111, refused}}};
    for (int err : {EPERM, EACCES, EAGAIN, EALREADY, EAFNOSUPPORT, EADDRINUSE})
        table[err] = {202, "7 connect() returned error %"};
    for (int err : {EBADF, EFAULT, ENOTSOCK, EISCONN})
        table[err] = {208, internal_error("connect", err)};
    expect_each(connect_async, "connect", table, {202, "6 connect() returned an unhandled error %"},
                [](zqerror code, const std::string &line) {
                    return code == 115 ? Lines{line} : Lines{line, next_returned(code)};
                });
    for (int err : manual_errors.at("getaddrinfo")) {
        auto resolve = [] {
            zqerror error = 0;
            EXPECT_EQ(zq_socket_tcp_connect_async("127.0.0.1", 9, &error), nullptr);
            return error;
        };
        expect(resolve, 200,
               {"7 getaddrinfo() returned error " + std::to_string(err) + " (" + gai_strerror(err) +
                    ")",
                next_returned(200)},
               "getaddrinfo", {err});
    }
    plans["connect"] = {EINTR};
    EXPECT_EQ(recorded(sock, zq_socket_connect(sock, "127.0.0.1", 9)), 4u);
    EXPECT_LOG("7 connect() returned error 4",
               "7 zq_socket_connect_next() returned 4 (interrupted system call)",
               "7 failed to connect 127.0.0.1 tcp port 9, error 4 (interrupted system call)");
    EXPECT_EQ(last_hints.ai_family, AF_INET); // that of the socket
}

TEST_F(net_zqsocket, failing_to_read)
{
    ASSERT_TRUE(send_text(remote, "abc"));
    auto read = [this] { return read_text(-1) == " 0" ? 0 : zq_socket_get_error(sock); };
    std::map<int, Mapping> table = {
        {EINTR, {4, "7 recv() returned EINTR"}},
        {EAGAIN, {11, would_block}},
        {ENOMEM, {12, "7 recv() returned not enough memory"}},
        {ECONNRESET, {104, "7 recv() returned ECONNRESET"}},
        {ECONNREFUSED, {208, "7 INTERNAL ERROR: recv() returned connection refused"}},
        {EIO, {202, "6 recv() returned an unhandled error 5"}}};
    for (int err : {EBADF, EFAULT, EINVAL, ENOTSOCK, ENOTCONN})
        table[err] = {208, internal_error("recv", err)};
    // Two failures are final, though a third try would read.
    expect_each(
        read, "recv", table, {},
        [](zqerror code, const std::string &line) {
            return Lines{line, line, "7 recv() returned error " + code_text(code)};
        },
        2);
    char buffer[4];
    expect([&] { return zq_socket_read(sock, buffer, 4); }, 3, {"7 recv() returned EINTR"}, "recv",
           {EINTR});
}

TEST_F(net_zqsocket, failing_to_write_or_wait)
{
    auto write = [this] { return zq_socket_write(sock, "x", 1) ? 0 : zq_socket_get_error(sock); };
    expect_each(write, "send",
                {{EAGAIN, {11, ""}},
                 {ECONNRESET, {104, "7 unable to write to socket, error 104"}},
                 {EPIPE, {32, ""}}},
                {202, "7 an unmapped error value %"});
    auto wait = [this] { return recorded(sock, zq_socket_poll_read(sock, -1, 0)); };
    const std::map<int, Mapping> poll_errors = {
        {ENOMEM, {12, ""}},
        {EINTR, {4, ""}},
        {EFAULT, {208, ""}},
        {EINVAL, {208, ""}},
        {EIO, {202, "6 poll() returned an unhandled error 5"}}};
    expect_each(wait, "poll", poll_errors, {});
    expect(wait, 208, {"6 INTERNAL ERROR: poll() returned 1 but no event is available"}, "poll",
           {NO_EVENT});
    auto wait_to_write = [this] { return recorded(sock, zq_socket_poll_write(sock, -1, 0)); };
    expect(wait_to_write, 0, {}, "poll", {NO_EVENT}); // any event will do
    expect_each(wait_to_write, "poll", poll_errors, {});
}

TEST_F(net_zqsocket, failing_to_listen)
{
    Socket udp(zq_socket_create(AF_INET, SOCK_DGRAM, 0));
    Socket other(zq_socket_create(AF_UNIX, SOCK_STREAM, 0));
    Socket tcp(zq_socket_tcp_create());
    ASSERT_TRUE(udp && other && tcp);
    EXPECT_EQ(recorded(udp.get(), zq_socket_listen(udp.get(), 10)), 202u);
    EXPECT_LOG("7 listen() returned error 95");
    uint32_t number = 77;
    EXPECT_EQ(recorded(other.get(), zq_socket_get_local_port(other.get(), &number)), 205u);
    EXPECT_EQ(number, 0u);
    fake_host = "unix";
    EXPECT_EQ(recorded(tcp.get(), zq_socket_bind(tcp.get(), "host", 0)), 202u);
    EXPECT_LOG(other_family, other_family);
    EXPECT_EQ(last_hints.ai_flags, AI_NUMERICHOST);
    fake_host = "";

    zq_socket_enable_wakeup(tcp.get());
    auto bind = [&] { return recorded(tcp.get(), zq_socket_bind(tcp.get(), "127.0.0.1", 0)); };
    auto listen = [&] { return recorded(tcp.get(), zq_socket_listen(tcp.get(), 10)); };
    auto get_port = [&] {
        return recorded(tcp.get(), zq_socket_get_local_port(tcp.get(), &number));
    };
    expect_each(bind, "bind", {}, {202, "7 bind() returned error %"});
    expect_each(listen, "listen", {}, {202, "7 listen() returned error %"});
    expect_each(get_port, "getsockname", {}, {202, "7 getsockname() returned error %"});

    zqsocket *listener = udp.get();
    auto accept = [&listener] {
        zqsocket *accepted = listener;
        const zqerror error = zq_socket_accept(listener, &accepted);
        EXPECT_EQ(accepted, nullptr);
        return recorded(listener, error);
    };
    expect(accept, 202, {"7 accept() returned error 95"});
    listener = tcp.get();
    expect(accept, 22, {});
    zq_socket_bind(listener, "127.0.0.1", 0);
    zq_socket_listen(listener, 10);
    expect(accept, 11, {});
    zq_socket_get_local_port(listener, &number);
    ASSERT_NE(number, 0u);
    zqerror error;
    Socket client(zq_socket_tcp_connect("127.0.0.1", number, &error));
    zq_socket_poll_read(listener, client ? 5 : 0, 0);
    expect_each(accept, "accept", {{EINVAL, {22, ""}}, {EAGAIN, {11, ""}}},
                {202, "7 accept() returned error %"});
    expect(accept, 202,
           {"7 fcntl() returned error -1",
            "7 unable to set the connection socket to non-blocking mode"},
           "fcntl", {EBADF});
}

// ---- connect ----

TEST_F(net_zqsocket, tries_every_address_of_a_host)
{
    Port answering("127.0.0.2");
    const uint32_t number = answering.listening().number();
    Port refusing("127.0.0.1", number);
    const std::string failed = "7 failed to connect host tcp port " + std::to_string(number) +
                               ", error 200 (cannot connect)";
    auto connect_to = [number](const char *addresses) {
        return [=] {
            fake_host = addresses;
            zqerror error = 77;
            Socket made(zq_socket_tcp_connect_with_timeout("host", number, 5, 0, &error));
            EXPECT_EQ(made == nullptr, error != 0);
            return error;
        };
    };
    expect(connect_to("127.0.0.1 127.0.0.2"), 0, {in_progress, refused, in_progress, connected});
    expect(connect_to("::1 ::1 127.0.0.2"), 0,
           {"7 socket() call failed, error 97", not_initialized, no_tcp + " for IPv6", in_progress,
            connected},
           "socket", {EAFNOSUPPORT});
    // The second socket fails, so the address that would answer is passed over.
    expect(connect_to("127.0.0.1 127.0.0.1 127.0.0.2"), 111,
           {in_progress, refused, "7 socket() call failed, error 24", no_tcp + " for IPv4",
            next_returned(111)},
           "socket", {PASS, EMFILE});
    expect(connect_to("127.0.0.1 127.0.0.2"), 101,
           {"7 connect() returned network unreachable", refused, next_returned(101)}, "connect",
           {ENETUNREACH, ECONNREFUSED});
    expect(connect_to("unix 127.0.0.2"), 0, {other_family, in_progress, connected});
    expect(connect_to("unknown"), 200,
           {"7 getaddrinfo() returned error -2 (Name or service not known)", next_returned(200),
            failed});
    expect(connect_to("127.0.0.2"), 201,
           {in_progress, polling_for("7 polling for connecting", 201)}, "poll", {NOTHING});
    EXPECT_EQ(last_poll_timeout, 5000);
    EXPECT_EQ(std::tuple(last_hints.ai_flags, last_hints.ai_family, last_hints.ai_socktype),
              std::tuple(AI_ADDRCONFIG | AI_V4MAPPED, AF_UNSPEC, SOCK_STREAM));
}

TEST_F(net_zqsocket, reports_port_0_over_ipv6)
{
    Port ipv6("::1");
    if (ipv6.number() == 0)
        GTEST_SKIP() << "no IPv6";
    zqerror error = 77;
    Socket made(zq_socket_tcp_connect("::1", ipv6.listening().number(), &error));
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(zq_socket_write(made.get(), "hello", 5), 5u);
    EXPECT_EQ(receive_text(ipv6.accept()), "hello");
    uint32_t number = 77;
    EXPECT_EQ(zq_socket_get_local_port(made.get(), &number), 0u);
    EXPECT_EQ(number, 0u);
}

TEST_F(net_zqsocket, goes_on_with_a_connect_until_it_is_decided)
{
    Port answering("127.0.0.2");
    const uint32_t number = answering.listening().number();
    Port refusing("127.0.0.1", number);
    auto begin = [&] { return recorded(sock, zq_socket_connect_async(sock, "host", number)); };
    auto wait = [this] { return zq_socket_connect_wait(sock, -1, 0); };
    auto wait_no_time = [this] { return zq_socket_connect_wait(sock, 0, 0); };
    const std::string polling = "7 polling for connecting";
    const std::string invalid = "6 invalid call, no connect context present";
    begin();
    fake_host = "127.0.0.1 127.0.0.2";
    expect(begin, 0, {connected}, "connect", {NOTHING}); // some systems know at once
    expect(begin, 115, {in_progress}); // another attempt may replace one in progress
    expect(wait_no_time, 201, {polling_for(polling, 201)}, "poll", {NOTHING});
    // The refusal is known at once, and with it the time is over.
    expect(wait_no_time, 201, {refused, in_progress, "13 connect timeout occurred"});
    expect(wait, 0, {connected});
    expect(wait, 212, {invalid});
    expect(begin, 115, {in_progress});
    expect(wait, 4, {polling_for(polling, 4)}, "poll", {EINTR});
    expect(wait, 212, {invalid});
    auto begin_and_wait = [&] {
        begin();
        const zqerror error = wait();
        EXPECT_EQ(zq_socket_get_error(sock), 115u); // the waits leave it alone
        return error;
    };
    expect_each(begin_and_wait, "getsockopt", {}, {202, "7 getsockopt() failed, error %"},
                [](zqerror, const std::string &line) {
                    return Lines{in_progress, line};
                });
    EXPECT_EQ(recorded(sock, zq_socket_connect(sock, "host", number)), 0u);
}

// ---- wait ----

TEST_F(net_zqsocket, reads_within_the_time_it_is_given)
{
    const std::string polling = "13 polling read for a";
    EXPECT_EQ(read_text(0, 20000), " 201");
    EXPECT_LE(last_poll_timeout, 20);
    plans["poll"] = {EINTR};
    EXPECT_EQ(read_text(5), " 4");
    EXPECT_GT(last_poll_timeout, 4000);
    EXPECT_LOG(would_block, polling_for(polling, 201), would_block, polling_for(polling, 4));
    {
        FakeClock clock;
        clock.advance_with_each_read(600000); // over between the call and the wait
        EXPECT_EQ(read_text(1), " 201");
        EXPECT_LOG(would_block);
    }
    ASSERT_TRUE(send_text(remote, "abc"));
    remote.reset();
    ASSERT_EQ(zq_socket_poll_read(sock, 5, 0), 0u);
    EXPECT_EQ(read_text(0), " 201"); // though there is something to read
    for (const char *result : {"ab 0", "c 0", " 204"})
        EXPECT_EQ(read_text(5), result);
    EXPECT_LOG();
}

TEST_F(net_zqsocket, rounds_waits_up_to_milliseconds)
{
    using Wait = std::tuple<int32_t, uint32_t, int>;
    for (const auto &[seconds, microseconds, milliseconds] :
         {Wait(0, 0, 0), Wait(0, 1, 1), Wait(0, 1000, 1), Wait(1, 500001, 1501), Wait(-7, 5, -1),
          Wait(INT32_MAX, 999999, INT_MAX)}) {
        for (auto poll_call : {zq_socket_poll_read, zq_socket_poll_write}) {
            plans["poll"] = {NOTHING};
            EXPECT_EQ(recorded(sock, poll_call(sock, seconds, microseconds)), 201u);
            EXPECT_EQ(last_poll_timeout, milliseconds);
        }
    }
}

// ---- wake up ----

TEST_F(net_zqsocket, wakes_one_wait_for_each_call)
{
    auto enable = [this] { return zq_socket_enable_wakeup(sock); };
    auto wake = [this] { return recorded(sock, zq_socket_wakeup(sock)); };
    auto wait = [this] { return recorded(sock, zq_socket_poll_read(sock, -1, 0)); };
    const size_t open = open_descriptors();
    expect(wake, 203,
           {"6 waking up this socket is not enabled", // and yet not 205
            "7 unable to write to the wakeup pipe, error 9"});
    expect_each(enable, "pipe", {}, {202, "7 pipe() returned error %"});
    EXPECT_EQ(enable(), 0u);
    EXPECT_EQ(zq_socket_get_error(sock), 203u); // enabling leaves it alone
    expect(enable, 0, {});
    expect(wake, 0, {});
    expect(wake, 0, {});
    expect(wait, 213, {});
    expect([this] { return read_text(-1); }, " 213",
           {would_block, polling_for("13 polling read for a", 213)});
    EXPECT_EQ(zq_socket_poll_read(sock, 0, 0), 201u);
    // Data goes first; the wake-up waits for the next poll.
    ASSERT_TRUE(send_text(remote, "ab"));
    expect(wait, 0, {});
    expect(wake, 0, {});
    expect(wait, 0, {});
    EXPECT_EQ(read_text(-1), "ab 0");
    EXPECT_EQ(zq_socket_poll_write(sock, 5, 0), 0u); // never sees it
    expect_each(wake, "write", {}, {203, "7 unable to write to the wakeup pipe, error %"});
    expect_each(wait, "read", {}, {213, "8 wakeup pipe read failed, error %"});
    // A waking thread never waits for room in the pipe, which outlives the socket.
    while (wake() == 0) {
    }
    EXPECT_LOG("7 unable to write to the wakeup pipe, error 11");
    local.reset();
    EXPECT_EQ(open_descriptors(), open - 1 + 2);
}

// ---- misuse ----

#define MISUSE(function, expression, ...)                                                          \
    EXPECT_MISUSE(function(__VA_ARGS__), "net/zqsocket", #function, expression)

TEST_F(net_zqsocket, stops_on_misuse)
{
    zqerror error = 0;
    char buffer[1];
    MISUSE(zq_socket_wakeup, "zqsocket != NULL", nullptr);
    MISUSE(zq_socket_tcp_connect, "port > 0", "a", 0, &error);
    MISUSE(zq_socket_tcp_connect, "zqerrorptr != NULL", "a", 1, nullptr);
    MISUSE(zq_socket_bind, "port < 65536", sock, "127.0.0.1", 65536);
    MISUSE(zq_socket_connect_wait, "timeoutsecs >= -1", sock, -2, 0);
    MISUSE(zq_socket_poll_read, "timeoutusecs < 1000000", sock, 0, 1000000);
    MISUSE(zq_socket_accept, "connectionsocketptr != NULL", sock, nullptr);
    MISUSE(zq_socket_read, "maxlen > 0", sock, buffer, 0);
}
