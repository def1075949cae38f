#include "client_fixture.h"
#include "support/log_lines/client.h"

#include <sys/epoll.h>

using namespace tarn;
using namespace tarn::test;

namespace {

auto *const kBroker = reinterpret_cast<broker_t *>(0x1000);

uint8_t event(uint32_t handle, uint32_t kind, const Bytes &data = {}, uint32_t reason = 3)
{
    return mqtt_netip_event_cb(handle, kind, data.empty() ? nullptr : data.data(), static_cast<uint32_t>(data.size()),
                               reason, 0, kBroker);
}

} // namespace

TEST(network_events, tells_a_new_connection_and_makes_no_record)
{
    const Manager manager;
    Socket        socket(7);
    LogCapture    log;
    EXPECT_EQ(event(7, NETIP_EVENT_CONNECTED, {}, 0), 1);
    EXPECT_THAT(log.take(), ElementsAre(info("Client connected: handle=7, ip=192.0.2.7:4321")));
    EXPECT_EQ(g_client_mgr.used_count, 0);
    EXPECT_EQ(client_get_connected_count(), 0u);
}

TEST(network_events, answers_0_when_the_connection_has_no_address)
{
    LogCapture log;
    EXPECT_EQ(event(7, NETIP_EVENT_CONNECTED, {}, 0), 0);
    EXPECT_THAT(log.take(), ElementsAre(error("Get client IP failed: handle=7")));
}

TEST(network_events, makes_the_record_with_the_first_packet)
{
    const Manager manager;
    Socket        socket(7);
    LogCapture    log(1);
    EXPECT_EQ(event(7, NETIP_EVENT_DATA, wire("C0 00")), 1);
    mqtt_client_t *const client = client_find_by_handle(7);
    ASSERT_NE(client, nullptr);
    EXPECT_STREQ(client->ip, "192.0.2.7");
    EXPECT_EQ(client->port, 4321);
    EXPECT_EQ(client->broker, kBroker);
    EXPECT_EQ(client->state, uint32_t{CLIENT_CONNECTED});
    EXPECT_EQ(event(7, NETIP_EVENT_DATA, wire("E0 00")), 1);
    EXPECT_EQ(client_find_by_handle(7), client);
    EXPECT_EQ(g_client_mgr.used_count, 1);
    EXPECT_THAT(take_calls(), ElementsAre("packet_dispatch C0 00", "packet_dispatch E0 00"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(network_events, makes_a_record_without_an_address_too)
{
    const Manager manager;
    EXPECT_EQ(event(7, NETIP_EVENT_DATA, wire("C0 00")), 1);
    EXPECT_STREQ(client_find_by_handle(7)->ip, "");
    EXPECT_EQ(client_find_by_handle(7)->port, 0);
}

TEST(network_events, ignores_data_without_bytes)
{
    const Manager manager;
    const uint8_t byte = 0;
    EXPECT_EQ(mqtt_netip_event_cb(7, NETIP_EVENT_DATA, nullptr, 5, 3, 0, kBroker), 1);
    EXPECT_EQ(mqtt_netip_event_cb(7, NETIP_EVENT_DATA, &byte, 0, 3, 0, kBroker), 1);
    EXPECT_EQ(g_client_mgr.used_count, 0);
    EXPECT_THAT(take_calls(), IsEmpty());
}

TEST(network_events, ignores_what_dispatch_answers_and_pins_its_client)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(7, "dev1");
    g_calls.on_packet           = [&](mqtt_client_t &receiver, const Bytes &) {
        client_close(&receiver);
        EXPECT_STREQ(client->client_id, "dev1") << "not wiped under its packet";
        return -1;
    };
    EXPECT_EQ(event(7, NETIP_EVENT_DATA, wire("C0 00")), 1);
    EXPECT_STREQ(client->client_id, "");
}

TEST(network_events, closes_the_connection_when_the_pool_is_full)
{
    const Manager manager(1);
    Socket        first(1), second(2);
    event(1, NETIP_EVENT_DATA, wire("C0 00"));
    take_calls();
    LogCapture log(2);
    EXPECT_EQ(event(2, NETIP_EVENT_DATA, wire("C0 00")), 1);
    EXPECT_THAT(log.take(), ElementsAre(logged::client_pool_full(1), logged::client_not_created(2)));
    EXPECT_TRUE(second.closed_by_broker());
    EXPECT_FALSE(first.closed_by_broker());
    EXPECT_THAT(take_calls(), IsEmpty());
}

TEST(network_events, closes_the_client_of_a_lost_connection)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(7, "dev1", 0);
    take_calls();
    LogCapture log(1);
    EXPECT_EQ(event(7, NETIP_EVENT_DISCONNECTED, {}, 0), 1);
    EXPECT_EQ(client->used, 0);
    EXPECT_THAT(take_calls(), ElementsAre("packet_handler_remove_client_subs dev1 0", "persist_remove dev1",
                                          "qos_reliable_clean_client_packets dev1"));
    EXPECT_EQ(log.lines().front(), logged::client_disconnected(7, 0, 0));
}

// As a kick on a host thread may do while the subscriptions are removed.
TEST(network_events, leaves_a_client_alone_that_was_closed_meanwhile)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(7, "dev1", 0);
    client_set_will_msg(client, "gone", text("x").data(), 1, 0, 0);
    client_set_will_enhance(client, 30, 0, 0, nullptr, nullptr, nullptr, 0);
    take_calls();
    g_calls.on_remove_subs = [&] { client_close(client); };
    event(7, NETIP_EVENT_DISCONNECTED, {}, 0);
    EXPECT_THAT(take_calls(), ElementsAre("packet_handler_remove_client_subs dev1 0", "persist_remove dev1",
                                          "packet_start_will_delay dev1 state 2"))
        << "once each";
    EXPECT_EQ(g_will_delay_client_count, 1);
}

