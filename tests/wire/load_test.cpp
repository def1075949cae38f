// What needs many connections or both processors: a full table, clients at random beside a busy host, and the pace.
#include "support/broker_process.h"
#include "support/host.h"
#include "support/message_loop.h"
#include "support/peer.h"
#include "support/process_state.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <gtest/gtest.h>
#include <poll.h>
#include <optional>
#include <random>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace tarn::test;

namespace {

constexpr size_t kConnections = 11000;

// Share of one processor that the process uses over some seconds.
double cpu_share(pid_t pid, int seconds)
{
    const double before = cpu_seconds(pid), start = now_s();
    pause_ms(seconds * 1000);
    return (cpu_seconds(pid) - before) / (now_s() - start);
}

size_t open_connections(const std::vector<Peer> &peers)
{
    std::vector<pollfd> fds;
    for (const Peer &peer : peers)
        fds.push_back({peer.fd(), POLLIN | POLLRDHUP, 0});
    poll(fds.data(), fds.size(), 0);
    return static_cast<size_t>(std::count_if(fds.begin(), fds.end(), [](const pollfd &fd) { return fd.revents == 0; }));
}

void report_memory(const char *what, size_t before, pid_t pid)
{
    const size_t grown = resident_bytes(pid) - before;
    printf("%s: %zu KiB in all, %zu bytes each\n", what, grown / 1024, grown / kConnections);
    testing::Test::RecordProperty(what, static_cast<int>(grown / kConnections));
}

void expect_idle(pid_t pid)
{
    const double share = cpu_share(pid, 5);
    printf("processor while idle: %.2f %% of a core\n", share * 100);
    if (!kSanitized) {
        EXPECT_LT(share, 0.02);
    }
}

// The place of a connection is free a moment after its peer has seen the end.
Peer next_that_is_served()
{
    for (int attempt = 0; attempt < 200; ++attempt, pause_ms(50)) {
        Peer peer = Peer::tcp();
        peer.send("C0 00"); // answered before CONNECT, too
        if (!peer.read_packet(1000).empty())
            return peer;
    }
    ADD_FAILURE() << "every connection was refused";
    return Peer::tcp();
}

void report(const LoopOptions &options, const LoopResult &result)
{
    printf("QoS %u, 1 -> %u, %u in flight: %.0f deliveries/s, round trip p50 %.3f ms, p99 %.3f ms, max %.3f ms\n",
           options.qos, options.subscribers, options.window, result.deliveries_per_s(), result.p50_ms, result.p99_ms,
           result.max_ms);
}

// A delivery at QoS 1 whose identifier comes out as 0, one in 65536, is lost by design; more than that is a fault.
uint64_t most_lost(const LoopOptions &options)
{
    const double expected = static_cast<double>(options.messages) * options.subscribers / 65536;
    return options.qos == 0 ? 0 : static_cast<uint64_t>(expected + 5 * std::sqrt(expected) + 3);
}

LoopResult measured(LoopOptions options)
{
    if (kSanitized)
        options.messages /= 20;
    options.limit_s         = 60;
    const LoopResult result = run_message_loop(options);
    report(options, result);
    EXPECT_EQ(result.error, "");
    EXPECT_LE(result.lost, most_lost(options));
    EXPECT_EQ(result.disordered, 0u);
    return result;
}

} // namespace

TEST(load_table, eleven_thousand_connections_and_not_one_more)
{
    if (!raise_descriptor_limit(kConnections + 500))
        GTEST_SKIP() << "the limit of open files is below " << kConnections + 500;
    BrokerProcess     broker = BrokerProcess::start({.max_clients = kConnections});
    const size_t      empty  = resident_bytes(broker.pid());
    std::vector<Peer> peers;
    for (size_t i = 0; i < kConnections && !testing::Test::HasFailure(); ++i)
        peers.push_back(Peer::tcp());
    Peer::tcp().expect_closed();
    Peer::tcp().expect_closed();
    EXPECT_EQ(open_connections(peers), kConnections);
    report_memory("memory of silent connections", empty, broker.pid());
    expect_idle(broker.pid());

    for (size_t i = 0; i < kConnections; ++i)
        peers[i].send(connect_packet(4, "c" + std::to_string(i), {.keep_alive_s = 3600}));
    for (size_t i = 0; i < kConnections && !testing::Test::HasFailure(); ++i)
        peers[i].expect("20 02 00 00");
    report_memory("memory of connected clients", empty, broker.pid());
    expect_idle(broker.pid());

    Peer::tcp().expect_closed();
    peers.front().disconnect(); // makes room for one
    peers.front() = next_that_is_served();
    peers.front().connect_v4("again").ping();
    peers.back().ping();
    peers.clear();
    next_that_is_served().connect_v4("last").ping();
}

