#include "client_fixture.h"

#include "net/netip_internal.h"

#include <atomic>
#include <thread>

using namespace tarn;
using namespace tarn::test;

namespace {

constexpr uint32_t kFailed = 0xFFFFFFFF;

uint64_t drops()
{
    const mqtt_stats_t &all = g_mqtt_stats;
    return all.drop_invalid_param + all.drop_offline + all.drop_queue_full + all.drop_too_big + all.drop_send_failed;
}

} // namespace

TEST(client_send, copies_the_packet_into_the_ring)
{
    const ManualClock    clock;
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    LogCapture           log;
    EXPECT_EQ(client->send_queue, nullptr);
    EXPECT_EQ(send(client, wire("D0 00")), 0u);
    EXPECT_EQ(send(client, wire("40 02 00 07")), 0u);
    ASSERT_NE(client->send_queue, nullptr);
    EXPECT_EQ(client->send_head, 0);
    EXPECT_EQ(client->send_tail, 2);
    EXPECT_EQ(client->send_queue[0].length, 2);
    EXPECT_EQ(client->send_queue[0].ready, 1);
    EXPECT_EQ(hex(client->send_queue[0].data, 2), "D0 00");
    EXPECT_EQ(hex(client->send_queue[1].data, 4), "40 02 00 07");
    EXPECT_EQ(client->send_queue[2].ready, 0);
    EXPECT_EQ(g_mqtt_stats.pkt_tx, 2u);
    EXPECT_EQ(drops(), 0u);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(client_send, refuses_bad_arguments)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    client->max_packet_size     = 100000;
    const Bytes packet(5000, 1);
    EXPECT_EQ(client_send(nullptr, packet.data(), 2), kFailed);
    EXPECT_EQ(client_send(client, nullptr, 2), kFailed);
    EXPECT_EQ(client_send(client, packet.data(), 0), kFailed);
    EXPECT_EQ(client_send(client, packet.data(), -1), kFailed);
    EXPECT_EQ(client_send(client, packet.data(), 4097), kFailed);
    EXPECT_EQ(g_mqtt_stats.drop_invalid_param, 5u);
    EXPECT_EQ(drops(), 5u);
    EXPECT_EQ(client->send_queue, nullptr);
    EXPECT_EQ(client_send(client, packet.data(), 4096), 0u);
    EXPECT_EQ(client_send(client, packet.data(), 1), 0u);
    EXPECT_EQ(drops(), 5u);
}

TEST(client_send, only_to_online_clients)
{
    OwnRecord own;
    for (const uint32_t state : {0u, 3u, 4u}) {
        own->state = state;
        EXPECT_EQ(send(own.get(), wire("D0 00")), kFailed);
    }
    EXPECT_EQ(g_mqtt_stats.drop_offline, 3u);
    EXPECT_EQ(drops(), 3u);
    for (const uint32_t state : {1u, 2u}) {
        own->state = state;
        EXPECT_EQ(send(own.get(), wire("D0 00")), 0u);
    }
    EXPECT_EQ(drops(), 3u);
}

TEST(client_send, gives_no_ring_to_a_client_that_is_released_meanwhile)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    while_it_waits(
        client->send_lock, [&] { EXPECT_EQ(send(client, wire("D0 00")), kFailed); },
        [&] { client->state = CLIENT_CLOSED; });
    EXPECT_EQ(client->send_queue, nullptr);
    EXPECT_EQ(g_mqtt_stats.drop_offline, 1u);
    EXPECT_EQ(drops(), 1u);
}

TEST(client_send, up_to_the_clients_packet_size)
{
    OwnRecord own;
    own->max_packet_size = 300;
    EXPECT_EQ(send(own.get(), Bytes(301, 0)), kFailed);
    EXPECT_EQ(g_mqtt_stats.drop_too_big, 1u);
    EXPECT_EQ(send(own.get(), Bytes(300, 0)), 0u);
    EXPECT_EQ(send(own.get(), Bytes(299, 0)), 0u);
    EXPECT_EQ(drops(), 1u);
    own->max_packet_size = 0;
    EXPECT_EQ(send(own.get(), Bytes(1, 0)), kFailed);
    EXPECT_EQ(g_mqtt_stats.drop_too_big, 2u);
}

