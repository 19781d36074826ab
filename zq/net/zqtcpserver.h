#ifndef ZQ_NET_ZQTCPSERVER_H
#define ZQ_NET_ZQTCPSERVER_H

#include "zq/io/zqhandle.h"
#include "zq/util/zqerror.h"
#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A TCP server on IPv4: one thread accepts connections, and each connection is served by one call
 * of the application's callback in a thread of its own.
 *
 * A server is created, configured, started, stopped, waited for and destroyed, once each. All of
 * this belongs to one thread, except for zq_tcpserver_stop(). Starting switches the library's
 * logging to its thread-safe mode. Programs should ignore SIGPIPE (zq_signal_ignore_sigpipe()).
 *
 * A server outlives what it cannot accept or serve; the log tells. Without memory or threads a
 * connection is closed. Without descriptors it waits in the system's queue while the accepting
 * thread tries again without a pause, at the cost of processor time and log lines: programs keep
 * their connections below the limit of descriptors. */
ZQ_OBJECT(zqtcpserver);

/* Serves one connection. The server destroys the handle, which closes the connection, as soon as
 * the callback returns. It runs for all open connections at once with the same context. */
typedef void (*zq_tcpserver_callback)(zqtcpserver *zqtcpserver, zqhandle *zqhandle, void *context);

/* zq_tcpserver_create returns a server for all interfaces and a port that the system picks, or null
 * when out of memory. Released with zq_tcpserver_destroy(). */
ZQ_API zqtcpserver *zq_tcpserver_create(void);

/* zq_tcpserver_destroy releases a server that was never started, or whose end was waited for. It
 * neither stops nor waits. */
ZQ_API void zq_tcpserver_destroy(zqtcpserver *zqtcpserver);

/* zq_tcpserver_set_address sets the numeric IPv4 address to listen on (a copy is kept). Returns
 * ZQ_ERROR_NONE, or ZQ_ERROR_NO_MEMORY with the old address kept. */
ZQ_API zqerror zq_tcpserver_set_address(zqtcpserver *zqtcpserver, const char *address);

/* zq_tcpserver_set_port sets the port to listen on, up to 65535; 0 lets the system pick one. */
ZQ_API void zq_tcpserver_set_port(zqtcpserver *zqtcpserver, uint32_t port);

/* zq_tcpserver_set_callback sets what serves a connection. There must be one before the start. */
ZQ_API void zq_tcpserver_set_callback(zqtcpserver *zqtcpserver, zq_tcpserver_callback callback,
                                      void *context);

/* zq_tcpserver_start listens and starts the accepting thread. Returns ZQ_ERROR_NONE, or
 *   ZQ_ERROR_BUSY       it was started before
 *   ZQ_ERROR_NO_MEMORY  out of memory, or the thread cannot be started
 *   another             of zq_handle_tcp_listen()
 * After a failure but ZQ_ERROR_BUSY nothing runs and it may be tried again. */
ZQ_API zqerror zq_tcpserver_start(zqtcpserver *zqtcpserver);

/* zq_tcpserver_run starts the server and waits for its end. Returns the result of the start. */
ZQ_API zqerror zq_tcpserver_run(zqtcpserver *zqtcpserver);

/* zq_tcpserver_stop makes the server accept no more connections, and returns at once; callbacks
 * that run are left to end by themselves. Before the start it makes the server end as soon as it
 * runs.
 *
 * It may be called by any thread, the callback's included, at any time between create and destroy,
 * also while zq_tcpserver_start(), zq_tcpserver_run() or zq_tcpserver_wait() is under way, and more
 * than once. The call that makes zq_tcpserver_wait() return is finished with the server by then, so
 * the server may be destroyed without waiting for the stopping thread. It takes a lock and may log:
 * not for signal handlers, which should wake a thread that then calls it. */
ZQ_API void zq_tcpserver_stop(zqtcpserver *zqtcpserver);

/* zq_tcpserver_wait returns when a started server was stopped and every callback has returned; all
 * of its threads have then ended. */
ZQ_API void zq_tcpserver_wait(zqtcpserver *zqtcpserver);

/* zq_tcpserver_get_port stores the port that a started server listens on. Results as for
 * zq_handle_get_local_port(). */
ZQ_API zqerror zq_tcpserver_get_port(zqtcpserver *zqtcpserver, uint32_t *portptr);

ZQ_END_DECLS

#endif
