// pool.cpp - the slots of the client pool: taken by client_create, freed by pool_free.
//
// Blocks of 100 records stand in one range of addresses (arena.cpp); the exported block list shows them. The lowest
// free slot is taken first. A slot is free when its used flag is clear and nobody holds its last record any more.
#include "../base/clock.h"
#include "../base/memory.h"
#include "../base/text.h"
#include "../codec/mqtt_codec.h"
#include "../qos/qos_reliable.h"
#include "client_internal.h"

#include <cstring>

client_mgr_t g_client_mgr{};
int32_t      g_mqtt_max_clients        = CLIENT_MAX;
uint32_t     g_default_max_packet_size = 4096;

namespace tarn::client {

constinit Mutex pool_mx{};

namespace {

// The block list lives as long as the process, at its full length: scans walk it without a lock.
constinit client_pool_block_t *g_block_list GUARDED_BY(pool_mx) = nullptr;
constinit bool g_unlinking                  GUARDED_BY(pool_mx) = false; // no new records meanwhile
constinit uint8_t                           g_used_flags[kBlocksMax][CLIENT_BLOCK_RECORDS]{};

struct Place {
    client_pool_block_t *block = nullptr;
    int32_t              at    = 0;
    explicit             operator bool() const { return block != nullptr; }
    mqtt_client_t       &record() const { return block->records[at]; }
    uint8_t             &used_flag() const { return block->used_flags[at]; }
};

Place place_of(const mqtt_client_t &client) noexcept
{
    const int32_t              count  = peek_acquire(g_client_mgr.block_count);
    client_pool_block_t *const blocks = peek_acquire(g_client_mgr.blocks);
    for (int32_t i = 0; blocks && i < count; ++i) {
        client_pool_block_t &block  = blocks[i];
        const auto           offset = reinterpret_cast<uintptr_t>(&client) - reinterpret_cast<uintptr_t>(block.records);
        if (offset < CLIENT_BLOCK_RECORDS * sizeof(mqtt_client_t))
            return {&block, static_cast<int32_t>(offset / sizeof(mqtt_client_t))};
    }
    return {};
}

bool have_block_list() REQUIRES(pool_mx)
{
    if (!g_block_list)
        g_block_list = allocate_zeroed<client_pool_block_t>(kBlocksMax).release();
    if (g_block_list && !g_client_mgr.blocks)
        poke_release(g_client_mgr.blocks, g_block_list);
    return g_block_list && g_client_mgr.blocks == g_block_list;
}

bool add_block() REQUIRES(pool_mx)
{
    const int32_t block = g_client_mgr.block_count;
    if (!have_block_list() || !open_block(block))
        return false;
    client_pool_block_t &added = g_block_list[block];
    if (!added.records) // else it stands there since an earlier start, and late readers may look at it
        added = {records_of(block), g_used_flags[block], 0, CLIENT_BLOCK_RECORDS};
    poke(added.used, 0);
    poke(g_client_mgr.capacity, g_client_mgr.capacity + CLIENT_BLOCK_RECORDS);
    poke_release(g_client_mgr.block_count, block + 1); // whoever sees the count sees the block
    return true;
}

bool is_free(const Place &place) REQUIRES(pool_mx)
{
    const int32_t index = index_of(&place.record());
    return peek(place.used_flag()) == 0 && (index == kOutside || is_idle(index));
}

Place find_free() REQUIRES(pool_mx)
{
    for (int32_t i = 0; i < g_client_mgr.block_count || add_block(); ++i) {
        client_pool_block_t &block = g_client_mgr.blocks[i];
        for (int32_t at = 0; block.used < block.capacity && at < block.capacity; ++at)
            if (const Place place{&block, at}; is_free(place))
                return place;
    }
    return {};
}

enum class Taken { Slot, TableFull, NoSlot };

Taken take_slot(Place &place, int32_t &used_count) EXCLUDES(pool_mx)
{
    ScopedLock lock(pool_mx);
    if (g_client_mgr.used_count >= peek(g_mqtt_max_clients))
        return Taken::TableFull;
    place = g_unlinking ? Place{} : find_free();
    if (!place)
        return Taken::NoSlot;
    poke(place.used_flag(), 1);
    poke(place.block->used, place.block->used + 1);
    used_count = g_client_mgr.used_count + 1;
    poke(g_client_mgr.used_count, used_count);
    return Taken::Slot;
}

void give_slot_back(const Place &place) EXCLUDES(pool_mx)
{
    ScopedLock lock(pool_mx);
    if (peek(place.used_flag()) == 0)
        return; // the whole pool was unlinked meanwhile
    poke(place.used_flag(), 0);
    poke(place.block->used, place.block->used - 1);
    poke(g_client_mgr.used_count, g_client_mgr.used_count - 1);
}

void reset_will(mqtt_client_t &client)
{
    ScopedLock lock(client.will_lock);
    free_will_texts(client);
    poke(client.will_payload_len, 0);
    poke(client.will_qos, 0);
    poke(client.will_retain, 0);
    poke(client.will_msg_used, 0);
    poke(client.will_sent, 0);
    poke(client.will_delay_interval, 0);
    poke(client.will_msg_expiry_interval, 0);
    poke(client.will_payload_format, 0);
    memset(client.will_content_type, 0, sizeof client.will_content_type);
    memset(client.will_response_topic, 0, sizeof client.will_response_topic);
    memset(client.will_correlation_data, 0, sizeof client.will_correlation_data);
    poke(client.will_correlation_len, 0);
    poke(client.will_delay_deadline, 0);
    poke(client.will_delay_pending, 0);
}

// Not touched: client_id, clean_session, session_restored and timeout_closing, which release has cleared, and
// keepalive_ms, which a slot hands on to its next client until CONNECT sets it.
void fill(mqtt_client_t &client, uint32_t handle, const char *ip, uint16_t port, broker_t *broker)
{
    poke(client.handle, handle);
    {
        ScopedLock lock(id_lock(client));
        copy_text(client.ip, ip ? ip : "", sizeof client.ip - 1);
    }
    poke(client.port, port);
    poke(client.last_active, mono_ms());
    poke(client.next_msg_id, 1);
    poke(client.broker, broker);
    (void)mqtt_codec_ctx_init(&client.codec);
    poke(client.disconnect_received, 0);
    {
        ScopedLock lock(client.send_lock);
        poke(client.send_head, 0);
        poke(client.send_tail, 0);
        if (Side *const side = side_of(&client))
            side->last_packet = LastPacket::None;
    }
    reset_will(client);
    empty_session(client); // a holder of the record before may have written it behind its release
    poke(client.max_packet_size, peek(g_default_max_packet_size));
    poke(client.qos2_pending_msg_id, 0);
    poke(client.qos1_pending_msg_id, 0);
    poke(client.session_expiry_interval, 0);
    poke(client.session_expiry_deadline, 0);
    poke(client.state, CLIENT_CONNECTED);
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
    if (peek(g_client_mgr.used_count) >= peek(g_mqtt_max_clients)) {
        tell_full(peek(g_mqtt_max_clients));
        return {};
    }

    Place      place;
    int32_t    total = 0;
    Taken      taken = Taken::NoSlot;
    client_ref client;
    {
        ScopedLock lock(lock_of_handle(handle));
        if (is_gone(connection))
            return {};
        taken = take_slot(place, total);
        if (taken == Taken::Slot) {
            client = client_ref(&place.record());
            if (Side *const side = side_of(client.get())) {
                side->generation.store(generation_for(handle, connection), std::memory_order_relaxed);
                side->refusals.store(0, std::memory_order_relaxed);
            }
            fill(*client, handle, ip, port, broker);
            if (handle != NETIP_NO_HANDLE)
                poke_release(g_client_mgr.by_handle[handle % CLIENT_MAX], client.get());
        }
    }
    if (taken == Taken::TableFull) // another thread took the last one
        tell_full(peek(g_mqtt_max_clients));
    if (client)
        tell_created(id_of(*client), peek(client->max_packet_size), handle, client->ip, port, total);
    return client;
}

bool release_record(mqtt_client_t &client) noexcept
{
    const uint32_t state = peek(client.state);
    if ((state != CLIENT_CLOSED && state != CLIENT_WILL_PENDING) || !peek(client.used))
        return false;
    const Place place = place_of(client);
    if (!place || !peek(place.used_flag()))
        return false;

    const client_ref pin(&client);
    if (!set_mark(client, kReleased))
        return false;
    qos_reliable_clean_client_packets(&client); // after the mark: none can be added any more

    poke(client.state, CLIENT_CLOSED);
    poke(client.handle, NETIP_NO_HANDLE);
    poke(client.used, 0);
    leave_chain(client);
    drop_ring(client);
    empty_session(client); // or a connection that never says CONNECT could write this one's files
    {
        ScopedLock lock(client.will_lock);
        free_will_texts(client);
        poke(client.will_msg_used, 0);
        poke(client.will_sent, 0);
        poke(client.will_delay_deadline, 0);
        poke(client.will_delay_pending, 0);
    }
    note_unparked(client);
    poke(client.clean_session, 0);
    poke(client.session_restored, 0);
    poke(client.timeout_closing, 0);
    poke(client.session_expiry_interval, 0);
    poke(client.session_expiry_deadline, 0);
    if (!side_of(&client))
        wipe_texts(client); // nobody can hold it
    give_slot_back(place);
    return true;
}

mqtt_client_t *record_in_order(int32_t place) noexcept
{
    if (place < 0 || place / CLIENT_BLOCK_RECORDS >= peek_acquire(g_client_mgr.block_count))
        return nullptr;
    client_pool_block_t *const blocks = peek_acquire(g_client_mgr.blocks);
    return blocks ? blocks[place / CLIENT_BLOCK_RECORDS].records + place % CLIENT_BLOCK_RECORDS : nullptr;
}

mqtt_client_t *next_flagged(int32_t &place) noexcept
{
    while (mqtt_client_t *const record = record_in_order(place)) {
        const client_pool_block_t *const blocks = peek_acquire(g_client_mgr.blocks);
        const int32_t                    at     = place++;
        if (blocks && peek(blocks[at / CLIENT_BLOCK_RECORDS].used_flags[at % CLIENT_BLOCK_RECORDS]))
            return record;
    }
    return nullptr;
}

bool make_block_list() noexcept
{
    ScopedLock lock(pool_mx);
    return have_block_list();
}

bool fill_pool(int32_t blocks) noexcept
{
    ScopedLock lock(pool_mx);
    while (g_client_mgr.block_count < blocks)
        if (!add_block())
            return false;
    return true;
}

namespace {

bool has_traces(mqtt_client_t &client)
{
    return peek(client.used) || peek(client.send_queue) || peek(client.will_topic) || peek(client.will_payload);
}

// Only after an init over a live manager: deinit has emptied the list before.
void drop_deliveries(mqtt_client_t &client)
{
    {
        ScopedLock lock(g_queue_mutex);
        if (!g_pending_queue)
            return;
    }
    qos_reliable_clean_client_packets(&client);
}

void retire(mqtt_client_t &client)
{
    if (!has_traces(client))
        return;
    const client_ref pin(&client);
    (void)set_mark(client, kReleased);
    drop_deliveries(client);
    poke(client.state, CLIENT_CLOSED);
    poke(client.handle, NETIP_NO_HANDLE);
    poke(client.used, 0);
    leave_chain(client); // it may have been given an id behind the clearing of the tables
    drop_ring(client);
    empty_session(client);
    note_unparked(client);
    ScopedLock lock(client.will_lock);
    free_will_texts(client);
    poke(client.will_delay_pending, 0);
}

// What a record keeps when its page has to stay: nothing but its locks.
void scrub(mqtt_client_t &client)
{
    wipe_texts(client);
    const size_t   session = offsetof(mqtt_client_t, session);
    const size_t   locks[] = {offsetof(mqtt_client_t, send_lock), offsetof(mqtt_client_t, will_lock), session};
    uint8_t *const bytes   = reinterpret_cast<uint8_t *>(&client);
    size_t         at      = 0;
    for (const size_t lock : locks) {
        for (; at < lock; ++at)
            poke(bytes[at], 0); // scans may look in passing
        at = lock + sizeof(Mutex);
    }
    clear_session(client);
}

// Records that somebody still holds keep their page; their last holder wipes them.
void give_up_block(int32_t block)
{
    const int32_t first = block * CLIENT_BLOCK_RECORDS;
    bool          mine[CLIENT_BLOCK_RECORDS];
    bool          all = true;
    for (int32_t i = 0; i < CLIENT_BLOCK_RECORDS; ++i) {
        mine[i] = try_begin_wipe(first + i);
        all     = all && mine[i];
    }
    if (all)
        give_back_block(block);
    for (int32_t i = 0; i < CLIENT_BLOCK_RECORDS; ++i) {
        if (!mine[i])
            continue;
        if (!all)
            scrub(*record_at(first + i));
        Side &side = side_at(first + i);
        side.subs_high.store(0, std::memory_order_relaxed);
        side.msgs_high.store(0, std::memory_order_relaxed);
        wipe_done(first + i);
    }
}

// Takes the blocks out of everybody's sight; from here on nobody new finds a record.
client_pool_block_t *hide_blocks(int32_t &count, bool &own) EXCLUDES(pool_mx)
{
    ScopedLock lock(pool_mx);
    g_unlinking                       = true;
    client_pool_block_t *const blocks = g_client_mgr.blocks;
    count                             = g_client_mgr.block_count;
    own                               = blocks && blocks == g_block_list;
    poke_release(g_client_mgr.block_count, 0);
    poke(g_client_mgr.capacity, 0);
    poke(g_client_mgr.used_count, 0);
    poke_release(g_client_mgr.blocks, nullptr);
    for (int32_t i = 0; own && i < count; ++i)
        for (int32_t at = 0; at < CLIENT_BLOCK_RECORDS; ++at)
            poke(blocks[i].used_flags[at], 0);
    return blocks;
}

} // namespace

void unlink_pool() noexcept
{
    int32_t                    count  = 0;
    bool                       own    = false;
    client_pool_block_t *const blocks = hide_blocks(count, own);
    clear_tables();
    for (int32_t i = 0; i < count; ++i) {
        for (int32_t at = 0; at < CLIENT_BLOCK_RECORDS; ++at)
            retire(blocks[i].records[at]);
        if (own)
            give_up_block(i);
    }
    ScopedLock lock(pool_mx);
    g_unlinking = false;
}

} // namespace tarn::client

using namespace tarn;

mqtt_client_t *client_create(uint32_t handle, const char *ip, uint16_t port, broker_t *broker)
{
    return client::create_client(handle, ip, port, broker, {}).get();
}

void pool_free(mqtt_client_t *client)
{
    if (client)
        (void)client::release_record(*client);
}

client_ref tarn::next_client(int32_t &index) noexcept
{
    while (mqtt_client_t *const record = client::next_flagged(index)) {
        client_ref client(record);
        if (peek_acquire(client->used))
            return client;
    }
    return {};
}
