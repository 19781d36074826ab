#include "zq/net/zqsocket.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/util/zqtimeout.h"

namespace {

// An attempt to reach one of the addresses of a host.
struct zqsocketconnect {
    zqerror error; // ZQ_ERROR_CANNOT_CONNECT until an address fails, then that first failure
    zqtimeout *timeout;
    uint32_t port;
    addrinfo *addresses;
    addrinfo *next;   // the next address to try
    bool ipv4_failed; // no socket of the family can be made: its other addresses are passed over
    bool ipv6_failed;
};

} // namespace

struct zqsocket {
    zqsocketconnect *connectctx; // null unless a connect is in progress
    int sock;                    // -1 when there is none
    int wakeup_read;             // both -1 until the wake-up is enabled
    int wakeup_write;
    zqtimeout *timeout; // of one read
    int family;
    int type;
    std::atomic<zqerror> error; // of the last operation; zq_socket_wakeup() is one, in any thread
};

using owned_socket = owned<zqsocket, zq_socket_destroy>;
using owned_addresses = owned<addrinfo, freeaddrinfo>;

static zqerror zq_socket_record(zqsocket *zqsocket, zqerror error)
{
    zqsocket->error.store(error, std::memory_order_relaxed);
    return error;
}

// For errors of the platform that only a wrong call can cause.
static zqerror zq_socket_internal_error(const char *call, const char *name)
{
    ZQ_LOG(6, "INTERNAL ERROR: %s() returned %s", call, name);
    return ZQ_ERROR_INTERNAL;
}

// ---- descriptors ----

static bool zq_socket_set_nonblocking(int fd)
{
    int result = fcntl(fd, F_GETFL);
    if (result >= 0 && !(result & O_NONBLOCK))
        result = fcntl(fd, F_SETFL, result | O_NONBLOCK);
    if (result >= 0)
        return true;
    // Not errno but what the call returned, always -1: that is meant, the line is known so.
    ZQ_LOG(7, "fcntl() returned error %d", result);
    return false;
}

// By fcntl() and not by SOCK_CLOEXEC and its kin, which not every platform has. Of no consequence
// to the caller, and so is its failure.
static void zq_socket_set_cloexec(int fd)
{
    fcntl(fd, F_SETFD, FD_CLOEXEC);
}

static void zq_socket_close(zqsocket *zqsocket)
{
    if (zqsocket->sock >= 0)
        close(zqsocket->sock);
    zqsocket->sock = -1;
}

// Replaces the descriptor. On failure there is none.
static bool zq_socket_initialize(zqsocket *zqsocket, int family, int type, int protocol)
{
    zq_socket_close(zqsocket);
    int sock = socket(family, type, protocol);
    if (sock < 0) {
        int err = errno;
        ZQ_LOG(7, "socket() call failed, error %d", err);
        return false;
    }
    zqsocket->sock = sock;
    if (!zq_socket_set_nonblocking(sock)) {
        ZQ_LOG(7, "unable to set the socket to non-blocking mode");
        zq_socket_close(zqsocket);
        return false;
    }
    zq_socket_set_cloexec(sock);
    zqsocket->family = family;
    zqsocket->type = type;
    return true;
}

// ---- create and destroy ----

// A socket object without a descriptor.
static zqsocket *zq_socket_allocate()
{
    owned_socket created(make_zeroed<zqsocket>());
    if (!created) {
        ZQ_LOG(7, "not enough memory for zqsocket structure");
        return nullptr;
    }
    created->sock = -1;
    created->wakeup_read = -1;
    created->wakeup_write = -1;
    created->timeout = zq_timeout_create();
    if (!created->timeout) {
        ZQ_LOG(7, "unable to create timeout context");
        return nullptr;
    }
    zq_timeout_set(created->timeout, -1, 0);
    return created.release();
}

zqsocket *zq_socket_create(int family, int type, int protocol)
{
    owned_socket created(zq_socket_allocate());
    if (!created)
        return nullptr;
    if (!zq_socket_initialize(created.get(), family, type, protocol)) {
        ZQ_LOG(7, "unable to initialize socket");
        return nullptr;
    }
    return created.release();
}

