// A client that comes back while its old connection is still open, and what the end of that connection takes from it.
#include "support/broker_process.h"
#include "support/host.h"
#include "support/peer.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

using Ending = void (*)(Peer &);

constexpr Ending kEndings[] = {
    [](Peer &old) { old.hang_up(); },
    [](Peer &old) { old.reset(); },
    [](Peer &old) { old.disconnect(); },
};

} // namespace

TEST(reconnect, the_old_connections_end_takes_the_subscriptions_of_the_new_one)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          sender = Peer::tcp();
    sender.connect_v4("sender");
    for (const Ending end : kEndings) {
        Peer old = Peer::tcp(), fresh = Peer::tcp();
        old.connect_v4("same").subscribe("t");
        fresh.connect_v4("same").subscribe("t");
        sender.publish("t", "before");
        fresh.expect_publish("t", "before");
        end(old);
        sender.ping(); // the end has been seen
        sender.publish("t", "lost");
        fresh.expect_nothing();
        fresh.ping(); // it cannot tell that anything is amiss
        fresh.subscribe("t");
        sender.publish("t", "after");
        fresh.expect_publish("t", "after");
        fresh.disconnect();
    }
}

TEST(reconnect, the_old_connections_end_takes_the_deliveries_of_the_new_one)
{
    Host host;
    Peer old = Peer::tcp(), fresh = Peer::tcp();
    old.connect_v4("same", {.clean = false});
    fresh.connect_v4("same", {.clean = false}).subscribe("t", 1);
    host.publish("t", "hello", 1);
    fresh.expect_publish("t", "hello", {.qos = 1});
    EXPECT_EQ(pending_deliveries().size(), 1u);
    old.hang_up();
    EXPECT_TRUE(wait_until([] { return pending_deliveries().empty(); })) << "though nobody acknowledged it";
    host.publish("t", "more", 1); // the subscriptions of a session that is to be kept stay
    fresh.expect_publish("t", "more", {.qos = 1});
}

TEST(reconnect, the_old_connections_end_takes_the_files_of_the_new_one)
{
    BrokerProcess broker = BrokerProcess::start();
    const auto    saved  = [] { return std::filesystem::exists("broker_data/subscription/same.json"); };
    Peer          old = Peer::tcp(), fresh = Peer::tcp();
    old.connect_v4("same", {.clean = false});
    fresh.connect_v4("same", {.clean = false}).subscribe("t", 1);
    EXPECT_TRUE(saved());
    old.hang_up();
    fresh.ping();
    EXPECT_FALSE(saved());
}

TEST(reconnect, a_host_that_kicks_the_id_when_it_logs_in_again_keeps_the_new_connection_whole)
{
    Host host;
    tarn_sdk_mqtt_broker_register_auth_callback(
        host.broker(), [](broker_t *broker, const char *id, const char *, const char *) {
            (void)tarn_sdk_mqtt_broker_kick_client(broker, id); // the new connection does not have the id yet
            return true;
        });
    Peer old = Peer::tcp(), fresh = Peer::tcp();
    old.connect_v4("same").subscribe("t");
    fresh.connect_v4("same").subscribe("t");
    old.expect("E0 00");
    old.expect_closed();
    fresh.ping();
    host.publish("t", "hello");
    fresh.expect_publish("t", "hello");
}