TEST(client_send, holds_99_packets)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    for (uint8_t i = 0; i < 99; ++i)
        ASSERT_EQ(send(client, {i}), 0u);
    EXPECT_EQ(send(client, {99}), kFailed);
    EXPECT_EQ(g_mqtt_stats.drop_queue_full, 1u);
    EXPECT_EQ(drops(), 1u);
    EXPECT_EQ(g_mqtt_stats.pkt_tx, 99u);
    EXPECT_EQ(queued(client), 99);
    for (uint8_t i = 0; i < 99; ++i)
        EXPECT_EQ(client->send_queue[i].data[0], i);
}

TEST(client_send, wraps_round)
{
    OwnRecord own;
    send(own.get(), {0});
    own->send_head = 98;
    own->send_tail = 98;
    for (uint8_t i = 1; i <= 3; ++i)
        EXPECT_EQ(send(own.get(), {i}), 0u);
    EXPECT_EQ(own->send_tail, 1);
    EXPECT_EQ(own->send_queue[98].data[0], 1);
    EXPECT_EQ(own->send_queue[99].data[0], 2);
    EXPECT_EQ(own->send_queue[0].data[0], 3);
}

TEST(client_send, without_memory_for_the_ring_counts_as_a_bad_argument)
{
    OwnRecord own;
    {
        Fail no_memory(Call::Allocate);
        EXPECT_EQ(send(own.get(), wire("D0 00")), kFailed);
    }
    EXPECT_EQ(g_mqtt_stats.drop_invalid_param, 1u);
    EXPECT_EQ(own->send_queue, nullptr);
    EXPECT_EQ(send(own.get(), wire("D0 00")), 0u);
}

TEST(client_send, takes_heap_memory_where_none_can_be_reserved)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    g_calls.memory_fails_after  = 0;
    {
        Fail no_memory(Call::Allocate);
        EXPECT_EQ(send(client, wire("D0 00")), kFailed);
    }
    EXPECT_EQ(g_mqtt_stats.drop_invalid_param, 1u);
    g_calls.memory_fails_after = 0;
    EXPECT_EQ(send(client, wire("D0 00")), 0u);
    client_close(client); // frees it, as the leak checker sees
    EXPECT_EQ(client->send_queue, nullptr);
}

TEST(client_send, frees_a_ring_that_the_client_brought_along)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    client->send_queue          = static_cast<client_send_slot_t *>(calloc(100, sizeof(client_send_slot_t)));
    EXPECT_EQ(send(client, wire("D0 00")), 0u);
    client_close(client);
    EXPECT_EQ(client->send_queue, nullptr);
}

TEST(client_send, gives_a_reused_slot_an_empty_ring)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    for (int i = 0; i < 60; ++i)
        send(client, Bytes(4096, 7));
    client_close(client);
    ASSERT_EQ(log_in(2, "dev2"), client);
    send(client, {1});
    EXPECT_EQ(client->send_tail, 1);
    for (int i = 1; i < 60; ++i) {
        ASSERT_EQ(client->send_queue[i].ready, 0);
        ASSERT_EQ(client->send_queue[i].data[0], 0);
    }
}

TEST(client_send, counts_as_activity)
{
    ManualClock          clock;
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    client->timeout_closing     = 1;
    clock.advance_ms(5000);
    send(client, wire("D0 00"));
    EXPECT_EQ(client->last_active, clock.mono_ms());
    EXPECT_EQ(client->timeout_closing, 0);
    clock.advance_ms(5000);
    send(client, Bytes(5000, 0));
    EXPECT_EQ(client->last_active, clock.mono_ms() - 5000) << "a refused packet is none";
}

TEST(client_send_flush, sends_in_order_and_empties_the_ring)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    send(client, wire("40 02 00 07"));
    send(client, wire("D0 00"));
    client_send_flush(client);
    EXPECT_EQ(hex(socket.received()), "40 02 00 07 D0 00");
    EXPECT_EQ(client->send_head, 2);
    EXPECT_EQ(client->send_tail, 2);
    EXPECT_EQ(client->send_queue[0].ready, 0);
    EXPECT_EQ(client->send_queue[1].ready, 0);
    client_send_flush(client);
    EXPECT_THAT(socket.received(), IsEmpty());
}

TEST(client_send_flush, sends_all_99_packets_across_the_end_of_the_ring)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    send(client, {0});
    client->send_queue[0].ready = 0;
    client->send_head           = 70;
    client->send_tail           = 70;
    Bytes expected;
    for (uint8_t i = 0; i < 99; ++i) {
        ASSERT_EQ(send(client, {i, i}), 0u);
        expected = expected + Bytes{i, i};
    }
    client_send_flush(client);
    EXPECT_EQ(socket.received(), expected);
    EXPECT_EQ(client->send_head, 69);
    EXPECT_EQ(queued(client), 0);
}