zqsocket *zq_socket_tcp_create(void)
{
    zqsocket *created = zq_socket_create(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (!created)
        ZQ_LOG(7, "unable to create a TCP socket");
    return created;
}

static void zq_socket_connect_context_destroy(zqsocketconnect *context)
{
    if (context->timeout)
        zq_timeout_destroy(context->timeout);
    if (context->addresses)
        freeaddrinfo(context->addresses);
    zq_free(context);
}

using owned_connect = owned<zqsocketconnect, zq_socket_connect_context_destroy>;

// Takes the connect in progress, if any, off the socket.
static owned_connect zq_socket_detach_connect(zqsocket *zqsocket)
{
    owned_connect context(zqsocket->connectctx);
    zqsocket->connectctx = nullptr;
    return context;
}

void zq_socket_destroy(zqsocket *zqsocket)
{
    ZQ_ASSERT(zqsocket != NULL);

    zq_socket_detach_connect(zqsocket);
    if (zqsocket->timeout)
        zq_timeout_destroy(zqsocket->timeout);
    zq_socket_close(zqsocket);
    // The wake-up pipe stays open; that is meant, zqsocket.h tells callers what it costs.
    zq_free(zqsocket);
}

// ---- wait ----

// Rounded up, so that a wait is never cut into polls that do not wait at all.
static int zq_socket_poll_milliseconds(int32_t timeoutsecs, uint32_t timeoutusecs)
{
    if (timeoutsecs < 0)
        return -1;
    int64_t milliseconds = int64_t{timeoutsecs} * 1000 + (timeoutusecs + 999) / 1000;
    return static_cast<int>(std::min<int64_t>(milliseconds, INT_MAX));
}

static zqerror zq_socket_poll_error(int err)
{
    switch (err) {
    case ENOMEM:
        return ZQ_ERROR_NO_MEMORY;
    case EINTR:
        return ZQ_ERROR_INTERRUPTED;
    case EFAULT:
    case EINVAL:
        return ZQ_ERROR_INTERNAL;
    default:
        ZQ_LOG(6, "poll() returned an unhandled error %d", err);
        return ZQ_ERROR_GENERIC;
    }
}

// *readyptr receives what poll() returned.
static zqerror zq_socket_poll(pollfd *fds, nfds_t count, int milliseconds, int *readyptr)
{
    *readyptr = poll(fds, count, milliseconds);
    if (*readyptr > 0)
        return ZQ_ERROR_NONE;
    if (*readyptr == 0)
        return ZQ_ERROR_TIMED_OUT;
    int err = errno;
    return zq_socket_poll_error(err);
}

static void zq_socket_take_wakeup(zqsocket *zqsocket)
{
    char byte;
    if (read(zqsocket->wakeup_read, &byte, 1) != 1) {
        int err = errno;
        ZQ_LOG(8, "wakeup pipe read failed, error %d", err);
    }
}

static zqerror zq_socket_wait_readable(zqsocket *zqsocket, int32_t timeoutsecs,
                                       uint32_t timeoutusecs)
{
    pollfd fds[] = {{zqsocket->sock, POLLIN, 0}, {zqsocket->wakeup_read, POLLIN, 0}};
    const nfds_t count = zqsocket->wakeup_read >= 0 ? 2 : 1;
    int ready;
    zqerror error =
        zq_socket_poll(fds, count, zq_socket_poll_milliseconds(timeoutsecs, timeoutusecs), &ready);
    if (error != ZQ_ERROR_NONE)
        return error;

    if (fds[0].revents & POLLIN)
        return ZQ_ERROR_NONE;
    if (fds[1].revents & POLLIN) {
        zq_socket_take_wakeup(zqsocket);
        return ZQ_ERROR_WAKEUP;
    }
    ZQ_LOG(6, "INTERNAL ERROR: poll() returned %d but no event is available", ready);
    return ZQ_ERROR_INTERNAL;
}

static zqerror zq_socket_wait_writable(zqsocket *zqsocket, int32_t timeoutsecs,
                                       uint32_t timeoutusecs)
{
    pollfd fd = {zqsocket->sock, POLLOUT, 0};
    int ready;
    return zq_socket_poll(&fd, 1, zq_socket_poll_milliseconds(timeoutsecs, timeoutusecs), &ready);
}

// ---- connect ----

static zqerror zq_socket_connect_error(int err)
{
    switch (err) {
    case EINPROGRESS:
        ZQ_LOG(13, "connection in progress");
        return ZQ_ERROR_IN_PROGRESS;
    case EINTR:
        ZQ_LOG(7, "connect() returned error %d", err);
        return ZQ_ERROR_INTERRUPTED;
    case EPERM:
    case EACCES:
    case EAGAIN:
    case EALREADY:
    case EAFNOSUPPORT:
    case EADDRINUSE:
        ZQ_LOG(7, "connect() returned error %d", err);
        return ZQ_ERROR_GENERIC;
    case ENETUNREACH:
        ZQ_LOG(7, "connect() returned network unreachable");
        return ZQ_ERROR_NETWORK_UNREACHABLE;
    case ETIMEDOUT:
        ZQ_LOG(7, "connect() returned timeout");
        return ZQ_ERROR_CONNECTION_TIMED_OUT;
    case ECONNREFUSED:
        ZQ_LOG(7, "connection refused");
        return ZQ_ERROR_CONNECTION_REFUSED;
    case EBADF:
        return zq_socket_internal_error("connect", "EBADF");
    case EFAULT:
        return zq_socket_internal_error("connect", "EFAULT");
    case ENOTSOCK:
        return zq_socket_internal_error("connect", "ENOTSOCK");
    case EISCONN:
        return zq_socket_internal_error("connect", "EISCONN");
    default:
        ZQ_LOG(6, "connect() returned an unhandled error %d", err);
        return ZQ_ERROR_GENERIC;
    }
}

// The addresses of a host, or none when the resolver fails.
static owned_addresses zq_socket_resolve(const char *name, int flags, int family, int type)
{
    addrinfo hints = {};
    hints.ai_flags = flags;
    hints.ai_family = family;
    hints.ai_socktype = type;
    hints.ai_protocol = IPPROTO_TCP;

    addrinfo *addresses = nullptr;
    int err = getaddrinfo(name, nullptr, &hints, &addresses);
    if (err != 0) {
        ZQ_LOG(7, "getaddrinfo() returned error %d (%s)", err, gai_strerror(err));
        return nullptr;
    }
    return owned_addresses(addresses);
}

// False for address families that we cannot write a port into.
static bool zq_socket_set_port(const addrinfo *address, uint32_t port)
{
    const in_port_t network_port = htons(static_cast<uint16_t>(port));
    switch (address->ai_family) {
    case AF_INET:
        reinterpret_cast<sockaddr_in *>(address->ai_addr)->sin_port = network_port;
        return true;
    case AF_INET6:
        reinterpret_cast<sockaddr_in6 *>(address->ai_addr)->sin6_port = network_port;
        return true;
    default:
        ZQ_LOG(6, "unimplemented address family %d", address->ai_family);
        return false;
    }
}

static owned_connect zq_socket_connect_context_allocate()
{
    owned_connect context(make_zeroed<zqsocketconnect>());
    if (!context) {
        ZQ_LOG(7, "not enough memory for socket connect context");
        return nullptr;
    }
    context->error = ZQ_ERROR_CANNOT_CONNECT;
    context->timeout = zq_timeout_create();
    if (!context->timeout) {
        ZQ_LOG(7, "not enough memory for socket connect timeout context");
        return nullptr;
    }
    return context;
}

// Resolves the host. Null only when out of memory: a host that does not resolve has no addresses.
static owned_connect zq_socket_connect_context_create(const char *name, uint32_t port, int family,
                                                      int type)
{
    owned_connect context = zq_socket_connect_context_allocate();
    if (!context) {
        ZQ_LOG(7, "unable to create socket connect context");
        return nullptr;
    }
    context->port = port;
    context->addresses =
        zq_socket_resolve(name, AI_ADDRCONFIG | AI_V4MAPPED, family, type).release();
    context->next = context->addresses;
    return context;
}

// The first failure is the one to report.
static void zq_socket_connect_fail(zqsocketconnect *context, zqerror error)
{
    if (context->error == ZQ_ERROR_CANNOT_CONNECT)
        context->error = error;
}

static const addrinfo *zq_socket_connect_take_address(zqsocketconnect *context)
{
    const addrinfo *address = context->next;
    if (!address)
        return nullptr;
    context->next = address->ai_next;
    return address->ai_addr ? address : nullptr;
}

// Makes *socketptr, or gives it a new descriptor when it exists already.
static bool zq_socket_renew(zqsocket **socketptr, int family, int type, int protocol)
{
    if (*socketptr)
        return zq_socket_initialize(*socketptr, family, type, protocol);
    *socketptr = zq_socket_create(family, type, protocol);
    return *socketptr != nullptr;
}

// What the sockets of an attempt are: TCP, or what the resolver gives for each address.
enum class connect_kind { tcp, resolved };

// False when the address is to be passed over.
static bool zq_socket_connect_prepare(zqsocketconnect *context, const addrinfo *address,
                                      connect_kind kind, zqsocket **socketptr)
{
    if (!zq_socket_set_port(address, context->port))
        return false;
    const bool ipv4 = address->ai_family == AF_INET;
    bool *failed = ipv4 ? &context->ipv4_failed : &context->ipv6_failed;
    if (*failed)
        return false;

    const bool tcp = kind == connect_kind::tcp;
    if (zq_socket_renew(socketptr, address->ai_family, tcp ? SOCK_STREAM : address->ai_socktype,
                        tcp ? IPPROTO_TCP : address->ai_protocol))
        return true;
    ZQ_LOG(7, "unable to create a TCP socket for %s", ipv4 ? "IPv4" : "IPv6");
    *failed = true;
    return false;
}

static zqerror zq_socket_connect_address(zqsocket *zqsocket, const addrinfo *address)
{
    if (connect(zqsocket->sock, address->ai_addr, address->ai_addrlen) == 0) {
        ZQ_LOG(13, "connected");
        return ZQ_ERROR_NONE;
    }
    int err = errno;
    return zq_socket_connect_error(err);
}

// Tries the remaining addresses up to one that connects or may yet. With none left the result is
// the first failure.
static zqerror zq_socket_connect_next(zqsocketconnect *context, connect_kind kind,
                                      zqsocket **socketptr)
{
    while (const addrinfo *address = zq_socket_connect_take_address(context)) {
        if (!zq_socket_connect_prepare(context, address, kind, socketptr))
            continue;
        zqerror error = zq_socket_connect_address(*socketptr, address);
        if (error == ZQ_ERROR_NONE || error == ZQ_ERROR_IN_PROGRESS)
            return error;
        zq_socket_connect_fail(context, error);
    }
    return context->error;
}

static zqerror zq_socket_tcp_connect_next(zqsocketconnect *context, zqsocket **socketptr)
{
    zqerror error = zq_socket_connect_next(context, connect_kind::tcp, socketptr);
    if (error != ZQ_ERROR_NONE && error != ZQ_ERROR_IN_PROGRESS)
        ZQ_LOG(7, "zq_socket_tcp_connect_next() returned %d (%s)", error, zq_error_string(error));
    return error;
}

static void zq_socket_log_connect_failure(const char *name, uint32_t port, zqerror error)
{
    ZQ_LOG(7, "failed to connect %s tcp port %u, error %d (%s)", name, port, error,
           zq_error_string(error));
}

zqsocket *zq_socket_tcp_connect(const char *name, uint32_t port, zqerror *zqerrorptr)
{
    ZQ_ASSERT(name != NULL);
    ZQ_ASSERT(port > 0);
    ZQ_ASSERT(port < 65536);
    ZQ_ASSERT(zqerrorptr != NULL);

    return zq_socket_tcp_connect_with_timeout(name, port, -1, 0, zqerrorptr);
}

zqsocket *zq_socket_tcp_connect_with_timeout(const char *name, uint32_t port, int32_t timeoutsecs,
                                             uint32_t timeoutusecs, zqerror *zqerrorptr)
{
    ZQ_ASSERT(name != NULL);
    ZQ_ASSERT(port > 0);
    ZQ_ASSERT(port < 65536);
    ZQ_ASSERT(timeoutusecs < 1000000);
    ZQ_ASSERT(zqerrorptr != NULL);

    owned_socket created(zq_socket_tcp_connect_async(name, port, zqerrorptr));
    if (!created) {
        zq_socket_log_connect_failure(name, port, *zqerrorptr);
        ZQ_ASSERT_TEXT(*zqerrorptr != ZQ_ERROR_NONE, "zqerror != ZQ_ERROR_NONE");
        return nullptr;
    }
    if (*zqerrorptr == ZQ_ERROR_IN_PROGRESS)
        *zqerrorptr = zq_socket_connect_wait(created.get(), timeoutsecs, timeoutusecs);
    return *zqerrorptr == ZQ_ERROR_NONE ? created.release() : nullptr;
}

zqsocket *zq_socket_tcp_connect_async(const char *name, uint32_t port, zqerror *zqerrorptr)
{
    ZQ_ASSERT(name != NULL);
    ZQ_ASSERT(port > 0);
    ZQ_ASSERT(port < 65536);
    ZQ_ASSERT(zqerrorptr != NULL);

    owned_connect context = zq_socket_connect_context_create(name, port, AF_UNSPEC, SOCK_STREAM);
    if (!context) {
        *zqerrorptr = ZQ_ERROR_NO_MEMORY;
        return nullptr;
    }
    zqsocket *created = nullptr;
    *zqerrorptr = zq_socket_tcp_connect_next(context.get(), &created);
    if (*zqerrorptr == ZQ_ERROR_IN_PROGRESS)
        created->connectctx = context.release();
    return created;
}

zqerror zq_socket_connect(zqsocket *zqsocket, const char *name, uint32_t port)
{
    ZQ_ASSERT(zqsocket != NULL);
    ZQ_ASSERT(name != NULL);
    ZQ_ASSERT(port > 0);
    ZQ_ASSERT(port < 65536);

    zqerror error = zq_socket_connect_async(zqsocket, name, port);
    if (error == ZQ_ERROR_IN_PROGRESS)
        error = zq_socket_connect_wait(zqsocket, -1, 0);
    else if (error != ZQ_ERROR_NONE)
        zq_socket_log_connect_failure(name, port, error);
    return zq_socket_record(zqsocket, error);
}

zqerror zq_socket_connect_async(zqsocket *zqsocket, const char *name, uint32_t port)
{
    ZQ_ASSERT(zqsocket != NULL);
    ZQ_ASSERT(name != NULL);
    ZQ_ASSERT(port > 0);
    ZQ_ASSERT(port < 65536);

    zq_socket_detach_connect(zqsocket);
    owned_connect context =
        zq_socket_connect_context_create(name, port, zqsocket->family, zqsocket->type);
    if (!context)
        return zq_socket_record(zqsocket, ZQ_ERROR_NO_MEMORY);

    zqerror error = zq_socket_connect_next(context.get(), connect_kind::resolved, &zqsocket);
    if (error == ZQ_ERROR_IN_PROGRESS)
        zqsocket->connectctx = context.release();
    else if (error != ZQ_ERROR_NONE)
        ZQ_LOG(7, "zq_socket_connect_next() returned %d (%s)", error, zq_error_string(error));
    return zq_socket_record(zqsocket, error);
}

// What came of the address that was being connected to: connected, or the outcome of trying the
// next ones.
static zqerror zq_socket_connect_conclude(zqsocket *zqsocket)
{
    int pending = 0;
    socklen_t size = sizeof(pending);
    if (getsockopt(zqsocket->sock, SOL_SOCKET, SO_ERROR, &pending, &size) != 0) {
        int err = errno;
        ZQ_LOG(7, "getsockopt() failed, error %d", err);
        return ZQ_ERROR_GENERIC;
    }
    if (pending == 0) {
        ZQ_LOG(13, "connected");
        return ZQ_ERROR_NONE;
    }
    zqerror result = zq_socket_connect_error(pending);
    ZQ_ASSERT(result != ZQ_ERROR_NONE);
    zq_socket_connect_fail(zqsocket->connectctx, result);
    return zq_socket_tcp_connect_next(zqsocket->connectctx, &zqsocket);
}

static zqerror zq_socket_connect_finish(zqsocket *zqsocket, int32_t timeoutsecs,
                                        uint32_t timeoutusecs)
{
    zq_timeout_set(zqsocket->connectctx->timeout, timeoutsecs, timeoutusecs);
    for (;;) {
        zqerror error = zq_socket_wait_writable(zqsocket, timeoutsecs, timeoutusecs);
        if (error != ZQ_ERROR_NONE) {
            ZQ_LOG(7, "polling for connecting socket returned error %d (%s)", error,
                   zq_error_string(error));
            return error;
        }
        error = zq_socket_connect_conclude(zqsocket);
        if (error != ZQ_ERROR_IN_PROGRESS)
            return error;
        if (zq_timeout_check(zqsocket->connectctx->timeout, &timeoutsecs, &timeoutusecs) == 1) {
            ZQ_LOG(13, "connect timeout occurred");
            return ZQ_ERROR_TIMED_OUT;
        }
    }
}

zqerror zq_socket_connect_wait(zqsocket *zqsocket, int32_t timeoutsecs, uint32_t timeoutusecs)
{
    ZQ_ASSERT(zqsocket != NULL);
    ZQ_ASSERT(timeoutsecs >= -1);
    ZQ_ASSERT(timeoutusecs < 1000000);

    if (!zqsocket->connectctx) {
        ZQ_LOG(6, "invalid call, no connect context present");
        return ZQ_ERROR_BAD_HANDLE;
    }
    zqerror error = zq_socket_connect_finish(zqsocket, timeoutsecs, timeoutusecs);
    // Out of time, the attempt stays, for a later call to go on with.
    if (error != ZQ_ERROR_IN_PROGRESS && error != ZQ_ERROR_TIMED_OUT)
        zq_socket_detach_connect(zqsocket);
    return error;
}

// ---- listen ----

static zqerror zq_socket_bind_address(zqsocket *zqsocket, const addrinfo *address, uint32_t port)
{
    if (!zq_socket_set_port(address, port))
        return ZQ_ERROR_GENERIC;
    if (bind(zqsocket->sock, address->ai_addr, address->ai_addrlen) == 0)
        return ZQ_ERROR_NONE;
    int err = errno;
    ZQ_LOG(7, "bind() returned error %d", err);
    return ZQ_ERROR_GENERIC;
}

zqerror zq_socket_bind(zqsocket *zqsocket, const char *address, uint32_t port)
{
    ZQ_ASSERT(zqsocket != NULL);
    ZQ_ASSERT(address != NULL);
    ZQ_ASSERT(port < 65536);

    owned_addresses addresses = zq_socket_resolve(address, AI_NUMERICHOST, AF_UNSPEC, SOCK_STREAM);
    return zq_socket_record(zqsocket, addresses
                                          ? zq_socket_bind_address(zqsocket, addresses.get(), port)
                                          : zqerror{ZQ_ERROR_GENERIC});
}

// *portptr is left alone on failure.
static zqerror zq_socket_fetch_local_port(zqsocket *zqsocket, uint32_t *portptr)
{
    owned_block<sockaddr_storage> address(make_zeroed<sockaddr_storage>());
    if (!address) {
        ZQ_LOG(7, "not enough memory for struct sockaddr_storage");
        return ZQ_ERROR_NO_MEMORY;
    }
    socklen_t size = sizeof(sockaddr_storage);
    if (getsockname(zqsocket->sock, reinterpret_cast<sockaddr *>(address.get()), &size) != 0) {
        int err = errno;
        ZQ_LOG(7, "getsockname() returned error %d", err);
        return ZQ_ERROR_GENERIC;
    }
    switch (address->ss_family) {
    case AF_INET:
        *portptr = ntohs(reinterpret_cast<sockaddr_in *>(address.get())->sin_port);
        return ZQ_ERROR_NONE;
    case AF_INET6:
        // Not sin6_port; that is meant, callers rely on 0 for IPv6.
        *portptr = 0;
        return ZQ_ERROR_NONE;
    default:
        ZQ_LOG(6, "unimplemented address family %d", address->ss_family);
        return ZQ_ERROR_UNSUPPORTED;
    }
}

zqerror zq_socket_get_local_port(zqsocket *zqsocket, uint32_t *portptr)
{
    ZQ_ASSERT(zqsocket != NULL);
    ZQ_ASSERT(portptr != NULL);

    *portptr = 0;
    return zq_socket_record(zqsocket, zq_socket_fetch_local_port(zqsocket, portptr));
}

static zqerror zq_socket_start_listening(zqsocket *zqsocket, int backlog)
{
    zqerror error = zq_socket_enable_wakeup(zqsocket);
    if (error != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to enable wakeup on the listen socket");
        return error;
    }
    if (listen(zqsocket->sock, backlog) != 0) {
        int err = errno;
        ZQ_LOG(7, "listen() returned error %d", err);
        return ZQ_ERROR_GENERIC;
    }
    return ZQ_ERROR_NONE;
}

zqerror zq_socket_listen(zqsocket *zqsocket, int backlog)
{
    ZQ_ASSERT(zqsocket != NULL);

    return zq_socket_record(zqsocket, zq_socket_start_listening(zqsocket, backlog));
}

static zqerror zq_socket_accept_error(int err)
{
    switch (err) {
    case EINVAL:
        return ZQ_ERROR_INVALID_ARGUMENT;
    case EAGAIN:
        return ZQ_ERROR_WOULD_BLOCK;
    default:
        ZQ_LOG(7, "accept() returned error %d", err);
        return ZQ_ERROR_GENERIC;
    }
}

// Wraps the descriptor of an accepted connection, which is closed on failure.
static zqerror zq_socket_adopt_connection(int sock, int family, zqsocket **connectionsocketptr)
{
    owned_socket connection(zq_socket_allocate());
    if (!connection) {
        ZQ_LOG(7, "unable to create a connection socket");
        close(sock);
        return ZQ_ERROR_NO_MEMORY;
    }
    connection->sock = sock;
    connection->family = family;
    connection->type = SOCK_STREAM;
    if (!zq_socket_set_nonblocking(sock)) {
        ZQ_LOG(7, "unable to set the connection socket to non-blocking mode");
        return ZQ_ERROR_GENERIC;
    }
    zq_socket_set_cloexec(sock);
    *connectionsocketptr = connection.release();
    return ZQ_ERROR_NONE;
}

zqerror zq_socket_accept(zqsocket *zqsocket, struct zqsocket **connectionsocketptr)
{
    ZQ_ASSERT(zqsocket != NULL);
    ZQ_ASSERT(connectionsocketptr != NULL);

    *connectionsocketptr = nullptr;
    sockaddr_in peer = {}; // of a longer address too we need no more than the family
    socklen_t size = sizeof(peer);
    int sock = accept(zqsocket->sock, reinterpret_cast<sockaddr *>(&peer), &size);
    if (sock < 0) {
        int err = errno;
        return zq_socket_record(zqsocket, zq_socket_accept_error(err));
    }
    return zq_socket_record(zqsocket,
                            zq_socket_adopt_connection(sock, peer.sin_family, connectionsocketptr));
}

// ---- read and write ----

static zqerror zq_socket_send_error(int err)
{
    switch (err) {
    case EAGAIN:
        return ZQ_ERROR_WOULD_BLOCK;
    case ECONNRESET:
        ZQ_LOG(7, "unable to write to socket, error %d", err);
        return ZQ_ERROR_CONNECTION_RESET;
    case EPIPE:
        return ZQ_ERROR_BROKEN_PIPE;
    default:
        ZQ_LOG(7, "an unmapped error value %d", err);
        return ZQ_ERROR_GENERIC;
    }
}

size_t zq_socket_write(zqsocket *zqsocket, const void *buf, size_t len)
{
    ZQ_ASSERT(zqsocket != NULL);
    ZQ_ASSERT(buf != NULL);
    ZQ_ASSERT(len > 0);

    ssize_t count = send(zqsocket->sock, buf, len, 0);
    if (count < 0) {
        int err = errno;
        zq_socket_record(zqsocket, zq_socket_send_error(err));
        return 0;
    }
    zq_socket_record(zqsocket, ZQ_ERROR_NONE);
    return static_cast<size_t>(count);
}

static zqerror zq_socket_recv_error(int err)
{
    switch (err) {
    case EINTR:
        ZQ_LOG(7, "recv() returned EINTR");
        return ZQ_ERROR_INTERRUPTED;
    case ENOMEM:
        ZQ_LOG(7, "recv() returned not enough memory");
        return ZQ_ERROR_NO_MEMORY;
    case EAGAIN:
        ZQ_LOG(13, "recv() returned EWOULDBLOCK");
        return ZQ_ERROR_WOULD_BLOCK;
    case ECONNRESET:
        ZQ_LOG(7, "recv() returned ECONNRESET");
        return ZQ_ERROR_CONNECTION_RESET;
    case ECONNREFUSED:
        // Level 7 is meant: unlike the errors below, a peer can cause this one.
        ZQ_LOG(7, "INTERNAL ERROR: recv() returned connection refused");
        return ZQ_ERROR_INTERNAL;
    case EBADF:
        return zq_socket_internal_error("recv", "EBADF");
    case EFAULT:
        return zq_socket_internal_error("recv", "EFAULT");
    case EINVAL:
        return zq_socket_internal_error("recv", "EINVAL");
    case ENOTSOCK:
        return zq_socket_internal_error("recv", "ENOTSOCK");
    case ENOTCONN:
        return zq_socket_internal_error("recv", "ENOTCONN");
    default:
        ZQ_LOG(6, "recv() returned an unhandled error %d", err);
        return ZQ_ERROR_GENERIC;
    }
}

// Waits for data for the rest of the read's time.
static zqerror zq_socket_receive_wait(zqsocket *zqsocket)
{
    int32_t timeoutsecs;
    uint32_t timeoutusecs;
    if (zq_timeout_check(zqsocket->timeout, &timeoutsecs, &timeoutusecs) == 1)
        return ZQ_ERROR_TIMED_OUT;
    zqerror error = zq_socket_wait_readable(zqsocket, timeoutsecs, timeoutusecs);
    if (error != ZQ_ERROR_NONE)
        ZQ_LOG(13, "polling read for a socket returned error %d (%s)", error,
               zq_error_string(error));
    return error;
}

static zqerror zq_socket_receive(zqsocket *zqsocket, void *buf, size_t maxlen, size_t *countptr)
{
    // A timeout of (0, 0) has expired already: what is waiting is then not read, which is meant.
    if (zq_timeout_check(zqsocket->timeout, nullptr, nullptr) == 1)
        return ZQ_ERROR_TIMED_OUT;

    ssize_t count = recv(zqsocket->sock, buf, maxlen, 0);
    if (count < 0) {
        int err = errno;
        if (zq_socket_recv_error(err) == ZQ_ERROR_WOULD_BLOCK) {
            zqerror error = zq_socket_receive_wait(zqsocket);
            if (error != ZQ_ERROR_NONE)
                return error;
        }
        // Exactly one more try, whatever the first failure was; that is meant.
        count = recv(zqsocket->sock, buf, maxlen, 0);
    }
    if (count < 0) {
        int err = errno;
        zqerror error = zq_socket_recv_error(err);
        ZQ_LOG(7, "recv() returned error %d (%s)", error, zq_error_string(error));
        return error;
    }
    *countptr = static_cast<size_t>(count);
    return count == 0 ? ZQ_ERROR_END_OF_FILE : ZQ_ERROR_NONE;
}

size_t zq_socket_read(zqsocket *zqsocket, void *buf, size_t maxlen)
{
    ZQ_ASSERT(zqsocket != NULL);
    ZQ_ASSERT(buf != NULL);
    ZQ_ASSERT(maxlen > 0);

    return zq_socket_read_with_timeout(zqsocket, buf, maxlen, -1, 0);
}

size_t zq_socket_read_with_timeout(zqsocket *zqsocket, void *buf, size_t maxlen,
                                   int32_t timeoutsecs, uint32_t timeoutusecs)
{
    ZQ_ASSERT(zqsocket != NULL);
    ZQ_ASSERT(buf != NULL);
    ZQ_ASSERT(maxlen > 0);
    ZQ_ASSERT(timeoutusecs < 1000000);

    zq_timeout_set(zqsocket->timeout, timeoutsecs, timeoutusecs);
    size_t count = 0;
    zq_socket_record(zqsocket, zq_socket_receive(zqsocket, buf, maxlen, &count));
    return count;
}

// ---- wait, for callers ----

zqerror zq_socket_poll_read(zqsocket *zqsocket, int32_t timeoutsecs, uint32_t timeoutusecs)
{
    ZQ_ASSERT(zqsocket != NULL);
    ZQ_ASSERT(timeoutusecs < 1000000);

    return zq_socket_record(zqsocket, zq_socket_wait_readable(zqsocket, timeoutsecs, timeoutusecs));
}

zqerror zq_socket_poll_write(zqsocket *zqsocket, int32_t timeoutsecs, uint32_t timeoutusecs)
{
    ZQ_ASSERT(zqsocket != NULL);
    ZQ_ASSERT(timeoutusecs < 1000000);

    return zq_socket_record(zqsocket, zq_socket_wait_writable(zqsocket, timeoutsecs, timeoutusecs));
}

// ---- wake up ----

zqerror zq_socket_enable_wakeup(zqsocket *zqsocket)
{
    ZQ_ASSERT(zqsocket != NULL);

    if (zqsocket->wakeup_read >= 0)
        return ZQ_ERROR_NONE;
    int fds[2];
    if (pipe(fds) != 0) {
        int err = errno;
        ZQ_LOG(7, "pipe() returned error %d", err);
        return ZQ_ERROR_GENERIC;
    }
    for (int fd : fds) {
        fcntl(fd, F_SETFL, O_NONBLOCK); // a waking thread must not wait, however full the pipe is
        zq_socket_set_cloexec(fd);
    }
    zqsocket->wakeup_read = fds[0];
    zqsocket->wakeup_write = fds[1];
    return ZQ_ERROR_NONE;
}

zqerror zq_socket_wakeup(zqsocket *zqsocket)
{
    ZQ_ASSERT(zqsocket != NULL);

    // Without a pipe the write on -1 fails; that the result is ZQ_ERROR_WRITE and not
    // ZQ_ERROR_UNSUPPORTED is meant.
    if (zqsocket->wakeup_write < 0)
        ZQ_LOG(6, "waking up this socket is not enabled");
    // Recorded before the write: what the woken thread records must be what remains.
    zq_socket_record(zqsocket, ZQ_ERROR_NONE);
    if (write(zqsocket->wakeup_write, "X", 1) == 1)
        return ZQ_ERROR_NONE;
    int err = errno;
    ZQ_LOG(7, "unable to write to the wakeup pipe, error %d", err);
    return zq_socket_record(zqsocket, ZQ_ERROR_WRITE);
}

zqerror zq_socket_get_error(zqsocket *zqsocket)
{
    ZQ_ASSERT(zqsocket != NULL);

    return zqsocket->error.load(std::memory_order_relaxed);
}
