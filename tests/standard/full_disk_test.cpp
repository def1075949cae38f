// A disk that is full: what is to be kept waits, and so does who was to be told; everybody else is served. With room again
// all is kept and told.
#include "support/files.h"
#include "support/host.h"
#include "support/levels.h"
#include "support/process_state.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

using namespace tarn::conformance;
using tarn::test::kLimit_ms;
using tarn::test::mount_small_disk;

namespace {

constexpr const char *kFiller = "broker_data/filler";

// Takes up what is left of the disk.
void fill_disk()
{
    const int  fd       = open(kFiller, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const char page[64] = {};
    while (write(fd, page, sizeof page) > 0)
        ;
    EXPECT_EQ(errno, ENOSPC);
    close(fd);
}

void make_room()
{
    std::filesystem::remove(kFiller);
}

// Nothing comes for a while, not even the answer to a PINGREQ, which stands behind what waits.
void expect_waiting(Client &client)
{
    client.peer().expect_nothing();
}

struct slow_full_disk : testing::TestWithParam<unsigned> {
    bool                   is_small = mount_small_disk("broker_data");
    std::optional<Program> program;

    void SetUp() override
    {
        if (!is_small)
            GTEST_SKIP() << "the kernel refuses";
        program.emplace();
    }
    unsigned level() const { return GetParam(); }
    Client   come(std::string_view id) const { return {level(), id}; }
    Client   come_to_stay(std::string_view id) const
    {
        return {level(),
                id,
                {.clean = false, .properties = level() == 5 ? property(SessionExpiry, 3600) : tarn::test::Bytes{}}};
    }
};
AT_EACH_LEVEL(slow_full_disk);

} // namespace

TEST_P(slow_full_disk, what_is_to_be_kept_waits_and_is_there_after_a_kill)
{
    come_to_stay("away").subscribe("kept", 2);
    Client once = come("once"), twice = come("twice");
    fill_disk();
    const std::string payload(8000, 'x'); // more than the end of the last page
    once.send(publish_packet(level(), "kept", payload, {.qos = 1, .id = 1}));
    twice.send(publish_packet(level(), "kept", payload + "2", {.qos = 2, .id = 2}));
    expect_waiting(once);
    expect_waiting(twice);

    Client passing = come("passing"), other = come("other"); // of whom no file is to know
    passing.subscribe("now", 2);
    for (unsigned qos = 0; qos < 3; ++qos) {
        other.publish("now", "x", {.qos = qos});
        passing.take("now", "x", {.qos = qos});
    }
    Client late = Client::open(level());
    late.send(connect_packet(level(), "late", {.clean = level() == 5, .properties = property(SessionExpiry, 60)}));
    expect_waiting(late);

    make_room();
    once.expect_ack(PUBACK, 1, 0);
    twice.expect_ack(PUBREC, 2, 0);
    EXPECT_EQ(late.expect(CONNACK).reason, 0u);
    program->crash();
    program->start();
    Client away = come_to_stay("away");
    EXPECT_TRUE(away.connack().session_present);
    away.take("kept", payload, {.qos = 1});
    away.take("kept", payload + "2", {.qos = 2});
    away.expect_silence();
}

TEST_P(slow_full_disk, what_did_not_wait_for_room_is_published_again_by_its_client)
{
    come_to_stay("away").subscribe("kept", 2);
    Client sender = come_to_stay("sender");
    fill_disk();
    const std::string payload(8000, 'x');
    sender.send(publish_packet(level(), "kept", payload, {.qos = 2, .id = 7}));
    expect_waiting(sender);
    program->crash();
    make_room();
    program->start();
    sender = come_to_stay("sender");
    EXPECT_TRUE(sender.connack().session_present);
    sender.publish("kept", payload, {.qos = 2, .dup = true, .id = 7});
    Client away = come_to_stay("away");
    away.take("kept", payload, {.qos = 2});
    away.expect_silence();
}

namespace {

// A kept session that holds identifiers from 1 on.
Client come_with_exchanges(std::string_view id, unsigned count)
{
    Client client(5, id, {.clean = false, .properties = property(SessionExpiry, 3600)});
    for (unsigned exchange = 1; exchange <= count; ++exchange) {
        client.send(publish_packet(5, "t", "x", {.qos = 2, .id = exchange}));
        client.expect_ack(PUBREC, exchange, 0x10);
    }
    return client;
}

// With the disk full: there is no memory left for a record as of PUBREL, nor for a longer one.
void fill_journal(Client &releases, unsigned exchanges)
{
    Client sender(5, "sender");
    for (const size_t size : {1'000'000, 100'000, 10'000, 1000, 100, 0})
        for (int i = 0; i < (size == 1'000'000 ? 70 : 12); ++i)
            sender.send(publish_packet(5, "r", std::string(size, 'x') + "x", {.retain = true}));
    sender.ping();
    for (unsigned id = 1; id <= exchanges; ++id)
        releases.send(ack_packet(PUBREL, id));
    releases.expect_end({0x89});
}

struct slow_full_disk_5 : testing::Test {};

} // namespace

// An exchange at QoS 2 ends with a refusal. Unless a file knows that, a restart would bring the identifier back, and
// the next message that has it would be taken for the old one: so the client is to ask again.
TEST_F(slow_full_disk_5, a_refusal_that_no_file_can_know_is_not_told)
{
    if (!mount_small_disk("broker_data"))
        GTEST_SKIP() << "the kernel refuses";
    Broker broker(2 << 20);
    tarn::test::Hooks::listen(broker.handle());
    Client client = come_with_exchanges("c", 1), other = come_with_exchanges("other", 20);
    tarn::test::Hooks::refuse_topic("t");
    fill_disk();
    fill_journal(other, 20);
    client.send(publish_packet(5, "t", "x", {.qos = 2, .dup = true, .id = 1}));
    client.expect_end({0x89});
    make_room();
}

// What waits in memory has a bound.
TEST_P(slow_full_disk, who_publishes_too_much_is_refused_and_nobody_else)
{
    come_to_stay("away").subscribe("kept/#", 1);
    fill_disk();
    const std::string   payload(1 << 20, 'x');
    constexpr int       kMore = 70; // MiB
    std::vector<Client> senders;
    for (int i = 0; i < kMore; ++i) {
        senders.push_back(come("sender" + std::to_string(i)));
        senders.back().send(publish_packet(level(), "kept/" + std::to_string(i), payload, {.qos = 1, .id = 1}));
    }
    if (level() == 5)
        senders.back().expect_ack(PUBACK, 1, 0x83);
    else
        senders.back().expect_closed();
    Client passing = come("passing");
    passing.subscribe("now", 0);
    passing.publish("now", "x");
    passing.take("now", "x");
    make_room();
}
