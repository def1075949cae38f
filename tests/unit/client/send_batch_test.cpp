#include "client_fixture.h"

#include "base/clock.h"
#include "qos/qos_internal.h"
#include "support/log_lines/qos.h"

#include <string>

using namespace tarn;
using namespace tarn::test;
using Part = SendBatch::Part;

namespace {

constinit SendBatch g_batch{};

struct send_batch : testing::Test {
    ManualClock          clock; // before the manager, whose scan threads note when they had their turn
    const Manager        manager;
    mqtt_client_t *const one = log_in(1, "dev1");
    mqtt_client_t *const two = log_in(2, "dev2");
    Socket               socket_of_one{1}, socket_of_two{2};

    ~send_batch() override { g_batch.send(Part::All); }

    static void queue(mqtt_client_t *client, int count)
    {
        for (int i = 0; i < count; ++i) {
            const uint8_t packet[] = {0xD0, static_cast<uint8_t>(i)};
            ASSERT_EQ(queue_packet(*client, {packet}), 0u);
            g_batch.add(*client);
        }
    }
};

} // namespace

TEST_F(send_batch, sends_on_the_calling_thread_in_the_order_in_which_packets_were_queued)
{
    queue(one, 3);
    queue(two, 1);
    queue(one, 1);
    EXPECT_THAT(socket_of_one.received(), IsEmpty());
    EXPECT_EQ(client::side_at(0).listed.load(), 0) << "nobody else is to send it";
    g_batch.send(Part::All);
    EXPECT_EQ(hex(socket_of_one.received()), "D0 00 D0 01 D0 02 D0 00");
    EXPECT_EQ(hex(socket_of_two.received()), "D0 00");
    EXPECT_EQ(queued(one), 0);
}

TEST_F(send_batch, keeps_few_packets_until_they_are_worth_a_write)
{
    queue(one, 32);
    queue(two, 31);
    g_batch.send(Part::Worthwhile);
    EXPECT_THAT(socket_of_one.received(), SizeIs(64));
    EXPECT_THAT(socket_of_two.received(), IsEmpty());
    queue(two, 1);
    g_batch.send(Part::Worthwhile);
    EXPECT_THAT(socket_of_two.received(), SizeIs(64));
    queue(one, 1);
    g_batch.send(Part::All);
    EXPECT_THAT(socket_of_one.received(), SizeIs(2));
}

TEST_F(send_batch, is_due_while_a_ring_has_little_room_that_sending_could_make)
{
    queue(one, 63);
    EXPECT_FALSE(g_batch.is_due(*one));
    queue(one, 1);
    EXPECT_TRUE(g_batch.is_due(*one));
    EXPECT_FALSE(g_batch.is_due(*two));
    socket_of_one.stuff();
    g_batch.send(Part::Worthwhile);
    EXPECT_EQ(queued(one), 64);
    EXPECT_FALSE(g_batch.is_due(*one)) << "the socket takes nothing, and sending again would not help";
    queue(one, 35);
    EXPECT_TRUE(g_batch.is_due(*one));
    g_batch.send(Part::All);
    EXPECT_EQ(client::side_at(0).listed.load(), 1) << "the rest is the send thread's";
}

TEST_F(send_batch, is_not_due_for_a_client_that_is_known_to_take_nothing)
{
    queue(one, 70);
    EXPECT_TRUE(g_batch.is_due(*one));
    client::side_at(0).awaits_retry.store(1);
    EXPECT_FALSE(g_batch.is_due(*one)) << "or a scan would make a pause for each packet";
    client::side_at(0).awaits_retry.store(0);
}

TEST_F(send_batch, leaves_a_socket_that_is_known_to_be_full_to_the_send_thread)
{
    client::side_at(0).awaits_retry.store(1);
    queue(one, 40);
    g_batch.send(Part::All);
    EXPECT_EQ(queued(one), 40);
    EXPECT_THAT(socket_of_one.received(), IsEmpty());
    client::side_at(0).awaits_retry.store(0);
}

TEST_F(send_batch, leaves_a_record_outside_the_pool_to_who_owns_it)
{
    OwnRecord      own(2);
    const uint8_t  packet[] = {0xD0, 0};
    const uint32_t result   = queue_packet(*own, {packet});
    EXPECT_EQ(result, 0u);
    g_batch.add(*own);
    EXPECT_FALSE(g_batch.is_due(*own));
    g_batch.send(Part::All);
    EXPECT_EQ(queued(own.get()), 1);
}

TEST_F(send_batch, a_client_that_is_released_before_is_sent_nothing)
{
    queue(one, 40);
    client_close(one);
    g_batch.send(Part::All);
    EXPECT_THAT(socket_of_one.received(), IsEmpty());
}

// No other thread empties the ring, which has 99 places.
TEST_F(send_batch, a_scan_sends_all_that_is_due_to_one_client_without_a_failure)
{
    constexpr size_t kPacket = 8;
    LogCapture       log(3);
    for (int id = 1; id <= 500; ++id)
        for (mqtt_client_t *const client : {one, two})
            ASSERT_EQ(qos_reliable_add_packet(client, static_cast<uint16_t>(id), 1, "t", "x", 1), 0);
    clock.advance_ms(1001);
    qos::scan_turn(clock.mono_ms());
    EXPECT_THAT(log.take(), IsEmpty());
    const Bytes sent = socket_of_one.wait_for(500 * kPacket);
    ASSERT_THAT(sent, SizeIs(500 * kPacket));
    for (int i = 0; i < 500; ++i) {
        const size_t at = static_cast<size_t>(i) * kPacket;
        EXPECT_EQ(sent[at + 5] << 8 | sent[at + 6], 500 - i) << "newest first";
    }
    EXPECT_THAT(socket_of_two.wait_for(500 * kPacket), SizeIs(500 * kPacket));
    ScopedLock lock(g_queue_mutex);
    for (const qos_packet_t *entry = g_pending_queue; entry; entry = entry->next)
        EXPECT_EQ(entry->retry_count, 1u);
}

TEST_F(send_batch, a_scan_fills_the_ring_of_a_client_that_does_not_read_and_says_so_of_the_rest)
{
    socket_of_one.stuff();
    for (int id = 1; id <= 120; ++id)
        ASSERT_EQ(qos_reliable_add_packet(one, static_cast<uint16_t>(id), 1, "t", "x", 1), 0);
    clock.advance_ms(1001);
    LogCapture log(3);
    qos::scan_turn(clock.mono_ms());
    EXPECT_EQ(queued(one), 99);
    std::vector<LogLine> expected;
    for (uint16_t id = 120 - 99; id > 0; --id)
        expected.push_back(logged::repeat_not_sent(id, -1));
    EXPECT_EQ(log.take(), expected);
}
