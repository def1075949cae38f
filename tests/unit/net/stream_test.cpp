#include "net_fixture.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/log_lines/net.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

using namespace tarn;
using namespace tarn::net;
using namespace tarn::test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

TEST(stream, two_packets_in_one_segment_are_two_data_events)
{
    Layer layer;
    Peer  peer;
    layer.events.wait_for(1);
    peer.send("C0 00 | 30 03 00 01 't'");
    EXPECT_THAT(layer.events.wait_for(3),
                ElementsAre(connected(0), data(0, wire("C0 00")), data(0, wire("30 03 00 01 't'"))));
}

TEST(stream, a_packet_in_three_segments_is_delivered_once_with_its_last_byte)
{
    LogCapture log(AGENT_LOG_DEBUG);
    Layer      layer;
    Peer       peer;
    layer.events.wait_for(1);
    const auto held = [&](int bytes) {
        const LogLine line = logged::stream_parse_started(0, bytes);
        return eventually([&] { return log.has(line); });
    };
    peer.send("30");
    ASSERT_TRUE(held(1));
    peer.send("02");
    ASSERT_TRUE(held(2));
    EXPECT_EQ(layer.events.seen().size(), 1u);
    peer.send("AA BB");
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), data(0, wire("30 02 AA BB"))));
    EXPECT_TRUE(held(4));
}

TEST(stream, every_line_of_a_packet)
{
    Layer layer;
    Peer  peer;
    layer.events.wait_for(1);
    {
        LogCapture log(AGENT_LOG_DEBUG);
        peer.send("C0 00 | 30 10 '0123456789abcdef'");
        layer.events.wait_for(3);
        EXPECT_TRUE(eventually([&] { return log.lines().size() >= 8; }));
        EXPECT_THAT(log.take(),
                    ElementsAre(logged::stream_parse_started(0, 20), logged::stream_packet_length(2),
                                logged::stream_packet(), debug("C0 00 "), logged::stream_packet_length(18),
                                logged::stream_packet(), debug("30 10 30 31 32 33 34 35 36 37 38 39 61 62 63 64 "),
                                debug("65 66 ")));
    }
    LogCapture log(AGENT_LOG_INFO);
    peer.send("C0 00");
    layer.events.wait_for(4);
    EXPECT_THAT(log.take(), ElementsAre(logged::stream_packet_length(2)));
}

TEST(stream, each_receive_moves_last_active)
{
    ManualClock clock;
    Layer       layer;
    Peer        peer;
    layer.events.wait_for(1);
    const uint64_t at = netip_get_client_last_active(0);
    EXPECT_EQ(at, static_cast<uint64_t>(clock.wall_s()) * 1000);
    clock.advance_ms(1500);
    EXPECT_EQ(netip_get_client_last_active(0), at);
    peer.send("30"); // no whole packet is needed
    EXPECT_TRUE(eventually([&] { return netip_get_client_last_active(0) == at + 1500; }));
}

TEST(stream, a_packet_of_4096_bytes_is_delivered)
{
    Layer       layer;
    Peer        peer;
    const Bytes largest = packet(0x30, repeat('x', 4093));
    peer.send(largest);
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), data(0, largest)));
    peer.send("C0 00");
    EXPECT_THAT(layer.events.wait_for(3), Contains(data(0, wire("C0 00"))));
}

TEST(stream, a_packet_of_4097_bytes_ends_the_connection)
{
    LogCapture log(AGENT_LOG_INFO);
    Layer      layer;
    Peer       peer;
    peer.send(packet(0x30, repeat('x', 4094)));
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), disconnected(0, 0)));
    EXPECT_EQ(peer.end(), 0);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(stream, packets_before_one_that_is_too_large_are_still_delivered)
{
    Layer layer;
    Peer  peer;
    peer.send(wire("C0 00") + packet(0x30, repeat('x', 4094)));
    EXPECT_THAT(layer.events.wait_for(3), ElementsAre(connected(0), data(0, wire("C0 00")), disconnected(0, 0)));
}

TEST(stream, undecodable_bytes_end_the_connection_with_the_4096th)
{
    Layer layer;
    Peer  peer;
    layer.events.wait_for(1);
    peer.send(wire("30 FF FF FF FF") + repeat(0, 4090));
    EXPECT_TRUE(eventually([] {
        SlotLock slot(0);
        return slot && slot->rx_len == 4095;
    }));
    std::this_thread::sleep_for(kSilence);
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0)));
    peer.send("00");
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), disconnected(0, 0)));
    EXPECT_EQ(peer.end(), 0);
}

