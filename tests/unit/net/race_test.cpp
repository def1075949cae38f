// What threads may do to each other; worth most under ThreadSanitizer.
#include "net_fixture.h"
#include "support/log_capture.h"

#include <random>

using namespace tarn;
using namespace tarn::net;
using namespace tarn::test;

namespace {

#ifdef TARN_SANITIZED
constexpr auto kDuration = 1500ms;
#else
constexpr auto kDuration = 700ms;
#endif

std::atomic<bool> g_stop{false};

class Crew {
public:
    template <class Work> void add(Work work)
    {
        threads_.emplace_back([work, seed = threads_.size()] {
            std::minstd_rand random(static_cast<unsigned>(seed + 1));
            while (!g_stop)
                work(random);
        });
    }
    void work_for(std::chrono::milliseconds time)
    {
        std::this_thread::sleep_for(time);
        g_stop = true;
        for (std::thread &thread : threads_)
            thread.join();
    }

private:
    std::vector<std::thread> threads_;
};

constexpr uint32_t kHandles = 40;

// Clients that come, talk and go, some of them rudely.
void be_a_client(std::minstd_rand &random)
{
    const Fd          fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback();
    const timeval     soon{0, 100000}; // the listener's queue may be full, for ever once the layer is down
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &soon, sizeof soon);
    if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return;
    const Bytes bytes = wire("C0 00 30 03 00 01 't' C0");
    for (int i = 0; i < 5; ++i)
        if (send(fd.get(), bytes.data(), 1 + random() % bytes.size(), MSG_NOSIGNAL) < 0)
            break;
    if (random() % 2) {
        const linger at_once{1, 0};
        setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
}

void be_a_udp_client(std::minstd_rand &)
{
    UdpPeer udp;
    udp.send("C0 00");
    std::this_thread::sleep_for(1ms);
}

void be_a_host(std::minstd_rand &random)
{
    const uint32_t  handle    = random() % kHandles;
    const Bytes     bytes     = wire("30 03 00 01 't'");
    const OutPacket packets[] = {{bytes.data(), 5}, {bytes.data(), 5}};
    char            ip[64];
    switch (random() % 8) {
    case 0:
        netip_send(handle, bytes.data(), 5);
        break;
    case 1:
        send_packets(handle, packets, 2);
        break;
    case 2:
        netip_get_client_ip(handle, ip, sizeof ip);
        break;
    case 3:
        netip_get_client_port(handle);
        netip_get_client_last_active(handle);
        break;
    case 4:
        netip_set_tcp_keepalive(handle, 10, 10, 3);
        break;
    case 5:
        netip_close(handle);
        break;
    case 6:
        close_connection(handle, generation_of(handle));
        break;
    default:
        (void)is_open({handle, generation_of(handle)});
    }
    if (random() % 16 == 0) { // keep handles low, so that slots are reused at once
        ScopedLock lock(g_netip_lock);
        g_last_handle = 0;
    }
}

// Answers and closes like the layer above does.
uint8_t answer(uint32_t handle, uint32_t event, const uint8_t *bytes, uint32_t length, uint32_t, uint32_t, void *)
{
    if (event == NETIP_EVENT_DATA) {
        netip_send(handle, bytes, static_cast<int32_t>(length));
        if (bytes[0] == 0x30)
            close_connection(handle, current_connection().generation);
    } else if (event == NETIP_EVENT_DISCONNECTED) {
        netip_close(handle);
    }
    return 1;
}

} // namespace

TEST(race, clients_and_hosts_on_a_running_layer)
{
    LogCapture log(AGENT_LOG_ERROR);
    const int  descriptors = descriptor_count();
    ASSERT_EQ(netip_init(answer, nullptr, 1), 0u);
    {
        Crew crew;
        for (int i = 0; i < 3; ++i)
            crew.add(be_a_client);
        crew.add(be_a_udp_client);
        for (int i = 0; i < 3; ++i)
            crew.add(be_a_host);
        crew.work_for(kDuration);
    }
    netip_deinit();
    EXPECT_GE(descriptor_count(), descriptors + 1); // the listener,
    EXPECT_LE(descriptor_count(), descriptors + 2); // and perhaps a connection that woke the accept thread too late
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

TEST(race, several_io_threads)
{
    ASSERT_EQ(netip_init(answer, nullptr, 3), 0u);
    Crew crew;
    for (int i = 0; i < 3; ++i)
        crew.add(be_a_client);
    for (int i = 0; i < 2; ++i)
        crew.add(be_a_host);
    crew.work_for(kDuration);
    netip_deinit();
}

TEST(race, starts_and_stops_under_load)
{
    Crew crew;
    for (int i = 0; i < 2; ++i)
        crew.add(be_a_client);
    for (int i = 0; i < 2; ++i)
        crew.add(be_a_host);
    crew.add([](std::minstd_rand &random) {
        EXPECT_EQ(netip_init(answer, nullptr, 1 + static_cast<int>(random() % 2)), 0u);
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 50));
        netip_deinit();
    });
    crew.work_for(2 * kDuration);
    ASSERT_EQ(netip_init(answer, nullptr, 1), 0u);
    netip_deinit();
    for (uint32_t handle = 0; handle < 11000; ++handle) {
        ASSERT_EQ(g_netip_clients[handle].in_use, 0);
        ASSERT_EQ(g_sides[handle].pins, 0);
        ASSERT_EQ(g_sides[handle].visitors, 0u);
    }
}

TEST(race, a_late_close_never_hits_the_next_owner)
{
    // Two threads close what they saw; every connection must see exactly one disconnected event of its own.
    static std::atomic<int> opened{0}, ended{0};
    g_stop           = false;
    const auto count = [](uint32_t, uint32_t event, const uint8_t *, uint32_t, uint32_t, uint32_t, void *) -> uint8_t {
        if (event == NETIP_EVENT_CONNECTED)
            ++opened;
        if (event == NETIP_EVENT_DISCONNECTED)
            ++ended;
        return 1;
    };
    ASSERT_EQ(netip_init(count, nullptr, 1), 0u);
    Crew crew;
    for (int i = 0; i < 2; ++i)
        crew.add([](std::minstd_rand &random) {
            const uint32_t handle = random() % kHandles;
            close_connection(handle, generation_of(handle));
        });
    crew.add([](std::minstd_rand &) {
        const Peer peer;
        while (!g_stop && !readable(peer.fd(), 10ms)) {}
        ScopedLock lock(g_netip_lock);
        g_last_handle = 0;
    });
    crew.work_for(kDuration);
    netip_deinit();
    EXPECT_GT(opened, 0);
    EXPECT_EQ(opened, ended);
}
