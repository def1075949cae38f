// The deliveries of one session: their order, identifiers, acknowledgements, bounds, and what a connection changes.
#include "deliveries_support.h"
#include "support/faults.h"

#include <gmock/gmock.h>

using namespace tarn::standard;
using namespace tarn::test;
using namespace tarn::test::sessions;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct deliveries : testing::Test, TestSession {
    // Three messages of this QoS, "a", "b" and "c", sent with the identifiers 1 to 3.
    void send_three(uint8_t qos)
    {
        session.resume();
        for (const char *payload : {"a", "b", "c"})
            ASSERT_EQ(offer(payload, qos), Offered::Queued);
        ASSERT_EQ(sends().size(), 3u);
    }
    void expect(Acknowledged result, Outcome outcome, Answer answer = Answer::Nothing)
    {
        EXPECT_EQ(result.outcome, outcome);
        EXPECT_EQ(result.answer, answer);
    }
};

} // namespace

// ---- Sending

TEST_F(deliveries, go_in_the_order_of_their_offers_whatever_their_qos)
{
    session.resume();
    EXPECT_EQ(offer("a", 1), Offered::Queued);
    EXPECT_EQ(offer("b", 0), Offered::Queued);
    EXPECT_EQ(offer("c", 2), Offered::Queued);
    EXPECT_THAT(sends(), ElementsAre("a qos1 id1", "b qos0", "c qos2 id2"));
}

TEST_F(deliveries, carry_retain_expiry_and_subscription_identifiers)
{
    const uint32_t one[]  = {5};
    const uint32_t many[] = {6, 70000};
    session.resume();
    EXPECT_EQ(session.offer(message("a", now_ms + 3000), 0, true, many), Offered::Queued);
    EXPECT_EQ(session.offer(message("b"), 1, true, one), Offered::Queued);
    EXPECT_EQ(session.offer(message("c"), 2, false, many), Offered::Queued);
    EXPECT_THAT(sends(), ElementsAre("a qos0 retain expiry3 for 6 for 70000", "b qos1 id1 retain for 5",
                                     "c qos2 id2 for 6 for 70000"));
    session.resume();
    EXPECT_THAT(sends(), ElementsAre("b qos1 id1 dup retain for 5", "c qos2 id2 dup for 6 for 70000"));
}

TEST_F(deliveries, wait_for_a_connection)
{
    EXPECT_EQ(offer("a", 1), Offered::Queued);
    EXPECT_EQ(offer("b", 0), Offered::NotConnected);
    EXPECT_FALSE(session.is_connected());
    EXPECT_EQ(next(), "");
    session.resume();
    EXPECT_TRUE(session.is_connected());
    EXPECT_THAT(sends(), ElementsAre("a qos1 id1"));
}

TEST_F(deliveries, heed_the_receive_maximum)
{
    limits.maximum = 2;
    send_three(0); // which it does not limit
    for (const char *payload : {"d", "e", "f"})
        EXPECT_EQ(offer(payload, 1), Offered::Queued);
    EXPECT_EQ(offer("g", 0), Offered::Queued);
    EXPECT_THAT(sends(), ElementsAre("d qos1 id1", "e qos1 id2"));
    expect(session.puback(1, 0), Outcome::Completed);
    EXPECT_THAT(sends(), ElementsAre("f qos1 id3", "g qos0"));
}

TEST_F(deliveries, hold_room_until_pubcomp_or_a_refusal)
{
    limits.maximum = 1;
    session.resume();
    for (const char *payload : {"a", "b", "c"})
        EXPECT_EQ(offer(payload, 2), Offered::Queued);
    EXPECT_THAT(sends(), ElementsAre("a qos2 id1"));
    expect(session.pubrec(1, 0), Outcome::Received, Answer::Pubrel);
    EXPECT_THAT(sends(), IsEmpty());
    expect(session.pubcomp(1, 0), Outcome::Completed);
    EXPECT_THAT(sends(), ElementsAre("b qos2 id2"));
    expect(session.pubrec(2, 0x97), Outcome::Refused);
    EXPECT_THAT(sends(), ElementsAre("c qos2 id3"));
}

