#include "broker.h"

#include "support/timing.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace tarn::conformance {

using test::kLimit_ms;
using test::tail;

namespace {

std::vector<std::string> other_broker()
{
    const char              *command = getenv("TARN_OTHER_BROKER");
    std::istringstream       in(command ? command : "");
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word);
    return words;
}

bool is_served()
{
    const int   fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family      = AF_INET;
    address.sin_port        = htons(1883);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool ok           = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return ok;
}

} // namespace

Broker::Broker(int max_packet_size, const Limits &limits)
{
    if (is_other_broker()) {
        other_.emplace("other", other_broker());
        EXPECT_TRUE(test::wait_until(is_served));
        return;
    }
    broker_ = tarn_sdk_mqtt_broker_create();
    EXPECT_NE(broker_, nullptr);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_profile(broker_, TARN_PROFILE_STANDARD), 0);
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(broker_), 0);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(broker_, max_packet_size), 0);
    for (const auto &[limit, value] : limits)
        EXPECT_EQ(tarn_sdk_mqtt_broker_set_limit(broker_, limit, value), 0);
    EXPECT_EQ(tarn_sdk_mqtt_broker_start(broker_, 1883, 200), 0);
}

Broker::~Broker()
{
    end();
}

void Broker::end()
{
    broker_t *broker = std::exchange(broker_, nullptr);
    if (!broker)
        return;
    EXPECT_EQ(tarn_sdk_mqtt_broker_stop(broker), 0);
    tarn_sdk_mqtt_broker_deinit(broker);
    tarn_sdk_mqtt_broker_destroy(broker);
}

int32_t Broker::publish(std::string_view topic, std::string_view payload, unsigned qos, bool retain, uint32_t expiry_s)
{
    return tarn_sdk_mqtt_broker_publish(broker_, std::string(topic).c_str(), payload.data(),
                                        static_cast<int32_t>(payload.size()), qos, retain, expiry_s);
}

bool is_other_broker()
{
    return !other_broker().empty();
}

Program::Program(std::vector<std::string> options)
    : command_{TARN_BROKER_PROGRAM, "--standard", "--no-quotas", "--log-level", "warn"}
{
    command_.insert(command_.end(), options.begin(), options.end());
    start();
}

void Program::start()
{
    child_ = test::Child("broker", command_);
    EXPECT_TRUE(says(child_, "tarn-broker: serving MQTT")) << child_.errors() << child_.output();
}

Program::~Program()
{
    if (child_.running())
        stop();
    if (testing::Test::HasFailure())
        printf("---- end of the broker's log\n%s%s----\n", tail(child_.output()).c_str(),
               tail(child_.errors()).c_str());
}

void Program::stop()
{
    child_.signal(SIGTERM);
    EXPECT_EQ(child_.wait(2 * kLimit_ms), 0) << "the broker does not end well\n" << tail(child_.errors(), 200);
}

void Program::crash()
{
    child_.signal(SIGKILL);
    EXPECT_EQ(child_.wait(kLimit_ms), 128 + SIGKILL);
}

} // namespace tarn::conformance
