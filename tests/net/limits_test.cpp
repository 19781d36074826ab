// What servers and pools do when descriptors, threads or address space really run out, and that
// they go on when they are there again.

#include <algorithm>
#include <fcntl.h>

#include "tests/net/tcp_server.h"
#include "tests/support/limit.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "zq/util/zqlog.h"
#include "zq/util/zqthreadpool.h"

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

// A client connects, and a server tries to accept it and cannot.
static Fd connect_in_vain(uint32_t port, LogCapture *log)
{
    log->take();
    Fd client = connect_to(port);
    Lines lines;
    for (int tries = 0; tries < 10000 && lines.size() < 4; tries++) {
        usleep(1000);
        for (const LogLine &line : log->take())
            lines.push_back(line);
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

TEST(limits, servers_and_pools_go_on_when_they_have_room_for_stacks_again)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers need all of the address space";
#endif
    in_child([] {
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
