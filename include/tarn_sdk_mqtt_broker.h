/*
 * tarn_sdk_mqtt_broker.h - an MQTT 3.1.1 and 5.0 broker to embed.
 */
#ifndef TARN_SDK_MQTT_BROKER_H
#define TARN_SDK_MQTT_BROKER_H

#include <pthread.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct broker_t      broker_t;
typedef struct mqtt_client_t mqtt_client_t;

enum {
    TARN_OK            = 0,
    TARN_E_INIT        = -1, /* kept for the host, never returned */
    TARN_E_PARAM       = -2,
    TARN_E_RESOURCE    = -3,
    TARN_E_NOT_RUNNING = -4, /* kept for the host, never returned */
    TARN_E_NOT_FOUND   = -5,
    TARN_E_DENIED      = -6,
    TARN_E_BUSY        = -7,
    TARN_E_TIMEOUT     = -8 /* kept for the host, never returned */
};

enum {
    BROKER_EVENT_CONNECTED    = 0, /* after the CONNACK of an accepted CONNECT */
    BROKER_EVENT_DISCONNECTED = 1, /* the client sent DISCONNECT */
    BROKER_EVENT_PUBLISH      = 2,
    BROKER_EVENT_SUBSCRIBE    = 3,
    BROKER_EVENT_UNSUBSCRIBE  = 4,
    BROKER_EVENT_WILL         = 5
};

enum { BROKER_ACL_SUBSCRIBE = 0, BROKER_ACL_PUBLISH = 1 };

/* Callbacks run inside packet handling and must not block. Texts are valid during the call only. */
typedef void (*broker_event_cb_t)(broker_t *broker, uint32_t kind, const char *text);
typedef bool (*broker_auth_cb_t)(broker_t *broker, const char *client_id, const char *username, const char *password);
typedef bool (*broker_acl_cb_t)(broker_t *broker, const char *client_id, const char *topic, uint8_t action,
                                mqtt_client_t *client);

struct broker_t {
    uint8_t           running;           /* flag */
    int32_t           keepalive_timeout; /* s, 1..3600 */
    int32_t           max_packet_size;   /* bytes, 256..10485760 */
    broker_event_cb_t event_cb;
    broker_auth_cb_t  auth_cb;
    broker_acl_cb_t   acl_cb;
    int32_t           port; /* recorded and logged only: the sockets use NETIP_PORT */
    int32_t           max_clients;
    char              data_dir[256];
    pthread_t         thread; /* housekeeping, 0 = none */
};

typedef struct {
    char     client_id[128];
    char     ip[64];
    uint16_t port;
    uint16_t keepalive; /* s */
    uint8_t  online;    /* flag */
    uint32_t idle_seconds;
} tarn_sdk_mqtt_client_info_t;

typedef struct {
    uint32_t online;
    uint32_t messages;
    uint32_t subscriptions; /* as of the last statistics update */
    uint32_t uptime_seconds;
} tarn_sdk_mqtt_broker_stats_t;

broker_t   *tarn_sdk_mqtt_broker_create(void);
void        tarn_sdk_mqtt_broker_destroy(broker_t *broker);
int32_t     tarn_sdk_mqtt_broker_init(broker_t *broker);
int32_t     tarn_sdk_mqtt_broker_start(broker_t *broker, int32_t port, int32_t max_clients);
int32_t     tarn_sdk_mqtt_broker_stop(broker_t *broker);
void        tarn_sdk_mqtt_broker_deinit(broker_t *broker);
bool        tarn_sdk_mqtt_broker_is_running(broker_t *broker);                     /* false for null */
int32_t     tarn_sdk_mqtt_broker_set_log_level(broker_t *broker, uint32_t level); /* always 0; broker unused */
int32_t     tarn_sdk_mqtt_broker_set_keepalive_timeout(broker_t *broker, int32_t seconds);
int32_t     tarn_sdk_mqtt_broker_set_max_packet_size(broker_t *broker, int32_t bytes);
const char *tarn_sdk_mqtt_broker_version(void); /* "V2.0.0" */
const char *tarn_sdk_mqtt_broker_error_str(int32_t code);

uint32_t tarn_sdk_mqtt_broker_get_online_count(broker_t *broker);
int32_t  tarn_sdk_mqtt_broker_get_client_id_list(broker_t *broker, char *buf, int32_t size);
int32_t  tarn_sdk_mqtt_broker_get_client_info(broker_t *broker, const char *client_id, tarn_sdk_mqtt_client_info_t *info);
int32_t  tarn_sdk_mqtt_broker_kick_client(broker_t *broker, const char *client_id);
int32_t  tarn_sdk_mqtt_broker_publish(broker_t *broker, const char *topic, const void *payload, int32_t len, uint32_t qos,
                                      uint8_t retain, uint32_t expiry_s);
int32_t  tarn_sdk_mqtt_broker_clear_retain(broker_t *broker, const char *topic);
int32_t  tarn_sdk_mqtt_broker_get_retain_topic_list(broker_t *broker, char *buf, int32_t size);
int32_t  tarn_sdk_mqtt_broker_get_stats(broker_t *broker, tarn_sdk_mqtt_broker_stats_t *stats);
void     tarn_sdk_mqtt_broker_register_event_callback(broker_t *broker, broker_event_cb_t cb);
void     tarn_sdk_mqtt_broker_register_auth_callback(broker_t *broker, broker_auth_cb_t cb);
void     tarn_sdk_mqtt_broker_register_acl_callback(broker_t *broker, broker_acl_cb_t cb);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
