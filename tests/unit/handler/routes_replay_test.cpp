// The retained messages that a subscription brings: bytes, counters, files, callbacks and log lines of a SUBSCRIBE
// against an oracle that knows the rules only.
#include "routes_run.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/sub.h"

using namespace tarn;
using namespace tarn::test;
using namespace tarn::test::routes;

namespace {

struct Request {
    std::string filter;
    unsigned    qos;
};

class Replay : Story {
public:
    explicit Replay(const World &world) : Story(world) {}

    Seen expect(const Request &request, size_t packet_size)
    {
        const unsigned    level  = world_.sender_level;
        const unsigned    qos    = request.qos;
        const char *const filter = request.filter.c_str();
        count("pkt_rx", "period_rx");
        say(logged::packet_received("p", 8, packet_size));
        say(logged::subscribe_received("p", 9, 1));
        say(logged::subscribe_filter(0, filter, qos));
        seen_.told = {printed("acl p %s 0", filter),
                      printed(R"(3 {"clientId":"p","topic":"%s","qos":%u})", filter, qos)};
        say(logged::subscription_added("p", filter, qos, world_.sender_is_clean));
        say(logged::subscribe_filter_granted(0, filter, qos, qos));
        replay(request.filter);
        if (!world_.sender_is_clean)
            save(request);
        say(info(printed("【QoS溯源3】MQTT %s Reason Code赋值：授权QoS=%u → ReasonCode=0x%02X",
                         level == 5 ? "5.0" : "3.1.1", qos, qos)));
        send(kSender, wire(level == 5 ? "90 04 00 09 00" : "90 03 00 09") + Bytes{static_cast<uint8_t>(qos)},
             world_.sender_hindrance);
        say(logged::suback_sent("p", 9, qos, qos));
        return finish();
    }

    // Only the retained messages, for whoever asks for them, in whatever state.
    Seen expect_replay_alone(const std::string &filter, bool online)
    {
        online_ = online;
        replay(filter);
        return finish();
    }

private:
    bool online_ = true;

    // In store order, at the QoS of the message whatever was granted, without expiry; the line follows the encoder.
    void replay(const std::string &filter)
    {
        for (const Kept &kept : store_) {
            if (!fits(filter, kept.topic))
                continue;
            const unsigned id  = draw_id(); // at QoS 0 too
            const Encoded  out = encode(world_.sender_level, {kept.topic, kept.payload, kept.qos, true}, id);
            if (out.code) {
                say(out.complaint);
                continue;
            }
            if (online_)
                send(kSender, out.bytes, world_.sender_hindrance);
            else
                count("drop_offline", "period_drop_offline");
            say(logged::retained_sent("p", kept.topic, filter));
        }
    }

    void save(const Request &request)
    {
        write_file("subscription/p.json", printed(R"({"subs":[{"topic":"saved","qos":1},{"topic":"%s","qos":%u}]})",
                                                  request.filter.substr(0, 63).c_str(), request.qos));
        say(logged::subscriptions_saved("p", 2));
    }
};

Bytes subscribe(const World &world, const Request &request)
{
    return packet(0x82, wire("00 09") + (world.sender_level == 5 ? wire("00") : Bytes{}) + prefixed(request.filter) +
                            Bytes{static_cast<uint8_t>(request.qos)});
}

// Three topics are retained, the row's between two others.
World world_with(const Payload &payload, unsigned level, unsigned qos)
{
    World             world;
    const bool        long_topic = payload.kind == Payload::LongTopic;
    const std::string topic      = long_topic ? std::string(62, 't') : "t";
    Bytes             bytes      = payload.bytes;
    if (payload.kind == Payload::FillsTheBuffer || payload.kind == Payload::OneTooMany)
        bytes = repeat(0xFF, room_for(level, qos, 0) - 1 + (payload.kind == Payload::OneTooMany));
    world.message.topic = topic;
    world.sender_level  = level;
    world.members       = {{"n", "u", 2}, {"other", topic, 1}};
    world.kept          = {{"before/it", 0, 0, text("b")}};
    if (bytes.size() > 2048)
        bytes.resize(2048); // what the store keeps of it
    if (!bytes.empty())
        world.kept.push_back({topic, qos, 60, bytes});
    world.kept.push_back({"u", 2, 0, text("after it")});
    return world;
}

int replay_all(Scene &scene)
{
    send_retained_msg_to_client(scene.sender(), "#");
    return 0;
}

} // namespace

TEST(routes_replay, retained_messages_come_before_the_suback)
{
    Stage stage;
    for (const char *filter : {"the topic", "$share/g/the topic", "#", "+"})
        for (unsigned level : {4u, 5u})
            for (unsigned qos : {0u, 1u, 2u})
                for (unsigned requested : {0u, 1u, 2u})
                    for (const Payload &payload : kPublishPayloads)
                        for (Hindrance hindrance : {Hindrance::None, Hindrance::RingFull}) {
                            World   world = world_with(payload, level, qos);
                            Request request{filter, requested};
                            if (const size_t at = request.filter.find("the topic"); at != std::string::npos)
                                request.filter.replace(at, 9, world.message.topic);
                            world.sender_is_clean  = (qos + requested + level) % 2;
                            world.sender_hindrance = hindrance;
                            const Bytes packet     = subscribe(world, request);
                            const Seen  expected   = Replay(world).expect(request, packet.size());
                            stage.report(
                                printed("%s, QoS %u to QoS %u, level %u, payload: %s%s", filter, qos, requested, level,
                                        payload.name, hindrance == Hindrance::None ? "" : ", ring full"),
                                run(stage, world, expected, [&](Scene &scene, uint32_t log) {
                                    return scene.see(log, [&](Scene &of) { return of.sender().sends(packet); });
                                }));
                        }
}

TEST(routes_replay, the_line_follows_the_encoder_not_the_ring)
{
    Stage stage;
    for (unsigned level : {4u, 5u})
        for (unsigned qos : {0u, 1u, 2u})
            for (const Payload &payload : kPublishPayloads)
                for (uint32_t state : {CLIENT_CONNECTED, CLIENT_LOGINED, CLIENT_WILL_PENDING, CLIENT_CLOSED}) {
                    const World world  = world_with(payload, level, qos);
                    const bool  online = state == CLIENT_CONNECTED || state == CLIENT_LOGINED;
                    stage.report(printed("QoS %u, level %u, state %u, payload: %s", qos, level, state, payload.name),
                                 run(stage, world, Replay(world).expect_replay_alone("#", online),
                                     [&](Scene &scene, uint32_t log) {
                                         scene.sender()->state = state;
                                         return scene.see(log, replay_all);
                                     }));
                }
}

// Refused by the encoder: that message is lost, the ones behind it come.
TEST(routes_replay, an_identifier_of_0)
{
    Stage stage;
    for (unsigned level : {4u, 5u})
        for (unsigned qos : {1u, 2u}) {
            World world = world_with(kPublishPayloads[1], level, qos);
            world.seed  = seed_of_0(2); // the message before it has drawn
            stage.report(printed("QoS %u, level %u", qos, level),
                         run(stage, world, Replay(world).expect_replay_alone("#", true),
                             [&](Scene &scene, uint32_t log) { return scene.see(log, replay_all); }));
        }
}
