// arena.cpp - the memory behind pool records and their send rings.
//
// Both are address ranges that are reserved once and stay for the life of the process: late readers of a released
// record find zeros, never another type. Pages come when they are written and go back when a block or a ring is given
// up, so a client costs the few pages it touches and not its 150 KB record and 400 KB ring. Those of the rings are
// written only when there is nothing to lend (ring_loans.cpp).
#include "../base/memory.h"
#include "client_internal.h"

#include <sys/mman.h>

namespace tarn::client {
namespace {

constexpr size_t kBlockBytes = whole_pages(CLIENT_BLOCK_RECORDS * sizeof(mqtt_client_t));
constexpr size_t kRingBytes  = whole_pages(CLIENT_SEND_SLOTS * sizeof(client_send_slot_t));

constinit Mutex               g_reserve_mutex{};
constinit std::atomic<char *> g_records{nullptr};
constinit std::atomic<char *> g_rings{nullptr};

// Huge pages would make every touched record cost 2 MB.
char *reserve(size_t bytes, int protection) noexcept
{
    void *const area = mmap(nullptr, bytes, protection, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (area == MAP_FAILED)
        return nullptr;
    madvise(area, bytes, MADV_NOHUGEPAGE);
    return static_cast<char *>(area);
}

} // namespace

char *reserved(std::atomic<char *> &area, size_t bytes, int protection) noexcept
{
    if (char *const there = area.load(std::memory_order_acquire))
        return there;
    ScopedLock lock(g_reserve_mutex);
    if (!area.load(std::memory_order_relaxed))
        area.store(reserve(bytes, protection), std::memory_order_release);
    return area.load(std::memory_order_relaxed);
}

client_send_slot_t *own_ring(int32_t index) noexcept
{
    char *const rings = g_rings.load(std::memory_order_acquire);
    return rings && index != kOutside
               ? reinterpret_cast<client_send_slot_t *>(rings + static_cast<size_t>(index) * kRingBytes)
               : nullptr;
}

mqtt_client_t *records_of(int32_t block) noexcept
{
    char *const records = g_records.load(std::memory_order_acquire);
    return records ? reinterpret_cast<mqtt_client_t *>(records + static_cast<size_t>(block) * kBlockBytes) : nullptr;
}

mqtt_client_t *record_at(int32_t index) noexcept
{
    return records_of(index / CLIENT_BLOCK_RECORDS) + index % CLIENT_BLOCK_RECORDS;
}

int32_t index_of(const mqtt_client_t *client) noexcept
{
    const char *const records = g_records.load(std::memory_order_acquire);
    const auto        offset  = reinterpret_cast<uintptr_t>(client) - reinterpret_cast<uintptr_t>(records);
    if (!records || offset >= kBlocksMax * kBlockBytes)
        return kOutside;
    const size_t within = offset % kBlockBytes;
    if (within % sizeof(mqtt_client_t) != 0 || within >= CLIENT_BLOCK_RECORDS * sizeof(mqtt_client_t))
        return kOutside;
    return static_cast<int32_t>(offset / kBlockBytes * CLIENT_BLOCK_RECORDS + within / sizeof(mqtt_client_t));
}

// The range is reserved without access, so that only blocks in use count where the system counts what it promises.
bool open_block(int32_t block) noexcept
{
    if (block >= kBlocksMax || !reserved(g_records, kBlocksMax * kBlockBytes, PROT_NONE))
        return false;
    return mprotect(records_of(block), kBlockBytes, PROT_READ | PROT_WRITE) == 0;
}

void give_back_block(int32_t block) noexcept
{
    madvise(records_of(block), kBlockBytes, MADV_DONTNEED);
}

client_send_slot_t *make_ring(const mqtt_client_t &client) noexcept
{
    const int32_t index = index_of(&client);
    if (index != kOutside && reserved(g_rings, CLIENT_MAX * kRingBytes, PROT_READ | PROT_WRITE))
        return own_ring(index);
    return allocate_zeroed<client_send_slot_t>(CLIENT_SEND_SLOTS).release();
}

void free_ring(const mqtt_client_t &client, client_send_slot_t *ring) noexcept
{
    if (free_lent_ring(ring, false))
        return;
    if (ring == own_ring(index_of(&client)))
        madvise(ring, kRingBytes, MADV_DONTNEED);
    else
        free(ring); // one the client brought along, or made while the range could not be reserved
}

void trim_ring(mqtt_client_t &client) noexcept
{
    client_send_slot_t *const own = own_ring(index_of(&client));
    if (!own || !client.send_queue || side_of(&client)->flushing)
        return;
    if (client.send_queue == own || free_lent_ring(client.send_queue, false)) {
        madvise(own, kRingBytes, MADV_DONTNEED);
        client.send_queue = own;
    }
}

} // namespace tarn::client
