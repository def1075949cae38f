// pending_index.cpp - the list of pending deliveries and the index beside it.
#include "../base/memory.h"
#include "qos_internal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

qos_packet_t *g_pending_queue = nullptr;
tarn_mutex_t  g_queue_mutex{};

namespace tarn::qos {

constinit qos_packet_t **g_walk = nullptr;

namespace {

constexpr size_t kIdBuckets            = 1 << 15;
constexpr size_t kClientBuckets        = 1 << 12;
constexpr int    kAlwaysCheckedEntries = 64;

// Entries without a delivery that are kept for the next ones: a client with many in flight takes and gives back that
// many at a time, more than the heap has at hand. The address sanitizer is to see the use of one that is free.
#if defined(TARN_SANITIZED)
constexpr int kSparesMax = 0;
#else
constexpr int kSparesMax = 1024;
#endif

struct Tracked;

// Entries of one client: counted, and chained from the newest on. Lives while there is at least one.
struct Tally {
    const mqtt_client_t *client;
    int                  count;
    Tracked             *newest;
    Tally               *next;
};

// An entry with its place in the index. `packet` comes first, so an entry is its packet.
struct Tracked {
    qos_packet_t         packet;
    Tracked             *chain; // next older entry in the same bucket
    Tracked             *newer; // list neighbours as the index left them, null at the ends
    Tracked             *older;
    Tracked             *newer_of_client; // neighbours among the entries of its client, null at the ends
    Tracked             *older_of_client;
    Tally               *tally;
    uint16_t             msg_id; // bucket key when it was linked: the packet's own fields may be edited by hand
    const mqtt_client_t *client;
};

// All entries of a short list, oldest first. They are compared with it at each use of the index: along this array the
// processor need not wait for one entry to know where the next one lies.
struct ShortList {
    int      count                          = 0;
    bool     known                          = true; // false: the list was longer, or the index does not know all of it
    Tracked *entries[kAlwaysCheckedEntries] = {};

