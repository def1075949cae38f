// --events and SIGUSR1 from outside, and the end with everything attached and under load.
#include "program.h"
#include "support/peer.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <memory>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/socket.h>
#include <fcntl.h>
#include <unistd.h>

using namespace tarn::test;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

size_t line_count(const std::string &text)
{
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

// Behind the time, which differs.
std::vector<std::string> events_in(const std::string &text)
{
    std::vector<std::string> events;
    std::istringstream       lines(text);
    for (std::string line; std::getline(lines, line);)
        events.push_back(line.substr(std::min(line.find("\"event\""), line.size())));
    return events;
}

// Every line is one JSON object with the five keys, by a reader that is not ours.
void expect_valid(const std::string &file)
{
    Child python("python", {"python3", "-c", R"(
import json, sys
text = open(sys.argv[1], 'rb').read().decode('utf-8', 'strict')
assert text.endswith('\n'), 'the last line is whole'
for line in text[:-1].split('\n'):
    event = json.loads(line)
    if event['event'] != 'lost':
        assert {'time', 'event', 'clientId', 'topic', 'qos'} <= event.keys(), line
)",
                            file});
    EXPECT_EQ(python.wait(5 * kLimit_ms), 0) << tail(python.errors());
}

} // namespace

TEST(events, tell_what_happens_in_order)
{
    Child broker = run({"--events", "events"});
    ASSERT_TRUE(serves(broker)) << broker.errors();
    Peer a = Peer::tcp();
    a.connect_v4("a").subscribe("home/#", 1);
    a.publish("home/x", "hello");
    a.unsubscribe("home/#");
    a.disconnect();
    Connect with_will;
    with_will.will = Will{"gone", "b"};
    Peer b         = Peer::tcp();
    b.connect_v4("b", with_will).reset();
    EXPECT_TRUE(wait_until([] { return line_count(file_text("events")) >= 7; }));
    EXPECT_THAT(events_in(file_text("events")),
                testing::ElementsAre(R"("event":"connected","clientId":"a","topic":"","qos":0})",
                                     R"("event":"subscribe","clientId":"a","topic":"home/#","qos":1})",
                                     R"("event":"publish","clientId":"a","topic":"home/x","qos":0})",
                                     R"("event":"unsubscribe","clientId":"a","topic":"home/#","qos":0})",
                                     R"("event":"disconnected","clientId":"a","topic":"","qos":0})",
                                     R"("event":"connected","clientId":"b","topic":"","qos":0})",
                                     R"("event":"will","clientId":"b","topic":"gone","qos":0})"));
    EXPECT_THAT(file_text("events"), MatchesRegex("\\{\"time\":\"20..-..-..T..:..:..\\....Z\",(.|\n)*"));
    expect_valid("events");
}

TEST(events, go_to_standard_output_when_asked)
{
    Child broker = run({"--events", "-"});
    ASSERT_TRUE(serves(broker));
    Peer::tcp().connect_v4("a");
    EXPECT_TRUE(prints(broker, "\"event\":\"connected\",\"clientId\":\"a\""));
}

// Whatever clients put into their ids and topics, a line is a line and JSON.
TEST(events, hostile_texts_stay_texts)
{
    Child broker = run({"--events", "events"});
    ASSERT_TRUE(serves(broker));
    const std::string texts[] = {
        "\"},{\"x\":1",
        "a\",\"topic\":\"b",
        "\\",
        "\\\"",
        "\n{\"event\":\"connected\"}\n",
        "\x01\x1f\x7f\x1b[2J",
        "\xC3\x28",
        "\xFF\xFE\x80",
        "\xED\xA0\x80",
        "\xF0\x9F\x98",
        "\xE2\x80\xA8",
        "%s%n%d",
    };
    size_t expected = 0;
    for (const std::string &text : texts) {
        Peer peer = Peer::tcp();
        peer.connect_v5(text);
        for (const std::string &topic : {text, text + std::string(200, 't'), std::string(200, 't') + text})
            peer.publish(topic, "x");
        peer.ping();
        expected += 4;
    }
    EXPECT_TRUE(wait_until([&] { return line_count(file_text("events")) >= expected; })) << file_text("events");
    EXPECT_EQ(line_count(file_text("events")), expected);
    expect_valid("events");
}

