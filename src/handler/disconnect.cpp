// disconnect.cpp - the client takes its leave: no will, the session kept or dropped, the connection closed.
#include "../base/text.h"
#include "../persist/persist.hpp"
#include "../qos/qos.hpp"
#include "../sub/sub.hpp"
#include "handler_internal.h"

namespace tarn::handler {
namespace {

constexpr uint32_t kKeepInterval = 0xFFFFFFFF;

// QUIRK(expiry-maximum-ignored): a Session Expiry Interval of 0xFFFFFFFF means "as CONNECT said" instead of "never"
// (MQTT 5.0 3.14.2.2.2), and a non-zero one is accepted after a CONNECT with 0 (the same section).
//   standard profile: lifted (sessions)
//   test: disconnect.an_expiry_of_all_ones_keeps_the_interval
void override_session_expiry(mqtt_client_t &client, const mqtt_disconnect_para_t &disconnect, bool expiry_given)
{
    if (!speaks_v5(client) || !expiry_given || disconnect.session_expiry_interval == kKeepInterval)
        return;
    client.session_expiry_interval = disconnect.session_expiry_interval;
    LOG_INFO("[MQTT5] DISCONNECT 覆盖会话超时: %u", disconnect.session_expiry_interval);
}

// QUIRK(will-dropped-always): every DISCONNECT drops the will, also one with reason 0x04 "disconnect with will message"
// [MQTT-3.14.4-3].
//   standard profile: lifted (wills)
//   test: disconnect.reason_four_drops_the_will_too
void drop_will(mqtt_client_t &client)
{
    {
        ScopedLock lock(client.will_lock);
        client.will_msg_used = 0;
    }
    {
        ScopedLock lock(session_mutex(client));
        client.session.will_flag = 0;
    }
    call_off_will(client);
}

void save_session(mqtt_client_t &client)
{
    {
        ScopedLock lock(session_mutex(client));
        persist::save(client.session, PERSIST_SUBSCRIPTIONS);
    }
    persist::flush();
}

void save_or_delete_v4_session(mqtt_client_t &client)
{
    if (client.clean_session) {
        (void)persist::remove_session(client.client_id);
        LOG_INFO("持久化：客户端数据已清除 ClientID=%s", client.client_id);
        return;
    }
    save_session(client);
    LOG_INFO("持久化：客户端会话已保存 ClientID=%s, 订阅数=%d", client.client_id,
             int32_t{shared(client.session.sub_count)});
}

// The interval alone decides, not the clean-start flag.
void save_or_delete_v5_session(mqtt_client_t &client)
{
    const uint32_t interval_s = client.session_expiry_interval;
    LOG_INFO("[MQTT5] DISCONNECT: session_expiry_interval=%u, clean_session=%u", interval_s,
             uint8_t{client.clean_session});
    if (interval_s != 0) {
        LOG_INFO("[MQTT5] Session Expiry=%u → 保留会话", interval_s);
        save_session(client);
    } else {
        LOG_INFO("[MQTT5] Session Expiry=0 → 立即清除会话");
        (void)persist::remove_session(client.client_id);
    }
}

} // namespace

int handle_disconnect(mqtt_client_t &client, Packet packet) noexcept
{
    const uint32_t         state = client.state;
    mqtt_disconnect_para_t disconnect{};
    bool                   expiry_given = false;
    if (const codec::Result result = codec::decode_disconnect(client.codec, packet, disconnect, expiry_given);
        failed(result))
        return refuse_undecodable(client, "解码DISCONNECT失败：ClientID=%s, 错误码=%d", result);

    LOG_INFO("MQTT标准：客户端主动断开连接：ClientID=%s", client.client_id);
    client.disconnect_received = 1;
    api::tell(client, BROKER_EVENT_DISCONNECTED);
    override_session_expiry(client, disconnect, expiry_given);
    drop_will(client);
    if (speaks_v5(client))
        save_or_delete_v5_session(client);
    else
        save_or_delete_v4_session(client);
    forget(client.client_id, client.clean_session);
    flush_client(client); // answers to packets that came in one go with this one
    close_seen(client, state);
    return 0;
}

// Pending deliveries end with the connection in either case, subscriptions only with a clean session.
// QUIRK(pending-dropped): unacknowledged deliveries of a persistent session are discarded when its connection ends
// instead of being repeated after the reconnect [MQTT-4.4.0-1].
//   standard profile: lifted (sessions)
//   test: remove_client_subs.pending_deliveries_go_for_clean_and_persistent_sessions
void forget(const char *client_id, uint8_t clean_session) noexcept
{
    if (client_id[0] == '\0')
        return;
    char id[256]; // of its own: the argument may stand in a record or table entry that is about to change
    copy_text(id, client_id, sizeof id - 1);
    if (const client_ref client = find_client_by_id(id))
        qos::drop_deliveries_of(*client);
    if (!clean_session) {
        LOG_INFO("MQTT标准：CleanSession=false，保留客户端订阅：ClientID=%s", id);
        return;
    }
    const int32_t removed = sub::remove_all_of(id);
    LOG_INFO("MQTT标准：CleanSession=true，移除客户端所有订阅：ClientID=%s, 数量=%d", id, removed);
}

} // namespace tarn::handler
