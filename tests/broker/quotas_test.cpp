// How much one user or address may have, and what the program says of it.
#include "broker/access/quotas.h"
#include "program.h"
#include "support/peer.h"
#include "user_file.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <thread>

using namespace tarn::broker;
using namespace tarn::test;

namespace {

constexpr const char *kHere = "10.0.0.1", *kThere = "10.0.0.2";

// The library's tables, as the test fills them.
struct quotas : testing::Test {
    static Quotas::Limits limits()
    {
        Quotas::Limits result{};
        result.fill(2);
        return result;
    }
    Holdings holdings()
    {
        return {.subscriber_ids   = [this] { return subscriber_ids; },
                .subscriptions_of = subscriptions_of,
                .retained_topics  = [this] { return topics; },
                .online           = [this] { return online; },
                .has_session      = [this](const std::string &id) { return saved.contains(id); },
                .holds_will       = [this](const WillHolder &holder) { return wills.contains(holder); }};
    }
    // On a connection of its own.
    const char *come(const char *id, const char *address = kHere, const char *user = "", bool keeps = false)
    {
        ++handle;
        if (const char *const why = some.open(handle, address))
            return why;
        return some.connect(handle, user, id, keeps, now_ms);
    }
    void go(uint32_t which) { some.close(which); }
    // And goes again, with a subscription: it may be there still.
    const char *come_and_go(const char *id)
    {
        const char *const why = come(id);
        some.subscribe(handle, id, now_ms);
        go(handle);
        return why;
    }

    std::vector<std::string>                   subscriber_ids, topics;
    std::function<size_t(const std::string &)> subscriptions_of;
    Ids                                        online;
    std::set<std::string>                      saved;
    std::set<WillHolder>                       wills;
    Quotas                                     some{limits(), holdings()};
    uint32_t                                   handle = 0;
    int64_t                                    now_ms = 1'000'000;
};

} // namespace

TEST_F(quotas, connections_are_of_an_address_until_they_are_a_users)
{
    EXPECT_FALSE(come("a"));
    EXPECT_FALSE(come("a"));
    EXPECT_STREQ(come("a"), "its user or address has as many connections as one may have");
    EXPECT_FALSE(come("b", kThere));
    go(1);
    EXPECT_FALSE(come("a"));

    for (const char *id : {"c", "d"})
        EXPECT_FALSE(come(id, "10.0.0.3", "alice"));
    EXPECT_TRUE(come("e", "10.0.0.3", "alice"));
    go(handle); // refused, so it is closed
    EXPECT_FALSE(come("e", "10.0.0.3", "bob"));
}

TEST_F(quotas, ids_count_as_long_as_something_is_behind_them)
{
    for (const char *id : {"a", "b"})
        EXPECT_FALSE(come_and_go(id));
    EXPECT_TRUE(come("c")) << "what is young stays";
    go(handle);
    now_ms += 20'000;
    online = {"a"};
    EXPECT_FALSE(come_and_go("c"));
    now_ms += 20'000;
    online         = {};
    subscriber_ids = {"a", "c"};
    EXPECT_STREQ(come("d"), "its user or address has as many ids as one may have");
    EXPECT_FALSE(come("d", kThere));
    EXPECT_FALSE(come("a")) << "its own is no new one";
}

TEST_F(quotas, ids_that_leave_nothing_end_with_their_connections)
{
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(come(("one of many, and too long to stand in a string itself " + std::to_string(i)).c_str()));
        go(handle);
    }
    EXPECT_FALSE(come("a"));
    EXPECT_FALSE(come("a", kThere)) << "an older connection may stay beside it";
    go(handle);
    EXPECT_FALSE(come("b", kThere));
    go(handle);
    EXPECT_FALSE(come("b", kThere));
    EXPECT_STREQ(come("c", kThere), "its user or address has as many ids as one may have") << "a is the last one's";
}

