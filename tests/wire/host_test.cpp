// What a host can ask of a running broker, and what its callbacks see and decide.
#include "support/host.h"
#include "support/peer.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// The seen lines once there are so many of them.
std::vector<std::string> seen(size_t count)
{
    std::vector<std::string> all;
    wait_until([&] {
        for (std::string &line : Hooks::take())
            all.push_back(std::move(line));
        return all.size() >= count;
    });
    return all;
}

} // namespace

TEST(host, publish_at_both_levels)
{
    Host host;
    Peer v4 = Peer::tcp(), v5 = Peer::tcp();
    v4.connect_v4("four").subscribe("t", 1);
    v5.connect_v5("five").subscribe("t", 2);
    EXPECT_EQ(host.publish("t", "hello", 0), 0);
    v4.expect("30 08 | 00 01 't' | 'hello'");
    v5.expect("30 09 | 00 01 't' | 00 | 'hello'");
    EXPECT_EQ(host.publish("t", "hello", 2), 0);
    v4.acknowledge(0x40, v4.expect("32 0A | 00 01 't' | .. .. | 'hello'").id());
    const unsigned id = v5.expect("34 0B | 00 01 't' | .. .. | 00 | 'hello'").id();
    v5.acknowledge(0x50, id);
    v5.expect(wire("62 03") + u16(id) + wire("00 | 62 03") + u16(id) + wire("00"));
    v5.acknowledge(0x70, id);
    v4.expect_nothing(1400);
    v5.expect_nothing();
}

TEST(host, publish_refuses_bad_arguments)
{
    Host host;
    Peer client = Peer::tcp();
    client.connect_v4("a").subscribe("#");
    EXPECT_EQ(host.publish("t", "hello", 3), -2);
    EXPECT_EQ(host.publish("t", ""), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_publish(host.broker(), nullptr, "x", 1, 0, 0, 0), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_publish(host.broker(), "t", nullptr, 1, 0, 0, 0), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_publish(host.broker(), "t", "x", -1, 0, 0, 0), -2);
    client.ping();
}

TEST(host, a_large_payload_is_cut_and_comes_with_the_repetition)
{
    Host              host;
    Peer              client = Peer::tcp();
    const std::string payload(3000, '\xFF');
    client.connect_v4("a").subscribe("t", 1);
    const double start = now_s();
    EXPECT_EQ(host.publish("t", payload, 1), 0); // 2048 bytes and a topic do not fit one delivery's buffer
    const unsigned id = client.expect_publish("t", payload.substr(0, 2048), {.qos = 1});
    EXPECT_GT(now_s() - start, 0.9);
    client.acknowledge(0x40, id);
    client.ping();
}

TEST(host, retained_messages)
{
    Host host;
    EXPECT_EQ(host.publish("r/1", "one", 1, true), 0);
    EXPECT_EQ(host.publish("r/2", "two", 0, true), 0);
    EXPECT_EQ(host.retained_topics(), "r/1\nr/2\n");
    Peer client = Peer::tcp();
    client.connect_v4("a").send(subscribe_packet(4, 1, "r/#", 2));
    client.expect("33 0A | 00 03 'r/1' | .. .. | 'one' | 31 08 | 00 03 'r/2' | 'two' | 90 03 00 01 02");
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(host.broker(), "r/1"), 0);
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(host.broker(), "r/1"), -5);
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(host.broker(), nullptr), -2);
    EXPECT_EQ(host.retained_topics(), "r/2\n");
    client.publish("r/2", "", {.retain = true});
    client.ping();
    EXPECT_EQ(host.retained_topics(), "");
}

TEST(host, expiry_reaches_level_5)
{
    Host host;
    Peer client = Peer::tcp();
    client.connect_v5("a").subscribe("t");
    EXPECT_EQ(host.publish("t", "hello", 0, false, 60), 0);
    client.expect("30 0E | 00 01 't' | 05 02 00 00 00 3C | 'hello'");
}

