#include "handler_fixture.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/qos.h"

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(acknowledge, puback_of_the_last_qos_1_identifier_completes_it)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->qos1_pending_msg_id = 7;
    qos_reliable_add_packet(client, 7, 1, "t", "x", 1);
    LogCapture log;
    EXPECT_EQ(client.sends("40 02 00 07"), 0);
    EXPECT_THAT(handler_lines(log),
                ElementsAre(logged::packet_received("dev1", 4, 4), logged::puback_received("dev1", 7),
                            debug("MQTT标准：QoS1消息确认完成：ClientID=dev1, MsgID=7")));
    EXPECT_EQ(client->qos1_pending_msg_id, 0);
    EXPECT_EQ(pending_count(), 0);
    EXPECT_THAT(client.gets(), IsEmpty());
}

TEST(acknowledge, puback_of_an_older_identifier_warns_and_still_completes_the_entry)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->qos1_pending_msg_id = 8;
    qos_reliable_add_packet(client, 7, 1, "t", "x", 1);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends("40 02 00 07"), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::puback_received("dev1", 7), logged::qos1_completed("PUBACK", 7),
                                        warn("MQTT标准：收到无效PUBACK：ClientID=dev1, MsgID=7（无对应待确认消息）")));
    EXPECT_EQ(client->qos1_pending_msg_id, 8);
    EXPECT_EQ(pending_count(), 0);
}

TEST(acknowledge, pubrec_is_answered_with_pubrel)
{
    Handling   broker;
    Client     client(broker, 4, "dev1");
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends("50 02 12 34"), 0);
    EXPECT_THAT(handler_lines(log),
                ElementsAre(logged::pubrec_received("dev1", 4660), logged::pubrel_sent("dev1", 4660)));
    EXPECT_THAT(client.gets(), ElementsAre(wire("62 02 12 34")));
}

TEST(acknowledge, a_pubrec_for_a_tracked_delivery_is_answered_twice)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    qos_reliable_add_packet(client, 7, 2, "t", "x", 1);
    EXPECT_EQ(client.sends("50 02 00 07"), 0);
    EXPECT_THAT(client.gets(), ElementsAre(wire("62 02 00 07"), wire("62 02 00 07")));
    EXPECT_EQ(client.sends("50 02 00 07"), 0); // the entry is in state 2 now
    EXPECT_THAT(client.gets(), ElementsAre(wire("62 02 00 07")));
}

TEST(acknowledge, a_reason_code_that_refuses_is_not_looked_at)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    qos_reliable_add_packet(client, 7, 2, "t", "x", 1);
    EXPECT_EQ(client.sends("50 03 00 07 97"), 0); // quota exceeded
    EXPECT_THAT(client.gets(), ElementsAre(wire("62 03 00 07 00"), wire("62 03 00 07 00")));
    EXPECT_EQ(pending_count(), 1) << "and waits for PUBCOMP";
    EXPECT_EQ(client.sends("70 03 00 07 92"), 0); // packet identifier not found
    EXPECT_EQ(pending_count(), 0);

    qos_reliable_add_packet(client, 8, 1, "t", "x", 1);
    EXPECT_EQ(client.sends("40 03 00 08 80"), 0);
    EXPECT_EQ(pending_count(), 0);
    EXPECT_THAT(client.gets(), IsEmpty());
}

TEST(acknowledge, pubrel_is_answered_with_pubcomp_whatever_is_pending)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    client->qos2_pending_msg_id = 9;
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends("62 03 00 07 00"), 0);
    EXPECT_THAT(handler_lines(log), ElementsAre(logged::pubrel_received("dev1", 7), logged::pubcomp_sent("dev1", 7)));
    EXPECT_THAT(client.gets(), ElementsAre(wire("70 03 00 07 00")));
    EXPECT_EQ(client->qos2_pending_msg_id, 0);
}

