// deliveries.h - what one session is to be sent: queued messages, and those on the way until they are acknowledged.
//
// No sockets, files or clocks: the caller sends what next() says, hands in acknowledgements and connections, and a sink
// is told what a file must know. Nothing is sent twice on one connection [MQTT-4.4.0-1].
//
// All messages of a session go in the order they were offered, whatever their QoS. So a message at QoS 0 waits behind
// those that the client's Receive Maximum holds up, as 4.9 allows: of one publisher and topic none overtakes another.
#ifndef TARN_STANDARD_DELIVERIES_H
#define TARN_STANDARD_DELIVERIES_H

#include "delivery.h"
#include "packet_id_index.h"

#include <optional>

namespace tarn::standard {

// ---- Bounds

struct Amount {
    size_t count = 0;
    size_t bytes = 0; // of memory, shared messages for each delivery again
};
struct DeliveryBounds {
    Amount stored; // QoS 1 and 2, from offer() to the last acknowledgement
    Amount qos0;   // which wait for a connected client to take them
};

enum class Offered : uint8_t {
    Queued,
    NotConnected, // QoS 0 does not wait for a client that is away
    TooMany,
    TooManyBytes,
    NoMemory,
    NotRecorded, // the sink could not
};

// ---- What files know

struct DeliveryRecord {
    uint64_t                  number                   = 0;  // in its session
    MessageRef                message                  = {}; // empty if received
    uint8_t                   qos                      = 1;
    bool                      retain                   = false;
    uint16_t                  packet_id                = 0;     // 0: PUBLISH was never sent
    bool                      received                 = false; // PUBREC came
    std::span<const uint32_t> subscription_identifiers = {};
};

// Is told of each change to a delivery at QoS 1 or 2, before the packet that belongs to it is handed out. A PUBLISH
// whose sent() is lost in a crash is sent again under another identifier; so at QoS 2 the records go to the file
// before the packets go to the client.
class DeliverySink {
public:
    // False: it cannot be recorded, and the message is refused. `packet_id` is 0.
    [[nodiscard]] virtual bool queued(uint64_t session, const DeliveryRecord &delivery)               = 0;
    virtual void               sent(uint64_t session, uint64_t number, uint16_t packet_id)            = 0;
    virtual void               received(uint64_t session, uint64_t number, uint16_t packet_id)        = 0;
    virtual void               done(uint64_t session, uint64_t number, uint16_t packet_id /* or 0 */) = 0;

protected:
    ~DeliverySink() = default;
};

// What a restore_...() made of a record.
enum class Restored : uint8_t {
    Done,
    Ignored, // it says what is known already, or is of a delivery that is done or cannot be
    NoMemory,
};

// ---- What is sent

struct Outgoing {
    enum class Kind : uint8_t { Nothing, Publish, Pubrel };

    Kind                      kind      = Kind::Nothing;
    uint8_t                   qos       = 0;
    bool                      dup       = false;
    bool                      retain    = false;
    uint16_t                  packet_id = 0;                 // 0 at QoS 0
    std::optional<uint32_t>   expiry_s;                      // what is left of it
    std::span<const uint32_t> subscription_identifiers = {}; // until the next call that is not const
    MessageRef                message;                       // of PUBLISH
};

// What the connected client can take.
class ReceiverLimits {
public:
    [[nodiscard]] virtual uint16_t receive_maximum() const = 0; // 65535 at 3.1.1; not 0
    // Whether this PUBLISH keeps to its Maximum Packet Size. The packet identifier may not be there yet.
    [[nodiscard]] virtual bool takes(const Outgoing &publish) const = 0;

protected:
    ~ReceiverLimits() = default;
};

// Messages that were dropped after they had been queued.
struct Drops {
    uint64_t expired      = 0;
    uint64_t too_large    = 0; // for the client's Maximum Packet Size
    uint64_t disconnected = 0; // QoS 0, and the client went
};

// ---- Acknowledgements

enum class Outcome : uint8_t {
    Completed,  // delivered
    Refused,    // by the client, with a reason from 0x80 on; the delivery is over [MQTT-4.4.0-2]
    Received,   // PUBREC: now PUBCOMP is awaited
    NotFound,   // no delivery has this identifier
    Unexpected, // this delivery waits for another packet: a protocol error
};
enum class Answer : uint8_t {
    Nothing,
    Pubrel,
    PubrelNotFound, // with Packet Identifier not found, 0x92
};
struct Acknowledged {
    Outcome outcome;
    Answer  answer = Answer::Nothing;
};

// ---- The deliveries of one session

class Deliveries {
public:
    Deliveries(uint64_t session, DeliveryPool &pool, const DeliveryBounds &bounds) noexcept;
    Deliveries(const Deliveries &)            = delete;
    Deliveries &operator=(const Deliveries &) = delete;
    ~Deliveries(); // tells the sink nothing