    void push(Tracked *entry)
    {
        known = known && count < kAlwaysCheckedEntries;
        if (known)
            entries[count++] = entry;
    }
    void remove(const Tracked *entry)
    {
        Tracked **const end = entries + count;
        Tracked **const at  = std::find(entries, end, entry);
        if (!known || at == end)
            return;
        std::copy(at + 1, end, at);
        --count;
    }
    void clear()
    {
        count = 0;
        known = true;
    }
};

struct Index {
    bool          complete = true;    // it knows every entry of the list
    bool          held     = false;   // by a QueueLock
    bool          compared = false;   // with the list, since then
    int           size     = 0;       // entries it knows
    qos_packet_t *head     = nullptr; // g_pending_queue as the index left it
    ShortList     all;
    Tracked      *by_id[kIdBuckets]         = {};
    Tally        *by_client[kClientBuckets] = {};
};
constinit Index g_index GUARDED_BY(g_queue_mutex);

struct Spares {
    qos_packet_t *first = nullptr; // chained by `next`
    int           count = 0;
};
constinit Spares g_spares GUARDED_BY(g_queue_mutex);

size_t hash_of(const mqtt_client_t *client)
{
    return reinterpret_cast<uintptr_t>(client) * 0x9E3779B97F4A7C15ull >> 40;
}
size_t id_bucket(const mqtt_client_t *client, uint16_t msg_id)
{
    return (hash_of(client) * 31 + msg_id) % kIdBuckets;
}

Tally **tally_link(const mqtt_client_t *client) REQUIRES(g_queue_mutex)
{
    Tally **link = &g_index.by_client[hash_of(client) % kClientBuckets];
    while (*link && (*link)->client != client)
        link = &(*link)->next;
    return link;
}

// Forgets everything; the entries themselves stay in the list.
void drop_index() REQUIRES(g_queue_mutex)
{
    for (Tracked *&bucket : g_index.by_id)
        bucket = nullptr;
    for (Tally *&bucket : g_index.by_client)
        while (Tally *const tally = bucket) {
            bucket = tally->next;
            free(tally);
        }
    g_index.size      = 0;
    g_index.complete  = false;
    g_index.all.known = false;
}

Tracked *tracked(qos_packet_t *entry)
{
    return reinterpret_cast<Tracked *>(entry);
}
qos_packet_t *entry_of(Tracked *entry)
{
    return reinterpret_cast<qos_packet_t *>(entry);
}

bool has_its_key(const Tracked &entry) REQUIRES(g_queue_mutex)
{
    return entry.packet.msg_id == entry.msg_id && entry.packet.client == entry.client;
}

bool is_untouched(const Tracked &entry) REQUIRES(g_queue_mutex)
{
    return entry.packet.next == entry_of(entry.older) && has_its_key(entry);
}

// After the list was longer. Stops at what the index does not know, which the comparison finds then.
void list_all() REQUIRES(g_queue_mutex)
{
    ShortList &all = g_index.all;
    all.clear();
    for (Tracked *entry = tracked(g_pending_queue); entry && all.known; entry = entry->older) {
        all.push(entry);
        if (!is_untouched(*entry))
            break;
    }
    std::reverse(all.entries, all.entries + all.count);
}

// Whether the list is as a complete index left it. Of a long one only the head is looked at. Each step leads to an
// entry that the index knows, because the entry before it was found unchanged.
bool is_list_untouched() REQUIRES(g_queue_mutex)
{
    if (g_pending_queue != g_index.head)
        return false;
    if (g_index.size > kAlwaysCheckedEntries)
        return true;
    if (!g_index.all.known)
        list_all();
    const ShortList &all  = g_index.all;
    qos_packet_t    *next = g_pending_queue;
    for (int i = all.count - 1; i >= 0; --i) {
        Tracked *entry = all.entries[i];
        if (next != entry_of(entry))
            return false;
        asm volatile("" : "+r"(entry)); // kept from `next`, which is the same, but known later
        if (!has_its_key(*entry))
            return false;
        next = entry->packet.next;
    }
    return !next && all.count == g_index.size;
}

// To be asked before the index is believed.
bool is_complete() REQUIRES(g_queue_mutex)
{
    if (!g_index.compared) {
        if (g_index.complete && !is_list_untouched())
            drop_index();
        g_index.head     = g_pending_queue;
        g_index.compared = g_index.held;
    }
    if (!g_pending_queue) {
        g_index.complete = true;
        g_index.all.clear();
    }
    return g_index.complete;
}

void link_to_client(Tracked &entry) REQUIRES(g_queue_mutex)
{
    Tally &tally          = *entry.tally;
    entry.newer_of_client = nullptr;
    entry.older_of_client = tally.newest;
    if (tally.newest)
        tally.newest->newer_of_client = &entry;
    tally.newest = &entry;
    ++tally.count;
}

void unlink_from_client(Tracked &entry) REQUIRES(g_queue_mutex)
{
    Tally &tally = *entry.tally;
    if (entry.newer_of_client)
        entry.newer_of_client->older_of_client = entry.older_of_client;
    else
        tally.newest = entry.older_of_client;
    if (entry.older_of_client)
        entry.older_of_client->newer_of_client = entry.newer_of_client;
    if (--tally.count > 0)
        return;
    *tally_link(tally.client) = tally.next;
    free(&tally);
}

bool add_to_index(Tracked *entry) REQUIRES(g_queue_mutex)
{
    Tally **const link = tally_link(entry->packet.client);
    if (!*link) {
        auto *const tally = static_cast<Tally *>(malloc(sizeof(Tally)));
        if (!tally)
            return false;
        *tally = {entry->packet.client, 0, nullptr, nullptr};
        *link  = tally;
    }
    entry->tally  = *link;
    entry->client = entry->packet.client;
    entry->msg_id = entry->packet.msg_id;
    link_to_client(*entry);
    ++g_index.size;
    g_index.all.push(entry);
    Tracked *&bucket = g_index.by_id[id_bucket(entry->client, entry->msg_id)];
    entry->chain     = bucket;
    bucket           = entry;
    return true;
}

// False, with nothing done, for an entry that a host made or edited by hand.
bool remove_from_index(qos_packet_t *packet) REQUIRES(g_queue_mutex)
{
    Tracked **link = &g_index.by_id[id_bucket(packet->client, packet->msg_id)];
    while (*link && entry_of(*link) != packet)
        link = &(*link)->chain;
    Tracked *const entry = *link;
    if (!entry || !is_untouched(*entry))
        return false;

    *link = entry->chain;
    if (entry->newer)
        entry->newer->older = entry->older;
    if (entry->older)
        entry->older->newer = entry->newer;
    --g_index.size;
    g_index.all.remove(entry);
    unlink_from_client(*entry);
    return true;
}

bool is_delivery(const qos_packet_t &entry, const mqtt_client_t *client, uint16_t msg_id) REQUIRES(g_queue_mutex)
{
    return entry.client == client && entry.msg_id == msg_id;
}

// free_entry() for one that the index knew: a host's own has the size of a qos_packet_t only.
void keep_as_spare(qos_packet_t *entry) REQUIRES(g_queue_mutex)
{
    if (g_spares.count >= kSparesMax)
        return free_entry(entry);
    free_payload(*entry);
    give_bytes_back(sizeof(Tracked));
    entry->next    = g_spares.first;
    g_spares.first = entry;
    ++g_spares.count;
}

// The pointer that points to this entry, or null when the list does not hold it.
qos_packet_t **link_to(qos_packet_t *entry) REQUIRES(g_queue_mutex)
{
    qos_packet_t **link = &g_pending_queue;
    if (is_complete())
        link = tracked(entry)->newer ? &tracked(entry)->newer->packet.next : &g_pending_queue;
    while (*link && *link != entry)
        link = &(*link)->next;
    return *link ? link : nullptr;
}

} // namespace

QueueLock::QueueLock() noexcept
{
    g_queue_mutex.lock();
    g_index.held = true;
}

QueueLock::~QueueLock() noexcept
{
    g_index.held     = false;
    g_index.compared = false;
    g_queue_mutex.unlock();
}

qos_packet_t *make_entry(int held)
{
    if (!take_bytes(sizeof(Tracked), held))
        return nullptr;
    qos_packet_t *entry = g_spares.first;
    if (entry) {
        g_spares.first = entry->next;
        --g_spares.count;
    } else {
        entry = reinterpret_cast<qos_packet_t *>(allocate<Tracked>(1).release());
    }
    if (!entry) {
        give_bytes_back(sizeof(Tracked));
        return nullptr;
    }
    memset(tracked(entry), 0, sizeof(Tracked));
    return entry;
}

void free_entry(qos_packet_t *entry)
{
    free_payload(*entry);
    give_bytes_back(sizeof(Tracked));
    free(entry);
}

void free_spare_entries()
{
    while (qos_packet_t *const entry = g_spares.first) {
        g_spares.first = entry->next;
        free(entry);
    }
    g_spares.count = 0;
}

void link_entry(qos_packet_t *entry)
{
    const bool complete = is_complete();
    if (complete && !add_to_index(tracked(entry))) {
        drop_index();
    } else if (complete && g_pending_queue) {
        tracked(g_pending_queue)->newer = tracked(entry);
        tracked(entry)->older           = tracked(g_pending_queue);
    }
    entry->next     = g_pending_queue;
    g_pending_queue = entry;
    g_index.head    = entry;
}

int count_of(const mqtt_client_t *client)
{
    if (is_complete()) {
        const Tally *const tally = *tally_link(client);
        return tally ? tally->count : 0;
    }
    int count = 0;
    for (const qos_packet_t *entry = g_pending_queue; entry; entry = entry->next)
        count += entry->client == client;
    return count;
}

qos_packet_t *find_entry(const mqtt_client_t *client, uint16_t msg_id)
{
    if (is_complete()) {
        for (Tracked *entry = g_index.by_id[id_bucket(client, msg_id)]; entry; entry = entry->chain)
            if (is_delivery(entry->packet, client, msg_id))
                return &entry->packet;
        return nullptr;
    }
    qos_packet_t *entry = g_pending_queue;
    while (entry && !is_delivery(*entry, client, msg_id))
        entry = entry->next;
    return entry;
}

void remove_at(qos_packet_t **link)
{
    qos_packet_t *const entry = *link;
    const bool          known = is_complete() && remove_from_index(entry);
    if (!known && is_complete())
        drop_index();
    if (g_walk == &entry->next)
        g_walk = link;
    *link        = entry->next;
    g_index.head = g_pending_queue;
    if (known)
        keep_as_spare(entry);
    else
        free_entry(entry);
    if (!g_pending_queue)
        forget_bytes();
}

void remove_entry(qos_packet_t *entry)
{
    if (qos_packet_t **const link = link_to(entry))
        remove_at(link);
}

namespace {

// The newest entry of the client, when the index is to be believed about it. The client and the neighbours may have
// been edited by hand since: then the index is dropped.
qos_packet_t **link_to_newest_of(const mqtt_client_t *client) REQUIRES(g_queue_mutex)
{
    if (!is_complete())
        return nullptr;
    const Tally *const tally = *tally_link(client);
    if (!tally)
        return nullptr;
    Tracked &newest = *tally->newest;
    if (qos_packet_t **const link = newest.newer ? &newest.newer->packet.next : &g_pending_queue;
        *link == entry_of(&newest) && is_untouched(newest))
        return link;
    drop_index();
    return nullptr;
}

int remove_all_by_walk(const mqtt_client_t *client) REQUIRES(g_queue_mutex)
{
    int removed = 0;
    for (qos_packet_t **link = &g_pending_queue; *link;) {
        if ((*link)->client != client) {
            link = &(*link)->next;
            continue;
        }
        remove_at(link);
        ++removed;
    }
    return removed;
}

} // namespace

// Along the chain of the client's entries, whatever the others have.
int remove_all_of(const mqtt_client_t *client)
{
    int removed = 0;
    while (qos_packet_t **const link = link_to_newest_of(client)) {
        remove_at(link);
        ++removed;
    }
    return is_complete() ? removed : removed + remove_all_by_walk(client);
}

int remove_all()
{
    int removed = 0;
    while (g_pending_queue) {
        remove_at(&g_pending_queue);
        ++removed;
    }
    return removed;
}

} // namespace tarn::qos