TEST(stream, a_packet_of_4097_bytes_ends_the_connection_before_its_last_byte_comes)
{
    Layer       layer;
    Peer        peer;
    const Bytes large = packet(0x30, repeat('x', 4094));
    peer.send(Bytes(large.begin(), large.end() - 1));
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), disconnected(0, 0)));
    EXPECT_EQ(peer.end(), 0);
}

TEST(stream, a_connection_that_ends_inside_a_packet)
{
    Layer layer;
    Peer  peer;
    peer.send("30 05 01 02");
    peer.close();
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), disconnected(0, 0)));
}

TEST(stream, packets_behind_a_close_are_not_delivered)
{
    Layer layer([](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA)
            netip_close(event.handle);
        return true;
    });
    Peer  peer;
    peer.send("C0 00 C0 00 C0 00");
    EXPECT_EQ(peer.end(), 0);
    Peer next;
    EXPECT_THAT(layer.events.wait_for(4),
                ElementsAre(connected(0), data(0, wire("C0 00")), disconnected(0, 2), connected(1)));
}

TEST(stream, a_packet_stays_readable_until_its_callback_returns)
{
    std::string after;
    Layer       layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA) {
            netip_close(event.handle);
            after = hex(event.bytes, event.length);
        }
        return true;
    });
    Peer        peer;
    peer.send("30 02 AA BB");
    EXPECT_EQ(peer.end(), 0);
    netip_deinit();
    EXPECT_EQ(after, "30 02 AA BB");
    EXPECT_EQ(g_netip_clients[0].rx_len, 0); // wiped behind it
    EXPECT_EQ(hex(g_netip_clients[0].rx_buf, 4), "00 00 00 00");
}

TEST(stream, the_thread_that_delivers_knows_its_connection)
{
    Connection inside{}, nested{};
    bool       open_before = false, open_after = true;
    Layer      layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA) {
            inside      = current_connection();
            open_before = is_open(inside);
            netip_close(event.handle);
            open_after = is_open(inside);
        } else if (event.event == NETIP_EVENT_DISCONNECTED) {
            nested = current_connection();
        }
        return true;
    });
    Peer       peer;
    layer.events.wait_for(1);
    const uint32_t generation = generation_of(0);
    peer.send("C0 00");
    EXPECT_EQ(peer.end(), 0);
    netip_deinit();
    EXPECT_EQ(inside.handle, 0u);
    EXPECT_EQ(inside.generation, generation);
    EXPECT_EQ(nested.generation, generation); // still inside the data event
    EXPECT_TRUE(open_before);
    EXPECT_FALSE(open_after);
    EXPECT_EQ(current_connection().generation, 0u);
    EXPECT_EQ(current_connection().handle, NETIP_NO_HANDLE);
}