    void set_sink(DeliverySink *sink) noexcept { sink_ = sink; } // null: no file knows this session
    void set_bounds(const DeliveryBounds &bounds) noexcept { bounds_ = bounds; }

    // A message for this session at the QoS it is to be sent with. Each identifier stands once in the list.
    [[nodiscard]] Offered offer(const MessageRef &message, uint8_t qos, bool retain,
                                std::span<const uint32_t> subscription_identifiers = {}) noexcept;

    // Whether there is room for one more, of so many bytes (Delivery::bytes()).
    [[nodiscard]] bool has_room(uint8_t qos, size_t bytes) const noexcept
    {
        return refusal_of(qos, bytes) == Offered::Queued;
    }

    // As offer(), and next() with it, for a message at QoS 1 or 2 that goes at once: with nothing before it, to a
    // session that no file knows. Its packet identifier; 0: nothing was done, and offer() is to be called.
    [[nodiscard]] uint16_t offer_and_send(const MessageRef &message, uint8_t qos, bool retain,
                                          std::span<const uint32_t> subscription_identifiers,
                                          uint16_t                  receive_maximum) noexcept;

    // Undoes the last offer_and_send(), whose packet could not be sent.
    void take_back(uint16_t packet_id) noexcept;

    // A connection of the session begins: what is not acknowledged goes again, then the queue.
    void resume() noexcept;
    // The connection ended.
    void absent() noexcept;

    // The packet to be sent now; it counts as sent. Nothing: until an acknowledgement or an offer. The time is the wall
    // clock's, as in Message::expires_ms().
    [[nodiscard]] Outgoing next(uint64_t now_ms, const ReceiverLimits &limits) noexcept;

    // From the client, with the reason it gave; 0 at 3.1.1.
    Acknowledged puback(uint16_t packet_id, uint8_t reason) noexcept;
    Acknowledged pubrec(uint16_t packet_id, uint8_t reason) noexcept;
    Acknowledged pubcomp(uint16_t packet_id, uint8_t reason) noexcept;

    // Looks at all that is queued, if any of it can have expired; next() drops what has expired by itself.
    void drop_expired(uint64_t now_ms) noexcept;

    // Calls visit(const DeliveryRecord &) for each at QoS 1 and 2. restore() of each in this order, and then
    // restore_last_number(), makes the same again.
    template <class Visitor> void for_each(Visitor &&visit) const;

    // A walk in pieces through what is queued, while that changes. What is queued behind its end is not seen.
    void            begin_walk() noexcept { walk_ = queue_.first(); }
    const Delivery *walk() const noexcept { return walk_; } // where it is; null: at the end
    void            walk_on() noexcept { walk_ = walk_->next; }

    // From files, before the first connection; the sink is not told, and bounds do not hold. First come the records of
    // for_each(), all made at one moment, then the changes since that moment, in their order. Older changes may stand
    // before those; they are ignored.
    [[nodiscard]] Restored restore(const DeliveryRecord &record) noexcept; // of for_each(), or as it was queued
    Restored               restore_sent(uint64_t number, uint16_t packet_id) noexcept;
    Restored               restore_received(uint64_t number, uint16_t packet_id) noexcept;
    Restored               restore_done(uint64_t number, uint16_t packet_id) noexcept;
    void                   restore_last_number(uint64_t number) noexcept; // behind the records of for_each()

    [[nodiscard]] uint64_t session() const noexcept { return session_; }
    [[nodiscard]] uint64_t last_number() const noexcept { return last_number_; }
    [[nodiscard]] bool     is_connected() const noexcept { return connected_; }
    // Something waits to be sent. False: a message that is offered would be the next to go.
    [[nodiscard]] bool   has_waiting() const noexcept { return queue_.first() || again_sent_ || again_received_; }
    [[nodiscard]] Amount stored() const noexcept { return stored_; }
    [[nodiscard]] Amount waiting_qos0() const noexcept { return qos0_; }
    [[nodiscard]] size_t in_flight() const noexcept { return in_use_.count(); }
    [[nodiscard]] Drops  take_drops() noexcept { return std::exchange(drops_, Drops{}); } // since they were last taken

private:
    [[nodiscard]] Offered   refusal_of(uint8_t qos, size_t bytes) const noexcept;
    [[nodiscard]] Delivery *make(const MessageRef &message, uint8_t qos, bool retain,
                                 std::span<const uint32_t> subscription_identifiers) noexcept;
    [[nodiscard]] bool      record_queued(Delivery &delivery) noexcept;
    void                    note_expiry(const Message &message) noexcept;

