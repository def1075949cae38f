// Start, stop and everything between, in the orders a host may choose, with clients on the other side.
#include "support/host.h"
#include "support/peer.h"
#include "support/process_state.h"

#include <arpa/inet.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <netinet/in.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace tarn::test;

namespace {

constexpr int kRounds = kSanitized ? 10 : 50;

// One letter a call, as in "i0 s0 t0 s0": i init, s start, t stop, d deinit, x destroy (and create anew), and the
// instance. Starts are followed by what they must return: "s1-3" expects -3.
class Instances {
public:
    Instances()
    {
        for (broker_t *&broker : brokers_)
            broker = tarn_sdk_mqtt_broker_create();
    }
    ~Instances()
    {
        for (broker_t *broker : brokers_) {
            tarn_sdk_mqtt_broker_stop(broker);
            tarn_sdk_mqtt_broker_deinit(broker);
            tarn_sdk_mqtt_broker_destroy(broker);
        }
    }

    broker_t *operator[](size_t index) { return brokers_[index]; }

    int start(size_t index, int port = 1883, int max_clients = 200)
    {
        return tarn_sdk_mqtt_broker_start(brokers_[index], port, max_clients);
    }

    void play(const std::string &calls)
    {
        std::istringstream words(calls);
        for (std::string word; words >> word;)
            call(word);
    }

private:
    void call(const std::string &word)
    {
        SCOPED_TRACE(word);
        const auto index  = static_cast<size_t>(word.at(1) - '0');
        broker_t *&broker = brokers_[index];
        switch (word.at(0)) {
        case 'i':
            EXPECT_EQ(tarn_sdk_mqtt_broker_init(broker), 0);
            break;
        case 's':
            EXPECT_EQ(start(index), word.size() > 2 ? std::stoi(word.substr(2)) : 0);
            break;
        case 't':
            EXPECT_EQ(tarn_sdk_mqtt_broker_stop(broker), 0);
            break;
        case 'd':
            tarn_sdk_mqtt_broker_deinit(broker);
            break;
        case 'x':
            tarn_sdk_mqtt_broker_destroy(broker);
            broker = tarn_sdk_mqtt_broker_create();
            break;
        default:
            FAIL() << "no such call: " << word;
        }
    }
    broker_t *brokers_[2];
};

void expect_service(Where where = Where::here())
{
    Peer client = Peer::tcp(1883, where);
    client.connect_v4("probe", {}, where).ping(where);
    client.disconnect(where);
}

class Taken { // port 1883, held by somebody else
public:
    Taken() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family      = AF_INET;
        address.sin_port        = htons(1883);
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd_, 1), 0);
    }
    ~Taken() { close(fd_); }

private:
    int fd_;
};

// The same numbers of threads and descriptors after each round as after the first, which leaves the listener and its
// accept thread behind for good. Threads that nobody joins may take a moment to go.
void expect_no_growth(auto round)
{
    round();
    const int descriptors = descriptor_count();
    int       threads     = thread_count();
    wait_until([&] { return thread_count() < threads; }, 300);
    threads = thread_count();
    for (int i = 1; i < kRounds && !testing::Test::HasFailure(); ++i)
        round();
    EXPECT_TRUE(wait_until([&] { return thread_count() <= threads; }))
        << thread_count() << " threads, were " << threads;
    EXPECT_TRUE(wait_until([&] { return descriptor_count() <= descriptors; }))
        << descriptor_count() << " descriptors, were " << descriptors;
}

// By the names of this process's threads.
std::map<std::string, int> policies_of_threads()
{
    std::map<std::string, int> policies;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        policies[name] = sched_getscheduler(std::stoi(task.path().filename()));
    }
    return policies;
}

} // namespace

TEST(lifecycle, one_round)
{
    Instances host;
    expect_no_growth([&] {
        host.play("i0 s0");
        expect_service();
        host.play("t0 d0 x0");
    });
}

// What is due by the clock, and connections, which come in heaps, wait for a packet that is being handled. What hosts
// send does not: the ring of its receiver might be full by then.
TEST(lifecycle, threads_of_the_clock_preempt_nobody)
{
    const Host                 host;
    std::map<std::string, int> policies;
    EXPECT_TRUE(eventually([&] { // a new thread begins with its name and policy
        policies = policies_of_threads();
        return policies["tarn-accept"] == SCHED_BATCH && policies["tarn-house"] == SCHED_BATCH &&
               policies["tarn-qos-scan"] == SCHED_BATCH && policies.contains("tarn-send");
    }));
    EXPECT_EQ(policies["tarn-io"], SCHED_OTHER);
    EXPECT_EQ(policies["tarn-send"], SCHED_OTHER);
}

TEST(lifecycle, stop_and_start_again)
{
    Instances host;
    expect_no_growth([&] {
        host.play("i0 s0 t0 s0 t0 t0 s0");
        expect_service();
        host.play("t0 d0 x0");
    });
}

