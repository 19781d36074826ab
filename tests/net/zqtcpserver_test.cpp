#include "zq/net/zqtcpserver.h"

#include <algorithm>
#include <filesystem>

#include "tests/net/libc_faults.h"
#include "tests/net/tcp_server.h"
#include "tests/support/faults.h"
#include "tests/support/thread_faults.h"

static size_t count_threads()
{
    auto tasks = std::filesystem::directory_iterator("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

static std::set<int> pipes()
{
    std::set<int> found;
    struct stat status;
    for (int fd = 0; fd < 1000; fd++) {
        if (fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode))
            found.insert(fd);
    }
    return found;
}

static void close_new_pipes(const std::set<int> &before)
{
    for (const int fd : pipes()) {
        if (!before.contains(fd))
            close(fd);
    }
}

// ---- serving ----

TEST(zqtcpserver, serves_each_connection_in_a_thread)
{
    LogCapture log;
    World world;
    world.gate_open = false;
    Server server(&world);
    ASSERT_TRUE(server.is_running());
    std::vector<Fd> clients;
    for (int i = 0; i < 5; i++) {
        clients.push_back(connect_to(server.port()));
        send_text(clients.back(), std::to_string(i));
    }
    // All are answered while none of the callbacks has returned.
    for (size_t i = 0; i < clients.size(); i++)
        EXPECT_EQ(receive_text(clients[i]), std::to_string(i) + std::to_string(i));
    EXPECT_EQ(world.served, 0);
    world.gate_open = true;
    for (const Fd &client : clients)
        EXPECT_EQ(receive_text(client), "") << "closed when the callback is done";
    server.end();
    EXPECT_EQ(world.served, 5);
    EXPECT_EQ(log.take(),
              (Lines{{10, "waking up the accept thread"}, {9, "wakeup from accept requested"}}));
}

TEST(zqtcpserver, threads_of_short_connections_do_not_pile_up)
{
    LogCapture log;
    World world;
    size_t descriptors = open_descriptors();
    size_t threads = count_threads(), most = 0;
    int connections = faults_injected() ? 10 : 300;
    {
        Server server(&world);
        ASSERT_TRUE(server.is_running());
        uint32_t port = server.port();
        for (int i = 0; i < connections; i++) {
            EXPECT_EQ(ask(port, "ab"), "abab");
            most = std::max(most, count_threads());
        }
    }
    EXPECT_EQ(world.served, connections);
    EXPECT_LT(most, threads + 20);
    for (int i = 0; i < 1000 && count_threads() > threads; i++)
        usleep(1000); // the system forgets a joined thread a moment later
    EXPECT_EQ(count_threads(), threads);
    EXPECT_EQ(open_descriptors(), descriptors + 2) << "the wakeup pipe stays open, nothing else";
}

// ---- stopping ----

TEST(zqtcpserver, stop_before_the_start)
{
    LogCapture log;
    Owned<zqtcpserver, zq_tcpserver_destroy> stopped(zq_tcpserver_create());
    ASSERT_TRUE(stopped);
    zq_tcpserver_stop(stopped.get());
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(zq_tcpserver_run(stopped.get()), 0u);
}

TEST(zqtcpserver, wait_returns_after_the_last_callback)
{
    World world;
    world.gate_open = false;
    Server server(&world);
    ASSERT_TRUE(server.is_running());
    Fd clients[] = {connect_to(server.port()), connect_to(server.port())};
    for (const Fd &client : clients) {
        send_text(client, "x");
        receive_text(client); // a reply, or the end when the connection could not be served
    }
    zq_tcpserver_stop(server.get());
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        server.end();
        returned = true;
    });
    if (!faults_injected()) {
        usleep(20000);
        EXPECT_FALSE(returned);
    }
    world.gate_open = true;
    waiter.join();
    EXPECT_EQ(world.served, 2);
}

TEST(zqtcpserver, a_connection_accepted_after_the_stop_is_closed)
{
    LogCapture log;
    World world;
    Server server(&world);
    ASSERT_TRUE(server.is_running());
    const uint32_t port = server.port();
    {
        auto stop = [&server](const SystemCall &call) {
            if (call.name == "accept")
                zq_tcpserver_stop(server.get());
            return PASS;
        };
        SystemCalls calls(stop, SystemCalls::PROCESS);
        EXPECT_EQ(ask(port, "x"), "");
        server.wait();
    }
    EXPECT_EQ(world.served, 0);
    EXPECT_NE(joined(log.take()).find("[8] shutting down, closing the handle just accepted"),
              std::string::npos);
}

