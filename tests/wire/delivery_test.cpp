// Delivery at QoS 1: to fifty subscribers that acknowledge each in its own way while messages keep coming, and what one
// identifier of 0 does.
#include "handler/packet_handler.h"
#include "support/host.h"
#include "support/log_capture.h"
#include "support/message_loop.h"
#include "support/peer.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

using namespace tarn::test;

namespace {

// To each subscriber. TARN_LOAD_MESSAGES=20000 asks for all of them under a sanitizer, too.
uint32_t messages_each()
{
    if (const char *wanted = getenv("TARN_LOAD_MESSAGES"))
        return static_cast<uint32_t>(strtoul(wanted, nullptr, 10));
    return kSanitized ? 1000 : 20000;
}

const uint32_t kMessages = messages_each();
// Messages sent that have not reached everybody; a ring holds 99. Fewer where each takes long, or all are repeated.
constexpr uint32_t kInFlight = kSanitized ? 16 : 64;
constexpr uint32_t kOwed     = 800; // acknowledgements that one subscriber owes; the broker tracks 1000 deliveries
const unsigned     kStay     = kMessages / 40 + 1; // deliveries until the restless go, and up to twice as many
constexpr uint32_t kReseed   = 1000; // messages; no delivery of so many gets the identifier 0, which would lose it
constexpr char     kTopic[]  = "load/t";

enum class Temper {
    Prompt,
    Late,      // acknowledges after a while, sometimes so late that the message has been repeated
    Forgetful, // drops a third of its acknowledgements
    Restless,  // the same, and goes and comes back
};
constexpr Temper   kTempers[]   = {Temper::Prompt, Temper::Prompt, Temper::Late, Temper::Forgetful, Temper::Restless};
constexpr unsigned kGroups      = 10; // one of each temper
constexpr unsigned kSubscribers = kGroups * std::size(kTempers);

constexpr const char *kFilters[] = {"load/t", "load/+", "load/#", "#", "+/t"}; // each group has its own

Bytes payload_of(uint32_t number) // begins with what is no property length
{
    return wire("FF FF FF FF") + u16(number >> 16) + u16(number & 0xFFFF) + text("a message like any other");
}

class Subscriber {
public:
    explicit Subscriber(unsigned number)
        : group_(number / std::size(kTempers)), temper_(kTempers[number % std::size(kTempers)]),
          id_("sub-" + std::to_string(number)), random_(number), seen_(kMessages), acknowledged_(kMessages)
    {
        appear();
    }

    // Takes what has come and writes the acknowledgements that are due.
    void turn()
    {
        if (!peer_->drain()) {
            EXPECT_EQ(temper_, Temper::Restless) << id_ << " was closed";
            appear();
        }
        for (Bytes packet; !(packet = peer_->read_packet(0)).empty();)
            take(packet);
        for (; !due_.empty() && due_.begin()->first <= now_s(); due_.erase(due_.begin()))
            answer(due_.begin()->second.first, due_.begin()->second.second);
        if (!answers_.empty()) {
            peer_->send(std::exchange(answers_, {}) + wire("C0 00"));
            batches_.push_back(std::exchange(answered_, 0u));
        }
        if (temper_ == Temper::Restless && since_arrival_ > kStay + random_() % kStay)
            leave();
    }

    bool     stays() const { return temper_ != Temper::Restless; }
    Temper   temper() const { return temper_; }
    bool     subscribed() const { return subscribed_; }
    uint32_t reached() const { return next_; } // one above the highest number that has come
    uint32_t owed() const { return owed_; }
    uint32_t missing() const { return static_cast<uint32_t>(std::count(seen_.begin(), seen_.end(), false)); }
    uint32_t forgotten() const { return forgotten_; }
    uint64_t repeats() const { return repeats_; }
    uint64_t disordered() const { return disordered_; }
    unsigned arrivals() const { return arrivals_; }

private:
    unsigned level() const { return group_ % 2 ? 5 : 4; }
    bool     forgets() { return temper_ >= Temper::Forgetful && random_() % 3 == 0; }

