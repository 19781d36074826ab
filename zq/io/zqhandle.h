#ifndef ZQ_IO_ZQHANDLE_H
#define ZQ_IO_ZQHANDLE_H

#include "zq/util/zqerror.h"
#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* An abstract end of a byte stream. Protocols speak to a handle; an implementation fills its table
 * of callbacks, each of which may be missing, and keeps its own state in the handle's context.
 *
 * What a missing callback makes impossible is logged and gives ZQ_ERROR_UNSUPPORTED. Timeouts are
 * (seconds, microseconds), the latter below 1000000, with seconds -1 for no limit, which both
 * timeouts start as. Reading lines uses a read-ahead buffer that plain reads serve first, so the
 * two may be mixed.
 *
 * A handle is used by one thread at a time, except for zq_handle_wakeup(). */
ZQ_OBJECT(zqhandle);

/* ---- callbacks ---- */

/* Releases the context; called first by zq_handle_destroy(). */
typedef void (*zq_handle_destroy_callback)(zqhandle *zqhandle);

/* Begins a connection: ZQ_ERROR_NONE when connected, ZQ_ERROR_IN_PROGRESS when it must be waited
 * for. */
typedef zqerror (*zq_handle_connect_callback)(zqhandle *zqhandle, const char *name, uint32_t port);

/* Goes on with a pending connection; ZQ_ERROR_IN_PROGRESS when it must be called again. */
typedef zqerror (*zq_handle_connect_wait_callback)(zqhandle *zqhandle);

/* Reads at most `count` bytes, waiting no longer than the handle's read timeout, and returns how
 * many. 0 comes with the error set by zq_handle_set_error(): ZQ_ERROR_END_OF_FILE at the end of the
 * stream, ZQ_ERROR_TIMED_OUT, or another. */
typedef size_t (*zq_handle_read_callback)(zqhandle *zqhandle, void *buf, size_t count);

/* Writes at most `count` bytes without waiting and returns how many. 0 comes with the error set by
 * zq_handle_set_error(): ZQ_ERROR_WOULD_BLOCK when the handle must be polled first, or another. */
typedef size_t (*zq_handle_write_callback)(zqhandle *zqhandle, const void *buf, size_t count);

/* Waits until the handle can be written to, no longer than its write timeout: ZQ_ERROR_NONE when it
 * can, ZQ_ERROR_TIMED_OUT, or another error. */
typedef zqerror (*zq_handle_poll_write_callback)(zqhandle *zqhandle);

/* Stores the local port of the connection or listener. */
typedef zqerror (*zq_handle_local_port_callback)(zqhandle *zqhandle, uint32_t *portptr);

/* Accepts one connection on a listening handle: a new handle, or null with an error.
 * ZQ_ERROR_TIMED_OUT and ZQ_ERROR_WAKEUP are normal outcomes. */
typedef zqerror (*zq_handle_accept_callback)(zqhandle *zqhandle,
                                             struct zqhandle **connectionhandleptr);

/* Makes an accept or read that waits on this handle return ZQ_ERROR_WAKEUP; any thread. */
typedef zqerror (*zq_handle_wakeup_callback)(zqhandle *zqhandle);

/* ---- life ---- */

/* zq_handle_create returns a handle without callbacks, or null when out of memory. Released with
 * zq_handle_destroy(). */
ZQ_API zqhandle *zq_handle_create(void);

/* zq_handle_destroy calls the destroy callback, then releases the handle and its buffer. */
ZQ_API void zq_handle_destroy(zqhandle *zqhandle);

/* ---- what an implementation sets ---- */

/* zq_handle_set_context stores the implementation's own pointer, null until then. */
ZQ_API void zq_handle_set_context(zqhandle *zqhandle, void *context);
/* zq_handle_get_context returns that pointer. */
ZQ_API void *zq_handle_get_context(zqhandle *zqhandle);

/* zq_handle_set_error stores the outcome of an operation, which must be below ZQ_ERROR_COUNT. */
ZQ_API void zq_handle_set_error(zqhandle *zqhandle, zqerror code);

/* zq_handle_set_destroy_callback sets what releases the context; null for nothing. */
ZQ_API void zq_handle_set_destroy_callback(zqhandle *zqhandle, zq_handle_destroy_callback callback);
/* zq_handle_set_connect_callback sets what begins a connection; null makes it unsupported. */
ZQ_API void zq_handle_set_connect_callback(zqhandle *zqhandle, zq_handle_connect_callback callback);
/* zq_handle_set_connect_wait_callback sets what goes on with a connection; null makes it
 * unsupported. */
ZQ_API void zq_handle_set_connect_wait_callback(zqhandle *zqhandle,
                                                zq_handle_connect_wait_callback callback);
/* zq_handle_set_read_callback sets what reads; null makes it unsupported. */
ZQ_API void zq_handle_set_read_callback(zqhandle *zqhandle, zq_handle_read_callback callback);
/* zq_handle_set_write_callback sets what writes; null makes it unsupported. */
ZQ_API void zq_handle_set_write_callback(zqhandle *zqhandle, zq_handle_write_callback callback);
/* zq_handle_set_poll_write_callback sets what waits for writing; null makes writes that would block
 * come out short. */
ZQ_API void zq_handle_set_poll_write_callback(zqhandle *zqhandle,
                                              zq_handle_poll_write_callback callback);
/* zq_handle_set_local_port_callback sets what tells the local port; null makes it unsupported. */
ZQ_API void zq_handle_set_local_port_callback(zqhandle *zqhandle,
                                              zq_handle_local_port_callback callback);
