// CONNECT and what answers it (3.1, 3.2).
#include "support/host.h"
#include "support/levels.h"

using namespace tarn::conformance;
using tarn::test::Hooks;
using testing::AnyOf;
using testing::Ne;

namespace {

struct connect : AtEachLevel {
    // A CONNECT that is not as it must be: 3.1.1 knows no code for it, 5.0 does.
    void expect_malformed(const Bytes &bytes, std::initializer_list<unsigned> reasons = {0x81},
                          Where where = Where::here())
    {
        SCOPED_TRACE(tarn::test::hex(bytes));
        Client client = open(where);
        client.send(bytes);
        if (!is_5())
            return client.expect_closed(where);
        const Received answer = client.expect(CONNACK, where);
        EXPECT_TRUE(std::ranges::find(reasons, answer.reason) != reasons.end()) << named(answer);
        client.expect_closed(where);
    }
    // With other flags than those of its fields.
    Bytes with_flags(unsigned flags, const Bytes &payload) const
    {
        return packet(0x10, prefixed("MQTT") + Bytes{static_cast<uint8_t>(level()), static_cast<uint8_t>(flags), 0, 0} +
                                block(level(), {}) + payload);
    }
    // Its payload has this behind the id; properties of a will are empty.
    Bytes id_and(const Bytes &rest) const { return prefixed("c") + rest; }
    Bytes will(std::string_view topic = "w") const { return block(level(), {}) + prefixed(topic) + prefixed("gone"); }
};
AT_EACH_LEVEL(connect);

struct connect_5 : At5 {
    static void expect_refused(const Connect &options, std::initializer_list<unsigned> reasons,
                               Where where = Where::here())
    {
        SCOPED_TRACE(tarn::test::hex(connect_packet(5, "c", options)));
        Client client = open(where);
        client.send(connect_packet(5, "c", options));
        const Received answer = client.expect(CONNACK, where);
        EXPECT_TRUE(std::ranges::find(reasons, answer.reason) != reasons.end()) << named(answer);
        client.expect_closed(where);
    }
};

using connect_levels = At5;

} // namespace

// [MQTT-3.1.0-1] 3.1.1 [MQTT-3.1.0-1] [MQTT-3.14.0-1] 3.1.1 [MQTT-3.2.0-1] [MQTT-3.2.0-1]
TEST_P(connect, is_the_first_packet)
{
    const Bytes others[] = {publish_packet(level(), "t", "x"),
                            publish_packet(level(), "t", "x", {.qos = 1, .id = 1}),
                            subscribe_packet(level(), 1, {{"t"}}),
                            unsubscribe_packet(level(), 1, {"t"}),
                            wire("C0 00"),
                            wire("E0 00"),
                            wire("40 02 00 01"),
                            wire("62 02 00 01"),
                            wire("20 02 00 00"),
                            wire("F0 00"),
                            wire("00 00")};
    for (const Bytes &bytes : others) {
        SCOPED_TRACE(tarn::test::hex(bytes));
        Client client = open();
        client.send(bytes);
        client.expect_closed();
    }
}

// [MQTT-3.1.0-2] 3.1.1 [MQTT-3.1.0-2] [MQTT-3.2.0-2]
TEST_P(connect, comes_once)
{
    Client client = come("c");
    client.send(connect_packet(level(), "c"));
    client.expect_end({0x82});
    come("c").ping();
}

// [MQTT-3.1.4-5] 3.1.1 [MQTT-3.1.4-4] [MQTT-3.2.0-1] 3.1.1 [MQTT-3.2.0-1] [MQTT-3.2.2-1]
TEST_P(connect, is_answered_before_anything_else)
{
    Client client = open();
    client.send(connect_packet(level(), "c") + wire("C0 00"));
    EXPECT_EQ(client.next().type, CONNACK);
    EXPECT_EQ(client.next().type, PINGRESP);
}

// [MQTT-3.1.2-1] 3.1.1 [MQTT-3.1.2-1]
TEST_P(connect, names_the_protocol)
{
    for (const char *name : {"MQTX", "mqtt", "MQT", "MQTTT", ""}) {
        SCOPED_TRACE(name);
        Bytes body =
            prefixed(name) + Bytes{static_cast<uint8_t>(level()), 2, 0, 0} + block(level(), {}) + prefixed("c");
        tarn::test::Peer peer = tarn::test::Peer::tcp();
        peer.send(packet(0x10, body) + publish_packet(level(), "t", "x", {.retain = true}));
        const Bytes answer = peer.read_packet();
        EXPECT_TRUE(answer.empty() || answer == wire("20 02 00 01") ||
                    (answer.size() > 4 && answer[0] == 0x20 && answer[3] == 0x84))
            << tarn::test::hex(answer);
        peer.expect_closed();
    }
    Client reader = come("reader");
    reader.subscribe("#");
    reader.expect_silence();
}

