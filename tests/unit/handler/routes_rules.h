// routes_rules.h - what sets the five routes of a message apart, as tables: who gets it and how, and every line.
#ifndef TARN_TESTS_ROUTES_RULES_H
#define TARN_TESTS_ROUTES_RULES_H

#include "routes_world.h"
#include "support/log_lines/codec.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/qos.h"
#include "support/log_lines/sub.h"

namespace tarn::test::routes {

enum class Route { Publish, Host, Will, Broadcast, Test };

enum class Tracks { Nothing, Sent, Anyway }; // anyway: also what the ring refused, or only a larger buffer can hold
enum class Keeps { Nothing, AboveQos0, All };

struct Rules {
    const char *passed_by;      // the id that gets nothing, without a line
    int         draws;          // before those of the first receiver
    bool        draws_at_qos0;  // an identifier that nobody sees
    Tracks      tracks;         // until it is acknowledged
    bool        remembers_qos1; // in the receiver's record
    Keeps       keeps;          // for the absent who have a session
    const char *kept_counter;   // with each message kept
    bool        retains;        // puts it into the retained store, if it asks for that
    bool        retain, expiry; // as sent, in the deliveries
};
constexpr const char *kNoOne = "no one";
// clang-format off
constexpr Rules kRules[] = {
    //               passed_by  draws  at_qos0  tracks           qos1   keeps             kept_counter   retains retain expiry
    /* Publish   */ {"p",       0,     false,   Tracks::Sent,    true,  Keeps::All,       "offline_msg", true,   false, true},
    /* Host      */ {"",        2,     true,    Tracks::Anyway,  false, Keeps::AboveQos0, nullptr,       true,   true,  true},
    /* Will      */ {kNoOne,    1,     false,   Tracks::Nothing, true,  Keeps::Nothing,   nullptr,       false,  true,  false},
    /* Broadcast */ {kNoOne,    0,     false,   Tracks::Sent,    true,  Keeps::Nothing,   nullptr,       false,  true,  false},
    /* Test      */ {"",        0,     true,    Tracks::Sent,    true,  Keeps::Nothing,   nullptr,       false,  false, false},
};
// clang-format on

// ---- the lines, each in its place

enum class At {
    Received, // the packet
    TooLong,
    Begin,
    Payload,
    Limited, // the life of what waits under the same identifier
    Removed, // the retained message of the topic
    Replaced,
    Added,
    Encoded, // the will itself
    NotEncodable,
    Broadcast,
    Misread, // the topic, behind a remaining length of two bytes; the end
    Found,
    List,
    Match, // each of them
    Nobody,
    // a receiver
    PassedOver, // another one of its group was chosen
    NoId,
    Unknown,
    Waiting,
    Online,
    NoPayload,
    NotEncoded,
    NotSent,
    Sent,
    NotKept,
    Kept,
    // the message again
    End,
    Answered,
    WillSent,
};

struct Words { // that lines are made of
    std::string topic, id, filter;
    unsigned    qos = 0, granted = 0, least = 0;
    bool        retain  = false;
    size_t      payload = 0, size = 0; // bytes of the message and of the sender's packet
    uint32_t    expiry = 0;
    int         msgid = 0, found = 0, sent = 0, failed = 0, code = 0, n = 0, misread = 0, behind = 0;
    long        start = 0, left = 0;
};

struct Says {
    const char *who; // of Publish, Host, Will, Broadcast, Test
    At          at;
    LogLine (*line)(const Words &);
};
constexpr Says kSays[] = {
    {"P", At::Received, [](const Words &w) { return logged::packet_received("p", 3, w.size); }},
    {"P", At::TooLong, [](const Words &w) { return logged::publish_decode_payload_truncated(w.payload); }},
    {"P", At::Begin, [](const Words &w) { return logged::publish_received("p", w.topic, w.qos, w.retain, w.msgid); }},
    {"W", At::Begin, [](const Words &) { return logged::will_sent("p"); }},
    {"W", At::Begin, [](const Words &w) { return logged::will_message(w.topic, w.qos, w.retain, w.payload); }},
    {"W", At::Payload, [](const Words &) { return logged::will_payload(); }},
    {"P", At::Limited, [](const Words &w) { return logged::delivery_expiry_set(w.msgid, w.expiry); }},
    {"PH", At::Removed, [](const Words &w) { return logged::retained_removed(w.topic); }},
    {"PH", At::Replaced, [](const Words &w) { return logged::retained_replaced(w.topic); }},
    {"PH", At::Added, [](const Words &w) { return logged::retained_added(w.topic); }},
    {"W", At::NotEncodable, [](const Words &w) { return logged::will_not_encoded(w.code); }},
    {"W", At::Encoded, [](const Words &w) { return logged::will_encoded(w.size); }},
    {"WB", At::Misread, [](const Words &w) { return logged::broadcast_topic_cut(w.misread, w.size, w.behind); }},
    {"WB", At::Broadcast, [](const Words &w) { return logged::broadcast_started(w.topic, w.qos, w.size); }},
    {"T", At::Begin, [](const Words &w) { return logged::hello_started(w.topic, "Hello from MQTT Broker!", 1); }},

    {"PHWBT", At::Found, [](const Words &w) { return logged::topic_matched(w.topic, w.found); }},
    {"WB", At::Found, [](const Words &w) { return logged::broadcast_matched(w.topic, w.found); }},
    {"T", At::Found, [](const Words &w) { return logged::hello_matched(w.topic, w.found); }},
    {"P", At::Nobody, [](const Words &w) { return logged::publish_matched_nobody(w.topic); }},
    {"WB", At::Nobody, [](const Words &w) { return logged::broadcast_matched_nobody(w.topic); }},
    {"T", At::Nobody, [](const Words &w) { return logged::hello_matched_nobody(w.topic); }},
    {"WB", At::List, [](const Words &w) { return logged::broadcast_receivers(w.found); }},
    {"WB", At::Match, [](const Words &w) { return logged::broadcast_receiver(w.n, w.id, w.filter, w.granted); }},

    {"PWB", At::PassedOver, [](const Words &w) { return logged::shared_receiver_skipped(w.n); }},
    {"T", At::PassedOver, [](const Words &w) { return logged::hello_shared_receiver_skipped(w.n); }},
    {"WB", At::NoId, [](const Words &w) { return logged::broadcast_skips_empty_id(w.n); }},
    {"WB", At::Unknown, [](const Words &w) { return logged::broadcast_receiver_unknown(w.n, w.id); }},
    {"T", At::Unknown, [](const Words &w) { return logged::hello_receiver_unknown(w.id); }},
    {"W", At::Waiting, [](const Words &w) { return logged::broadcast_receiver_offline(w.id); }},
    {"B", At::Waiting, [](const Words &w) { return logged::broadcast_receiver_in_state(w.n, w.id, 3); }},
    {"T", At::Waiting, [](const Words &w) { return logged::hello_receiver_in_state(w.id, 3); }},
    {"P", At::Kept, [](const Words &w) { return logged::message_kept(w.id, w.topic); }},
    {"H", At::Kept, [](const Words &w) { return logged::host_message_kept(w.id, w.topic); }},
    {"H", At::NotKept, [](const Words &w) { return logged::host_message_not_kept(w.id, w.topic); }},
    {"WB", At::Online, [](const Words &w) { return logged::broadcast_qos_lowered(w.n, w.qos, w.granted, w.least); }},
    {"WB", At::NoPayload,
     [](const Words &w) { return logged::broadcast_payload_unreadable(w.n, w.start, w.left, w.size); }},
    {"WB", At::NotEncoded, [](const Words &w) { return logged::broadcast_not_encoded(w.n, w.id, w.code); }},
    {"T", At::NotEncoded, [](const Words &w) { return logged::hello_not_encoded(w.id, w.code); }},
    {"WB", At::NotSent, [](const Words &w) { return logged::broadcast_not_sent(w.n, w.id, -1); }},
    {"T", At::NotSent, [](const Words &w) { return logged::hello_not_sent(w.id, -1); }},
    {"P", At::Sent, [](const Words &w) { return logged::message_forwarded(w.id, w.topic, w.least); }},
    {"WB", At::Sent, [](const Words &w) { return logged::broadcast_sent(w.n, w.id, w.topic, w.least); }},
    {"T", At::Sent, [](const Words &w) { return logged::hello_sent(w.id, w.topic, w.least); }},

    {"P", At::End, [](const Words &w) { return logged::publish_ended(w.found, w.sent); }},
    {"WB", At::End, [](const Words &w) { return logged::broadcast_ended(w.topic, w.found, w.sent, w.failed); }},
    {"T", At::End, [](const Words &w) { return logged::hello_ended(w.found, w.sent); }},
    {"P", At::Answered,
     [](const Words &w) { return w.qos == 1 ? logged::puback_sent("p", w.msgid) : logged::pubrec_sent("p", w.msgid); }},
    {"W", At::WillSent, [](const Words &) { return logged::will_broadcast_ended(1); }},
};

} // namespace tarn::test::routes

#endif
