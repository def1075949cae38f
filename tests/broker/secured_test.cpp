// tarn-broker with users and rules, asked by stock clients and, where those are too well-behaved, by plain peers.
#include "program.h"
#include "support/peer.h"
#include "user_file.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <sstream>
#include <thread>
#include <unistd.h>

using namespace tarn::test;

namespace {

Connect as(const char *user, const char *password = "right")
{
    return {.username = user, .password = password};
}

struct secured : testing::Test {
    void SetUp() override
    {
        write_text("users", user_lines({"alice", "bob"}));
        write_text("rules", "read news/#\n"
                            "readwrite own/%c/%u\n"
                            "user alice\n"
                            "readwrite home/#\n"
                            "write news/local\n"
                            "client sensor-*\n"
                            "write sensors/%c\n");
    }
    Child serve(std::vector<std::string> options = {"--user-file", "users", "--acl-file", "rules"})
    {
        Child broker = run(std::move(options));
        EXPECT_TRUE(serves(broker)) << broker.errors();
        return broker;
    }
    static void reload(Child &broker)
    {
        broker.signal(SIGHUP);
        ASSERT_TRUE(says(broker, "tarn-broker: users and rules were read again\n")) << broker.errors();
    }
    // The broker closes without a CONNACK that would say yes: at level 5 it says why.
    static void expect_refused(const char *id, const Connect &options)
    {
        Peer peer = Peer::tcp();
        peer.send(connect_packet(5, id, options));
        const Bytes answer = peer.read_packet();
        ASSERT_GE(answer.size(), 4u);
        EXPECT_EQ(answer[0], 0x20);
        EXPECT_EQ(answer[3], 0x86);
    }
    // A filter, and the SUBACK's code for it.
    static void expect_suback(Peer &peer, const char *filter, const char *code)
    {
        peer.send(subscribe_packet(4, 9, filter, 0));
        peer.expect((std::string("90 03 00 09 ") + code).c_str());
    }
};

struct with_mosquitto : secured {
    static constexpr int kConnectionLost = 7; // exit status

    void SetUp() override
    {
        secured::SetUp();
        if (Child("which", {"sh", "-c", "command -v mosquitto_pub mosquitto_sub stdbuf"}).wait(kLimit_ms) != 0)
            GTEST_SKIP() << "no mosquitto_pub, mosquitto_sub and stdbuf here";
    }
    // The name is that of its output only.
    static Child client(const std::string &name, std::vector<std::string> words)
    {
        std::vector<std::string> command = {"stdbuf", "-oL", words[0], "-h", "127.0.0.1", "-d"};
        command.insert(command.end(), words.begin() + 1, words.end());
        return Child(name, command);
    }
    static Child subscriber(const char *user, const char *filter)
    {
        Child child = client(std::string("sub_") + user, {"mosquitto_sub", "-V", "mqttv311", "-u", user, "-P", "right",
                                                          "-i", std::string("sub_") + user, "-t", filter, "-v"});
        EXPECT_TRUE(prints(child, "Subscribed (mid: 1): ")) << child.output();
        return child;
    }
    static int publish(const char *user, const char *password, const char *topic, const char *text,
                       const char *qos = "1")
    {
        return client("pub", {"mosquitto_pub", "-V", "mqttv311", "-u", user, "-P", password, "-t", topic, "-m", text,
                              "-q", qos})
            .wait(kLimit_ms);
    }
};

} // namespace

// ---- users

TEST_F(with_mosquitto, users_with_their_password_get_in)
{
    Child broker = serve({"--user-file", "users"});
    Child sub    = subscriber("alice", "#");
    EXPECT_EQ(publish("bob", "right", "t", "from bob"), 0);
    EXPECT_EQ(publish("bob", "wrong", "t", "guessed"), kConnectionLost);
    EXPECT_EQ(publish("carol", "right", "t", "unknown"), kConnectionLost);
    EXPECT_EQ(
        client("pub", {"mosquitto_pub", "-V", "mqttv311", "-t", "t", "-m", "anonymous", "-q", "1"}).wait(kLimit_ms),
        kConnectionLost);
    EXPECT_EQ(publish("alice", "right", "t", "from alice"), 0);
    EXPECT_TRUE(prints(sub, "t from bob\n"));
    EXPECT_TRUE(prints(sub, "t from alice\n"));
    for (const char *text : {"guessed", "unknown", "anonymous"})
        EXPECT_EQ(sub.output().find(text), std::string::npos) << text;
}

