#include "zq/net/zqtcpserver.h"

#include <atomic>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqintrusive.h"
#include "zq/internal/zqlocks.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/net/zqhandle_tcp.h"
#include "zq/util/zqlog.h"
#include "zq/util/zqstring.h"
#include "zq/util/zqthread.h"

namespace {
struct tcpserver_connection : zqlistlink {
    struct zqtcpserver *zqtcpserver;
    struct zqhandle *zqhandle; // null once the connection is closed
    struct zqthread *zqthread;
};
} // namespace

struct zqtcpserver {
    // Guards the two lists. Stopping holds it too, so that whoever sees the flag and then takes the
    // mutex knows that the stopping thread is done with the server.
    zqmutex *mutex;
    zqlist *connectionlist; // their threads run
    zqlist *finishedlist;   // their callbacks have returned, their threads are to be joined
    char *address;          // null for all interfaces
    uint32_t port;
    zq_tcpserver_callback callback;
    void *context;
    std::atomic<bool> stop;
    zqhandle *listenhandle; // null until started; written under the mutex
    zqthread *acceptthread;
};

static void zq_tcpserver_connection_destroy(tcpserver_connection *connection)
{
    if (connection->zqhandle)
        zq_handle_destroy(connection->zqhandle);
    if (connection->zqthread)
        zq_thread_destroy(connection->zqthread);
    zq_free(connection);
}

// ---- life ----

zqtcpserver *zq_tcpserver_create(void)
{
    owned<zqtcpserver, zq_tcpserver_destroy> created(make_zeroed<zqtcpserver>());
    if (!created) {
        ZQ_LOG(7, "not enough memory for the zqtcpserver context");
        return nullptr;
    }
    created->mutex = zq_mutex_create();
    if (!created->mutex) {
        ZQ_LOG(7, "unable to create the tcpserver connection mutex");
        return nullptr;
    }
    created->connectionlist = zq_list_create();
    if (!created->connectionlist) {
        ZQ_LOG(7, "unable to create the tcpserver connection list");
        return nullptr;
    }
    created->finishedlist = zq_list_create();
    if (!created->finishedlist) {
        ZQ_LOG(7, "unable to create the tcpserver finished list");
        return nullptr;
    }
    return created.release();
}

void zq_tcpserver_destroy(zqtcpserver *zqtcpserver)
{
    ZQ_ASSERT(zqtcpserver != NULL);

    if (zqtcpserver->acceptthread)
        zq_thread_destroy(zqtcpserver->acceptthread);
    if (zqtcpserver->listenhandle)
        zq_handle_destroy(zqtcpserver->listenhandle);
    zq_free(zqtcpserver->address);
    if (zqtcpserver->connectionlist)
        zq_list_destroy(zqtcpserver->connectionlist);
    if (zqtcpserver->finishedlist)
        zq_list_destroy(zqtcpserver->finishedlist);
    if (zqtcpserver->mutex)
        zq_mutex_destroy(zqtcpserver->mutex);
    zq_free(zqtcpserver);
}

// ---- configuration ----

zqerror zq_tcpserver_set_address(zqtcpserver *zqtcpserver, const char *address)
{
    ZQ_ASSERT(zqtcpserver != NULL);
    ZQ_ASSERT(address != NULL);

    char *copy = zq_strdup(address);
    if (!copy) {
        ZQ_LOG(7, "not enough memory for the listen address '%s'", address);
        return ZQ_ERROR_NO_MEMORY;
    }
    zq_free(zqtcpserver->address);
    zqtcpserver->address = copy;
    return ZQ_ERROR_NONE;
}

void zq_tcpserver_set_port(zqtcpserver *zqtcpserver, uint32_t port)
{
    ZQ_ASSERT(zqtcpserver != NULL);
    ZQ_ASSERT(port <= 65535);

    zqtcpserver->port = port;
}

