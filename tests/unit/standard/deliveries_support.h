// deliveries_support.h - what tests of deliveries share: short messages, a client's limits, a sink that writes along.
#ifndef TARN_TESTS_UNIT_STANDARD_DELIVERIES_SUPPORT_H
#define TARN_TESTS_UNIT_STANDARD_DELIVERIES_SUPPORT_H

#include "standard/state/deliveries.h"

#include <string>
#include <vector>

namespace tarn::test::sessions {

inline standard::MessageRef message(std::string_view payload, uint64_t expires_ms = 0)
{
    return standard::MessageRef::make({.expires_ms = expires_ms,
                                       .topic      = "t",
                                       .payload = {reinterpret_cast<const uint8_t *>(payload.data()), payload.size()}});
}

inline std::string payload_of(const standard::MessageRef &message)
{
    return message ? std::string(message->payload().begin(), message->payload().end()) : "-";
}

inline std::string list_of(std::span<const uint32_t> identifiers)
{
    std::string text;
    for (const uint32_t identifier : identifiers)
        text += " for " + std::to_string(identifier);
    return text;
}

// "a qos1 id1 dup", "a qos0 retain expiry3 for 7", "PUBREL id2" or "".
inline std::string text(const standard::Outgoing &packet)
{
    const std::string id = packet.packet_id ? " id" + std::to_string(packet.packet_id) : "";
    if (packet.kind == standard::Outgoing::Kind::Nothing)
        return "";
    if (packet.kind == standard::Outgoing::Kind::Pubrel)
        return "PUBREL" + id;
    return payload_of(packet.message) + " qos" + std::to_string(packet.qos) + id + (packet.dup ? " dup" : "") +
           (packet.retain ? " retain" : "") + (packet.expiry_s ? " expiry" + std::to_string(*packet.expiry_s) : "") +
           list_of(packet.subscription_identifiers);
}

// "a number1 qos1 id1 received retain for 7".
inline std::string text(const standard::DeliveryRecord &record)
{
    return payload_of(record.message) + " number" + std::to_string(record.number) + " qos" +
           std::to_string(record.qos) + (record.packet_id ? " id" + std::to_string(record.packet_id) : "") +
           (record.received ? " received" : "") + (record.retain ? " retain" : "") +
           list_of(record.subscription_identifiers);
}

struct Limits : standard::ReceiverLimits {
    uint16_t maximum = 65535;
    size_t   largest = SIZE_MAX; // payload

    uint16_t receive_maximum() const override { return maximum; }
    bool     takes(const standard::Outgoing &publish) const override
    {
        return publish.message->payload().size() <= largest;
    }
};

struct Recorder : standard::DeliverySink {
    std::vector<std::string> changes;
    bool                     accepts = true;

    bool queued(uint64_t session, const standard::DeliveryRecord &delivery) override
    {
        if (accepts)
            changes.push_back(std::to_string(session) + " queued " + text(delivery));
        return accepts;
    }
    void sent(uint64_t session, uint64_t number, uint16_t packet_id) override
    {
        write("sent", session, number, packet_id);
    }
    void received(uint64_t session, uint64_t number, uint16_t packet_id) override
    {
        write("received", session, number, packet_id);
    }
    void done(uint64_t session, uint64_t number, uint16_t packet_id) override
    {
        write("done", session, number, packet_id);
    }
    std::vector<std::string> take() { return std::exchange(changes, {}); }

private:
    void write(const char *what, uint64_t session, uint64_t number, uint16_t packet_id)
    {
        changes.push_back(std::to_string(session) + " " + what + " " + std::to_string(number) + " id" +
                          std::to_string(packet_id));
    }
};

// A session with its limits; bounds are wide.
struct TestSession {
    standard::DeliveryPool pool;
    standard::Deliveries   session{7, pool, {.stored = {1000, 1000000}, .qos0 = {1000, 1000000}}};
    Limits                 limits;
    uint64_t               now_ms = 1000000;

    std::string next() { return text(session.next(now_ms, limits)); }
    // All packets that can be sent now.
    std::vector<std::string> sends()
    {
        std::vector<std::string> all;
        for (std::string packet = next(); !packet.empty(); packet = next())
            all.push_back(packet);
        return all;
    }
    standard::Offered offer(std::string_view payload, uint8_t qos, uint64_t expires_ms = 0)
    {
        return session.offer(message(payload, expires_ms), qos, false);
    }
    std::vector<std::string> records() const
    {
        std::vector<std::string> all;
        session.for_each([&](const standard::DeliveryRecord &record) { all.push_back(text(record)); });
        return all;
    }
};

} // namespace tarn::test::sessions

#endif
