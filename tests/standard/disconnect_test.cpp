// DISCONNECT, both ways, and AUTH (3.14, 3.15, 4.12, 4.13).
#include "support/levels.h"

using namespace tarn::conformance;

namespace {

struct disconnect : AtEachLevel {};
AT_EACH_LEVEL(disconnect);

struct disconnect_5 : At5 {};
struct auth : At5 {};

} // namespace

// 3.1.1 [MQTT-3.14.4-1] 3.1.1 [MQTT-3.14.4-2] [MQTT-3.14.4-1] [MQTT-3.14.4-2]
TEST_P(disconnect, is_the_end)
{
    Client reader = come("reader");
    reader.subscribe("#", 1);
    Client client = come("c");
    client.send(wire("E0 00") + publish_packet(level(), "t", "behind it", {.qos = 1, .id = 1, .properties = {}}));
    client.expect_closed();
    reader.expect_silence();
}

// What was sent before it counts.
TEST_P(disconnect, comes_after_what_came_before)
{
    Client reader = come("reader");
    reader.subscribe("#", 2);
    for (unsigned qos = 0; qos < 2; ++qos) {
        Client client = come("c");
        client.send(publish_packet(level(), "t", "x", {.qos = qos, .id = 1}) + wire("E0 00"));
        reader.take("t", "x", {.qos = qos});
    }
}

// So does what came before the connection was closed without it.
TEST_P(disconnect, may_be_missing)
{
    Client reader = come("reader");
    reader.subscribe("#", 2);
    for (unsigned qos = 0; qos < 2; ++qos) {
        Client client = come("c");
        client.send(publish_packet(level(), "t", "x", {.qos = qos, .id = 1}));
        client.drop();
        reader.take("t", "x", {.qos = qos});
    }
}

// [MQTT-3.14.0-1] [MQTT-3.14.2-2] 3.1.1: it has no DISCONNECT of the broker's.
TEST_P(disconnect, of_the_broker_when_the_host_ends_a_client)
{
    if (is_other_broker())
        GTEST_SKIP();
    Client client = come_to_stay("c");
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(broker.handle(), "c"), 0);
    client.expect_end({0x98});
    EXPECT_TRUE(come_to_stay("c").connack().session_present);
}

// [MQTT-4.13.2-1]
TEST_P(disconnect, of_the_broker_when_it_stops)
{
    if (is_other_broker())
        GTEST_SKIP();
    Client client = come("c");
    broker.end();
    client.expect_end({0x8B});
}

TEST_F(disconnect_5, may_be_short_or_have_a_reason_or_that_and_properties)
{
    for (const char *bytes : {"E0 00", "E0 01 00", "E0 02 00 00", "E0 09 00 07 1F 00 04 'done'",
                              "E0 09 00 07 26 00 01 'a' 00 01 'b'", "E0 01 04", "E0 02 80 00"}) {
        Client client = come("c");
        client.send(bytes);
        client.expect_closed();
    }
}

// [MQTT-3.14.2-1]
TEST_F(disconnect_5, has_a_reason_that_a_client_may_send)
{
    for (const char *bytes : {"E0 01 01", "E0 01 03", "E0 01 10", "E0 01 8C", "E0 01 FF"}) {
        Client client = come("c");
        client.send(bytes);
        client.expect_end({0x81, 0x82});
    }
}

TEST_F(disconnect_5, has_properties_that_belong_there)
{
    for (const Bytes &properties :
         {property(MessageExpiry, 1), property(ReasonString, "a") + property(ReasonString, "b"),
          property(SessionExpiry, 0u) + property(SessionExpiry, 0u)}) {
        Client client = come("c");
        client.send(packet(0xE0, Bytes{0} + block(5, properties)));
        client.expect_end({0x81, 0x82});
    }
}

// [MQTT-4.13.1-1] [MQTT-4.13.2-1]: the code of what was wrong, then the end; nothing after that is looked at.
TEST_F(disconnect_5, of_the_broker_is_its_last_word)
{
    Client reader = come("reader");
    reader.subscribe("#");
    Client client = come("c");
    client.send(wire("00 00 C0 00") + publish_packet(5, "t", "x"));
    client.expect_end({0x81, 0x82});
    reader.expect_silence();
}

// ---- AUTH

// [MQTT-4.12.0-7] [MQTT-4.12.0-6]
TEST_F(auth, without_a_method_is_an_error)
{
    for (const Bytes &bytes :
         {wire("F0 00"), packet(0xF0, Bytes{0x18} + block(5, property(AuthMethod, "m"))),
          packet(0xF0, Bytes{0x19} + block(5, property(AuthMethod, "m") + property(AuthData, "d")))}) {
        SCOPED_TRACE(tarn::test::hex(bytes));
        Client client = come("c");
        client.send(bytes);
        client.expect_end({0x82, 0x81, 0x8C});
    }
}

// [MQTT-3.15.1-1]
TEST_F(auth, has_no_flags)
{
    Client client = come("c");
    client.send(packet(0xF1, Bytes{0x19} + block(5, property(AuthMethod, "m"))));
    client.expect_end({0x81});
}

// Nor is there such a packet at 3.1.1.
TEST_F(auth, is_not_of_3_1_1)
{
    Client client(4, "c");
    client.send("F0 00");
    client.expect_closed();
}

// [MQTT-4.12.0-1] [MQTT-3.1.2-30]
TEST_F(auth, during_connect_is_refused_with_it)
{
    Client client = open();
    client.send(connect_packet(5, "c", {.properties = property(AuthMethod, "m")}) +
                packet(0xF0, Bytes{0x18} + block(5, property(AuthMethod, "m"))));
    client.refused(0x8C);
}