void zq_tcpserver_set_callback(zqtcpserver *zqtcpserver, zq_tcpserver_callback callback,
                               void *context)
{
    ZQ_ASSERT(zqtcpserver != NULL);

    zqtcpserver->callback = callback;
    zqtcpserver->context = context;
}

// ---- the thread of a connection ----

static void *zq_tcpserver_connection_thread(void *context)
{
    auto *connection = static_cast<tcpserver_connection *>(context);
    zqtcpserver *server = connection->zqtcpserver;
    ZQ_ASSERT(connection->zqhandle != NULL);

    server->callback(server, connection->zqhandle, server->context);
    zq_handle_destroy(connection->zqhandle);
    connection->zqhandle = nullptr;

    mutex_lock lock(server->mutex);
    list_unlink(server->connectionlist, connection);
    list_append(server->finishedlist, connection);
    return nullptr;
}

// ---- the accepting thread ----

static void zq_tcpserver_join_finished(zqtcpserver *server)
{
    mutex_lock lock(server->mutex);
    while (auto *connection = list_take_first<tcpserver_connection>(server->finishedlist)) {
        ZQ_LOG(13, "joining finished connection %p", static_cast<void *>(connection));
        int ret = zq_thread_join(connection->zqthread, nullptr);
        ZQ_ASSERT(ret == 0);
        zq_tcpserver_connection_destroy(connection);
    }
}

// Takes over the handle, whatever happens.
static void zq_tcpserver_serve(zqtcpserver *server, zqhandle *clienthandle)
{
    owned<zqhandle, zq_handle_destroy> handle(clienthandle);
    owned<tcpserver_connection, zq_tcpserver_connection_destroy> connection(
        make_zeroed<tcpserver_connection>());
    if (!connection) {
        ZQ_LOG(7, "not enough memory for tcpserver connection structure");
        return;
    }
    connection->zqtcpserver = server;
    connection->zqhandle = handle.release();
    connection->zqthread = zq_thread_create();
    if (!connection->zqthread) {
        ZQ_LOG(7, "unable to create a thread for handling the connection");
        return;
    }

    // Held across the start: the thread cannot leave the list before it was put there.
    mutex_lock lock(server->mutex);
    if (zq_thread_start(connection->zqthread, zq_tcpserver_connection_thread, connection.get()) !=
        0) {
        ZQ_LOG(7, "unable to start a thread for handling the connection");
        return;
    }
    list_append(server->connectionlist, connection.release());
}

static void zq_tcpserver_accept(zqtcpserver *server)
{
    zqhandle *clienthandle;
    zqerror error = zq_handle_accept(server->listenhandle, &clienthandle);
    if (error == ZQ_ERROR_WAKEUP) {
        ZQ_LOG(9, "wakeup from accept requested");
        return;
    }
    if (error != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "accept returned %d (%s)", error, zq_error_string(error));
        return;
    }
    ZQ_LOG(13, "serving client handle %p", static_cast<void *>(clienthandle));
    ZQ_ASSERT(clienthandle != NULL);
    if (server->stop) {
        ZQ_LOG(8, "shutting down, closing the handle just accepted");
        zq_handle_destroy(clienthandle);
        return;
    }
    zq_tcpserver_serve(server, clienthandle);
}

static void *zq_tcpserver_accept_thread(void *context)
{
    auto *server = static_cast<zqtcpserver *>(context);
    while (!server->stop) {
        zq_tcpserver_join_finished(server);
        zq_tcpserver_accept(server);
    }
    return nullptr;
}

// ---- start, stop, wait ----

static void zq_tcpserver_set_listenhandle(zqtcpserver *server, zqhandle *listenhandle)
{
    mutex_lock lock(server->mutex);
    server->listenhandle = listenhandle;
}

