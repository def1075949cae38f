// A message that many share.
#include "standard/state/message.h"

#include <gtest/gtest.h>

using namespace tarn::standard;

namespace {

constexpr uint8_t kProperties[] = {1, 1};
constexpr uint8_t kPayload[]    = {'x', 'y', 'z'};

} // namespace

TEST(message, keeps_what_it_was_made_of)
{
    std::string      topic   = "a/b";
    const MessageRef message = MessageRef::make({.number     = 7,
                                                 .expires_ms = 8,
                                                 .sender     = 9,
                                                 .qos        = 2,
                                                 .retain     = true,
                                                 .topic      = topic,
                                                 .properties = kProperties,
                                                 .payload    = kPayload});
    topic                    = "gone";
    ASSERT_TRUE(message);
    EXPECT_EQ(message->number(), 7u);
    EXPECT_EQ(message->expires_ms(), 8u);
    EXPECT_EQ(message->sender(), 9u);
    EXPECT_EQ(message->qos(), 2);
    EXPECT_TRUE(message->retain());
    EXPECT_EQ(message->topic(), "a/b");
    EXPECT_TRUE(std::equal(std::begin(kProperties), std::end(kProperties), message->properties().begin()));
    EXPECT_TRUE(std::equal(std::begin(kPayload), std::end(kPayload), message->payload().begin()));
    EXPECT_EQ(message->size(), sizeof(Message) + 8);
}

TEST(message, lives_as_long_as_one_has_it)
{
    MessageRef one = MessageRef::make({.topic = "t"});
    MessageRef two = one, three;
    three          = two;
    one            = {};
    two            = MessageRef();
    EXPECT_FALSE(one);
    EXPECT_EQ(three->topic(), "t");
    const MessageRef four = std::move(three);
    EXPECT_FALSE(three);
    EXPECT_EQ(four->topic(), "t");
}