    void appear()
    {
        const bool clean = group_ / 2 != 2; // files are slow: few need them
        peer_            = std::make_unique<Peer>(Peer::tcp());
        greet({.clean = clean, .keep_alive_s = 600, .session_expiry_s = clean ? 0 : 600});
    }

    void greet(const Connect &options)
    {
        subscribed_    = false;
        since_arrival_ = 0;
        owed_          = 0;
        due_.clear();
        answers_.clear();
        answered_ = 0;
        batches_.clear();
        ++arrivals_;
        peer_->send(connect_packet(level(), id_, options));
        peer_->send(subscribe_packet(level(), 1, kFilters[group_ % std::size(kFilters)], 1 + group_ % 2));
    }

    void leave()
    {
        switch (random_() % 4) {
        case 0:
            peer_->send(disconnect_packet(level()));
            return appear();
        case 1:
            peer_->hang_up();
            return appear();
        case 2:
            peer_->reset();
            return appear();
        default: // once more on the same connection
            return greet({.keep_alive_s = 600});
        }
    }

    void take(const Bytes &packet)
    {
        subscribed_ |= packet[0] == 0x90;
        if (packet[0] == 0xD0 && !batches_.empty()) { // the broker has seen what was before the PINGREQ
            owed_ -= std::min(owed_, batches_.front());
            batches_.pop_front();
        }
        if (packet[0] >> 4 != 3)
            return;
        const size_t   id_at = 4 + packet[3], number_at = id_at + (level() == 5 ? 7 : 6);
        const unsigned id     = unsigned{packet[id_at]} << 8 | packet[id_at + 1];
        const uint32_t number = uint32_t{packet[number_at]} << 24 | uint32_t{packet[number_at + 1]} << 16 |
                                uint32_t{packet[number_at + 2]} << 8 | packet[number_at + 3];
        const bool dup = packet[0] & 8;
        ASSERT_LT(number, kMessages) << hex(packet);
        ASSERT_NE(id, 0u) << hex(packet);
        ASSERT_EQ(packet, publish_packet(level(), kTopic, payload_of(number), {.qos = 1, .dup = dup, .id = id}));
        note(number, dup);
        acknowledge(number, id, dup);
    }

    void note(uint32_t number, bool dup)
    {
        ++since_arrival_;
        if (seen_[number]) {
            ++repeats_;
            return;
        }
        disordered_ += number < next_ || dup;
        seen_[number] = true;
        next_         = std::max(next_, number + 1);
        ++owed_;
    }

    void acknowledge(uint32_t number, unsigned id, bool dup)
    {
        if (!dup && forgets()) { // a copy marked DUP is the third: enough of forgetting
            ++forgotten_;
            return;
        }
        if (temper_ == Temper::Late)
            due_.insert({now_s() + (random_() % 50 == 0 ? 1.4 : 0.2), {number, id}});
        else
            answer(number, id);
    }

    void answer(uint32_t number, unsigned id)
    {
        answers_ = std::move(answers_) + ack_packet(level(), 0x40, id);
        answered_ += !acknowledged_[number];
        acknowledged_[number] = true;
    }

    const unsigned        group_;
    const Temper          temper_;
    const std::string     id_;
    std::minstd_rand      random_;
    std::unique_ptr<Peer> peer_;
    bool                  subscribed_ = false;
    std::vector<bool>     seen_, acknowledged_;                // by number: has come; has been acknowledged
    std::multimap<double, std::pair<uint32_t, unsigned>> due_; // number and identifier to acknowledge at that time
    Bytes                                                answers_;
    uint32_t                                             answered_ = 0; // messages in `answers_`
    std::deque<uint32_t>                                 batches_;      // such numbers, each with a PINGREQ behind
    uint32_t                                             next_ = 0, owed_ = 0, forgotten_ = 0;
    unsigned                                             since_arrival_ = 0, arrivals_ = 0;
    uint64_t                                             repeats_ = 0, disordered_ = 0;
};

class Publisher {
public:
    Publisher() { peer_.connect_v4("publisher", {.keep_alive_s = 600}); }

