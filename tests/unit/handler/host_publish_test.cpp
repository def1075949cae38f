#include "handler_fixture.h"
#include "support/log_lines/codec.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/sub.h"

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

int publish(const char *topic, std::string_view payload, uint8_t qos = 0, uint8_t retain = 0, uint32_t expiry = 0)
{
    return packet_handler_broker_publish(topic, reinterpret_cast<const uint8_t *>(payload.data()),
                                         static_cast<int>(payload.size()), qos, retain, expiry);
}

} // namespace

TEST(host_publish, bad_arguments)
{
    Handling      broker;
    const uint8_t byte = 1;
    LogCapture    log;
    EXPECT_EQ(packet_handler_broker_publish(nullptr, &byte, 1, 0, 0, 0), -1);
    EXPECT_EQ(packet_handler_broker_publish("t", nullptr, 1, 0, 0, 0), -1);
    EXPECT_EQ(packet_handler_broker_publish("t", &byte, 0, 0, 0, 0), -1);
    EXPECT_EQ(packet_handler_broker_publish("t", &byte, -1, 0, 0, 0), -1);
    EXPECT_EQ(packet_handler_broker_publish("t", &byte, 1, 3, 0, 0), -1);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(msgid_seed, 1u); // nothing drawn
}

TEST(host_publish, says_nothing_and_asks_nobody)
{
    Handling broker;
    broker.host.ask_acl();
    broker.host.hear_events();
    Client receiver(broker, 4, "r");
    sub_add("r", "t", 0, 1);
    const uint32_t seed = msgid_seed;
    LogCapture     log(AGENT_LOG_INFO);
    EXPECT_EQ(publish("t", "x"), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::topic_matched("t", 1)));
    EXPECT_THAT(receiver.gets(), ElementsAre(wire("30 04 00 01 't' 'x'")));
    EXPECT_THAT(broker.host.take(), IsEmpty());
    EXPECT_EQ(msgid_seed, seed_after(4, seed)); // the template's and, though at QoS 0, the delivery's
    EXPECT_EQ(g_mqtt_stats.qos0, 0u);
}

TEST(host_publish, qos_1_is_tracked_but_not_remembered_in_the_record)
{
    Handling broker;
    Client   receiver(broker, 4, "r");
    sub_add("r", "t", 2, 1);
    (void)handler::draw_delivery_id();
    const uint16_t id = next_id();
    msgid_seed        = 1;
    EXPECT_EQ(publish("t", "x", 1), 0);
    EXPECT_THAT(receiver.gets(), ElementsAre(wire("32 06 00 01 't'") + u16(id) + text("x")));
    ASSERT_EQ(pending_count(), 1);
    EXPECT_EQ(g_pending_queue->msg_id, id);
    EXPECT_EQ(receiver->qos1_pending_msg_id, 0);
}

TEST(host_publish, several_receivers_share_the_form_but_not_the_identifier)
{
    Handling broker;
    Client   a(broker, 4, "a"), b(broker, 4, "b");
    sub_add("a", "t", 1, 1);
    sub_add("b", "t", 1, 1);
    uint16_t ids[3];
    for (uint16_t &id : ids)
        id = handler::draw_delivery_id();
    msgid_seed = 1;
    EXPECT_EQ(publish("t", "x", 1), 0);
    EXPECT_THAT(a.gets(), ElementsAre(wire("32 06 00 01 't'") + u16(ids[1]) + text("x")));
    EXPECT_THAT(b.gets(), ElementsAre(wire("32 06 00 01 't'") + u16(ids[2]) + text("x")));
    ASSERT_EQ(pending_count(), 2);
    EXPECT_EQ(g_pending_queue->msg_id, ids[2]);
    EXPECT_EQ(g_pending_queue->next->msg_id, ids[1]);
}

TEST(host_publish, the_retain_flag_is_forwarded)
{
    Handling broker;
    Client   receiver(broker, 4, "r");
    sub_add("r", "t", 0, 1);
    EXPECT_EQ(publish("t", "x", 1, 1, 60), 0);
    EXPECT_THAT(receiver.gets(), ElementsAre(wire("31 04 00 01 't' 'x'")));
    ASSERT_EQ(g_sub_mgr.retain_count, 1);
    EXPECT_EQ(g_sub_mgr.retains[0].qos, 1u);
    EXPECT_EQ(g_sub_mgr.retains[0].expiry_interval, 60u);
}

TEST(host_publish, only_bit_0_of_retain_stores)
{
    Handling broker;
    EXPECT_EQ(publish("t", "x", 0, 2), 0);
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
    EXPECT_EQ(publish("t", "x", 0, 3), 0);
    EXPECT_EQ(g_sub_mgr.retain_count, 1);
}