TEST(client_send_flush, works_for_an_own_record)
{
    OwnRecord own(3);
    Socket    socket(3);
    send(own.get(), wire("D0 00"));
    client_send_flush(own.get());
    EXPECT_EQ(hex(socket.received()), "D0 00");
    EXPECT_EQ(own->send_head, 1);
}

TEST(client_send_flush, does_nothing_for_a_record_that_cannot_send)
{
    Socket    socket(3);
    OwnRecord own(3);
    client_send_flush(nullptr);
    client_send_flush(own.get()); // no ring
    send(own.get(), wire("D0 00"));
    own->state = CLIENT_CLOSED;
    client_send_flush(own.get());
    own->state = CLIENT_LOGINED;
    own->used  = 0;
    client_send_flush(own.get());
    EXPECT_THAT(socket.received(), IsEmpty());
    EXPECT_EQ(own->send_head, 0);
    own->used  = 1;
    own->state = CLIENT_WILL_PENDING;
    client_send_flush(own.get());
    EXPECT_EQ(hex(socket.received()), "D0 00") << "only closed ones are passed over";
}

TEST(client_send_flush, sends_nothing_of_a_waiting_client_to_the_next_owner_of_its_handle)
{
    const Manager        manager;
    mqtt_client_t *const client                          = log_in(1, "dev1");
    client::side_at(client::index_of(client)).generation = 77;
    send(client, wire("D0 00"));
    client->state = CLIENT_WILL_PENDING;
    Socket socket(1); // another connection
    client_send_flush(client);
    EXPECT_THAT(socket.received(), IsEmpty());
}

TEST(client_send_flush, stops_at_a_slot_that_is_not_ready)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    for (uint8_t i = 0; i < 3; ++i)
        send(client, {i});
    client->send_queue[1].ready = 0;
    client_send_flush(client);
    EXPECT_EQ(hex(socket.received()), "00");
    EXPECT_EQ(client->send_head, 1);
    EXPECT_EQ(client->send_tail, 3);
}

TEST(client_send_flush, stops_at_the_first_refusal_and_keeps_the_packet)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    for (uint8_t i = 0; i < 3; ++i)
        send(client, {i});
    client_send_flush(client); // no socket at all
    EXPECT_EQ(client->send_head, 0);
    EXPECT_EQ(client->send_queue[0].ready, 1);
    EXPECT_EQ(queued(client), 3);
    Socket socket(1);
    client->send_queue[1].length = 4097; // by hand: the network layer refuses it
    client_send_flush(client);
    EXPECT_EQ(hex(socket.received()), "00");
    EXPECT_EQ(client->send_head, 1);
    client->send_queue[1].length = 0;
    client_send_flush(client);
    EXPECT_EQ(client->send_head, 1);
    client->send_queue[1].length = 1;
    client_send_flush(client);
    EXPECT_EQ(hex(socket.received()), "01 02");
    EXPECT_EQ(queued(client), 0);
}

TEST(client_send_flush, survives_indices_beyond_the_ring)
{
    OwnRecord own(3);
    Socket    socket(3);
    send(own.get(), {1});
    own->send_head = 200;
    client_send_flush(own.get());
    EXPECT_LT(own->send_head, 100);
    own->send_tail = 230;
    EXPECT_EQ(send(own.get(), {2}), 0u);
    EXPECT_LT(own->send_tail, 100);
}

TEST(client_send_flush, keeps_what_a_full_socket_does_not_take)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1, 4608);
    for (uint8_t i = 0; i < 99; ++i)
        ASSERT_EQ(send(client, Bytes(1000, i)), 0u);
    client_send_flush(client);
    const int left = queued(client);
    EXPECT_GT(left, 0);
    EXPECT_LT(left, 99);
    const Bytes first = socket.received();
    EXPECT_EQ(client->send_queue[client->send_head].ready, 1);
    client_send_flush(client);
    EXPECT_LT(queued(client), left) << "goes on where it stopped";
    EXPECT_EQ(socket.received().front(), client->send_queue[99 - left].data[0]);
    socket.stuff();
    const int now = queued(client);
    client_send_flush(client);
    EXPECT_EQ(queued(client), now) << "would block: all stay";
}

