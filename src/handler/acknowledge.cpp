// acknowledge.cpp - PUBACK, PUBREC, PUBREL and PUBCOMP from a client: one path, one row each.
//
// Each acknowledgement goes to the reliable-delivery queue first; what the row says besides happens whether the queue
// knew the identifier or not.
#include "../qos/qos.hpp"
#include "handler_internal.h"
#include "reply.h"

#include <cerrno>

namespace tarn::handler {
namespace {

struct AckRow {
    const char *undecodable;                          // client id, code
    const char *received;                             // client id, identifier
    int         reply;                                // packet type, 0 = none
    const char *no_memory;                            // errno
    const char *replied;                              // client id, identifier
    void (*note)(mqtt_client_t &client, uint16_t id); // the record's own bookkeeping, last
};

void note_puback(mqtt_client_t &client, uint16_t id)
{
    if (client.qos1_pending_msg_id != id) {
        LOG_WARN("MQTT标准：收到无效PUBACK：ClientID=%s, MsgID=%d（无对应待确认消息）", client.client_id, id);
        return;
    }
    client.qos1_pending_msg_id = 0;
    LOG_DEBUG("MQTT标准：QoS1消息确认完成：ClientID=%s, MsgID=%d", client.client_id, id);
}

void note_pubrel(mqtt_client_t &client, uint16_t)
{
    client.qos2_pending_msg_id = 0;
}

void note_pubcomp(mqtt_client_t &client, uint16_t id)
{
    if (client.qos2_pending_msg_id == id)
        client.qos2_pending_msg_id = 0;
}

// QUIRK(double-handshake): the queue answers PUBREC and PUBREL of its own deliveries too, so a client can get PUBREL
// or PUBCOMP twice for one identifier [MQTT-4.3.3-4, MQTT-4.3.3-11]. Receivers must cope with repeated ones anyway.
//   standard profile: lifted (delivery)
//   test: acknowledge.a_pubrec_for_a_tracked_delivery_is_answered_twice
//
// QUIRK(ack-reason-ignored): the reason code of a 5.0 acknowledgement is not looked at: a PUBREC that refuses a message,
// as 0x97 does, is answered with PUBREL, where only one below 0x80 is to be [MQTT-4.3.3-4], and a PUBACK that refuses
// completes its delivery. The row's next step is the same for all who answered.
//   standard profile: lifted (delivery): a reason from 0x80 on ends the delivery
//   test: acknowledge.a_reason_code_that_refuses_is_not_looked_at
constexpr AckRow kRows[] = {
    {"解码PUBACK失败：ClientID=%s, 错误码=%d", "MQTT标准：收到PUBACK确认：ClientID=%s, MsgID=%d", 0, nullptr, nullptr,
     note_puback},
    {"解码PUBREC失败：ClientID=%s, 错误码=%d", "收到PUBREC：ClientID=%s, MsgID=%d", PUBREL,
     "pubrel_buf malloc failed: %d", "发送PUBREL成功：ClientID=%s, MsgID=%d", nullptr},
    {"解码PUBREL失败：ClientID=%s, 错误码=%d", "收到PUBREL：ClientID=%s, MsgID=%d", PUBCOMP,
     "pubcomp_buf malloc failed: %d", "发送PUBCOMP成功：ClientID=%s, MsgID=%d", note_pubrel},
    {"解码PUBCOMP失败：ClientID=%s, 错误码=%d", "收到PUBCOMP：ClientID=%s, MsgID=%d，QoS2流程完成", 0, nullptr, nullptr,
     note_pubcomp},
};

} // namespace

int handle_acknowledgement(mqtt_client_t &client, Packet packet) noexcept
{
    const int       type = packet[0] >> 4;
    const AckRow   &row  = kRows[type - PUBACK];
    mqtt_ack_para_t ack{};
    if (const codec::Result result = codec::decode_ack(client.codec, type, packet, ack); failed(result))
        return refuse_undecodable(client, row.undecodable, result);

    LOG_INFO(row.received, client.client_id, ack.msg_id);
    (void)qos::acknowledge(client, ack.msg_id, static_cast<uint8_t>(type));

    if (row.reply != 0) {
        const Reply reply = answer(client, row.reply, ack.msg_id, row.no_memory, row.replied);
        if (reply != Reply::Sent)
            return reply == Reply::NoMemory ? -1 : 0;
    }
    if (row.note)
        row.note(client, ack.msg_id);
    return 0;
}

} // namespace tarn::handler
