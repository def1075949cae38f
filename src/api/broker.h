/*
 * broker.h - the host's callbacks as packet handling reaches them, and the housekeeping thread.
 *
 * The module owns the instances (tarn_sdk_mqtt_broker.h). Packet handling asks and tells the host through it.
 *
 *   threads   any, at once
 *   locks     none taken; the caller holds none, because the host's callback runs inside
 *   memory    what is passed in is lent to the callback for the call
 *   log       nothing
 */
#ifndef TARN_API_BROKER_H
#define TARN_API_BROKER_H

#include <tarn_sdk_mqtt_broker.h>
#include "../base/export.h"

TARN_API_BEGIN

/* -------------------------------------------------------------------------------------------------------- callbacks
 * Of the instance that the client came in through. Without an instance, or without such a callback, the answer is yes
 * and nobody is told; so it is for a null client. */

/*
 * Asks whether a CONNECT is accepted.
 *
 *   client_id, username, password   not null; as the client sent them, empty when absent
 *   returns                         true to accept
 */
bool broker_fire_auth(mqtt_client_t *client, const char *client_id, const char *username, const char *password);

/*
 * Asks whether the client, under the id of its record, may publish or subscribe.
 *
 *   topic     not null; the topic, or the filter
 *   action    BROKER_ACL_*
 *   returns   true to allow
 */
bool broker_fire_acl(mqtt_client_t *client, const char *topic, uint8_t action);

/*
 * Tells that something happened, as JSON text cut at 255 characters.
 *
 *   kind      BROKER_EVENT_*
 *   topic     null is told as empty
 *   qos       of the message or subscription, else 0
 */
void broker_fire_event(mqtt_client_t *client, uint32_t kind, const char *topic, int32_t qos);

/* ----------------------------------------------------------------------------------------------------- housekeeping */

/*
 * The body of an instance's housekeeping thread: each 10 ms what is due, until the instance is stopped. start makes the
 * thread; a host does not call this.
 *
 *   broker    the instance, not null; it outlives the call
 *   returns   null
 */
void *broker_thread_entry(void *broker);

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
TARN_LAYOUT_SIZE(tarn_sdk_mqtt_session_info_t, 8);
TARN_LAYOUT_SIZE(tarn_sdk_mqtt_broker_stats_t, 16);

#endif
