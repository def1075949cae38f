// Shared subscriptions: whose turn it is, with one group and several, while members come and go and the counter wraps.
#include "base/relaxed.h"
#include "handler/shared_sub.h"
#include "support/host.h"
#include "support/peer.h"

#include <gtest/gtest.h>
#include <map>

using namespace tarn::test;

namespace {

// Members by one-letter names, in the order in which they subscribed, and a client that publishes to "t".
class Party {
public:
    Party() { sender_.connect_v4("sender"); }

    Peer &join(char name, const std::string &filter, unsigned qos = 1, unsigned level = 4, const Connect &options = {})
    {
        Peer &peer = members_.emplace(name, Peer::tcp()).first->second;
        peer.connect(level, {&name, 1}, options);
        return peer.subscribe(filter, qos);
    }
    void  leave(char name) { members_.erase(name); } // without a word
    Peer &operator[](char name) { return members_.at(name); }
    Peer &sender() { return sender_; }
    Host &host() { return host_; }

    // Who got the message just published, in alphabetical order, once for each copy, each of them acknowledged.
    std::string receivers()
    {
        std::string names;
        for (auto &[name, peer] : members_) {
            peer.send("C0 00"); // what was queued before comes before the answer
            Bytes packet;
            while (!(packet = peer.read_packet()).empty() && packet[0] >> 4 == 3) {
                const size_t id = 4 + packet[3]; // behind the topic, unless the QoS is 0
                if (packet[0] & 0x06)
                    peer.acknowledge(0x40, unsigned{packet[id]} << 8 | packet[id + 1]); // completes QoS 2 as well
                names += name;
            }
            EXPECT_EQ(packet, wire("D0 00")) << name;
        }
        return names.empty() ? "-" : names;
    }

    std::string turn(const std::string &topic = "t")
    {
        sender_.publish(topic, "hello", {.qos = 2});
        return receivers();
    }

    std::string turns(int count)
    {
        std::string all = turn();
        for (int i = 1; i < count; ++i)
            all += " " + turn();
        return all;
    }

private:
    Host                 host_;
    Peer                 sender_ = Peer::tcp();
    std::map<char, Peer> members_;
};

void expect_counter(int32_t value)
{
    EXPECT_EQ(tarn::peek(g_rr_counter), value);
}

} // namespace

TEST(shared, one_group_takes_strict_turns_whatever_the_levels_and_whoever_publishes)
{
    Party party;
    party.join('a', "$share/g/t", 0);
    party.join('b', "$share/g/+", 1, 5); // one group by its name, not by its filter
    party.join('c', "$share/g/t", 2);
    EXPECT_EQ(party.turns(4), "a b c a");
    EXPECT_EQ(party.host().publish("t", "hello", 1), 0);
    EXPECT_EQ(party.receivers(), "b");
    Peer five = Peer::tcp();
    five.connect_v5("five").publish("t", "hello", {.qos = 1});
    EXPECT_EQ(party.receivers(), "c");
    EXPECT_EQ(party.turns(2), "a b");
    Peer dying = Peer::tcp();
    dying.connect_v4("dying", {.will = Will{"t", "hello", 1}}).ping();
    dying.hang_up();
    EXPECT_TRUE(wait_until([] { return tarn::peek(g_rr_counter) == 9; }));
    EXPECT_TRUE(wait_until([&] { return party.receivers() == "c"; }));
    EXPECT_EQ(party.turns(3), "a b c");
    expect_counter(12);
}

TEST(shared, members_stand_in_the_order_of_their_subscriptions)
{
    Party party;
    for (char name : {'c', 'a', 'b'})
        party.join(name, "$share/g/t");
    EXPECT_EQ(party.turns(3), "c a b");
    party['c'].subscribe("$share/g/t", 2); // changed, but in its old place
    EXPECT_EQ(party.turns(3), "c a b");
    party['c'].unsubscribe("$share/g/t").subscribe("$share/g/t", 1);
    EXPECT_EQ(party.turns(3), "a b c");
}

// Two steps a message, one for each group: g always meets an even count, h 1, 3, 5 ...
TEST(shared, several_groups_share_one_counter)
{
    Party party;
    party.join('a', "$share/g/t");
    party.join('c', "$share/h/t");
    party.join('b', "$share/g/t");
    party.join('d', "$share/h/t");
    party.join('e', "$share/h/t");
    EXPECT_EQ(party.turns(4), "ad ac ae ad");
    expect_counter(8);
    party.join('u', "$share/g/u"); // the same group name, on another topic
    EXPECT_EQ(party.turn("u"), "u");
    EXPECT_EQ(party.turns(3), "bd bc be"); // 9 and 10, 11 and 12, 13 and 14
    expect_counter(15);
    EXPECT_EQ(party.turn("nobody's"), "-");
    expect_counter(15);
}

