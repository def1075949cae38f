// What outlives the process: sessions, subscriptions, messages for absent clients, retained messages. Each test once with
// a broker that is asked to end and once with one that is killed, at the same places.
#include "support/broker_process.h"
#include "support/host_process.h"
#include "support/peer.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>

using namespace tarn::test;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;

namespace {

enum class Ending { Asked, Killed }; // SIGTERM, SIGKILL

void PrintTo(Ending ending, std::ostream *out)
{
    *out << (ending == Ending::Asked ? "asked" : "killed");
}

struct restart : testing::TestWithParam<Ending> {
    std::optional<BrokerProcess> broker{BrokerProcess::start()};

    bool killed() const { return GetParam() == Ending::Killed; }
    void end()
    {
        killed() ? broker->crash() : broker->stop();
        broker.reset();
    }
    void start_again()
    {
        end();
        broker.emplace(BrokerProcess::start());
    }
};

constexpr const char *kNoMessages = R"({"msgs":[]})";

std::string path_of(const char *directory, const std::string &id)
{
    return std::string("broker_data/") + directory + "/" + id + ".json";
}

std::string messages_of(const std::string &id)
{
    return file_text(path_of("message", id));
}

std::vector<std::string> files_of(const std::string &id)
{
    std::vector<std::string> directories;
    for (const char *directory : {"session", "subscription", "message"})
        if (std::filesystem::exists(path_of(directory, id)))
            directories.push_back(directory);
    return directories;
}

// ---- sessions

enum class Leaves { SaysGoodbye, HangsUp, Stays };

struct Session {
    const char             *id;
    unsigned                level;
    bool                    clean;
    std::optional<uint32_t> expiry_s;
    Leaves                  leaves;
    bool                    there_if_asked, there_if_killed;
};

// A broker that is asked to end closes its clients, as if their connections had dropped; a killed one leaves the files
// as they are.
constexpr Session kSessions[] = {
    {"4-goodbye", 4, false, {}, Leaves::SaysGoodbye, true, true},
    {"4-dropped", 4, false, {}, Leaves::HangsUp, false, false},
    {"4-online", 4, false, {}, Leaves::Stays, false, true},
    {"4-clean-goodbye", 4, true, {}, Leaves::SaysGoodbye, false, false},
    {"4-clean-online", 4, true, {}, Leaves::Stays, false, false},
    {"5-goodbye", 5, false, 3600, Leaves::SaysGoodbye, true, true},
    {"5-dropped", 5, false, 3600, Leaves::HangsUp, true, true},
    {"5-online", 5, false, 3600, Leaves::Stays, true, true},
    {"5-for-ever", 5, false, UINT32_MAX, Leaves::Stays, true, true},
    {"5-short-goodbye", 5, false, {}, Leaves::SaysGoodbye, false, false},
    {"5-short-dropped", 5, false, 0, Leaves::HangsUp, false, false},
    {"5-short-online", 5, false, {}, Leaves::Stays, false, true},
    {"5-clean-goodbye", 5, true, 3600, Leaves::SaysGoodbye, true, true},
    {"5-clean-dropped", 5, true, 3600, Leaves::HangsUp, false, false},
    {"5-clean-online", 5, true, 3600, Leaves::Stays, false, false},
};

std::string topic_of(const Session &session)
{
    return std::string("to/") + session.id;
}

} // namespace

TEST_P(restart, sessions_are_there_or_not)
{
    std::vector<Peer> stayed;
    for (const Session &session : kSessions) {
        Peer peer = come(session.level, session.id, {.clean = session.clean, .session_expiry_s = session.expiry_s});
        peer.subscribe(topic_of(session), 1);
        if (session.leaves == Leaves::SaysGoodbye)
            peer.disconnect();
        if (session.leaves == Leaves::Stays)
            stayed.push_back(std::move(peer));
        // Those that hang up do so here.
    }
    for (const Session &session : kSessions)
        EXPECT_TRUE(wait_until([&] {
            const bool kept    = session.there_if_killed,
                       has_end = session.level == 5 && session.leaves == Leaves::HangsUp;
            return kept ? files_of(session.id).size() == (has_end ? 2u : 1u) : files_of(session.id).empty();
        })) << session.id;
    start_again();

    Peer sender = come(4, "sender", {});
    for (const Session &session : kSessions)
        sender.publish(topic_of(session), "missed", {.qos = 1});
    std::vector<Peer> back;
    for (const Session &session : kSessions) {
        SCOPED_TRACE(session.id);
        const bool there = killed() ? session.there_if_killed : session.there_if_asked;
        if (there)
            EXPECT_THAT(messages_of(session.id), HasSubstr(R"("payload":"6d6973736564"})"));
        else
            EXPECT_THAT(files_of(session.id), IsEmpty());
        back.push_back(come(session.level, session.id, keep(session.level, there)));
        sender.publish(topic_of(session), "live", {.qos = 1});
        if (there) {
            back.back().acknowledge(0x40, back.back().expect_publish(topic_of(session), "live", {.qos = 1}));
            EXPECT_EQ(messages_of(session.id), kNoMessages);
        } else {
            back.back().ping(); // nothing before its answer
        }
    }
    for (size_t i = 0; i < back.size(); ++i)
        if (killed() ? kSessions[i].there_if_killed : kSessions[i].there_if_asked)
            back[i].acknowledge(0x40, back[i].expect_publish(topic_of(kSessions[i]), "missed", {.qos = 1}));
}