TEST(host, absent_clients_get_what_is_above_qos_0)
{
    Host host;
    Peer client = Peer::tcp();
    client.connect_v4("a", {.clean = false}).subscribe("t", 1).disconnect();
    EXPECT_EQ(host.publish("t", "low", 0), 0);
    EXPECT_EQ(host.publish("t", "high", 1), 0);
    client = Peer::tcp();
    client.connect_v4("a", {.clean = false, .session_present = true});
    client.acknowledge(0x40, client.expect_publish("t", "high", {.qos = 1}));
    client.expect_nothing();
}

TEST(host, lists_and_counts_clients)
{
    Host host;
    EXPECT_EQ(host.client_ids(), "");
    Peer a = Peer::tcp(), b = Peer::tcp(), silent = Peer::tcp(), stranger = Peer::tcp();
    a.connect_v4("a", {.keep_alive_s = 30});
    b.connect_v5("bb");
    stranger.ping(); // a record without an id
    EXPECT_EQ(host.client_ids(), "a,bb");
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(host.broker()), 3u);

    tarn_sdk_mqtt_client_info_t info;
    memset(&info, 0xEE, sizeof info);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(host.broker(), "a", &info), 0);
    EXPECT_STREQ(info.client_id, "a");
    EXPECT_STREQ(info.ip, "127.0.0.1");
    EXPECT_EQ(info.port, a.local_port());
    EXPECT_EQ(info.keepalive, 30);
    EXPECT_EQ(info.online, 1);
    EXPECT_LT(info.idle_seconds, 5u);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(host.broker(), "c", &info), -5);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(host.broker(), nullptr, &info), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(nullptr, "a", &info), -2);

    char small[3];
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_id_list(host.broker(), small, sizeof small), 0);
    EXPECT_STREQ(small, "a,");
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_id_list(host.broker(), small, 0), -2);
    a.disconnect();
    EXPECT_EQ(host.client_ids(), "bb");
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(host.broker()), 2u);
}

TEST(host, an_empty_id_is_replaced)
{
    Host host;
    Peer client = Peer::tcp();
    client.connect_v4("");
    EXPECT_THAT(host.client_ids(), testing::MatchesRegex("auto_[0-9]+"));
}

TEST(host, a_kicked_client_leaves_its_subscriptions)
{
    Host host;
    Peer client = Peer::tcp();
    client.connect_v4("a").subscribe("t");
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(host.broker(), "a"), 0);
    client.expect("E0 00");
    client.expect_closed();
    client = Peer::tcp();
    client.connect_v4("a", {.clean = false});
    host.publish("t", "hello");
    client.expect_publish("t", "hello");
    client = Peer::tcp();
    client.connect_v4("a"); // clean: takes them out
    host.publish("t", "hello");
    client.expect_nothing();
}

TEST(host, kicks_clients)
{
    Host host;
    Peer v4 = Peer::tcp(), v5 = Peer::tcp();
    v4.connect_v4("four");
    v5.connect_v5("five");
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(host.broker(), "four"), 0);
    v4.expect("E0 00");
    v4.expect_closed();
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(host.broker(), "five"), 0);
    v5.expect("E0 02 | 98 00");
    v5.expect_closed();
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(host.broker(), "five"), -5);
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(host.broker(), ""), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(nullptr, "five"), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(host.broker()), 0u);
}

// Its will is one of its own messages, and comes while it is being closed.
TEST(host, a_kicked_client_gets_nothing_behind_the_disconnect)
{
    Host host(200); // each will without a delay keeps its record
    Peer watcher = Peer::tcp();
    watcher.connect_v4("watcher").subscribe("w");
    for (int i = 0; i < 150 && watcher.ok(); ++i) {
        Peer client = Peer::tcp();
        client.connect_v4("a", {.will = Will{"w", "oops"}}).subscribe("w");
        EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(host.broker(), "a"), 0);
        client.expect("E0 00");
        client.expect_closed();
        watcher.expect("30 07 | 00 01 'w' | 'oops'");
        ASSERT_TRUE(client.ok()) << i;
    }
}

