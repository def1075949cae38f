// SUBSCRIBE, UNSUBSCRIBE, which filters are taken and what they match.
#include "support/broker_process.h"
#include "support/peer.h"

#include <gtest/gtest.h>
#include <map>

using namespace tarn::test;

namespace {

struct Topics { // one client that subscribes and one that publishes
    BrokerProcess broker     = BrokerProcess::start();
    Peer          subscriber = Peer::tcp();
    Peer          sender     = Peer::tcp();
    Topics()
    {
        subscriber.connect_v4("s");
        sender.connect_v4("p");
    }
};

Bytes filters(unsigned first_number, unsigned count) // "f1" 0, "f2" 0, ...
{
    Bytes all;
    for (unsigned i = 0; i < count; ++i)
        all = all + prefixed("f" + std::to_string(first_number + i)) + wire("00");
    return all;
}

} // namespace

TEST(subscribe, v4_suback_carries_one_code_a_filter)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    client.send("82 06 | 12 34 | 00 01 'x' 00");
    client.expect("90 03 | 12 34 | 00");
    client.send("82 12 | 12 35 | 00 01 'x' 01 | 00 01 'y' 02 | 00 01 'z' 00 | 00 01 'w' 03"); // QoS 3 is no QoS
    client.expect("90 06 | 12 35 | 01 02 00 80");
}

TEST(subscribe, v5_suback_has_a_zero_byte_before_its_codes)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v5("a");
    client.send("82 07 | 12 34 | 00 | 00 01 'x' 02");
    client.expect("90 04 | 12 34 | 00 | 02");
    client.send("82 0C | 12 35 | 00 | 00 02 '+a' 01 | 00 01 'y' 01"); // also when the first filter is refused
    client.expect("90 05 | 12 35 | 00 | 80 01");
}

TEST(subscribe, v5_options_and_properties)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v5("a");
    client.send("82 07 | 00 01 | 00 | 00 01 'x' 2D"); // no local, retain as published, retain handling 2: dropped
    client.expect("90 04 | 00 01 | 00 | 01");
    client.send("82 09 | 00 02 | 02 0B 05 | 00 01 'x' 02"); // a subscription identifier of one byte
    client.expect("90 04 | 00 02 | 00 | 02");
    Peer sender = Peer::tcp();
    sender.connect_v5("p").publish("x", "hello");
    client.expect_publish("x", "hello"); // and no identifier comes back
}

TEST(subscribe, filters_that_are_refused)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    const std::map<std::string, bool> taken = {
        {"#", true},       {"/#", true},     {"a/#", true},   {"+", true},      {"+/b", true},    {"a/+", true},
        {"a//b", true},    {"/", true},      {"a/", true},    {"a/+/b", true},  {"+/+/+", true},  {"$share/g/a", true},
        {"a#", false},     {"a/#/b", false}, {"a/##", false}, {"##", false},    {"a+", false},    {"+a", false},
        {"a/+b/c", false}, {"++", false},    {"+/#", false},  {"a/+/#", false}, {"+/b/#", false},
    };
    unsigned id = 0;
    for (const auto &[filter, good] : taken) {
        SCOPED_TRACE(filter);
        client.send(subscribe_packet(4, ++id, filter, 1));
        client.expect(wire("90 03") + u16(id) + (good ? wire("01") : wire("80")));
    }
}

TEST(subscribe, what_filters_match)
{
    const struct {
        const char *filter, *topic;
        bool        match;
    } cases[] = {
        {"sport/#", "sport", true},
        {"sport/#", "sport/", true},
        {"sport/#", "sport/tennis/x", true},
        {"sport/#", "sports", false},
        {"#", "$SYS/x", true},
        {"+/x", "$SYS/x", true},
        {"a/+", "a/b", true},
        {"a/+", "a/", false},
        {"a/+", "a/b/", true},
        {"a/+", "a/b/c", false},
        {"a/+", "a", false},
        {"+/b", "/b", true},
        {"+", "/", true},
        {"+", "a", true},
        {"+", "a/b", false},
        {"a/b", "a/b/c", false},
        {"a/b/c", "a/b", false},
        {"A/b", "a/b", false},
        {"a/+/c", "a/b/c", true},
        {"a/+/c", "a//c", true},
        {"a/+/c", "a/b/d", false},
        {"$share/g1/a/+", "a/x", true},
        {"$share/g1/", "a", false},
        {"a/b", "a/+", false},
        {"$share/g", "$share/g", true},
        {"/#", "/x", true},
        {"/#", "x", false},
    };
    Topics test;
    for (const auto &one : cases) {
        SCOPED_TRACE(std::string(one.filter) + " and " + one.topic);
        test.subscriber.subscribe(one.filter);
        test.sender.publish(one.topic, "wow");
        test.sender.ping();
        if (one.match)
            test.subscriber.expect_publish(one.topic, "wow");
        test.subscriber.unsubscribe(one.filter);
    }
}

