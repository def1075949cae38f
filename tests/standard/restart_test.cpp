// What outlives the broker's process: tarn-broker --standard, asked to end or killed, and started again.
#include "support/levels.h"

#include <set>

using namespace tarn::conformance;
using tarn::test::now_s;
using tarn::test::pause_ms;
using testing::AllOf;
using testing::Ge;
using testing::Le;
using testing::Optional;

namespace {

enum class Ending { Asked, Killed };

void PrintTo(Ending ending, std::ostream *out)
{
    *out << (ending == Ending::Asked ? "asked" : "killed");
}

struct slow_restart : testing::TestWithParam<std::tuple<unsigned, Ending>> {
    Program program;

    unsigned level() const { return std::get<0>(GetParam()); }
    bool     is_5() const { return level() == 5; }
    Client   come(std::string_view id, const Connect &options = {}, Where where = Where::here()) const
    {
        return {level(), id, options, where};
    }
    Client come_to_stay(std::string_view id, Connect options = {}, Where where = Where::here()) const
    {
        options.clean = false;
        if (is_5())
            options.properties = options.properties + property(SessionExpiry, 3600);
        return {level(), id, options, where};
    }
    void restart() { program.restart(std::get<1>(GetParam()) == Ending::Killed); }
};
INSTANTIATE_TEST_SUITE_P(, slow_restart,
                         testing::Combine(testing::Values(4u, 5u), testing::Values(Ending::Asked, Ending::Killed)),
                         [](const auto &row) {
                             return std::string(std::get<0>(row.param) == 5 ? "at_5_0_" : "at_3_1_1_") +
                                    (std::get<1>(row.param) == Ending::Asked ? "asked" : "killed");
                         });

struct slow_restart_5 : testing::Test {
    Program program;

    static Client come(std::string_view id, uint32_t expiry_s, const std::optional<Will> &will = {}, bool clean = false)
    {
        return {5, id, {.clean = clean, .properties = property(SessionExpiry, expiry_s), .will = will}};
    }
};

} // namespace

// [MQTT-3.1.2-23] 3.1.1 [MQTT-3.1.2-4] 3.1.1 [MQTT-3.1.2-5] [MQTT-4.5.0-1] 3.1.1 [MQTT-4.5.0-1]
TEST_P(slow_restart, sessions_stay_with_subscriptions_and_messages)
{
    Client client = come_to_stay("c"), connected = come_to_stay("connected"), passing = come("passing"),
           sender = come("sender");
    client.subscribe({{"a", 1}, {"b/#", 2}, {"ended", 1}, {"$share/g/s", 1}});
    client.unsubscribe({"ended"});
    connected.subscribe("b/+", 1);
    passing.subscribe("b/+", 1);
    client.disconnect();
    sender.publish("b/x", "before", {.qos = 2});
    connected.take("b/x", "before", {.qos = 1});
    connected.ping();
    sender.publish("a", "before", {.qos = 1}); // acknowledged, so what came before is on the disk, too
    restart();
    sender = come("sender");
    for (const char *topic : {"a", "b/y", "ended", "s"})
        sender.publish(topic, "after", {.qos = 2});
    client = come_to_stay("c");
    EXPECT_TRUE(client.connack().session_present);
    client.take("b/x", "before", {.qos = 2});
    client.take("a", "before", {.qos = 1});
    client.take("a", "after", {.qos = 1});
    client.take("b/y", "after", {.qos = 2});
    client.take("s", "after", {.qos = 1});
    client.expect_silence();
    connected = come_to_stay("connected");
    EXPECT_TRUE(connected.connack().session_present);
    connected.take("b/y", "after", {.qos = 1});
    connected.expect_silence();
    EXPECT_FALSE(come_to_stay("passing").connack().session_present);
}