TEST(host, a_delivery_that_only_its_expiry_made_too_large_comes_a_second_later)
{
    Host host;
    Peer receiver = Peer::tcp();
    receiver.connect_v5("r").subscribe("#", 1);
    const std::string payload(2048, 'p');
    for (const size_t topic_chars : {55u, 59u}) {
        const std::string topic(topic_chars, 't');
        EXPECT_EQ(host.publish(topic, payload, 1, false, 600), 0);
        receiver.acknowledge(0x40, receiver.expect_publish(topic, payload, {.qos = 1}));
    }
    EXPECT_EQ(host.publish(std::string(60, 't'), payload, 1, false, 600), 0);
    EXPECT_TRUE(wait_until([] { return pending_deliveries().empty(); }));
    receiver.expect_nothing(1400);
}

// Nobody takes an id over: both connections of it stay, and the id means the later one as long as that is there.
TEST(host, an_id_that_is_used_twice_is_that_of_the_later_client)
{
    Host host;
    Peer first = Peer::tcp(), second = Peer::tcp();
    first.connect_v4("a", {.keep_alive_s = 10});
    second.connect_v5("a", {.keep_alive_s = 20});
    EXPECT_EQ(host.client_ids(), "a,a");
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(host.broker()), 2u);
    tarn_sdk_mqtt_client_info_t info;
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(host.broker(), "a", &info), 0);
    EXPECT_EQ(info.port, second.local_port());
    EXPECT_EQ(info.keepalive, 20);
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(host.broker(), "a"), 0);
    second.expect("E0 02 | 98 00");
    second.expect_closed();
    first.ping();
    EXPECT_EQ(host.client_ids(), "a");
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(host.broker()), 1u);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(host.broker(), "a", &info), 0);
    EXPECT_EQ(info.port, first.local_port());
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(host.broker(), "a"), 0);
    first.expect("E0 00");
    first.expect_closed();
}

TEST(host, another_instance_may_not_touch_the_clients)
{
    Host      host;
    broker_t *other  = tarn_sdk_mqtt_broker_create();
    Peer      client = Peer::tcp();
    client.connect_v4("a");
    tarn_sdk_mqtt_client_info_t info;
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(other, "a", &info), -6);
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(other, "a"), -6);
    client.ping();
    tarn_sdk_mqtt_broker_destroy(other);
}

TEST(host, statistics)
{
    Host host;
    Peer client = Peer::tcp();
    client.connect_v4("a");
    client.publish("t", "one");
    client.publish("t", "two", {.qos = 1});
    client.publish("t", "two", {.qos = 2});
    tarn_sdk_mqtt_broker_stats_t stats;
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_stats(host.broker(), &stats), 0);
    EXPECT_EQ(stats.online, 1u);
    EXPECT_EQ(stats.messages, 3u);
    EXPECT_LT(stats.uptime_seconds, 60u);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_stats(host.broker(), nullptr), -2);
}

TEST(host, sees_what_clients_do)
{
    Host host;
    Hooks::listen(host.broker());
    Peer client = Peer::tcp();
    client.connect_v4("a", {.username = "me", .password = "secret"});
    client.subscribe("t/#", 1);
    client.publish("t/1", "hello", {.qos = 2});
    client.unsubscribe("t/#");
    client.disconnect();
    EXPECT_THAT(seen(8), ElementsAre("auth a me secret",                                  //
                                     R"(event 0 {"clientId":"a","topic":"","qos":0})",    //
                                     "acl a subscribe t/#",                               //
                                     R"(event 3 {"clientId":"a","topic":"t/#","qos":1})", //
                                     "acl a publish t/1",                                 //
                                     R"(event 2 {"clientId":"a","topic":"t/1","qos":2})", //
                                     R"(event 4 {"clientId":"a","topic":"t/#","qos":0})", //
                                     R"(event 1 {"clientId":"a","topic":"","qos":0})"));
}

