// The control socket, and `tarn-broker ctl` at its other end.
#include "program.h"
#include "support/peer.h"
#include "support/process_state.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace tarn::test;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

constexpr const char *kPath = "ctl";

int connect_to(const char *path)
{
    const int   fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << strerror(errno);
    const timeval limit{kLimit_ms / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return fd;
}

// One console, byte by byte.
class Console {
public:
    Console() : fd_(connect_to(kPath)) {}
    ~Console() { close(fd_); }
    Console(const Console &)            = delete;
    Console &operator=(const Console &) = delete;

    void send(const std::string &bytes)
    {
        EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    std::string answer() // up to and with its last line
    {
        std::string text;
        for (char c; recv(fd_, &c, 1, 0) == 1;) {
            text += c;
            const std::string line = text.substr(text.rfind('\n', text.size() - 2) + 1);
            if (c == '\n' && (line == "ok\n" || line.starts_with("error: ")))
                break;
        }
        return text;
    }
    std::string ask(const std::string &line)
    {
        send(line + '\n');
        return answer();
    }
    void end_sending() { shutdown(fd_, SHUT_WR); }
    bool closed()
    {
        char byte;
        return recv(fd_, &byte, 1, 0) <= 0 && errno != EAGAIN;
    }

private:
    int fd_;
};

class control_socket : public testing::Test {
protected:
    control_socket() : broker_(run({"--control", kPath})) { EXPECT_TRUE(serves(broker_)) << broker_.errors(); }

    // Of `tarn-broker ctl ctl ...`.
    static Result ctl(std::vector<std::string> words)
    {
        words.insert(words.begin(), {"ctl", kPath});
        return result_of(run(words));
    }
    static Result ctl_with_input(const std::string &input)
    {
        write_text("input", input);
        return result_of({"session", {"sh", "-c", std::string(TARN_BROKER_PROGRAM) + " ctl ctl <input"}});
    }

    Child broker_;
};

} // namespace

// ---- the commands

TEST_F(control_socket, clients_lists_who_is_online)
{
    Console console;
    EXPECT_EQ(console.ask("clients"), "ok\n");
    Peer a = Peer::tcp(), b = Peer::tcp();
    a.connect_v4("plain");
    Connect options;
    options.keep_alive_s = 7;
    b.connect_v5("with \"blank\", comma\nand line", options);
    const std::string answer = console.ask("clients");
    EXPECT_THAT(answer, HasSubstr("plain 127.0.0.1:" + std::to_string(a.local_port()) + " keep-alive 60 idle "));
    EXPECT_THAT(answer, HasSubstr(R"("with \"blank\", comma\nand line" 127.0.0.1:)" + std::to_string(b.local_port()) +
                                  " keep-alive 7 idle "));
    EXPECT_EQ(std::count(answer.begin(), answer.end(), '\n'), 3) << answer;
}

TEST_F(control_socket, info_describes_a_client)
{
    Peer a = Peer::tcp();
    a.connect_v5("a b");
    EXPECT_THAT(Console().ask("info \"a b\""),
                MatchesRegex("id \"a b\"\naddress 127.0.0.1:" + std::to_string(a.local_port()) +
                             "\nkeep-alive 60\nonline yes\nidle [0-9]+\nok\n"));
    EXPECT_EQ(Console().ask("info nobody"), "error: Not found\n");
}

TEST_F(control_socket, kick_closes_a_client)
{
    Peer a = Peer::tcp();
    a.connect_v5("a");
    Console console;
    EXPECT_EQ(console.ask("kick a"), "ok\n");
    a.expect("E0 02 | 98 00");
    a.expect_closed();
    EXPECT_EQ(console.ask("kick a"), "error: Not found\n");
    EXPECT_EQ(console.ask("kick \"\""), "error: Invalid parameter\n");
}