    [[nodiscard]] bool      has_room_for(uint16_t receive_maximum) const noexcept;
    [[nodiscard]] Delivery *due_again(bool has_room) noexcept;
    [[nodiscard]] Outgoing  next_again(Delivery &delivery, uint64_t now_ms, const ReceiverLimits &limits) noexcept;
    [[nodiscard]] Outgoing  next_queued(uint64_t now_ms, bool has_room, const ReceiverLimits &limits) noexcept;
    [[nodiscard]] Outgoing  send_first(Delivery &delivery, Outgoing publish) noexcept;
    [[nodiscard]] Outgoing  send_pubrel(Delivery &delivery) noexcept;

    void begin_flight(Delivery &delivery, uint16_t packet_id) noexcept;
    void note_received(Delivery &delivery) noexcept;
    void become_received(Delivery &delivery) noexcept;
    void finish(Delivery &delivery) noexcept;
    void forget(Delivery &delivery) noexcept;

    [[nodiscard]] DeliveryList &list_of(const Delivery &delivery) noexcept;
    [[nodiscard]] Amount       &amount_of(const Delivery &delivery) noexcept;
    void                        append(DeliveryList &list, Delivery &delivery) noexcept;
    void                        unlink(Delivery &delivery) noexcept;
    void                        count_in(const Delivery &delivery) noexcept;
    void                        count_out(const Delivery &delivery) noexcept;
    void                        give_back_handed_out() noexcept;
    [[nodiscard]] Delivery     *find_queued(uint64_t number) noexcept;
    [[nodiscard]] Delivery     *find_in_flight(uint64_t number, uint16_t packet_id) noexcept;

    [[nodiscard]] static DeliveryRecord record_of(const Delivery &delivery) noexcept;

    uint64_t       session_;
    DeliveryPool  &pool_;
    DeliverySink  *sink_ = nullptr;
    DeliveryBounds bounds_;

    DeliveryList  queue_;    // not sent; QoS 0, too
    DeliveryList  sent_;     // PUBLISH was sent; in the order of that
    DeliveryList  received_; // PUBREC came; in the order of that [MQTT-4.6.0-4]
    PacketIdIndex in_use_;   // `sent_` and `received_`
    Amount        stored_;
    Amount        qos0_;
    Drops         drops_;
    uint64_t      last_number_ = 0;
    uint64_t      last_order_  = 0;

    static constexpr uint64_t kNever           = UINT64_MAX;
    uint64_t                  first_expiry_ms_ = kNever; // nothing in `queue_` expires before

    bool      connected_      = false;
    uint32_t  connection_     = 1;       // their count since the start; restored deliveries have 0
    size_t    awaiting_ack_   = 0;       // of `sent_`, those whose PUBLISH went over this connection
    Delivery *again_sent_     = nullptr; // the first of `sent_` that goes again on this connection, with all behind it
    Delivery *again_received_ = nullptr; // the same of `received_`, but for those that PUBREC brought meanwhile
    Delivery *handed_out_     = nullptr; // at QoS 0; Outgoing points to its subscription identifiers
    Delivery *search_from_    = nullptr; // of `queue_`: where find_queued() goes on
    Delivery *walk_           = nullptr; // of `queue_`
};

// ---- Templates

// The one that began earlier; either may be null. What began earlier goes first, over a new connection and in a file.
[[nodiscard]] inline Delivery *earlier(Delivery *a, Delivery *b) noexcept
{
    if (!a || !b)
        return a ? a : b;
    return a->order < b->order ? a : b;
}

template <class Visitor> void Deliveries::for_each(Visitor &&visit) const
{
    Delivery *sent     = sent_.first();
    Delivery *received = received_.first();
    while (Delivery *const at = earlier(sent, received)) {
        visit(record_of(*at));
        (at == sent ? sent : received) = at->next;
    }
    for (const Delivery *at = queue_.first(); at; at = at->next) {
        if (at->qos > 0)
            visit(record_of(*at));
    }
}

} // namespace tarn::standard

#endif
