// dispatch.cpp - the one entrance of every packet a client sends: checks that hold for all, then the packet's handler.
//
// No client state is asked: a PUBLISH before CONNECT is handled like any other, a second CONNECT in full again.
#include "../stats/stats.hpp"
#include "handler_internal.h"
#include "reply.h"

namespace tarn::handler {
namespace {

using Handler = int (*)(mqtt_client_t &client, Packet packet) noexcept;

constexpr uint8_t kPacketTooLarge = 0x95;

// By packet type. A type without a handler is not for a broker to receive, or unknown to it (AUTH).
// QUIRK(any-packet-any-time): the first packet need not be CONNECT and a second CONNECT does not end the connection
// [MQTT-3.1.0-1, MQTT-3.1.0-2], because no client state is consulted here.
//   standard profile: lifted (strictness)
//   test: dispatch.a_publish_before_connect_is_handled, connect.a_second_connect_is_processed_in_full
constexpr Handler kHandlers[16] = {
    nullptr,
    handle_connect,
    nullptr,
    handle_publish,
    handle_acknowledgement, // PUBACK
    handle_acknowledgement, // PUBREC
    handle_acknowledgement, // PUBREL
    handle_acknowledgement, // PUBCOMP
    handle_subscribe,
    nullptr,
    handle_unsubscribe,
    nullptr,
    handle_ping,
    nullptr,
    handle_disconnect,
    nullptr,
};

// QUIRK(own-limit-inbound): the Maximum Packet Size a 5.0 client announces for what it receives is applied to what it
// sends [MQTT-3.1.2-24]. Limits of both directions are one number in the record.
//   standard profile: lifted (sizes)
//   test: dispatch.a_packet_above_the_limit_is_answered_with_disconnect_and_closed
bool close_oversized(mqtt_client_t &client, Packet packet, uint32_t limit)
{
    LOG_ERROR("[MQTT过载保护] 报文超长关闭连接：Client=%s, 接收=%d, 协商最大=%d", client.client_id,
              static_cast<int>(packet.size()), static_cast<int>(limit));
    const uint32_t state = client.state;
    end_with_disconnect(client);
    if (queue_disconnect(client, kPacketTooLarge))
        close_after_pause(client, state);
    else
        close_seen(client, state);
    return false;
}

// QUIRK(unknown-type-ignored): a packet type that a broker cannot handle is logged and otherwise ignored instead of
// ending the connection as a protocol error [MQTT-4.13.1-1].
//   standard profile: lifted (strictness)
//   test: dispatch.types_without_a_handler_are_logged_and_ignored
bool ignore_unknown(const mqtt_client_t &client, int type)
{
    LOG_WARN("未处理的MQTT报文类型：%d, ClientID=%s", type, client.client_id);
    return true;
}

} // namespace

// QUIRK(malformed-kept): a packet that does not decode is logged and counted, the connection stays
// [MQTT-4.8.0-1 of 3.1.1, MQTT-4.13.1-1 of 5.0].
//   standard profile: lifted (strictness)
//   test: dispatch.a_packet_that_does_not_decode_is_counted_and_not_answered
int refuse_undecodable(const mqtt_client_t &client, const char *line, codec::Result why) noexcept
{
    LOG_ERROR(line, client.client_id, codec::code_of(why));
    stats::count(stats::Counter::parse_error);
    return -1;
}

bool dispatch(mqtt_client_t &client, Packet packet) noexcept
{
    stats::count(stats::Counter::rx_pkt);
    if (!packet.data() || static_cast<int32_t>(packet.size()) < 1) {
        LOG_ERROR("无效报文参数");
        return false;
    }
    const uint32_t limit = client.max_packet_size;
    if (limit != 0 && packet.size() > limit)
        return close_oversized(client, packet, limit);

    const int type = packet[0] >> 4;
    LOG_DEBUG("收到MQTT报文：ClientID=%s, 类型=%d, 长度=%u", client.client_id, type,
              static_cast<uint32_t>(packet.size()));
    client::note_active(client);
    return kHandlers[type] ? kHandlers[type](client, packet) == 0 : ignore_unknown(client, type);
}

} // namespace tarn::handler
