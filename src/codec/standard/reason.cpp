// reason.cpp - the one table of reason codes: name, and the packets each may stand in.
#include "reason.h"

namespace tarn::codec::standard {

namespace {

constexpr PacketSet kAcks = packets(PUBACK, PUBREC);
constexpr PacketSet kSubs = packets(SUBACK, UNSUBACK);
constexpr PacketSet kEnd  = packets(DISCONNECT);

struct ReasonRow {
    Reason      reason;
    const char *name;
    PacketSet   packets;
    PacketSet   server_only = 0; // of DISCONNECT and AUTH, which go both ways: where a client may not send it
};

constexpr ReasonRow kReasons[] = {
    {Reason::Success, "Success", packets(CONNACK, PUBREL, PUBCOMP, DISCONNECT, AUTH) | kAcks | kSubs, packets(AUTH)},
    {Reason::GrantedQos1, "Granted QoS 1", packets(SUBACK)},
    {Reason::GrantedQos2, "Granted QoS 2", packets(SUBACK)},
    {Reason::DisconnectWithWill, "Disconnect with Will Message", kEnd},
    {Reason::NoMatchingSubscribers, "No matching subscribers", kAcks},
    {Reason::NoSubscriptionExisted, "No subscription existed", packets(UNSUBACK)},
    {Reason::ContinueAuthentication, "Continue authentication", packets(AUTH)},
    {Reason::ReAuthenticate, "Re-authenticate", packets(AUTH)},
    {Reason::UnspecifiedError, "Unspecified error", packets(CONNACK) | kAcks | kSubs | kEnd},
    {Reason::MalformedPacket, "Malformed Packet", packets(CONNACK) | kEnd},
    {Reason::ProtocolError, "Protocol Error", packets(CONNACK) | kEnd},
    {Reason::ImplementationSpecificError, "Implementation specific error", packets(CONNACK) | kAcks | kSubs | kEnd},
    {Reason::UnsupportedProtocolVersion, "Unsupported Protocol Version", packets(CONNACK)},
    {Reason::ClientIdentifierNotValid, "Client Identifier not valid", packets(CONNACK)},
    {Reason::BadUserNameOrPassword, "Bad User Name or Password", packets(CONNACK)},
    {Reason::NotAuthorized, "Not authorized", packets(CONNACK) | kAcks | kSubs | kEnd, kEnd},
    {Reason::ServerUnavailable, "Server unavailable", packets(CONNACK)},
    {Reason::ServerBusy, "Server busy", packets(CONNACK) | kEnd, kEnd},
    {Reason::Banned, "Banned", packets(CONNACK)},
    {Reason::ServerShuttingDown, "Server shutting down", kEnd, kEnd},
    {Reason::BadAuthenticationMethod, "Bad authentication method", packets(CONNACK) | kEnd, kEnd},
    {Reason::KeepAliveTimeout, "Keep Alive timeout", kEnd, kEnd},
    {Reason::SessionTakenOver, "Session taken over", kEnd, kEnd},
    {Reason::TopicFilterInvalid, "Topic Filter invalid", kSubs | kEnd, kEnd},
    {Reason::TopicNameInvalid, "Topic Name invalid", packets(CONNACK) | kAcks | kEnd},
    {Reason::PacketIdentifierInUse, "Packet identifier in use", kAcks | kSubs},
    {Reason::PacketIdentifierNotFound, "Packet Identifier not found", packets(PUBREL, PUBCOMP)},
    {Reason::ReceiveMaximumExceeded, "Receive Maximum exceeded", kEnd},
    {Reason::TopicAliasInvalid, "Topic Alias invalid", kEnd},
    {Reason::PacketTooLarge, "Packet too large", packets(CONNACK) | kEnd},
    {Reason::MessageRateTooHigh, "Message rate too high", kEnd},
    {Reason::QuotaExceeded, "Quota exceeded", packets(CONNACK, SUBACK) | kAcks | kEnd},
    {Reason::AdministrativeAction, "Administrative action", kEnd},
    {Reason::PayloadFormatInvalid, "Payload format invalid", packets(CONNACK) | kAcks | kEnd},
    {Reason::RetainNotSupported, "Retain not supported", packets(CONNACK) | kEnd, kEnd},
    {Reason::QosNotSupported, "QoS not supported", packets(CONNACK) | kEnd, kEnd},
    {Reason::UseAnotherServer, "Use another server", packets(CONNACK) | kEnd, kEnd},
    {Reason::ServerMoved, "Server moved", packets(CONNACK) | kEnd, kEnd},
    {Reason::SharedSubscriptionsNotSupported, "Shared Subscriptions not supported", packets(SUBACK) | kEnd, kEnd},
    {Reason::ConnectionRateExceeded, "Connection rate exceeded", packets(CONNACK) | kEnd, kEnd},
    {Reason::MaximumConnectTime, "Maximum connect time", kEnd, kEnd},
    {Reason::SubscriptionIdentifiersNotSupported, "Subscription Identifiers not supported", packets(SUBACK) | kEnd,
     kEnd},
    {Reason::WildcardSubscriptionsNotSupported, "Wildcard Subscriptions not supported", packets(SUBACK) | kEnd, kEnd},
};

const ReasonRow *row_of(Reason reason)
{
    for (const ReasonRow &row : kReasons)
        if (row.reason == reason)
            return &row;
    return nullptr;
}

} // namespace

const char *name_of(Reason reason) noexcept
{
    const ReasonRow *row = row_of(reason);
    return row ? row->name : "unknown";
}

bool may_stand_in(PacketType packet, Reason reason) noexcept
{
    const ReasonRow *row = row_of(reason);
    return row && contains(row->packets, packet);
}

bool client_may_send(PacketType packet, Reason reason) noexcept
{
    const ReasonRow *row = row_of(reason);
    return row && contains(row->packets, packet) && !contains(row->server_only, packet);
}

std::optional<uint8_t> return_code_of(Reason reason) noexcept
{
    switch (reason) {
    case Reason::Success:
        return 0;
    case Reason::UnsupportedProtocolVersion:
        return 1;
    case Reason::ClientIdentifierNotValid:
        return 2;
    case Reason::ServerUnavailable:
    case Reason::ServerBusy:
        return 3;
    case Reason::BadUserNameOrPassword:
        return 4;
    case Reason::NotAuthorized:
    case Reason::Banned:
        return 5;
    default:
        return std::nullopt;
    }
}

} // namespace tarn::codec::standard