TEST(lifecycle, start_twice)
{
    Instances host;
    expect_no_growth([&] {
        host.play("i0 s0");
        const int threads = thread_count();
        host.play("s0 s0");
        EXPECT_EQ(thread_count(), threads); // one housekeeping thread
        expect_service();
        host.play("t0 d0 x0");
    });
}

TEST(lifecycle, deinit_and_init_without_stop)
{
    Instances host;
    host.play("i0");
    expect_no_growth([&] {
        host.play("s0");
        expect_service();
        host.play("d0");
        EXPECT_TRUE(tarn_sdk_mqtt_broker_is_running(host[0]));
        EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(host[0], 100), -7);
        host.play("i0");
    });
}

TEST(lifecycle, start_after_deinit_alone)
{
    Instances host;
    host.play("i0");
    expect_no_growth([&] {
        host.play("s0");
        expect_service();
        host.play("t0 d0 d0");
    });
}

TEST(lifecycle, the_layer_belongs_to_who_started_it)
{
    Instances host;
    host.play("i0 i1");
    expect_no_growth([&] {
        host.play("s0 s1-3 t0 s1-3 x0 s1-3");
        expect_service(); // which goes on through all of that
        host.play("d1 i1 s1");
        expect_service();
        host.play("s0-3 t1 d1 i0");
    });
}

TEST(lifecycle, calls_without_a_start)
{
    Instances host;
    expect_no_growth([&] { host.play("t0 d0 t0 d0 i0 t0 i0 d0 x0"); });
}

TEST(lifecycle, arguments_are_checked_first)
{
    Instances host;
    host.play("i0");
    EXPECT_EQ(host.start(0, 0), -2);
    EXPECT_EQ(host.start(0, 65536), -2);
    EXPECT_EQ(host.start(0, 1883, 0), -2);
    EXPECT_EQ(host.start(0, 1883, 50001), -2);
    EXPECT_EQ(host.start(0, 1883, 11001), -3);
    EXPECT_FALSE(tarn_sdk_mqtt_broker_is_running(host[0]));
    EXPECT_EQ(host.start(0, 65535, 1), 0);
    EXPECT_TRUE(tarn_sdk_mqtt_broker_is_running(host[0]));
    EXPECT_EQ(tarn_sdk_mqtt_broker_start(nullptr, 1883, 100), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_stop(nullptr), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(nullptr), -2);
    EXPECT_FALSE(tarn_sdk_mqtt_broker_is_running(nullptr));
    tarn_sdk_mqtt_broker_deinit(nullptr);
    tarn_sdk_mqtt_broker_destroy(nullptr);
    expect_service();
}

TEST(lifecycle, the_port_is_1883_whatever_is_asked_for)
{
    Instances host;
    host.play("i0");
    EXPECT_EQ(host.start(0, 8883), 0);
    EXPECT_EQ(host[0]->port, 8883);
    expect_service();
}

TEST(lifecycle, a_port_that_is_taken)
{
    Instances host;
    host.play("i0");
    expect_no_growth([&, first = true]() mutable {
        if (std::exchange(first, false)) { // later the port is the library's own
            const Taken taken;
            host.play("s0-3 s0-3");
            EXPECT_FALSE(tarn_sdk_mqtt_broker_is_running(host[0]));
        }
        host.play("s0");
        expect_service();
        host.play("t0 d0 i0");
    });
}

TEST(lifecycle, too_many_clients_asked_of_a_running_broker)
{
    Instances host;
    host.play("i0 s0");
    Peer client = Peer::tcp();
    client.connect_v4("a");
    EXPECT_EQ(host.start(0, 1883, 20000), -3);
    EXPECT_EQ(host.start(0, 1883, 50001), -2);
    client.ping();
    expect_service();
}

TEST(lifecycle, a_client_stays_through_stop_and_start)
{
    Instances host;
    host.play("i0 s0");
    Peer subscriber = Peer::tcp(), sender = Peer::tcp();
    subscriber.connect_v4("s").subscribe("t", 1);
    sender.connect_v4("p");
    sender.publish("t", "one", {.qos = 1});
    const unsigned pending = subscriber.expect_publish("t", "one", {.qos = 1});
    host.play("t0");
    sender.publish("t", "two", {.qos = 0}); // served while stopped
    subscriber.expect_publish("t", "two");
    host.play("s0");
    sender.publish("t", "three");
    subscriber.expect_publish("t", "three");
    EXPECT_EQ(subscriber.expect_publish("t", "one", {.qos = 1}), pending); // its first repetition
    subscriber.acknowledge(0x40, pending);
    subscriber.ping();
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(host[0]), 2u);
}

