#ifndef ZQ_NET_ZQSOCKET_H
#define ZQ_NET_ZQSOCKET_H

#include "zq/util/zqerror.h"
#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A BSD socket that is always non-blocking. On top of the platform it connects to host names,
 * trying every address of the host in turn within a deadline, bounds every wait, and can be woken
 * by another thread while it waits to become readable.
 *
 * A timeout is a pair of seconds and microseconds, the latter below 1000000. Seconds of -1 mean
 * without limit; (0, 0) means not to wait at all. Waits are rounded up to whole milliseconds; one
 * of more than 24 days ends after 24 days. A signal ends a wait with ZQ_ERROR_INTERRUPTED.
 *
 * Ports are in host byte order. Errors of the platform are returned as the zqerror of the same
 * meaning; ZQ_ERROR_INTERNAL stands for those that only a broken descriptor can cause,
 * ZQ_ERROR_GENERIC for those without a code of their own, whose number is in the log. The result of
 * the last operation is kept in the socket for zq_socket_get_error(), also by functions that return
 * it; exceptions are named below.
 *
 * Descriptors are close-on-exec. Writing to a peer that has gone raises SIGPIPE unless the program
 * ignores it: call zq_signal_ignore_sigpipe() once at start.
 *
 * Threads: one thread at a time uses a socket. zq_socket_wakeup() alone may be called by any other
 * thread meanwhile, once the wake-up is enabled. */
ZQ_OBJECT(zqsocket);

/* ---- create and destroy ---- */

/* zq_socket_create returns a new socket of that address family, type and protocol (as for the
 * platform's socket()), or null. */
ZQ_API zqsocket *zq_socket_create(int family, int type, int protocol);

/* zq_socket_tcp_create returns a new IPv4 TCP socket, or null. */
ZQ_API zqsocket *zq_socket_tcp_create(void);

/* zq_socket_destroy closes the socket and releases it, ending a connection attempt in progress. The
 * two descriptors of an enabled wake-up are not closed, by contract: each socket that ever listened
 * or had its wake-up enabled costs the process two descriptors for good. */
ZQ_API void zq_socket_destroy(zqsocket *zqsocket);

/* ---- connect by host name ----
 *
 * `name` is a host name or a numeric address, IPv4 or IPv6; `port` is 1 to 65535. The addresses of
 * the host are tried in the resolver's order, and when all fail the first failure is reported:
 *   ZQ_ERROR_CONNECTION_REFUSED    nobody listens there
 *   ZQ_ERROR_NETWORK_UNREACHABLE   no route
 *   ZQ_ERROR_CONNECTION_TIMED_OUT  the platform gave up
 *   ZQ_ERROR_CANNOT_CONNECT        the name does not resolve (the log tells why), or no socket of
 *                                  the family of any address can be made
 *   ZQ_ERROR_INTERRUPTED           a signal came
 *   ZQ_ERROR_TIMED_OUT             the given time is over
 *   ZQ_ERROR_NO_MEMORY
 *   ZQ_ERROR_GENERIC, ZQ_ERROR_INTERNAL
 * Resolving a name takes the resolver's time, which no timeout bounds. */

/* zq_socket_tcp_connect returns a connected socket, or null; *zqerrorptr receives the result. It
 * waits without limit. */
ZQ_API zqsocket *zq_socket_tcp_connect(const char *name, uint32_t port, zqerror *zqerrorptr);

/* zq_socket_tcp_connect_with_timeout is zq_socket_tcp_connect() that waits no longer than the given
 * time. */
ZQ_API zqsocket *zq_socket_tcp_connect_with_timeout(const char *name, uint32_t port,
                                                    int32_t timeoutsecs, uint32_t timeoutusecs,
                                                    zqerror *zqerrorptr);

/* zq_socket_tcp_connect_async begins to connect. *zqerrorptr receives ZQ_ERROR_NONE (connected),
 * ZQ_ERROR_IN_PROGRESS (go on with zq_socket_connect_wait()) or the failure. Look at it and not
 * only at the pointer: on an immediate failure the socket made so far is returned all the same, for
 * the caller to destroy; it is null when none was made. */
ZQ_API zqsocket *zq_socket_tcp_connect_async(const char *name, uint32_t port, zqerror *zqerrorptr);

/* zq_socket_connect connects an existing socket to addresses of its own family and waits without
 * limit. Each attempt uses a fresh descriptor, so what was bound before is lost. */
ZQ_API zqerror zq_socket_connect(zqsocket *zqsocket, const char *name, uint32_t port);

/* zq_socket_connect_async begins what zq_socket_connect() does and returns ZQ_ERROR_IN_PROGRESS
 * where that would wait. It replaces an attempt that is in progress. */
ZQ_API zqerror zq_socket_connect_async(zqsocket *zqsocket, const char *name, uint32_t port);

/* zq_socket_connect_wait goes on with an attempt in progress. `timeoutsecs` is at least -1. After
 * ZQ_ERROR_TIMED_OUT the attempt stays in progress and may be waited for again; after any other
 * result it is over. ZQ_ERROR_BAD_HANDLE when none is in progress. The last error of the socket is
 * left as it is. */
ZQ_API zqerror zq_socket_connect_wait(zqsocket *zqsocket, int32_t timeoutsecs,
                                      uint32_t timeoutusecs);

