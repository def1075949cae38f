#include "base/relaxed.h"
#include "qos/qos_internal.h"
#include "qos_fixture.h"
#include "support/log_lines/qos.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(scan, the_first_retransmission_carries_dup_0_and_later_ones_dup_1)
{
    struct Step {
        int64_t after_ms;
        bool    dup;
        int     count, next_ms;
    };
    for (const unsigned level : {4u, 5u})
        for (const unsigned qos : {1u, 2u}) {
            SCOPED_TRACE(testing::Message() << "level " << level << ", QoS " << qos);
            ManualClock clock;
            RingClient  client;
            LogCapture  log(1);
            client->codec.version = level;
            add(client, 7, static_cast<uint8_t>(qos), "t", "x");
            for (const Step &step : {Step{1001, false, 1, 2000}, Step{2001, true, 2, 4000}, Step{4001, true, 3, 8000},
                                     Step{8001, true, 4, 16000}, Step{16001, true, 5, 30000}}) {
                clock.advance_ms(step.after_ms - 1);
                qos_reliable_scan_queue();
                EXPECT_THAT(client.take(), IsEmpty()) << "not before the interval is over";
                clock.advance_ms(1);
                qos_reliable_scan_queue();
                const auto first = static_cast<uint8_t>(0x30 | qos << 1 | (step.dup ? 8 : 0));
                EXPECT_THAT(client.take(), ElementsAre(packet(first, wire("00 01 't' 00 07") +
                                                                         (level == 5 ? wire("00 'x'") : text("x")))));
                EXPECT_THAT(own(log), ElementsAre(logged::delivery_repeated(qos, 7, step.count, step.next_ms, 1)));
            }
            clock.advance_ms(30000);
            qos_reliable_scan_queue();
            EXPECT_EQ(pending_count(), 1);
            clock.advance_ms(1);
            qos_reliable_scan_queue();
            EXPECT_THAT(own(log), ElementsAre(logged::delivery_given_up(7)));
            EXPECT_EQ(g_pending_queue, nullptr);
            EXPECT_THAT(client.take(), IsEmpty());
        }
}

// Looked at every 100 ms, as the scan threads do: each copy comes at the first look after its time, and that counts as
// the beginning of the next interval.
TEST(scan, every_100_ms_copies_come_after_about_1_3_7_15_and_31_seconds)
{
    ManualClock clock;
    RingClient  client;
    LogCapture  log(3);
    add(client, 7);
    std::vector<int64_t> sent_ms;
    int64_t              at_ms = 0;
    for (; pending_count() > 0 && at_ms < 100000; at_ms += 100) {
        tarn::qos::scan_turn(clock.mono_ms());
        for (size_t i = client.take().size(); i > 0; --i)
            sent_ms.push_back(at_ms);
        clock.advance_ms(100);
    }
    EXPECT_THAT(sent_ms, ElementsAre(1100, 3200, 7300, 15400, 31500));
    EXPECT_EQ(at_ms - 100, 31500 + 30100);
}

TEST(scan, what_is_due_at_one_time_goes_newest_first)
{
    ManualClock clock;
    RingClient  client;
    for (const uint16_t id : {1, 2, 3})
        add(client, id);
    clock.advance_ms(1001);
    qos_reliable_scan_queue();
    EXPECT_THAT(client.take(), ElementsAre(wire("32 06 00 01 't' 00 03 'x'"), wire("32 06 00 01 't' 00 02 'x'"),
                                           wire("32 06 00 01 't' 00 01 'x'")));
}

TEST(scan, traces_what_it_sent_and_dropped)
{
    ManualClock clock;
    RingClient  client;
    add(client, 1);
    add(client, 2);
    g_pending_queue->retry_count = 5;
    clock.advance_ms(1001);
    LogCapture log;
    qos_reliable_scan_queue();
    EXPECT_THAT(own(log), ElementsAre(logged::delivery_given_up(2), logged::delivery_repeats(1, "dev1"),
                                      logged::delivery_repeated(1, 1, 1, 2000, 1),
                                      debug("[QoS] 队列扫描完成：重发1条，丢弃1条")));
    qos_reliable_scan_queue();
    EXPECT_THAT(own(log), IsEmpty());
}

