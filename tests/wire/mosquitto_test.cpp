// The stock command line clients, at level 4 and every QoS, both ways.
#include "support/broker_process.h"
#include "support/log_lines/client.h"
#include "support/peer.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sstream>

using namespace tarn::test;

namespace {

void skip_without_programs()
{
    if (Child("which", {"sh", "-c", "command -v mosquitto_pub mosquitto_sub stdbuf"}).wait(kLimit_ms) != 0)
        GTEST_SKIP() << "no mosquitto_pub, mosquitto_sub and stdbuf here";
}

struct mosquitto : testing::TestWithParam<int> {
    void          SetUp() override { skip_without_programs(); }
    std::string   qos    = std::to_string(GetParam());
    BrokerProcess broker = BrokerProcess::start();
};

Child unready_subscriber(const std::string &id, const std::vector<std::string> &options)
{
    std::vector<std::string> command = {"stdbuf", "-oL", "mosquitto_sub", "-h", "127.0.0.1",
                                        "-d",     "-V",  "mqttv311",      "-i", id};
    command.insert(command.end(), options.begin(), options.end());
    return Child(id, command);
}

// Subscribed when this returns.
Child subscriber(const std::string &id, const std::vector<std::string> &options)
{
    Child child = unready_subscriber(id, options);
    EXPECT_TRUE(prints(child, "Subscribed")) << child.output();
    return child;
}

void publish(const std::vector<std::string> &options)
{
    std::vector<std::string> command = {"mosquitto_pub",          "-h", "127.0.0.1", "-V", "mqttv311", "-i",
                                        "12345678901234567890123"};
    command.insert(command.end(), options.begin(), options.end());
    Child child("pub", command);
    EXPECT_EQ(child.wait(kLimit_ms), 0) << child.errors();
}

bool printed(const Child &child, const std::string &line)
{
    return ("\n" + child.output()).find("\n" + line + "\n") != std::string::npos;
}

} // namespace

TEST_P(mosquitto, from_one_to_the_other)
{
    Child sub = subscriber("sub", {"-t", "t/#", "-q", qos, "-v", "-C", "2"});
    publish({"-t", "t/1", "-m", "hello", "-q", qos});
    publish({"-t", "t/2", "-m", "world", "-q", qos});
    EXPECT_EQ(sub.wait(kLimit_ms), 0);
    EXPECT_TRUE(printed(sub, "t/1 hello") && printed(sub, "t/2 world")) << sub.output();
}

TEST_P(mosquitto, many_messages_in_order)
{
    std::string lines;
    Child       sub = subscriber("sub", {"-t", "t", "-q", qos, "-C", "60"});
    for (int i = 100; i < 160; ++i)
        lines += "message " + std::to_string(i) + "\\n";
    Child pub("pub",
              {"sh", "-c", "printf '" + lines + "' | mosquitto_pub -h 127.0.0.1 -V mqttv311 -i pub -t t -l -q " + qos});
    EXPECT_EQ(pub.wait(kLimit_ms), 0) << pub.errors();
    EXPECT_EQ(sub.wait(kLimit_ms), 0) << sub.output();
    for (int i = 100; i < 160; ++i)
        EXPECT_TRUE(printed(sub, "message " + std::to_string(i))) << i;
}

TEST_P(mosquitto, retained_and_deleted)
{
    publish({"-t", "r", "-m", "kept", "-q", qos, "-r"});
    Child sub = unready_subscriber("sub", {"-t", "r", "-q", qos, "-C", "1"}); // the message comes before the SUBACK
    EXPECT_EQ(sub.wait(kLimit_ms), 0);
    EXPECT_TRUE(printed(sub, "kept")) << sub.output();
    publish({"-t", "r", "-n", "-q", qos, "-r"});
    Peer late = Peer::tcp();
    late.connect_v4("late").subscribe("r");
    late.ping();
}

TEST_P(mosquitto, with_a_plain_peer)
{
    Peer peer = Peer::tcp();
    peer.connect_v4("peer").subscribe("up", static_cast<unsigned>(GetParam()));
    publish({"-t", "up", "-m", "hello", "-q", qos});
    peer.expect_publish("up", "hello", {.qos = static_cast<unsigned>(GetParam())});
    Child sub = subscriber("sub", {"-t", "down", "-q", qos, "-C", "1"});
    peer.publish("down", "wow", {.qos = static_cast<unsigned>(GetParam())});
    EXPECT_EQ(sub.wait(kLimit_ms), 0);
    EXPECT_TRUE(printed(sub, "wow")) << sub.output();
}