TEST_F(deliveries, drop_what_the_client_cannot_take)
{
    Recorder sink;
    session.set_sink(&sink);
    limits.largest = 2;
    session.resume();
    EXPECT_EQ(offer("long", 1), Offered::Queued);
    EXPECT_EQ(offer("long", 0), Offered::Queued);
    EXPECT_EQ(offer("a", 1), Offered::Queued);
    sink.take();
    EXPECT_THAT(sends(), ElementsAre("a qos1 id1"));
    EXPECT_THAT(sink.take(), ElementsAre("7 done 1 id0", "7 sent 2 id1"));
    EXPECT_EQ(session.take_drops().too_large, 2u);
    EXPECT_EQ(session.take_drops().too_large, 0u);
    EXPECT_EQ(session.stored().count, 1u);
    EXPECT_EQ(session.waiting_qos0().count, 0u);
}

// ---- Expiry

TEST_F(deliveries, count_the_expiry_down_in_whole_seconds)
{
    session.resume();
    const uint64_t expires_ms = now_ms + 10000;
    for (const uint64_t waited_ms : {0, 999, 1000, 9999}) {
        EXPECT_EQ(offer("a", 0, expires_ms), Offered::Queued);
        now_ms = expires_ms - 10000 + waited_ms;
        EXPECT_EQ(next(), "a qos0 expiry" + std::to_string(10 - waited_ms / 1000));
    }
    EXPECT_EQ(offer("b", 0, UINT64_MAX), Offered::Queued);
    EXPECT_EQ(next(), "b qos0 expiry4294967295");
}

TEST_F(deliveries, drop_what_has_expired)
{
    limits.maximum = 1;
    session.resume();
    EXPECT_EQ(offer("a", 1), Offered::Queued);
    EXPECT_EQ(offer("b", 2, now_ms + 1), Offered::Queued);
    EXPECT_EQ(offer("c", 0), Offered::Queued);
    ++now_ms;
    EXPECT_THAT(sends(), ElementsAre("a qos1 id1", "c qos0")) << "it waits for no room";
    EXPECT_EQ(session.take_drops().expired, 1u);
    EXPECT_EQ(session.stored().count, 1u);
}

TEST_F(deliveries, repeat_what_has_expired_after_it_was_sent)
{
    session.resume();
    EXPECT_EQ(offer("a", 2, now_ms + 1000), Offered::Queued);
    EXPECT_EQ(next(), "a qos2 id1 expiry1");
    now_ms += 5000;
    session.resume();
    EXPECT_EQ(next(), "a qos2 id1 dup expiry0");
}

TEST_F(deliveries, of_an_absent_client_expire_when_asked)
{
    Recorder sink;
    session.set_sink(&sink);
    EXPECT_EQ(offer("a", 1), Offered::Queued);
    EXPECT_EQ(offer("b", 1, now_ms + 1), Offered::Queued);
    EXPECT_EQ(offer("c", 1, now_ms + 2), Offered::Queued);
    EXPECT_EQ(offer("d", 2, now_ms + 1), Offered::Queued);
    sink.take();
    session.drop_expired(now_ms + 1);
    EXPECT_THAT(sink.take(), ElementsAre("7 done 2 id0", "7 done 4 id0"));
    EXPECT_EQ(session.take_drops().expired, 2u);
    EXPECT_THAT(records(), ElementsAre("a number1 qos1", "c number3 qos1"));
}

// ---- Acknowledgements

