// measure.h - the measurements. Each starts its broker, runs, and puts its figures on the stage.
#ifndef TARN_BENCH_PERFORMANCE_MEASURE_H
#define TARN_BENCH_PERFORMANCE_MEASURE_H

#include "load.h"
#include "stage.h"

namespace tarn::performance {

// rate: deliveries a second; processor_us: of the broker for each message published; client_share: of a core, used by
// this program; lost and again: see Counts.
void measure_closed_loop(Stage &stage, const LoadOptions &options);
// The same beside so many clients each of which leaves 1000 deliveries at QoS 1 unacknowledged.
void measure_beside_pending(Stage &stage, const LoadOptions &options, unsigned clients);
// p50_us, p99_us, p999_us, lost: in an open loop if the options have a rate.
void measure_latency(Stage &stage, LoadOptions options, double seconds);
// rate, processor_us: of connections.
void measure_arrivals(Stage &stage);
// connected, pinged, pinged_often, stayed: bytes for each client.
void measure_idle_clients(Stage &stage, unsigned clients);

// What stands beside the pairs of measure_share. It is called once, and what it made lasts as long as what it returns,
// which is called now and then; an empty function is a failure.
using Neighbour = std::function<std::function<void()>(Stage &)>;
// qos0, qos1: throughput of a pair beside the neighbour, in percent of that of a pair which is alone; processor-qos0,
// processor-qos1: the same of the broker's processor time for each message.
void measure_share(Stage &stage, const Neighbour &neighbour);

Neighbour other_filters(unsigned count), pending_deliveries(unsigned clients), retained_messages(unsigned count),
    idle_clients(unsigned count), absent_clients(unsigned count);

} // namespace tarn::performance

#endif
