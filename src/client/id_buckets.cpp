// id_buckets.cpp - which records share an entry of by_cid. The entry names the one set last, and a native look-up
// reads nothing else; the chains here keep the others in mind, so that the entry can name one of them when that one
// leaves, and another profile finds them too.
//
// A chain links the pool records of one bucket, newest first, by pool index + 1. A record is in one at most, from
// enter_bucket() until it leaves the tables or is released. A record outside the pool is in none, since nobody would
// tell when its memory goes.
#include "client_internal.h"

#include <cstring>

namespace tarn::client {

constinit Mutex bucket_mutex{};

namespace {

constinit int32_t g_newest[CLIENT_MAX] GUARDED_BY(bucket_mutex){};

int32_t unlink(Side &side) REQUIRES(bucket_mutex)
{
    const int32_t bucket = side.bucket - 1;
    if (side.newer != 0)
        side_at(side.newer - 1).older = side.older;
    else
        g_newest[bucket] = side.older;
    if (side.older != 0)
        side_at(side.older - 1).newer = side.newer;
    side.bucket = side.newer = side.older = 0;
    return bucket;
}

void link_as_newest(Side &side, int32_t index, int32_t bucket) REQUIRES(bucket_mutex)
{
    side.bucket = bucket + 1;
    side.older  = g_newest[bucket];
    if (side.older != 0)
        side_at(side.older - 1).newer = index + 1;
    g_newest[bucket] = index + 1;
}

// Only records that are leaving right now are passed over, so this takes a step or two, however many are linked.
mqtt_client_t *newest_online(int32_t bucket) REQUIRES(bucket_mutex)
{
    for (int32_t link = g_newest[bucket]; link != 0; link = side_at(link - 1).older)
        if (mqtt_client_t *const record = record_at(link - 1); is_online(*record))
            return record;
    return nullptr;
}

// The entry, if it is this record's, goes to the next one; without a next one it stays.
void pass_on(int32_t bucket, mqtt_client_t &client) REQUIRES(bucket_mutex)
{
    if (mqtt_client_t *const next = newest_online(bucket))
        (void)swap_if(g_client_mgr.by_cid[bucket], &client, next);
}

int32_t bucket_of(uint32_t hash)
{
    return static_cast<int32_t>(hash % CLIENT_MAX);
}

} // namespace

void enter_bucket(mqtt_client_t &client, uint32_t hash, uint32_t seen_state) noexcept
{
    const int32_t bucket = bucket_of(hash);
    ScopedLock    lock(bucket_mutex);
    if (was_closed_since(client, seen_state))
        return;
    if (Side *const side = side_of(&client)) {
        const int32_t before = side->bucket != 0 ? unlink(*side) : bucket;
        link_as_newest(*side, index_of(&client), bucket);
        if (before != bucket)
            pass_on(before, client);
    }
    poke_release(g_client_mgr.by_cid[bucket], &client);
}

void leave_chain(mqtt_client_t &client) noexcept
{
    Side      &side = guards_of(client);
    ScopedLock lock(bucket_mutex);
    if (side.bucket != 0)
        pass_on(unlink(side), client);
}

// An entry that names another record by now stays: the client that reconnected must still be found.
void leave_entry(mqtt_client_t &client, uint32_t hash) noexcept
{
    const int32_t bucket = bucket_of(hash);
    ScopedLock    lock(bucket_mutex);
    (void)swap_if(g_client_mgr.by_cid[bucket], &client, newest_online(bucket));
}

client_ref find_in_chain(uint32_t hash, const char *client_id) noexcept
{
    ScopedLock lock(bucket_mutex);
    for (int32_t link = g_newest[bucket_of(hash)]; link != 0; link = side_at(link - 1).older) {
        mqtt_client_t *const record = record_at(link - 1);
        if (is_online(*record) && strcmp(stored_id(*record).text, client_id) == 0)
            return client_ref(record);
    }
    return {};
}

void clear_buckets() noexcept
{
    ScopedLock lock(bucket_mutex);
    for (int32_t bucket = 0; bucket < CLIENT_MAX; ++bucket) {
        poke_release(g_client_mgr.by_cid[bucket], nullptr);
        while (g_newest[bucket] != 0)
            (void)unlink(side_at(g_newest[bucket] - 1));
    }
}

} // namespace tarn::client
