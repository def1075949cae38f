// subscribe.cpp - SUBSCRIBE: each filter is judged, entered and answered with retained messages at once, then saved
// with the session and reported in the SUBACK.
#include "../base/text.h"
#include "../persist/persist.hpp"
#include "../sub/sub.hpp"
#include "handler_internal.h"
#include "reply.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tarn::handler {
namespace {

constexpr uint32_t kRefused = 0x80;

void log_request(const mqtt_client_t &client, const mqtt_subscribe_para_t &request)
{
    LOG_INFO("【QoS溯源1】客户端订阅请求：ClientID=%s, MsgID=%d, 订阅数=%d", client.client_id, request.msg_id,
             request.filter_count);
    for (int at = 0; at < request.filter_count; at++)
        LOG_INFO("【QoS溯源1】filter[%d]：Topic=%s, 请求QoS=%d (0x%02X)", at, request.topic_filters[at],
                 static_cast<int>(request.qos[at]), request.qos[at]);
}

// The code of one filter. A granted one is answered with the retained messages at once, so before the SUBACK.
// QUIRK(empty-filter-refused): an empty filter gets 0x80, where MQTT ends the connection [MQTT-4.7.3-1].
//   standard profile: lifted (strictness)
//   test: subscribe.a_filter_that_begins_with_nul_is_the_empty_one
uint32_t subscribe_one(mqtt_client_t &client, int at, const char *filter, uint32_t qos)
{
    if (filter[0] == '\0') {
        LOG_WARN("【QoS溯源2】filter[%d]：Topic为空，授予QoS=失败(0x%02X)", at, kRefused);
        return kRefused;
    }
    if (!api::allows(client, filter, BROKER_ACL_SUBSCRIBE)) {
        LOG_WARN("[ACL] 订阅被拒绝: %s", filter);
        return kRefused;
    }
    if (!sub::is_subscribed(sub::add(client.client_id, filter, qos, client.clean_session))) {
        LOG_WARN("【QoS溯源2】filter[%d]：Topic=%s, 添加订阅失败，授予QoS=失败(0x%02X)", at, filter, kRefused);
        return kRefused;
    }
    LOG_INFO("【QoS溯源2】filter[%d]：Topic=%s, 请求QoS=%d → 授予QoS=%d (0x%02X)", at, filter, static_cast<int>(qos),
             static_cast<int>(qos), qos);
    send_retained(client, filter);
    api::tell(client, BROKER_EVENT_SUBSCRIBE, filter, static_cast<int32_t>(qos));
    return qos;
}

// The entry for this filter: the one of exactly this text, or a new one at the end.
// QUIRK(saved-filter-cut): a filter longer than 63 characters is saved cut, so that a session restore subscribes to
// something else, and each SUBSCRIBE of it adds another copy [MQTT-3.1.2-4 of 3.1.1].
//   standard profile: lifted (sessions)
//   test: subscribe.a_long_filter_is_saved_cut_and_each_time_anew
persist_sub_t &entry_for(mqtt_client_t &client, const char *filter)
{
    persist_session_t &session = client.session;
    for (int at = 0; at < session.sub_count; at++)
        if (text_of(session.subs[at].topic) == filter)
            return session.subs[at];
    session_written(client, session.sub_count + 1, session.msg_count);
    persist_sub_t &entry = session.subs[session.sub_count++];
    copy_text(entry.topic, filter, PACKET_SAVED_FILTER_CHARS);
    return entry;
}

// Whatever the clean-session flag says.
// QUIRK(saved-filters-32): filters beyond the 32nd saved entry are in the table, but do not come back with the session
// [MQTT-3.1.2-4 of 3.1.1]: the saved list has a fixed size.
//   standard profile: lifted (sessions): 10000 subscriptions a client, or as many as the host set
//   test: subscribe.the_33rd_filter_is_in_the_table_but_not_saved
void remember(mqtt_client_t &client, const mqtt_subscribe_para_t &request, const mqtt_ack_para_t &ack)
    REQUIRES(session_mutex(client))
{
    for (int at = 0; at < request.filter_count; at++) {
        if (ack.return_codes[at] == kRefused)
            continue;
        if (client.session.sub_count >= PACKET_SAVED_SUBS_MAX)
            return;
        entry_for(client, request.topic_filters[at]).qos = static_cast<uint8_t>(ack.return_codes[at]);
    }
}

void save(mqtt_client_t &client, const mqtt_subscribe_para_t &request, const mqtt_ack_para_t &ack)
{
    int32_t saved = 0;
    {
        ScopedLock lock(session_mutex(client));
        remember(client, request, ack);
        if (client.clean_session)
            return;
        persist::save(client.session, PERSIST_SUBSCRIPTIONS);
        saved = client.session.sub_count;
    }
    LOG_INFO("[持久化] 订阅已保存到文件: %s, 订阅数=%d", client.client_id, saved);
}

// The summary is the first filter's code: a granted QoS or 0x80, so both levels know it. It appears in log lines only,
// the SUBACK carries the list.
uint8_t reason_of(mqtt_client_t &client, uint32_t summary)
{
    const auto reason = static_cast<uint8_t>(summary);
    if (speaks_v5(client))
        LOG_INFO("【QoS溯源3】MQTT 5.0 Reason Code赋值：授权QoS=%d → ReasonCode=0x%02X", static_cast<int>(summary),
                 reason);
    else
        LOG_INFO("【QoS溯源3】MQTT 3.1.1 Reason Code赋值：授权QoS=%d → ReasonCode=0x%02X", static_cast<int>(summary),
                 reason);
    return reason;
}

int answer(mqtt_client_t &client, mqtt_ack_para_t &ack, uint32_t summary)
{
    ack.reason_code = reason_of(client, summary);
    switch (send_ack(client, SUBACK, ack)) {
    case Reply::NoMemory:
        LOG_ERROR("ack_buf malloc failed: %d", errno);
        return -1;
    case Reply::NotEncoded:
        break;
    case Reply::Sent:
        LOG_INFO("发送SUBACK成功：ClientID=%s, MsgID=%d, 授权QoS=%d, ReasonCode=0x%02X", client.client_id, ack.msg_id,
                 static_cast<int>(summary), ack.reason_code);
    }
    return 0;
}

} // namespace

int handle_subscribe(mqtt_client_t &client, Packet packet) noexcept
{
    mqtt_subscribe_para_t request{};
    if (const codec::Result result = codec::decode_subscribe(client.codec, packet, request); failed(result))
        return refuse_undecodable(client, "解码SUBSCRIBE失败：ClientID=%s, 错误码=%d", result);

    log_request(client, request);
    mqtt_ack_para_t ack{};
    ack.msg_id            = request.msg_id;
    ack.return_code_count = request.filter_count;
    for (int at = 0; at < request.filter_count; at++)
        ack.return_codes[at] = subscribe_one(client, at, request.topic_filters[at], request.qos[at]);
    save(client, request, ack);
    return answer(client, ack, request.filter_count > 0 ? ack.return_codes[0] : kRefused);
}

} // namespace tarn::handler
