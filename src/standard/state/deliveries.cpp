// deliveries.cpp - see deliveries.h. A delivery at QoS 1 and 2 goes from `queue_` to `sent_`, at QoS 2 to `received_`.
#include "deliveries.h"

#include <algorithm>

namespace tarn::standard {
namespace {

constexpr uint8_t kFirstFailure = 0x80; // among the reasons

// What is left, in whole seconds that began: the whole time waited is subtracted [MQTT-3.3.2-6].
std::optional<uint32_t> expiry_left(const Message &message, uint64_t now_ms)
{
    if (message.expires_ms() == 0)
        return std::nullopt;
    if (message.expires_ms() <= now_ms)
        return 0;
    const uint64_t left_s = (message.expires_ms() - now_ms - 1) / 1000 + 1;
    return static_cast<uint32_t>(std::min<uint64_t>(left_s, UINT32_MAX));
}

bool is_expired(const Message &message, uint64_t now_ms)
{
    return message.expires_ms() != 0 && message.expires_ms() <= now_ms;
}

Outgoing publish_of(const Delivery &delivery, uint64_t now_ms, bool dup)
{
    return {.kind                     = Outgoing::Kind::Publish,
            .qos                      = delivery.qos,
            .dup                      = dup,
            .retain                   = delivery.retain,
            .packet_id                = delivery.packet_id,
            .expiry_s                 = expiry_left(*delivery.message, now_ms),
            .subscription_identifiers = delivery.subscription_identifiers.all(),
            .message                  = delivery.message};
}

} // namespace

Deliveries::Deliveries(uint64_t session, DeliveryPool &pool, const DeliveryBounds &bounds) noexcept
    : session_(session), pool_(pool), bounds_(bounds)
{
}

Deliveries::~Deliveries()
{
    give_back_handed_out();
    for (DeliveryList *const list : {&queue_, &sent_, &received_}) {
        while (list->first())
            forget(*list->first());
    }
}

// ---- Offers

Offered Deliveries::offer(const MessageRef &message, uint8_t qos, bool retain,
                          std::span<const uint32_t> subscription_identifiers) noexcept
{
    if (qos == 0 && !connected_)
        return Offered::NotConnected;
    Delivery *const made = make(message, qos, retain, subscription_identifiers);
    if (!made)
        return Offered::NoMemory;
    Offered result = refusal_of(qos, made->bytes());
    if (result == Offered::Queued && qos > 0 && !record_queued(*made))
        result = Offered::NotRecorded;
    if (result != Offered::Queued) {
        pool_.give_back(*made);
        return result;
    }
    append(queue_, *made);
    count_in(*made);
    note_expiry(*message);
    return result;
}

uint16_t Deliveries::offer_and_send(const MessageRef &message, uint8_t qos, bool retain,
                                    std::span<const uint32_t> subscription_identifiers,
                                    uint16_t                  receive_maximum) noexcept
{
    if (sink_ || !connected_ || has_waiting() || !has_room_for(receive_maximum))
        return 0;
    Delivery *const made = make(message, qos, retain, subscription_identifiers);
    if (!made)
        return 0;
    if (refusal_of(qos, made->bytes()) != Offered::Queued) {
        pool_.give_back(*made);
        return 0;
    }
    made->number     = ++last_number_;
    made->packet_id  = in_use_.next_unused();
    made->connection = connection_;
    count_in(*made);
    append(sent_, *made);
    in_use_.insert(*made);
    ++awaiting_ack_;
    return made->packet_id;
}

void Deliveries::take_back(uint16_t packet_id) noexcept
{
    if (Delivery *const found = in_use_.find(packet_id))
        forget(*found);
}

// For drop_expired(): nothing in the queue expires before.
void Deliveries::note_expiry(const Message &message) noexcept
{
    if (message.expires_ms() != 0)
        first_expiry_ms_ = std::min(first_expiry_ms_, message.expires_ms());
}

// An empty queue takes any message. Queued, or why it is not.
Offered Deliveries::refusal_of(uint8_t qos, size_t bytes) const noexcept
{
    const Amount &held  = qos == 0 ? qos0_ : stored_;
    const Amount &bound = qos == 0 ? bounds_.qos0 : bounds_.stored;
    if (held.count == 0)
        return Offered::Queued;
    if (held.count >= bound.count)
        return Offered::TooMany;
    return held.bytes > bound.bytes || bytes > bound.bytes - held.bytes ? Offered::TooManyBytes : Offered::Queued;
}

// Null without memory.
Delivery *Deliveries::make(const MessageRef &message, uint8_t qos, bool retain,
                           std::span<const uint32_t> subscription_identifiers) noexcept
{
    Delivery *const made = pool_.take();
    if (!made)
        return nullptr;
    if (!made->subscription_identifiers.assign(subscription_identifiers)) {
        pool_.give_back(*made);
        return nullptr;
    }
    made->message = message;
    made->qos     = qos;
    made->retain  = retain;
    return made;
}

bool Deliveries::record_queued(Delivery &delivery) noexcept
{
    delivery.number = last_number_ + 1;
    if (sink_ && !sink_->queued(session_, record_of(delivery)))
        return false;
    last_number_ = delivery.number;
    return true;
}

// ---- Connections

void Deliveries::resume() noexcept
{
    absent();
    connected_ = true;
    ++connection_;
    awaiting_ack_   = 0;
    again_sent_     = sent_.first();
    again_received_ = received_.first();
}

// Only QoS 0 goes; what was sent stays until it is acknowledged over another connection.
void Deliveries::absent() noexcept
{
    connected_ = false;
    give_back_handed_out();
    for (Delivery *at = queue_.first(); qos0_.count > 0;) {
        Delivery *const checked = std::exchange(at, at->next);
        if (checked->qos > 0)
            continue;
        ++drops_.disconnected;
        forget(*checked);
    }
}

// ---- What is sent next

Outgoing Deliveries::next(uint64_t now_ms, const ReceiverLimits &limits) noexcept
{
    give_back_handed_out();
    if (!connected_)
        return {};
    while (true) {
        const bool      has_room = has_room_for(limits.receive_maximum());
        Delivery *const again    = due_again(has_room);
        if (!again)
            return again_sent_ ? Outgoing{} : next_queued(now_ms, has_room, limits);
        Outgoing packet = next_again(*again, now_ms, limits);
        if (packet.kind != Outgoing::Kind::Nothing)
            return packet;
    }
}

// Deliveries that only miss PUBCOMP count as well, whichever connection they began on [MQTT-3.3.4-9].
bool Deliveries::has_room_for(uint16_t receive_maximum) const noexcept
{
    return awaiting_ack_ + received_.count() < receive_maximum;
}

// Of the packets that a new connection must repeat, the one that went out first [MQTT-4.6.0-1]. Without room PUBLISH
// has to wait, but not PUBREL [MQTT-3.3.4-10].
Delivery *Deliveries::due_again(bool has_room) noexcept
{
    while (again_received_ && again_received_->connection == connection_) // PUBREC came meanwhile and was answered
        again_received_ = again_received_->next;
    return earlier(has_room ? again_sent_ : nullptr, again_received_);
}

// Nothing: the client cannot take it, and it was dropped. Whether it has expired is not asked: the client may hold the
// identifier [MQTT-4.3.3-7].
Outgoing Deliveries::next_again(Delivery &delivery, uint64_t now_ms, const ReceiverLimits &limits) noexcept
{
    if (delivery.received)
        return send_pubrel(delivery);
    Outgoing publish = publish_of(delivery, now_ms, true);
    if (limits.takes(publish)) {
        delivery.connection = connection_;
        again_sent_         = delivery.next;
        ++awaiting_ack_;
        return publish;
    }
    ++drops_.too_large;
    if (delivery.qos == 2) { // an earlier connection may have brought it: PUBREL lets the client end it
        note_received(delivery);
        return send_pubrel(delivery);
    }
    finish(delivery);
    return {};
}

Outgoing Deliveries::next_queued(uint64_t now_ms, bool has_room, const ReceiverLimits &limits) noexcept
{
    while (Delivery *const first = queue_.first()) {
        if (is_expired(*first->message, now_ms)) { // [MQTT-3.3.2-5]
            ++drops_.expired;
            finish(*first);
            continue;
        }
        if (first->qos > 0 && !has_room)
            return {};
        Outgoing publish = publish_of(*first, now_ms, false);
        if (limits.takes(publish))
            return send_first(*first, std::move(publish));
        ++drops_.too_large; // [MQTT-3.1.2-24], [MQTT-3.1.2-25]
        finish(*first);
    }
    return {};
}

Outgoing Deliveries::send_first(Delivery &delivery, Outgoing publish) noexcept
{
    if (delivery.qos == 0) {
        unlink(delivery);
        count_out(delivery);
        delivery.message = {};
        handed_out_      = &delivery;
        return publish;
    }
    begin_flight(delivery, in_use_.next_unused());
    delivery.connection = connection_;
    ++awaiting_ack_;
    if (sink_)
        sink_->sent(session_, delivery.number, delivery.packet_id);
    publish.packet_id = delivery.packet_id;
    return publish;
}

Outgoing Deliveries::send_pubrel(Delivery &delivery) noexcept
{
    delivery.connection = connection_;
    Outgoing pubrel;
    pubrel.kind      = Outgoing::Kind::Pubrel;
    pubrel.packet_id = delivery.packet_id;
    return pubrel;
}

// ---- Acknowledgements

Acknowledged Deliveries::puback(uint16_t packet_id, uint8_t reason) noexcept
{
    Delivery *const found = in_use_.find(packet_id);
    if (!found)
        return {Outcome::NotFound};
    if (found->qos != 1)
        return {Outcome::Unexpected};
    finish(*found);
    return {reason < kFirstFailure ? Outcome::Completed : Outcome::Refused};
}

Acknowledged Deliveries::pubrec(uint16_t packet_id, uint8_t reason) noexcept
{
    Delivery *const found = in_use_.find(packet_id);
    if (!found)
        return {Outcome::NotFound, reason < kFirstFailure ? Answer::PubrelNotFound : Answer::Nothing};
    if (found->qos != 2)
        return {Outcome::Unexpected};
    if (reason >= kFirstFailure) {
        finish(*found);
        return {Outcome::Refused};
    }
    if (!found->received)
        note_received(*found);
    found->connection = connection_;
    return {Outcome::Received, Answer::Pubrel}; // [MQTT-4.3.3-4], to a second one, too
}

Acknowledged Deliveries::pubcomp(uint16_t packet_id, uint8_t reason) noexcept
{
    Delivery *const found = in_use_.find(packet_id);
    if (!found)
        return {Outcome::NotFound};
    if (!found->received)
        return {Outcome::Unexpected};
    finish(*found);
    return {reason < kFirstFailure ? Outcome::Completed : Outcome::Refused};
}

void Deliveries::drop_expired(uint64_t now_ms) noexcept
{
    if (now_ms < first_expiry_ms_)
        return;
    first_expiry_ms_ = kNever;
    for (Delivery *at = queue_.first(); at;) {
        Delivery *const checked = std::exchange(at, at->next);
        if (!is_expired(*checked->message, now_ms)) {
            note_expiry(*checked->message);
            continue;
        }
        ++drops_.expired;
        finish(*checked);
    }
}

// ---- Steps of a delivery

void Deliveries::begin_flight(Delivery &delivery, uint16_t packet_id) noexcept
{
    unlink(delivery);
    delivery.packet_id = packet_id;
    append(sent_, delivery);
    in_use_.insert(delivery);
}

void Deliveries::note_received(Delivery &delivery) noexcept
{
    become_received(delivery);
    if (sink_)
        sink_->received(session_, delivery.number, delivery.packet_id);
}

// PUBLISH is never sent again [MQTT-4.3.3-6]; so its message can go.
void Deliveries::become_received(Delivery &delivery) noexcept
{
    unlink(delivery);
    stored_.bytes -= delivery.bytes();
    delivery.message = {};
    stored_.bytes += delivery.bytes();
    delivery.received = true;
    append(received_, delivery);
}

void Deliveries::finish(Delivery &delivery) noexcept
{
    if (sink_ && delivery.qos > 0)
        sink_->done(session_, delivery.number, delivery.packet_id);
    forget(delivery);
}

void Deliveries::forget(Delivery &delivery) noexcept
{
    unlink(delivery);
    if (delivery.packet_id != 0)
        in_use_.remove(delivery);
    count_out(delivery);
    pool_.give_back(delivery);
}

// ---- Lists and amounts

DeliveryList &Deliveries::list_of(const Delivery &delivery) noexcept
{
    if (delivery.packet_id == 0)
        return queue_;
    return delivery.received ? received_ : sent_;
}

Amount &Deliveries::amount_of(const Delivery &delivery) noexcept
{
    return delivery.qos == 0 ? qos0_ : stored_;
}

void Deliveries::append(DeliveryList &list, Delivery &delivery) noexcept
{
    delivery.order = ++last_order_;
    list.append(delivery);
}

// All that points into a list goes on behind it.
void Deliveries::unlink(Delivery &delivery) noexcept
{
    for (Delivery **const pointer : {&again_sent_, &again_received_, &search_from_, &walk_}) {
        if (*pointer == &delivery)
            *pointer = delivery.next;
    }
    DeliveryList &list = list_of(delivery);
    if (&list == &sent_ && delivery.connection == connection_)
        --awaiting_ack_;
    list.remove(delivery);
}

void Deliveries::count_in(const Delivery &delivery) noexcept
{
    Amount &held = amount_of(delivery);
    ++held.count;
    held.bytes += delivery.bytes();
}

void Deliveries::count_out(const Delivery &delivery) noexcept
{
    Amount &held = amount_of(delivery);
    --held.count;
    held.bytes -= delivery.bytes();
}

void Deliveries::give_back_handed_out() noexcept
{
    if (handed_out_)
        pool_.give_back(*std::exchange(handed_out_, nullptr));
}

} // namespace tarn::standard
