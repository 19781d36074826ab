#include "zq/net/zqhandle_tcp.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/net/zqsocket.h"
#include "zq/util/zqtimeout.h"

static constexpr int BACKLOG = 10;

namespace {

// The context of a TCP handle.
struct zqhandletcp {
    zqsocket *socket; // null until connected or listening
};

} // namespace

using owned_handle = owned<zqhandle, zq_handle_destroy>;
using owned_socket = owned<zqsocket, zq_socket_destroy>;
using owned_timeout = owned<zqtimeout, zq_timeout_destroy>;

// Null when a caller has taken the context away.
static zqhandletcp *zq_handle_tcp_context(zqhandle *zqhandle)
{
    return static_cast<zqhandletcp *>(zq_handle_get_context(zqhandle));
}

static zqhandletcp *zq_handle_tcp_connected_context(zqhandle *zqhandle)
{
    zqhandletcp *context = zq_handle_tcp_context(zqhandle);
    if (!context)
        ZQ_LOG(7, "this handle is not connected");
    return context;
}

static void zq_handle_tcp_destroy_callback(zqhandle *zqhandle)
{
    zqhandletcp *context = zq_handle_tcp_context(zqhandle);
    if (context && context->socket)
        zq_socket_destroy(context->socket);
    zq_free(context);
}

// ---- connect ----

static zqerror zq_handle_tcp_connect_callback(zqhandle *zqhandle, const char *name, uint32_t port)
{
    zqhandletcp *context = zq_handle_tcp_context(zqhandle);
    ZQ_ASSERT(context != NULL);

    if (context->socket) {
        ZQ_LOG(7, "this handle is already connected");
        return ZQ_ERROR_BUSY;
    }
    zqerror result;
    context->socket = zq_socket_tcp_connect_async(name, port, &result);
    if (context->socket) {
        // Immediate failures come with a socket too; that they stop the process is meant.
        ZQ_ASSERT(result == ZQ_ERROR_NONE || result == ZQ_ERROR_IN_PROGRESS);
    } else {
        ZQ_LOG(7, "failed to connect %s tcp port %u, error %d (%s)", name, port, result,
               zq_error_string(result));
        ZQ_ASSERT(result != ZQ_ERROR_NONE);
    }
    return result;
}

static zqerror zq_handle_tcp_connect_wait_callback(zqhandle *zqhandle)
{
    zqhandletcp *context = zq_handle_tcp_context(zqhandle);
    ZQ_ASSERT(context != NULL);

    owned_timeout timeout(zq_timeout_create());
    if (!timeout) {
        ZQ_LOG(7, "unable to create timeout context");
        return ZQ_ERROR_NO_MEMORY;
    }
    int32_t seconds;
    uint32_t microseconds;
    zq_handle_get_write_timeout(zqhandle, &seconds, &microseconds);
    zq_timeout_set(timeout.get(), seconds, microseconds);
    for (;;) {
        zqerror result = zq_socket_connect_wait(context->socket, seconds, microseconds);
        if (result != ZQ_ERROR_IN_PROGRESS)
            return result;
        if (zq_timeout_check(timeout.get(), &seconds, &microseconds) == 1) {
            ZQ_LOG(13, "zqhandle connect timed out");
            return ZQ_ERROR_TIMED_OUT;
        }
    }
}

// ---- read and write ----

static size_t zq_handle_tcp_read_callback(zqhandle *zqhandle, void *buf, size_t count)
{
    zqhandletcp *context = zq_handle_tcp_connected_context(zqhandle);
    if (!context) {
        zq_handle_set_error(zqhandle, ZQ_ERROR_INVALID_ARGUMENT);
        return 0;
    }
    int32_t seconds;
    uint32_t microseconds;
    zq_handle_get_read_timeout(zqhandle, &seconds, &microseconds);
    size_t result = zq_socket_read_with_timeout(context->socket, buf, count, seconds, microseconds);
    if (result == 0) {
        zqerror error = zq_socket_get_error(context->socket);
        if (error != ZQ_ERROR_END_OF_FILE && error != ZQ_ERROR_TIMED_OUT)
            ZQ_LOG(7, "unable to read from tcp socket, error %d (%s)", error,
                   zq_error_string(error));
        zq_handle_set_error(zqhandle, error);
    }
    return result;
}

static size_t zq_handle_tcp_write_callback(zqhandle *zqhandle, const void *buf, size_t count)
{
    zqhandletcp *context = zq_handle_tcp_connected_context(zqhandle);
    if (!context) {
        zq_handle_set_error(zqhandle, ZQ_ERROR_INVALID_ARGUMENT);
        return 0;
    }
    size_t result = zq_socket_write(context->socket, buf, count);
    if (result == 0) {
        zqerror error = zq_socket_get_error(context->socket);
        if (error != ZQ_ERROR_WOULD_BLOCK)
            ZQ_LOG(7, "unable to write to tcp socket, error %d (%s)", error,
                   zq_error_string(error));
        zq_handle_set_error(zqhandle, error);
    }
    return result;
}

static zqerror zq_handle_tcp_poll_write_callback(zqhandle *zqhandle)
{
    zqhandletcp *context = zq_handle_tcp_connected_context(zqhandle);
    if (!context)
        return ZQ_ERROR_INVALID_ARGUMENT;
    int32_t seconds;
    uint32_t microseconds;
    zq_handle_get_write_timeout(zqhandle, &seconds, &microseconds);
    return zq_socket_poll_write(context->socket, seconds, microseconds);
}

static zqerror zq_handle_tcp_local_port_callback(zqhandle *zqhandle, uint32_t *portptr)
{
    zqhandletcp *context = zq_handle_tcp_context(zqhandle);
    ZQ_ASSERT(context != NULL);

    zqerror result = zq_socket_get_local_port(context->socket, portptr);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "unable to fetch the local TCP port number from the socket, error %d (%s)",
               result, zq_error_string(result));
    return result;
}

