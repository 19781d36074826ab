// SHA-1 and SHA-256: what blocks cost with the processor's instructions and without, and what a
// whole message costs.
#include <benchmark/benchmark.h>
#include <memory>
#include <string>

#include "zq/crypto/zqsha1.h"
#include "zq/crypto/zqsha256.h"
#include "zq/internal/zqsha.h"

template <class T>
static void run_blocks(benchmark::State &state, T *context, sha_compress<T> compress)
{
    if (!compress) {
        state.SkipWithError("this machine has no such instructions");
        return;
    }
    const size_t count = static_cast<size_t>(state.range(0));
    std::string blocks(64 * count, 'x');
    for (auto _ : state)
        compress(context, reinterpret_cast<const unsigned char *>(blocks.data()), count);
    state.SetBytesProcessed(static_cast<int64_t>(blocks.size()) * state.iterations());
}

static void sha1_portable(benchmark::State &state)
{
    std::unique_ptr<zqsha1, void (*)(zqsha1 *)> context(zq_sha1_create(), zq_sha1_destroy);
    run_blocks(state, context.get(), zq_sha1_compress_portable);
}

static void sha1_hardware(benchmark::State &state)
{
    std::unique_ptr<zqsha1, void (*)(zqsha1 *)> context(zq_sha1_create(), zq_sha1_destroy);
    run_blocks(state, context.get(), zq_sha1_find_hardware());
}

static void sha256_portable(benchmark::State &state)
{
    std::unique_ptr<zqsha256, void (*)(zqsha256 *)> context(zq_sha256_create(), zq_sha256_destroy);
    run_blocks(state, context.get(), zq_sha256_compress_portable);
}

static void sha256_hardware(benchmark::State &state)
{
    std::unique_ptr<zqsha256, void (*)(zqsha256 *)> context(zq_sha256_create(), zq_sha256_destroy);
    run_blocks(state, context.get(), zq_sha256_find_hardware());
}

static void sha256_message(benchmark::State &state)
{
    std::unique_ptr<zqsha256, void (*)(zqsha256 *)> context(zq_sha256_create(), zq_sha256_destroy);
    std::string message(static_cast<size_t>(state.range(0)), 'x');
    unsigned char digest[32];
    for (auto _ : state) {
        zq_sha256_init(context.get());
        zq_sha256_update(context.get(), message.data(), message.size());
        zq_sha256_finalize(context.get());
        zq_sha256_digest(context.get(), digest);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(state.range(0) * state.iterations());
}

BENCHMARK(sha1_portable)->Arg(1)->Arg(1024);
BENCHMARK(sha1_hardware)->Arg(1)->Arg(1024);
BENCHMARK(sha256_portable)->Arg(1)->Arg(1024);
BENCHMARK(sha256_hardware)->Arg(1)->Arg(1024);
BENCHMARK(sha256_message)->Arg(8)->Arg(64)->Arg(65536);

BENCHMARK_MAIN();
