// host.h - the broker inside the test's own process, driven through its C interface as a host program drives it.
#ifndef TARN_TESTS_WIRE_HOST_H
#define TARN_TESTS_WIRE_HOST_H

#include <tarn_sdk_mqtt_broker.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::test {

// Creates, initialises and starts in the constructor; stops, deinitialises and destroys in the destructor.
class Host {
public:
    explicit Host(int max_clients = 100);
    ~Host();
    Host(const Host &)            = delete;
    Host &operator=(const Host &) = delete;

    broker_t   *broker() const { return broker_; }
    int32_t     publish(std::string_view topic, std::string_view payload, unsigned qos = 0, bool retain = false,
                        uint32_t expiry_s = 0);
    std::string client_ids();
    std::string retained_topics();

private:
    broker_t *broker_;
};

// From now on the broker inside this process draws the identifiers of its deliveries from here.
void seed_identifiers(uint32_t seed);

// A delivery at QoS 1 or 2 that the broker inside this process still tracks.
struct Pending {
    unsigned id;
    unsigned qos;
    unsigned qos2_state; // 1 awaits PUBREC, 2 PUBREL sent, 3 PUBCOMP sent
};
std::vector<Pending> pending_deliveries(); // newest first

// What the host's callbacks saw, in order, each as one line:
//   event 3 {"clientId":"a","topic":"t","qos":1}     auth a user secret     acl a publish t
// The refuse_* texts make the auth callback refuse that user name, and the ACL callback that topic or filter.
struct Hooks {
    static void                     listen(broker_t *broker); // to all three, from now on
    static std::vector<std::string> take();
    static void                     refuse_user(std::string_view name);
    static void                     refuse_topic(std::string_view topic);
};

} // namespace tarn::test

#endif
