#include "handler_fixture.h"
#include "support/log_lines/handler.h"

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(ping, is_answered_with_two_bytes)
{
    Handling   broker;
    Client     client(broker, 4, "dev1");
    LogCapture log;
    EXPECT_EQ(client.sends("C0 00"), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::packet_received("dev1", 12, 2), logged::ping_received("dev1"),
                                        debug("发送心跳响应成功：ClientID=dev1")));
    EXPECT_THAT(client.gets(), ElementsAre(wire("D0 00")));
}

TEST(ping, needs_no_particular_content)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    EXPECT_EQ(client.sends("C5 01 77"), 0);
    EXPECT_THAT(client.gets(), ElementsAre(wire("D0 00")));
}

TEST(ping, that_cannot_be_queued_says_nothing)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->max_packet_size = 0xFFFFFFFF;
    client->state           = CLIENT_WILL_PENDING;
    LogCapture log;
    EXPECT_EQ(client.sends("C0 00"), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::packet_received("dev1", 12, 2), logged::ping_received("dev1")));
}

TEST(ping, without_memory_fails)
{
    Handling   broker;
    Client     client(broker, 4, "dev1");
    LogCapture log(AGENT_LOG_INFO);
    {
        Fail fail(Call::Allocate, 1);
        EXPECT_EQ(client.sends("C0 00"), -1);
    }
    EXPECT_THAT(log.take(), ElementsAre(error("pingresp_buf malloc failed: 12")));
    EXPECT_THAT(client.gets(), IsEmpty());
}
