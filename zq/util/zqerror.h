#ifndef ZQ_UTIL_ZQERROR_H
#define ZQ_UTIL_ZQERROR_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* The result code of most operations. Conditions that the operating system knows carry their Linux
 * errno number on every platform; the library's own begin at 200. */
typedef uint32_t zqerror;

/* One row a code: constant, number, text. */
#define ZQ_ERROR_TABLE(ROW)                                                                        \
    ROW(ZQ_ERROR_NONE, 0, "success")                                                               \
    ROW(ZQ_ERROR_INTERRUPTED, 4, "interrupted system call")                                        \
    ROW(ZQ_ERROR_WOULD_BLOCK, 11, "would block")                                                   \
    ROW(ZQ_ERROR_NO_MEMORY, 12, "not enough memory")                                               \
    ROW(ZQ_ERROR_PERMISSION_DENIED, 13, "permission denied")                                       \
    ROW(ZQ_ERROR_EXISTS, 17, "item already exists")                                                \
    ROW(ZQ_ERROR_NOT_DIRECTORY, 20, "not a directory")                                             \
    ROW(ZQ_ERROR_INVALID_ARGUMENT, 22, "invalid argument")                                         \
    ROW(ZQ_ERROR_NO_SPACE, 28, "no space left on device")                                          \
    ROW(ZQ_ERROR_READ_ONLY_FILESYSTEM, 30, "read-only file system")                                \
    ROW(ZQ_ERROR_TOO_MANY_LINKS, 31, "too many links")                                             \
    ROW(ZQ_ERROR_BROKEN_PIPE, 32, "broken pipe")                                                   \
    ROW(ZQ_ERROR_OUT_OF_RANGE, 34, "out of range")                                                 \
    ROW(ZQ_ERROR_NAME_TOO_LONG, 36, "name is too long")                                            \
    ROW(ZQ_ERROR_NOT_IMPLEMENTED, 38, "function not implemented")                                  \
    ROW(ZQ_ERROR_SYMLINK_LOOP, 40, "too many symbolic links")                                      \
    ROW(ZQ_ERROR_TIMER_EXPIRED, 62, "timer expired")                                               \
    ROW(ZQ_ERROR_PROTOCOL, 71, "protocol error")                                                   \
    ROW(ZQ_ERROR_MESSAGE_TOO_LONG, 90, "message too long")                                         \
    ROW(ZQ_ERROR_NETWORK_UNREACHABLE, 101, "network unreachable")                                  \
    ROW(ZQ_ERROR_CONNECTION_RESET, 104, "connection reset by peer")                                \
    ROW(ZQ_ERROR_CONNECTION_TIMED_OUT, 110, "connection timed out")                                \
    ROW(ZQ_ERROR_CONNECTION_REFUSED, 111, "connection refused")                                    \
    ROW(ZQ_ERROR_IN_PROGRESS, 115, "operation in progress")                                        \
    ROW(ZQ_ERROR_CANCELED, 125, "operation canceled")                                              \
    ROW(ZQ_ERROR_CANNOT_CONNECT, 200, "cannot connect")                                            \
    ROW(ZQ_ERROR_TIMED_OUT, 201, "timed out")                                                      \
    ROW(ZQ_ERROR_GENERIC, 202, "generic error")                                                    \
    ROW(ZQ_ERROR_WRITE, 203, "write error")                                                        \
    ROW(ZQ_ERROR_END_OF_FILE, 204, "end of file")                                                  \
    ROW(ZQ_ERROR_UNSUPPORTED, 205, "unsupported operation")                                        \
    ROW(ZQ_ERROR_BUSY, 206, "resource is busy")                                                    \
    ROW(ZQ_ERROR_NOT_FOUND, 207, "item not found")                                                 \
    ROW(ZQ_ERROR_INTERNAL, 208, "internal error")                                                  \
    ROW(ZQ_ERROR_SYNTAX, 209, "invalid syntax")                                                    \
    ROW(ZQ_ERROR_RESOLVE_HOST, 210, "unable to resolve host")                                      \
    ROW(ZQ_ERROR_SERVER, 211, "server returned an error")                                          \
    ROW(ZQ_ERROR_BAD_HANDLE, 212, "bad handle")                                                    \
    ROW(ZQ_ERROR_WAKEUP, 213, "wakeup requested")                                                  \
    ROW(ZQ_ERROR_INCOMPLETE, 214, "operation incomplete")

#define ZQ_ERROR_ENUM_ROW(constant, number, text) constant = number,
enum {
    ZQ_ERROR_TABLE(ZQ_ERROR_ENUM_ROW) ZQ_ERROR_COUNT = 215 /* one past the largest code */
};
#undef ZQ_ERROR_ENUM_ROW

/* zq_error_string returns the text of `code`, or "unknown error" for a number without a row.
 * Never null; the text is static. Any thread, at any time. */
ZQ_API const char *zq_error_string(zqerror code);

ZQ_END_DECLS

#endif
