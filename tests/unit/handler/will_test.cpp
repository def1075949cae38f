#include "handler_fixture.h"
#include "support/log_lines/handler.h"

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void give_will(Client &client, std::string_view payload = "bye", uint8_t qos = 0, uint8_t retain = 0,
               uint32_t delay_s = 0, uint32_t expiry_s = 0)
{
    client_set_will_msg(client, "w", reinterpret_cast<const uint8_t *>(payload.data()),
                        static_cast<uint32_t>(payload.size()), qos, retain);
    client_set_will_enhance(client, delay_s, expiry_s, 0, "", "", nullptr, 0);
}

} // namespace

TEST(will, is_published_line_by_line)
{
    Handling broker;
    broker.host.hear_events();
    Client owner(broker, 4, "dev1"), watcher(broker, 4, "watcher");
    sub_add("watcher", "w", 1, 1);
    give_will(owner, "bye", 1, 1);
    owner->session.will_flag = 1;
    LogCapture log;
    EXPECT_EQ(packet_send_will_message(owner), 0);
    std::vector<LogLine> lines = handler_lines(log);
    std::erase_if(
        lines, [](const LogLine &line) { return line.text.rfind("[WILL]", 0) != 0 && line.text.rfind("62 ", 0) != 0; });
    EXPECT_THAT(lines,
                ElementsAre(logged::will_sent("dev1"), logged::will_message("w", 1, 1, 3), logged::will_payload(),
                            debug("62 79 65 "), logged::will_encoded(10), logged::will_broadcast_ended(1)));
    EXPECT_EQ(watcher.gets().size(), 1u);
    EXPECT_EQ(owner->will_sent, 1);
    EXPECT_EQ(owner->session.will_flag, 0);
    EXPECT_EQ(g_mqtt_stats.will_sent, 1u);
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
    EXPECT_THAT(broker.host.take(), ElementsAre(R"(5 {"clientId":"dev1","topic":"w","qos":1})"));
    EXPECT_EQ(packet_send_will_message(owner), -1); // at most once
    EXPECT_THAT(watcher.gets(), IsEmpty());
}

TEST(will, the_host_hears_of_it_after_the_broadcast)
{
    Handling broker;
    Client   owner(broker, 4, "dev1"), watcher(broker, 4, "watcher");
    sub_add("watcher", "w", 0, 1);
    give_will(owner);
    owner->session.will_flag = 1;
    static mqtt_client_t *dying, *receiver;
    static int            heard;
    dying                       = owner;
    receiver                    = watcher;
    heard                       = 0;
    broker.host.broker.event_cb = [](broker_t *, uint32_t, const char *) {
        EXPECT_EQ(receiver->send_tail, 1);
        EXPECT_EQ(g_mqtt_stats.will_sent, 1u);
        EXPECT_EQ(dying->session.will_flag, 1);
        EXPECT_EQ(dying->will_sent, 0);
        heard++;
    };
    EXPECT_EQ(packet_send_will_message(owner), 0);
    EXPECT_EQ(heard, 1);
}

TEST(will, its_deliveries_are_not_tracked_and_nobody_keeps_it)
{
    Handling broker;
    Client   owner(broker, 4, "dev1"), watcher(broker, 4, "watcher"), away(broker, 4, "away");
    sub_add("watcher", "w", 2, 0);
    sub_add("away", "w", 2, 0);
    away->state = CLIENT_WILL_PENDING;
    give_will(owner, "bye", 2);
    LogCapture log(AGENT_LOG_WARN);
    EXPECT_EQ(packet_send_will_message(owner), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::broadcast_receiver_offline("away")));
    EXPECT_EQ(watcher.gets().size(), 1u);
    EXPECT_EQ(pending_count(), 0);
    EXPECT_EQ(stored("message", "away"), "");
}

TEST(will, a_kept_session_is_saved_with_it)
{
    Handling broker;
    for (const char *id : {"kept", "clean"}) {
        Client owner(broker, 4, id);
        strcpy(owner->session.client_id, id);
        strcpy(owner->session.subs[0].topic, "a");
        owner->session.sub_count = 1;
        owner->clean_session     = id[0] == 'c';
        give_will(owner);
        EXPECT_EQ(packet_send_will_message(owner), 0);
    }
    EXPECT_EQ(stored("subscription", "kept"), R"({"subs":[{"topic":"a","qos":0}]})");
    EXPECT_EQ(stored("subscription", "clean"), "");
}

TEST(will, draws_once_for_itself)
{
    Handling       broker;
    Client         owner(broker, 4, "dev1");
    const uint32_t seed = msgid_seed;
    give_will(owner);
    EXPECT_EQ(packet_send_will_message(owner), 0);
    EXPECT_EQ(msgid_seed, seed_after(1, seed));
}