TEST(network_events, leaves_the_subscriptions_of_a_client_that_never_logged_in)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(7, "dev1", 1);
    client->state               = CLIENT_CONNECTED;
    take_calls();
    EXPECT_EQ(event(7, NETIP_EVENT_DISCONNECTED, {}, 0), 1);
    EXPECT_EQ(client->used, 0);
    EXPECT_THAT(take_calls(), ElementsAre("qos_reliable_clean_client_packets dev1"));
}

TEST(network_events, passes_the_clean_flag_on)
{
    const Manager manager;
    log_in(7, "dev1", 1);
    take_calls();
    event(7, NETIP_EVENT_DISCONNECTED, {}, 0);
    EXPECT_EQ(take_calls().front(), "packet_handler_remove_client_subs dev1 1");
}

TEST(network_events, tells_a_lost_connection_without_a_client)
{
    const Manager manager;
    LogCapture    log;
    EXPECT_EQ(mqtt_netip_event_cb(7, NETIP_EVENT_DISCONNECTED, nullptr, 0, 2, 9, kBroker), 1);
    EXPECT_THAT(log.take(), ElementsAre(logged::client_disconnected(7, 2, 9)));
    EXPECT_EQ(event(NETIP_NO_HANDLE, NETIP_EVENT_DISCONNECTED), 1);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(network_events, tells_a_lost_connection_once_from_inside_and_once_from_above)
{
    const Manager manager;
    Socket        socket(7);
    log_in(7, "dev1");
    g_netip_cb = mqtt_netip_event_cb;
    LogCapture log(1);
    event(7, NETIP_EVENT_DISCONNECTED, {}, 0); // the I/O thread's, then the one nested in netip_close
    EXPECT_EQ(log.count(logged::client_disconnected(7, 0, 0)), 1);
    EXPECT_EQ(log.count(logged::client_disconnected(7, 2, 0)), 1);
    EXPECT_TRUE(socket.closed_by_broker());
    log.take();

    Socket               again(7);
    mqtt_client_t *const client = log_in(7, "dev1");
    client_close(client); // as a kick does
    EXPECT_EQ(log.count(logged::client_disconnected(7, 2, 0)), 1);
    EXPECT_EQ(log.count(logged::client_disconnected(7, 0, 0)), 0);
    g_netip_cb = nullptr;
}

TEST(network_events, warns_of_other_events)
{
    LogCapture log;
    EXPECT_EQ(event(7, 3), 1);
    EXPECT_EQ(event(7, 77), 1);
    EXPECT_THAT(log.take(), ElementsAre(logged::unknown_network_event(3), logged::unknown_network_event(77)));
    on_netip_send_ready(7); // does nothing
}

TEST(network_events, serves_a_tcp_client_of_the_network_layer)
{
    const Manager manager;
    ASSERT_EQ(netip_init(mqtt_netip_event_cb, kBroker, 1), 0u);
    g_calls.on_packet = [&](mqtt_client_t &client, const Bytes &packet) { // answers within the round: no send thread
        return static_cast<int>(send(&client, packet + Bytes{7}));
    };
    {
        TcpPeer peer;
        peer.send(wire("C0 00"));
        EXPECT_EQ(hex(peer.wait_for(3)), "C0 00 07");
        peer.send(wire("C0 00 E0 00"));
        EXPECT_EQ(hex(peer.wait_for(6)), "C0 00 07 E0 00 07");
        EXPECT_EQ(client_get_connected_count(), 1u);
    }
    EXPECT_TRUE(eventually([] { return peek(g_client_mgr.used_count) == 0; })) << "the peer hung up";
    netip_deinit();
}

TEST(network_events, makes_no_ghost_when_another_thread_closes_the_connection_first)
{
    const Manager            manager;
    static std::atomic<bool> delivered{false};
    const auto close_first = [](uint32_t handle, uint32_t kind, const uint8_t *data, uint32_t len, uint32_t reason,
                                uint32_t code, void *arg) {
        if (kind == NETIP_EVENT_DATA)
            netip_close(handle);
        const uint8_t result = mqtt_netip_event_cb(handle, kind, data, len, reason, code, arg);
        delivered            = delivered || kind == NETIP_EVENT_DATA;
        return result;
    };
    LogCapture log(2);
    ASSERT_EQ(netip_init(close_first, kBroker, 1), 0u);
    TcpPeer peer;
    peer.send(wire("C0 00"));
    EXPECT_TRUE(eventually([] { return delivered.load(); }));
    EXPECT_EQ(g_client_mgr.used_count, 0);
    EXPECT_THAT(take_calls(), IsEmpty()) << "not dispatched";
    EXPECT_FALSE(log.has(logged::client_not_created(0)));
    netip_deinit();
}

// The connection is closed from elsewhere after its packet was read and before its record is made.
TEST(network_events, makes_no_ghost_of_a_connection_that_was_closed_meanwhile)
{
    const Manager manager;
    LogCapture    log(2);
    EXPECT_FALSE(client::create_client(7, "", 0, kBroker, {7, 99})) << "no connection has generation 99";
    EXPECT_EQ(g_client_mgr.used_count, 0);
    EXPECT_EQ(client_find_by_handle(7), nullptr);
    EXPECT_THAT(log.take(), IsEmpty()) << "nobody's fault";
}

TEST(network_events, remembers_the_connection_of_a_record)
{
    const Manager manager;
    client_create(7, "", 0, kBroker);
    EXPECT_EQ(client::side_at(0).generation, 0u) << "no slot, no generation";
    ASSERT_EQ(netip_init(mqtt_netip_event_cb, kBroker, 1), 0u);
    std::atomic<uint32_t> generation{0};
    g_calls.on_packet = [&](mqtt_client_t &client, const Bytes &) {
        generation = client::side_of(&client)->generation;
        EXPECT_EQ(generation, net::generation_of(peek(client.handle)));
        return 0;
    };
    const TcpPeer peer;
    peer.send(wire("C0 00"));
    EXPECT_TRUE(eventually([&] { return generation != 0; }));
    netip_deinit();
}

TEST(id_list, joins_the_online_ids_in_pool_order)
{
    const Manager manager;
    char          buf[64];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(client_fill_id_list(buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "");
    log_in(9, "ab");
    log_in(8, "c");
    EXPECT_EQ(client_fill_id_list(buf, sizeof buf), 4);
    EXPECT_STREQ(buf, "ab,c");
    client_find_by_handle(9)->state = CLIENT_CONNECTED;
    EXPECT_EQ(client_fill_id_list(buf, sizeof buf), 4) << "connected counts as online";
    client_find_by_handle(8)->state = CLIENT_WILL_PENDING;
    EXPECT_EQ(client_fill_id_list(buf, sizeof buf), 2);
    EXPECT_STREQ(buf, "ab");
    client_create(7, "", 0, nullptr); // no id
    EXPECT_EQ(client_fill_id_list(buf, sizeof buf), 2);
    client_find_by_handle(9)->used = 0;
    EXPECT_EQ(client_fill_id_list(buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "");
    g_client_mgr.blocks[0].records[0].used = 1;
}

TEST(id_list, is_cut_where_the_buffer_ends)
{
    const Manager manager;
    log_in(1, "ab");
    log_in(2, "c");
    log_in(3, "d");
    const char *const expected[] = {"", "a", "ab", "ab,", "ab,c", "ab,c,", "ab,c,d", "ab,c,d"};
    for (int32_t size = 1; size <= 8; ++size) {
        char buf[16];
        memset(buf, 'x', sizeof buf);
        const std::string text = expected[size - 1];
        EXPECT_EQ(client_fill_id_list(buf, size), static_cast<int32_t>(text.size())) << size;
        EXPECT_EQ(std::string(buf), text) << size;
        EXPECT_EQ(buf[size], 'x') << "not beyond the buffer";
    }
}

TEST(id_list, needs_a_buffer)
{
    char buf[4] = "xyz";
    EXPECT_EQ(client_fill_id_list(nullptr, 4), -1);
    EXPECT_EQ(client_fill_id_list(buf, 0), -1);
    EXPECT_EQ(client_fill_id_list(buf, -1), -1);
    EXPECT_STREQ(buf, "xyz");
    EXPECT_EQ(client_fill_id_list(buf, 4), 0) << "no pool";
    EXPECT_STREQ(buf, "");
}

TEST(connected_count, counts_used_online_records)
{
    EXPECT_EQ(client_get_connected_count(), 0u);
    const Manager manager(200);
    for (uint32_t i = 0; i < 150; ++i)
        log_in(i, ("dev" + std::to_string(i)).c_str());
    EXPECT_EQ(client_get_connected_count(), 150u);
    client_find_by_handle(0)->state  = CLIENT_CONNECTED;
    client_find_by_handle(1)->state  = CLIENT_WILL_PENDING;
    client_find_by_handle(2)->state  = CLIENT_UNUSED;
    client_find_by_handle(149)->used = 0;
    EXPECT_EQ(client_get_connected_count(), 147u);
    g_client_mgr.blocks[1].records[49].used = 1;
}
