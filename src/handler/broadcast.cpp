// broadcast.cpp - fan-out of a PUBLISH that is encoded already: how wills travel.
//
// PUBLISH, as it is read here:  3d:u8  remaining:u8  topic length:u16  topic  [packet-id:u16, QoS 1 and 2]  the rest
#include "../base/text.h"
#include "../sub/sub.h"
#include "routing.h"

#include <algorithm>
#include <cerrno>

namespace tarn::handler {
namespace {

struct ReadPublish {
    const char *topic; // terminated, 256 characters at most
    uint32_t    payload_at;
    uint8_t     qos;
    uint8_t     retain;
};

struct Broadcast : Routing {
    Packet   packet;
    uint32_t payload_at; // of a 3.1.1 packet
    bool     is_will;
};

// The filter behind a match, for the trace. The table may have changed since: then there is none to show.
void copy_filter(const sub::Match &match, char (&filter)[sizeof(sub_entry_t::topic_filter)])
{
    filter[0] = '\0';
    ScopedLock lock(g_sub_mgr.lock);
    if (!g_sub_mgr.subs || match.index < 0 || match.index >= std::min<int32_t>(g_sub_mgr.sub_count, SUB_CAPACITY))
        return;
    const sub_entry_t &entry = g_sub_mgr.subs[match.index];
    if (text_of(entry.client_id) == match.client_id)
        copy_text(filter, entry.topic_filter, sizeof filter - 1);
}

void log_matches(const Matches &matches)
{
    if (!log_passes(AGENT_LOG_DEBUG))
        return;
    LOG_DEBUG("[遗嘱调试][订阅者列表] 匹配到的%d个订阅者：", matches.count());
    for (int at = 0; at < matches.count(); at++) {
        char filter[sizeof(sub_entry_t::topic_filter)];
        copy_filter(matches[at], filter);
        LOG_DEBUG("[遗嘱调试][订阅者%d] ClientID=%s, TopicFilter=%s, 订阅QoS=%d", at + 1, matches[at].client_id, filter,
                  matches[at].qos);
    }
}

// QUIRK(will-guessed-payload): where the payload begins is derived from the receiver's protocol version, while the
// packet was encoded for its owner's: a 5.0 receiver of a 3.1.1 owner's will loses the bytes that look like a property
// block, which are all of most texts, so that it gets nothing; a 3.1.1 receiver of a 5.0 owner's will gets the property
// bytes as payload [MQTT 5.0 3.3.3]. Likewise a remaining length of two bytes is taken for the beginning of the topic: a
// will of more than 125 bytes of topic and payload reaches nobody (123 at QoS 1 and 2, one less of a 5.0 owner, five
// fewer with an expiry interval).
//   standard profile: lifted (wills)
//   test: broadcast.the_receivers_version_decides_where_the_payload_begins, broadcast.a_two_byte_remaining_length_is_misread,
//   will.sizes_that_reach_a_subscriber
uint32_t payload_start(const Broadcast &broadcast)
{
    const uint32_t at = broadcast.payload_at;
    if (broadcast.receiver.version != 5)
        return at;
    // A length that is not there counts as 0, and is stepped over all the same.
    return at + 1u + (at < broadcast.packet.size() ? broadcast.packet[at] : 0u);
}

void log_offline(const Broadcast &broadcast)
{
    const Receiver &receiver = broadcast.receiver;
    if (receiver.id()[0] == '\0')
        LOG_WARN("[遗嘱调试][广播跳过] 订阅者%d：ClientID为空", receiver.number);
    else if (!receiver.client)
        LOG_WARN("[遗嘱调试][广播失败] 订阅者%d：ClientID=%s 不存在", receiver.number, receiver.id());
    else if (broadcast.is_will)
        LOG_WARN("[遗嘱调试][跳过] 客户端已离线，不发送遗嘱：%s", receiver.id());
    else
        LOG_WARN("[遗嘱调试][广播失败] 订阅者%d：ClientID=%s 状态无效（%d），需为LOGINED/CONNECTED", receiver.number,
                 receiver.id(), static_cast<int>(receiver.state));
}

void on_outcome(Routing &routing, Outcome outcome) noexcept
{
    auto           &broadcast = static_cast<Broadcast &>(routing);
    const Receiver &receiver  = routing.receiver;
    const char     *topic     = routing.message.topic_text();
    const int       matched   = routing.matches.count();
    const int       length    = static_cast<int>(broadcast.packet.size());
    switch (outcome) {
    case Outcome::NoMatchMemory:
        LOG_ERROR("[遗嘱调试][广播失败] malloc订阅者数组失败：errno=%d", errno);
        break;
    case Outcome::Matched:
        LOG_INFO("[遗嘱调试][订阅匹配] Topic=%s 匹配到 %d 个订阅者（上限=%d）", topic, matched, SUB_MATCH_CAPACITY);
        if (matched != 0)
            log_matches(routing.matches);
        break;
    case Outcome::Unmatched:
        LOG_DEBUG("[遗嘱调试][广播完成] 无匹配订阅者，Topic=%s", topic);
        break;
    case Outcome::NotChosen:
        LOG_DEBUG("[共享订阅] 订阅者%d 同组已负载均衡，跳过发送", receiver.number);
        break;
    case Outcome::Offline:
        log_offline(broadcast);
        break;
    case Outcome::Online: {
        LOG_DEBUG("[遗嘱调试][QoS降级] 订阅者%d：原始QoS=%d → 订阅QoS=%d → 最终投递QoS=%d", receiver.number,
                  static_cast<int>(routing.qos), receiver.to->qos, receiver.shown_qos());
        const size_t at         = std::min<size_t>(payload_start(broadcast), broadcast.packet.size());
        routing.message.payload = broadcast.packet.subspan(at);
        break;
    }
    case Outcome::NoPayload: {
        const int at = static_cast<int>(payload_start(broadcast));
        LOG_ERROR("[遗嘱调试][广播失败] 订阅者%d：Payload解析失败（start=%d, len=%d, msg_len=%d）", receiver.number, at,
                  length - at, length);
        break;
    }
    case Outcome::NoMemory:
        LOG_ERROR("[遗嘱调试][广播失败] 订阅者%d：malloc缓冲区失败（errno=%d）", receiver.number, errno);
        break;
    case Outcome::NotEncoded:
        LOG_ERROR("[遗嘱调试][广播失败] 订阅者%d：To=%s, 编码失败（错误码=%d）", receiver.number, receiver.id(),
                  receiver.result);
        break;
    case Outcome::NotSent:
        LOG_ERROR("[遗嘱调试][广播失败] 订阅者%d：To=%s, 发送返回值=%d", receiver.number, receiver.id(),
                  receiver.result);
        break;
    case Outcome::Sent:
        LOG_INFO("[遗嘱调试][广播成功] 订阅者%d：To=%s, Topic=%s,最终投递QoS=%d（已降级）", receiver.number,
                 receiver.id(), topic, receiver.shown_qos());
        break;
    case Outcome::Routed:
        LOG_INFO("[遗嘱调试][广播完成] Topic=%s, 总计匹配%d个订阅者，成功发送%d个，失败%d个", topic, matched,
                 routing.sent, matched - routing.sent);
        break;
    case Outcome::NoChoiceMemory:
        break;
    }
}

// QUIRK(will-once): a will goes to subscribers that are online only and is never repeated to them [MQTT-4.4.0-1];
// it is not retained, whatever its flag says [MQTT-3.1.2-15], and the flag reaches the subscribers
// [MQTT-3.3.1-12].
//   standard profile: lifted (wills)
//   test: broadcast.a_will_is_not_tracked
constexpr Rules rules_of(Tracking tracking)
{
    return {.on_outcome         = on_outcome,
            .tracking           = tracking,
            .remembers_qos1     = true,
            .draws_at_qos0      = false,
            .chooses_first      = false,
            .payload_by_version = true};
}
constexpr Rules kWillRules  = rules_of(Tracking::Never);
constexpr Rules kOtherRules = rules_of(Tracking::Queued);

void broadcast_read(Packet packet, const ReadPublish &publish, bool is_will)
{
    LOG_INFO("[遗嘱调试][广播开始] Topic=%s, 原始QoS=%d, 消息长度=%d, 开始匹配订阅者（上限=%d）", publish.topic,
             publish.qos, static_cast<int>(packet.size()), SUB_MATCH_CAPACITY);
    Message message;
    message.topic  = publish.topic;
    message.qos    = publish.qos;
    message.retain = publish.retain;
    Broadcast routing{{is_will ? kWillRules : kOtherRules, message}, packet, publish.payload_at, is_will};
    (void)route(routing, publish.topic);
}

} // namespace

void broadcast(Packet packet, bool is_will) noexcept
{
    if (!packet.data() || packet.size() < 4) {
        LOG_ERROR("[遗嘱调试][广播失败] 参数无效：buf=%p, len=%d（需≥4）", static_cast<const void *>(packet.data()),
                  static_cast<int>(packet.size()));
        return;
    }
    const uint32_t topic_len = static_cast<uint32_t>(packet[2]) << 8 | packet[3];
    if (topic_len + 4 > packet.size()) {
        LOG_ERROR("[遗嘱调试][广播失败] Topic越界：topic_len=%d, msg_len=%d, 2+2+topic_len=%d > msg_len",
                  static_cast<int>(topic_len), static_cast<int>(packet.size()), static_cast<int>(topic_len + 4));
        return;
    }

    const owned<char> topic = allocate_zeroed<char>(CODEC_TOPIC_MAX + 1);
    if (!topic) {
        LOG_ERROR("[遗嘱调试][广播失败] malloc topic failed: %d", errno);
        return;
    }
    memcpy(topic.get(), packet.data() + 4, std::min<uint32_t>(topic_len, CODEC_TOPIC_MAX));
    const auto     qos        = static_cast<uint8_t>(packet[0] >> 1 & 3);
    const auto     retain     = static_cast<uint8_t>(packet[0] & 1);
    const uint32_t payload_at = topic_len + (qos > 0 ? 6 : 4);
    broadcast_read(packet, {topic.get(), payload_at, qos, retain}, is_will);
}

} // namespace tarn::handler
