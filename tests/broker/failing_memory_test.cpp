// tarn-broker while every n-th allocation fails: it refuses and leaves out, and goes on.
#include "broker/shortage.h"
#include "program.h"
#include "support/peer.h"
#include "user_file.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <new>
#include <thread>

using namespace tarn::broker;
using namespace tarn::test;

namespace {

bool always_fails(int /*value*/)
{
    throw std::bad_alloc();
}

bool is_seven(int value)
{
    return value == 7;
}

// Settings as failing_memory.c describes them.
Child run_with_failing_memory(const std::vector<std::string> &settings, const std::vector<std::string> &options)
{
    static int               runs    = 0;
    std::vector<std::string> command = {"env", "LD_PRELOAD=" TARN_FAILING_MEMORY};
    command.insert(command.end(), settings.begin(), settings.end());
    command.emplace_back(TARN_BROKER_PROGRAM);
    command.insert(command.end(), options.begin(), options.end());
    return {"short" + std::to_string(++runs), command};
}

std::string every(int n)
{
    return "FAIL_EVERY=" + std::to_string(n);
}

std::string from(int n)
{
    return "FAIL_FROM=" + std::to_string(n);
}

bool has_begun_to_fail(const Child &broker)
{
    return broker.errors().find("failing: begins\n") != std::string::npos;
}

// A signal is taken some time after it was sent, so both wait for the word.
testing::AssertionResult begin_shortage(const Child &broker)
{
    broker.signal(SIGRTMIN);
    return testing::AssertionResult(says(broker, "failing: on\n")) << tail(broker.errors());
}

testing::AssertionResult end_shortage(const Child &broker)
{
    broker.signal(SIGRTMIN + 1);
    return testing::AssertionResult(says(broker, "failing: off\n")) << tail(broker.errors());
}

// What becomes of it nobody can say; it must only be over at some time.
void try_to_use(const std::string &id, const Connect &options)
{
    Peer peer = Peer::tcp();
    peer.send(connect_packet(5, id, options));
    peer.send(subscribe_packet(5, 1, "home/#", 0));
    peer.send(publish_packet(5, "home/" + id, "x"));
    peer.send(publish_packet(5, "secret/" + id, "x"));
    for (int i = 0; i < 20 && peer.drain(); ++i)
        pause_ms(1);
}

// What a thread allocates for good with the first packet of a kind is not what is tested here.
void warm_up(const Connect &options)
{
    Peer peer = Peer::tcp();
    peer.connect_v4("before", options).subscribe("home/#");
    peer.publish("home/x", "x");
    peer.ping();
    peer.disconnect();
}

void run_command(const char *command)
{
    Child("console", {"sh", "-c", std::string("\"$0\" ctl ctl ") + command, TARN_BROKER_PROGRAM}).wait(kLimit_ms);
}

const Connect                  kAlice   = {.username = "alice", .password = "right"};
const std::vector<std::string> kOptions = {"--user-file", "users",     "--acl-file", "rules",       "--events",
                                           "events",      "--control", "ctl",        "--log-level", "debug"};

void write_files()
{
    write_text("users", user_lines({"alice", "bob"}));
    write_text("rules", "readwrite home/#\n");
}

void expect_served(const Child &broker)
{
    Peer reader = Peer::tcp(), writer = Peer::tcp();
    reader.connect_v4("reader", kAlice).subscribe("home/#");
    writer.connect_v4("writer", kAlice).publish("home/x", "y");
    reader.expect_publish("home/x", "y");
    if (testing::Test::HasFailure())
        ADD_FAILURE() << tail(broker.output()) << "\n" << tail(broker.errors());
}

// It did not serve.
void expect_reason(Child &broker)
{
    EXPECT_EQ(broker.wait(kLimit_ms), 1) << broker.errors();
    EXPECT_NE(broker.errors().find("tarn-broker: "), std::string::npos) << broker.errors();
    EXPECT_EQ(broker.errors().find("cannot listen"), std::string::npos) << "the port was free";
}

} // namespace

