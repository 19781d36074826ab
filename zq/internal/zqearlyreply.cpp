#include "zq/internal/zqearlyreply.h"

#include <algorithm>
#include <cstring>

bool early_reply_collect(early_reply *early, zqhandle *handle, zqtimeout *timeout)
{
    // Not 0: a timeout of 0 has expired before the first look at what is there.
    zq_handle_set_read_timeout(handle, 0, 1000);
    char piece[16384];
    while (zq_timeout_check(timeout, nullptr, nullptr) != 1) {
        const size_t count = zq_handle_read(handle, piece, sizeof(piece));
        if (count == 0)
            break;
        if (!body_store_append(&early->bytes, piece, count))
            return false;
    }
    return true;
}

void early_reply_clear(early_reply *early)
{
    body_store_clear(&early->bytes);
    early->taken = 0;
}

size_t early_reply_read(early_reply *early, zqhandle *handle, char *buf, size_t count)
{
    size_t stored = std::min(count, early->bytes.position - early->taken);
    if (stored == 0)
        return zq_handle_read(handle, buf, count);
    memcpy(buf, early->bytes.data + early->taken, stored);
    early->taken += stored;
    return stored;
}

size_t early_reply_read_line(early_reply *early, zqhandle *handle, char *buf, size_t size)
{
    size_t stored = std::min(size, early->bytes.position - early->taken);
    if (stored == 0)
        return zq_handle_read_line(handle, buf, size);
    const unsigned char *start = early->bytes.data + early->taken;
    const void *linefeed = memchr(start, '\n', stored);
    if (linefeed)
        stored = static_cast<size_t>(static_cast<const unsigned char *>(linefeed) - start) + 1;
    memcpy(buf, start, stored);
    early->taken += stored;
    if (linefeed || stored == size)
        return stored;
    return stored + zq_handle_read_line(handle, buf + stored, size - stored);
}