TEST(host, sees_wills_but_no_dropped_connections)
{
    Host host;
    Peer plain = Peer::tcp(), dying = Peer::tcp();
    plain.connect_v4("plain");
    dying.connect_v4("dying", {.will = Will{"w", "oops", 1}});
    plain.ping();
    dying.ping(); // the events of both are past
    Hooks::listen(host.broker());
    plain.hang_up();
    dying.hang_up();
    EXPECT_THAT(seen(1), ElementsAre(R"(event 5 {"clientId":"dying","topic":"w","qos":1})"));
}

TEST(host, event_texts_are_cut_at_255_characters)
{
    Host host;
    Hooks::listen(host.broker());
    Peer              client = Peer::tcp();
    const std::string topic(250, 'T');
    client.connect_v4("a").ping(); // its event comes behind its CONNACK
    Hooks::take();
    client.publish(topic, "hello");
    client.ping();
    const std::string whole = R"({"clientId":"a","topic":")" + topic;
    EXPECT_THAT(seen(2), ElementsAre("acl a publish " + topic, "event 2 " + whole.substr(0, 255)));
}

TEST(host, refuses_users)
{
    Host host;
    Hooks::listen(host.broker());
    Hooks::refuse_user("bad");
    Peer v4 = Peer::tcp(), v5 = Peer::tcp();
    v4.send(connect_packet(4, "a", {.username = "bad"}));
    v4.expect("20 02 | 00 00"); // level 4 never sees the refusal
    v4.expect_closed();
    v5.send(connect_packet(5, "a", {.username = "bad"}));
    v5.expect("20 0B | 00 86 | 08 21 00 00 27 00 00 00 00");
    v5.expect_closed();
    Peer good = Peer::tcp();
    good.connect_v4("a", {.username = "good"});
    EXPECT_THAT(seen(4), ElementsAre("auth a bad ", "auth a bad ", "auth a good ",
                                     R"(event 0 {"clientId":"a","topic":"","qos":0})"));
}

TEST(host, refuses_topics)
{
    Host host;
    Peer watcher = Peer::tcp(), client = Peer::tcp();
    watcher.connect_v4("w").subscribe("#");
    client.connect_v4("a").ping();
    Hooks::listen(host.broker());
    Hooks::refuse_topic("no");
    client.send(publish_packet(4, "no", "hello", {.qos = 1}));
    client.expect_ignored(); // not even an acknowledgement
    client.send(publish_packet(4, "no", "hello", {.qos = 2}));
    client.expect_ignored();
    watcher.ping();
    client.send("82 0D | 00 05 | 00 03 'yes' 01 | 00 02 'no' 02");
    client.expect("90 04 | 00 05 | 01 80");
    EXPECT_THAT(seen(5), ElementsAre("acl a publish no", "acl a publish no", "acl a subscribe yes",
                                     R"(event 3 {"clientId":"a","topic":"yes","qos":1})", "acl a subscribe no"));
    EXPECT_EQ(host.publish("no", "hello"), 0); // the host asks nobody
    watcher.expect_publish("no", "hello");
    EXPECT_THAT(Hooks::take(), IsEmpty());
}

TEST(host, callbacks_can_be_taken_back)
{
    Host host;
    Hooks::listen(host.broker());
    Hooks::refuse_user("bad");
    tarn_sdk_mqtt_broker_register_auth_callback(host.broker(), nullptr);
    tarn_sdk_mqtt_broker_register_event_callback(host.broker(), nullptr);
    tarn_sdk_mqtt_broker_register_acl_callback(host.broker(), nullptr);
    Peer client = Peer::tcp();
    client.connect_v4("a", {.username = "bad"}).subscribe("t");
    EXPECT_THAT(Hooks::take(), IsEmpty());
    tarn_sdk_mqtt_broker_register_auth_callback(nullptr, nullptr);
    tarn_sdk_mqtt_broker_register_event_callback(nullptr, nullptr);
    tarn_sdk_mqtt_broker_register_acl_callback(nullptr, nullptr);
}

TEST(host, constant_texts)
{
    EXPECT_STREQ(tarn_sdk_mqtt_broker_version(), "V2.0.0");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(0), "OK");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(-7), "Busy (already running)");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(1), "Unknown error");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(-9), "Unknown error");
}
