// zqserve under short connections, counted one by one, and under wrk with 256 kept ones.
#include <algorithm>
#include <fstream>
#include <sstream>

#include "soak/support/soak.h"
#include "tests/net/loopback.h"
#include "tests/support/zqserve.h"

static const std::string content(1000, 'x');

static bool short_connection(uint32_t port)
{
    const Fd client = connect_to(port);
    // The server closes first; the reset that follows leaves no connection behind that waits out
    // its time, of which there would be too many.
    reset_at_close(client);
    const std::string answer = ask(client, "GET /short.txt HTTP/1.1\r\nConnection: close\r\n\r\n");
    return answer.starts_with("HTTP/1.1 200 OK\r\n") && answer.ends_with("\r\n\r\n" + content);
}

static long lines_with(const std::string &text, const std::string &part)
{
    long count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
        count++;
    return count;
}

// What wrk reports: each socket error and each status other than 2xx and 3xx is wrong. Its timeouts
// are not counted: its connections come at once to a backlog of 10, and those that the system turns
// away are late by the system's repetitions, the more the busier the machine. A request that the
// server itself never answers shows as a thread that stays.
static Tally wrk(const std::string &url, long seconds)
{
    const Outcome outcome = run({"wrk", "-t2", "-c256", "-d" + std::to_string(seconds) + "s", url});
    Tally tally;
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);) {
        long errors[4] = {};
        sscanf(line.c_str(), " %ld requests in", &tally.count);
        sscanf(line.c_str(), " Socket errors: connect %ld, read %ld, write %ld", &errors[0],
               &errors[1], &errors[2]);
        sscanf(line.c_str(), " Non-2xx or 3xx responses: %ld", &errors[3]);
        for (long count : errors)
            tally.wrong += count;
    }
    if (outcome.status != 0 || tally.wrong != 0)
        fprintf(stderr, "wrk: status %d\n%s%s", outcome.status, outcome.out.c_str(),
                outcome.err.c_str());
    return tally;
}

int main(int argc, char **argv)
{
    Soak soak("zqserve", argc, argv);
    Zqserve server;
    for (const char *name : {"/short.txt", "/kept.txt"})
        std::ofstream(server.www() + name) << content;
    const uint32_t port = server.port();
    const Usage idle = usage_of(server.pid());

    const long count = soak.scaled(200000, 10);
    long all = 0;
    soak.row(
        "short connections, 8 at a time", count / 10, count,
        [&](long amount) {
            Tally tally = repeat(amount, 8, [&](long) { return short_connection(port); });
            // The server has counted them too.
            all += amount;
            tally.wrong +=
                std::abs(lines_with(server.access_log(), "GET /short.txt 200 1000") - all);
            return tally;
        },
        server.pid());

    const long seconds = soak.scaled(60);
    soak.row(
        "seconds of wrk, 256 connections", std::max(seconds / 10, 2L), seconds,
        [&](long amount) {
            Tally tally = wrk(server.url() + "/kept.txt", amount);
            // The next connection makes the server join the threads that have ended.
            settled_usage(server.pid(), idle);
            tally.wrong += short_connection(port) ? 0 : 1;
            return tally;
        },
        server.pid());
    return soak.status();
}