static zqerror zq_handle_tcp_wakeup_callback(zqhandle *zqhandle)
{
    zqhandletcp *context = zq_handle_tcp_context(zqhandle);
    ZQ_ASSERT(context != NULL);

    zqerror result = zq_socket_wakeup(context->socket);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "socket wakeup returned %d (%s)", result, zq_error_string(result));
    return result;
}

// ---- client handles ----

zqhandle *zq_handle_tcp_create(void)
{
    owned_handle created(zq_handle_create());
    if (!created) {
        ZQ_LOG(7, "unable to create an zqhandle");
        return nullptr;
    }
    zqhandletcp *context = make_zeroed<zqhandletcp>();
    if (!context) {
        ZQ_LOG(7, "not enough memory for TCP handle");
        return nullptr;
    }
    zq_handle_set_context(created.get(), context);
    zq_handle_set_destroy_callback(created.get(), zq_handle_tcp_destroy_callback);
    zq_handle_set_connect_callback(created.get(), zq_handle_tcp_connect_callback);
    zq_handle_set_connect_wait_callback(created.get(), zq_handle_tcp_connect_wait_callback);
    zq_handle_set_read_callback(created.get(), zq_handle_tcp_read_callback);
    zq_handle_set_write_callback(created.get(), zq_handle_tcp_write_callback);
    zq_handle_set_poll_write_callback(created.get(), zq_handle_tcp_poll_write_callback);
    zq_handle_set_local_port_callback(created.get(), zq_handle_tcp_local_port_callback);
    zq_handle_set_wakeup_callback(created.get(), zq_handle_tcp_wakeup_callback);
    return created.release();
}

zqhandle *zq_handle_tcp_connect(const char *name, uint32_t port)
{
    ZQ_ASSERT(name != NULL);
    ZQ_ASSERT(port > 0);
    ZQ_ASSERT(port < 65536);

    owned_handle created(zq_handle_tcp_create());
    if (!created) {
        ZQ_LOG(7, "unable to create an zqhandle");
        return nullptr;
    }
    zqerror error = zq_handle_connect(created.get(), name, port);
    if (error != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to connect, zqerror %d (%s)", error, zq_error_string(error));
        return nullptr;
    }
    return created.release();
}

// ---- listening handles ----

static zqerror zq_handle_tcp_open_listener(zqsocket **socketptr, const char *address, uint32_t port)
{
    *socketptr = zq_socket_tcp_create();
    if (!*socketptr) {
        ZQ_LOG(7, "unable to create a TCP socket");
        return ZQ_ERROR_GENERIC;
    }
    zqerror error = zq_socket_bind(*socketptr, address, port);
    if (error != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to bind the TCP socket to %s port %u, error %d (%s)", address, port,
               error, zq_error_string(error));
        return error;
    }
    error = zq_socket_listen(*socketptr, BACKLOG);
    if (error != ZQ_ERROR_NONE)
        ZQ_LOG(7, "unable to start listening to incoming TCP connections, error %d (%s)", error,
               zq_error_string(error));
    return error;
}

// Waits for a connection. The two normal reasons for having none are not logged.
static zqerror zq_handle_tcp_accept_socket(zqhandle *zqhandle, zqsocket **socketptr)
{
    zqhandletcp *context = zq_handle_tcp_context(zqhandle);
    ZQ_ASSERT(context != NULL);

    int32_t seconds;
    uint32_t microseconds;
    zq_handle_get_read_timeout(zqhandle, &seconds, &microseconds);
    zqerror result = zq_socket_poll_read(context->socket, seconds, microseconds);
    if (result == ZQ_ERROR_WAKEUP || result == ZQ_ERROR_TIMED_OUT)
        return result;
    if (result != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to accept tcp socket, error %d (%s)", result, zq_error_string(result));
        return result;
    }
    result = zq_socket_accept(context->socket, socketptr);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "socket accept returned %d (%s)", result, zq_error_string(result));
    return result;
}

static zqerror zq_handle_tcp_accept_callback(zqhandle *zqhandle,
                                             struct zqhandle **connectionhandleptr)
{
    *connectionhandleptr = nullptr;
    zqsocket *accepted = nullptr;
    zqerror result = zq_handle_tcp_accept_socket(zqhandle, &accepted);
    owned_socket connection(accepted);
    if (!connection)
        return result;
    ZQ_ASSERT(result == ZQ_ERROR_NONE);

    owned_handle created(zq_handle_tcp_create());
    if (!created) {
        ZQ_LOG(7, "unable to create a client TCP handle");
        return ZQ_ERROR_NO_MEMORY;
    }
    zq_handle_tcp_context(created.get())->socket = connection.release();
    *connectionhandleptr = created.release();
    return ZQ_ERROR_NONE;
}

zqerror zq_handle_tcp_listen(const char *address, uint32_t port, zqhandle **listenhandleptr)
{
    ZQ_ASSERT(port <= 65535);
    ZQ_ASSERT(listenhandleptr != NULL);

    *listenhandleptr = nullptr;
    owned_handle created(zq_handle_tcp_create());
    if (!created) {
        ZQ_LOG(7, "unable to create an zqhandle");
        return ZQ_ERROR_NO_MEMORY;
    }
    zqerror error = zq_handle_tcp_open_listener(&zq_handle_tcp_context(created.get())->socket,
                                                address ? address : "0.0.0.0", port);
    if (error != ZQ_ERROR_NONE)
        return error;
    zq_handle_set_accept_callback(created.get(), zq_handle_tcp_accept_callback);
    *listenhandleptr = created.release();
    return ZQ_ERROR_NONE;
}
