// api_fixture.h - what the API tests share: a transcript of what a call does, in order, and an instance that is taken
// down with its test.
#ifndef TARN_TESTS_API_FIXTURE_H
#define TARN_TESTS_API_FIXTURE_H

#include "api/api_internal.h"
#include "client/client.hpp"
#include "standard/standard.hpp"
#include "support/faults.h"
#include "support/log_capture.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace tarn::test {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

using Transcript = std::vector<std::string>;

// What the API asks of other modules is written down and then done, unless a test replaces it. The linker leads the
// calls here (tests/unit/CMakeLists.txt).
struct Modules {
    std::function<int()>                 packet_handler_init; // instead of the real one, as are all of these
    std::function<int()>                 packet_handler_broker_publish;
    std::function<int()>                 list;                   // client_fill_id_list and retain_fill_topic_list
    std::function<void(mqtt_client_t &)> on_disconnect_sent;     // runs behind packet_handler_send_disconnect
    bool                                 standard_fails = false; // its start
    standard::Limits                     limits;                 // it was started with
    std::function<void()>                on_turn; // runs at the end of each housekeeping turn, on its thread
};
extern Modules g_modules;

// Log lines and calls of the calling thread so far, in order, then forgotten: "INFO [SDK] broker stopped",
// "netip_init threads=1". Lines count when they are offered, whether the log prints them or not.
Transcript take_transcript();
// Only the lines or only the calls among them.
Transcript take_lines();
Transcript take_calls();
Transcript take_calls_and(const std::string &part); // and the lines that hold this text

// How often any thread made this call, as the transcript would show it.
int  times(const std::string &call);
int  turns();    // of housekeeping threads
int  pause_us(); // of the last one
void forget_turns();

// Swallows the log, and keeps lines from INFO on coming after init has set the level to WARN.
class QuietLog {
public:
    explicit QuietLog(uint32_t level = AGENT_LOG_INFO);
    ~QuietLog();
    LogCapture *operator->() { return &log_; }

private:
    LogCapture log_;
};

// An instance, and no report, scan or expiry due for some seconds: their lines come on another thread.
class Instance {
public:
    Instance();
    ~Instance(); // stop, deinit, destroy
              operator broker_t *() const { return broker_; }
    broker_t *operator->() const { return broker_; }

    int32_t   start(int32_t port = 1883, int32_t max_clients = 100);
    broker_t *release(); // the test takes it down itself

private:
    broker_t *broker_;
};

// A record of the pool, found by this id, that came in through this instance. Needs no running manager.
mqtt_client_t *add_client(uint32_t handle, const char *id, broker_t *owner, uint32_t state = CLIENT_LOGINED);

// A record of its own, for callbacks.
class OwnClient {
public:
    explicit OwnClient(broker_t *owner, const char *id = "own");
                   operator mqtt_client_t *() { return record_.get(); }
    mqtt_client_t *operator->() { return record_.get(); }

private:
    std::unique_ptr<mqtt_client_t> record_{new mqtt_client_t{}};
};

} // namespace tarn::test

#endif
