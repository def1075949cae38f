// A hundred clients on ten ids who come, set wills, subscribe, publish, acknowledge, fall silent and vanish at random,
// while the host lists, looks, publishes, kicks and closes the silent. Every message carries the id it is meant for.
//
// From time to time all clients leave, and what must be left is counted. TARN_CHAOS_S sets how many seconds of it there
// are, TARN_CHAOS_SEED what they do; under a thread or address sanitizer this is the test of what clients and host do
// to each other's records.
#include "client/client.h"
#include "stats/mqtt_stats.h"
#include "support/host.h"
#include "support/peer.h"
#include "support/process_state.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <thread>
#include <vector>

using namespace tarn::test;

namespace {

constexpr unsigned kClients    = 100;
constexpr unsigned kIds        = 10;
constexpr unsigned kGroupIds   = 5; // the first of them may join the shared group
constexpr int      kPool       = 1000;
constexpr int      kPhase_s    = 10;  // at most, from calm to calm
constexpr int      kLastingMax = 600; // records that wills without delay may take for good, in all

std::string id_of(unsigned n)
{
    return "chaos-" + std::to_string(n);
}
std::string topic_of(unsigned n, const char *kind)
{
    return "to/" + std::to_string(n) + "/" + kind;
}
std::string letter_to(unsigned n)
{
    return "for " + std::to_string(n) + ";"; // 'f' is no property length
}
constexpr const char *kGroupTopic  = "group";
constexpr const char *kGroupLetter = "for the group;";

// What the run has seen, for its last line and for the proof that nothing was idle.
struct Tally {
    std::atomic<unsigned> connects, received, retained, grouped, hang_ups, resets, farewells, ended_silent, kicks;
    std::atomic<int>      lasting_budget;            // connections that may still take a will without delay
    std::atomic<int>      wills_at_once, wills_late; // published, as the host was told
};
Tally g_tally;

void on_event(broker_t *, uint32_t kind, const char *text)
{
    if (kind != BROKER_EVENT_WILL)
        return;
    if (strstr(text, "/at-once"))
        ++g_tally.wills_at_once;
    else
        ++g_tally.wills_late;
}

// One client: does something on each turn once the broker has taken in what it did last, and checks that all it gets
// is meant for the id it has.
class Wanderer {
public:
    explicit Wanderer(unsigned seed) : random_(seed) {}

    void turn()
    {
        if (!peer_)
            return appear();
        const bool open = peer_->drain();
        read();
        if (!open || !peer_->ok())
            return vanish();
        if (silent_until_s_ > now_s() || asked_)
            return;
        silent_until_s_ = 0;
        act();
        if (peer_ && silent_until_s_ == 0)
            ask();
    }

    void leave()
    {
        if (peer_)
            read();
        peer_.reset();
    }

private:
    unsigned one_of(unsigned count) { return static_cast<unsigned>(random_() % count); }

    void appear()
    {
        number_         = one_of(kIds);
        level_          = one_of(2) ? 5 : 4;
        silent_until_s_ = 0;
        peer_.emplace(Peer::tcp());
        Connect options;
        options.keep_alive_s = 1;
        options.clean        = one_of(20) != 0;
        if (level_ == 5 && one_of(4) == 0)
            options.session_expiry_s = 1 + one_of(60);
        if (options.clean) // a saved will comes back without its text, and takes a record without a sign
            choose_will(options);
        peer_->send(connect_packet(level_, id_of(number_), options));
        subscribe();
        ++g_tally.connects;
        ask();
    }

    // A will without delay takes its client's record for good, so there are not too many of them.
    void choose_will(Connect &options)
    {
        const unsigned other = one_of(kIds);
        if (level_ == 5 && one_of(2) == 0)
            options.will = Will{topic_of(other, "late"), letter_to(other), one_of(3), false, wire("18 00 00 00 01")};
        else if (one_of(8) == 0 && g_tally.lasting_budget.fetch_sub(1) > 0)
            options.will = Will{topic_of(other, "at-once"), letter_to(other), one_of(3)};
    }

    void subscribe()
    {
        peer_->send(subscribe_packet(level_, 1, "to/" + std::to_string(number_) + "/#", one_of(3)));
        if (number_ < kGroupIds && one_of(2))
            peer_->send(subscribe_packet(level_, 2, std::string("$share/g/") + kGroupTopic, one_of(3)));
    }

