// Wills: when they are published, how, and what calls them off (3.1.2.5, 3.1.3.2, 3.14.4).
#include "support/host.h"
#include "support/levels.h"

using namespace tarn::conformance;
using tarn::test::now_s;
using tarn::test::pause_ms;

namespace {

struct will : AtEachLevel {
    Client reader = come_to_read();

    Client come_to_read() const
    {
        Client client = come("reader");
        client.subscribe("w/#", 2);
        return client;
    }
    static Connect with_will(unsigned qos = 1, bool retain = false) { return {.will = Will{"w", "gone", qos, retain}}; }
};
AT_EACH_LEVEL(will);

struct will_5 : At5 {
    Client reader = come_to_read();

    static Client come_to_read()
    {
        Client client = come("reader");
        client.subscribe("w/#", 2);
        return client;
    }
};

// A will that waits, of a session that stays.
struct slow_will : will_5 {
    static Client come_with(uint32_t delay_s, uint32_t expiry_s, const Bytes &properties = {}, bool clean = true)
    {
        return come("c", {.clean      = clean,
                          .properties = property(SessionExpiry, expiry_s),
                          .will       = Will{"w", "gone", 1, false, property(WillDelay, delay_s) + properties}});
    }
    // Comes so many seconds after `begin_s`, neither sooner nor much later.
    void expect_after(double begin_s, double seconds, Where where = Where::here())
    {
        reader.take("w", "gone", {.qos = 1}, where);
        EXPECT_GT(now_s() - begin_s, seconds - 0.1);
        EXPECT_LT(now_s() - begin_s, seconds + 2.5 * tarn::test::kSlowdown);
    }
};

} // namespace

// [MQTT-3.1.2-7] [MQTT-3.1.2-8] [MQTT-3.1.2-14] 3.1.1 [MQTT-3.1.2-8] 3.1.1 [MQTT-3.1.2-16]
TEST_P(will, is_published_when_the_connection_drops)
{
    for (unsigned qos = 0; qos < 3; ++qos) {
        Client client = come("c", with_will(qos));
        qos % 2 ? client.peer().reset() : client.drop();
        reader.take("w", "gone", {.qos = qos});
        reader.expect_silence();
    }
    Client late = come_to_read(); // it was not retained
    late.expect_silence();
}

// [MQTT-3.1.2-15] 3.1.1 [MQTT-3.1.2-17]
TEST_P(will, may_be_retained)
{
    come("c", with_will(1, true)).drop();
    reader.take("w", "gone", {.qos = 1});
    come_to_read().take("w", "gone", {.qos = 1, .retain = true});
}

// [MQTT-3.14.4-3] [MQTT-3.1.2-10] 3.1.1 [MQTT-3.14.4-3] 3.1.1 [MQTT-3.1.2-10]
TEST_P(will, is_forgotten_with_disconnect)
{
    come("c", with_will()).disconnect();
    come("c").drop(); // the next connection has none
    pause_ms(100);
    reader.expect_silence();
}

// 3.1.1 [MQTT-3.1.2-12]
TEST_P(will, is_of_those_that_have_one)
{
    come("c").drop();
    pause_ms(100);
    reader.expect_silence();
}

// [MQTT-3.1.2-10] 3.1.1 [MQTT-3.1.2-10]
TEST_P(will, is_published_once)
{
    Connect options    = with_will();
    options.clean      = false;
    options.properties = is_5() ? property(SessionExpiry, 3600) : Bytes{};
    come("c", options).drop();
    reader.take("w", "gone", {.qos = 1});
    come_to_stay("c").drop();
    come("c").disconnect();
    pause_ms(100);
    reader.expect_silence();
}

// [MQTT-3.1.2-8] 3.1.1 [MQTT-3.1.2-8]
TEST_P(will, is_published_when_the_broker_ends_the_connection)
{
    Client client = come("c", with_will());
    client.send("00 00");
    client.expect_end({0x81, 0x82});
    reader.take("w", "gone", {.qos = 1});
}

// A DISCONNECT that is none calls nothing off.
TEST_P(will, is_published_after_a_malformed_disconnect)
{
    Client client = come("c", with_will());
    client.send(is_5() ? "E1 00" : "E0 01 00 ");
    if (is_5()) {
        client.expect_end({0x81});
    } else {
        client.expect_closed();
    }
    reader.take("w", "gone", {.qos = 1});
}

