// standard.hpp - the standard profile, for the other modules: MQTT 3.1.1 and 5.0 as the standards have them, served by an
// engine of its own in the place of packet handling. start() makes it serve all connections, through client::Profile.
//
// Any thread, but for start() and stop(). The caller holds no lock.
#ifndef TARN_STANDARD_STANDARD_HPP
#define TARN_STANDARD_STANDARD_HPP

#include "limits.h"

#include "../client/client_types.h"

#include <span>
#include <string_view>

namespace tarn::standard {

// Reads what `directory` keeps, and from then on client::Profile leads here. Between client::init() and net::start().
// False: nothing serves, and a line says why.
bool start(const char *directory, const Limits &limits) noexcept;
// Before net::stop(): every 5.0 client is told that the server shuts down, and all are closed.
void end_all_connections() noexcept;
// Between net::stop() and client::deinit(). All that was acknowledged is on the disk afterwards. Harmless
// while it is not on.
void               stop() noexcept;
[[nodiscard]] bool is_on() noexcept; // between start() and stop()

// To be called every 10 ms or so: what is due by the clock.
void turn() noexcept;

// ---- for hosts

struct HostMessage {
    std::string_view         topic;
    std::span<const uint8_t> payload;
    uint8_t                  qos      = 0;
    bool                     retain   = false;
    uint32_t                 expiry_s = 0; // 0 = never
};
// What becomes of a host's message.
enum class Published {
    Done,
    NoTopic, // empty, with a wildcard, or no UTF-8
    NoRoom,  // not all who should have it can keep it
};
Published publish(const HostMessage &message) noexcept;

// Of the session of a client that is connected or away, by the form of its id that records have.
struct SessionInfo {
    size_t subscriptions;
    bool   is_online, is_kept, has_will;
};
bool describe_session(std::string_view id, SessionInfo &info) noexcept; // false: there is none

bool clear_retained(std::string_view topic) noexcept; // false: there was none
// The topics with a newline behind each, and a terminator; one that does not fit is left out. Returns the characters
// written, -1 if there are no topics.
int32_t list_retained_topics(std::span<char> to) noexcept;

// DISCONNECT with this reason (5.0), then the close. The session stays as it asked.
void kick(mqtt_client_t &client, uint8_t reason) noexcept;

struct Counts {
    size_t sessions; // of clients that are connected or away
    size_t subscriptions;
    size_t retained;
};
Counts counts() noexcept;

} // namespace tarn::standard

#endif