TEST(acknowledge, pubcomp_ends_the_exchange_it_belongs_to)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->qos2_pending_msg_id = 9;
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends("70 02 00 07"), 0);
    EXPECT_EQ(client->qos2_pending_msg_id, 9);
    EXPECT_EQ(client.sends("70 02 00 09"), 0);
    EXPECT_EQ(client->qos2_pending_msg_id, 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::pubcomp_received("dev1", 7), logged::pubcomp_received("dev1", 9)));
    EXPECT_THAT(client.gets(), IsEmpty());
}

TEST(acknowledge, the_four_feed_the_queue_with_their_own_type)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    qos_reliable_add_packet(client, 7, 2, "t", "x", 1);
    client.sends("50 02 00 07");
    EXPECT_EQ(g_pending_queue->qos2_state, 2u);
    client.sends("62 02 00 07");
    EXPECT_EQ(g_pending_queue->qos2_state, 3u);
    client.sends("70 02 00 07");
    EXPECT_EQ(pending_count(), 0);
}

TEST(acknowledge, without_memory_for_the_answer_fails)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->qos2_pending_msg_id = 7;
    LogCapture log(AGENT_LOG_ERROR);
    {
        Fail fail(Call::Allocate, 1);
        EXPECT_EQ(client.sends("50 02 00 07"), -1);
    }
    {
        Fail fail(Call::Allocate, 1);
        EXPECT_EQ(client.sends("62 02 00 07"), -1);
    }
    EXPECT_THAT(log.take(), ElementsAre(error("pubrel_buf malloc failed: 12"), error("pubcomp_buf malloc failed: 12")));
    EXPECT_THAT(client.gets(), IsEmpty());
    EXPECT_EQ(client->qos2_pending_msg_id, 7);
}

TEST(acknowledge, an_answer_that_cannot_be_queued_counts_as_sent)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->qos2_pending_msg_id = 7;
    client->max_packet_size     = 0xFFFFFFFF;
    client->state               = CLIENT_CLOSED;
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends("62 02 00 07"), 0);
    EXPECT_THAT(handler_lines(log), ElementsAre(logged::pubrel_received("dev1", 7), logged::pubcomp_sent("dev1", 7)));
    EXPECT_EQ(client->qos2_pending_msg_id, 0);
}

// The queue refuses it in its words; the handlers take it for an identifier like any other.
TEST(acknowledge, an_identifier_of_0_is_answered_too)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    qos_reliable_add_packet(client, 7, 2, "t", "x", 1);
    struct {
        const char          *packet, *answer;
        std::vector<LogLine> lines;
    } const rows[] = {
        {"40 02 00 00", "", {logged::puback_received("dev1", 0), logged::ack_without_client()}},
        {"50 02 00 00",
         "62 02 00 00",
         {logged::pubrec_received("dev1", 0), logged::ack_without_client(), logged::pubrel_sent("dev1", 0)}},
        {"62 02 00 00",
         "70 02 00 00",
         {logged::pubrel_received("dev1", 0), logged::ack_without_client(), logged::pubcomp_sent("dev1", 0)}},
        {"70 02 00 00", "", {logged::pubcomp_received("dev1", 0), logged::ack_without_client()}},
    };
    for (const auto &row : rows) {
        LogCapture log(AGENT_LOG_INFO);
        EXPECT_EQ(client.sends(row.packet), 0);
        std::vector<LogLine> lines = log.take();
        std::erase_if(lines, [](const LogLine &line) { // the encoder's trace
            return line.text.rfind("var_header[", 0) == 0 || line.text.rfind("【QoS溯源6】", 0) == 0;
        });
        EXPECT_EQ(lines, row.lines);
        const Bytes answer = wire(row.answer);
        EXPECT_EQ(client.gets(), answer.empty() ? std::vector<Bytes>{} : std::vector<Bytes>{answer});
    }
    EXPECT_EQ(pending_count(), 1);
}
