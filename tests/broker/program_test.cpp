// tarn-broker as whoever starts it sees it: what it prints where, when it ends and with which status.
#include "program.h"
#include "support/peer.h"
#include "support/terminal.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <set>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace tarn::test;

namespace {

// A socket of this test on 1883.
class Port1883 {
public:
    explicit Port1883(int type) : fd_(socket(AF_INET, type | SOCK_CLOEXEC, 0))
    {
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_port   = htons(1883);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
        if (type == SOCK_STREAM) {
            EXPECT_EQ(listen(fd_, 1), 0);
        }
    }
    ~Port1883() { close(fd_); }
    Port1883(const Port1883 &)            = delete;
    Port1883 &operator=(const Port1883 &) = delete;

private:
    int fd_;
};

// As somebody whom the modes of files bind: root is not.
Child run_without_privileges(const std::string &name, std::vector<std::string> command)
{
    if (geteuid() == 0)
        command.insert(command.begin(), {"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"});
    return {name, command};
}

const std::string kUdpIsClosed = "tarn-broker: UDP is closed until the next start: one of its clients has ended, and "
                                 "all of them share one socket\n";

} // namespace

TEST(program, help_goes_to_standard_output)
{
    Child broker = run({"--help"});
    EXPECT_EQ(broker.wait(kLimit_ms), 0);
    EXPECT_EQ(broker.output().substr(0, 31), "Usage: tarn-broker [OPTION]...\n");
    EXPECT_EQ(broker.errors(), "");
}

TEST(program, version_is_the_librarys)
{
    Child broker = run({"--version"});
    EXPECT_EQ(broker.wait(kLimit_ms), 0);
    EXPECT_EQ(broker.output(), "tarn-broker V2.0.0\n");
}

TEST(program, a_bad_option_ends_it_with_2)
{
    Child broker = run({"--keep-alive=0"});
    EXPECT_EQ(broker.wait(kLimit_ms), 2);
    EXPECT_EQ(broker.errors(), "tarn-broker: --keep-alive takes a number from 1 to 3600, not '0'\n"
                               "Try 'tarn-broker --help'.\n");
    EXPECT_EQ(broker.output(), "");
}

TEST(program, another_port_ends_it_with_2)
{
    Child broker = run({"-p", "1884"});
    EXPECT_EQ(broker.wait(kLimit_ms), 2);
    EXPECT_EQ(broker.errors(), "tarn-broker: the port is always 1883, it cannot be '1884'\n"
                               "Try 'tarn-broker --help'.\n");
    Child same = run({"-p", "1883"});
    EXPECT_TRUE(serves(same)) << same.errors();
}

TEST(program, says_that_it_serves_and_serves)
{
    Child broker = run({"-c", "11", "--udp"});
    ASSERT_TRUE(serves(broker));
    EXPECT_EQ(broker.errors(),
              "tarn-broker: serving MQTT 3.1.1 and 5.0 on 0.0.0.0:1883 (TCP and UDP), at most 11 clients\n");
    Peer::tcp().connect_v4("a").ping();
}

TEST(program, ends_cleanly_on_each_signal)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        Child broker = run();
        ASSERT_TRUE(serves(broker));
        broker.signal(signal);
        EXPECT_EQ(broker.wait(kLimit_ms), 0) << "signal " << signal;
    }
}

// So a reload of the service does it no harm.
TEST(program, sighup_without_files_says_that_there_is_nothing_to_read)
{
    Child broker = run();
    ASSERT_TRUE(serves(broker));
    Peer peer = Peer::tcp();
    peer.connect_v4("a");
    broker.signal(SIGHUP);
    EXPECT_TRUE(says(broker, "tarn-broker: there is nothing to read again without --user-file and --acl-file\n"))
        << broker.errors();
    peer.ping();
    EXPECT_TRUE(ends_well(broker));
}

TEST(program, ends_with_the_terminal_it_was_started_in)
{
    OnTerminal terminal({TARN_BROKER_PROGRAM});
    ASSERT_TRUE(terminal.shows("serving")) << terminal.shown();
    terminal.hang_up();
    EXPECT_EQ(terminal.wait(), 0);
}

// Ending takes a moment, in which a second signal may come; the machine decides whether it comes in time.
TEST(program, ends_at_once_on_a_second_signal)
{
    int status = 0;
    for (int attempt = 0; attempt < 50 && status == 0; ++attempt) {
        Child broker = run();
        ASSERT_TRUE(serves(broker));
        broker.signal(SIGTERM);
        ASSERT_TRUE(says(broker, "tarn-broker: ending\n"));
        broker.signal(SIGINT);
        status = broker.wait(kLimit_ms);
    }
    EXPECT_EQ(status, 128 + SIGINT);
}

