// Topic aliases of one connection, both ways.
#include "standard/aliases.h"

#include <gtest/gtest.h>

#include <string>

using namespace tarn::standard;

TEST(incoming_aliases, are_from_one_to_the_maximum)
{
    EXPECT_FALSE(IncomingAliases::is_valid(0));
    EXPECT_TRUE(IncomingAliases::is_valid(1));
    EXPECT_TRUE(IncomingAliases::is_valid(IncomingAliases::kMost));
    EXPECT_FALSE(IncomingAliases::is_valid(IncomingAliases::kMost + 1));
}

TEST(incoming_aliases, hold_the_latest_topic_until_they_are_cleared)
{
    IncomingAliases aliases;
    EXPECT_TRUE(aliases.topic_of(3).empty());
    ASSERT_TRUE(aliases.set(3, "a/b"));
    EXPECT_EQ(aliases.topic_of(3), "a/b");
    EXPECT_TRUE(aliases.topic_of(4).empty());
    ASSERT_TRUE(aliases.set(3, std::string(1000, 'x')));
    EXPECT_EQ(aliases.topic_of(3), std::string(1000, 'x'));
    aliases.clear();
    EXPECT_TRUE(aliases.topic_of(3).empty());
}

TEST(outgoing_aliases, are_not_used_unless_the_client_takes_some)
{
    OutgoingAliases aliases;
    EXPECT_EQ(aliases.find("sensors/1").alias, 0);
}

TEST(outgoing_aliases, are_given_to_the_first_topics)
{
    OutgoingAliases aliases;
    aliases.set_maximum(2);
    const auto first = aliases.find("sensors/1");
    EXPECT_EQ(first.alias, 1);
    EXPECT_TRUE(first.is_new);
    EXPECT_TRUE(aliases.find("sensors/1").is_new) << "nobody has told the client yet";
    aliases.remember("sensors/1");
    EXPECT_EQ(aliases.find("sensors/1").alias, 1);
    EXPECT_FALSE(aliases.find("sensors/1").is_new);
    EXPECT_EQ(aliases.find("sensors/2").alias, 2);
    aliases.remember("sensors/2");
    EXPECT_EQ(aliases.find("sensors/3").alias, 0) << "the client takes two";
    aliases.clear();
    EXPECT_EQ(aliases.find("sensors/1").alias, 0) << "another connection may take none";
}

TEST(outgoing_aliases, are_at_most_so_many_and_not_of_short_topics)
{
    OutgoingAliases aliases;
    aliases.set_maximum(65535);
    EXPECT_EQ(aliases.find("abc").alias, 0);
    for (int i = 0; i < OutgoingAliases::kMost; ++i) {
        const std::string topic = "topic/" + std::to_string(i);
        ASSERT_EQ(aliases.find(topic).alias, i + 1);
        aliases.remember(topic);
    }
    EXPECT_EQ(aliases.find("topic/another").alias, 0);
}
