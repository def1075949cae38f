// CONNECT and its answer, at both levels, with every way to be turned away.
#include "support/broker_process.h"
#include "support/peer.h"

#include <gtest/gtest.h>

using namespace tarn::test;

TEST(connect, v4)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.send("10 0D | 00 04 'MQTT' 04 02 00 3C | 00 01 'a'");
    client.expect("20 02 | 00 00");
}

TEST(connect, v4_empty_id_clean)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.send("10 0C | 00 04 'MQTT' 04 02 00 3C | 00 00");
    client.expect("20 02 | 00 00");
}

TEST(connect, empty_id_needs_a_clean_session)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.send("10 0C | 00 04 'MQTT' 04 00 00 3C | 00 00");
    client.expect_ignored();
    client.send("10 0D | 00 04 'MQTT' 05 00 00 3C 00 | 00 00");
    client.expect_ignored();
    client.send("10 0D | 00 04 'MQTT' 05 02 00 3C 00 | 00 00");
    client.expect("20 0B | 00 00 | 08 21 00 00 27 00 00 01 00");
}

TEST(connect, v4_ids_have_at_most_23_characters)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("12345678901234567890123");
    client.send(connect_packet(4, "123456789012345678901234"));
    client.expect_ignored();
}

TEST(connect, v5_ids_are_cut_at_64_characters)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer::tcp().connect_v5(std::string(23, 'i'));
    Peer::tcp().connect_v5(std::string(63, 'i'));
    Peer::tcp().connect_v5(std::string(64, 'i'));
    Peer::tcp().connect_v5(std::string(65, 'i'));
    Peer::tcp().connect_v5(std::string(100, 'i'));
    Peer client = Peer::tcp(); // what is behind the 64th is read as the user name: "ii", a length of 26985
    client.send(connect_packet(5, std::string(100, 'i'), {.username = "me"}));
    client.expect_ignored();
}

TEST(connect, two_long_v5_ids_that_begin_alike_are_one_client)
{
    BrokerProcess     broker = BrokerProcess::start();
    const std::string alike(63, 'i');
    Peer              first = Peer::tcp(), second = Peer::tcp(), sender = Peer::tcp();
    first.connect_v5(alike + "-first").subscribe("t");
    second.connect_v5(alike + "-other").subscribe("t");
    sender.connect_v4("p").publish("t", "hello");
    second.expect_publish("t", "hello");
    first.expect_nothing();
    first.ping();

    Peer whole = Peer::tcp(); // of 64 characters, which are not too many, the last does not count either
    whole.connect_v5(alike + "2").subscribe("t");
    sender.publish("t", "hello");
    whole.expect_publish("t", "hello");
    second.expect_nothing();
}

TEST(connect, v5_without_properties_gets_256_bytes)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.send("10 0E | 00 04 'MQTT' 05 02 00 3C | 00 | 00 01 'a'");
    client.expect("20 0B | 00 00 | 08 21 00 00 27 00 00 01 00");
}

TEST(connect, v5_maximum_packet_size)
{
    BrokerProcess broker = BrokerProcess::start();
    const struct {
        const char *sent, *granted;
    } cases[] = {
        {"27 00 00 00 00", "27 00 00 01 00"}, {"27 00 00 00 FF", "27 00 00 01 00"},
        {"27 00 00 01 00", "27 00 00 01 00"}, {"27 00 00 01 01", "27 00 00 01 01"},
        {"27 00 00 10 00", "27 00 00 10 00"}, {"27 FF FF FF FF", "27 FF FF FF FF"},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.sent);
        Peer client = Peer::tcp();
        client.send(wire("10 13 | 00 04 'MQTT' 05 02 00 3C | 05") + wire(one.sent) + wire("00 01 'a'"));
        client.expect(wire("20 0B | 00 00 | 08 21 00 00") + wire(one.granted));
    }
}