struct mosquitto_session : mosquitto {};

TEST_P(mosquitto_session, that_is_kept)
{
    subscriber("keeper", {"-c", "-t", "t", "-q", qos, "-E"}).wait(kLimit_ms);
    publish({"-t", "t", "-m", "hello", "-q", qos});
    Child sub = subscriber("keeper", {"-c", "-t", "t", "-q", qos, "-C", "1"});
    EXPECT_EQ(sub.wait(kLimit_ms), 0) << sub.output();
    EXPECT_TRUE(printed(sub, "hello")) << sub.output();
}

// They stay until all have their share: one that left early would change whose turn it is.
TEST_P(mosquitto, three_in_a_shared_group_take_turns)
{
    std::vector<Child> members;
    for (const char *id : {"first", "second", "third"})
        members.push_back(subscriber(id, {"-t", "$share/g/t", "-q", qos}));
    Child pub("pub", {"sh", "-c", "seq 100 108 | mosquitto_pub -h 127.0.0.1 -V mqttv311 -i pub -t t -l -q " + qos});
    EXPECT_EQ(pub.wait(kLimit_ms), 0) << pub.errors();
    for (int member = 0; member < 3; ++member) {
        const Child &sub = members[static_cast<size_t>(member)];
        for (int message = 100; message < 109; ++message) {
            const std::string text = std::to_string(message);
            if (message % 3 == (100 + member) % 3)
                EXPECT_TRUE(wait_until([&] { return printed(sub, text); })) << text << " is not among\n"
                                                                            << sub.output();
            else
                EXPECT_FALSE(printed(sub, text)) << text << " is among\n" << sub.output();
        }
    }
}

TEST_P(mosquitto, several_retained_messages_in_order_at_their_own_qos)
{
    publish({"-t", "r/1", "-m", "one", "-q", "2", "-r"});
    publish({"-t", "r/2", "-m", "two", "-q", "2", "-r"});
    publish({"-t", "r/3", "-m", "three", "-q", "2", "-r"});
    publish({"-t", "r/1", "-m", "changed", "-q", "2", "-r"});
    publish({"-t", "r/2", "-n", "-q", "2", "-r"});
    publish({"-t", "r/4", "-m", "four", "-q", "1", "-r"});
    publish({"-t", "r/5", "-m", "five", "-q", "0", "-r"});
    Child sub = unready_subscriber("sub", {"-t", "r/#", "-q", qos, "-C", "4", "-F", "%t %p qos %q retain %r"});
    EXPECT_EQ(sub.wait(kLimit_ms), 0) << sub.output();
    std::string       lines;
    std::stringstream output(sub.output());
    for (std::string line; std::getline(output, line);)
        if (line.rfind("r/", 0) == 0)
            lines += line + "\n";
    EXPECT_EQ(lines, "r/4 four qos 1 retain 1\nr/5 five qos 0 retain 1\n"       // shown as they come
                     "r/1 changed qos 2 retain 1\nr/3 three qos 2 retain 1\n"); // shown on PUBREL, behind the SUBACK
}

namespace {

struct mosquitto_level_5 : testing::Test {
    void          SetUp() override { skip_without_programs(); }
    BrokerProcess broker = BrokerProcess::start();
};

} // namespace

// The Receive Maximum of 0 in the CONNACK is no valid one.
TEST_F(mosquitto_level_5, gives_up_at_the_connack)
{
    for (const char *size : {"256", "4096"}) {
        Child pub("pub", {"mosquitto_pub", "-h", "127.0.0.1", "-V", "5", "-i", "pub", "-D", "connect",
                          "maximum-packet-size", size, "-t", "t", "-m", "hello"});
        EXPECT_NE(pub.wait(kLimit_ms), 0) << pub.output();
        EXPECT_TRUE(says(pub, "rotocol error")) << pub.errors();
    }
}

namespace {

struct mosquitto_will : testing::Test {
    void          SetUp() override { skip_without_programs(); }
    BrokerProcess broker = BrokerProcess::start({.max_clients = 100}); // one scan sees them all

