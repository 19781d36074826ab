#ifndef TESTS_SUPPORT_SYSTEM_FAULTS_H
#define TESTS_SUPPORT_SYSTEM_FAULTS_H

// Defines the system calls that deal with files in the test program that includes this (once): each
// passes through unless a SystemCalls is alive and decides otherwise. The streams that fopen()
// opens meanwhile work through these calls as well, so that what stdio asks of the system is seen
// and can fail: opening is open(), a flush write(), closing write() and close().

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ostream>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"
#include "tests/support/manual_errors.h"
#include "tests/support/process.h"
#include "tests/support/system_calls.h"

// ---- the calls ----

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
