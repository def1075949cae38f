#include "measure.h"

#include "arrivals.h"
#include "idle.h"
#include "process.h"
#include "results.h"
#include "slice.h"

#include <algorithm>
#include <sys/prctl.h>
#include <unistd.h>

namespace tarn::performance {
namespace {

constexpr double   kWarmUp_s = 0.4, kWarmUpLimit_s = 8, kRun_s = 1.25;
constexpr unsigned kSlices         = 5;
constexpr unsigned kWarmUpMessages = 300;
constexpr unsigned kArrivalsAtOnce = 32;

void put_faults(Stage &stage, const Counts &counts)
{
    stage.put("lost", static_cast<double>(counts.lost));
    if (counts.again > 0)
        stage.put("again", static_cast<double>(counts.again));
}

// Until each subscriber had some hundred messages: by then buffers have been used once.
void warm_up(Stage &stage, Load &load, unsigned subscribers)
{
    const double end_s = beside::now_s() + stage.seconds(kWarmUpLimit_s);
    do
        load.run_for(stage.seconds(kWarmUp_s));
    while (load.counts().deliveries < uint64_t{kWarmUpMessages} * subscribers && beside::now_s() < end_s);
}

// The median of some slices, each of which begins with nothing in flight: how messages flock together on their way, on
// which their cost depends, differs from one slice to the next.
void put_loop(Stage &stage, Load &load, unsigned subscribers, pid_t broker)
{
    warm_up(stage, load, subscribers);
    std::vector<double> rates, processor_us, client_shares;
    const Counts        before = load.counts();
    for (unsigned i = 0; i < kSlices && !load.has_failed(); ++i) {
        const Slice slice = run_slice(load, broker, stage.seconds(kRun_s / kSlices));
        rates.push_back(slice.rate);
        processor_us.push_back(slice.processor_us);
        client_shares.push_back(slice.client_share);
    }
    if (load.has_failed())
        return stage.fail("a connection ended");
    if (summary_of(rates)->median <= 0)
        return stage.fail("nothing arrived");
    stage.put("rate", summary_of(rates)->median);
    stage.put("processor_us", summary_of(processor_us)->median);
    stage.put("client_share", summary_of(client_shares)->median);
    put_faults(stage, load.counts() - before);
}

uint32_t percentile_of(std::vector<uint32_t> &values, double part)
{
    const auto at = values.begin() + static_cast<long>(static_cast<double>(values.size() - 1) * part);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

} // namespace

void measure_closed_loop(Stage &stage, const LoadOptions &options)
{
    const auto broker = stage.start();
    Load       load(options);
    if (!broker || !load.set_up())
        return stage.fail("a client could not connect or subscribe");
    put_loop(stage, load, options.subscribers, broker->pid());
}

void measure_beside_pending(Stage &stage, const LoadOptions &options, unsigned clients)
{
    const auto broker = stage.start();
    Load       load(options);
    Load       pending(pending_of(clients));
    if (!broker || !load.set_up() || !make_pending(pending))
        return stage.fail("a client could not connect or subscribe");
    load.aside = [&] { pending.turn(0); };
    stage.put("pending", static_cast<double>(pending.counts().deliveries));
    put_loop(stage, load, options.subscribers, broker->pid());
}

// The p99 of so many messages rests on their latest: were all slices one run, a pause of the machine of 30 ms would
// decide it. The rarer times need all messages.
void measure_latency(Stage &stage, LoadOptions options, double seconds)
{
    const auto broker = stage.start();
    options.latencies = true;
    prctl(PR_SET_TIMERSLACK, 1); // nanosecond: an open loop wakes up when it is to; the broker has what is usual
    Load load(options);
    if (!broker || !load.set_up())
        return stage.fail("a client could not connect or subscribe");
    load.run_for(stage.seconds(kWarmUp_s));
    const Counts          before = load.counts();
    std::vector<uint32_t> all;
    std::vector<double>   p50, p99;
    for (unsigned i = 0; i < kSlices; ++i) {
        std::vector<uint32_t> &latencies = load.latencies_ns();
        latencies.clear();
        load.run_for(stage.seconds(seconds / kSlices));
        if (load.has_failed() || latencies.empty())
            return stage.fail("a connection ended");
        p50.push_back(percentile_of(latencies, 0.5) / 1e3);
        p99.push_back(percentile_of(latencies, 0.99) / 1e3);
        all.insert(all.end(), latencies.begin(), latencies.end());
    }
    stage.put("p50_us", summary_of(p50)->median);
    stage.put("p99_us", summary_of(p99)->median);
    stage.put("p999_us", percentile_of(all, 0.999) / 1e3);
    put_faults(stage, load.counts() - before);
}

void measure_arrivals(Stage &stage)
{
    const auto broker = stage.start();
    if (!broker)
        return stage.fail("it does not start");
    Arrivals arrivals(4, kArrivalsAtOnce);
    arrivals.run_for(stage.seconds(kWarmUp_s));
    const uint64_t before = arrivals.served();
    const Meter    meter(broker->pid());
    arrivals.run_for(stage.seconds(kRun_s));
    const double elapsed_s = meter.elapsed_s(), broker_s = meter.broker_s(), own_s = meter.own_s();
    const double served = static_cast<double>(arrivals.served() - before);
    if (served == 0)
        return stage.fail("nobody was let in");
    stage.put("rate", served / elapsed_s);
    stage.put("processor_us", broker_s / served * 1e6);
    stage.put("client_share", own_s / elapsed_s);
    stage.put("unanswered", static_cast<double>(arrivals.unanswered()));
}

void measure_idle_clients(Stage &stage, unsigned clients)
{
    const auto broker = stage.start(kManyClients);
    if (!broker)
        return stage.fail("it does not start");
    const auto bytes_each = [&, before = private_bytes(broker->pid())] {
        usleep(200000);
        return (private_bytes(broker->pid()) - before) / clients;
    };
    IdleClients idle;
    if (!idle.connect(clients))
        return stage.fail("not all clients could connect");
    stage.put("connected", bytes_each());
    if (!idle.ping())
        return stage.fail("a ping was not answered");
    stage.put("pinged", bytes_each());
    for (unsigned i = 0; i < 10; ++i)
        if (!idle.ping())
            return stage.fail("a ping was not answered");
    stage.put("pinged_often", bytes_each());
    sleep(static_cast<unsigned>(stage.seconds(15)));
    stage.put("stayed", bytes_each());
}

} // namespace tarn::performance
