#ifndef TESTS_NET_LIBC_FAULTS_H
#define TESTS_NET_LIBC_FAULTS_H

// Defines the network calls in the test program that includes it (once), as system_faults.h does
// those of files.

#include <deque>
#include <netdb.h>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>

#include "tests/support/system_faults.h"
#include "zq/util/zqerror.h"

DEFINE_SYSTEM_CALL(int, accept, (int fd, sockaddr *to, socklen_t *size), "", 0, (fd, to, size))
DEFINE_SYSTEM_CALL(int, bind, (int fd, const sockaddr *to, socklen_t size), "", 0, (fd, to, size),
                   noexcept)
DEFINE_SYSTEM_CALL(int, connect, (int fd, const sockaddr *to, socklen_t size), "", 0,
                   (fd, to, size))
DEFINE_SYSTEM_CALL(int, getsockname, (int fd, sockaddr *to, socklen_t *size), "", 0, (fd, to, size),
                   noexcept)
DEFINE_SYSTEM_CALL(int, getsockopt, (int fd, int level, int name, void *to, socklen_t *size), "", 0,
                   (fd, level, name, to, size), noexcept)
DEFINE_SYSTEM_CALL(int, listen, (int fd, int backlog), "", 0, (fd, backlog), noexcept)
DEFINE_SYSTEM_CALL(ssize_t, recv, (int fd, void *to, size_t size, int flags), "", size,
                   (fd, to, length, flags))
DEFINE_SYSTEM_CALL(ssize_t, send, (int fd, const void *from, size_t size, int flags), "", size,
                   (fd, from, length, flags))
DEFINE_SYSTEM_CALL(int, socket, (int family, int type, int protocol), "", 0,
                   (family, type, protocol), noexcept)

inline thread_local int last_poll_timeout = 0;

extern "C" int poll(pollfd *fds, nfds_t count, int timeout)
{
    last_poll_timeout = timeout;
    return SystemCalls::make({"poll"},
                             [&](size_t) { return next_symbol<&poll>()(fds, count, timeout); });
}

// While not empty, what every host name resolves to: addresses in this order, "unix" standing for
// one of a family that is not of the internet. Anything else fails to resolve.
inline thread_local std::string fake_host;
inline thread_local addrinfo last_hints;

extern "C" int getaddrinfo(const char *name, const char *service, const addrinfo *hints,
                           addrinfo **list)
{
    auto *const next = next_symbol<&getaddrinfo>();
    last_hints = *hints;
    if (fake_host.empty())
        return SystemCalls::make({"getaddrinfo"},
                                 [&](size_t) { return next(name, service, hints, list); });
    // The entries of a list are freed one by one, so lists can be joined.
    addrinfo numeric = {};
    numeric.ai_flags = AI_NUMERICHOST;
    numeric.ai_socktype = SOCK_STREAM;
    std::istringstream addresses(fake_host);
    for (std::string address; addresses >> address; list = &(*list)->ai_next) {
        const bool other = address == "unix";
        if (int error = next(other ? "::1" : address.c_str(), service, &numeric, list))
            return error;
        if (other)
            (*list)->ai_family = AF_UNIX;
    }
    return 0;
}

// ---- a test that sees every log line ----

using Lines = std::vector<std::string>; // each as "LEVEL text"

// A zqerror the way log lines give it.
inline std::string code_text(zqerror error)
{
    return std::to_string(error) + " (" + zq_error_string(error) + ")";
}

class NetworkTest : public testing::Test {
  protected:
    // What the next calls of a name come to.
    using Plan = std::deque<int>;
    std::map<std::string, Plan> plans;

    ~NetworkTest() override { fake_host.clear(); }

    // The lines since the last call.
    Lines taken()
    {
        Lines lines;
        for (const LogLine &line : log.take())
            lines.push_back(std::to_string(line.level) + " " + line.text);
        return lines;
    }

    // Runs an operation, for which a call of the system may be planned to fail, and expects its
    // result, what is logged meanwhile and that no descriptor is left behind.
    template <class Run>
    void expect(Run run, decltype(run()) result, const Lines &lines, const std::string &call = "",
                const Plan &plan = {}, const char *file = __builtin_FILE(),
                int line = __builtin_LINE())
    {
        testing::ScopedTrace trace(file, line, "");
        taken();
        const size_t open = open_descriptors();
        plans[call] = plan;
        EXPECT_EQ(run(), result);
        plans[call] = {}; // sanitizers make pipes too
        EXPECT_EQ(taken(), lines);
        EXPECT_EQ(open_descriptors(), open);
    }

  private:
    int planned(const SystemCall &call)
    {
        Plan &plan = plans[call.name];
        if (plan.empty())
            return PASS;
        const int outcome = plan.front();
        plan.pop_front();
        return outcome;
    }

    LogCapture log{13};
    SystemCalls calls{[this](const SystemCall &call) { return planned(call); }};
};

// The lines logged since the last look.
#define EXPECT_LOG(...) EXPECT_EQ(taken(), (Lines{__VA_ARGS__}))

#endif
