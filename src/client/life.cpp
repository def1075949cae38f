// life.cpp - a client's life: the states of its record and every way from one to the next.
//
//                   create                  log in
//     free slot -----------------> CONNECTED ---------> LOGINED ---+
//   UNUSED | CLOSED                    |                   |   ^---+ log in again
//         ^                            +---------+---------+
//         |                                      | go offline
//         |                                      v
//         |                                WILL_PENDING ---+
//         |                                 |    |     ^---+ go offline: closed again, and its will starts again
//         |                  no will starts |    | a will waits for its delay
//         |                         release |    | end wait, release
//         |                                 v    v
//         |                                 CLOSED <----------- any state
//         +------------------------- released, pinned   take down
//                 wipe
//
// The callers of each edge, and in brackets what lets one thread take it:
//   create      a host, or the network callback with the first packet of a connection [it got the place: pool.cpp]
//   log in      CONNECT, any number of times until the client goes offline
//   go offline  close_seen in close.cpp, for the network callback, packet handling, the host's kick and the time-out scan
//               [claim]
//   end wait    the will scan; the CONNECT of a client that came back (end_wait); release_called_off [claim]
//   release     after go offline where no will starts, after end wait; a host [it set the mark kReleased]
//   take down   unlink_pool, when the manager goes down. A record that was released before is cleared once more of what
//               was stored in it since
//   wipe        the last unpin of a released record (pins.cpp). unlink_pool gives the memory of a block back instead if
//               none of its records is pinned, else wipes those that are not: they are UNUSED again
//
// A record whose will was published at once stays WILL_PENDING until it is taken down, or closed again (see the quirk
// will-keeps-place).
// record_fields.h says which field is reset on which edge. close.cpp decides about session and will.
#include "life.h"

#include "../base/clear.h"
#include "../base/clock.h"
#include "../base/text.h"
#include "../codec/codec.hpp"
#include "../qos/qos.hpp"
#include "client_internal.h"
#include "record_fields.h"

#include <cstring>

