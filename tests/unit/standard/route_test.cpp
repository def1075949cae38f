// Who gets a message, and which way, with sessions and connections that are made here: nothing is read or sent.
#include "standard/forward.h"
#include "stats/mqtt_stats.h"
#include "support/faults.h"
#include "support/log_capture.h"

#include <cerrno>
#include <deque>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace tarn;
using namespace tarn::standard;
using namespace tarn::test;

namespace {

class World {
public:
    explicit World(const Limits &limits = {}) : lock_(engine_mutex), engine(limits) {}

    Session &away(const char *id, const char *filter, uint8_t qos = 1)
    {
        Session *const session = engine.state.sessions.make(id, engine.state.bounds());
        EXPECT_NE(session, nullptr);
        session->expiry_s = 3600;
        EXPECT_EQ(engine.state.subscriptions.add(session->number, filter, {.qos = qos}), SubscriptionTree::Added::New);
        return *session;
    }
    Session &there(const char *id, const char *filter, uint8_t qos = 1)
    {
        Session &session   = away(id, filter, qos);
        session.connection = &connections.emplace_back();
        session.expiry_s   = 0;
        session.deliveries.resume();
        session.connection->session = &session;
        session.connection->stage   = Stage::Connected;
        return session;
    }
    Routed publish(uint8_t qos, std::string_view payload = "x", uint64_t expires_ms = 0)
    {
        const MessageParts parts{.expires_ms = expires_ms, .qos = qos, .topic = "t", .payload = bytes_of(payload)};
        Draft              draft(parts, engine.state.last_message);
        return route(engine, draft);
    }
    static std::span<const uint8_t> bytes_of(std::string_view text)
    {
        return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
    }

private:
    ScopedLock lock_;

public:
    Engine                 engine;
    std::deque<Connection> connections;
};

size_t count_of(const Session &session)
{
    return session.deliveries.stored().count;
}

} // namespace

// ---- shared groups

TEST(route, of_a_group_passes_over_a_member_whose_connection_is_broken)
{
    World    world;
    Session &broken = world.there("broken", "$share/group/t"), &other = world.there("other", "$share/group/t");
    broken.connection->is_broken = true;
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(world.publish(1).refused, 0u);
    EXPECT_EQ(count_of(broken), 0u);
    EXPECT_EQ(count_of(other), 4u);
}

// A session that outlives its connection keeps what it gets; one that ends with it loses all.
TEST(route, of_a_group_keeps_for_a_broken_member_that_will_come_back)
{
    World    world;
    Session &ends = world.there("ends", "$share/group/t"), &stays = world.there("stays", "$share/group/t");
    stays.expiry_s              = 60;
    ends.connection->is_broken  = true;
    stays.connection->is_broken = true;
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(world.publish(1).refused, 0u);
    EXPECT_EQ(count_of(ends), 0u);
    EXPECT_EQ(count_of(stays), 4u);
}

TEST(route, of_a_group_that_is_full_counts_and_tells)
{
    World       world({.queued_messages = 1});
    LogCapture  log;
    const auto &one = world.away("one", "$share/group/t"), &two = world.away("two", "$share/group/t");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(world.publish(1).refused, 0u);
    EXPECT_EQ(g_mqtt_stats.drop_queue_full, 0u);
    for (uint64_t refused = 1; refused <= 3; ++refused) {
        const Routed routed = world.publish(1);
        EXPECT_EQ(routed.receivers, 1u);
        EXPECT_EQ(routed.refused, 1u);
        EXPECT_EQ(g_mqtt_stats.drop_queue_full, refused);
    }
    for (const char *id : {"one", "two"})
        EXPECT_EQ(log.count(warn("[standard] the queue of client " + std::string(id) +
                                 " is full: messages for it are refused")),
                  1);
    EXPECT_EQ(count_of(one) + count_of(two), 2u);
}

TEST(route, of_a_group_makes_room_of_messages_that_expired)
{
    World    world({.queued_messages = 2});
    Session &away = world.away("away", "$share/group/t");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(world.publish(1, "x", 1).refused, 0u);
    EXPECT_EQ(world.publish(1).refused, 0u);
    EXPECT_EQ(count_of(away), 1u);
}

// An empty queue takes any message, as that of a plain subscription does.
TEST(route, of_a_group_gives_an_empty_queue_a_message_above_its_bound)
{
    World    world({.queued_bytes = 500});
    Session &away = world.away("away", "$share/group/t");
    EXPECT_EQ(world.publish(1, std::string(1000, 'x')).refused, 0u);
    EXPECT_EQ(count_of(away), 1u);
    EXPECT_EQ(world.publish(1).refused, 1u);
}