TEST_P(restart, a_session_ended_before_it_stays_ended)
{
    const auto make = [](unsigned level, const std::string &id) {
        come(level, id, keep(level, false)).subscribe("t/" + id, 1).disconnect();
        EXPECT_THAT(files_of(id), ElementsAre("subscription"));
    };
    make(4, "clean");
    Peer sender = come(4, "sender", {});
    sender.publish("t/clean", "x", {.qos = 1});
    EXPECT_THAT(files_of("clean"), ElementsAre("subscription", "message"));
    come(4, "clean", {}).disconnect();
    make(5, "interval-0");
    Peer client = come(5, "interval-0", keep(5, true));
    client.send("E0 07 | 00 05 | 10 00 00 00 00"); // an interval of 0
    client.expect_closed();
    make(5, "dropped");
    come(5, "dropped", {.clean = false, .session_expiry_s = 0, .session_present = true}).hang_up();
    EXPECT_TRUE(wait_until([] { return files_of("dropped").empty(); }));
    for (const char *id : {"clean", "interval-0", "dropped"})
        EXPECT_THAT(files_of(id), IsEmpty()) << id;
    start_again();
    sender = come(4, "sender", {});
    for (const char *id : {"clean", "interval-0", "dropped"}) {
        sender.publish(std::string("t/") + id, "x", {.qos = 1});
        EXPECT_THAT(files_of(id), IsEmpty()) << id;
        come(5, id, keep(5, false)).ping();
    }
}

