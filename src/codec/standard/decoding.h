// decoding.h - what decoders share.
#ifndef TARN_CODEC_STANDARD_DECODING_H
#define TARN_CODEC_STANDARD_DECODING_H

#include "framing.h"
#include "properties.h"
#include "reader.h"

namespace tarn::codec::standard {

// A reader of the packet's body; its fixed header was checked. It has refused another type, wrong flags, another length
// than the packet's, and at 5.0 one that is not in its shortest form [MQTT-1.5.5-1].
Reader open_packet(Bytes packet, PacketType type, Level level) noexcept;

// Not 0 [MQTT-2.2.1-3], 3.1.1 [MQTT-2.3.1-1].
uint16_t read_packet_id(Reader &in) noexcept;

// length:varint properties. False: there are none, and `properties` stay as they are.
bool read_properties(Reader &in, PacketType packet, Properties &properties) noexcept;

} // namespace tarn::codec::standard

#endif
