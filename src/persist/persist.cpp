// persist.cpp - the storage calls as they answer while nothing is stored: no file is found, none is written.
#include "persist.h"

#include "../base/text.h"
#include "../log/log.h"

using namespace tarn;

char         g_persist_root_path[PERSIST_PATH_SIZE] = "./mqtt_data";
tarn_mutex_t g_persist_mutex{};

int persist_init(const char *root_path)
{
    LOG_INFO("[persist] 持久化模块初始化中...");
    if (root_path && *root_path)
        copy_text(g_persist_root_path, root_path, sizeof g_persist_root_path - 1);
    LOG_INFO("[persist] 持久化模块初始化完成，路径：%s", g_persist_root_path);
    return 0;
}

int persist_destroy(void)
{
    LOG_INFO("[persist] 持久化模块销毁中...");
    return 0;
}

void persist_stop(void)
{
    LOG_INFO("[persist] 停止刷盘线程...");
}

void persist_flush(void)
{
    LOG_DEBUG("[persist] 执行强制刷盘(无操作，已同步写入)");
}

void persist_clean_expire(void)
{
    LOG_DEBUG("[persist] 清理过期会话（未启用）");
}

void persist_make_dir(const char *) {}
void persist_safe_write(const char *, const char *) {}
void persist_mark(persist_session_t *, uint8_t) {}
void persist_flush_single(persist_session_t *, uint8_t) {}
void persist_load_all_persisted_subscriptions(void) {}

int persist_remove(const char *client_id)
{
    return client_id ? 0 : -1;
}

int persist_load(persist_session_t *rec)
{
    return rec && rec->client_id[0] ? 0 : -1;
}

int persist_load_client_only(persist_session_t *rec)
{
    return rec && rec->client_id[0] ? -4 : -1;
}

int persist_add_offline_msg(const char *client_id, const char *topic, const uint8_t *payload, int32_t payload_len, uint8_t)
{
    return client_id && topic && payload && payload_len > 0 ? 0 : -1;
}

int persist_remove_offline_msg(const char *client_id, uint16_t msgid)
{
    return client_id && msgid ? 0 : -1;
}

int persist_retain_save(void)
{
    return 0;
}

int persist_retain_load(void)
{
    LOG_WARN("[persist] no retain file");
    return -4;
}
