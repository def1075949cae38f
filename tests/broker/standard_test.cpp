// tarn-broker --standard: what it says, and that users, rules and quotas hold there as they do natively.
#include "program.h"
#include "support/files.h"
#include "support/packets.h"
#include "support/peer.h"
#include "user_file.h"

#include <gmock/gmock.h>

using namespace tarn::test;
using testing::HasSubstr;

namespace {

constexpr const char *kUuid = "0f8fad5b-d9cb-469f-a165-70867728950e";

Child run_standard(std::vector<std::string> arguments = {})
{
    arguments.insert(arguments.begin(), "--standard");
    return run(std::move(arguments));
}

Connect as(const char *user)
{
    return {.username = user, .password = "right"};
}

// What a CONNECT of 3.1.1 is answered, in hex.
std::string answer_to(Peer &peer, std::string_view id, const Connect &connect)
{
    peer.send(connect_packet(4, id, connect));
    return hex(peer.read_packet(kLimit_ms));
}
std::string answer_to(std::string_view id, const Connect &connect)
{
    Peer peer = Peer::tcp();
    return answer_to(peer, id, connect);
}

} // namespace

TEST(standard, says_its_profile_and_serves_clients_that_the_native_one_does_not)
{
    Child broker = run_standard();
    ASSERT_TRUE(serves(broker));
    EXPECT_EQ(broker.errors(), "tarn-broker: serving MQTT 3.1.1 and 5.0 (standard profile) on 0.0.0.0:1883 (TCP), at "
                               "most 5000 clients\n");
    Peer peer = Peer::tcp();
    EXPECT_EQ(answer_to(peer, kUuid, {}), "20 02 00 00");
    peer.ping();
    EXPECT_TRUE(ends_well(broker));
}

TEST(standard, does_not_go_with_udp)
{
    Child broker = run_standard({"--udp"});
    EXPECT_EQ(broker.wait(kLimit_ms), 2);
    EXPECT_EQ(broker.errors(), "tarn-broker: --udp is not for --standard, which serves TCP alone\n"
                               "Try 'tarn-broker --help'.\n");
}

TEST(standard, takes_packets_of_the_size_that_is_given)
{
    const auto with_payload = [](size_t size) {
        Bytes packet = wire("30 80 80 00 | 00 01 't'");
        packet.insert(packet.end(), size, 'x');
        packet[1] = static_cast<uint8_t>(0x80 | ((size + 3) & 0x7F));
        packet[2] = static_cast<uint8_t>(0x80 | ((size + 3) >> 7 & 0x7F));
        packet[3] = static_cast<uint8_t>((size + 3) >> 14);
        return packet;
    };
    {
        Child broker = run_standard();
        ASSERT_TRUE(serves(broker));
        Peer peer = Peer::tcp();
        EXPECT_EQ(answer_to(peer, "a", {}), "20 02 00 00");
        peer.send(with_payload(100000));
        peer.ping();
        EXPECT_TRUE(ends_well(broker));
    }
    Child broker = run_standard({"--max-packet-size", "4096"});
    ASSERT_TRUE(serves(broker));
    Peer peer = Peer::tcp();
    EXPECT_EQ(answer_to(peer, "a", {}), "20 02 00 00");
    peer.send(with_payload(4000));
    peer.ping();
    peer.send(with_payload(5000));
    peer.expect_closed();
}

TEST(standard, refuses_a_client_whose_will_no_rule_allows)
{
    write_text("users", user_lines({"alice"}));
    write_text("rules", "user alice\nwrite mine/#\n");
    Child broker = run_standard({"--user-file", "users", "--acl-file", "rules", "--events", "events"});
    ASSERT_TRUE(serves(broker));
    Connect connect = as("alice");
    connect.will    = Will{"mine/gone", "x"};
    EXPECT_EQ(answer_to(kUuid, connect), "20 02 00 00");
    EXPECT_EQ(answer_to("", connect), "20 02 00 00") << "an id that is made up has its user's rights";
    connect.will = Will{"yours/gone", "x"};
    EXPECT_EQ(answer_to(kUuid, connect), "20 02 00 05");
    EXPECT_TRUE(prints(broker, std::string("[WARN] login refused: user alice, id ") + kUuid + ", address 127.0.0.1:"));
    EXPECT_TRUE(prints(broker, ": its will: no rule allows it\n"));
    EXPECT_EQ(answer_to("", connect), "20 02 00 05");
    EXPECT_TRUE(ends_well(broker));
}

