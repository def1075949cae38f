// reason.h - the reason codes of MQTT 5.0 (2.4), and what a decoder says of a packet.
#ifndef TARN_CODEC_STANDARD_REASON_H
#define TARN_CODEC_STANDARD_REASON_H

#include "types.h"

#include <optional>

namespace tarn::codec::standard {

enum class Reason : uint8_t {
    Success                             = 0x00,
    NormalDisconnection                 = 0x00, // in DISCONNECT
    GrantedQos0                         = 0x00, // in SUBACK
    GrantedQos1                         = 0x01,
    GrantedQos2                         = 0x02,
    DisconnectWithWill                  = 0x04,
    NoMatchingSubscribers               = 0x10,
    NoSubscriptionExisted               = 0x11,
    ContinueAuthentication              = 0x18,
    ReAuthenticate                      = 0x19,
    UnspecifiedError                    = 0x80,
    MalformedPacket                     = 0x81,
    ProtocolError                       = 0x82,
    ImplementationSpecificError         = 0x83,
    UnsupportedProtocolVersion          = 0x84,
    ClientIdentifierNotValid            = 0x85,
    BadUserNameOrPassword               = 0x86,
    NotAuthorized                       = 0x87,
    ServerUnavailable                   = 0x88,
    ServerBusy                          = 0x89,
    Banned                              = 0x8A,
    ServerShuttingDown                  = 0x8B,
    BadAuthenticationMethod             = 0x8C,
    KeepAliveTimeout                    = 0x8D,
    SessionTakenOver                    = 0x8E,
    TopicFilterInvalid                  = 0x8F,
    TopicNameInvalid                    = 0x90,
    PacketIdentifierInUse               = 0x91,
    PacketIdentifierNotFound            = 0x92,
    ReceiveMaximumExceeded              = 0x93,
    TopicAliasInvalid                   = 0x94,
    PacketTooLarge                      = 0x95,
    MessageRateTooHigh                  = 0x96,
    QuotaExceeded                       = 0x97,
    AdministrativeAction                = 0x98,
    PayloadFormatInvalid                = 0x99,
    RetainNotSupported                  = 0x9A,
    QosNotSupported                     = 0x9B,
    UseAnotherServer                    = 0x9C,
    ServerMoved                         = 0x9D,
    SharedSubscriptionsNotSupported     = 0x9E,
    ConnectionRateExceeded              = 0x9F,
    MaximumConnectTime                  = 0xA0,
    SubscriptionIdentifiersNotSupported = 0xA1,
    WildcardSubscriptionsNotSupported   = 0xA2,
};

// From 0x80 on a reason is a failure.
[[nodiscard]] constexpr bool is_failure(Reason reason) noexcept
{
    return static_cast<uint8_t>(reason) >= 0x80;
}

// The standard's name, such as "Malformed Packet", or "unknown". 0x00 is "Success" in all packets.
[[nodiscard]] const char *name_of(Reason reason) noexcept;

// Whether a client or a server may send this reason in such a packet.
[[nodiscard]] bool may_stand_in(PacketType packet, Reason reason) noexcept;

// Whether a client may send it in DISCONNECT or AUTH: some are the server's alone (table of 5.0 3.14.2.1 and 3.15.2.1).
[[nodiscard]] bool client_may_send(PacketType packet, Reason reason) noexcept;

// The return code of a 3.1.1 CONNACK (3.2.2.3). Nothing where that standard has none: such a client is cut off without
// an answer.
[[nodiscard]] std::optional<uint8_t> return_code_of(Reason reason) noexcept;

// What a decoder says of a packet: why the connection must end, or Success. The text is for a log line.
struct [[nodiscard]] Verdict {
    Reason      reason = Reason::Success;
    const char *text   = "";

    [[nodiscard]] constexpr bool ok() const noexcept { return reason == Reason::Success; }
};

} // namespace tarn::codec::standard

#endif