TEST_F(quotas, ids_that_may_leave_something_stay)
{
    EXPECT_FALSE(come("kept", kHere, "", true));
    go(handle);
    EXPECT_FALSE(come_and_go("subscribed"));
    EXPECT_TRUE(come("c"));
    go(handle);
    EXPECT_FALSE(come("kept")) << "begins clean";
    go(handle);
    EXPECT_TRUE(come("c")) << "whether the library has begun it is not known";
}

TEST_F(quotas, connections_have_the_id_they_came_with_last)
{
    for (const char *id : {"a", "b", "c"}) {
        EXPECT_FALSE(come("x"));
        EXPECT_FALSE(some.connect(handle, "", id, false, now_ms));
        EXPECT_FALSE(some.connect(handle, "", id, false, now_ms)) << "again";
        go(handle);
    }
    EXPECT_FALSE(come("x"));
    EXPECT_FALSE(some.connect(handle, "", "y", false, now_ms));
    EXPECT_FALSE(some.connect(handle, "", "", false, now_ms)) << "the library chooses one";
    EXPECT_STREQ(come("z"), "its user or address has as many ids as one may have");
    go(handle);
    go(handle - 1);
    EXPECT_TRUE(come("z")) << "x and y were not the last of their connection";
    go(handle);
    for (const char *id : {"x", "y"}) {
        EXPECT_FALSE(come(id));
        go(handle);
    }
    EXPECT_FALSE(come("z"));
}

TEST_F(quotas, connections_whose_ids_the_library_does_not_know_harm_no_other_ids)
{
    Quotas::Limits own                           = limits();
    own[static_cast<size_t>(Quota::Connections)] = 0;
    Quotas     only(own, holdings());
    const auto comes = [&](uint32_t on, const char *id) {
        only.open(on, kHere);
        return only.connect(on, "", id, false, now_ms);
    };
    EXPECT_FALSE(comes(1, "a"));
    EXPECT_FALSE(comes(2, "b"));
    now_ms += 20'000;
    EXPECT_FALSE(comes(3, "c")) << "a and b are gone";
    only.close(1);
    only.close(2);
    EXPECT_FALSE(comes(4, "d"));
    EXPECT_STREQ(comes(5, "e"), "its user or address has as many ids as one may have");
}

TEST_F(quotas, turns_forget_who_has_nothing_and_nobody_else)
{
    EXPECT_FALSE(come("a", kHere, "alice"));
    EXPECT_FALSE(some.publish_retained(handle, "t1", now_ms));
    some.turn(now_ms);
    EXPECT_FALSE(come("b", kHere, "alice"));
    EXPECT_STREQ(come("c", kHere, "alice"), "its user or address has as many connections as one may have");
    for (uint32_t open = 1; open <= handle; ++open)
        go(open);
    some.turn(now_ms);
    EXPECT_FALSE(come("a", kHere, "alice"));
    EXPECT_FALSE(some.publish_retained(handle, "t2", now_ms));
    topics = {"t1", "t2"};
    EXPECT_TRUE(some.publish_retained(handle, "t3", now_ms)) << "t1 is hers still";
}

TEST_F(quotas, turns_forget_no_address_that_a_user_came_from)
{
    EXPECT_FALSE(come("a", kHere, "alice"));
    some.turn(now_ms);
    EXPECT_FALSE(some.connect(handle, "", "b", false, now_ms)) << "now it is nobody's but the address's";
    EXPECT_FALSE(come("c"));
    EXPECT_STREQ(come("d"), "its user or address has as many connections as one may have");
}

TEST_F(quotas, ids_with_commas_are_online_in_pieces)
{
    for (const char *id : {"a,b", "c"})
        EXPECT_FALSE(come_and_go(id));
    now_ms += 20'000;
    online = {"a", "b", "c"};
    EXPECT_TRUE(come("d"));
}

