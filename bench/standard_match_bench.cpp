// standard_match_bench - what finding the subscribers of a topic costs in the standard profile, and what others'
// filters, deep topics and retained messages add.
#include "standard/state/retained_store.h"
#include "standard/state/subscription_tree.h"

#include <benchmark/benchmark.h>
#include <string>

using namespace tarn::standard;

namespace {

struct Count {
    size_t plain_count = 0;
    void   plain(uint64_t session, const SubscriptionOptions   &/*options*/) { plain_count += session != 0; }
    void   shared(SharedGroup &group)
    {
        plain_count += group.next([](uint64_t, const SubscriptionOptions &) { return true; }) != nullptr;
    }
};

void measure(benchmark::State &state, const SubscriptionTree &tree, const std::string &topic)
{
    size_t found = 0;
    for (auto _ : state) {
        Count count;
        tree.match(topic, count);
        benchmark::DoNotOptimize(found = count.plain_count);
    }
    state.counters["found"] = static_cast<double>(found);
}

std::string device(int64_t number, const char *last)
{
    return "site/" + std::to_string(number % 100) + "/device/" + std::to_string(number) + last;
}

void add_devices(SubscriptionTree &tree, int64_t count, const char *last)
{
    for (int64_t i = 0; i < count; ++i)
        tree.add(static_cast<uint64_t>(i) + 1, device(i, last), {});
}

// One exact subscriber among others with exact filters.
void exact(benchmark::State &state)
{
    SubscriptionTree tree;
    add_devices(tree, state.range(0), "/state");
    measure(state, tree, device(0, "/state"));
}
BENCHMARK(exact)->Arg(1)->Arg(9000)->Arg(100000);

// The same among others with wildcards.
void wildcards(benchmark::State &state)
{
    SubscriptionTree tree;
    add_devices(tree, state.range(0), "/+");
    tree.add(1, "#", {});
    tree.add(1, "site/+/device/#", {});
    measure(state, tree, device(0, "/state"));
}
BENCHMARK(wildcards)->Arg(1)->Arg(9000)->Arg(100000);

void subscribers_of_one_topic(benchmark::State &state)
{
    SubscriptionTree tree;
    for (int64_t i = 1; i <= state.range(0); ++i)
        tree.add(static_cast<uint64_t>(i), "site/1/all", {});
    measure(state, tree, "site/1/all");
}
BENCHMARK(subscribers_of_one_topic)->Arg(1)->Arg(1000);

// As bad as it gets: filters of all combinations of "+" and names, which part early and go on as deep as they may.
void hostile(benchmark::State &state)
{
    SubscriptionTree tree;
    std::string      topic = "x";
    for (size_t depth = 1; depth < kMaxLevels; ++depth)
        topic += "/x";
    for (int64_t i = 0; i < state.range(0); ++i) {
        std::string filter = topic;
        for (size_t bit = 0; bit < 16; ++bit)
            filter[bit * 2] = i >> bit & 1 ? '+' : 'x';
        filter.back() = '+';
        tree.add(1, filter, {});
    }
    measure(state, tree, topic);
}
BENCHMARK(hostile)->Arg(100)->Arg(1000)->Arg(10000);

// The longest topic, of 65536 levels.
void deep_topic(benchmark::State &state)
{
    SubscriptionTree tree;
    tree.add(1, "+/+/#", {});
    measure(state, tree, std::string(65535, '/'));
}
BENCHMARK(deep_topic);

void subscribe(benchmark::State &state)
{
    SubscriptionTree tree;
    add_devices(tree, state.range(0), "/+");
    for (auto _ : state) {
        tree.add(1000000, "site/1/device/1/+", {});
        tree.remove(1000000, "site/1/device/1/+");
    }
}
BENCHMARK(subscribe)->Arg(1)->Arg(9000);

void fill(RetainedStore &store, int64_t count)
{
    for (int64_t i = 0; i < count; ++i) {
        const std::string topic = device(i, "/state");
        store.set(MessageRef::make({.topic = topic}));
    }
}

constexpr RetainedBounds kBounds{.messages = 1000000, .bytes = 1000000000};

void retained_of_one_site(benchmark::State &state)
{
    RetainedStore store(kBounds);
    fill(store, state.range(0));
    size_t found = 0;
    for (auto _ : state) {
        found = 0;
        store.match("site/7/device/+/state", [&](const MessageRef &message) { found += message ? 1 : 0; });
    }
    state.counters["found"] = static_cast<double>(found);
}
BENCHMARK(retained_of_one_site)->Arg(1000)->Arg(100000);

void retain(benchmark::State &state)
{
    RetainedStore store(kBounds);
    fill(store, state.range(0));
    const std::string topic   = device(0, "/state");
    const MessageRef  message = MessageRef::make({.topic = topic});
    for (auto _ : state)
        store.set(message);
}
BENCHMARK(retain)->Arg(1000)->Arg(100000);

} // namespace

BENCHMARK_MAIN();
