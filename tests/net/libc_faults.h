#ifndef TESTS_NET_LIBC_FAULTS_H
#define TESTS_NET_LIBC_FAULTS_H

// Defines the network calls of libc in the test program that includes it (once): each passes
// through unless the thread that calls has planned otherwise.

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <list>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "tests/support/interpose.h"
#include "tests/support/log_capture.h"
#include "zq/util/zqerror.h"

enum Call {
    ACCEPT,
    BIND,
    CONNECT,
    FCNTL,
    GETSOCKNAME,
    GETSOCKOPT,
    LISTEN,
    PIPE,
    POLL,
    READ,
    RECV,
    SEND,
    SOCKET,
    CALL_COUNT
};

constexpr int PASS = 0;
// For POLL: no event until the time is over, without waiting for that.
constexpr int POLL_TIMES_OUT = -1;
// For POLL: one event, that nobody asked for.
constexpr int POLL_WITHOUT_EVENT = -2;

struct CallPlan {
    std::deque<int> outcomes; // of the next calls: an errno to fail with, PASS, or one of the above
    int calls = 0;
};
inline thread_local std::array<CallPlan, CALL_COUNT> call_plans;
inline thread_local int pending_error = 0; // for the next getsockopt(SO_ERROR)
inline thread_local int last_socket = -1;
inline thread_local int last_poll_timeout = 0;

// Plans the next calls of one function and forgets what was counted and planned for it.
inline void plan(Call call, std::deque<int> outcomes)
{
    call_plans[call] = {std::move(outcomes), 0};
}

inline void forget_plans()
{
    call_plans = {};
    pending_error = 0;
}

inline int calls_of(Call call)
{
    return call_plans[call].calls;
}

inline int next_outcome(Call call)
{
    CallPlan &planned = call_plans[call];
    planned.calls++;
    if (planned.outcomes.empty())
        return PASS;
    int outcome = planned.outcomes.front();
    planned.outcomes.pop_front();
    return outcome;
}

inline bool fails(Call call)
{
    int outcome = next_outcome(call);
    if (outcome != PASS)
        errno = outcome;
    return outcome != PASS;
}

// While it lives, every host name resolves to these addresses, in this order; "unix" stands for an
// address of a family that is not of the internet, "none" for an entry without an address.
class FakeHost {
  public:
    explicit FakeHost(const std::vector<std::string> &addresses)
    {
        for (const std::string &text : addresses)
            add(text);
        current = this;
    }
    // Resolving fails.
    explicit FakeHost(int resolver_error) : error(resolver_error) { current = this; }
    ~FakeHost() { current = nullptr; }
    FakeHost(const FakeHost &) = delete;
    FakeHost &operator=(const FakeHost &) = delete;

    addrinfo *first() { return entries.empty() ? nullptr : &entries.front().info; }

    static inline thread_local FakeHost *current = nullptr;
    int error = 0;
    int borrowed = 0; // lists handed out and not freed
    addrinfo hints = {};

  private:
    struct Entry {
        addrinfo info = {};
        sockaddr_storage address = {};
    };

    void add(const std::string &text)
    {
        addrinfo *previous = entries.empty() ? nullptr : &entries.back().info;
        Entry &entry = entries.emplace_back();
        if (previous)
            previous->ai_next = &entry.info;
        auto *ipv4 = reinterpret_cast<sockaddr_in *>(&entry.address);
        auto *ipv6 = reinterpret_cast<sockaddr_in6 *>(&entry.address);
        entry.info.ai_socktype = SOCK_STREAM;
        entry.info.ai_protocol = IPPROTO_TCP;
        entry.info.ai_addr =
            text == "none" ? nullptr : reinterpret_cast<sockaddr *>(&entry.address);
        if (inet_pton(AF_INET, text.c_str(), &ipv4->sin_addr) == 1)
            set_family(entry, AF_INET, sizeof(*ipv4));
        else if (inet_pton(AF_INET6, text.c_str(), &ipv6->sin6_addr) == 1)
            set_family(entry, AF_INET6, sizeof(*ipv6));
        else
            set_family(entry, AF_UNIX, sizeof(sockaddr));
    }

    static void set_family(Entry &entry, int family, size_t size)
    {
        entry.info.ai_family = family;
        entry.info.ai_addrlen = static_cast<socklen_t>(size);
        entry.address.ss_family = static_cast<sa_family_t>(family);
    }

    std::list<Entry> entries;
};

// Log lines as "LEVEL text".
using Lines = std::vector<std::string>;

