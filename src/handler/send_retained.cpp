// send_retained.cpp - the retained messages that match a new or restored subscription.
//
// The store stays locked for the whole replay, so that it is one state of the store; queueing takes the send lock
// inside.
#include "../base/text.h"
#include "../sub/sub.hpp"
#include "delivery_cache.h"
#include "handler_internal.h"

#include <algorithm>

namespace tarn::handler {
namespace {

// QUIRK(retained-for-shared): a shared subscription gets retained messages too, each of its members all of them
// [MQTT 5.0 4.8.2]: a client that subscribes learns the state of its topics.
//   standard profile: lifted (retained)
//   test: retained.every_member_of_a_shared_group_gets_them
//
// QUIRK(retained-qos): a retained message goes out at the QoS it was published with, not at the smaller granted one
// [MQTT-3.8.4-8], without its expiry interval [MQTT-3.3.2-6], and is never repeated.
//   standard profile: lifted (retained)
//   test: retained.the_message_keeps_its_own_qos
void send_one(mqtt_client_t &client, const retain_msg_t &retained, const char *filter)
{
    char topic[CODEC_TOPIC_MAX + 1];
    copy_text(topic, retained.topic, CODEC_TOPIC_MAX);
    Message message;
    message.topic   = topic;
    message.payload = {retained.payload, std::min<uint32_t>(retained.payload_len, sizeof retained.payload)};
    message.retain  = 1;

    DeliveryCache                cache(message);
    const uint16_t               id     = draw_delivery_id(); // at QoS 0 too
    const DeliveryCache::Encoded packet = cache.encode(codec::level_of(client.codec), retained.qos, id);
    if (!packet.ready())
        return;
    codec::note_packet(client.codec, PUBLISH);
    (void)send_to(client, {packet.head, message.payload});
    LOG_INFO("[保留消息] 下发成功: Client=%s, Topic=%s, Filter=%s", id_of(client).text, topic, filter);
}

} // namespace

void send_retained(mqtt_client_t &client, const char *filter) noexcept
{
    const sub::TopicFilter wanted(filter);
    ScopedLock             lock(g_sub_mgr.lock);
    const int32_t count = g_sub_mgr.retains ? std::clamp<int32_t>(g_sub_mgr.retain_count, 0, RETAIN_CAPACITY) : 0;
    for (const retain_msg_t &retained : std::span(g_sub_mgr.retains, static_cast<size_t>(count)))
        if (retained.payload_len != 0 && wanted.matches(retained.topic))
            send_one(client, retained, filter);
}

} // namespace tarn::handler
