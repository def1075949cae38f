#pragma GCC diagnostic ignored "-Wunused-parameter"
// Weak stand-ins that let the whole library link while the modules are being written.
#include "packet_handler.h"
#include "shared_sub.h"
extern "C" {
__attribute__((weak)) uint32_t msgid_seed;
__attribute__((weak)) tarn_mutex_t msgid_mutex;
__attribute__((weak)) int packet_handler_init(void) { return {}; }
__attribute__((weak)) int packet_handler_deinit(void) { return {}; }
__attribute__((weak)) int packet_dispatch(mqtt_client_t *client, const uint8_t *buf, uint32_t len) { return {}; }
__attribute__((weak)) int packet_handler_broker_publish(const char *topic, const uint8_t *payload, int payload_len, uint8_t qos, uint8_t retain, uint32_t message_expiry) { return {}; }
__attribute__((weak)) void packet_handler_broadcast_msg(const uint8_t *packet, uint32_t len, uint8_t is_will) {}
__attribute__((weak)) void send_retained_msg_to_client(mqtt_client_t *client, const char *filter) {}
__attribute__((weak)) int packet_send_will_message(mqtt_client_t *client) { return {}; }
__attribute__((weak)) void packet_start_will_delay(mqtt_client_t *client) {}
__attribute__((weak)) void packet_cancel_will(mqtt_client_t *client) {}
__attribute__((weak)) void packet_handler_restore_offline_msgs(mqtt_client_t *client) {}
__attribute__((weak)) void packet_handler_remove_client_subs(const char *client_id, uint8_t clean_session) {}
__attribute__((weak)) void packet_handler_send_disconnect(mqtt_client_t *client, uint8_t reason_code) {}
__attribute__((weak)) void packet_handler_publish_test_msg(void) {}
__attribute__((weak)) int32_t g_rr_counter;
__attribute__((weak)) void shared_sub_mark_selected(const sub_entry_t *matches, int count, uint8_t *selected) {}
__attribute__((weak)) bool shared_is_shared_subscription(const char *filter) { return {}; }
__attribute__((weak)) const sub_entry_t *shared_select_client(const char *key, const sub_entry_t *candidates, int count) { return {}; }
}