namespace {

// A packet of this many bytes that tells its number and holds what would be a packet of its own if it were cut.
Bytes numbered(uint16_t number, size_t size)
{
    const Bytes head = u16(number);
    Bytes       body = head;
    while (body.size() < size - 3)
        body = body + wire("30 04 00 01 'c'") + head;
    body.resize(size - 3);
    return packet(0x30, body);
}

// Queues packets for a reader that takes little and seldom, and expects that it reads exactly what was queued.
void expect_whole_packets(mqtt_client_t *client, Socket &socket, size_t size, const std::function<void()> &flush)
{
    Bytes expected, arrived;
    int   refused = 0;
    for (uint16_t i = 0; i < 400; ++i) {
        const Bytes bytes = numbered(i, size);
        if (send(client, bytes) == 0)
            expected = std::move(expected) + bytes;
        else
            ++refused;
        flush();
        if (i % 3 == 0)
            arrived = std::move(arrived) + socket.some(1 + i * 7 % size);
    }
    EXPECT_TRUE(eventually([&] {
        flush();
        arrived = std::move(arrived) + socket.received();
        return queued(client) == 0;
    }));
    arrived = std::move(arrived) + socket.received();
    EXPECT_TRUE(arrived == expected) << size << ": " << arrived.size() << " of " << expected.size() << " bytes";
    EXPECT_GT(refused, 0) << "whole packets are lost";
}

} // namespace

TEST(client_send_flush, a_reader_that_stalls_reads_whole_packets)
{
    const Manager manager;
    for (const size_t size : {300u, 1000u, 4000u}) {
        mqtt_client_t *const client = log_in(1, "dev1");
        Socket               socket(1, 4608);
        expect_whole_packets(client, socket, size, [client] { client_send_flush(client); });
        client_close(client);
    }
}

TEST(client_send_flush, a_reader_of_an_own_records_packets_that_stalls_reads_whole_ones)
{
    for (const size_t size : {300u, 1000u, 4000u}) {
        OwnRecord own(1);
        Socket    socket(1, 4608);
        expect_whole_packets(own.get(), socket, size, [&] { client_send_flush(own.get()); });
    }
}

TEST(client_send_flush, whoever_flushes_a_reader_that_stalls_reads_whole_packets)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1, 4608);
    std::atomic<bool>    done{false};
    std::thread          other([&] {
        while (!done)
            client_send_flush(client);
    });
    mqtt_start_send_thread();
    expect_whole_packets(client, socket, 4000, [client] { client_send_flush(client); });
    done = true;
    other.join();
}

namespace {

// Queues two packets of 4000 bytes, numbered 1 and 2, and sends until the one in front has been sent in part.
void send_in_part(mqtt_client_t *client, Socket &socket)
{
    socket.stuff();
    EXPECT_EQ(send(client, numbered(1, 4000)), 0u);
    EXPECT_EQ(send(client, numbered(2, 4000)), 0u);
    client_send_flush(client);
    EXPECT_EQ(queued(client), 2);
    for (int i = 0; i < 100 && net::side_of(1).half_sent.packet == nullptr; ++i) {
        socket.unstuff(512);
        client_send_flush(client);
    }
    ASSERT_EQ(net::side_of(1).half_sent.packet, client->send_queue[client->send_head].data);
}

} // namespace

TEST(client_send_flush, a_packet_leaves_the_ring_with_its_last_byte)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1, 4608);
    send_in_part(client, socket);
    const auto                number = static_cast<uint16_t>(3 - queued(client)); // of the packet in front
    const client_send_slot_t &slot   = client->send_queue[client->send_head];
    EXPECT_EQ(slot.ready, 1);
    EXPECT_EQ(slot.length, 4000);
    EXPECT_EQ(Bytes(slot.data, slot.data + 4000), numbered(number, 4000)) << "whole, as it was queued";
    socket.unstuff();
    Bytes arrived = socket.received();
    EXPECT_LT(arrived.size(), 4000u * number);
    while (queued(client) != 0) {
        client_send_flush(client);
        arrived = std::move(arrived) + socket.received();
    }
    EXPECT_EQ(arrived, numbered(1, 4000) + numbered(2, 4000));
}

