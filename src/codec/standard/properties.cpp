// properties.cpp - the one table of the 27 properties, and a block's way in and out along it.
#include "decoding.h"
#include "encoding.h"
#include "topic.h"

#include <array>

namespace tarn::codec::standard {

// ---- the table

namespace {

enum class Type : uint8_t { Byte, U16, U32, Varint, Text, Binary, TextPair };

constexpr uint8_t kUserProperty           = 0x26;
constexpr uint8_t kSubscriptionIdentifier = 0x0B;
constexpr uint8_t kPropertyMax            = 0x2A;

using P = Properties;

struct PropertyRow {
    uint8_t   id;
    Type      type;
    PacketSet packets;
    P::Number P::*number = nullptr;
    P::Text P::*text     = nullptr;
    P::Binary P::*binary = nullptr;
    uint32_t      least  = 0; // of a number
    uint32_t      most   = UINT32_MAX;
};

constexpr PropertyRow flag(uint8_t id, P::Number P::*field, PacketSet in)
{
    return {.id = id, .type = Type::Byte, .packets = in, .number = field, .most = 1};
}
constexpr PropertyRow u16(uint8_t id, P::Number P::*field, PacketSet in, uint32_t least = 0)
{
    return {.id = id, .type = Type::U16, .packets = in, .number = field, .least = least, .most = UINT16_MAX};
}
constexpr PropertyRow u32(uint8_t id, P::Number P::*field, PacketSet in, uint32_t least = 0)
{
    return {.id = id, .type = Type::U32, .packets = in, .number = field, .least = least};
}
constexpr PropertyRow varint(uint8_t id, P::Number P::*field, PacketSet in, uint32_t least)
{
    return {.id = id, .type = Type::Varint, .packets = in, .number = field, .least = least, .most = kVarintMax};
}
constexpr PropertyRow text(uint8_t id, P::Text P::*field, PacketSet in)
{
    return {.id = id, .type = Type::Text, .packets = in, .text = field};
}
constexpr PropertyRow binary(uint8_t id, P::Binary P::*field, PacketSet in)
{
    return {.id = id, .type = Type::Binary, .packets = in, .binary = field};
}

constexpr PacketSet kMessage = packets(PUBLISH, WILL);
constexpr PacketSet kBoth    = packets(CONNECT, CONNACK);
constexpr PacketSet kAnswers = packets(CONNACK, PUBACK, PUBREC, PUBREL, PUBCOMP, SUBACK, UNSUBACK, DISCONNECT, AUTH);
constexpr PacketSet kAll     = kAnswers | kMessage | packets(CONNECT, SUBSCRIBE, UNSUBSCRIBE);

// 5.0 2.2.2.2, and the value rules of each property's chapter.
constexpr PropertyRow kProperties[] = {
    flag(0x01, &P::payload_format, kMessage),
    u32(0x02, &P::message_expiry, kMessage),
    text(0x03, &P::content_type, kMessage),
    text(0x08, &P::response_topic, kMessage),
    binary(0x09, &P::correlation_data, kMessage),
    varint(kSubscriptionIdentifier, &P::subscription_identifier, packets(PUBLISH, SUBSCRIBE), 1),
    u32(0x11, &P::session_expiry, kBoth | packets(DISCONNECT)),
    text(0x12, &P::assigned_client_id, packets(CONNACK)),
    u16(0x13, &P::server_keep_alive, packets(CONNACK)),
    text(0x15, &P::authentication_method, kBoth | packets(AUTH)),
    binary(0x16, &P::authentication_data, kBoth | packets(AUTH)),
    flag(0x17, &P::request_problem_information, packets(CONNECT)),
    u32(0x18, &P::will_delay, packets(WILL)),
    flag(0x19, &P::request_response_information, packets(CONNECT)),
    text(0x1A, &P::response_information, packets(CONNACK)),
    text(0x1C, &P::server_reference, packets(CONNACK, DISCONNECT)),
    text(0x1F, &P::reason_string, kAnswers),
    u16(0x21, &P::receive_maximum, kBoth, 1),
    u16(0x22, &P::topic_alias_maximum, kBoth),
    u16(0x23, &P::topic_alias, packets(PUBLISH), 1),
    flag(0x24, &P::maximum_qos, packets(CONNACK)),
    flag(0x25, &P::retain_available, packets(CONNACK)),
    {.id = kUserProperty, .type = Type::TextPair, .packets = kAll},
    u32(0x27, &P::maximum_packet_size, kBoth, 1),
    flag(0x28, &P::wildcard_subscription_available, packets(CONNACK)),
    flag(0x29, &P::subscription_identifier_available, packets(CONNACK)),
    flag(0x2A, &P::shared_subscription_available, packets(CONNACK)),
};
static_assert(std::size(kProperties) == 27);

constexpr auto kRowOfId = [] {
    std::array<const PropertyRow *, kPropertyMax + 1> rows = {};
    for (const PropertyRow &row : kProperties)
        rows[row.id] = &row;
    return rows;
}();

const PropertyRow *row_of(uint32_t id)
{
    return id <= kPropertyMax ? kRowOfId[id] : nullptr;
}

// The rows of what each packet may have.
struct PacketRows {
    size_t             count                        = 0;
    const PropertyRow *rows[std::size(kProperties)] = {};
};
constexpr auto kRowsOfPacket = [] {
    std::array<PacketRows, AUTH + 1> packets = {};
    for (unsigned packet = 0; packet <= AUTH; ++packet)
        for (const PropertyRow &row : kProperties)
            if (contains(row.packets, static_cast<PacketType>(packet)))
                packets[packet].rows[packets[packet].count++] = &row;
    return packets;
}();

std::span<const PropertyRow *const> rows_of(PacketType packet)
{
    const PacketRows &of_packet = kRowsOfPacket[packet];
    return {of_packet.rows, of_packet.count};
}

// Several subscription identifiers stand in what a server sends; a client may send none in PUBLISH, see decode_publish.
bool may_repeat(const PropertyRow &row, PacketType packet)
{
    return row.id == kUserProperty || (row.id == kSubscriptionIdentifier && packet == PUBLISH);
}

// ---- reading

uint32_t read_number(Reader &in, Type type)
{
    switch (type) {
    case Type::Byte:
        return in.u8();
    case Type::U16:
        return in.u16();
    case Type::U32:
        return in.u32();
    default:
        return in.varint();
    }
}

void read_value(Reader &in, const PropertyRow &row, Properties &properties)
{
    if (row.number) {
        const uint32_t value = read_number(in, row.type);
        if (value < row.least || value > row.most)
            in.refuse(row.number == &P::topic_alias ? Reason::TopicAliasInvalid : Reason::ProtocolError,
                      "a property has a value that it cannot have");
        properties.*row.number = value;
    } else if (row.text) {
        properties.*row.text = in.text();
    } else if (row.binary) {
        properties.*row.binary = in.binary();
    } else {
        in.text();
        in.text();
    }
}

// The span from the first User Property to this one, which starts where `rest` does and ends where `behind` starts.
void note_user_property(Properties &properties, Bytes rest, Bytes behind)
{
    const uint8_t *begin       = properties.user_properties.empty() ? rest.data() : properties.user_properties.data();
    const uint8_t *end         = rest.data() + (rest.size() - behind.size());
    properties.user_properties = {begin, end};
}

void read_block(Reader &block, PacketType packet, Properties &properties)
{
    uint64_t seen = 0; // by identifier
    while (!block.at_end()) {
        const Bytes        rest = block.rest();
        const PropertyRow *row  = row_of(block.varint());
        if (!row || !contains(row->packets, packet))
            return block.refuse(Reason::MalformedPacket, "a property that this packet cannot have");
        if (seen >> row->id & 1 && !may_repeat(*row, packet))
            return block.refuse(Reason::ProtocolError, "a property stands twice");
        seen |= uint64_t{1} << row->id;
        read_value(block, *row, properties);
        if (row->id == kUserProperty)
            note_user_property(properties, rest, block.rest());
    }
}

void check_block(Reader &block, const Properties &properties)
{
    if (properties.response_topic && !is_topic_name(*properties.response_topic))
        block.refuse(Reason::TopicNameInvalid, "the Response Topic is no topic name"); // [MQTT-3.3.2-14]
    if (properties.authentication_data && !properties.authentication_method)
        block.refuse(Reason::ProtocolError, "Authentication Data without Authentication Method");
}

} // namespace

Verdict decode_properties(Bytes bytes, PacketType packet, Properties &properties) noexcept
{
    properties = {};
    Reader block(bytes);
    read_block(block, packet, properties);
    check_block(block, properties);
    return block.verdict();
}

bool read_properties(Reader &in, PacketType packet, Properties &properties) noexcept
{
    const Bytes block = in.bytes(in.varint());
    if (!block.empty())
        in.refuse(decode_properties(block, packet, properties));
    return !block.empty();
}

// ---- writing

namespace {

void write_number(Writer &out, Type type, uint32_t value)
{
    switch (type) {
    case Type::Byte:
        out.u8(static_cast<uint8_t>(value));
        break;
    case Type::U16:
        out.u16(static_cast<uint16_t>(value));
        break;
    case Type::U32:
        out.u32(value);
        break;
    default:
        out.varint(value);
    }
}

void write_property(Writer &out, const PropertyRow &row, const Properties &properties)
{
    if (row.number && properties.*row.number)
        write_number(out.u8(row.id), row.type, *(properties.*row.number));
    else if (row.text && properties.*row.text)
        out.u8(row.id).text(*(properties.*row.text));
    else if (row.binary && properties.*row.binary)
        out.u8(row.id).binary(*(properties.*row.binary));
}

void write_block(Writer &out, const Properties &properties, PacketType packet)
{
    for (const PropertyRow *row : rows_of(packet))
        write_property(out, *row, properties);
    if (packet == PUBLISH)
        for (const uint32_t identifier : properties.subscription_identifiers)
            out.u8(kSubscriptionIdentifier).varint(identifier);
    UserProperty user;
    for (Bytes rest = properties.user_properties; contains(kAll, packet) && next_user_property(rest, user);)
        out.bytes(user.encoded);
}

} // namespace

size_t size_of_properties(const Properties &properties, PacketType packet) noexcept
{
    Writer counter;
    write_block(counter, properties, packet);
    return counter.size();
}

size_t encode_properties(const Properties &properties, PacketType packet, std::span<uint8_t> to) noexcept
{
    const size_t size = size_of_properties(properties, packet);
    if (size > to.size())
        return 0;
    Writer out(to);
    write_block(out, properties, packet);
    return out.complete() ? size : 0;
}

void write_properties(Writer &out, const Properties &properties, PacketType packet) noexcept
{
    write_properties(out, properties, packet, size_of_properties(properties, packet), 0);
}

void write_properties(Writer &out, const Properties &properties, PacketType packet, size_t size, size_t behind) noexcept
{
    out.varint(size + behind);
    if (size > 0)
        write_block(out, properties, packet);
}

// ---- User Properties

namespace {

void skip_value(Reader &in, Type type)
{
    switch (type) {
    case Type::Text:
    case Type::Binary:
        in.binary();
        break;
    case Type::TextPair:
        in.binary();
        in.binary();
        break;
    default:
        read_number(in, type);
    }
}

std::string_view as_text(Bytes bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

} // namespace

bool next_user_property(Bytes &block, UserProperty &next) noexcept
{
    for (Reader in(block); !in.at_end();) {
        const Bytes        rest = in.rest();
        const PropertyRow *row  = row_of(in.varint());
        if (!row)
            break;
        if (row->id != kUserProperty) {
            skip_value(in, row->type);
            continue;
        }
        next.name  = as_text(in.binary()); // the decoder saw that they are texts
        next.value = as_text(in.binary());
        if (!in.ok())
            break;
        block        = in.rest();
        next.encoded = rest.first(rest.size() - block.size());
        return true;
    }
    block = {};
    return false;
}

} // namespace tarn::codec::standard
