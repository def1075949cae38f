// routes_run.h - sends a world's message on its route at each log level, and compares.
#ifndef TARN_TESTS_ROUTES_RUN_H
#define TARN_TESTS_ROUTES_RUN_H

#include "routes_table.h"

namespace tarn::test::routes {

inline int act(Scene &scene, Route route, const World &world)
{
    const Sending       &message = world.message;
    const uint8_t *const payload =
        message.payload.empty() ? reinterpret_cast<const uint8_t *>("") : message.payload.data();
    const Bytes packet = written(world.sender_level, message, kPublishId);
    switch (route) {
    case Route::Publish:
        return scene.sender().sends(packet);
    case Route::Host:
        return packet_handler_broker_publish(message.topic.c_str(), payload, static_cast<int>(message.payload.size()),
                                             static_cast<uint8_t>(message.qos), message.retain, message.expiry_s);
    case Route::Will:
        return packet_send_will_message(scene.sender());
    case Route::Broadcast:
        packet_handler_broadcast_msg(packet.data(), static_cast<uint32_t>(packet.size()), 0);
        return 0;
    case Route::Test:
        packet_handler_publish_test_msg();
        return 0;
    }
    return -99;
}

// What has to be there before the message sets out.
inline void prepare(Scene &scene, Route route, const World &world)
{
    const Sending &message = world.message;
    if (route == Route::Will) {
        client_set_will_msg(scene.sender(), message.topic.c_str(), message.payload.data(),
                            static_cast<uint32_t>(message.payload.size()), static_cast<uint8_t>(message.qos),
                            message.retain);
        client_set_will_enhance(scene.sender(), 0, message.expiry_s, 0, "", "", nullptr, 0);
    }
}

// Does the same at each log level, in a fresh scene; returns what is wrong.
template <class Act> std::string run(Stage &stage, const World &world, const Seen &expected, Act act)
{
    for (uint32_t level = AGENT_LOG_DEBUG; level <= AGENT_LOG_WARN; level++) {
        stage.clock.advance_ms(10000); // so that a test message is due
        Scene      scene(stage, world);
        const Seen seen   = act(scene, level);
        Seen       should = expected;
        should.lines      = from_level(should.lines, level);
        if (const std::string text = compare(should, seen); !text.empty())
            return std::string("\n  at ") + kLevelNames[level] + text;
    }
    return "";
}

inline std::string run(Stage &stage, Route route, const World &world)
{
    return run(stage, world, Oracle(world, route).expect(), [&](Scene &scene, uint32_t level) {
        prepare(scene, route, world);
        return scene.see(level, [&](Scene &of) { return act(of, route, world); });
    });
}

// A seed with which so many draws are followed by an identifier of 0.
inline uint32_t seed_of_0(int draws)
{
    for (uint32_t seed = 1;; seed++) {
        unsigned   at   = seed;
        const auto draw = [&] { return static_cast<unsigned>(rand_r(&at)) % 65533 + 1; };
        for (int i = 0; i < draws; i++)
            (void)draw();
        if (const unsigned low = draw() & 0xFF; low == 0 && (draw() >> 8 & 0xFF) == 0)
            return seed;
    }
}

} // namespace tarn::test::routes

#endif
