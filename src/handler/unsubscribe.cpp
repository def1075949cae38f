// unsubscribe.cpp - UNSUBSCRIBE: filters leave the table, and the answer says nothing about any of them.
#include "../sub/sub.hpp"
#include "handler_internal.h"
#include "reply.h"

#include <algorithm>
#include <cerrno>

namespace tarn::handler {
namespace {

// QUIRK(unsubscribe-forgotten): the saved list of the session keeps the filter, so it comes back with the next session
// restore [MQTT-3.10.4-2].
//   standard profile: lifted (sessions)
//   test: unsubscribe.the_saved_list_keeps_the_filter
void note_removed(mqtt_client_t &client, const char *filter, int32_t removed)
{
    if (removed == 0) {
        LOG_DEBUG("取消订阅失败：ClientID=%s, Topic=%s", client.client_id, filter);
        return;
    }
    LOG_INFO("取消订阅成功：ClientID=%s, Topic=%s", client.client_id, filter);
    api::tell(client, BROKER_EVENT_UNSUBSCRIBE, filter);
}

void remove_filters(mqtt_client_t &client, const mqtt_unsubscribe_para_t &request)
{
    const char *filters[CODEC_FILTERS_MAX];
    size_t      count = 0;
    for (int at = 0; at < std::min<int>(request.filter_count, CODEC_FILTERS_MAX); at++)
        if (request.topic_filters[at][0] != '\0')
            filters[count++] = request.topic_filters[at];
    sub::Removal removal(client.client_id, {filters, count});
    for (size_t at = 0; at < count; at++)
        note_removed(client, filters[at], removal.log_and_count(at));
}

// QUIRK(unsuback-one-code): a 5.0 UNSUBACK carries one code 0, not one for each filter [MQTT-3.11.3-1].
//   standard profile: lifted (wire)
//   test: unsubscribe.the_answer_is_the_identifier_and_one_code
int answer(mqtt_client_t &client, uint16_t id)
{
    mqtt_ack_para_t ack{};
    ack.msg_id = id;
    switch (send_ack(client, UNSUBACK, ack)) {
    case Reply::NoMemory:
        LOG_ERROR("ack_buf malloc failed: %d", errno);
        return -1;
    case Reply::NotEncoded:
        break;
    case Reply::Sent:
        LOG_INFO("发送UNSUBACK成功：ClientID=%s, MsgID=%d", client.client_id, id);
    }
    return 0;
}

} // namespace

int handle_unsubscribe(mqtt_client_t &client, Packet packet) noexcept
{
    mqtt_unsubscribe_para_t request{};
    if (const codec::Result result = codec::decode_unsubscribe(client.codec, packet, request); failed(result))
        return refuse_undecodable(client, "解码UNSUBSCRIBE失败：ClientID=%s, 错误码=%d", result);

    LOG_INFO("MQTT标准：客户端取消订阅：ClientID=%s, MsgID=%d, 取消数=%d", client.client_id, request.msg_id,
             request.filter_count);
    remove_filters(client, request);
    return answer(client, request.msg_id);
}

} // namespace tarn::handler
