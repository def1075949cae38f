// Retained messages (3.3.1.3), and Retain Handling (3.8.3.1).
#include "support/levels.h"

#include <map>
#include <set>

using namespace tarn::conformance;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

struct retained : AtEachLevel {
    // What a new subscription gets, topic and payload.
    std::map<std::string, std::string> found(const std::string &filter) const
    {
        Client reader = come("finder");
        reader.subscribe(filter, 2);
        std::map<std::string, std::string> out;
        for (const Received &one : reader.take_all()) {
            EXPECT_TRUE(one.retain);
            EXPECT_TRUE(out.emplace(one.topic, one.payload).second) << one.topic << " came twice";
        }
        return out;
    }
};
AT_EACH_LEVEL(retained);

struct retained_5 : At5 {};

} // namespace

// [MQTT-3.3.1-5] 3.1.1 [MQTT-3.3.1-5] [MQTT-3.3.1-9] 3.1.1 [MQTT-3.3.1-6] 3.1.1 [MQTT-3.3.1-8]
TEST_P(retained, message_comes_to_later_subscribers)
{
    Client sender = come("sender");
    for (unsigned qos = 0; qos < 3; ++qos) {
        sender.publish("t", "kept", {.qos = qos, .retain = true});
        for (unsigned granted = 0; granted < 3; ++granted) {
            Client reader = come("reader");
            reader.subscribe("t", granted);
            reader.take("t", "kept", {.qos = std::min(qos, granted), .retain = true});
            reader.expect_silence();
        }
    }
}

// [MQTT-3.3.1-12] 3.1.1 [MQTT-3.3.1-9]
TEST_P(retained, message_has_no_flag_for_those_that_are_there)
{
    Client reader = come("reader"), sender = come("sender");
    reader.subscribe("t", 1);
    sender.publish("t", "x", {.qos = 1, .retain = true});
    reader.take("t", "x", {.qos = 1});
}

// [MQTT-3.3.1-5] 3.1.1 [MQTT-3.3.1-5] 3.1.1 [MQTT-3.3.1-7]
TEST_P(retained, message_takes_the_place_of_the_one_before)
{
    Client sender = come("sender"), other = come("other");
    for (const unsigned qos : {2u, 1u, 0u, 2u}) {
        sender.publish("t", "at " + std::to_string(qos), {.qos = qos, .retain = true});
        EXPECT_THAT(found("t"), ElementsAre(Pair("t", "at " + std::to_string(qos))));
    }
    other.publish("t", "another one's", {.retain = true});
    EXPECT_THAT(found("#"), ElementsAre(Pair("t", "another one's")));
}

// [MQTT-3.3.1-6] [MQTT-3.3.1-7] 3.1.1 [MQTT-3.3.1-10] 3.1.1 [MQTT-3.3.1-11]
TEST_P(retained, message_ends_with_an_empty_one)
{
    Client reader = come("reader"), sender = come("sender");
    reader.subscribe("t", 1);
    for (unsigned qos = 0; qos < 3; ++qos) {
        sender.publish("t", "kept", {.qos = 1, .retain = true});
        reader.take("t", "kept", {.qos = 1});
        sender.publish("t", "", {.qos = qos, .retain = true});
        reader.take("t", "", {.qos = std::min(qos, 1u)}); // it is a message like any other
        if (!qos)
            sender.ping();
        EXPECT_THAT(found("#"), IsEmpty());
    }
    sender.publish("never", "", {.qos = 1, .retain = true});
    EXPECT_THAT(found("#"), IsEmpty());
}

// [MQTT-3.3.1-8] 3.1.1 [MQTT-3.3.1-12]
TEST_P(retained, message_is_left_alone_by_others)
{
    Client sender = come("sender");
    sender.publish("t", "kept", {.qos = 1, .retain = true});
    sender.publish("t", "passing", {.qos = 1});
    sender.publish("t", "", {.qos = 1});
    sender.publish("other", "passing", {.qos = 1});
    EXPECT_THAT(found("#"), ElementsAre(Pair("t", "kept")));
}

// 3.1.1 [MQTT-3.1.2-7]
TEST_P(retained, message_outlives_its_sender)
{
    Client sender = come("sender");
    sender.publish("t", "kept", {.qos = 1, .retain = true});
    sender.disconnect();
    EXPECT_THAT(found("t"), ElementsAre(Pair("t", "kept")));
    come("sender").drop();
    EXPECT_THAT(found("t"), ElementsAre(Pair("t", "kept")));
}