TEST(stream, one_fast_peer_leaves_room_for_others)
{
    std::atomic<int> floods{0};
    std::atomic<int> floods_before_other{-1};
    Layer            layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA) {
            if (event.length > 2)
                ++floods;
            else if (floods_before_other < 0)
                floods_before_other = floods.load();
            if (floods == 1 && event.length > 2)
                std::this_thread::sleep_for(300ms); // all bytes of both peers arrive meanwhile
        }
        return true;
    });
    Peer             fast, other;
    layer.events.wait_for(2);
    int size = 4 * 1024 * 1024;
    setsockopt(fast.fd(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    setsockopt(g_netip_clients[0].fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    std::thread flood([&] {
        for (int i = 0; i < 400; ++i)
            fast.send(packet(0x30, repeat('x', 1000)));
    });
    EXPECT_TRUE(eventually([&] { return floods >= 1; }));
    other.send("C0 00");
    flood.join();
    EXPECT_TRUE(eventually([&] { return floods == 400; }));
    EXPECT_LT(floods_before_other, 150); // 64 KiB of them, or 32 receives
}

TEST(stream, one_peer_with_slow_packets_leaves_room_for_others)
{
    std::atomic<int> slow{0};
    std::atomic<int> slow_before_other{-1};
    Layer            layer([&](const Recorder::Event &event) {
        if (event.event != NETIP_EVENT_DATA)
            return true;
        if (event.length == 2)
            slow_before_other = slow.load();
        else
            std::this_thread::sleep_for(++slow == 1 ? 300ms : 10ms); // all bytes of both peers arrive meanwhile
        return true;
    });
    Peer             burst, other;
    layer.events.wait_for(2);
    for (int i = 0; i < 40; ++i)
        burst.send(packet(0x30, repeat('x', 1000)));
    EXPECT_TRUE(eventually([&] { return slow >= 1; }));
    other.send("C0 00");
    EXPECT_TRUE(eventually([&] { return slow == 40; }));
    EXPECT_GE(slow_before_other, 1);
    EXPECT_LT(slow_before_other, 12) << "those of one or two receives";
}

namespace {

// Everything sent has reached the other side's kernel, which a reset does not take back.
bool all_arrived(const Peer &peer)
{
    int waiting = 0;
    return eventually([&] { return ioctl(peer.fd(), SIOCOUTQ, &waiting) == 0 && waiting == 0; });
}

enum class Ending { Closed, ClosedOverAnswers, Reset };

void PrintTo(Ending ending, std::ostream *out)
{
    *out << (ending == Ending::Closed ? "closed" : ending == Ending::Reset ? "reset" : "closed_over_unread_answers");
}

struct burst : testing::TestWithParam<Ending> {
    static constexpr int kPackets = 20; // five receives

    static Bytes nth(int i) { return packet(0x30, repeat(static_cast<uint8_t>(i), 1000)); }

    // Sends all packets and ends the connection while the callback is busy with the first of them.
    void send_and_end(Peer &peer)
    {
        Bytes all;
        for (int i = 0; i < kPackets; ++i)
            all = all + nth(i);
        peer.send(all);
        ASSERT_TRUE(all_arrived(peer));
        ASSERT_TRUE(eventually([&] { return answered_.load(); }));
        if (GetParam() == Ending::ClosedOverAnswers) {
            EXPECT_TRUE(readable(peer.fd(), kPatience));
        }
        GetParam() == Ending::Reset ? peer.reset() : peer.close();
        ended_ = true;
    }
    // For each packet: longer than a connection's turn in a round.
    void handle(const Recorder::Event &event)
    {
        if (!answered_ && GetParam() == Ending::ClosedOverAnswers) {
            EXPECT_EQ(send_bytes(event.handle, wire("D0 00")), 0u);
        }
        answered_ = true;
        EXPECT_TRUE(eventually([&] { return ended_.load(); }));
        std::this_thread::sleep_for(11ms);
    }
    static std::vector<std::string> all_events(uint32_t reason)
    {
        std::vector<std::string> events = {connected(0)};
        for (int i = 0; i < kPackets; ++i)
            events.push_back(data(0, nth(i)));
        events.push_back(disconnected(0, reason));
        return events;
    }

private:
    std::atomic<bool> answered_{false}, ended_{false};
};

} // namespace

TEST_P(burst, before_the_end_of_a_connection_is_handled_to_its_last_packet)
{
    Layer layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA)
            handle(event);
        return true;
    });
    Peer  peer;
    send_and_end(peer);
    EXPECT_EQ(layer.events.wait_for(kPackets + 2), all_events(0));
}

TEST_P(burst, whose_last_packet_closes_the_connection_is_no_broken_one)
{
    Layer layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA) {
            handle(event);
            if (event.bytes[3] == kPackets - 1)
                netip_close(event.handle);
        }
        return true;
    });
    Peer  peer;
    send_and_end(peer);
    layer.events.wait_for(kPackets + 2);
    Peer next;
    next.send("C0 00"); // a round later
    layer.events.wait_for(kPackets + 4);
    std::vector<std::string> expected = all_events(2);
    expected.insert(expected.end(), {connected(1), data(1, wire("C0 00"))});
    EXPECT_EQ(layer.events.seen(), expected);
}

INSTANTIATE_TEST_SUITE_P(, burst, testing::Values(Ending::Closed, Ending::ClosedOverAnswers, Ending::Reset),
                         testing::PrintToStringParamName());

TEST(stream, a_broken_connection_with_slow_packets_leaves_room_for_others)
{
    std::atomic<int>  slow{0};
    std::atomic<int>  slow_before_other{-1};
    std::atomic<bool> all_sent{false};
    Layer             layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA && event.length == 2) {
            slow_before_other = slow.load();
        } else if (event.event == NETIP_EVENT_DATA) {
            ++slow;
            EXPECT_TRUE(eventually([&] { return all_sent.load(); }));
            std::this_thread::sleep_for(11ms);
        }
        return true;
    });
    Peer              burst, other;
    layer.events.wait_for(2);
    Bytes all;
    for (int i = 0; i < 40; ++i)
        all = all + packet(0x30, repeat('x', 1000));
    burst.send(all);
    EXPECT_TRUE(all_arrived(burst) && eventually([&] { return slow >= 1; }));
    burst.reset();
    other.send("C0 00");
    all_sent = true;
    layer.events.wait_for(2 + 41 + 1);
    EXPECT_EQ(slow, 40);
    EXPECT_GE(slow_before_other, 1);
    EXPECT_LT(slow_before_other, 12) << "those of one or two receives";
}