TEST(connect, v5_known_properties_in_any_order)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.send(
        "10 22 | 00 04 'MQTT' 05 02 00 3C | 14 | 19 01 | 27 00 00 02 00 | 22 00 0A | 11 00 00 00 3C | 21 00 14 | "
        "17 01 | 00 01 'a'"); // 0x17 is not known and ends the walk
    client.expect("20 0B | 00 00 | 08 21 00 00 27 00 00 02 00");
}

TEST(connect, v5_an_unknown_property_hides_those_behind_it)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.send("10 1A | 00 04 'MQTT' 05 02 00 3C | 0C | 26 00 01 'k' 00 01 'v' | 27 00 00 10 00 | 00 01 'a'");
    client.expect("20 0B | 00 00 | 08 21 00 00 27 00 00 01 00");
}

TEST(connect, v5_property_cut_by_the_block_is_refused)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.send("10 12 | 00 04 'MQTT' 05 02 00 3C | 04 | 27 00 00 10 | 00 01 'a'");
    client.expect_ignored();
}

TEST(connect, undecodable_packets_get_no_answer)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    for (const char *bad : {
             "10 0E | 00 06 'MQIsdp' 03 02 00 3C | 00 00",   // the name of the level before
             "10 0D | 00 04 'MQTX' 04 02 00 3C | 00 01 'a'", // no such name
             "10 0D | 00 04 'MQTT' 03 02 00 3C | 00 01 'a'", // no such level
             "10 0D | 00 04 'MQTT' 06 02 00 3C | 00 01 'a'",
             "12 0D | 00 04 'MQTT' 04 02 00 3C | 00 01 'a'",                         // flags in the first byte
             "10 07 | 00 04 'MQTT' 04",                                              // nine bytes
             "10 0D | 00 04 'MQTT' 04 02 00 3C | 00 02 'a'",                         // an id past the end
             "10 13 | 00 04 'MQTT' 04 1E 00 3C | 00 01 'a' | 00 01 'w' | 00 01 'p'", // will QoS 3
             "10 11 | 00 04 'MQTT' 04 06 00 3C | 00 01 'a' | 00 00 | 00 00",         // no will topic
             "10 0F | 00 04 'MQTT' 04 82 00 3C | 00 01 'a' | 00 00",                 // no user name
             "10 12 | 00 04 'MQTT' 04 C2 00 3C | 00 01 'a' | 00 01 'u' | 00 00",     // no password
         }) {
        SCOPED_TRACE(bad);
        client.send(bad);
        client.expect_ignored();
    }
    client.connect_v4("a");
}

TEST(connect, user_names_and_passwords_have_1_to_64_bytes)
{
    BrokerProcess     broker = BrokerProcess::start();
    Peer              client = Peer::tcp();
    const std::string most(64, 'u'), more(65, 'u');
    client.connect_v4("a", {.username = "u", .password = "p"});
    client.connect_v4("a", {.username = most, .password = most});
    client.connect_v4("a", {.password = "p"}); // a password alone is taken
    client.send(connect_packet(4, "a", {.username = more}));
    client.expect_ignored();
    client.send(connect_packet(4, "a", {.username = "u", .password = more}));
    client.expect_ignored();
}

TEST(connect, flag_bits_that_are_not_looked_at)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.send("10 0D | 00 04 'MQTT' 04 03 00 3C | 00 01 'a'"); // the reserved one
    client.expect("20 02 00 00");
    client.send("10 0D | 00 04 'MQTT' 04 3A 00 3C | 00 01 'a'"); // will QoS 3 and retain, but no will
    client.expect("20 02 00 00");
}

TEST(connect, bytes_behind_the_fields_are_ignored)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.send("10 10 | 00 04 'MQTT' 04 02 00 3C | 00 01 'a' | 01 02 03");
    client.expect("20 02 00 00");
    client.ping();
}

TEST(connect, two_connects_on_one_connection)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a").subscribe("t");
    client.connect_v5("b").subscribe("t");
    client.connect_v4("c");
    client.ping();
}