    static Child mortal(const std::string &id, const std::string &will, const std::vector<std::string> &more = {})
    {
        std::vector<std::string> options = {"-t", "x", "--will-topic", "w", "--will-payload", will, "--will-qos", "1"};
        options.insert(options.end(), more.begin(), more.end());
        return subscriber(id, options);
    }
};
struct slow_mosquitto : mosquitto_will {};

} // namespace

// The first byte says how many of the next a level 5 subscriber takes for properties.
TEST_F(mosquitto_will, of_a_killed_client_reaches_plain_shared_and_level_5_subscribers)
{
    Child plain     = subscriber("plain", {"-t", "w", "-q", "1", "-v", "-C", "2"});
    Child members[] = {subscriber("first", {"-t", "$share/g/w", "-q", "1", "-C", "1"}),
                       subscriber("second", {"-t", "$share/g/w", "-q", "1", "-C", "1"})};
    Peer  five      = Peer::tcp();
    five.connect_v5("five").subscribe("w");

    mortal("mortal", "\x01.gone").signal(SIGKILL);
    five.expect("30 08 | 00 01 'w' | 00 | 'gone'");
    EXPECT_TRUE(wait_until([&] { return members[0].ended() || members[1].ended(); }));
    five.ping();
    EXPECT_NE(members[0].ended(), members[1].ended()) << "one of the group";

    mortal("mortal", "\x01.again").signal(SIGKILL);
    five.expect("30 09 | 00 01 'w' | 00 | 'again'");
    for (Child *child : {&plain, &members[0], &members[1]})
        EXPECT_EQ(child->wait(kLimit_ms), 0) << child->output();
    EXPECT_TRUE(printed(plain, "w \x01.gone") && printed(plain, "w \x01.again")) << plain.output();
    const bool in_turn = printed(members[0], "\x01.gone") && printed(members[1], "\x01.again");
    EXPECT_TRUE(in_turn || (printed(members[1], "\x01.gone") && printed(members[0], "\x01.again")));
}

TEST_F(mosquitto_will, of_a_client_that_says_goodbye_reaches_nobody)
{
    Peer watch = Peer::tcp();
    watch.connect_v4("watch").subscribe("w");
    Child polite = mortal("polite", "gone");
    polite.signal(SIGTERM); // it disconnects
    EXPECT_EQ(polite.wait(kLimit_ms), 0) << polite.errors();
    watch.expect_nothing();
    watch.ping();
}

// Five seconds are the least it takes for a keep-alive. Silence of half as much again is found by the next scan, which
// comes every 10 to 11 s.
TEST_F(slow_mosquitto, a_stopped_client_is_closed_in_time_and_its_will_published)
{
    Peer watch = Peer::tcp();
    watch.connect_v4("watch").subscribe("w");
    Child        awake = subscriber("awake", {"-t", "news", "-k", "5", "-C", "1"});
    Child        deaf  = mortal("deaf", "silent", {"-k", "5"});
    const double start = now_s();
    deaf.signal(SIGSTOP);
    EXPECT_EQ(watch.read_packet(30000), wire("30 09 | 00 01 'w' | 'silent'"));
    EXPECT_GT(now_s() - start, 7.4);
    EXPECT_LT(now_s() - start, 7.5 + 11 + kSlowdown);
    EXPECT_TRUE(wait_until(
        [&] { return broker.log().find(logged::timeout_closed("deaf").text) != std::string::npos; })); // after its will

    EXPECT_NE(awake.output().find("PINGRESP"), std::string::npos) << "which is what kept it";
    watch.publish("news", "hello");
    EXPECT_EQ(awake.wait(kLimit_ms), 0) << awake.output();
    EXPECT_TRUE(printed(awake, "hello"));

    deaf.signal(SIGCONT); // finds its connection closed and comes back
    EXPECT_TRUE(wait_until([&] { return times_in(deaf.output(), "Subscribed") == 2; })) << deaf.output();
}

INSTANTIATE_TEST_SUITE_P(qos, mosquitto, testing::Values(0, 1, 2));
// At QoS 0 nothing is kept.
INSTANTIATE_TEST_SUITE_P(qos, mosquitto_session, testing::Values(1, 2));
