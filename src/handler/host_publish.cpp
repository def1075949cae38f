// host_publish.cpp - a message of the host's own: neither callbacks nor an excluded sender, and hardly a line of log.
#include "../base/text.h"
#include "../sub/sub.hpp"
#include "routing.h"

namespace tarn::handler {
namespace {

constexpr size_t kSentTopicChars = 255;

void keep_for_offline(const Routing &routing)
{
    const Receiver &receiver = routing.receiver;
    {
        persist::AbsentSession session(receiver.id());
        if (!is_kept(routing, session))
            return;
        if (receiver.qos == 0) {
            LOG_INFO("[MQTT标准] QoS=0 离线消息不存储：ClientID=%s, Topic=%s", receiver.id(),
                     routing.message.topic_text());
            return;
        }
        if (!keep_message(routing, session))
            return;
    }
    LOG_INFO("[STANDARD] APP发布离线消息已存储: %s, Topic=%s", receiver.id(), routing.message.topic_text());
    requeue_if_back(receiver.id());
}

void on_outcome(Routing &routing, Outcome outcome) noexcept
{
    switch (outcome) {
    case Outcome::Offline:
        keep_for_offline(routing);
        break;
    default: // neither success nor failure has a line
        break;
    }
}

constexpr Rules kRules{.on_outcome         = on_outcome,
                       .tracking           = Tracking::Always,
                       .remembers_qos1     = false,
                       .draws_at_qos0      = true,
                       .chooses_first      = false,
                       .payload_by_version = false};

} // namespace

bool publish_for_host(const HostMessage &host) noexcept
{
    // Own copies first: the arguments may point into records that change on the way. Longer topics stand in none.
    char    own_topic[sizeof(sub_entry_t::topic_filter)];
    char    sent_topic[kSentTopicChars + 1];
    uint8_t own_payload[CODEC_PAYLOAD_MAX];
    copy_text(own_topic, host.topic, sizeof own_topic - 1);
    copy_text(sent_topic, own_topic, kSentTopicChars);
    const auto length = std::min<size_t>(host.payload.size(), CODEC_PAYLOAD_MAX);
    memcpy(own_payload, host.payload.data(), length);
    (void)draw_delivery_id(); // the message's own, which no delivery uses

    const bool        is_copied   = strnlen(host.topic, sizeof own_topic) < sizeof own_topic;
    const char *const whole_topic = is_copied ? own_topic : host.topic;
    if (host.retain & 1)
        (void)sub::retain({whole_topic, {own_payload, length}, host.qos, host.expiry_s});

    // QUIRK(host-retain-forwarded): the host's retain flag goes out to subscribers as it was passed, where MQTT clears
    // it for established subscriptions [MQTT-3.3.1-12].
    //   standard profile: lifted (retained): unless the subscription says Retain As Published
    //   test: host_publish.the_retain_flag_is_forwarded
    Message message;
    message.topic               = sent_topic;
    message.payload             = {own_payload, length};
    message.qos                 = host.qos;
    message.retain              = host.retain;
    message.msg_expiry_interval = host.expiry_s;
    Routing routing(kRules, message);
    routing.excluded = "";
    return route(routing, whole_topic);
}

} // namespace tarn::handler
