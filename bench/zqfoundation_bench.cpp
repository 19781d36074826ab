// The functions that everything else calls: memory, text and numbers.
#include <benchmark/benchmark.h>
#include <cstdlib>

#include "zq/util/zqconvert.h"
#include "zq/util/zqformat.h"
#include "zq/util/zqmalloc.h"
#include "zq/util/zqprintf.h"

// The system's allocator alone, to compare with.
static void system_malloc(benchmark::State &state)
{
    for (auto _ : state) {
        void *memory = malloc(64);
        benchmark::DoNotOptimize(memory);
        free(memory);
    }
}

static void library_malloc(benchmark::State &state)
{
    for (auto _ : state) {
        void *memory = zq_malloc(64);
        benchmark::DoNotOptimize(memory);
        zq_free(memory);
    }
}

static void strtoi64(benchmark::State &state)
{
    const char *text = "-9223372036854775808";
    for (auto _ : state) {
        int64_t value;
        benchmark::DoNotOptimize(text);
        benchmark::DoNotOptimize(zq_strtoi64(text, &value));
        benchmark::DoNotOptimize(value);
    }
}

static void format_two_variables(benchmark::State &state)
{
    for (auto _ : state) {
        char *text = zq_format("connecting to %host% at port %port%", "host", "localhost", "port",
                               "8080", static_cast<char *>(nullptr));
        benchmark::DoNotOptimize(text);
        zq_free(text);
    }
}

static void strdupf_two_arguments(benchmark::State &state)
{
    for (auto _ : state) {
        char *text = zq_strdupf("connecting to %s at port %d", "localhost", 8080);
        benchmark::DoNotOptimize(text);
        zq_free(text);
    }
}

static void bin2hex_digest(benchmark::State &state)
{
    const unsigned char digest[32] = {1, 2, 3};
    for (auto _ : state) {
        char *text = zq_bin2hex(digest, sizeof(digest));
        benchmark::DoNotOptimize(text);
        zq_free(text);
    }
}

BENCHMARK(system_malloc);
BENCHMARK(library_malloc);
BENCHMARK(strtoi64);
BENCHMARK(format_two_variables);
BENCHMARK(strdupf_two_arguments);
BENCHMARK(bin2hex_digest);

BENCHMARK_MAIN();