// [MQTT-4.4.0-1] 3.1.1 [MQTT-4.4.0-1] [MQTT-4.3.3-10]
TEST_P(slow_restart, exchanges_go_on)
{
    Client client = come_to_stay("c"), sender = come_to_stay("sender");
    client.subscribe("t", 2);
    std::vector<Received> got;
    for (const char *payload : {"1", "2", "3", "4"}) {
        const unsigned qos = payload[0] == '1' ? 1 : 2;
        sender.publish("t", payload, {.qos = qos});
        got.push_back(client.expect_publish("t", payload, {.qos = qos}));
    }
    client.acknowledge(got[1]);
    client.send(ack_packet(PUBREC, got[2].id));
    client.expect_ack(PUBREL, got[2].id);
    client.ping();
    sender.send(publish_packet(level(), "t", "half", {.qos = 2, .id = 99}));
    sender.expect_ack(PUBREC, 99); // so what came before is on the disk, too
    restart();

    sender = come_to_stay("sender");
    EXPECT_TRUE(sender.connack().session_present);
    sender.send(publish_packet(level(), "t", "half", {.qos = 2, .dup = true, .id = 99}));
    sender.expect_ack(PUBREC, 99);
    sender.send(ack_packet(PUBREL, 99));
    sender.expect_ack(PUBCOMP, 99, 0);

    client = come_to_stay("c");
    EXPECT_TRUE(client.connack().session_present);
    std::set<std::string> came;
    std::set<unsigned>    to_be_released = {got[2].id};
    while (client.ok() && (came.size() < 3 || !to_be_released.empty())) {
        const Received next = client.next();
        if (next.type == PUBREL) {
            EXPECT_EQ(to_be_released.erase(next.id), 1u) << next.id;
            client.send(ack_packet(PUBCOMP, next.id));
            continue;
        }
        EXPECT_THAT(next.payload, testing::AnyOf("1", "4", "half"));
        EXPECT_TRUE(came.insert(next.payload).second) << next.payload << " came twice";
        if (next.payload != "half") { // that one had perhaps not been sent
            EXPECT_TRUE(next.dup);
            EXPECT_EQ(next.id, got[next.payload == "1" ? 0 : 3].id);
        }
        client.send(ack_packet(next.qos == 1 ? PUBACK : PUBREC, next.id));
        if (next.qos == 2)
            to_be_released.insert(next.id);
    }
    client.expect_silence();
    client.drop();
    client = come_to_stay("c");
    client.expect_silence();
}

// [MQTT-3.3.1-5] 3.1.1 [MQTT-3.3.1-5]
TEST_P(slow_restart, retained_messages_stay)
{
    Client            sender = come("sender");
    const std::string binary("\0\xFF\x80", 3), large(100'000, 'x');
    sender.publish("a", binary, {.qos = 2, .retain = true});
    sender.publish("b/large", large, {.qos = 1, .retain = true});
    sender.publish("b/gone", "x", {.qos = 1, .retain = true});
    sender.publish("b/gone", "", {.qos = 1, .retain = true});
    sender.publish("b/new", "old", {.qos = 1, .retain = true});
    sender.publish("b/new", "new", {.qos = 1, .retain = true});
    restart();
    Client reader = come("reader");
    reader.subscribe("a", 2);
    reader.take("a", binary, {.qos = 2, .retain = true});
    reader.subscribe("b/#", 2);
    auto all = reader.take_all();
    std::ranges::sort(all, {}, &Received::topic);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].payload, large);
    EXPECT_EQ(all[1].payload, "new");
}

// [MQTT-4.3.2-4]: what was acknowledged is not lost.
TEST_P(slow_restart, acknowledged_messages_are_there)
{
    constexpr int kMessages = 500;
    Client        client = come_to_stay("c"), sender = come("sender");
    client.subscribe("t", 1);
    client.disconnect();
    sender.publish_numbers("t", 0, kMessages);
    restart();
    client = come_to_stay("c");
    for (int i = 0; i < kMessages; ++i)
        client.take("t", std::to_string(i), {.qos = 1});
    client.expect_silence();
}

