// client.hpp - client records, for the other modules of the library. Hosts have the same as client.h: client_c.cpp turns
// away null pointers, pins, calls this, and makes plain numbers of the results.
//
// A record is never freed, only released and used again for another client. A pin prevents that: texts and ring stay
// this client's while it lasts. Every function that finds a record pins it in the same step. A caller that passes a
// record holds a pin of it, where nothing else is said. Pins of a record outside the pool (a caller's own) do nothing.
//
// No pointer may be null where nothing else is said. Locks are as client.h says.
#ifndef TARN_CLIENT_CLIENT_HPP
#define TARN_CLIENT_CLIENT_HPP

#include "../base/relaxed.h"
#include "client.h"
#include "profile.h"

#include <span>
#include <utility>

namespace tarn {

namespace client {
struct Side; // what stands beside a record of the pool
}

// ---- pins (pins.cpp)

// A pin where no client_ref may stand: who has it gives it to one again. Null: none.
struct LoosePin {
    mqtt_client_t *client;
    client::Side  *side;
};

class client_ref {
public:
    client_ref() = default;
    explicit client_ref(LoosePin pin) noexcept : client_(pin.client), side_(pin.side) {}
    explicit client_ref(mqtt_client_t *client) noexcept { pin(client); }
    client_ref(client_ref &&other) noexcept : client_(other.client_), side_(other.side_) { other.client_ = nullptr; }
    client_ref &operator=(client_ref &&other) noexcept
    {
        if (this == &other)
            return *this;
        if (client_)
            reset();
        client_       = other.client_;
        side_         = other.side_;
        other.client_ = nullptr;
        return *this;
    }
    client_ref(const client_ref &)            = delete;
    client_ref &operator=(const client_ref &) = delete;
    ~client_ref()
    {
        if (client_)
            reset();
    }

    void           pin(mqtt_client_t *client) noexcept; // of an empty one; the caller knows that the record is alive
    void           reset() noexcept;                    // unpins
    LoosePin       let_go() noexcept { return {std::exchange(client_, nullptr), side_}; }
    explicit       operator bool() const noexcept { return client_ != nullptr; }
    mqtt_client_t *get() const noexcept { return client_; }
    mqtt_client_t *operator->() const noexcept { return client_; }
    mqtt_client_t &operator*() const noexcept { return *client_; }
    client::Side  *side() const noexcept { return side_; } // null: the record is outside the pool

private:
    mqtt_client_t *client_ = nullptr;
    client::Side  *side_   = nullptr; // as long as there is a client
};

// True from the release of a pool record until it is used again. What is added for it meanwhile would be lost or reach
// the next client. Never true for a record outside the pool.
[[nodiscard]] bool is_released(const mqtt_client_t *client) noexcept;

// ---- finding (lookup.cpp, pool.cpp)

// As client.h says, found and pinned in one step under the table's lock.
client_ref find_client_by_handle(uint32_t handle) noexcept;
client_ref find_client_by_id(const char *client_id) noexcept;

// A client found by its handle, or by its id, for one packet. Packets come in runs, from one client and to one: so a
// thread of the network layer keeps the last client of each kind pinned until its round ends or the client is closed,
// and the next packet has it without the table's lock, if it is still the one that the table names.
class RoundClient {
public:
    explicit RoundClient(uint32_t handle) noexcept;
    explicit RoundClient(const char *client_id) noexcept;
    ~RoundClient();
    RoundClient(const RoundClient &)            = delete;
    RoundClient &operator=(const RoundClient &) = delete;

    RoundClient &operator=(client_ref &&client) noexcept
    {
        client_ = std::move(client);
        return *this;
    }
    explicit          operator bool() const noexcept { return static_cast<bool>(client_); }
    const client_ref &ref() const noexcept { return client_; }
    mqtt_client_t    *get() const noexcept { return client_.get(); }
    mqtt_client_t    *operator->() const noexcept { return client_.get(); }
    mqtt_client_t    &operator*() const noexcept { return *client_; }

private:
    explicit RoundClient(LoosePin *kept) noexcept;

