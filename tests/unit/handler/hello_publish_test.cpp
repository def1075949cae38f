#include "handler_fixture.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/sub.h"

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const Bytes kText = text("Hello from MQTT Broker!");

struct TestMessage : testing::Test {
    ManualClock clock;
    Handling    broker;

    TestMessage()
    {
        packet_handler_publish_test_msg(); // the first one is due at once
        clock.advance_ms(10000);
    }
};

} // namespace

TEST_F(TestMessage, line_by_line)
{
    Client a(broker, 4, "a"), b(broker, 5, "b"), away(broker, 4, "away");
    sub_add("a", "#", 0, 1);
    sub_add("b", "broker/test", 2, 1);
    sub_add("away", "broker/+", 1, 1);
    sub_add("gone", "broker/+", 1, 1);
    sub_add("a", "$share/g/broker/test", 0, 1);
    sub_add("b", "$share/g/broker/test", 0, 1);
    sub_add_with_id("", "#", 1, 0, 5);
    away->state         = CLIENT_WILL_PENDING;
    const uint32_t seed = msgid_seed;
    (void)handler::draw_delivery_id(); // for a, though at QoS 0
    const uint16_t id = next_id();
    msgid_seed        = seed;
    LogCapture log;
    packet_handler_publish_test_msg();
    EXPECT_THAT(handler_lines(log),
                ElementsAre(logged::hello_started("broker/test", "Hello from MQTT Broker!", 1),
                            logged::topic_matched("broker/test", 7), logged::hello_matched("broker/test", 7),
                            logged::hello_sent("a", "broker/test", 0), logged::hello_sent("b", "broker/test", 1),
                            logged::hello_receiver_in_state("away", 3), logged::hello_receiver_unknown("gone"),
                            logged::hello_sent("a", "broker/test", 0), logged::hello_shared_receiver_skipped(6),
                            logged::hello_ended(7, 3)));
    EXPECT_THAT(a.gets(), ElementsAre(packet(0x30, prefixed("broker/test") + kText),
                                      packet(0x30, prefixed("broker/test") + kText)));
    EXPECT_THAT(b.gets(), ElementsAre(packet(0x32, prefixed("broker/test") + u16(id) + Bytes{0} + kText)));
    EXPECT_EQ(pending_count(), 1);
    EXPECT_EQ(b->qos1_pending_msg_id, id);
    EXPECT_EQ(msgid_seed, seed_after(6, seed));
}

TEST_F(TestMessage, once_in_ten_seconds)
{
    LogCapture log(AGENT_LOG_INFO);
    const auto said = [&] { return log.take().size() > 0; };
    packet_handler_publish_test_msg();
    EXPECT_TRUE(said());
    clock.advance_ms(9000);
    packet_handler_publish_test_msg();
    EXPECT_FALSE(said());
    clock.advance_ms(1000);
    packet_handler_publish_test_msg();
    EXPECT_TRUE(said());
    packet_handler_publish_test_msg();
    EXPECT_FALSE(said());
}

TEST_F(TestMessage, without_subscribers)
{
    LogCapture log;
    packet_handler_publish_test_msg();
    EXPECT_EQ(log.take().back(), logged::hello_matched_nobody("broker/test"));
}

TEST_F(TestMessage, what_cannot_be_sent_is_reported)
{
    Client broken(broker, 4, "broken"), small(broker, 4, "small");
    sub_add("broken", "#", 0, 1);
    sub_add("small", "#", 0, 1);
    broken->codec.version  = 0;
    small->max_packet_size = 5;
    LogCapture log(AGENT_LOG_INFO);
    packet_handler_publish_test_msg();
    const auto lines = log.take_from("ERROR");
    ASSERT_EQ(lines.size(), 3u); // the first is the encoder's
    EXPECT_EQ(lines[1], logged::hello_not_encoded("broken", -2));
    EXPECT_EQ(lines[2], logged::hello_not_sent("small", -1));
}

TEST_F(TestMessage, allocations_failing_one_after_another)
{
    Client a(broker, 4, "a");
    sub_add("a", "#", 0, 1);
    const auto failing = [&](int nth) {
        LogCapture log(AGENT_LOG_ERROR);
        Fail       fail(Call::Allocate, nth);
        packet_handler_publish_test_msg();
        clock.advance_ms(10000);
        return log.take();
    };
    EXPECT_THAT(failing(1), ElementsAre(logged::hello_matches_no_memory()));
    EXPECT_THAT(failing(999), IsEmpty());
    EXPECT_THAT(failing(1), ElementsAre(logged::hello_shared_no_memory()));
    EXPECT_THAT(failing(2), ElementsAre(logged::hello_packet_no_memory()));
    EXPECT_EQ(a.gets().size(), 1u);
}