zqerror zq_tcpserver_start(zqtcpserver *zqtcpserver)
{
    ZQ_ASSERT(zqtcpserver != NULL);

    if (zqtcpserver->listenhandle) {
        ZQ_LOG(7, "the TCP server is already listening to connections");
        return ZQ_ERROR_BUSY;
    }
    zqhandle *listening;
    zqerror error = zq_handle_tcp_listen(zqtcpserver->address, zqtcpserver->port, &listening);
    owned<zqhandle, zq_handle_destroy> listenhandle(listening);
    if (error != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to start listening to incoming TCP connections, error %d (%s)", error,
               zq_error_string(error));
        return error;
    }
    owned<zqthread, zq_thread_destroy> acceptthread(zq_thread_create());
    if (!acceptthread) {
        ZQ_LOG(7, "unable to create the accept thread");
        return ZQ_ERROR_NO_MEMORY;
    }
    // No thread may run while logging is not safe for threads.
    int threaded = zq_log_init_threaded();
    zq_tcpserver_set_listenhandle(zqtcpserver, listenhandle.get());
    if (threaded != 0 ||
        zq_thread_start(acceptthread.get(), zq_tcpserver_accept_thread, zqtcpserver) != 0) {
        ZQ_LOG(7, "unable to start the accept thread");
        zq_tcpserver_set_listenhandle(zqtcpserver, nullptr);
        return ZQ_ERROR_NO_MEMORY;
    }
    listenhandle.release();
    zqtcpserver->acceptthread = acceptthread.release();
    return ZQ_ERROR_NONE;
}

zqerror zq_tcpserver_run(zqtcpserver *zqtcpserver)
{
    ZQ_ASSERT(zqtcpserver != NULL);

    zqerror error = zq_tcpserver_start(zqtcpserver);
    if (error != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "unable to start the TCP server");
        return error;
    }
    zq_tcpserver_wait(zqtcpserver);
    return ZQ_ERROR_NONE;
}

void zq_tcpserver_stop(zqtcpserver *zqtcpserver)
{
    ZQ_ASSERT(zqtcpserver != NULL);

    mutex_lock lock(zqtcpserver->mutex);
    zqtcpserver->stop = true;
    if (zqtcpserver->listenhandle) {
        ZQ_LOG(10, "waking up the accept thread");
        zq_handle_wakeup(zqtcpserver->listenhandle);
    }
}

static tcpserver_connection *zq_tcpserver_first_connection(zqtcpserver *server)
{
    mutex_lock lock(server->mutex);
    return list_first<tcpserver_connection>(server->connectionlist);
}

void zq_tcpserver_wait(zqtcpserver *zqtcpserver)
{
    ZQ_ASSERT(zqtcpserver != NULL);

    int ret = zq_thread_join(zqtcpserver->acceptthread, nullptr);
    ZQ_ASSERT(ret == 0);
    while (auto *zqtcpserverconnection = zq_tcpserver_first_connection(zqtcpserver)) {
        ZQ_ASSERT(zqtcpserverconnection->zqthread != NULL);
        ZQ_LOG(13, "waiting for connection %p thread to exit",
               static_cast<void *>(zqtcpserverconnection));
        ret = zq_thread_join(zqtcpserverconnection->zqthread, nullptr);
        ZQ_ASSERT(ret == 0);

        mutex_lock lock(zqtcpserver->mutex);
        ZQ_ASSERT(zqtcpserver->connectionlist->head != zqtcpserverconnection);
        list_unlink(zqtcpserver->finishedlist, zqtcpserverconnection);
        zq_tcpserver_connection_destroy(zqtcpserverconnection);
    }
    zq_tcpserver_join_finished(zqtcpserver);
}

zqerror zq_tcpserver_get_port(zqtcpserver *zqtcpserver, uint32_t *portptr)
{
    ZQ_ASSERT(zqtcpserver != NULL);
    ZQ_ASSERT(portptr != NULL);

    zqerror error = zq_handle_get_local_port(zqtcpserver->listenhandle, portptr);
    if (error != ZQ_ERROR_NONE)
        ZQ_LOG(7, "unable to fetch the local TCP port number from the handle, error %d (%s)", error,
               zq_error_string(error));
    return error;
}