TEST_P(will, is_published_when_another_connection_takes_over)
{
    Client client = come("c", with_will());
    Client next   = come("c");
    client.expect_end({0x8E});
    reader.take("w", "gone", {.qos = 1});
    next.ping();
}

// [MQTT-3.1.4-5]: that connection never was.
TEST_P(will, of_a_refused_connect_is_not_published)
{
    if (is_other_broker())
        GTEST_SKIP();
    tarn::test::Hooks::listen(broker.handle());
    tarn::test::Hooks::refuse_user("eve");
    Client  client    = open();
    Connect options   = with_will();
    options.user_name = "eve";
    options.password  = "p";
    client.send(connect_packet(level(), "c", options));
    client.refused(is_5() ? 0x86 : 4);
    pause_ms(100);
    reader.expect_silence();
}

TEST_P(will, may_have_any_payload)
{
    for (const std::string &payload : {std::string(), std::string("\0\xFF\x80", 3), std::string(5000, 'x')}) {
        come("c", {.will = Will{"w/any", payload, 1}}).drop();
        reader.take("w/any", payload, {.qos = 1});
    }
}

TEST_P(will, that_is_empty_and_retained_removes_what_was_kept)
{
    reader.publish("w", "kept", {.qos = 1, .retain = true});
    reader.take("w", "kept", {.qos = 1});
    come("c", {.will = Will{"w", "", 1, true}}).drop();
    reader.take("w", "", {.qos = 1});
    come_to_read().expect_silence();
}

TEST_P(will, waits_for_readers_that_are_away)
{
    Client absent = come_to_stay("absent");
    absent.subscribe("w", 1);
    absent.disconnect();
    come("c", with_will()).drop();
    reader.take("w", "gone", {.qos = 1});
    come_to_stay("absent").take("w", "gone", {.qos = 1});
}

// The client's own subscription, in a session that stays.
TEST_P(will, comes_to_the_client_itself)
{
    Connect options = with_will();
    Client  client  = come_to_stay("c", options);
    client.subscribe("w", 1);
    client.drop();
    reader.take("w", "gone", {.qos = 1});
    come_to_stay("c").take("w", "gone", {.qos = 1});
}

// A will of the session before is not published for the one after.
TEST_P(will, is_that_of_the_last_connect)
{
    come("c", {.will = Will{"w/1", "first", 1}}).disconnect();
    come("c", {.will = Will{"w/2", "second", 1}}).drop();
    reader.take("w/2", "second", {.qos = 1});
    reader.expect_silence();
}

// ---- 5.0

// [MQTT-3.1.3-10] [MQTT-3.1.2-9]
TEST_F(will_5, has_its_properties)
{
    const Bytes properties = user("z", "1") + property(PayloadFormat, 1) + property(ContentType, "text") +
                             user("a", "2") + property(ResponseTopic, "r") + property(CorrelationData, "c") +
                             user("z", "0");
    come("c", {.will = Will{"w", "gone", 1, false, properties}}).drop();
    EXPECT_EQ(reader.take("w", "gone", {.qos = 1}).properties.printed(),
              "01=1 03=text 08=r 09=c user z=1 user a=2 user z=0");
}

// [MQTT-3.14.4-3]
TEST_F(will_5, is_published_after_every_disconnect_but_the_normal_one)
{
    for (const unsigned reason : {0x04u, 0x80u, 0x81u, 0x82u, 0x83u, 0x93u, 0x95u, 0x97u, 0x98u, 0x99u}) {
        SCOPED_TRACE(reason);
        come("c", {.will = Will{"w", "gone", 1}}).disconnect(reason);
        reader.take("w", "gone", {.qos = 1});
    }
    come("c", {.will = Will{"w", "gone", 1}}).disconnect(0, user("a", "b"));
    pause_ms(100);
    reader.expect_silence();
}

