// A 64 MiB download over loopback: to a callback, into memory, and by curl, whose own rate is the
// one to compare with, since the time here includes the start of its process.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "zq/net/zqhttp_lite.h"

static constexpr size_t body_size = 64 << 20;

// Answers every request on a loopback port with the body.
class Server {
  public:
    Server()
    {
        sockaddr_in address = {};
        sockaddr *plain = reinterpret_cast<sockaddr *>(&address);
        socklen_t size = sizeof(address);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener, plain, size);
        getsockname(listener, plain, &size);
        listen(listener, 1);
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
        thread = std::thread([this] { serve(); });
    }
    ~Server()
    {
        shutdown(listener, SHUT_RDWR);
        thread.join();
        close(listener);
    }

    std::string url;

  private:
    void serve()
    {
        const std::string reply =
            "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(body_size) + "\r\n\r\n" +
            std::string(body_size, 'x');
        for (int peer; (peer = accept(listener, nullptr, nullptr)) >= 0; close(peer)) {
            char request[4096];
            recv(peer, request, sizeof(request), 0);
            for (size_t sent = 0; sent < reply.size();) {
                const ssize_t count =
                    send(peer, reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
                if (count < 0)
                    break;
                sent += static_cast<size_t>(count);
            }
            shutdown(peer, SHUT_WR);
            while (recv(peer, request, sizeof(request), 0) > 0) {
            }
        }
    }

    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::thread thread;
};

static void download(benchmark::State &state, zq_http_response_body_callback callback)
{
    Server server;
    zqhttp *http = zq_http_lite_create();
    zq_http_set_response_body_callback(http, callback, nullptr);
    for (auto _ : state) {
        if (zq_http_set_url(http, server.url.c_str()) != ZQ_ERROR_NONE ||
            zq_http_perform(http) != ZQ_ERROR_NONE)
            state.SkipWithError("the download failed");
    }
    zq_http_destroy(http);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(body_size));
}

static void download_to_callback(benchmark::State &state)
{
    download(state, [](const void *, size_t, void *) -> zqerror { return ZQ_ERROR_NONE; });
}

static void download_to_memory(benchmark::State &state)
{
    download(state, nullptr);
}

static void download_by_curl(benchmark::State &state)
{
    Server server;
    const std::string command = "curl -s -o /dev/null " + server.url;
    for (auto _ : state) {
        if (system(command.c_str()) != 0)
            state.SkipWithError("curl failed");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(body_size));
}

BENCHMARK(download_to_callback)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(download_to_memory)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(download_by_curl)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
