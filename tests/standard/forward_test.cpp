// One message to clients of all kinds at once: each gets the bytes that are for it, in its order, whichever way they go.
#include "support/levels.h"

using namespace tarn::conformance;

namespace {

struct forwarding : At5 {
    static Client subscribed(unsigned level, std::string_view id, unsigned options, const Bytes &properties = {},
                             const Connect &connect = {})
    {
        Client client(level, id, connect);
        client.subscribe("the/topic", options, properties);
        return client;
    }
};

} // namespace

TEST_F(forwarding, gives_each_reader_its_own_bytes)
{
    Client      old_0 = subscribed(4, "old 0", 0), old_2 = subscribed(4, "old 2", 2);
    Client      new_0 = subscribed(5, "new 0", 0), new_1 = subscribed(5, "new 1", 1);
    Client      retains   = subscribed(5, "retains", 1 | kAsPublished);
    Client      numbered  = subscribed(5, "numbered", 1, property(SubscriptionId, 7));
    Client      numbered2 = subscribed(5, "numbered too", 0, property(SubscriptionId, 200));
    Client      aliased   = subscribed(5, "aliased", 2, {}, {.properties = property(AliasMaximum, 5)});
    Client      sender    = come("sender");
    const Bytes sent      = property(ContentType, "text/plain") + user("a", "b");
    for (const size_t size : {size_t{0}, size_t{10}, size_t{1000}, size_t{1024}, size_t{1025}, size_t{70000}}) {
        SCOPED_TRACE(size);
        const std::string payload(size, 'x');
        for (unsigned qos = 0; qos < 3; ++qos) {
            sender.publish("the/topic", payload, {.qos = qos, .retain = size > 0, .properties = sent});
            old_0.take("the/topic", payload);
            old_2.take("the/topic", payload, {.qos = qos});
            new_0.take("the/topic", payload);
            const unsigned at_most_1 = std::min(qos, 1U);
            EXPECT_EQ(new_1.take("the/topic", payload, {.qos = at_most_1}).properties.printed(),
                      "03=text/plain user a=b");
            retains.take("the/topic", payload, {.qos = at_most_1, .retain = size > 0});
            EXPECT_EQ(numbered.take("the/topic", payload, {.qos = at_most_1}).properties.printed(),
                      "03=text/plain 0B=7 user a=b");
            EXPECT_EQ(numbered2.take("the/topic", payload).properties.number(SubscriptionId), 200U);
            const Received by_alias = aliased.next();
            EXPECT_EQ(by_alias.payload, payload);
            EXPECT_EQ(by_alias.properties.number(Alias), 1U);
            aliased.acknowledge(by_alias);
        }
    }
}

TEST_F(forwarding, passes_over_a_reader_that_does_not_take_so_much)
{
    Client small  = subscribed(5, "small", 1, {}, {.properties = property(MaximumPacketSize, 40)});
    Client reader = subscribed(5, "reader", 1), sender = come("sender");
    for (const size_t size : {size_t{100}, size_t{2000}, size_t{5}}) {
        const std::string payload(size, 'x');
        for (unsigned qos = 0; qos < 2; ++qos) {
            EXPECT_LT(sender.publish("the/topic", payload, {.qos = qos}), 0x80U);
            reader.take("the/topic", payload, {.qos = qos});
            if (size == 5)
                small.take("the/topic", payload, {.qos = qos});
        }
    }
    small.expect_silence();
}

// What waits for room goes before what comes later, though that would need no room.
TEST_F(forwarding, overtakes_nothing_that_waits)
{
    Client reader = subscribed(5, "reader", 1, {}, {.properties = property(ReceiveMaximum, 2)});
    Client sender = come("sender");
    for (const char *payload : {"1", "2", "3"})
        sender.publish("the/topic", payload, {.qos = 1});
    sender.publish("the/topic", "4", {.qos = 0});
    const Received first = reader.expect_publish("the/topic", "1", {.qos = 1});
    const Received other = reader.expect_publish("the/topic", "2", {.qos = 1});
    reader.expect_silence();
    reader.acknowledge(first);
    const Received third = reader.expect_publish("the/topic", "3", {.qos = 1});
    reader.take("the/topic", "4");
    reader.acknowledge(other);
    sender.publish("the/topic", "5", {.qos = 1});
    EXPECT_EQ(reader.expect_publish("the/topic", "5", {.qos = 1}).id, 4U);
    reader.acknowledge(third);
    reader.expect_silence();
}

// A kept session is told of in files, and gets each message again that it did not acknowledge; one that is not has none.
TEST_F(forwarding, keeps_what_a_kept_session_has_not_acknowledged)
{
    Client sender = come("sender");
    {
        Client kept = come_to_stay("kept");
        kept.subscribe("the/topic", 2);
        Client gone = subscribed(5, "gone", 2);
        for (unsigned qos = 0; qos < 3; ++qos)
            sender.publish("the/topic", std::to_string(qos), {.qos = qos});
        for (Client *const reader : {&kept, &gone})
            for (unsigned qos = 0; qos < 3; ++qos)
                (void)reader->expect_publish("the/topic", std::to_string(qos), {.qos = qos});
        kept.drop();
        gone.drop();
    }
    Client kept = come_to_stay("kept"), gone = come("gone");
    kept.take("the/topic", "1", {.qos = 1, .dup = true});
    kept.take("the/topic", "2", {.qos = 2, .dup = true});
    kept.expect_silence();
    gone.expect_silence();
}