// 3.1.1 [MQTT-3.2.2-6] [MQTT-3.1.2-3] 3.1.1 [MQTT-3.1.2-3] [MQTT-3.1.4-1] 3.1.1 [MQTT-3.1.4-1]
TEST_P(connect, has_its_reserved_flag_unset)
{
    expect_malformed(with_flags(0x03, id_and({})), {0x81, 0x82});
}

// [MQTT-3.1.2-11] [MQTT-3.1.2-13] 3.1.1 [MQTT-3.1.2-11] 3.1.1 [MQTT-3.1.2-13] 3.1.1 [MQTT-3.1.2-15]
TEST_P(connect, without_a_will_has_none_of_its_flags)
{
    for (const unsigned flags : {0x0Au, 0x12u, 0x22u})
        expect_malformed(with_flags(flags, id_and({})), {0x81, 0x82});
}

// [MQTT-3.1.2-12] 3.1.1 [MQTT-3.1.2-14]
TEST_P(connect, has_no_will_at_qos_3)
{
    expect_malformed(with_flags(0x1E, id_and(will())), {0x81, 0x82});
}

// [MQTT-3.1.2-9] 3.1.1 [MQTT-3.1.2-9] [MQTT-3.1.2-17] 3.1.1 [MQTT-3.1.2-19] [MQTT-3.1.2-19] 3.1.1 [MQTT-3.1.2-21]
TEST_P(connect, has_the_fields_that_its_flags_say)
{
    expect_malformed(with_flags(0x06, id_and({})));                                 // a will
    expect_malformed(with_flags(0x06, id_and(block(level(), {}) + prefixed("w")))); // its message
    expect_malformed(with_flags(0x82, id_and({})));                                 // a user name
    expect_malformed(with_flags(0xC2, id_and(prefixed("u"))));                      // a password
}

// [MQTT-3.1.2-16] 3.1.1 [MQTT-3.1.2-18] [MQTT-3.1.2-18] 3.1.1 [MQTT-3.1.2-20]
TEST_P(connect, has_no_fields_that_its_flags_do_not_say)
{
    expect_malformed(with_flags(0x02, id_and(prefixed("u"))), {0x81, 0x82});
    expect_malformed(with_flags(0x82, id_and(prefixed("u") + prefixed("p"))), {0x81, 0x82});
    expect_malformed(with_flags(0x02, id_and(Bytes{0})), {0x81, 0x82});
}

// 3.1.1 [MQTT-3.1.2-22]
TEST_P(connect, may_have_a_password_alone_at_5_0_only)
{
    Client client = open();
    client.send(with_flags(0x42, id_and(prefixed("secret"))));
    if (!is_5())
        return client.expect_closed();
    EXPECT_EQ(client.expect(CONNACK).reason, 0u);
    client.ping();
}

// [MQTT-3.1.3-1] 3.1.1 [MQTT-3.1.3-1] [MQTT-3.1.3-3] 3.1.1 [MQTT-3.1.3-3]
TEST_P(connect, has_its_fields_in_their_order)
{
    if (is_other_broker())
        GTEST_SKIP();
    Hooks::listen(broker.handle());
    Client client = come("c", {.will = Will{"w", "gone"}, .user_name = "u", .password = "p"});
    EXPECT_THAT(Hooks::take(), testing::Contains("auth c u p"));
    Client reader = come("reader");
    reader.subscribe("w");
    client.drop();
    reader.take("w", "gone");
    expect_malformed(with_flags(0x02, {}));                // no id at all
    expect_malformed(with_flags(0x02, wire("00 05 'c'"))); // a cut one
}

