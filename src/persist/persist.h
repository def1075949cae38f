/*
 * persist.h - sessions, subscriptions, offline and retained messages on disk.
 */
#ifndef TARN_PERSIST_PERSIST_H
#define TARN_PERSIST_PERSIST_H

#include "persist_types.h"
#include "../base/mutex_type.h"

TARN_API_BEGIN

extern char         g_persist_root_path[512]; /* "./mqtt_data" until persist_init */
extern tarn_mutex_t g_persist_mutex;

int  persist_init(const char *root_path); /* always 0 */
int  persist_destroy(void);               /* always 0 */
void persist_stop(void);
void persist_flush(void);
void persist_clean_expire(void);
void persist_make_dir(const char *path);
void persist_safe_write(const char *path, const char *text);
int  persist_remove(const char *client_id);
void persist_mark(persist_session_t *rec, uint8_t what);
void persist_flush_single(persist_session_t *rec, uint8_t what);
int  persist_load(persist_session_t *rec);             /* 0 for any non-empty id, -1, -5 */
int  persist_load_client_only(persist_session_t *rec); /* 0, -1, -4 */
void persist_load_all_persisted_subscriptions(void);
int  persist_add_offline_msg(const char *client_id, const char *topic, const uint8_t *payload, int32_t payload_len,
                             uint8_t qos);
int  persist_remove_offline_msg(const char *client_id, uint16_t msgid);
int  persist_retain_save(void); /* 0, -2 */
int  persist_retain_load(void); /* 0, -4 */

TARN_API_END

#endif
