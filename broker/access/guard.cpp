#include "guard.h"

#include "../connections.h"
#include "../event_hub.h"
#include "../event_text.h"
#include "../profile.h"
#include "../query.h"
#include "../shortage.h"
#include "gate.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

#include <tarn_sdk_mqtt_broker.h>
#include <tarn_sdk_mqtt_broker/client/client.h>
#include <tarn_sdk_mqtt_broker/codec/mqtt_codec.h>
#include <tarn_sdk_mqtt_broker/net/netip.h>

namespace tarn::broker {
namespace {

constexpr int kKicksMax = 100; // at a time; each takes some 10 ms

Access     *g_access; // the callbacks get nothing but the instance; set before it starts
Quotas     *g_quotas; // likewise, as the next
TellRefusal g_tell;

// The user of a CONNECT without an id, until the event of the same CONNECT, on the same thread, tells the chosen one.
// No std::string: for the first one of a thread the C library wants memory, and ends the process without.
thread_local char t_user_without_id[sizeof(mqtt_connect_para_t::username)];

void keep_user_without_id(std::string_view user)
{
    const size_t length = std::min(user.size(), sizeof t_user_without_id - 1);
    user.copy(t_user_without_id, length);
    t_user_without_id[length] = '\0';
}

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

const char *judge_will(uint32_t handle, const ConnectWill &will)
{
    if (g_access->is_wanted())
        if (const Verdict verdict = g_access->may_leave_will(will.client_id, will.user, will.topic); !verdict)
            return verdict.why_not;
    return g_quotas->may_leave_will(handle, g_access->asks_for_users() ? will.user : "", now_ms());
}

// ---- connections

void on_opened(uint32_t handle)
{
    if (!connection_opened(handle, now_ms()))
        return;
    const std::string address = address_of(handle);
    const char *const why     = g_quotas->open(handle, address);
    if (!why)
        return;
    g_tell({Refusal::Connection, "", "", address, "", why});
    netip_close(handle);
}

void on_closed(uint32_t handle)
{
    connection_closed(handle);
    g_quotas->close(handle);
}

// ---- CONNECT

Verdict fits_quotas(const char *client_id, std::string_view user)
{
    const uint32_t handle = packet_handle();
    std::string    id(client_id, strnlen(client_id, CLIENT_ID_CHARS)); // as the library takes it
    if (const char *const why = g_quotas->connect(handle, user, std::move(id), packet_keeps_session(), now_ms()))
        return {why};
    if (packet_leaves_will() && !g_serves_standard)
        if (const mqtt_client_t *const client = client_find_by_handle(handle))
            g_quotas->leave_will(handle, client, now_ms());
    return {};
}

// A CONNECT that comes between the library's start and the gate's installation is refused, since nobody has looked at its
// will. passed_gate() waits for the installation, so these are only what the I/O thread had read by then.
Verdict judge_login(const char *client_id, const char *user, const char *password)
{
    if (!passed_gate()) // without users and rules there is nothing to look at, and one client more does not count
        return g_access->is_wanted() ? Verdict{"it came while the broker started"} : Verdict{};
    if (!g_access->asks_for_users())
        return fits_quotas(client_id, "");
    return g_access->may_connect(client_id, user, password, peer_ip(), [&] { return fits_quotas(client_id, user); });
}

bool on_auth(broker_t * /*broker*/, const char *client_id, const char *user, const char *password)
{
    const Verdict verdict = judge_login(client_id, user, password);
    keep_user_without_id(verdict && *client_id == '\0' && g_access->asks_for_users() ? user : "");
    if (!verdict)
        g_tell({Refusal::Login, user, client_id, peer_address(), "", verdict.why_not});
    else if (const DroppedWill *const dropped = dropped_will())
        g_tell({Refusal::Will, user, client_id, peer_address(), dropped->will.topic, dropped->why});
    return static_cast<bool>(verdict);
}

// Clients that come in one second get one id. If those of two users are there, the second has to go: the library asks
// by id what a client may do.
void on_event(broker_t *broker, uint32_t kind, const char *text)
{
    if (kind != BROKER_EVENT_CONNECTED || *t_user_without_id == '\0')
        return;
    const std::string id(read_event_text(kind, text).client_id.value_or(""));
    const auto        is_alone = [&] {
        const std::vector<std::string> online = online_id_pieces();
        return std::count(online.begin(), online.end(), id) <= 1;
    };
    if (!g_access->bind_chosen_id(id, t_user_without_id, is_alone)) {
        g_tell(
            {Refusal::Login, t_user_without_id, id, peer_address(), "", "another user got the same id in this second"});
        tarn_sdk_mqtt_broker_kick_client(broker, id.c_str());
    }
    keep_user_without_id("");
}

Verdict judge_publication(const char *client_id, const char *topic)
{
    if (g_access->is_wanted())
        if (const Verdict verdict = g_access->may_publish(client_id, topic); !verdict)
            return verdict;
    if (!packet_is_retained())
        return {}; // the usual case, at no cost
    return {g_quotas->publish_retained(packet_handle(), topic, now_ms())};
}

Verdict judge_subscription(const char *client_id, const char *filter)
{
    if (g_access->is_wanted())
        if (const Verdict verdict = g_access->may_subscribe(client_id, filter); !verdict)
            return verdict;
    return {g_quotas->subscribe(packet_handle(), client_id, now_ms())};
}

// The library asks during CONNECT, once the login is accepted, and refuses the client with its will.
bool leaves_standard_will(const std::string &client_id, const std::string &topic)
{
    const std::string user = *t_user_without_id != '\0' ? t_user_without_id : g_access->user_of(client_id);
    Verdict           verdict;
    if (g_access->is_wanted())
        verdict = g_access->may_leave_will(client_id, user, topic);
    if (verdict)
        verdict = {g_quotas->may_leave_will(packet_handle(), user, now_ms())};
    if (verdict)
        g_quotas->leave_will(packet_handle(), client_id, now_ms());
    else
        g_tell({Refusal::Login, user, client_id, peer_address(), "", std::string("its will: ") + verdict.why_not});
    return static_cast<bool>(verdict);
}

bool on_acl(broker_t * /*broker*/, const char *client_id, const char *topic, uint8_t action, mqtt_client_t * /*client*/)
{
    if (g_serves_standard && packet_leaves_will())
        return leaves_standard_will(client_id, topic);
    const bool    publishes = action == BROKER_ACL_PUBLISH;
    const Verdict verdict   = publishes ? judge_publication(client_id, topic) : judge_subscription(client_id, topic);
    if (!verdict)
        g_tell({publishes ? Refusal::Publication : Refusal::Subscription, g_access->user_of(client_id), client_id,
                peer_address(), topic, verdict.why_not});
    return static_cast<bool>(verdict);
}

bool refuse_login(broker_t * /*broker*/, const char * /*id*/, const char * /*user*/, const char * /*password*/)
{
    return false;
}

bool refuse_action(broker_t * /*broker*/, const char * /*id*/, const char * /*topic*/, uint8_t /*action*/,
                   mqtt_client_t * /*client*/)
{
    return false;
}

void kick_clients_of_removed_users(broker_t *broker, const Access &access)
{
    int kicked = 0;
    for (const std::string &id : access.ids_of_removed_users()) {
        if (client_info(broker, id))
            kicked += tarn_sdk_mqtt_broker_kick_client(broker, id.c_str()) == TARN_OK;
        if (kicked == kKicksMax)
            return;
    }
}

} // namespace

void guard(broker_t *broker, Access &access, Quotas &quotas, bool asks, TellRefusal tell)
{
    g_access = &access;
    g_quotas = &quotas;
    g_tell   = std::move(tell);
    if (!asks)
        return;
    tarn_sdk_mqtt_broker_register_acl_callback(broker, CCallback<on_acl, refuse_action>::call);
    tarn_sdk_mqtt_broker_register_auth_callback(broker, CCallback<on_auth, refuse_login>::call);
    if (access.asks_for_users())
        listen_to_events(broker, on_event);
}

// From here on nobody waits for the gate. Without users no password is hashed, and logins are answered at once.
void guard_connections(broker_t *broker)
{
    probe_connections();
    install_gate({.judge_will = g_serves_standard ? nullptr : judge_will, .opened = on_opened, .closed = on_closed});
    if (broker->auth_cb && !g_access->asks_for_users())
        tarn_sdk_mqtt_broker_register_quick_auth_callback(broker, CCallback<on_auth, refuse_login>::call);
}

void guard_turn(broker_t *broker, Access &access, Quotas &quotas)
{
    quotas.turn(now_ms());
    if (!access.asks_for_users())
        return;
    kick_clients_of_removed_users(broker, access);
    std::vector<std::string> online = online_id_pieces();
    access.sweep({std::make_move_iterator(online.begin()), std::make_move_iterator(online.end())});
    if (const Mistake mistake = access.save_owners(); !mistake.empty())
        fprintf(stderr, "tarn-broker: %s\n", mistake.c_str());
}

} // namespace tarn::broker