// [MQTT-3.1.3-4] 3.1.1 [MQTT-3.1.3-4] [MQTT-3.1.3-11] 3.1.1 [MQTT-3.1.3-10] [MQTT-3.1.3-12] 3.1.1 [MQTT-3.1.3-11]
TEST_P(connect, has_texts_in_utf8)
{
    for (const std::string_view text :
         {std::string_view("\xED\xA0\x80"), std::string_view("\xFF"), std::string_view("a\0b", 3)}) {
        expect_malformed(with_flags(0x02, prefixed(text)), {0x81, 0x85});
        expect_malformed(with_flags(0x06, id_and(will(text))), {0x81, 0x90});
        expect_malformed(with_flags(0x82, id_and(prefixed(text))), {0x81, 0x86});
    }
}

TEST_P(connect, has_a_will_topic_without_wildcards)
{
    for (const char *topic : {"a/#", "+", "a/+/b", ""})
        expect_malformed(with_flags(0x06, id_and(will(topic))), {0x81, 0x82, 0x90});
}

// [MQTT-3.1.3-5] 3.1.1 [MQTT-3.1.3-5]
TEST_P(connect, may_have_any_id)
{
    std::vector<std::string> ids = {"0123456789abcdefghijklm",
                                    "nopqrstuvwxyzABCDEFGHIJ",
                                    "KLMNOPQRSTUVWXYZ",
                                    "a",
                                    "8d5b6a3e-8d3c-4f0a-9b1c-2f0d7f4c9c11",
                                    "with blanks/and #+$ signs",
                                    "\xC3\xA4\xF0\x9F\x90\x9F",
                                    std::string(64, 'x'),
                                    std::string(255, 'y'),
                                    std::string(65535, 'z')};
    std::vector<Client>      clients;
    for (const std::string &id : ids)
        clients.push_back(come(id));
    for (Client &client : clients)
        client.ping();
}

// [MQTT-3.1.3-2] 3.1.1 [MQTT-3.1.3-2]
TEST_P(connect, with_ids_that_begin_alike_is_of_several_clients)
{
    const std::string   long_id(300, 'x');
    std::vector<Client> clients;
    for (const std::string &id : {long_id, long_id + "1", long_id + "2", std::string("x"), std::string("X")})
        clients.push_back(come_to_stay(id));
    int i = 0;
    for (Client &client : clients)
        client.subscribe("to/" + std::to_string(i++), 1);
    for (Client &client : clients)
        client.disconnect();
    Client sender = come("sender");
    for (i = 0; i < 5; ++i)
        sender.publish("to/" + std::to_string(i), "x", {.qos = 1});
    i = 0;
    for (const std::string &id : {long_id, long_id + "1", long_id + "2", std::string("x"), std::string("X")}) {
        Client client = come_to_stay(id);
        EXPECT_TRUE(client.connack().session_present);
        client.take("to/" + std::to_string(i++), "x", {.qos = 1});
        client.expect_silence();
    }
}

// [MQTT-3.1.3-6] 3.1.1 [MQTT-3.1.3-6] [MQTT-3.1.3-7] [MQTT-3.2.2-16]
TEST_P(connect, with_an_empty_id_gets_a_new_one)
{
    Client one = come(""), two = come(""), three = come("");
    for (Client *client : {&one, &two, &three})
        client->ping();
    if (!is_5())
        return;
    const auto id = one.connack().properties.text(AssignedClientId);
    ASSERT_TRUE(id);
    EXPECT_THAT(*id, Ne(""));
    EXPECT_THAT(*id, Ne(two.connack().properties.text(AssignedClientId).value_or("")));
    Client again = come(*id);
    one.expect_end({0x8E});
    EXPECT_FALSE(again.connack().properties.has(AssignedClientId));
}

// 3.1.1 [MQTT-3.1.3-7] 3.1.1 [MQTT-3.1.3-8] 3.1.1 [MQTT-3.1.3-9] 3.1.1 [MQTT-3.2.2-5] 3.1.1 [MQTT-3.2.2-4]
TEST_P(connect, with_an_empty_id_cannot_ask_for_a_kept_session_at_3_1_1)
{
    Client client = open();
    client.send(connect_packet(level(), "", {.clean = false}));
    if (!is_5())
        return void(client.refused(0x02));
    const Received answer = client.expect(CONNACK);
    EXPECT_EQ(answer.reason, 0u);
    EXPECT_FALSE(answer.session_present);
    EXPECT_TRUE(answer.properties.has(AssignedClientId));
}

