// A round trip of a message over loopback: through a TCP handle, and with plain send() and recv()
// on a blocking socket, which is the least it can cost. The other end is the same for both.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "zq/net/zqhandle_tcp.h"

// Sends back what it receives, from a thread, on one connection.
class Echo {
  public:
    Echo()
    {
        sockaddr *plain = reinterpret_cast<sockaddr *>(&address);
        socklen_t size = sizeof(address);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener, plain, size);
        getsockname(listener, plain, &size);
        listen(listener, 1);
        thread = std::thread([this] { serve(); });
    }
    ~Echo()
    {
        thread.join();
        close(listener);
    }

    sockaddr_in address = {};

  private:
    void serve()
    {
        int connection = accept(listener, nullptr, nullptr);
        std::string buffer(1 << 16, '\0');
        ssize_t count;
        while ((count = recv(connection, buffer.data(), buffer.size(), 0)) > 0)
            send(connection, buffer.data(), static_cast<size_t>(count), MSG_NOSIGNAL);
        close(connection);
    }

    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::thread thread;
};

static void plain_round_trip(benchmark::State &state)
{
    Echo echo;
    int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    connect(sock, reinterpret_cast<sockaddr *>(&echo.address), sizeof(echo.address));
    std::string message(static_cast<size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        send(sock, message.data(), message.size(), MSG_NOSIGNAL);
        for (size_t got = 0; got < message.size();)
            got += static_cast<size_t>(recv(sock, message.data(), message.size() - got, 0));
    }
    close(sock);
}

static void handle_round_trip(benchmark::State &state)
{
    Echo echo;
    zqhandle *handle = zq_handle_tcp_connect("127.0.0.1", ntohs(echo.address.sin_port));
    zq_handle_set_read_timeout(handle, static_cast<int32_t>(state.range(1)), 0);
    std::string message(static_cast<size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        zq_handle_write(handle, message.data(), message.size());
        for (size_t got = 0; got < message.size();)
            got += zq_handle_read(handle, message.data(), message.size() - got);
    }
    zq_handle_destroy(handle);
}

static void handle_line_round_trip(benchmark::State &state)
{
    Echo echo;
    zqhandle *handle = zq_handle_tcp_connect("127.0.0.1", ntohs(echo.address.sin_port));
    zq_handle_set_read_timeout(handle, 10, 0);
    std::string message(static_cast<size_t>(state.range(0)), 'x');
    message.back() = '\n';
    for (auto _ : state) {
        zq_handle_write(handle, message.data(), message.size());
        zq_handle_read_line(handle, message.data(), message.size());
    }
    zq_handle_destroy(handle);
}

BENCHMARK(plain_round_trip)->Arg(64)->Arg(16384)->UseRealTime();
// The second argument is the read timeout in seconds, -1 for none.
BENCHMARK(handle_round_trip)->Args({64, -1})->Args({64, 10})->Args({16384, 10})->UseRealTime();
BENCHMARK(handle_line_round_trip)->Arg(64)->UseRealTime();

BENCHMARK_MAIN();
