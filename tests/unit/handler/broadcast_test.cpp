#include "handler_fixture.h"
#include "support/log_lines/handler.h"

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void broadcast(const Bytes &packet, bool is_will = true)
{
    packet_handler_broadcast_msg(packet.data(), static_cast<uint32_t>(packet.size()), is_will);
}

std::vector<LogLine> will_lines(LogCapture &log)
{
    std::vector<LogLine> lines = log.take();
    std::erase_if(lines, [](const LogLine &line) {
        return line.text.rfind("[遗嘱", 0) != 0 && line.text.rfind("[共享", 0) != 0;
    });
    return lines;
}

} // namespace

TEST(broadcast, below_four_bytes_the_arguments_are_refused)
{
    Handling   broker;
    LogCapture log(AGENT_LOG_INFO);
    packet_handler_broadcast_msg(nullptr, 10, 1);
    EXPECT_THAT(log.take(), ElementsAre(error("[遗嘱调试][广播失败] 参数无效：buf=(nil), len=10（需≥4）")));
    const Bytes three = wire("30 01 00");
    broadcast(three);
    char expected[100];
    snprintf(expected, sizeof expected, "[遗嘱调试][广播失败] 参数无效：buf=%p, len=3（需≥4）",
             static_cast<const void *>(three.data()));
    EXPECT_THAT(log.take(), ElementsAre(error(expected)));
}

TEST(broadcast, a_topic_past_the_end_is_refused)
{
    Handling   broker;
    LogCapture log(AGENT_LOG_INFO);
    broadcast(wire("30 02 00 01"));
    broadcast(wire("30 03 00 02 't'"));
    EXPECT_THAT(log.take(), ElementsAre(logged::broadcast_topic_cut(1, 4, 5), logged::broadcast_topic_cut(2, 5, 6)));
    broadcast(wire("30 02 00 00"));
    EXPECT_EQ(log.take()[0], logged::broadcast_started("", 0, 4));
}

TEST(broadcast, line_by_line)
{
    Handling broker;
    Client   a(broker, 4, "a"), b(broker, 4, "b"), away(broker, 4, "away");
    sub_add("a", "w/#", 0, 1);
    sub_add("b", "w/t", 2, 1);
    sub_add("gone", "w/t", 1, 0);
    sub_add("away", "w/t", 1, 0);
    sub_add_with_id("", "w/t", 1, 0, 5);
    sub_add("a", "$share/g/w/t", 1, 0);
    sub_add("b", "$share/g/w/t", 1, 0);
    away->state = CLIENT_WILL_PENDING;
    uint16_t       ids[2];
    const uint32_t seed = msgid_seed;
    for (uint16_t &id : ids)
        id = handler::draw_delivery_id();
    msgid_seed = seed;
    LogCapture log;
    broadcast(wire("33 09 | 00 03 'w/t' | 00 07 | 'bye'"));
    EXPECT_THAT(
        will_lines(log),
        ElementsAre(logged::broadcast_started("w/t", 1, 12), logged::broadcast_matched("w/t", 7),
                    logged::broadcast_receivers(7), logged::broadcast_receiver(1, "a", "w/#", 0),
                    logged::broadcast_receiver(2, "b", "w/t", 2), logged::broadcast_receiver(3, "gone", "w/t", 1),
                    logged::broadcast_receiver(4, "away", "w/t", 1), logged::broadcast_receiver(5, "", "w/t", 1),
                    logged::broadcast_receiver(6, "a", "$share/g/w/t", 1),
                    logged::broadcast_receiver(7, "b", "$share/g/w/t", 1), logged::broadcast_qos_lowered(1, 1, 0, 0),
                    logged::broadcast_sent(1, "a", "w/t", 0), logged::broadcast_qos_lowered(2, 1, 2, 1),
                    logged::broadcast_sent(2, "b", "w/t", 1), logged::broadcast_receiver_unknown(3, "gone"),
                    logged::broadcast_receiver_offline("away"), logged::broadcast_skips_empty_id(5),
                    logged::broadcast_qos_lowered(6, 1, 1, 1), logged::broadcast_sent(6, "a", "w/t", 1),
                    logged::shared_receiver_skipped(7), logged::broadcast_ended("w/t", 7, 3, 4)));
    EXPECT_THAT(a.gets(),
                ElementsAre(wire("31 08 00 03 'w/t' 'bye'"), wire("33 0A 00 03 'w/t'") + u16(ids[1]) + text("bye")));
    EXPECT_THAT(b.gets(), ElementsAre(wire("33 0A 00 03 'w/t'") + u16(ids[0]) + text("bye")));
    EXPECT_EQ(a->qos1_pending_msg_id, ids[1]);
    EXPECT_EQ(g_sub_mgr.retain_count, 0); // whatever the flag says
    EXPECT_EQ(g_mqtt_stats.offline_msg, 0u);
}

