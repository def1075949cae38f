// Topic aliases, both ways (3.3.2.3.4).
#include "support/levels.h"

#include <map>

using namespace tarn::conformance;

namespace {

struct topic_alias : At5 {
    static Publish alias(unsigned number, unsigned qos = 0)
    {
        return {.qos = qos, .properties = property(Alias, number)};
    }
    static unsigned maximum(const Client &client)
    {
        return client.connack().properties.number(AliasMaximum).value_or(0);
    }
    static void expect_refused(unsigned number, std::string_view topic, unsigned reason, Where where = Where::here())
    {
        Client client = come("refused", {}, where);
        client.send(publish_packet(5, topic, "x", alias(number)));
        client.expect_end({reason}, where);
    }
};

// A reader that knows what the aliases it is sent stand for.
class Resolving {
public:
    Resolving(Client &client, unsigned maximum) : client_(client), maximum_(maximum) {}
    void take(const std::string &topic, const std::string &payload, Where where = Where::here())
    {
        const Received got = client_.expect(PUBLISH, where);
        client_.acknowledge(got);
        std::string found = got.topic;
        if (const auto number = got.properties.number(Alias)) {
            EXPECT_GE(*number, 1u);
            EXPECT_LE(*number, maximum_);
            if (found.empty())
                found = topics_[*number];
            topics_[*number] = found;
        }
        EXPECT_EQ(found, topic);
        EXPECT_EQ(got.payload, payload);
    }

private:
    Client                         &client_;
    unsigned                        maximum_;
    std::map<unsigned, std::string> topics_;
};

} // namespace

// The broker may well accept none; then the tests of a client's aliases are of what it then refuses.

// [MQTT-3.3.2-12]
TEST_F(topic_alias, of_a_client_stands_for_its_topic)
{
    Client client = come("c"), reader = come("reader");
    ASSERT_GE(maximum(client), 1u);
    reader.subscribe("#", 2);
    for (unsigned qos = 0; qos < 3; ++qos) {
        client.publish("first/" + std::to_string(qos), "names it", alias(1, qos));
        client.publish("", "uses it", alias(1, qos));
        client.publish("", "again", alias(1, qos));
        for (const char *payload : {"names it", "uses it", "again"})
            EXPECT_FALSE(reader.take("first/" + std::to_string(qos), payload, {.qos = qos}).properties.has(Alias));
    }
}

TEST_F(topic_alias, of_a_client_may_get_another_topic)
{
    Client client = come("c"), reader = come("reader");
    ASSERT_GE(maximum(client), 1u);
    reader.subscribe("#");
    client.publish("one", "1", alias(1));
    client.publish("two", "2", alias(1));
    client.publish("", "3", alias(1));
    client.publish("one", "4");
    reader.take("one", "1");
    reader.take("two", "2");
    reader.take("two", "3");
    reader.take("one", "4");
}

// [MQTT-3.3.2-12]
TEST_F(topic_alias, of_a_client_may_be_any_up_to_the_maximum)
{
    Client client = come("c"), reader = come("reader");
    reader.subscribe("#");
    const unsigned most = std::min(maximum(client), 200u);
    for (unsigned number = 1; number <= most; ++number)
        client.publish("t" + std::to_string(number), "x", alias(number));
    client.publish("last", "x", alias(maximum(client)));
    for (unsigned number = 1; number < most; ++number)
        client.publish("", "y", alias(number));
    client.publish("", "y", alias(maximum(client)));
    for (unsigned number = 1; number <= most; ++number)
        reader.take("t" + std::to_string(number), "x");
    reader.take("last", "x");
    for (unsigned number = 1; number < most; ++number)
        reader.take("t" + std::to_string(number), "y");
    reader.take("last", "y");
}

// [MQTT-3.3.2-8] [MQTT-3.3.2-9] [MQTT-3.2.2-17] [MQTT-3.2.2-18]
TEST_F(topic_alias, of_a_client_is_neither_0_nor_above_the_maximum)
{
    const unsigned most = maximum(come("c"));
    expect_refused(0, "t", 0x94);
    if (most < 65535) {
        expect_refused(most + 1, "t", 0x94);
        expect_refused(65535, "t", 0x94);
    }
}