TEST_F(deliveries, end_with_puback_in_any_order)
{
    send_three(1);
    expect(session.puback(2, 0), Outcome::Completed);
    expect(session.puback(1, 0x10), Outcome::Completed);
    expect(session.puback(3, 0x80), Outcome::Refused);
    expect(session.puback(3, 0), Outcome::NotFound);
    EXPECT_EQ(session.in_flight(), 0u);
    EXPECT_EQ(session.stored().bytes, 0u);
}

TEST_F(deliveries, end_with_pubcomp)
{
    send_three(2);
    const size_t before = session.stored().bytes;
    expect(session.pubrec(2, 0), Outcome::Received, Answer::Pubrel);
    EXPECT_LT(session.stored().bytes, before) << "the message is needed no more";
    expect(session.pubrec(2, 0x10), Outcome::Received, Answer::Pubrel);
    EXPECT_EQ(session.in_flight(), 3u);
    expect(session.pubcomp(2, 0), Outcome::Completed);
    expect(session.pubcomp(2, 0), Outcome::NotFound);
    expect(session.pubrec(1, 0), Outcome::Received, Answer::Pubrel);
    expect(session.pubcomp(1, 0x92), Outcome::Refused);
    expect(session.pubrec(3, 0), Outcome::Received, Answer::Pubrel);
    expect(session.pubrec(3, 0x80), Outcome::Refused);
    EXPECT_EQ(session.in_flight(), 0u);
    EXPECT_EQ(session.stored().bytes, 0u);
}

TEST_F(deliveries, answer_pubrec_for_unknown_identifiers)
{
    session.resume();
    expect(session.pubrec(9, 0), Outcome::NotFound, Answer::PubrelNotFound);
    expect(session.pubrec(9, 0x80), Outcome::NotFound, Answer::Nothing);
    expect(session.pubrec(0, 0), Outcome::NotFound, Answer::PubrelNotFound);
}

TEST_F(deliveries, refuse_acknowledgements_of_another_type)
{
    session.resume();
    EXPECT_EQ(offer("a", 1), Offered::Queued);
    EXPECT_EQ(offer("b", 2), Offered::Queued);
    EXPECT_EQ(sends().size(), 2u);
    expect(session.pubrec(1, 0), Outcome::Unexpected);
    expect(session.pubcomp(1, 0), Outcome::Unexpected);
    expect(session.puback(2, 0), Outcome::Unexpected);
    expect(session.pubcomp(2, 0), Outcome::Unexpected);
    expect(session.pubrec(2, 0), Outcome::Received, Answer::Pubrel);
    expect(session.puback(2, 0), Outcome::Unexpected);
    EXPECT_EQ(session.in_flight(), 2u);
}

// ---- Connections

TEST_F(deliveries, go_once_over_one_connection)
{
    send_three(2);
    expect(session.pubrec(1, 0), Outcome::Received, Answer::Pubrel);
    EXPECT_EQ(next(), "");
}

TEST_F(deliveries, go_again_over_the_next_connection_in_their_order)
{
    send_three(2);
    expect(session.pubrec(3, 0), Outcome::Received, Answer::Pubrel);
    expect(session.pubrec(1, 0), Outcome::Received, Answer::Pubrel);
    session.absent();
    EXPECT_EQ(offer("d", 1), Offered::Queued);
    for (int connection = 0; connection < 2; ++connection) {
        session.resume();
        EXPECT_THAT(std::vector({next(), next(), next()}), ElementsAre("b qos2 id2 dup", "PUBREL id3", "PUBREL id1"));
    }
    EXPECT_THAT(sends(), ElementsAre("d qos1 id4"));
    EXPECT_EQ(session.take_drops().disconnected, 0u);
}

TEST_F(deliveries, that_are_acknowledged_before_they_go_again_do_not)
{
    send_three(2);
    expect(session.pubrec(3, 0), Outcome::Received, Answer::Pubrel);
    session.resume();
    expect(session.pubrec(1, 0), Outcome::Received, Answer::Pubrel); // was answered: it is not repeated either
    expect(session.pubrec(3, 0), Outcome::Received, Answer::Pubrel); // likewise
    EXPECT_THAT(sends(), ElementsAre("b qos2 id2 dup"));
    session.resume();
    expect(session.pubrec(2, 0x80), Outcome::Refused);
    expect(session.pubcomp(3, 0), Outcome::Completed);
    EXPECT_THAT(sends(), ElementsAre("PUBREL id1"));
}

