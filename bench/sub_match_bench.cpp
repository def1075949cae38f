// sub_match_bench - what it costs to find a topic's subscribers: a walk through the table against the index.
//
//     sub_match_bench [--benchmark_filter=...]
//
// The argument is the number of subscriptions. "walk" is what a table without an index would do: each entry is matched
// in turn. "routes" is what routing calls on the library's own threads, on one of which all of this runs; "match" is the
// exported search, which looks for edits by hand each time, as routing does on a thread of the host. The last lines give
// ratios, measured side by side in this run.
#include "base/thread.h"
#include "log/agent_log.h"
#include "sub/match_list.h"
#include "sub/sub.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

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
    static tarn::sub::MatchList     routes;
    const auto                      add = [&](const char *how, auto search) {
        benchmark::RegisterBenchmark((std::string(name) + "/" + how).c_str(),
                                                          [=](benchmark::State &state) { run(state, kind, search); })
            ->Arg(100)
            ->Arg(1000)
            ->Arg(SUB_CAPACITY);
    };
    add("walk", [] { return walk(found); });
    add("match", [] { return sub_match(kTopic, found.data(), SUB_MATCH_CAPACITY); });
    add("routes", [] { return tarn::sub::list_matches(kTopic, routes); });
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

// ---- ratios of the thread's own time, in turn, so that what else the machine does falls on all alike

double thread_us()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

template <class Search> double call_us(int calls, Search search)
{
    const double start = thread_us();
    for (int i = 0; i < calls; ++i)
        benchmark::DoNotOptimize(search());
    return (thread_us() - start) / calls;
}

void print_ratio(const char *name, Kind kind)
{
    fill(kind, SUB_CAPACITY);
    std::vector<sub_entry_t> found(SUB_MATCH_CAPACITY);
    tarn::sub::MatchList     routes;
    const auto               route    = [&] { return tarn::sub::list_matches(kTopic, routes); };
    double                   walk_us  = 1e9;
    double                   index_us = 1e9;
    double                   host_us  = 1e9;
    for (int turn = 0; turn < 20; ++turn) {
        walk_us  = std::min(walk_us, call_us(10, [&] { return walk(found); }));
        index_us = std::min(index_us, call_us(20000, route));
        std::thread([&] { host_us = std::min(host_us, call_us(50, route)); }).join();
    }
    printf("%d %s filters: walk %.1f us, index %.3f us, ratio %.0f; on a host's thread %.1f us, ratio %.0f\n",
           SUB_CAPACITY, name, walk_us, index_us, walk_us / index_us, host_us, walk_us / host_us);
}

// What 9000 other filters cost a topic with one subscriber, against a table with that one alone.
void print_price_of_others()
{
    constexpr int        kOthers = 9000;
    tarn::sub::MatchList matches;
    const auto           route     = [&] { return tarn::sub::list_matches(kTopic, matches); };
    double               alone_us  = 1e9;
    double               others_us = 1e9;
    for (int turn = 0; turn < 10; ++turn) {
        fill(Kind::Exact, 1);
        alone_us = std::min(alone_us, call_us(20000, route));
        fill(Kind::Exact, 1 + kOthers);
        others_us = std::min(others_us, call_us(20000, route));
    }
    printf("1 filter: %.3f us, with %d others: %.3f us, ratio %.2f\n", alone_us, kOthers, others_us,
           others_us / alone_us);
}

void *measure(void *)
{
    register_searches("exact", Kind::Exact);
    register_searches("hash", Kind::Hash);
    register_searches("plus", Kind::Plus);
    benchmark::RegisterBenchmark("full_table/leave_and_return", leave_and_return);
    benchmark::RegisterBenchmark("full_table/update", update);
    benchmark::RunSpecifiedBenchmarks();
    print_ratio("exact", Kind::Exact);
    print_ratio("a/#", Kind::Hash);
    print_ratio("a/+/b", Kind::Plus);
    print_price_of_others();
    return nullptr;
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    pthread_t thread;
    if (tarn::start_thread(&thread, "bench", measure, nullptr) != 0)
        return 1;
    tarn::join_or_detach(thread);
    return 0;
}
