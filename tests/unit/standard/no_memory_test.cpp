// Messages and what waits to be sent, without memory.
#include "standard/state/message.h"
#include "standard/outbox.h"
#include "support/faults.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>

using namespace tarn;
using namespace tarn::standard;
using namespace tarn::test;

namespace {

constexpr int kMany = 1000;

std::span<const uint8_t> bytes_of(const std::string &text)
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

net::Sent take_all(void *to, const net::OutPacket *pieces, int count) noexcept
{
    for (int i = 0; i < count; ++i)
        static_cast<std::string *>(to)->append(reinterpret_cast<const char *>(pieces[i].bytes), pieces[i].length);
    return {count, NETIP_OK};
}

// Packets that fill a chunk each. Returns how many were taken.
int add_one_a_chunk(Outbox &outbox)
{
    const std::string packet(4000, 'p');
    int               added = 0;
    while (added < kMany && outbox.add(bytes_of(packet), 0))
        ++added;
    return added;
}

} // namespace

TEST(no_memory, makes_no_message)
{
    const Fail fail(Call::Allocate);
    EXPECT_FALSE(MessageRef::make({.topic = "t"}));
    EXPECT_EQ(fail.failed(), 1);
    EXPECT_TRUE(MessageRef::make({.topic = "t"}));
}

TEST(no_memory, adds_no_part_of_a_packet)
{
    const std::string packet(9000, 'p'), payload(2000, 'm'); // three chunks, and one for the payload
    const MessageRef  message = MessageRef::make({.topic = "t", .payload = bytes_of(payload)});
    Outbox            outbox;
    ASSERT_TRUE(outbox.add(bytes_of("first"), 0));
    for (int refused = 0;; ++refused) {
        ASSERT_LT(refused, 10);
        const Fail fail(Call::Allocate, 2, ENOMEM, kMany); // one more than the last time: what was made is kept
        if (outbox.add(bytes_of(packet), 0, {message, message->payload()})) {
            EXPECT_GE(refused, 2);
            break;
        }
        EXPECT_EQ(outbox.bytes(), 5u);
    }
    std::string got;
    EXPECT_EQ(outbox.flush(take_all, &got, 0), Outbox::Left::Nothing);
    EXPECT_EQ(got, "first" + packet + payload);
}

TEST(no_memory, is_felt_behind_the_chunks_that_are_kept)
{
    Outbox outbox;
    EXPECT_EQ(add_one_a_chunk(outbox), kMany);
    outbox.clear();
    const Fail fail(Call::Allocate, 1, ENOMEM, kMany);
    EXPECT_EQ(add_one_a_chunk(outbox), 256); // the rest was given back
}
