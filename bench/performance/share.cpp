// share.cpp - what is left of a pair's throughput beside something else.
#include "idle.h"
#include "measure.h"
#include "results.h"
#include "slice.h"

#include <algorithm>
#include <memory>
#include <sched.h>

namespace tarn::performance {
namespace {

constexpr double   kWarmUp_s = 0.3, kSlice_s = 0.1;
constexpr unsigned kSlices = 12;

// A broker with a pair at QoS 0 and one at QoS 1, which run in turn.
struct Scene {
    std::unique_ptr<beside::Broker> broker;
    std::function<void()>           neighbour = [] {}; // outlives the loads, which call it
    Load                            loads[2]  = {Load({.name = "pair0", .qos = 0}), Load({.name = "pair1", .qos = 1})};

    bool start(Stage &stage)
    {
        broker = stage.start(kManyClients);
        return broker && loads[0].set_up() && loads[1].set_up();
    }
    bool has_failed() const { return loads[0].has_failed() || loads[1].has_failed(); }
};

Slice run_slice(Scene &scene, unsigned qos, double duration_s)
{
    scene.loads[qos].aside = scene.neighbour;
    return run_slice(scene.loads[qos], scene.broker->pid(), duration_s);
}

// Both take turns in short slices, first one first, then the other one, and two slices are compared that follow each
// other: what else the machine does falls on both.
void compare(Stage &stage, Scene &alone, Scene &beside, unsigned qos)
{
    std::vector<double> shares, costs; // in percent
    for (unsigned i = 0; i < kSlices; ++i) {
        Slice        slices[2]; // alone, beside
        const size_t first = i % 2;
        for (const size_t which : {first, 1 - first})
            slices[which] = run_slice(which == 0 ? alone : beside, qos, stage.seconds(kSlice_s));
        if (slices[0].rate <= 0 || slices[0].processor_us <= 0)
            continue; // the machine had no time for it
        shares.push_back(slices[1].rate / slices[0].rate * 100);
        costs.push_back(slices[1].processor_us / slices[0].processor_us * 100);
    }
    if (shares.empty())
        return stage.fail("nothing arrived");
    stage.put("qos" + std::to_string(qos), summary_of(shares)->median);
    stage.put("processor-qos" + std::to_string(qos), summary_of(costs)->median);
}

// For this process and the brokers that it starts. Where the scheduler puts the threads of a pair changes its throughput
// more than any neighbour, and does so for many slices; on one core all work shows, that for the neighbour too.
void stay_on_one_core()
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof one, &one);
}

void warm_up(Stage &stage, Scene &scene)
{
    for (unsigned qos = 0; qos < 2; ++qos)
        run_slice(scene, qos, stage.seconds(kWarmUp_s));
}

} // namespace

void measure_share(Stage &stage, const Neighbour &neighbour)
{
    Scene alone, beside;
    stay_on_one_core();
    if (!alone.start(stage))
        return stage.fail("a client could not connect or subscribe");
    if (!beside.start(stage))
        return stage.fail("a second broker in a network of its own could not be had");
    beside.neighbour = neighbour(stage);
    if (!beside.neighbour)
        return stage.fail("what was to stand beside could not be made");
    warm_up(stage, alone);
    warm_up(stage, beside);
    for (unsigned qos = 0; qos < 2; ++qos)
        compare(stage, alone, beside, qos);
    if (alone.has_failed() || beside.has_failed())
        stage.fail("a connection ended");
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
