#include "handler_fixture.h"
#include "support/log_lines/codec.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/sub.h"

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(unsubscribe, line_by_line)
{
    Handling broker;
    broker.host.hear_events();
    Client client(broker, 4, "dev1");
    sub_add("dev1", "a/b", 1, 1);
    sub_add("dev2", "a/b", 1, 1);
    LogCapture log;
    EXPECT_EQ(client.sends("A2 0B | 00 05 | 00 03 'a/b' | 00 02 'no'"), 0);
    std::vector<LogLine> lines = handler_lines(log);
    std::erase_if(lines, [](const LogLine &line) { return line.text.rfind("UNSUBSCRIBE", 0) == 0; });
    EXPECT_THAT(lines,
                ElementsAre(logged::packet_received("dev1", 10, 13),
                            info("MQTT标准：客户端取消订阅：ClientID=dev1, MsgID=5, 取消数=2"),
                            logged::subscription_removed("dev1", "a/b", 1),
                            info("取消订阅成功：ClientID=dev1, Topic=a/b"),
                            logged::subscription_removed("dev1", "no", 0), logged::filter_not_removed("dev1", "no"),
                            info("发送UNSUBACK成功：ClientID=dev1, MsgID=5")));
    EXPECT_THAT(client.gets(), ElementsAre(wire("B0 02 00 05")));
    EXPECT_THAT(broker.host.take(), ElementsAre(R"(4 {"clientId":"dev1","topic":"a/b","qos":0})"));
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 0);
    EXPECT_EQ(sub_get_client_sub_count("dev2"), 1);
}

TEST(unsubscribe, the_answer_is_the_identifier_and_one_code)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    EXPECT_EQ(client.sends("A2 09 | 00 05 | 00 | 00 01 'a' | 00 01 'b'"), 0);
    EXPECT_THAT(client.gets(), ElementsAre(wire("B0 03 00 05 00")));
}

TEST(unsubscribe, an_empty_filter_is_passed_over)
{
    Handling   broker;
    Client     client(broker, 4, "dev1");
    LogCapture log;
    EXPECT_EQ(client.sends("A2 05 | 00 05 | 00 01 00"), 0);
    EXPECT_FALSE(log.has(logged::filter_not_removed("dev1", "")));
    EXPECT_THAT(client.gets(), ElementsAre(wire("B0 02 00 05")));
}

TEST(unsubscribe, without_filters_is_answered)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    EXPECT_EQ(client.sends("A2 02 00 05"), 0);
    EXPECT_THAT(client.gets(), ElementsAre(wire("B0 02 00 05")));
}

TEST(unsubscribe, the_saved_list_keeps_the_filter)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client.sends("82 06 | 00 01 | 00 01 'a' 01");
    client.sends("A2 05 | 00 02 | 00 01 'a'");
    EXPECT_EQ(client->session.sub_count, 1);
    EXPECT_STREQ(client->session.subs[0].topic, "a");
}

TEST(unsubscribe, a_removed_filter_is_active_again_after_a_reconnect)
{
    Handling broker;
    Client   client(broker), again(broker);
    client.sends(connect_v4("dev1", 0));
    client.sends("82 06 | 00 01 | 00 01 'a' 01");
    client.sends("A2 05 | 00 02 | 00 01 'a'");
    client.sends("E0 00");
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 0);
    again.sends(connect_v4("dev1", 0));
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 1);
}

TEST(unsubscribe, without_memory_for_the_unsuback_fails)
{
    Handling   broker;
    Client     client(broker, 4, "dev1");
    LogCapture log(AGENT_LOG_ERROR);
    {
        Fail fail(Call::Allocate, 1);
        EXPECT_EQ(client.sends("A2 02 00 05"), -1);
    }
    EXPECT_THAT(log.take(), ElementsAre(logged::suback_no_memory()));
    EXPECT_THAT(client.gets(), IsEmpty());
}

// Only a host that reaches into the record from its callback can bring this about.
TEST(unsubscribe, an_answer_that_does_not_encode_is_left_out)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    sub_add("dev1", "a", 0, 1);
    static mqtt_client_t *told;
    told                        = client;
    broker.host.broker.event_cb = [](broker_t *, uint32_t, const char *) { told->codec.version = 0; };
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends("A2 05 | 00 05 | 00 01 'a'"), 0);
    EXPECT_EQ(log.take().back(), logged::ack_encode_unsupported_version(0));
    EXPECT_THAT(client.gets(), IsEmpty());
}
