#include "handler_fixture.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/qos.h"

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(offline, who_gets_nothing)
{
    Handling   broker;
    Client     nameless(broker), clean(broker, 4, "clean"), away(broker, 4, "away"), fresh(broker, 4, "fresh");
    LogCapture log;
    clean->clean_session = 1;
    away->state          = CLIENT_WILL_PENDING;
    packet_handler_restore_offline_msgs(nullptr);
    packet_handler_restore_offline_msgs(nameless);
    packet_handler_restore_offline_msgs(clean);
    packet_handler_restore_offline_msgs(away);
    packet_handler_restore_offline_msgs(fresh);
    EXPECT_THAT(handler_lines(log),
                ElementsAre(logged::kept_messages_without_client(), logged::kept_messages_without_client(),
                            debug("[packet_handler] CleanSession=1，不补发离线消息: clean"),
                            debug("[packet_handler] 客户端不在线，不补发离线消息: away"),
                            logged::kept_messages_none("fresh")));
}

TEST(offline, without_memory_there_is_nothing_to_restore)
{
    Handling   broker;
    Client     client(broker, 4, "dev1");
    LogCapture log;
    {
        Fail fail(Call::Allocate, 1);
        packet_handler_restore_offline_msgs(client);
        EXPECT_EQ(fail.failed(), 1);
    }
    EXPECT_THAT(handler_lines(log), ElementsAre(logged::kept_messages_none("dev1")));
}

TEST(offline, kept_messages_join_the_queue_and_the_file_is_emptied)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    store("message", "dev1",
          R"({"msgs":[{"msgid":9,"qos":1,"topic":"a","payload":"6869"},{"msgid":0,"qos":2,"topic":"b","payload":"78"},)"
          R"({"msgid":11,"qos":0,"topic":"c","payload":"79"}]})");
    unsigned       seed     = msgid_seed;
    const unsigned repaired = static_cast<unsigned>(rand_r(&seed)) % 65533 + 1;
    LogCapture     log;
    packet_handler_restore_offline_msgs(client);
    EXPECT_THAT(handler_lines(log),
                ElementsAre(logged::kept_messages_started("dev1", 3), logged::kept_message_sent(9, "a", 1),
                            logged::kept_message_renumbered(repaired), logged::kept_message_sent(repaired, "b", 2),
                            logged::kept_message_sent(11, "c", 0), logged::kept_messages_ended("dev1")));
    ASSERT_EQ(pending_count(), 2); // the queue refuses QoS 0
    EXPECT_EQ(g_pending_queue->msg_id, repaired);
    EXPECT_EQ(g_pending_queue->next->msg_id, 9);
    EXPECT_EQ(g_pending_queue->next->payload_len, 2u);
    EXPECT_THAT(client.gets(), IsEmpty());
    EXPECT_EQ(stored("message", "dev1"), R"({"msgs":[]})");
    EXPECT_EQ(msgid_seed, seed);
}

TEST(offline, three_kept_messages_come_a_second_after_the_connack)
{
    ManualClock clock;
    Handling    broker;
    Client      client(broker);
    store("message", "dev1",
          R"({"msgs":[{"msgid":9,"qos":1,"topic":"a","payload":"31"},{"msgid":10,"qos":1,"topic":"a","payload":"32"},)"
          R"({"msgid":11,"qos":1,"topic":"a","payload":"33"}]})");
    EXPECT_EQ(client.sends(connect_v4("dev1", 0)), 0);
    EXPECT_THAT(client.gets(), ElementsAre(wire("20 02 01 00")));
    EXPECT_EQ(stored("message", "dev1"), R"({"msgs":[]})");
    clock.advance_ms(1000);
    qos_reliable_scan_queue();
    EXPECT_THAT(client.gets(), IsEmpty());
    clock.advance_ms(1);
    qos_reliable_scan_queue();
    EXPECT_THAT(client.gets(),
                ElementsAre(wire("32 06 | 00 01 'a' | 00 0B | '3'"), wire("32 06 | 00 01 'a' | 00 0A | '2'"),
                            wire("32 06 | 00 01 'a' | 00 09 | '1'")))
        << "newest first";
}

TEST(offline, a_client_that_is_connected_but_not_logged_in_is_online_too)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->state = CLIENT_CONNECTED;
    store("message", "dev1", R"({"msgs":[{"msgid":9,"qos":1,"topic":"a","payload":"31"}]})");
    packet_handler_restore_offline_msgs(client);
    EXPECT_EQ(pending_count(), 1);
}

TEST(offline, what_the_full_queue_refuses_is_lost)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    for (uint16_t id = 1; id <= 999; id++)
        ASSERT_EQ(qos_reliable_add_packet(client, id, 1, "t", "x", 1), 0);
    store("message", "dev1",
          R"({"msgs":[{"msgid":1001,"qos":1,"topic":"a","payload":"31"},)"
          R"({"msgid":1002,"qos":2,"topic":"a","payload":"32"}]})");
    LogCapture log(AGENT_LOG_ERROR);
    packet_handler_restore_offline_msgs(client);
    EXPECT_THAT(log.take(), ElementsAre(logged::deliveries_full("dev1")));
    EXPECT_EQ(pending_count(), 1000);
    EXPECT_EQ(g_pending_queue->msg_id, 1001);
    EXPECT_EQ(stored("message", "dev1"), R"({"msgs":[]})");
}

// The look-up of the receiver finds nobody, and then it is there.
TEST(offline, a_message_that_meets_its_returning_client_is_not_left_behind)
{
    Handling broker;
    Client   publisher(broker, 4, "publisher"), back(broker, 4);
    ASSERT_EQ(sub_add("away", "t", 1, 0), 0);
    bool       met = false;
    OnFileCall returns([&] {
        if (std::exchange(met, true))
            return;
        client_set_cid(back, "away");
        EXPECT_TRUE(mark_logged_in(*back));
    });
    publisher.sends("32 06 | 00 01 't' | 00 07 | 'x'");
    EXPECT_TRUE(met);
    ASSERT_EQ(pending_count(), 1);
    EXPECT_EQ(g_pending_queue->client, back);
    EXPECT_EQ(stored("message", "away"), R"({"msgs":[]})");
}
