// What rings cost, and that their packets are where `send_queue` says, whatever they were lent.
#include "client_fixture.h"
#include "support/process_state.h"

#include <deque>
#include <unistd.h>

using namespace tarn;
using namespace tarn::test;

namespace {

constexpr int kKept = 128; // rings that keep what they were lent

const uint8_t *first_byte(const mqtt_client_t *client, int slot)
{
    return client->send_queue[slot].data;
}

void send_and_flush(mqtt_client_t *client, const Bytes &packet)
{
    ASSERT_EQ(send(client, packet), 0u);
    ASSERT_EQ(client::flush_ring(*client, true), client::Flushed::Drained);
}

bool reads_as_zero(const mqtt_client_t *client)
{
    for (int i = 0; i < CLIENT_SEND_SLOTS; ++i)
        if (client->send_queue[i].data[0] != 0 || client->send_queue[i].length != 0 || client->send_queue[i].ready != 0)
            return false;
    return true;
}

// Clients that have packets in their rings, so that all loans that rings may keep are out.
void take_all_that_is_kept(uint32_t first_handle)
{
    for (uint32_t i = 0; i < kKept; ++i)
        ASSERT_EQ(send(log_in(first_handle + i, ("keeps" + std::to_string(i)).c_str()), {1}), 0u);
}

} // namespace

TEST(ring_loans, keep_the_last_packet_where_it_was)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    for (int i = 0; i < 1000; ++i) {
        send_and_flush(client, {static_cast<uint8_t>(i % 251), 0});
        EXPECT_EQ(socket.received(), (Bytes{static_cast<uint8_t>(i % 251), 0}));
        ASSERT_EQ(*first_byte(client, i % CLIENT_SEND_SLOTS), i % 251);
        ASSERT_EQ(client->send_queue[i % CLIENT_SEND_SLOTS].length, 2);
        ASSERT_EQ(client->send_queue[i % CLIENT_SEND_SLOTS].ready, 0);
    }
}

TEST(ring_loans, show_all_packets_of_a_ring_that_is_not_empty)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    auto                 socket = std::make_unique<Socket>(1);
    for (int i = 0; i < 60; ++i)
        send_and_flush(client, {1});
    socket.reset(); // nothing leaves from here on
    for (uint8_t i = 0; i < 99; ++i)
        ASSERT_EQ(send(client, {i}), 0u);
    EXPECT_EQ(send(client, {99}), client::kFailed) << "99 packets fill it, wherever they begin";
    for (int i = 0; i < 99; ++i) {
        const int slot = (60 + i) % CLIENT_SEND_SLOTS;
        ASSERT_EQ(*first_byte(client, slot), i);
        ASSERT_EQ(client->send_queue[slot].ready, 1);
    }
}

TEST(ring_loans, are_given_back_with_the_last_packet_when_many_are_out)
{
    const Manager manager(200);
    take_all_that_is_kept(10);
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    for (uint8_t i = 1; i <= 3; ++i)
        ASSERT_EQ(send(client, {i}), 0u);
    EXPECT_EQ(*first_byte(client, 2), 3);
    EXPECT_EQ(client::flush_ring(*client, true), client::Flushed::Drained);
    EXPECT_EQ(socket.received(), (Bytes{1, 2, 3}));
    ASSERT_NE(client->send_queue, nullptr);
    EXPECT_TRUE(reads_as_zero(client));
    EXPECT_EQ(client->send_head, 3) << "the places stay";
    EXPECT_EQ(client->send_tail, 3);
    send_and_flush(client, {4});
    EXPECT_EQ(socket.received(), Bytes{4});
}

TEST(ring_loans, are_taken_from_rings_that_rest)
{
    const Manager        manager;
    mqtt_client_t *const rests = log_in(1, "dev1");
    mqtt_client_t *const waits = log_in(2, "dev2");
    Socket               socket(1);
    send_and_flush(rests, {7});
    ASSERT_EQ(send(waits, {8}), 0u);
    client::give_back_unused_rings();
    EXPECT_EQ(*first_byte(rests, 0), 7) << "it may have been sent just now";
    client::give_back_unused_rings();
    EXPECT_TRUE(reads_as_zero(rests));
    EXPECT_EQ(rests->send_head, 1);
    EXPECT_EQ(*first_byte(waits, 0), 8);
    EXPECT_EQ(waits->send_queue[0].ready, 1);
    send_and_flush(rests, {9});
    EXPECT_EQ(socket.received(), (Bytes{7, 9}));
}

TEST(ring_loans, are_not_taken_from_a_ring_that_is_being_sent)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    send_and_flush(client, {7});
    client::side_at(0).flushing = 1;
    for (int look = 0; look < 3; ++look)
        client::give_back_unused_rings();
    EXPECT_EQ(*first_byte(client, 0), 7);
    client::side_at(0).flushing = 0;
    client::give_back_unused_rings();
    EXPECT_TRUE(reads_as_zero(client));
}