TEST(lifecycle, a_higher_limit_takes_effect_at_once_and_a_lower_one_closes_nobody)
{
    Instances host;
    host.play("i0");
    EXPECT_EQ(host.start(0, 1883, 2), 0);
    Peer clients[3] = {Peer::tcp(), Peer::tcp(), Peer::tcp()};
    clients[0].connect_v4("0");
    clients[1].connect_v4("1");
    clients[2].send(connect_packet(4, "2"));
    clients[2].expect_closed();
    EXPECT_EQ(host.start(0, 1883, 200), 0);
    clients[2] = Peer::tcp();
    clients[2].connect_v4("2");
    EXPECT_EQ(host.start(0, 1883, 1), 0);
    for (Peer &client : clients)
        client.ping();
    Peer another = Peer::tcp();
    another.send(connect_packet(4, "3"));
    another.expect_closed();
}

TEST(lifecycle, deinit_closes_the_clients)
{
    Instances host;
    host.play("i0 s0");
    Peer v4 = Peer::tcp(), v5 = Peer::tcp(), silent = Peer::tcp();
    v4.connect_v4("4");
    v5.connect_v5("5");
    host.play("t0 d0");
    v4.expect_closed();
    v5.expect_closed();
    silent.expect_closed();
}

TEST(lifecycle, connections_made_while_down_are_served_by_the_next_start)
{
    Instances host;
    host.play("i0 s0");
    for (int i = 0; i < kRounds && !testing::Test::HasFailure(); ++i) {
        host.play("t0 d0");
        Peer first = Peer::tcp(), second = Peer::tcp();
        first.send(connect_packet(4, "1"));
        second.send(connect_packet(4, "2"));
        if (i % 10 == 0)
            first.expect_nothing(); // neither answered nor closed
        host.play("i0 s0");
        first.expect("20 02 00 00");
        second.expect("20 02 00 00");
        first.ping();
    }
}

TEST(lifecycle, connections_dropped_while_down_harm_nobody)
{
    Instances host;
    host.play("i0 s0 t0 d0");
    for (int i = 0; i < 20; ++i)
        i % 2 ? Peer::tcp().reset() : Peer::tcp().hang_up();
    host.play("i0 s0");
    expect_service();
}

TEST(lifecycle, udp_is_served_by_every_start)
{
    Instances host;
    host.play("i0");
    for (int i = 0; i < kRounds && !testing::Test::HasFailure(); ++i) {
        host.play("s0");
        Peer tcp = Peer::tcp(), udp = Peer::udp();
        tcp.connect_v4("t");
        udp.send(connect_packet(4, "u"));
        tcp.ping();
        udp.expect("20 02 00 00");
        host.play("t0 d0 i0");
    }
}

TEST(lifecycle, settings_change_only_while_stopped)
{
    Instances host;
    host.play("i0 s0");
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(host[0], 100), -7);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(host[0], 256), -7);
    host.play("t0");
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(host[0], 0), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(host[0], 3601), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(host[0], 3600), 0);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(host[0], 255), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(host[0], 10485761), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(host[0], 256), 0);
    host.play("s0");
    Peer stranger = Peer::tcp(); // the new size is for records made from now on
    stranger.send(packet(0x30, wire("00 01 't'") + repeat(0xFF, 251)));
    stranger.expect("E0 00");
    stranger.expect_closed();
}

TEST(lifecycle, nothing_of_the_clients_survives_deinit_but_the_files)
{
    Instances host;
    host.play("i0 s0");
    Peer client = Peer::tcp();
    client.connect_v4("a").subscribe("t");
    client.publish("r", "kept", {.retain = true});
    client.ping();
    host.play("t0 d0 i0 s0");
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(host[0]), 0u);
    client = Peer::tcp();
    client.connect_v4("b");
    client.send(subscribe_packet(4, 1, "r", 0));
    client.expect("31 07 | 00 01 'r' | 'kept' | 90 03 00 01 00");
}

// Any order of calls on two instances: what start returns follows from who owns the layer.
TEST(lifecycle, any_order)
{
    Instances host;
    host.play("i0 i1");
    unsigned seed  = 7;
    int      owner = -1;
    for (int step = 0; step < kRounds * 6 && !testing::Test::HasFailure(); ++step) {
        seed            = seed * 1103515245 + 12345;
        const int  i    = static_cast<int>(seed >> 16 & 1);
        const auto word = std::string("itsssddx").substr(seed >> 17 & 7, 1) + std::to_string(i);
        SCOPED_TRACE(testing::Message() << "step " << step << ", owner " << owner);
        if (word[0] == 's') {
            const bool mine = owner < 0 || owner == i;
            host.play(mine ? word : word + "-3");
            if (mine)
                owner = i;
        } else {
            host.play(word);
            if (word[0] == 'd')
                owner = -1;
            if (word[0] == 'x' && owner == i)
                owner = 9; // owned by one that is gone
        }
        if (owner >= 0)
            expect_service();
    }
}
