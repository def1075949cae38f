// counters.cpp - the record of all counters.
#include "counters.h"

constinit mqtt_stats_t g_mqtt_stats{};