    void act()
    {
        switch (one_of(64)) {
        case 0:
            ++g_tally.hang_ups;
            return vanish();
        case 1:
            ++g_tally.resets;
            peer_->reset();
            return vanish();
        case 2:
            ++g_tally.farewells;
            peer_->send(disconnect_packet(level_));
            return vanish();
        case 3:
        case 4:
            silent_until_s_ = now_s() + 3;
            return;
        case 5:
            return peer_->send(connect_packet(level_, id_of(number_), {.keep_alive_s = 1}));
        case 6:
            return peer_->send(unsubscribe_packet(level_, 3, "to/" + std::to_string(number_) + "/#"));
        case 7:
        case 8:
        case 9:
            return subscribe();
        case 10:
            return write(kGroupTopic, kGroupLetter, false);
        case 11:
            return write_to(one_of(kIds), true);
        default:
            return write_to(one_of(kIds), false);
        }
    }

    void write_to(unsigned other, bool retain)
    {
        write(topic_of(other, retain ? "kept" : "news"), letter_to(other), retain);
    }
    void write(const std::string &topic, const std::string &letter, bool retain)
    {
        peer_->send(publish_packet(level_, topic, letter, {.qos = one_of(3), .retain = retain, .id = 9}));
    }

    void ask()
    {
        peer_->send("C0 00");
        asked_ = true;
    }

    void vanish()
    {
        if (silent_until_s_ != 0)
            ++g_tally.ended_silent;
        peer_.reset();
        asked_ = false;
    }

    void read()
    {
        for (Bytes packet; !(packet = peer_->read_packet(0)).empty();)
            take(packet);
    }

    void take(const Bytes &packet)
    {
        switch (packet[0] >> 4) {
        case 3:
            return take_message(packet);
        case 5:
            return acknowledge(0x62, packet[2], packet[3]);
        case 6:
            return acknowledge(0x70, packet[2], packet[3]);
        case 13:
            asked_ = false;
        }
    }

    // At level 5 the reason is always written: without it the client would be taken for one of level 4.
    void acknowledge(uint8_t first, uint8_t high, uint8_t low)
    {
        if (silent_until_s_ == 0)
            peer_->send(level_ == 5 ? Bytes{first, 3, high, low, 0} : Bytes{first, 2, high, low});
    }

    void take_message(const Bytes &packet)
    {
        const unsigned qos  = packet[0] >> 1 & 3;
        const size_t   size = static_cast<size_t>(packet[2] << 8 | packet[3]), id_at = 4 + size;
        ASSERT_LE(id_at + (qos ? 2 : 0), packet.size()) << hex(packet);
        const std::string topic(packet.begin() + 4, packet.begin() + static_cast<long>(id_at));
        std::string       payload(packet.begin() + static_cast<long>(id_at + (qos ? 2 : 0)), packet.end());
        if (!payload.empty() && payload[0] == '\0') // an empty property block, or what a will of level 5 has before it
            payload.erase(0, 1);
        expect_mine(topic, payload, packet);
        ++g_tally.received;
        if (packet[0] & 1)
            ++g_tally.retained;
        if (qos)
            acknowledge(qos == 1 ? 0x40 : 0x50, packet[id_at], packet[id_at + 1]);
    }

    void expect_mine(const std::string &topic, const std::string &payload, const Bytes &packet)
    {
        if (topic == kGroupTopic && number_ < kGroupIds) {
            EXPECT_EQ(payload, kGroupLetter) << id_of(number_) << " got " << hex(packet);
            ++g_tally.grouped;
            return;
        }
        const std::string mine = topic_of(number_, "");
        EXPECT_EQ(topic.substr(0, mine.size()), mine) << id_of(number_) << " got " << hex(packet);
        EXPECT_EQ(payload, letter_to(number_)) << id_of(number_) << " got " << hex(packet);
    }

