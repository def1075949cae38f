// forward.cpp - see forward.h.
#include "forward.h"

#include <cstring>

namespace tarn::standard {

using codec::standard::Publish;

namespace {

constexpr uint16_t kAnyPacketId = 1; // each receiver has its own

bool takes_at_once(const Connection &connection)
{
    return connection.stage.load() == Stage::Connected && !connection.is_broken && !connection.is_blocked &&
           connection.outbox.bytes() < kOutboxMost && !connection.outgoing_aliases.are_taken();
}

uint8_t *append(uint8_t *to, std::span<const uint8_t> bytes)
{
    if (!bytes.empty())
        memcpy(to, bytes.data(), bytes.size());
    return to + bytes.size();
}

} // namespace

// One object for all messages: to clear its properties anew would cost as much as the rest.
const Publish &Forwarder::publish_of(const MessageParts &parts, const Form &form) noexcept
{
    static constinit Publish publish GUARDED_BY(engine_mutex);
    publish.retain                              = form.retain;
    publish.qos                                 = form.qos;
    publish.topic                               = parts.topic;
    publish.packet_id                           = kAnyPacketId;
    publish.properties.subscription_identifiers = identifiers_of(form);
    publish.stored_properties                   = parts.properties;
    publish.payload                             = parts.payload;
    return publish;
}

std::span<const uint32_t> Forwarder::identifiers_of(const Form &form) noexcept
{
    return {&form.identifier, form.identifier != 0 ? 1U : 0U};
}

bool Forwarder::give(Session &session, const SubscriptionOptions &options, bool retain) noexcept
{
    Connection *const connection = session.connection;
    if (!connection || draft_.parts().expires_ms != 0 || session.deliveries.has_waiting() ||
        engine_.forwarded_bytes >= kForwardedMost || !takes_at_once(*connection))
        return false;
    const bool is_v5 = connection->speaks_v5();
    const Form form{connection->level, std::min(options.qos, draft_.parts().qos), retain,
                    is_v5 ? options.identifier : 0};
    if ((size_ == 0 || !(form == form_)) && !encode(form))
        return false;
    if (size_ + tail_.bytes.size() > connection->maximum_packet_size)
        return false;
    uint16_t packet_id = 0;
    if (form.qos > 0) {
        packet_id = begin_delivery(session, form);
        if (packet_id == 0)
            return false;
    }
    if (put(*connection, packet_id))
        return true;
    if (packet_id != 0)
        session.deliveries.take_back(packet_id);
    return false;
}

// False, and nothing is done, without memory.
bool Forwarder::put(Connection &connection, uint16_t packet_id) noexcept
{
    if (packet_id != 0) {
        uint8_t *const at = &engine_.forwarded[packet_id_offset_];
        at[0]             = static_cast<uint8_t>(packet_id >> 8);
        at[1]             = static_cast<uint8_t>(packet_id);
    }
    if (!connection.outbox.add({packet_, size_}, 0, tail_))
        return false;
    ++engine_.sent;
    engine_.forwarded_bytes += size_;
    list_for_flush(engine_, connection);
    return true;
}

uint16_t Forwarder::begin_delivery(Session &session, const Form &form) noexcept
{
    const uint16_t most = std::min(session.connection->receive_maximum, kInFlightMost);
    return session.deliveries.offer_and_send(draft_.message(), form.qos, form.retain, identifiers_of(form), most);
}

// False without memory, or if there is no such packet.
bool Forwarder::encode(const Form &form) noexcept
{
    const size_t rest = draft_.parts().properties.size() + draft_.parts().payload.size();
    const size_t room = kHeadMost + draft_.parts().topic.size();
    size_             = 0;
    if (tail_.message)
        tail_ = {};
    if (!engine_.forwarded.reserve(room + Outbox::kCopiedMax))
        return false;
    form_ = form;
    size_ = is_as_it_came(form) && rest <= Outbox::kCopiedMax ? take_original() : write_packet(room);
    if (size_ > 0 && form.qos > 0)
        packet_id_offset_ = codec::standard::packet_id_offset({engine_.forwarded.data(), size_});
    return size_ > 0;
}

bool Forwarder::is_as_it_came(const Form &form) const noexcept
{
    const Original &original = draft_.original();
    return !original.packet.empty() && form.level == original.level && form.qos == draft_.parts().qos && !form.retain &&
           form.identifier == 0;
}

// At QoS 0 it is copied from where it lies.
size_t Forwarder::take_original() noexcept
{
    const Original &original = draft_.original();
    packet_                  = original.packet.data();
    if (form_.qos > 0) {
        memcpy(engine_.forwarded.data(), packet_, original.packet.size());
        packet_ = engine_.forwarded.data();
    }
    return original.packet.size();
}

// A short message whole, of a long one the head.
size_t Forwarder::write_packet(size_t room) noexcept
{
    const MessageParts &parts  = draft_.parts();
    const bool          is_v5  = form_.level == codec::standard::Level::Mqtt5;
    const auto          before = is_v5 ? parts.properties : std::span<const uint8_t>(); // the payload
    const size_t        rest   = before.size() + parts.payload.size();
    uint8_t *const      packet = engine_.forwarded.data();
    const size_t        head   = codec::standard::encode_head(publish_of(parts, form_), {form_.level}, {packet, room});
    packet_                    = packet;
    if (head == 0 || !refer_to(rest, is_v5))
        return 0;
    if (tail_.message)
        return head;
    append(append(packet + head, before), parts.payload);
    return head + rest;
}

// What is too long to be copied leaves from the message. False without memory for that.
bool Forwarder::refer_to(size_t rest, bool is_v5) noexcept
{
    if (rest <= Outbox::kCopiedMax)
        return true;
    const MessageRef &message = draft_.message();
    if (message)
        tail_ = {message, is_v5 ? message->properties_and_payload() : message->payload()};
    return static_cast<bool>(message);
}

} // namespace tarn::standard
