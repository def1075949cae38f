// client_fixture.h - a client manager to test: clients with a socket that the test reads, the calls that the manager
// makes to other modules, and a clock in the test's hand.
#ifndef TARN_TESTS_CLIENT_FIXTURE_H
#define TARN_TESTS_CLIENT_FIXTURE_H

#include "client/client_internal.h"
#include "net/netip.h"
#include "stats/mqtt_stats.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/timing.h"
#include "support/wire.h"

#include <cstring>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace tarn::test {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// What the manager asks of other modules. Packet handling and files are replaced, so that each test says what they do;
// reliable delivery is real, unless told to fail.
struct Calls {
    std::vector<std::string>                   made;           // "persist_remove dev1", in order
    std::function<int(mqtt_client_t &, Bytes)> on_packet;      // packet_dispatch
    std::function<void(mqtt_client_t &)>       on_will;        // packet_send_will_message
    std::function<void()>                      on_remove_subs; // packet_handler_remove_client_subs
    std::function<void()>                      on_mark;        // persist_mark
    std::function<void(mqtt_client_t &)>       on_clean;       // qos_reliable_clean_client_packets, before it begins
    bool                                       qos_fails          = false; // qos_reliable_init
    bool                                       qos_stands_in      = false; // it does nothing
    int                                        memory_fails_after = -1;    // mmap and mprotect: so many succeed
};
extern Calls g_calls;

std::vector<std::string> take_calls();

// One end of a stream in the connection table, the other for the test. Open until destroyed, whoever closes the slot.
class Socket {
public:
    explicit Socket(uint32_t handle, int send_buffer = 0);
    ~Socket();
    Socket(const Socket &)            = delete;
    Socket &operator=(const Socket &) = delete;

    Bytes  received();                       // what has arrived, without waiting
    Bytes  wait_for(size_t bytes);           // at least so many, or what came within ten seconds
    bool   closed_by_broker();               // end of stream
    void   stuff();                          // until the broker's end takes no byte more
    void   unstuff(size_t bytes = SIZE_MAX); // takes that out again, or so much of it
    Bytes  some(size_t bytes);               // at most so many of what has arrived
    size_t drain();                          // takes all that has arrived; how many bytes

private:
    uint32_t handle_;
    int      ours_;
    size_t   stuffed_ = 0;
};

// A TCP connection to the broker's port.
class TcpPeer {
public:
    TcpPeer();
    ~TcpPeer();
    TcpPeer(const TcpPeer &)            = delete;
    TcpPeer &operator=(const TcpPeer &) = delete;
    void     send(const Bytes &bytes) const;
    Bytes    wait_for(size_t bytes); // so many, or what came within a second or so

private:
    int fd_;
};

// A manager without its threads, for so many clients.
class Manager {
public:
    explicit Manager(int32_t max_clients = 100);
    ~Manager();
};

// A logged-in pool client.
mqtt_client_t *log_in(uint32_t handle, const char *id, uint8_t clean = 1, uint32_t version = 4);
// So many ids whose hashes meet in one entry of by_cid with this one's, each under another lock than the one before.
std::vector<std::string> ids_in_the_bucket_of(const char *id, size_t count);
// A record of the test's own, zero but for what sending needs.
class OwnRecord {
public:
    explicit OwnRecord(uint32_t handle = NETIP_NO_HANDLE);
    ~OwnRecord();
    mqtt_client_t *operator->() { return record_.get(); }
    mqtt_client_t &operator*() { return *record_; }
    mqtt_client_t *get() { return record_.get(); }

private:
    std::unique_ptr<mqtt_client_t> record_;
};

// The lines so far but for those of reliable delivery, which has some for each record that is released.
std::vector<LogLine> own_lines(LogCapture &log);

uint32_t send(mqtt_client_t *client, const Bytes &packet);
int      queued(const mqtt_client_t *client); // packets in the ring

// True when another thread could take the lock now.
bool is_free(Mutex &lock);

// Runs `act` on another thread while the test holds a lock that `act` will want, and `then` once that thread waits for
// the lock.
void while_it_waits(Mutex &lock, const std::function<void()> &act, const std::function<void()> &then);

} // namespace tarn::test

#endif
