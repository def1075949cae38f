// client.h - a client that speaks MQTT as the standards have it, one step after the other, and expects the same.
//
// The first expectation that is not met fails the test, and says what came instead; what follows on that client then
// does nothing.
#ifndef TARN_TESTS_STANDARD_CLIENT_H
#define TARN_TESTS_STANDARD_CLIENT_H

#include "packets.h"
#include "support/peer.h"

#include <deque>
#include <initializer_list>

namespace tarn::conformance {

using test::Where;

struct Expected {
    unsigned qos    = 0;
    bool     retain = false;
    bool     dup    = false;
};

class Client {
public:
    // A connection on which nothing was said.
    static Client open(unsigned level, Where where = Where::here());
    // Connected, and accepted.
    Client(unsigned level, std::string_view id, const Connect &options = {}, Where where = Where::here());

    unsigned        level() const { return level_; }
    const Received &connack() const { return connack_; } // of the CONNECT that was accepted
    test::Peer     &peer() { return peer_; }

    void send(std::string_view transcript) { peer_.send(transcript); }
    void send(const Bytes &bytes) { peer_.send(bytes); }

    // ---- CONNECT on an open connection
    void     connect(std::string_view id, const Connect &options = {}, Where where = Where::here());
    Received refused(unsigned code, Where where = Where::here()); // CONNACK with the code, and the end

    // ---- what a client does, with the whole exchange that belongs to it
    // The reason of PUBACK or PUBREC; 0 at QoS 0.
    unsigned publish(std::string_view topic, std::string_view payload, Publish options = {},
                     Where where = Where::here());
    // At QoS 1, the numbers from..to-1 as payloads, none of them waiting for the one before.
    void publish_numbers(std::string_view topic, int from, int to, Where where = Where::here());
    // The reason of each filter.
    Bytes    subscribe(const std::vector<Filter> &filters, const Bytes &properties = {}, Where where = Where::here());
    unsigned subscribe(std::string_view filter, unsigned options = 0, const Bytes &properties = {},
                       Where where = Where::here());
    Received unsubscribe(const std::vector<std::string> &filters, Where where = Where::here());
    void     ping(Where where = Where::here());
    void     disconnect(unsigned reason = 0, const Bytes &properties = {}, Where where = Where::here());
    void     drop() { peer_.hang_up(); }
    unsigned next_id() { return last_id_ = last_id_ % 65535 + 1; }

    // ---- what a client expects
    Received next(Where where = Where::here()); // any packet
    // Of this type. Publications that come before another type are kept for later.
    Received expect(Type type, Where where = Where::here());
    Received expect_ack(Type type, unsigned id, Where where = Where::here()); // with a reason below 0x80
    Received expect_ack(Type type, unsigned id, unsigned reason, Where where = Where::here());
    Received expect_publish(std::string_view topic, std::string_view payload, Expected flags = {},
                            Where where = Where::here());
    // The same, and the answers that its QoS asks for.
    Received take(std::string_view topic, std::string_view payload, Expected flags = {}, Where where = Where::here());
    void     acknowledge(const Received &publish, Where where = Where::here());
    // Nothing but the answer to a PINGREQ.
    void expect_silence(Where where = Where::here());
    // The broker ends the connection, at 5.0 with one of these reasons.
    Received expect_end(std::initializer_list<unsigned> reasons, Where where = Where::here());
    void     expect_closed(Where where = Where::here()); // without a packet
    // The publications that come before the answer to a PINGREQ, acknowledged.
    std::vector<Received> take_all(Where where = Where::here());

    bool ok() const { return !failed_ && peer_.ok(); }

private:
    Client(unsigned level, test::Peer peer) : peer_(std::move(peer)), level_(level) {}
    void     fail(Where where, const std::string &what);
    Received read(Where where);

    test::Peer           peer_;
    unsigned             level_;
    unsigned             last_id_ = 0;
    bool                 failed_  = false;
    Received             connack_;
    std::deque<Received> early_; // publications that came before what was waited for
};

std::string named(const Received &received); // for messages

} // namespace tarn::conformance

#endif
