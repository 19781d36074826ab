#ifndef TESTS_NET_TCP_SERVER_H
#define TESTS_NET_TCP_SERVER_H

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "tests/net/loopback.h"
#include "tests/support/expect.h"
#include "zq/net/zqtcpserver.h"

// What the callbacks of one server share.
struct World {
    std::atomic<int> served{0};
    std::atomic<bool> gate_open{true};
};

// Returns to the client what it sends first, doubled; then waits at the gate.
inline void serve(zqtcpserver *server, zqhandle *handle, void *context)
{
    auto *world = static_cast<World *>(context);
    EXPECT_NE(server, nullptr);
    char buf[64];
    zq_handle_set_read_timeout(handle, 10, 0);
    size_t count = zq_handle_read(handle, buf, sizeof(buf));
    std::string reply = std::string(buf, count) + std::string(buf, count);
    if (count > 0)
        zq_handle_write(handle, reply.data(), reply.size());
    while (!world->gate_open)
        std::this_thread::yield();
    world->served++;
}

// A server on a loopback port, ended and destroyed with this object.
class Server {
  public:
    explicit Server(World *world, zq_tcpserver_callback callback = serve)
        : server(zq_tcpserver_create())
    {
        if (!server)
            return;
        zq_tcpserver_set_callback(server, callback, world);
        running = zq_tcpserver_set_address(server, "127.0.0.1") == ZQ_ERROR_NONE &&
                  zq_tcpserver_start(server) == ZQ_ERROR_NONE;
    }
    ~Server()
    {
        end();
        if (server)
            zq_tcpserver_destroy(server);
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    void end()
    {
        if (!running)
            return;
        zq_tcpserver_stop(server);
        zq_tcpserver_wait(server);
        running = false;
    }
    // For a server that something else stops, unless memory runs out on the way there.
    void wait()
    {
        if (faults_injected())
            zq_tcpserver_stop(server);
        zq_tcpserver_wait(server);
        running = false;
    }
    zqtcpserver *get() const { return server; }
    bool is_running() const { return running; }
    uint32_t port() const
    {
        uint32_t port = 0;
        EXPECT_EQ(zq_tcpserver_get_port(server, &port), 0u);
        return port;
    }

  private:
    zqtcpserver *server;
    bool running = false;
};

#endif
