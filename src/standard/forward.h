// forward.h - one message straight into the outboxes of those who can take it at once.
//
// The way through a session's queue is for what has to wait. Where nothing waits, it costs a record of the delivery, a
// list and a second look at the session for each receiver, and at QoS 0 the only reason to give the message memory of its
// own. And receivers that are to get the same bytes share one encoding, but for the packet identifier. Where an encoder
// would write the bytes that came, those are taken.
#ifndef TARN_STANDARD_FORWARD_H
#define TARN_STANDARD_FORWARD_H

#include "engine.h"

namespace tarn::standard {

class Forwarder {
public:
    Forwarder(Engine &engine, Draft &draft) noexcept : engine_(engine), draft_(draft) {}

    // True: the message is in the outbox of the session's connection, and at QoS 1 and 2 among the session's deliveries.
    // False: nothing was done, as something waits before it, it cannot be sent as it is, or memory to copy it is short.
    [[nodiscard]] bool give(Session &session, const SubscriptionOptions &options, bool retain) noexcept
        REQUIRES(engine_mutex);

private:
    // What makes the bytes differ from receiver to receiver.
    struct Form {
        codec::standard::Level level      = codec::standard::Level::Mqtt311;
        uint8_t                qos        = 0;
        bool                   retain     = false;
        uint32_t               identifier = 0; // of the subscription, 5.0

        bool operator==(const Form &) const = default;
    };
    static const codec::standard::Publish &publish_of(const MessageParts &parts, const Form &form) noexcept
        REQUIRES(engine_mutex);
    static std::span<const uint32_t> identifiers_of(const Form &form) noexcept;

    bool     encode(const Form &form) noexcept REQUIRES(engine_mutex);
    bool     is_as_it_came(const Form &form) const noexcept;
    size_t   take_original() noexcept REQUIRES(engine_mutex);
    size_t   write_packet(size_t room) noexcept REQUIRES(engine_mutex);
    bool     refer_to(size_t rest, bool is_v5) noexcept;
    bool     put(Connection &connection, uint16_t packet_id) noexcept REQUIRES(engine_mutex);
    uint16_t begin_delivery(Session &session, const Form &form) noexcept REQUIRES(engine_mutex);

    Engine        &engine_;
    Draft         &draft_;
    Form           form_;                       // of what is encoded
    const uint8_t *packet_           = nullptr; // in engine.forwarded, or as it came
    size_t         size_             = 0;       // of it; 0 = there is none
    size_t         packet_id_offset_ = 0;       // QoS 1 and 2
    Outbox::Tail   tail_;
};

} // namespace tarn::standard

#endif