TEST_F(quotas, sessions_count_while_they_are_saved)
{
    Quotas::Limits own                           = limits();
    own[static_cast<size_t>(Quota::ClientIds)]   = 0;
    own[static_cast<size_t>(Quota::Connections)] = 0;
    Quotas     only(own, holdings());
    uint32_t   next  = 0;
    const auto comes = [&](const char *id, bool keeps) {
        only.open(++next, kHere);
        return only.connect(next, "", id, keeps, now_ms);
    };
    EXPECT_FALSE(comes("a", true));
    EXPECT_FALSE(comes("b", true));
    EXPECT_STREQ(comes("c", true), "its user or address has as many kept sessions as one may have");
    EXPECT_FALSE(comes("c", false));
    EXPECT_FALSE(comes("a", true));
    EXPECT_FALSE(comes("b", false)) << "begins clean: nothing is kept";
    EXPECT_FALSE(comes("c", true));
    now_ms += 20'000;
    saved = {"c"};
    EXPECT_FALSE(comes("d", true));
    EXPECT_TRUE(comes("e", true));
}

TEST_F(quotas, subscriptions_are_counted_in_the_table_when_it_matters)
{
    EXPECT_FALSE(come("a"));
    for (int i = 0; i < 2; ++i)
        EXPECT_FALSE(some.subscribe(handle, "a", now_ms));
    subscriber_ids = {"a"}; // the same filter twice
    EXPECT_FALSE(some.subscribe(handle, "a", now_ms));
    subscriber_ids = {"a", "a", "x"};
    now_ms += 1000;
    EXPECT_STREQ(some.subscribe(handle, "a", now_ms), "its user or address has as many subscriptions as one may have");
    subscriber_ids = {"x"};
    EXPECT_TRUE(some.subscribe(handle, "a", now_ms)) << "the table is not gone through for each packet";
    now_ms += 1000;
    EXPECT_FALSE(some.subscribe(handle, "a", now_ms));
}

