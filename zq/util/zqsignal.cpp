#include "zq/util/zqsignal.h"

#include <atomic>
#include <cerrno>
#include <csignal>

#include "zq/internal/zqassert.h"

namespace {
struct signal_hook {
    zq_signal_callback callback;
    void *context;
};

// A new hook is written to the place that is not current and then made current in one store, so
// that a handler which interrupts the registration finds a whole one.
struct signal_entry {
    signal_hook hooks[2];
    std::atomic<const signal_hook *> current; // null when nothing is registered
};
} // namespace

static_assert(std::atomic<const signal_hook *>::is_always_lock_free);

static constinit signal_entry zq_signal_table[ZQ_SIGNAL_COUNT] = {};

// ---- the handlers ----

static void zq_signal_dispatch(zqsignal which)
{
    int interrupted_errno = errno;
    const signal_hook *hook = zq_signal_table[which].current.load(std::memory_order_acquire);
    if (hook)
        hook->callback(which, hook->context);
    errno = interrupted_errno;
}

static void zq_signal_handle_sigint(int)
{
    zq_signal_dispatch(ZQ_SIGNAL_SIGINT);
}

static void zq_signal_handle_sigterm(int)
{
    zq_signal_dispatch(ZQ_SIGNAL_SIGTERM);
}

// ---- registration ----

static void zq_signal_store(signal_entry *entry, zq_signal_callback callback, void *context)
{
    const signal_hook *current = entry->current.load(std::memory_order_relaxed);
    signal_hook *next = &entry->hooks[current == &entry->hooks[0] ? 1 : 0];
    *next = {callback, context};
    entry->current.store(callback ? next : nullptr, std::memory_order_release);
}

static int zq_signal_register(zqsignal which, zq_signal_callback callback, void *context)
{
    ZQ_ASSERT_TEXT(which > ZQ_SIGNAL_NONE, "zqsignal > ZQ_SIGNAL_NONE");
    ZQ_ASSERT_TEXT(which < ZQ_SIGNAL_COUNT, "zqsignal < ZQ_SIGNAL_COUNT");

    int number;
    void (*handler)(int);
    switch (which) {
    case ZQ_SIGNAL_SIGINT:
        number = SIGINT;
        handler = zq_signal_handle_sigint;
        break;
    case ZQ_SIGNAL_SIGTERM:
        number = SIGTERM;
        handler = zq_signal_handle_sigterm;
        break;
    default:
        return -1;
    }

    signal_entry *entry = &zq_signal_table[which];
    zq_signal_store(entry, callback, context);
    if (signal(number, callback ? handler : SIG_DFL) == SIG_ERR) {
        zq_signal_store(entry, nullptr, nullptr);
        return -1;
    }
    return 0;
}

int zq_signal_register_sigint(zq_signal_callback callback, void *context)
{
    return zq_signal_register(ZQ_SIGNAL_SIGINT, callback, context);
}

int zq_signal_register_sigterm(zq_signal_callback callback, void *context)
{
    return zq_signal_register(ZQ_SIGNAL_SIGTERM, callback, context);
}

static int zq_signal_ignore(zqsignal which)
{
    if (which != ZQ_SIGNAL_SIGPIPE)
        return -1;
    return signal(SIGPIPE, SIG_IGN) == SIG_ERR ? -1 : 0;
}

int zq_signal_ignore_sigpipe(void)
{
    return zq_signal_ignore(ZQ_SIGNAL_SIGPIPE);
}
