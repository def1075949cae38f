// publish.cpp - PUBLISH from a client: ask the host, keep a retained copy, route, acknowledge.
#include "../base/text.h"
#include "../codec/mqtt_codec.h"
#include "../stats/counters.h"
#include "../sub/retain.h"
#include "reply.h"
#include "routing.h"

#include <cerrno>
#include <string_view>

namespace tarn::handler {
namespace {

// QUIRK(never-own): a client never receives its own publications, whatever its subscription says; MQTT leaves that to
// the No Local option [MQTT-3.8.3-3]. Where it is the chosen member of a shared group, nobody of the group gets them.
//   test: publish.a_publisher_never_receives_its_own_message, publish.the_chosen_member_may_be_the_publisher
struct ClientPath : BasicPath {
    const std::string_view sender;

    ClientPath(Message &what, std::string_view from) : BasicPath(what), sender(from) {}

    bool passes_over(const Receiver &to) { return sender == to.route.client_id; }
    void not_chosen(const Receiver &to) { LOG_DEBUG("[共享订阅] 订阅者%d 同组已负载均衡，跳过发送", to.number); }
    // Kept at QoS 0 too, unlike on the host's path.
    void absent(const Receiver &to, const mqtt_client_t *, uint32_t)
    {
        persist::HeldSession session(to.route.client_id);
        if (!keeps_messages(session, to.route) || message.topic.empty() || message.payload.empty())
            return;
        if (!keep_message(session, message, qos_to(to)))
            return;
        LOG_INFO("[MQTT标准] 离线消息已存储：ClientID=%s, Topic=%s", to.route.client_id, message.topic_text());
        stats::count(stats::Counter::offline_msg);
    }
    void no_memory(const Receiver &) { LOG_ERROR("forward_buf malloc failed: %d", errno); }
    void sent(const Receiver &to)
    {
        LOG_INFO("转发消息成功：To=%s, Topic=%s, QoS=%d", to.route.client_id, message.topic_text(),
                 static_cast<int>(qos_to(to)));
    }
};

// QUIRK(expiry-elsewhere): a Message Expiry Interval is forwarded undiminished [MQTT-3.3.2-6], and of the pending
// deliveries it limits the one that has the publisher's own identifier, not those made from this message.
//   test: publish.an_expiry_goes_to_the_entry_with_the_publishers_identifier
void limit_life(mqtt_client_t &client, const mqtt_publish_para_t &message)
{
    if (message.qos != 0 && message.msg_expiry_interval != 0)
        qos_reliable_set_packet_expiry(&client, message.msg_id, message.msg_expiry_interval);
}

// The message as its receivers get it: neither retained nor repeated, all else as decoded.
// QUIRK(alias-forwarded): a 5.0 publisher's Topic Alias appears in the deliveries, where it means nothing that the
// receiver agreed to [MQTT-3.3.2-11]; the topic itself is always there too.
//   test: publish.a_topic_alias_is_forwarded
//
// QUIRK(properties-not-forwarded): Payload Format Indicator, Response Topic, Correlation Data, User Properties and
// Content Type end here [MQTT-3.3.2-4, MQTT-3.3.2-15, MQTT-3.3.2-16, MQTT-3.3.2-17, MQTT-3.3.2-20], and no Subscription
// Identifier is added [MQTT-3.3.4-3]: messages are topic, payload, QoS, retain and expiry.
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

bool route(const mqtt_client_t &client, const mqtt_publish_para_t &publication)
{
    Matches matches;
    if (!matches.find(publication.topic)) {
        LOG_ERROR("matched_subs malloc failed: %d", errno);
        return false;
    }
    if (!matches.choose()) {
        LOG_ERROR("selected_shared malloc failed: %d", errno);
        return false;
    }
    if (matches.count() == 0) {
        LOG_DEBUG("发布消息无匹配订阅者：Topic=%s", publication.topic);
        return true;
    }

    Message    message = forwarded(publication);
    ClientPath path(message, client.client_id);
    const int  sent = fan_out(matches, path);
    LOG_INFO("MQTT标准：消息转发完成：匹配%d个订阅者，成功发送%d个", matches.count(), sent);
    return true;
}

int acknowledge(mqtt_client_t &client, int type, uint16_t id, const char *no_memory, const char *replied)
{
    mqtt_ack_para_t ack{};
    ack.msg_id = id;
    switch (send_ack(client, type, ack)) {
    case Reply::NoMemory:
        LOG_ERROR(no_memory, errno);
        return -1;
    case Reply::NotEncoded:
        break;
    case Reply::Sent:
        LOG_INFO(replied, client.client_id, id);
    }
    return 0;
}

// QUIRK(qos2-at-once): a QoS 2 message is forwarded when it arrives, not on PUBREL, and again when it is repeated:
// there is no memory of identifiers seen [MQTT-4.3.3-10].
//   test: publish.a_repeated_qos_2_message_is_forwarded_again
int answer_publisher(mqtt_client_t &client, uint32_t qos, uint16_t id)
{
    switch (qos) {
    case 1:
        return acknowledge(client, PUBACK, id, "puback_buf malloc failed: %d", "发送PUBACK成功：ClientID=%s, MsgID=%d");
    case 2:
        poke(client.qos2_pending_msg_id, id);
        return acknowledge(client, PUBREC, id, "pubrec_buf malloc failed: %d", "发送PUBREC成功：ClientID=%s, MsgID=%d");
    default:
        return 0;
    }
}

} // namespace

int handle_publish(mqtt_client_t &client, Packet packet) noexcept
{
    mqtt_publish_para_t message{};
    int                 length = static_cast<int>(packet.size());
    if (const int code = mqtt_codec_decode_publish(&client.codec, packet.data(), &length, &message))
        return undecodable(client, "解码PUBLISH失败：ClientID=%s, 错误码=%d", code);

    stats::count_qos(message.qos);
    LOG_INFO("MQTT标准：收到发布消息：ClientID=%s, Topic=%s, QoS=%d, Retain=%d, MsgID=%d", client.client_id,
             message.topic, static_cast<int>(message.qos), message.retain, message.msg_id);

    // QUIRK(refused-unanswered): a publication that the host refuses is not acknowledged at any QoS, so its publisher
    // keeps repeating it [MQTT-3.3.4-1, MQTT-4.3.2-4].
    //   test: publish.a_refused_publication_is_not_acknowledged
    if (!broker_fire_acl(&client, message.topic, BROKER_ACL_PUBLISH)) {
        LOG_WARN("[ACL] 发布被拒绝: %s", message.topic);
        return -1;
    }
    broker_fire_event(&client, BROKER_EVENT_PUBLISH, message.topic, static_cast<int32_t>(message.qos));

    limit_life(client, message);
    if (message.retain)
        (void)retain_msg_set_with_expiry(message.topic, message.payload, message.payload_len, message.qos,
                                         message.msg_expiry_interval);
    if (!route(client, message))
        return -1;
    return answer_publisher(client, message.qos, message.msg_id);
}

} // namespace tarn::handler
