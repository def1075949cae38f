#include "handler_fixture.h"
#include "support/log_lines/handler.h"

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(dispatch, bad_arguments_are_counted_and_refused)
{
    Handling   broker;
    Client     client(broker);
    const auto ping = wire("C0 00");
    LogCapture log;
    EXPECT_EQ(packet_dispatch(nullptr, ping.data(), 2), -1);
    EXPECT_EQ(packet_dispatch(client, nullptr, 2), -1);
    EXPECT_EQ(packet_dispatch(client, ping.data(), 0), -1);
    EXPECT_EQ(packet_dispatch(client, ping.data(), 0x80000000), -1);
    EXPECT_THAT(log.take(), ElementsAre(logged::invalid_packet(), logged::invalid_packet(), logged::invalid_packet(),
                                        logged::invalid_packet()));
    EXPECT_EQ(g_mqtt_stats.pkt_rx, 4u);
    EXPECT_THAT(client.gets(), IsEmpty());
}

TEST(dispatch, every_packet_is_traced_and_counts_as_activity)
{
    Handling    broker;
    ManualClock clock;
    Client      client(broker, 4, "dev1");
    clock.advance_ms(5000);
    client->timeout_closing = 1;
    LogCapture log;
    EXPECT_EQ(client.sends("F0 00"), 0);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::packet_received("dev1", 15, 2), logged::unhandled_packet_type(15, "dev1")));
    EXPECT_EQ(client->last_active, clock.mono_ms());
    EXPECT_EQ(client->timeout_closing, 0);
    EXPECT_EQ(g_mqtt_stats.pkt_rx, 1u);
}

TEST(dispatch, types_without_a_handler_are_logged_and_ignored)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    for (const int type : {0, 2, 9, 11, 13, 15}) {
        LogCapture log(AGENT_LOG_INFO);
        EXPECT_EQ(client.sends(Bytes{static_cast<uint8_t>(type << 4), 0}), 0);
        EXPECT_THAT(log.take(), ElementsAre(logged::unhandled_packet_type(type, "dev1")));
    }
    EXPECT_THAT(client.gets(), IsEmpty());
    EXPECT_EQ(client->state, CLIENT_LOGINED);
}

TEST(dispatch, a_packet_above_the_limit_is_answered_with_disconnect_and_closed)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    client->max_packet_size = 256;
    const Bytes at_limit    = packet(0xF0, repeat(0, 253));
    const Bytes above       = packet(0xF0, repeat(0, 254));
    ASSERT_EQ(at_limit.size(), 256u);
    EXPECT_EQ(client.sends(at_limit), 0);
    EXPECT_EQ(client->state, CLIENT_LOGINED);

    ManualClock clock;
    LogCapture  log(AGENT_LOG_ERROR);
    EXPECT_EQ(client.sends(above), -1);
    EXPECT_THAT(log.take(), ElementsAre(error("[MQTT过载保护] 报文超长关闭连接：Client=dev1, 接收=257, 协商最大=256")));
    EXPECT_THAT(client.gets(), ElementsAre(wire("E0 02 95 00")));
    EXPECT_EQ(client->state, CLIENT_CLOSED);
    EXPECT_NE(client->last_active, 0u);
}

TEST(dispatch, a_v4_client_sends_4096_bytes_but_not_4097)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    EXPECT_EQ(client.sends(packet(0xF0, repeat(0, 4093))), 0);
    EXPECT_EQ(client.sends(packet(0xF0, repeat(0, 4094))), -1);
    EXPECT_THAT(client.gets(), ElementsAre(wire("E0 00")));
    EXPECT_EQ(client->state, CLIENT_CLOSED);
}

TEST(dispatch, a_limit_of_0_is_none)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->max_packet_size = 0;
    EXPECT_EQ(client.sends(packet(0xF0, repeat(0, 5000))), 0);
    EXPECT_EQ(client->state, CLIENT_LOGINED);
}

TEST(dispatch, a_publish_before_connect_is_handled)
{
    Handling broker;
    Client   receiver(broker, 4, "r");
    sub_add("r", "t", 0, 1);
    Client stranger(broker);
    EXPECT_EQ(stranger.sends("30 04 | 00 01 't' 'x'"), 0);
    EXPECT_THAT(receiver.gets(), ElementsAre(wire("30 04 | 00 01 't' 'x'")));
}

// One decoder's text is checked byte by byte, each handler's own line below.
TEST(dispatch, a_packet_that_does_not_decode_is_counted_and_not_answered)
{
    struct Case {
        const char *packet;
        uint32_t    version;
        LogLine     line;
    };
    const Case cases[] = {
        {"30 01 00", 4, error("解码PUBLISH失败：ClientID=dev1, 错误码=-4")},
        {"40 01 00", 4, logged::puback_undecodable("dev1", -4)},
        {"50 01 00", 4, error("解码PUBREC失败：ClientID=dev1, 错误码=-4")},
        {"62 01 00", 4, error("解码PUBREL失败：ClientID=dev1, 错误码=-4")},
        {"70 01 00", 4, error("解码PUBCOMP失败：ClientID=dev1, 错误码=-4")},
        {"40 02", 4, logged::puback_undecodable("dev1", -1)},
        {"80 04 00 01 00 00", 4, logged::subscribe_undecodable("dev1", -4)},
        {"82 05 00 01 00 00 00", 4, logged::subscribe_undecodable("dev1", -4)},
        {"A0 02 00 01", 4, logged::unsubscribe_undecodable("dev1", -4)},
        {"A2 01 00 01", 4, logged::unsubscribe_undecodable("dev1", -3)},
        {"E0 00", 5, logged::disconnect_undecodable("dev1", -4)},
        {"E0 01 00", 4, logged::disconnect_undecodable("dev1", -4)},
        {"E0 04 00 02 11 00", 5, logged::disconnect_undecodable("dev1", -5)},
        {"10 00", 4, logged::connect_undecodable()},
    };
    Handling broker;
    Client   client(broker, 4, "dev1");
    for (const Case &each : cases) {
        SCOPED_TRACE(each.packet);
        client->codec.version    = each.version;
        g_mqtt_stats.parse_error = 0;
        LogCapture log(AGENT_LOG_ERROR);
        EXPECT_EQ(client.sends(each.packet), -1);
        EXPECT_EQ(log.take().back(), each.line);
        EXPECT_EQ(g_mqtt_stats.parse_error, 1u);
        EXPECT_THAT(client.gets(), IsEmpty());
        EXPECT_EQ(client->state, CLIENT_LOGINED);
    }
}