// What an unsubscribe took from the table, the file gives back.
TEST_P(restart, subscriptions_come_back_as_they_were_saved)
{
    come(4, "a", keep(4, false))
        .subscribe("one", 0)
        .subscribe("two", 1)
        .subscribe("three/#", 2)
        .subscribe("two", 2)
        .unsubscribe("one")
        .disconnect();
    for (int round = 0; round < 3; ++round) { // it is neither lost nor doubled
        start_again();
        EXPECT_EQ(file_text(path_of("subscription", "a")),
                  R"({"subs":[{"topic":"one","qos":0},{"topic":"two","qos":2},{"topic":"three/#","qos":2}]})");
    }
    Peer client = come(4, "a", keep(4, true)), sender = come(4, "sender", {});
    sender.publish("one", "1", {.qos = 2});
    client.expect_publish("one", "1");
    sender.publish("two", "2", {.qos = 1});
    client.acknowledge(0x40, client.expect_publish("two", "2", {.qos = 1}));
    sender.publish("three/3", "3", {.qos = 1});
    client.acknowledge(0x40, client.expect_publish("three/3", "3", {.qos = 1}));
    client.ping();
}

// ---- messages for absent clients

namespace {

// Takes so many deliveries, acknowledges them, and lists each as "QoS topic payload", in whatever order they come.
std::vector<std::string> take_deliveries(Peer &peer, size_t count)
{
    std::vector<std::string> taken;
    while (taken.size() < count) {
        const Bytes got = peer.read_packet(3000 * kSlowdown);
        if (got.empty() || got[0] >> 4 != 3)
            break;
        const unsigned qos = got[0] >> 1 & 3, topic_end = 4 + (got[2] << 8 | got[3]);
        const unsigned payload = topic_end + (qos ? 2 : 0) + (peer.level() == 5 ? 1 : 0);
        taken.push_back(std::to_string(qos) + (got[0] & 9 ? "!" : "") + " " +
                        std::string(got.begin() + 4, got.begin() + topic_end) + " " +
                        std::string(got.begin() + payload, got.end()));
        if (qos)
            peer.acknowledge(qos == 1 ? 0x40 : 0x50, unsigned{got[topic_end]} << 8 | got[topic_end + 1]);
    }
    return taken;
}

void publish_at_every_qos(auto &sender, const std::string &payload)
{
    for (unsigned qos = 0; qos <= 2; ++qos)
        sender.publish("t", payload + std::to_string(qos), {.qos = qos, .id = qos + 1});
}

struct Absent {
    unsigned level, granted_qos;

    std::string id() const { return "away-" + std::to_string(level) + "-" + std::to_string(granted_qos); }
};

constexpr Absent kAbsent[] = {{4, 0}, {4, 1}, {4, 2}, {5, 0}, {5, 1}, {5, 2}};

void subscribe_and_leave()
{
    for (const Absent &absent : kAbsent)
        come(absent.level, absent.id(), keep(absent.level, false)).subscribe("t", absent.granted_qos).disconnect();
}

struct Sent {
    unsigned    qos;
    std::string payload;
};

// Each of them gets these, at most at its own QoS and above 0, once: then nothing is kept any more.
void expect_missed(const std::vector<Sent> &sent)
{
    std::vector<Peer> back;
    for (const Absent &absent : kAbsent)
        back.push_back(come(absent.level, absent.id(), keep(absent.level, true)));
    for (size_t i = 0; i < back.size(); ++i) {
        SCOPED_TRACE(kAbsent[i].id());
        std::vector<std::string> expected;
        for (const Sent &one : sent)
            if (const unsigned qos = std::min(one.qos, kAbsent[i].granted_qos))
                expected.push_back(std::to_string(qos) + " t " + one.payload);
        EXPECT_THAT(take_deliveries(back[i], expected.size()), UnorderedElementsAreArray(expected));
        if (expected.empty())
            back[i].ping();
        EXPECT_THAT(messages_of(kAbsent[i].id()), AnyOf(kNoMessages, ""));
    }
}

} // namespace

TEST_P(restart, messages_from_clients_reach_those_who_were_away)
{
    subscribe_and_leave();
    for (const unsigned level : {4u, 5u}) {
        Peer sender = come(level, "sender", {});
        publish_at_every_qos(sender, "before" + std::to_string(level));
        sender.ping();
    }
    start_again();
    Peer sender = come(4, "sender", {});
    publish_at_every_qos(sender, "after");
    sender.ping();
    start_again();
    expect_missed({{0, "before40"},
                   {1, "before41"},
                   {2, "before42"},
                   {0, "before50"},
                   {1, "before51"},
                   {2, "before52"},
                   {0, "after0"},
                   {1, "after1"},
                   {2, "after2"}});
}

TEST_P(restart, messages_from_the_host_reach_those_who_were_away)
{
    subscribe_and_leave();
    end();
    const auto publish = [&](const std::string &payload) {
        HostProcess host;
        for (unsigned qos = 0; qos <= 2; ++qos)
            EXPECT_EQ(host.publish("t", payload + std::to_string(qos), qos), 0);
        killed() ? host.crash() : host.stop();
    };
    publish("one");
    publish("two");
    for (const Absent &absent : kAbsent) {
        if (absent.granted_qos == 0) {
            EXPECT_THAT(files_of(absent.id()), ElementsAre("subscription")) << "the host's at QoS 0 are not kept";
        }
    }
    HostProcess last;
    EXPECT_EQ(last.publish("t", "three1", 1), 0);
    expect_missed({{1, "one1"}, {2, "one2"}, {1, "two1"}, {2, "two2"}, {1, "three1"}});
}

// ---- retained messages

TEST_P(restart, retained_messages_keep_their_lives)
{
    Peer sender = come(5, "sender", {});
    sender.publish("r/lasting", "1", {.qos = 1, .retain = true});
    sender.publish("r/gone", "2", {.qos = 1, .retain = true});
    sender.publish("r/hour", "3", {.qos = 2, .retain = true, .properties = wire("02 00 00 0E 10")});
    sender.publish("r/gone", "", {.qos = 1, .retain = true});
    sender.publish("r/second", "4", {.qos = 1, .retain = true, .properties = wire("02 00 00 00 01")});
    const time_t stored = time(nullptr);
    start_again();
    EXPECT_TRUE(wait_until([&] { return time(nullptr) > stored + 1; }));
    sender = come(4, "sender", {});
    sender.publish("r/last", "5", {.qos = 1, .retain = true}); // discards what has ended
    for (const unsigned level : {4u, 5u}) {
        Peer reader = come(level, "reader", {});
        reader.send(subscribe_packet(level, 1, "r/+", 2));
        reader.expect_publish("r/lasting", "1", {.qos = 1, .retain = true});
        reader.expect_publish("r/hour", "3", {.qos = 2, .retain = true});
        reader.expect_publish("r/last", "5", {.qos = 1, .retain = true});
        reader.expect(level == 4 ? wire("90 03 00 01 02") : wire("90 04 00 01 00 02"));
    }
}

TEST_P(restart, retained_messages_of_the_host_keep_their_lives)
{
    end();
    {
        HostProcess host;
        EXPECT_EQ(host.publish("h/lasting", "1", 1, true), 0);
        EXPECT_EQ(host.publish("h/hour", "2", 0, true, 3600), 0);
        EXPECT_EQ(host.publish("h/second", "3", 0, true, 1), 0);
        killed() ? host.crash() : host.stop();
    }
    const time_t stored = time(nullptr);
    EXPECT_TRUE(wait_until([&] { return time(nullptr) > stored + 1; }));
    HostProcess host;
    EXPECT_EQ(host.publish("h/last", "4", 0, true), 0);
    Peer reader = come(4, "reader", {});
    reader.send(subscribe_packet(4, 1, "h/+", 2));
    reader.expect_publish("h/lasting", "1", {.qos = 1, .retain = true});
    reader.expect_publish("h/hour", "2", {.retain = true});
    reader.expect_publish("h/last", "4", {.retain = true});
    reader.expect("90 03 00 01 02");
}

TEST_P(restart, a_returning_client_gets_the_retained_messages_again)
{
    Peer sender = come(4, "sender", {});
    sender.publish("r/1", "kept", {.qos = 1, .retain = true});
    for (const unsigned level : {4u, 5u}) {
        Peer client = come(level, "client" + std::to_string(level), keep(level, false));
        client.send(subscribe_packet(level, 1, "r/#", 1));
        client.expect_publish("r/1", "kept", {.qos = 1, .retain = true});
        client.expect(level == 4 ? wire("90 03 00 01 01") : wire("90 04 00 01 00 01"));
        client.disconnect();
    }
    start_again();
    for (const unsigned level : {4u, 5u}) {
        Peer client = come(level, "client" + std::to_string(level), keep(level, true));
        client.expect_publish("r/1", "kept", {.qos = 1, .retain = true});
        client.ping();
    }
}

INSTANTIATE_TEST_SUITE_P(broker, restart, testing::Values(Ending::Asked, Ending::Killed),
                         testing::PrintToStringParamName());

// ---- killed in the middle of something

namespace {

std::string hex_of(const std::string &digits)
{
    std::string pairs;
    for (const char c : digits)
        pairs += std::string("3") + c;
    return pairs;
}

} // namespace

// Whatever was acknowledged is there afterwards; of the rest a first part may be, and nothing else.
TEST(killed, what_was_acknowledged_is_on_the_disk)
{
    constexpr unsigned kRounds = kSanitized ? 4 : 10, kMessages = 20;
    for (unsigned round = 0; round < kRounds && !testing::Test::HasFailure(); ++round) {
        SCOPED_TRACE(round);
        const std::string id = "away" + std::to_string(round), topic = "t/" + id;
        BrokerProcess     broker = BrokerProcess::start();
        come(4, id, keep(4, false)).subscribe(topic, 1).disconnect();
        Peer sender = come(4, "sender", {});
        for (unsigned n = 1; n <= kMessages; ++n)
            sender.send(publish_packet(4, topic, std::to_string(n), {.qos = 1, .retain = true, .id = n}));
        const unsigned acknowledged = 1 + (round * 7 + 3) % (kMessages - 1);
        for (unsigned n = 1; n <= acknowledged; ++n)
            sender.expect(ack_packet(4, 0x40, n));
        broker.crash();

        const std::string kept_text = messages_of(id);
        const size_t      kept      = times_in(kept_text, "\"msgid\":");
        EXPECT_GE(kept, acknowledged);
        std::vector<std::string> expected;
        size_t                   at = 0;
        for (unsigned n = 1; n <= kept; ++n) {
            at = kept_text.find(R"("topic":")" + topic + R"(","payload":")" + hex_of(std::to_string(n)) + "\"}", at);
            ASSERT_NE(at, std::string::npos) << n;
            expected.push_back("1 " + topic + " " + std::to_string(n));
        }

        BrokerProcess again  = BrokerProcess::start();
        Peer          client = come(4, id, keep(4, true));
        const Bytes   first  = client.read_packet(); // the retained one, at once
        const size_t  head   = 6 + topic.size();
        ASSERT_GT(first.size(), head);
        const std::string retained(first.begin() + static_cast<long>(head), first.end());
        EXPECT_EQ(first[0], 0x33);
        EXPECT_GE(std::stoul(retained), kept) << "it is stored before the others";
        EXPECT_LE(std::stoul(retained), kMessages);
        if (round == kRounds - 1) { // they come with the scan, a second later
            EXPECT_THAT(take_deliveries(client, kept), UnorderedElementsAreArray(expected));
        }
        EXPECT_TRUE(wait_until([&] { return messages_of(id) == kNoMessages; })) << messages_of(id);
    }
}
