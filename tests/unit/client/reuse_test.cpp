// A handle goes to the next connection while another thread is still closing its last client: the network layer lets go
// of a slot as soon as the disconnect was told, and closing may take as long as files and the host's callbacks take.
#include "client_fixture.h"

#include <atomic>
#include <thread>

using namespace tarn;
using namespace tarn::test;

namespace {

// A running layer whose next connections all get handle 0.
struct Reuse : testing::Test {
    Manager                      manager;
    std::vector<mqtt_client_t *> receivers; // of each packet
    std::atomic<int>             packets{0};
    std::atomic<bool>            may_go_on{false};
    std::atomic<bool>            in_closing{false};

    void SetUp() override
    {
        g_calls.on_packet = [this](mqtt_client_t &client, const Bytes &) {
            if (receivers.empty()) {
                client_set_cid(&client, "dev1");
                client.session_expiry_interval = 60;
                EXPECT_TRUE(mark_logged_in(client));
            }
            receivers.push_back(&client);
            ++packets;
            return 0;
        };
        g_calls.on_mark = [this] { // the file of the session is being written
            in_closing = true;
            EXPECT_TRUE(eventually([this] { return may_go_on.load(); }));
        };
        ASSERT_EQ(netip_init(mqtt_netip_event_cb, nullptr, 1), 0u);
    }
    void TearDown() override { netip_deinit(); }

    void say(const TcpPeer &peer)
    {
        const int before = packets;
        peer.send(wire("C0 00"));
        ASSERT_TRUE(eventually([&] { return packets == before + 1; }));
    }
    static void choose_handle_0()
    {
        ASSERT_TRUE(eventually([] { return peek(g_netip_clients[0].in_use) == 0; }));
        ScopedLock lock(g_netip_lock);
        g_last_handle = 0;
    }
};

} // namespace

TEST_F(Reuse, the_next_connection_is_a_client_of_its_own)
{
    auto first = std::make_unique<TcpPeer>();
    say(*first);
    mqtt_client_t *const old = receivers[0];
    ASSERT_EQ(old->handle, 0u);

    std::thread closer([&] { client_close(old); }); // a kick, say
    ASSERT_TRUE(eventually([&] { return in_closing.load(); }));
    first.reset();
    choose_handle_0();

    TcpPeer next;
    say(next);
    EXPECT_EQ(g_netip_clients[0].in_use, 1);
    EXPECT_NE(receivers[1], old) << "its packets are not the old client's";
    EXPECT_EQ(client_find_by_handle(0), receivers[1]);

    ASSERT_EQ(peek(old->state), uint32_t{CLIENT_LOGINED});
    EXPECT_EQ(send(old, wire("40 02 00 07")), 0u);
    client_send_flush(old);
    EXPECT_EQ(send(receivers[1], wire("D0 00")), 0u);
    client_send_flush(receivers[1]);
    EXPECT_EQ(hex(next.wait_for(2)), "D0 00") << "nor are the old client's packets its own";

    may_go_on = true;
    closer.join();
    EXPECT_EQ(old->used, 0);
    EXPECT_EQ(client_find_by_handle(0), receivers[1]);
    say(next);
    EXPECT_EQ(receivers[2], receivers[1]);
    EXPECT_EQ(peek(g_netip_clients[0].in_use), 1) << "and it stays connected";
}

TEST_F(Reuse, a_connection_that_is_closed_from_above_takes_its_client_along)
{
    TcpPeer peer;
    say(peer);
    may_go_on = true;
    EXPECT_EQ(client_find_by_handle(0), receivers[0]);
    netip_close(0); // the slot is marked free before the disconnect is told
    EXPECT_EQ(receivers[0]->used, 0);
}
