// framing.h - cutting the byte stream of one connection into whole MQTT packets, in place.
//
// The bytes held stand in rx_buf[0 .. rx_len), the next packet first. Nothing here touches a socket or a lock: the
// buffer belongs to the calling thread.
#ifndef TARN_NET_FRAMING_H
#define TARN_NET_FRAMING_H

#include "netip_types.h"

namespace tarn::net {

// Room for more bytes; 0 once a packet that can never fit has filled the buffer.
int room_left(const netip_conn_t &slot) noexcept;

// Looks for the length of the packet at the front, unless it is known. True when it is known now.
bool find_packet_length(netip_conn_t &slot) noexcept;

// The packet at the front has arrived whole.
bool packet_is_whole(const netip_conn_t &slot) noexcept;

// Drops the whole packet at the front, moves the rest up and looks for the next length.
void next_packet(netip_conn_t &slot) noexcept;

} // namespace tarn::net

#endif
