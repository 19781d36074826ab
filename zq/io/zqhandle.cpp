#include "zq/io/zqhandle.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/util/zqtimeout.h"

static constexpr size_t READ_BUFFER_SIZE = 4096;

namespace {
struct timeout_pair {
    int32_t seconds; // -1 without a limit
    uint32_t microseconds;
};
} // namespace

struct zqhandle {
    zqtimeout *timeout;         // the deadline of a line
    std::atomic<zqerror> error; // atomic because zq_handle_wakeup() stores it from other threads
    timeout_pair write_timeout;
    timeout_pair read_timeout;
    // The unread bytes are those from `readbufferpos` to `readbufferuse`.
    char *readbuffer; // null until the first line is read
    size_t readbuffersize;
    size_t readbufferpos;
    size_t readbufferuse;
    void *context;
    zq_handle_destroy_callback destroy_callback;
    zq_handle_connect_callback connect_callback;
    zq_handle_connect_wait_callback connect_wait_callback;
    zq_handle_read_callback read_callback;
    zq_handle_write_callback write_callback;
    zq_handle_poll_write_callback poll_write_callback;
    zq_handle_local_port_callback local_port_callback;
    zq_handle_accept_callback accept_callback;
    zq_handle_wakeup_callback wakeup_callback;
};

static void zq_handle_store_error(zqhandle *handle, zqerror error)
{
    handle->error.store(error, std::memory_order_relaxed);
}

static zqerror zq_handle_load_error(const zqhandle *handle)
{
    return handle->error.load(std::memory_order_relaxed);
}

// ---- life ----

zqhandle *zq_handle_create(void)
{
    owned_block<zqhandle> created(make_zeroed<zqhandle>());
    if (!created) {
        ZQ_LOG(7, "not enough memory for zqhandle");
        return nullptr;
    }
    created->timeout = zq_timeout_create();
    if (!created->timeout)
        return nullptr;
    created->write_timeout = {-1, 0};
    created->read_timeout = {-1, 0};
    return created.release();
}

static void zq_handle_free_read_buffer(zqhandle *handle)
{
    zq_free(handle->readbuffer);
    handle->readbuffer = nullptr;
    handle->readbuffersize = 0;
    handle->readbufferpos = 0;
    handle->readbufferuse = 0;
}

void zq_handle_destroy(zqhandle *zqhandle)
{
    ZQ_ASSERT(zqhandle != NULL);

    if (zqhandle->destroy_callback)
        zqhandle->destroy_callback(zqhandle);
    zq_handle_free_read_buffer(zqhandle);
    zq_timeout_destroy(zqhandle->timeout);
    zq_free(zqhandle);
}

// ---- what an implementation sets ----

void zq_handle_set_context(zqhandle *zqhandle, void *context)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqhandle->context = context;
}

void *zq_handle_get_context(zqhandle *zqhandle)
{
    ZQ_ASSERT(zqhandle != NULL);

    return zqhandle->context;
}

void zq_handle_set_error(zqhandle *zqhandle, zqerror code)
{
    ZQ_ASSERT(zqhandle != NULL);
    ZQ_ASSERT_TEXT(code < ZQ_ERROR_COUNT, "zqerror < ZQ_ERROR_COUNT");

    zq_handle_store_error(zqhandle, code);
}

void zq_handle_set_destroy_callback(zqhandle *zqhandle, zq_handle_destroy_callback callback)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqhandle->destroy_callback = callback;
}

void zq_handle_set_connect_callback(zqhandle *zqhandle, zq_handle_connect_callback callback)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqhandle->connect_callback = callback;
}

void zq_handle_set_connect_wait_callback(zqhandle *zqhandle,
                                         zq_handle_connect_wait_callback callback)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqhandle->connect_wait_callback = callback;
}

void zq_handle_set_read_callback(zqhandle *zqhandle, zq_handle_read_callback callback)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqhandle->read_callback = callback;
}

void zq_handle_set_write_callback(zqhandle *zqhandle, zq_handle_write_callback callback)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqhandle->write_callback = callback;
}

void zq_handle_set_poll_write_callback(zqhandle *zqhandle, zq_handle_poll_write_callback callback)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqhandle->poll_write_callback = callback;
}

void zq_handle_set_local_port_callback(zqhandle *zqhandle, zq_handle_local_port_callback callback)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqhandle->local_port_callback = callback;
}

void zq_handle_set_accept_callback(zqhandle *zqhandle, zq_handle_accept_callback callback)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqhandle->accept_callback = callback;
}

void zq_handle_set_wakeup_callback(zqhandle *zqhandle, zq_handle_wakeup_callback callback)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqhandle->wakeup_callback = callback;
}

// ---- timeouts and error ----

