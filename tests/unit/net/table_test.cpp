#include "net_fixture.h"
#include "support/faults.h"

#include <netinet/tcp.h>
#include <sys/mman.h>

using namespace tarn;
using namespace tarn::net;
using namespace tarn::test;
using testing::Each;

namespace {

void use(uint32_t from, uint32_t end)
{
    for (uint32_t handle = from; handle < end; ++handle)
        g_netip_clients[handle].in_use = 1;
}

int option(int fd, int level, int name)
{
    int       value  = -1;
    socklen_t length = sizeof value;
    getsockopt(fd, level, name, &value, &length);
    return value;
}

} // namespace

TEST(globals, before_the_first_start)
{
    EXPECT_EQ(g_io_thread_num, 1);
    EXPECT_EQ(g_io_threads, nullptr);
    EXPECT_EQ(g_netip_tcp_listen, -1);
    EXPECT_EQ(g_netip_udp, -1);
    EXPECT_EQ(netip_epoll_fd, -1);
    EXPECT_EQ(g_netip_running, 0);
    EXPECT_EQ(g_last_handle, 0u);
    EXPECT_EQ(g_netip_cb, nullptr);
    EXPECT_FALSE(is_up());
}

TEST(globals, the_table_lock_may_be_taken_twice_by_its_holder)
{
    ScopedLock lock(g_netip_lock);
    EXPECT_EQ(pthread_mutex_trylock(&g_netip_lock.raw), 0);
    pthread_mutex_unlock(&g_netip_lock.raw);
}

TEST(free_handle, goes_round_before_it_comes_back)
{
    for (uint32_t expected = 0; expected < 10; ++expected) {
        ASSERT_EQ(netip_get_free_handle(), expected);
        g_netip_clients[expected].in_use = 1;
    }
    g_netip_clients[3].in_use = 0;
    EXPECT_EQ(netip_get_free_handle(), 10u);
    EXPECT_EQ(g_last_handle, 11u);
    use(10, 11000);
    EXPECT_EQ(netip_get_free_handle(), 3u);
    EXPECT_EQ(g_last_handle, 4u);
}

TEST(free_handle, the_last_slot_then_the_first)
{
    g_last_handle = 10999;
    EXPECT_EQ(netip_get_free_handle(), 10999u);
    EXPECT_EQ(g_last_handle, 11000u);
    EXPECT_EQ(netip_get_free_handle(), 0u);
    EXPECT_EQ(g_last_handle, 1u);
}

TEST(free_handle, a_full_table_gives_none_and_moves_nothing)
{
    use(0, 11000);
    for (const uint32_t last : {0u, 1u, 5000u, 10999u, 11000u, 0xFFFFFFFFu}) {
        g_last_handle = last;
        EXPECT_EQ(netip_get_free_handle(), 0xFFFFFFFFu) << last;
        EXPECT_EQ(g_last_handle, last);
    }
}

TEST(free_handle, the_only_free_slot_is_found_from_anywhere)
{
    use(0, 11000);
    g_netip_clients[77].in_use = 0;
    for (const uint32_t last : {0u, 76u, 77u, 78u, 10999u, 11000u, 70000u}) {
        g_last_handle = last;
        EXPECT_EQ(netip_get_free_handle(), 77u) << last;
        EXPECT_EQ(g_last_handle, 78u);
    }
}

TEST(free_handle, a_slot_that_is_still_being_closed_waits_its_turn)
{
    HandmadeSlot connection(0);
    {
        const SlotPin hold({0, 0});
        ASSERT_TRUE(hold);
        netip_close(0);
        EXPECT_EQ(connection.slot().in_use, 0);
        EXPECT_EQ(netip_get_free_handle(), 1u);
    }
    g_last_handle = 0;
    EXPECT_EQ(netip_get_free_handle(), 0u);
}

TEST(client_ip, needs_room_for_any_address)
{
    const HandmadeSlot connection(7);
    std::string        text(64, '#');
    EXPECT_EQ(netip_get_client_ip(7, text.data(), 15), 0);
    EXPECT_EQ(netip_get_client_ip(11000, text.data(), 15), 0);
    EXPECT_THAT(text, Each('#'));
    EXPECT_EQ(netip_get_client_ip(7, nullptr, 64), 0);
    EXPECT_EQ(netip_get_client_ip(7, text.data(), 16), 1);
    EXPECT_EQ(text, std::string("10.20.30.40") + '\0' + std::string(52, '#'));
}

TEST(client_ip, of_an_unknown_handle_is_zero_filled)
{
    for (const uint32_t handle : {8u, 10999u, 11000u, 0xFFFFFFFFu}) {
        std::string text(20, '#');
        EXPECT_EQ(netip_get_client_ip(handle, text.data(), 17), 0);
        std::string zeroed(20, '#');
        zeroed.replace(0, 17, 17, '\0');
        EXPECT_EQ(text, zeroed) << handle;
    }
}

