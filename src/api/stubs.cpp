#pragma GCC diagnostic ignored "-Wunused-parameter"
// Weak stand-ins that let the whole library link while the modules are being written.
#include "broker.h"
extern "C" {
__attribute__((weak)) broker_t *tarn_sdk_mqtt_broker_create(void) { return {}; }
__attribute__((weak)) void tarn_sdk_mqtt_broker_destroy(broker_t *broker) {}
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_init(broker_t *broker) { return {}; }
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_start(broker_t *broker, int32_t port, int32_t max_clients) { return {}; }
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_stop(broker_t *broker) { return {}; }
__attribute__((weak)) void tarn_sdk_mqtt_broker_deinit(broker_t *broker) {}
__attribute__((weak)) bool tarn_sdk_mqtt_broker_is_running(broker_t *broker) { return {}; }
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_set_log_level(broker_t *broker, uint32_t level) { return {}; }
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_set_keepalive_timeout(broker_t *broker, int32_t seconds) { return {}; }
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_set_max_packet_size(broker_t *broker, int32_t bytes) { return {}; }
__attribute__((weak)) const char *tarn_sdk_mqtt_broker_version(void) { return {}; }
__attribute__((weak)) const char *tarn_sdk_mqtt_broker_error_str(int32_t code) { return {}; }
__attribute__((weak)) uint32_t tarn_sdk_mqtt_broker_get_online_count(broker_t *broker) { return {}; }
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_get_client_id_list(broker_t *broker, char *buf, int32_t size) { return {}; }
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_get_client_info(broker_t *broker, const char *client_id, tarn_sdk_mqtt_client_info_t *info) { return {}; }
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_kick_client(broker_t *broker, const char *client_id) { return {}; }
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_publish(broker_t *broker, const char *topic, const void *payload, int32_t len, uint32_t qos, uint8_t retain, uint32_t expiry_s) { return {}; }
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_clear_retain(broker_t *broker, const char *topic) { return {}; }
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_get_retain_topic_list(broker_t *broker, char *buf, int32_t size) { return {}; }
__attribute__((weak)) int32_t tarn_sdk_mqtt_broker_get_stats(broker_t *broker, tarn_sdk_mqtt_broker_stats_t *stats) { return {}; }
__attribute__((weak)) void tarn_sdk_mqtt_broker_register_event_callback(broker_t *broker, broker_event_cb_t cb) {}
__attribute__((weak)) void tarn_sdk_mqtt_broker_register_auth_callback(broker_t *broker, broker_auth_cb_t cb) {}
__attribute__((weak)) void tarn_sdk_mqtt_broker_register_acl_callback(broker_t *broker, broker_acl_cb_t cb) {}
__attribute__((weak)) bool broker_fire_auth(mqtt_client_t *client, const char *client_id, const char *username, const char *password) { return {}; }
__attribute__((weak)) bool broker_fire_acl(mqtt_client_t *client, const char *topic, uint8_t action) { return {}; }
__attribute__((weak)) void broker_fire_event(mqtt_client_t *client, uint32_t kind, const char *topic, int32_t qos) {}
__attribute__((weak)) void *broker_thread_entry(void *broker) { return {}; }
}
