// restore_offline.cpp - the messages a client missed while it was away.
//
// They are not sent from here: they join the reliable-delivery queue as if sent once, and its scan sends them about a
// second later. The queue takes QoS 1 and 2 only, so kept messages of QoS 0 end here.
#include "../persist/persist.hpp"
#include "../qos/qos.hpp"
#include "handler_internal.h"

#include <algorithm>

namespace tarn::handler {
namespace {

void requeue(mqtt_client_t &client, const persist_msg_t &message)
{
    uint16_t id = message.msgid;
    if (id == 0) {
        id = draw_packet_id();
        LOG_DEBUG("[packet_handler] 修复离线消息 MsgID=0 → 新 MsgID=%d", id);
    }
    (void)qos::track(client, id, message.qos, message.topic,
                     {message.payload, std::min<size_t>(message.payload_len, sizeof message.payload)});
    LOG_DEBUG("[packet_handler] 已补发: msgid=%d topic=%s qos=%d", id, message.topic, message.qos);
}

} // namespace

// QUIRK(offline-late): messages of a resumed session come with the retransmission scan, first with DUP 0, and those of
// QoS 0 are lost, though the broker kept them [MQTT-4.5.0-1].
//   standard profile: lifted (sessions): they come behind CONNACK at once; at QoS 0 nothing is kept, as the standards
//   allow
//   test: offline.kept_messages_join_the_queue_and_the_file_is_emptied
void requeue_kept(mqtt_client_t &client) noexcept
{
    const client_id_text id = id_of(client);
    if (id.text[0] == '\0') {
        LOG_DEBUG("[packet_handler] 不补发：client 无效");
        return;
    }
    if (client.clean_session) {
        LOG_DEBUG("[packet_handler] CleanSession=1，不补发离线消息: %s", id.text);
        return;
    }
    if (!is_online(client)) {
        LOG_DEBUG("[packet_handler] 客户端不在线，不补发离线消息: %s", id.text);
        return;
    }

    // Held until the file is emptied: what others store meanwhile would go with it.
    persist::LockedSession session(id.text);
    if (!session.is_loaded() || session.record().msg_count == 0) {
        LOG_DEBUG("[packet_handler] 无离线消息需要补发: %s", id.text);
        return;
    }
    persist_session_t &saved = session.record();
    LOG_INFO("[packet_handler] 开始补发离线消息: %s 共 %d 条", id.text, saved.msg_count);
    for (int at = 0; at < saved.msg_count; at++)
        requeue(client, saved.msgs[at]);
    saved.msg_count = 0;
    session.write_messages();
    LOG_INFO("[packet_handler] 离线消息补发完成: %s，已清空离线消息", id.text);
}

// A message was kept for a client that another thread may have let in since it was looked up. If its CONNECT took the
// kept messages before this one came, nobody would look again before the next CONNECT.
void requeue_if_back(const char *client_id) noexcept
{
    if (const client_ref client = find_client_by_id(client_id); client && is_online(*client))
        requeue_kept(*client);
}

} // namespace tarn::handler