TEST(subscribe, at_most_16_filters_are_read)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    client.send(packet(0x82, wire("00 01") + filters(1, 15)));
    client.expect(wire("90 11 | 00 01") + repeat(0, 15));
    client.send(packet(0x82, wire("00 02") + filters(1, 16)));
    client.expect(wire("90 12 | 00 02") + repeat(0, 16));
    client.send(packet(0x82, wire("00 03") + filters(1, 17)));
    client.expect(wire("90 12 | 00 03") + repeat(0, 16));
}

TEST(subscribe, reading_stops_at_a_bad_filter)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    client.send("82 0D | 00 01 | 00 01 'x' 01 | 00 00 00 | 00 01 'y' 01"); // an empty one
    client.expect("90 03 | 00 01 | 01");
    client.send("82 0A | 00 02 | 00 01 'x' 01 | 00 09 'y' 01"); // one past the end
    client.expect("90 03 | 00 02 | 01");
    client.send("82 09 | 00 03 | 00 01 'x' 01 | 00 01 'y'"); // one without its options
    client.expect("90 03 | 00 03 | 01");
    client.send(
        "82 0B | 00 04 | 00 02 00 'x' 01 | 00 01 'y' 02"); // one that begins with a zero byte is empty, but counts
    client.expect("90 04 | 00 04 | 80 02");
}

TEST(subscribe, undecodable_packets_get_no_answer)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    for (const char *bad : {
             "80 06 | 00 01 | 00 01 'x' 00", // flags
             "82 06 | 00 00 | 00 01 'x' 00", // packet identifier 0
             "82 02 | 00 01",                // no filter
             "82 05 | 00 01 | 00 00 00",     // an empty filter alone
             "82 05 | 00 01 | 00 01 'x'",    // no options
             "82 05 | 00 01 | 00 09 'x'",    // a filter past the end
         }) {
        SCOPED_TRACE(bad);
        client.send(bad);
        client.expect_ignored();
    }
}

TEST(subscribe, filters_have_at_most_256_characters)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a").subscribe(std::string(256, 'f'));
    client.send(subscribe_packet(4, 9, std::string(257, 'f'), 0));
    client.expect_ignored();
    Peer sender = Peer::tcp();
    sender.connect_v4("p").publish(std::string(256, 'f'), "wow");
    client.expect_publish(std::string(256, 'f'), "wow");
}

TEST(subscribe, retained_messages_come_before_the_suback)
{
    Topics test;
    test.sender.publish("t/1", "one", {.qos = 1, .retain = true});
    test.sender.publish("t/2", "two", {.retain = true});
    test.sender.publish("u", "three", {.qos = 2, .retain = true});
    test.subscriber.send(subscribe_packet(4, 5, "t/#", 0));
    test.subscriber.expect("33 0A | 00 03 't/1' | .. .. | 'one'"); // at the QoS it was kept with
    test.subscriber.expect("31 08 | 00 03 't/2' | 'two'");
    test.subscriber.expect("90 03 00 05 00");
    test.subscriber.expect_nothing(1500); // a retained delivery is not repeated, though nobody acknowledged it
}

TEST(subscribe, retained_messages_come_again_with_each_subscribe)
{
    Topics test;
    test.sender.publish("t", "one", {.retain = true});
    for (const char *round : {"first", "second"}) {
        SCOPED_TRACE(round);
        test.subscriber.send(subscribe_packet(4, 5, "t", 0));
        test.subscriber.expect("31 06 | 00 01 't' | 'one' | 90 03 00 05 00");
    }
}

