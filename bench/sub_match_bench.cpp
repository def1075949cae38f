// sub_match_bench - what it costs to find a topic's subscribers: a walk through the table against the index.
//
//     sub_match_bench [--benchmark_filter=...]
//
// The argument is the number of subscriptions. "walk" is what a table without an index would do: each entry is matched
// in turn. "routes" is what routing calls, "match" the exported search, which also looks for edits by hand. The last
// lines give the ratio of walk and routes, measured side by side in this run.
#include "log/agent_log.h"
#include "sub/route.h"
#include "sub/sub.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

enum class Kind { Exact, Hash, Plus };

// One subscription in a thousand at most fits kTopic.
constexpr char kTopic[] = "plant/7/line/42/temperature";

std::string filter_of(Kind kind, int i)
{
    const std::string unit = "plant/" + std::to_string(i % 1000) + "/line/" + std::to_string(i);
    switch (kind) {
    case Kind::Exact:
        return unit + "/temperature";
    case Kind::Hash:
        return unit + "/#";
    case Kind::Plus:
        return "plant/+/line/" + std::to_string(i) + "/temperature";
    }
    return unit;
}

void fill(Kind kind, int count)
{
    agent_log_set_level(AGENT_LOG_WARN);
    sub_init();
    sub_add("subscriber", kTopic, 0, 0);
    for (int i = 1; i < count; ++i)
        sub_add(("client-" + std::to_string(i)).c_str(), filter_of(kind, i).c_str(), 0, 0);
}

int walk(std::vector<sub_entry_t> &found)
{
    size_t count = 0;
    for (int i = 0; i < g_sub_mgr.sub_count; ++i)
        if (topic_match_wildcard(g_sub_mgr.subs[i].topic_filter, kTopic))
            found[count++] = g_sub_mgr.subs[i];
    return static_cast<int>(count);
}

template <class Search> void run(benchmark::State &state, Kind kind, Search search)
{
    fill(kind, static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(search());
}

void register_searches(const char *name, Kind kind)
{
    static std::vector<sub_entry_t> found(SUB_MATCH_CAPACITY);
    static tarn::sub::RouteList     routes;
    const auto                      add = [&](const char *how, auto search) {
        benchmark::RegisterBenchmark((std::string(name) + "/" + how).c_str(),
                                                          [=](benchmark::State &state) { run(state, kind, search); })
            ->Arg(100)
            ->Arg(1000)
            ->Arg(SUB_CAPACITY);
    };
    add("walk", [] { return walk(found); });
    add("match", [] { return sub_match(kTopic, found.data(), SUB_MATCH_CAPACITY); });
    add("routes", [] { return tarn::sub::match_routes(kTopic, routes); });
}

// One client leaves a full table, and comes back.
void leave_and_return(benchmark::State &state)
{
    fill(Kind::Exact, SUB_CAPACITY);
    const std::string filter = filter_of(Kind::Exact, 5000);
    for (auto _ : state) {
        sub_remove("client-5000", nullptr);
        sub_add("client-5000", filter.c_str(), 0, 0);
    }
}

void update(benchmark::State &state)
{
    fill(Kind::Exact, SUB_CAPACITY);
    const std::string filter = filter_of(Kind::Exact, 9000);
    for (auto _ : state)
        sub_add("client-9000", filter.c_str(), 0, 0);
}

// ---- the ratio, both ways in turn so that what else the machine does falls on both

template <class Search> double call_us(int calls, Search search)
{
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i)
        benchmark::DoNotOptimize(search());
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / calls;
}

void print_ratio(const char *name, Kind kind)
{
    fill(kind, SUB_CAPACITY);
    std::vector<sub_entry_t> found(SUB_MATCH_CAPACITY);
    tarn::sub::RouteList     routes;
    double                   walk_us  = 1e9;
    double                   index_us = 1e9;
    for (int turn = 0; turn < 20; ++turn) {
        walk_us  = std::min(walk_us, call_us(10, [&] { return walk(found); }));
        index_us = std::min(index_us, call_us(1000, [&] { return tarn::sub::match_routes(kTopic, routes); }));
    }
    printf("%d %s filters: walk %.1f us, index %.3f us, ratio %.0f\n", SUB_CAPACITY, name, walk_us, index_us,
           walk_us / index_us);
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    register_searches("exact", Kind::Exact);
    register_searches("hash", Kind::Hash);
    register_searches("plus", Kind::Plus);
    benchmark::RegisterBenchmark("full_table/leave_and_return", leave_and_return);
    benchmark::RegisterBenchmark("full_table/update", update);
    benchmark::RunSpecifiedBenchmarks();
    print_ratio("exact", Kind::Exact);
    print_ratio("a/#", Kind::Hash);
    print_ratio("a/+/b", Kind::Plus);
    return 0;
}
