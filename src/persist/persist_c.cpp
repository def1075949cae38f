// persist_c.cpp - persist.h: what hosts call. Null pointers end here; everything else is persist.hpp's.
#include "../log/log.h"
#include "client_files.h"

using namespace tarn;

namespace {

int code_of(persist::Loaded loaded)
{
    switch (loaded) {
    case persist::Loaded::NoId:
        return -1;
    case persist::Loaded::NoMemory:
        return -5;
    case persist::Loaded::Yes:
        break;
    }
    return 0;
}

} // namespace

int persist_init(const char *root_path)
{
    persist::init(root_path);
    return 0;
}

int persist_destroy(void)
{
    persist::destroy();
    return 0;
}

void persist_stop(void)
{
    LOG_INFO("[persist] 停止刷盘线程...");
}

void persist_flush(void)
{
    persist::save_everything();
    persist::flush();
}

void persist_clean_expire(void)
{
    LOG_DEBUG("[persist] 清理过期会话（未启用）");
}

void persist_make_dir(const char *path)
{
    persist::make_directory(path);
}

void persist_safe_write(const char *path, const char *text)
{
    if (text && path && *path)
        persist::safe_write(persist::path_of(path), text);
    else
        LOG_ERROR("[persist] 安全写入失败：参数为空");
}

int persist_remove(const char *client_id)
{
    if (!client_id)
        return -1;
    return persist::remove_session(client_id) ? 0 : -5;
}

void persist_mark(persist_session_t *rec, uint8_t what)
{
    if (rec)
        persist::save(*rec, what);
}

void persist_flush_single(persist_session_t *rec, uint8_t what)
{
    if (rec)
        persist::write_session(*rec, what);
}

int persist_load(persist_session_t *rec)
{
    persist::Found found;
    return rec ? code_of(persist::load_session(*rec, found)) : -1;
}

int persist_load_client_only(persist_session_t *rec)
{
    if (!rec || !rec->client_id[0])
        return -1;
    return persist::keep_if_subscribed(*rec) ? 0 : -4;
}

void persist_load_all_persisted_subscriptions(void)
{
    persist::restore_subscriptions();
}

int persist_add_offline_msg(const char *client_id, const char *topic, const uint8_t *payload, int32_t payload_len,
                            uint8_t qos)
{
    if (!client_id || !topic || !payload || payload_len < 1)
        return -1;
    persist::LockedSession session(client_id);
    return session.add_message(topic, payload, static_cast<uint32_t>(payload_len), qos) ? 0 : -1;
}

int persist_remove_offline_msg(const char *client_id, uint16_t msgid)
{
    if (!client_id || msgid == 0)
        return -1;
    persist::LockedSession session(client_id);
    return session.remove_message(msgid) ? 0 : -4;
}

int persist_retain_save(void)
{
    return persist::save_retained() ? 0 : -2;
}

int persist_retain_load(void)
{
    return persist::load_retained() ? 0 : -4;
}
