#pragma GCC diagnostic ignored "-Wunused-parameter"
// Weak stand-ins that let the whole library link while the modules are being written.
#include "mqtt_stats.h"
extern "C" {
__attribute__((weak)) mqtt_stats_t g_mqtt_stats;
__attribute__((weak)) void mqtt_stats_init(void) {}
__attribute__((weak)) void mqtt_stats_deinit(void) {}
__attribute__((weak)) void mqtt_stats_update(void) {}
__attribute__((weak)) void mqtt_stats_reset_period(void) {}
__attribute__((weak)) void mqtt_stats_print(void) {}
__attribute__((weak)) int mqtt_stats_to_json(char *buf, int32_t size) { return {}; }
__attribute__((weak)) void mqtt_stats_inc_qos(uint8_t qos) {}
__attribute__((weak)) void mqtt_stats_inc_rx_pkt(void) {}
__attribute__((weak)) void mqtt_stats_inc_tx_pkt(void) {}
__attribute__((weak)) void mqtt_stats_inc_drop_offline(void) {}
__attribute__((weak)) void mqtt_stats_inc_drop_queue_full(void) {}
__attribute__((weak)) void mqtt_stats_inc_drop_too_big(void) {}
__attribute__((weak)) void mqtt_stats_inc_drop_invalid_param(void) {}
__attribute__((weak)) void mqtt_stats_inc_drop_send_failed(void) {}
__attribute__((weak)) void mqtt_stats_inc_offline_msg(void) {}
__attribute__((weak)) void mqtt_stats_inc_will_sent(void) {}
__attribute__((weak)) void mqtt_stats_inc_timeout(void) {}
__attribute__((weak)) void mqtt_stats_inc_persist_write(void) {}
__attribute__((weak)) void mqtt_stats_inc_persist_read(void) {}
__attribute__((weak)) void mqtt_stats_inc_parse_error(void) {}
}
