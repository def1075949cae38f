/*
 * client.h - client records: creation, look-up, sending, closing, wills, and the bridge from network events.
 */
#ifndef TARN_CLIENT_CLIENT_H
#define TARN_CLIENT_CLIENT_H

#include <pthread.h>
#include "client_types.h"

TARN_API_BEGIN

extern client_mgr_t g_client_mgr;
extern int32_t      g_mqtt_max_clients;        /* 11000 until start */
extern uint32_t     g_default_max_packet_size; /* bytes, 4096 until start */
extern int32_t      g_will_delay_client_count; /* diagnostics */
extern uint8_t      g_send_running;
extern pthread_t    g_send_thread;

uint32_t       client_mgr_init(int32_t max_clients); /* 0 or 0xFFFFFFFF */
void           client_mgr_deinit(void);
mqtt_client_t *client_create(uint32_t handle, const char *ip, uint16_t port, broker_t *broker);
void           pool_free(mqtt_client_t *client);
void           client_set_cid(mqtt_client_t *client, const char *client_id);
mqtt_client_t *client_find_by_handle(uint32_t handle);
mqtt_client_t *client_find_by_cid(const char *client_id);

uint32_t client_send(mqtt_client_t *client, const uint8_t *bytes, int32_t length); /* 0 or 0xFFFFFFFF */
void     client_send_flush(mqtt_client_t *client);
void    *send_thread_proc(void *unused);
void     mqtt_start_send_thread(void);
void     mqtt_stop_send_thread(void);

void     client_close(mqtt_client_t *client);
uint32_t client_clean_timeout(uint32_t default_threshold_ms); /* clients closed */
void     client_set_keepalive(mqtt_client_t *client, uint16_t seconds);
void     client_update_active(mqtt_client_t *client);

void client_set_will_msg(mqtt_client_t *client, const char *topic, const uint8_t *payload, uint32_t payload_len,
                         uint8_t qos, uint8_t retain);
void client_set_will_enhance(mqtt_client_t *client, uint32_t delay_s, uint32_t expiry_s, uint8_t payload_format,
                             const char *content_type, const char *response_topic, const uint8_t *correlation_data,
                             uint32_t correlation_len);
void client_will_delay_scan(void);
void client_clean_expired_sessions(void);

uint8_t  mqtt_netip_event_cb(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t len, uint32_t reason,
                             uint32_t error, void *arg); /* arg: the broker_t */
int32_t  client_fill_id_list(char *buf, int32_t size);
uint32_t client_get_connected_count(void);
void     on_netip_send_ready(uint32_t handle);

TARN_API_END

#endif