TEST_F(deliveries, that_go_again_heed_the_receive_maximum_but_pubrel)
{
    send_three(2);
    expect(session.pubrec(2, 0), Outcome::Received, Answer::Pubrel);
    limits.maximum = 1;
    EXPECT_EQ(offer("d", 0), Offered::Queued);
    session.resume();
    EXPECT_EQ(offer("e", 0), Offered::Queued);
    EXPECT_THAT(sends(), ElementsAre("PUBREL id2")) << "what is new waits for what goes again";
    expect(session.pubcomp(2, 0), Outcome::Completed);
    EXPECT_THAT(sends(), ElementsAre("a qos2 id1 dup"));
    expect(session.pubrec(1, 0), Outcome::Received, Answer::Pubrel);
    EXPECT_THAT(sends(), IsEmpty());
    expect(session.pubcomp(1, 0), Outcome::Completed);
    EXPECT_THAT(sends(), ElementsAre("c qos2 id3 dup", "e qos0"));
}

TEST_F(deliveries, that_the_client_cannot_take_again_are_dropped)
{
    Recorder sink;
    session.resume();
    session.set_sink(&sink);
    EXPECT_EQ(offer("long", 1), Offered::Queued);
    EXPECT_EQ(offer("long", 2), Offered::Queued);
    EXPECT_EQ(offer("a", 1), Offered::Queued);
    EXPECT_EQ(sends().size(), 3u);
    sink.take();
    limits.largest = 1;
    session.resume();
    EXPECT_THAT(sends(), ElementsAre("PUBREL id2", "a qos1 id3 dup")) << "the client may hold the identifier 2";
    EXPECT_THAT(sink.take(), ElementsAre("7 done 1 id1", "7 received 2 id2"));
    EXPECT_EQ(session.take_drops().too_large, 2u);
    expect(session.pubcomp(2, 0x92), Outcome::Refused);
}

TEST_F(deliveries, at_qos_0_go_with_the_connection)
{
    limits.maximum = 1;
    session.resume();
    for (const uint8_t qos : std::vector<uint8_t>{0, 1, 0, 2, 0})
        EXPECT_EQ(offer("a", qos), Offered::Queued);
    EXPECT_EQ(next(), "a qos0");
    session.absent();
    EXPECT_EQ(session.take_drops().disconnected, 2u);
    EXPECT_EQ(session.waiting_qos0().count, 0u);
    EXPECT_EQ(session.waiting_qos0().bytes, 0u);
    EXPECT_EQ(next(), "");
    limits.maximum = 2;
    session.resume();
    EXPECT_THAT(sends(), ElementsAre("a qos1 id1", "a qos2 id2"));
}

// ---- Bounds

TEST_F(deliveries, are_bounded_in_count_apart_for_qos_0)
{
    session.set_bounds({.stored = {2, 1000000}, .qos0 = {1, 1000000}});
    session.resume();
    EXPECT_EQ(offer("a", 1), Offered::Queued);
    EXPECT_EQ(offer("b", 2), Offered::Queued);
    EXPECT_EQ(offer("c", 1), Offered::TooMany);
    EXPECT_EQ(offer("d", 0), Offered::Queued);
    EXPECT_EQ(offer("e", 0), Offered::TooMany);
    EXPECT_THAT(sends(), ElementsAre("a qos1 id1", "b qos2 id2", "d qos0"));
    EXPECT_EQ(offer("f", 0), Offered::Queued);
    EXPECT_EQ(offer("g", 1), Offered::TooMany) << "until they are acknowledged";
    expect(session.puback(1, 0), Outcome::Completed);
    EXPECT_EQ(offer("h", 1), Offered::Queued);
}

