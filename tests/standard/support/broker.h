// broker.h - a broker in the standard profile: the library inside the test's process, or tarn-broker in one of its own.
#ifndef TARN_TESTS_STANDARD_BROKER_H
#define TARN_TESTS_STANDARD_BROKER_H

#include "support/child.h"

#include <optional>
#include <string>
#include <string_view>
#include <tarn_sdk_mqtt_broker.h>
#include <utility>
#include <vector>

namespace tarn::conformance {

using Limits = std::vector<std::pair<uint32_t, uint64_t>>; // TARN_LIMIT_* and its value

// Serves from its constructor to its destructor. With TARN_OTHER_BROKER="program argument..." that program serves
// instead: so the tests themselves can be tried on another broker.
class Broker {
public:
    explicit Broker(int max_packet_size = 1 << 20, const Limits &limits = {});
    ~Broker();
    Broker(const Broker &)            = delete;
    Broker &operator=(const Broker &) = delete;

    void      end(); // before its time
    broker_t *handle() const { return broker_; }
    int32_t   publish(std::string_view topic, std::string_view payload, unsigned qos = 0, bool retain = false,
                      uint32_t expiry_s = 0);

private:
    broker_t                  *broker_ = nullptr;
    std::optional<test::Child> other_;
};

// True, and the test is skipped, where another broker serves: for tests of what the host does.
bool is_other_broker();

// tarn-broker --standard in the test's directory.
class Program {
public:
    explicit Program(std::vector<std::string> options = {});
    ~Program();

    void stop();  // asks it to end and expects that it ends well
    void crash(); // kills it
    void start(); // again
    void restart(bool by_crash)
    {
        by_crash ? crash() : stop();
        start();
    }

private:
    std::vector<std::string> command_;
    test::Child              child_;
};

} // namespace tarn::conformance

#endif