// However soon it comes: it waits until there is something to end.
TEST(program, a_signal_during_the_start_ends_it_cleanly)
{
    for (int delay_ms = 0; delay_ms < 10; ++delay_ms) {
        Child broker = run();
        pause_ms(delay_ms);
        broker.signal(SIGTERM);
        const int status = broker.wait(kLimit_ms);
        if (broker.errors().empty())
            continue; // it had not come to main() yet
        EXPECT_EQ(status, 0) << broker.errors();
    }
}

// The log is line-buffered, so it can be followed in a file or a pipe while the broker runs.
TEST(program, logs_at_the_level_asked_for)
{
    Child broker = run({"-l", "info"});
    ASSERT_TRUE(serves(broker));
    EXPECT_TRUE(prints(broker, "[SDK] start success, listen 0.0.0.0:1883\n"));
}

// A client without an id is worth a warning.
TEST(program, logs_no_more_than_errors_unless_asked)
{
    for (const bool asked : {false, true}) {
        Child broker = run(asked ? std::vector<std::string>{"-l", "warn"} : std::vector<std::string>{});
        ASSERT_TRUE(serves(broker));
        Peer::tcp().connect_v4("").ping();
        EXPECT_TRUE(ends_well(broker));
        EXPECT_EQ(broker.output().find("[WARN] CONNECT decode: empty ClientID") != std::string::npos, asked)
            << broker.output();
    }
}

TEST(program, raises_the_soft_limit_of_descriptors)
{
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit low{64, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);

    Child broker = run();
    ASSERT_TRUE(serves(broker));
    rlimit its{};
    ASSERT_EQ(prlimit(broker.pid(), RLIMIT_NOFILE, nullptr, &its), 0);
    EXPECT_EQ(its.rlim_cur, before.rlim_max);
}

TEST(program, says_when_the_clients_do_not_fit_into_the_limit_of_files)
{
    Child small{"small", {"sh", "-c", "ulimit -n 300; exec \"$0\" -c 141", TARN_BROKER_PROGRAM}};
    ASSERT_TRUE(serves(small));
    EXPECT_TRUE(says(small, "tarn-broker: 141 clients do not fit into the limit of 300 open files (ulimit -n)\n"));
    EXPECT_TRUE(ends_well(small));

    Child fits{"fits", {"sh", "-c", "ulimit -n 300; exec \"$0\" -c 140", TARN_BROKER_PROGRAM}};
    ASSERT_TRUE(serves(fits));
    Peer::tcp().connect_v4("a").ping();
    EXPECT_EQ(fits.errors().find("do not fit"), std::string::npos) << fits.errors();
}

TEST(program, says_why_it_cannot_listen)
{
    Port1883 taken(SOCK_STREAM);
    EXPECT_EQ(mistake_of(run()), "tarn-broker: cannot listen on port 1883: Address already in use\n");
}

// Too few descriptors for a start, but enough to see that it is not the port.
TEST(program, says_that_it_cannot_start_for_another_reason)
{
    Child broker{"broker", {"sh", "-c", "exec 3<&- 4<&- 5<&-; ulimit -n 9; exec \"$0\"", TARN_BROKER_PROGRAM}};
    EXPECT_EQ(broker.wait(kLimit_ms), 1);
    EXPECT_EQ(broker.errors(), "tarn-broker: cannot start: Resource error\n");
}

// UDP is an extra: without it TCP is served.
TEST(program, serves_when_only_udp_is_taken)
{
    Port1883 taken(SOCK_DGRAM);
    Child    broker = run({"--udp"});
    ASSERT_TRUE(says(broker, "tarn-broker: UDP port 1883 could not be opened: Address already in use\n"));
    EXPECT_EQ(broker.errors(), "tarn-broker: serving MQTT 3.1.1 and 5.0 on 0.0.0.0:1883 (TCP), at most 5000 clients\n"
                               "tarn-broker: UDP port 1883 could not be opened: Address already in use\n");
    Peer::tcp().connect_v4("a").ping();
}

// Nor does anybody else have the port then.
TEST(program, serves_no_udp_unless_asked)
{
    for (const std::vector<std::string> &options : {std::vector<std::string>{}, {"--udp", "--no-udp"}}) {
        Child broker = run(options);
        ASSERT_TRUE(serves(broker));
        EXPECT_EQ(broker.errors(),
                  "tarn-broker: serving MQTT 3.1.1 and 5.0 on 0.0.0.0:1883 (TCP), at most 5000 clients\n");
        Peer tcp = Peer::tcp(), udp = Peer::udp();
        tcp.connect_v4("tcp");
        udp.send(connect_packet(4, "udp"));
        tcp.ping(); // a datagram would be read behind traffic on TCP
        udp.expect_nothing();
        const Port1883 is_free(SOCK_DGRAM);
    }
}