static timeout_pair zq_handle_normalize_timeout(int32_t seconds, uint32_t microseconds)
{
    return seconds < 0 ? timeout_pair{-1, 0} : timeout_pair{seconds, microseconds};
}

void zq_handle_set_write_timeout(zqhandle *zqhandle, int32_t seconds, uint32_t microseconds)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqhandle->write_timeout = zq_handle_normalize_timeout(seconds, microseconds);
}

void zq_handle_get_write_timeout(zqhandle *zqhandle, int32_t *secondsptr, uint32_t *microsecondsptr)
{
    ZQ_ASSERT(zqhandle != NULL);
    ZQ_ASSERT(secondsptr != NULL);
    ZQ_ASSERT(microsecondsptr != NULL);

    *secondsptr = zqhandle->write_timeout.seconds;
    *microsecondsptr = zqhandle->write_timeout.microseconds;
}

void zq_handle_set_read_timeout(zqhandle *zqhandle, int32_t seconds, uint32_t microseconds)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqhandle->read_timeout = zq_handle_normalize_timeout(seconds, microseconds);
}

void zq_handle_get_read_timeout(zqhandle *zqhandle, int32_t *secondsptr, uint32_t *microsecondsptr)
{
    ZQ_ASSERT(zqhandle != NULL);
    ZQ_ASSERT(secondsptr != NULL);
    ZQ_ASSERT(microsecondsptr != NULL);

    *secondsptr = zqhandle->read_timeout.seconds;
    *microsecondsptr = zqhandle->read_timeout.microseconds;
}

zqerror zq_handle_get_error(zqhandle *zqhandle)
{
    ZQ_ASSERT(zqhandle != NULL);

    return zq_handle_load_error(zqhandle);
}

// ---- connecting ----

static zqerror zq_handle_start_connecting(zqhandle *handle, const char *name, uint32_t port)
{
    if (!handle->connect_callback) {
        ZQ_LOG(6, "this handle cannot be used to connect");
        return ZQ_ERROR_UNSUPPORTED;
    }
    return handle->connect_callback(handle, name, port);
}

zqerror zq_handle_connect_begin(zqhandle *zqhandle, const char *name, uint32_t port)
{
    ZQ_ASSERT(zqhandle != NULL);
    ZQ_ASSERT(name != NULL);
    ZQ_ASSERT(port > 0);
    ZQ_ASSERT(port < 65536);

    return zq_handle_start_connecting(zqhandle, name, port);
}

zqerror zq_handle_connect_wait(zqhandle *zqhandle)
{
    ZQ_ASSERT(zqhandle != NULL);

    if (!zqhandle->connect_wait_callback) {
        ZQ_LOG(6, "this handle cannot be used to wait for connection");
        return ZQ_ERROR_UNSUPPORTED;
    }
    return zqhandle->connect_wait_callback(zqhandle);
}

zqerror zq_handle_connect(zqhandle *zqhandle, const char *name, uint32_t port)
{
    ZQ_ASSERT(zqhandle != NULL);
    ZQ_ASSERT(name != NULL);
    ZQ_ASSERT(port > 0);
    ZQ_ASSERT(port < 65536);

    zqerror result = zq_handle_start_connecting(zqhandle, name, port);
    if (result == ZQ_ERROR_IN_PROGRESS && !zqhandle->connect_wait_callback) {
        ZQ_LOG(6, "connect in progress but no wait callback available");
        return result;
    }
    while (result == ZQ_ERROR_IN_PROGRESS)
        result = zqhandle->connect_wait_callback(zqhandle);
    return result;
}

// ---- reading ----

static size_t zq_handle_unread(const zqhandle *handle)
{
    return handle->readbufferuse - handle->readbufferpos;
}

static void zq_handle_take_unread(zqhandle *handle, void *buf, size_t count)
{
    memcpy(buf, handle->readbuffer + handle->readbufferpos, count);
    handle->readbufferpos += count;
}

static void zq_handle_reading_unsupported(zqhandle *handle)
{
    ZQ_LOG(6, "this handle cannot be used for reading");
    zq_handle_store_error(handle, ZQ_ERROR_UNSUPPORTED);
}

size_t zq_handle_read(zqhandle *zqhandle, void *buf, size_t count)
{
    ZQ_ASSERT(zqhandle != NULL);
    ZQ_ASSERT(buf != NULL);
    ZQ_ASSERT(count > 0);

    zq_handle_store_error(zqhandle, ZQ_ERROR_NONE);
    size_t result = 0;
    if (zqhandle->readbuffer) {
        result = std::min(count, zq_handle_unread(zqhandle));
        zq_handle_take_unread(zqhandle, buf, result);
        if (result == count)
            return result;
        ZQ_ASSERT(zqhandle->readbufferpos == zqhandle->readbufferuse);
        zq_handle_free_read_buffer(zqhandle);
    }
    if (zqhandle->read_callback) {
        char *rest = static_cast<char *>(buf) + result;
        result += zqhandle->read_callback(zqhandle, rest, count - result);
        if (result > 0)
            zq_handle_store_error(zqhandle, ZQ_ERROR_NONE);
    } else if (result == 0) {
        zq_handle_reading_unsupported(zqhandle);
    }
    ZQ_ASSERT_TEXT(result > 0 || zq_handle_load_error(zqhandle) != ZQ_ERROR_NONE,
                   "result > 0 || zqhandle->error != ZQ_ERROR_NONE");
    return result;
}