TEST_F(deliveries, are_bounded_in_bytes)
{
    EXPECT_EQ(offer("0123456789", 1), Offered::Queued);
    const size_t one = session.stored().bytes;
    EXPECT_EQ(one, sizeof(Delivery) + message("0123456789")->size());
    session.set_bounds({.stored = {1000, 2 * one}, .qos0 = {1000, one - 1}});
    EXPECT_EQ(offer("0123456789+", 1), Offered::TooManyBytes);
    EXPECT_EQ(offer("0123456789", 2), Offered::Queued);
    session.resume();
    EXPECT_EQ(offer("0123456789", 0), Offered::Queued) << "an empty queue takes any message";
    EXPECT_EQ(offer("0", 0), Offered::TooManyBytes);
    session.set_bounds({.stored = {1000, one}, .qos0 = {}});
    EXPECT_EQ(offer("", 1), Offered::TooManyBytes) << "there is more already";
    EXPECT_EQ(session.stored().count, 2u);
}

TEST_F(deliveries, without_memory_are_refused)
{
    const uint32_t   many[] = {1, 2};
    const MessageRef one    = message("a");
    for (int nth = 1; nth <= 2; ++nth) {
        DeliveryPool empty;
        Deliveries   other(1, empty, {.stored = {9, 9999}, .qos0 = {}});
        const Fail   fail(Call::Allocate, nth);
        EXPECT_EQ(other.offer(one, 1, false, many), Offered::NoMemory);
        EXPECT_EQ(other.stored().count, 0u);
    }
}

// ---- The sink

TEST_F(deliveries, tell_the_sink_each_change)
{
    Recorder       sink;
    const uint32_t identifiers[] = {3};
    session.set_sink(&sink);
    session.resume();
    EXPECT_EQ(session.offer(message("a"), 2, true, identifiers), Offered::Queued);
    EXPECT_EQ(offer("b", 0), Offered::Queued);
    EXPECT_EQ(offer("c", 1), Offered::Queued);
    EXPECT_THAT(sink.take(), ElementsAre("7 queued a number1 qos2 retain for 3", "7 queued c number2 qos1"));
    EXPECT_EQ(sends().size(), 3u);
    EXPECT_THAT(sink.take(), ElementsAre("7 sent 1 id1", "7 sent 2 id2"));
    session.pubrec(1, 0);
    session.pubrec(1, 0);
    EXPECT_THAT(sink.take(), ElementsAre("7 received 1 id1"));
    session.pubcomp(1, 0);
    session.puback(2, 0x80);
    EXPECT_THAT(sink.take(), ElementsAre("7 done 1 id1", "7 done 2 id2"));
    session.absent();
    session.resume();
    EXPECT_THAT(sink.take(), IsEmpty());
}

TEST_F(deliveries, that_cannot_be_recorded_are_refused)
{
    Recorder sink;
    sink.accepts = false;
    session.set_sink(&sink);
    EXPECT_EQ(offer("a", 1), Offered::NotRecorded);
    EXPECT_EQ(session.stored().count, 0u);
    EXPECT_EQ(session.last_number(), 0u);
    session.resume();
    EXPECT_EQ(offer("b", 0), Offered::Queued) << "no file knows QoS 0";
    sink.accepts = true;
    EXPECT_EQ(offer("c", 1), Offered::Queued);
    EXPECT_THAT(sink.take(), ElementsAre("7 queued c number1 qos1"));
    EXPECT_EQ(session.session(), 7u);
}