TEST(broadcast, a_will_is_not_tracked)
{
    Handling broker;
    Client   client(broker, 4, "r");
    sub_add("r", "t", 2, 1);
    broadcast(wire("34 06 00 01 't' 00 07 'x'"), true);
    EXPECT_EQ(pending_count(), 0);
    broadcast(wire("34 06 00 01 't' 00 07 'x'"), false);
    EXPECT_EQ(pending_count(), 1);
    EXPECT_EQ(client.gets().size(), 2u);
}

TEST(broadcast, without_matches)
{
    Handling   broker;
    LogCapture log;
    broadcast(wire("30 04 00 01 't' 'x'"));
    EXPECT_EQ(log.take().back(), logged::broadcast_matched_nobody("t"));
}

TEST(broadcast, of_anything_else_says_more_about_who_is_away)
{
    Handling broker;
    Client   away(broker, 4, "away");
    sub_add("away", "t", 0, 1);
    away->state = CLIENT_WILL_PENDING;
    LogCapture log(AGENT_LOG_WARN);
    broadcast(wire("30 04 00 01 't' 'x'"), false);
    EXPECT_THAT(log.take(), ElementsAre(logged::broadcast_receiver_in_state(1, "away", 3)));
}

TEST(broadcast, the_receivers_version_decides_where_the_payload_begins)
{
    Handling broker;
    Client   old(broker, 4, "old"), young(broker, 5, "young"), second(broker, 5, "second");
    sub_add("old", "t", 0, 1);
    sub_add("young", "t", 0, 1);
    sub_add("second", "t", 0, 1);
    broadcast(wire("30 07 | 00 01 't' | 02 'pp' 'x'"));
    EXPECT_THAT(old.gets(), ElementsAre(wire("30 07 00 01 't' 02 'ppx'")));
    EXPECT_THAT(young.gets(), ElementsAre(wire("30 05 00 01 't' 00 'x'")));
    EXPECT_THAT(second.gets(), ElementsAre(wire("30 05 00 01 't' 00 'x'"))); // not stepped over twice
}

TEST(broadcast, a_payload_past_the_end_skips_that_receiver)
{
    Handling broker;
    Client   young(broker, 5, "young"), old(broker, 4, "old");
    sub_add("young", "t", 0, 1);
    sub_add("old", "t", 0, 1);
    LogCapture log(AGENT_LOG_ERROR);
    broadcast(wire("30 04 00 01 't' 'x'")); // 'x' is a property length of 120
    EXPECT_THAT(log.take(), ElementsAre(logged::broadcast_payload_unreadable(1, 126, -120, 6)));
    EXPECT_THAT(old.gets(), ElementsAre(wire("30 04 00 01 't' 'x'")));
    broadcast(wire("30 03 00 01 't'"));
    EXPECT_THAT(log.take(), ElementsAre(logged::broadcast_payload_unreadable(1, 6, -1, 5),
                                        logged::broadcast_payload_unreadable(2, 5, 0, 5)));
    broadcast(wire("30 04 00 01 't' 00")); // an empty block and nothing behind it
    EXPECT_THAT(log.take(), ElementsAre(logged::broadcast_payload_unreadable(1, 6, 0, 6)));
    EXPECT_THAT(young.gets(), IsEmpty());
}

