// pool.cpp - the slots of the client pool. Whose life takes and gives them is in life.cpp.
//
// Blocks of 100 records stand in one range of addresses (arena.cpp); the exported block list shows them. The lowest
// free place is taken first. A place is free when its used flag is clear and its last record is not pinned any more.
#include "../base/memory.h"
#include "client_internal.h"

constinit client_mgr_t           g_client_mgr{};
constinit tarn::Shared<int32_t>  g_mqtt_max_clients        = CLIENT_MAX;
constinit tarn::Shared<uint32_t> g_default_max_packet_size = CLIENT_PACKET_DEFAULT;

namespace tarn::client {

constinit Mutex pool_mutex{};

namespace {

// The block list lives as long as the process, at its full length: scans walk it without a lock.
constinit client_pool_block_t *g_block_list GUARDED_BY(pool_mutex) = nullptr;
constinit bool g_unlinking                  GUARDED_BY(pool_mutex) = false; // no new records meanwhile
constinit Shared<uint8_t>                   g_used_flags[kBlocksMax][CLIENT_BLOCK_RECORDS]{};

// What the records of a block cost: no memory since it was given back, or some. Unused: nobody had one of them when
// give_back_unused_blocks() looked last.
enum class Pages : uint8_t { None, Used, Unused };
constinit Pages g_pages[kBlocksMax] GUARDED_BY(pool_mutex){};

bool have_block_list() REQUIRES(pool_mutex)
{
    if (!g_block_list)
        g_block_list = allocate_zeroed<client_pool_block_t>(kBlocksMax).release();
    if (g_block_list && !g_client_mgr.blocks)
        poke_release(g_client_mgr.blocks, g_block_list);
    return g_block_list && g_client_mgr.blocks == g_block_list;
}

bool add_block() REQUIRES(pool_mutex)
{
    const int32_t block = g_client_mgr.block_count;
    if (!have_block_list() || !open_block(block))
        return false;
    client_pool_block_t &added = g_block_list[block];
    if (!added.records) { // else it is there from an earlier start, and other threads may be reading it
        added.records    = records_of(block);
        added.used_flags = g_used_flags[block];
        added.capacity   = CLIENT_BLOCK_RECORDS;
    }
    added.used            = 0;
    g_client_mgr.capacity = g_client_mgr.capacity + CLIENT_BLOCK_RECORDS;
    poke_release(g_client_mgr.block_count, block + 1); // a thread that sees the count sees the block
    return true;
}

bool is_free(const Place &place) REQUIRES(pool_mutex)
{
    const int32_t index = index_of(&place.record());
    return place.used_flag() == 0 && (index == kOutside || is_idle(index));
}

Place find_free() REQUIRES(pool_mutex)
{
    for (int32_t i = 0; i < g_client_mgr.block_count || add_block(); ++i) {
        client_pool_block_t &block = g_client_mgr.blocks[i];
        for (int32_t at = 0; block.used < block.capacity && at < block.capacity; ++at)
            if (const Place place{&block, at}; is_free(place))
                return place;
    }
    return {};
}

} // namespace

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

Taken take_place(Place &place, int32_t &used_count) noexcept
{
    ScopedLock lock(pool_mutex);
    if (g_client_mgr.used_count >= g_mqtt_max_clients)
        return Taken::TableFull;
    place = g_unlinking ? Place{} : find_free();
    if (!place)
        return Taken::NoPlace;
    if (g_client_mgr.blocks == g_block_list)
        g_pages[place.block - g_block_list] = Pages::Used;
    place.used_flag()       = 1;
    place.block->used       = place.block->used + 1;
    used_count              = g_client_mgr.used_count + 1;
    g_client_mgr.used_count = used_count;
    return Taken::Place;
}

void give_place_back(const Place &place) noexcept
{
    ScopedLock lock(pool_mutex);
    if (place.used_flag() == 0)
        return; // the whole pool was unlinked meanwhile
    place.used_flag()       = 0;
    place.block->used       = place.block->used - 1;
    g_client_mgr.used_count = g_client_mgr.used_count - 1;
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
        if (blocks && blocks[at / CLIENT_BLOCK_RECORDS].used_flags[at % CLIENT_BLOCK_RECORDS])
            return record;
    }
    return nullptr;
}

