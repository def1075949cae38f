// How much may be on the way: Receive Maximum and Maximum Packet Size, both ways (4.9, 3.1.2.11), and large messages.
#include "support/levels.h"

using namespace tarn::conformance;

namespace {

struct receive_maximum : At5 {
    static Client reader(unsigned maximum, unsigned qos = 2)
    {
        Client client = come_to_stay("reader", {.properties = property(ReceiveMaximum, maximum)});
        client.subscribe("t", qos);
        return client;
    }
    static void publish(Client &sender, int count, unsigned qos)
    {
        for (int i = 0; i < count; ++i)
            sender.publish("t", std::to_string(i), {.qos = qos});
    }
};

struct packet_size : At5 {
    // At QoS 1 its PUBLISH has this size.
    static std::string payload_for(size_t size)
    {
        const size_t fields = 2 + 1 + 2 + 1; // topic, identifier, property length
        for (size_t length = 0;; ++length)
            if (1 + varint(fields + length).size() + fields + length == size)
                return std::string(length, 'x');
    }
};

struct large : AtEachLevel {};
AT_EACH_LEVEL(large);

struct largest : testing::TestWithParam<unsigned> {
    static constexpr int kMost = 10 << 20;
    Broker               broker{kMost};
};
AT_EACH_LEVEL(largest);

} // namespace

TEST_F(receive_maximum, makes_room_with_an_acknowledgement_that_says_its_reason)
{
    const auto five_bytes = [](unsigned type, unsigned id, uint8_t reason) {
        return Bytes{static_cast<uint8_t>(type << 4), 3, static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id),
                     reason};
    };
    Client client = reader(1), sender = come("sender");
    sender.publish("t", "acknowledged", {.qos = 1});
    sender.publish("t", "refused", {.qos = 1});
    sender.publish("t", "not received", {.qos = 2});
    sender.publish("t", "last", {.qos = 0});
    client.send(five_bytes(PUBACK, client.expect_publish("t", "acknowledged", {.qos = 1}).id, 0));
    client.send(five_bytes(PUBACK, client.expect_publish("t", "refused", {.qos = 1}).id, 0x83));
    client.send(five_bytes(PUBREC, client.expect_publish("t", "not received", {.qos = 2}).id, 0x83)); // no PUBREL
    client.expect_publish("t", "last");
    client.expect_silence();

    Client old(4, "old");
    old.subscribe("t", 1);
    sender.publish("t", "to 3.1.1", {.qos = 1});
    old.send(five_bytes(PUBACK, old.expect_publish("t", "to 3.1.1", {.qos = 1}).id, 0)); // which knows no reasons
    old.expect_closed();
}

// [MQTT-3.3.4-9] [MQTT-4.9.0-1] [MQTT-4.9.0-2]
TEST_F(receive_maximum, of_a_client_is_not_exceeded)
{
    for (const unsigned maximum : {1u, 2u, 10u}) {
        for (const unsigned qos : {1u, 2u}) {
            SCOPED_TRACE(std::to_string(maximum) + " at " + std::to_string(qos));
            Client client = reader(maximum), sender = come("sender");
            publish(sender, 20, qos);
            std::vector<Received> open;
            for (unsigned i = 0; i < maximum; ++i)
                open.push_back(client.expect_publish("t", std::to_string(i), {.qos = qos}));
            client.expect_silence();
            for (unsigned i = 0; i < 20; ++i) { // one done, one more
                client.acknowledge(open[i]);
                if (i + maximum < 20)
                    open.push_back(client.expect_publish("t", std::to_string(i + maximum), {.qos = qos}));
                client.expect_silence();
            }
            client.disconnect(0, property(SessionExpiry, 0u));
        }
    }
}

// A message at QoS 2 is on the way until PUBCOMP.
TEST_F(receive_maximum, counts_until_pubcomp)
{
    Client client = reader(1), sender = come("sender");
    publish(sender, 2, 2);
    const Received got = client.expect_publish("t", "0", {.qos = 2});
    client.send(ack_packet(PUBREC, got.id));
    client.expect_ack(PUBREL, got.id);
    client.expect_silence();
    client.send(ack_packet(PUBCOMP, got.id));
    client.take("t", "1", {.qos = 2});
}

TEST_F(receive_maximum, counts_no_message_that_was_refused)
{
    Client client = reader(1), sender = come("sender");
    publish(sender, 3, 2);
    for (int i = 0; i < 3; ++i)
        client.send(ack_packet(PUBREC, client.expect_publish("t", std::to_string(i), {.qos = 2}).id, 0x80));
    publish(sender, 3, 1);
    for (int i = 0; i < 3; ++i)
        client.send(ack_packet(PUBACK, client.expect_publish("t", std::to_string(i), {.qos = 1}).id, 0x97));
    client.expect_silence();
}