// [MQTT-3.1.2-4] [MQTT-3.1.2-5] [MQTT-3.1.2-6] [MQTT-3.1.4-4] [MQTT-3.2.2-2] [MQTT-3.2.2-3]
// 3.1.1 [MQTT-3.1.2-4] 3.1.1 [MQTT-3.1.2-6] 3.1.1 [MQTT-3.1.4-3] 3.1.1 [MQTT-3.2.2-1] 3.1.1 [MQTT-3.2.2-2]
// 3.1.1 [MQTT-3.2.2-3]
TEST_P(connect, tells_whether_there_is_a_session)
{
    const auto present = [&](bool clean) {
        Client client =
            clean ? come("c", {.properties = is_5() ? property(SessionExpiry, 60) : Bytes{}}) : come_to_stay("c");
        client.disconnect();
        return client.connack().session_present;
    };
    EXPECT_FALSE(present(false)); // there was none
    EXPECT_TRUE(present(false));
    EXPECT_FALSE(present(true));       // never with a clean start
    EXPECT_EQ(present(false), is_5()); // the one before: at 5.0 a clean start may be of a session that stays
    EXPECT_TRUE(present(false));
}

// [MQTT-3.1.4-6] 3.1.1 [MQTT-3.1.4-5] [MQTT-3.2.2-6] [MQTT-3.2.2-7] [MQTT-4.13.2-1] 3.1.1 [MQTT-3.2.2-4]
// 3.1.1 [MQTT-3.2.2-5]
TEST_P(connect, that_is_refused_leaves_what_follows_alone)
{
    if (is_other_broker())
        GTEST_SKIP();
    Hooks::listen(broker.handle());
    Hooks::refuse_user("eve");
    Client client = open();
    client.send(connect_packet(level(), "c",
                               {.clean = false, .will = Will{"w", "x", 0, true}, .user_name = "eve", .password = "p"}) +
                publish_packet(level(), "t", "x", {.retain = true}));
    client.refused(is_5() ? 0x86 : 4);
    Client reader = come("reader");
    reader.subscribe("#");
    reader.expect_silence();
    EXPECT_FALSE(come("c", {.clean = false}).connack().session_present);
}

TEST_P(connect, may_have_a_long_user_name_and_password)
{
    if (is_other_broker())
        GTEST_SKIP();
    Hooks::listen(broker.handle());
    come("c", {.user_name = std::string(60, 'u'), .password = std::string(60, 'p')});
    EXPECT_THAT(Hooks::take(), testing::Contains("auth c " + std::string(60, 'u') + " " + std::string(60, 'p')));
    come("d", {.user_name = std::string(65535, 'u'), .password = std::string(65535, 'p')}).ping();
    come("e", {.user_name = "", .password = ""}).ping();
    come("f", {.user_name = "u"}).ping();
}

// Only a level that is told right is answered in its own way.
// 3.1.1 [MQTT-3.1.2-2] [MQTT-3.1.2-2]
TEST_F(connect_levels, other_levels_are_refused)
{
    for (const unsigned level : {0u, 1u, 2u, 3u, 0x83u}) {
        SCOPED_TRACE(level);
        tarn::test::Peer peer = tarn::test::Peer::tcp();
        peer.send(packet(0x10, prefixed("MQTT") + Bytes{static_cast<uint8_t>(level), 2, 0, 60} + prefixed("c")));
        peer.expect("20 02 00 01");
        peer.expect_closed();
    }
    for (const unsigned level : {6u, 7u, 127u}) {
        SCOPED_TRACE(level);
        tarn::test::Peer peer = tarn::test::Peer::tcp();
        peer.send(packet(0x10, prefixed("MQTT") + Bytes{static_cast<uint8_t>(level), 2, 0, 60, 0} + prefixed("c")));
        const Bytes answer = peer.read_packet();
        EXPECT_THAT(parse(answer.size() > 4 ? 5 : 4, answer).reason, AnyOf(0x84u, 1u)) << tarn::test::hex(answer);
        peer.expect_closed();
    }
}

// [MQTT-4.2.0-1] 3.1.1 [MQTT-7.0.0-2] 3.1.1 [MQTT-7.1.1-1]
TEST_F(connect_levels, clients_of_both_versions_meet)
{
    Client old_one(4, "four"), new_one(5, "five");
    old_one.subscribe("t", 2);
    new_one.subscribe("t", 2);
    old_one.publish("t", "from 4", {.qos = 2});
    new_one.publish("t", "from 5", {.qos = 2, .properties = property(ContentType, "text")});
    for (Client *client : {&old_one, &new_one})
        client->take("t", "from 4", {.qos = 2});
    old_one.take("t", "from 5", {.qos = 2});
    EXPECT_EQ(new_one.take("t", "from 5", {.qos = 2}).properties.printed(), "03=text");
}

