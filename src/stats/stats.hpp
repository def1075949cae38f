// stats.hpp - counters, the report and its JSON form, for the other modules of the library. Hosts have the same as
// mqtt_stats.h, whose functions are in api/stats_c.cpp: a report begins with numbers that only modules above this one
// know.
#ifndef TARN_STATS_STATS_HPP
#define TARN_STATS_STATS_HPP

#include "counters.h"

#include <span>

namespace tarn::stats {

void init() noexcept;   // zeroes the record and notes the time
void deinit() noexcept; // does nothing: the numbers stay readable

// What others know, as it is now.
struct Snapshot {
    uint32_t online;        // clients
    uint32_t pool_capacity; // client records
    uint32_t pool_used;
    uint32_t retained; // messages
    uint32_t subscriptions;
};
void take_over(const Snapshot &snapshot) noexcept;

void begin_period() noexcept;                  // zeroes the fields period_*
void report() noexcept;                        // 13 lines at WARN
void write_json(std::span<char> buf) noexcept; // STATS_JSON_SIZE_MIN bytes or more

} // namespace tarn::stats

#endif
