// routing.cpp - see routing.h.
#include "routing.h"

#include "../qos/qos.hpp"
#include "shared_choice.h"

#include <algorithm>

namespace tarn::handler {
namespace {

// Kept from message to message, so that routing allocates nothing once a thread has seen its largest match.
struct Workspace {
    sub::RouteList routes;
    ShareChoice    choice;
};
constinit thread_local Workspace t_workspace;

void settle(Routing &routing, Outcome outcome)
{
    routing.rules.settle(routing, outcome);
}

bool refuse(Routing &routing, Outcome outcome)
{
    settle(routing, outcome);
    return false;
}

// QUIRK(receive-maximum-ignored): deliveries do not wait for acknowledgements of earlier ones, whatever Receive
// Maximum a 5.0 client announced [MQTT-3.3.4-9]. What limits them is the client's ring and 1000 pending deliveries.
//   test: publish.a_receive_maximum_holds_nothing_back
//
// True when the message was queued for the receiver whose turn it is.
bool deliver(Routing &routing, DeliveryCache &cache)
{
    const Rules   &rules   = routing.rules;
    const Message &message = routing.message;
    Turn          &turn    = routing.turn;
    mqtt_client_t &client  = *turn.client;

    turn.version = codec::level_of(client.codec);
    if (rules.payload_by_version) {
        settle(routing, Outcome::Online);
        if (message.payload.empty())
            return refuse(routing, Outcome::NoPayload);
    }

    const bool                   acknowledged = turn.qos != 0;
    const uint16_t               id           = acknowledged || rules.draws_at_qos0 ? draw_delivery_id() : uint16_t{0};
    const DeliveryCache::Encoded packet       = cache.encode(turn.version, turn.qos, id);
    turn.result                               = codec::code_of(packet.result);
    if (!packet.had_memory)
        return refuse(routing, Outcome::NoMemory);

    const qos::Delivery delivery{.client     = client,
                                 .msg_id     = id,
                                 .qos        = static_cast<uint8_t>(turn.qos),
                                 .topic      = message.topic_text(),
                                 .payload    = message.payload,
                                 .tracked    = acknowledged && rules.tracking == Tracking::Queued,
                                 .remembered = turn.qos == 1 && rules.remembers_qos1};
    if (acknowledged && rules.tracking == Tracking::Always &&
        (packet.ready() || cache.scan_can_encode(packet.result, turn.version)))
        (void)qos::track(client, id, delivery.qos, delivery.topic, delivery.payload);
    if (!packet.ready())
        return refuse(routing, Outcome::NotEncoded);

    codec::note_packet(client.codec, PUBLISH);
    const qos::Booked booked = qos::send_booked(delivery, packet.head);
    turn.result              = static_cast<int>(booked.result);
    if (booked.result != 0)
        return refuse(routing, Outcome::NotSent);
    settle(routing, Outcome::Sent);
    if (delivery.tracked)
        qos::say_booked(delivery, booked);
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
    settle(routing, Outcome::Matched);
    if (!chooses_first && matches.count() != 0 && !matches.choose())
        return refuse(routing, Outcome::NoChoiceMemory);
    return true;
}

} // namespace

Matches::Matches() noexcept : list_(t_workspace.routes) {}

bool Matches::find(const char *topic) noexcept
{
    list_.routes.clear();
    list_.names.clear();
    count_ = sub::match_routes(topic, list_);
    return count_ >= 0;
}

bool Matches::choose() noexcept
{
    chosen_ = allocate_zeroed<uint8_t>(static_cast<size_t>(count_));
    if (!chosen_)
        return false;

    ShareChoice &choice = t_workspace.choice;
    choice.members.clear();
    for (int at = 0; at < count_; at++) {
        const sub::Route &route = (*this)[at];
        if (!route.shared || route.group_size == sub::kNoGroup)
            continue;
        if (!choice.members.push({list_.group_of(route), static_cast<uint32_t>(at), 0}))
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
        settle(routing, Outcome::Unmatched);
        return true;
    }

    DeliveryCache cache(routing.message);
    Turn         &turn = routing.turn;
    for (int at = 0; at < matches.count(); at++) {
        const sub::Route &to = matches[at];
        if (routing.excluded && *routing.excluded == to.client_id)
            continue;
        turn = {.number = at + 1, .to = &to, .qos = std::min<uint32_t>(routing.qos, to.qos)};
        if (matches.skips(at)) {
            settle(routing, Outcome::NotChosen);
            continue;
        }
        const client_ref client = find_client_by_cid(to.client_id);
        turn.client             = client.get();
        turn.state              = client ? uint32_t{client->state} : uint32_t{CLIENT_UNUSED};
        if (turn.state == CLIENT_CONNECTED || turn.state == CLIENT_LOGINED)
            routing.sent += deliver(routing, cache);
        else
            settle(routing, Outcome::Absent);
    }
    settle(routing, Outcome::Routed);
    return true;
}

bool is_kept(const Routing &routing, const persist::HeldSession &session) noexcept
{
    return session.is_loaded() && (!routing.turn.to->clean_session || session.has_files()) &&
           !routing.message.topic.empty() && !routing.message.payload.empty();
}

bool keep_message(const Routing &routing, persist::HeldSession &session) noexcept
{
    const Message &message = routing.message;
    session.report_again();
    return session.add_message(message.topic_text(), message.payload.data(), message.payload_len(),
                               static_cast<uint8_t>(routing.turn.qos));
}

} // namespace tarn::handler
