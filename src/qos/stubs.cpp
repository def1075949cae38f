#pragma GCC diagnostic ignored "-Wunused-parameter"
// Weak stand-ins that let the whole library link while the modules are being written.
#include "qos_reliable.h"
extern "C" {
__attribute__((weak)) qos_packet_t *g_pending_queue;
__attribute__((weak)) tarn_mutex_t g_queue_mutex;
__attribute__((weak)) uint8_t g_scan_running;
__attribute__((weak)) pthread_t g_scan_thread;
__attribute__((weak)) int qos_reliable_init(void) { return {}; }
__attribute__((weak)) void qos_reliable_destroy(void) {}
__attribute__((weak)) int qos_reliable_add_packet(mqtt_client_t *client, uint16_t msg_id, uint8_t qos, const char *topic, const void *payload, uint32_t payload_len) { return {}; }
__attribute__((weak)) int qos_reliable_handle_ack(mqtt_client_t *client, uint16_t msg_id, uint8_t packet_type) { return {}; }
__attribute__((weak)) void qos_reliable_set_packet_expiry(mqtt_client_t *client, uint16_t msg_id, uint32_t seconds) {}
__attribute__((weak)) void qos_reliable_clean_client_packets(mqtt_client_t *client) {}
__attribute__((weak)) void qos_reliable_scan_queue(void) {}
}
