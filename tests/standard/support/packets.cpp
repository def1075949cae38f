#include "packets.h"

#include <algorithm>

namespace tarn::conformance {

namespace {

enum class Kind { None, Byte, Two, Four, Varint, Text, Binary, Pair };

Kind kind_of(unsigned id)
{
    switch (id) {
    case PayloadFormat:
    case RequestProblem:
    case RequestResponse:
    case MaximumQos:
    case RetainAvailable:
    case WildcardAvailable:
    case SubIdAvailable:
    case SharedAvailable:
        return Kind::Byte;
    case ServerKeepAlive:
    case ReceiveMaximum:
    case AliasMaximum:
    case Alias:
        return Kind::Two;
    case MessageExpiry:
    case SessionExpiry:
    case WillDelay:
    case MaximumPacketSize:
        return Kind::Four;
    case SubscriptionId:
        return Kind::Varint;
    case ContentType:
    case ResponseTopic:
    case AssignedClientId:
    case AuthMethod:
    case ResponseInformation:
    case ServerReference:
    case ReasonString:
        return Kind::Text;
    case CorrelationData:
    case AuthData:
        return Kind::Binary;
    case UserProperty:
        return Kind::Pair;
    default:
        return Kind::None;
    }
}

// The properties that a broker may send in a packet of this type (5.0, 2.2.2.2).
std::vector<uint8_t> allowed_in(unsigned type)
{
    switch (type) {
    case CONNACK:
        return {SessionExpiry,   AssignedClientId,    ServerKeepAlive, AuthMethod,   AuthData,
                ReasonString,    ResponseInformation, ServerReference, AliasMaximum, ReceiveMaximum,
                RetainAvailable, MaximumPacketSize,   MaximumQos,      UserProperty, WildcardAvailable,
                SubIdAvailable,  SharedAvailable};
    case PUBLISH:
        return {PayloadFormat,   MessageExpiry, ContentType,  ResponseTopic,
                CorrelationData, Alias,         UserProperty, SubscriptionId};
    case DISCONNECT: // [MQTT-3.14.2-2]: no Session Expiry Interval
        return {ReasonString, ServerReference, UserProperty};
    case AUTH:
        return {AuthMethod, AuthData, ReasonString, UserProperty};
    default:
        return {ReasonString, UserProperty};
    }
}

// Reads fields one after the other; `fault` says what was wrong first.
class Fields {
public:
    Fields(const Bytes &bytes, size_t at, size_t end) : bytes_(bytes), at_(at), end_(end) {}

    unsigned u8() { return has(1) ? bytes_[at_++] : 0; }
    unsigned u16() { return u8() << 8 | u8(); }
    uint32_t u32() { return uint32_t{u16()} << 16 | u16(); }
    uint32_t varint()
    {
        uint32_t value = 0;
        for (unsigned shift = 0; shift < 28; shift += 7) {
            const unsigned byte = u8();
            value |= (byte & 0x7FU) << shift;
            if (byte < 0x80) {
                if (shift && !byte)
                    refuse("a number in more bytes than it needs");
                return value;
            }
        }
        refuse("a number in more than four bytes");
        return 0;
    }
    std::string bytes(size_t count)
    {
        if (!has(count))
            return {};
        const std::string out(bytes_.begin() + static_cast<long>(at_), bytes_.begin() + static_cast<long>(at_ + count));
        at_ += count;
        return out;
    }
    std::string text() { return bytes(u16()); }
    size_t      left() const { return end_ - at_; }
    void        end()
    {
        if (left())
            refuse("bytes behind its end");
    }
    void refuse(const std::string &why)
    {
        if (fault_.empty())
            fault_ = why;
        at_ = end_;
    }
    const std::string &fault() const { return fault_; }