TEST(shortage, a_callback_without_memory_gives_the_other_result)
{
    take_shortages();
    EXPECT_TRUE((CCallback<always_fails, is_seven>::call(7)));
    EXPECT_FALSE((CCallback<always_fails, is_seven>::call(8)));
    EXPECT_FALSE(unless_short([] { throw std::bad_alloc(); }));
    EXPECT_TRUE(unless_short([] {}));
    EXPECT_EQ(take_shortages(), 3u);
    EXPECT_EQ(take_shortages(), 0u);
}

TEST(failing_memory, ends_nothing_but_what_needed_it)
{
    if (kSanitized)
        GTEST_SKIP() << "the sanitizers have an allocator of their own";
    write_files();
    for (const int n : {2, 3, 7, 20, 300}) {
        Child broker = run_with_failing_memory({every(n)}, kOptions);
        ASSERT_TRUE(serves(broker)) << broker.errors();
        run_command("stats"); // answered when the start is over
        warm_up(kAlice);
        ASSERT_TRUE(begin_shortage(broker));
        for (int turn = 0; turn < 8 && !broker.ended(); ++turn) {
            try_to_use("right" + std::to_string(turn),
                       {.will = Will{"home/gone", "x"}, .username = "alice", .password = "right"});
            try_to_use("wrong", {.username = "bob", .password = "wrong"}); // who then has to wait
            try_to_use("", kAlice);
            broker.signal(turn % 2 ? SIGUSR1 : SIGHUP);
            if (turn % 5 == 0)
                run_command("clients");
        }
        ASSERT_TRUE(end_shortage(broker)) << "with one in " << n;
        expect_served(broker);
        EXPECT_TRUE(ends_well(broker)) << "one in " << n;
    }
}

// The start may fail, with a word; once it has said that it serves, nothing ends it.
TEST(failing_memory, at_the_start_leaves_a_reason_or_a_broker)
{
    if (kSanitized)
        GTEST_SKIP() << "the sanitizers have an allocator of their own";
    write_files();
    int served = 0;
    for (int n = 1;; ++n) {
        SCOPED_TRACE("the allocation " + std::to_string(n) + " fails");
        Child broker = run_with_failing_memory({every(1), from(n), "FAIL_TIMES=1"}, kOptions);
        if (!serves(broker)) {
            expect_reason(broker);
            continue;
        }
        if (!has_begun_to_fail(broker))
            break; // there were no more
        ++served;
        expect_served(broker);
    }
    EXPECT_GT(served, 0);
}

// As above, and all that follow fail too; the last time from right behind that word on.
TEST(failing_memory, that_lasts_leaves_a_reason_or_a_broker)
{
    if (kSanitized)
        GTEST_SKIP() << "the sanitizers have an allocator of their own";
    write_files();
    int n = 1;
    for (bool failed_before = true; failed_before; ++n) {
        SCOPED_TRACE("all from the allocation " + std::to_string(n) + " on fail");
        Child broker = run_with_failing_memory({every(1), from(n)}, kOptions);
        if (!serves(broker)) {
            expect_reason(broker);
            continue;
        }
        failed_before = has_begun_to_fail(broker);
        ASSERT_TRUE(begin_shortage(broker));
        try_to_use("early", kAlice);
        broker.signal(SIGHUP);
        ASSERT_TRUE(end_shortage(broker));
        expect_served(broker);
        EXPECT_TRUE(ends_well(broker));
    }
}

TEST(failing_memory, is_told)
{
    if (kSanitized)
        GTEST_SKIP() << "the sanitizers have an allocator of their own";
    Child broker = run_with_failing_memory({every(2)}, {"--events", "events", "--control", "ctl"});
    ASSERT_TRUE(serves(broker)) << broker.errors();
    run_command("stats");
    warm_up({});
    ASSERT_TRUE(begin_shortage(broker));
    for (int i = 0; i < 5; ++i)
        try_to_use("a" + std::to_string(i), {});
    ASSERT_TRUE(end_shortage(broker));
    EXPECT_TRUE(
        wait_until([&] { return broker.errors().find("tarn-broker: there was no memory ") != std::string::npos; },
                   15000 * kSlowdown))
        << broker.errors();
    EXPECT_TRUE(ends_well(broker));
}
