// decoding.cpp - the fixed header and the packet identifier.
#include "decoding.h"

namespace tarn::codec::standard {

Reader open_packet(Bytes packet, PacketType type, Level level) noexcept
{
    Reader        in(packet);
    const uint8_t first  = in.u8();
    const Varint  length = parse_varint(in.rest());
    in.refuse(check_first_byte(first, level));
    if (type_of(first) != type)
        in.refuse(Reason::ProtocolError, "a packet of another type");
    in.bytes(length.bytes);
    if (length.state != Varint::Complete || length.value != in.rest().size())
        in.refuse(Reason::MalformedPacket, "the packet is not as long as its remaining length says");
    if (level == Level::Mqtt5 && !length.is_shortest())
        in.refuse(Reason::MalformedPacket, "the remaining length is not in its shortest form");
    return in;
}

uint16_t read_packet_id(Reader &in) noexcept
{
    const uint16_t id = in.u16();
    if (id == 0)
        in.refuse(Reason::ProtocolError, "the packet identifier is 0");
    return id;
}

} // namespace tarn::codec::standard