// [MQTT-3.3.4-10] [MQTT-4.9.0-3]
TEST_F(receive_maximum, holds_back_nothing_but_such_messages)
{
    Client client = reader(1), sender = come("sender");
    publish(sender, 2, 2);
    const Received got = client.expect_publish("t", "0", {.qos = 2});
    client.subscribe("other", 0);
    client.unsubscribe({"none"});
    client.publish("somewhere", "x", {.qos = 1});
    client.publish("somewhere", "x", {.qos = 2});
    client.ping();
    client.acknowledge(got);
    client.take("t", "1", {.qos = 2});
    sender.publish("other", "x");
    client.take("other", "x");
}

// It is a matter of each connection.
TEST_F(receive_maximum, may_be_another_one_when_the_client_comes_back)
{
    Client client = reader(5, 1), sender = come("sender");
    publish(sender, 5, 1);
    for (int i = 0; i < 5; ++i)
        client.expect_publish("t", std::to_string(i), {.qos = 1});
    client.drop();
    client = come_to_stay("reader", {.properties = property(ReceiveMaximum, 2)});
    for (int i = 0; i < 2; ++i)
        client.expect_publish("t", std::to_string(i), {.qos = 1, .dup = true});
    client.expect_silence();
}

// 0x93 for those that send more than they may.
// [MQTT-3.3.4-7]
TEST_F(receive_maximum, of_the_broker_is_not_exceeded_unpunished)
{
    Client         client = come("c");
    const unsigned most   = client.connack().properties.number(ReceiveMaximum).value_or(65535);
    if (most == 65535)
        GTEST_SKIP() << "there are not that many identifiers";
    for (unsigned id = 1; id <= most; ++id)
        client.send(publish_packet(5, "t", "x", {.qos = 2, .id = id}));
    for (unsigned id = 1; id <= most; ++id)
        client.expect_ack(PUBREC, id);
    client.publish("t", "x");
    client.ping(); // so far all is well
    client.send(publish_packet(5, "t", "x", {.qos = 2, .id = most + 1}));
    client.expect_end({0x93});
}

// Each exchange that ends makes room.
TEST_F(receive_maximum, of_the_broker_lets_any_number_pass_one_after_the_other)
{
    Client         client = come("c");
    const unsigned most   = std::min(client.connack().properties.number(ReceiveMaximum).value_or(65535), 2000u);
    for (unsigned i = 0; i < most + 20; ++i)
        client.publish("t", "x", {.qos = 1 + i % 2});
    client.ping();
}

// ---- Maximum Packet Size

// [MQTT-3.1.2-24] [MQTT-3.1.2-25]
TEST_F(packet_size, of_a_client_is_not_exceeded)
{
    Client reader = come("reader", {.properties = property(MaximumPacketSize, 100)}), sender = come("sender");
    reader.subscribe("t", 2);
    for (unsigned qos = 0; qos < 3; ++qos) {
        sender.publish("t", std::string(200, 'x'), {.qos = qos});
        sender.publish("t", "small", {.qos = qos});
        reader.take("t", "small", {.qos = qos});
    }
    reader.expect_silence();
}

// [MQTT-3.1.2-24]
TEST_F(packet_size, of_a_client_is_reached)
{
    for (const unsigned size : {100u, 127u, 128u, 129u, 130u, 131u, 1000u}) {
        SCOPED_TRACE(size);
        Client reader = come("reader", {.properties = property(MaximumPacketSize, size)}), sender = come("sender");
        reader.subscribe("t", 1);
        const std::string fits = payload_for(size == 130 ? 129 : size); // no PUBLISH has 130 bytes
        sender.publish("t", fits + (size == 130 ? "xx" : "x"), {.qos = 1});
        sender.publish("t", fits, {.qos = 1});
        EXPECT_LE(reader.take("t", fits, {.qos = 1}).whole.size(), size);
        reader.expect_silence();
    }
}

// What properties add counts, too: they are not left out.
TEST_F(packet_size, of_a_client_counts_properties)
{
    Client reader = come("reader", {.properties = property(MaximumPacketSize, 60)}), sender = come("sender");
    reader.subscribe("t", 1);
    sender.publish("t", "x", {.qos = 1, .properties = user("name", std::string(60, 'v'))});
    sender.publish("t", "y", {.qos = 1});
    reader.take("t", "y", {.qos = 1});
}

// They take no part of its Receive Maximum.
TEST_F(packet_size, of_a_client_that_is_exceeded_leaves_nothing_on_the_way)
{
    Client reader =
               come_to_stay("reader", {.properties = property(MaximumPacketSize, 100) + property(ReceiveMaximum, 1)}),
           sender = come("sender");
    reader.subscribe("t", 2);
    for (int i = 0; i < 5; ++i) {
        sender.publish("t", std::string(200, 'x'), {.qos = 1});
        sender.publish("t", std::string(200, 'x'), {.qos = 2});
    }
    sender.publish("t", "small", {.qos = 2});
    reader.take("t", "small", {.qos = 2});
    reader.disconnect();
    sender.publish("t", std::string(200, 'x'), {.qos = 1});
    sender.publish("t", "small", {.qos = 1});
    reader = come_to_stay("reader", {.properties = property(MaximumPacketSize, 100)});
    reader.take("t", "small", {.qos = 1});
    reader.expect_silence();
}