// ---- reading lines ----

// How many of `count` bytes belong to the line, its line feed included.
static size_t zq_handle_line_part(const char *bytes, size_t count, bool *complete)
{
    const void *feed = memchr(bytes, '\n', count);
    *complete = feed != nullptr;
    return feed ? static_cast<size_t>(static_cast<const char *>(feed) - bytes) + 1 : count;
}

static bool zq_handle_make_read_buffer(zqhandle *handle)
{
    if (!handle->readbuffer) {
        handle->readbuffer = static_cast<char *>(zq_malloc(READ_BUFFER_SIZE));
        handle->readbuffersize = handle->readbuffer ? READ_BUFFER_SIZE : 0;
    }
    return handle->readbuffer != nullptr;
}

// Gives the read callback what is left of the line's time; false when nothing is.
static bool zq_handle_line_time_left(zqhandle *handle)
{
    if (zq_timeout_check(handle->timeout, &handle->read_timeout.seconds,
                         &handle->read_timeout.microseconds) != 1)
        return true;
    zq_handle_store_error(handle, ZQ_ERROR_TIMED_OUT);
    return false;
}

// Reads one chunk at most as large as the read buffer; 0 when that failed.
static size_t zq_handle_read_chunk(zqhandle *handle, char *bytes, size_t space)
{
    size_t chunk = handle->read_callback(handle, bytes, std::min(space, handle->readbuffersize));
    if (chunk == 0) {
        zqerror error = zq_handle_load_error(handle);
        if (error != ZQ_ERROR_END_OF_FILE && error != ZQ_ERROR_TIMED_OUT)
            ZQ_LOG(7, "unable to read data from the handle, error %d (%s)", error,
                   zq_error_string(error));
    }
    return chunk;
}

// Continues a line of `total` bytes from the callback, the read buffer being empty. Reads into the
// caller's memory; the buffer takes what follows the line, which fits as no chunk is larger.
static size_t zq_handle_read_line_chunks(zqhandle *handle, char *line, size_t total, size_t size)
{
    bool complete = false;
    while (!complete && total < size && zq_handle_line_time_left(handle)) {
        size_t chunk = zq_handle_read_chunk(handle, line + total, size - total);
        if (chunk == 0)
            break;
        size_t part = zq_handle_line_part(line + total, chunk, &complete);
        total += part;
        memcpy(handle->readbuffer, line + total, chunk - part);
        handle->readbufferpos = 0;
        handle->readbufferuse = chunk - part;
    }
    return total;
}

static size_t zq_handle_read_line_buffered(zqhandle *handle, char *line, size_t size)
{
    size_t total = 0;
    if (zq_handle_unread(handle) > 0) {
        bool complete;
        size_t part = zq_handle_line_part(handle->readbuffer + handle->readbufferpos,
                                          zq_handle_unread(handle), &complete);
        total = std::min(part, size);
        zq_handle_take_unread(handle, line, total);
        if (complete || total == size)
            return total;
    }
    if (handle->read_callback)
        return zq_handle_read_line_chunks(handle, line, total, size);
    if (total == 0)
        zq_handle_reading_unsupported(handle);
    return total;
}

// Without a buffer nothing may be read past the line, so bytes come one at a time.
static size_t zq_handle_read_line_unbuffered(zqhandle *handle, char *line, size_t size)
{
    if (!handle->read_callback) {
        zq_handle_reading_unsupported(handle);
        return 0;
    }
    size_t total = 0;
    while (total < size && handle->read_callback(handle, line + total, 1) > 0) {
        if (line[total++] == '\n')
            break;
    }
    return total;
}

size_t zq_handle_read_line(zqhandle *zqhandle, void *buf, size_t size)
{
    ZQ_ASSERT(zqhandle != NULL);
    ZQ_ASSERT(buf != NULL);
    ZQ_ASSERT(size > 0);

    timeout_pair saved = zqhandle->read_timeout;
    zq_timeout_set(zqhandle->timeout, saved.seconds, saved.microseconds);
    zq_handle_store_error(zqhandle, ZQ_ERROR_NONE);
    char *line = static_cast<char *>(buf);
    size_t result = zq_handle_make_read_buffer(zqhandle)
                        ? zq_handle_read_line_buffered(zqhandle, line, size)
                        : zq_handle_read_line_unbuffered(zqhandle, line, size);
    ZQ_ASSERT_TEXT(result > 0 || zq_handle_load_error(zqhandle) != ZQ_ERROR_NONE,
                   "result > 0 || zqhandle->error != ZQ_ERROR_NONE");
    zqhandle->read_timeout = saved;
    return result;
}

