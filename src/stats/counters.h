// counters.h - what the broker counts: one row a counter. Clearing, reports, JSON and the exported increment follow
// from the row, and a row that no report shows does not compile (report.cpp). Its fields stand in mqtt_stats_t, whose size
// and offsets are frozen: two gaps of four bytes are left there, behind parse_error and behind pool_usage. What does not
// fit has to count in a record of its own.
#ifndef TARN_STATS_COUNTERS_H
#define TARN_STATS_COUNTERS_H

#include "../base/relaxed.h"
#include "mqtt_stats.h"

#include <cstddef>

namespace tarn::stats {

enum class Shown { Everywhere, InReports, Nowhere };

// Counter, its total, its count for the current period, and whether reports and JSON show it. In the order of JSON.
// ROW has an exported mqtt_stats_inc_<counter>; INNER has none of its own.
#define TARN_COUNTERS(ROW, INNER)                                                                                      \
    ROW(rx_pkt, pkt_rx, period_rx, Shown::Everywhere)                                                                  \
    ROW(tx_pkt, pkt_tx, period_tx, Shown::Everywhere)                                                                  \
    ROW(drop_offline, drop_offline, period_drop_offline, Shown::Everywhere)                                            \
    ROW(drop_queue_full, drop_queue_full, period_drop_queue_full, Shown::Everywhere)                                   \
    ROW(drop_too_big, drop_too_big, period_drop_too_big, Shown::Everywhere)                                            \
    ROW(drop_invalid_param, drop_invalid_param, period_drop_invalid_param, Shown::Everywhere)                          \
    ROW(drop_send_failed, drop_send_failed, period_drop_send_failed, Shown::Everywhere)                                \
    INNER(qos0, qos0, none, Shown::Everywhere)                                                                         \
    INNER(qos1, qos1, none, Shown::Everywhere)                                                                         \
    INNER(qos2, qos2, none, Shown::Everywhere)                                                                         \
    ROW(offline_msg, offline_msg, none, Shown::Everywhere)                                                             \
    ROW(timeout, timeout, period_timeout, Shown::Everywhere)                                                           \
    ROW(will_sent, will_sent, period_will, Shown::Everywhere)                                                          \
    ROW(persist_write, persist_write, period_persist_write, Shown::InReports)                                          \
    ROW(persist_read, persist_read, period_persist_read, Shown::InReports)                                             \
    ROW(parse_error, parse_error, none, Shown::Nowhere)

enum class Counter {
#define TARN_NAME(name, total, period, shown) name,
    TARN_COUNTERS(TARN_NAME, TARN_NAME)
#undef TARN_NAME
};

// A number of the record, of either width.
class Field {
public:
    constexpr Field() = default;
    constexpr Field(Shared<uint64_t> mqtt_stats_t::*field) : wide_(field) {}
    constexpr Field(Shared<uint32_t> mqtt_stats_t::*field) : narrow_(field) {}

    constexpr bool there() const { return wide_ || narrow_; }
    constexpr bool operator==(const Field &) const = default;

    unsigned long long read() const noexcept
    {
        return wide_ ? uint64_t{g_mqtt_stats.*wide_} : uint64_t{g_mqtt_stats.*narrow_};
    }
    void clear() const noexcept
    {
        if (wide_)
            g_mqtt_stats.*wide_ = 0;
        else
            g_mqtt_stats.*narrow_ = 0;
    }
    void count() const noexcept
    {
        if (wide_)
            bump(g_mqtt_stats.*wide_);
        else if (narrow_)
            bump(g_mqtt_stats.*narrow_);
    }

private:
    Shared<uint64_t> mqtt_stats_t::*wide_   = nullptr;
    Shared<uint32_t> mqtt_stats_t::*narrow_ = nullptr;
};

struct CounterRow {
    Field       total;
    Field       period; // there() only where the counter has one
    const char *json;   // its key
    Shown       shown;
};

// The names of a row: fields of the record, and `none`.
struct Names : mqtt_stats_t {
    static constexpr Field none{};
};
constexpr Field field_of(const Field *none)
{
    return *none;
}
template <class T> constexpr Field field_of(T mqtt_stats_t::*member)
{
    return member;
}

constexpr CounterRow kCounters[] = {
#define TARN_ROW(name, total, period, shown) {field_of(&Names::total), field_of(&Names::period), #total, shown},
    TARN_COUNTERS(TARN_ROW, TARN_ROW)
#undef TARN_ROW
};

// Any thread; nobody waits.
inline void count(Counter counter) noexcept
{
    const CounterRow &row = kCounters[static_cast<size_t>(counter)];
    row.total.count();
    row.period.count();
}

// A PUBLISH received at this QoS; other numbers are not counted.
inline void count_qos(uint32_t qos) noexcept
{
    if (qos <= 2)
        count(static_cast<Counter>(static_cast<uint32_t>(Counter::qos0) + qos));
}

} // namespace tarn::stats

#endif