/* ---- listen ---- */

/* zq_socket_bind binds to a numeric address ("0.0.0.0" for every IPv4 interface) and a port, 0
 * meaning any free one. ZQ_ERROR_GENERIC when that fails; host names are refused. */
ZQ_API zqerror zq_socket_bind(zqsocket *zqsocket, const char *address, uint32_t port);

/* zq_socket_get_local_port tells the port the socket is bound to, in host byte order. For IPv6
 * sockets the port reported is always 0, which callers rely on. On failure *portptr is 0:
 *   ZQ_ERROR_NO_MEMORY
 *   ZQ_ERROR_UNSUPPORTED  the socket is neither IPv4 nor IPv6
 *   ZQ_ERROR_GENERIC */
ZQ_API zqerror zq_socket_get_local_port(zqsocket *zqsocket, uint32_t *portptr);

/* zq_socket_listen enables the wake-up and listens with that backlog. ZQ_ERROR_GENERIC when one of
 * them fails. */
ZQ_API zqerror zq_socket_listen(zqsocket *zqsocket, int backlog);

/* zq_socket_accept takes a connection from a listening socket without waiting; *connectionsocketptr
 * receives it, or null on failure:
 *   ZQ_ERROR_WOULD_BLOCK       there is none
 *   ZQ_ERROR_INVALID_ARGUMENT  the socket does not listen
 *   ZQ_ERROR_NO_MEMORY
 *   ZQ_ERROR_GENERIC
 * The connection has no wake-up. */
ZQ_API zqerror zq_socket_accept(zqsocket *zqsocket, struct zqsocket **connectionsocketptr);

/* ---- read and write ---- */

/* zq_socket_write sends from 1 to `len` bytes and returns how many; it does not wait. 0 on failure,
 * the last error then being
 *   ZQ_ERROR_WOULD_BLOCK       nothing can be taken now; see zq_socket_poll_write()
 *   ZQ_ERROR_BROKEN_PIPE       the connection is closed
 *   ZQ_ERROR_CONNECTION_RESET
 *   ZQ_ERROR_GENERIC */
ZQ_API size_t zq_socket_write(zqsocket *zqsocket, const void *buf, size_t len);

/* zq_socket_read is zq_socket_read_with_timeout() without limit. */
ZQ_API size_t zq_socket_read(zqsocket *zqsocket, void *buf, size_t maxlen);

/* zq_socket_read_with_timeout waits for data and returns how many of at most `maxlen` bytes it
 * received; there is no loop to fill the buffer. 0 on failure, the last error then being
 *   ZQ_ERROR_END_OF_FILE       the peer closed
 *   ZQ_ERROR_TIMED_OUT         nothing came in time; always for a timeout of (0, 0), even with data
 *                              waiting
 *   ZQ_ERROR_WAKEUP            zq_socket_wakeup() ended the wait
 *   ZQ_ERROR_WOULD_BLOCK       the data announced was not there after all
 *   ZQ_ERROR_CONNECTION_RESET, ZQ_ERROR_INTERRUPTED, ZQ_ERROR_NO_MEMORY, ZQ_ERROR_INTERNAL,
 *   ZQ_ERROR_GENERIC */
ZQ_API size_t zq_socket_read_with_timeout(zqsocket *zqsocket, void *buf, size_t maxlen,
                                          int32_t timeoutsecs, uint32_t timeoutusecs);

/* ---- wait ---- */

/* zq_socket_poll_read waits until the socket is readable (data, end of stream, a connection to
 * accept). Any negative `timeoutsecs` means without limit.
 *   ZQ_ERROR_WAKEUP       zq_socket_wakeup() was called; one call ends one wait. Data goes first: a
 *                         wake-up that meets a readable socket is kept for the next wait
 *   ZQ_ERROR_TIMED_OUT
 *   ZQ_ERROR_INTERRUPTED, ZQ_ERROR_NO_MEMORY, ZQ_ERROR_INTERNAL, ZQ_ERROR_GENERIC */
ZQ_API zqerror zq_socket_poll_read(zqsocket *zqsocket, int32_t timeoutsecs, uint32_t timeoutusecs);

/* zq_socket_poll_write waits until the socket is writable or broken. Results as for
 * zq_socket_poll_read(), but no wake-up ends it. */
ZQ_API zqerror zq_socket_poll_write(zqsocket *zqsocket, int32_t timeoutsecs, uint32_t timeoutusecs);

/* zq_socket_enable_wakeup makes the pipe through which zq_socket_wakeup() reaches a wait; again, it
 * does nothing. ZQ_ERROR_GENERIC when there are no descriptors left. The last error of the socket
 * is left as it is. */
ZQ_API zqerror zq_socket_enable_wakeup(zqsocket *zqsocket);

/* zq_socket_wakeup ends one wait for readability, the present or the next one, with
 * ZQ_ERROR_WAKEUP. It never blocks. ZQ_ERROR_WRITE when the wake-up is not enabled or tens of
 * thousands of wake-ups are pending. Any thread. */
ZQ_API zqerror zq_socket_wakeup(zqsocket *zqsocket);

/* zq_socket_get_error returns the result of the last operation. */
ZQ_API zqerror zq_socket_get_error(zqsocket *zqsocket);

ZQ_END_DECLS

#endif
