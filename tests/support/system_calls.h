#ifndef TESTS_SUPPORT_SYSTEM_CALLS_H
#define TESTS_SUPPORT_SYSTEM_CALLS_H

// Lets a test note and decide the system calls that its program defines with DEFINE_SYSTEM_CALL().

#include <atomic>
#include <cerrno>
#include <climits>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/interpose.h"

// ---- what a call can come to besides failing with an errno ----

// Anything else below 0 is returned as it is, like the errors of getaddrinfo().
constexpr int PASS = 0;
constexpr int SHORT = INT_MIN;        // half the bytes are read or written
constexpr int NOTHING = INT_MIN + 1;  // 0 or null: the end of the data, or the time is over
constexpr int NO_EVENT = INT_MIN + 2; // poll() alone: an event that nobody asked for

// ---- seeing the calls and deciding them ----

struct SystemCall {
    std::string name;
    std::string path = ""; // of the file that it names, if any
    size_t size = 0;       // the bytes to read or write
    int flags = 0;         // of opening
    size_t nth = 0;        // among the calls of this name, from 1
    size_t number = 0;     // among all calls, from 1
};

// While it lives, notes the calls of its thread, or of the whole process, and asks what they come
// to: an errno or one of the outcomes above. A thread's own goes before that of the process.
class SystemCalls {
  public:
    enum Scope { THREAD, PROCESS };
    // May make calls of its own, which are not noted.
    using Decision = std::function<int(const SystemCall &)>;

    explicit SystemCalls(Decision decision = nullptr, Scope scope_ = THREAD)
        : decide(std::move(decision)), scope(scope_),
          before(scope == THREAD ? of_thread : of_process.load())
    {
        install(this);
    }
    ~SystemCalls() { install(before); }
    SystemCalls(const SystemCalls &) = delete;
    SystemCalls &operator=(const SystemCalls &) = delete;

    // The calls so far.
    std::vector<SystemCall> seen;

    // Whether the calls of this thread are noted.
    static bool watched() { return !ignoring && (of_thread || of_process); }

    static int outcome_of(SystemCall call) { return watched() ? decided(std::move(call)) : PASS; }

    // What an interposed function comes to; `real` makes the call with a number of bytes.
    template <class Real>
    static auto make(SystemCall call, Real real) -> decltype(real(size_t()))
    {
        using Result = decltype(real(size_t()));
        const size_t size = call.size;
        const bool closes = call.name.starts_with("close"); // which frees, also when it fails
        const int outcome = outcome_of(std::move(call));
        if (outcome == PASS || outcome == SHORT)
            return real(outcome == SHORT ? size / 2 : size);
        if (closes)
            real(size);
        if (outcome > 0)
            errno = outcome;
        if constexpr (std::is_pointer_v<Result>)
            return nullptr;
        else
            return outcome > 0 ? -1 : outcome == NOTHING ? 0 : outcome == NO_EVENT ? 1 : outcome;
    }

  private:
    friend class IgnoredCalls;

    void install(SystemCalls *calls)
    {
        if (scope == THREAD)
            of_thread = calls;
        else
            of_process = calls;
    }

    static int decided(SystemCall call);

    const Decision decide;
    const Scope scope;
    SystemCalls *const before;
    std::map<std::string, size_t> counts;
    std::mutex mutex;
    static inline thread_local SystemCalls *of_thread = nullptr;
    static inline thread_local bool ignoring = false;
    static inline std::atomic<SystemCalls *> of_process{nullptr};
};

// While it lives, the calls of its thread pass unnoted: those of a test's own server, say.
class IgnoredCalls {
  public:
    IgnoredCalls() : before(std::exchange(SystemCalls::ignoring, true)) {}
    ~IgnoredCalls() { SystemCalls::ignoring = before; }
    IgnoredCalls(const IgnoredCalls &) = delete;
    IgnoredCalls &operator=(const IgnoredCalls &) = delete;

  private:
    const bool before;
};

inline int SystemCalls::decided(SystemCall call)
{
    const int error = errno;
    IgnoredCalls ignored;
    SystemCalls *calls = of_thread ? of_thread : of_process.load();
    std::lock_guard lock(calls->mutex);
    call.nth = ++calls->counts[call.name];
    call.number = calls->seen.size() + 1;
    calls->seen.push_back(call);
    const int outcome = calls->decide ? calls->decide(call) : PASS;
    errno = error;
    return outcome;
}

// Lets one call of the name come to the outcome.
inline SystemCalls::Decision failing(const std::string &name, int outcome, size_t nth = 1)
{
    return [=](const SystemCall &call) {
        return call.name == name && call.nth == nth ? outcome : PASS;
    };
}

// Defines a system call, which passes through unless a SystemCalls is alive and decides otherwise.
// `size` is the number of bytes to transfer, which `arguments` name as `length`.
#define DEFINE_SYSTEM_CALL(type, name, parameters, path, size, arguments, ...)                     \
    extern "C" type name parameters __VA_ARGS__                                                    \
    {                                                                                              \
        return SystemCalls::make({#name, path, size}, [&]([[maybe_unused]] size_t length) {        \
            return next_symbol<&name>() arguments;                                                 \
        });                                                                                        \
    }

#endif
