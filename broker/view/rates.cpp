#include "rates.h"

#include <algorithm>
#include <functional>

namespace tarn::broker {
namespace {

// Calls act with each counter and its place among the peaks.
void for_each_counter(const std::function<void(uint64_t Counters::*, size_t)> &act)
{
    size_t place = 0;
    for (const RateRow &row : kFlows)
        act(row.counter, place++);
    for (const RateRow &row : kDrops)
        act(row.counter, place++);
}

} // namespace

void Rates::add(const Counters &counters, int64_t now_ms)
{
    if (!samples_.empty() && now_ms <= samples_.back().at_ms)
        return; // no time between them, no rate
    samples_.push_back({counters, now_ms});
    if (samples_.size() > kHistory + 1)
        samples_.pop_front();
    for_each_counter([this](uint64_t Counters::*counter, size_t place) {
        peaks_[place] = std::max(peaks_[place], per_second(counter));
    });
}

double Rates::peak(uint64_t Counters::*counter) const
{
    double found = 0;
    for_each_counter([&](uint64_t Counters::*other, size_t place) {
        if (other == counter)
            found = peaks_[place];
    });
    return found;
}

double Rates::rate(uint64_t Counters::*counter, size_t back) const
{
    if (back >= known())
        return 0;
    const size_t newer = samples_.size() - 1 - back;
    return between(samples_[newer - 1], samples_[newer], counter);
}

// A counter that went back was set to zero in between.
double Rates::between(const Sample &older, const Sample &newer, uint64_t Counters::*counter)
{
    const uint64_t before = older.counters.*counter, after = newer.counters.*counter;
    const double   seconds = static_cast<double>(newer.at_ms - older.at_ms) / 1000;
    return static_cast<double>(after >= before ? after - before : after) / seconds;
}

} // namespace tarn::broker
