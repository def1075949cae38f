#include "packets.h"

namespace tarn::test {
namespace {

Bytes u32(uint32_t value)
{
    return u16(value >> 16) + u16(value & 0xFFFF);
}

Bytes block(const Bytes &properties) // length and properties; all that tests send are shorter than 128 bytes
{
    return Bytes{static_cast<uint8_t>(properties.size())} + properties;
}

Bytes level5(unsigned level, const Bytes &bytes)
{
    return level == 5 ? bytes : Bytes{};
}

uint8_t connect_flags(const Connect &options)
{
    unsigned flags = options.clean ? 0x02 : 0;
    if (options.will)
        flags |= 0x04 | options.will->qos << 3 | (options.will->retain ? 0x20 : 0);
    return static_cast<uint8_t>(flags | (options.username ? 0x80 : 0) | (options.password ? 0x40 : 0));
}

Bytes connect_properties(const Connect &options)
{
    Bytes properties;
    if (options.session_expiry_s)
        properties = properties + wire("11") + u32(*options.session_expiry_s);
    if (options.max_packet_size)
        properties = properties + wire("27") + u32(options.max_packet_size);
    return properties;
}

} // namespace

Bytes connect_packet(unsigned level, std::string_view client_id, const Connect &options)
{
    Bytes body = wire("00 04 'MQTT'") + Bytes{static_cast<uint8_t>(level), connect_flags(options)} +
                 u16(options.keep_alive_s) + level5(level, block(connect_properties(options))) + prefixed(client_id);
    if (options.will)
        body = body + level5(level, block(options.will->properties)) + prefixed(options.will->topic) +
               prefixed(options.will->payload);
    if (options.username)
        body = body + prefixed(*options.username);
    if (options.password)
        body = body + prefixed(*options.password);
    return packet(0x10, body);
}

Bytes connack_packet(unsigned level, const Connect &options)
{
    const Bytes present = {static_cast<uint8_t>(options.session_present)};
    if (level == 4)
        return wire("20 02") + present + wire("00");
    const uint32_t granted = options.max_packet_size < 256 ? 256 : options.max_packet_size;
    return wire("20 0B") + present + wire("00 | 08 | 21 00 00 | 27") + u32(granted);
}

Bytes publish_packet(unsigned level, std::string_view topic, const Bytes &payload, const Publish &options)
{
    const unsigned first = 0x30 | (options.dup ? 8 : 0) | options.qos << 1 | (options.retain ? 1 : 0);
    return packet(static_cast<uint8_t>(first), prefixed(topic) + (options.qos ? u16(options.id) : Bytes{}) +
                                                   level5(level, block(options.properties)) + payload);
}

Bytes publish_packet(unsigned level, std::string_view topic, std::string_view payload, const Publish &options)
{
    return publish_packet(level, topic, text(payload), options);
}

Bytes subscribe_packet(unsigned level, unsigned id, std::string_view filter, unsigned qos)
{
    return packet(0x82, u16(id) + level5(level, wire("00")) + prefixed(filter) + Bytes{static_cast<uint8_t>(qos)});
}

Bytes unsubscribe_packet(unsigned level, unsigned id, std::string_view filter)
{
    return packet(0xA2, u16(id) + level5(level, wire("00")) + prefixed(filter));
}

Bytes ack_packet(unsigned level, uint8_t first, unsigned id)
{
    return packet(first, u16(id) + level5(level, wire("00")));
}

Bytes disconnect_packet(unsigned level)
{
    return level == 5 ? wire("E0 02 | 00 00") : wire("E0 00");
}

size_t packet_size(const uint8_t *bytes, size_t count)
{
    size_t remaining = 0;
    for (size_t i = 1; i < count && i <= 4; ++i) {
        remaining |= static_cast<size_t>(bytes[i] & 0x7F) << (7 * (i - 1));
        if (bytes[i] < 0x80)
            return 1 + i + remaining <= count ? 1 + i + remaining : 0;
    }
    return 0;
}

} // namespace tarn::test