    LoosePin  *kept_; // where the thread keeps it; null outside a round
    client_ref client_;
};
// The end of a round, or of a client that the thread has closed.
void drop_round_clients() noexcept;

// The next used record in pool order at or after `index` (0 at first), pinned; empty at the end. `index` is moved
// behind it.
client_ref next_client(int32_t &index) noexcept;

// ---- the id (client_id.cpp)

// The id as text of its own, copied under the record's id lock: for threads other than the client's own.
struct client_id_text {
    char text[CODEC_CLIENT_ID_MAX + 1];
};
client_id_text id_of(mqtt_client_t &client) noexcept;

// ---- the embedded session record (session.cpp)

// Lock that guards the embedded session record against a second thread; held for writes of `session` and for saving
// it, never across a callback. For a record outside the pool a lock that all such records share.
Mutex &session_mutex(const mqtt_client_t &client) noexcept;

// Zeroes the embedded session record, touching only memory that was written before. session_mutex held.
void clear_session(mqtt_client_t &client) noexcept;
// To be called before subs[] or msgs[] is filled up to these counts, so that clear_session knows how much to zero.
void session_written(mqtt_client_t &client, int32_t sub_count, int32_t msg_count) noexcept;
// Sets both counts to 0 and leaves the lists as they are. session_mutex held.
void empty_session_lists(mqtt_client_t &client) noexcept;

// ---- its life (life.cpp; close_seen: close.cpp)

[[nodiscard]] inline bool is_online(mqtt_client_t &client) noexcept
{
    const uint32_t state = client.state;
    return state == CLIENT_CONNECTED || state == CLIENT_LOGINED;
}

// Makes the record logged in, unless it was closed meanwhile (false).
[[nodiscard]] bool mark_logged_in(mqtt_client_t &client) noexcept;

// Closes a client that the caller saw in this state. Does nothing if another thread has closed it since, even if the
// record still waits for its will.
void close_seen(mqtt_client_t &client, uint32_t seen_state) noexcept;

namespace client {

// The right to close a client, or to end its wait for a delayed will. One thread at a time has it; it checks again what
// it saw before it had the claim. For a record outside the pool every thread gets it.
class Claim {
public:
    explicit Claim(mqtt_client_t &client) noexcept; // takes it, if nobody has it. The caller's pin lasts longer.
    ~Claim();
    Claim(const Claim &)            = delete;
    Claim &operator=(const Claim &) = delete;

    explicit       operator bool() const noexcept { return client_ != nullptr; }
    mqtt_client_t &client() const noexcept { return *client_; }

private:
    mqtt_client_t *client_; // null: another thread has it
};

// Ends a record that waits for its will: out of both tables, CLOSED, no longer counted as delayed, released.
void end_wait(const Claim &claim) noexcept;

// The same for a pool record whose delay was called off while another thread was about to let it wait or had the claim;
// no scan would find it any more. CONNECT calls this after it called the delay off, and ~Claim for what happened while
// it lasted. Takes will_lock.
void release_called_off(mqtt_client_t &client) noexcept;

} // namespace client

// ---- delayed wills (will_scan.cpp)

// False while no delayed will can be due: what the housekeeping thread asks before it scans the pool.
[[nodiscard]] bool will_delays_running() noexcept;

// False while no closed client of this id waits for its delayed will: what CONNECT asks before it looks for one to
// cancel. True may mean an id that shares the bucket, and on a host's thread any id: it may have edited records.
[[nodiscard]] bool wills_are_delayed(const char *client_id) noexcept;

// ---- a message for many (prefetch.cpp)

// Has the processor fetch what a delivery touches of its receiver, some deliveries before. Finds and pins nobody.
class ReceiverPrefetch {
public:
    static constexpr int kAhead = 8; // deliveries

    void next(const char *client_id) noexcept; // the receiver kAhead deliveries from now

private:
    mqtt_client_t *records_[kAhead]{}; // of the last ones that were asked for
    int            at_ = 0;
};

// ---- sending (send_ring.cpp)

// A packet that lies in two places: what stands before the payload, or all of it, and the payload.
struct PacketParts {
    std::span<const uint8_t> head;
    std::span<const uint8_t> payload = {};
};

// Queues the packet and sees to its sending; 0, or 0xFFFFFFFF when it was dropped.
uint32_t send_to(mqtt_client_t &client, const PacketParts &packet) noexcept;
// The same for the answer to a packet of the client's, PACKET_REPLY_SIZE bytes at most: behind its answers that wait for
// the disk (held_answers.cpp), and then it counts as sent.
uint32_t answer_client(mqtt_client_t &client, std::span<const uint8_t> answer) noexcept;

// The same in two steps, for callers that have something to do before the packet may leave: after queue_packet returned
// 0 they call see_to_sending soon.
uint32_t queue_packet(mqtt_client_t &client, const PacketParts &packet) noexcept;
void     see_to_sending(mqtt_client_t &client) noexcept;

// What a thread outside the I/O rounds does instead of see_to_sending() when it queues many packets for many clients in
// turn (send_batch.cpp). One thread at a time; zeroed memory is an empty batch.
class SendBatch {
public:
    enum class Part { Worthwhile, All }; // of the clients: those with many packets waiting, or each of them

