// serve.cpp - what the network layer tells of connections, and asks.
//
// Packets are decoded, and the host is asked, without the mutex; what changes state is done in a Turn. CONNECT may keep
// its thread waiting, since the host's authentication callback may hash or ask elsewhere: a lane serves it, one at a time
// for each client identifier. All others are served by the I/O thread, which waits for nothing: what is to be kept goes
// into the journal's memory, and its acknowledgement leaves when the journal is on the disk.
#include "../api/api.hpp"
#include "../base/clock.h"
#include "../log/log.h"
#include "../stats/stats.hpp"
#include "engine.h"
#include "profile.h"

namespace tarn::standard {

using codec::standard::check_first_byte;
using codec::standard::packet_length;
using codec::standard::type_of;
using codec::standard::Verdict;

namespace {

constexpr size_t kConnectMax = size_t{6} << 16; // five fields of 64 KiB and their properties

// Written under the mutex; read by the thread that serves the connection, which the network layer tells of it.
constinit std::atomic<Connection *> g_by_handle[NETIP_CLIENTS_MAX]{};

Connection *make_connection(uint32_t handle)
{
    Connection *const made = make_object<Connection>();
    g_by_handle[handle].store(made, std::memory_order_release);
    return made;
}

Connection *connection_for(uint32_t handle)
{
    if (handle >= NETIP_CLIENTS_MAX)
        return nullptr;
    Connection *const there = connection_at(handle);
    return there ? there : make_connection(handle);
}

void begin(Engine &engine, Connection &connection, net::Connection id, broker_t *broker)
{
    connection.id                  = id;
    connection.broker              = broker;
    connection.level               = codec::standard::Level::Mqtt5;
    connection.longest_packet      = std::min<size_t>(engine.state.limits.max_packet_size, kConnectMax);
    connection.maximum_packet_size = codec::standard::kPacketMax;
    connection.receive_maximum     = 65535;
    connection.is_blocked          = false;
    connection.is_broken           = false;
    connection.arriving            = 0;
    connection.session_number      = 0;
    connection.message_numbers     = &engine.state.last_message;
    connection.most_subscriptions  = engine.state.limits.subscriptions;
    connection.silence_ms          = engine.state.limits.connect_timeout_ms;
    connection.last_packet_ms      = mono_ms();
    connection.due_ms              = connection.last_packet_ms + connection.silence_ms;
    connection.stage               = Stage::Opened;
    (void)engine.silent.add(connection);
    engine.broker = broker;
}

void on_opened(net::Connection id, broker_t *broker) noexcept
{
    Turn turn;
    if (!turn)
        return;
    if (Connection *const connection = connection_for(id.handle))
        begin(*turn, *connection, id, broker);
}

// What the thread that serves the connection uses goes when nobody does; both who close and who serve may come to this
// last. The mutex is held.
void let_go(Connection &connection)
{
    connection.incoming_aliases.clear();
    if (connection.record)
        client::end_record(*connection.record);
    connection.record.reset();
}

void on_closed(uint32_t handle) noexcept
{
    Turn              turn;
    Connection *const connection = turn ? connection_at(handle) : nullptr;
    if (!connection || connection->stage.load() == Stage::Closed)
        return;
    leave(*turn, *connection, WithWill::Yes);
    turn->silent.remove(*connection);
    connection->outbox.clear();
    connection->outgoing_aliases.clear();
    connection->stage.store(Stage::Closed);
    if (!connection->is_served.load())
        let_go(*connection);
}

void on_writable(uint32_t handle) noexcept
{
    Turn              turn;
    Connection *const connection = turn ? connection_at(handle) : nullptr;
    if (!connection)
        return;
    connection->is_blocked = false;
    list_for_flush(*turn, *connection);
}

// For the extent of a block the calling thread has a packet of the connection in hand. If the connection was closed
// meanwhile, what that thread used goes at the end.
class Served {
public:
    explicit Served(Connection &connection) noexcept : connection_(connection) { connection.is_served.store(true); }
    ~Served()
    {
        connection_.is_served.store(false);
        if (connection_.stage.load() != Stage::Closed)
            return;
        {
            const Turn turn;
            let_go(connection_);
        }
        if (connection_.is_orphan)
            destroy_object(&connection_);
    }
    Served(const Served &)            = delete;
    Served &operator=(const Served &) = delete;

private:
    Connection &connection_;
};

using Handler = void (*)(const Incoming &incoming) noexcept;

constexpr Handler kHandlers[16] = {
    nullptr,        handle_connect, nullptr,           handle_publish, handle_ack,         handle_ack,
    handle_ack,     handle_ack,     handle_subscribe,  nullptr,        handle_unsubscribe, nullptr,
    handle_pingreq, nullptr,        handle_disconnect, handle_auth,
};

void handle(Connection &connection, std::span<const uint8_t> packet)
{
    const Stage stage = connection.stage.load();
    if (stage != Stage::Opened && stage != Stage::Connected)
        return; // it is about to be closed
    if (const Verdict verdict = check_first_byte(packet[0], connection.level); !verdict.ok())
        return refuse_packet(connection, verdict);
    const PacketType type = type_of(packet[0]);
    if (stage == Stage::Opened && type != CONNECT) // [MQTT-3.1.0-1]
        return refuse_packet(connection, {Reason::ProtocolError, "the first packet is no CONNECT"});
    connection.last_packet_ms = packet_ms();
    connection.arriving       = 0;
    if (connection.record)
        connection.record->last_active = uint64_t{connection.last_packet_ms}; // what a host reads as idle_seconds
    kHandlers[type]({connection, packet});
}

void on_packet(net::Connection id, std::span<const uint8_t> packet) noexcept
{
    Connection *const connection = connection_at(id.handle);
    if (!connection)
        return;
    count_received();
    const Served served(*connection);
    handle(*connection, packet);
}

// A CONNECT goes aside unless the host answers at once. One at a time for an identifier; those without one do not wait for
// each other. Whether it is well formed shows when it is served.
net::Choice way_of(net::Connection /*connection*/, std::span<const uint8_t> packet) noexcept
{
    if (packet.empty() || type_of(packet[0]) != CONNECT)
        return {};
    const std::optional<std::string_view> id = codec::standard::peek_client_id(packet);
    if (!id)
        return {};
    const auto     hash  = static_cast<uint32_t>(std::hash<std::string_view>{}(*id));
    const uint32_t group = id->empty() ? 0 : std::max(hash, 1U);
    if (!net::round_is_long() && api::accepts_at_once() && !net::is_aside(group))
        return {};
    return {net::Way::Aside, group};
}

// A long packet may take longer than the keep-alive, which runs from packet to packet.
void note_arriving(Connection &connection, size_t length)
{
    if (length <= NETIP_RX_SIZE || connection.stage.load() != Stage::Connected)
        return;
    connection.last_packet_ms = mono_ms();
    connection.arriving       = static_cast<uint32_t>(length);
}

net::Measured measure(net::Connection id, std::span<const uint8_t> received) noexcept
{
    Connection *const connection = connection_at(id.handle);
    if (!connection)
        return {.is_refused = true};
    const codec::standard::PacketLength packet = packet_length(received, connection->longest_packet);
    if (packet.verdict.ok()) {
        note_arriving(*connection, packet.length);
        return {.length = packet.length};
    }
    refuse_packet(*connection, packet.verdict);
    return {.is_refused = true};
}

} // namespace

Connection *connection_at(uint32_t handle) noexcept
{
    return handle < NETIP_CLIENTS_MAX ? g_by_handle[handle].load(std::memory_order_acquire) : nullptr;
}

void free_connections() noexcept
{
    for (std::atomic<Connection *> &entry : g_by_handle) {
        Connection *const connection = entry.exchange(nullptr, std::memory_order_relaxed);
        if (connection && connection->is_served.load()) // by this thread: a callback of the host has ended the engine
            connection->is_orphan = true;
        else
            destroy_object(connection);
    }
}

void refuse_packet(Connection &connection, const Verdict &verdict) noexcept
{
    stats::count(stats::Counter::parse_error);
    LOG_INFO("[standard] connection %u ends: %s", connection.id.handle, verdict.text);
    Turn turn;
    if (turn)
        end_connection(*turn, connection, verdict.reason);
}

void handle_pingreq(const Incoming &incoming) noexcept
{
    if (const Verdict verdict = codec::standard::decode_pingreq(incoming.packet, incoming.connection.level);
        !verdict.ok())
        return refuse_packet(incoming.connection, verdict);
    Turn turn;
    if (turn)
        send_bytes(*turn, incoming.connection, codec::standard::kPingresp);
}

const client::Profile &profile() noexcept
{
    static constexpr client::Profile kProfile{.opened   = on_opened,
                                              .packet   = on_packet,
                                              .closed   = on_closed,
                                              .writable = on_writable,
                                              .rounds   = {begin_round, end_round, send_in_round},
                                              .way      = {1 << CONNECT, way_of},
                                              .measure  = measure};
    return kProfile;
}

} // namespace tarn::standard