TEST(host_publish, a_retain_flag_above_1_spoils_the_header_only)
{
    Handling broker;
    Client   a(broker, 4, "a"), b(broker, 4, "b");
    sub_add("a", "t", 1, 1);
    sub_add("b", "t", 1, 1);
    uint16_t ids[3];
    for (const uint8_t flag : {2, 4, 0xFF}) {
        SCOPED_TRACE(flag);
        msgid_seed = 1;
        for (uint16_t &id : ids)
            id = handler::draw_delivery_id();
        msgid_seed        = 1;
        const Bytes first = {static_cast<uint8_t>(0x32 | flag)};
        EXPECT_EQ(publish("t", "x", 1, flag), 0);
        EXPECT_THAT(a.gets(), ElementsAre(first + wire("06 00 01 't'") + u16(ids[1]) + text("x")));
        EXPECT_THAT(b.gets(), ElementsAre(first + wire("06 00 01 't'") + u16(ids[2]) + text("x")));
    }
}

TEST(host_publish, expiry_reaches_v5_receivers)
{
    Handling broker;
    Client   receiver(broker, 5, "r");
    sub_add("r", "t", 0, 1);
    EXPECT_EQ(publish("t", "x", 0, 0, 0x01020304), 0);
    EXPECT_THAT(receiver.gets(), ElementsAre(wire("30 0A 00 01 't' 05 02 01 02 03 04 'x'")));
}

TEST(host_publish, topics_are_sent_with_255_characters_and_stored_with_256)
{
    Handling          broker;
    Client            receiver(broker, 4, "r");
    const std::string topic(300, 't');
    sub_add("r", "#", 0, 1);
    EXPECT_EQ(publish(topic.c_str(), "x", 0, 1), 0);
    EXPECT_THAT(receiver.gets(), ElementsAre(packet(0x31, prefixed(topic.substr(0, 255)) + text("x"))));
    EXPECT_EQ(g_sub_mgr.retains[0].topic, topic.substr(0, 256));
}

TEST(host_publish, a_topic_longer_than_any_filter_is_matched_whole)
{
    Handling          broker;
    Client            receiver(broker, 4, "r");
    const std::string longest(2048, 't');
    sub_add("r", longest.c_str(), 0, 1);
    sub_add("r", "a/+", 0, 1);
    EXPECT_EQ(publish((longest + "t").c_str(), "x"), 0);
    EXPECT_EQ(publish(("a/" + longest + "/b").c_str(), "x"), 0);
    EXPECT_THAT(receiver.gets(), IsEmpty());
    EXPECT_EQ(publish(longest.c_str(), "x"), 0);
    EXPECT_EQ(receiver.gets().size(), 1u);
}

TEST(host_publish, payloads_are_cut_at_2048_bytes)
{
    Handling broker;
    EXPECT_EQ(publish("t", std::string(3000, 'p'), 0, 1), 0);
    EXPECT_EQ(g_sub_mgr.retains[0].payload_len, 2048u);
}

TEST(host_publish, no_client_is_left_out_but_the_empty_id)
{
    Handling broker;
    Client   a(broker, 4, "a");
    sub_add_with_id("", "t", 0, 0, 5);
    sub_add("a", "t", 0, 1);
    EXPECT_EQ(publish("t", "x"), 0);
    EXPECT_EQ(a.gets().size(), 1u);
}

TEST(host_publish, shared_groups_are_skipped_without_a_line)
{
    Handling broker;
    Client   a(broker, 4, "a"), b(broker, 4, "b");
    sub_add("a", "$share/g/t", 0, 1);
    sub_add("b", "$share/g/t", 0, 1);
    LogCapture log;
    EXPECT_EQ(publish("t", "x"), 0);
    EXPECT_EQ(a.gets().size() + b.gets().size(), 1u);
    EXPECT_FALSE(log.has(logged::shared_receiver_skipped(2)));
}

TEST(host_publish, is_tracked_even_when_it_cannot_be_queued)
{
    Handling broker;
    Client   full(broker, 4, "full");
    sub_add("full", "t", 1, 1);
    for (int i = 0; i < 99; i++)
        full.sends("C0 00");
    EXPECT_EQ(publish("t", "x", 1), 0);
    EXPECT_EQ(pending_count(), 1);
}

TEST(host_publish, is_tracked_when_only_the_buffer_was_too_small)
{
    Handling broker;
    Client   receiver(broker, 4, "r");
    sub_add("r", "#", 1, 1);
    EXPECT_EQ(publish("t", std::string(2041, 'p'), 1), 0); // one byte above the 2048
    EXPECT_THAT(receiver.gets(), IsEmpty());
    EXPECT_EQ(pending_count(), 1);
    qos_reliable_clean_client_packets(receiver);

    EXPECT_EQ(publish(std::string(60, 't').c_str(), std::string(2048, 'p'), 1), 0); // a body of 2112
    EXPECT_EQ(pending_count(), 1);
    qos_reliable_clean_client_packets(receiver);

    LogCapture log(AGENT_LOG_ERROR);
    EXPECT_EQ(publish(std::string(61, 't').c_str(), std::string(2048, 'p'), 1), 0);
    EXPECT_EQ(log.take()[0], logged::publish_encode_payload_overflow(2113));
    EXPECT_EQ(pending_count(), 0);
}