TEST(connect, a_second_connection_with_the_same_id_leaves_the_first_open)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          first  = Peer::tcp();
    Peer          second = Peer::tcp();
    Peer          sender = Peer::tcp();
    first.connect_v4("same").subscribe("t");
    second.connect_v4("same").subscribe("t");
    sender.connect_v4("sender");
    sender.publish("t", "hello");
    second.expect_publish("t", "hello"); // the last to connect is the one found by that id
    first.expect_nothing();
    first.ping();
    first.publish("t", "oh"); // and the first is that client too: nothing comes back to either
    second.expect_nothing();
    second.ping();
}

TEST(connect, of_two_ids_in_a_bucket_the_earlier_hears_nothing)
{
    const auto bucket = [](std::string_view id) {
        uint32_t hash = 0;
        for (const char c : id)
            hash = hash * 31 + static_cast<uint32_t>(c);
        return hash % 11000;
    };
    std::string rival;
    for (int i = 0; bucket(rival) != bucket("dev1"); ++i)
        rival = "x" + std::to_string(i);

    BrokerProcess broker  = BrokerProcess::start();
    Peer          earlier = Peer::tcp(), later = Peer::tcp(), sender = Peer::tcp();
    earlier.connect_v4("dev1").subscribe("t");
    later.connect_v4(rival).subscribe("t");
    sender.connect_v4("sender").publish("t", "hello");
    later.expect_publish("t", "hello");
    earlier.expect_nothing();
    earlier.ping();
    earlier.publish("t", "from the hidden one"); // what it sends is served
    later.expect_publish("t", "from the hidden one");
}

TEST(connect, v4_session_that_was_left_in_order_is_present)
{
    BrokerProcess broker = BrokerProcess::start();
    const auto    come   = [](bool clean, bool present) {
        Peer client = Peer::tcp();
        client.connect_v4("a", {.clean = clean, .session_present = present});
        return client;
    };
    come(false, false).disconnect();
    come(false, false).subscribe("t").disconnect(); // without a subscription nothing was kept
    come(false, true).disconnect();
    come(false, true).disconnect();
    come(true, false).subscribe("t").disconnect(); // forgets
    come(false, false).disconnect();
}

TEST(connect, v4_session_that_was_dropped_is_forgotten)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a", {.clean = false}).subscribe("t");
    client.hang_up();
    Peer again = Peer::tcp();
    again.connect_v4("b").ping(); // the drop has been seen
    again = Peer::tcp();
    again.connect_v4("a", {.clean = false, .session_present = false});
}

TEST(connect, v4_subscriptions_of_a_dropped_session_last_until_the_broker_ends)
{
    const auto come = [] {
        Peer client = Peer::tcp();
        client.connect_v4("a", {.clean = false, .session_present = false});
        return client;
    };
    {
        BrokerProcess broker = BrokerProcess::start();
        Peer          sender = Peer::tcp();
        sender.connect_v4("sender");
        come().subscribe("t").hang_up();
        sender.ping(); // the drop has been seen
        Peer client = come();
        sender.publish("t", "hello");
        client.expect_publish("t", "hello");
        client.hang_up();
        sender.ping();
    }
    BrokerProcess broker = BrokerProcess::start();
    Peer          sender = Peer::tcp();
    Peer          client = come();
    sender.connect_v4("sender").publish("t", "hello");
    client.expect_nothing();
    client.ping();
}

TEST(connect, v5_session_lives_by_its_expiry_interval)
{
    BrokerProcess broker = BrokerProcess::start();
    const auto    come   = [](std::optional<uint32_t> expiry_s, bool present) {
        Peer client = Peer::tcp();
        client.connect_v5("a", {.clean = false, .session_expiry_s = expiry_s, .session_present = present});
        client.subscribe("t");
        return client;
    };
    come(3600, false).subscribe("t").disconnect();
    come(3600, true).disconnect();
    come({}, true).disconnect(); // no interval: removed
    come(3600, false).hang_up(); // a drop keeps the session, with or without subscriptions
    Peer::tcp().connect_v4("b").ping();
    Peer client = come(3600, true);
    client.send("E0 07 | 00 05 | 10 00 00 00 00"); // an interval of 0 in the DISCONNECT removes too
    client.expect_closed();
    come({}, false);
}