    std::minstd_rand    random_;
    std::optional<Peer> peer_;
    unsigned            number_         = 0;
    unsigned            level_          = 4;
    double              silent_until_s_ = 0;     // 0: it is not silent
    bool                asked_          = false; // a PINGREQ is on its way
};

void host_turn(Host &host, std::minstd_rand &random)
{
    const auto        other = static_cast<unsigned>(random() % kIds);
    const std::string id    = id_of(other);
    switch (random() % 16) {
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
        if (tarn_sdk_mqtt_broker_kick_client(host.broker(), id.c_str()) == 0)
            ++g_tally.kicks;
        break;
    case 4:
        tarn_sdk_mqtt_broker_clear_retain(host.broker(), topic_of(other, "kept").c_str());
        break;
    case 5: {
        tarn_sdk_mqtt_broker_stats_t stats;
        tarn_sdk_mqtt_broker_get_stats(host.broker(), &stats);
        break;
    }
    case 6: // what housekeeping does every ten seconds
        client_clean_timeout(1000);
        break;
    case 7:
        client_will_delay_scan();
        break;
    case 8:
        client_clean_expired_sessions();
        break;
    case 9:
        EXPECT_EQ(host.publish(kGroupTopic, kGroupLetter, random() % 3), 0);
        break;
    case 10: {
        tarn_sdk_mqtt_client_info_t info;
        if (tarn_sdk_mqtt_broker_get_client_info(host.broker(), id.c_str(), &info) == 0) {
            EXPECT_EQ(info.client_id, id);
        }
        break;
    }
    default:
        EXPECT_EQ(host.publish(topic_of(other, "news"), letter_to(other), random() % 3), 0);
    }
}

unsigned setting(const char *name, unsigned otherwise)
{
    const char *const value = getenv(name);
    return value ? static_cast<unsigned>(strtoul(value, nullptr, 10)) : otherwise;
}

// Five threads with a fifth of the clients each, two of the host.
void let_loose(Host &host, std::vector<Wanderer> &clients, double seconds, unsigned seed)
{
    std::atomic<bool>        over = false;
    std::vector<std::thread> threads;
    for (unsigned first = 0; first < kClients; first += kClients / 5)
        threads.emplace_back([&, first] {
            for (; !over; pause_ms(1))
                for (unsigned n = first; n < first + kClients / 5; ++n)
                    clients[n].turn();
        });
    for (const unsigned which : {1u, 2u})
        threads.emplace_back([&, which] {
            for (std::minstd_rand random(seed + which); !over; pause_ms(1))
                host_turn(host, random);
        });
    const double end_s = now_s() + seconds;
    wait_until([&] { return now_s() >= end_s || testing::Test::HasFailure(); }, static_cast<int>(seconds * 1000 + 500));
    over = true;
    for (std::thread &thread : threads)
        thread.join();
}

// What is left when all clients have gone: the records whose wills went out at once, for good, and nothing else.
void expect_calm(std::vector<Wanderer> &clients, int descriptors)
{
    for (Wanderer &client : clients)
        client.leave();
    const auto used    = [] { return std::atomic_ref(g_client_mgr.used_count).load(); };
    const auto delayed = [] { return std::atomic_ref(g_will_delay_client_count).load(); };
    EXPECT_TRUE(wait_until([&] { return used() == g_tally.wills_at_once && delayed() == g_tally.wills_at_once; }))
        << used() << " records in use, " << delayed() << " with a will under way, " << g_tally.wills_at_once.load()
        << " wills went out at once";
    EXPECT_EQ(client_get_connected_count(), 0u);
    EXPECT_TRUE(wait_until([&] { return descriptor_count() == descriptors; }))
        << descriptor_count() << " descriptors, were " << descriptors;
}

} // namespace

TEST(load_chaos, a_hundred_clients_on_ten_ids_beside_a_busy_host)
{
    const unsigned seconds = setting("TARN_CHAOS_S", 4);
    const unsigned seed    = setting("TARN_CHAOS_SEED", std::random_device{}());
    printf("TARN_CHAOS_S=%u TARN_CHAOS_SEED=%u\n", seconds, seed);
    Host host(kPool);
    tarn_sdk_mqtt_broker_set_log_level(host.broker(), 4);
    tarn_sdk_mqtt_broker_register_event_callback(host.broker(), on_event);
    const int             descriptors = descriptor_count();
    std::vector<Wanderer> clients;
    for (unsigned n = 0; n < kClients; ++n)
        clients.emplace_back(seed + 10 + n);

    const int phases = std::max(2, static_cast<int>(seconds) / kPhase_s);
    for (int phase = 0; phase < phases && !testing::Test::HasFailure(); ++phase) {
        g_tally.lasting_budget = kLastingMax / phases;
        let_loose(host, clients, static_cast<double>(seconds) / phases, seed + 1000 * static_cast<unsigned>(phase));
        expect_calm(clients, descriptors);
    }
    printf("%u connects: %u closed, %u reset, %u disconnected, %u silent to the end, %u kicked, %u timed out\n"
           "%u messages reached their addressees, %u retained, %u of the group; wills: %d at once, %d late\n",
           g_tally.connects.load(), g_tally.hang_ups.load(), g_tally.resets.load(), g_tally.farewells.load(),
           g_tally.ended_silent.load(), g_tally.kicks.load(), uint32_t{g_mqtt_stats.timeout}, g_tally.received.load(),
           g_tally.retained.load(), g_tally.grouped.load(), g_tally.wills_at_once.load(), g_tally.wills_late.load());
    for (const auto *what : {&g_tally.connects, &g_tally.received, &g_tally.retained, &g_tally.grouped,
                             &g_tally.hang_ups, &g_tally.resets, &g_tally.farewells, &g_tally.kicks})
        EXPECT_GT(*what, 0u);
    EXPECT_GT(g_mqtt_stats.timeout, 0u);
    EXPECT_GT(g_tally.wills_at_once, 0);
    EXPECT_GT(g_tally.wills_late, 0);
    Peer::tcp().connect_v4("last").ping();
}