// The retransmission has no expiry, so only the byte of the property length counts.
TEST(host_publish, v5_bodies_count_what_the_scan_sends)
{
    Handling broker;
    Client   receiver(broker, 5, "r");
    sub_add("r", "#", 1, 1);
    const std::string payload(2048, 'p');
    const auto        tracked = [&](size_t topic_chars, uint32_t expiry) {
        const int before = pending_count();
        EXPECT_EQ(publish(std::string(topic_chars, 't').c_str(), payload, 1, 0, expiry), 0);
        return pending_count() > before;
    };
    for (const size_t topic_chars : {54u, 55u, 57u, 59u}) {
        SCOPED_TRACE(topic_chars);
        EXPECT_TRUE(tracked(topic_chars, 0));
        EXPECT_TRUE(tracked(topic_chars, 9));
    }
    EXPECT_FALSE(tracked(60, 0));
    EXPECT_FALSE(tracked(60, 9));
    EXPECT_THAT(receiver.gets(), IsEmpty());
}

TEST(host_publish, what_only_its_expiry_made_too_large_comes_with_the_scan)
{
    ManualClock clock;
    Handling    broker;
    Client      receiver(broker, 5, "r");
    sub_add("r", "#", 1, 1);
    const std::string topic(59, 't'), payload(2048, 'p');
    EXPECT_EQ(publish(topic.c_str(), payload, 1, 0, 9), 0);
    EXPECT_THAT(receiver.gets(), IsEmpty());
    ASSERT_EQ(pending_count(), 1);
    const unsigned id = g_pending_queue->msg_id;
    clock.advance_ms(1001);
    qos_reliable_scan_queue();
    EXPECT_THAT(receiver.gets(), ElementsAre(packet(0x32, prefixed(topic) + u16(id) + Bytes{0} + text(payload))));
}

TEST(host_publish, qos_0_too_big_is_just_lost)
{
    Handling broker;
    Client   receiver(broker, 4, "r");
    sub_add("r", "#", 0, 1);
    EXPECT_EQ(publish("t", std::string(2048, 'p'), 1), 0);
    EXPECT_EQ(pending_count(), 0);
}

TEST(host_publish, absent_receivers_get_qos_1_and_2_stored)
{
    Handling broker;
    sub_add("gone", "t", 1, 0);
    sub_add("leftover", "t", 1, 1);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(publish("t", "x", 2), 0);
    EXPECT_THAT(handler_lines(log), ElementsAre(logged::topic_matched("t", 2), logged::host_message_kept("gone", "t")));
    EXPECT_EQ(publish("t", "x", 0), 0);
    EXPECT_THAT(handler_lines(log),
                ElementsAre(logged::topic_matched("t", 2), logged::host_message_not_kept("gone", "t")));
    EXPECT_EQ(g_mqtt_stats.offline_msg, 0u);
}

TEST(host_publish, an_empty_topic_reaches_nobody)
{
    Handling broker;
    Client   receiver(broker, 4, "r");
    sub_add("r", "#", 0, 1);
    sub_add("gone", "#", 1, 0);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(publish("", "x", 1), 0);
    EXPECT_THAT(receiver.gets(), IsEmpty());
    EXPECT_FALSE(log.has(logged::host_message_kept("gone", "")));
}

TEST(host_publish, the_arguments_may_stand_in_the_store_itself)
{
    Handling broker;
    Client   receiver(broker, 4, "r");
    sub_add("r", "#", 0, 1);
    publish("old", "x", 0, 1);
    publish("t", "y", 0, 1);
    receiver.gets();
    retain_msg_t &kept = g_sub_mgr.retains[1];
    EXPECT_EQ(packet_handler_broker_publish(kept.topic, kept.payload, 1, 0, 1, 0), 0);
    EXPECT_THAT(receiver.gets(), ElementsAre(wire("31 04 00 01 't' 'y'")));
}

TEST(host_publish, allocations_failing_one_after_another)
{
    Handling broker;
    Client   receiver(broker, 4, "r");
    sub_add("r", "t", 0, 1);
    receiver.sends("C0 00");
    receiver.gets();
    LogCapture log(AGENT_LOG_ERROR);
    {
        Fail fail(Call::Allocate, 1); // the list
        EXPECT_EQ(publish("t", "x"), -1);
        EXPECT_EQ(fail.failed(), 1);
    }
    EXPECT_EQ(publish("t", "x"), 0);
    {
        Fail fail(Call::Allocate, 1); // the flags
        EXPECT_EQ(publish("t", "x"), -1);
        EXPECT_EQ(fail.failed(), 1);
    }
    receiver.gets();
    {
        Fail fail(Call::Allocate, 2); // the buffer
        EXPECT_EQ(publish("t", "x", 1), 0);
        EXPECT_EQ(fail.failed(), 1);
    }
    EXPECT_THAT(receiver.gets(), IsEmpty());
    EXPECT_EQ(pending_count(), 0);
    EXPECT_THAT(log.take(), IsEmpty());
    {
        Fail fail(Call::Allocate, 1); // no match: no flags
        EXPECT_EQ(publish("other", "x"), 0);
        EXPECT_EQ(fail.failed(), 0);
    }
}
