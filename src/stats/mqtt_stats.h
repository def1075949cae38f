/*
 * mqtt_stats.h - counters since start and for the current period, the report and its JSON form.
 */
#ifndef TARN_STATS_MQTT_STATS_H
#define TARN_STATS_MQTT_STATS_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"

TARN_API_BEGIN

typedef struct {
    uint64_t start_ms; /* mono ms */
    uint32_t online;
    uint32_t max_online;
    uint64_t pkt_rx;
    uint64_t pkt_tx;
    uint64_t drop_offline;
    uint64_t drop_queue_full;
    uint64_t drop_too_big;
    uint64_t drop_invalid_param;
    uint64_t drop_send_failed;
    uint64_t qos0;
    uint64_t qos1;
    uint64_t qos2;
    uint64_t offline_msg;
    uint32_t retain_msg;
    uint32_t subs;
    uint32_t timeout;
    uint32_t will_sent;
    uint32_t parse_error;
    uint64_t persist_write;
    uint64_t persist_read;
    uint32_t pool_cap;
    uint32_t pool_used;
    float    pool_usage; /* percent */
    uint64_t period_rx;
    uint64_t period_tx;
    uint64_t period_drop_offline;
    uint64_t period_drop_queue_full;
    uint64_t period_drop_too_big;
    uint64_t period_drop_invalid_param;
    uint64_t period_drop_send_failed;
    uint32_t period_timeout;
    uint32_t period_will;
    uint64_t period_persist_write;
    uint64_t period_persist_read;
} mqtt_stats_t;

extern mqtt_stats_t g_mqtt_stats;

void mqtt_stats_init(void);
void mqtt_stats_deinit(void);
void mqtt_stats_update(void);
void mqtt_stats_reset_period(void);
void mqtt_stats_print(void);
int  mqtt_stats_to_json(char *buf, int32_t size); /* size 1024 or more */
void mqtt_stats_inc_qos(uint8_t qos);
void mqtt_stats_inc_rx_pkt(void);
void mqtt_stats_inc_tx_pkt(void);
void mqtt_stats_inc_drop_offline(void);
void mqtt_stats_inc_drop_queue_full(void);
void mqtt_stats_inc_drop_too_big(void);
void mqtt_stats_inc_drop_invalid_param(void);
void mqtt_stats_inc_drop_send_failed(void);
void mqtt_stats_inc_offline_msg(void);
void mqtt_stats_inc_will_sent(void);
void mqtt_stats_inc_timeout(void);
void mqtt_stats_inc_persist_write(void);
void mqtt_stats_inc_persist_read(void);
void mqtt_stats_inc_parse_error(void);

TARN_API_END

TARN_LAYOUT_SIZE(mqtt_stats_t, 240);
TARN_LAYOUT_OFFSET(mqtt_stats_t, retain_msg, 104);
TARN_LAYOUT_OFFSET(mqtt_stats_t, persist_write, 128);
TARN_LAYOUT_OFFSET(mqtt_stats_t, pool_usage, 152);
TARN_LAYOUT_OFFSET(mqtt_stats_t, period_rx, 160);

#endif