// Nobody reads the pipe: clients are served as ever, and in the end it is told how many events were lost.
TEST(events, a_reader_that_sleeps_holds_up_nobody)
{
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    const int reader = open("fifo", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    Child     broker = run({"--events", "fifo"});
    ASSERT_TRUE(serves(broker)) << broker.errors();
    Peer a = Peer::tcp();
    a.connect_v4("a");
    Bytes burst;
    for (int i = 0; i < 500; ++i) {
        const Bytes one = publish_packet(4, "t", "x");
        burst.insert(burst.end(), one.begin(), one.end());
    }
    for (int i = 0; i < 40; ++i) {
        a.send(burst);
        a.ping();
    }
    std::string got;
    broker.signal(SIGTERM);
    EXPECT_TRUE(says(broker, "ending"));
    char bytes[65536];
    for (bool ended = false; !ended;) {
        ended = broker.ended();
        for (ssize_t count; (count = read(reader, bytes, sizeof bytes)) > 0;)
            got.append(bytes, static_cast<size_t>(count));
    }
    EXPECT_EQ(broker.wait(kLimit_ms), 0);
    close(reader);
    constexpr std::string_view kLost = "\"event\":\"lost\",\"count\":";
    size_t                     told = 0, lost = 0; // more than once if a burst was faster than the writer before
    for (size_t at = 0; (at = got.find(kLost, at)) != got.npos; ++told) {
        at += kLost.size();
        lost += std::stoul(got.substr(at));
    }
    EXPECT_GT(told, 0u) << tail(got, 3);
    EXPECT_EQ(line_count(got) - told + lost, 20'001u);
}

TEST(events, faults_are_told)
{
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    const std::pair<std::string, std::string> cases[] = {
        {"fifo", "nobody reads from it"}, {"nowhere/x", "No such file or directory"}, {".", "Is a directory"}};
    for (const auto &[file, fault] : cases) {
        EXPECT_EQ(mistake_of(run({"--events", file})), "tarn-broker: --events " + file + ": " + fault + "\n");
    }
}

TEST(statistics, are_printed_on_sigusr1)
{
    Child broker = run();
    ASSERT_TRUE(serves(broker));
    Peer a = Peer::tcp();
    a.connect_v4("a").publish("t", "x");
    a.ping();
    for (size_t times = 1; times <= 2; ++times) {
        broker.signal(SIGUSR1);
        EXPECT_TRUE(wait_until([&] {
            return line_count(broker.output()) >= times && broker.output().find("{\"online\"") != std::string::npos;
        }));
    }
    const std::string output = broker.output();
    const std::string line   = output.substr(output.find("{\"online\""));
    EXPECT_THAT(line.substr(0, line.find('\n')), MatchesRegex("\\{\"online\":1,\"max_online\":1,.*\"qos0\":1,.*\\}"));
}

// A pipe that is full and not read holds up neither the signals nor the end.
TEST(statistics, wait_for_no_reader)
{
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    const int reader      = open("fifo", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int filler      = open("fifo", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    char      bytes[4096] = "";
    Child     broker("broker", {"sh", "-c", std::string("exec \"$0\" >fifo"), TARN_BROKER_PROGRAM});
    ASSERT_TRUE(serves(broker));
    while (write(filler, bytes, sizeof bytes) > 0) {}
    broker.signal(SIGUSR1);
    Peer::tcp().connect_v4("a").ping();
    broker.signal(SIGTERM);
    EXPECT_EQ(broker.wait(kLimit_ms), 0);
    close(reader);
    close(filler);
}

TEST(attached, everything_ends_under_load)
{
    Child broker = run({"--events", "events", "--control", "ctl"});
    ASSERT_TRUE(serves(broker));
    Peer receiver = Peer::tcp();
    receiver.connect_v4("receiver").subscribe("#");
    Peer sender = Peer::tcp();
    sender.connect_v4("sender");
    Child             console("console", {"sh", "-c", "yes clients | \"$0\" ctl ctl", TARN_BROKER_PROGRAM});
    std::atomic<bool> enough = false;
    std::thread       load([&] {
        const Bytes one = publish_packet(4, "load", "x");
        while (!enough && send(sender.fd(), one.data(), one.size(), MSG_NOSIGNAL) > 0) {
            char bytes[4096];
            while (recv(receiver.fd(), bytes, sizeof bytes, MSG_DONTWAIT) > 0) {}
        }
    });
    EXPECT_TRUE(wait_until([&] { return file_text("events").size() > 50'000 && !console.output().empty(); }));
    broker.signal(SIGUSR1);
    EXPECT_TRUE(ends_well(broker));
    EXPECT_EQ(console.wait(kLimit_ms), 1);
    enough = true;
    load.join();
    EXPECT_FALSE(std::ifstream("ctl").good());
    expect_valid("events");
}
