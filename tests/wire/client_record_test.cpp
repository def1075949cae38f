// Two places where clients meet inside the broker: ids that share an entry of its table, and a record that one client
// has after another.
#include "support/broker_process.h"
#include "support/peer.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace tarn::test;
using testing::IsEmpty;

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
    for (Peer &subscriber : subscribers) {
        subscriber.expect_publish("t", "all");
        ASSERT_TRUE(subscriber.ok());
    }
}

namespace {

std::vector<std::string> saved_files()
{
    std::vector<std::string> paths;
    for (const char *directory : {"session", "subscription", "message"})
        for (const auto &entry : std::filesystem::directory_iterator(std::string("broker_data/") + directory))
            paths.push_back(entry.path().string());
    return paths;
}

} // namespace

TEST(reused_record, writes_no_file_of_who_had_it_before)
{
    BrokerProcess broker = BrokerProcess::start();
    struct {
        Bytes       says;
        const char *answer;
    } const cases[] = {
        {disconnect_packet(4), ""}, {subscribe_packet(4, 1, "other", 1), "90 03 | 00 01 | 80"}, // without an id
    };
    for (const auto &[says, answer] : cases) {
        SCOPED_TRACE(hex(says));
        Peer owner = Peer::tcp();
        owner.connect_v4("owner", {.clean = false}).subscribe("t", 1);
        owner.disconnect();
        ASSERT_THAT(saved_files(), testing::ElementsAre("broker_data/subscription/owner.json"));

        Peer silent = Peer::tcp();
        silent.send("C0 00"); // makes a record for this connection: the one that the owner had
        silent.expect("D0 00");
        Peer back = Peer::tcp();
        back.connect_v4("owner", {.clean = true});
        ASSERT_THAT(saved_files(), IsEmpty());

        silent.send(says);
        *answer ? (void)silent.expect(answer) : silent.expect_closed();
        EXPECT_THAT(saved_files(), IsEmpty());
        back.disconnect();
    }
}
