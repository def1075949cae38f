// limits.h - how much the standard profile keeps for its clients. A host may set each of them before it starts.
#ifndef TARN_STANDARD_LIMITS_H
#define TARN_STANDARD_LIMITS_H

#include <cstddef>
#include <cstdint>

namespace tarn::standard {

struct Limits {
    uint32_t max_packet_size = 10 << 20; // bytes of a packet that a client sends

    // Of one session
    size_t   queued_messages        = 100'000;          // QoS 1 and 2, those on the way too
    size_t   queued_bytes           = size_t{64} << 20; // of memory
    size_t   qos0_messages          = 100'000;          // that wait for a slow reader
    size_t   qos0_bytes             = size_t{64} << 20;
    size_t   wildcard_subscriptions = 1'000; // each costs every publication a look
    size_t   subscriptions          = 10'000;
    uint16_t receive_maximum        = 1'000;      // publications at QoS 2 that a client may have open
    uint32_t session_expiry_max_s   = 0xFFFFFFFF; // for ever

    // Of all
    size_t sessions          = 100'000; // that are kept when their clients go
    size_t retained_messages = 100'000;
    size_t retained_bytes    = size_t{256} << 20; // of memory

    uint32_t connect_timeout_ms = 30'000; // in which a new connection must say CONNECT
};

} // namespace tarn::standard

#endif
