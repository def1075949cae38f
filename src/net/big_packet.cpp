// big_packet.cpp - packets above NETIP_RX_SIZE, for the profile that has them.
//
// The slot's buffer holds NETIP_RX_SIZE bytes. A longer packet has memory of its own from when its length is known until
// it was handed up; slot.rx_len counts the bytes that are there, wherever they lie.
//
// With that profile, packets are handed up from where they lie in the buffer, and only what is left behind the last one is
// moved to its beginning. Natively each begins there, as hosts that look into the table know it.
#include "framing.h"
#include "netip_internal.h"

#include <cstdlib>
#include <cstring>

namespace tarn::net {
namespace {

constinit std::atomic<MeasureHook> g_measure{nullptr};

uint8_t *&big_of(const SlotPin &pin)
{
    return side_of(pin.handle()).big_packet;
}

uint32_t &front_of(const SlotPin &pin)
{
    return side_of(pin.handle()).front;
}

// A packet of no bytes is whole at once, and ends the connection.
void refuse(netip_conn_t &slot)
{
    slot.pkt_len       = 0;
    slot.pkt_len_known = 1;
}

void make_room(const SlotPin &pin)
{
    netip_conn_t &slot = pin.slot();
    auto *const   big  = static_cast<uint8_t *>(malloc(static_cast<size_t>(slot.pkt_len)));
    if (!big)
        return refuse(slot);
    memcpy(big, received_bytes(pin), static_cast<size_t>(slot.rx_len));
    big_of(pin)   = big;
    front_of(pin) = 0;
}

} // namespace

void set_measure_hook(MeasureHook hook) noexcept
{
    g_measure.store(hook, std::memory_order_release);
}

uint8_t *received_bytes(const SlotPin &pin) noexcept
{
    uint8_t *const big = big_of(pin);
    return big ? big : pin.slot().rx_buf + front_of(pin);
}

size_t room_for_more(const SlotPin &pin) noexcept
{
    const netip_conn_t &slot = pin.slot();
    return static_cast<size_t>(big_of(pin) ? slot.pkt_len - slot.rx_len : room_left(slot));
}

void measure(const SlotPin &pin) noexcept
{
    netip_conn_t     &slot = pin.slot();
    const MeasureHook hook = g_measure.load(std::memory_order_acquire);
    if (!hook)
        return (void)find_packet_length(slot);
    if (slot.pkt_len_known || slot.rx_len == 0)
        return;
    const Measured packet = hook(pin.connection(), {received_bytes(pin), static_cast<size_t>(slot.rx_len)});
    if (packet.is_refused)
        return refuse(slot);
    if (packet.length == 0)
        return;
    slot.pkt_len       = static_cast<int32_t>(packet.length);
    slot.pkt_len_known = 1;
    if (slot.pkt_len > NETIP_RX_SIZE)
        make_room(pin);
}

void drop_packet(const SlotPin &pin) noexcept
{
    netip_conn_t &slot = pin.slot();
    if (big_of(pin)) {
        drop_big_packet(pin.handle());
        slot.rx_len        = 0;
        slot.pkt_len_known = 0;
        return;
    }
    if (!g_measure.load(std::memory_order_acquire))
        return next_packet(slot);
    slot.rx_len -= slot.pkt_len;
    front_of(pin)      = slot.rx_len > 0 ? front_of(pin) + static_cast<uint32_t>(slot.pkt_len) : 0;
    slot.pkt_len_known = 0;
    measure(pin);
}

void move_to_front(const SlotPin &pin) noexcept
{
    netip_conn_t &slot = pin.slot();
    if (const uint32_t from = std::exchange(front_of(pin), 0); from > 0)
        memmove(slot.rx_buf, slot.rx_buf + from, static_cast<size_t>(slot.rx_len));
}

void drop_big_packet(uint32_t handle) noexcept
{
    free(std::exchange(side_of(handle).big_packet, nullptr));
}

} // namespace tarn::net
