// What a log line costs: most lines of a working program are traces that no output takes.
#include <benchmark/benchmark.h>
#include <memory>

#include "zq/internal/zqlogline.h"
#include "zq/util/zqlog.h"

using Log = std::unique_ptr<zqlog, void (*)(zqlog *)>;

static int ignore(const char *, size_t, unsigned int, time_t, void *)
{
    return 0;
}

// The library's own lines.
static void library_line_not_admitted(benchmark::State &state)
{
    for (auto _ : state) {
        ZQ_LOG(13, "connection %d in progress", 42);
        benchmark::ClobberMemory();
    }
}

static void library_line_to_callback(benchmark::State &state)
{
    zq_log_stderr_disable(nullptr);
    zq_log_callback_set(nullptr, ignore, nullptr);
    zq_log_callback_enable(nullptr);
    for (auto _ : state)
        ZQ_LOG(7, "connection %d failed", 42);
    zq_log_uninit();
}

static void line_not_admitted(benchmark::State &state)
{
    Log log(zq_log_create(), zq_log_destroy);
    for (auto _ : state)
        benchmark::DoNotOptimize(zq_log(log.get(), 13, "connection %d in progress", 42));
}

static void line_to_file(benchmark::State &state)
{
    Log log(zq_log_create(), zq_log_destroy);
    zq_log_stderr_disable(log.get());
    zq_log_logfile_set_name(log.get(), "/dev/null");
    zq_log_logfile_enable(log.get());
    for (auto _ : state)
        benchmark::DoNotOptimize(zq_log(log.get(), 7, "connection %d failed", 42));
}

BENCHMARK(library_line_not_admitted);
BENCHMARK(library_line_to_callback);
BENCHMARK(line_not_admitted);
BENCHMARK(line_to_file);

BENCHMARK_MAIN();
