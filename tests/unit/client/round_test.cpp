#include "client_fixture.h"

#include <chrono>
#include <thread>

using namespace tarn;
using namespace tarn::test;

TEST(io_round, sends_at_its_end)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    mqtt_client_t *const other  = log_in(2, "dev2");
    Socket               socket(1), other_socket(2);
    client::begin_io_round();
    EXPECT_TRUE(client::in_io_round());
    send(client, {1});
    send(other, {9});
    send(client, {2});
    EXPECT_EQ(queued(client), 2);
    EXPECT_THAT(socket.received(), IsEmpty());
    client::end_io_round();
    EXPECT_FALSE(client::in_io_round());
    EXPECT_EQ(hex(socket.received()), "01 02");
    EXPECT_EQ(hex(other_socket.received()), "09");
    client::begin_io_round();
    client::end_io_round(); // nothing was queued
    EXPECT_THAT(socket.received(), IsEmpty());
}

TEST(io_round, makes_room_in_a_full_ring)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    client::begin_io_round();
    Bytes expected;
    for (int i = 0; i < 500; ++i) {
        ASSERT_EQ(send(client, {static_cast<uint8_t>(i)}), 0u) << i;
        expected.push_back(static_cast<uint8_t>(i));
    }
    client::end_io_round();
    EXPECT_EQ(socket.received(), expected);
    EXPECT_EQ(g_mqtt_stats.drop_queue_full, 0u);
}

TEST(io_round, waits_for_another_thread_s_write_before_it_calls_a_ring_full)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    const auto           set_flushing = [client](uint8_t flushing) {
        ScopedLock lock(client->send_lock);
        client::side_at(0).flushing = flushing;
    };
    set_flushing(1); // as the send thread, in the middle of its write
    std::thread other([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        set_flushing(0);
    });
    client::begin_io_round();
    for (int i = 0; i < 150; ++i)
        EXPECT_EQ(send(client, {1}), 0u) << i;
    client::end_io_round();
    other.join();
    EXPECT_EQ(socket.received().size(), 150u);
    EXPECT_EQ(g_mqtt_stats.drop_queue_full, 0u);
}

TEST(io_round, drops_when_the_socket_is_full_too)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    socket.stuff();
    client::begin_io_round();
    for (int i = 0; i < 99; ++i)
        ASSERT_EQ(send(client, {1}), 0u);
    EXPECT_EQ(send(client, {1}), 0xFFFFFFFFu);
    EXPECT_EQ(client::side_at(0).round_blocked.load(), 1) << "not tried again in this round";
    EXPECT_EQ(send(client, {1}), 0xFFFFFFFFu);
    EXPECT_EQ(g_mqtt_stats.drop_queue_full, 2u);
    client::end_io_round();
    EXPECT_EQ(client::side_at(0).round_blocked.load(), 0);
    EXPECT_EQ(client::side_at(0).listed.load(), 1) << "the send thread's from here on";
    socket.unstuff();
    mqtt_start_send_thread();
    EXPECT_THAT(socket.wait_for(99), SizeIs(99));
}

TEST(io_round, a_record_without_a_socket_keeps_its_99_packets)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    client::begin_io_round();
    for (int i = 0; i < 99; ++i)
        ASSERT_EQ(send(client, {1}), 0u);
    EXPECT_EQ(send(client, {1}), 0xFFFFFFFFu);
    client::end_io_round();
    EXPECT_EQ(queued(client), 99);
}

TEST(io_round, that_takes_long_is_helped_by_the_send_thread)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    mqtt_start_send_thread();
    client::begin_io_round();
    for (uint8_t i = 0; i < 5; ++i) { // as if a callback of the host held the thread up each time
        send(client, {i});
        EXPECT_EQ(socket.wait_for(1), Bytes{i});
    }
    client::end_io_round();
    EXPECT_TRUE(eventually([&] { return queued(client) == 0; })) << "the other thread may be about to note the last";
}

TEST(io_round, a_client_closed_in_it_is_not_sent_to)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    client::begin_io_round();
    send(client, {1});
    client_close(client);
    mqtt_client_t *const next = log_in(2, "dev2"); // in the same slot
    ASSERT_EQ(next, client);
    Socket next_socket(2);
    send(next, {2});
    client::end_io_round();
    EXPECT_THAT(socket.received(), IsEmpty());
    EXPECT_EQ(hex(next_socket.received()), "02");
}

TEST(io_round, one_at_a_time)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    client::begin_io_round();
    pthread_t second;
    pthread_create(
        &second, nullptr,
        [](void *) -> void * {
            client::begin_io_round();
            EXPECT_FALSE(client::in_io_round());
            client::end_io_round();
            return nullptr;
        },
        nullptr);
    pthread_join(second, nullptr);
    EXPECT_TRUE(client::in_io_round());
    send(client, {1});
    client::end_io_round();
    EXPECT_EQ(hex(socket.received()), "01");
}
