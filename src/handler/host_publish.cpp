// host_publish.cpp - a message of the host's own: neither callbacks nor an excluded sender, and hardly a line of log.
#include "../base/text.h"
#include "../sub/retain.h"
#include "routing.h"

namespace tarn::handler {
namespace {

constexpr size_t kSentTopicChars = 255;

struct HostPath : BasicPath {
    static constexpr bool kDrawsAtQos0   = true;
    static constexpr bool kRemembersQos1 = false;

    using BasicPath::BasicPath;

    bool tracks() const { return false; } // once queued: see encoded()
    bool passes_over(const Receiver &to) { return to.route.client_id[0] == '\0'; }
    void absent(const Receiver &to, const mqtt_client_t *, uint32_t)
    {
        persist::HeldSession session(to.route.client_id);
        if (!keeps_messages(session, to.route) || message.topic.empty() || message.payload.empty())
            return;
        const uint32_t kept_qos = qos_to(to);
        if (kept_qos == 0) {
            LOG_INFO("[MQTT标准] QoS=0 离线消息不存储：ClientID=%s, Topic=%s", to.route.client_id,
                     message.topic_text());
            return;
        }
        if (keep_message(session, message, kept_qos))
            LOG_INFO("[STANDARD] APP发布离线消息已存储: %s, Topic=%s", to.route.client_id, message.topic_text());
    }
    // Tracked whether it can be queued or not, also when only the buffer was too small for it: the scan delivers it
    // then. Before it is queued, since its acknowledgement may come in on another thread.
    void encoded(mqtt_client_t &client, const DeliveryCache &cache, int code, uint32_t version)
    {
        if (message.qos != 0 && (code == CODEC_OK || cache.scan_can_encode(code, version)))
            (void)qos_reliable_add_packet(&client, message.msg_id, static_cast<uint8_t>(message.qos),
                                          message.topic_text(), message.payload.data(), message.payload_len());
    }
};

} // namespace
} // namespace tarn::handler

using namespace tarn;
using namespace tarn::handler;

int packet_handler_broker_publish(const char *topic, const uint8_t *payload, int payload_len, uint8_t qos,
                                  uint8_t retain, uint32_t message_expiry)
{
    if (!topic || !payload || payload_len < 1 || qos > 2)
        return -1;

    // Own copies first: the arguments may point into records that change on the way. Longer topics stand in none.
    char    own_topic[sizeof(sub_entry_t::topic_filter)];
    char    sent_topic[kSentTopicChars + 1];
    uint8_t own_payload[CODEC_PAYLOAD_MAX];
    copy_text(own_topic, topic, sizeof own_topic - 1);
    copy_text(sent_topic, own_topic, kSentTopicChars);
    const auto length = std::min<uint32_t>(static_cast<uint32_t>(payload_len), CODEC_PAYLOAD_MAX);
    memcpy(own_payload, payload, length);
    (void)draw_delivery_id(); // the message's own, which no delivery uses

    const bool        is_copied   = strnlen(topic, sizeof own_topic) < sizeof own_topic;
    const char *const whole_topic = is_copied ? own_topic : topic;
    if (retain & 1)
        (void)retain_msg_set_with_expiry(whole_topic, own_payload, length, qos, message_expiry);

    Matches matches;
    if (!matches.find(whole_topic))
        return -1;
    if (matches.count() == 0)
        return 0;
    if (!matches.choose())
        return -1;

    // QUIRK(host-retain-forwarded): the host's retain flag goes out to subscribers as it was passed, where MQTT clears
    // it for established subscriptions [MQTT-3.3.1-12].
    //   test: host_publish.the_retain_flag_is_forwarded
    Message message;
    message.topic               = sent_topic;
    message.payload             = {own_payload, length};
    message.qos                 = qos;
    message.retain              = retain;
    message.msg_expiry_interval = message_expiry;
    HostPath path(message);
    (void)fan_out(matches, path);
    return 0;
}
