// Each program of examples/, built against an installed library, does what its first lines promise.
#include "support/child.h"
#include "support/peer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace tarn::test;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

namespace {

bool something_listens()
{
    const int         fd      = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = {
        .sin_family = AF_INET, .sin_port = htons(1883), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    const bool listens = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return listens;
}

// A running example with its keyboard. It serves once it is constructed.
class Example {
public:
    explicit Example(const std::string &program)
    {
        mkfifo("keyboard", 0600);
        keyboard_ = open("keyboard", O_RDWR | O_CLOEXEC); // does not wait for the reader
        child_    = Child("example", {"sh", "-c", "exec \"$0\" <keyboard", TARN_EXAMPLES "/" + program});
        EXPECT_TRUE(wait_until([&] { return something_listens() || child_.ended(); })) << child_.errors();
    }
    ~Example() { close(keyboard_); }

    void press_enter() { EXPECT_EQ(write(keyboard_, "\n", 1), 1); }
    // The lines it prints itself, those of the log left out.
    std::vector<std::string> lines() const
    {
        std::istringstream       all(child_.output());
        std::vector<std::string> own;
        for (std::string line; std::getline(all, line);)
            if (line.rfind("[20", 0) != 0)
                own.push_back(line);
        return own;
    }
    // Everything it printed, once it has ended by itself.
    std::vector<std::string> end()
    {
        press_enter();
        EXPECT_EQ(child_.wait(kLimit_ms), 0) << child_.errors();
        return lines();
    }

private:
    int   keyboard_;
    Child child_;
};

// A CONNECT that is answered and followed by the close: level 4 never sees a refusal code.
void expect_refused(std::string_view id, const Connect &options, Where where = Where::here())
{
    Peer peer = Peer::tcp();
    peer.send(connect_packet(4, id, options));
    peer.expect("20 02 | 00 00", where);
    peer.expect_closed(where);
}

Connect with(std::string user, std::string password)
{
    return {.username = std::move(user), .password = std::move(password)};
}

// Subscribing to this is refused.
void expect_no_subscription(Peer &peer, std::string_view filter, Where where = Where::here())
{
    peer.send(subscribe_packet(4, 9, filter, 0));
    peer.expect("90 03 | 00 09 | 80", where);
}

struct smallest_host : testing::TestWithParam<const char *> {};

} // namespace

TEST_P(smallest_host, serves_until_enter_is_pressed)
{
    Example example(GetParam());
    Peer    client = Peer::tcp();
    client.connect_v4("a").subscribe("t");
    Peer::tcp().connect_v5("b").publish("t", "hello");
    client.expect_publish("t", "hello");
    EXPECT_THAT(example.end(), ElementsAre("Serving, press Enter to end"));
    client.expect_closed();
}

INSTANTIATE_TEST_SUITE_P(in, smallest_host, testing::Values("smallest_host_c", "smallest_host_cpp"),
                         [](const auto &program) { return std::string(program.param); });

TEST(standard_profile, serves_an_id_that_the_native_one_does_not)
{
    Example example("standard_profile_c");
    Peer    client = Peer::tcp();
    client.send(connect_packet(4, "0f8fad5b-d9cb-469f-a165-70867728950e"));
    client.expect("20 02 | 00 00");
    client.ping();
    EXPECT_THAT(example.end(), ElementsAre("Serving, press Enter to end"));
}

TEST(authentication, lets_its_users_in_and_nobody_else)
{
    Example example("authentication_c");
    Peer    alice = Peer::tcp(), bob = Peer::tcp();
    alice.connect_v4("a", with("alice", "wonderland")).subscribe("#");
    bob.connect_v5("b", with("bob", "builder"));
    expect_refused("c", with("alice", "builder"));
    expect_refused("c", {.username = "alice"});
    expect_refused("c", with("carol", "wonderland"));
    expect_refused("c", {});

    Peer stranger = Peer::tcp(); // who says no CONNECT at all
    stranger.publish("t", "unasked");
    expect_no_subscription(stranger, "#");
    bob.publish("t", "hello");
    alice.expect_publish("t", "hello");
    EXPECT_THAT(example.end(), ElementsAre("Serving alice and bob, press Enter to end"));
}

TEST(access_control, each_user_has_a_branch)
{
    Example example("access_control_cpp");
    Peer    alice = Peer::tcp(), bob = Peer::tcp();
    alice.connect_v4("alice", with("alice", "wonderland")).subscribe("alice/#").subscribe("news/#");
    bob.connect_v4("bob.phone", with("bob", "builder")).subscribe("bob/+", 1);
    for (const char *filter : {"#", "alice/#", "+/x", "bob", "bobby/x", "$share/g/alice/#", "bob/\xFF"})
        expect_no_subscription(bob, filter);

    bob.publish("alice/x", "not mine");
    bob.publish("news/x", "not mine either");
    bob.publish("bob", "no branch");
    bob.ping();
    alice.ping(); // nothing came
    alice.publish("bob/x", "not mine");
    alice.publish("alice/x", "mine");
    Peer phone = Peer::tcp(); // nobody gets what it published itself
    phone.connect_v4("bob", with("bob", "builder")).publish("bob/y", "mine");
    bob.expect_publish("bob/y", "mine");
    EXPECT_THAT(example.end(), ElementsAre("Serving alice and bob, press Enter to end"));
}

TEST(access_control, an_id_belongs_to_one_user)
{
    Example example("access_control_cpp");
    Peer    alice = Peer::tcp();
    alice.connect_v4("alice.phone", with("alice", "wonderland"));
    for (const char *id : {"alice.phone", "alice", "alice.", "", ".", "bobby", "al"})
        expect_refused(id, with("bob", "builder"));
    expect_refused("bob", with("bob", "wonderland"));
    expect_refused("", {});
    alice.ping();
    Peer again = Peer::tcp(); // of the same user: the broker serves both
    again.connect_v4("alice.phone", with("alice", "wonderland"));
    example.end();
}

TEST(access_control, refuses_what_the_broker_lets_through)
{
    Example example("access_control_cpp");
    Peer    alice = Peer::tcp(), phone = Peer::tcp(), stranger = Peer::tcp();
    alice.connect_v4("alice", with("alice", "wonderland")).subscribe("alice/#");
    stranger.publish("alice/x", "before any CONNECT");
    expect_no_subscription(stranger, "news/#");
    expect_no_subscription(stranger, "/x");
    phone.connect_v4("alice.phone", with("alice", "wonderland"));
    for (const char *topic :
         {"alice/+", "alice/#", "alice/a+b", "alice/\xC3", "alice/\x80", "alice/\xC0\xAF", "alice/\xE0\x80\xAF",
          "alice/\xED\xA0\x80", "alice/\xED\xBF\xBF", "alice/\xF0\x80\x80\xAF", "alice/\xF4\x90\x80\x80",
          "alice/\xF8\xA0\x80\x80", "alice/\xBF\xBF", "alice/\xE2\x82", "alice/\xC3x", "alice/\xFF"})
        phone.publish(topic, "no");
    for (const char *topic : {"alice/", "alice/\xC3\xA9", "alice/\xE2\x82\xAC", "alice/\xF0\x9F\x98\x80",
                              "alice/\xED\x9F\xBF", "alice/\xEE\x80\x80", "alice/\xF4\x8F\xBF\xBF"}) {
        phone.publish(topic, "yes");
        alice.expect_publish(topic, "yes");
    }
    example.end();
}

TEST(access_control, tells_of_wills)
{
    Example example("access_control_cpp");
    Peer    alice   = Peer::tcp();
    Connect options = with("alice", "wonderland");
    options.will    = Will{"bob/x", "unasked"};
    Peer watcher    = Peer::tcp();
    watcher.connect_v4("bob", with("bob", "builder")).subscribe("bob/#");
    alice.connect_v4("alice", options);
    alice.hang_up();
    watcher.expect_publish("bob/x", "unasked");
    EXPECT_THAT(example.end(), UnorderedElementsAre("Serving alice and bob, press Enter to end",
                                                    R"(will: {"clientId":"alice","topic":"bob/x","qos":0})"));
}

TEST(event_queue, prints_what_clients_do_in_order)
{
    Example example("event_queue_cpp");
    Peer    client = Peer::tcp();
    client.connect_v4("a", {.will = Will{"w", "gone"}}).subscribe("t/#", 1);
    client.publish("t/1", "hello", {.qos = 1});
    client.unsubscribe("t/#").disconnect();
    Peer dying = Peer::tcp();
    dying.connect_v4("b", {.will = Will{"w", "gone", 2}}).ping();
    std::vector<std::string> lines = example.end(); // which closes b
    // Clients are served, and told of, a moment before the host says so.
    EXPECT_EQ(std::erase(lines, "Serving, press Enter to end"), 1u);
    EXPECT_THAT(lines, ElementsAre(R"(connected {"clientId":"a","topic":"","qos":0})",
                                   R"(subscribed {"clientId":"a","topic":"t/#","qos":1})",
                                   R"(published {"clientId":"a","topic":"t/1","qos":1})",
                                   R"(unsubscribed {"clientId":"a","topic":"t/#","qos":0})",
                                   R"(disconnected {"clientId":"a","topic":"","qos":0})",
                                   R"(connected {"clientId":"b","topic":"","qos":0})",
                                   R"(will {"clientId":"b","topic":"w","qos":2})", "0 events dropped"));
}

TEST(sensor, publishes_values_and_keeps_the_last)
{
    Example       example("sensor_c");
    const Pattern value = Pattern(wire("33 1B | 00 13") + text("sensors/temperature")).append(".. .. | '2' .. 2E ..");
    Peer          first = Peer::tcp(), later = Peer::tcp();
    first.connect_v4("first").send(subscribe_packet(4, 1, "sensors/#", 0));
    EXPECT_TRUE(wait_until([&] { return first.read_packet().size() > 5; })); // the first value may be out or not yet
    later.connect_v4("later").send(subscribe_packet(4, 1, "sensors/#", 1));
    later.acknowledge(0x40, later.expect(value).id()); // what was kept, ahead of the SUBACK
    later.expect("90 03 | 00 01 | 01");
    later.acknowledge(0x40, later.expect(value).id());
    later.acknowledge(0x40, later.expect(value).id());
    EXPECT_THAT(example.end(), ElementsAre("Serving sensors/temperature, press Enter to end"));
}

TEST(statistics, tell_of_every_change)
{
    Example    example("statistics_c");
    const auto says = [&](const std::string &line) {
        return wait_until([&] { return !example.lines().empty() && example.lines().back() == line; });
    };
    EXPECT_TRUE(says("0 online (), 0 messages"));
    Peer a = Peer::tcp(), b = Peer::tcp();
    a.connect_v4("a");
    EXPECT_TRUE(says("1 online (a), 0 messages"));
    a.publish("t", "hello");
    EXPECT_TRUE(says("1 online (a), 1 messages"));
    b.connect_v5("b");
    EXPECT_TRUE(says("2 online (a,b), 1 messages"));
    a.disconnect();
    EXPECT_TRUE(says("1 online (b), 1 messages"));
    example.end();
}

TEST(several_lives, each_begins_with_what_was_kept)
{
    Example    example("several_lives_cpp");
    const auto has_printed = [&](size_t lines) { return wait_until([&] { return example.lines().size() == lines; }); };
    EXPECT_TRUE(has_printed(1));
    Peer client = Peer::tcp();
    client.connect_v4("a").publish("kept", "hello", {.retain = true});
    client.ping(); // it was taken
    for (int life = 2; life <= 3; ++life) {
        example.press_enter();
        client.expect_closed();
        client = Peer::tcp(); // perhaps between two lives: then it waits
        client.connect_v4("a").send(subscribe_packet(4, 1, "#", 0));
        client.expect("31 0B | 00 04 'kept' | 'hello' | 90 03 | 00 01 | 00");
    }
    EXPECT_THAT(example.end(), ElementsAre("Life 1, press Enter to end it; retained:", //
                                           "Life 2, press Enter to end it; retained:", "kept",
                                           "Life 3, press Enter to end it; retained:", "kept"));
}
