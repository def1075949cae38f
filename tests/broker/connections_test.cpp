// Connections that never say CONNECT, and those whose peer may be gone.
#include "program.h"
#include "support/peer.h"

#include <gtest/gtest.h>
#include <sstream>

using namespace tarn::test;

namespace {

// Established connections of the port that the kernel probes: "timer 2" in its list.
int probed_connections()
{
    std::istringstream lines(file_text("/proc/net/tcp"));
    int                probed = 0;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string        number, local, peer, state, queues, timer;
        words >> number >> local >> peer >> state >> queues >> timer;
        probed += local.ends_with(":075B") && state == "01" && timer.starts_with("02:");
    }
    return probed;
}

} // namespace

TEST(connections, without_connect_are_closed)
{
    Child broker = run({"--connect-within", "1"});
    ASSERT_TRUE(serves(broker));
    Peer honest = Peer::tcp(), silent = Peer::tcp(), chatty = Peer::tcp();
    honest.connect_v4("a");
    chatty.ping(); // is served, and yet is no client
    silent.expect_closed();
    chatty.expect_closed();
    pause_ms(1500);
    honest.ping();
    EXPECT_TRUE(ends_well(broker));
}

TEST(connections, without_connect_stay_when_that_is_switched_off)
{
    Child broker = run({"--connect-within", "0"});
    ASSERT_TRUE(serves(broker));
    Peer silent = Peer::tcp();
    pause_ms(2500);
    silent.ping();
}

TEST(connections, are_probed_by_the_kernel)
{
    Child broker = run();
    ASSERT_TRUE(serves(broker));
    Peer one = Peer::tcp(), other = Peer::tcp();
    one.connect_v4("a");
    EXPECT_TRUE(wait_until([] { return probed_connections() == 2; })) << file_text("/proc/net/tcp");
    for (int i = 0; i < 1100; ++i) // so many that the broker takes it for granted
        Peer::tcp().connect_v4("b");
    Peer late = Peer::tcp();
    late.connect_v4("b");
    EXPECT_TRUE(wait_until([] { return probed_connections() == 3; })) << file_text("/proc/net/tcp");
}