bool make_block_list() noexcept
{
    ScopedLock lock(pool_mutex);
    return have_block_list();
}

bool fill_pool(int32_t blocks) noexcept
{
    ScopedLock lock(pool_mutex);
    while (g_client_mgr.block_count < blocks)
        if (!add_block())
            return false;
    return true;
}

namespace {

// Records that are still pinned keep their page; their last unpin wipes them.
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
        side_at(first + i).keepalive_ms = 0;
        if (!mine[i])
            continue;
        if (!all)
            wipe_all(*record_at(first + i));
        forget_written(side_at(first + i));
        wipe_done(first + i);
    }
}

// Takes the blocks out of the exported list; afterwards no look-up or scan finds a record.
client_pool_block_t *hide_blocks(int32_t &count, bool &own) EXCLUDES(pool_mutex)
{
    ScopedLock lock(pool_mutex);
    g_unlinking                       = true;
    client_pool_block_t *const blocks = g_client_mgr.blocks;
    count                             = g_client_mgr.block_count;
    own                               = blocks && blocks == g_block_list;
    poke_release(g_client_mgr.block_count, 0);
    g_client_mgr.capacity   = 0;
    g_client_mgr.used_count = 0;
    poke_release(g_client_mgr.blocks, nullptr);
    for (int32_t i = 0; own && i < count; ++i)
        for (int32_t at = 0; at < CLIENT_BLOCK_RECORDS; ++at)
            blocks[i].used_flags[at] = 0;
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
            take_down(blocks[i].records[at]);
        if (own)
            give_up_block(i);
    }
    ScopedLock lock(pool_mutex);
    g_unlinking = false;
}

namespace {

bool is_unused(const client_pool_block_t &block) REQUIRES(pool_mutex)
{
    for (int32_t at = 0; at < CLIENT_BLOCK_RECORDS; ++at)
        if (block.used_flags[at])
            return false;
    return true;
}

// Nobody can take a place meanwhile, and a record that is idle is not released, since that was done when its place was
// given back. False while a late thread still holds one of the records.
bool give_back_if_idle(int32_t block) REQUIRES(pool_mutex)
{
    const int32_t first = block * CLIENT_BLOCK_RECORDS;
    int32_t       held  = 0;
    while (held < CLIENT_BLOCK_RECORDS && is_idle(first + held) && try_begin_wipe(first + held))
        ++held;
    const bool all = held == CLIENT_BLOCK_RECORDS;
    for (int32_t i = first; all && i < first + held; ++i) {
        if (const uint32_t keepalive_ms = record_at(i)->keepalive_ms; keepalive_ms != 0)
            side_at(i).keepalive_ms = keepalive_ms; // else it may be there from the time before
        forget_written(side_at(i));
    }
    if (all)
        give_back_block(block);
    for (int32_t i = first; i < first + held; ++i)
        wipe_done(i);
    return all;
}

// Looks at one block. True when its memory was given back.
bool look_at_block(int32_t block) EXCLUDES(pool_mutex)
{
    ScopedLock lock(pool_mutex);
    if (block >= g_client_mgr.block_count || g_client_mgr.blocks != g_block_list || g_pages[block] == Pages::None ||
        !is_unused(g_block_list[block]))
        return false;
    if (g_pages[block] == Pages::Used) {
        g_pages[block] = Pages::Unused;
        return false;
    }
    if (!give_back_if_idle(block))
        return false;
    g_pages[block] = Pages::None;
    return true;
}

} // namespace

int32_t give_back_unused_blocks() noexcept
{
    int32_t given = 0;
    for (int32_t block = 0; block < kBlocksMax; ++block)
        given += look_at_block(block);
    return given;
}

} // namespace tarn::client

using namespace tarn;

client_ref tarn::next_client(int32_t &index) noexcept
{
    while (mqtt_client_t *const record = client::next_flagged(index)) {
        client_ref client(record);
        if (peek_acquire(client->used))
            return client;
    }
    return {};
}
