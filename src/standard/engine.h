// engine.h - what the files of the engine share: all that runs while the standard profile is on, its one mutex, and the
// seams between receiving, routing, sending and ending.
//
//   serve.cpp        what the network layer tells: opened, packet, closed
//   connect.cpp      CONNECT: who the client is, what is agreed on, what becomes of its session
//   publish.cpp      PUBLISH, and each other way in which a message comes about
//   route.cpp        who gets a message
//   forward.cpp      the short way of a message into outboxes
//   acknowledge.cpp  PUBACK, PUBREC, PUBREL, PUBCOMP
//   subscribe.cpp    SUBSCRIBE and UNSUBSCRIBE
//   give_retained.cpp  the retained messages that a subscription begins with
//   send.cpp         packets into outboxes, outboxes into sockets
//   end.cpp          the end of a connection, of a session, and what is due by the clock
//   will.cpp         wills
//   standard.cpp     start, stop, and what hosts call
//
// Locks: engine_mutex comes first. Under it the network layer's, the client manager's and the journal's are taken; no
// callback of the host runs and no disk is waited for.
#ifndef TARN_STANDARD_ENGINE_H
#define TARN_STANDARD_ENGINE_H

#include "records/checkpoint.h"
#include "connection.h"
#include "records/recorder.h"
#include "state/state.h"
#include "stored_id.h"

namespace tarn::standard {

using codec::standard::Reason;

extern Mutex engine_mutex;

// An event of the host's, to be told without the mutex.
struct ToldWill {
    ToldWill      *next = nullptr;
    MessageRef     message;
    client_id_text client;
};

// Deliveries at QoS 1 and 2 on the way to one client, whatever it takes.
constexpr uint16_t kInFlightMost = 4096;

constexpr size_t kOutboxMost = size_t{256} << 10; // bytes of deliveries in an outbox; a longer one goes alone
constexpr size_t kHeadMost   = 64;                // bytes of a PUBLISH beside topic, properties and payload

// Bytes that the short way (forward.h) copies for all connections before they are flushed. A queue refers to a message
// that many are to have, and costs less memory.
constexpr size_t kForwardedMost = size_t{16} << 20;

struct Engine {
    explicit Engine(const Limits &limits) noexcept : state(limits), recorder(journal), checkpointer(state, journal) {}

    State        state;
    Journal      journal;
    Recorder     recorder;
    Checkpointer checkpointer;

    DueHeap<Connection>        silent;                // those that must have said something by then
    Connection                *listed      = nullptr; // to be flushed, in this order
    Connection                *last_listed = nullptr; // of these, while there are any
    Connection                *waiting     = nullptr; // for the journal
    Connection                *later       = nullptr; // to be listed at the next turn()
    ToldWill                  *told_wills  = nullptr;
    broker_t                  *broker      = nullptr; // of the latest connection
    GrowArray<net::Connection> ending;                // to be closed without the mutex
    GrowArray<uint8_t>         scratch;               // a packet that is being written
    GrowArray<uint8_t>         forwarded;             // the message that is being routed, encoded (forward.h)

    size_t forwarded_bytes = 0; // that the short way copied since outboxes were last flushed

    uint32_t sent = 0; // packets put into outboxes, to be counted before any of them leaves

    uint64_t synced     = 0;     // the journal is on the disk up to here, as far as is known
    bool     is_waiting = false; // `journal_waiter` is to be told
    struct JournalWaiter : persist::SaveWaiter {
        uint64_t position = 0;
    } journal_waiter;

    bool told_retained_full = false; // a line said so

    int64_t retained_us = kRetained_us; // what giving retained messages may take until the next turn()

    static constexpr int64_t kRetained_us = 2'000;
};

Engine *running_engine() noexcept REQUIRES(engine_mutex); // null: the profile is not on

// One entry into the engine, with its mutex. At its end what was queued leaves, unless a round of the network layer sends
// it with the rest; then, without the mutex, connections are closed and the host is told.
class SCOPED_CAPABILITY Turn {
public:
    Turn() noexcept ACQUIRE(engine_mutex);
    ~Turn() RELEASE();
    Turn(const Turn &)            = delete;
    Turn &operator=(const Turn &) = delete;

