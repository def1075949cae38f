/*
 * broker.h - the host's callbacks as packet handling reaches them, and the housekeeping thread.
 */
#ifndef TARN_API_BROKER_H
#define TARN_API_BROKER_H

#include <tarn_sdk_mqtt_broker.h>
#include "../base/export.h"

TARN_API_BEGIN

bool  broker_fire_auth(mqtt_client_t *client, const char *client_id, const char *username, const char *password);
bool  broker_fire_acl(mqtt_client_t *client, const char *topic, uint8_t action);
void  broker_fire_event(mqtt_client_t *client, uint32_t kind, const char *topic, int32_t qos);
void *broker_thread_entry(void *broker); /* body of the housekeeping thread */

TARN_API_END

TARN_LAYOUT_SIZE(broker_t, 312);
TARN_LAYOUT_OFFSET(broker_t, event_cb, 16);
TARN_LAYOUT_OFFSET(broker_t, port, 40);
TARN_LAYOUT_OFFSET(broker_t, data_dir, 48);
TARN_LAYOUT_OFFSET(broker_t, thread, 304);
TARN_LAYOUT_SIZE(tarn_sdk_mqtt_client_info_t, 204);
TARN_LAYOUT_OFFSET(tarn_sdk_mqtt_client_info_t, port, 192);
TARN_LAYOUT_OFFSET(tarn_sdk_mqtt_client_info_t, online, 196);
TARN_LAYOUT_OFFSET(tarn_sdk_mqtt_client_info_t, idle_seconds, 200);
TARN_LAYOUT_SIZE(tarn_sdk_mqtt_broker_stats_t, 16);

#endif