TEST(scan, drops_an_expired_entry_in_any_state)
{
    ManualClock clock;
    RingClient  client;
    add(client, 9, 2, "a/b");
    qos_reliable_set_packet_expiry(client, 9, 5);
    qos_reliable_handle_ack(client, 9, 5);
    clock.advance_ms(4999);
    qos_reliable_scan_queue();
    ASSERT_EQ(pending_count(), 1);
    clock.advance_ms(1);
    LogCapture log(1);
    qos_reliable_scan_queue();
    EXPECT_THAT(log.take(), ElementsAre(logged::delivery_expired(9, "a/b")));
    EXPECT_EQ(g_pending_queue, nullptr);
}

TEST(scan, leaves_qos_2_alone_once_pubrec_came)
{
    ManualClock clock;
    RingClient  client;
    add(client, 9, 2);
    for (const uint32_t state : {2u, 3u}) {
        g_pending_queue->qos2_state  = state;
        g_pending_queue->retry_count = 9;
        clock.advance_ms(3600000);
        qos_reliable_scan_queue();
        EXPECT_EQ(pending_count(), 1);
        EXPECT_THAT(client.take(), IsEmpty());
    }
}

TEST(scan, only_qos_2_waits_for_the_client)
{
    ManualClock clock;
    RingClient  client;
    for (const uint32_t state : {2u, 3u}) { // by hand: QoS 1 has no such state
        add(client, 9, 1);
        g_pending_queue->qos2_state = state;
        clock.advance_ms(1001);
        tarn::qos::scan_turn(clock.mono_ms());
        EXPECT_EQ(client.take().size(), 1u);
        qos_reliable_clean_client_packets(client);
    }
    add(client, 9, 2);
    g_pending_queue->qos2_state = 4; // nor QoS 2 such a one
    clock.advance_ms(1001);
    tarn::qos::scan_turn(clock.mono_ms());
    EXPECT_EQ(client.take().size(), 1u);
}

TEST(scan, an_expiry_of_136_years_does_not_wrap)
{
    ManualClock clock;
    RingClient  client;
    add(client, 9);
    qos_reliable_set_packet_expiry(client, 9, 0xFFFFFFFF);
    clock.advance_ms(2000);
    qos_reliable_scan_queue();
    EXPECT_EQ(pending_count(), 1);
}

TEST(scan, tries_an_entry_again_that_could_not_be_sent)
{
    ManualClock clock;
    RingClient  client;
    add(client, 9);
    client->state = CLIENT_CLOSED;
    clock.advance_ms(1001);
    LogCapture log(1);
    qos_reliable_scan_queue();
    qos_reliable_scan_queue();
    EXPECT_THAT(own(log), ElementsAre(logged::repeat_not_sent(9, -1), logged::repeat_not_sent(9, -1)));
    EXPECT_EQ(g_pending_queue->retry_count, 0u);
    client->state = CLIENT_LOGINED;
    qos_reliable_scan_queue();
    EXPECT_EQ(client.take().size(), 1u);
}