    void send_below(uint32_t end)
    {
        Bytes all;
        for (; sent_ < std::min(end, kMessages); ++sent_) {
            if (sent_ % kReseed == 0)
                seed_identifiers(164);
            all = std::move(all) + publish_packet(4, kTopic, payload_of(sent_), {.qos = 1, .id = sent_ % 65535 + 1});
        }
        peer_.send(all);
    }

    void take()
    {
        EXPECT_TRUE(peer_.drain());
        for (Bytes packet; !(packet = peer_.read_packet(0)).empty(); ++acknowledged_)
            EXPECT_EQ(packet, ack_packet(4, 0x40, acknowledged_ % 65535 + 1));
    }

    uint32_t sent() const { return sent_; }
    bool     done() const { return acknowledged_ == kMessages; }

private:
    Peer     peer_ = Peer::tcp();
    uint32_t sent_ = 0, acknowledged_ = 0;
};

class Crowd {
public:
    Crowd()
    {
        for (unsigned number = 0; number < kSubscribers; ++number)
            all_.push_back(std::make_unique<Subscriber>(number));
    }

    void turn()
    {
        for (auto &one : all_)
            one->turn();
    }

    bool all_subscribed() const
    {
        return std::all_of(all_.begin(), all_.end(), [](const auto &one) { return one->subscribed(); });
    }

    // Messages below this number may be sent now.
    uint32_t open_to(uint32_t sent) const
    {
        uint32_t reached = kMessages;
        for (const auto &one : all_) {
            if (one->owed() > kOwed)
                return sent;
            if (one->stays())
                reached = std::min(reached, one->reached());
        }
        return reached + kInFlight;
    }

    void check() const
    {
        uint64_t missing = 0, disordered = 0, repeats = 0;
        unsigned arrivals = 0;
        for (const auto &one : all_) {
            repeats += one->repeats();
            arrivals += one->arrivals();
            missing += one->stays() ? one->missing() : 0;
            disordered += one->stays() ? one->disordered() : 0;
            if (one->temper() == Temper::Forgetful) {
                EXPECT_GT(one->forgotten(), kMessages / 4);
            }
        }
        fprintf(stderr, "%u messages to each: %llu missing where somebody stayed, %llu repetitions, %u arrivals\n",
                kMessages, static_cast<unsigned long long>(missing), static_cast<unsigned long long>(repeats),
                arrivals);
        EXPECT_EQ(missing, 0u);
        EXPECT_EQ(disordered, 0u);
        EXPECT_GT(repeats, kMessages);
        EXPECT_GT(arrivals, kSubscribers + kGroups); // the restless have come back, some of them again
    }

private:
    std::vector<std::unique_ptr<Subscriber>> all_;
};

} // namespace

TEST(slow_delivery, what_was_acknowledged_reaches_all_who_stay_and_nothing_stays_pending)
{
    Host       host;
    LogCapture log(3);
    {
        Crowd     crowd;
        Publisher publisher;
        EXPECT_TRUE(wait_until([&] {
            crowd.turn();
            return crowd.all_subscribed();
        }));
        const double end_s = now_s() + 200 * kSlowdown;
        while (!publisher.done() && now_s() < end_s && !testing::Test::HasFailure()) {
            publisher.send_below(crowd.open_to(publisher.sent()));
            publisher.take();
            crowd.turn();
        }
        EXPECT_TRUE(publisher.done()) << publisher.sent() << " sent";
        EXPECT_TRUE(wait_until(
            [&] { // the last repetition may be 16 s away, and what is not acknowledged then is given up 30 s later
                crowd.turn();
                return pending_deliveries().empty();
            },
            60000 * kSlowdown))
            << pending_deliveries().size() << " deliveries stay pending";
        crowd.check();
    }
    for (const LogLine &line : log.take_from("ERROR"))
        EXPECT_EQ(line.text.find("队列已满"), std::string::npos) << line;
    EXPECT_TRUE(wait_until([&] { return tarn_sdk_mqtt_broker_get_online_count(host.broker()) == 0; }));
    EXPECT_TRUE(pending_deliveries().empty());
}

