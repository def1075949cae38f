#include "cases.h"

#include "measure.h"

namespace tarn::performance {
namespace {

constexpr Goal kNone = {};

Goal times_mosquitto(double value)
{
    return value > 0 ? Goal{Goal::Of::mosquitto, value} : kNone;
}

std::function<void(Stage &)> closed_loop(const LoadOptions &options)
{
    return [options](Stage &stage) { measure_closed_loop(stage, options); };
}

Row rate(const std::string &what, double goal)
{
    return {.section = Section::messages, .metric = "rate", .what = what, .unit = "/s", .goal = times_mosquitto(goal)};
}

Row processor(const std::string &what, double goal)
{
    return {.section        = Section::processor,
            .metric         = "processor_us",
            .what           = what,
            .unit           = "us",
            .more_is_better = false,
            .goal           = times_mosquitto(goal)};
}

void add_fans(std::vector<Case> &all)
{
    const struct {
        unsigned subscribers, qos;
        double   goal;
    } outwards[] = {{10, 0, 5}, {100, 0, 3.7}, {1000, 0, 20}, {100, 1, 4.35}};
    for (const auto &one : outwards) {
        const std::string what = "fan-out to " + std::to_string(one.subscribers) + ", QoS " + std::to_string(one.qos);
        all.push_back({.name = "fan-out-" + std::to_string(one.subscribers) + "-qos" + std::to_string(one.qos),
                       .run  = closed_loop({.qos = one.qos, .subscribers = one.subscribers}),
                       .rows = {rate(what, one.goal), processor("a message, " + what, 0)}});
    }
    const struct {
        unsigned publishers, window;
        double   goal;
    } inwards[] = {{10, 8, 3.85}, {100, 1, 1.2}};
    for (const auto &one : inwards) {
        const std::string what = "fan-in of " + std::to_string(one.publishers) + ", QoS 0";
        all.push_back({.name = "fan-in-" + std::to_string(one.publishers),
                       .run  = closed_loop({.publishers = one.publishers, .window = one.window}),
                       .rows = {rate(what, one.goal), processor("a message, " + what, 0)}});
    }
}

void add_pairs(std::vector<Case> &all)
{
    const struct {
        unsigned pairs, qos;
        double   goal;
    } pairs[] = {{10, 0, 7.1}, {100, 0, 9}, {100, 1, 9}};
    for (const auto &one : pairs) {
        const std::string what = std::to_string(one.pairs) + " pairs, QoS " + std::to_string(one.qos);
        all.push_back(
            {.name = "pairs-" + std::to_string(one.pairs) + "-qos" + std::to_string(one.qos),
             .run  = closed_loop({.qos = one.qos, .publishers = one.pairs, .subscribers = one.pairs, .pairs = true}),
             .rows = {rate(what, one.goal), processor("a message, " + what, 0)}});
    }
}

void add_one_to_one(std::vector<Case> &all)
{
    const struct {
        unsigned level, qos;
        double   goal, processor_goal; // times mosquitto, 0 = none
    } loops[] = {{4, 0, 7, 0.1}, {4, 1, 11, 0.1}, {4, 2, 10, 0.118}, {5, 0, 0, 0}, {5, 1, 8.3, 0}, {5, 2, 0, 0}};
    for (const auto &one : loops) {
        const std::string what = "one to one, QoS " + std::to_string(one.qos) + (one.level == 5 ? ", level 5.0" : "");
        all.push_back({.name = "one-to-one-qos" + std::to_string(one.qos) + (one.level == 5 ? "-v5" : ""),
                       .run  = closed_loop({.level = one.level, .qos = one.qos}),
                       .rows = {rate(what, one.goal),
                                processor("a message, " + what.substr(what.find("QoS")), one.processor_goal)}});
    }
}

void add_pending(std::vector<Case> &all)
{
    for (const unsigned clients : {1u, 50u}) {
        const std::string pending = std::to_string(clients * 1000);
        all.push_back({.name       = "pending-" + pending,
                       .run        = [clients](Stage &stage) { measure_beside_pending(stage, {.qos = 1}, clients); },
                       .rows       = {rate("one to one, QoS 1, beside " + pending + " pending", 7.1)},
                       .with_relay = false});
    }
}

void add_connections(std::vector<Case> &all)
{
    const auto bytes = [](const char *metric, const char *what, double goal) {
        return Row{.section        = Section::connections,
                   .metric         = metric,
                   .what           = what,
                   .unit           = "bytes",
                   .more_is_better = false,
                   .goal           = {Goal::Of::itself, goal}};
    };
    all.push_back({.name = "connections",
                   .run  = measure_arrivals,
                   .rows = {{.section = Section::connections,
                             .metric  = "rate",
                             .what    = "new connections",
                             .unit    = "/s",
                             .goal    = times_mosquitto(0.9)},
                            processor("a connection", 1.19)}});
    all.push_back(
        {.name       = "idle-clients",
         .run        = [](Stage &stage) { measure_idle_clients(stage, stage.number(10000)); },
         .rows       = {bytes("connected", "a connected client that said nothing", 8192),
                        bytes("pinged", "after one ping", 12288), bytes("pinged_often", "after eleven pings", 12288),
                        bytes("stayed", "another 15 s later", 12288)},
         .max_rounds = 3});
}

void add_latencies(std::vector<Case> &all)
{
    const auto part = [](const char *metric, const std::string &what, Goal goal) {
        return Row{.section        = Section::latency,
                   .metric         = metric,
                   .what           = what,
                   .unit           = "us",
                   .more_is_better = false,
                   .goal           = goal};
    };
    const Goal mosquitto = {Goal::Of::mosquitto, 1}, relay = {Goal::Of::relay, 1};
    for (const unsigned qos : {0u, 1u}) {
        const std::string q = std::to_string(qos), trip = "round trip, QoS " + q, open = "5000 a second, QoS " + q;
        all.push_back({.name = "round-trip-qos" + q,
                       .run  = [qos](Stage &stage) { measure_latency(stage, {.qos = qos, .window = 1}, 1.25); },
                       .rows = {part("p50_us", trip + ", p50", mosquitto), part("p99_us", trip + ", p99", mosquitto)}});
        all.push_back({.name = "open-loop-qos" + q,
                       .run  = [qos](Stage &stage) { measure_latency(stage, {.qos = qos, .rate = 5000}, 3); },
                       .rows = {part("p50_us", open + ", p50", kNone), part("p99_us", open + ", p99", relay),
                                part("p999_us", open + ", p99.9", kNone)}});
    }
}

void add_shares(std::vector<Case> &all)
{
    const struct {
        const char *name, *what;
        Neighbour   neighbour;
    } neighbours[] = {{"beside-filters", "9000 other filters", other_filters(9000)},
                      {"beside-pending", "50000 pending deliveries", pending_deliveries(50)},
                      {"beside-retained", "1000 retained messages", retained_messages(1000)},
                      {"beside-idle", "10000 idle connections", idle_clients(10000)},
                      {"beside-absent", "1000 absent clients with kept sessions", absent_clients(1000)}};
    for (const auto &one : neighbours) {
        const auto part = [&](const char *metric, const char *what) {
            return Row{.section = Section::beside,
                       .metric  = metric,
                       .what    = std::string(one.what) + what,
                       .unit    = "%",
                       .goal    = {Goal::Of::itself, 95}};
        };
        const auto cost = [&](const char *metric, const char *what) {
            return Row{.section        = Section::beside,
                       .metric         = metric,
                       .what           = std::string(one.what) + what,
                       .unit           = "% processor time a message",
                       .more_is_better = false};
        };
        all.push_back({.name = one.name,
                       .run  = [neighbour = one.neighbour](Stage &stage) { measure_share(stage, neighbour); },
                       .rows = {part("qos0", ", QoS 0"), part("qos1", ", QoS 1"), cost("processor-qos0", ", QoS 0"),
                                cost("processor-qos1", ", QoS 1")},
                       .with_relay = false});
    }
}

std::vector<Case> make_cases()
{
    std::vector<Case> all;
    add_fans(all);
    add_pairs(all);
    add_one_to_one(all);
    add_pending(all);
    add_connections(all);
    add_latencies(all);
    add_shares(all);
    return all;
}

} // namespace

const std::vector<Case> &cases()
{
    static const std::vector<Case> all = make_cases();
    return all;
}

} // namespace tarn::performance