/* zq_handle_set_accept_callback sets what accepts connections; null makes it unsupported. */
ZQ_API void zq_handle_set_accept_callback(zqhandle *zqhandle, zq_handle_accept_callback callback);
/* zq_handle_set_wakeup_callback sets what wakes a waiting thread; null makes it unsupported. */
ZQ_API void zq_handle_set_wakeup_callback(zqhandle *zqhandle, zq_handle_wakeup_callback callback);

/* ---- timeouts and error ---- */

/* zq_handle_set_write_timeout sets how long a write may wait, and for implementations that say so a
 * connect. Seconds below 0 set no limit, stored as (-1, 0). */
ZQ_API void zq_handle_set_write_timeout(zqhandle *zqhandle, int32_t seconds, uint32_t microseconds);
/* zq_handle_get_write_timeout reports the stored pair. */
ZQ_API void zq_handle_get_write_timeout(zqhandle *zqhandle, int32_t *secondsptr,
                                        uint32_t *microsecondsptr);
/* zq_handle_set_read_timeout sets how long a read, a whole line or an accept may wait. Seconds
 * below 0 set no limit, stored as (-1, 0). */
ZQ_API void zq_handle_set_read_timeout(zqhandle *zqhandle, int32_t seconds, uint32_t microseconds);
/* zq_handle_get_read_timeout reports the stored pair; inside a read callback that
 * zq_handle_read_line() calls, it is the rest of the time for that line. */
ZQ_API void zq_handle_get_read_timeout(zqhandle *zqhandle, int32_t *secondsptr,
                                       uint32_t *microsecondsptr);

/* zq_handle_get_error returns the outcome of the last operation that stores one: read, read line,
 * write, accept and wakeup. */
ZQ_API zqerror zq_handle_get_error(zqhandle *zqhandle);

/* ---- connecting ---- */

/* zq_handle_connect_begin begins a connection to a host, port 1 to 65535. Returns what the callback
 * returns: ZQ_ERROR_NONE when connected, ZQ_ERROR_IN_PROGRESS when zq_handle_connect_wait() must
 * follow, ZQ_ERROR_UNSUPPORTED without a callback, or another error. The handle's error is left
 * alone, as by the other two. */
ZQ_API zqerror zq_handle_connect_begin(zqhandle *zqhandle, const char *name, uint32_t port);

/* zq_handle_connect_wait goes on with a pending connection and returns what the callback returns;
 * ZQ_ERROR_IN_PROGRESS asks for another call. */
ZQ_API zqerror zq_handle_connect_wait(zqhandle *zqhandle);

/* zq_handle_connect connects and waits until that is done or failed. ZQ_ERROR_IN_PROGRESS means
 * that there is no callback to wait with. */
ZQ_API zqerror zq_handle_connect(zqhandle *zqhandle, const char *name, uint32_t port);

/* ---- reading and writing ---- */

/* zq_handle_read reads once, up to `count` bytes (more than 0), and returns how many. What line
 * reads left in the buffer comes first and the callback is called for the rest only. With a result
 * above 0 the error is ZQ_ERROR_NONE, even if the callback failed after buffered bytes; with 0 it
 * tells why: ZQ_ERROR_END_OF_FILE, ZQ_ERROR_TIMED_OUT, ZQ_ERROR_UNSUPPORTED or the callback's. */
ZQ_API size_t zq_handle_read(zqhandle *zqhandle, void *buf, size_t count);

/* zq_handle_write writes `count` bytes (more than 0), polling whenever the callback would block,
 * and returns how many were written. When that is less, the error tells why: ZQ_ERROR_TIMED_OUT,
 * ZQ_ERROR_UNSUPPORTED or the callback's; only when writing would block and the handle cannot poll
 * is the error ZQ_ERROR_NONE, the short count being the sign. */
ZQ_API size_t zq_handle_write(zqhandle *zqhandle, const void *buf, size_t count);

/* zq_handle_read_line reads up to and including a line feed into `buf`, at most `size` bytes (more
 * than 0), and returns how many. No zero is added and a carriage return is a byte like others; a
 * longer line comes in pieces of `size` bytes, without error. The read timeout covers the line as a
 * whole. When the stream ends or the time runs out, the bytes so far are returned with the error
 * ZQ_ERROR_END_OF_FILE or ZQ_ERROR_TIMED_OUT; 0 always comes with an error. Out of memory for its
 * buffer, it reads byte by byte instead, and the timeout then covers each byte. */
ZQ_API size_t zq_handle_read_line(zqhandle *zqhandle, void *buf, size_t size);

/* ---- listening ---- */

/* zq_handle_get_local_port stores the local port. Returns what the callback returns, or
 * ZQ_ERROR_UNSUPPORTED. The handle's error is left alone. */
ZQ_API zqerror zq_handle_get_local_port(zqhandle *zqhandle, uint32_t *portptr);

/* zq_handle_accept waits for a connection, no longer than the read timeout, and stores a new handle
 * for it, which the caller destroys; null with any result but ZQ_ERROR_NONE. ZQ_ERROR_TIMED_OUT
 * and ZQ_ERROR_WAKEUP are not logged. */
ZQ_API zqerror zq_handle_accept(zqhandle *zqhandle, struct zqhandle **connectionhandleptr);

/* zq_handle_wakeup makes the thread that waits in an accept or read of this handle, or the next one
 * to wait, return ZQ_ERROR_WAKEUP. Any thread may call it while the owner waits. */
ZQ_API zqerror zq_handle_wakeup(zqhandle *zqhandle);

ZQ_END_DECLS

#endif