    void add(mqtt_client_t &client) noexcept; // ignores a record outside the pool, as see_to_sending() does
    // Its ring should be sent before more is queued. Not true again before the next add(), nor of a client that takes
    // nothing: its ring fills up, and what comes then fails.
    [[nodiscard]] bool is_due(mqtt_client_t &client) const noexcept;
    // Sends on the calling thread, which holds no lock that a host's thread may wait for: it is a write for each client.
    void send(Part part) noexcept;

private:
    int32_t places_[CLIENT_MAX]; // each record at most once
    bool    has_[CLIENT_MAX];
    int32_t count_;
};

// Sends what the calling lane keeps for the client whose packet it serves until the packet is done, if it is a lane: all
// that is left to do is a callback of the host's, which may take long.
void send_kept_answer() noexcept;
// The same wherever the client's packet is served, within a round: what is queued for it leaves.
void send_answer_now(mqtt_client_t &client) noexcept;

// Makes the next DISCONNECT that is queued for this client the last packet sent to it; the caller closes the client
// next. What is queued behind it, such as the client's own will, stays in the ring. To a record outside the pool
// everything is sent.
void end_with_disconnect(mqtt_client_t &client) noexcept;

// Sends what is queued for this client now, on the calling thread, as far as the socket takes it.
void flush_client(mqtt_client_t &client) noexcept;

namespace client {

// ---- up and down (manager.cpp)

[[nodiscard]] bool init(int32_t max_clients) noexcept; // a line says what is wrong
void               deinit() noexcept;

// ---- what CONNECT says of a client (lookup.cpp, activity.cpp, will_store.cpp)

// CONNECT has the id before the client is found by it: the CONNACK is to be the first packet that leaves. send_first()
// is be_found() and send_to() at once, so that what other threads send to the id comes behind this packet. A client
// that was closed since it was in this state is not found.
void     take_id(mqtt_client_t &client, const char *client_id) noexcept; // an empty one is made up
void     be_found(mqtt_client_t &client, uint32_t seen_state) noexcept;
uint32_t send_first(mqtt_client_t &client, const PacketParts &packet) noexcept;
void     set_keepalive(mqtt_client_t &client, uint16_t seconds) noexcept;

struct Will {
    const char    *topic;
    const uint8_t *payload; // null makes the length 0
    uint32_t       payload_len;
    uint8_t        qos;
    uint8_t        retain;
};
void set_will(mqtt_client_t &client, const Will &will) noexcept;

struct WillProperties {
    uint32_t                 delay_s;
    uint32_t                 expiry_s;
    uint8_t                  payload_format;
    const char              *content_type;   // null leaves what is there, here and below
    const char              *response_topic; // may be null
    std::span<const uint8_t> correlation_data = {};
};
void set_will_properties(mqtt_client_t &client, const WillProperties &properties) noexcept;

// ---- a sign of life, and what comes of none (activity.cpp, timeout_scan.cpp, will_scan.cpp)

void     note_active(mqtt_client_t &client) noexcept;                           // needs no pin
uint32_t close_silent(uint64_t now_ms, uint32_t default_threshold_ms) noexcept; // a turn; returns how many
void     publish_due_wills(uint64_t now_ms) noexcept;

// ---- memory (pool.cpp, ring_loans.cpp)

// Gives back the records of each block of 100 that nobody has used since the call before: a closed client leaves some
// 5 KB in its record. Returns the number of blocks. Takes pool_mutex, for each of them.
int32_t give_back_unused_blocks() noexcept;
// Gives back what was lent to rings and is not needed since the call before.
void give_back_unused_rings() noexcept;

// ---- all clients (client_list.cpp)

int32_t  list_ids(char *buf, int32_t size) noexcept; // size 1 or more; returns the characters written
uint32_t count_online() noexcept;

} // namespace client
} // namespace tarn

#endif