static void serve_and_stop(zqtcpserver *server, zqhandle *, void *)
{
    zq_tcpserver_stop(server);
}

TEST(zqtcpserver, a_callback_may_stop_its_server)
{
    Server server(nullptr, serve_and_stop);
    ASSERT_TRUE(server.is_running());
    ask(server.port(), "x");
    server.wait();
}

// Whoever made wait return is done with the server, which is then destroyed at once.
TEST(zqtcpserver, stop_from_another_thread_races_with_run_and_destroy)
{
    World world;
    for (int i = 0; i < 30; i++) {
        zqtcpserver *server = zq_tcpserver_create();
        ASSERT_TRUE(server);
        zq_tcpserver_set_callback(server, serve, &world);
        std::thread stopper([server, i] {
            usleep(static_cast<useconds_t>(i * 10));
            zq_tcpserver_stop(server);
        });
        if (zq_tcpserver_run(server) != ZQ_ERROR_NONE)
            stopper.join(); // nobody waited for its stop
        zq_tcpserver_destroy(server);
        if (stopper.joinable())
            stopper.join();
    }
}

// ---- failures ----

TEST(zqtcpserver, start_failures)
{
    LogCapture log;
    World world;
    Server server(&world);
    ASSERT_TRUE(server.is_running());
    EXPECT_EQ(zq_tcpserver_start(server.get()), 206u);
    EXPECT_EQ(log.take(), (Lines{{7, "the TCP server is already listening to connections"}}));

    const std::string cannot_listen =
        "[7] unable to start listening to incoming TCP connections, error 202 (generic error)";
    Owned<zqtcpserver, zq_tcpserver_destroy> other(zq_tcpserver_create());
    ASSERT_TRUE(other);
    zq_tcpserver_set_callback(other.get(), serve, &world);
    zq_tcpserver_set_port(other.get(), server.port());
    ASSERT_EQ(zq_tcpserver_set_address(other.get(), "127.0.0.1"), 0u);
    EXPECT_EQ(zq_tcpserver_run(other.get()), 202u) << "the port is in use";
    EXPECT_TRUE(
        joined(log.take()).ends_with(cannot_listen + "; [7] unable to start the TCP server"));
    ASSERT_EQ(zq_tcpserver_set_address(other.get(), "no address"), 0u);
    EXPECT_EQ(zq_tcpserver_start(other.get()), 202u);
    EXPECT_TRUE(joined(log.take()).ends_with(cannot_listen));
}

namespace {
// A server that is about to start, and what its one client receives.
struct Prepared {
    Prepared()
    {
        recv_waits = true;
        zq_tcpserver_set_callback(server.get(), serve, &world);
        zq_tcpserver_set_address(server.get(), "127.0.0.1");
    }
    ~Prepared()
    {
        recv_waits = false;
        server.reset();
        close_new_pipes(before); // those of wakeups outlive their sockets
    }

    const std::set<int> before = pipes();
    World world;
    Owned<zqtcpserver, zq_tcpserver_destroy> server{zq_tcpserver_create()};
    std::string reply;
};
} // namespace

static zqerror serve_one_client(Prepared &prepared)
{
    zqtcpserver *server = prepared.server.get();
    const zqerror error = zq_tcpserver_start(server);
    if (error != ZQ_ERROR_NONE)
        return error;
    uint32_t port = 0;
    if (zq_tcpserver_get_port(server, &port) != ZQ_ERROR_NONE) {
        EXPECT_EQ(port, 0u);
        EXPECT_EQ(zq_tcpserver_get_port(server, &port), ZQ_ERROR_NONE + 0u);
    }
    {
        IgnoredCalls ignored;
        prepared.reply = ask(port, "ab");
    }
    zq_tcpserver_stop(server);
    zq_tcpserver_wait(server);
    return ZQ_ERROR_NONE;
}

