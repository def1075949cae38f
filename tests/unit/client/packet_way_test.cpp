// Which packets go to a lane, and when a client is found by its new id.
#include "client_fixture.h"
#include "client/packet_scope.h"
#include "net/netip_internal.h"

#include <atomic>
#include <memory>
#include <thread>

using namespace tarn;
using namespace tarn::test;
using client::way_of;
using net::Choice;
using net::Connection;
using net::Way;

namespace {

const Bytes kConnect     = wire("10 10 | 00 04 'MQTT' 04 00 00 3C | 00 04 'dev1'");
const Bytes kSubscribe   = wire("82 06 | 00 01 | 00 01 't' 00");
const Bytes kUnsubscribe = wire("A2 05 | 00 01 | 00 01 't'");
const Bytes kDisconnect  = wire("E0 00");
const Bytes kEnd         = {};

Way way(uint32_t handle, const Bytes &packet)
{
    return way_of({handle, 0}, packet).way;
}

uint32_t group(uint32_t handle, const Bytes &packet)
{
    return way_of({handle, 0}, packet).group;
}

} // namespace

TEST(packet_way, of_a_session_that_is_kept)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1", 0);
    EXPECT_EQ(way(1, kEnd), Way::Now) << "without an expiry interval it is only deleted";
    client->session_expiry_interval = 1;
    for (const Bytes &packet : {kConnect, kSubscribe, kEnd})
        EXPECT_EQ(way(1, packet), Way::Aside) << hex(packet);
    EXPECT_EQ(way(1, kDisconnect), Way::Now) << "what others send behind it finds the client gone";
    for (const char *packet : {"30 03 00 01 't'", "40 02 00 01", "62 02 00 01", "C0 00"})
        EXPECT_EQ(way(1, wire(packet)), Way::Now) << packet;
    EXPECT_EQ(way(1, kUnsubscribe), Way::Now);
    client->session_expiry_interval = 0;
    client::set_will(*client, {"t", nullptr, 0, 0, 0});
    EXPECT_EQ(way(1, kEnd), Way::Aside) << "a will saves the session";
}

TEST(packet_way, of_a_clean_session)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1", 1);
    EXPECT_EQ(way(1, kConnect), Way::Aside);
    for (const Bytes &packet : {kSubscribe, kUnsubscribe, kDisconnect, kEnd})
        EXPECT_EQ(way(1, packet), Way::Now) << hex(packet);
    client::set_will(*client, {"t", nullptr, 0, 0, 0});
    EXPECT_EQ(way(1, kEnd), Way::Now) << "a will is routed like a publication";
}

TEST(packet_way, without_a_record)
{
    const Manager manager;
    for (const Bytes &packet : {kConnect, kSubscribe})
        EXPECT_EQ(way(1, packet), Way::Aside) << hex(packet);
    for (const Bytes &packet : {kDisconnect, kEnd})
        EXPECT_EQ(way(1, packet), Way::Now) << "nothing to save";
    EXPECT_EQ(way(1, wire("30 03 00 01 't'")), Way::Now);
}

TEST(packet_way, packets_of_one_id_are_one_group)
{
    const Manager manager;
    log_in(1, "dev1", 0)->session_expiry_interval = 1;
    log_in(2, "dev2", 0)->session_expiry_interval = 1;
    const uint32_t of_dev1                        = group(7, kConnect);
    EXPECT_NE(of_dev1, 0u);
    for (const Bytes &packet : {kSubscribe, kEnd}) {
        EXPECT_EQ(group(1, packet), of_dev1) << hex(packet);
        EXPECT_NE(group(2, packet), of_dev1) << hex(packet);
    }
    const Bytes without_id = wire("10 0C | 00 04 'MQTT' 04 02 00 3C | 00 00");
    EXPECT_NE(group(8, without_id), 0u) << "made-up ids may be alike";
    EXPECT_EQ(group(8, without_id), group(9, without_id));
    EXPECT_EQ(group(8, kSubscribe), 0u) << "no client yet";
}

