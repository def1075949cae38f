// The repetition of deliveries from beginning to end in real time, at both levels and QoS 1 and 2 side by side.
#include "support/host.h"
#include "support/log_capture.h"
#include "support/log_lines/qos.h"
#include "support/peer.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>

using namespace tarn::test;

namespace {

constexpr double kCopyAfter_s[] = {0, 1, 3, 7, 15, 31}; // since the message was published
constexpr double kDropAfter_s   = 31 + 30;
constexpr size_t kCopies        = std::size(kCopyAfter_s);

// Each step waits for a scan, every 100 ms; the rest is for a machine that has other things to do.
double slack_s(size_t steps)
{
    return 0.15 * static_cast<double>(steps) + 2 * kSlowdown;
}

struct Copy {
    double at_s;
    Bytes  packet;
};

enum class Answer { Nothing, ThirdCopy, PubrecOnly };

// A subscriber to "t" that answers as told and keeps what came and when.
class Listener {
public:
    Listener(unsigned level, unsigned qos, Answer answer) : level_(level), qos_(qos), answer_(answer)
    {
        const std::string id      = "sub-" + std::to_string(level) + std::to_string(qos) + std::to_string(int(answer));
        const Connect     options = {.keep_alive_s = 600};
        peer_.connect(level, id, options);
        peer_.subscribe("t", qos);
    }

    void take()
    {
        for (Bytes packet; !(packet = peer_.read_packet(0)).empty();) {
            if (packet[0] >> 4 != 3) {
                others_.push_back(packet);
                continue;
            }
            copies_.push_back({now_s(), packet});
            if (answer_ == Answer::ThirdCopy && copies_.size() == 3)
                peer_.acknowledge(0x40, id());
            if (answer_ == Answer::PubrecOnly)
                peer_.acknowledge(0x50, id());
        }
    }

    unsigned id() const { return copies_.empty() ? 0 : unsigned{copies_[0].packet[5]} << 8 | copies_[0].packet[6]; }

    // The message was published between these two moments.
    void check(double from_s, double to_s, size_t copies) const
    {
        SCOPED_TRACE(testing::Message() << "level " << level_ << ", QoS " << qos_ << ", answer " << int(answer_));
        ASSERT_EQ(copies_.size(), copies);
        for (size_t i = 0; i < copies; ++i) {
            SCOPED_TRACE(testing::Message() << "copy " << i << " after " << copies_[i].at_s - to_s << " s");
            EXPECT_EQ(copies_[i].packet,
                      publish_packet(level_, "t", "hello", {.qos = qos_, .dup = i >= 2, .id = id()}));
            EXPECT_GE(copies_[i].at_s, from_s + kCopyAfter_s[i]);
            EXPECT_LE(copies_[i].at_s, to_s + kCopyAfter_s[i] + slack_s(i));
        }
    }

    // Nothing but the copies came, and PUBREL twice for the PUBREC; the connection is as good as ever.
    void check_rest()
    {
        const Bytes pubrel = ack_packet(level_, 0x62, id());
        EXPECT_EQ(others_, answer_ == Answer::PubrecOnly ? (std::vector<Bytes>{pubrel, pubrel}) : std::vector<Bytes>{});
        peer_.ping();
    }

private:
    const unsigned     level_, qos_;
    const Answer       answer_;
    Peer               peer_ = Peer::tcp();
    std::vector<Copy>  copies_;
    std::vector<Bytes> others_;
};

size_t still_repeated()
{
    const std::vector<Pending> all = pending_deliveries();
    return static_cast<size_t>(
        std::count_if(all.begin(), all.end(), [](const Pending &one) { return one.qos2_state < 2; }));
}

} // namespace

TEST(slow_repetition, after_1_3_7_15_and_31_seconds_and_given_up_after_61)
{
    Host                  host;
    LogCapture            log(3);
    std::vector<Listener> silent, late, halfway;
    for (unsigned level : {4u, 5u}) {
        for (unsigned qos : {1u, 2u})
            silent.emplace_back(level, qos, Answer::Nothing);
        late.emplace_back(level, 1, Answer::ThirdCopy);
        halfway.emplace_back(level, 2, Answer::PubrecOnly);
    }
    Peer sender = Peer::tcp();
    sender.connect_v4("p");
    const double from_s = now_s();
    sender.publish("t", "hello", {.qos = 2});
    const double to_s = now_s();
    EXPECT_EQ(pending_deliveries().size(), 8u);

    double first_drop_s = 0;
    for (size_t left = 1; left > 0 && now_s() < to_s + kDropAfter_s + slack_s(kCopies); pause_ms(5)) {
        for (auto *group : {&silent, &late, &halfway})
            for (Listener &one : *group)
                one.take();
        left = still_repeated();
        if (first_drop_s == 0 && left < silent.size())
            first_drop_s = now_s();
    }
    EXPECT_EQ(still_repeated(), 0u);
    EXPECT_GE(first_drop_s, from_s + kDropAfter_s);
    EXPECT_EQ(pending_deliveries().size(), halfway.size()); // these wait for PUBCOMP, however long it takes

    std::vector<LogLine> dropped;
    for (Listener &one : silent) {
        one.check(from_s, to_s, kCopies);
        one.check_rest();
        dropped.push_back(logged::delivery_given_up(one.id()));
    }
    for (Listener &one : late) {
        one.check(from_s, to_s, 3);
        one.check_rest();
    }
    for (Listener &one : halfway) {
        one.check(from_s, to_s, 1);
        one.check_rest();
    }
    EXPECT_THAT(log.take_from("ERROR"), testing::UnorderedElementsAreArray(dropped));
}

// An interval goes to the delivery that has the publisher as its receiver and the identifier it publishes with. One
// delivery is repeated once before its end, the other is half acknowledged.
TEST(repetition, ends_with_an_interval_that_the_receiver_sets)
{
    Host       host;
    LogCapture log(2);
    Peer       sender = Peer::tcp(), waiting = Peer::tcp(), halfway = Peer::tcp();
    sender.connect_v4("p");
    waiting.connect_v5("waiting").subscribe("t", 1);
    halfway.connect_v5("halfway").subscribe("t", 2);
    const double from_s = now_s();
    sender.publish("t", "hello", {.qos = 2});
    const unsigned first  = waiting.expect_publish("t", "hello", {.qos = 1});
    const unsigned second = halfway.expect_publish("t", "hello", {.qos = 2});
    const Bytes    pubrel = ack_packet(5, 0x62, second);
    halfway.acknowledge(0x50, second);
    halfway.expect(pubrel + pubrel);
    const Bytes two_seconds = wire("02 00 00 00 02");
    waiting.publish("other", "x", {.qos = 1, .id = first, .properties = two_seconds});
    halfway.publish("other", "x", {.qos = 1, .id = second, .properties = two_seconds});
    EXPECT_EQ(pending_deliveries().size(), 2u);
    EXPECT_EQ(waiting.expect_publish("t", "hello", {.qos = 1}), first);
    EXPECT_TRUE(wait_until([] { return pending_deliveries().empty(); }));
    EXPECT_GT(now_s(), from_s + 1.999); // two seconds between moments that are cut to milliseconds
    std::vector<LogLine> ended;
    for (unsigned id : {first, second})
        ended.push_back(logged::delivery_expired(id, "t"));
    std::vector<LogLine> lines = log.take();
    std::erase_if(lines, [](const LogLine &line) { return line.text.rfind("[QoS/Expiry]", 0) != 0; });
    EXPECT_THAT(lines, testing::UnorderedElementsAreArray(ended));
    waiting.expect_nothing(1300); // the next copy would have come after three
    halfway.ping();
}