namespace tarn::client {

bool step(mqtt_client_t &client, const Edge &edge) noexcept
{
    for (;;) {
        const uint32_t seen = client.state;
        if ((edge.from & in(seen)) == 0)
            return false;
        if (swap_if(client.state, seen, edge.to))
            return true;
    }
}

// ---- fields that begin anew, by the table

namespace {

template <size_t size> struct WordOf;
template <> struct WordOf<1> {
    using type = uint8_t;
};
template <> struct WordOf<2> {
    using type = uint16_t;
};
template <> struct WordOf<4> {
    using type = uint32_t;
};
template <> struct WordOf<8> {
    using type = uint64_t;
};

// A fresh record is zero, and most clients leave most fields so: what is zero is not written, or a client would cost the
// pages of fields that it never sets.
template <When when, Guard guard, size_t row> void zero_field(mqtt_client_t &client)
{
    constexpr Field field = kRecord[row];
    if constexpr (field.guard == guard && field[when] == Cell::Zero) {
        uint8_t *const at = reinterpret_cast<uint8_t *>(&client) + field.at;
        if constexpr (!field.is_word)
            clear_written(at, field.size);
        else if (SharedRef word = shared(*reinterpret_cast<typename WordOf<field.size>::type *>(at)); word != 0)
            word = 0;
    }
}

// The fields under this guard, which the caller holds.
template <When when, Guard guard> void zero_fields(mqtt_client_t &client)
{
    [&]<size_t... row>(std::index_sequence<row...>)
    {
        (zero_field<when, guard, row>(client), ...);
    }
    (std::make_index_sequence<std::size(kRecord)>{});
}

// Zeroes what the table says to zero at this moment, and frees the will's texts. The ring is left to the caller.
template <When when> void reset(mqtt_client_t &client)
{
    zero_fields<when, Guard::Word>(client);
    ScopedLock lock(client.will_lock);
    free_will_texts(client);
    zero_fields<when, Guard::Will>(client);
}

} // namespace

// ---- create

namespace {

void fill(mqtt_client_t &client, uint32_t handle, const char *ip, uint16_t port, broker_t *broker, uint32_t generation)
{
    Side *const side = side_of(&client);
    if (side) {
        side->generation = generation;
        if (const uint32_t keepalive_ms = side->keepalive_ms; keepalive_ms != 0) {
            client.keepalive_ms = keepalive_ms;
            side->keepalive_ms  = 0;
        }
        side->refusals.store(0, std::memory_order_relaxed);
    }
    client.handle = handle;
    {
        ScopedLock lock(id_mutex(client));
        copy_text(client.ip, ip, sizeof client.ip - 1);
    }
    client.port        = port;
    client.last_active = mono_ms();
    client.next_msg_id = 1;
    client.broker      = broker;
    codec::init(client.codec);
    {
        ScopedLock lock(client.send_lock);
        zero_fields<When::Create, Guard::Send>(client);
        if (side)
            side->last_packet = LastPacket::None;
    }
    reset<When::Create>(client);
    empty_session(client); // a thread with an older pin may have written it after the release
    client.max_packet_size = uint32_t{g_default_max_packet_size};
    step(client, kCreate);
    poke_release(client.used, 1); // now scans may see it
}

uint32_t generation_for(uint32_t handle, net::Connection connection)
{
    return connection.generation != 0 ? connection.generation : net::generation_of(handle);
}

// A connection can be closed by another thread while its first packet is on its way here. The closing thread marks the
// connection closed first and looks for the record afterwards, under the handle's lock. So either we see the mark here,
// or that thread finds the record.
bool is_gone(net::Connection connection)
{
    return connection.generation != 0 && !net::is_open(connection);
}

void log_created(const client_id_text &id, uint32_t max_packet_size, uint32_t handle, const char *ip, uint16_t port,
                 int32_t total)
{
    LOG_DEBUG("[MQTT5] Client init max_packet_size = %u (default), client=%s", max_packet_size, id.text);
    LOG_DEBUG("Create client: handle=%u, ip=%s:%d, total=%d", handle, ip, port, total);
}

void log_full(int32_t max_clients)
{
    LOG_ERROR("Client pool full, max=%d", max_clients);
}

} // namespace

client_ref create_client(uint32_t handle, const char *ip, uint16_t port, broker_t *broker,
                         net::Connection connection) noexcept
{
    if (g_client_mgr.used_count >= g_mqtt_max_clients) {
        log_full(g_mqtt_max_clients);
        return {};
    }

    Place      place;
    int32_t    total = 0;
    Taken      taken = Taken::NoPlace;
    client_ref client;
    {
        ScopedLock lock(mutex_of_handle(handle));
        if (is_gone(connection))
            return {};
        taken = take_place(place, total);
        if (taken == Taken::Place) {
            client = client_ref(&place.record());
            fill(*client, handle, ip, port, broker, generation_for(handle, connection));
            if (handle != NETIP_NO_HANDLE)
                poke_release(g_client_mgr.by_handle[handle % CLIENT_MAX], client.get());
        }
    }
    if (taken == Taken::TableFull) // another thread took the last one
        log_full(g_mqtt_max_clients);
    if (client)
        log_created(id_of(*client), client->max_packet_size, handle, client->ip, port, total);
    return client;
}

// ---- go offline

void close_connection_of(mqtt_client_t &client) noexcept
{
    net::close_connection(client.handle, guards_of(client).generation);
}

void go_offline(mqtt_client_t &client) noexcept
{
    leave_tables(client, kGoOffline);
    wait_for_flusher(client); // or it would send to the handle's next owner
    close_connection_of(client);
}

// ---- release, take down, wipe

namespace {

// What release and take down have in common. Afterwards no look-up finds the record.
void leave_pool(mqtt_client_t &client, const Edge &edge)
{
    step(client, edge);
    client.handle = NETIP_NO_HANDLE;
    client.used   = 0;
    leave_chain(client); // it may have been given an id after the tables were cleared
    drop_ring(client);
    empty_session(client); // the next connection here may send no CONNECT and would write this client's files
}

bool has_traces(mqtt_client_t &client)
{
    return client.used || peek(client.send_queue) || peek(client.will_topic) || peek(client.will_payload);
}

// Finds deliveries only when init is called while the manager is up; deinit has emptied the list by now.
void drop_deliveries(mqtt_client_t &client)
{
    {
        ScopedLock lock(g_queue_mutex);
        if (!g_pending_queue)
            return;
    }
    qos::drop_deliveries_of(client);
}

} // namespace

bool release_record(mqtt_client_t &client) noexcept
{
    if ((kRelease.from & in(client.state)) == 0 || !client.used)
        return false;
    const Place place = place_of(client);
    if (!place || !place.used_flag())
        return false;

    const client_ref pin(&client); // the texts are wiped and the place is free when this pin goes, not before
    if (!set_mark(client, kReleased))
        return false;
    qos::drop_deliveries_of(client); // after the mark: none can be added any more
    drop_held_answers(client);
    leave_pool(client, kRelease);
    reset<When::Release>(client);
    uncount_delayed_will(client);
    if (!side_of(&client))
        wipe(client); // nobody can hold it
    give_place_back(place);
    return true;
}

void take_down(mqtt_client_t &client) noexcept
{
    if (!has_traces(client))
        return;
    const client_ref pin(&client);
    (void)set_mark(client, kReleased);
    drop_deliveries(client);
    drop_held_answers(client);
    leave_pool(client, kTakeDown);
    reset<When::TakeDown>(client);
    uncount_delayed_will(client);
}

// Also what a thread with a pin may have stored after the release.
void wipe(mqtt_client_t &client) noexcept
{
    drop_ring(client);
    reset<When::Wipe>(client);
    ScopedLock lock(id_mutex(client));
    zero_fields<When::Wipe, Guard::Id>(client);
}

void wipe_all(mqtt_client_t &client) noexcept
{
    wipe(client);
    auto *const bytes = reinterpret_cast<uint8_t *>(&client);
    for (const Field &field : kRecord)
        for (size_t i = 0; field.guard != Guard::Lock && field.guard != Guard::Session && i < field.size; ++i)
            shared(bytes[field.at + i]) = 0; // scans may look in passing
    clear_session(client);
}

} // namespace tarn::client

using namespace tarn;
using namespace tarn::client;

bool tarn::mark_logged_in(mqtt_client_t &client) noexcept
{
    return step(client, kLogIn);
}

// ---- the claim, and the end of the wait for a will

Claim::Claim(mqtt_client_t &client) noexcept : client_(set_mark(client, kClaimed) ? &client : nullptr) {}

Claim::~Claim()
{
    if (!client_)
        return;
    (void)clear_mark(*client_, kClaimed);
    release_called_off(*client_);
}

void tarn::client::end_wait(const Claim &claim) noexcept
{
    leave_tables(claim.client(), kEndWait);
    bump(g_will_delay_client_count, -1);
    (void)release_record(claim.client());
}

namespace {

bool was_called_off(mqtt_client_t &client)
{
    if (client.state != CLIENT_WILL_PENDING)
        return false;
    ScopedLock lock(client.will_lock);
    return client.will_delay_interval != 0 && !client.will_sent && !client.will_delay_pending;
}

} // namespace

void tarn::client::release_called_off(mqtt_client_t &client) noexcept
{
    if (!side_of(&client) || !was_called_off(client))
        return;
    if (const Claim claim(client); claim && was_called_off(client))
        end_wait(claim);
}
