#pragma GCC diagnostic ignored "-Wunused-parameter"
// Weak stand-ins that let the whole library link while the modules are being written.
#include "persist.h"
#include "session_store.h"
extern "C" {
__attribute__((weak)) char g_persist_root_path[512];
__attribute__((weak)) tarn_mutex_t g_persist_mutex;
__attribute__((weak)) int persist_init(const char *root_path) { return {}; }
__attribute__((weak)) int persist_destroy(void) { return {}; }
__attribute__((weak)) void persist_stop(void) {}
__attribute__((weak)) void persist_flush(void) {}
__attribute__((weak)) void persist_clean_expire(void) {}
__attribute__((weak)) void persist_make_dir(const char *path) {}
__attribute__((weak)) void persist_safe_write(const char *path, const char *text) {}
__attribute__((weak)) int persist_remove(const char *client_id) { return {}; }
__attribute__((weak)) void persist_mark(persist_session_t *rec, uint8_t what) {}
__attribute__((weak)) void persist_flush_single(persist_session_t *rec, uint8_t what) {}
__attribute__((weak)) int persist_load(persist_session_t *rec) { return {}; }
__attribute__((weak)) int persist_load_client_only(persist_session_t *rec) { return {}; }
__attribute__((weak)) void persist_load_all_persisted_subscriptions(void) {}
__attribute__((weak)) int persist_add_offline_msg(const char *client_id, const char *topic, const uint8_t *payload, int32_t payload_len, uint8_t qos) { return {}; }
__attribute__((weak)) int persist_remove_offline_msg(const char *client_id, uint16_t msgid) { return {}; }
__attribute__((weak)) int persist_retain_save(void) { return {}; }
__attribute__((weak)) int persist_retain_load(void) { return {}; }
}
namespace tarn::persist {
__attribute__((weak)) int load_session(persist_session_t *record, int *files_opened) noexcept { *files_opened = 0; return persist_load(record); }
__attribute__((weak)) persist_session_t *scratch_session(const char *) noexcept { return nullptr; }
}
