#include "client_fixture.h"
#include "net/netip_internal.h"

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
    EXPECT_NE(client::io_round(), 0u);
    send(client, {1});
    send(other, {9});
    send(client, {2});
    EXPECT_EQ(queued(client), 2);
    EXPECT_THAT(socket.received(), IsEmpty());
    client::end_io_round();
    EXPECT_EQ(client::io_round(), 0u);
    EXPECT_EQ(hex(socket.received()), "01 02");
    EXPECT_EQ(hex(other_socket.received()), "09");
    client::begin_io_round();
    client::end_io_round(); // nothing was queued
    EXPECT_THAT(socket.received(), IsEmpty());
}

TEST(io_round, sends_before_its_end_what_is_for_few)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    mqtt_client_t *const other  = log_in(2, "dev2");
    mqtt_client_t *const third  = log_in(3, "dev3");
    Socket               socket(1), other_socket(2), third_socket(3);
    client::begin_io_round();
    const uint32_t round = client::io_round();
    EXPECT_FALSE(client::send_in_io_round()) << "there is nothing";
    send(client, {1});
    send(other, {9});
    send(client, {2});
    EXPECT_TRUE(client::send_in_io_round());
    EXPECT_EQ(hex(socket.received()), "01 02");
    EXPECT_EQ(hex(other_socket.received()), "09");
    EXPECT_EQ(client::io_round(), round) << "it goes on";
    EXPECT_FALSE(client::send_in_io_round()) << "there is nothing any more";
    send(client, {3});
    send(other, {10});
    send(third, {20});
    EXPECT_FALSE(client::send_in_io_round()) << "they are too many";
    EXPECT_THAT(socket.received(), IsEmpty());
    client::end_io_round();
    EXPECT_EQ(hex(socket.received()), "03");
    EXPECT_EQ(hex(third_socket.received()), "14");
    client::begin_io_round();
    send(third, {21});
    EXPECT_TRUE(client::send_in_io_round()) << "those of the round before do not count";
    EXPECT_EQ(hex(third_socket.received()), "15");
    client::end_io_round();
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
    EXPECT_EQ(client::side_at(0).blocked_round, client::io_round()) << "not tried again in this round";
    EXPECT_EQ(send(client, {1}), 0xFFFFFFFFu);
    EXPECT_EQ(g_mqtt_stats.drop_queue_full, 2u);
    client::end_io_round();
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

TEST(kept_answer, leaves_before_a_callback_that_may_take_long)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    const uint8_t        connack = 0x20, publish = 0x30;
    client::begin_io_round();
    ASSERT_EQ(queue_packet(*client, {std::span(&connack, 1)}), 0u);
    client::keep_answer(client::index_of(client));
    send_kept_answer();
    EXPECT_EQ(hex(socket.received()), "20");
    send_kept_answer(); // there is none any more
    ASSERT_EQ(queue_packet(*client, {std::span(&publish, 1)}), 0u);
    client::keep_answer(client::index_of(client));
    EXPECT_THAT(socket.received(), IsEmpty());
    client::end_io_round();
    EXPECT_EQ(hex(socket.received()), "30");
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

TEST(io_round, two_at_a_time_are_told_apart_and_the_first_to_end_sends_for_both)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    client::begin_io_round();
    const uint32_t first = client::io_round();
    send(client, {1});
    std::thread([first] {
        client::begin_io_round();
        EXPECT_NE(client::io_round(), 0u);
        EXPECT_NE(client::io_round(), first);
        client::end_io_round();
    }).join();
    EXPECT_EQ(hex(socket.received()), "01");
    EXPECT_EQ(client::io_round(), first);
    send(client, {2});
    client::end_io_round();
    EXPECT_EQ(hex(socket.received()), "02");
}

TEST(send_list, is_drained_by_a_round_that_ends_whoever_queued)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    send(client, {1}); // outside a round, and no send thread runs
    EXPECT_THAT(socket.received(), IsEmpty());
    client::begin_io_round();
    client::end_io_round();
    EXPECT_EQ(hex(socket.received()), "01");
    EXPECT_EQ(client::side_at(0).listed.load(), 0);
}