TEST(shared, a_member_of_two_groups_gets_a_copy_for_each)
{
    Party party;
    party.join('a', "$share/g/t").subscribe("$share/h/t", 0).subscribe("t", 2);
    party.join('b', "$share/g/t").subscribe("$share/h/t", 0);
    EXPECT_EQ(party.turns(2), "aab aab"); // plain and g at an even count; h at an odd one
    party['a'].unsubscribe("$share/g/t");
    EXPECT_EQ(party.turns(2), "aab aab"); // g is b's alone; h, named first now, meets even counts: a
}

// Group ab counts among the members of group a: 3 of them, met at 0, 2, 4, 6. Chosen for both, m gets one copy.
TEST(shared, a_group_takes_in_the_groups_its_name_begins)
{
    Party party;
    party.join('k', "$share/a/t");
    party.join('m', "$share/ab/t");
    party.join('n', "$share/a/t");
    EXPECT_EQ(party.turns(4), "km mn m km");
    expect_counter(8);
}

TEST(shared, a_name_without_a_second_slash_is_a_plain_filter)
{
    Party party;
    party.join('a', "$share/g");
    party.join('b', "$share/g");
    EXPECT_EQ(party.turn("$share/g"), "ab");
    expect_counter(0);
}

TEST(shared, members_leave_between_two_messages)
{
    Party party;
    for (char name : {'a', 'b', 'c', 'd'})
        party.join(name, "$share/g/t");
    EXPECT_EQ(party.turns(2), "a b");
    party['b'].unsubscribe("$share/g/t"); // a c d from now on
    EXPECT_EQ(party.turns(3), "d a c");   // 2, 3, 4 of three
    party['c'].disconnect();
    party.leave('c');
    EXPECT_EQ(party.turns(3), "d a d"); // 5, 6, 7 of two
    party.leave('a');
    EXPECT_TRUE(wait_until([&] { return tarn_sdk_mqtt_broker_get_online_count(party.host().broker()) == 3; }));
    EXPECT_EQ(party.turns(2), "d d");
    party.join('a', "$share/g/t");
    EXPECT_EQ(party.turns(3), "d a d"); // 10, 11, 12 of two, a the last
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(party.host().broker(), "d"), 0);
    party.leave('d');
    EXPECT_EQ(party.turns(3), "a - a"); // 13, 14, 15: whoever is kicked leaves the subscription behind
    party['a'].unsubscribe("$share/g/t");
    EXPECT_EQ(party.turns(2), "- -");
    expect_counter(18);
    party.join('d', "other"); // and takes it away with the next clean session
    EXPECT_EQ(party.turn(), "-");
    expect_counter(18);
}

TEST(shared, a_kept_member_keeps_its_turns_while_it_is_away)
{
    Party party;
    party.join('a', "$share/g/t");
    party.join('b', "$share/g/t", 1, 4, {.clean = false}).disconnect();
    party.leave('b');
    EXPECT_EQ(party.turns(3), "a - a");
    Peer back = Peer::tcp();
    back.connect_v4("b", {.clean = false, .session_present = true});
    back.acknowledge(0x40, back.expect_publish("t", "hello", {.qos = 1}));
    back.ping();
    EXPECT_EQ(pending_deliveries().size(), 0u);
}

TEST(shared, the_publisher_has_its_turns_and_nobody_gets_them)
{
    Party party;
    party.sender().subscribe("$share/g/t", 1);
    party.join('a', "$share/g/t");
    EXPECT_EQ(party.turns(4), "- a - a");
}

TEST(shared, a_delivery_without_an_answer_stays_with_its_receiver)
{
    Party party;
    party.join('a', "$share/g/t");
    party.join('b', "$share/g/t");
    party.sender().publish("t", "hello", {.qos = 1});
    const unsigned id = party['a'].expect_publish("t", "hello", {.qos = 1});
    EXPECT_EQ(party['a'].expect_publish("t", "hello", {.qos = 1}), id); // a second later
    party['b'].ping();
    party['a'].disconnect();
    party.leave('a');
    party['b'].ping();
    EXPECT_EQ(pending_deliveries().size(), 0u);
    expect_counter(1);
}

TEST(shared, every_member_gets_the_retained_messages)
{
    Party party;
    party.sender().publish("t", "kept", {.retain = true});
    for (const char *id : {"x", "y"}) {
        Peer peer = Peer::tcp();
        peer.connect_v4(id).send(subscribe_packet(4, 7, "$share/g/t", 1));
        peer.expect("31 07 | 00 01 't' | 'kept' | 90 03 00 07 01");
    }
    expect_counter(0);
}

// Members are counted from the counter as an unsigned number, so the turns go on past 2^31 and begin anew at 2^32.
TEST(shared, turns_go_on_past_2_to_the_31)
{
    Party party;
    for (char name : {'a', 'b', 'c'})
        party.join(name, "$share/g/t");
    g_rr_counter = INT32_MAX - 1; // 2147483646, a multiple of 3
    EXPECT_EQ(party.turns(6), "a b c a b c");
    expect_counter(INT32_MIN + 4);
    g_rr_counter = -1; // 4294967295, a multiple of 3
    EXPECT_EQ(party.turns(4), "a a b c");
    expect_counter(3);
}