// 3.1.1 [MQTT-3.3.1-6] [MQTT-4.7.2-1] 3.1.1 [MQTT-4.7.2-1]
TEST_P(retained, messages_are_found_by_wildcards)
{
    Client sender = come("sender");
    for (const char *topic : {"a", "a/b", "a/b/c", "b/b", "/", "a/", "$own/b", "$own"})
        sender.publish(topic, topic, {.qos = 1, .retain = true});
    const auto topics = [&](const char *filter) {
        std::string out;
        for (const auto &[topic, payload] : found(filter)) {
            EXPECT_EQ(topic, payload);
            out += topic + " ";
        }
        return out;
    };
    EXPECT_EQ(topics("#"), "/ a a/ a/b a/b/c b/b ");
    EXPECT_EQ(topics("a/#"), "a a/ a/b a/b/c ");
    EXPECT_EQ(topics("+/b"), "a/b b/b ");
    EXPECT_EQ(topics("+"), "a ");
    EXPECT_EQ(topics("+/+"), "/ a/ a/b b/b ");
    EXPECT_EQ(topics("$own/#"), "$own $own/b ");
    EXPECT_EQ(topics("a/b"), "a/b ");
    EXPECT_EQ(topics("none/#"), "");
}

// 3.1.1 [MQTT-3.8.4-3] [MQTT-3.8.4-4]
TEST_P(retained, messages_come_with_each_subscribe)
{
    Client reader = come("reader");
    reader.publish("t", "kept", {.qos = 1, .retain = true});
    for (int i = 0; i < 3; ++i) {
        reader.subscribe("t", 1);
        reader.take("t", "kept", {.qos = 1, .retain = true});
    }
    reader.unsubscribe({"t"});
    reader.subscribe("t", 1);
    reader.take("t", "kept", {.qos = 1, .retain = true});
    reader.expect_silence();
}

TEST_P(retained, messages_come_for_each_filter)
{
    Client reader = come("reader");
    reader.publish("a/b", "kept", {.qos = 2, .retain = true});
    reader.subscribe({{"a/b", 0}, {"a/#", 1}});
    const auto all = reader.take_all();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].qos + all[1].qos, 1u);
}

TEST_P(retained, messages_are_not_sent_again_on_resumption)
{
    Client reader = come_to_stay("reader");
    reader.publish("t", "kept", {.qos = 1, .retain = true});
    reader.subscribe("t", 1);
    reader.take("t", "kept", {.qos = 1, .retain = true});
    reader.ping();
    reader.drop();
    reader = come_to_stay("reader");
    reader.expect_silence();
}

// The host keeps one as soon as it hears of a subscription, which is there already: it comes once, like any other.
TEST_P(retained, message_of_a_host_that_hears_of_a_subscription_comes_once)
{
    if (is_other_broker())
        GTEST_SKIP();
    tarn_sdk_mqtt_broker_register_event_callback(broker.handle(), [](broker_t *host, uint32_t kind, const char *) {
        if (kind == BROKER_EVENT_SUBSCRIBE) {
            EXPECT_EQ(tarn_sdk_mqtt_broker_publish(host, "t", "kept", 4, 1, 1, 0), 0);
        }
    });
    Client reader = come("reader");
    reader.subscribe("t", 1);
    reader.take("t", "kept", {.qos = 1});
    reader.expect_silence();
}

// What was retained was published first, so it comes first, whatever else the broker has to do meanwhile.
// [MQTT-4.6.0-5] [MQTT-4.6.0-6] 3.1.1 [MQTT-4.6.0-5] 3.1.1 [MQTT-4.6.0-6]
TEST_P(retained, message_comes_before_later_ones)
{
    for (const char *filter : {"t", "+", "#"})
        for (unsigned qos = 0; qos < 3; ++qos) {
            SCOPED_TRACE(filter + std::to_string(qos));
            Client client = come("c");
            client.send(publish_packet(level(), "t", "old", {.retain = true}) +
                        subscribe_packet(level(), 1, {{filter, qos}}) + publish_packet(level(), "t", "new"));
            client.expect(SUBACK);
            client.take("t", "old", {.retain = true});
            client.take("t", "new");
        }
}

TEST_P(retained, messages_of_many_filters_come_before_later_ones)
{
    constexpr unsigned  kTopics = 300; // the broker takes them in several steps
    Client              client  = come("c");
    Bytes               all;
    std::vector<Filter> filters;
    for (unsigned i = 0; i < kTopics; ++i) {
        const std::string topic = "t/" + std::to_string(i);
        client.publish(topic, "old", {.qos = 1, .retain = true});
        filters.push_back({topic, 0});
        all = all + publish_packet(level(), topic, "new");
    }
    client.send(subscribe_packet(level(), 1, filters) + all);
    client.expect(SUBACK);
    std::set<std::string> old;
    for (unsigned i = 0; i < 2 * kTopics; ++i) {
        const Received next = client.next();
        ASSERT_EQ(next.type, PUBLISH);
        if (next.payload == "old")
            EXPECT_TRUE(old.insert(next.topic).second);
        else
            EXPECT_TRUE(old.contains(next.topic)) << next.topic;
    }
}

