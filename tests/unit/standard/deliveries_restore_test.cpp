// The deliveries of a session from the records and changes that files keep.
#include "deliveries_support.h"
#include "support/faults.h"

#include <gmock/gmock.h>

using namespace tarn::standard;
using namespace tarn::test;
using namespace tarn::test::sessions;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

DeliveryRecord record_of(uint64_t number, uint8_t qos, uint16_t packet_id)
{
    DeliveryRecord record;
    record.number    = number;
    record.qos       = qos;
    record.packet_id = packet_id;
    return record;
}

struct deliveries_restore : testing::Test, TestSession {
    Restored restore(uint64_t number, std::string_view payload, uint8_t qos, uint16_t packet_id = 0)
    {
        DeliveryRecord record = record_of(number, qos, packet_id);
        record.message        = message(payload);
        return session.restore(record);
    }
    Restored restore_received(uint64_t number, uint8_t qos, uint16_t packet_id)
    {
        DeliveryRecord record = record_of(number, qos, packet_id);
        record.received       = true;
        return session.restore(record);
    }
};

// A session with messages in each state, of which the last waits for room.
struct Filled : TestSession {
    Filled()
    {
        const uint32_t one[] = {9};
        limits.maximum       = 4;
        session.resume();
        EXPECT_EQ(session.offer(message("a"), 2, true, one), Offered::Queued);
        for (const char *payload : {"b", "c", "d"})
            EXPECT_EQ(offer(payload, 2), Offered::Queued);
        EXPECT_EQ(offer("e", 1), Offered::Queued);
        EXPECT_EQ(offer("f", 0), Offered::Queued);
        EXPECT_EQ(sends().size(), 4u);
        session.pubrec(4, 0);
        session.pubrec(2, 0);
    }
};

} // namespace

TEST_F(deliveries_restore, of_all_records_makes_the_same_again)
{
    const Filled filled;
    EXPECT_THAT(filled.records(),
                ElementsAre("a number1 qos2 id1 retain for 9", "c number3 qos2 id3", "- number4 qos2 id4 received",
                            "- number2 qos2 id2 received", "e number5 qos1"));
    filled.session.for_each([&](const DeliveryRecord &record) { EXPECT_EQ(session.restore(record), Restored::Done); });
    session.restore_last_number(filled.session.last_number());

    EXPECT_EQ(records(), filled.records());
    EXPECT_EQ(session.last_number(), 5u);
    EXPECT_EQ(session.stored().count, filled.session.stored().count);
    EXPECT_EQ(session.stored().bytes, filled.session.stored().bytes);
    EXPECT_EQ(next(), "") << "nobody is connected";
    session.resume();
    EXPECT_THAT(sends(),
                ElementsAre("a qos2 id1 dup retain for 9", "c qos2 id3 dup", "PUBREL id4", "PUBREL id2", "e qos1 id5"));
}

TEST_F(deliveries_restore, of_changes_makes_the_same_again)
{
    Recorder sink;
    session.set_sink(&sink);
    for (const char *payload : {"a", "b", "c", "d"}) // 1 to 4
        EXPECT_EQ(restore(session.last_number() + 1, payload, 2), Restored::Done);
    EXPECT_EQ(session.restore_sent(1, 7), Restored::Done);
    EXPECT_EQ(session.restore_sent(2, 8), Restored::Done);
    EXPECT_EQ(session.restore_received(2, 8), Restored::Done);
    EXPECT_EQ(session.restore_done(3, 0), Restored::Done);
    EXPECT_THAT(records(), ElementsAre("a number1 qos2 id7", "- number2 qos2 id8 received", "d number4 qos2"));
    EXPECT_EQ(session.restore_done(1, 7), Restored::Done);
    EXPECT_EQ(session.restore_done(2, 8), Restored::Done);
    EXPECT_THAT(records(), ElementsAre("d number4 qos2"));
    EXPECT_THAT(sink.take(), IsEmpty()) << "files know it";
    EXPECT_EQ(session.in_flight(), 0u);
}

