// packets.h - what a client writes: whole packets at protocol level 4 or 5.
#ifndef TARN_TESTS_WIRE_PACKETS_H
#define TARN_TESTS_WIRE_PACKETS_H

#include "support/wire.h"

#include <optional>
#include <string>
#include <string_view>

namespace tarn::test {

struct Will {
    std::string topic;
    std::string payload;
    unsigned    qos        = 0;
    bool        retain     = false;
    Bytes       properties = {}; // level 5 only, without their length
};

struct Connect {
    bool                       clean            = true;
    unsigned                   keep_alive_s     = 60;
    uint32_t                   max_packet_size  = 4096; // level 5 only, 0 = not sent
    std::optional<uint32_t>    session_expiry_s = {};   // level 5 only
    std::optional<Will>        will             = {};
    std::optional<std::string> username         = {};
    std::optional<std::string> password         = {};
    bool                       session_present  = false; // what the CONNACK is to say
};

struct Publish {
    unsigned qos        = 0;
    bool     retain     = false;
    bool     dup        = false;
    unsigned id         = 1;
    Bytes    properties = {}; // level 5 only, without their length
};

Bytes connect_packet(unsigned level, std::string_view client_id, const Connect &options = {});
Bytes connack_packet(unsigned level, const Connect &options); // what a broker answers to that
Bytes publish_packet(unsigned level, std::string_view topic, const Bytes &payload, const Publish &options = {});
Bytes publish_packet(unsigned level, std::string_view topic, std::string_view payload, const Publish &options = {});
Bytes subscribe_packet(unsigned level, unsigned id, std::string_view filter, unsigned qos);
Bytes unsubscribe_packet(unsigned level, unsigned id, std::string_view filter);
Bytes ack_packet(unsigned level, uint8_t first, unsigned id); // PUBACK 0x40, PUBREC 0x50, PUBREL 0x62, PUBCOMP 0x70
Bytes disconnect_packet(unsigned level);

// Length of the packet at the front, 0 while it is not complete.
size_t packet_size(const uint8_t *bytes, size_t count);

} // namespace tarn::test

#endif
