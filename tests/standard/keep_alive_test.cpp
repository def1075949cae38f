// Keep-alive, PINGREQ, and other matters of the clock: expiry of messages.
#include "support/levels.h"

using namespace tarn::conformance;
using tarn::test::kSlowdown;
using tarn::test::now_s;
using tarn::test::pause_ms;
using testing::AllOf;
using testing::Ge;
using testing::Le;
using testing::Optional;

namespace {

struct ping : AtEachLevel {};
AT_EACH_LEVEL(ping);

struct slow_keep_alive : AtEachLevel {
    // The client says nothing more; its connection ends after one and a half times what was agreed.
    void expect_end_after(Client &client, double seconds, Where where = Where::here())
    {
        const double begin_s = now_s();
        client.expect_end({0x8D}, where);
        EXPECT_GT(now_s() - begin_s, seconds - 0.3);
        EXPECT_LT(now_s() - begin_s, seconds + 1.2 * kSlowdown);
    }
};
AT_EACH_LEVEL(slow_keep_alive);

struct expiry : At5 {
    static Publish lasting(uint32_t seconds, unsigned qos = 1)
    {
        return {.qos = qos, .properties = property(MessageExpiry, seconds)};
    }
};
using slow_expiry = expiry;

} // namespace

// [MQTT-3.12.4-1] 3.1.1 [MQTT-3.12.4-1]
TEST_P(ping, is_answered)
{
    Client client = come("c");
    for (int i = 0; i < 3; ++i) {
        client.send("C0 00");
        client.peer().expect("D0 00");
    }
    client.send("C0 00 C0 00 C0 00");
    client.peer().expect("D0 00 D0 00 D0 00");
}

// [MQTT-3.1.2-22] 3.1.1 [MQTT-3.1.2-24]
TEST_P(slow_keep_alive, ends_a_silent_connection)
{
    for (const unsigned seconds : {1u, 2u}) {
        Client client = come("c", {.keep_alive_s = seconds});
        expect_end_after(client, seconds * 1.5);
    }
}

// [MQTT-3.1.2-22] [MQTT-3.2.2-22]
TEST_P(slow_keep_alive, is_prolonged_by_any_packet)
{
    Client client = come("c", {.keep_alive_s = 1});
    for (int i = 0; i < 8; ++i) {
        pause_ms(600);
        switch (i % 4) {
        case 0:
            client.ping();
            break;
        case 1:
            client.publish("t", "x");
            break;
        case 2:
            client.subscribe("t" + std::to_string(i));
            break;
        default:
            client.publish("none", "x", {.qos = 1});
        }
    }
    client.ping();
    expect_end_after(client, 1.5);
}

// Only what the client sends counts.
TEST_P(slow_keep_alive, is_not_prolonged_by_what_the_client_is_sent)
{
    Client client = come("c", {.keep_alive_s = 1}), sender = come("sender");
    client.subscribe("t");
    const double begin_s = now_s();
    bool         open    = true;
    while (open && now_s() - begin_s < 5 * kSlowdown) {
        sender.publish("t", "x");
        open = client.peer().drain();
        pause_ms(100);
    }
    EXPECT_GT(now_s() - begin_s, 1.2);
    EXPECT_LT(now_s() - begin_s, 3 * kSlowdown);
}

TEST_P(slow_keep_alive, of_0_is_off)
{
    Client client = come("c"), beside = come("beside", {.keep_alive_s = 65535});
    pause_ms(4000);
    client.ping();
    beside.ping();
}

// [MQTT-3.1.2-8] 3.1.1 [MQTT-3.1.2-8]
TEST_P(slow_keep_alive, that_is_over_has_the_will_published)
{
    Client reader = come("reader");
    reader.subscribe("w", 1);
    Client client = come("c", {.keep_alive_s = 1, .will = Will{"w", "gone", 1}});
    reader.take("w", "gone", {.qos = 1});
    client.expect_end({0x8D});
}

TEST_P(slow_keep_alive, that_is_over_leaves_the_session)
{
    Client client = come_to_stay("c", {.keep_alive_s = 1});
    client.expect_end({0x8D});
    EXPECT_TRUE(come_to_stay("c").connack().session_present);
}

// ---- Message Expiry Interval

// [MQTT-3.3.2-6]
TEST_F(expiry, is_told_to_readers)
{
    Client reader = come("reader"), old_reader(4, "old"), sender = come("sender");
    reader.subscribe("t", 2);
    old_reader.subscribe("t", 2);
    for (const uint32_t seconds : {10u, 100u, 0xFFFFFFFFu}) {
        for (unsigned qos = 0; qos < 3; ++qos) {
            sender.publish("t", "x", lasting(seconds, qos));
            EXPECT_THAT(reader.take("t", "x", {.qos = qos}).properties.number(MessageExpiry),
                        Optional(AllOf(Ge(seconds - 1), Le(seconds))));
            old_reader.take("t", "x", {.qos = qos});
        }
    }
}

