#ifndef ZQ_UTIL_ZQSIGNAL_H
#define ZQ_UTIL_ZQSIGNAL_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Hooks for the signals that end a program. Registration is meant for start-up, before there are
 * other threads; a signal that arrives in the registering thread meanwhile finds the old hook or
 * the new one complete, never a mixture. */

/* A signal, by its POSIX number on every platform. */
typedef int zqsignal;
enum {
    ZQ_SIGNAL_NONE = 0,
    ZQ_SIGNAL_SIGINT = 2,
    ZQ_SIGNAL_SIGPIPE = 13,
    ZQ_SIGNAL_SIGTERM = 15,
    ZQ_SIGNAL_COUNT = 16
};

/* Runs inside the signal handler, so it may only do what is safe there; errno is kept for it. */
typedef void (*zq_signal_callback)(zqsignal signal, void *context);

/* zq_signal_register_sigint makes SIGINT call `callback`, or gives SIGINT its default effect again
 * when that is null. Returns 0, or -1 when the platform refuses; nothing is then registered. */
ZQ_API int zq_signal_register_sigint(zq_signal_callback callback, void *context);

/* zq_signal_register_sigterm is zq_signal_register_sigint() for SIGTERM. */
ZQ_API int zq_signal_register_sigterm(zq_signal_callback callback, void *context);

/* zq_signal_ignore_sigpipe makes writing to a closed connection an error instead of the end of the
 * process. The library never does this itself: a program that uses sockets calls it once at start.
 * Returns 0, or -1 when the platform refuses. */
ZQ_API int zq_signal_ignore_sigpipe(void);

ZQ_END_DECLS

#endif
