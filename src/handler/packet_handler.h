/*
 * packet_handler.h - what the broker does with MQTT packets, and the routes a message can take.
 */
#ifndef TARN_HANDLER_PACKET_HANDLER_H
#define TARN_HANDLER_PACKET_HANDLER_H

#include "../client/client_types.h"

TARN_API_BEGIN

extern uint32_t     msgid_seed; /* rand_r() state, 0 = take time() at the next draw; under msgid_mutex */
extern tarn_mutex_t msgid_mutex;

int  packet_handler_init(void);
int  packet_handler_deinit(void);
int  packet_dispatch(mqtt_client_t *client, const uint8_t *buf, uint32_t len);
int  packet_handler_broker_publish(const char *topic, const uint8_t *payload, int payload_len, uint8_t qos,
                                   uint8_t retain, uint32_t message_expiry);
void packet_handler_broadcast_msg(const uint8_t *packet, uint32_t len, uint8_t is_will);
void send_retained_msg_to_client(mqtt_client_t *client, const char *filter);
int  packet_send_will_message(mqtt_client_t *client);
void packet_start_will_delay(mqtt_client_t *client);
void packet_cancel_will(mqtt_client_t *client);
void packet_handler_restore_offline_msgs(mqtt_client_t *client);
void packet_handler_remove_client_subs(const char *client_id, uint8_t clean_session);
void packet_handler_send_disconnect(mqtt_client_t *client, uint8_t reason_code);
void packet_handler_publish_test_msg(void);

TARN_API_END

#endif