TEST_F(will_5, has_its_expiry)
{
    Client absent = come_to_stay("absent");
    absent.subscribe("w", 1);
    absent.drop();
    come("c", {.will = Will{"w", "gone", 1, false, property(MessageExpiry, 100)}}).drop();
    EXPECT_THAT(reader.take("w", "gone", {.qos = 1}).properties.number(MessageExpiry),
                testing::Optional(testing::AnyOf(99u, 100u)));
    EXPECT_THAT(come_to_stay("absent").take("w", "gone", {.qos = 1}).properties.number(MessageExpiry),
                testing::Optional(testing::AnyOf(98u, 99u, 100u)));
}

// The end of the session is the latest moment: here it is that of the connection.
TEST_F(will_5, waits_no_longer_than_its_session)
{
    come("c", {.will = Will{"w", "gone", 1, false, property(WillDelay, 60)}}).drop();
    reader.take("w", "gone", {.qos = 1});
    come("c",
         {.properties = property(SessionExpiry, 60), .will = Will{"w", "at once", 1, false, property(WillDelay, 60)}})
        .disconnect(4, property(SessionExpiry, 0u));
    reader.take("w", "at once", {.qos = 1});
}

// [MQTT-3.1.2-8]: a clean start ends the session whose will waited.
TEST_F(will_5, that_waits_is_published_when_its_session_is_discarded)
{
    const Connect options = {.properties = property(SessionExpiry, 3600),
                             .will       = Will{"w", "gone", 1, false, property(WillDelay, 3600)}};
    come("c", options).drop();
    reader.expect_silence();
    come("c").ping();
    reader.take("w", "gone", {.qos = 1});
    // The same while it is connected.
    Client client = come("c", options);
    Client next   = come("c");
    client.expect_end({0x8E});
    reader.take("w", "gone", {.qos = 1});
}

// [MQTT-3.1.3-9]
TEST_F(will_5, that_waits_is_called_off_by_a_take_over)
{
    Client client = come_to_stay("c", {.will = Will{"w", "gone", 1, false, property(WillDelay, 1)}});
    Client next   = come_to_stay("c");
    client.expect_end({0x8E});
    pause_ms(1500);
    reader.expect_silence();
    next.ping();
}

TEST_F(will_5, without_delay_is_published_at_a_take_over)
{
    Client client = come_to_stay("c", {.will = Will{"w", "gone", 1}});
    Client next   = come_to_stay("c");
    client.expect_end({0x8E});
    reader.take("w", "gone", {.qos = 1});
    EXPECT_TRUE(next.connack().session_present);
}

// [MQTT-3.1.2-8]
TEST_F(slow_will, waits_for_its_delay)
{
    const double begin_s = now_s();
    come_with(2, 3600).drop();
    expect_after(begin_s, 2);
    reader.expect_silence();
}

TEST_F(slow_will, waits_after_a_disconnect_that_wants_it)
{
    const double begin_s = now_s();
    come_with(2, 3600).disconnect(4);
    expect_after(begin_s, 2);
}

// [MQTT-3.1.3-9]
TEST_F(slow_will, is_called_off_when_the_client_comes_back)
{
    come_with(2, 3600).drop();
    pause_ms(500);
    Client client = come_to_stay("c");
    EXPECT_TRUE(client.connack().session_present);
    pause_ms(3000);
    reader.expect_silence();
    client.drop(); // nor has it another one
    pause_ms(200);
    reader.expect_silence();
}

TEST_F(slow_will, is_published_when_its_session_ends_before_its_delay)
{
    const double begin_s = now_s();
    come_with(60, 2).drop();
    expect_after(begin_s, 2);
    EXPECT_FALSE(come_to_stay("c").connack().session_present);
}

// Its expiry begins when it is published.
TEST_F(slow_will, has_its_expiry_from_the_end_of_its_delay)
{
    come_with(2, 3600, property(MessageExpiry, 100)).drop();
    EXPECT_THAT(reader.take("w", "gone", {.qos = 1}).properties.number(MessageExpiry),
                testing::Optional(testing::AnyOf(99u, 100u)));
}

TEST_F(slow_will, of_a_second_absence_is_that_of_its_connect)
{
    come_with(60, 3600).drop();
    const double begin_s = now_s();
    come_with(1, 3600, {}, false).drop();
    expect_after(begin_s, 1);
    reader.expect_silence();
}
