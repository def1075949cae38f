// rates.h - from counters that only grow to what happens in a second, now and over the last minutes.
#ifndef TARN_BROKER_VIEW_RATES_H
#define TARN_BROKER_VIEW_RATES_H

#include "../query.h"

#include <cstddef>
#include <cstdint>
#include <deque>

namespace tarn::broker {

// The counters that are shown as rates.
struct RateRow {
    const char *name;
    uint64_t Counters::*counter;
};
inline constexpr RateRow kFlows[] = {
    {"messages in", &Counters::messages_in}, {"packets in", &Counters::packets_in},
    {"packets out", &Counters::packets_out}, {"bytes in", &Counters::bytes_in},
    {"bytes out", &Counters::bytes_out},
};
inline constexpr RateRow kDrops[] = {
    {"offline", &Counters::drop_offline},    {"queue full", &Counters::drop_queue_full},
    {"too big", &Counters::drop_too_big},    {"invalid", &Counters::drop_invalid},
    {"send failed", &Counters::drop_failed},
};

class Rates {
public:
    static constexpr size_t kHistory = 300; // samples, some minutes at one a second

    void add(const Counters &counters, int64_t now_ms); // monotonic

    double per_second(uint64_t Counters::*counter) const { return rate(counter, 0); }
    double peak(uint64_t Counters::*counter) const; // the highest ever
    // The rate `back` samples ago, 0 = the newest; 0.0 before the first.
    double rate(uint64_t Counters::*counter, size_t back) const;
    size_t known() const { return samples_.empty() ? 0 : samples_.size() - 1; } // rates that there are

    const Counters &now() const { return samples_.empty() ? none_ : samples_.back().counters; }

private:
    struct Sample {
        Counters counters;
        int64_t  at_ms;
    };
    static double between(const Sample &older, const Sample &newer, uint64_t Counters::*counter);

    std::deque<Sample> samples_; // oldest first, one more than rates are kept
    double             peaks_[std::size(kFlows) + std::size(kDrops)] = {};
    Counters           none_{};
};

} // namespace tarn::broker

#endif
