// tarn-broker as whoever starts it sees it: what it prints where, when it ends and with which status.
#include "program.h"
#include "support/peer.h"

#include <csignal>
#include <gtest/gtest.h>
#include <netinet/in.h>
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

TEST(program, says_that_it_serves_and_serves)
{
    Child broker = run({"-c", "11"});
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

// Ending takes a moment, in which a second signal may come; the machine decides whether it comes in time.
TEST(program, ends_at_once_on_a_second_signal)
{
    int status = 0;
    for (int attempt = 0; attempt < 50 && status == 0; ++attempt) {
        Child broker = run();
        ASSERT_TRUE(serves(broker));
        broker.signal(SIGTERM);
        ASSERT_TRUE(wait_until([&] { return broker.errors().find("tarn-broker: ending\n") != std::string::npos; }));
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
    EXPECT_TRUE(wait_until(
        [&] { return broker.output().find("[SDK] start success, listen 0.0.0.0:1883\n") != std::string::npos; }));
}

TEST(program, logs_no_more_than_warnings_unless_asked)
{
    Child broker = run();
    ASSERT_TRUE(serves(broker));
    broker.signal(SIGTERM);
    EXPECT_EQ(broker.wait(kLimit_ms), 0);
    EXPECT_EQ(broker.output().find("INFO"), std::string::npos) << broker.output();
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
    Child small{"small", {"sh", "-c", "ulimit -n 100; exec \"$0\" -c 69", TARN_BROKER_PROGRAM}};
    ASSERT_TRUE(serves(small));
    EXPECT_TRUE(says(small, "tarn-broker: 69 clients do not fit into the limit of 100 open files (ulimit -n)\n"));
    small.signal(SIGTERM);
    EXPECT_EQ(small.wait(kLimit_ms), 0);

    Child fits{"fits", {"sh", "-c", "ulimit -n 100; exec \"$0\" -c 68", TARN_BROKER_PROGRAM}};
    ASSERT_TRUE(serves(fits));
    Peer::tcp().connect_v4("a").ping();
    EXPECT_EQ(fits.errors().find("do not fit"), std::string::npos) << fits.errors();
}

TEST(program, says_why_it_cannot_listen)
{
    Port1883 taken(SOCK_STREAM);
    Child    broker = run();
    EXPECT_EQ(broker.wait(kLimit_ms), 1);
    EXPECT_EQ(broker.errors(), "tarn-broker: cannot listen on port 1883: Address already in use\n");
}

// Too few descriptors for a start, but enough to see that it is not the port.
TEST(program, says_that_it_cannot_start_for_another_reason)
{
    Child broker{"broker", {"sh", "-c", "exec 3<&- 4<&- 5<&-; ulimit -n 6; exec \"$0\"", TARN_BROKER_PROGRAM}};
    EXPECT_EQ(broker.wait(kLimit_ms), 1);
    EXPECT_EQ(broker.errors(), "tarn-broker: cannot start: Resource error\n");
}

// UDP is an extra: without it TCP is served.
TEST(program, serves_when_only_udp_is_taken)
{
    Port1883 taken(SOCK_DGRAM);
    Child    broker = run();
    ASSERT_TRUE(serves(broker));
    Peer::tcp().connect_v4("a").ping();
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
    Child broker = run({"--directory=not there"});
    EXPECT_EQ(broker.wait(kLimit_ms), 1);
    EXPECT_EQ(broker.errors(), "tarn-broker: cannot go to not there: No such file or directory\n");
}
