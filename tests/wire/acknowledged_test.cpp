// What was acknowledged outlives a kill, at whatever moment it comes: messages for absent clients and retained ones.
#include "support/broker_process.h"
#include "support/peer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <set>

using namespace tarn::test;
using testing::IsSupersetOf;

namespace {

constexpr unsigned kMessages = 30; // that all fit into what is read back of a message file
constexpr int      kRounds   = 8;

// Publishes them in one go, and kills the broker when so many are acknowledged.
std::set<std::string> publish_until_killed(BrokerProcess &broker, Peer &publisher, unsigned acknowledged,
                                           const std::string &prefix, bool retain)
{
    Bytes packets;
    for (unsigned id = 1; id <= kMessages; ++id) {
        const Bytes one = publish_packet(4, retain ? prefix + std::to_string(id) : "t", prefix + std::to_string(id),
                                         {.qos = 1, .retain = retain, .id = id});
        packets.insert(packets.end(), one.begin(), one.end());
    }
    publisher.send(packets);
    std::set<std::string> promised;
    for (unsigned id = 1; id <= acknowledged; ++id) {
        publisher.expect(ack_packet(4, 0x40, id));
        promised.insert(prefix + std::to_string(id));
    }
    broker.crash();
    return promised;
}

// The payloads of all publications that come until the peer has been silent for a while.
std::set<std::string> payloads(Peer &peer, size_t topic_length)
{
    std::set<std::string> seen;
    for (Bytes packet = peer.read_packet(2500); !packet.empty(); packet = peer.read_packet(1500))
        if (packet[0] >> 4 == 3) {
            const size_t head = 4 + (topic_length ? topic_length : packet[3]) + ((packet[0] >> 1 & 3) ? 2 : 0);
            seen.insert({packet.begin() + static_cast<long>(head), packet.end()});
        }
    return seen;
}

} // namespace

TEST(acknowledged, a_message_for_an_absent_client_outlives_a_kill)
{
    std::optional<BrokerProcess> broker(BrokerProcess::start());
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        const std::string id   = "away" + std::to_string(round);
        Peer              away = come(4, id, keep(4, false));
        away.subscribe("t", 1);
        away.disconnect();
        Peer       publisher = come(4, "publisher", {});
        const auto promised  = publish_until_killed(*broker, publisher, static_cast<unsigned>(round) * 4, "m", false);
        broker.emplace(BrokerProcess::start());
        away = come(4, id, keep(4, true));
        EXPECT_THAT(payloads(away, 1), IsSupersetOf(promised));
        away.unsubscribe("t");
        away.disconnect();
    }
}

TEST(acknowledged, a_retained_message_outlives_a_kill)
{
    std::optional<BrokerProcess> broker(BrokerProcess::start());
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        Peer              publisher = come(4, "publisher", {});
        const std::string prefix    = "r" + std::to_string(round) + "/";
        const auto promised = publish_until_killed(*broker, publisher, static_cast<unsigned>(round) * 4, prefix, true);
        broker.emplace(BrokerProcess::start());
        Peer reader = come(4, "reader", {});
        reader.send(subscribe_packet(4, 7, prefix + "+", 0));
        EXPECT_THAT(payloads(reader, 0), IsSupersetOf(promised));
    }
}
