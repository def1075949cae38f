// slice.h - what a load gets and costs for a short time.
#ifndef TARN_BENCH_PERFORMANCE_SLICE_H
#define TARN_BENCH_PERFORMANCE_SLICE_H

#include "load.h"

#include <sys/types.h>

namespace tarn::performance {

// What was used since it was made.
class Meter {
public:
    explicit Meter(pid_t broker);

    double elapsed_s() const;
    double broker_s() const; // of processor time
    double own_s() const;    // the same of this thread

private:
    const pid_t    broker_;
    const uint64_t start_ns_ = now_ns();
    const double   broker_s_, own_s_;
};

struct Slice {
    double rate         = 0; // deliveries a second
    double processor_us = 0; // of the broker, for each message published
    double client_share = 0; // of a core, used by this thread
};

Slice run_slice(Load &load, pid_t broker, double duration_s);

} // namespace tarn::performance

#endif