TEST(packet_way, an_id_counts_as_far_as_a_record_keeps_it)
{
    const Manager     manager;
    const std::string long_id(63, 'x');
    log_in(1, long_id.c_str(), 0);
    const Bytes rest    = wire("00 04 'MQTT' 05 00 00 3C | 00 | 00 41") + repeat('x', 63) + wire("'yz'");
    const Bytes connect = packet(0x10, rest);
    EXPECT_EQ(group(2, connect), group(1, kSubscribe));
}

TEST(packet_way, the_network_layer_asks)
{
    EXPECT_EQ(client::kAskedTypes, 1 << 1 | 1 << 8 | 1 << 14);
}

// A host may have put a record of its own into the tables.
TEST(packet_scope, of_a_record_outside_the_pool_saves_at_once)
{
    const Manager             manager;
    const auto                own = std::make_unique<mqtt_client_t>();
    const client_ref          pin(own.get());
    const client::PacketScope scope(pin);
    ASSERT_NE(persist::SaveBehind::of_this_thread(), nullptr);
    EXPECT_EQ(persist::SaveBehind::of_this_thread()->waiter(), nullptr);
    EXPECT_FALSE(client::has_held_answers(*own));
}

// ---- found by a new id

TEST(new_id, is_looked_up_from_its_first_packet_on)
{
    const Manager        manager;
    Socket               socket(1);
    mqtt_client_t *const client = client_create(1, "127.0.0.1", 5, nullptr);
    client::take_id(*client, "dev1");
    EXPECT_STREQ(client->client_id, "dev1");
    EXPECT_FALSE(find_client_by_id("dev1"));
    ASSERT_TRUE(mark_logged_in(*client));
    EXPECT_EQ(client::send_first(*client, {Bytes{1, 2}}), 0u);
    EXPECT_EQ(find_client_by_id("dev1").get(), client);
    mqtt_start_send_thread();
    EXPECT_EQ(hex(socket.wait_for(2)), "01 02");
}

TEST(new_id, without_a_packet)
{
    const Manager        manager;
    mqtt_client_t *const client = client_create(1, "127.0.0.1", 5, nullptr);
    client::take_id(*client, "dev1");
    client::be_found(*client, CLIENT_CONNECTED);
    EXPECT_EQ(find_client_by_id("dev1").get(), client);
}

TEST(new_id, of_a_client_closed_meanwhile_is_not_found)
{
    const Manager        manager;
    Socket               socket(1);
    mqtt_client_t *const client = client_create(1, "127.0.0.1", 5, nullptr);
    const client_ref     pin(client);
    client::take_id(*client, "dev1");
    ASSERT_TRUE(mark_logged_in(*client));
    client_close(client);
    EXPECT_NE(client::send_first(*client, {Bytes{1, 2}}), 0u);
    client::be_found(*client, CLIENT_LOGINED);
    EXPECT_FALSE(find_client_by_id("dev1"));
}

TEST(new_id, nothing_that_others_send_to_it_comes_first)
{
    for (int round = 0; round < 50; ++round) {
        const Manager        manager;
        Socket               socket(1);
        mqtt_client_t *const client = client_create(1, "127.0.0.1", 5, nullptr);
        std::atomic<bool>    sent{false};
        std::thread          other([&] {
            while (!sent)
                if (const client_ref found = find_client_by_id("dev1")) {
                    EXPECT_EQ(send_to(*found, {Bytes{9}}), 0u);
                    sent = true;
                }
        });
        client::take_id(*client, "dev1");
        ASSERT_TRUE(mark_logged_in(*client));
        EXPECT_EQ(client::send_first(*client, {Bytes{1}}), 0u);
        other.join();
        flush_client(*client);
        EXPECT_EQ(hex(socket.wait_for(2)), "01 09");
    }
}
