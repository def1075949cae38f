// routing.cpp - see routing.h.
#include "routing.h"

#include "../qos/qos.hpp"

#include <algorithm>
#include <cstring>

namespace tarn::handler {
namespace {

void on_outcome(Routing &routing, Outcome outcome)
{
    routing.rules.on_outcome(routing, outcome);
}

// Of few receivers none is far enough ahead.
class ReceiversAhead {
public:
    explicit ReceiversAhead(const Matches &matches) noexcept
        : matches_(matches), next_(matches.count() > ReceiverPrefetch::kAhead ? 0 : matches.count())
    {
    }

    void prefetch_from(int at) noexcept
    {
        const int end = std::min(at + ReceiverPrefetch::kAhead, matches_.count());
        for (; next_ < end; ++next_)
            prefetch_.next(matches_[next_].client_id);
    }

private:
    const Matches   &matches_;
    int              next_;
    ReceiverPrefetch prefetch_;
};

bool refuse(Routing &routing, Outcome outcome)
{
    on_outcome(routing, outcome);
    return false;
}

// QUIRK(receive-maximum-ignored): deliveries do not wait for acknowledgements of earlier ones, whatever Receive
// Maximum a 5.0 client announced [MQTT-3.3.4-9]. What limits them is the client's ring and 1000 pending deliveries.
//   standard profile: lifted (delivery)
//   test: publish.a_receive_maximum_holds_nothing_back
//
// True when the message was queued for the receiver whose turn it is.
bool deliver_to_receiver(Routing &routing, DeliveryCache &cache)
{
    const Rules   &rules    = routing.rules;
    const Message &message  = routing.message;
    Receiver      &receiver = routing.receiver;
    mqtt_client_t &client   = *receiver.client;

    receiver.version = codec::level_of(client.codec);
    if (rules.payload_by_version) {
        on_outcome(routing, Outcome::Online);
        if (message.payload.empty())
            return refuse(routing, Outcome::NoPayload);
    }

    const bool                   acknowledged = receiver.qos != 0;
    const uint16_t               id           = acknowledged || rules.draws_at_qos0 ? draw_delivery_id() : uint16_t{0};
    const DeliveryCache::Encoded packet       = cache.encode(receiver.version, receiver.qos, id);
    receiver.result                           = codec::code_of(packet.result);
    if (!packet.had_memory)
        return refuse(routing, Outcome::NoMemory);

    const qos::Delivery delivery{.client     = client,
                                 .msg_id     = id,
                                 .qos        = static_cast<uint8_t>(receiver.qos),
                                 .topic      = message.topic_text(),
                                 .payload    = message.payload,
                                 .tracked    = acknowledged && rules.tracking == Tracking::Queued,
                                 .remembered = receiver.qos == 1 && rules.remembers_qos1,
                                 .copy       = &routing.payload_copy};
    if (acknowledged && rules.tracking == Tracking::Always &&
        (packet.ready() || cache.scan_can_encode(packet.result, receiver.version)))
        (void)qos::track(client, id, delivery.qos, delivery.topic, delivery.payload, delivery.copy);
    if (!packet.ready())
        return refuse(routing, Outcome::NotEncoded);

    codec::note_packet(client.codec, PUBLISH);
    const qos::FirstSend first = qos::send_and_track(delivery, packet.head);
    receiver.result            = static_cast<int>(first.result);
    if (first.result != 0)
        return refuse(routing, Outcome::NotSent);
    on_outcome(routing, Outcome::Sent);
    if (delivery.tracked)
        qos::log_tracking(delivery, first);
    return true;
}

// False without memory. A route that chooses first allocates its flags for no match, too.
bool match(Routing &routing, const char *topic)
{
    const bool chooses_first = routing.rules.chooses_first;
    Matches   &matches       = routing.matches;
    if (!matches.find(topic))
        return refuse(routing, Outcome::NoMatchMemory);
    if (chooses_first && !matches.choose())
        return refuse(routing, Outcome::NoChoiceMemory);
    on_outcome(routing, Outcome::Matched);
    if (!chooses_first && matches.count() != 0 && !matches.choose())
        return refuse(routing, Outcome::NoChoiceMemory);
    return true;
}

} // namespace

bool Matches::find(const char *topic) noexcept
{
    sub::MatchList &list = workspace_->matches;
    list.matches.clear();
    list.names.clear();
    count_ = sub::list_matches(topic, list);
    return count_ >= 0;
}

bool Matches::choose() noexcept
{
    chosen_ = allocate_zeroed<uint8_t>(static_cast<size_t>(count_));
    if (!chosen_)
        return false;

    ShareChoice &choice = workspace_->choice;
    choice.members.clear();
    for (int at = 0; at < count_; at++) {
        const sub::Match &match = (*this)[at];
        if (!match.shared || match.group_size == sub::kNoGroup)
            continue;
        if (!choice.members.push({workspace_->matches.group_of(match), static_cast<uint32_t>(at), 0}))
            return true; // no working storage: nobody is chosen
    }
    if (choice.members.empty() || !choose_members(choice))
        return true;
    for (const ShareMember &member : choice.members)
        chosen_[member.entry] = member.chosen;
    return true;
}

bool route(Routing &routing, const char *topic) noexcept
{
    if (!match(routing, topic))
        return false;
    const Matches &matches = routing.matches;
    if (matches.count() == 0) {
        on_outcome(routing, Outcome::Unmatched);
        return true;
    }

    DeliveryCache  cache(routing.message);
    ReceiversAhead ahead(matches);
    Receiver      &receiver = routing.receiver;
    for (int at = 0; at < matches.count(); at++) {
        ahead.prefetch_from(at);
        const sub::Match &to = matches[at];
        if (routing.excluded && strcmp(routing.excluded, to.client_id) == 0)
            continue;
        receiver = {.number = at + 1, .to = &to, .qos = std::min<uint32_t>(routing.qos, to.qos)};
        if (matches.skips(at)) {
            on_outcome(routing, Outcome::NotChosen);
            continue;
        }
        const RoundClient client(to.client_id);
        receiver.client = client.get();
        receiver.state  = client ? uint32_t{client->state} : uint32_t{CLIENT_UNUSED};
        if (receiver.state == CLIENT_CONNECTED || receiver.state == CLIENT_LOGINED)
            routing.sent += deliver_to_receiver(routing, cache);
        else
            on_outcome(routing, Outcome::Offline);
    }
    on_outcome(routing, Outcome::Routed);
    return true;
}

bool is_kept(const Routing &routing, const persist::AbsentSession &session) noexcept
{
    return session.is_loaded() && (!routing.receiver.to->clean_session || session.has_files()) &&
           !routing.message.topic.empty() && !routing.message.payload.empty();
}

bool keep_message(const Routing &routing, persist::AbsentSession &session) noexcept
{
    const Message &message = routing.message;
    session.count_and_log_again();
    return session.add_message(message.topic_text(), message.payload.data(), message.payload_len(),
                               static_cast<uint8_t>(routing.receiver.qos));
}

} // namespace tarn::handler