TEST_P(retained, messages_may_be_many)
{
    constexpr int kTopics = 500;
    Client        sender  = come("sender");
    for (int i = 0; i < kTopics; ++i)
        sender.publish("t/" + std::to_string(i), std::to_string(i), {.qos = i % 3u, .retain = true});
    Client reader = come("reader");
    reader.subscribe("t/+", 1);
    std::set<std::string> topics;
    while (topics.size() < kTopics) {
        const Received next = reader.next();
        ASSERT_TRUE(topics.insert(next.topic).second);
        reader.acknowledge(next);
    }
    reader.expect_silence();
}

// ---- 5.0

TEST_F(retained_5, message_has_its_properties)
{
    Client sender = come("sender"), reader = come("reader");
    sender.publish("t", "kept",
                   {.qos        = 1,
                    .retain     = true,
                    .properties = user("b", "1") + property(ContentType, "text") + user("a", "2") +
                                  property(PayloadFormat, 1) + property(ResponseTopic, "r") +
                                  property(CorrelationData, "c")});
    reader.subscribe("t", 1);
    EXPECT_EQ(reader.take("t", "kept", {.qos = 1, .retain = true}).properties.printed(),
              "01=1 03=text 08=r 09=c user b=1 user a=2");
}

// [MQTT-3.3.1-9] [MQTT-3.3.1-10] [MQTT-3.3.1-11] [MQTT-3.8.4-4]
TEST_F(retained_5, messages_come_as_retain_handling_says)
{
    Client reader = come("reader");
    reader.publish("t", "kept", {.qos = 1, .retain = true});
    const auto came = [&](unsigned handling) {
        reader.subscribe("t", handling);
        return reader.take_all().size() == 1;
    };
    EXPECT_FALSE(came(kHandling2));
    EXPECT_FALSE(came(kHandling1)); // there is one already
    EXPECT_TRUE(came(0));
    EXPECT_TRUE(came(0));
    reader.unsubscribe({"t"});
    EXPECT_TRUE(came(kHandling1)); // there was none
    EXPECT_FALSE(came(kHandling1));
    EXPECT_FALSE(came(kHandling2));
}

// [MQTT-3.3.1-10]: a subscription that came back with its session is there.
TEST_F(retained_5, handling_knows_the_subscriptions_of_a_session)
{
    Client reader = come_to_stay("reader");
    reader.publish("t", "kept", {.qos = 1, .retain = true});
    reader.subscribe("t", 0);
    reader.take("t", "kept", {.retain = true});
    reader.drop();
    reader = come_to_stay("reader");
    reader.subscribe("t", kHandling1);
    reader.expect_silence();
}

TEST_F(retained_5, handling_is_of_each_filter)
{
    Client reader = come("reader");
    for (const char *topic : {"a", "b", "c"})
        reader.publish(topic, "kept", {.qos = 1, .retain = true});
    reader.subscribe({{"a", 0}, {"b", kHandling2}, {"c", kHandling1}});
    EXPECT_EQ(reader.take_all().size(), 2u);
}

// The flag is as published, which for a retained message is set; own ones are left out as others.
TEST_F(retained_5, messages_and_the_other_options)
{
    Client reader = come("reader"), other = come("other");
    reader.publish("mine", "kept", {.qos = 1, .retain = true});
    other.publish("theirs", "kept", {.qos = 1, .retain = true});
    reader.subscribe("theirs", kNoLocal | kAsPublished);
    reader.take("theirs", "kept", {.retain = true});
    reader.expect_silence();
}

// [MQTT-3.3.1-9] 3.1.1 [MQTT-3.3.1-6]: all of them, however many and however long.
TEST_P(retained, messages_come_all_however_many)
{
    Client sender = come("sender");
    for (int i = 0; i < 5000; ++i)
        sender.publish("many/" + std::to_string(i), "x", {.retain = true});
    for (int i = 0; i < 12; ++i)
        sender.publish("long/" + std::to_string(i), std::string(500'000, 'x'), {.retain = true});
    sender.ping();
    Client reader = come("reader");
    reader.subscribe("#", 0);
    std::set<std::string> topics;
    while (topics.size() < 5012)
        ASSERT_TRUE(topics.insert(reader.next().topic).second);
    reader.expect_silence();
}