TEST_P(slow_restart, several_in_a_row)
{
    come_to_stay("c").subscribe("t", 1);
    for (int i = 0; i < 3; ++i) {
        restart();
        come("sender").publish("t", std::to_string(i), {.qos = 1});
    }
    restart();
    Client client = come_to_stay("c");
    for (int i = 0; i < 3; ++i)
        client.take("t", std::to_string(i), {.qos = 1});
}

// ---- 5.0, by the clock

// [MQTT-4.1.0-2]
TEST_F(slow_restart_5, sessions_end_in_time)
{
    come("short", 3).disconnect();
    come("long", 3600).disconnect();
    come("none", 0).disconnect();
    program.crash();
    pause_ms(3500);
    program.start();
    EXPECT_FALSE(come("short", 1).connack().session_present);
    EXPECT_TRUE(come("long", 1).connack().session_present);
    EXPECT_FALSE(come("none", 1).connack().session_present);
}

// [MQTT-3.3.2-5] [MQTT-3.3.2-6]
TEST_F(slow_restart_5, messages_expire_in_time)
{
    Client client = come("c", 3600), sender = come("sender", 0);
    client.subscribe("t/#", 1);
    client.disconnect();
    for (const uint32_t seconds : {2u, 100u}) {
        const Bytes properties = property(MessageExpiry, seconds) + user("a", "b") + property(ContentType, "text");
        sender.publish("t/" + std::to_string(seconds), "x", {.qos = 1, .properties = properties});
        sender.publish("kept/" + std::to_string(seconds), "x", {.qos = 1, .retain = true, .properties = properties});
    }
    program.crash();
    pause_ms(3000);
    program.start();
    client            = come("c", 3600);
    const auto missed = client.take("t/100", "x", {.qos = 1});
    client.expect_silence();
    client.subscribe("kept/#", 1);
    const auto kept = client.take("kept/100", "x", {.qos = 1, .retain = true});
    client.expect_silence();
    for (const Received *one : {&missed, &kept}) {
        EXPECT_THAT(one->properties.number(MessageExpiry), Optional(AllOf(Ge(80u), Le(97u))));
        EXPECT_EQ(one->properties.text(ContentType), "text");
        EXPECT_EQ(one->properties.all.back().text, "a");
    }
}

// A will that waits is there after a restart, and so is its delay.
// [MQTT-3.1.2-8]
TEST_F(slow_restart_5, wills_that_wait_are_published)
{
    Client reader = come("reader", 3600);
    reader.subscribe("w", 1);
    reader.ping();
    come("c", 3600, Will{"w", "gone", 1, false, property(WillDelay, 4)}, true).drop();
    pause_ms(200);
    program.crash();
    program.start();
    reader = come("reader", 3600);
    reader.expect_silence();
    pause_ms(1500);
    reader.take("w", "gone", {.qos = 1});
}

// [MQTT-3.1.3-9]
TEST_F(slow_restart_5, wills_that_wait_are_called_off)
{
    Client reader = come("reader", 3600);
    reader.subscribe("w", 1);
    reader.ping();
    come("c", 3600, Will{"w", "gone", 1, false, property(WillDelay, 3)}, true).drop();
    pause_ms(200);
    program.crash();
    program.start();
    Client client = come("c", 3600);
    EXPECT_TRUE(client.connack().session_present);
    reader = come("reader", 3600);
    pause_ms(4500);
    reader.expect_silence();
}

TEST_F(slow_restart_5, subscriptions_keep_their_options)
{
    Client client = come("c", 3600), sender = come("sender", 0);
    client.subscribe("t", 1 | kNoLocal | kAsPublished, property(SubscriptionId, 77));
    client.disconnect();
    program.crash();
    program.start();
    client = come("c", 3600);
    sender = come("sender", 0);
    client.publish("t", "mine", {.qos = 1});
    sender.publish("t", "theirs", {.qos = 1, .retain = true});
    EXPECT_EQ(client.take("t", "theirs", {.qos = 1, .retain = true}).properties.printed(), "0B=77");
    client.expect_silence();
}