TEST(broadcast, a_property_length_that_is_not_there_is_stepped_over_all_the_same)
{
    Handling broker;
    Client   young(broker, 5, "young"), old(broker, 4, "old");
    sub_add("young", "t", 2, 1);
    sub_add("old", "t", 2, 1);
    LogCapture log(AGENT_LOG_ERROR);
    const auto say = [](const std::string &to_young, const std::string &to_old) {
        return ElementsAre(error("[遗嘱调试][广播失败] 订阅者1：Payload解析失败（" + to_young + "）"),
                           error("[遗嘱调试][广播失败] 订阅者2：Payload解析失败（" + to_old + "）"));
    };
    broadcast(wire("30 03 00 01 't'"));
    EXPECT_THAT(log.take(), say("start=6, len=-1, msg_len=5", "start=5, len=0, msg_len=5"));
    broadcast(wire("32 05 00 01 't' 00 07"));
    EXPECT_THAT(log.take(), say("start=8, len=-1, msg_len=7", "start=7, len=0, msg_len=7"));
    broadcast(wire("34 04 00 01 't' 00")); // half an identifier
    EXPECT_THAT(log.take(), say("start=8, len=-2, msg_len=6", "start=7, len=-1, msg_len=6"));
    broadcast(wire("32 03 00 01 't'"));
    EXPECT_THAT(log.take(), say("start=8, len=-3, msg_len=5", "start=7, len=-2, msg_len=5"));
}

TEST(broadcast, a_two_byte_remaining_length_is_misread)
{
    Handling broker;
    Client   client(broker, 4, "r");
    sub_add("r", "#", 0, 1);
    LogCapture log(AGENT_LOG_ERROR);
    broadcast(packet(0x30, prefixed("t") + repeat('x', 200)));
    EXPECT_THAT(log.take(), ElementsAre(logged::broadcast_topic_cut(256, 206, 260)));
    EXPECT_THAT(client.gets(), IsEmpty());
}

TEST(broadcast, long_topics_are_cut_to_256)
{
    Handling broker;
    Client   client(broker, 4, "r");
    sub_add("r", "#", 0, 1);
    const std::string topic(300, 't');
    broadcast(wire("30 05") + prefixed(topic) + text("x"));
    EXPECT_THAT(client.gets(), ElementsAre(packet(0x30, prefixed(topic.substr(0, 256)) + text("x"))));
}

TEST(broadcast, what_the_encoder_or_the_ring_refuses_is_reported)
{
    Handling broker;
    Client   client(broker, 4, "r"), small(broker, 4, "small");
    sub_add("r", "#", 0, 1);
    sub_add("small", "#", 0, 1);
    small->max_packet_size = 5;
    LogCapture log(AGENT_LOG_ERROR);
    broadcast(wire("30 05 00 01 't'") + repeat('x', 2049));
    EXPECT_EQ(log.take()[1], logged::broadcast_not_encoded(1, "r", -1));
    broadcast(wire("30 04 00 01 't' 'x'"));
    EXPECT_THAT(log.take(), ElementsAre(logged::broadcast_not_sent(2, "small", -1)));
    EXPECT_EQ(client.gets().size(), 1u);
}

TEST(broadcast, allocations_failing_one_after_another)
{
    Handling broker;
    Client   client(broker, 4, "r");
    sub_add("r", "#", 0, 1);
    client.sends("C0 00");
    client.gets();
    const Bytes will = wire("30 04 00 01 't' 'x'");
    LogCapture  log(AGENT_LOG_ERROR);
    {
        Fail fail(Call::Allocate, 1);
        broadcast(will);
    }
    EXPECT_THAT(log.take(), ElementsAre(error("[遗嘱调试][广播失败] malloc topic failed: 12")));
    {
        Fail fail(Call::Allocate, 2);
        broadcast(will);
    }
    EXPECT_THAT(log.take(), ElementsAre(error("[遗嘱调试][广播失败] malloc订阅者数组失败：errno=12")));
    broadcast(will);
    client.gets();
    {
        Fail fail(Call::Allocate, 2); // the flags, now that the list is there
        broadcast(will);
        EXPECT_EQ(fail.failed(), 1);
    }
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_THAT(client.gets(), IsEmpty());
    {
        Fail fail(Call::Allocate, 3);
        broadcast(will);
    }
    EXPECT_THAT(log.take(), ElementsAre(error("[遗嘱调试][广播失败] 订阅者1：malloc缓冲区失败（errno=12）")));
    EXPECT_THAT(client.gets(), IsEmpty());
}
