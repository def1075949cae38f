// stats_c.cpp - mqtt_stats.h: what hosts call. It stands here because an update takes over what modules above stats know;
// everything else is stats.hpp's.
#include "../stats/stats.hpp"
#include "api_internal.h"

using namespace tarn;

extern "C" {

void mqtt_stats_init(void)
{
    stats::init();
}

void mqtt_stats_deinit(void)
{
    stats::deinit();
}

void mqtt_stats_update(void)
{
    api::update_statistics();
}

void mqtt_stats_reset_period(void)
{
    stats::begin_period();
}

void mqtt_stats_print(void)
{
    api::update_statistics();
    stats::report();
}

int mqtt_stats_to_json(char *buf, int32_t size)
{
    if (!buf || size < STATS_JSON_SIZE_MIN)
        return -1;
    api::update_statistics();
    stats::write_json({buf, static_cast<size_t>(size)});
    return 0;
}

void mqtt_stats_inc_qos(uint8_t qos)
{
    stats::count_qos(qos);
}

// Declared, each with what it counts, in mqtt_stats.h.
#define TARN_INCREMENT(name, total, period, shown)                                                                     \
    void mqtt_stats_inc_##name(void)                                                                                   \
    {                                                                                                                  \
        stats::count(stats::Counter::name);                                                                            \
    }
#define TARN_NO_INCREMENT(name, total, period, shown)
TARN_COUNTERS(TARN_INCREMENT, TARN_NO_INCREMENT)

} // extern "C"
