// packet_type.h - the MQTT control packet types, as the high four bits of a packet's first byte (MQTT 2.1.2).
#ifndef TARN_CODEC_PACKET_TYPE_H
#define TARN_CODEC_PACKET_TYPE_H

#include <cstdint>

namespace tarn {

enum PacketType : uint8_t {
    CONNECT     = 1,
    CONNACK     = 2,
    PUBLISH     = 3,
    PUBACK      = 4,
    PUBREC      = 5,
    PUBREL      = 6,
    PUBCOMP     = 7,
    SUBSCRIBE   = 8,
    SUBACK      = 9,
    UNSUBSCRIBE = 10,
    UNSUBACK    = 11,
    PINGREQ     = 12,
    PINGRESP    = 13,
    DISCONNECT  = 14
};

} // namespace tarn

#endif
