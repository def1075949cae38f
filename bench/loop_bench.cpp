// loop_bench - messages per second and round trips of brokers that already run on loopback.
//
//     loop_bench [--messages N] [--payload BYTES] [--rounds N] NAME=PORT [NAME=PORT]
//
// One publisher, one or fifty subscribers, a fixed number of messages in flight, QoS and payload equal for all. Each
// case runs in turn on every broker, round after round, and the best round of each counts, so that what else the
// machine does falls on all alike. With two brokers the last column is the first one's rate over the second one's.
#include "support/message_loop.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using tarn::test::LoopOptions;
using tarn::test::LoopResult;
using tarn::test::run_message_loop;

namespace {

struct Broker {
    std::string name;
    uint16_t    port;
};

struct Settings {
    unsigned            messages      = 50000;
    size_t              payload_bytes = 64;
    unsigned            rounds        = 3;
    std::vector<Broker> brokers;
};

struct Case {
    const char *name;
    unsigned    qos, subscribers, window, share; // share: this part of the messages, as each costs more
};

constexpr Case kCases[] = {
    {"QoS 0, 1 -> 1, 64 in flight", 0, 1, 64, 1},    {"QoS 1, 1 -> 1, 64 in flight", 1, 1, 64, 1},
    {"QoS 0, 1 -> 1, 1 in flight", 0, 1, 1, 10},     {"QoS 1, 1 -> 1, 1 in flight", 1, 1, 1, 10},
    {"QoS 0, 1 -> 50, 64 in flight", 0, 50, 64, 20}, {"QoS 1, 1 -> 50, 64 in flight", 1, 50, 64, 20},
};

int usage()
{
    fprintf(stderr, "usage: loop_bench [--messages N] [--payload BYTES] [--rounds N] NAME=PORT [NAME=PORT]\n");
    return 2;
}

bool read_arguments(int argc, char **argv, Settings &settings)
{
    for (int i = 1; i < argc; ++i) {
        const std::string word   = argv[i];
        const size_t      equals = word.find('=');
        const auto        number = [&] { return i + 1 < argc ? strtoul(argv[++i], nullptr, 10) : 0; };
        if (word == "--messages")
            settings.messages = static_cast<unsigned>(number());
        else if (word == "--payload")
            settings.payload_bytes = number();
        else if (word == "--rounds")
            settings.rounds = static_cast<unsigned>(number());
        else if (equals != std::string::npos)
            settings.brokers.push_back(
                {word.substr(0, equals), static_cast<uint16_t>(strtoul(word.c_str() + equals + 1, nullptr, 10))});
        else
            return false;
    }
    return !settings.brokers.empty() && settings.brokers.size() <= 2 && settings.messages > 0 &&
           settings.payload_bytes >= 16 && settings.rounds > 0;
}

LoopResult run(const Broker &broker, const Case &one, const Settings &settings)
{
    return run_message_loop({.port          = broker.port,
                             .qos           = one.qos,
                             .subscribers   = one.subscribers,
                             .window        = one.window,
                             .messages      = settings.messages / one.share,
                             .payload_bytes = settings.payload_bytes,
                             .topic         = "bench"});
}

// The faster round; faults of either are kept.
LoopResult better(const LoopResult &a, const LoopResult &b)
{
    LoopResult best = a.deliveries_per_s() >= b.deliveries_per_s() ? a : b;
    best.lost       = a.lost + b.lost;
    best.disordered = a.disordered + b.disordered;
    best.error      = a.error.empty() ? b.error : a.error;
    return best;
}

void print(const Case &one, const Broker &broker, const LoopResult &result, const LoopResult *other)
{
    printf("%-30s %-12s %10.0f/s  p50 %8.3f ms  p99 %8.3f ms", one.name, broker.name.c_str(), result.deliveries_per_s(),
           result.p50_ms, result.p99_ms);
    if (result.lost || result.disordered)
        printf("  LOST %llu, DISORDERED %llu", static_cast<unsigned long long>(result.lost),
               static_cast<unsigned long long>(result.disordered));
    if (!result.error.empty())
        printf("  FAILED: %s", result.error.c_str());
    if (other && other->deliveries_per_s() > 0)
        printf("  x %.2f", result.deliveries_per_s() / other->deliveries_per_s());
    printf("\n");
}

} // namespace

int main(int argc, char **argv)
{
    Settings settings;
    if (!read_arguments(argc, argv, settings))
        return usage();
    bool clean = true;
    for (const Case &one : kCases) {
        std::vector<LoopResult> best(settings.brokers.size());
        for (unsigned round = 0; round < settings.rounds; ++round)
            for (size_t i = 0; i < best.size(); ++i) {
                const LoopResult result = run(settings.brokers[i], one, settings);
                best[i]                 = round ? better(best[i], result) : result;
            }
        for (size_t i = 0; i < best.size(); ++i) {
            print(one, settings.brokers[i], best[i], i == 0 && best.size() == 2 ? &best[1] : nullptr);
            clean &= best[i].error.empty() && best[i].lost == 0 && best[i].disordered == 0;
        }
        fflush(stdout);
    }
    return clean ? 0 : 1;
}
