// The hash table: what single operations cost while it grows, what a lookup costs, and what its
// parts do: the remainder without a division and the hash of a string.
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstddef>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "zq/adt/zqhash.h"
#include "zq/adt/zqlist.h"
#include "zq/adt/zqstringhash.h"
#include "zq/internal/zqreciprocal.h"
#include "zq/math/zqhashfunc_string.h"

namespace {
struct Item {
    unsigned long key;
    zqlistlink link;
};

unsigned long calc(const void *item, void *)
{
    return static_cast<const Item *>(item)->key;
}

int compare(const void *item1, const void *item2, void *)
{
    return static_cast<const Item *>(item1)->key != static_cast<const Item *>(item2)->key;
}

void leave(void *, void *) {}

using Table = std::unique_ptr<zqhash, void (*)(zqhash *)>;

Table make_table()
{
    return Table(zq_hash_create(offsetof(Item, link), calc, compare, leave, nullptr),
                 zq_hash_destroy);
}

std::vector<Item> random_items(size_t count)
{
    std::mt19937_64 random(1);
    std::vector<Item> items(count);
    for (Item &item : items)
        item = {random(), {}};
    return items;
}
} // namespace

// One table from empty to `range` items. The slowest add shows what a resize costs at worst: it
// includes the allocation of the new array and whatever the machine did meanwhile.
static void hash_growth(benchmark::State &state)
{
    using clock = std::chrono::steady_clock;
    auto items = random_items(static_cast<size_t>(state.range(0)));
    clock::duration slowest = clock::duration::max();
    for (auto _ : state) {
        clock::duration slowest_now = {};
        Table table = make_table();
        for (Item &item : items) {
            auto start = clock::now();
            zq_hash_add(table.get(), &item);
            slowest_now = std::max(slowest_now, clock::now() - start);
        }
        slowest = std::min(slowest, slowest_now);
    }
    state.SetItemsProcessed(state.range(0) * state.iterations());
    state.counters["slowest_ns"] =
        static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(slowest).count());
}

static void hash_lookup(benchmark::State &state)
{
    auto items = random_items(static_cast<size_t>(state.range(0)));
    Table table = make_table();
    for (Item &item : items)
        zq_hash_add(table.get(), &item);
    size_t next = 0;
    for (auto _ : state) {
        next = (next + 7919) % items.size();
        benchmark::DoNotOptimize(zq_hash_lookup(table.get(), &items[next]));
    }
}

static void stringhash_lookup(benchmark::State &state)
{
    std::unique_ptr<zqstringhash, void (*)(zqstringhash *)> map(
        zq_stringhash_create(nullptr, nullptr), zq_stringhash_destroy);
    std::vector<std::string> keys;
    for (int64_t i = 0; i < state.range(0); i++)
        keys.push_back("some-header-name-" + std::to_string(i));
    for (const std::string &key : keys)
        zq_stringhash_add(map.get(), key.c_str(), nullptr);
    size_t next = 0;
    for (auto _ : state) {
        next = (next + 7919) % keys.size();
        benchmark::DoNotOptimize(zq_stringhash_lookup(map.get(), keys[next].c_str()));
    }
}

static void hashfunc_string(benchmark::State &state)
{
    std::string key(static_cast<size_t>(state.range(0)), 'k');
    for (auto _ : state) {
        const char *string = key.c_str();
        benchmark::DoNotOptimize(string);
        benchmark::DoNotOptimize(zq_hashfunc_string(string));
    }
    state.SetBytesProcessed(state.range(0) * state.iterations());
}

static void remainder_by_reciprocal(benchmark::State &state)
{
    unsigned long divisor = 5461;
    benchmark::DoNotOptimize(divisor);
    const auto by = reciprocal<unsigned long>::of(divisor);
    unsigned long hash = 0x9e3779b97f4a7c15;
    for (auto _ : state)
        hash = hash * 3 + by.remainder(hash, divisor);
    benchmark::DoNotOptimize(hash);
}

static void remainder_by_division(benchmark::State &state)
{
    unsigned long divisor = 5461;
    benchmark::DoNotOptimize(divisor);
    unsigned long hash = 0x9e3779b97f4a7c15;
    for (auto _ : state)
        hash = hash * 3 + hash % divisor;
    benchmark::DoNotOptimize(hash);
}

BENCHMARK(hash_growth)->Arg(1000)->Arg(1000000);
BENCHMARK(hash_lookup)->Arg(100)->Arg(10000)->Arg(1000000);
BENCHMARK(stringhash_lookup)->Arg(10)->Arg(10000)->Arg(1000000);
BENCHMARK(hashfunc_string)->Arg(5)->Arg(16)->Arg(100);
BENCHMARK(remainder_by_reciprocal);
BENCHMARK(remainder_by_division);

BENCHMARK_MAIN();
