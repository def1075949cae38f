// close.cpp - closing a client: the one way out of the online states, for every caller and reason.
//
// Closing decides, in this order: what becomes of the saved session, whether the will starts, and whether the record is
// free now or waits for a delayed will. One thread closes a record; files, callbacks and the network are used with no
// lock held, so whatever they call may look up, send and close clients.
#include "../base/clock.h"
#include "../handler/handler.hpp"
#include "../persist/persist.hpp"
#include "client_internal.h"

#include <optional>

namespace tarn::client {
namespace {

// QUIRK(session-never-expires): the session of a 5.0 client that is away does not end with its expiry interval
// [MQTT-4.1.0-2]: the deadline is written to its file, but nobody ends what is past it. Subscriptions and messages
// wait until the client comes back, over restarts too. To end such a session, connect with its id, a clean start and no
// expiry interval and disconnect, or remove its files in broker_data while the broker is stopped.
//   standard profile: lifted (sessions)
//   test: connect.v5_session_does_not_expire_while_its_client_is_away
void keep_session_until(mqtt_client_t &client, const client_id_text &id, uint32_t interval_s)
{
    const uint64_t deadline_s = static_cast<uint64_t>(wall_s()) + interval_s;
    {
        ScopedLock lock(mutex_of_handle(client.handle));
        client.session_expiry_deadline = deadline_s;
    }
    LOG_INFO("[MQTT5] 会话已设置过期: %s, 剩余=%u秒, 截止=%llu", id.text, interval_s,
             static_cast<unsigned long long>(deadline_s));
    ScopedLock lock(session_mutex(client));
    client.session.session_expiry_interval = interval_s;
    client.session.session_expiry_deadline = deadline_s;
    persist::save(client.session, PERSIST_SESSION);
}

// QUIRK(session-ends-with-connection): a 3.1.1 client that asked for its session to be kept loses it when its
// connection drops [MQTT-3.1.2-4, MQTT-3.1.2-5 of 3.1.1], because only an expiry interval above 0 keeps one then. After
// DISCONNECT it stays, without a deadline. What is lost are the files: the client finds no session present, and its
// subscriptions work on until the broker ends, but are gone after a restart. A client that may drop subscribes after
// every CONNECT, or speaks 5.0 with an expiry interval.
//   standard profile: lifted (sessions): a limit bounds how long it waits, for ever by default
//   test: Close.a_dropped_v4_session_is_deleted_at_once,
//   connect.v4_subscriptions_of_a_dropped_session_last_until_the_broker_ends

// QUIRK(clean-start-without-expiry): a 5.0 client that starts clean gets no deadline and its session is not saved,
// whatever expiry interval it gave [MQTT-3.1.2-23 of 5.0]. Clean stands for the whole session here, as in 3.1.1.
//   standard profile: lifted (sessions)
//   test: Close.a_clean_session_has_no_deadline
void save_or_delete_session(mqtt_client_t &client, const client_id_text &id)
{
    if (client.clean_session || client.disconnect_received)
        return;
    if (const uint32_t interval_s = client.session_expiry_interval; interval_s != 0) {
        keep_session_until(client, id, interval_s);
        return;
    }
    LOG_INFO("[MQTT5] 会话立即删除(expiry=0): %s", id.text);
    persist::remove_session(id.text);
}

// QUIRK(will-after-timeout): the will of a client that the keep-alive scan closes starts even if the client has said
// DISCONNECT [MQTT-3.14.4-3].
//   standard profile: lifted (wills)
//   test: Close.a_timed_out_client_starts_its_will_whatever_it_said
bool will_is_due(mqtt_client_t &client)
{
    if (!peek(client.will_msg_used) || peek(client.will_sent))
        return false;
    return client.timeout_closing || !client.disconnect_received;
}

// QUIRK(will-outlives-session): a delayed will waits for its delay even if the session ends before, as it does at once
// with an expiry interval of 0 [MQTT-3.1.2-8 of 5.0]. Session and will end independently.
//   standard profile: lifted (wills)
//   test: Close.a_will_waits_although_its_session_is_deleted
void start_will(mqtt_client_t &client, const client_id_text &id)
{
    if (!client.timeout_closing)
        LOG_INFO("[遗嘱调试][异常断开] ClientID=%s, 未发送DISCONNECT报文，强制触发遗嘱发送", id.text);
    LOG_WARN("[WILL-ENTER] 客户端进入遗嘱延迟: %s, will_delay_sec=%u", id.text, peek(client.will_delay_interval));
    bump(g_will_delay_client_count);
    handler::start_will(client); // while it is online: it may be one of the receivers
    if (peek(client.will_delay_pending))
        count_delayed_will(client, peek(client.will_delay_deadline));
}

// Nothing is sent any more to a record that waits for its will, so the ring's memory can go back.
void give_back_ring_pages(mqtt_client_t &client)
{
    wait_for_flusher(client);
    ScopedLock lock(client.send_lock);
    trim_ring(client);
}

// QUIRK(will-keeps-place): a client whose will was published at once keeps its place among max_clients until the broker
// ends, as if the will were still to come [MQTT-3.1.2-10]. When so many clients have gone like that, no new one is
// taken: "Client pool full, max=%d". With a Will Delay Interval of a second or more (5.0) the place is free after the
// delay; else make max_clients large enough for the clients and all the wills between two restarts.
//   standard profile: lifted (wills)
//   test: Close.a_will_without_delay_keeps_its_record_for_good, limits.a_published_will_keeps_the_place_of_its_client
void go_offline_with_will(mqtt_client_t &client, const client_id_text &id)
{
    {
        std::optional<persist::SaveUnawaited> behind;
        if (io_round() != 0)
            behind.emplace();
        start_will(client, id);
    }
    go_offline(client);
    give_back_ring_pages(client);
    LOG_DEBUG("[遗嘱调试][延迟释放客户端] ClientID=%s，等待遗嘱发送完成后再释放", id.text);
}

// QUIRK(closed-keeps-subscriptions): a client that the broker closes, for its silence or because the host kicks it,
// leaves its subscriptions in the table, those of a clean session too, which should end with the connection
// [MQTT-3.1.2-6 of 3.1.1, MQTT-4.1.0-2]. They take up room there, and work again for the next client that comes with
// the id and without a clean session. A client with clean sessions should always ask for one, under an id of its own.
//   standard profile: lifted (sessions)
//   test: host.a_kicked_client_leaves_its_subscriptions, close_table.every_kind_of_client_every_way_and_every_will
void go_offline_for_good(mqtt_client_t &client, const client_id_text &id)
{
    LOG_WARN("[FREE-NORMAL] 客户端正常关闭: %s", id.text);
    go_offline(client);
    const bool released = release_record(client);
    (void)step(client, kEndWait); // one that cannot be released, such as a caller's own
    LOG_DEBUG("[遗嘱调试][客户端关闭完成] ClientID=%s, 状态改为CLOSED", released ? "" : id.text);
}

void close_claimed(mqtt_client_t &client)
{
    const client_id_text id = stored_id(client);
    LOG_DEBUG("[MQTT5] Client close: max_packet_size=%u, client=%s", uint32_t{client.max_packet_size}, id.text);
    const bool is_kept = !client.clean_session && (client.disconnect_received || client.session_expiry_interval != 0);
    save_or_delete_session(client, id);
    if (will_is_due(client))
        go_offline_with_will(client, id);
    else
        go_offline_for_good(client, id);
    if (is_kept)
        persist::expect_messages_for(id.text);
}

} // namespace

} // namespace tarn::client

using namespace tarn;
using namespace tarn::client;

// A record that waits for its will may be closed again: its caller saw it waiting, and that ends the wait. A caller that
// saw the client online, while another thread closed it, returns: session and will have ended, and the client may have
// come back since.
void tarn::close_seen(mqtt_client_t &client, uint32_t seen_state) noexcept
{
    if (client.state == CLIENT_CLOSED) {
        LOG_DEBUG("[遗嘱调试][关闭客户端] ClientID=%s, 状态已关闭，跳过", id_of(client).text);
        return;
    }
    if (profile_in_use()) { // its closed() does the rest
        close_connection_of(client);
        return;
    }
    const Claim claim(client); // else it is being closed, perhaps further up on this very thread
    if (claim && !was_closed_since(client, seen_state))
        close_claimed(client);
}
