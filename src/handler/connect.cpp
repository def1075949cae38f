// connect.cpp - CONNECT: who the client is, what it and the broker agree on, and what becomes of its saved session.
//
// There is no session take-over: an older connection of the same id is neither closed nor told; look-ups by the id find
// the new record once its CONNACK is queued. From adopt() on the id in the record counts, not the decoded one.
#include "../base/text.h"
#include "../persist/persist.hpp"
#include "../stats/stats.hpp"
#include "../sub/sub.hpp"
#include "handler_internal.h"
#include "reply.h"

#include <algorithm>

namespace tarn::handler {
namespace {

constexpr uint8_t kBadUserNameOrPassword = 0x86;

int refuse(mqtt_client_t &client, uint32_t state)
{
    mqtt_connack_para_t connack{};
    connack.reason_code = kBadUserNameOrPassword;
    if (send_refusal(client, connack) != Reply::NoMemory) {
        close_after_pause(client, state);
        return -1;
    }
    LOG_ERROR("connack_buf malloc failed");
    close_seen(client, state);
    return -1;
}

// False when the connection was closed meanwhile: then nothing more is to happen.
// QUIRK(no-take-over): an older connection of the same id stays open [MQTT-3.1.4-3]. It hears nothing as long as the
// newer one is there, and its end harms that one: see end-of-old-connection.
//   standard profile: lifted (ids): the older connection is closed, at 5.0 with 0x8E
//   test: connect.a_second_client_of_an_id_leaves_the_first_open
[[nodiscard]] bool adopt(mqtt_client_t &client, const mqtt_connect_para_t &connect)
{
    client.clean_session = connect.clean_start;
    client::set_keepalive(client, connect.keep_alive);
    client::take_id(client, connect.client_id);
    return mark_logged_in(client);
}

void negotiate_session_expiry(mqtt_client_t &client, const mqtt_connect_para_t &connect)
{
    if (speaks_v5(client)) {
        client.session_expiry_interval = connect.session_expiry_interval;
        LOG_INFO("[MQTT5] Session Expiry Interval negotiated: client=%s, value=%u (0x11)", client.client_id,
                 connect.session_expiry_interval);
    } else {
        client.session_expiry_interval = 0;
        LOG_DEBUG("[MQTT3] Session Expiry Interval not supported, set to 0");
    }
}

// QUIRK(packet-size-floor): a 5.0 client without Maximum Packet Size, which means no limit (MQTT 5.0 3.1.2.11.4), or
// with one below 256 gets 256, both ways: a larger delivery does not reach it, a larger packet of its own ends the
// connection (own-limit-inbound).
//   standard profile: lifted (sizes)
//   test: connect.an_absent_maximum_packet_size_becomes_256, publish.level_5_without_a_maximum_has_256_bytes_both_ways
void negotiate_packet_size(mqtt_client_t &client, const mqtt_connect_para_t &connect)
{
    const uint32_t asked = connect.max_packet_size;
    if (!speaks_v5(client)) {
        client.max_packet_size = CLIENT_V4_PACKET_MAX;
        LOG_INFO("[MQTT3] Maximum Packet Size not supported, use default=%u, client=%s", CLIENT_V4_PACKET_MAX,
                 client.client_id);
    } else if (asked < CLIENT_V5_PACKET_FLOOR) {
        client.max_packet_size = CLIENT_V5_PACKET_FLOOR;
        LOG_WARN("[MQTT5] Maximum Packet Size too small(%u), force set to 256, client=%s", asked, client.client_id);
    } else {
        client.max_packet_size = asked;
        LOG_INFO("[MQTT5] Maximum Packet Size negotiated: client=%s, value=%u (valid)", client.client_id, asked);
    }
}

// ---- the saved session

// Refills the embedded record from the client's files; false when it has none.
bool load_session_of(mqtt_client_t &client, persist::Found &found)
{
    persist_session_t &session = client.session;
    ScopedLock         lock(session_mutex(client));
    clear_session(client);
    copy_text(session.client_id, client.client_id, sizeof client.client_id - 1);
    if (persist::load_session(session, found) != persist::Loaded::Yes || found.files() == 0)
        return false;
    // One place more: a broken file may have left something behind the last entry.
    session_written(client, std::min<int32_t>(session.sub_count + 1, PERSIST_SUBS_MAX),
                    std::min<int32_t>(session.msg_count + 1, PERSIST_MSGS_MAX));
    return true;
}

// QUIRK(restored-will-unretained): a will restored from the session file is not retained, whatever its client asked
// [MQTT-3.1.2-15]: the file keeps no such flag.
//   standard profile: lifted (wills)
//   test: connect.a_restored_will_is_never_retained
void restore_will(mqtt_client_t &client)
{
    const persist_session_t &session = client.session;
    {
        ScopedLock lock(session_mutex(client)); // a will published meanwhile clears the flag
        if (!session.will_flag)
            return;
    }
    // Only this thread, with the client's own packets, writes these fields; others clear the flag at most.
    // The file's length may exceed the bytes the record holds: what is missing reads as zeroes.
    uint8_t payload[CLIENT_WILL_MAX] = {};
    memcpy(payload, session.will_payload, sizeof session.will_payload);
    client::set_will(client, {session.will_topic, payload, session.will_len, session.will_qos, 0});
    LOG_INFO("[遗嘱] 客户端 %s 遗嘱恢复成功", client.client_id);
}

// Done for a clean session too: begin_session() drops what was loaded again.
persist::Found restore_session(mqtt_client_t &client)
{
    persist::Found found;
    client.session_restored = load_session_of(client, found);
    if (!client.session_restored)
        return found;
    LOG_INFO("[会话] 加载客户端持久化数据成功: %s, 订阅数=%d, 离线消息数=%d", client.client_id,
             int32_t{shared(client.session.sub_count)}, int32_t{shared(client.session.msg_count)});
    restore_will(client);
    return found;
}

// ---- the will in this CONNECT

void log_will(const mqtt_client_t &client, const mqtt_connect_para_t &connect)
{
    LOG_INFO("[WILL-CONNECT] Client=%s set will:", client.client_id);
    LOG_INFO("[WILL-CONNECT] Topic: %s, QoS: %u, Retain: %u, PayloadLen: %u", connect.will_topic, connect.will_qos,
             connect.will_retain, static_cast<uint32_t>(connect.will_payload_len));
    LOG_HEXDUMP("[WILL-CONNECT] Payload", connect.will_payload, connect.will_payload_len);
}

// A payload above 1024 bytes leaves its length in the record, but no bytes.
void copy_will_to_session(persist_session_t &session, const mqtt_connect_para_t &connect)
{
    const auto length = static_cast<uint32_t>(connect.will_payload_len);
    session.will_flag = 1;
    session.will_qos  = static_cast<uint8_t>(connect.will_qos);
    session.will_len  = length;
    copy_text(session.will_topic, connect.will_topic, sizeof session.will_topic - 1);
    if (length <= sizeof session.will_payload)
        memcpy(session.will_payload, connect.will_payload, length);
}

void take_will(mqtt_client_t &client, const mqtt_connect_para_t &connect)
{
    if (!connect.will_flag) {
        ScopedLock lock(session_mutex(client));
        if (client.session.will_flag) // or a page may be spent on a will that is not there
            client.session.will_flag = 0;
        return;
    }
    log_will(client, connect);
    client::set_will(client, {connect.will_topic, connect.will_payload, static_cast<uint32_t>(connect.will_payload_len),
                              static_cast<uint8_t>(connect.will_qos), connect.will_retain});
    if (speaks_v5(client)) {
        {
            ScopedLock lock(session_mutex(client));
            client.session.will_delay_interval      = connect.will_delay_interval;
            client.session.will_msg_expiry_interval = connect.will_msg_expiry_interval;
        }
        client::set_will_properties(client, {connect.will_delay_interval, connect.will_msg_expiry_interval, 0, "", ""});
    }
    ScopedLock lock(session_mutex(client));
    copy_will_to_session(client.session, connect);
    if (!client.clean_session)
        persist::save(client.session, PERSIST_SESSION);
}

// ---- what becomes of the session

// Where no file was found before, none has come but for a message to one of the subscriptions.
void drop_session(mqtt_client_t &client, const persist::Found &before)
{
    // First, or a message of another thread's would be kept for it again.
    const int32_t subscriptions = sub::remove_all_of(client.client_id);
    if (!before.certainly_none || subscriptions > 0)
        (void)persist::remove_session(client.client_id);
    client.session_restored = 0;
    {
        ScopedLock lock(session_mutex(client));
        empty_session_lists(client);
    }
    LOG_INFO("[会话] CleanSession=1 → 清除历史数据 + 内存订阅");
}

void resubscribe(mqtt_client_t &client)
{
    for (const persist_sub_t &saved :
         std::span(client.session.subs, static_cast<size_t>(shared(client.session.sub_count))))
        if (sub::is_subscribed(sub::add(client.client_id, saved.topic, saved.qos, 0)))
            LOG_INFO("[恢复] 订阅: %s QoS=%d → 内存订阅表", saved.topic, saved.qos);
    LOG_INFO("[会话] 客户端 %s 上下文恢复完成", client.client_id);
}

void begin_session(mqtt_client_t &client, const persist::Found &before)
{
    if (client.clean_session)
        drop_session(client, before);
    else if (client.session_restored)
        resubscribe(client);
    else
        LOG_INFO("[会话] CleanSession=0，但无历史数据，新建会话: %s", client.client_id);
}

// ---- delayed wills of the same id: a client that came back has not vanished

bool awaits_will(mqtt_client_t &client)
{
    if (client.state != CLIENT_WILL_PENDING)
        return false;
    ScopedLock lock(client.will_lock);
    return client.will_delay_pending != 0;
}

// The will scan claims records the same way: a will is published or cancelled, never both.
void cancel_delayed_will(mqtt_client_t &waiting)
{
    const client::Claim claim(waiting);
    if (!claim || !awaits_will(waiting))
        return;
    call_off_will(waiting);
    end_wait(claim);
}

void cancel_delayed_wills(mqtt_client_t &client)
{
    call_off_will(client);
    client::release_called_off(
        client); // another thread may have closed it since adopt(), so that it waits for its will
    if (!wills_are_delayed(client.client_id))
        return;
    int32_t place = 0;
    while (const client_ref other = next_client(place))
        if (other.get() != &client && awaits_will(*other) && strcmp(id_of(*other).text, client.client_id) == 0)
            cancel_delayed_will(*other);
}

// ---- the answer

// False without memory: then nothing more is done for this CONNECT, and the connection stays.
//
// QUIRK(receive-maximum-zero): a 5.0 client is told a Receive Maximum of 0, which is a protocol error
// [MQTT 5.0 3.2.2.3.3]: nothing in flight is counted here, so there is no number to tell. The mosquitto clients 2.0 and
// Paho for Python give up, Paho for C connects and waits for ever before its first publication, MQTT.js does not mind.
//   standard profile: lifted (wire): 1000, or what the host set
//   test: connect.v5_without_properties_gets_256_bytes, mosquitto_level_5.gives_up_at_the_connack,
//   npm.mqtt_at_level_5
[[nodiscard]] bool accept(mqtt_client_t &client)
{
    mqtt_connack_para_t connack{};
    connack.session_present = client.session_restored;
    if (speaks_v5(client)) {
        connack.session_expiry_interval = client.session_expiry_interval;
        connack.max_packet_size         = client.max_packet_size;
        LOG_INFO("[MQTT5] CONNACK properties: max_packet_size=%u, session_expiry_interval=%u", connack.max_packet_size,
                 connack.session_expiry_interval);
    }
    const Reply reply = send_connack(client, connack);
    if (reply != Reply::Sent)
        client::be_found(client, CLIENT_LOGINED);
    switch (reply) {
    case Reply::NoMemory:
        LOG_ERROR("connack_buf malloc failed");
        return false;
    case Reply::NotEncoded:
        break;
    case Reply::Sent:
        LOG_INFO("CONNACK -> %s (SessionPresent=%d)", client.client_id, connack.session_present);
    }
    return true;
}

// QUIRK(retained-at-resume): a resumed session receives the retained messages of all its filters again, as if it had
// subscribed anew (MQTT 5.0 3.3.1.3).
//   standard profile: lifted (retained)
//   test: connect.a_resumed_session_gets_retained_messages_again
void resume_session(mqtt_client_t &client)
{
    if (client.clean_session)
        return;
    if (!client.session_restored) { // but its subscriptions are in the table still, and other threads publish
        if (persist::keeps_messages_for(client.client_id))
            requeue_kept(client);
        return;
    }
    for (const persist_sub_t &saved :
         std::span(client.session.subs, static_cast<size_t>(shared(client.session.sub_count))))
        send_retained(client, saved.topic);
    requeue_kept(client);
}

} // namespace

bool is_quick_connect(const char *client_id, bool is_clean) noexcept
{
    return is_clean && api::accepts_at_once() && !persist::seems_to_have_files(client_id);
}

// QUIRK(connect-unanswered): a CONNECT that does not decode gets no CONNACK and its connection stays, until it has been
// silent for too long. So a 3.1.1 client whose id has more than 23 characters waits for an answer instead of reading
// "identifier rejected" [MQTT 3.1.1 3.2.2.3], one that speaks level 3 instead of "unacceptable protocol version"
// [MQTT-3.1.2-2 of 3.1.1], one with a user name or password of none or more than 64 bytes instead of a refusal. Like
// any packet that does not decode: the level, and with it the form of an answer, may be what is wrong.
//   standard profile: lifted (wire): CONNACK with the code where the level has one, and the connection ends
//   test: connect.v4_ids_have_at_most_23_characters, connect.undecodable_packets_get_no_answer,
//   connect.user_names_and_passwords_have_1_to_64_bytes
int handle_connect(mqtt_client_t &client, Packet packet) noexcept
{
    const uint32_t      state = client.state;
    mqtt_connect_para_t connect{};
    if (failed(codec::decode_connect(client.codec, packet, connect))) {
        LOG_ERROR("CONNECT decode failed");
        stats::count(stats::Counter::parse_error);
        return -1;
    }
    if (!api::accepts(client, connect.client_id, connect.username, connect.password))
        return refuse(client, state);
    if (!adopt(client, connect))
        return -1;

    negotiate_session_expiry(client, connect);
    negotiate_packet_size(client, connect);
    const persist::Found found = restore_session(client);
    take_will(client, connect);
    begin_session(client, found);
    cancel_delayed_wills(client);
    if (!accept(client))
        return -1;
    resume_session(client);
    if (api::hears_events(client))
        send_answer_now(client);
    api::tell(client, BROKER_EVENT_CONNECTED);
    return 0;
}

} // namespace tarn::handler