TEST(client_send_flush, the_next_client_of_a_slot_and_handle_is_sent_whole_packets)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    uint8_t              place  = 0;
    {
        Socket socket(1, 4608);
        send_in_part(client, socket);
        place = client->send_head;
        client_close(client);
    }
    ASSERT_EQ(log_in(1, "dev2"), client);
    Socket socket(1);
    client->send_head = place;
    client->send_tail = place;
    send(client, numbered(3, 4000)); // at the same place in the same ring
    client_send_flush(client);
    EXPECT_EQ(socket.received(), numbered(3, 4000));
}

TEST(client_send_flush, a_disconnect_does_not_come_inside_a_packet)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1, 4608);
    send_in_part(client, socket);
    end_with_disconnect(*client);
    send(client, wire("E0 00"));
    client_send_flush(client);
    socket.unstuff();
    Bytes arrived;
    while (queued(client) != 0) {
        arrived = std::move(arrived) + socket.received();
        client_send_flush(client);
    }
    EXPECT_EQ(arrived + socket.received(), numbered(1, 4000) + numbered(2, 4000) + wire("E0 00"));
}

TEST(end_with_disconnect, nothing_is_sent_behind_it)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    end_with_disconnect(*client);
    EXPECT_EQ(send(client, wire("D0 00")), 0u);
    EXPECT_EQ(send(client, wire("E0 00")), 0u);
    EXPECT_EQ(send(client, wire("30 03 00 01 'w'")), 0u);
    EXPECT_EQ(send(client, wire("E0 00")), 0u);
    EXPECT_EQ(g_mqtt_stats.pkt_tx, 4u);
    mqtt_start_send_thread();
    client_send_flush(client);
    EXPECT_EQ(hex(socket.wait_for(4)), "D0 00 E0 00");
    usleep(30000);
    EXPECT_THAT(socket.received(), IsEmpty());
    EXPECT_EQ(queued(client), 2);
}

TEST(end_with_disconnect, ends_with_the_record)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    end_with_disconnect(*client);
    send(client, wire("E0 00"));
    client_close(client);
    ASSERT_EQ(log_in(1, "dev2"), client);
    Socket socket(1);
    send(client, wire("E0 00"));
    send(client, wire("D0 00"));
    client_send_flush(client);
    EXPECT_EQ(hex(socket.received()), "E0 00 D0 00");
}

TEST(end_with_disconnect, a_disconnect_alone_ends_nothing)
{
    OwnRecord own(3);
    Socket    socket(3);
    end_with_disconnect(*own.get()); // no guard for it
    send(own.get(), wire("E0 00"));
    send(own.get(), wire("D0 00"));
    client_send_flush(own.get());
    EXPECT_EQ(hex(socket.received()), "E0 00 D0 00");
}

TEST(flush_ring, is_one_at_a_time)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    send(client, {1});
    client::side_at(0).flushing = 1;
    EXPECT_EQ(client::flush_ring(*client, true), client::Flushed::Busy);
    EXPECT_THAT(socket.received(), IsEmpty());
    client::side_at(0).flushing = 0;
    EXPECT_EQ(client::flush_ring(*client, true), client::Flushed::Drained);
    EXPECT_EQ(client::flush_ring(*client, true), client::Flushed::Drained);
    EXPECT_EQ(hex(socket.received()), "01");
}

TEST(flush_ring, leaves_clients_alone_that_are_not_online)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    send(client, {1});
    client->state = CLIENT_WILL_PENDING;
    EXPECT_EQ(client::flush_ring(*client, true), client::Flushed::Drained);
    EXPECT_EQ(queued(client), 1);
    EXPECT_THAT(socket.received(), IsEmpty());
}

TEST(flush_ring, leaves_the_ring_to_the_thread_that_sends_from_it)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    send(client, {42});
    client_send_slot_t *const ring = client->send_queue;
    client::side_at(0).flushing    = 1; // as if one were inside the system call
    client::drop_ring(*client);
    EXPECT_EQ(client->send_queue, nullptr);
    EXPECT_EQ(ring[0].data[0], 42) << "not given back under its reader";
    client::side_at(0).flushing = 0;
    client::free_ring(*client, ring);
    EXPECT_EQ(ring[0].data[0], 0);
}

TEST(trim_ring, gives_back_no_pages_that_are_being_sent)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    send(client, {42});
    ScopedLock lock(client->send_lock);
    client::side_at(0).flushing = 1;
    client::trim_ring(*client);
    EXPECT_EQ(client->send_queue[0].data[0], 42);
    client::side_at(0).flushing = 0;
    client::trim_ring(*client);
    EXPECT_EQ(client->send_queue[0].data[0], 0);
}
