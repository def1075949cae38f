#include "broker_process.h"
#include "support/timing.h"

#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>

namespace tarn::test {
namespace {

std::vector<std::string> command(const BrokerOptions &options)
{
    std::vector<std::string> words = {TARN_BROKER_PROGRAM, "--udp", "--no-quotas", "--connect-within", "0",
                                      "--log-limit",       "0"}; // the library's own limits are what counts
    const auto               add   = [&](const char *name, const std::string &value) {
        if (!value.empty() && value != "0")
            words.insert(words.end(), {name, value});
    };
    const char *level = getenv("TARN_TEST_LOG_LEVEL"); // for a closer look at one test
    add("--log-level", !options.log_level.empty() ? options.log_level : level ? level : "warn");
    add("--keep-alive", std::to_string(options.keep_alive_s));
    add("--max-packet-size", std::to_string(options.max_packet_size));
    add("--max-clients", std::to_string(options.max_clients));
    return words;
}

} // namespace

BrokerProcess BrokerProcess::start(const BrokerOptions &options)
{
    return BrokerProcess(options);
}

BrokerProcess::BrokerProcess(const BrokerOptions &options) : child_("broker", command(options))
{
    EXPECT_TRUE(says(child_, "tarn-broker: serving MQTT")) << "the broker does not start\n"
                                                           << child_.errors() << child_.output();
}

BrokerProcess::~BrokerProcess()
{
    if (child_.running())
        stop();
    if (testing::Test::HasFailure())
        printf("---- end of the broker's log\n%s%s----\n", tail(child_.output()).c_str(),
               tail(child_.errors()).c_str());
}

void BrokerProcess::stop()
{
    child_.signal(SIGTERM);
    EXPECT_EQ(child_.wait(kLimit_ms), 0) << "the broker does not end well\n" << tail(child_.errors(), 200);
}

void BrokerProcess::crash()
{
    child_.signal(SIGKILL);
    EXPECT_EQ(child_.wait(kLimit_ms), 128 + SIGKILL);
}

} // namespace tarn::test
