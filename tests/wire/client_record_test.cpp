// Clients that meet inside the broker, because their ids share an entry of its table.
#include "support/broker_process.h"
#include "support/peer.h"

#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

uint32_t bucket_of(const std::string &id)
{
    uint32_t hash = 0;
    for (const char c : id)
        hash = hash * 31 + static_cast<uint32_t>(static_cast<signed char>(c));
    return hash % 11000;
}

std::string rival_of(const std::string &id)
{
    const uint32_t bucket = bucket_of(id);
    for (int i = 0;; ++i)
        if (std::string rival = "visitor" + std::to_string(i); bucket_of(rival) == bucket)
            return rival;
}

struct hidden_client : testing::Test {
    BrokerProcess broker    = BrokerProcess::start();
    Peer          publisher = Peer::tcp();
    Peer          hidden    = Peer::tcp();
    Peer          visitor   = Peer::tcp();

    void SetUp() override
    {
        publisher.connect_v4("publisher");
        hidden.connect_v4("hidden").subscribe("t");
        visitor.connect_v5(rival_of("hidden"));
        publisher.publish("t", "while both are there");
        publisher.ping();
        hidden.ping(); // answered next: nothing came before
    }
    void expect_found()
    {
        publisher.publish("t", "again");
        hidden.expect_publish("t", "again");
    }
};

} // namespace

TEST_F(hidden_client, receives_again_when_the_other_has_said_disconnect)
{
    visitor.disconnect();
    expect_found();
}

TEST_F(hidden_client, receives_again_when_the_other_goes_by_another_id)
{
    visitor.connect_v5("elsewhere");
    expect_found();
    visitor.disconnect();
    expect_found();
}

TEST_F(hidden_client, receives_again_when_the_other_has_hung_up)
{
    visitor.hang_up();
    EXPECT_TRUE(wait_until([&] {
        publisher.publish("t", "yet?");
        return !hidden.read_packet(50).empty();
    }));
}

TEST(hidden_clients, all_200_receive_after_as_many_visits)
{
    BrokerProcess     broker = BrokerProcess::start();
    std::vector<Peer> subscribers;
    for (int i = 0; i < 200; ++i) {
        subscribers.push_back(Peer::tcp());
        subscribers.back().connect_v4("sub" + std::to_string(i)).subscribe("t");
    }
    for (int i = 0; i < 200; ++i) {
        Peer visitor = Peer::tcp();
        visitor.connect_v4(rival_of("sub" + std::to_string(i)));
        visitor.disconnect();
    }
    Peer publisher = Peer::tcp();
    publisher.connect_v4("publisher");
    publisher.publish("t", "all");
    for (Peer &subscriber : subscribers)
        subscriber.expect_publish("t", "all");
}
