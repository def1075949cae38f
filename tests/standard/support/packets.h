// packets.h - the packets of MQTT 3.1.1 and 5.0 as clients write them and read them: built from their parts, and taken
// apart. It shares nothing with the library's codec, so that a fault there cannot hide itself.
#ifndef TARN_TESTS_STANDARD_PACKETS_H
#define TARN_TESTS_STANDARD_PACKETS_H

#include "support/wire.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::conformance {

using test::Bytes;
using test::packet;
using test::prefixed;
using test::repeat;
using test::text;
using test::u16;
using test::wire;
using test::operator+;

enum Type : unsigned {
    CONNECT = 1,
    CONNACK,
    PUBLISH,
    PUBACK,
    PUBREC,
    PUBREL,
    PUBCOMP,
    SUBSCRIBE,
    SUBACK,
    UNSUBSCRIBE,
    UNSUBACK,
    PINGREQ,
    PINGRESP,
    DISCONNECT,
    AUTH
};

// ---- properties of 5.0

enum PropertyId : uint8_t {
    PayloadFormat       = 0x01,
    MessageExpiry       = 0x02,
    ContentType         = 0x03,
    ResponseTopic       = 0x08,
    CorrelationData     = 0x09,
    SubscriptionId      = 0x0B,
    SessionExpiry       = 0x11,
    AssignedClientId    = 0x12,
    ServerKeepAlive     = 0x13,
    AuthMethod          = 0x15,
    AuthData            = 0x16,
    RequestProblem      = 0x17,
    WillDelay           = 0x18,
    RequestResponse     = 0x19,
    ResponseInformation = 0x1A,
    ServerReference     = 0x1C,
    ReasonString        = 0x1F,
    ReceiveMaximum      = 0x21,
    AliasMaximum        = 0x22,
    Alias               = 0x23,
    MaximumQos          = 0x24,
    RetainAvailable     = 0x25,
    UserProperty        = 0x26,
    MaximumPacketSize   = 0x27,
    WildcardAvailable   = 0x28,
    SubIdAvailable      = 0x29,
    SharedAvailable     = 0x2A,
};

// One property with its identifier, as it stands in a packet.
Bytes property(PropertyId id, uint32_t value);
Bytes property(PropertyId id, std::string_view value);
Bytes user(std::string_view name, std::string_view value);

struct Property {
    uint8_t     id;
    uint32_t    number = 0;
    std::string text   = {}; // of a pair: the name
    std::string value  = {}; // of a pair
};

struct Properties {
    std::vector<Property> all;

    bool                       has(PropertyId id) const;
    std::optional<uint32_t>    number(PropertyId id) const;
    std::optional<std::string> text(PropertyId id) const;
    std::vector<uint32_t>      numbers(PropertyId id) const; // sorted
    // "02=60 08=answers user a=b": by identifier, User Properties in the order they came.
    std::string printed() const;
};

// ---- what clients send

struct Will {
    std::string topic;
    std::string payload;
    unsigned    qos        = 0;
    bool        retain     = false;
    Bytes       properties = {};
};

struct Connect {
    bool                       clean        = true;
    unsigned                   keep_alive_s = 0;
    Bytes                      properties   = {};
    std::optional<Will>        will         = {};
    std::optional<std::string> user_name    = {};
    std::optional<std::string> password     = {};
};

struct Publish {
    unsigned qos        = 0;
    bool     retain     = false;
    bool     dup        = false;
    unsigned id         = 0; // 0: the client's next
    Bytes    properties = {};
};

struct Filter {
    std::string text;
    unsigned    options = 0; // of SUBSCRIBE
};
constexpr unsigned kNoLocal = 4, kAsPublished = 8, kHandling1 = 0x10, kHandling2 = 0x20;

Bytes varint(size_t value);
Bytes block(unsigned level, const Bytes &properties); // with its length; nothing at 3.1.1
Bytes connect_packet(unsigned level, std::string_view id, const Connect &options = {});
Bytes publish_packet(unsigned level, std::string_view topic, std::string_view payload, const Publish &options = {});
Bytes subscribe_packet(unsigned level, unsigned id, const std::vector<Filter> &filters, const Bytes &properties = {});
Bytes unsubscribe_packet(unsigned level, unsigned id, const std::vector<std::string> &filters,
                         const Bytes &properties = {});
// In the shortest form without a reason and properties, which is all there is at 3.1.1.
Bytes ack_packet(Type type, unsigned id, unsigned reason = 0, const Bytes &properties = {});

// ---- what a broker sends

struct Received {
    unsigned    type  = 0; // 0: nothing came, or no packet that a broker may send
    std::string fault = {};
    Bytes       whole = {};

    unsigned    id              = 0; // packet identifier
    unsigned    reason          = 0; // of CONNACK, DISCONNECT, AUTH and the acknowledgements of PUBLISH
    bool        session_present = false;
    Bytes       reasons         = {}; // of SUBACK and UNSUBACK
    unsigned    qos             = 0;
    bool        retain = false, dup = false;
    std::string topic = {}, payload = {};
    Properties  properties = {};
};

// The packet taken apart, every byte of it checked.
Received parse(unsigned level, const Bytes &packet);

} // namespace tarn::conformance

#endif
