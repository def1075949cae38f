// The last stretch of a message for somebody who is away: kept in a file, read back when its receiver returns, sent by
// the scan about a second later. All that a CONNECT with a saved session makes of it, against the rules alone.
#include "routes_run.h"
#include "support/log_lines/client.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/qos.h"
#include "support/log_lines/sub.h"

using namespace tarn;
using namespace tarn::test;
using namespace tarn::test::routes;

namespace {

struct Stored {
    unsigned    msgid, qos;
    std::string topic;
    std::string payload; // in hex, as the file has it
};

std::string hex_pairs(const Bytes &bytes)
{
    std::string out;
    for (uint8_t byte : bytes)
        out += printed("%02x", byte);
    return out;
}
Bytes bytes_of(const std::string &pairs)
{
    Bytes out;
    for (size_t at = 0; at + 1 < pairs.size(); at += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(pairs.substr(at, 2), nullptr, 16)));
    return out;
}

// ---- the message file, by its rules

std::string object_of(const Stored &message, bool show_id)
{
    return printed(R"({"msgid":%s,"qos":%u,"topic":"%s","payload":"%s"})",
                   show_id ? std::to_string(message.msgid).c_str() : "N", message.qos, message.topic.c_str(),
                   message.payload.c_str());
}
std::string file_of(const std::vector<Stored> &messages, bool show_ids)
{
    std::string text;
    for (const Stored &message : messages)
        text += (text.empty() ? "" : ",") + object_of(message, show_ids);
    return R"({"msgs":[)" + text + "]}";
}

// 4095 bytes of the file are read, and 1023 of each message: a payload that does not end there comes back empty.
std::vector<Stored> read_back(const std::vector<Stored> &messages)
{
    std::vector<Stored> found;
    size_t              at = std::string(R"({"msgs":[)").size();
    for (Stored message : messages) {
        message.payload   = message.payload.substr(0, 2 * 1024);
        const size_t size = object_of(message, true).size();
        if (at + size > 4095)
            break;
        at += size + 1;
        if (size - 1 > 1023) // the closing brace is not needed
            message.payload.clear();
        found.push_back(message);
    }
    return found;
}

// Each message kept is added to what can be read back of those before it.
std::vector<Stored> kept_one_by_one(const std::vector<Stored> &messages)
{
    std::vector<Stored> file;
    for (Stored message : messages) {
        file            = read_back(file);
        message.payload = message.payload.substr(0, 2 * 1024);
        file.push_back(message);
    }
    return file;
}

// ---- the return of "r"

class Resume : Story {
public:
    Resume(const World &world, const std::vector<Stored> &file) : Story(world), file_(file) {}

    Seen expect(size_t packet_size)
    {
        const Member             &r        = world_.members[1];
        const std::vector<Stored> messages = read_back(file_);
        count("pkt_rx", "period_rx");
        say(logged::packet_received("", 1, packet_size));
        say(logged::keepalive_set(0x00002710, "", 60, 90));
        say(logged::client_id_set(10000, "r"));
        if (r.level == 5) {
            say(logged::session_expiry_negotiated("r", 0));
            say(logged::max_packet_size_negotiated("r", 4096));
        } else {
            say(logged::session_expiry_unsupported());
            say(logged::max_packet_size_unsupported(4096, "r"));
        }
        load(r);
        say(logged::session_loaded("r", 1, messages.size()));
        subscribe_again(r);
        say(logged::session_resumed("r"));
        say(logged::will_delay_cancelled("r"));
        if (r.level == 5)
            say(logged::connack_properties(4096, 0));
        send("r", r.level == 5 ? wire("20 0B 01 00 08 21 00 00 27 00 00 10 00") : wire("20 02 01 00"));
        say(logged::connack_sent("r", 1));
        replay(r);
        restore(r, messages);
        seen_.told = {R"(0 {"clientId":"r","topic":"","qos":0})"};
        return finish();
    }

private:
    std::vector<Stored> file_;

    void subscribe_again(const Member &r)
    {
        say(logged::subscription_updated("r", "t", r.granted));
        say(logged::subscription_resumed("t", r.granted));
    }
    void replay(const Member &r)
    {
        for (const Kept &kept : store_)
            if (fits(r.filter, kept.topic)) {
                send("r", written(r.level, {kept.topic, kept.payload, kept.qos, true}, draw_id()));
                say(logged::retained_sent("r", kept.topic, "t"));
            }
    }
    // As if sent once already: the scan sends them, QoS 0 and what came back without a payload is lost.
    void restore(const Member &r, const std::vector<Stored> &messages)
    {
        load(r);
        if (messages.empty()) {
            say(logged::kept_messages_none("r"));
            return;
        }
        say(logged::kept_messages_started("r", messages.size()));
        for (const Stored &message : messages) {
            unsigned id = message.msgid;
            if (id == 0) {
                id = draw();
                say(logged::kept_message_renumbered(id));
            }
            const Bytes payload = bytes_of(message.payload);
            if (message.qos == 0 && !payload.empty())
                say(logged::delivery_of_bad_qos(0));
            else
                track(r, id, {message.topic, payload, message.qos});
            say(logged::kept_message_sent(id, message.topic, message.qos));
        }
        write_file("message/r.json", R"({"msgs":[]})");
        say(logged::kept_messages_ended("r"));
    }
};