TEST(subscribe, one_delivery_for_each_subscription_that_matches)
{
    Topics test;
    test.subscriber.subscribe("t/#", 0).subscribe("t/1", 1).subscribe("+/1", 2);
    test.sender.publish("t/1", "hello", {.qos = 2});
    test.subscriber.expect("30 0A | 00 03 't/1' 'hello'");
    test.subscriber.expect("32 0C | 00 03 't/1' .. .. 'hello'");
    test.subscriber.expect("34 0C | 00 03 't/1' .. .. 'hello'");
    test.subscriber.expect_nothing();
}

TEST(subscribe, subscribing_again_replaces_the_qos)
{
    Topics test;
    test.subscriber.subscribe("t", 0).subscribe("t", 1);
    test.sender.publish("t", "hello", {.qos = 2});
    test.subscriber.expect("32 0A | 00 01 't' .. .. 'hello'");
    test.subscriber.expect_nothing();
}

TEST(subscribe, shared_members_take_turns)
{
    BrokerProcess     broker = BrokerProcess::start();
    Peer              sender = Peer::tcp();
    std::vector<Peer> members;
    for (const char *id : {"a", "b", "c"}) {
        members.push_back(Peer::tcp());
        members.back().connect_v4(id).subscribe("$share/g/t");
    }
    sender.connect_v4("p");
    for (int turn = 0; turn < 7; ++turn) {
        SCOPED_TRACE(turn);
        sender.publish("t", "hello");
        members[static_cast<size_t>(turn) % 3].expect_publish("t", "hello");
    }
    for (Peer &member : members)
        member.ping(); // nothing else came
}

TEST(subscribe, shared_and_plain_subscriptions_of_one_client_both_deliver)
{
    Topics test;
    test.subscriber.subscribe("t").subscribe("$share/g/t");
    test.sender.publish("t", "hello");
    test.subscriber.expect_publish("t", "hello");
    test.subscriber.expect_publish("t", "hello");
    test.subscriber.ping();
}

TEST(unsubscribe, v4_and_v5)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    client.send("A2 05 | 00 0B | 00 01 'x'"); // never subscribed: answered all the same
    client.expect("B0 02 | 00 0B");
    client.send("A2 02 | 00 05"); // no filter at all
    client.expect("B0 02 | 00 05");
    client.connect_v5("a");
    client.send("A2 09 | 00 0C | 00 | 00 01 'x' | 00 01 'y'"); // one reason code, whatever the number of filters
    client.expect("B0 03 | 00 0C | 00");
}

TEST(unsubscribe, ends_the_deliveries)
{
    Topics test;
    test.subscriber.subscribe("t").subscribe("u");
    test.subscriber.unsubscribe("t");
    test.sender.publish("t", "hello");
    test.sender.publish("u", "hello");
    test.subscriber.expect_publish("u", "hello");
    test.subscriber.ping();
}

TEST(unsubscribe, undecodable_packets_get_no_answer)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    for (const char *bad : {
             "A0 05 | 00 01 | 00 01 'x'", // flags
             "A2 05 | 00 00 | 00 01 'x'", // packet identifier 0
             "A2 00",                     // no identifier
             "A2 04 | 00 01 | 00 00",     // an empty filter fails the whole packet
             "A2 07 | 00 01 | 00 01 'x' | 00 00",
             "A2 05 | 00 01 | 00 09 'x'",
         }) {
        SCOPED_TRACE(bad);
        client.send(bad);
        client.expect_ignored();
    }
    client.connect_v5("a");
    client.send("A2 02 | 00 05"); // level 5 needs the property length
    client.expect_ignored();
}

TEST(unsubscribe, a_filter_removed_returns_with_the_session)
{
    Topics test;
    Peer   client = Peer::tcp();
    client.connect_v4("a", {.clean = false}).subscribe("t").unsubscribe("t").disconnect();
    client = Peer::tcp();
    client.connect_v4("a", {.clean = false, .session_present = true});
    test.sender.publish("t", "hello");
    client.expect_publish("t", "hello");
}