    Properties properties(unsigned type)
    {
        const size_t length = varint();
        if (!has(length))
            return {};
        Properties                 out;
        Fields                     in(bytes_, at_, at_ + length);
        const std::vector<uint8_t> allowed = allowed_in(type);
        while (in.left()) {
            const Property one  = in.property();
            const bool     many = one.id == UserProperty || (one.id == SubscriptionId && type == PUBLISH);
            if (std::ranges::find(allowed, one.id) == allowed.end())
                in.refuse("a property that does not belong there");
            if (!many && out.has(static_cast<PropertyId>(one.id)))
                in.refuse("a property twice");
            out.all.push_back(one);
        }
        at_ += length;
        if (!in.fault().empty())
            refuse(in.fault());
        return out;
    }

private:
    bool has(size_t count)
    {
        if (left() >= count)
            return true;
        refuse("too short");
        return false;
    }
    Property property()
    {
        Property out{.id = static_cast<uint8_t>(u8())};
        switch (kind_of(out.id)) {
        case Kind::Byte:
            out.number = u8();
            break;
        case Kind::Two:
            out.number = u16();
            break;
        case Kind::Four:
            out.number = u32();
            break;
        case Kind::Varint:
            out.number = varint();
            break;
        case Kind::Text:
        case Kind::Binary:
            out.text = text();
            break;
        case Kind::Pair:
            out.text  = text();
            out.value = text();
            break;
        case Kind::None:
            refuse("an unknown property");
        }
        return out;
    }

