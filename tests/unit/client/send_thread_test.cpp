#include "client_fixture.h"

#include "base/clock.h"

using namespace tarn;
using namespace tarn::test;

namespace {

// A manager whose send thread runs.
struct Sending {
    Manager manager;
    Sending() { mqtt_start_send_thread(); }
};

} // namespace

TEST(send_thread, sends_what_other_threads_queue)
{
    const Sending        sending;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    for (uint8_t i = 0; i < 200; ++i) {
        ASSERT_EQ(send(client, {i}), 0u) << "one at a time: the ring never fills";
        ASSERT_EQ(socket.wait_for(1), Bytes{i});
    }
}

TEST(send_thread, is_woken_and_does_not_wait_for_its_turn)
{
    const Sending        sending;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    int                  quick = 0;
    for (uint8_t i = 0; i < 50; ++i) {
        const uint64_t start_ms = mono_ms();
        send(client, {i});
        ASSERT_EQ(socket.wait_for(1), Bytes{i});
        quick += mono_ms() - start_ms < 5;
    }
    EXPECT_GT(quick, 15) << "each comes just after a turn of 10 ms or more; a busy machine may be slow at some";
}

TEST(send_thread, sends_what_was_queued_before_it_started)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    send(client, wire("D0 00"));
    mqtt_start_send_thread();
    EXPECT_EQ(hex(socket.wait_for(2)), "D0 00");
}

TEST(send_thread, goes_on_when_the_socket_has_room_again)
{
    const Sending        sending;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    socket.stuff();
    for (uint8_t i = 0; i < 99; ++i)
        ASSERT_EQ(send(client, {i}), 0u);
    EXPECT_EQ(queued(client), 99);
    socket.unstuff();
    EXPECT_THAT(socket.wait_for(99), SizeIs(99));
    EXPECT_TRUE(eventually([&] { return queued(client) == 0; }));
}

TEST(send_thread, passes_over_clients_that_are_not_online)
{
    const Sending        sending;
    mqtt_client_t *const waiting = log_in(1, "dev1");
    mqtt_client_t *const online  = log_in(2, "dev2");
    Socket               first(1), second(2);
    first.stuff();
    send(waiting, wire("D0 00"));
    waiting->state = CLIENT_WILL_PENDING;
    first.unstuff();
    send(online, wire("D0 00"));
    EXPECT_EQ(hex(second.wait_for(2)), "D0 00");
    usleep(30000);
    EXPECT_THAT(first.received(), IsEmpty());
    EXPECT_EQ(queued(waiting), 1);
}

TEST(send_thread, finds_a_ring_that_was_filled_by_hand)
{
    const Sending        sending;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    {
        ScopedLock  lock(client->send_lock);
        auto *const ring   = static_cast<client_send_slot_t *>(calloc(100, sizeof(client_send_slot_t)));
        ring[0].data[0]    = 0xD0;
        ring[0].length     = 2;
        ring[0].ready      = 1;
        client->send_queue = ring;
        client->send_tail  = 1;
    }
    EXPECT_EQ(hex(socket.wait_for(2)), "D0 00");
}

TEST(send_thread, keeps_trying_a_client_without_a_connection)
{
    const Sending        sending;
    mqtt_client_t *const client = log_in(1, "dev1");
    send(client, wire("D0 00"));
    usleep(300000); // long enough to be put off
    EXPECT_EQ(queued(client), 1);
    Socket socket(1);
    EXPECT_EQ(hex(socket.wait_for(2)), "D0 00");
}

TEST(send_thread, serves_a_planted_block_too)
{
    auto                records    = std::make_unique<mqtt_client_t[]>(100);
    Shared<uint8_t>     flags[100] = {};
    client_pool_block_t block{records.get(), flags, 1, 100};
    g_client_mgr.blocks      = &block;
    g_client_mgr.block_count = 1;
    flags[3]                 = 1;
    mqtt_client_t &client    = records[3];
    client.used              = 1;
    client.handle            = 5;
    client.max_packet_size   = 10;
    client.state             = CLIENT_CONNECTED;
    Socket socket(5);
    mqtt_start_send_thread();
    send(&client, wire("D0 00"));
    EXPECT_EQ(hex(socket.wait_for(2)), "D0 00");
    mqtt_stop_send_thread();
    g_client_mgr.blocks      = nullptr;
    g_client_mgr.block_count = 0;
    free(client.send_queue);
}

TEST(send_thread, is_idle_when_there_is_nothing_to_send)
{
    const Sending sending;
    for (uint32_t i = 0; i < 100; ++i)
        send(log_in(i, ("dev" + std::to_string(i)).c_str()), wire("D0 00")); // no sockets: all are put off
    usleep(300000);
    timespec  before, after;
    clockid_t clock;
    ASSERT_EQ(pthread_getcpuclockid(g_send_thread, &clock), 0);
    clock_gettime(clock, &before);
    usleep(1000000);
    clock_gettime(clock, &after);
    const int64_t used_us = (after.tv_sec - before.tv_sec) * 1000000 + (after.tv_nsec - before.tv_nsec) / 1000;
#ifdef TARN_SANITIZED
    EXPECT_LT(used_us, 100000);
#else
    EXPECT_LT(used_us, 10000) << "1 % of a core";
#endif
}
