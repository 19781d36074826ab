// zqserve with clients that vanish, reset, stall or trickle, many at once: it lets go of each in
// time, and serves others meanwhile. A client that vanishes without a word is one that stalls.
#include <filesystem>
#include <vector>

#include "soak/support/soak.h"
#include "tests/net/loopback.h"
#include "tests/support/zqserve.h"

namespace {

enum Ending { CLOSE, RESET, STALL, TRICKLE };

struct Behaviour {
    const char *name;
    const char *request;
    Ending ending;
    double limit; // seconds until zqserve closes
};

class BadClients {
  public:
    BadClients() : idle_threads(usage_of(server.pid()).threads)
    {
        server_file("index.html", 1000);
        server_file("large", 32 << 20); // more than fits into the buffers of a connection
    }
    pid_t pid() const { return server.pid(); }

    Tally run(const Behaviour &behaviour, long count)
    {
        Tally tally;
        std::vector<Fd> clients;
        for (long i = 0; i < count; i++) {
            clients.push_back(connect_to(server.port()));
            tally.wrong += send_text(clients.back(), behaviour.request) ? 0 : 1;
        }
        tally.count = count;
        const double begin = now();
        serve_other(tally);
        usleep(100000);
        if (behaviour.ending == RESET)
            std::for_each(clients.begin(), clients.end(), reset_at_close);
        if (behaviour.ending == RESET || behaviour.ending == CLOSE)
            clients.clear();
        wait(tally, behaviour, clients);
        const double took = now() - begin;
        serve_other(tally); // makes the server join the threads that have ended
        if (took < behaviour.limit - 0.5 || took > behaviour.limit + slack) {
            fprintf(stderr, "%s: over after %.1f s\n", behaviour.name, took);
            tally.wrong++;
        }
        return tally;
    }

  private:
    static constexpr double slack = 3;

    void server_file(const char *name, uintmax_t size)
    {
        const std::string path = server.www() + "/" + name;
        fclose(fopen(path.c_str(), "w"));
        std::filesystem::resize_file(path, size);
    }

    // Waits until the server serves none of them, serving others meanwhile.
    void wait(Tally &tally, const Behaviour &behaviour, const std::vector<Fd> &clients)
    {
        double next = now() + 1;
        const double end = now() + behaviour.limit + slack;
        while (usage_of(server.pid()).threads > idle_threads && now() < end) {
            serve_other(tally);
            usleep(10000);
            if (behaviour.ending == TRICKLE && now() > next) {
                for (const Fd &client : clients)
                    send_text(client, "x");
                next += 1;
            }
        }
    }

    void serve_other(Tally &tally)
    {
        const double begin = now();
        const std::string answer =
            ask(server.port(), "GET / HTTP/1.1\r\nConnection: close\r\n\r\n");
        const double took = now() - begin;
        tally.slowest = std::max(tally.slowest, took);
        if (!answer.starts_with("HTTP/1.1 200 OK\r\n") || took > slack) {
            fprintf(stderr, "another client: %zu bytes after %.1f s\n", answer.size(), took);
            tally.wrong++;
        }
    }

    Zqserve server;
    long idle_threads;
};

} // namespace

int main(int argc, char **argv)
{
    Soak soak("bad_clients", argc, argv);
    BadClients clients;
    // As the sources of zqserve have them: 5 seconds for a request to begin, 10 for each of its
    // lines, 30 for a client to take more of the answer.
    const Behaviour behaviours[] = {
        {"reset in the answer", "GET /large HTTP/1.1\r\n\r\n", RESET, 0},
        {"vanish in the answer", "GET /large HTTP/1.1\r\n\r\n", CLOSE, 0},
        {"reset in the request", "GET /lar", RESET, 0},
        {"vanish in the request", "GET /lar", CLOSE, 0},
        {"vanish when connected", "", CLOSE, 0},
        {"say nothing", "", STALL, 5},
        {"say no more after an answer", "HEAD / HTTP/1.1\r\n\r\n", STALL, 5},
        {"stall in the request line", "GET /", STALL, 10},
        {"stall in the headers", "GET / HTTP/1.1\r\nHo", STALL, 10},
        {"send a byte a second", "G", TRICKLE, 10},
        {"do not take the answer", "GET /large HTTP/1.1\r\n\r\n", STALL, 30}};
    const long count = soak.scaled(50, 5);
    for (const Behaviour &behaviour : behaviours)
        soak.row(
            std::string(behaviour.name) + ", over in " +
                std::to_string(static_cast<int>(behaviour.limit)) + " s",
            behaviour.limit > 0 ? 0 : count, count,
            [&](long amount) { return clients.run(behaviour, amount); }, clients.pid());
    return soak.status();
}
