// standard_client.h - a client of the standard profile, as far as promises to it go: what it said, what it may thus be
// sent, and which answers it owes.
#ifndef TARN_FUZZ_STANDARD_CLIENT_H
#define TARN_FUZZ_STANDARD_CLIENT_H

#include "codec/standard/standard_codec.hpp"
#include "net/netip_internal.h"
#include "tests/standard/support/packets.h"

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace tarn::fuzz {

class StandardClient;

// What the broker keeps for one client identifier, from the first CONNECT that was accepted to its end.
struct KnownSession {
    struct Asked {
        uint8_t qos; // the most it asked for
        bool    always_no_local;
    };

    StandardClient              *owner      = nullptr; // who is connected; null: it is away
    uint32_t                     expiry_s   = 0;
    uint64_t                     left_ms    = 0;    // since when it is away
    bool                         is_certain = true; // false: a CONNECT had no answer, so it may have begun anew
    uint32_t                     number     = 0;    // never used again
    std::map<std::string, Asked> filters;           // all it asked for since it began
    std::set<uint16_t>           handed_over;       // QoS 2: PUBREL came, and PUBCOMP was not sent

    bool is_there(uint64_t now_ms) const; // if it is certain
};

// All sessions by client identifier, and the clock they go by.
struct World {
    std::map<std::string, std::shared_ptr<KnownSession>> sessions;
    uint64_t                                             now_ms       = 0;
    uint32_t                                             last_session = 0;
    bool is_certain = true; // false: a crash lost what was not acknowledged
};

class StandardClient {
public:
    explicit StandardClient(World &world) : world_(world) {}

    // ---- what happens to it
    void open();
    void hang_up();
    void send(std::span<const uint8_t> bytes); // any, whole packets or not
    void read();                               // and check all that came
    void set_reading(bool reads) { reads_ = reads || !was_answered_; }

    // ---- what it owes: PUBACK, PUBREC, PUBCOMP
    bool acknowledge_next(uint8_t reason = 0); // false: it owes nothing
    bool release_next();                       // PUBREL for a PUBREC that came

    bool               is_open() const { return net::is_current(connection_); }
    bool               is_accepted() const { return is_open() && session_; }
    bool               is_within_packet() const { return !to_broker_.empty(); }
    bool               got_pingresp() { return std::exchange(got_pingresp_, false); }
    unsigned           level() const { return static_cast<unsigned>(level_); }
    const std::string &id() const { return id_; }
    std::string        mark() const; // of its session, for payloads
    uint16_t           next_id() { return last_id_ = static_cast<uint16_t>(last_id_ % 40 + 1); }

private:
    struct Owed {
        conformance::Type type;
        uint16_t          id;
    };

    // What it says, before the broker reads it.
    void note(codec::standard::Bytes packet);
    void note_connect(codec::standard::Bytes packet);
    void note_subscribe(codec::standard::Bytes packet);
    void note_publish(codec::standard::Bytes packet);
    void note_ack(codec::standard::Bytes packet);
    void note_disconnect(codec::standard::Bytes packet);

    void take_stream();
    void check(const conformance::Received &packet);
    void check_connack(const conformance::Received &packet);
    void begin_session(const conformance::Received &packet);
    void check_publish(const conformance::Received &packet);
    void check_in_flight(const conformance::Received &packet);
    void check_wanted(const std::string &topic, const conformance::Received &packet) const;
    void check_answer(const conformance::Received &packet);
    void check_pubrel(const conformance::Received &packet);
    void note_unanswered(const std::string &id);
    void leave();
    void forget_connection();

    World                                     &world_;
    net::Connection                            connection_{};
    int                                        end_   = -1;
    bool                                       reads_ = true;
    std::vector<uint8_t>                       to_broker_;     // less than a packet
    std::vector<uint8_t>                       from_broker_;   // likewise
    std::shared_ptr<KnownSession>              session_;       // once it was accepted
    std::map<std::string, KnownSession::Asked> early_filters_; // before it was

    // Of its CONNECT.
    std::optional<std::string> asked_for_; // an id, until CONNACK
    std::string                id_;
    codec::standard::Level     level_          = codec::standard::Level::Mqtt5;
    bool                       said_connect_   = false;
    bool                       clean_          = true;
    uint32_t                   expiry_s_       = 0;
    size_t                     most_bytes_     = SIZE_MAX;
    size_t                     most_in_flight_ = 65535;
    uint32_t                   most_aliases_   = 0;

    // Of this connection.
    bool                                         was_answered_ = false; // CONNACK came
    bool                                         is_over_ = false; // DISCONNECT or a refusal came: nothing may follow
    bool                                         got_pingresp_ = false;
    uint16_t                                     last_id_      = 0;
    std::map<uint16_t, unsigned>                 in_flight_; // to it: QoS
    std::map<uint32_t, std::string>              aliases_;   // to it
    std::map<std::pair<unsigned, uint16_t>, int> asked_;     // by it: answers of this type that may come
    std::deque<Owed>                             owed_;
    std::deque<uint16_t>                         to_release_; // its own publications at QoS 2
};

} // namespace tarn::fuzz

#endif
