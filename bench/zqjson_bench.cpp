// JSON: what parsing and destroying texts of different kinds costs, and what a query costs.
#include <benchmark/benchmark.h>
#include <memory>
#include <string>

#include "zq/adt/zqjson.h"

using Json = std::unique_ptr<zqjson, void (*)(zqjson *)>;

static std::string array_of(const std::string &element)
{
    std::string text(1, '[');
    while (text.size() < 1000000)
        text.append(element).append(1, ',');
    return text.append(1, ']');
}

static void parse(benchmark::State &state, const std::string &text)
{
    Json json(zq_json_create(), zq_json_destroy);
    for (auto _ : state) {
        if (zq_json_parse(json.get(), text.c_str()) != 0)
            state.SkipWithError("refused");
    }
    state.SetBytesProcessed(static_cast<int64_t>(text.size()) * state.iterations());
}

static void integers(benchmark::State &state)
{
    parse(state, array_of("1234567"));
}

static void fractions(benchmark::State &state)
{
    parse(state, array_of("1234.5678"));
}

static void short_strings(benchmark::State &state)
{
    parse(state, array_of("\"some name\""));
}

static void long_strings(benchmark::State &state)
{
    parse(state, array_of("\"" + std::string(1000, 'x') + "\""));
}

static void escaped_strings(benchmark::State &state)
{
    parse(state, array_of("\"two\\nlines and a \\\"quotation\\\"\""));
}

static void records(benchmark::State &state)
{
    parse(state, array_of(R"({"id": 17, "name": "a name", "active": true, "tags": ["x", "y"]})"));
}

static void nested_arrays(benchmark::State &state)
{
    parse(state, std::string(500000, '[') + "1" + std::string(500000, ']'));
}

static void large_object(benchmark::State &state)
{
    std::string text(1, '{');
    for (int i = 0; i < 50000; i++) {
        std::string number = std::to_string(i);
        text.append("\"member").append(number).append("\":").append(number).append(1, ',');
    }
    parse(state, text.append(1, '}'));
}

static void query(benchmark::State &state)
{
    Json json(zq_json_create(), zq_json_destroy);
    zq_json_parse(json.get(), R"({"items": [{"id": 1}, {"id": 2}, {"id": 3}]})");
    int value = 0;
    for (auto _ : state) {
        zq_json_fetch_int(json.get(), &value, "items", "#", 2ul, "id", NULL);
        benchmark::DoNotOptimize(value);
    }
}

BENCHMARK(integers);
BENCHMARK(fractions);
BENCHMARK(short_strings);
BENCHMARK(long_strings);
BENCHMARK(escaped_strings);
BENCHMARK(records);
BENCHMARK(nested_arrays);
BENCHMARK(large_object);
BENCHMARK(query);

BENCHMARK_MAIN();
