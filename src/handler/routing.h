// routing.h - the way of a message to its receivers, the same on every route: match the topic, choose one member per
// shared group, then deliver to each receiver at its QoS, in its protocol version, under an identifier of its own.
//
// What differs between the routes is a row of Rules and one switch over the outcomes, which says the route's lines and
// keeps messages for the absent. No lock is held while a message travels; each receiver is pinned for its turn.
#ifndef TARN_HANDLER_ROUTING_H
#define TARN_HANDLER_ROUTING_H

#include "../persist/absent_session.h"
#include "../qos/first_send.h"
#include "delivery_cache.h"
#include "handler_internal.h"
#include "workspace.h"

namespace tarn::handler {

// The matching subscriptions of one topic in table order. One at a time on each thread.
class Matches {
public:
    [[nodiscard]] bool find(const char *topic) noexcept; // false: no memory, errno says so
    [[nodiscard]] bool choose() noexcept;                // shared groups; false: no memory for the flags

    int               count() const noexcept { return count_; }
    const sub::Match &operator[](int at) const noexcept { return workspace_->matches.matches[static_cast<size_t>(at)]; }

    // A member of a shared group, of which another member was chosen.
    bool skips(int at) const noexcept
    {
        const sub::Match &match = (*this)[at];
        return match.shared && match.group_size != sub::kNoGroup && !chosen_[static_cast<size_t>(at)];
    }

private:
    UsedWorkspace  workspace_;
    owned<uint8_t> chosen_; // a flag a match
    int            count_ = 0;
};

// What became of the message, and of each receiver's delivery.
enum class Outcome : uint8_t {
    NoMatchMemory,  // errno says why; the end
    NoChoiceMemory, // likewise
    Matched,        // by anybody or nobody
    Unmatched,      // by nobody; the end
    Routed,         // every receiver had its turn; the end

    NotChosen,  // another member of its shared group gets the message
    Offline,    // receiver.client is null, or not online
    Online,     // told only with payload_by_version: the route sets the message's payload
    NoPayload,  // it set none
    NoMemory,   // errno says why
    NotEncoded, // receiver.result: CODEC_*
    NotSent,    // receiver.result: queue_packet's
    Sent,       // queued, that is
};

// When a delivery of QoS 1 or 2 joins those that are repeated until they are acknowledged.
enum class Tracking : uint8_t {
    Never,
    Queued, // in one step with being queued
    Always, // before it is queued, and even if it cannot be; also when the encoded form did not fit the buffer
};

struct Routing;

struct Rules {
    void (*on_outcome)(Routing &routing, Outcome outcome) noexcept; // the route's switch
    Tracking tracking;
    bool     remembers_qos1;     // as the one acknowledgement that the receiver's record waits for
    bool     draws_at_qos0;      // an identifier is drawn where none is sent
    bool     chooses_first;      // before it is asked whether anybody matched
    bool     payload_by_version; // of the receiver
};

// The receiver that the message is at.
struct Receiver {
    int               number  = 0; // from 1, as log lines count
    const sub::Match *to      = nullptr;
    mqtt_client_t    *client  = nullptr; // pinned; null: nobody has this id
    uint32_t          state   = CLIENT_UNUSED;
    uint32_t          version = 0; // read once: another thread may change it
    uint32_t          qos     = 0; // the smaller of the message's and the granted one
    int               result  = 0;

    const char *id() const noexcept { return to->client_id; }
    int         shown_qos() const noexcept { return static_cast<int>(qos); }
};

// One message on its way.
struct Routing {
    Routing(const Rules &route, const Message &what) noexcept : rules(route), message(what), qos(what.qos) {}

    const Rules     &rules;
    Message          message;            // its QoS and identifier change with every delivery
    const uint32_t   qos;                // of the message itself
    const char      *excluded = nullptr; // no receiver of this id, without a word
    Matches          matches;
    Receiver         receiver;
    qos::PayloadCopy payload_copy; // of the deliveries that are tracked
    int              sent = 0;     // receivers that the message was queued for
};

// Sends the message to whom `topic` matches. False without memory.
[[nodiscard]] bool route(Routing &routing, const char *topic) noexcept;

// True when the message is to be kept for this offline receiver: it has a topic and a payload, and the receiver
// subscribed without a clean session or has files.
[[nodiscard]] bool is_kept(const Routing &routing, const persist::AbsentSession &session) noexcept;

// Counts and logs a second load, though the files were read once for is_kept(). False without memory.
[[nodiscard]] bool keep_message(const Routing &routing, persist::AbsentSession &session) noexcept;

} // namespace tarn::handler

#endif