struct Missed { // one message sent while "r" is away
    Route    route;
    unsigned qos;
    Bytes    payload;
};

// What is kept of it, and nothing of an empty one or, from the host, of one at QoS 0.
std::vector<Stored> kept_of(const std::vector<Missed> &missed, unsigned granted, bool first_without_id)
{
    std::vector<Stored> all;
    for (const Missed &message : missed) {
        const unsigned qos = std::min(message.qos, granted);
        if (!message.payload.empty() && (message.route == Route::Publish || qos > 0))
            all.push_back({first_without_id && all.empty() ? 0 : 101 + static_cast<unsigned>(all.size()), qos, "t",
                           hex_pairs(message.payload)});
    }
    return kept_one_by_one(all);
}

World world_for(unsigned level, unsigned granted, unsigned retained_qos)
{
    World world;
    world.members                      = {{"n", "u", 2}, {"r", "t", granted, level, Presence::Unknown, true}};
    world.kept                         = {{"u", 2, 0, text("not for r")}, {"t", retained_qos, 60, text("kept")}};
    world.files["subscription/r.json"] = printed(R"({"subs":[{"topic":"t","qos":%u}]})", granted);
    return world;
}

// All of it: the messages go out while "r" is away, the file is looked at, "r" returns.
std::string miss_and_return(Stage &stage, const World &away, const std::vector<Missed> &missed, bool first_without_id)
{
    const Member             &r     = away.members[1];
    const std::vector<Stored> kept  = kept_of(missed, r.granted, first_without_id);
    World                     world = away;
    std::string               unlike; // what the rules say is in the file
    if (!kept.empty())
        world.files["message/r.json"] = file_of(kept, true);
    const Bytes packet   = r.level == 5 ? connect_v5("r", wire("27 00 00 10 00"), 0x00) : connect_v4("r", 0x00);
    const Seen  expected = Resume(world, kept).expect(packet.size());

    const std::string wrong = run(stage, away, expected, [&](Scene &scene, uint32_t log) {
        for (const Missed &message : missed) {
            World one   = away;
            one.message = {"t", message.payload, message.qos};
            (void)act(scene, message.route, one);
        }
        scene.sender().gets(); // acknowledgements
        scene.sender()->qos2_pending_msg_id = 0;
        const std::string file              = stored("message", "r");
        if (const std::string rule = kept.empty() ? "" : file_of(kept, false); without_msgids(file) != rule)
            unlike = "\n  kept file: expected " + rule + "\n             seen     " + file;
        if (!kept.empty())
            store("message", "r", file_of(kept, true)); // its identifiers are random
        Client &newcomer = scene.newcomer("r");
        return scene.see(log, [&](Scene &) { return newcomer.sends(packet); });
    });
    return unlike + wrong;
}

} // namespace

TEST(routes_resume, what_was_missed_comes_a_second_after_the_connack)
{
    struct {
        const char *name;
        Bytes       bytes;
    } const payloads[] = {{"empty", {}},
                          {"1 byte", repeat(0xFF, 1)},
                          {"480 bytes", repeat(0xFF, 480)},
                          {"500 bytes, too many to be read back", repeat(0xFF, 500)},
                          {"2048 bytes", repeat(0xFF, 2048)},
                          {"2049 bytes", repeat(0xFF, 2049)}};
    Stage stage;
    for (Route route : {Route::Publish, Route::Host})
        for (unsigned level : {4u, 5u})
            for (unsigned qos : {0u, 1u, 2u})
                for (unsigned granted : {0u, 1u, 2u})
                    for (const auto &[name, bytes] : payloads)
                        for (bool more : {false, true}) {
                            std::vector<Missed> missed = {{route, qos, bytes}};
                            if (more) {
                                missed.push_back({Route::Publish, 2, wire("FF 32")});
                                missed.push_back({Route::Host, 1, text("3rd")});
                            }
                            stage.report(
                                printed("%s, QoS %u to QoS %u, level %u, payload: %s%s",
                                        route == Route::Publish ? "client PUBLISH" : "host publish", qos, granted,
                                        level, name, more ? ", two more behind it" : ""),
                                miss_and_return(stage, world_for(level, granted, qos), missed, (qos + level) % 2));
                        }
}