TEST_F(topic_alias, of_a_client_without_a_topic)
{
    Client client = come("c");
    client.send(publish_packet(5, "", "x", alias(1)));
    client.expect_end({0x82, 0x94});
}

// [MQTT-3.3.2-7]
TEST_F(topic_alias, of_a_client_ends_with_its_connection)
{
    Client client = come_to_stay("c");
    client.publish("t", "x", alias(1, 1));
    client.drop();
    client = come_to_stay("c");
    EXPECT_TRUE(client.connack().session_present);
    client.send(publish_packet(5, "", "x", alias(1)));
    client.expect_end({0x82, 0x94});
}

TEST_F(topic_alias, of_each_client_is_its_own)
{
    Client one = come("one"), two = come("two"), reader = come("reader");
    ASSERT_GE(maximum(one), 1u);
    reader.subscribe("#");
    one.publish("of/one", "x", alias(1));
    two.publish("of/two", "x", alias(1));
    reader.take("of/one", "x");
    reader.take("of/two", "x");
    one.publish("", "y", alias(1));
    reader.take("of/one", "y");
    two.publish("", "y", alias(1));
    reader.take("of/two", "y");
}

// A retained message has its topic, however it came.
TEST_F(topic_alias, of_a_retained_message_is_not_kept)
{
    Client client = come("c");
    ASSERT_GE(maximum(client), 1u);
    client.publish("t", "x", alias(1));
    Publish retained = alias(1, 1);
    retained.retain  = true;
    client.publish("", "kept", retained);
    Client reader = come("reader");
    reader.subscribe("t");
    EXPECT_EQ(reader.take("t", "kept", {.retain = true}).properties.printed(), "");
}

// [MQTT-3.1.2-27]
TEST_F(topic_alias, of_the_broker_is_none_where_none_is_wanted)
{
    Client silent = come("silent"), none = come("none", {.properties = property(AliasMaximum, 0u)}),
           sender = come("sender");
    silent.subscribe("#", 1);
    none.subscribe("#", 1);
    for (int i = 0; i < 20; ++i) {
        sender.publish("a/long/topic/that/comes/again", "x", {.qos = 1});
        for (Client *reader : {&silent, &none})
            EXPECT_EQ(reader->take("a/long/topic/that/comes/again", "x", {.qos = 1}).properties.printed(), "");
    }
}

// [MQTT-3.1.2-26] [MQTT-3.3.2-11]
TEST_F(topic_alias, of_the_broker_is_what_it_said_before)
{
    for (const unsigned most : {1u, 3u, 65535u}) {
        Client    reader = come("reader", {.properties = property(AliasMaximum, most)}), sender = come("sender");
        Resolving resolving(reader, most);
        reader.subscribe("#", 2);
        for (int i = 0; i < 100; ++i) {
            const std::string topic = "a/long/topic/" + std::to_string(i * i % 7);
            sender.publish(topic, std::to_string(i), {.qos = static_cast<unsigned>(i % 3)});
            resolving.take(topic, std::to_string(i));
        }
    }
}

// A message that is sent again has aliases of its new connection, or none.
TEST_F(topic_alias, of_the_broker_ends_with_the_connection)
{
    Client reader = come_to_stay("reader", {.properties = property(AliasMaximum, 5)}), sender = come("sender");
    reader.subscribe("#", 1);
    for (int i = 0; i < 10; ++i)
        sender.publish("t/" + std::to_string(i % 2), std::to_string(i), {.qos = 1});
    for (int i = 0; i < 10; ++i)
        reader.expect(PUBLISH);
    reader.drop();
    reader = come_to_stay("reader", {.properties = property(AliasMaximum, 5)});
    Resolving resolving(reader, 5);
    for (int i = 0; i < 10; ++i)
        resolving.take("t/" + std::to_string(i % 2), std::to_string(i));
}