// The server does not start, or the client is not served, or nobody sees it. What is left out is
// the wakeup, since a stop that the accepting thread does not hear of never ends it, and the calls
// of threads and locks whose success is asserted.
TEST(zqtcpserver, calls_of_the_system_may_fail_anywhere)
{
    const size_t threads = count_threads();
    auto check = [&](Prepared &prepared, const SystemFault &fault, zqerror result,
                     const Lines &lines) {
        const std::string &name = fault.call.name;
        const size_t nth = fault.call.nth;
        const std::set<std::string> listening = {"socket", "getaddrinfo", "bind", "pipe", "listen"};
        const bool listens = !listening.contains(name) && !(name == "fcntl" && nth < 3);
        const bool starts = listens && !(name == "pthread_create" && nth == 1);
        EXPECT_EQ(result, starts ? 0u : listens ? 12u : 202u);
        EXPECT_EQ(joined(lines).find("unable to start listening to incoming TCP connections, error "
                                     "202 (generic error)") == std::string::npos,
                  listens);
        // Behind those of the listener, which are 3 and 4 for its pipe.
        const bool closed = name == "pthread_create" ||
                            (name == "fcntl" && (nth == 8 || nth == 9)) ||
                            (name == "send" && fault.outcome != EAGAIN && fault.outcome > 0);
        if (starts) {
            EXPECT_EQ(prepared.reply, closed ? "" : "abab");
        }
        for (int i = 0; i < 1000 && count_threads() > threads; i++)
            usleep(1000); // the system forgets a joined thread a moment later
        EXPECT_EQ(count_threads(), threads);
    };
    walk_system_faults<Prepared>(serve_one_client, check,
                                 {.scope = SystemCalls::PROCESS,
                                  .lasting = false, // it tries for ever
                                  .left_out = {"write", "pthread_join", "pthread_mutex_init",
                                               "pthread_mutex_lock", "pthread_mutex_unlock"}});
}

TEST(zqtcpserver, lines_without_memory)
{
    if (!faults_injected()) {
        expect_lines_without_memory(
            "zqtcpserver.lines_without_memory",
            {"[7] not enough memory for the zqtcpserver context",
             "[7] unable to create the tcpserver connection mutex",
             "[7] unable to create the tcpserver connection list",
             "[7] unable to create the tcpserver finished list",
             "[7] not enough memory for the listen address '127.0.0.1'",
             "[7] not enough memory for thread context; [7] unable to create the accept thread",
             "[7] unable to start the accept thread",
             "[7] not enough memory for tcpserver connection structure",
             "[7] not enough memory for thread context; "
             "[7] unable to create a thread for handling the connection"});
        return;
    }
    FaultLines lines(7);
    World world;
    zqtcpserver *server = zq_tcpserver_create();
    lines.step();
    ASSERT_TRUE(server);
    Owned<zqtcpserver, zq_tcpserver_destroy> owner(server);
    zq_tcpserver_set_callback(server, serve, &world);
    while (zq_tcpserver_set_address(server, "127.0.0.1") != ZQ_ERROR_NONE) {
    }
    lines.step();
    ASSERT_EQ(zq_tcpserver_start(server), 0u);
    lines.step();
    uint32_t port = 0;
    if (zq_tcpserver_get_port(server, &port) == ZQ_ERROR_NONE)
        ask(port, "x");
    zq_tcpserver_stop(server);
    zq_tcpserver_wait(server);
}

#define MISUSE(function, expression, ...)                                                          \
    EXPECT_MISUSE(function(__VA_ARGS__), "net/zqtcpserver", #function, expression)

TEST(zqtcpserver, misuse)
{
    uint32_t port;
    Owned<zqtcpserver, zq_tcpserver_destroy> server(zq_tcpserver_create());
    ASSERT_TRUE(server);
    MISUSE(zq_tcpserver_set_port, "port <= 65535", server.get(), 65536);
    MISUSE(zq_tcpserver_set_address, "address != NULL", server.get(), nullptr);
    MISUSE(zq_tcpserver_get_port, "portptr != NULL", server.get(), nullptr);
    MISUSE(zq_tcpserver_destroy, "zqtcpserver != NULL", nullptr);
    MISUSE(zq_tcpserver_set_address, "zqtcpserver != NULL", nullptr, "");
    MISUSE(zq_tcpserver_set_port, "zqtcpserver != NULL", nullptr, 1);
    MISUSE(zq_tcpserver_set_callback, "zqtcpserver != NULL", nullptr, serve, nullptr);
    MISUSE(zq_tcpserver_start, "zqtcpserver != NULL", nullptr);
    MISUSE(zq_tcpserver_run, "zqtcpserver != NULL", nullptr);
    MISUSE(zq_tcpserver_stop, "zqtcpserver != NULL", nullptr);
    MISUSE(zq_tcpserver_wait, "zqtcpserver != NULL", nullptr);
    MISUSE(zq_tcpserver_get_port, "zqtcpserver != NULL", nullptr, &port);
}