TEST(connect, v5_session_does_not_expire_while_its_client_is_away)
{
    for (const bool restart : {false, true}) {
        std::optional<BrokerProcess> broker(BrokerProcess::start());
        const Connect                come   = {.clean = false, .session_expiry_s = 1};
        Peer                         client = Peer::tcp();
        client.connect_v5("a", {.clean = true}).disconnect();
        client = Peer::tcp();
        client.connect_v5("a", come).subscribe("t").hang_up();
        pause_ms(2200); // two seconds of the wall clock, whatever the fraction
        if (restart) {
            broker.reset();
            broker.emplace(BrokerProcess::start());
        }
        Connect back         = come;
        back.session_present = true;
        client               = Peer::tcp();
        client.connect_v5("a", back);
        Peer sender = Peer::tcp();
        sender.connect_v4("sender").publish("t", "hello");
        client.expect_publish("t", "hello");
    }
}

TEST(connect, v5_clean_start_does_not_decide_at_disconnect)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v5("a", {.session_expiry_s = 3600}).subscribe("t").disconnect();
    Peer again = Peer::tcp();
    again.connect_v5("a", {.clean = false, .session_present = true});
}

TEST(connect, a_resumed_session_gets_its_subscriptions_and_retained_messages_back)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          sender = Peer::tcp();
    sender.connect_v4("sender").publish("t/1", "kept", {.retain = true});
    Peer client = Peer::tcp();
    client.connect_v4("a", {.clean = false});
    client.send(subscribe_packet(4, 1, "t/+", 1));
    client.expect("31 09 | 00 03 't/1' 'kept' | 90 03 00 01 01");
    client.disconnect();

    client = Peer::tcp();
    client.connect_v4("a", {.clean = false, .session_present = true});
    client.expect("31 09 | 00 03 't/1' 'kept'"); // behind the CONNACK
    sender.publish("t/2", "new", {.qos = 1});
    client.expect_publish("t/2", "new", {.qos = 1});
}

TEST(connect, a_session_outlives_the_broker)
{
    {
        BrokerProcess broker = BrokerProcess::start();
        Peer          sender = Peer::tcp();
        sender.connect_v4("sender").publish("t/1", "kept", {.retain = true});
        sender.ping();
        Peer::tcp().connect_v4("a", {.clean = false}).subscribe("u", 2).disconnect();
    }
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a", {.clean = false, .session_present = true});
    Peer sender = Peer::tcp();
    sender.connect_v4("sender").publish("u", "hello", {.qos = 2});
    client.expect_publish("u", "hello", {.qos = 2});
    client.send(subscribe_packet(4, 9, "#", 0));
    client.expect("31 09 | 00 03 't/1' 'kept' | 90 03 00 09 00");
}

TEST(connect, messages_for_an_absent_client_come_about_a_second_after_its_return)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a", {.clean = false}).subscribe("t", 1).subscribe("low", 0).disconnect();
    Peer sender = Peer::tcp();
    sender.connect_v4("sender");
    sender.publish("t", "one", {.qos = 1});
    sender.publish("t", "two", {.qos = 2});
    sender.publish("low", "lost", {.qos = 1}); // stored at QoS 0, which does not survive the return

    client             = Peer::tcp();
    const double start = now_s();
    client.connect_v4("a", {.clean = false, .session_present = true});
    Bytes first = client.read_packet(), second = client.read_packet();
    EXPECT_GT(now_s() - start, 0.9);
    if (first.size() > 7 && first[7] == 't') // newest first or oldest first: both were added within a millisecond
        std::swap(first, second);
    Pattern one("32 08 | 00 01 't' | .. .. | 'one'"), two("32 08 | 00 01 't' | .. .. | 'two'");
    EXPECT_TRUE(first.size() == one.size() && one.matches_front(first)) << hex(first);
    EXPECT_TRUE(second.size() == two.size() && two.matches_front(second)) << hex(second);
    for (const Bytes &delivery : {first, second})
        client.acknowledge(0x40, unsigned{delivery.at(5)} << 8 | delivery.at(6));
    client.expect_nothing(1500);
}
