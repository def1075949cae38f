// publish.cpp - PUBLISH from a client: ask the host, keep a retained copy, route, acknowledge.
#include "../base/text.h"
#include "../qos/qos.hpp"
#include "../stats/stats.hpp"
#include "../sub/sub.hpp"
#include "reply.h"
#include "routing.h"

#include <cerrno>

namespace tarn::handler {
namespace {

// Kept at QoS 0 too, unlike the host's messages.
void keep_for_offline(const Routing &routing)
{
    const Receiver &receiver = routing.receiver;
    {
        persist::AbsentSession session(receiver.id());
        if (!is_kept(routing, session) || !keep_message(routing, session))
            return;
    }
    LOG_INFO("[MQTT标准] 离线消息已存储：ClientID=%s, Topic=%s", receiver.id(), routing.message.topic_text());
    stats::count(stats::Counter::offline_msg);
    requeue_if_back(receiver.id());
}

void on_outcome(Routing &routing, Outcome outcome) noexcept
{
    const Receiver &receiver = routing.receiver;
    const char     *topic    = routing.message.topic_text();
    switch (outcome) {
    case Outcome::NoMatchMemory:
        LOG_ERROR("matched_subs malloc failed: %d", errno);
        break;
    case Outcome::NoChoiceMemory:
        LOG_ERROR("selected_shared malloc failed: %d", errno);
        break;
    case Outcome::Unmatched:
        LOG_DEBUG("发布消息无匹配订阅者：Topic=%s", topic);
        break;
    case Outcome::NotChosen:
        LOG_DEBUG("[共享订阅] 订阅者%d 同组已负载均衡，跳过发送", receiver.number);
        break;
    case Outcome::Offline:
        keep_for_offline(routing);
        break;
    case Outcome::NoMemory:
        LOG_ERROR("forward_buf malloc failed: %d", errno);
        break;
    case Outcome::Sent:
        LOG_INFO("转发消息成功：To=%s, Topic=%s, QoS=%d", receiver.id(), topic, receiver.shown_qos());
        break;
    case Outcome::Routed:
        LOG_INFO("MQTT标准：消息转发完成：匹配%d个订阅者，成功发送%d个", routing.matches.count(), routing.sent);
        break;
    case Outcome::Matched:
    case Outcome::Online:
    case Outcome::NoPayload:
    case Outcome::NotEncoded:
    case Outcome::NotSent:
        break;
    }
}

constexpr Rules kRules{.on_outcome         = on_outcome,
                       .tracking           = Tracking::Queued,
                       .remembers_qos1     = true,
                       .draws_at_qos0      = false,
                       .chooses_first      = true,
                       .payload_by_version = false};

// QUIRK(expiry-elsewhere): a Message Expiry Interval is forwarded undiminished [MQTT-3.3.2-6], and of the pending
// deliveries it limits the one that has the publisher's own identifier, not those made from this message.
//   standard profile: lifted (delivery): what is left of the interval is sent along, and what is over is not sent
//   test: publish.an_expiry_goes_to_the_entry_with_the_publishers_identifier
void apply_expiry(mqtt_client_t &client, const mqtt_publish_para_t &message)
{
    if (message.qos != 0 && message.msg_expiry_interval != 0)
        qos::set_expiry(client, message.msg_id, message.msg_expiry_interval);
}

// The message as its receivers get it: neither retained nor repeated, all else as decoded.
// QUIRK(alias-forwarded): a 5.0 publisher's Topic Alias appears in the deliveries, where it means nothing that the
// receiver agreed to [MQTT-3.3.2-11]; the topic itself is always there too.
//   standard profile: lifted (wire): receivers have aliases of their own, up to the maximum that they announced
//   test: publish.a_topic_alias_is_forwarded
//
// QUIRK(properties-not-forwarded): Payload Format Indicator, Response Topic, Correlation Data, User Properties and
// Content Type end here [MQTT-3.3.2-4, MQTT-3.3.2-15, MQTT-3.3.2-16, MQTT-3.3.2-17, MQTT-3.3.2-20], and no Subscription
// Identifier is added [MQTT-3.3.4-3]: messages are topic, payload, QoS, retain and expiry.
//   standard profile: lifted (wire)
//   test: publish.properties_but_the_expiry_are_not_forwarded
Message forwarded(const mqtt_publish_para_t &publication)
{
    Message message;
    message.topic               = text_of(publication.topic);
    message.payload             = {publication.payload, publication.payload_len};
    message.qos                 = publication.qos;
    message.msg_expiry_interval = publication.msg_expiry_interval;
    message.topic_alias         = publication.topic_alias;
    return message;
}

// QUIRK(qos2-at-once): a QoS 2 message is forwarded when it arrives, not on PUBREL, and again when it is repeated:
// there is no memory of identifiers seen [MQTT-4.3.3-10].
//   standard profile: lifted (delivery): forwarded when it arrives, which the standards allow, and then not again until
//   PUBREL
//   test: publish.a_repeated_qos_2_message_is_forwarded_again
Reply answer_publisher(mqtt_client_t &client, uint32_t qos, uint16_t id)
{
    if (qos == 1)
        return answer(client, PUBACK, id, "puback_buf malloc failed: %d", "发送PUBACK成功：ClientID=%s, MsgID=%d");
    client.qos2_pending_msg_id = id;
    return answer(client, PUBREC, id, "pubrec_buf malloc failed: %d", "发送PUBREC成功：ClientID=%s, MsgID=%d");
}

} // namespace

int handle_publish(mqtt_client_t &client, Packet packet) noexcept
{
    mqtt_publish_para_t message; // the decoder sets it
    if (const codec::Result result = codec::decode_publish(client.codec, packet, message); failed(result))
        return refuse_undecodable(client, "解码PUBLISH失败：ClientID=%s, 错误码=%d", result);

    stats::count_qos(message.qos);
    LOG_INFO("MQTT标准：收到发布消息：ClientID=%s, Topic=%s, QoS=%d, Retain=%d, MsgID=%d", client.client_id,
             message.topic, static_cast<int>(message.qos), message.retain, message.msg_id);

    // QUIRK(refused-unanswered): a publication that the host refuses is not acknowledged at any QoS, so its publisher
    // keeps repeating it [MQTT-3.3.4-1, MQTT-4.3.2-4].
    //   standard profile: lifted (delivery): acknowledged, at 5.0 with 0x87
    //   test: publish.a_refused_publication_is_not_acknowledged
    if (!api::allows(client, message.topic, BROKER_ACL_PUBLISH)) {
        LOG_WARN("[ACL] 发布被拒绝: %s", message.topic);
        return -1;
    }
    api::tell(client, BROKER_EVENT_PUBLISH, message.topic, static_cast<int32_t>(message.qos));

    apply_expiry(client, message);
    if (message.retain)
        (void)sub::retain(
            {message.topic, {message.payload, message.payload_len}, message.qos, message.msg_expiry_interval});
    // QUIRK(never-own): a client never receives its own publications, whatever its subscription says; MQTT leaves that
    // to the No Local option [MQTT-3.8.3-3]. Where it is the chosen member of a shared group, nobody of the group gets
    // them.
    //   standard profile: lifted (own messages): but for bridges of other brokers, which mark their level, 3.1.1
    //   test: publish.a_publisher_never_receives_its_own_message, publish.the_chosen_member_may_be_the_publisher
    Routing routing(kRules, forwarded(message));
    routing.excluded = client.client_id;
    if (!route(routing, message.topic))
        return -1;
    if (message.qos == 0)
        return 0;
    return answer_publisher(client, message.qos, message.msg_id) == Reply::NoMemory ? -1 : 0;
}

} // namespace tarn::handler
