#pragma GCC diagnostic ignored "-Wunused-parameter"
// Weak stand-ins that let the whole library link while the modules are being written.
#include "client.h"
#include "client_ref.h"
extern "C" {
__attribute__((weak)) client_mgr_t g_client_mgr;
__attribute__((weak)) int32_t g_mqtt_max_clients;
__attribute__((weak)) uint32_t g_default_max_packet_size;
__attribute__((weak)) int32_t g_will_delay_client_count;
__attribute__((weak)) uint8_t g_send_running;
__attribute__((weak)) pthread_t g_send_thread;
__attribute__((weak)) uint32_t client_mgr_init(int32_t max_clients) { return {}; }
__attribute__((weak)) void client_mgr_deinit(void) {}
__attribute__((weak)) mqtt_client_t *client_create(uint32_t handle, const char *ip, uint16_t port, broker_t *broker) { return {}; }
__attribute__((weak)) void pool_free(mqtt_client_t *client) {}
__attribute__((weak)) void client_set_cid(mqtt_client_t *client, const char *client_id) {}
__attribute__((weak)) mqtt_client_t *client_find_by_handle(uint32_t handle) { return {}; }
__attribute__((weak)) mqtt_client_t *client_find_by_cid(const char *client_id) { return {}; }
__attribute__((weak)) uint32_t client_send(mqtt_client_t *client, const uint8_t *bytes, int32_t length) { return {}; }
__attribute__((weak)) void client_send_flush(mqtt_client_t *client) {}
__attribute__((weak)) void *send_thread_proc(void *unused) { return {}; }
__attribute__((weak)) void mqtt_start_send_thread(void) {}
__attribute__((weak)) void mqtt_stop_send_thread(void) {}
__attribute__((weak)) void client_close(mqtt_client_t *client) {}
__attribute__((weak)) uint32_t client_clean_timeout(uint32_t default_threshold_ms) { return {}; }
__attribute__((weak)) void client_set_keepalive(mqtt_client_t *client, uint16_t seconds) {}
__attribute__((weak)) void client_update_active(mqtt_client_t *client) {}
__attribute__((weak)) void client_set_will_msg(mqtt_client_t *client, const char *topic, const uint8_t *payload, uint32_t payload_len, uint8_t qos, uint8_t retain) {}
__attribute__((weak)) void client_set_will_enhance(mqtt_client_t *client, uint32_t delay_s, uint32_t expiry_s, uint8_t payload_format, const char *content_type, const char *response_topic, const uint8_t *correlation_data, uint32_t correlation_len) {}
__attribute__((weak)) void client_will_delay_scan(void) {}
__attribute__((weak)) void client_clean_expired_sessions(void) {}
__attribute__((weak)) uint8_t mqtt_netip_event_cb(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t len, uint32_t reason, uint32_t error, void *arg) { return {}; }
__attribute__((weak)) int32_t client_fill_id_list(char *buf, int32_t size) { return {}; }
__attribute__((weak)) uint32_t client_get_connected_count(void) { return {}; }
__attribute__((weak)) void on_netip_send_ready(uint32_t handle) {}
}
namespace tarn {
__attribute__((weak)) client_ref::client_ref(mqtt_client_t *client) noexcept : client_(client) {}
__attribute__((weak)) client_ref &client_ref::operator=(client_ref &&other) noexcept { client_ = other.client_; return *this; }
__attribute__((weak)) void client_ref::reset() noexcept { client_ = nullptr; }
__attribute__((weak)) client_ref find_client_by_handle(uint32_t handle) noexcept { return client_ref(client_find_by_handle(handle)); }
__attribute__((weak)) client_ref find_client_by_cid(const char *client_id) noexcept { return client_ref(client_find_by_cid(client_id)); }
__attribute__((weak)) client_ref next_client(int32_t &) noexcept { return {}; }
__attribute__((weak)) uint32_t incarnation_of(const mqtt_client_t *) noexcept { return 0; }
__attribute__((weak)) client_id_text id_of(mqtt_client_t &client) noexcept { client_id_text t; __builtin_memcpy(t.text, client.client_id, 65); return t; }
__attribute__((weak)) Mutex &session_lock(const mqtt_client_t &) noexcept { static constinit Mutex m{}; return m; }
__attribute__((weak)) void clear_session(mqtt_client_t &client) noexcept { __builtin_memset(&client.session, 0, sizeof client.session); }
__attribute__((weak)) void session_written(mqtt_client_t &, int32_t, int32_t) noexcept {}
__attribute__((weak)) bool claim_closing(mqtt_client_t &) noexcept { return true; }
__attribute__((weak)) void unclaim_closing(mqtt_client_t &) noexcept {}
__attribute__((weak)) bool mark_logged_in(mqtt_client_t &client) noexcept { client.state = CLIENT_LOGINED; return true; }
__attribute__((weak)) bool is_released(const mqtt_client_t *) noexcept { return false; }
__attribute__((weak)) void release_parked(mqtt_client_t &client) noexcept { client.state = CLIENT_CLOSED; }
__attribute__((weak)) bool will_delays_running() noexcept { return true; }
__attribute__((weak)) void flush_client(mqtt_client_t &client) noexcept { client_send_flush(&client); }
}