// The library tells them nothing but the end of the connection.
TEST_F(secured, a_refused_3_1_1_client_is_closed)
{
    Child broker = serve();
    for (const Connect &options : {as("alice", "wrong"), as("carol"), Connect{}}) {
        Peer peer = Peer::tcp();
        peer.send(connect_packet(4, "x", options));
        peer.expect("20 02 00 00");
        peer.expect_closed();
    }
    Peer::tcp().connect_v4("x", as("alice")).ping();
}

TEST_F(with_mosquitto, users_made_by_passwd)
{
    Child passwd("passwd", {"sh", "-c", "echo a secret | \"$0\" passwd new_users 'dora d'", TARN_BROKER_PROGRAM});
    ASSERT_EQ(passwd.wait(kLimit_ms), 0);
    Child broker = serve({"--user-file", "new_users"});
    EXPECT_EQ(publish("dora d", "a secret", "t", "x"), 0);
    EXPECT_EQ(publish("dora d", "a secre", "t", "x"), kConnectionLost);
}

// ---- rules

TEST_F(with_mosquitto, rules_say_who_subscribes_to_what)
{
    Child broker = serve();
    struct Row {
        const char *user, *filter, *code;
    };
    for (const Row &row : {Row{"alice", "home/#", "0"}, Row{"alice", "news/+", "0"}, Row{"alice", "#", "128"},
                           Row{"bob", "home/lamp", "128"}, Row{"bob", "news/#", "0"}, Row{"bob", "own/c/bob", "0"},
                           Row{"bob", "own/c/alice", "128"}, Row{"bob", "own/d/bob", "128"},
                           Row{"alice", "$share/g/home/#", "0"}, Row{"bob", "$share/g/home/#", "128"}}) {
        Child sub = client("sub", {"mosquitto_sub", "-V", "mqttv311", "-u", row.user, "-P", "right", "-i",
                                   std::string(row.user) == "alice" ? "a" : "c", "-t", row.filter});
        EXPECT_TRUE(prints(sub, std::string("Subscribed (mid: 1): ") + row.code + "\n"))
            << row.user << " " << row.filter << "\n"
            << sub.output();
    }
}

TEST_F(with_mosquitto, rules_say_who_publishes_to_what)
{
    Child broker = serve();
    Child home   = subscriber("alice", "home/#");
    Child news   = subscriber("bob", "news/#");
    EXPECT_EQ(publish("bob", "right", "home/lamp", "by bob", "0"), 0);
    EXPECT_EQ(publish("alice", "right", "news/world", "by alice", "0"), 0);
    EXPECT_EQ(publish("alice", "right", "home/lamp", "on"), 0);
    EXPECT_EQ(publish("alice", "right", "news/local", "lamp is on"), 0);
    EXPECT_TRUE(prints(home, "home/lamp on\n"));
    EXPECT_TRUE(prints(news, "news/local lamp is on\n"));
    EXPECT_EQ(home.output().find("by bob"), std::string::npos);
    EXPECT_EQ(news.output().find("by alice"), std::string::npos);
}

TEST_F(secured, rules_for_client_ids)
{
    write_text("all", "read #\nclient sensor-*\nwrite sensors/%c\n");
    Child broker = serve({"--acl-file", "all"});
    Peer  reader = Peer::tcp(), sensor = Peer::tcp(), other = Peer::tcp();
    reader.connect_v4("reader").subscribe("#");
    sensor.connect_v4("sensor-1");
    other.connect_v4("other");
    other.publish("sensors/other", "no");
    other.publish("sensors/sensor-1", "no");
    other.ping();
    sensor.publish("sensors/sensor-2", "no");
    sensor.publish("sensors/sensor-1", "21");
    reader.expect_publish("sensors/sensor-1", "21");
    reader.expect_nothing();
}

