#ifndef ZQ_INTERNAL_ZQEARLYREPLY_H
#define ZQ_INTERNAL_ZQEARLYREPLY_H

#include "zq/internal/zqbodystore.h"
#include "zq/io/zqhandle.h"
#include "zq/util/zqtimeout.h"

// What a server has answered before the request was out. A server that streams its answer stops
// reading once its own writes find no room; taking its bytes while ours are stuck gets both going.
struct early_reply {
    body_store bytes;
    size_t taken; // of the stored bytes, how many have been read
};

// Stores what the handle can give without waiting, until the timeout expires: a server that goes on
// answering must not outlast it. False when out of memory.
bool early_reply_collect(early_reply *early, zqhandle *handle, zqtimeout *timeout);

void early_reply_clear(early_reply *early);

// zq_handle_read() and zq_handle_read_line() that begin with the stored bytes.
size_t early_reply_read(early_reply *early, zqhandle *handle, char *buf, size_t count);
size_t early_reply_read_line(early_reply *early, zqhandle *handle, char *buf, size_t size);

#endif