// ---- writing ----

// After a write of nothing: true when the handle is ready to be written to again.
static bool zq_handle_recover_write(zqhandle *handle)
{
    zqerror error = zq_handle_load_error(handle);
    if (error != ZQ_ERROR_WOULD_BLOCK) {
        ZQ_LOG(7, "zqhandle write returned error %d (%s)", error, zq_error_string(error));
        return false;
    }
    zq_handle_store_error(handle, ZQ_ERROR_NONE);
    if (!handle->poll_write_callback) {
        // The error stays ZQ_ERROR_NONE, which is meant: callers know by the short count.
        ZQ_LOG(7, "zqhandle write would block but the handle does not have support for polling "
                  "writes");
        return false;
    }
    error = handle->poll_write_callback(handle);
    if (error == ZQ_ERROR_NONE)
        return true;
    if (error != ZQ_ERROR_TIMED_OUT)
        ZQ_LOG(7, "poll write callback returned error %d (%s)", error, zq_error_string(error));
    zq_handle_store_error(handle, error);
    return false;
}

size_t zq_handle_write(zqhandle *zqhandle, const void *buf, size_t count)
{
    ZQ_ASSERT(zqhandle != NULL);
    ZQ_ASSERT(buf != NULL);
    ZQ_ASSERT(count > 0);

    if (!zqhandle->write_callback) {
        ZQ_LOG(6, "this handle cannot be used for writing");
        zq_handle_store_error(zqhandle, ZQ_ERROR_UNSUPPORTED);
        return 0;
    }
    zq_handle_store_error(zqhandle, ZQ_ERROR_NONE);
    const char *bytes = static_cast<const char *>(buf);
    size_t total = 0;
    while (total < count) {
        size_t written = zqhandle->write_callback(zqhandle, bytes + total, count - total);
        if (written == 0 && !zq_handle_recover_write(zqhandle))
            break;
        total += written;
    }
    return total;
}

// ---- listening ----

zqerror zq_handle_get_local_port(zqhandle *zqhandle, uint32_t *portptr)
{
    ZQ_ASSERT(zqhandle != NULL);
    ZQ_ASSERT(portptr != NULL);

    if (!zqhandle->local_port_callback) {
        ZQ_LOG(6, "this handle does not support getting the local port number");
        return ZQ_ERROR_UNSUPPORTED;
    }
    zqerror result = zqhandle->local_port_callback(zqhandle, portptr);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "getting the local port for the handle failed, error %d (%s)", result,
               zq_error_string(result));
    return result;
}

static zqerror zq_handle_accept_connection(zqhandle *handle, zqhandle **connectionhandleptr)
{
    if (!handle->accept_callback) {
        ZQ_LOG(6, "this handle does not support accepting incoming connections");
        return ZQ_ERROR_UNSUPPORTED;
    }
    zqerror result = handle->accept_callback(handle, connectionhandleptr);
    if (result != ZQ_ERROR_NONE && result != ZQ_ERROR_TIMED_OUT && result != ZQ_ERROR_WAKEUP)
        ZQ_LOG(7, "accepting an incoming connection failed, error %d (%s)", result,
               zq_error_string(result));
    return result;
}

zqerror zq_handle_accept(zqhandle *zqhandle, struct zqhandle **connectionhandleptr)
{
    ZQ_ASSERT(zqhandle != NULL);
    ZQ_ASSERT(connectionhandleptr != NULL);

    *connectionhandleptr = nullptr;
    zqerror result = zq_handle_accept_connection(zqhandle, connectionhandleptr);
    zq_handle_store_error(zqhandle, result);
    return result;
}

static zqerror zq_handle_wake(zqhandle *handle)
{
    if (!handle->wakeup_callback) {
        ZQ_LOG(6, "this handle does not support waking up");
        return ZQ_ERROR_UNSUPPORTED;
    }
    zqerror result = handle->wakeup_callback(handle);
    if (result != ZQ_ERROR_NONE)
        ZQ_LOG(7, "waking up a handle failed, error %d (%s)", result, zq_error_string(result));
    return result;
}

zqerror zq_handle_wakeup(zqhandle *zqhandle)
{
    ZQ_ASSERT(zqhandle != NULL);

    zqerror result = zq_handle_wake(zqhandle);
    zq_handle_store_error(zqhandle, result);
    return result;
}
