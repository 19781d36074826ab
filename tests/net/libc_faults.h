#ifndef TESTS_NET_LIBC_FAULTS_H
#define TESTS_NET_LIBC_FAULTS_H

// Defines the network calls in the test program that includes it (once), as system_faults.h does
// those of files.

#include <atomic>
#include <deque>
#include <netdb.h>
#include <poll.h>
#include <span>
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
DEFINE_SYSTEM_CALL(ssize_t, send, (int fd, const void *from, size_t size, int flags), "", size,
                   (fd, from, length, flags))
DEFINE_SYSTEM_CALL(int, socket, (int family, int type, int protocol), "", 0,
                   (family, type, protocol), noexcept)

// Of the last poll() of this thread, made or not.
inline thread_local std::span<pollfd> last_poll;
inline thread_local int last_poll_timeout = 0;

extern "C" int poll(pollfd *fds, nfds_t count, int timeout)
{
    last_poll = {fds, count};
    last_poll_timeout = timeout;
    return SystemCalls::make({"poll"},
                             [&](size_t) { return next_symbol<&poll>()(fds, count, timeout); });
}

// While set, recv() waits until there is something, so that the calls that a client makes, or a
// thread of the server, do not depend on how fast the other end is.
inline std::atomic<bool> recv_waits = false;

extern "C" ssize_t recv(int fd, void *to, size_t size, int flags)
{
    return SystemCalls::make({"recv", "", size}, [&](size_t length) {
        pollfd readable = {fd, POLLIN, 0};
        if (recv_waits)
            next_symbol<&poll>()(&readable, 1, 10000);
        return next_symbol<&recv>()(fd, to, length, flags);
    });
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

// ---- a client's exchange with a system that fails once ----

// A zqerror the way log lines give it.
inline std::string code_text(zqerror error)
{
    return std::to_string(error) + " (" + zq_error_string(error) + ")";
}

// What it ends with: 0 when it gets over the failure.
inline zqerror error_of_exchange(const SystemFault &fault)
{
    const std::string &name = fault.call.name;
    if (fault.outcome == PASS || fault.outcome == SHORT)
        return ZQ_ERROR_NONE;
    if (name == "close" || (name == "recv" && !fault.lasting)) // recv() is tried again
        return ZQ_ERROR_NONE;
    if (name == "getaddrinfo" || name == "socket")
        return ZQ_ERROR_CANNOT_CONNECT;
    if (name == "fcntl") // the third is that of close-on-exec
        return fault.call.nth < 3 ? ZQ_ERROR_CANNOT_CONNECT
               : fault.lasting    ? ZQ_ERROR_GENERIC
                                  : ZQ_ERROR_NONE;
    static const std::map<std::pair<std::string, int>, zqerror> codes = {
        {{"poll", ENOMEM}, ZQ_ERROR_NO_MEMORY}, {{"poll", EINTR}, ZQ_ERROR_INTERRUPTED},
        {{"poll", EFAULT}, ZQ_ERROR_INTERNAL},  {{"poll", EINVAL}, ZQ_ERROR_INTERNAL},
        {{"send", EAGAIN}, ZQ_ERROR_NONE},      {{"send", ECONNRESET}, ZQ_ERROR_CONNECTION_RESET},
        {{"send", EPIPE}, ZQ_ERROR_BROKEN_PIPE}};
    const auto code = codes.find({name, fault.outcome});
    return code == codes.end() ? ZQ_ERROR_GENERIC + 0u : code->second;
}

// Whether the exchange succeeded, as it has to or not. What is logged of a failure must end with
// "connection failed", or for send() with what is given for each of its calls; "%" stands for the
// error.
inline bool expect_exchange(const SystemFault &fault, zqerror result, const Lines &lines,
                            const std::vector<std::string> &sends)
{
    EXPECT_EQ(result, error_of_exchange(fault));
    if (result == ZQ_ERROR_NONE || fault.call.name == "recv")
        return result == ZQ_ERROR_NONE;
    std::string end = "[7] connection failed, error %";
    if (fault.call.name == "send")
        end = sends.at(fault.call.nth - 1);
    for (size_t at; (at = end.find('%')) != end.npos;)
        end.replace(at, 1, code_text(result));
    EXPECT_TRUE(joined(lines).ends_with(end)) << joined(lines) << "\n" << end;
    return false;
}

// ---- a test that sees every log line ----

class NetworkTest : public testing::Test {
  protected:
    using Lines = std::vector<std::string>; // each as "LEVEL text"

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

    using Mapping = std::pair<zqerror, std::string>;
    using Shape = std::function<Lines(zqerror, const std::string &)>;
    static Lines only(zqerror, const std::string &line)
    {
        return line.empty() ? Lines() : Lines{line};
    }

    // Runs an operation with a call that comes to each error of its manual page and of the table,
    // `times` times in a row. The table has its result and line, `others` those of all others, "%"
    // being the number; `shape` makes of them all that is logged.
    template <class Run>
    void expect_each(Run run, const std::string &call, std::map<int, Mapping> table,
                     const Mapping &others, const Shape &shape = only, size_t times = 1)
    {
        for (const int err : manual_errors.at(call))
            table.try_emplace(err, others);
        for (auto &[err, mapping] : table) {
            SCOPED_TRACE(call + ": " + std::to_string(err));
            auto &[code, line] = mapping;
            if (const size_t at = line.find('%'); at != line.npos)
                line.replace(at, 1, std::to_string(err));
            expect(run, code, shape(code, line), call, Plan(times, err));
        }
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