// [MQTT-3.2.2-8]
// The values that mean something only when they are not 0, and properties that come twice.
TEST_F(connect_5, properties_have_values_that_they_can_have)
{
    for (const Bytes &properties :
         {property(ReceiveMaximum, 0u), property(MaximumPacketSize, 0u), property(RequestProblem, 2),
          property(RequestResponse, 2), property(SessionExpiry, 1) + property(SessionExpiry, 1),
          property(ReceiveMaximum, 5) + property(ReceiveMaximum, 5), property(AuthData, "x"),
          property(AliasMaximum, 5) + property(AliasMaximum, 5)})
        expect_refused({.properties = properties}, {0x82});
    expect_refused({.properties = property(MessageExpiry, 1)}, {0x81, 0x82});
    expect_refused({.properties = property(AssignedClientId, "x")}, {0x81, 0x82});
}

TEST_F(connect_5, properties_of_a_will_have_values_that_they_can_have)
{
    for (const Bytes &properties : {property(PayloadFormat, 2), property(WillDelay, 1) + property(WillDelay, 1),
                                    property(SessionExpiry, 1), property(Alias, 1), property(ResponseTopic, "a/#")})
        expect_refused({.will = Will{"w", "x", 0, false, properties}}, {0x81, 0x82, 0x90});
}

// [MQTT-4.12.0-1]
TEST_F(connect_5, another_way_to_authenticate_is_refused)
{
    expect_refused({.properties = property(AuthMethod, "SCRAM-SHA-1") + property(AuthData, "x")}, {0x8C});
    expect_refused({.properties = property(AuthMethod, "")}, {0x8C});
}

// [MQTT-4.12.0-6] [MQTT-3.1.2-28]
TEST_F(connect_5, connack_has_nothing_that_was_not_asked_for)
{
    for (const Bytes &asked : {Bytes{}, property(RequestResponse, 0u)}) {
        const Client client = come("c", {.properties = asked});
        for (const PropertyId id : {AuthMethod, AuthData, ResponseInformation, AssignedClientId, ServerReference})
            EXPECT_FALSE(client.connack().properties.has(id)) << id;
    }
}

// [MQTT-3.2.2-9] and what else a full broker offers: what is not said is available.
TEST_F(connect_5, connack_says_that_all_is_available)
{
    const Client client = come("c", {.keep_alive_s = 60});
    const auto  &said   = client.connack().properties;
    for (const PropertyId id : {RetainAvailable, WildcardAvailable, SubIdAvailable, SharedAvailable})
        EXPECT_EQ(said.number(id).value_or(1), 1u) << id;
    EXPECT_FALSE(said.has(MaximumQos));
    EXPECT_GE(said.number(ReceiveMaximum).value_or(65535), 1u);
    EXPECT_GE(said.number(MaximumPacketSize).value_or(1), 1u);
    EXPECT_EQ(said.number(ServerKeepAlive).value_or(60), 60u);
}

// What a server grants otherwise than asked it must say; what it does not say holds.
TEST_F(connect_5, connack_keeps_to_the_session_expiry_interval)
{
    for (const uint32_t interval : {0u, 1u, 3600u, 0xFFFFFFFFu}) {
        const Client client = come("c", {.properties = property(SessionExpiry, interval)});
        EXPECT_EQ(client.connack().properties.number(SessionExpiry).value_or(interval), interval);
    }
}

TEST_F(connect_5, a_packet_larger_than_allowed)
{
    Bytes users;
    for (int i = 0; i < 20; ++i)
        users = users + user("n", std::string(60000, 'x'));
    Client client = open();
    client.send(connect_packet(5, "c", {.properties = users}));        // 1.2 MB
    const Received answer = parse(5, client.peer().read_packet(1000)); // there may be none
    EXPECT_EQ(answer.type ? answer.reason : 0x95u, 0x95u) << named(answer);
    client.expect_closed();
}

TEST_F(connect_5, user_properties_may_come_many_times)
{
    Bytes users;
    for (int i = 0; i < 100; ++i)
        users = users + user("same", std::to_string(i));
    come("c", {.properties = users}).ping();
}