TEST(client_ip, is_cut_to_the_buffer_and_never_read_past_its_array)
{
    const HandmadeSlot connection(7);
    memset(connection.slot().ip, 'x', 64);
    std::string text(100, '#');
    EXPECT_EQ(netip_get_client_ip(7, text.data(), 20), 1);
    EXPECT_STREQ(text.c_str(), std::string(19, 'x').c_str());
    EXPECT_EQ(netip_get_client_ip(7, text.data(), 100), 1);
    EXPECT_STREQ(text.c_str(), std::string(64, 'x').c_str());
}

TEST(client_port, is_0_when_unknown)
{
    const HandmadeSlot connection(7);
    EXPECT_EQ(netip_get_client_port(7), 1234);
    for (const uint32_t handle : {6u, 11000u, 0xFFFFFFFFu})
        EXPECT_EQ(netip_get_client_port(handle), 0);
}

TEST(client_last_active, is_0_when_unknown)
{
    const HandmadeSlot connection(7);
    EXPECT_EQ(netip_get_client_last_active(7), 99u);
    for (const uint32_t handle : {6u, 11000u, 0xFFFFFFFFu})
        EXPECT_EQ(netip_get_client_last_active(handle), 0u);
}

TEST(keepalive, refuses_anything_below_1)
{
    const HandmadeSlot connection(7);
    EXPECT_EQ(netip_set_tcp_keepalive(7, 0, 1, 1), 0);
    EXPECT_EQ(netip_set_tcp_keepalive(7, 1, 0, 1), 0);
    EXPECT_EQ(netip_set_tcp_keepalive(7, 1, 1, 0), 0);
    EXPECT_EQ(netip_set_tcp_keepalive(7, -1, 1, 1), 0);
    EXPECT_EQ(option(connection.slot().fd, SOL_SOCKET, SO_KEEPALIVE), 0);
    EXPECT_EQ(netip_set_tcp_keepalive(7, 1, 1, 1), 1);
    EXPECT_EQ(option(connection.slot().fd, SOL_SOCKET, SO_KEEPALIVE), 1);
}

TEST(keepalive, is_for_tcp_slots_in_use)
{
    const HandmadeSlot connection(7);
    EXPECT_EQ(netip_set_tcp_keepalive(6, 1, 1, 1), 0);
    EXPECT_EQ(netip_set_tcp_keepalive(11000, 1, 1, 1), 0);
    connection.slot().type = NETIP_UDP;
    EXPECT_EQ(netip_set_tcp_keepalive(7, 1, 1, 1), 0);
}