TEST(ring_loans, of_a_client_that_left_show_the_next_one_no_packet_that_is_ready)
{
    const Manager manager;
    for (int round = 0; round < 3; ++round) {
        mqtt_client_t *const client = log_in(1, "dev1");
        for (uint8_t i = 1; i <= 50; ++i)
            ASSERT_EQ(send(client, {i}), 0u);
        for (int slot = 50; slot < CLIENT_SEND_SLOTS; ++slot)
            ASSERT_EQ(client->send_queue[slot].ready, 0);
        client_close(client);
        EXPECT_EQ(client->send_queue, nullptr);
    }
}

TEST(ring_loans, leave_a_ring_alone_that_the_client_brought_along)
{
    const Manager             manager;
    mqtt_client_t *const      client = log_in(1, "dev1");
    client_send_slot_t *const ring   = static_cast<client_send_slot_t *>(calloc(100, sizeof(client_send_slot_t)));
    Socket                    socket(1);
    client->send_queue = ring;
    send_and_flush(client, {7});
    EXPECT_EQ(client->send_queue, ring);
    EXPECT_EQ(ring[0].data[0], 7);
}

TEST(ring_loans, are_replaced_by_the_ring_itself_where_no_memory_is_promised)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    g_calls.memory_fails_after  = 1; // the rings are reserved, the loans are not
    Socket socket(1);
    send_and_flush(client, {7});
    g_calls.memory_fails_after = -1;
    EXPECT_EQ(*first_byte(client, 0), 7);
    send_and_flush(client, {8});
    EXPECT_EQ(socket.received(), (Bytes{7, 8}));
    EXPECT_EQ(*first_byte(client, 1), 8);
}

#ifndef TARN_SANITIZED
TEST(ring_loans, cost_few_pages_for_many_clients_and_packets)
{
    constexpr uint32_t kClients = 1000;
    const LogCapture   quiet(4);
    const Manager      manager(kClients);
    for (uint32_t i = 0; i < kClients; ++i) {
        log_in(i, ("dev" + std::to_string(i)).c_str());
        const Socket slot_written(i);
    }
    const size_t before = resident_bytes(getpid());
    for (uint32_t i = 0; i < kClients; ++i) {
        mqtt_client_t *const client = client_find_by_handle(i);
        Socket               socket(i);
        for (int packet = 0; packet < 300; ++packet) {
            send_and_flush(client, {0xD0, 0});
            socket.drain();
        }
    }
    const size_t page  = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t grown = resident_bytes(getpid()) - before;
    EXPECT_LT(grown, kKept * 10 * page + (2 << 20)) << "those that may be kept; rings of their own would be 400 MB";

    client::give_back_unused_rings(); // sees who has packets
    client::give_back_unused_rings(); // and who had none since
    client::give_back_unused_rings(); // and what was not lent again
    EXPECT_LT(resident_bytes(getpid()), before + (2 << 20));
}
#endif

// Rings as they should be beside rings as they are: whatever is sent, flushed, blocked, closed and given back.
TEST(ring_loans, keep_every_ring_in_order)
{
    constexpr uint32_t                   kClients = 150;
    const LogCapture                     quiet(4);
    const Manager                        manager(kClients);
    std::vector<std::deque<uint8_t>>     expected(kClients);
    std::vector<std::unique_ptr<Socket>> sockets(kClients);
    uint32_t                             seed   = 1;
    const auto                           random = [&seed](uint32_t below) {
        seed = seed * 1664525 + 1013904223;
        return (seed >> 16) % below;
    };
    for (uint32_t i = 0; i < kClients; ++i)
        log_in(i, ("dev" + std::to_string(i)).c_str());
    for (int step = 0; step < 20000; ++step) {
        const uint32_t       at     = random(kClients);
        mqtt_client_t *const client = client_find_by_handle(at);
        switch (random(8)) {
        case 0: // all leaves
            if (!sockets[at])
                sockets[at] = std::make_unique<Socket>(at);
            ASSERT_EQ(client::flush_ring(*client, true), client::Flushed::Drained);
            ASSERT_EQ(sockets[at]->received(), Bytes(expected[at].begin(), expected[at].end()));
            expected[at].clear();
            break;
        case 1:
            if (random(10) == 0)
                client::give_back_unused_rings();
            break;
        default:
            if (expected[at].size() < 99) {
                expected[at].push_back(static_cast<uint8_t>(random(256)));
                ASSERT_EQ(send(client, {expected[at].back()}), 0u);
            }
        }
        ASSERT_EQ(queued(client), static_cast<int>(expected[at].size()));
        for (size_t i = 0; i < expected[at].size(); ++i)
            ASSERT_EQ(*first_byte(client, (client->send_head + static_cast<int>(i)) % CLIENT_SEND_SLOTS),
                      expected[at][i]);
    }
}