TEST(will, none_or_sent_before)
{
    Handling   broker;
    Client     owner(broker, 4, "dev1");
    LogCapture log;
    EXPECT_EQ(packet_send_will_message(nullptr), -1);
    EXPECT_EQ(packet_send_will_message(owner), -1);
    owner->will_msg_used = 1;
    owner->will_sent     = 1;
    EXPECT_EQ(packet_send_will_message(owner), -1);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(will, its_expiry_is_encoded_for_a_v5_owner_and_lost_on_the_way)
{
    Handling broker;
    Client   owner(broker, 5, "dev1"), old(broker, 4, "old"), young(broker, 5, "young");
    sub_add("old", "w", 0, 1);
    sub_add("young", "w", 0, 1);
    give_will(owner, "x", 0, 0, 0, 60);
    EXPECT_EQ(packet_send_will_message(owner), 0);
    EXPECT_THAT(old.gets(), ElementsAre(wire("30 0A 00 01 'w' 05 02 00 00 00 3C 'x'"))); // the block as payload
    EXPECT_THAT(young.gets(), ElementsAre(wire("30 05 00 01 'w' 00 'x'")));
}

TEST(will, that_cannot_be_encoded_stays_unsent)
{
    Handling broker;
    broker.host.hear_events();
    Client owner(broker, 4, "dev1");
    give_will(owner);
    owner->will_topic[0] = '\0';
    LogCapture log(AGENT_LOG_ERROR);
    EXPECT_EQ(packet_send_will_message(owner), -1);
    EXPECT_EQ(log.take().back(), logged::will_not_encoded(-1));
    EXPECT_EQ(owner->will_sent, 0);
    EXPECT_EQ(g_mqtt_stats.will_sent, 0u);
    EXPECT_THAT(broker.host.take(), IsEmpty());
}

TEST(will, with_an_impossible_length_or_no_topic_is_the_encoders_to_refuse)
{
    Handling   broker;
    Client     owner(broker, 4, "dev1");
    LogCapture log(AGENT_LOG_ERROR);
    owner->will_msg_used    = 1;
    owner->will_payload_len = 70000;
    EXPECT_EQ(packet_send_will_message(owner), -1);
    give_will(owner, std::string(2048, 'x'));
    owner->will_payload_len = 2049;
    EXPECT_EQ(packet_send_will_message(owner), -1);
    EXPECT_EQ(owner->will_sent, 0);
}

TEST(will, without_memory)
{
    Handling broker;
    Client   owner(broker, 4, "dev1");
    give_will(owner);
    LogCapture     log(AGENT_LOG_ERROR);
    const uint32_t seed = msgid_seed;
    {
        Fail fail(Call::Allocate, 1);
        EXPECT_EQ(packet_send_will_message(owner), -1);
    }
    EXPECT_THAT(log.take(), ElementsAre(error("[WILL] malloc failed")));
    EXPECT_EQ(owner->will_sent, 0);
    EXPECT_EQ(msgid_seed, seed);
}

TEST(will, the_owner_may_be_a_receiver)
{
    Handling broker;
    Client   owner(broker, 4, "dev1");
    sub_add("dev1", "w", 0, 1);
    give_will(owner);
    EXPECT_EQ(packet_send_will_message(owner), 0);
    EXPECT_EQ(owner.gets().size(), 1u);
}

// ---- starting

TEST(start_will_delay, needs_a_client_with_an_unsent_will)
{
    Handling   broker;
    Client     owner(broker, 4, "dev1");
    LogCapture log;
    packet_start_will_delay(nullptr);
    packet_start_will_delay(owner);
    EXPECT_THAT(log.take(), ElementsAre(error("[WILL] 启动失败：client == NULL"), logged::will_prepared("dev1", 0, 0),
                                        logged::will_not_due()));
    owner->will_msg_used = 1;
    owner->will_sent     = 1;
    packet_start_will_delay(owner);
    EXPECT_THAT(log.take(), ElementsAre(logged::will_prepared("dev1", 1, 1), logged::will_not_due()));
}

TEST(start_will_delay, a_delay_of_0_publishes_at_once)
{
    Handling broker;
    Client   owner(broker, 4, "dev1"), watcher(broker, 4, "watcher");
    sub_add("watcher", "w", 0, 1);
    give_will(owner);
    LogCapture log(AGENT_LOG_INFO);
    packet_start_will_delay(owner);
    const auto lines = log.take();
    EXPECT_EQ(lines[0], logged::will_prepared("dev1", 1, 0));
    EXPECT_EQ(lines[1], info("[WILL] 延迟=0 → 立即发送"));
    EXPECT_EQ(watcher.gets().size(), 1u);
    EXPECT_EQ(owner->will_sent, 1);
    EXPECT_EQ(owner->will_delay_pending, 0);
}

TEST(start_will_delay, a_delay_sets_the_deadline_in_64_bits)
{
    Handling    broker;
    ManualClock clock;
    Client      owner(broker, 5, "dev1");
    give_will(owner, "bye", 0, 0, 0xFFFFFFFF);
    LogCapture log(AGENT_LOG_INFO);
    packet_start_will_delay(owner);
    EXPECT_EQ(log.take().back(), info("[WILL] 启动延迟成功 | delay=4294967295s"));
    EXPECT_EQ(owner->will_delay_pending, 1);
    EXPECT_EQ(owner->will_delay_deadline, clock.mono_ms() + uint64_t{0xFFFFFFFF} * 1000);
    EXPECT_EQ(owner->will_sent, 0);
}

// ---- cancelling

TEST(cancel_will, says_so_each_time)
{
    Handling   broker;
    Client     owner(broker, 4, "dev1");
    LogCapture log;
    owner->will_delay_pending = 1;
    packet_cancel_will(owner);
    EXPECT_EQ(owner->will_delay_pending, 0);
    packet_cancel_will(owner);
    packet_cancel_will(nullptr);
    EXPECT_THAT(log.take(), ElementsAre(logged::will_delay_cancelled("dev1"), logged::will_delay_cancelled("dev1")));
}
