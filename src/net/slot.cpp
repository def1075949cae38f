// slot.cpp - who may touch a slot, and when it may be handed out again.
//
// A slot changes between free and in use under its own lock. The lock is part of the slot, so zero bytes must stay a
// valid unlocked mutex: it is never initialised, and the table is cleared only around slots that nobody is inside.
#include "../base/clock.h"
#include "netip_internal.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

namespace tarn::net {

constinit SlotSide g_sides[NETIP_CLIENTS_MAX] = {};

namespace {

constinit uint32_t g_last_generation GUARDED_BY(g_netip_lock) = 0;

uint32_t next_generation() REQUIRES(g_netip_lock)
{
    if (++g_last_generation == 0)
        ++g_last_generation; // 0 means unknown
    return g_last_generation;
}

// ---- clearing

// Byte by byte and only where needed: a late caller may be reading an in_use byte, and fresh pages stay untouched.
using Byte = Shared<uint8_t>;
void clear_bytes(Byte *from, const Byte *to)
{
    for (; from < to; ++from)
        if (*from != 0)
            *from = 0;
}

Byte *round_up(Byte *at, uintptr_t page)
{
    return at + (page - reinterpret_cast<uintptr_t>(at) % page) % page;
}

void clear_slots(netip_conn_t *begin, netip_conn_t *end)
{
    auto      *from  = reinterpret_cast<Byte *>(begin);
    auto      *to    = reinterpret_cast<Byte *>(end);
    const auto page  = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    Byte      *first = round_up(from, page);
    if (first < to) {
        Byte *last = to - reinterpret_cast<uintptr_t>(to) % page;
        if (first < last && madvise(first, static_cast<size_t>(last - first), MADV_DONTNEED) == 0) {
            clear_bytes(from, first);
            from = last;
        }
    }
    clear_bytes(from, to);
}

// Afterwards no thread is inside the slot's lock, and a thread that comes later sees that the slot is free, as all are
// by now. The read-modify-write orders this behind everything that leaving visitors did.
void await_visitors(SlotSide &side)
{
    while (side.visitors.fetch_add(0, std::memory_order_acq_rel) != 0)
        sched_yield();
}

// All of the slot but its lock, which the caller holds.
void clear_around_lock(netip_conn_t &slot)
{
    auto *end        = reinterpret_cast<uint8_t *>(&slot + 1);
    auto *behind     = reinterpret_cast<uint8_t *>(&slot.lock + 1);
    slot.handle      = 0;
    slot.type        = 0;
    slot.fd          = 0;
    slot.last_active = 0;
    memset(behind, 0, static_cast<size_t>(end - behind));
}

// As inet_ntop does, which spends a printf on it while others wait for g_netip_lock.
void write_address(char (&text)[NETIP_IP_CHARS + 1], const in_addr &address)
{
    uint8_t bytes[sizeof address];
    memcpy(bytes, &address, sizeof bytes);
    char *at = text;
    for (const uint8_t byte : bytes) {
        at    = std::to_chars(at, std::end(text), byte).ptr;
        *at++ = '.';
    }
    at[-1] = '\0';
}

// ---- memory of slots that nobody had before

constexpr uint32_t kPreparedSlots = 16;

constinit uint32_t g_prepared_end GUARDED_BY(g_netip_lock) = 0; // slots below have had their memory

// A look at such a slot and then a write to it are two page faults, and the second of them interrupts the other
// processors. So some slots get their pages by one call, where the kernel has it.
void prepare_slots(uint32_t from) REQUIRES(g_netip_lock)
{
    if (from < g_prepared_end || from >= NETIP_CLIENTS_MAX)
        return;
    g_prepared_end = std::min<uint32_t>(from + kPreparedSlots, NETIP_CLIENTS_MAX);
#ifdef MADV_POPULATE_WRITE
    const auto page  = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<uintptr_t>(g_netip_clients + from) / page * page;
    const auto end   = reinterpret_cast<uintptr_t>(g_netip_clients + g_prepared_end);
    (void)madvise(reinterpret_cast<void *>(begin), end - begin, MADV_POPULATE_WRITE);
#endif
}

void wipe_received(netip_conn_t &slot)
{
    memset(slot.rx_buf, 0, sizeof slot.rx_buf);
    slot.rx_len        = 0;
    slot.pkt_len       = 0;
    slot.pkt_len_known = 0;
}

} // namespace

// ---- guards

SlotLock::SlotLock(uint32_t handle, Entry entry) noexcept NO_LOCK_ANALYSIS : handle_(handle), inside_(false)
{
    if (handle >= NETIP_CLIENTS_MAX)
        return;
    SlotSide     &side = side_of(handle);
    netip_conn_t &slot = slot_of(handle);
    side.visitors.fetch_add(1, std::memory_order_acq_rel); // before the look at in_use: see await_visitors()
    if (entry == Always || peek_acquire(slot.in_use)) {
        slot.lock.lock();
        inside_ = entry == Always || slot.in_use;
        if (inside_)
            return;
        slot.lock.unlock();
    }
    side.visitors.fetch_sub(1, std::memory_order_acq_rel);
}

SlotLock::~SlotLock() NO_LOCK_ANALYSIS
{
    if (!inside_)
        return;
    slot_of(handle_).lock.unlock();
    side_of(handle_).visitors.fetch_sub(1, std::memory_order_acq_rel);
}

bool is_current(Connection connection) noexcept
{
    return connection.handle < NETIP_CLIENTS_MAX && peek_acquire(slot_of(connection.handle).in_use) &&
           side_of(connection.handle).generation == connection.generation;
}

SlotPin::SlotPin(Connection connection) noexcept
{
    SlotLock lock(connection.handle);
    if (!lock || !net::is_current(connection))
        return;
    side_of(connection.handle).pins.fetch_add(1, std::memory_order_relaxed);
    connection_ = connection;
}

SlotPin::~SlotPin()
{
    if (!*this)
        return;
    SlotSide &side = side_of(handle());
    SlotLock  lock(handle(), SlotLock::Always);
    if (!lock->in_use && side.pins.load(std::memory_order_relaxed) == 1) {
        wipe_received(*lock);
        drop_big_packet(handle());
    }
    side.pins.fetch_sub(1, std::memory_order_release); // from here on the slot may be handed out again
}

// ---- free and in use

Connection open_slot(uint32_t type, int fd, const PeerAddress &peer) noexcept
{
    prepare_slots(g_last_handle);
    const uint32_t handle = take_free_handle();
    if (handle == NETIP_NO_HANDLE)
        return {};
    SlotSide     &side = side_of(handle);
    SlotLock      lock(handle, SlotLock::Always);
    netip_conn_t &slot = *lock;
    clear_around_lock(slot);
    slot.handle      = handle;
    slot.type        = type;
    slot.fd          = fd;
    slot.last_active = wall_ms();
    slot.peer        = peer.address;
    slot.peer_len    = peer.length;
    slot.port        = ntohs(peer.address.sin_port);
    write_address(slot.ip, peer.address.sin_addr);

    side.wants_writable = 0;
    side.half_sent      = {};
    side.server         = Server::Rounds;
    side.unwatched      = 0;
    side.asks_about_all = 0;
    side.was_aside      = 0;
    side.front          = 0;
    side.pins.fetch_add(1, std::memory_order_relaxed);
    side.generation = next_generation();
    poke_release(slot.in_use, 1);
    return {handle, side.generation};
}

void mark_closed(uint32_t handle) noexcept
{
    poke_release(slot_of(handle).in_use, 0);
    side_of(handle).generation = 0;
}

void clear_table() noexcept
{
    g_prepared_end            = 0;
    netip_conn_t *const end   = g_netip_clients + NETIP_CLIENTS_MAX;
    netip_conn_t       *first = g_netip_clients; // of the slots to be cleared together
    for (uint32_t handle = 0; handle < NETIP_CLIENTS_MAX; ++handle) {
        await_visitors(side_of(handle));
        if (side_of(handle).pins.load(std::memory_order_acquire) == 0)
            continue;
        clear_slots(first, g_netip_clients + handle);
        first = g_netip_clients + handle + 1;
    }
    clear_slots(first, end);
}

} // namespace tarn::net