// 10 ms is how long a queued packet may wait; a broker that only looked every 10 ms would move 6400 messages a second
// with 64 in flight, and take 5 to 10 ms for one.
TEST(load_pace, sixty_four_in_flight)
{
    BrokerProcess broker = BrokerProcess::start();
    for (unsigned qos : {0u, 1u}) {
        const LoopResult result = measured({.qos = qos, .messages = 100000});
        if (!kSanitized) {
            EXPECT_GT(result.deliveries_per_s(), 12800);
        }
    }
}

TEST(load_pace, one_in_flight)
{
    BrokerProcess broker = BrokerProcess::start();
    for (unsigned qos : {0u, 1u}) {
        const LoopResult result = measured({.qos = qos, .window = 1, .messages = 5000});
        if (!kSanitized) {
            EXPECT_LT(result.p50_ms, 3);
        }
    }
}

TEST(load_pace, one_to_fifty)
{
    BrokerProcess broker = BrokerProcess::start();
    for (unsigned qos : {0u, 1u}) {
        const LoopResult result = measured({.qos = qos, .subscribers = 50, .messages = 4000});
        if (!kSanitized) {
            EXPECT_GT(result.deliveries_per_s(), 50 * 6400 / 10);
        }
    }
}

namespace {

constexpr unsigned kChurners = 50;

std::string topic_of(unsigned n)
{
    return "to/" + std::to_string(n);
}
std::string letter_to(unsigned n)
{
    return "for " + std::to_string(n) + ";";
} // 'f' is no property length

// A client that does something at random on each turn, once what it did last has been taken in, and checks that all it
// gets is meant for it.
class Churner {
public:
    explicit Churner(unsigned number) : number_(number), random_(number) {}

    void turn()
    {
        if (!peer_ || !peer_->drain() || !peer_->ok())
            return appear();
        read();
        if (asked_)
            return;
        act();
        if (peer_)
            ask();
    }

    unsigned received() const { return received_; }

private:
    std::string id() const { return "churn-" + std::to_string(number_); }

    void act()
    {
        switch (random_() % 64) {
        case 0:
            leave(&Peer::hang_up);
            break;
        case 1:
            leave(&Peer::reset);
            break;
        case 2:
            peer_->send("E0 00");
            leave(&Peer::hang_up);
            break;
        case 3:
            peer_->send(connect_packet(4, id()));
            break;
        case 4:
            peer_->send(unsubscribe_packet(4, 2, topic_of(number_)));
            break;
        case 5:
        case 6:
        case 7:
            peer_->send(subscribe_packet(4, 1, topic_of(number_), random_() % 3));
            break;
        default:
            write_to(random_() % kChurners);
        }
    }

    void ask()
    {
        peer_->send("C0 00");
        asked_ = true;
    }

    void leave(void (Peer::*how)())
    {
        ((*peer_).*how)();
        peer_.reset();
    }

    void appear()
    {
        peer_.emplace(Peer::tcp());
        Connect options = {.clean = number_ % 10 != 0, .keep_alive_s = 1}; // files are slow: few need them
        if (appearances_++ < 2) // a client that dies with a will keeps its record, so not too often
            options.will = Will{topic_of((number_ + 1) % kChurners), letter_to((number_ + 1) % kChurners)};
        peer_->send(connect_packet(4, id(), options));
        peer_->send(subscribe_packet(4, 1, topic_of(number_), random_() % 3));
        ask();
    }

    void write_to(unsigned other)
    {
        peer_->send(publish_packet(4, topic_of(other), letter_to(other),
                                   {.qos = static_cast<unsigned>(random_() % 3), .id = 9}));
    }

    void read()
    {
        for (Bytes packet; !(packet = peer_->read_packet(0)).empty();)
            take(packet);
    }