    const Bytes &bytes_;
    size_t       at_, end_;
    std::string  fault_;
};

void parse_publish(unsigned level, Fields &in, Received &out)
{
    const unsigned flags = out.whole[0] & 0xFU;
    out.dup              = flags & 8;
    out.qos              = flags >> 1 & 3;
    out.retain           = flags & 1;
    out.topic            = in.text();
    if (out.qos == 3 || (out.dup && !out.qos))
        in.refuse("flags");
    if (out.qos && !(out.id = in.u16()))
        in.refuse("identifier 0");
    if (level == 5)
        out.properties = in.properties(PUBLISH);
    out.payload = in.bytes(in.left());
}

void parse_connack(unsigned level, Fields &in, Received &out)
{
    const unsigned flags = in.u8();
    out.session_present  = flags & 1;
    out.reason           = in.u8();
    if (flags > 1 || (out.reason && out.session_present)) // [MQTT-3.2.2-1] [MQTT-3.2.2-6]
        in.refuse("flags");
    if (level == 5)
        out.properties = in.properties(CONNACK);
    in.end();
}

// Reason and properties may be left out at 5.0 where they say nothing.
void parse_reason(unsigned level, Fields &in, Received &out)
{
    if (level == 5 && in.left())
        out.reason = in.u8();
    if (level == 5 && in.left())
        out.properties = in.properties(out.type);
    in.end();
}

void parse_codes(unsigned level, Fields &in, Received &out)
{
    out.id = in.u16();
    if (level == 5)
        out.properties = in.properties(out.type);
    const std::string codes = in.bytes(in.left());
    out.reasons             = {codes.begin(), codes.end()};
}

} // namespace

// ---- properties

Bytes property(PropertyId id, uint32_t value)
{
    switch (kind_of(id)) {
    case Kind::Byte:
        return {id, static_cast<uint8_t>(value)};
    case Kind::Two:
        return Bytes{id} + u16(value);
    case Kind::Varint:
        return Bytes{id} + varint(value);
    default:
        return Bytes{id} + u16(value >> 16) + u16(value & 0xFFFF);
    }
}
Bytes property(PropertyId id, std::string_view value)
{
    return Bytes{id} + prefixed(value);
}
Bytes user(std::string_view name, std::string_view value)
{
    return Bytes{UserProperty} + prefixed(name) + prefixed(value);
}

bool Properties::has(PropertyId id) const
{
    return std::ranges::find(all, id, &Property::id) != all.end();
}
std::optional<uint32_t> Properties::number(PropertyId id) const
{
    const auto found = std::ranges::find(all, id, &Property::id);
    return found == all.end() ? std::nullopt : std::optional(found->number);
}
std::optional<std::string> Properties::text(PropertyId id) const
{
    const auto found = std::ranges::find(all, id, &Property::id);
    return found == all.end() ? std::nullopt : std::optional(found->text);
}
std::vector<uint32_t> Properties::numbers(PropertyId id) const
{
    std::vector<uint32_t> out;
    for (const Property &one : all)
        if (one.id == id)
            out.push_back(one.number);
    std::ranges::sort(out);
    return out;
}

std::string Properties::printed() const
{
    std::vector<Property> sorted = all;
    std::ranges::stable_sort(
        sorted, {}, [](const Property &one) { return std::pair(one.id == UserProperty ? 0xFF : one.id, one.number); });
    std::string out;
    for (const Property &one : sorted) {
        out += out.empty() ? "" : " ";
        const uint8_t id   = one.id;
        const Kind    kind = kind_of(id);
        if (kind == Kind::Pair)
            out += "user " + one.text + "=" + one.value;
        else
            out += test::hex(&id, 1) + "=" +
                   (kind == Kind::Text || kind == Kind::Binary ? one.text : std::to_string(one.number));
    }
    return out;
}

// ---- building

Bytes varint(size_t value)
{
    Bytes out;
    for (; value > 0x7F; value >>= 7)
        out.push_back(static_cast<uint8_t>(value | 0x80));
    out.push_back(static_cast<uint8_t>(value));
    return out;
}

Bytes block(unsigned level, const Bytes &properties)
{
    return level == 5 ? varint(properties.size()) + properties : Bytes{};
}

Bytes connect_packet(unsigned level, std::string_view id, const Connect &options)
{
    unsigned flags = options.clean ? 2 : 0;
    if (options.will)
        flags |= 4U | options.will->qos << 3 | (options.will->retain ? 0x20U : 0U);
    flags |= (options.user_name ? 0x80U : 0U) | (options.password ? 0x40U : 0U);
    Bytes body = prefixed("MQTT") + Bytes{static_cast<uint8_t>(level), static_cast<uint8_t>(flags)} +
                 u16(options.keep_alive_s) + block(level, options.properties) + prefixed(id);
    if (options.will)
        body = body + block(level, options.will->properties) + prefixed(options.will->topic) +
               prefixed(options.will->payload);
    if (options.user_name)
        body = body + prefixed(*options.user_name);
    if (options.password)
        body = body + prefixed(*options.password);
    return packet(0x10, body);
}

Bytes publish_packet(unsigned level, std::string_view topic, std::string_view payload, const Publish &options)
{
    const unsigned flags = (options.dup ? 8U : 0U) | options.qos << 1 | (options.retain ? 1U : 0U);
    return packet(static_cast<uint8_t>(PUBLISH << 4 | flags), prefixed(topic) +
                                                                  (options.qos ? u16(options.id) : Bytes{}) +
                                                                  block(level, options.properties) + text(payload));
}

Bytes subscribe_packet(unsigned level, unsigned id, const std::vector<Filter> &filters, const Bytes &properties)
{
    Bytes body = u16(id) + block(level, properties);
    for (const Filter &filter : filters)
        body = body + prefixed(filter.text) + Bytes{static_cast<uint8_t>(filter.options)};
    return packet(0x82, body);
}

Bytes unsubscribe_packet(unsigned level, unsigned id, const std::vector<std::string> &filters, const Bytes &properties)
{
    Bytes body = u16(id) + block(level, properties);
    for (const std::string &filter : filters)
        body = body + prefixed(filter);
    return packet(0xA2, body);
}

Bytes ack_packet(Type type, unsigned id, unsigned reason, const Bytes &properties)
{
    const auto first = static_cast<uint8_t>(type << 4 | (type == PUBREL ? 2U : 0U));
    if (!reason && properties.empty())
        return packet(first, u16(id));
    return packet(first, u16(id) + Bytes{static_cast<uint8_t>(reason)} +
                             (properties.empty() ? Bytes{} : block(5, properties)));
}

// ---- taking apart

Received parse(unsigned level, const Bytes &bytes)
{
    Received out{.type = bytes.empty() ? 0U : bytes[0] >> 4U, .whole = bytes};
    if (bytes.empty())
        return out;
    Fields         in(bytes, 1, bytes.size());
    const size_t   length = in.varint();
    const unsigned flags = bytes[0] & 0xFU, wanted = out.type == PUBREL ? 2 : 0;
    if (in.left() != length)
        in.refuse("remaining length");
    if (out.type != PUBLISH && flags != wanted)
        in.refuse("flags");
    switch (out.type) {
    case CONNACK:
        parse_connack(level, in, out);
        break;
    case PUBLISH:
        parse_publish(level, in, out);
        break;
    case PUBACK:
    case PUBREC:
    case PUBREL:
    case PUBCOMP:
        out.id = in.u16();
        parse_reason(level, in, out);
        break;
    case SUBACK:
        parse_codes(level, in, out);
        break;
    case UNSUBACK:
        parse_codes(level, in, out);
        if (level == 4 && !out.reasons.empty())
            in.refuse("codes");
        break;
    case PINGRESP:
        in.end();
        break;
    case DISCONNECT:
    case AUTH:
        if (level == 4)
            in.refuse("not of 3.1.1");
        parse_reason(level, in, out);
        break;
    default:
        in.refuse("not of a broker");
    }
    out.fault = in.fault();
    if (!out.fault.empty())
        out.type = 0;
    return out;
}

} // namespace tarn::conformance
