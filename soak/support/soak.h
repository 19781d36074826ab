#ifndef SOAK_SUPPORT_SOAK_H
#define SOAK_SUPPORT_SOAK_H

#include <chrono>
#include <functional>
#include <string>
#include <unistd.h>

// Seconds since some moment.
double now();

// What a process holds.
struct Usage {
    long memory = 0; // KiB of its own memory that is resident
    long heap = 0;   // bytes that malloc() has handed out; 0 for other processes
    long descriptors = 0;
    long threads = 0;
};
Usage usage_of(pid_t pid);

// The same once the process has no more threads and descriptors than before, or after ten seconds:
// a server closes its end after the client has gone.
Usage settled_usage(pid_t pid, const Usage &before);

// How a load went.
struct Tally {
    long count = 0;     // requests answered, right or wrong
    long wrong = 0;     // those whose answer, error or time was wrong
    double slowest = 0; // seconds
};

// Makes `times` calls from several threads at once, each with its number from 0 on; a call returns
// whether all was right.
Tally repeat(long times, int threads, const std::function<bool(long)> &call);

// A program of long runs. Each of its rows is one load on one process, which afterwards may hold
// what it held after a warm-up and no more.
class Soak {
  public:
    // The first argument says how many percent of the full amounts are wanted. The default log is
    // made safe for threads and quiet.
    Soak(const char *name, int argc, char **argv);

    // That part of a full amount, at least `least`.
    long scaled(long full, long least = 1) const;

    // Runs the load with `warm_up`, unless that is 0, and then with `amount`, which are what it
    // takes them for, and prints the row.
    void row(const std::string &load, long warm_up, long amount,
             const std::function<Tally(long)> &run, pid_t pid = getpid());

    // The exit status: 1 once a bound was broken.
    int status() const { return broken ? 1 : 0; }

  private:
    const char *name;
    long percent;
    bool broken = false;
};

#endif
