// routes_table.h - the rows: every receiver, level, pair of QoS and payload, each with a way of sending, each at three
// log levels. A row that fails prints its name, what was expected and what was seen.
#ifndef TARN_TESTS_ROUTES_TABLE_H
#define TARN_TESTS_ROUTES_TABLE_H

#include "routes_oracle.h"

namespace tarn::test::routes {

// ---- the receiver "r"

struct Receiver {
    const char *name;
    Presence    presence    = Presence::Online;
    bool        remembered  = false;
    const char *file        = nullptr; // the one of its three files that is there
    int32_t     turn        = -1;      // of its shared group of two, if it is in one
    bool        passed_over = false;
    Hindrance   hindrance   = Hindrance::None;
    bool        publishes   = false; // is the sender itself
    const char *id          = "r";
};
constexpr Receiver kNobody      = {.name = "nobody"};
constexpr Receiver kReceivers[] = {
    {.name = "online"},
    {.name = "the publisher itself", .publishes = true},
    {.name = "online, its ring full", .hindrance = Hindrance::RingFull},
    {.name = "online, with a limit below the message", .hindrance = Hindrance::Limit4},
    {.name = "offline without session", .presence = Presence::Unknown},
    {.name = "offline with session", .presence = Presence::Unknown, .remembered = true},
    {.name = "offline, clean, with a session file", .presence = Presence::Unknown, .file = "session"},
    {.name = "offline, clean, with a subscription file", .presence = Presence::Unknown, .file = "subscription"},
    {.name = "offline, clean, with a message file", .presence = Presence::Unknown, .file = "message"},
    {.name = "will pending, without session", .presence = Presence::Waiting},
    {.name = "will pending, with session", .presence = Presence::Waiting, .remembered = true},
    {.name = "shared member", .turn = 4},
    {.name = "shared member passed over", .remembered = true, .turn = 7, .passed_over = true},
    {.name = "shared member offline without session", .presence = Presence::Unknown, .turn = 0},
    {.name = "shared member offline with session", .presence = Presence::Unknown, .remembered = true, .turn = 0},
    {.name = "shared member, the publisher itself", .turn = 2, .publishes = true},
    {.name = "without an id", .presence = Presence::Unknown, .remembered = true, .id = ""},
    {.name = "shared member without an id", .presence = Presence::Unknown, .remembered = true, .turn = 0, .id = ""},
    {.name        = "shared member without an id, passed over",
     .presence    = Presence::Unknown,
     .turn        = 1,
     .passed_over = true,
     .id          = ""},
    kNobody,
};

// ---- the payload

struct Payload {
    const char *name;
    enum { Is, FillsTheBuffer, OneTooMany, LongTopic } kind;
    Bytes bytes;
};
// FF begins no property length, so that the publisher's level is read as it is.
inline const std::vector<Payload> kPublishPayloads = {
    {"empty", Payload::Is, {}},
    {"1 byte", Payload::Is, repeat(0xFF, 1)},
    {"a zero byte", Payload::Is, repeat(0, 1)},
    {"what just fits", Payload::FillsTheBuffer, {}},
    {"one byte more than fits", Payload::OneTooMany, {}},
    {"2048 bytes", Payload::Is, repeat(0xFF, 2048)},
    {"2049 bytes", Payload::Is, repeat(0xFF, 2049)},
    {"2048 bytes behind a long topic", Payload::LongTopic, repeat(0xFF, 2048)},
};
inline const std::vector<Payload> kEncodedPayloads = {
    {"empty", Payload::Is, {}},
    {"1 byte", Payload::Is, repeat(0xFF, 1)},
    {"a zero byte", Payload::Is, repeat(0, 1)},
    {"a zero byte and one more", Payload::Is, wire("00 FF")},
    {"like a property block", Payload::Is, wire("02 'abc'")},
    {"only a property block", Payload::Is, wire("02 'ab'")},
    {"up to a remaining length of 127", Payload::FillsTheBuffer, {}},
    {"a remaining length of 128", Payload::OneTooMany, {}},
    {"2048 bytes", Payload::Is, repeat(0xFF, 2048)},
    {"2049 bytes", Payload::Is, repeat(0xFF, 2049)},
};
inline const std::vector<Payload> kTestPayload = {{"its own", Payload::Is, {}}};

// ---- the way of sending

struct Style {
    const char *name;
    unsigned    level; // the sender's
    bool        retain, dup;
    uint32_t    expiry_s;
    bool        awaits_7, retained_before, clean;
};
constexpr Style kStyles[] = {
    {"plain at level 4", 4, false, false, 0, true, true, true},
    {"retained, repeated, with expiry, at level 5", 5, true, true, 0x01020304, true, false, false},
    {"replacing what is retained, at level 4", 4, true, false, 0, false, true, true},
    {"with expiry at level 5", 5, true, false, 60, false, true, false},
};

struct Row {
    Receiver       receiver;
    unsigned       level, message_qos, granted;
    const Payload &payload;
    const Style   &style;