TEST(keepalive, sets_what_was_asked)
{
    Layer layer;
    Peer  peer;
    layer.events.wait_for(1);
    EXPECT_EQ(netip_set_tcp_keepalive(0, 30, 10, 3), 1);
    const int fd = g_netip_clients[0].fd;
    EXPECT_EQ(option(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(option(fd, IPPROTO_TCP, TCP_KEEPIDLE), 30);
    EXPECT_EQ(option(fd, IPPROTO_TCP, TCP_KEEPINTVL), 10);
    EXPECT_EQ(option(fd, IPPROTO_TCP, TCP_KEEPCNT), 3);
}

TEST(send_ready_callback, is_accepted_and_ignored)
{
    netip_register_send_ready_cb([](uint32_t) { FAIL(); });
    netip_register_send_ready_cb(nullptr);
}

TEST(generation, is_0_for_free_unknown_and_handmade_slots)
{
    const HandmadeSlot connection(7);
    for (const uint32_t handle : {6u, 7u, 11000u, 0xFFFFFFFFu})
        EXPECT_EQ(generation_of(handle), 0u);
    EXPECT_TRUE(is_open({7, 0}));
    EXPECT_TRUE(is_open({6, 0})); // nothing is known about it
    EXPECT_FALSE(is_open({7, 1}));
    EXPECT_FALSE(is_open({11000, 1}));
}

TEST(generation, names_one_connection_of_a_handle)
{
    Layer    layer;
    Peer     first, second;
    uint32_t a = 0, b = 0;
    layer.events.wait_for(2);
    a = generation_of(0);
    b = generation_of(1);
    EXPECT_NE(a, 0u);
    EXPECT_NE(b, 0u);
    EXPECT_NE(a, b);
    EXPECT_TRUE(is_open({0, a}));
    EXPECT_FALSE(is_open({0, b}));
    netip_close(0);
    EXPECT_EQ(generation_of(0), 0u);
    EXPECT_FALSE(is_open({0, a}));

    {
        ScopedLock lock(g_netip_lock);
        g_last_handle = 0;
    }
    Peer third;
    layer.events.wait_for(4);
    EXPECT_GT(generation_of(0), b);
    close_connection(0, a); // late: the handle has a new owner
    EXPECT_EQ(layer.events.seen().size(), 4u);
    close_connection(0, generation_of(0));
    EXPECT_EQ(layer.events.seen().back(), disconnected(0, 2));
    EXPECT_EQ(third.end(), 0);
}

TEST(a_new_slot, is_filled_with_the_peer)
{
    ManualClock clock;
    Layer       layer;
    memset(&g_netip_clients[0].ip, 'x', 64);
    memset(&g_netip_clients[0].rx_buf, 'x', sizeof g_netip_clients[0].rx_buf);
    g_netip_clients[0].pkt_len_known = 1;
    Peer peer;
    layer.events.wait_for(1);
    SlotLock            lock(0);
    const netip_conn_t &slot = *lock;
    EXPECT_EQ(slot.handle, 0u);
    EXPECT_EQ(slot.type, unsigned{NETIP_TCP});
    EXPECT_EQ(slot.in_use, 1);
    EXPECT_EQ(slot.last_active, static_cast<uint64_t>(clock.wall_s()) * 1000);
    EXPECT_EQ(slot.peer.sin_family, AF_INET);
    EXPECT_EQ(slot.peer.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(ntohs(slot.peer.sin_port), peer.port());
    EXPECT_EQ(slot.peer_len, 16u);
    EXPECT_EQ(std::string(slot.ip, 64), std::string("127.0.0.1") + std::string(55, '\0'));
    EXPECT_EQ(slot.port, peer.port());
    EXPECT_EQ(slot.rx_len, 0);
    EXPECT_EQ(slot.pkt_len, 0);
    EXPECT_EQ(slot.pkt_len_known, 0);
    EXPECT_THAT(slot.rx_buf, Each(0));
    EXPECT_EQ(option(slot.fd, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_NE(fcntl(slot.fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(slot.fd, F_GETFD) & FD_CLOEXEC, 0);
}

TEST(a_new_slot, has_had_its_memory_with_some_before_it)
{
    constexpr uint32_t kTogether = 16;
    const auto         page      = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto         is_there  = [page](uint32_t handle) {
        uint8_t there = 0;
        EXPECT_EQ(mincore(reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(&slot_of(handle)) / page * page), page,
                                   &there),
                           0);
        return (there & 1) != 0;
    };
    ScopedLock lock(g_netip_lock);
    clear_table();
    g_last_handle = 100;
    if (madvise(reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(&slot_of(50)) / page * page), page,
                MADV_POPULATE_WRITE) != 0)
        GTEST_SKIP() << "no such call here";
    EXPECT_FALSE(is_there(100 + kTogether - 1));
    const SlotPin pin(open_slot(NETIP_TCP, -1, PeerAddress{loopback()}), SlotPin::Counted);
    EXPECT_EQ(pin.handle(), 100u);
    EXPECT_TRUE(is_there(100 + kTogether - 1));
    EXPECT_FALSE(is_there(100 + 2 * kTogether)) << "what nobody uses costs nothing";
    mark_closed(pin.handle());
}

TEST(a_new_slot, shows_any_address_as_text)
{
    for (const char *const text : {"0.0.0.0", "255.255.255.255", "10.0.200.99"}) {
        PeerAddress peer{loopback()};
        ASSERT_EQ(inet_pton(AF_INET, text, &peer.address.sin_addr), 1);
        ScopedLock    lock(g_netip_lock);
        const SlotPin pin(open_slot(NETIP_TCP, -1, peer), SlotPin::Counted);
        EXPECT_EQ(std::string(pin.slot().ip, 64), text + std::string(64 - strlen(text), '\0'));
        mark_closed(pin.handle());
    }
}

TEST(clear_table, zeroes_all_and_gives_the_pages_back)
{
    memset(static_cast<void *>(g_netip_clients), 0x55, sizeof g_netip_clients);
    for (netip_conn_t &slot : g_netip_clients)
        memset(static_cast<void *>(&slot.lock), 0, sizeof slot.lock);
    const auto page           = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin          = reinterpret_cast<uintptr_t>(g_netip_clients) / page * page;
    const auto size           = sizeof g_netip_clients / page * page;
    const auto resident_pages = [&] {
        std::vector<uint8_t> pages(size / page);
        EXPECT_EQ(mincore(reinterpret_cast<void *>(begin), size, pages.data()), 0);
        return std::count_if(pages.begin(), pages.end(), [](uint8_t one) { return one & 1; });
    };
    const auto before = resident_pages();
    {
        ScopedLock lock(g_netip_lock);
        clear_table();
    }
    EXPECT_GT(before, 10000);
    EXPECT_LT(resident_pages(), before / 10);
    const auto *bytes = reinterpret_cast<const uint8_t *>(g_netip_clients);
    EXPECT_TRUE(std::all_of(bytes, bytes + sizeof g_netip_clients, [](uint8_t byte) { return byte == 0; }));
}

TEST(clear_table, leaves_a_slot_that_somebody_still_holds)
{
    HandmadeSlot connection(5);
    {
        const SlotPin hold({5, 0});
        connection.slot().rx_buf[0] = 7;
        netip_close(5);
        ScopedLock lock(g_netip_lock);
        g_netip_clients[4].type = 1;
        g_netip_clients[6].type = 1;
        clear_table();
        EXPECT_EQ(g_netip_clients[4].type, 0u);
        EXPECT_EQ(g_netip_clients[6].type, 0u);
        EXPECT_EQ(connection.slot().rx_buf[0], 7);
    }
    EXPECT_EQ(connection.slot().rx_buf[0], 0); // the last holder wiped it
}