// The generator of identifiers can come to 0, which no PUBLISH may carry: that delivery is not made, all others are.
TEST(delivery, an_identifier_of_0_loses_one_delivery_and_nothing_else)
{
    Host host;
    seed_identifiers(8784); // the seventh is 0
    const LoopResult result = run_message_loop({.qos = 1, .window = 1, .messages = 20});
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.lost, 1u);
    EXPECT_EQ(result.deliveries, 19u);
    EXPECT_EQ(result.disordered, 0u);
    EXPECT_TRUE(wait_until([] { return pending_deliveries().empty(); }));
}

namespace {

// Takes the next message, acknowledges it at once and returns the packet.
Bytes take(Peer &peer)
{
    const Bytes packet = peer.read_packet();
    if (packet.size() > 6 && packet[0] >> 4 == 3)
        peer.acknowledge(0x40, unsigned{packet[4 + packet[3]]} << 8 | packet[5 + packet[3]]);
    return packet;
}

int unexpected_acknowledgements(LogCapture &log)
{
    int count = 0;
    for (const LogLine &line : log.take())
        count += line.text.find("收到无效PUBACK") != std::string::npos;
    return count;
}

} // namespace

// The acknowledgement is there before the host's thread has done another thing.
TEST(delivery, what_the_host_broadcasts_is_not_repeated_once_acknowledged)
{
    constexpr int kBroadcasts = 4000;
    Host          host;
    Peer          receiver = Peer::tcp();
    receiver.connect_v4("r").subscribe("t", 1);
    std::atomic<int> taken{0};
    std::thread      broadcaster([&] {
        const Bytes packet = publish_packet(4, "t", "hello", {.qos = 1});
        for (int sent = 0; sent < kBroadcasts; ++sent) {
            while (sent - taken >= 30 && taken >= 0)
                std::this_thread::yield();
            packet_handler_broadcast_msg(packet.data(), static_cast<uint32_t>(packet.size()), 0);
        }
    });
    for (int i = 0; i < kBroadcasts && taken >= 0; ++i) {
        const Bytes packet = take(receiver);
        EXPECT_EQ(packet.empty() ? 0 : packet[0], 0x32) << i;
        taken = packet.empty() ? -1 : i + 1;
    }
    broadcaster.join();
    receiver.ping();
    EXPECT_TRUE(pending_deliveries().empty());
}

TEST(delivery, wills_of_kicked_clients_are_acknowledged_as_expected)
{
    Host host(200); // each will without a delay keeps its record
    Peer watcher = Peer::tcp();
    watcher.connect_v4("watcher").subscribe("w", 1);
    LogCapture log(2);
    for (int i = 0; i < 150 && watcher.ok(); ++i) {
        Peer client = Peer::tcp();
        client.connect_v4("kicked", {.will = Will{"w", "gone", 1}});
        EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(host.broker(), "kicked"), 0);
        EXPECT_EQ(take(watcher)[0], 0x32);
        watcher.ping();
    }
    EXPECT_EQ(unexpected_acknowledgements(log), 0);
}

TEST(delivery, delayed_wills_are_acknowledged_as_expected)
{
    constexpr int     kClients = 20;
    Host              host;
    std::vector<Peer> watchers;
    for (int i = 0; i < kClients; ++i) {
        const std::string number = std::to_string(i);
        watchers.push_back(Peer::tcp());
        watchers.back().connect_v4("watcher" + number).subscribe("w/" + number, 1);
    }
    LogCapture log(2);
    for (int i = 0; i < kClients; ++i) {
        const std::string number = std::to_string(i);
        Peer              client = Peer::tcp();
        const Will        will{"w/" + number, "gone", 1, false, wire("18 00 00 00 01")};
        client.connect_v5("gone" + number, {.will = will});
    }
    for (Peer &watcher : watchers) {
        const Bytes packet = take(watcher);
        EXPECT_EQ(packet.empty() ? 0 : packet[0], 0x32);
        watcher.ping();
    }
    EXPECT_EQ(unexpected_acknowledgements(log), 0);
}
