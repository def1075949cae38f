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
//         |                         release |    | settle, release
//         |                                 v    v
//         |                                 CLOSED <----------- any state
//         +------------------------- released, pinned   retire
//                 wipe
//
// Who takes an edge, and what makes it one winner:
//   create      a host, the bridge with a connection's first packet; who takes the slot (pool.cpp)
//   log in      CONNECT; any number of times until the client goes offline
//   go offline  close_seen (close.cpp), for the bridge, packet handling, the host's kick, the time-out scan; who has the
//               claim
//   settle      the will scan, the CONNECT of a client that came back (release_parked), who calls the delay off
//               (release_called_off); who has the claim
//   release     behind go offline where no will starts, and behind settle; a host. Who sets the mark kReleased
//   retire      unlink_pool, when the manager goes down; a released record loses what a holder stored in it since
//   wipe        the last unpin of a released record (pins.cpp). Where a whole block is held by nobody, unlink_pool gives
//               its memory back instead, or scrubs the records that share it with a held one: UNUSED again
//
// A record whose will was published at once stays WILL_PENDING until retire or a second close: see will-keeps-place.
// Which field begins anew on which edge is in record_fields.h. What decides over session and will is in close.cpp.
#include "life.h"

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

template <When when, Guard guard, size_t row> void zero_field(mqtt_client_t &client)
{
    constexpr Field field = kRecord[row];
    if constexpr (field.guard == guard && field[when] == Cell::Zero) {
        uint8_t *const at = reinterpret_cast<uint8_t *>(&client) + field.at;
        if constexpr (field.is_word)
            *reinterpret_cast<Shared<typename WordOf<field.size>::type> *>(at) = 0;
        else
            memset(at, 0, field.size);
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

// What of the record begins anew with no value of its own; its ring apart.
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
        side->refusals.store(0, std::memory_order_relaxed);
    }
    client.handle = handle;
    {
        ScopedLock lock(id_lock(client));
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
    empty_session(client); // a holder of the record before may have written it behind its release
    client.max_packet_size = uint32_t{g_default_max_packet_size};
    step(client, kCreate);
    poke_release(client.used, 1); // now scans may see it
}

uint32_t generation_for(uint32_t handle, net::Connection connection)
{
    return connection.generation != 0 ? connection.generation : net::generation_of(handle);
}

// A connection can be closed by another thread while its first packet is on its way here. Whoever closes it marks it
// closed first and looks the record up under the handle's lock afterwards: either we see the mark or it sees the
// record.
bool is_gone(net::Connection connection)
{
    return connection.generation != 0 && !net::is_open(connection);
}

void tell_created(const client_id_text &id, uint32_t max_packet_size, uint32_t handle, const char *ip, uint16_t port,
                  int32_t total)
{
    LOG_DEBUG("[MQTT5] Client init max_packet_size = %u (default), client=%s", max_packet_size, id.text);
    LOG_DEBUG("Create client: handle=%u, ip=%s:%d, total=%d", handle, ip, port, total);
}

void tell_full(int32_t max_clients)
{
    LOG_ERROR("Client pool full, max=%d", max_clients);
}

} // namespace

client_ref create_client(uint32_t handle, const char *ip, uint16_t port, broker_t *broker,
                         net::Connection connection) noexcept
{
    if (g_client_mgr.used_count >= g_mqtt_max_clients) {
        tell_full(g_mqtt_max_clients);
        return {};
    }

    Slot       slot;
    int32_t    total = 0;
    Taken      taken = Taken::NoSlot;
    client_ref client;
    {
        ScopedLock lock(lock_of_handle(handle));
        if (is_gone(connection))
            return {};
        taken = take_slot(slot, total);
        if (taken == Taken::Slot) {
            client = client_ref(&slot.record());
            fill(*client, handle, ip, port, broker, generation_for(handle, connection));
            if (handle != NETIP_NO_HANDLE)
                poke_release(g_client_mgr.by_handle[handle % CLIENT_MAX], client.get());
        }
    }
    if (taken == Taken::TableFull) // another thread took the last one
        tell_full(g_mqtt_max_clients);
    if (client)
        tell_created(id_of(*client), client->max_packet_size, handle, client->ip, port, total);
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

// ---- release, retire, wipe

namespace {

// What release and retire have in common. From here on nobody finds the record.
void leave_pool(mqtt_client_t &client, const Edge &edge)
{
    step(client, edge);
    client.handle = NETIP_NO_HANDLE;
    client.used   = 0;
    leave_chain(client); // a retired one may have been given an id behind the clearing of the tables
    drop_ring(client);
    empty_session(client); // or a connection that never says CONNECT could write this one's files
}

bool has_traces(mqtt_client_t &client)
{
    return client.used || peek(client.send_queue) || peek(client.will_topic) || peek(client.will_payload);
}

// Only after an init over a live manager: deinit has emptied the list before.
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
    const Slot slot = slot_of(client);
    if (!slot || !slot.used_flag())
        return false;

    const client_ref pin(&client); // so that the texts go and the slot becomes free when we let go, at the earliest
    if (!set_mark(client, kReleased))
        return false;
    qos::drop_deliveries_of(client); // after the mark: none can be added any more
    leave_pool(client, kRelease);
    reset<When::Release>(client);
    note_unparked(client);
    if (!side_of(&client))
        wipe(client); // nobody can hold it
    give_slot_back(slot);
    return true;
}

void retire(mqtt_client_t &client) noexcept
{
    if (!has_traces(client))
        return;
    const client_ref pin(&client);
    (void)set_mark(client, kReleased);
    drop_deliveries(client);
    leave_pool(client, kRetire);
    reset<When::Retire>(client);
    note_unparked(client);
}

// Also what a thread with a pin may have stored after the release.
void wipe(mqtt_client_t &client) noexcept
{
    drop_ring(client);
    reset<When::Wipe>(client);
    ScopedLock lock(id_lock(client));
    zero_fields<When::Wipe, Guard::Id>(client);
}

void scrub(mqtt_client_t &client) noexcept
{
    wipe(client);
    auto *const bytes = reinterpret_cast<Shared<uint8_t> *>(&client);
    for (const Field &field : kRecord)
        for (size_t i = 0; field.guard != Guard::Lock && field.guard != Guard::Session && i < field.size; ++i)
            bytes[field.at + i] = 0; // scans may look in passing
    clear_session(client);
}

} // namespace tarn::client

using namespace tarn;
using namespace tarn::client;

bool tarn::mark_logged_in(mqtt_client_t &client) noexcept
{
    return step(client, kLogIn);
}

// ---- the claim, and settle

Claim::Claim(mqtt_client_t &client) noexcept : client_(set_mark(client, kClaimed) ? &client : nullptr) {}

Claim::~Claim()
{
    if (!client_)
        return;
    (void)clear_mark(*client_, kClaimed);
    release_called_off(*client_);
}

void tarn::client::release_parked(const Claim &claim) noexcept
{
    leave_tables(claim.client(), kSettle);
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
        release_parked(claim);
}
