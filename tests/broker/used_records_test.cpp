// Client records that wills have used up: counted, told, and in the end a reason to be started again.
#include "broker/events.h"
#include "broker/used_records.h"
#include "program.h"
#include "support/peer.h"

#include <gtest/gtest.h>

using namespace tarn::broker;
using namespace tarn::test;

namespace {

void leave_wills(int count, const Bytes &properties = {})
{
    for (int i = 0; i < count; ++i) {
        Peer peer = Peer::tcp();
        peer.connect_v5("w" + std::to_string(i), {.will = Will{"gone", "x", 0, false, properties}}).reset();
    }
}

} // namespace

TEST(record_watch, tells_each_mark_once)
{
    RecordWatch watch(100);
    EXPECT_EQ(watch.look(79), RecordWatch::None);
    EXPECT_EQ(watch.look(80), RecordWatch::Many);
    EXPECT_EQ(watch.look(94), RecordWatch::None);
    EXPECT_EQ(watch.look(95), RecordWatch::AlmostAll);
    EXPECT_EQ(watch.look(100), RecordWatch::None);
    EXPECT_EQ(RecordWatch(100).look(100), RecordWatch::AlmostAll);
}

TEST(record_watch, the_event_has_both_numbers)
{
    EXPECT_EQ(used_records_line(7, 80, 100),
              "{\"time\":\"1970-01-01T00:00:00.007Z\",\"event\":\"records\",\"used\":80,\"of\":100}");
}

TEST(used_records, are_told_and_then_end_it_with_all_sessions)
{
    Child broker = run({"--max-clients", "20", "--events", "events"});
    ASSERT_TRUE(serves(broker));
    Peer kept = Peer::tcp();
    kept.connect_v4("kept", {.clean = false}).subscribe("t", 1);
    kept.disconnect();
    leave_wills(16);
    EXPECT_TRUE(prints(broker, "[WARN] 16 of 20 client records are used up by wills without a delay until the next "
                               "start\n"));
    EXPECT_TRUE(wait_until(
        [] { return file_text("events").find("\"event\":\"records\",\"used\":16,\"of\":20}") != std::string::npos; }));
    EXPECT_FALSE(broker.ended());
    leave_wills(3);
    EXPECT_EQ(broker.wait(kLimit_ms), 1);
    EXPECT_NE(broker.errors().find("tarn-broker: 19 of 20 client records are used up: it ends, to be started again\n"
                                   "tarn-broker: ending\n"),
              std::string::npos)
        << broker.errors();

    Child again = run({"--max-clients", "20"});
    ASSERT_TRUE(serves(again));
    Peer::tcp().connect_v4("kept", {.clean = false, .session_present = true}).ping();
}

TEST(used_records, only_warn_when_it_is_to_go_on)
{
    Child broker = run({"--max-clients", "20", "--keep-running"});
    ASSERT_TRUE(serves(broker));
    leave_wills(19);
    EXPECT_TRUE(prints(broker, "[WARN] 19 of 20 client records are used up"));
    pause_ms(1500);
    Peer::tcp().connect_v4("a").ping();
    EXPECT_TRUE(ends_well(broker));
}

TEST(used_records, are_not_those_of_clients_and_of_wills_that_wait)
{
    Child broker = run({"--max-clients", "20"});
    ASSERT_TRUE(serves(broker));
    leave_wills(10, {0x18, 0, 0, 0, 60}); // a delay of 60 s
    std::vector<Peer> peers;
    for (int i = 0; i < 9; ++i) {
        peers.push_back(Peer::tcp());
        peers.back().connect_v4("p" + std::to_string(i), {.will = Will{"gone", "x"}});
    }
    pause_ms(2500); // it looks every second
    for (Peer &peer : peers)
        peer.ping();
    EXPECT_EQ(broker.output().find("used up"), std::string::npos);
}