// As with a plain subscription: at QoS 0 nothing is kept for who is away, and nobody refuses anything.
TEST(route, of_a_group_at_qos_0_that_is_away_is_no_refusal)
{
    World world;
    world.away("away", "$share/group/t", 0);
    for (uint8_t qos = 0; qos < 3; ++qos) {
        const Routed routed = world.publish(qos);
        EXPECT_EQ(routed.receivers, 1u);
        EXPECT_EQ(routed.refused, 0u);
    }
    EXPECT_EQ(g_mqtt_stats.drop_queue_full, 0u);
}

TEST(route, of_a_group_drops_what_is_too_large_for_all_its_members)
{
    World    world;
    Session &small                        = world.there("small", "$share/group/t");
    small.connection->maximum_packet_size = 30;
    EXPECT_EQ(world.publish(1, std::string(30, 'x')).refused, 0u);
    EXPECT_EQ(world.publish(0, std::string(30, 'x')).refused, 0u);
    EXPECT_EQ(g_mqtt_stats.drop_too_big, 2u);
    EXPECT_EQ(count_of(small), 0u);
}

// To the byte: 5 of head, the topic, the identifier, no properties.
TEST(route, of_a_group_knows_how_large_a_packet_becomes)
{
    constexpr size_t kHead = 2 + 2 + 1 + 2 + 1;
    World            world;
    Session         &small                = world.there("small", "$share/group/t");
    small.connection->maximum_packet_size = 50;
    Session &blocked                      = world.there("blocked", "$share/group/t");
    blocked.connection->is_blocked        = true;
    for (int i = 0; i < 3; ++i)
        world.publish(1, std::string(50 - kHead, 'x'));
    EXPECT_EQ(count_of(small), 3u);
    EXPECT_EQ(count_of(blocked), 0u);
    for (int i = 0; i < 3; ++i)
        world.publish(1, std::string(50 - kHead + 1, 'x'));
    EXPECT_EQ(count_of(small), 3u);
    EXPECT_EQ(count_of(blocked), 3u);
    EXPECT_EQ(g_mqtt_stats.drop_too_big, 0u);
}

// ---- the short way

namespace {

// What waits in an outbox, which is empty then.
std::string sent_of(Connection &connection)
{
    std::string bytes;
    const auto  send = [](void *to, const net::OutPacket *pieces, int count) noexcept {
        for (int i = 0; i < count; ++i)
            static_cast<std::string *>(to)->append(reinterpret_cast<const char *>(pieces[i].bytes),
                                                    static_cast<size_t>(pieces[i].length));
        return net::Sent{count, NETIP_OK};
    };
    EXPECT_EQ(connection.outbox.flush(send, &bytes, 0), Outbox::Left::Nothing);
    return bytes;
}

// The QoS and payload of what a reader gets of a message with the payload "x", for which a PUBLISH of 3.1.1 stands that
// says "o".
std::string sent_for(World &world, Session &reader, uint8_t qos, const SubscriptionOptions &options,
                     bool retain = false)
{
    using namespace std::string_view_literals;
    const MessageParts parts{.qos = qos, .topic = "t", .payload = World::bytes_of("x")};
    const auto         original = qos == 0 ? "0\4\0\1to"sv : qos == 1 ? "2\6\0\1t\xFF\xFFo"sv : "4\6\0\1t\xFF\xFFo"sv;
    Draft draft(parts, world.engine.state.last_message, {World::bytes_of(original), codec::standard::Level::Mqtt311});
    EXPECT_TRUE(Forwarder(world.engine, draft).give(reader, options, retain));
    const std::string packet = sent_of(*reader.connection);
    return std::to_string(packet[0] >> 1 & 3) + packet.back();
}

} // namespace

TEST(route, sends_a_packet_as_it_came_to_those_for_whom_nothing_of_it_changes)
{
    World    world;
    Session &reader          = world.there("reader", "t", 2);
    reader.connection->level = codec::standard::Level::Mqtt311;
    for (const char *const same : {"0o", "1o", "2o"})
        EXPECT_EQ(sent_for(world, reader, static_cast<uint8_t>(same[0] - '0'), {.qos = 2}), same);
    EXPECT_EQ(sent_for(world, reader, 2, {.qos = 1}), "1x");
    EXPECT_EQ(sent_for(world, reader, 1, {.qos = 0}), "0x");
    EXPECT_EQ(sent_for(world, reader, 0, {.qos = 0}, true), "0x");

    Session &other = world.there("other", "t", 2); // of 5.0
    EXPECT_EQ(sent_for(world, other, 0, {.qos = 0}), "0x");
    EXPECT_EQ(sent_for(world, other, 1, {.identifier = 5, .qos = 1}), "1x");
}