TEST(scan, refuses_edited_entries_with_their_lines)
{
    ManualClock clock;
    RingClient  client;
    add(client, 9);
    clock.advance_ms(1001);
    LogCapture log(1);
    g_pending_queue->client = nullptr;
    qos_reliable_scan_queue();
    g_pending_queue->client      = client;
    g_pending_queue->payload_len = 0;
    qos_reliable_scan_queue();
    g_pending_queue->payload_len = 2049;
    qos_reliable_scan_queue();
    g_pending_queue->payload_len = 1;
    uint8_t *const payload       = std::exchange(g_pending_queue->payload, nullptr);
    qos_reliable_scan_queue();
    g_pending_queue->payload = payload;
    client->codec.version    = 0;
    qos_reliable_scan_queue();
    client->codec.version = 4;
    {
        Fail fail(Call::Allocate, 1);
        qos_reliable_scan_queue();
    }
    g_pending_queue->msg_id = 0;
    qos_reliable_scan_queue();
    g_pending_queue->msg_id = 9;
    client->codec.version   = 9;
    qos_reliable_scan_queue();
    client->codec.version = 4;
    EXPECT_THAT(own(log), ElementsAre(logged::repeat_without_packet(), logged::repeat_of_bad_payload(0),
                                      logged::repeat_of_bad_payload(2049), logged::repeat_of_bad_payload(1),
                                      error("[QoS] 重发报文失败：客户端编解码上下文未初始化(client=dev1)"),
                                      error("[QoS] 重发报文失败：分配发送缓冲区失败（需要267字节）"),
                                      logged::repeat_not_encoded(0, -1, "参数非法"),
                                      logged::repeat_not_encoded(9, -2, "协议版本不支持")));
    EXPECT_EQ(g_pending_queue->retry_count, 0u);
}

TEST(scan, traces_an_entry_without_a_client)
{
    ManualClock clock;
    RingClient  client;
    add(client, 9);
    g_pending_queue->client = nullptr; // by hand
    clock.advance_ms(1001);
    LogCapture log;
    qos_reliable_scan_queue();
    EXPECT_THAT(own(log), ElementsAre(logged::delivery_repeats(9, "null"), logged::repeat_without_packet()));
    g_pending_queue->client = client;
}

// A body of 2112 bytes is the most that the encoder takes: topic of 60, identifier and payload.
TEST(scan, an_entry_too_large_for_the_encoder_is_tried_again_and_again)
{
    ManualClock       clock;
    RingClient        client;
    const std::string payload(2048, 'x');
    add(client, 1, 1, std::string(60, 't').c_str(), payload.c_str());
    add(client, 2, 1, std::string(61, 't').c_str(), payload.c_str());
    clock.advance_ms(1001);
    LogCapture log(1);
    qos_reliable_scan_queue();
    EXPECT_THAT(client.take(), ElementsAre(packet(0x32, prefixed(std::string(60, 't')) + u16(1) + text(payload))));
    const LogLine failed = logged::repeat_not_encoded(2, -3, "缓冲区不足");
    EXPECT_THAT(own(log), ElementsAre(failed, logged::delivery_repeated(1, 1, 1, 2000, 2048)));
    clock.advance_ms(100);
    qos_reliable_scan_queue();
    EXPECT_THAT(own(log), ElementsAre(failed));
}

// The scan threads leave out the walk while nothing can be due, but never for longer than half a second.
TEST(scan, a_turn_with_nothing_due_walks_twice_a_second)
{
    ManualClock clock;
    RingClient  client;
    add(client, 9);
    qos_reliable_scan_queue();
    g_pending_queue->last_send_ms -= 5000; // by hand: due now
    clock.advance_ms(400);
    tarn::qos::scan_turn(clock.mono_ms());
    EXPECT_THAT(client.take(), IsEmpty());
    clock.advance_ms(100);
    tarn::qos::scan_turn(clock.mono_ms());
    EXPECT_EQ(client.take().size(), 1u);
}

TEST(scan, a_turn_knows_when_an_entry_expires)
{
    ManualClock clock;
    RingClient  client;
    add(client, 1);
    clock.advance_ms(600);
    qos_reliable_scan_queue();
    qos_reliable_set_packet_expiry(client, 1, 1); // 400 ms after the walk
    clock.advance_ms(350);
    tarn::qos::scan_turn(clock.mono_ms());
    EXPECT_EQ(pending_count(), 1);
    clock.advance_ms(50); // 1 ms before a retransmission would be due
    tarn::qos::scan_turn(clock.mono_ms());
    EXPECT_EQ(pending_count(), 0);

    add(client, 2);
    qos_reliable_set_packet_expiry(client, 2, 1);
    clock.advance_ms(800);
    qos_reliable_scan_queue();
    clock.advance_ms(200);
    tarn::qos::scan_turn(clock.mono_ms());
    EXPECT_EQ(pending_count(), 0);
}