// Everybody waits for a count, and who is at its quota could ask for one all the time.
TEST_F(quotas, are_not_counted_for_twenty_times_as_long_as_that_took)
{
    int counts       = 0;
    subscriptions_of = [&counts](const std::string &) {
        ++counts;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return size_t{2};
    };
    Quotas slow{limits(), holdings()};
    ASSERT_FALSE(slow.open(1, kHere));
    ASSERT_FALSE(slow.connect(1, "", "a", false, now_ms));
    for (int i = 0; i < 2; ++i)
        EXPECT_FALSE(slow.subscribe(1, "a", now_ms));
    for (const int after_ms : {0, 100, 399})
        EXPECT_TRUE(slow.subscribe(1, "a", now_ms + after_ms));
    EXPECT_EQ(counts, 1);
    EXPECT_TRUE(slow.subscribe(1, "a", now_ms + 60'000));
    EXPECT_EQ(counts, 2);
}

TEST_F(quotas, a_retained_topic_counts_for_who_brought_it_in)
{
    EXPECT_FALSE(come("a"));
    const uint32_t a = handle;
    EXPECT_FALSE(come("b", kThere));
    topics = {"t1", "t2"};
    for (const char *topic : {"t1", "t2", "t1"})
        EXPECT_FALSE(some.publish_retained(a, topic, now_ms));
    EXPECT_STREQ(some.publish_retained(a, "t3", now_ms),
                 "its user or address has as many retained topics as one may have");
    EXPECT_FALSE(some.publish_retained(handle, "t3", now_ms));
    EXPECT_FALSE(some.publish_retained(a, "t3", now_ms)) << "it is there already";
    topics = {"t1", "t3"};
    now_ms += 1000;
    EXPECT_FALSE(some.publish_retained(a, "t4", now_ms));
}

TEST_F(quotas, wills_count_until_their_records_are_free)
{
    int records[4] = {};
    wills          = {&records[0], &records[1]};
    EXPECT_FALSE(come("a"));
    for (const int &record : {std::cref(records[0]), std::cref(records[1])}) {
        EXPECT_FALSE(some.may_leave_will(handle, "", now_ms));
        some.leave_will(handle, &record, now_ms);
    }
    EXPECT_STREQ(some.may_leave_will(handle, "", now_ms), "its user or address has as many wills as one may have");
    now_ms += 20'000;
    EXPECT_TRUE(some.may_leave_will(handle, "", now_ms));
    wills = {&records[0]};
    now_ms += 1000;
    EXPECT_FALSE(some.may_leave_will(handle, "", now_ms));
}

TEST_F(quotas, zero_is_none)
{
    Quotas none(Quotas::Limits{}, holdings());
    for (uint32_t i = 0; i < 10; ++i)
        EXPECT_FALSE(none.open(i, kHere));
}

// ---- the program

namespace {

void expect_refused_connect(const char *id, const Connect &options)
{
    Peer peer = Peer::tcp();
    peer.send(connect_packet(5, id, options));
    const Bytes answer = peer.read_packet();
    ASSERT_GE(answer.size(), 4u);
    EXPECT_EQ(answer[0], 0x20);
    EXPECT_EQ(answer[3], 0x86);
}

} // namespace

TEST_F(quotas, subscriptions_may_be_told_by_id)
{
    subscriptions_of = [](const std::string &id) { return id == "a" ? 2 : 0; };
    Quotas told{limits(), holdings()};
    EXPECT_FALSE(told.open(1, kHere));
    EXPECT_FALSE(told.connect(1, "", "a", false, now_ms));
    EXPECT_FALSE(told.subscribe(1, "a", now_ms));
    EXPECT_FALSE(told.subscribe(1, "a", now_ms));
    EXPECT_TRUE(told.subscribe(1, "a", now_ms)) << "they are counted again, and there";
    subscriptions_of = [](const std::string &) { return 1; };
    Quotas fewer{limits(), holdings()};
    EXPECT_FALSE(fewer.open(1, kHere));
    EXPECT_FALSE(fewer.connect(1, "", "a", false, now_ms));
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(fewer.subscribe(1, "a", now_ms += 1000)) << "one has gone";
}

TEST(quotas_of_the_program, connections_of_an_address)
{
    Child broker = run({"--quota-connections", "3", "--events", "events"});
    ASSERT_TRUE(serves(broker));
    Peer a = Peer::tcp(), b = Peer::tcp(), c = Peer::tcp();
    a.connect_v4("a").ping();
    b.connect_v4("b").ping();
    Peer silent = Peer::tcp();
    silent.expect_closed(); // c has said nothing, and counts
    EXPECT_TRUE(prints(broker,
                       "[WARN] connection refused: address 127.0.0.1: its user or address has as many connections "
                       "as one may have\n"));
    EXPECT_TRUE(wait_until([] { return file_text("events").find("\"what\":\"connect\"") != std::string::npos; }));
    c.connect_v4("c").ping();
    a.disconnect();
    EXPECT_TRUE(wait_until([] {
        Peer peer = Peer::tcp();
        peer.send(connect_packet(4, "d"));
        return !peer.read_packet(200).empty();
    }));
    EXPECT_TRUE(ends_well(broker));
}

TEST(quotas_of_the_program, connections_of_a_user)
{
    write_text("users", user_lines({"alice", "bob"}));
    const auto as     = [](const char *user) { return Connect{.username = user, .password = "right"}; };
    Child      broker = run({"--quota-connections", "2", "--user-file", "users"});
    ASSERT_TRUE(serves(broker));
    Peer a = Peer::tcp(), b = Peer::tcp();
    a.connect_v4("a", as("alice"));
    b.connect_v4("b", as("alice"));
    expect_refused_connect("c", as("alice"));
    EXPECT_TRUE(prints(broker, "[WARN] login refused: user alice, id c, address 127.0.0.1:"));
    Peer::tcp().connect_v4("c", as("bob")).ping();
}

TEST(quotas_of_the_program, ids_subscriptions_and_sessions)
{
    Child broker = run({"--quota-ids", "3", "--quota-subscriptions", "4", "--quota-sessions", "1"});
    ASSERT_TRUE(serves(broker));
    Peer a = Peer::tcp();
    a.connect_v4("a", {.clean = false});
    expect_refused_connect("b", {.clean = false});
    expect_refused_connect("b", {.session_expiry_s = 100});
    a.send(connect_packet(4, "b"));
    a.expect("20 02 00 00");
    a.send(connect_packet(4, "c"));
    a.expect("20 02 00 00");
    for (int i = 0; i < 4; ++i)
        a.subscribe("t" + std::to_string(i));
    a.send(subscribe_packet(4, 9, "t4", 0));
    a.expect("90 03 00 09 80");
    EXPECT_TRUE(prints(broker, "[WARN] subscription refused: no user, id c, address 127.0.0.1:"));
    expect_refused_connect("d", {});
    EXPECT_TRUE(ends_well(broker));
}

TEST(quotas_of_the_program, ids_of_clients_that_left_nothing)
{
    Child broker = run({"--quota-ids", "1"});
    ASSERT_TRUE(serves(broker));
    for (const char *id : {"a", "b", "c"})
        EXPECT_TRUE(wait_until([&] { // the broker may not have heard yet that the last one is gone
            Peer peer = Peer::tcp();
            peer.send(connect_packet(4, id));
            return hex(peer.read_packet(kLimit_ms)) == "20 02 00 00";
        }));
    EXPECT_TRUE(ends_well(broker));
}

TEST(quotas_of_the_program, retained_topics_and_wills)
{
    Child broker = run({"--quota-retained", "2", "--quota-wills", "1"});
    ASSERT_TRUE(serves(broker));
    Peer a = Peer::tcp(), b = Peer::tcp(), c = Peer::tcp();
    a.connect_v4("a", {.will = Will{"gone/a", "x"}});
    b.connect_v4("b", {.will = Will{"gone/b", "x"}});
    EXPECT_TRUE(prints(broker, "[WARN] will dropped: no user, id b, address 127.0.0.1:"));
    for (const char *topic : {"t1", "t2", "t3", "t1"})
        a.publish(topic, "x", {.retain = true});
    a.ping();
    EXPECT_TRUE(prints(broker, "[WARN] publication refused: no user, id a, address 127.0.0.1:"));
    a.publish("t4", "x"); // not retained, so nothing is taken
    c.connect_v4("c").send(subscribe_packet(4, 1, "#", 0));
    c.expect("31 05 00 02 74 31 78 31 05 00 02 74 32 78 90 03 00 01 00");
    c.expect_nothing();
    a.reset();
    c.expect_publish("gone/a", "x");
    b.reset();
    c.expect_nothing();
    EXPECT_TRUE(ends_well(broker));
}

TEST(quotas_of_the_program, nobody_has_one_when_they_are_switched_off)
{
    Child broker = run({"--quota-connections", "1", "--no-quotas"});
    ASSERT_TRUE(serves(broker));
    Peer a = Peer::tcp(), b = Peer::tcp();
    a.connect_v4("a").ping();
    b.connect_v4("b").ping();
}

// Four fifths, from 100 clients on.
TEST(quotas_of_the_program, leave_some_to_others_without_being_asked)
{
    Child broker = run({"--max-clients", "100"});
    ASSERT_TRUE(serves(broker));
    std::vector<Peer> peers;
    for (int i = 0; i < 80; ++i) {
        peers.push_back(Peer::tcp());
        peers.back().connect_v4("p" + std::to_string(i));
    }
    Peer::tcp().expect_closed();
    EXPECT_TRUE(ends_well(broker));

    Child small = run({"--max-clients", "3"});
    ASSERT_TRUE(serves(small));
    peers.clear();
    for (int i = 0; i < 3; ++i) {
        peers.push_back(Peer::tcp());
        peers.back().connect_v4("p" + std::to_string(i)).ping();
    }
}
