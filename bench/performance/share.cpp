// share.cpp - what is left of a pair's throughput beside something else.
#include "idle.h"
#include "measure.h"

#include <algorithm>
#include <memory>

namespace tarn::performance {
namespace {

constexpr double   kWarmUp_s = 0.3, kSlice_s = 0.15;
constexpr unsigned kSlices = 10;

// A broker with a pair at QoS 0 and one at QoS 1, which run in turn.
struct Scene {
    std::unique_ptr<beside::Broker> broker;
    std::function<void()>           neighbour = [] {}; // before the loads end, so that they may call it
    Load                            loads[2]  = {Load({.name = "pair0", .qos = 0}), Load({.name = "pair1", .qos = 1})};
    double                          deliveries[2] = {}, seconds[2] = {};

    bool set_up() { return loads[0].set_up() && loads[1].set_up(); }
    bool has_failed() const { return loads[0].has_failed() || loads[1].has_failed(); }

    void run(unsigned qos, double duration_s)
    {
        Load          &load     = loads[qos];
        const uint64_t start_ns = now_ns();
        const Counts   before   = load.counts();
        load.aside              = neighbour;
        load.run_for(duration_s);
        deliveries[qos] += static_cast<double>((load.counts() - before).deliveries);
        seconds[qos] += static_cast<double>(now_ns() - start_ns) / 1e9;
    }
    double rate(unsigned qos) const { return deliveries[qos] / seconds[qos]; }
};

// Both take turns in short slices, first one first, then the other one: what else the machine does falls on both.
void run_in_turn(Scene &alone, Scene &beside, double slice_s)
{
    for (unsigned slice = 0; slice < kSlices; ++slice)
        for (unsigned qos = 0; qos < 2; ++qos) {
            Scene *const order[] = {slice % 2 ? &beside : &alone, slice % 2 ? &alone : &beside};
            for (Scene *const scene : order)
                scene->run(qos, slice_s);
        }
}

void warm_up(Scene &scene, double duration_s)
{
    for (unsigned qos = 0; qos < 2; ++qos) {
        scene.run(qos, duration_s);
        scene.deliveries[qos] = scene.seconds[qos] = 0;
    }
}

} // namespace

void measure_share(Stage &stage, const Neighbour &neighbour)
{
    Scene alone, beside;
    alone.broker = stage.start(kManyClients);
    if (!alone.broker || !alone.set_up())
        return stage.fail("a client could not connect or subscribe");
    beside.broker = stage.start(kManyClients);
    if (!beside.broker || !beside.set_up())
        return stage.fail("a second broker in a network of its own could not be had");
    beside.neighbour = neighbour(stage);
    if (!beside.neighbour)
        return stage.fail("what was to stand beside could not be made");
    warm_up(alone, stage.seconds(kWarmUp_s));
    warm_up(beside, stage.seconds(kWarmUp_s));
    run_in_turn(alone, beside, stage.seconds(kSlice_s));
    if (alone.has_failed() || beside.has_failed())
        return stage.fail("a connection ended");
    for (unsigned qos = 0; qos < 2; ++qos)
        stage.put("qos" + std::to_string(qos), beside.rate(qos) / alone.rate(qos) * 100);
}

Neighbour other_filters(unsigned count)
{
    return [count](Stage &stage) -> std::function<void()> {
        const auto links = std::make_shared<Links>();
        if (!subscribe_to_others(*links, stage.number(count)))
            return nullptr;
        return [links] {};
    };
}

Neighbour pending_deliveries(unsigned clients)
{
    return [clients](Stage &stage) -> std::function<void()> {
        const auto pending = std::make_shared<Load>(pending_of(stage.number(clients)));
        if (!make_pending(*pending))
            return nullptr;
        return [pending] { pending->turn(0); };
    };
}

Neighbour retained_messages(unsigned count)
{
    return [count](Stage &stage) -> std::function<void()> {
        const auto links = std::make_shared<Links>();
        if (!publish_retained(*links, stage.number(count)))
            return nullptr;
        return [links] {};
    };
}

Neighbour idle_clients(unsigned count)
{
    return [count](Stage &stage) -> std::function<void()> {
        const auto idle = std::make_shared<IdleClients>();
        if (!idle->connect(stage.number(count)))
            return nullptr;
        return [idle] {};
    };
}

Neighbour absent_clients(unsigned count)
{
    return [count](Stage &stage) -> std::function<void()> {
        if (!leave_sessions(stage.number(count)))
            return nullptr;
        return [] {};
    };
}

} // namespace tarn::performance