TEST_F(secured, before_a_connect_nothing_is_allowed)
{
    write_text("all", "readwrite #\n");
    for (const std::vector<std::string> &options :
         {std::vector<std::string>{"--user-file", "users"}, {"--acl-file", "all"}}) {
        Child broker = serve(options);
        Peer  reader = Peer::tcp(), early = Peer::tcp();
        reader.connect_v4("reader", as("alice")).subscribe("#");
        early.send(publish_packet(4, "t", "early"));
        expect_suback(early, "#", "80");
        early.connect_v4("early", as("alice")).publish("t", "late");
        reader.expect_publish("t", "late");
        EXPECT_TRUE(ends_well(broker));
    }
}

TEST_F(secured, topics_with_wildcards_or_no_utf8_are_not_published)
{
    Child broker = serve({"--user-file", "users"});
    Peer  reader = Peer::tcp(), writer = Peer::tcp();
    reader.connect_v4("reader", as("alice")).subscribe("#");
    writer.connect_v4("writer", as("bob"));
    for (const char *topic : {"a/+", "#", "a\xC3"})
        writer.publish(topic, "no");
    writer.publish("a", "yes");
    reader.expect_publish("a", "yes");
    reader.expect_nothing();
}

// ---- ids

TEST_F(secured, an_id_is_not_given_to_another_user)
{
    Child broker = serve({"--user-file", "users"});
    Peer  alice  = Peer::tcp();
    alice.connect_v4("x", as("alice")).subscribe("home/#");
    expect_refused("x", as("bob"));
    Peer::tcp().connect_v4("x", as("alice")).ping();
    Peer::tcp().connect_v4("y", as("bob")).ping();

    // A 3.1.1 session that is dropped leaves no file, but its subscriptions.
    Peer dropped = Peer::tcp();
    dropped.connect_v4("z", {.clean = false, .username = "alice", .password = "right"}).subscribe("home/#");
    dropped.hang_up();
    expect_refused("z", as("bob"));
}

TEST_F(secured, a_saved_session_keeps_its_user_over_a_restart)
{
    Connect keep = as("alice");
    keep.clean   = false;
    {
        Child broker = serve({"--user-file", "users"});
        Peer  alice  = Peer::tcp();
        alice.connect_v4("x", keep).subscribe("home/#");
        alice.disconnect();
        ASSERT_TRUE(ends_well(broker));
        EXPECT_EQ(file_text("broker_data/owners"), "x alice\n");
    }
    Child broker = serve({"--user-file", "users"});
    expect_refused("x", as("bob"));
    keep.session_present = true;
    Peer::tcp().connect_v4("x", keep).ping();
}

TEST_F(secured, owners_are_saved_while_it_runs)
{
    Child broker = serve({"--user-file", "users"});
    Peer  alice  = Peer::tcp();
    alice.connect_v4("x", {.clean = false, .username = "alice", .password = "right"}).subscribe("home/#");
    EXPECT_TRUE(wait_until([] { return file_text("broker_data/owners") == "x alice\n"; }, 15000 * kSlowdown));
}

TEST_F(with_mosquitto, a_client_without_an_id_has_its_users_rights)
{
    Child broker = serve();
    Child sub    = subscriber("alice", "home/#");
    EXPECT_EQ(publish("alice", "right", "home/lamp", "on"), 0);
    EXPECT_TRUE(prints(sub, "home/lamp on\n"));
}

TEST_F(with_mosquitto, without_ids_two_users_may_come_one_after_the_other)
{
    Child broker = serve();
    for (int turn = 0; turn < 10; ++turn)
        for (const char *user : {"alice", "bob"})
            EXPECT_EQ(publish(user, "right", "t", "x", "0"), 0);
}

// The library gives all that come in one second the same id, and asks by id.
TEST_F(secured, without_ids_two_users_in_one_second_are_kept_apart)
{
    Child broker = serve();
    bool  met    = false;
    for (int attempt = 0; attempt < 20 && !met; ++attempt) {
        Peer alice = Peer::tcp(), bob = Peer::tcp();
        alice.connect_v4("", as("alice"));
        bob.connect_v4("", as("bob"));
        bob.send("c0 00");
        met = bob.read_packet() != wire("d0 00"); // else the second was over between the two
        alice.ping();
        expect_suback(alice, "home/#", "00");
        if (!met)
            expect_suback(bob, "home/#", "80");
    }
    EXPECT_TRUE(met);
}

