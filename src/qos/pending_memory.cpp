// pending_memory.cpp - the memory of pending deliveries: how much all of them have, and the payloads they share.
//
// A payload stands at an address of its own on the heap, shared or not. That of a routed message is listed by this
// address beside its number of users; any other, such as one that a host put into an entry by hand, has one user.
#include "../base/memory.h"
#include "qos_internal.h"

#include <cstdlib>
#include <cstring>

namespace tarn::qos {

// `users`: entries, and the PayloadCopy of the message while it is on its way.
struct SharedPayload {
    uint8_t       *bytes;
    size_t         size;
    int            users;
    SharedPayload *next; // in its bucket
};

namespace {

constexpr size_t kBuckets    = 1 << 14;
constexpr size_t kSharedFrom = 256; // bytes; for a shorter one the entry itself is what costs

constinit size_t g_bytes      GUARDED_BY(g_queue_mutex)                     = 0;
constinit size_t g_most_bytes GUARDED_BY(g_queue_mutex)                     = 0; // since bytes_left_over() was called
constinit SharedPayload      *g_buckets[kBuckets] GUARDED_BY(g_queue_mutex) = {};
constinit size_t g_shared     GUARDED_BY(g_queue_mutex)                     = 0; // listed

// The pointer that points to the shared payload at this address, or to the null at the end of its bucket.
SharedPayload **link_of(const uint8_t *bytes) REQUIRES(g_queue_mutex)
{
    SharedPayload **link = &g_buckets[reinterpret_cast<uintptr_t>(bytes) * 0x9E3779B97F4A7C15ull >> 50];
    while (*link && (*link)->bytes != bytes)
        link = &(*link)->next;
    return link;
}
static_assert(kBuckets == size_t{1} << (64 - 50));

void drop_user(SharedPayload **link) REQUIRES(g_queue_mutex)
{
    SharedPayload *const shared = *link;
    if (!shared || --shared->users > 0)
        return;
    *link = shared->next;
    --g_shared;
    give_bytes_back(shared->size);
    free(shared->bytes);
    free(shared);
}

// With no user yet. Null without memory for it: then the payload is the entry's alone.
SharedPayload *share(uint8_t *bytes, size_t size) REQUIRES(g_queue_mutex)
{
    auto *const shared = static_cast<SharedPayload *>(malloc(sizeof(SharedPayload)));
    if (!shared)
        return nullptr;
    SharedPayload **const link = link_of(bytes);
    *shared                    = {bytes, size, 0, *link};
    *link                      = shared;
    ++g_shared;
    return shared;
}

uint8_t *copy_of(std::span<const uint8_t> payload, int held) REQUIRES(g_queue_mutex)
{
    if (!take_bytes(payload.size(), held))
        return nullptr;
    auto *const bytes = static_cast<uint8_t *>(malloc(payload.size()));
    if (bytes)
        memcpy(bytes, payload.data(), payload.size());
    else
        give_bytes_back(payload.size());
    return bytes;
}

} // namespace

bool take_bytes(size_t bytes, int held)
{
    const size_t limit = kPendingBytes + (held < kFewEntries ? kReservedBytes : 0);
    if (g_bytes + bytes > limit)
        return false;
    g_bytes += bytes;
    g_most_bytes = g_bytes > g_most_bytes ? g_bytes : g_most_bytes;
    return true;
}

void give_bytes_back(size_t bytes)
{
    g_bytes -= bytes < g_bytes ? bytes : g_bytes; // entries of a host's own were never counted
}

void forget_bytes()
{
    g_bytes = 0;
}

size_t bytes_taken()
{
    return g_bytes;
}

size_t bytes_left_over() noexcept
{
    ScopedLock lock(g_queue_mutex);
    free_spare_entries();
    const size_t left_over = g_most_bytes - g_bytes;
    g_most_bytes           = g_bytes;
    return left_over;
}

bool put_payload(qos_packet_t &entry, std::span<const uint8_t> payload, PayloadCopy *copy, int held)
{
    if (payload.size() < kSharedFrom)
        copy = nullptr;
    SharedPayload *shared = copy ? copy->of(payload) : nullptr;
    uint8_t *const bytes  = shared ? shared->bytes : copy_of(payload, held);
    if (!bytes)
        return false;
    if (copy && !shared && (shared = share(bytes, payload.size()))) {
        ++shared->users;
        copy->keep(payload, shared);
    }
    if (shared)
        ++shared->users;
    entry.payload     = bytes;
    entry.payload_len = static_cast<uint32_t>(payload.size());
    return true;
}

void free_payload(const qos_packet_t &entry)
{
    if (!entry.payload)
        return;
    if (SharedPayload **const link = g_shared > 0 ? link_of(entry.payload) : nullptr; link && *link)
        return drop_user(link);
    give_bytes_back(entry.payload_len);
    free(entry.payload);
}

SharedPayload *PayloadCopy::of(std::span<const uint8_t> bytes) const noexcept
{
    return bytes.data() == source_.data() && bytes.size() == source_.size() ? shared_ : nullptr;
}

void PayloadCopy::keep(std::span<const uint8_t> bytes, SharedPayload *shared) noexcept NO_LOCK_ANALYSIS
{
    if (shared_)
        drop_user(link_of(shared_->bytes));
    source_ = bytes;
    shared_ = shared;
}

PayloadCopy::~PayloadCopy() noexcept
{
    if (!shared_)
        return;
    ScopedLock lock(g_queue_mutex);
    drop_user(link_of(shared_->bytes));
}

} // namespace tarn::qos
