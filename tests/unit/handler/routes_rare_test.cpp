// What a table over chosen rows would meet once in tens of thousands of messages, or only after years: the identifier
// 0, and the turns of several shared groups at every place of their counter.
#include "routes_run.h"

using namespace tarn::test;
using namespace tarn::test::routes;

namespace {

constexpr struct {
    Route       route;
    const char *name;
    int         draws; // before those of the first receiver
} kRoutes[] = {
    {Route::Publish, "client PUBLISH", 0}, {Route::Host, "host publish", 2},     {Route::Will, "will", 1},
    {Route::Broadcast, "broadcast", 0},    {Route::Test, "the test message", 0},
};

World quiet_world(Route route, unsigned qos)
{
    World world;
    world.message = {route == Route::Test ? "broker/test" : "t", wire("FF"), qos};
    world.members = {{"n", "u", 2}};
    return world;
}

} // namespace

// Refused by the encoder and lost for this receiver alone; nothing draws again.
TEST(routes_rare, an_identifier_of_0)
{
    Stage stage;
    for (const auto &[route, name, draws] : kRoutes)
        for (unsigned place : {0u, 1u}) // of the receiver: the first, or behind one of the same form
            for (unsigned level : {4u, 5u})
                for (unsigned qos : {1u, 2u}) {
                    World world = quiet_world(route, qos);
                    world.seed  = seed_of_0(draws + 2 * static_cast<int>(place));
                    for (const char *id : {"a", "b", "c"})
                        world.members.push_back({id, world.message.topic, qos, level});
                    stage.report(printed("%s, QoS %u, level %u, receiver %u", name, qos, level, place + 1),
                                 run(stage, route, world));
                }
}

// Who is chosen in groups g, gg and h at turns that leave this remainder by four. Each group takes a turn of its own; g
// has four members, since it is taken to have those of gg, too.
constexpr std::initializer_list<size_t> kChosen[4] = {{1, 4, 6}, {2, 8}, {4, 6}, {5, 2, 8}};

TEST(routes_rare, every_turn_of_several_shared_groups)
{
    Stage            stage;
    std::vector<int> turns = {INT32_MAX - 1, INT32_MAX, INT32_MIN, -2, -1};
    for (int turn = 0; turn < 12; turn++)
        turns.push_back(turn);
    for (const auto &[route, name, draws] : kRoutes)
        for (int turn : turns) {
            World world         = quiet_world(route, 1);
            world.turn          = turn;
            const std::string t = world.message.topic;
            world.members       = {{"n", "u", 2},
                                   {"a", "$share/g/" + t, 0, 4},
                                   {"away", "$share/gg/" + t, 1, 4, Presence::Unknown, true}, // a member of g, too
                                   {"plain", t, 2, 5},
                                   {"b", "$share/gg/" + t, 1, 5},
                                   {kSender, "$share/g/" + t, 1, 4},
                                   {"a", "$share/h/" + t, 1, 4}, // one client in two groups gets one copy for each
                                   {"a", t, 2, 4},
                                   {"gone", "$share/h/" + t, 1, 4, Presence::Unknown},
                                   {"b", "$share/g", 2, 5}}; // no shared subscription, and another topic
            world.groups        = 3;
            for (size_t at : {1, 2, 4, 5, 6, 8})
                world.members[at].passed_over = true;
            for (size_t at : kChosen[static_cast<uint32_t>(turn) % 4])
                world.members[at].passed_over = false;
            stage.report(printed("%s, turn %d", name, turn), run(stage, route, world));
        }
}

TEST(routes_rare, a_share_prefix_without_a_second_slash_is_a_topic)
{
    Stage stage;
    for (const auto &[route, name, draws] : kRoutes)
        if (route != Route::Test) {
            World world         = quiet_world(route, 1);
            world.message.topic = "$share/g";
            world.members       = {
                      {"a", "$share/g", 1, 4}, {"b", "$share/g", 2, 5}, {"away", "$share/g", 1, 4, Presence::Unknown, true}};
            stage.report(name, run(stage, route, world));
        }
}