TEST(route, gives_a_packet_as_it_came_the_identifier_of_each_reader)
{
    using namespace std::string_view_literals;
    World world;
    for (const char *const id : {"one", "two"})
        world.there(id, "t", 1).connection->level = codec::standard::Level::Mqtt311;
    Session           &two = *world.connections[1].session;
    const MessageParts parts{.qos = 1, .topic = "t", .payload = World::bytes_of("x")};
    Draft              draft(parts, world.engine.state.last_message,
                             {World::bytes_of("2\6\0\1t\xFF\xFFx"sv), codec::standard::Level::Mqtt311});
    (void)two.deliveries.offer_and_send(draft.message(), 1, false, {}, 10); // has identifier 1
    route(world.engine, draft);
    EXPECT_EQ(sent_of(world.connections[0]), "2\6\0\1t\0\1x"sv);
    EXPECT_EQ(sent_of(world.connections[1]), "2\6\0\1t\0\2x"sv);
}

// What was listed first leaves first: a message before its acknowledgement, which its publisher is listed for.
TEST(route, lists_connections_in_the_order_in_which_they_have_something)
{
    World world;
    for (const char *const id : {"first", "second", "third"})
        world.there(id, "t", 0);
    std::deque<Connection> &made = world.connections;
    for (const int i : {1, 0, 2, 1})
        list_for_flush(world.engine, made[static_cast<size_t>(i)]);
    std::vector<const Connection *> listed;
    for (const Connection *at = world.engine.listed; at; at = at->next_listed)
        listed.push_back(at);
    EXPECT_EQ(listed, (std::vector<const Connection *>{&made[1], &made[0], &made[2]}));

    for (Connection &connection : made)
        connection.is_blocked = true; // so that nothing is sent
    flush_listed(world.engine);
    EXPECT_EQ(world.engine.listed, nullptr);
    list_for_flush(world.engine, made[2]);
    EXPECT_EQ(world.engine.listed, &made[2]);
    EXPECT_EQ(made[2].next_listed, nullptr);
}

TEST(route, copies_a_bounded_number_of_bytes_before_they_leave)
{
    constexpr int     kReaders = 100, kMessages = 200;
    constexpr size_t  kMost = size_t{16} << 20;
    const std::string payload(1000, 'x');
    World             world;
    for (int i = 0; i < kReaders; ++i)
        world.there(("reader " + std::to_string(i)).c_str(), "t", 0);
    for (int i = 0; i < kMessages; ++i)
        world.publish(0, payload);
    size_t copied = 0;
    for (const Connection &connection : world.connections) {
        copied += connection.outbox.copied_bytes();
        EXPECT_GT(connection.session->deliveries.waiting_qos0().count, 0u);
    }
    EXPECT_GT(copied, kMost - 100'000);
    EXPECT_LT(copied, kMost + 100'000);

    for (Connection &connection : world.connections)
        connection.is_blocked = true; // so that nothing is sent
    flush_listed(world.engine);
    for (Connection &connection : world.connections) {
        EXPECT_GT(connection.outbox.copied_bytes(), payload.size() * kMessages);
        connection.outbox.clear();
        connection.is_blocked = false;
    }
    world.publish(0, payload);
    for (const Connection &connection : world.connections) {
        EXPECT_GT(connection.outbox.copied_bytes(), 0u);
        EXPECT_EQ(connection.session->deliveries.waiting_qos0().count, 0u);
    }
}

// Each in a process of its own, in which no memory for outboxes is left over.
struct route_at_qos : testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, route_at_qos, testing::Values(0, 1, 2), testing::PrintToStringParamName());

TEST_P(route_at_qos, leaves_to_the_queue_what_there_is_no_memory_to_copy)
{
    World      world;
    Session   &first = world.there("first", "t", 2), &reader = world.there("reader", "t", 2);
    Draft      draft(MessageRef::make({.number = 1, .qos = static_cast<uint8_t>(GetParam()), .topic = "t"}));
    Forwarder  forwarder(world.engine, draft);
    const auto give = [&](Session &session) { return forwarder.give(session, {.qos = 2}, false); };
    ASSERT_TRUE(give(first));
    (void)first.deliveries.puback(1, 0);
    (void)first.deliveries.pubrec(1, 0x80); // what stood for the delivery is used again
    {
        const Fail fail(Call::Allocate, 1, ENOMEM, 100);
        EXPECT_FALSE(give(reader));
        EXPECT_GT(fail.failed(), 0);
    }
    EXPECT_FALSE(reader.connection->is_broken);
    EXPECT_EQ(count_of(reader), 0u);
    EXPECT_EQ(reader.deliveries.in_flight(), 0u);
    EXPECT_TRUE(give(reader));
    EXPECT_EQ(reader.deliveries.in_flight(), GetParam() > 0 ? 1u : 0u);
}