TEST_F(packet_size, of_a_client_is_another_one_for_each)
{
    Client small = come("small", {.properties = property(MaximumPacketSize, 50)}), any = come("any"),
           sender = come("sender");
    small.subscribe("t", 1);
    any.subscribe("t", 1);
    sender.publish("t", std::string(500, 'x'), {.qos = 1});
    any.take("t", std::string(500, 'x'), {.qos = 1});
    small.expect_silence();
}

// [MQTT-3.2.2-19] [MQTT-3.2.2-20] [MQTT-3.4.2-2] [MQTT-3.4.2-3] [MQTT-3.7.2-2] [MQTT-3.7.2-3] [MQTT-3.11.2-1]
// [MQTT-3.11.2-2] [MQTT-3.9.2-1] [MQTT-3.9.2-2] [MQTT-3.6.2-2] [MQTT-3.6.2-3] [MQTT-3.14.2-3] [MQTT-3.14.2-4]
TEST_F(packet_size, of_a_client_holds_for_answers)
{
    constexpr unsigned kSize      = 30;
    const auto         come_small = [&] { return come("c", {.properties = property(MaximumPacketSize, kSize)}); };
    Client             client     = come_small();
    client.publish("t", "x", {.qos = 1});
    client.publish("t", "x", {.qos = 2});
    for (const Type type : {PUBREL, PUBREC}) {
        client.send(ack_packet(type, 77));
        EXPECT_LE(client.expect_ack(type == PUBREL ? PUBCOMP : PUBREL, 77, 0x92).whole.size(), kSize);
    }
    client.subscribe("t");
    EXPECT_LE(client.unsubscribe({"none"}).whole.size(), kSize);
    client.send(publish_packet(5, "a/#", "x"));
    EXPECT_LE(client.expect_end({0x81, 0x82, 0x90}).whole.size(), kSize);
}

// [MQTT-3.2.2-15]
TEST_F(packet_size, of_the_broker_is_not_exceeded_unpunished)
{
    Client       client = come("c");
    const size_t most   = client.connack().properties.number(MaximumPacketSize).value_or(0);
    ASSERT_NE(most, 0u) << "it has a limit, so it must tell";
    client.subscribe("t", 1);
    const std::string fits = payload_for(most);
    client.publish("t", fits, {.qos = 1});
    client.take("t", fits, {.qos = 1});
    client.send(publish_packet(5, "t", fits + "x", {.qos = 1, .id = 9}));
    client.expect_end({0x95});
}

// ---- large messages

TEST_P(large, messages_come_as_they_were_sent)
{
    Client client = Client(level(), "c");
    client.subscribe("t", 2);
    for (const size_t size : {300u, 4000u, 4096u, 5000u, 20'000u, 100'000u, 1'000'000u}) {
        std::string payload(size, 0);
        for (size_t i = 0; i < size; ++i)
            payload[i] = static_cast<char>(i * 7 + i / 251);
        for (unsigned qos = 0; qos < 3; ++qos) {
            client.publish("t", payload, {.qos = qos});
            client.take("t", payload, {.qos = qos});
        }
    }
}

TEST_P(large, messages_come_to_many)
{
    std::vector<Client> readers;
    for (int i = 0; i < 10; ++i) {
        readers.push_back(come("reader" + std::to_string(i)));
        readers.back().subscribe("t", i % 3u);
    }
    Client            sender = come("sender");
    const std::string payload(500'000, 'x');
    sender.publish("t", payload, {.qos = 2});
    for (unsigned i = 0; i < 10; ++i)
        readers[i].take("t", payload, {.qos = i % 3});
}

TEST_P(large, retained_messages_and_those_for_absent_clients)
{
    come_to_stay("c").subscribe("t/#", 1);
    Client            sender = come("sender");
    const std::string payload(200'000, 'x');
    sender.publish("t/kept", payload, {.qos = 1, .retain = true});
    come_to_stay("c").take("t/kept", payload, {.qos = 1});
    Client reader = come("reader");
    reader.subscribe("t/kept", 1);
    reader.take("t/kept", payload, {.qos = 1, .retain = true});
}

TEST_P(large, wills)
{
    Client            reader = come("reader");
    const std::string payload(65535, 'w'); // the longest there is
    reader.subscribe("w", 1);
    come("c", {.will = Will{"w", payload, 1}}).drop();
    reader.take("w", payload, {.qos = 1});
}

TEST_P(largest, message_that_a_host_may_allow)
{
    Client       client(GetParam(), "c");
    const size_t head = 5 + 2 + 1 + 2 + (GetParam() == 5 ? 1 : 0);
    EXPECT_EQ(client.connack().properties.number(MaximumPacketSize).value_or(GetParam() == 5 ? 0 : kMost),
              unsigned{kMost});
    client.subscribe("t", 1);
    const std::string payload(kMost - head, 'x');
    client.publish("t", payload, {.qos = 1});
    client.take("t", payload, {.qos = 1});
    client.send(publish_packet(GetParam(), "t", payload + "xx", {.qos = 1, .id = 9}));
    client.expect_end({0x95});
}
