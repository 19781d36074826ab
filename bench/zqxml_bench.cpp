// XML: what parsing (with destroying the tree before), writing and asking cost.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <memory>
#include <string>

#include "zq/adt/zqxml.h"

using Xml = std::unique_ptr<zqxml, void (*)(zqxml *)>;

static std::string repeated(const std::string &text, size_t size)
{
    std::string result;
    while (result.size() < size)
        result += text;
    return result;
}

static std::string document()
{
    const char *record = "<record id=\"12345\" kind=\"thing\"><name>Somebody Whoever</name>"
                         "<value>1234567890 and some text of a longer kind</value></record>\n";
    return "<x>" + repeated(record, 1000000) + "</x>";
}

static void parse(benchmark::State &state, const std::string &text)
{
    Xml xml(zq_xml_create(), zq_xml_destroy);
    for (auto _ : state) {
        if (zq_xml_parse(xml.get(), text.c_str()) != 0)
            state.SkipWithError("refused");
    }
    state.SetBytesProcessed(static_cast<int64_t>(text.size()) * state.iterations());
}

static void records(benchmark::State &state)
{
    parse(state, document());
}

static void long_values(benchmark::State &state)
{
    parse(state, "<x>" + repeated("<y>" + std::string(1000, 'v') + "</y>", 1000000) + "</x>");
}

static void siblings(benchmark::State &state)
{
    parse(state, "<x>" + repeated("<y/>", 1000000) + "</x>");
}

static void nested(benchmark::State &state)
{
    parse(state, repeated("<y>", 500000) + repeated("</y>", 666667));
}

static void output(benchmark::State &state)
{
    Xml xml(zq_xml_create(), zq_xml_destroy);
    zq_xml_parse(xml.get(), document().c_str());
    FILE *out = fopen("/dev/null", "w");
    for (auto _ : state)
        zq_xml_output(xml.get(), out);
    fclose(out);
    state.SetBytesProcessed(1000000 * state.iterations());
}

static void query(benchmark::State &state)
{
    Xml xml(zq_xml_create(), zq_xml_destroy);
    zq_xml_parse(xml.get(), "<a><b>1</b><b>2</b><c><d>3</d></c></a>");
    for (auto _ : state) {
        const char *value;
        size_t length;
        zq_xml_query_value_const(xml.get(), &value, &length, "a", "c", "d", nullptr);
        benchmark::DoNotOptimize(value);
    }
}

BENCHMARK(records);
BENCHMARK(long_values);
BENCHMARK(siblings);
BENCHMARK(nested);
BENCHMARK(output);
BENCHMARK(query);
BENCHMARK_MAIN();