TEST(scan, a_turn_just_after_another_threads_turn_is_left_out)
{
    ManualClock clock;
    RingClient  client;
    add(client, 9);
    clock.advance_ms(990);
    tarn::qos::scan_turn(clock.mono_ms());
    clock.advance_ms(11);
    tarn::qos::scan_turn(clock.mono_ms());
    EXPECT_THAT(client.take(), IsEmpty());
    clock.advance_ms(39);
    tarn::qos::scan_turn(clock.mono_ms());
    EXPECT_EQ(client.take().size(), 1u);
}

TEST(threads, two_run_over_one_queue_and_both_end)
{
    LogCapture log(1);
    ASSERT_EQ(qos_reliable_init(), 0);
    const pthread_t first = g_scan_thread;
    ASSERT_EQ(qos_reliable_init(), 0);
    EXPECT_NE(first, g_scan_thread);
    EXPECT_EQ(g_scan_running, 1);
    RingClient client;
    add(client, 1);
    qos_reliable_destroy();
    EXPECT_EQ(g_scan_running, 0);
    EXPECT_EQ(g_pending_queue, nullptr);
    qos_reliable_destroy();
    EXPECT_THAT(own(log), ElementsAre(logged::deliveries_ready(), logged::deliveries_ready(),
                                      logged::deliveries_down(1), logged::deliveries_down(0)));
}

// The log drops a line that meets another one, and two threads speak here: one life of many shows them all.
TEST(threads, tell_their_start_and_end_at_debug)
{
    LogCapture           log;
    std::vector<LogLine> begin, end;
    const auto           start_was_told = [&] {
        const auto lines = log.take();
        begin.insert(begin.end(), lines.begin(), lines.end());
        return std::find(begin.begin(), begin.end(), debug("[QoS] 队列扫描线程启动")) != begin.end();
    };
    for (int life = 0; life < 100 && end.size() < 3; ++life) {
        begin.clear();
        ASSERT_EQ(qos_reliable_init(), 0);
        bool told = false;
        for (int look = 0; look < 100 && !told; ++look, std::this_thread::sleep_for(std::chrono::milliseconds(1)))
            told = start_was_told();
        qos_reliable_destroy();
        if (const auto lines = log.take(); told)
            end = lines;
    }
    EXPECT_THAT(end, ElementsAre(debug("[QoS] 开始销毁可靠投递模块"), debug("[QoS] 队列扫描线程退出"),
                                 logged::deliveries_down(0)));
}

TEST(threads, a_thread_that_cannot_be_made_ends_the_module)
{
    LogCapture log(1);
    Fail       fail(Call::ThreadCreate, 1, 11 /* EAGAIN */);
    EXPECT_EQ(qos_reliable_init(), -1);
    EXPECT_EQ(g_scan_running, 0);
    EXPECT_THAT(log.take(), ElementsAre(error(
                                "[QoS] 创建扫描线程失败，Linux错误码：11（描述：Resource temporarily unavailable）")));
}

TEST(threads, retransmit_by_themselves)
{
    RingClient client;
    ASSERT_EQ(qos_reliable_init(), 0);
    add(client, 1);
    const auto start = std::chrono::steady_clock::now();
    while (tarn::peek(client->send_tail) == 0 && std::chrono::steady_clock::now() - start < std::chrono::seconds(5))
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GT(took, std::chrono::milliseconds(950));
    EXPECT_LT(took, std::chrono::seconds(5));
    qos_reliable_destroy();
}
