#ifndef ZQ_NET_ZQHANDLE_TCP_H
#define ZQ_NET_ZQHANDLE_TCP_H

#include "zq/io/zqhandle.h"
#include "zq/util/zqerror.h"
#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Handles over TCP. They are used and destroyed with the functions of zqhandle.h; what is
 * particular to them:
 *   - The write timeout of a handle also bounds its connect. The read timeout of a listening handle
 *     bounds each accept.
 *   - Only listening handles accept. They listen on IPv4 with a backlog of 10, and each costs the
 *     process two descriptors that its destruction does not give back (see zq_socket_destroy()).
 *   - A handle connects once: another connect gives ZQ_ERROR_BUSY and leaves the connection alone.
 *   - Reading, writing or asking the port of a handle that was never connected is misuse.
 *   - When every address of the host fails at once, with no wait (such as for want of a route), the
 *     connect counts as misuse and stops the process. zq_socket_tcp_connect_with_timeout() reports
 *     that case as a result.
 *   - No socket options are set.
 * zq_handle_wakeup() on a listening handle, from any thread, makes one accept return
 * ZQ_ERROR_WAKEUP. */

/* zq_handle_tcp_create returns a new handle that is not connected yet, or null when out of memory.
 * To connect with a deadline, set its write timeout and call zq_handle_connect(). */
ZQ_API zqhandle *zq_handle_tcp_create(void);

/* zq_handle_tcp_connect returns a new handle connected to a host name or numeric address, or null.
 * `port` is 1 to 65535. The wait is without limit. */
ZQ_API zqhandle *zq_handle_tcp_connect(const char *name, uint32_t port);

/* zq_handle_tcp_listen makes a handle that listens on a numeric IPv4 address (null: all interfaces)
 * and port (0: any free one, which zq_handle_get_local_port() tells). *listenhandleptr receives it,
 * or null on failure:
 *   ZQ_ERROR_NO_MEMORY
 *   ZQ_ERROR_GENERIC    the address is not such an address, is in use or is not allowed; no
 *                       descriptors */
ZQ_API zqerror zq_handle_tcp_listen(const char *address, uint32_t port, zqhandle **listenhandleptr);

ZQ_END_DECLS

#endif
