#ifndef TESTS_NET_LIBC_FAULTS_H
#define TESTS_NET_LIBC_FAULTS_H

// Defines the network calls of libc in the test program that includes it (once): each passes
// through unless the thread that calls has planned otherwise.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/support/interpose.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "zq/util/zqerror.h"

enum Call { ACCEPT, CONNECT, FCNTL, GETSOCKNAME, GETSOCKOPT, PIPE, POLL, READ, RECV, SEND, SOCKET };

// What the next calls of a function do: fail with an errno, or one of these.
using Plan = std::array<int, 3>;
constexpr int PASS = 0;
constexpr int TIMES_OUT = -1; // poll() alone: the time is over, without waiting for that
constexpr int NO_EVENT = -2;  // poll() alone: an event that nobody asked for

inline thread_local Plan plans[SOCKET + 1];
inline thread_local int last_poll_timeout = 0;

inline int take_planned(Call call)
{
    auto &[first, second, third] = plans[call];
    return std::exchange(first, std::exchange(second, std::exchange(third, PASS)));
}

inline bool fails(Call call)
{
    const int outcome = take_planned(call);
    if (outcome != PASS)
        errno = outcome;
    return outcome != PASS;
}

#define DEFINE_CALL(call, type, name, parameters, arguments, ...)                                  \
    extern "C" type name parameters __VA_ARGS__                                                    \
    {                                                                                              \
        return fails(call) ? -1 : next_symbol<decltype(name)>(#name) arguments;                    \
    }

DEFINE_CALL(ACCEPT, int, accept, (int fd, sockaddr *to, socklen_t *size), (fd, to, size))
DEFINE_CALL(CONNECT, int, connect, (int fd, const sockaddr *to, socklen_t size), (fd, to, size))
DEFINE_CALL(GETSOCKNAME, int, getsockname, (int fd, sockaddr *to, socklen_t *size), (fd, to, size),
            noexcept)
DEFINE_CALL(GETSOCKOPT, int, getsockopt, (int fd, int level, int name, void *to, socklen_t *size),
            (fd, level, name, to, size), noexcept)
DEFINE_CALL(PIPE, int, pipe, (int fds[2]), (fds), noexcept)
DEFINE_CALL(READ, ssize_t, read, (int fd, void *to, size_t size), (fd, to, size))
DEFINE_CALL(RECV, ssize_t, recv, (int fd, void *to, size_t size, int flags), (fd, to, size, flags))
DEFINE_CALL(SEND, ssize_t, send, (int fd, const void *from, size_t size, int flags),
            (fd, from, size, flags))
DEFINE_CALL(SOCKET, int, socket, (int family, int type, int protocol), (family, type, protocol),
            noexcept)

extern "C" int fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return fails(FCNTL) ? -1 : next_symbol<decltype(fcntl)>("fcntl")(fd, command, argument);
}

extern "C" int poll(pollfd *fds, nfds_t count, int timeout)
{
    last_poll_timeout = timeout;
    const int outcome = take_planned(POLL);
    if (outcome == PASS)
        return next_symbol<decltype(poll)>("poll")(fds, count, timeout);
    errno = outcome;
    return outcome == TIMES_OUT ? 0 : outcome == NO_EVENT ? 1 : -1;
}

// While not empty, what every host name resolves to: addresses in this order, "unix" standing for
// one of a family that is not of the internet. Anything else fails to resolve.
inline thread_local std::string fake_host;
inline thread_local addrinfo last_hints;

extern "C" int getaddrinfo(const char *name, const char *service, const addrinfo *hints,
                           addrinfo **list)
{
    auto *const next = next_symbol<decltype(getaddrinfo)>("getaddrinfo");
    last_hints = *hints;
    if (fake_host.empty())
        return next(name, service, hints, list);
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
    ~NetworkTest() override
    {
        std::fill(std::begin(plans), std::end(plans), Plan{});
        fake_host.clear();
    }

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
    void expect(Run run, decltype(run()) result, const Lines &lines, Call call = POLL,
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
    LogCapture log{13};
};

// The lines logged since the last look.
#define EXPECT_LOG(...) EXPECT_EQ(taken(), (Lines{__VA_ARGS__}))

#endif
