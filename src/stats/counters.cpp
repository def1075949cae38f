// counters.cpp - the record of all counters, and the exported functions that count.
//
// Every field is a relaxed atomic: any thread counts, any thread reads, and nobody waits.
#include "counters.h"

constinit mqtt_stats_t g_mqtt_stats{};

using namespace tarn::stats;

extern "C" {

void mqtt_stats_inc_qos(uint8_t qos)
{
    count_qos(qos);
}

// Declared, each with what it counts, in mqtt_stats.h.
#define TARN_INCREMENT(name, total, period, shown)                                                                     \
    void mqtt_stats_inc_##name(void)                                                                                   \
    {                                                                                                                  \
        count(Counter::name);                                                                                          \
    }
#define TARN_NO_INCREMENT(name, total, period, shown)
TARN_COUNTERS(TARN_INCREMENT, TARN_NO_INCREMENT)

} // extern "C"