    explicit operator bool() const noexcept { return engine_ != nullptr; } // false: the profile is not on
    Engine  *operator->() const noexcept { return engine_; }
    Engine  &operator*() const noexcept { return *engine_; }

private:
    Engine *engine_;
};

// ---- connections (serve.cpp)

// The object of this handle, which stays; null if there never was one.
Connection *connection_at(uint32_t handle) noexcept;

// ---- CONNECT and all others, each with a whole packet (connect.cpp, publish.cpp, ...). The mutex is not held.

struct Incoming {
    Connection            &connection;
    codec::standard::Bytes packet;
};
void handle_connect(const Incoming &incoming) noexcept;
void handle_publish(const Incoming &incoming) noexcept;
void handle_ack(const Incoming &incoming) noexcept;
void handle_subscribe(const Incoming &incoming) noexcept;
void handle_unsubscribe(const Incoming &incoming) noexcept;
void handle_pingreq(const Incoming &incoming) noexcept;
void handle_disconnect(const Incoming &incoming) noexcept;
void handle_auth(const Incoming &incoming) noexcept;

// Ends the connection for a packet that breaks a rule, with a line at INFO.
void refuse_packet(Connection &connection, const codec::standard::Verdict &verdict) noexcept;

// ---- messages (publish.cpp, route.cpp)

struct Publication {
    Draft   &draft;
    Session *sender       = nullptr; // the session it came from; null: the host, or a will
    uint16_t packet_id    = 0;       // that the sender holds at QoS 2
    bool     has_answer   = false;   // the sender is told whether it is done
    bool     is_refusable = false;   // and that it cannot be retained; else the rest is done
};
enum class PublishResult : uint8_t {
    Done,
    NobodyThere,
    QueueFull,    // nobody who should have it has room for it
    RetainedFull, // nothing was done
    NotRecorded,  // the journal takes no more, and nothing was done; or memory for the record was short
};
// Gives the message to all who are to have it, keeps it if it is retained, and records that.
PublishResult publish(Engine &engine, const Publication &publication) noexcept REQUIRES(engine_mutex);

struct Routed {
    size_t receivers = 0;
    size_t refused   = 0; // of these, those whose queue is full, at QoS 1 and 2
};
Routed route(Engine &engine, Draft &draft) noexcept REQUIRES(engine_mutex);
// Into the queue of one session that subscribed. False: it should have it and does not get it.
bool deliver(Engine &engine, Session &session, const MessageRef &message, const SubscriptionOptions &options,
             bool retain) noexcept REQUIRES(engine_mutex);

// ---- sending (send.cpp)

// Queues a packet that leaves when the journal is on the disk up to `journaled`. What cannot be queued for want of memory
// ends the connection.
template <class Packet>
void send(Engine &engine, Connection &connection, const Packet &packet, uint64_t journaled = 0) noexcept
    REQUIRES(engine_mutex);
void send_bytes(Engine &engine, Connection &connection, codec::standard::Bytes packet, uint64_t journaled = 0,
                const Outbox::Tail &tail = {}) noexcept REQUIRES(engine_mutex);
void send_ack(Engine &engine, Connection &connection, PacketType type, uint16_t packet_id,
              Reason reason = Reason::Success, uint64_t journaled = 0) noexcept REQUIRES(engine_mutex);
// Whether the message keeps to the client's Maximum Packet Size, as it would be sent to this subscription of it.
bool fits(const Connection &connection, const MessageParts &message, const SubscriptionOptions &options) noexcept;
// Its session has something for it, or its socket takes bytes again.
void list_for_flush(Engine &engine, Connection &connection) noexcept REQUIRES(engine_mutex);
// The same at the next turn(), for what would hold others up.
void list_for_later(Engine &engine, Connection &connection) noexcept REQUIRES(engine_mutex);
void list_those_for_later(Engine &engine) noexcept REQUIRES(engine_mutex);
// The last that a connection sends.
void send_what_may_leave(Engine &engine, Connection &connection) noexcept REQUIRES(engine_mutex);
// It cannot go on, for want of memory or since its socket is broken: it is dropped when it would be flushed.
void fail(Engine &engine, Connection &connection) noexcept REQUIRES(engine_mutex);
void flush_listed(Engine &engine) noexcept REQUIRES(engine_mutex);
// Retained messages for new subscriptions of the session, as many as go now (give_retained.cpp).
void give_retained(Engine &engine, Session &session) noexcept REQUIRES(engine_mutex);
// Counts what this thread received; in a round that waits for its end.
void count_received() noexcept;
void count_received_publish(uint8_t qos) noexcept;
// Counts what was dropped since the last time.
void count_drops(Session &session) noexcept;
// Flushes those that wait for the journal when it is on the disk.
void watch_journal(Engine &engine) noexcept REQUIRES(engine_mutex);
// The thread is in a round of the network layer, which flushes at its end.
void begin_round() noexcept;
void end_round() noexcept;
bool send_in_round() noexcept; // flushes now, if what is there is for few
void flush_now_or_with_round(Engine &engine) noexcept REQUIRES(engine_mutex);

// ---- ends (end.cpp, will.cpp)

enum class WithWill : bool { No, Yes };
// Tells a 5.0 client why, publishes its will or lets it wait, and closes.
void end_connection(Engine &engine, Connection &connection, Reason reason, WithWill will = WithWill::Yes) noexcept
    REQUIRES(engine_mutex);
// The same without a word: the client has gone, or cannot be told.
void drop_connection(Engine &engine, Connection &connection, WithWill will) noexcept REQUIRES(engine_mutex);
// The first half of that: its session is without it, and the caller closes.
void leave(Engine &engine, Connection &connection, WithWill will) noexcept REQUIRES(engine_mutex);
// With its subscriptions, deliveries, and will, which is published.
void end_session(Engine &engine, Session &session) noexcept REQUIRES(engine_mutex);
// The session of a client that went, until it comes back: what is due of it by then.
void set_due(Engine &engine, Session &session) noexcept REQUIRES(engine_mutex);

void publish_will(Engine &engine, Session &session) noexcept REQUIRES(engine_mutex);

// ---- what the files of packets share

// A packet of any length, as `Packet` says it, in memory until the next one.
template <class Packet>
codec::standard::Bytes encoded(Engine &engine, const Packet &packet, const codec::standard::Receiver &receiver) noexcept
{
    const size_t size = codec::standard::size_of(packet, receiver);
    if (size == 0 || !engine.scratch.reserve(size))
        return {};
    return {engine.scratch.data(), encode(packet, receiver, {engine.scratch.data(), size})};
}

// What the client does not take, or for which there is no memory, ends the connection.
template <class Packet>
void send(Engine &engine, Connection &connection, const Packet &packet, uint64_t journaled) noexcept
{
    const codec::standard::Bytes bytes = encoded(engine, packet, connection.receiver());
    if (bytes.empty())
        return fail(engine, connection);
    send_bytes(engine, connection, bytes, journaled);
}

} // namespace tarn::standard

#endif