TEST(send_list, has_each_record_once_and_the_oldest_first)
{
    const Manager manager;
    log_in(1, "dev1");
    log_in(2, "dev2");
    log_in(3, "dev3");
    for (int32_t index : {1, 0, 2, 1, 0})
        client::list_for_sending(index);
    std::vector<int32_t> drained;
    client::drain_send_list([&](int32_t index) { drained.push_back(index); });
    EXPECT_THAT(drained, ElementsAre(1, 0, 2));
    client::drain_send_list([&](int32_t) { ADD_FAILURE() << "it is empty now"; });
}

TEST(writable_socket, gets_its_own_ring_at_once)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    mqtt_client_t *const other  = log_in(2, "dev2");
    Socket               socket(1), other_socket(2);
    client::use_network_hooks();
    socket.stuff();
    client::begin_io_round();
    send(client, {1});
    client::end_io_round();
    EXPECT_EQ(queued(client), 1);
    send(other, {9}); // nobody has looked at it yet
    socket.unstuff();
    net::call_writable_hook(1);
    EXPECT_EQ(hex(socket.received()), "01");
    EXPECT_EQ(queued(client), 0);
    EXPECT_EQ(queued(other), 1);
    net::call_writable_hook(3); // a connection without a record
}

TEST(retried_record, is_sent_at_the_end_of_a_round_all_the_same)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    client::side_at(0).awaits_retry.store(1); // as the send thread keeps it
    client::begin_io_round();
    send(client, {1});
    client::end_io_round();
    EXPECT_EQ(hex(socket.received()), "01");
    client::side_at(0).awaits_retry.store(0);
}

TEST(retried_record, is_not_handed_over_by_other_threads_until_its_socket_is_writable)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    client::use_network_hooks();
    client::side_at(0).awaits_retry.store(1);
    send(client, {1});
    EXPECT_EQ(client::side_at(0).listed.load(), 0);
    net::call_writable_hook(1);
    EXPECT_EQ(hex(socket.received()), "01");
    send(client, {2});
    EXPECT_EQ(client::side_at(0).listed.load(), 1);
    client::begin_io_round();
    client::end_io_round();
    EXPECT_EQ(hex(socket.received()), "02");
}

TEST(retried_record, gets_no_room_made_in_a_round)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    client::side_at(0).awaits_retry.store(1);
    client::begin_io_round();
    for (int i = 0; i < 99; ++i)
        ASSERT_EQ(send(client, {1}), 0u);
    EXPECT_EQ(send(client, {1}), 0xFFFFFFFFu);
    EXPECT_THAT(socket.received(), IsEmpty());
    client::end_io_round();
    EXPECT_THAT(socket.received(), SizeIs(99));
    client::side_at(0).awaits_retry.store(0);
}

TEST(retried_record, of_the_send_thread_is_let_go_with_its_last_packet)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    socket.stuff();
    mqtt_start_send_thread();
    send(client, {1});
    EXPECT_TRUE(eventually([] { return client::side_at(0).awaits_retry.load() == 1; }));
    socket.unstuff();
    EXPECT_THAT(socket.wait_for(1), SizeIs(1));
    EXPECT_TRUE(eventually([] { return client::side_at(0).awaits_retry.load() == 0; }));
}

// ---- clients that stay pinned from packet to packet

namespace {

void release(mqtt_client_t *client)
{
    client->state = CLIENT_CLOSED;
    pool_free(client);
}

template <class Key> mqtt_client_t *found(Key key)
{
    return RoundClient(key).get();
}

} // namespace