inline std::string number(int64_t value)
{
    return std::to_string(value);
}

// A zqerror the way log lines give it.
inline std::string code_text(zqerror error)
{
    return number(error) + " (" + zq_error_string(error) + ")";
}

inline std::string resolver_failed()
{
    return "7 getaddrinfo() returned error -2 (" + std::string(gai_strerror(EAI_NONAME)) + ")";
}

// What holds also when memory runs out, where an EXPECT would go unnoticed.
inline void require(bool condition)
{
    if (!condition)
        abort();
}

// A test that sees every log line and leaves no plan to the next one.
class NetworkTest : public testing::Test {
  protected:
    ~NetworkTest() override { forget_plans(); }

    // The lines since the last call.
    Lines taken()
    {
        Lines lines;
        for (const LogLine &line : log.take())
            lines.push_back(number(line.level) + " " + line.text);
        return lines;
    }

    double seconds_since_begun() const
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
    }

    std::chrono::steady_clock::time_point begun = std::chrono::steady_clock::now();

  private:
    LogCapture log{13};
};

#define FAIL_OR_PASS(call, name, ...)                                                              \
    (fails(call) ? -1 : next_symbol<decltype(name)>(#name)(__VA_ARGS__))

extern "C" {

int accept(int fd, sockaddr *address, socklen_t *size)
{
    return FAIL_OR_PASS(ACCEPT, accept, fd, address, size);
}

int bind(int fd, const sockaddr *address, socklen_t size) noexcept
{
    return FAIL_OR_PASS(BIND, bind, fd, address, size);
}

int connect(int fd, const sockaddr *address, socklen_t size)
{
    return FAIL_OR_PASS(CONNECT, connect, fd, address, size);
}

int fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return FAIL_OR_PASS(FCNTL, fcntl, fd, command, argument);
}

int getsockname(int fd, sockaddr *address, socklen_t *size) noexcept
{
    return FAIL_OR_PASS(GETSOCKNAME, getsockname, fd, address, size);
}

int getsockopt(int fd, int level, int name, void *value, socklen_t *size) noexcept
{
    if (fails(GETSOCKOPT))
        return -1;
    int result = next_symbol<decltype(getsockopt)>("getsockopt")(fd, level, name, value, size);
    if (level == SOL_SOCKET && name == SO_ERROR && pending_error != 0) {
        *static_cast<int *>(value) = pending_error;
        pending_error = 0;
    }
    return result;
}

int listen(int fd, int backlog) noexcept
{
    return FAIL_OR_PASS(LISTEN, listen, fd, backlog);
}

int pipe(int fds[2]) noexcept
{
    return FAIL_OR_PASS(PIPE, pipe, fds);
}

int poll(pollfd *fds, nfds_t count, int timeout)
{
    last_poll_timeout = timeout;
    int outcome = next_outcome(POLL);
    if (outcome == POLL_TIMES_OUT)
        return 0;
    if (outcome == POLL_WITHOUT_EVENT)
        return 1;
    if (outcome != PASS) {
        errno = outcome;
        return -1;
    }
    return next_symbol<decltype(poll)>("poll")(fds, count, timeout);
}

ssize_t read(int fd, void *buf, size_t count)
{
    return FAIL_OR_PASS(READ, read, fd, buf, count);
}

ssize_t recv(int fd, void *buf, size_t count, int flags)
{
    return FAIL_OR_PASS(RECV, recv, fd, buf, count, flags);
}

ssize_t send(int fd, const void *buf, size_t count, int flags)
{
    return FAIL_OR_PASS(SEND, send, fd, buf, count, flags);
}

int socket(int family, int type, int protocol) noexcept
{
    return last_socket = FAIL_OR_PASS(SOCKET, socket, family, type, protocol);
}

int getaddrinfo(const char *name, const char *service, const addrinfo *hints, addrinfo **list)
{
    FakeHost *host = FakeHost::current;
    if (!host)
        return next_symbol<decltype(getaddrinfo)>("getaddrinfo")(name, service, hints, list);
    host->hints = *hints;
    if (host->error != 0)
        return host->error;
    host->borrowed++;
    *list = host->first();
    return 0;
}

void freeaddrinfo(addrinfo *list) noexcept
{
    if (FakeHost::current && list == FakeHost::current->first())
        FakeHost::current->borrowed--;
    else
        next_symbol<decltype(freeaddrinfo)>("freeaddrinfo")(list);
}

} // extern "C"

#endif
