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

TEST(draft, is_made_when_it_is_asked_for_and_once)
{
    std::atomic<uint64_t> numbers = 6;
    const MessageParts    parts{.topic = "a/b", .payload = kPayload};
    Draft                 draft(parts, numbers);
    EXPECT_EQ(&draft.parts(), &parts);
    EXPECT_EQ(numbers, 6u);
    const MessageRef first = draft.message();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->number(), 7u);
    EXPECT_EQ(first->topic(), "a/b");
    EXPECT_EQ(&*draft.message(), &*first);
    EXPECT_EQ(numbers, 7u);
    Draft made(first);
    EXPECT_EQ(&*made.message(), &*first);
    EXPECT_EQ(made.parts().number, 7u);
}