TEST(round_client, stays_pinned_until_the_round_ends)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    EXPECT_EQ(found(1u), client);
    EXPECT_TRUE(client::is_idle(0)) << "outside a round it does not";
    client::begin_io_round();
    EXPECT_EQ(found(1u), client);
    EXPECT_FALSE(client::is_idle(0));
    EXPECT_EQ(found("dev1"), client);
    release(client);
    EXPECT_EQ(found(1u), nullptr) << "a released record is not found";
    EXPECT_EQ(found("dev1"), nullptr);
    EXPECT_STREQ(client->client_id, "") << "and nobody holds it any more";
    mqtt_client_t *const other = log_in(2, "dev2");
    EXPECT_EQ(found("dev2"), other);
    release(other);
    EXPECT_STREQ(other->client_id, "dev2");
    client::end_io_round();
    EXPECT_STREQ(other->client_id, "");
    EXPECT_TRUE(client::is_idle(0));
}

TEST(round_client, is_had_again_without_the_lock_of_its_table)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    client::begin_io_round();
    EXPECT_EQ(found(1u), client);
    EXPECT_EQ(found("dev1"), client);
    {
        ScopedLock lock(client::mutex_of_handle(1));
        EXPECT_EQ(found(1u), client);
    }
    {
        ScopedLock lock(g_client_mgr.locks[client::hash_of("dev1") % CLIENT_LOCKS]);
        EXPECT_EQ(found("dev1"), client);
    }
    client::end_io_round();
}

TEST(round_client, is_the_one_that_the_table_names)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    mqtt_client_t *const other  = log_in(2, "dev2");
    client::begin_io_round();
    EXPECT_EQ(found(1u), client);
    EXPECT_EQ(found(2u), other);
    EXPECT_EQ(found(3u), nullptr);
    EXPECT_EQ(found("dev1"), client);
    EXPECT_EQ(found("dev2"), other);
    EXPECT_EQ(found("dev"), nullptr);

    EXPECT_EQ(found("dev1"), client);
    strcpy(client->client_id, "dev3"); // by hand, or a second CONNECT
    EXPECT_EQ(found("dev1"), nullptr);
    strcpy(client->client_id, "dev1");
    EXPECT_EQ(found("dev1"), client);
    mqtt_client_t *const again = log_in(3, "dev1"); // while the old connection is there
    EXPECT_EQ(found("dev1"), again);
    EXPECT_EQ(found(1u), client);
    g_client_mgr.by_handle[1] = nullptr;
    EXPECT_EQ(found(1u), nullptr);
    g_client_mgr.by_handle[1] = client;
    EXPECT_EQ(found(1u), client);
    client->handle = 4;
    EXPECT_EQ(found(1u), nullptr);
    client->handle = 1;
    client::end_io_round();
}

TEST(round_client, gives_its_record_up_when_the_packet_closed_it)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    client::begin_io_round();
    EXPECT_EQ(found("dev1"), client); // as the receiver of another's message
    {
        const RoundClient packet(1u);
        release(client);
        EXPECT_STREQ(client->client_id, "dev1");
    }
    EXPECT_STREQ(client->client_id, "");
    EXPECT_EQ(client_create(2, "", 0, nullptr), client) << "its place is free in the same round";
    client::end_io_round();
}

TEST(round_client, within_another_takes_nothing_away)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    mqtt_client_t *const other  = log_in(2, "dev2");
    client::begin_io_round();
    {
        const RoundClient outer("dev1");
        const RoundClient inner("dev2"); // a callback published
        EXPECT_EQ(outer.get(), client);
        EXPECT_EQ(inner.get(), other);
        EXPECT_EQ(found("dev1"), client);
    }
    client::end_io_round();
    EXPECT_TRUE(client::is_idle(0));
    EXPECT_TRUE(client::is_idle(1));
}

TEST(round_client, that_disconnects_leaves_its_record_in_the_same_round)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    client::begin_io_round();
    const Bytes ping = wire("C0 00");
    mqtt_netip_event_cb(1, NETIP_EVENT_DATA, ping.data(), static_cast<uint32_t>(ping.size()), 0, 0, nullptr);
    EXPECT_EQ(found("dev1"), client);
    mqtt_netip_event_cb(1, NETIP_EVENT_DISCONNECTED, nullptr, 0, 0, 0, nullptr);
    EXPECT_TRUE(client::is_idle(0));
    EXPECT_STREQ(client->client_id, "");
    client::end_io_round();
}