    void take(const Bytes &packet)
    {
        const unsigned type = packet[0] >> 4, qos = packet[0] >> 1 & 3;
        if (type == 13)
            asked_ = false;
        if (type == 5)
            peer_->send(Bytes{0x62, 2, packet[2], packet[3]});
        if (type == 6)
            peer_->send(Bytes{0x70, 2, packet[2], packet[3]});
        if (type != 3)
            return;
        ++received_;
        const Bytes  topic = prefixed(topic_of(number_)), payload = text(letter_to(number_));
        const size_t at = 2 + topic.size() + (qos ? 2 : 0);
        EXPECT_TRUE(packet.size() == at + payload.size() &&
                    std::equal(topic.begin(), topic.end(), packet.begin() + 2) &&
                    std::equal(payload.begin(), payload.end(), packet.begin() + static_cast<long>(at)))
            << id() << " got " << hex(packet);
        if (qos)
            peer_->send(Bytes{static_cast<uint8_t>(qos == 1 ? 0x40 : 0x50), 2, packet[at - 2], packet[at - 1]});
    }

    const unsigned      number_;
    std::minstd_rand    random_;
    std::optional<Peer> peer_;
    bool                asked_       = false; // a PINGREQ is on its way
    unsigned            received_    = 0;
    unsigned            appearances_ = 0;
};

void host_turn(Host &host, std::minstd_rand &random)
{
    const unsigned    other = random() % kChurners;
    const std::string id    = "churn-" + std::to_string(other);
    switch (random() % 8) {
    case 0:
        host.client_ids();
        break;
    case 1:
        tarn_sdk_mqtt_broker_get_online_count(host.broker());
        break;
    case 2:
        host.retained_topics();
        break;
    case 3:
        tarn_sdk_mqtt_broker_kick_client(host.broker(), id.c_str());
        break;
    case 4: {
        tarn_sdk_mqtt_client_info_t info;
        tarn_sdk_mqtt_broker_get_client_info(host.broker(), id.c_str(), &info);
        break;
    }
    case 5: {
        tarn_sdk_mqtt_broker_stats_t stats;
        tarn_sdk_mqtt_broker_get_stats(host.broker(), &stats);
        break;
    }
    default:
        EXPECT_EQ(host.publish(topic_of(other), letter_to(other), random() % 3), 0);
    }
}

} // namespace

// Run under a thread or address sanitizer this is the test of everything that happens at once.
TEST(load_churn, fifty_clients_at_random_beside_a_busy_host)
{
    Host host(400);
    tarn_sdk_mqtt_broker_set_log_level(host.broker(), 4);
    std::atomic<bool>        over = false;
    std::vector<Churner>     clients;
    std::vector<std::thread> threads;
    for (unsigned n = 0; n < kChurners; ++n)
        clients.emplace_back(n);
    for (unsigned first = 0; first < kChurners; first += 10)
        threads.emplace_back([&, first] {
            for (; !over; pause_ms(1))
                for (unsigned n = first; n < first + 10; ++n)
                    clients[n].turn();
        });
    for (unsigned seed : {101u, 102u})
        threads.emplace_back([&, seed] {
            for (std::minstd_rand random(seed); !over; pause_ms(1))
                host_turn(host, random);
        });

    for (int round = 0; round < 4 && !testing::Test::HasFailure(); ++round) {
        for (int i = 0; i < 3; ++i) {
            pause_ms(500);
            EXPECT_EQ(tarn_sdk_mqtt_broker_stop(host.broker()), 0);
            EXPECT_EQ(tarn_sdk_mqtt_broker_start(host.broker(), 1883, 400), 0);
        }
        EXPECT_EQ(tarn_sdk_mqtt_broker_stop(host.broker()), 0);
        tarn_sdk_mqtt_broker_deinit(host.broker());
        EXPECT_EQ(tarn_sdk_mqtt_broker_init(host.broker()), 0);
        tarn_sdk_mqtt_broker_set_log_level(host.broker(), 4);
        EXPECT_EQ(tarn_sdk_mqtt_broker_start(host.broker(), 1883, 400), 0);
    }
    over = true;
    for (std::thread &thread : threads)
        thread.join();
    unsigned received = 0;
    for (const Churner &client : clients)
        received += client.received();
    printf("%u messages reached their addressees\n", received);
    EXPECT_GT(received, 1000u);
    clients.clear();
    Peer::tcp().connect_v4("last").ping();
}
