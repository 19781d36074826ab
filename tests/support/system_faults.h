#ifndef TESTS_SUPPORT_SYSTEM_FAULTS_H
#define TESTS_SUPPORT_SYSTEM_FAULTS_H

// Defines the system calls that deal with files in the test program that includes this (once): each
// passes through unless a SystemCalls is alive and decides otherwise. The streams that fopen()
// opens meanwhile work through these calls as well, so that what stdio asks of the system is seen
// and can fail: opening is open(), a flush write(), closing write() and close().

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <netdb.h>
#include <ostream>
#include <set>
#include <string>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/interpose.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"

// ---- what a call can come to besides failing with an errno ----

// Anything else below 0 is returned as it is, like the errors of getaddrinfo().
constexpr int PASS = 0;
constexpr int SHORT = INT_MIN;        // half the bytes are read or written
constexpr int NOTHING = INT_MIN + 1;  // 0 or null: the end of the data, or the time is over
constexpr int NO_EVENT = INT_MIN + 2; // poll() alone: an event that nobody asked for

// The errors that the manual pages list. Some of them a call without an open file, a flag or an
// address can never meet: callers must stand them all the same.
inline const std::map<std::string, std::vector<int>> manual_errors = {
    {"accept",
     {EAGAIN, EBADF, ECONNABORTED, EFAULT, EINTR, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, ENOSR,
      ENOTSOCK, EOPNOTSUPP, EPERM, EPROTO, EPROTONOSUPPORT, ESOCKTNOSUPPORT, ETIMEDOUT}},
    {"bind",
     {EACCES, EADDRINUSE, EADDRNOTAVAIL, EBADF, EFAULT, EINVAL, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM,
      ENOTDIR, ENOTSOCK, EROFS}},
    {"close", {EBADF, EDQUOT, EINTR, EIO, ENOSPC}},
    {"closedir", {EBADF}},
    {"connect",
     {EACCES, EADDRINUSE, EADDRNOTAVAIL, EAFNOSUPPORT, EAGAIN, EALREADY, EBADF, ECONNREFUSED,
      EFAULT, EINPROGRESS, EINTR, EISCONN, ENETUNREACH, ENOTSOCK, EPERM, EPROTOTYPE, ETIMEDOUT}},
    {"fcntl",
     {EACCES, EAGAIN, EBADF, EBUSY, EDEADLK, EFAULT, EINTR, EINVAL, EMFILE, ENOLCK, ENOTDIR,
      EPERM}},
    {"fdopendir", {EBADF, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR}},
    {"fstat", {EBADF, EFAULT, ENOMEM, EOVERFLOW}},
    {"fstatat",
     {EACCES, EBADF, EFAULT, EINVAL, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}},
    {"getaddrinfo",
     {EAI_ADDRFAMILY, EAI_AGAIN, EAI_BADFLAGS, EAI_FAIL, EAI_FAMILY, EAI_MEMORY, EAI_NODATA,
      EAI_NONAME, EAI_SERVICE, EAI_SOCKTYPE, EAI_SYSTEM}},
    {"getsockname", {EBADF, EFAULT, EINVAL, ENOBUFS, ENOTSOCK}},
    {"getsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
    {"listen", {EADDRINUSE, EBADF, ENOTSOCK, EOPNOTSUPP}},
    {"lseek", {EBADF, EINVAL, ENXIO, EOVERFLOW, ESPIPE}},
    {"lstat", {EACCES, EFAULT, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}},
    {"mkdir",
     {EACCES, EBADF, EDQUOT, EEXIST, EFAULT, EINVAL, ELOOP, EMLINK, ENAMETOOLONG, ENOENT, ENOMEM,
      ENOSPC, ENOTDIR, EPERM, EROFS}},
    {"open", {EACCES,    EBUSY,  EDQUOT,       EEXIST, EFAULT, EFBIG,   EINTR,      EINVAL, EISDIR,
              ELOOP,     EMFILE, ENAMETOOLONG, ENFILE, ENODEV, ENOENT,  ENOMEM,     ENOSPC, ENOTDIR,
              EOVERFLOW, ENXIO,  EOPNOTSUPP,   EPERM,  EROFS,  ETXTBSY, EWOULDBLOCK}},
    {"openat",
     {EACCES, EBADF, EINTR, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW,
      EPERM}},
    {"opendir", {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR}},
    {"pipe", {EFAULT, EINVAL, EMFILE, ENFILE}},
    {"poll", {EFAULT, EINTR, EINVAL, ENOMEM}},
    {"pthread_cond_init", {EAGAIN, ENOMEM}},
    {"pthread_create", {EAGAIN, EINVAL, EPERM}},
    {"pthread_join", {EDEADLK, EINVAL, ESRCH}},
    {"pthread_mutex_init", {EAGAIN, ENOMEM, EPERM}},
    {"pthread_rwlock_init", {EAGAIN, ENOMEM, EPERM}},
    {"read", {EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR}},
    {"readdir", {EBADF, EFAULT, EINVAL, ENOENT, ENOTDIR}}, // those of getdents(), too
    {"recv",
     {EAGAIN, EBADF, ECONNREFUSED, ECONNRESET, EFAULT, EINTR, EINVAL, ENOMEM, ENOTCONN, ENOTSOCK}},
    {"rename",
     {EACCES, EBUSY, EDQUOT, EEXIST, EFAULT, EINVAL, EISDIR, ELOOP, EMLINK, ENAMETOOLONG, ENOENT,
      ENOMEM, ENOSPC, ENOTDIR, ENOTEMPTY, EPERM, EROFS, EXDEV}},
    {"rmdir",
     {EACCES, EBUSY, EEXIST, EFAULT, EINVAL, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR,
      ENOTEMPTY, EPERM, EROFS}},
    {"send",
     {EACCES, EAGAIN, EALREADY, EBADF, ECONNRESET, EDESTADDRREQ, EFAULT, EINTR, EINVAL, EISCONN,
      EMSGSIZE, ENOBUFS, ENOMEM, ENOTCONN, ENOTSOCK, EOPNOTSUPP, EPIPE}},
    {"setsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
    {"socket", {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT}},
    {"stat", {EACCES, EFAULT, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}},
    {"truncate",
     {EACCES, EFAULT, EFBIG, EINTR, EINVAL, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOTDIR,
      EPERM, EROFS, ETXTBSY}},
    {"unlink",
     {EACCES, EBUSY, EFAULT, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM,
      EROFS}},
    {"unlinkat",
     {EACCES, EBADF, EBUSY, EEXIST, EFAULT, EINVAL, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT,
      ENOMEM, ENOTDIR, ENOTEMPTY, EPERM, EROFS}},
    {"write",
     {EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, EPERM,
      EPIPE}},
};

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

// ---- the calls ----

// `size` is the number of bytes to transfer, which `arguments` name as `length`.
#define DEFINE_SYSTEM_CALL(type, name, parameters, path, size, arguments, ...)                     \
    extern "C" type name parameters __VA_ARGS__                                                    \
    {                                                                                              \
        return SystemCalls::make({#name, path, size}, [&]([[maybe_unused]] size_t length) {        \
            return next_symbol<&name>() arguments;                                                 \
        });                                                                                        \
    }

DEFINE_SYSTEM_CALL(int, close, (int fd), "", 0, (fd))
DEFINE_SYSTEM_CALL(int, closedir, (DIR * stream), "", 0, (stream))
DEFINE_SYSTEM_CALL(DIR *, fdopendir, (int fd), "", 0, (fd))
DEFINE_SYSTEM_CALL(int, fstat, (int fd, struct stat *status), "", 0, (fd, status), noexcept)
DEFINE_SYSTEM_CALL(int, fstatat,
                   (int directory, const char *__restrict path, struct stat *__restrict status,
                    int flags),
                   path, 0, (directory, path, status, flags), noexcept)
DEFINE_SYSTEM_CALL(off_t, lseek, (int fd, off_t offset, int whence), "", 0, (fd, offset, whence),
                   noexcept)
DEFINE_SYSTEM_CALL(int, lstat, (const char *__restrict path, struct stat *__restrict status), path,
                   0, (path, status), noexcept)
DEFINE_SYSTEM_CALL(int, mkdir, (const char *path, mode_t mode), path, 0, (path, mode), noexcept)
DEFINE_SYSTEM_CALL(DIR *, opendir, (const char *path), path, 0, (path))
DEFINE_SYSTEM_CALL(int, pipe, (int fds[2]), "", 0, (fds), noexcept)
DEFINE_SYSTEM_CALL(ssize_t, read, (int fd, void *to, size_t size), "", size, (fd, to, length))
DEFINE_SYSTEM_CALL(struct dirent *, readdir, (DIR * stream), "", 0, (stream))
DEFINE_SYSTEM_CALL(int, rename, (const char *path, const char *to), path, 0, (path, to), noexcept)
DEFINE_SYSTEM_CALL(int, rmdir, (const char *path), path, 0, (path), noexcept)
DEFINE_SYSTEM_CALL(int, stat, (const char *__restrict path, struct stat *__restrict status), path,
                   0, (path, status), noexcept)
DEFINE_SYSTEM_CALL(int, truncate, (const char *path, off_t to), path, 0, (path, to), noexcept)
DEFINE_SYSTEM_CALL(int, unlink, (const char *path), path, 0, (path), noexcept)
DEFINE_SYSTEM_CALL(int, unlinkat, (int directory, const char *path, int flags), path, 0,
                   (directory, path, flags), noexcept)
DEFINE_SYSTEM_CALL(ssize_t, write, (int fd, const void *from, size_t size), "", size,
                   (fd, from, length))

// The last argument of a function that takes it or not.
#define READ_OPTIONAL(type, name, last)                                                            \
    va_list arguments;                                                                             \
    va_start(arguments, last);                                                                     \
    type name = va_arg(arguments, type);                                                           \
    va_end(arguments)

extern "C" int fcntl(int fd, int command, ...)
{
    READ_OPTIONAL(void *, argument, command);
    return SystemCalls::make({"fcntl"},
                             [&](size_t) { return next_symbol<&fcntl>()(fd, command, argument); });
}

extern "C" int open(const char *path, int flags, ...)
{
    READ_OPTIONAL(unsigned int, mode, flags);
    return SystemCalls::make({"open", path, 0, flags},
                             [&](size_t) { return next_symbol<&open>()(path, flags, mode); });
}

extern "C" int openat(int directory, const char *path, int flags, ...)
{
    READ_OPTIONAL(unsigned int, mode, flags);
    return SystemCalls::make({"openat", path, 0, flags}, [&](size_t) {
        return next_symbol<&openat>()(directory, path, flags, mode);
    });
}

// ---- streams over the calls above ----

inline int descriptor_of(void *cookie)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(cookie));
}