TEST(standard, an_id_with_a_session_stays_its_users_over_a_restart)
{
    write_text("users", user_lines({"alice", "bob"}));
    Connect alice = as("alice"), bob = as("bob");
    alice.clean = bob.clean = false;
    {
        Child broker = run_standard({"--user-file", "users"});
        ASSERT_TRUE(serves(broker));
        Peer peer = Peer::tcp();
        EXPECT_EQ(answer_to(peer, kUuid, alice), "20 02 00 00");
        peer.send("82 06 | 00 01 | 00 01 'a' 01");
        peer.expect("90 03 | 00 01 | 01");
        EXPECT_TRUE(ends_well(broker));
    }
    Child broker = run_standard({"--user-file", "users"});
    ASSERT_TRUE(serves(broker));
    EXPECT_NE(answer_to(kUuid, bob), "20 02 00 00");
    EXPECT_TRUE(prints(broker, ": the id belongs to another user\n"));
    EXPECT_EQ(answer_to(kUuid, alice), "20 02 01 00") << "its session is there";
    EXPECT_TRUE(ends_well(broker));
}

TEST(standard, quotas_count_ids_sessions_subscriptions_and_wills)
{
    Child broker =
        run_standard({"--quota-ids", "3", "--quota-subscriptions", "4", "--quota-sessions", "1", "--quota-wills", "1"});
    ASSERT_TRUE(serves(broker));
    Peer a = Peer::tcp(), b = Peer::tcp();
    EXPECT_EQ(answer_to(a, "a", {.clean = false, .will = Will{"gone", "x"}}), "20 02 00 00");
    EXPECT_NE(answer_to("b", {.clean = false}), "20 02 00 00");
    EXPECT_TRUE(prints(broker, ": its user or address has as many kept sessions as one may have\n"));
    EXPECT_EQ(answer_to("b", {.will = Will{"gone", "x"}}), "20 02 00 05");
    EXPECT_TRUE(prints(broker, ": its will: its user or address has as many wills as one may have\n"));
    EXPECT_EQ(answer_to(b, "b", {}), "20 02 00 00");
    for (const char filter : {'1', '2', '3', '4'}) {
        Bytes subscribe = wire("82 06 | 00 01 | 00 01 'x' 00");
        subscribe.at(6) = static_cast<uint8_t>(filter);
        b.send(subscribe);
        b.expect("90 03 | 00 01 | 00");
    }
    a.send("82 06 | 00 01 | 00 01 'a' 01");
    a.expect("90 03 | 00 01 | 80");
    EXPECT_TRUE(prints(broker, "[WARN] subscription refused: no user, id a, address 127.0.0.1:"));
    Peer c = Peer::tcp();
    EXPECT_EQ(answer_to(c, "c", {}), "20 02 00 00");
    EXPECT_NE(answer_to("d", {}), "20 02 00 00");
    EXPECT_TRUE(prints(broker, ": its user or address has as many ids as one may have\n"));
    c.disconnect();
    EXPECT_TRUE(wait_until([] { return answer_to("d", {}) == "20 02 00 00"; }));
    EXPECT_TRUE(ends_well(broker));
}

TEST(standard, the_console_lists_its_retained_messages)
{
    Child broker = run_standard({"--control", "socket"});
    ASSERT_TRUE(serves(broker));
    const auto ask = [](std::vector<std::string> words) {
        words.insert(words.begin(), {"ctl", "socket"});
        return result_of(run(std::move(words))).output;
    };
    ask({"publish", "home/lamp", "on", "1", "retain"});
    EXPECT_EQ(ask({"retained"}), "home/lamp\n");
    ask({"clear", "home/lamp"});
    EXPECT_EQ(ask({"retained"}), "");
    EXPECT_TRUE(ends_well(broker));
}