TEST_F(control_socket, publish_reaches_subscribers)
{
    Peer a = Peer::tcp();
    a.connect_v4("a").subscribe("#", 2);
    Console console;
    EXPECT_EQ(console.ask("publish home/x hello"), "ok\n");
    a.expect_publish("home/x", "hello");
    EXPECT_EQ(console.ask(R"(publish "a b" "\"quoted\"\n" 1)"), "ok\n");
    Publish options;
    options.qos = 1;
    a.acknowledge(0x40, a.expect_publish("a b", "\"quoted\"\n", options));
    EXPECT_EQ(console.ask("publish kept 21 retain"), "ok\n");
    options        = {};
    options.retain = true;
    a.expect_publish("kept", "21", options);
    Peer later = Peer::tcp();
    later.connect_v4("later").send(subscribe_packet(4, 1, "kept", 0));
    later.expect_publish("kept", "21", options);
    later.expect("90 03 | 00 01 | 00");
    EXPECT_EQ(console.ask("publish kept 22 2 retain"), "ok\n");
    EXPECT_THAT(console.ask("retained"), MatchesRegex("kept qos 2 bytes 2 age [0-9]+\nok\n"));
}

TEST_F(control_socket, publish_refuses_what_would_be_cut_or_misread)
{
    Console           console;
    const std::string t255(255, 't');
    EXPECT_EQ(console.ask("publish " + t255 + " x"), "ok\n");
    EXPECT_EQ(console.ask("publish " + t255 + "t x"), "error: a topic has 1 to 255 bytes\n");
    EXPECT_EQ(console.ask("publish \"\" x"), "error: a topic has 1 to 255 bytes\n");
    EXPECT_EQ(console.ask("publish a/+ x"), "error: a topic to publish to has no + or #\n");
    EXPECT_EQ(console.ask("publish a/# x"), "error: a topic to publish to has no + or #\n");
    EXPECT_EQ(console.ask("publish t " + std::string(2034, 'x')), "ok\n");
    EXPECT_EQ(console.ask("publish t " + std::string(2035, 'x')), "error: topic and text have 2035 bytes at most\n");
    EXPECT_EQ(console.ask("publish t \"\""), "error: there is no empty message; clear removes a retained one\n");
    for (const char *bad : {"3", "x", "retain 1", "1 1", "00"})
        EXPECT_THAT(console.ask(std::string("publish t x ") + bad),
                    MatchesRegex("error: after topic and text come 0, 1 or 2 and then retain, not '.*'\n"));
}

TEST_F(control_socket, retained_lists_and_clear_removes)
{
    Console console;
    EXPECT_EQ(console.ask("retained"), "ok\n");
    for (const char *topic : {"ok", "a", "\"two\\nlines\"", "error:"})
        EXPECT_EQ(console.ask(std::string("publish ") + topic + " text retain"), "ok\n");
    EXPECT_THAT(console.ask("retained"),
                MatchesRegex("\"ok\" qos 0 bytes 4 age [0-9]+\na qos 0 bytes 4 age [0-9]+\n"
                             "\"two\\\\nlines\" qos 0 bytes 4 age [0-9]+\n\"error:\" qos 0 bytes 4 age [0-9]+\nok\n"));
    EXPECT_EQ(console.ask("clear \"two\\nlines\""), "ok\n");
    EXPECT_EQ(console.ask("clear a"), "ok\n");
    EXPECT_EQ(console.ask("clear a"), "error: Not found\n");
    EXPECT_THAT(console.ask("retained"),
                MatchesRegex("\"ok\" qos 0 bytes 4 age [0-9]+\n\"error:\" qos 0 bytes 4 age [0-9]+\nok\n"));
}

TEST_F(control_socket, stats_is_json)
{
    Peer a = Peer::tcp();
    a.connect_v4("a").subscribe("x");
    EXPECT_THAT(Console().ask("stats"), MatchesRegex("\\{\"online\":1,.*\"subs\":1,.*\\}\nok\n"));
}

TEST_F(control_socket, help_lists_every_command)
{
    const std::string help = '\n' + Console().ask("help");
    for (const char *name : {"clients", "info ID", "kick ID", "publish TOPIC TEXT [0|1|2] [retain]", "retained",
                             "clear TOPIC", "stats", "help"})
        EXPECT_THAT(help, HasSubstr(std::string("\n") + name + ' ')) << help;
}

TEST_F(control_socket, mistakes_are_told)
{
    Console console;
    EXPECT_EQ(console.ask(""), "ok\n");
    EXPECT_EQ(console.ask("boo"), "error: no command 'boo'; help lists them\n");
    EXPECT_EQ(console.ask("boo\r"), "error: no command '\"boo\\r\"'; help lists them\n");
    EXPECT_EQ(console.ask("kick"), "error: usage: kick ID\n");
    EXPECT_EQ(console.ask("kick a b"), "error: usage: kick ID\n");
    EXPECT_EQ(console.ask("clients all"), "error: usage: clients\n");
    EXPECT_EQ(console.ask("publish a"), "error: usage: publish TOPIC TEXT [0|1|2] [retain]\n");
    EXPECT_EQ(console.ask("kick \"a"), "error: a quote is not closed\n");
}

// ---- the socket

TEST_F(control_socket, socket_is_its_owners_alone_and_goes_with_the_broker)
{
    struct stat there {};
    ASSERT_EQ(stat(kPath, &there), 0);
    EXPECT_TRUE(S_ISSOCK(there.st_mode));
    EXPECT_EQ(there.st_mode & 0777, 0600u);
    EXPECT_TRUE(ends_well(broker_));
    EXPECT_NE(stat(kPath, &there), 0);
}

TEST_F(control_socket, a_stale_socket_is_replaced)
{
    broker_.signal(SIGKILL);
    broker_.wait(kLimit_ms);
    ASSERT_TRUE(std::filesystem::exists(kPath));
    broker_ = run({"--control", kPath});
    ASSERT_TRUE(serves(broker_)) << broker_.errors();
    EXPECT_EQ(Console().ask("clients"), "ok\n");
}

TEST_F(control_socket, a_living_one_is_left_alone)
{
    std::filesystem::create_directory("elsewhere"); // two brokers cannot have one directory
    EXPECT_EQ(mistake_of(run({"--directory", "elsewhere", "--control", "../ctl"})),
              "tarn-broker: --control ../ctl: another program listens there\n");
    EXPECT_EQ(Console().ask("clients"), "ok\n");
}

TEST_F(control_socket, one_that_took_its_place_is_not_removed)
{
    std::filesystem::remove(kPath);
    write_text(kPath, "something else");
    EXPECT_TRUE(ends_well(broker_));
    EXPECT_TRUE(std::filesystem::exists(kPath));
}

TEST(control_path, faults_are_told)
{
    write_text("file", "x");
    const std::pair<std::string, std::string> cases[] = {
        {"file", "there is something that is no socket"},
        {"nowhere/ctl", "No such file or directory"},
        {std::string(108, 'x'), "the path is longer than 107 bytes"},
    };
    for (const auto &[path, fault] : cases) {
        EXPECT_EQ(mistake_of(run({"--control", path})), "tarn-broker: --control " + path + ": " + fault + "\n");
    }
    EXPECT_EQ(file_text("file"), "x");
}

// ---- consoles that behave badly

TEST_F(control_socket, several_are_served_at_once)
{
    Console a, b, half;
    half.send("cli");
    EXPECT_EQ(a.ask("clients"), "ok\n");
    EXPECT_EQ(b.ask("clients"), "ok\n");
    half.send("ents\nretained\n");
    EXPECT_EQ(half.answer(), "ok\n");
    EXPECT_EQ(half.answer(), "ok\n");
}

TEST_F(control_socket, a_line_without_an_end_is_answered_when_no_more_comes)
{
    Console console;
    console.send("clients");
    console.end_sending();
    EXPECT_EQ(console.answer(), "ok\n");
    EXPECT_TRUE(console.closed());
}

TEST_F(control_socket, a_line_that_is_too_long_ends_it)
{
    Console fits, longer;
    EXPECT_THAT(fits.ask("boo " + std::string(16384 - 4, 'x')), HasSubstr("error: no command 'boo'"));
    longer.send(std::string(16385, 'x'));
    EXPECT_EQ(longer.answer(), "error: the line is longer than 16384 bytes\n");
    EXPECT_TRUE(longer.closed());
}

TEST_F(control_socket, more_than_sixteen_are_turned_away)
{
    std::vector<std::unique_ptr<Console>> many;
    for (int i = 0; i < 16; ++i) {
        many.push_back(std::make_unique<Console>());
        EXPECT_EQ(many.back()->ask("clients"), "ok\n");
    }
    Console one_more;
    EXPECT_EQ(one_more.answer(), "error: too many consoles\n");
    EXPECT_TRUE(one_more.closed());
    many.pop_back();
    EXPECT_TRUE(wait_until([] { return Console().ask("clients") == "ok\n"; }));
}

// It asks and asks and never reads: what is kept for it stays bounded, others are served, and the broker ends.
TEST_F(control_socket, one_that_never_reads_holds_up_nobody)
{
    Console     greedy, other;
    std::string questions;
    for (int i = 0; i < 10'000; ++i)
        questions += "help\n";
    const int fd = connect_to(kPath);
    ssize_t   sent;
    size_t    all = 0;
    while ((sent = send(fd, questions.data(), questions.size(), MSG_NOSIGNAL | MSG_DONTWAIT)) > 0)
        all += static_cast<size_t>(sent);
    EXPECT_TRUE(wait_until([&] { // until it is not read from any more either
        while ((sent = send(fd, questions.data(), questions.size(), MSG_NOSIGNAL | MSG_DONTWAIT)) > 0)
            all += static_cast<size_t>(sent);
        EXPECT_EQ(other.ask("clients"), "ok\n");
        pause_ms(100);
        return send(fd, "h", 1, MSG_NOSIGNAL | MSG_DONTWAIT) < 0;
    }));
    const double before_s = cpu_seconds(broker_.pid());
    pause_ms(200);
    EXPECT_LT(cpu_seconds(broker_.pid()) - before_s, 0.15) << "it spins";
    EXPECT_TRUE(ends_well(broker_));
    close(fd);
}

// ---- the client

TEST_F(control_socket, ctl_tells_the_result_by_its_status)
{
    const Result listed = ctl({"clients"});
    EXPECT_EQ(listed.status, 0);
    EXPECT_EQ(listed.output + listed.errors, "");
    const Result failed = ctl({"kick", "nobody"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.output, "");
    EXPECT_EQ(failed.errors, "error: Not found\n");
}

// What the shell has put together stays together.
TEST_F(control_socket, ctl_quotes_its_arguments)
{
    EXPECT_EQ(ctl({"publish", "a \"b\"", "two\nlines \\n", "1", "retain"}).status, 0);
    const Result listed = ctl({"retained"});
    EXPECT_EQ(listed.status, 0);
    EXPECT_THAT(listed.output, MatchesRegex("\"a \\\\\"b\\\\\"\" qos 1 bytes 12 age [0-9]+\n"));
    EXPECT_EQ(ctl({"publish", "t", ""}).errors, "error: there is no empty message; clear removes a retained one\n");
}

TEST_F(control_socket, ctl_reads_commands_from_its_input)
{
    const Result good = ctl_with_input("publish t x retain\nclear t\n\nretained");
    EXPECT_EQ(good.status, 0) << good.errors;
    EXPECT_EQ(good.output, "ok\nok\nok\nok\n");
    const Result bad = ctl_with_input("kick nobody\nclients\nquit\nclear x\n");
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.output, "ok\n");
    EXPECT_EQ(bad.errors, "error: Not found\n");
}

TEST_F(control_socket, ctl_notices_that_the_broker_ends)
{
    ASSERT_EQ(mkfifo("typing", 0600), 0);
    Child   session("session", {"sh", "-c", std::string(TARN_BROKER_PROGRAM) + " ctl ctl <>typing"});
    Console other;
    EXPECT_EQ(other.ask("clients"), "ok\n");
    std::ofstream("typing") << "clients\n" << std::flush;
    EXPECT_TRUE(wait_until([&] { return session.output() == "ok\n"; }));
    EXPECT_TRUE(ends_well(broker_));
    EXPECT_EQ(session.wait(kLimit_ms), 1);
    EXPECT_EQ(session.errors(), "tarn-broker: the broker has closed the connection\n");
}

TEST(ctl, misuse_ends_with_2)
{
    for (const std::vector<std::string> &words : {std::vector<std::string>{"ctl"}, {"ctl", "--bogus"}}) {
        Child child = run(words);
        EXPECT_EQ(child.wait(kLimit_ms), 2);
        EXPECT_THAT(child.errors(), HasSubstr("Usage: tarn-broker ctl PATH [COMMAND [ARGUMENT]...]\n"));
    }
    Child help = run({"ctl", "--help"});
    EXPECT_EQ(help.wait(kLimit_ms), 0);
    EXPECT_THAT(help.output(), HasSubstr("Usage: tarn-broker ctl PATH"));
}

TEST(ctl, says_that_nobody_is_there)
{
    EXPECT_EQ(mistake_of(run({"ctl", "nowhere", "stats"})), "tarn-broker: nowhere: No such file or directory\n");
    EXPECT_EQ(mistake_of(run({"ctl", std::string(108, 'x'), "stats"})),
              "tarn-broker: " + std::string(108, 'x') + ": the path is too long\n");
}
