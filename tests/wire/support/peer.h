// peer.h - one MQTT client of the tests: a socket to the broker on loopback, with packets sent and expected as one
// writes them down.
//
// The first expectation that is not met fails the test, says what came instead, and turns what follows on that peer
// into nothing, so that one fault is reported once.
#ifndef TARN_TESTS_WIRE_PEER_H
#define TARN_TESTS_WIRE_PEER_H

#include "packets.h"
#include "pattern.h"
#include "support/timing.h"

#include <string>
#include <string_view>

namespace tarn::test {

// The line of the test that spoke.
struct Where {
    const char            *file;
    int                    line;
    static constexpr Where here(const char *file = __builtin_FILE(), int line = __builtin_LINE())
    {
        return {file, line};
    }
};

class Peer {
public:
    static Peer tcp(uint16_t port = 1883, Where where = Where::here());
    static Peer udp(uint16_t port = 1883, Where where = Where::here());
    Peer(Peer &&other) noexcept;
    Peer &operator=(Peer &&other) noexcept;
    ~Peer();

    void send(std::string_view transcript) { send(wire(transcript)); }
    void send(const Bytes &bytes);

    // Exactly these bytes come next, within the time limit.
    Captured expect(const Pattern &pattern, Where where = Where::here());
    // Nothing comes and the connection stays, for so long.
    void expect_nothing(int ms = kQuiet_ms, Where where = Where::here());
    // What was sent so far is answered by nothing and the connection lives: a PINGREQ gets the very next answer.
    void expect_ignored(Where where = Where::here());
    // The broker ends the connection, and sends nothing before it does.
    void expect_closed(Where where = Where::here());
    // The next whole packet, empty when none comes in time.
    Bytes read_packet(int limit_ms = kLimit_ms);
    // Takes what is there now; true while the connection is open. For tests that drive many peers.
    bool drain();

    void hang_up(); // closes the socket without a DISCONNECT
    void reset();   // the same with a reset

    // What a well-behaved client does. Each waits for the broker's answer.
    Peer &connect_v4(std::string_view client_id, const Connect &options = {}, Where where = Where::here());
    Peer &connect_v5(std::string_view client_id, const Connect &options = {}, Where where = Where::here());
    Peer &connect(unsigned level, std::string_view client_id, const Connect &options = {}, Where where = Where::here());
    Peer &subscribe(std::string_view filter, unsigned qos = 0, Where where = Where::here());
    Peer &unsubscribe(std::string_view filter, Where where = Where::here());
    void  publish(std::string_view topic, std::string_view payload, const Publish &options = {},
                  Where where = Where::here());
    unsigned expect_publish(std::string_view topic, std::string_view payload, const Publish &options = {},
                            Where where = Where::here()); // the packet identifier; options.id is not compared
    void     acknowledge(uint8_t first, unsigned id) { send(ack_packet(level_, first, id)); }
    void     ping(Where where = Where::here());
    void     disconnect(Where where = Where::here()); // and expects the close

    int      fd() const { return fd_; }
    unsigned level() const { return level_; }
    uint16_t local_port() const;
    bool     ok() const { return !failed_; }

private:
    Peer(int fd, Where where);
    static Peer open(int type, uint16_t port, Where where);
    enum class Got { Data, Closed, Nothing };
    Got  receive(int limit_ms);
    void fail(Where where, const std::string &what);

    int      fd_      = -1;
    unsigned level_   = 4;
    unsigned next_id_ = 1;
    bool     failed_  = false;
    Bytes    rx_;
};

// A client of either level over TCP, connected.
Peer come(unsigned level, const std::string &id, const Connect &options, Where where = Where::here());
// How a client connects whose session is to be kept; `present` when it is there already.
Connect keep(unsigned level, bool present);

} // namespace tarn::test

#endif