// [MQTT-3.3.2-6]
TEST_F(slow_expiry, is_less_what_the_message_waited)
{
    Client reader = come_to_stay("reader"), sender = come("sender");
    reader.subscribe("t/+", 2);
    reader.disconnect();
    sender.publish("t/waits", "x", lasting(100, 1));
    sender.publish("t/waits", "y", lasting(100, 2));
    Publish kept = lasting(100);
    kept.retain  = true;
    sender.publish("kept", "z", kept);
    pause_ms(2500);
    reader              = come_to_stay("reader");
    const auto expected = Optional(AllOf(Ge(90u), Le(98u)));
    EXPECT_THAT(reader.take("t/waits", "x", {.qos = 1}).properties.number(MessageExpiry), expected);
    EXPECT_THAT(reader.take("t/waits", "y", {.qos = 2}).properties.number(MessageExpiry), expected);
    reader.subscribe("kept", 1);
    EXPECT_THAT(reader.take("kept", "z", {.qos = 1, .retain = true}).properties.number(MessageExpiry), expected);
}

// [MQTT-3.3.2-5]
TEST_F(slow_expiry, ends_messages_that_wait)
{
    Client reader = come_to_stay("reader"), old_reader(4, "old", {.clean = false}), sender = come("sender");
    reader.subscribe("t", 2);
    old_reader.subscribe("t", 2);
    reader.disconnect();
    old_reader.disconnect();
    sender.publish("t", "short", lasting(1, 1));
    sender.publish("t", "short", lasting(1, 2));
    sender.publish("t", "long", lasting(100, 1));
    sender.publish("t", "ever", {.qos = 1});
    pause_ms(2500);
    reader     = come_to_stay("reader");
    old_reader = Client(4, "old", {.clean = false});
    for (Client *client : {&reader, &old_reader}) {
        client->take("t", "long", {.qos = 1});
        client->take("t", "ever", {.qos = 1});
        client->expect_silence();
    }
}

// [MQTT-3.3.2-5]
TEST_F(slow_expiry, ends_messages_behind_a_full_window)
{
    Client reader = come("reader", {.properties = property(ReceiveMaximum, 1)}), sender = come("sender");
    reader.subscribe("t", 1);
    sender.publish("t", "first", {.qos = 1});
    sender.publish("t", "short", lasting(1));
    sender.publish("t", "last", {.qos = 1});
    const Received first = reader.expect_publish("t", "first", {.qos = 1});
    pause_ms(2500);
    reader.acknowledge(first);
    reader.take("t", "last", {.qos = 1});
    reader.expect_silence();
}

TEST_F(slow_expiry, ends_retained_messages)
{
    Client sender = come("sender");
    for (const uint32_t seconds : {1u, 100u}) {
        Publish kept = lasting(seconds);
        kept.retain  = true;
        sender.publish("t/" + std::to_string(seconds), "x", kept);
    }
    pause_ms(2500);
    Client reader = come("reader"), exact = come("exact");
    reader.subscribe("t/#", 1);
    reader.take("t/100", "x", {.qos = 1, .retain = true});
    reader.expect_silence();
    exact.subscribe("t/1", 1);
    exact.expect_silence();
}

// [MQTT-4.3.3-7] [MQTT-4.3.3-13] [MQTT-4.4.0-1]: what was sent before goes on, however old it is.
TEST_F(slow_expiry, ends_no_delivery_that_was_begun)
{
    Client reader = come_to_stay("reader"), sender = come("sender");
    reader.subscribe("t", 2);
    sender.publish("t", "x", lasting(1, 2));
    sender.publish("t", "y", lasting(1, 2));
    const Received x = reader.expect_publish("t", "x", {.qos = 2}), y = reader.expect_publish("t", "y", {.qos = 2});
    reader.send(ack_packet(PUBREC, x.id));
    reader.expect_ack(PUBREL, x.id);
    pause_ms(2500);
    reader.acknowledge(y); // PUBREC is still answered
    reader.send(ack_packet(PUBCOMP, x.id));
    reader.ping();
    sender.publish("t", "z", lasting(1, 2));
    const Received z = reader.expect_publish("t", "z", {.qos = 2});
    reader.send(ack_packet(PUBREC, z.id));
    reader.expect_ack(PUBREL, z.id);
    reader.drop();
    pause_ms(2500);
    reader = come_to_stay("reader");
    EXPECT_EQ(reader.expect(PUBREL).id, z.id);
    reader.send(ack_packet(PUBCOMP, z.id));
    reader.expect_silence();
}

// A publication at QoS 2 is acknowledged to its end, even when nobody can have it any more.
// [MQTT-4.3.3-13]
TEST_F(slow_expiry, ends_no_exchange_with_the_sender)
{
    Client sender = come("sender");
    sender.send(publish_packet(5, "t", "x", {.qos = 2, .id = 9, .properties = property(MessageExpiry, 1)}));
    sender.expect_ack(PUBREC, 9);
    pause_ms(2200);
    sender.send(ack_packet(PUBREL, 9));
    sender.expect_ack(PUBCOMP, 9, 0);
}