// All that the system takes, as the streams of libc write to files.
inline ssize_t write_whole(void *cookie, const char *from, size_t size)
{
    size_t written = 0;
    while (written < size) {
        const ssize_t count = write(descriptor_of(cookie), from + written, size - written);
        if (count < 0)
            break;
        written += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(written);
}

inline int seek_to(void *cookie, off64_t *position, int whence)
{
    const off_t reached = lseek(descriptor_of(cookie), *position, whence);
    *position = reached;
    return reached < 0 ? -1 : 0;
}

extern "C" FILE *fopen(const char *__restrict path, const char *__restrict mode)
{
    if (!SystemCalls::watched())
        return next_symbol<&fopen>()(path, mode);
    int flags = *mode == 'r' ? 0 : *mode == 'w' ? O_CREAT | O_TRUNC : O_CREAT | O_APPEND;
    flags |= strchr(mode, '+') ? O_RDWR : *mode == 'r' ? O_RDONLY : O_WRONLY;
    const int fd = open(path, strchr(mode, 'e') ? flags | O_CLOEXEC : flags, 0666);
    if (fd < 0)
        return nullptr;
    return fopencookie(
        reinterpret_cast<void *>(intptr_t{fd}), mode,
        {[](void *cookie, char *to, size_t size) { return read(descriptor_of(cookie), to, size); },
         write_whole, seek_to, [](void *cookie) { return close(descriptor_of(cookie)); }});
}

// ---- every call failing in every way ----

struct SystemFault {
    SystemCall call;
    int outcome = PASS;
    bool lasting = false; // all calls behind it come to the same
};

inline std::ostream &operator<<(std::ostream &out, const SystemFault &fault)
{
    const char *error = strerrorname_np(fault.outcome);
    out << fault.call.name << " " << fault.call.path << " number " << fault.call.nth
        << (fault.lasting ? " and all behind it: " : ": ");
    return error ? out << error : out << fault.outcome;
}

inline std::vector<int> outcomes_of(const SystemCall &call)
{
    const auto known = manual_errors.find(call.name);
    EXPECT_NE(known, manual_errors.end()) << call.name << " has no errors";
    std::vector<int> outcomes = known == manual_errors.end() ? std::vector<int>() : known->second;
    if (call.size > 1)
        outcomes.push_back(SHORT);
    return outcomes;
}

// How a scenario is walked.
struct SystemWalk {
    SystemCalls::Scope scope = SystemCalls::THREAD;
    bool lasting = true;                 // with lasting faults, too
    std::set<std::string> left_out = {}; // calls that never fail
};

// What the call comes to under the fault, whose call is known by name and turn: others may come and
// go between.
inline int outcome_under(const SystemFault &fault, const SystemCall &call, const SystemWalk &walk)
{
    if (walk.left_out.contains(call.name))
        return PASS;
    const bool meant = fault.lasting ? call.number >= fault.call.number
                                     : call.name == fault.call.name && call.nth == fault.call.nth;
    return meant ? fault.outcome : PASS;
}

// Runs `scenario(world)` in a World of its own under the fault. `check(world, fault, result,
// lines)` judges it; that the fault strikes and no descriptor is left behind is seen to here. The
// calls made.
template <class World, class Scenario, class Check>
std::vector<SystemCall> run_system_fault(SystemFault fault, Scenario scenario, Check check,
                                         const SystemWalk &walk = {})
{
    testing::ScopedTrace trace(__FILE__, __LINE__, testing::Message() << fault);
    const size_t open = open_descriptors();
    std::vector<SystemCall> seen;
    bool struck = fault.outcome == PASS;
    auto decide = [&](const SystemCall &call) {
        const int outcome = outcome_under(fault, call, walk);
        if (!struck && outcome != PASS)
            fault.call = call;
        struck = struck || outcome != PASS;
        return outcome;
    };
    {
        World world;
        LogCapture log(13);
        auto watched = [&] {
            SystemCalls calls(decide, walk.scope);
            auto result = scenario(world);
            seen = std::move(calls.seen);
            return result;
        };
        const auto result = watched();
        check(world, fault, result, log.take());
    }
    EXPECT_TRUE(struck);
    EXPECT_EQ(open_descriptors(), open);
    return seen;
}

// Runs a scenario as ever, then with each of the calls that it made coming to each of its outcomes,
// once, and then, if wanted, with each of them and all behind it failing.
template <class World, class Scenario, class Check>
void walk_system_faults(Scenario scenario, Check check, const SystemWalk &walk = {})
{
    if (faults_injected()) // which makes calls of its own
        return;
    auto run = [&](const SystemFault &fault) {
        return run_system_fault<World>(fault, scenario, check, walk);
    };
    for (const SystemCall &call : run({})) {
        if (walk.left_out.contains(call.name))
            continue;
        for (const int outcome : outcomes_of(call))
            run({call, outcome});
        if (walk.lasting)
            run({call, EIO, true});
    }
}

#endif
