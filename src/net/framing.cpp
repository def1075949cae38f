// framing.cpp - see framing.h.
#include "framing.h"

#include <cstring>

namespace tarn::net {
namespace {

constexpr int kLengthBytes_max = 4;
constexpr int kHeader_min      = 2; // first byte and one length byte

} // namespace

int room_left(const netip_conn_t &slot) noexcept
{
    return NETIP_RX_SIZE - slot.rx_len;
}

// first-byte:u8  remaining-length:1..4 bytes of 7 bits, low bits first, the high bit set on all but the last
//
// QUIRK(late-bad-length): a length with a fifth byte is not refused when it is seen, and a length written with more
// bytes than it needs is accepted. Against "the encoded value MUST use the minimum number of bytes" [MQTT-1.5.5-1]
// and the close on malformed packets [MQTT-4.13.1-1]; it stays because the full buffer ends such a stream, and no
// bytes of it are ever delivered.
//   standard profile: lifted (strictness): 3.1.1 does not forbid longer forms of a length, so they pass there
//   test: framing.five_length_bytes_are_never_decoded
bool find_packet_length(netip_conn_t &slot) noexcept
{
    if (slot.pkt_len_known)
        return true;
    if (slot.rx_len < kHeader_min)
        return false;
    int remaining = 0;
    for (int i = 0; i < kLengthBytes_max; ++i) {
        if (1 + i >= slot.rx_len)
            return false;
        const uint8_t byte = slot.rx_buf[1 + i];
        remaining |= (byte & 0x7F) << (7 * i);
        if (byte < 0x80) {
            slot.pkt_len       = 1 + (i + 1) + remaining;
            slot.pkt_len_known = 1;
            return true;
        }
    }
    return false;
}

bool packet_is_whole(const netip_conn_t &slot) noexcept
{
    return slot.pkt_len_known && slot.pkt_len <= slot.rx_len;
}

void next_packet(netip_conn_t &slot) noexcept
{
    const int rest = slot.rx_len - slot.pkt_len;
    if (rest > 0)
        memmove(slot.rx_buf, slot.rx_buf + slot.pkt_len, static_cast<size_t>(rest));
    slot.rx_len        = rest;
    slot.pkt_len_known = 0;
    (void)find_packet_length(slot);
}

} // namespace tarn::net