TEST_F(secured, ids_of_the_librarys_form_are_not_for_clients_to_choose)
{
    Child broker = serve();
    expect_refused("auto_1234", as("alice"));
}

TEST_F(secured, a_user_may_be_bound_to_ids)
{
    write_text("rules", "user alice\nclientid alice-*\nreadwrite #\n");
    Child broker = serve();
    Peer::tcp().connect_v4("alice-1", as("alice")).ping();
    expect_refused("x", as("alice"));
    expect_refused("", as("alice"));
    Peer::tcp().connect_v4("x", as("bob")).ping();
    Peer::tcp().connect_v4("", as("bob")).ping();
    EXPECT_TRUE(prints(broker, "login refused: user alice, id x, address "));
    EXPECT_TRUE(prints(broker, ": the user may not have this id\n"));
}

// ---- wills

TEST_F(secured, a_will_to_where_its_client_may_not_write_is_dropped)
{
    Child broker = serve({"--user-file", "users", "--acl-file", "rules", "--events", "events"});
    Peer  reader = Peer::tcp();
    reader.connect_v4("reader", as("alice")).subscribe("home/#");
    for (const unsigned level : {4u, 5u}) {
        Connect bob = as("bob");
        bob.will    = Will{"home/gone", "by bob", 1, true, level == 5 ? wire("18 00 00 00 00") : Bytes{}};
        Peer peer   = Peer::tcp();
        level == 4 ? peer.connect_v4("b", bob) : peer.connect_v5("b", bob);
        const std::string address = "127.0.0.1:" + std::to_string(peer.local_port());
        peer.ping();
        peer.reset();
        EXPECT_TRUE(prints(broker, "[WARN] will dropped: user bob, id b, address " + address +
                                       ", topic home/gone: no rule allows it\n"));
        EXPECT_TRUE(wait_until([&] {
            return file_text("events").find(R"("event":"refused","clientId":"b","topic":"home/gone","qos":null,)"
                                            R"("what":"will","user":"bob","address":")" +
                                            address + R"(","reason":"no rule allows it"})") != std::string::npos;
        }));
    }
    Connect alice = as("alice");
    alice.will    = Will{"home/gone", "by alice"};
    Peer::tcp().connect_v4("a", alice).reset();
    reader.expect_publish("home/gone", "by alice");
    reader.expect_nothing();
}

// A kick and the end of the broker publish wills from other threads than the one that connects.
TEST_F(secured, a_dropped_will_is_published_by_no_other_way)
{
    Child broker  = serve({"--user-file", "users", "--acl-file", "rules", "--control", "ctl"});
    Peer  watcher = Peer::tcp();
    watcher.connect_v4("watcher", as("alice")).subscribe("home/#");
    std::atomic<bool> enough = false;
    std::thread       kicks([&] {
        for (int i = 0; !enough; ++i)
            Child("ctl" + std::to_string(i % 2), {TARN_BROKER_PROGRAM, "ctl", "ctl", "kick", "b"}).wait(kLimit_ms);
    });
    Connect           bob = as("bob");
    bob.will              = Will{"home/gone", "by bob"};
    for (int i = 0; i < 200; ++i) {
        Peer peer = Peer::tcp();
        peer.send(connect_packet(4, "b", bob));
        peer.read_packet();
    }
    enough = true;
    kicks.join();
    watcher.expect_nothing();
}

// On one connection, with an id that another client has, with no id, with a session that is kept, and with an id whose
// place in the library's table is another one's.
TEST_F(secured, a_dropped_will_stays_away_whatever_the_id)
{
    Child broker = serve();
    Peer  reader = Peer::tcp();
    reader.connect_v4("reader", as("alice")).subscribe("home/#");
    Connect bob = as("bob");
    bob.will    = Will{"home/gone", "by bob"};

    Peer twice = Peer::tcp();
    twice.connect_v4("b1", as("bob")).connect_v4("b2", bob).reset();
    Peer first = Peer::tcp(), second = Peer::tcp();
    first.connect_v4("b", bob);
    second.connect_v4("b", bob);
    first.reset();
    second.reset();
    Peer::tcp().connect_v4("", bob).reset();

    Connect keep          = bob;
    keep.clean            = false;
    keep.session_expiry_s = 60;
    Peer kept             = Peer::tcp();
    kept.connect_v5("kept", keep).reset();
    EXPECT_TRUE(prints(broker, "will dropped: user bob, id kept, "));
    keep.will.reset();
    pause_ms(100); // the drop comes first
    Peer back = Peer::tcp();
    back.send(connect_packet(5, "kept", keep));
    EXPECT_FALSE(back.read_packet().empty());
    back.reset();
    reader.expect_nothing();
}

