#pragma GCC diagnostic ignored "-Wunused-parameter"
// Weak stand-ins that let the whole library link while the modules are being written.
#include "sub.h"
#include "retain.h"
#include "route.h"
extern "C" {
__attribute__((weak)) sub_mgr_t g_sub_mgr;
__attribute__((weak)) int mqtt_filter_is_valid(const char *filter) { return {}; }
__attribute__((weak)) int topic_match_wildcard(const char *filter, const char *topic) { return {}; }
__attribute__((weak)) int sub_init(void) { return {}; }
__attribute__((weak)) void sub_deinit(void) {}
__attribute__((weak)) int sub_add(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session) { return {}; }
__attribute__((weak)) int sub_add_with_id(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session, uint32_t sub_identifier) { return {}; }
__attribute__((weak)) int sub_remove(const char *client_id, const char *topic_filter) { return {}; }
__attribute__((weak)) int sub_match(const char *topic, sub_entry_t *matched, int32_t max_matched) { return {}; }
__attribute__((weak)) int sub_get_client_sub_count(const char *client_id) { return {}; }
__attribute__((weak)) int sub_find_by_identifier(uint32_t sub_identifier, sub_entry_t *out) { return {}; }
__attribute__((weak)) int retain_msg_set(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos) { return {}; }
__attribute__((weak)) int retain_msg_set_with_expiry(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos, uint32_t expiry_interval) { return {}; }
__attribute__((weak)) int retain_msg_get(const char *topic, retain_msg_t *out) { return {}; }
__attribute__((weak)) int retain_msg_delete(const char *topic) { return {}; }
__attribute__((weak)) void retain_clean_expired(void) {}
__attribute__((weak)) int retain_fill_topic_list(char *buf, int32_t size) { return {}; }
}
namespace tarn::sub {
__attribute__((weak)) int match_routes(const char *, RouteList &) noexcept { return 0; }
}
