// connect_will.h - the will in a CONNECT packet, found and taken out, and what it says of its session. Bytes only; nothing
// is decided here.
//
// The packet is read exactly as the library's decoder reads it, its leniences included, or a will could be seen here
// in one way and be kept there in another: tests hold the two against each other.
#ifndef TARN_BROKER_ACCESS_CONNECT_WILL_H
#define TARN_BROKER_ACCESS_CONNECT_WILL_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tarn::broker {

struct ConnectWill {
    std::string client_id, user, topic; // as the library hands them on: a NUL ends them
    size_t      body;                   // offsets in the packet: behind its remaining length
    size_t      flags;
    size_t      begin, end; // of the will's properties, topic and payload
};

constexpr uint8_t kConnect = 0x10; // its first byte

inline bool is_connect(std::span<const uint8_t> packet)
{
    return !packet.empty() && packet[0] == kConnect;
}

// Whether it is a CONNECT that says that it leaves a will. One that is refused may read either way.
bool has_will_flag(std::span<const uint8_t> packet);

// Nothing when the packet is no CONNECT, leaves no will, or is one that the library refuses.
std::optional<ConnectWill> find_will(std::span<const uint8_t> packet);

// Whether it is a CONNECT that asks for its session to outlive the connection.
bool keeps_session(std::span<const uint8_t> packet);

// The same of a packet of the standard profile. One that is refused may read either way.
bool keeps_standard_session(std::span<const uint8_t> packet);

// The same CONNECT without its will.
std::vector<uint8_t> without_will(std::span<const uint8_t> packet, const ConnectWill &will);

} // namespace tarn::broker

#endif