TEST(program, says_when_udp_closes)
{
    Child broker = run({"--udp"});
    ASSERT_TRUE(serves(broker));
    Peer tcp = Peer::tcp(), udp = Peer::udp();
    tcp.connect_v4("tcp");
    udp.send(connect_packet(4, "udp"));
    tcp.ping(); // a datagram waits for traffic on TCP
    udp.expect("20 02 00 00");
    pause_ms(1500); // it looks every second
    EXPECT_EQ(broker.errors().find(kUdpIsClosed), std::string::npos);
    udp.send("E0 00");
    tcp.ping();
    EXPECT_TRUE(says(broker, kUdpIsClosed)) << broker.errors();
    tcp.ping();
    pause_ms(1500);
    EXPECT_EQ(broker.errors().find(kUdpIsClosed), broker.errors().rfind(kUdpIsClosed)) << "said once";
}

TEST(program, works_in_the_directory_it_is_told)
{
    ASSERT_EQ(mkdir("there", 0755), 0);
    Child broker = run({"--directory", "there"});
    ASSERT_TRUE(serves(broker));
    EXPECT_EQ(access("there/broker_data/session", F_OK), 0);
    EXPECT_NE(access("broker_data", F_OK), 0);
}

TEST(program, says_that_it_cannot_go_to_a_directory)
{
    EXPECT_EQ(mistake_of(run({"--directory=not there"})),
              "tarn-broker: cannot go to not there: No such file or directory\n");
}

TEST(program, a_directory_that_cannot_be_written_is_refused)
{
    ASSERT_EQ(chmod(".", 0755), 0);
    ASSERT_EQ(mkdir("closed", 0555), 0);
    const std::string refusal = "tarn-broker: cannot keep sessions in " + std::filesystem::current_path().string() +
                                "/closed: Permission denied\n";
    EXPECT_EQ(mistake_of(run_without_privileges("told", {TARN_BROKER_PROGRAM, "--directory", "closed"})), refusal);
    EXPECT_EQ(
        mistake_of(run_without_privileges("there", {"sh", "-c", "cd closed && exec \"$0\"", TARN_BROKER_PROGRAM})),
        refusal);
}

TEST(program, a_file_where_the_data_directory_belongs_is_told)
{
    write_text("broker_data", "x");
    EXPECT_EQ(mistake_of(run()), "tarn-broker: cannot keep sessions in " + std::filesystem::current_path().string() +
                                     "/broker_data: Not a directory\n");
}

TEST(program, two_brokers_cannot_have_one_directory)
{
    Child first = run();
    ASSERT_TRUE(serves(first));
    EXPECT_EQ(mistake_of(run({"--control", "ctl"})), "tarn-broker: another broker keeps its sessions in " +
                                                         std::filesystem::current_path().string() + "/broker_data\n");
    EXPECT_NE(access("ctl", F_OK), 0); // it had begun nothing
    Peer::tcp().connect_v4("a").ping();

    first.signal(SIGKILL); // what is left of it is in nobody's way
    EXPECT_EQ(first.wait(kLimit_ms), 128 + SIGKILL);
    Child third = run();
    ASSERT_TRUE(serves(third)) << third.errors();
    EXPECT_TRUE(ends_well(third));
    Child fourth = run();
    EXPECT_TRUE(serves(fourth)) << fourth.errors();
}

TEST(program, its_files_are_for_its_user_alone)
{
    umask(022);
    Child broker = run({"--events", "events", "--control", "ctl"});
    ASSERT_TRUE(serves(broker));
    Peer keeper = Peer::tcp(), writer = Peer::tcp();
    keeper.connect_v4("keeper", {.clean = false}).subscribe("t", 1);
    keeper.disconnect();
    writer.connect_v4("writer");
    writer.publish("t", "for later", {.qos = 1, .retain = true});
    writer.ping();
    EXPECT_EQ(mode_of("ctl"), 0600u);
    EXPECT_TRUE(ends_well(broker));

    std::set<std::filesystem::path> made = {"broker_data", "events", "tarn_flash.txt"};
    for (const auto &entry : std::filesystem::recursive_directory_iterator("broker_data"))
        made.insert(entry.path());
    for (const char *name : {"broker_data/lock", "broker_data/retain.dat", "broker_data/subscription/keeper.json",
                             "broker_data/message/keeper.json"})
        EXPECT_EQ(made.count(name), 1u) << name;
    for (const std::filesystem::path &path : made)
        EXPECT_EQ(mode_of(path) & 077u, 0u) << path;
}