// A client that is not let in has left no will, and the next one is not told to have.
TEST_F(secured, a_will_is_told_of_who_leaves_it)
{
    Child   broker = serve();
    Connect bob    = as("bob", "wrong");
    bob.will       = Will{"home/gone", "by bob"};
    expect_refused("b", bob);
    Peer::tcp().send(connect_packet(4, std::string(24, 'i'), bob)); // no CONNECT that the library reads
    Peer::tcp().connect_v4("c", as("bob")).ping();
    bob.password = "right";
    Peer::tcp().connect_v4("d", bob).ping();
    EXPECT_TRUE(prints(broker, "will dropped: user bob, id d, "));
    const std::string log = broker.output();
    EXPECT_EQ(log.find("will dropped"), log.rfind("will dropped"));
}

TEST_F(secured, rules_for_client_ids_hold_for_wills)
{
    write_text("all", "read #\nclient sensor-*\nwrite sensors/%c\n");
    Child   broker = serve({"--acl-file", "all"});
    Peer    reader = Peer::tcp();
    Connect connect;
    reader.connect_v4("reader").subscribe("#");
    for (const char *topic : {"sensors/sensor-2", "sensors/sensor-1"}) {
        connect.will = Will{topic, "gone"};
        Peer::tcp().connect_v4("sensor-1", connect).reset();
    }
    reader.expect_publish("sensors/sensor-1", "gone");
    reader.expect_nothing();
    EXPECT_TRUE(prints(broker, "will dropped: no user, id sensor-1, "));
}

// ---- what was refused is told

