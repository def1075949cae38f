#include "slice.h"

#include "process.h"

#include <algorithm>
#include <ctime>

namespace tarn::performance {
namespace {

double own_processor_s()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

} // namespace

Meter::Meter(pid_t broker) : broker_(broker), broker_s_(processor_s(broker)), own_s_(own_processor_s()) {}

double Meter::elapsed_s() const
{
    return static_cast<double>(now_ns() - start_ns_) / 1e9;
}

double Meter::broker_s() const
{
    return processor_s(broker_) - broker_s_;
}

double Meter::own_s() const
{
    return own_processor_s() - own_s_;
}

Slice run_slice(Load &load, pid_t broker, double duration_s)
{
    const Counts before = load.counts();
    const Meter  meter(broker);
    load.run_for(duration_s);
    const double elapsed_s = meter.elapsed_s(), broker_s = meter.broker_s(), own_s = meter.own_s();
    const Counts done = load.counts() - before;
    return {.rate         = static_cast<double>(done.deliveries) / elapsed_s,
            .processor_us = broker_s / static_cast<double>(std::max<uint64_t>(done.published, 1)) * 1e6,
            .client_share = own_s / elapsed_s};
}

} // namespace tarn::performance