TEST(stream, stops_reading_when_the_layer_goes_down)
{
    std::atomic<bool> inside{false};
    Layer             layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA && !inside.exchange(true))
            eventually([] { return !peek(g_netip_running); });
        return true;
    });
    Peer              peer;
    for (int i = 0; i < 10; ++i)
        peer.send(packet(0x30, repeat('x', 4093)));
    ASSERT_TRUE(eventually([&] { return inside.load(); }));
    netip_deinit();
    EXPECT_EQ(layer.events.seen().size(), 3u);
}

TEST(several_threads, deliver_each_stream_in_order)
{
    std::mutex                        mx;
    std::vector<std::vector<uint8_t>> got(8);
    Layer                             layer(4);
    layer.events.on_event = [&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA) {
            std::lock_guard lock(mx);
            got[event.handle].push_back(event.bytes[2]);
        }
        return true;
    };
    std::vector<std::unique_ptr<Peer>> peers;
    for (size_t i = 0; i < 8; ++i)
        peers.push_back(std::make_unique<Peer>());
    for (int i = 0; i < 200; ++i)
        for (auto &peer : peers)
            peer->send({0x30, 0x01, static_cast<uint8_t>(i)});
    EXPECT_EQ(layer.events.wait_for(8 + 8 * 200).size(), 8u + 8 * 200);
    netip_deinit();
    std::vector<uint8_t> expected;
    for (int i = 0; i < 200; ++i)
        expected.push_back(static_cast<uint8_t>(i));
    std::lock_guard lock(mx);
    for (const auto &bytes : got)
        EXPECT_EQ(bytes, expected);
}

TEST(stale_events, of_a_reused_slot_are_skipped)
{
    // Both connections are readable in one round; the first to be served closes the other, whose slot is taken anew.
    Recorder events;
    int      pair[2][2];
    for (auto &ends : pair)
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const Fd epoll(epoll_create1(EPOLL_CLOEXEC)), peer_0(pair[0][1]), peer_1(pair[1][1]);
    netip_epoll_fd  = epoll.get();
    g_netip_running = 1;
    g_netip_cb      = Recorder::callback;
    g_netip_cb_arg  = &events;
    const auto add  = [](int fd) {
        ScopedLock    lock(g_netip_lock);
        const SlotPin hold(open_slot(NETIP_TCP, fd, {}), SlotPin::Counted);
        SlotLock      slot(hold.handle());
        EXPECT_TRUE(watch(hold.handle()));
    };
    add(pair[0][0]);
    add(pair[1][0]);
    int third[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, third), 0);
    const Fd peer_2(third[1]);
    events.on_event = [&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA && event.handle == 0) {
            netip_close(1);
            g_last_handle = 1;
            add(third[0]);
        }
        return true;
    };
    EXPECT_EQ(write(peer_0.get(), "\xC0\x00", 2), 2);
    EXPECT_EQ(write(peer_1.get(), "\xC1\x00", 2), 2);
    EXPECT_EQ(write(peer_2.get(), "\xC2\x00", 2), 2);
    EXPECT_EQ(run_round(0, 0), 2);
    EXPECT_THAT(events.seen(), ElementsAre(data(0, wire("C0 00")), disconnected(1, 2)));
    EXPECT_EQ(run_round(0, 0), 1); // its own event
    EXPECT_EQ(events.seen().back(), data(1, wire("C2 00")));
    netip_epoll_fd = -1;
}

// Each end takes 3 ms here. What is sent while the first of them is told is served before the last.
TEST(stream, many_ends_leave_room_for_others)
{
    constexpr size_t                   kPeers = 12;
    std::vector<std::unique_ptr<Peer>> peers;
    std::unique_ptr<Peer>              other;
    bool                               asked = false; // the I/O thread's
    Layer                              layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA && event.length == 2 && !asked && event.handle == kPeers)
            peers.clear(); // all end in one round
        if (event.event == NETIP_EVENT_DISCONNECTED) {
            if (!std::exchange(asked, true))
                other->send("30 03 00 01 't'");
            std::this_thread::sleep_for(3ms);
        }
        return true;
    });
    for (size_t i = 0; i < kPeers; ++i)
        peers.push_back(std::make_unique<Peer>());
    layer.events.wait_for(kPeers);
    other = std::make_unique<Peer>();
    layer.events.wait_for(kPeers + 1);
    other->send("C0 00");
    const auto seen = layer.events.wait_for(kPeers + 1 + 1 + kPeers + 1);
    ASSERT_EQ(seen.size(), kPeers + 1 + 1 + kPeers + 1);
    EXPECT_NE(seen.back(), data(kPeers, wire("30 03 00 01 't'")));
}
