#include "query.h"

#include "profile.h"
#include "shortage.h"
#include "text.h"

#include <atomic>
#include <cstring>
#include <new>
#include <string_view>

#include <tarn_sdk_mqtt_broker/base/limits.h>
#include <tarn_sdk_mqtt_broker/client/client.h>
#include <tarn_sdk_mqtt_broker/net/netip.h>
#include <tarn_sdk_mqtt_broker/stats/mqtt_stats.h>
#include <tarn_sdk_mqtt_broker/sub/retain.h>
#include <tarn_sdk_mqtt_broker/sub/sub.h>

namespace tarn::broker {
namespace {

constexpr char   kIdsPart    = ',';
constexpr size_t kIdsRoom    = size_t{CLIENT_MAX} * (CLIENT_ID_CHARS + 1) + 1; // each with its comma
constexpr size_t kTopicMax   = CODEC_TOPIC_MAX;
constexpr size_t kTopicsRoom = size_t{RETAIN_CAPACITY} * (kTopicMax + 1) + 1; // each with its newline

using FillList = int32_t (*)(broker_t *broker, char *list, int32_t size);

std::string list_of(FillList fill, size_t room)
{
    std::string list(room, '\0');
    fill(nullptr, list.data(), static_cast<int32_t>(list.size()));
    list.resize(strlen(list.c_str()));
    return list;
}

std::string id_list()
{
    return list_of(tarn_sdk_mqtt_broker_get_client_id_list, kIdsRoom);
}

// There is no bound for what topics take. Room for one more of the longest is left: so all are there.
std::vector<std::string> standard_topics()
{
    constexpr size_t kLongest = 65536, kFirstRoom = size_t{1} << 20, kMostRoom = size_t{1} << 30;
    std::string      topics;
    for (size_t room = kFirstRoom; room <= kMostRoom; room *= 4) {
        topics = list_of(tarn_sdk_mqtt_broker_get_retain_topic_list, room);
        if (topics.size() + kLongest < room)
            break;
    }
    if (!topics.empty())
        topics.pop_back();
    const std::vector<std::string_view> pieces = pieces_of(topics, '\n');
    return {pieces.begin(), pieces.end()};
}

// Nothing when it has none.
std::optional<tarn_sdk_mqtt_session_info_t> session_info(const std::string &client_id)
{
    tarn_sdk_mqtt_session_info_t info{};
    const int32_t                code = tarn_sdk_mqtt_broker_get_session_info(nullptr, client_id.c_str(), &info);
    info.kept |= code == TARN_E_NOT_RUNNING;
    return code == TARN_E_NOT_FOUND ? std::nullopt : std::optional(info);
}

// The library's threads count while this reads.
template <class T> T peek(T &counter)
{
    return std::atomic_ref<T>(counter).load(std::memory_order_relaxed);
}

} // namespace

std::vector<std::string> clients_online(broker_t *broker)
{
    return names_in_list(id_list(), kIdsPart, CLIENT_ID_CHARS,
                         [broker](const std::string &id) { return client_info(broker, id).has_value(); });
}

std::vector<std::string> online_id_pieces()
{
    const std::string                   list   = id_list();
    const std::vector<std::string_view> pieces = pieces_of(list, kIdsPart);
    return {pieces.begin(), pieces.end()};
}

std::optional<tarn_sdk_mqtt_client_info_t> client_info(broker_t *broker, const std::string &id)
{
    tarn_sdk_mqtt_client_info_t info{};
    if (tarn_sdk_mqtt_broker_get_client_info(broker, id.c_str(), &info) != TARN_OK)
        return {};
    return info;
}

std::string address_of(const tarn_sdk_mqtt_client_info_t &info)
{
    return std::string(info.ip) + ':' + std::to_string(info.port);
}

size_t subscriptions_of(const std::string &client_id)
{
    const auto info = session_info(client_id);
    return info ? info->subscriptions : 0;
}

bool session_is_kept(const std::string &client_id)
{
    const auto info = session_info(client_id);
    return info && info->kept != 0;
}

bool has_will(const std::string &client_id)
{
    const auto info = session_info(client_id);
    return info && info->has_will != 0;
}

std::vector<std::string> retained_topics()
{
    if (g_serves_standard)
        return standard_topics();
    std::string topics = list_of(tarn_sdk_mqtt_broker_get_retain_topic_list, kTopicsRoom);
    if (!topics.empty())
        topics.pop_back(); // each is followed by a newline
    retain_msg_t message;
    return names_in_list(topics, '\n', kTopicMax,
                         [&](const std::string &topic) { return retain_msg_get(topic.c_str(), &message) == 0; });
}

std::vector<std::string> subscriber_ids()
{
    std::vector<std::string> ids;
    ids.reserve(SUB_CAPACITY); // not under the lock
    pthread_mutex_lock(&g_sub_mgr.lock);
    const bool whole = unless_short([&] {
        for (int32_t i = 0; g_sub_mgr.subs && i < g_sub_mgr.sub_count; ++i)
            ids.emplace_back(g_sub_mgr.subs[i].client_id);
    });
    pthread_mutex_unlock(&g_sub_mgr.lock);
    if (!whole)
        throw std::bad_alloc();
    return ids;
}

bool holds_will(const void *record)
{
    auto &client = *const_cast<mqtt_client_t *>(static_cast<const mqtt_client_t *>(record));
    return peek(client.used) != 0 && (peek(client.state) == CLIENT_WILL_PENDING || peek(client.will_msg_used) != 0);
}

std::string statistics_json()
{
    char text[1024]; // the most it can take are some 700
    mqtt_stats_to_json(text, sizeof text);
    return text;
}

Counters read_counters()
{
    mqtt_stats_update();
    mqtt_stats_t                &s = g_mqtt_stats;
    tarn_sdk_mqtt_broker_stats_t basic{};
    tarn_sdk_mqtt_broker_get_stats(nullptr, &basic);
    return {
        .messages_in     = peek(s.qos0) + peek(s.qos1) + peek(s.qos2),
        .packets_in      = peek(s.pkt_rx),
        .packets_out     = peek(s.pkt_tx),
        .bytes_in        = 0,
        .bytes_out       = 0,
        .drop_offline    = peek(s.drop_offline),
        .drop_queue_full = peek(s.drop_queue_full),
        .drop_too_big    = peek(s.drop_too_big),
        .drop_invalid    = peek(s.drop_invalid_param),
        .drop_failed     = peek(s.drop_send_failed),
        .stored_offline  = peek(s.offline_msg),
        .timeouts        = peek(s.timeout),
        .wills           = peek(s.will_sent),
        .undecodable     = peek(s.parse_error),
        .online          = basic.online,
        .most_online     = peek(s.max_online),
        .pool_used       = peek(s.pool_used),
        .pool_capacity   = peek(s.pool_cap),
        .subscriptions   = peek(s.subs),
        .retained        = peek(s.retain_msg),
        .uptime_s        = basic.uptime_seconds,
    };
}

bool has_tables()
{
    pthread_mutex_lock(&g_sub_mgr.lock);
    const bool there = g_sub_mgr.subs && g_sub_mgr.retains;
    pthread_mutex_unlock(&g_sub_mgr.lock);
    return there;
}

bool tcp_is_open()
{
    return peek(g_netip_tcp_listen) >= 0;
}

bool udp_is_open()
{
    return peek(g_netip_udp) >= 0;
}

} // namespace tarn::broker
