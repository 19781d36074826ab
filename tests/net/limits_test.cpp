// What happens when descriptors, threads or address space really run out, and that all goes on when
// they are there again.

#include <algorithm>
#include <fcntl.h>
#include <functional>
#include <malloc.h>

#include "tests/net/tcp_server.h"
#include "tests/support/limit.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scripted_server.h"
#include "zq/net/zqhandle_tcp.h"
#include "zq/net/zqhttp_lite.h"
#include "zq/net/zqsocket.h"
#include "zq/util/zqlog.h"
#include "zq/util/zqthreadpool.h"

using Lines = std::vector<LogLine>;
using Handle = Owned<zqhandle, zq_handle_destroy>;
using Socket = Owned<zqsocket, zq_socket_destroy>;

// ---- limits ----

namespace {
// Leaves the process only so many descriptors.
class FewDescriptors {
  public:
    explicit FewDescriptors(size_t left) : limit(RLIMIT_NOFILE, 100)
    {
        for (int fd = 0; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
            taken.emplace_back(fd);
        EXPECT_GT(taken.size(), left);
        taken.resize(taken.size() - left);
    }

  private:
    Limit limit;
    std::vector<Fd> taken;
};
} // namespace

// ---- descriptors ----

static const Lines no_socket = {{7, "socket() call failed, error 24"},
                                {7, "unable to initialize socket"}};
static const LogLine no_tcp_socket = {7, "unable to create a TCP socket"};
static const LogLine no_pipe = {7, "pipe() returned error 24"};

static Lines operator+(Lines lines, const Lines &more)
{
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

static zqerror listen_anywhere()
{
    zqhandle *handle;
    const zqerror error = zq_handle_tcp_listen("127.0.0.1", 0, &handle);
    Handle owner(handle);
    return error;
}

static zqerror download(zqhttp *http, const ScriptedServer &server)
{
    const std::string url = "http://127.0.0.1:" + std::to_string(server.port()) + "/";
    EXPECT_EQ(zq_http_set_url(http, url.c_str()), 0u);
    return zq_http_perform(http);
}

TEST(limits, sockets_and_clients_without_descriptors)
{
    in_child([] {
        LogCapture log(7);
        Port peer;
        peer.listening();
        Socket socket(zq_socket_tcp_create());
        ScriptedServer server("HTTP/1.0 200 OK\r\n\r\n");
        Owned<zqhttp, zq_http_destroy> http(zq_http_lite_create());
        auto connect = [&] {
            zqerror error;
            Socket owner(zq_socket_tcp_connect("127.0.0.1", peer.number(), &error));
            return error;
        };
        const Lines no_listener = {no_pipe,
                                   {7, "unable to enable wakeup on the listen socket"},
                                   {7, "unable to start listening to incoming TCP connections, "
                                       "error 202 (generic error)"}};
        auto no_connection = [](uint32_t port) {
            return no_socket +
                   Lines{{7, "unable to create a TCP socket for IPv4"},
                         {7, "zq_socket_tcp_connect_next() returned 200 (cannot connect)"},
                         {7, "failed to connect 127.0.0.1 tcp port " + std::to_string(port) +
                                 ", error 200 (cannot connect)"}};
        };
        const struct {
            std::function<zqerror()> run;
            size_t left;
            zqerror error;
            Lines lines;
        } rows[] = {
            {[] { return Socket(zq_socket_tcp_create()) ? 0 : 202; }, 0, 202,
             no_socket + Lines{no_tcp_socket}},
            {connect, 0, 200, no_connection(peer.number())},
            {listen_anywhere, 0, 202, no_socket + Lines{no_tcp_socket, no_tcp_socket}},
            {listen_anywhere, 1, 202, no_listener},
            {listen_anywhere, 2, 202, no_listener},
            {[&] { return zq_socket_enable_wakeup(socket.get()); }, 1, 202, {no_pipe}},
            {[&] { return download(http.get(), server); }, 0, 200,
             no_connection(server.port()) +
                 Lines{{7, "connection failed, error 200 (cannot connect)"}}},
        };
        for (const auto &row : rows) {
            {
                FewDescriptors descriptors(row.left);
                EXPECT_EQ(row.run(), row.error);
                EXPECT_EQ(log.take(), row.lines);
            }
            EXPECT_EQ(row.run(), 0u);
        }
    });
}

// A client connects, and a server tries to accept it and cannot.
static Fd connect_in_vain(uint32_t port, LogCapture *log)
{
    log->take();
    Fd client = connect_to(port);
    Lines lines;
    for (int tries = 0; tries < 10000 && lines.size() < 4; tries++) {
        usleep(1000);
        lines = lines + log->take();
    }
    lines.resize(std::min<size_t>(lines.size(), 4)); // it tries again and again
    EXPECT_EQ(lines,
              (Lines{{7, "accept() returned error 24"},
                     {7, "socket accept returned 202 (generic error)"},
                     {7, "accepting an incoming connection failed, error 202 (generic error)"},
                     {7, "accept returned 202 (generic error)"}}));
    return client;
}

TEST(limits, a_server_goes_on_when_it_has_descriptors_again)
{
    in_child([] {
        LogCapture log(7);
        World world;
        Server server(&world);
        const uint32_t port = server.port();
        world.gate_open = false;
        Fd waiting;
        {
            FewDescriptors descriptors(5); // two for each of two connections
            Fd served[] = {connect_to(port), connect_to(port)};
            for (const Fd &client : served) {
                send_text(client, "a");
                EXPECT_EQ(receive_text(client), "aa");
            }
            waiting = connect_in_vain(port, &log);
            send_text(waiting, "b");
            world.gate_open = true;
            for (const Fd &client : served)
                EXPECT_EQ(receive_all(client), "");
            EXPECT_EQ(receive_all(waiting), "bb") << "the others have ended";
        }
        waiting.reset();
        {
            FewDescriptors descriptors(1);
            waiting = connect_in_vain(port, &log);
            send_text(waiting, "c");
        }
        EXPECT_EQ(receive_all(waiting), "cc") << "the limit is gone";
        waiting.reset();

        FewDescriptors descriptors(1);
        waiting = connect_in_vain(port, &log);
        server.end(); // a server that cannot accept can be stopped
        EXPECT_EQ(world.served, 4);
    });
}

// ---- threads ----

static const LogLine no_thread = {7, "pthread_create() returned error 11"};
static const Lines not_served = {no_thread,
                                 {7, "unable to start a thread for handling the connection"}};

static zqerror run_pool(uint32_t threads)
{
    Owned<zqthreadpool_params, zq_threadpool_params_destroy> params(
        zq_threadpool_params_create_defaults());
    zq_threadpool_params_set_num_threads(params.get(), threads);
    zqerror error;
    Owned<zqthreadpool, zq_threadpool_destroy> pool(zq_threadpool_create(params.get(), &error));
    return error;
}

TEST(limits, servers_and_pools_go_on_when_they_have_threads_again)
{
    in_child([] {
        // The number of threads is the user's, and root's is not limited.
        if (geteuid() == 0 && setuid(65534) != 0)
            GTEST_SKIP() << "root cannot become another user here";
        LogCapture log(7);
        World world;
        Server server(&world);
        Owned<zqtcpserver, zq_tcpserver_destroy> other(zq_tcpserver_create());
        {
            Limit threads(RLIMIT_NPROC, 1);
            EXPECT_EQ(ask(server.port(), "a"), "") << "closed, but not served";
            EXPECT_EQ(log.take(), not_served);
            EXPECT_EQ(zq_tcpserver_start(other.get()), 12u);
            EXPECT_EQ(log.take(), (Lines{no_thread, {7, "unable to start the accept thread"}}));
            EXPECT_EQ(run_pool(2), 202u);
            EXPECT_EQ(log.take(), (Lines{no_thread, {7, "failed to start thread 0"}}));
        }
        EXPECT_EQ(ask(server.port(), "b"), "bb");
        EXPECT_EQ(zq_tcpserver_start(other.get()), 0u);
        zq_tcpserver_stop(other.get());
        zq_tcpserver_wait(other.get());
        EXPECT_EQ(run_pool(2), 0u);
    });
}

// ---- address space ----

static void in_child_with_address_space(const std::function<void()> &body)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    (void)body;
    GTEST_SKIP() << "sanitizers need all of the address space";
#else
    in_child(body);
#endif
}

TEST(limits, servers_and_pools_go_on_when_they_have_room_for_stacks_again)
{
    in_child_with_address_space([] {
        LogCapture log(7);
        World world;
        Server server(&world);
        {
            Limit space(RLIMIT_AS, address_space(getpid()) + (1 << 20));
            EXPECT_EQ(ask(server.port(), "a"), "");
            EXPECT_EQ(log.take(), not_served);
        }
        EXPECT_EQ(ask(server.port(), "b"), "bb");
        {
            Limit space(RLIMIT_AS, address_space(getpid()) + (100 << 20));
            EXPECT_EQ(run_pool(200), 202u) << "after some of its threads";
            Lines lines = log.take();
            ASSERT_EQ(lines.size(), 2u);
            EXPECT_EQ(lines[0], no_thread);
            EXPECT_NE(lines[1].text, "failed to start thread 0");
        }
        EXPECT_EQ(run_pool(200), 0u);
    });
}

TEST(limits, http_bodies_that_memory_does_not_hold)
{
    in_child_with_address_space([] {
        // In one heap, where small blocks find room still when large ones, mapped, do not.
        mallopt(M_ARENA_MAX, 1);
        mallopt(M_MMAP_THRESHOLD, 128 << 10);
        LogCapture log(7);
        const size_t size = 8 << 20;
        const std::string reply = "HTTP/1.0 200 OK\r\n\r\n" + std::string(size, 'x');
        Owned<zqhttp, zq_http_destroy> http(zq_http_lite_create());
        {
            ScriptedServer server(reply);
            Limit space(RLIMIT_AS, address_space(getpid()) + size / 2);
            EXPECT_EQ(download(http.get(), server), 12u);
            const Lines lines = log.take();
            ASSERT_EQ(lines.size(), 2u);
            EXPECT_TRUE(lines[0].text.starts_with("not enough memory for response body ("));
            EXPECT_EQ(lines[1], (LogLine{7, "the write callback did not accept the data, error 12 "
                                            "(not enough memory)"}));
        }
        ScriptedServer server(reply);
        EXPECT_EQ(download(http.get(), server), 0u);
        EXPECT_EQ(log.take(), Lines{});
    });
}
