// encoding.h - how packets are encoded.
#ifndef TARN_CODEC_STANDARD_ENCODING_H
#define TARN_CODEC_STANDARD_ENCODING_H

#include "packets.h"
#include "writer.h"

namespace tarn::codec::standard {

// The whole packet for a body of this size; 0 if the receiver does not take as much, or nobody does.
[[nodiscard]] constexpr size_t packet_size(size_t body, const Receiver &receiver) noexcept
{
    if (body > kVarintMax)
        return 0;
    const size_t size = 1 + varint_size(body) + body;
    return size <= receiver.maximum_packet_size ? size : 0;
}

// length:varint properties
// Of which `behind` bytes more stand behind those that are written here.
void write_properties(Writer &out, const Properties &properties, PacketType packet) noexcept;
// The same where their size is known.
void write_properties(Writer &out, const Properties &properties, PacketType packet, size_t size,
                      size_t behind) noexcept;

// How a packet is written that carries a reason: all but PUBLISH. Where a level does not have it, `write_body` refuses.
//
// Reason String and User Properties of an answer are only told if the packet is within the receiver's maximum with them
// [MQTT-3.2.2-19] [MQTT-3.4.2-2] [MQTT-3.9.2-1] [MQTT-3.14.2-3] and the like.
template <class Packet> struct AnswerForm {
    uint8_t (*first_byte)(const Packet &packet);
    void (*write_body)(Writer &out, const Packet &packet, Level level);

    size_t size_of(const Packet &packet, const Receiver &receiver) const noexcept
    {
        const size_t size = packet_size(body_size(packet, receiver), receiver);
        return size == 0 && has_diagnostics(packet) ? size_of(without_diagnostics(packet), receiver) : size;
    }

    size_t encode(const Packet &packet, const Receiver &receiver, std::span<uint8_t> to) const noexcept
    {
        const size_t body = body_size(packet, receiver);
        const size_t size = packet_size(body, receiver);
        if (size == 0 && has_diagnostics(packet))
            return encode(without_diagnostics(packet), receiver, to);
        if (size == 0 || size > to.size())
            return 0;
        Writer out(to);
        write_body(out.u8(first_byte(packet)).varint(body), packet, receiver.level);
        return size;
    }

private:
    size_t body_size(const Packet &packet, const Receiver &receiver) const
    {
        Writer counter;
        write_body(counter, packet, receiver.level);
        return counter.size();
    }
    static bool has_diagnostics(const Packet &packet)
    {
        return packet.properties.reason_string || !packet.properties.user_properties.empty();
    }
    static Packet without_diagnostics(Packet packet)
    {
        packet.properties.reason_string.reset();
        packet.properties.user_properties = {};
        return packet;
    }
};

} // namespace tarn::codec::standard

#endif