TEST_F(deliveries, tell_the_sink_nothing_when_they_are_deleted)
{
    Recorder sink;
    {
        Deliveries other(1, pool, {.stored = {9, 9999}, .qos0 = {9, 9999}});
        other.set_sink(&sink);
        other.resume();
        for (const uint8_t qos : std::vector<uint8_t>{0, 0, 1, 2, 2, 1, 0})
            EXPECT_EQ(other.offer(message("a"), qos, false), Offered::Queued);
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(other.next(0, limits).kind, Outgoing::Kind::Publish);
        other.pubrec(2, 0);
        sink.take();
    }
    EXPECT_THAT(sink.take(), IsEmpty());
}

// ---- Those that go at once

TEST_F(deliveries, that_go_at_once_are_like_those_that_were_queued)
{
    const uint32_t one[] = {5};
    session.resume();
    EXPECT_EQ(session.offer_and_send(message("a"), 1, true, one, 3), 1);
    EXPECT_EQ(session.offer_and_send(message("b"), 2, false, {}, 3), 2);
    EXPECT_EQ(offer("c", 1), Offered::Queued);
    EXPECT_THAT(sends(), ElementsAre("c qos1 id3"));
    EXPECT_THAT(records(), ElementsAre("a number1 qos1 id1 retain for 5", "b number2 qos2 id2", "c number3 qos1 id3"));
    EXPECT_EQ(session.stored().count, 3u);
    EXPECT_EQ(session.in_flight(), 3u);
    EXPECT_EQ(session.offer_and_send(message("d"), 1, false, {}, 3), 0); // no room
    expect(session.puback(1, 0), Outcome::Completed);
    EXPECT_EQ(session.offer_and_send(message("d"), 1, false, {}, 3), 4);
    session.resume();
    EXPECT_THAT(sends(), ElementsAre("b qos2 id2 dup", "c qos1 id3 dup", "d qos1 id4 dup"));
    expect(session.pubrec(2, 0), Outcome::Received, Answer::Pubrel);
    expect(session.pubcomp(2, 0), Outcome::Completed);
    expect(session.puback(3, 0), Outcome::Completed);
    expect(session.puback(4, 0), Outcome::Completed);
    EXPECT_EQ(session.stored().count, 0u);
    EXPECT_EQ(session.stored().bytes, 0u);
}

TEST_F(deliveries, go_at_once_only_where_nothing_waits_and_no_file_knows)
{
    EXPECT_EQ(session.offer_and_send(message("a"), 1, false, {}, 9), 0); // away
    session.resume();
    EXPECT_FALSE(session.has_waiting());
    EXPECT_EQ(offer("a", 0), Offered::Queued);
    EXPECT_TRUE(session.has_waiting());
    EXPECT_EQ(session.offer_and_send(message("b"), 1, false, {}, 9), 0);
    EXPECT_THAT(sends(), ElementsAre("a qos0"));
    EXPECT_FALSE(session.has_waiting());
    EXPECT_EQ(session.offer_and_send(message("b"), 1, false, {}, 9), 1);
    session.set_bounds({.stored = {1, 1000}, .qos0 = {1, 1000}});
    EXPECT_EQ(session.offer_and_send(message("c"), 1, false, {}, 9), 0); // full
    session.set_bounds({.stored = {9, 1000000}, .qos0 = {1, 1000}});
    Recorder sink;
    session.set_sink(&sink);
    EXPECT_EQ(session.offer_and_send(message("c"), 1, false, {}, 9), 0);
    session.set_sink(nullptr);
    session.resume();
    EXPECT_TRUE(session.has_waiting());
    EXPECT_EQ(session.offer_and_send(message("c"), 1, false, {}, 9), 0); // "b" goes again first
    EXPECT_THAT(sends(), ElementsAre("b qos1 id1 dup"));
    EXPECT_THAT(sink.take(), IsEmpty());
}

TEST_F(deliveries, without_memory_do_not_go_at_once)
{
    const MessageRef made = message("a");
    session.resume();
    const Fail no_memory(Call::Allocate);
    EXPECT_EQ(session.offer_and_send(made, 1, false, {}, 9), 0);
    EXPECT_EQ(session.stored().count, 0u);
}
