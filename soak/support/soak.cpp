#include "soak/support/soak.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <malloc.h>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/support/scratch.h"
#include "zq/util/zqlog.h"
#include "zq/util/zqsignal.h"

// What may be held beyond what was held after the warm-up. Resident memory varies with how threads
// meet; among 200000 requests, even the smallest lost block each comes to more than that. A process
// knows its own heap to the byte: less than the smallest block for each request.
static constexpr long memory_slack = 4096;
static constexpr long heap_slack = 2048;
static constexpr long heap_slack_each = 16;

double now()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// ---- what a process holds ----

Usage usage_of(pid_t pid)
{
    const std::string folder = "/proc/" + std::to_string(pid);
    Usage usage;
    std::istringstream status(read_file(folder + "/status"));
    for (std::string word; status >> word;) {
        if (word == "RssAnon:")
            status >> usage.memory;
        else if (word == "Threads:")
            status >> usage.threads;
    }
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(folder + "/fd"))
        usage.descriptors++;
    if (pid == getpid())
        usage.heap = static_cast<long>(mallinfo2().uordblks);
    return usage;
}

Usage settled_usage(pid_t pid, const Usage &before)
{
    Usage usage = usage_of(pid);
    for (int i = 0; i < 1000; i++) {
        if (usage.threads <= before.threads && usage.descriptors <= before.descriptors)
            break;
        usleep(10000);
        usage = usage_of(pid);
    }
    return usage;
}

// ---- loads ----

Tally repeat(long times, int threads, const std::function<bool(long)> &call)
{
    Tally tally;
    std::mutex mutex;
    std::atomic<long> next = 0;
    auto work = [&] {
        for (long number; (number = next++) < times;) {
            const double begin = now();
            const bool right = call(number);
            const double took = now() - begin;
            std::lock_guard lock(mutex);
            tally.count++;
            tally.wrong += right ? 0 : 1;
            tally.slowest = std::max(tally.slowest, took);
        }
    };
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; i++)
        workers.emplace_back(work);
    for (std::thread &worker : workers)
        worker.join();
    return tally;
}

// ---- the program ----

Soak::Soak(const char *name_, int argc, char **argv)
    : name(name_), percent(argc > 1 ? atol(argv[1]) : 100)
{
    // For the programs that this one starts: what each thread leaves in an arena of its own looks
    // like growth for a long time.
    setenv("MALLOC_ARENA_MAX", "1", 1);
    zq_signal_ignore_sigpipe();
    if (zq_log_init_threaded() != 0)
        abort();
    zq_log_stderr_disable(nullptr);
}

long Soak::scaled(long full, long least) const
{
    return std::max(full * percent / 100, least);
}

void Soak::row(const std::string &load, long warm_up, long amount,
               const std::function<Tally(long)> &run, pid_t pid)
{
    const Usage before = usage_of(pid);
    const Tally first = warm_up > 0 ? run(warm_up) : Tally();
    const Usage warm = settled_usage(pid, before);
    const double begin = now();
    Tally tally = run(amount);
    const double seconds = now() - begin;
    const Usage end = settled_usage(pid, warm);
    tally.wrong += first.wrong;

    std::string verdict;
    const auto judge = [&](bool kept, const char *what) { verdict += kept ? "" : what; };
    judge(tally.count > 0 && tally.wrong == 0, " answers");
    judge(end.memory <= warm.memory + memory_slack, " memory");
    judge(end.heap <= warm.heap + heap_slack + heap_slack_each * tally.count, " heap");
    judge(end.descriptors == warm.descriptors, " descriptors");
    judge(end.threads == warm.threads, " threads");
    broken = broken || !verdict.empty();
    printf("%s\t%s\t%ld\t%ld\t%.1f\t%.3f\t%ld>%ld\t%ld>%ld\t%ld>%ld\t%ld>%ld\t%s\n", name,
           load.c_str(), tally.count, tally.wrong, seconds, tally.slowest, warm.memory, end.memory,
           warm.heap / 1024, end.heap / 1024, warm.descriptors, end.descriptors, warm.threads,
           end.threads, verdict.empty() ? "ok" : ("BROKEN:" + verdict).c_str());
    fflush(stdout);
}