TEST_F(deliveries_restore, goes_on_with_numbers_and_identifiers)
{
    EXPECT_EQ(restore(40, "a", 1, 65535), Restored::Done);
    session.restore_last_number(50);
    session.restore_last_number(45);
    EXPECT_EQ(session.last_number(), 50u);
    EXPECT_EQ(offer("b", 1), Offered::Queued);
    EXPECT_EQ(session.last_number(), 51u);
    session.resume();
    EXPECT_THAT(sends(), ElementsAre("a qos1 id65535 dup", "b qos1 id1"));
}

TEST_F(deliveries_restore, ignores_changes_that_the_records_contain)
{
    EXPECT_EQ(restore_received(2, 2, 6), Restored::Done);
    EXPECT_EQ(restore(5, "e", 2), Restored::Done);
    session.restore_last_number(6);
    const auto before = records();

    EXPECT_EQ(restore(1, "a", 1), Restored::Ignored);
    EXPECT_EQ(session.restore_sent(1, 6), Restored::Ignored);
    EXPECT_EQ(session.restore_done(1, 6), Restored::Ignored);
    EXPECT_EQ(restore(2, "b", 2), Restored::Ignored);
    EXPECT_EQ(session.restore_sent(2, 6), Restored::Ignored);
    EXPECT_EQ(session.restore_received(2, 6), Restored::Ignored);
    EXPECT_EQ(restore(5, "e", 2), Restored::Ignored);
    EXPECT_EQ(session.restore_done(4, 0), Restored::Ignored);
    EXPECT_EQ(restore(6, "f", 1), Restored::Ignored) << "it is done";
    EXPECT_EQ(records(), before);
}

TEST_F(deliveries_restore, ignores_what_cannot_be)
{
    EXPECT_EQ(restore(0, "a", 1), Restored::Ignored);
    EXPECT_EQ(restore(0, "a", 1, 5), Restored::Ignored);
    EXPECT_EQ(restore(1, "a", 0), Restored::Ignored);
    EXPECT_EQ(restore(1, "a", 3), Restored::Ignored);
    EXPECT_EQ(session.restore(record_of(1, 1, 0)), Restored::Ignored) << "without a message";
    EXPECT_EQ(restore_received(1, 1, 1), Restored::Ignored);
    EXPECT_EQ(restore_received(1, 2, 0), Restored::Ignored);
    EXPECT_EQ(restore(1, "a", 1, 3), Restored::Done);
    EXPECT_EQ(restore(2, "b", 1, 3), Restored::Ignored) << "the identifier is in use";
    EXPECT_EQ(restore(2, "b", 1), Restored::Done);
    EXPECT_EQ(session.restore_sent(2, 3), Restored::Ignored);
    EXPECT_EQ(session.restore_sent(2, 0), Restored::Ignored);
    EXPECT_EQ(session.restore_received(1, 3), Restored::Ignored) << "at QoS 1";
    EXPECT_EQ(session.restore_done(1, 4), Restored::Ignored);
    EXPECT_EQ(session.restore_done(2, 3), Restored::Ignored);
    EXPECT_THAT(records(), ElementsAre("a number1 qos1 id3", "b number2 qos1"));
}

TEST_F(deliveries_restore, ends_queued_deliveries_in_any_order)
{
    for (uint64_t number = 1; number <= 9; ++number)
        EXPECT_EQ(restore(number * 10, "a", 1), Restored::Done);
    for (const uint64_t number : {30, 40, 70, 50, 10, 90, 80})
        EXPECT_EQ(session.restore_done(number, 0), Restored::Done) << number;
    for (const uint64_t number : {95, 90, 65, 50, 25, 10, 5})
        EXPECT_EQ(session.restore_done(number, 0), Restored::Ignored) << number;
    EXPECT_THAT(records(), ElementsAre("a number20 qos1", "a number60 qos1"));
}

TEST_F(deliveries_restore, holds_more_than_the_bounds)
{
    session.set_bounds({});
    EXPECT_EQ(restore(1, "a", 1), Restored::Done);
    EXPECT_EQ(offer("b", 1), Offered::TooMany);
    EXPECT_EQ(session.stored().count, 1u);
}

TEST_F(deliveries_restore, may_lack_memory)
{
    DeliveryRecord record = record_of(1, 1, 0);
    record.message        = message("a");
    const Fail fail(Call::Allocate);
    EXPECT_EQ(session.restore(record), Restored::NoMemory);
    EXPECT_EQ(session.last_number(), 0u);
    EXPECT_EQ(session.restore(record), Restored::Done);
}