    std::string name() const
    {
        return printed("QoS %u to QoS %u at level %u, %s, payload: %s, sent %s", message_qos, granted, level,
                       receiver.name, payload.name, style.name);
    }
};

inline size_t payload_size(const Row &row, Route route)
{
    const size_t more = row.payload.kind == Payload::OneTooMany ? 1 : 0;
    if (route == Route::Will || route == Route::Broadcast) { // a body of 127: topic "t", identifier, properties
        const size_t properties = row.style.level == 4 ? 0 : row.style.expiry_s ? 6 : 1;
        return 127 - 3 - (row.message_qos ? 2 : 0) - properties + more;
    }
    const unsigned level = row.receiver.publishes ? row.style.level : row.level;
    const unsigned qos   = row.message_qos < row.granted ? row.message_qos : row.granted;
    return room_for(level, qos, row.style.expiry_s) - 1 + more;
}

inline World world_of(const Row &row, Route route)
{
    World world;
    world.message = {"t", row.payload.bytes, row.message_qos, row.style.retain, row.style.dup, row.style.expiry_s};
    if (row.payload.kind == Payload::FillsTheBuffer || row.payload.kind == Payload::OneTooMany)
        world.message.payload = repeat(0xFF, payload_size(row, route));
    if (row.payload.kind == Payload::LongTopic)
        world.message.topic = std::string(62, 't');
    if (route == Route::Test)
        world.message.topic = "broker/test";
    world.sender_level    = row.style.level;
    world.sender_is_clean = row.style.clean;
    world.sender_awaits_7 = row.style.awaits_7;
    if (row.style.retained_before)
        world.kept = {{world.message.topic, 0, 0, text("old")}};
    world.turn = std::max(row.receiver.turn, 0);

    const Receiver   &receiver = row.receiver;
    const std::string topic    = world.message.topic;
    const bool        shared   = receiver.turn >= 0;
    world.members              = {{"n", "u", 2, 4}};
    if (receiver.name == kNobody.name)
        return world;
    world.members.push_back({"y", topic, row.granted, row.level});
    world.members.push_back({receiver.publishes ? kSender : receiver.id, shared ? "$share/g/" + topic : topic,
                             row.granted, receiver.publishes ? row.style.level : row.level, receiver.presence,
                             receiver.remembered, receiver.hindrance, receiver.passed_over});
    if (receiver.file)
        world.files[std::string(receiver.file) + "/r.json"] = *receiver.file == 'm'     ? R"({"msgs":[]})"
                                                              : receiver.file[1] == 'u' ? R"({"subs":[]})"
                                                                                        : R"({"client_id":"r"})";
    if (shared) {
        world.members.push_back({"o", "$share/g/" + topic, 1, 4});
        world.members.back().passed_over = !receiver.passed_over;
        world.groups                     = 1;
    }
    world.members.push_back({"z", topic, 2, 5});
    return world;
}

// Every row, each with one of the ways of sending, so spread that every pair of values meets every way.
template <class Visit> void for_each_row(const std::vector<Payload> &payloads, Visit visit)
{
    for (size_t who = 0; who < std::size(kReceivers); who++)
        for (unsigned level : {4u, 5u})
            for (unsigned message_qos : {0u, 1u, 2u})
                for (unsigned granted : {0u, 1u, 2u})
                    for (size_t at = 0; at < payloads.size(); at++)
                        visit(Row{kReceivers[who], level, message_qos, granted, payloads[at],
                                  kStyles[(who + level + message_qos + granted + at) % std::size(kStyles)]});
}

// ---- the comparison

inline std::string difference(const Strings &expected, const Strings &seen)
{
    if (expected == seen)
        return "";
    std::string out;
    for (const std::string &line : expected)
        out += "\n      expected " + line;
    for (const std::string &line : seen)
        out += "\n      seen     " + line;
    return out + (seen.empty() ? "\n      seen     nothing" : "");
}

inline Strings as_text(const Lines &lines)
{
    Strings all;
    for (const LogLine &line : lines)
        all.push_back("[" + line.level + "] " + line.text);
    return all;
}

// Empty when all is as expected.
inline std::string compare(const Seen &expected, const Seen &seen)
{
    std::string out;
    const auto  part = [&](const char *name, const Strings &should, const Strings &is) {
        if (const std::string text = difference(should, is); !text.empty())
            out += std::string("\n    ") + name + ":" + text;
    };
    const auto number = [&](const char *name, int should, int is) {
        if (should != is)
            out += printed("\n    %s: expected %d, seen %d", name, should, is);
    };
    number("result", expected.result, seen.result);
    part("packets", expected.packets, seen.packets);
    part("packets of the scan", expected.repeated, seen.repeated);
    part("counters", expected.counters, seen.counters);
    part("awaiting acknowledgement", expected.pending, seen.pending);
    part("files", expected.files, seen.files);
    part("records", expected.records, seen.records);
    part("retained", expected.retained, seen.retained);
    part("told to the host", expected.told, seen.told);
    number("draws", expected.draws, seen.draws);
    number("shared turns", expected.turns, seen.turns);
    part("lines", as_text(expected.lines), as_text(seen.lines));
    return out;
}

constexpr const char *kLevelNames[] = {"DEBUG", "INFO", "WARN"};

} // namespace tarn::test::routes

#endif