TEST_F(secured, what_is_refused_is_told_in_the_log_and_as_an_event)
{
    Child broker = serve({"--user-file", "users", "--acl-file", "rules", "--events", "events"});
    Peer  wrong = Peer::tcp(), bob = Peer::tcp();
    wrong.send(connect_packet(5, "x\n\x1b[2J", as("alice", "wrong")));
    wrong.read_packet();
    bob.connect_v4("b", as("bob"));
    bob.publish("home/x", "no");
    expect_suback(bob, "home/#", "80");
    const std::string at_wrong = "address 127.0.0.1:" + std::to_string(wrong.local_port()),
                      at_bob   = "address 127.0.0.1:" + std::to_string(bob.local_port());
    for (const std::string &line :
         {"[WARN] login refused: user alice, id \"x\\n\\x1b[2J\", " + at_wrong + ": unknown user or wrong password\n",
          "[WARN] publication refused: user bob, id b, " + at_bob + ", topic home/x: no rule allows it\n",
          "[WARN] subscription refused: user bob, id b, " + at_bob + ", filter home/#: no rule allows it\n"})
        EXPECT_TRUE(prints(broker, line)) << line << broker.output();
    for (const char *event : {R"("clientId":"x\u000a\u001b[2J","topic":"","qos":null,"what":"login","user":"alice")",
                              R"("clientId":"b","topic":"home/x","qos":null,"what":"publish","user":"bob")",
                              R"("clientId":"b","topic":"home/#","qos":null,"what":"subscribe","user":"bob")"})
        EXPECT_TRUE(wait_until([&] { return file_text("events").find(event) != std::string::npos; })) << event;
    EXPECT_EQ(broker.output().find("secret"), std::string::npos);
}

// Each is a line or counted in one.
TEST_F(secured, a_flood_of_refusals_is_counted)
{
    constexpr size_t kSent  = 300;
    Child            broker = serve();
    Peer             bob    = Peer::tcp();
    bob.connect_v4("b", as("bob"));
    for (size_t i = 0; i < kSent; ++i)
        bob.publish("home/x", "no");
    bob.ping();
    size_t lines = 0, counted = 0;
    EXPECT_TRUE(wait_until(
        [&] {
            lines = counted = 0;
            std::istringstream log(broker.output());
            for (std::string line; std::getline(log, line);) {
                lines += line.find("publication refused: ") != line.npos;
                if (const size_t at = line.find(" more refused publications"); at != line.npos)
                    counted += std::stoul(line.substr(line.rfind(' ', at - 1) + 1));
            }
            return lines + counted == kSent;
        },
        4 * 10'000 * kSlowdown))
        << lines << " and " << counted;
    EXPECT_LE(lines, kSent / 2);
}

TEST_F(secured, what_is_refused_is_told_at_every_level_of_the_log)
{
    Child broker = serve({"--user-file", "users", "--acl-file", "rules", "--log-level", "error"});
    Peer  bob    = Peer::tcp();
    bob.connect_v4("b", as("bob")).publish("home/x", "no");
    bob.ping();
    EXPECT_TRUE(prints(broker, "[WARN] publication refused: user bob, id b, ")) << broker.output();
}

// ---- reading the files again

TEST_F(secured, sighup_reads_both_files_again)
{
    Child broker = serve();
    Peer  alice  = Peer::tcp();
    alice.connect_v4("x", as("alice"));
    expect_suback(alice, "garden/#", "80");
    expect_refused("y", as("carol"));

    write_text("users", user_lines({"alice", "carol"}));
    write_text("rules", "user alice\nreadwrite garden/#\n");
    reload(broker);
    expect_suback(alice, "garden/#", "00");
    expect_suback(alice, "home/#", "80");
    Peer::tcp().connect_v4("y", as("carol")).ping();
    expect_refused("z", as("bob"));
}

TEST_F(secured, a_user_who_is_taken_out_is_disconnected)
{
    Child broker = serve();
    Peer  alice = Peer::tcp(), bob = Peer::tcp();
    alice.connect_v4("x", as("alice")).ping();
    bob.connect_v4("y", as("bob")).ping();
    write_text("users", user_lines({"bob"}));
    reload(broker);
    expect_suback(alice, "home/#", "80"); // at once
    bool closed = false;
    for (int turn = 0; turn < 150 * kSlowdown && !closed; ++turn) {
        pause_ms(100);
        closed = !alice.drain();
    }
    EXPECT_TRUE(closed);
    bob.ping();
}

TEST_F(secured, a_mistake_in_a_file_leaves_everything_as_it_was)
{
    Child broker = serve();
    write_text("users", user_lines({"carol"}));
    write_text("rules", "readwrite #\n\nreed home\n");
    broker.signal(SIGHUP);
    ASSERT_TRUE(says(
        broker, "tarn-broker: rules:3: a line begins with read, write, readwrite, user, clientid or client, not with "
                "'reed'\ntarn-broker: users and rules stay as they were\n"))
        << broker.errors();
    Peer alice = Peer::tcp();
    alice.connect_v4("x", as("alice"));
    expect_suback(alice, "home/#", "00");
    expect_suback(alice, "#", "80");
    expect_refused("y", as("carol"));
}

TEST_F(secured, empty_files_are_warned_of)
{
    const std::string no_users = "tarn-broker: empty_users has no users: nobody can connect\n";
    const std::string no_rules = "tarn-broker: empty_rules has no rules: nobody can subscribe or publish\n";
    write_text("empty_users", "");
    write_text("empty_rules", "# none yet\n\nuser alice\nclient x\n");
    Child broker = serve({"--user-file", "empty_users", "--acl-file", "empty_rules"});
    EXPECT_EQ(broker.errors().substr(0, broker.errors().find("tarn-broker: serving")), no_users + no_rules);

    write_text("empty_users", user_lines({"alice"}));
    write_text("empty_rules", "user alice\nread a\n");
    reload(broker);
    write_text("empty_rules", "\n");
    broker.signal(SIGHUP);
    EXPECT_TRUE(says(broker, "tarn-broker: users and rules were read again\ntarn-broker: users and rules were read "
                             "again\n" +
                                 no_rules))
        << broker.errors();
}

// ---- what is wrong at the start

TEST_F(secured, mistakes_in_files_are_told_at_the_start)
{
    write_text("bad_users", "# one\n\nalice\n");
    write_text("bad_rules", "read a#\n");
    write_text("for_users", "read a\nuser alice\n");
    struct Row {
        std::vector<std::string> options;
        std::string              mistake;
    };
    for (const Row &row : std::vector<Row>{
             {{"--user-file", "bad_users"}, "bad_users:3: a line is NAME:HASH, and here is no ':'"},
             {{"--acl-file", "bad_rules"}, "bad_rules:1: '#' can only be the last level of a filter, as in a/#"},
             {{"--user-file", "users", "--acl-file", "bad_rules"},
              "bad_rules:1: '#' can only be the last level of a filter, as in a/#"},
             {{"--acl-file", "for_users"},
              "for_users:2: rules for users need --user-file: without it anybody can claim a name"},
             {{"--user-file", "nowhere"}, "cannot read nowhere: No such file or directory"},
         }) {
        EXPECT_EQ(mistake_of(run(row.options)), "tarn-broker: " + row.mistake + "\n");
    }
    EXPECT_NE(access("broker_data", F_OK), 0); // nothing had begun
}

TEST_F(secured, a_broken_file_of_owners_is_told_at_the_start)
{
    ASSERT_EQ(std::system("mkdir broker_data && echo x >broker_data/owners"), 0);
    EXPECT_EQ(mistake_of(run({"--user-file", "users"})),
              "tarn-broker: broker_data/owners:1: a line is ID USER, with %XX for bytes that are not "
              "visible\n");
}

// ---- and its end

TEST_F(secured, ends_cleanly_under_load)
{
    Child                    broker = serve();
    std::atomic<bool>        end    = false;
    std::atomic<int>         sent   = 0;
    std::vector<Peer>        peers;
    std::vector<std::thread> clients;
    for (int i = 0; i < 3; ++i) {
        peers.push_back(Peer::tcp());
        peers.back().connect_v4("c" + std::to_string(i), as("alice")).subscribe("home/#");
    }
    for (int i = 0; i < 3; ++i)
        clients.emplace_back([&, i] {
            Peer &peer = peers[static_cast<size_t>(i)];
            while (!end && peer.drain()) {
                for (int turn = 0; turn < 20; ++turn)
                    peer.send(publish_packet(4, turn % 4 ? "home/lamp" : "refused", "x", {.qos = 1}));
                sent += 20;
            }
        });
    std::vector<Peer> guessers;
    for (int i = 0; i < 300; ++i)
        guessers.push_back(Peer::tcp());
    std::thread guesses([&] {
        for (Peer &peer : guessers) {
            peer.send(connect_packet(4, "guess", as("alice", "wrong")));
            while (!end && peer.drain())
                pause_ms(1);
        }
    });
    EXPECT_TRUE(wait_until([&] { return sent > 1000; }));
    broker.signal(SIGHUP);
    EXPECT_TRUE(says(broker, "tarn-broker: users and rules were read again\n"));
    EXPECT_TRUE(ends_well(broker));
    end = true;
    guesses.join();
    for (std::thread &client : clients)
        client.join();
}

// What is refused unhashed is told in other words; who logs in right meanwhile, with another name, does not wait.
TEST_F(secured, wrong_passwords_make_their_sender_wait)
{
    Child             broker = serve({"--user-file", "users", "--password-wait", "1"});
    const std::string waits  = ": it has to wait after wrong passwords\n";
    for (int i = 0; i < 3; ++i)
        expect_refused("x", as("alice", "wrong"));
    EXPECT_TRUE(wait_until([&] { // however slowly this test gets along
        expect_refused("x", as("alice", "wrong"));
        return broker.output().find(waits) != std::string::npos;
    }));
    Peer::tcp().connect_v4("b", as("bob")).ping();
    pause_ms(1100);
    Peer::tcp().connect_v4("a", as("alice")).ping();
    Peer::tcp().connect_v4("a", as("alice")).ping();
}

TEST_F(secured, nobody_waits_when_that_is_switched_off)
{
    Child broker = serve({"--user-file", "users", "--password-wait", "0"});
    for (int i = 0; i < 5; ++i)
        expect_refused("x", as("alice", "wrong"));
    Peer::tcp().connect_v4("a", as("alice")).ping();
}
