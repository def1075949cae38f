// client_internal.h - what the files of the client manager share: the guards that stand beside each pool record, the
// memory behind records and rings, the two tables, and the seams between sending, closing and the scans.
//
// The exported records and arrays are the truth. What stands here is hidden state by pool index; a record outside the
// pool has none of its own, and every guard lets it pass.
//
// Locks, outermost first: one of g_client_mgr.locks; session_mutex; send_lock or will_lock of one record; leaves
// pool_mutex, bucket_mutex, id_mutex within it, and g_loans_mutex (ring_loans.cpp) with the arena's own within it. None
// is ever destroyed.
#ifndef TARN_CLIENT_CLIENT_INTERNAL_H
#define TARN_CLIENT_CLIENT_INTERNAL_H

#include "../base/mutex.h"
#include "../base/relaxed.h"
#include "../codec/packet_type.h"
#include "../log/log.h"
#include "life.h"

#include <atomic>

namespace tarn::client {

constexpr int32_t  kBlocksMax = CLIENT_MAX / CLIENT_BLOCK_RECORDS;
constexpr uint32_t kFailed    = 0xFFFFFFFF;
constexpr int32_t  kOutside   = -1; // pool index of a record that is not in the pool

// ---- guards beside a record (pins.cpp)

extern Mutex bucket_mutex; // entries of by_cid, and the chains behind them

// The DISCONNECT of the broker's that ends a connection; see end_with_disconnect().
enum class LastPacket : uint8_t { None, Announced, Queued };

// What stands beside the pins in Side::hold.
enum Mark : uint32_t {
    kClaimed     = 1u << 28, // one thread closes the client or ends its wait for a will
    kWillDelayed = 1u << 29, // waits for its delayed will and is counted in will_scan.cpp
    kReleased    = 1u << 30, // its life is over; the last unpin wipes the texts and frees the place
    kWiping      = 1u << 31, // nobody may pin
};

struct Side {
    std::atomic<uint32_t> pins_and_marks; // pins and marks: see pins.cpp
    Shared<uint32_t>      generation;     // of the connection the record was made for, 0 = unknown
    Shared<uint32_t>      blocked_round;  // the I/O round in which its socket took nothing
    std::atomic<uint8_t>  listed;         // in the send list
    std::atomic<uint8_t>  awaits_retry;   // its socket took no more, and the send thread tries again
    std::atomic<uint8_t>  refusals;       // failed sends in a row, other than "would block"
    uint8_t               flushing;       // one thread sends from the ring; send_lock
    LastPacket            last_packet;    // send_lock
    uint8_t               sent_until;     // with LastPacket::Queued: slot behind the last that is sent; send_lock
    std::atomic<int32_t>  next_listed;    // behind it in the send list: index + 1, 0 = end
    std::atomic<int32_t>  subs_high;      // session.subs[] and .msgs[] are zero from here on
    std::atomic<int32_t>  msgs_high;
    Shared<uint32_t>      keepalive_ms; // the record's, when its memory was given back: the next client's until CONNECT
    Shared<int32_t>       will_bucket;  // in which its delayed will is counted, while it has the mark kWillDelayed
    int32_t bucket        GUARDED_BY(bucket_mutex); // whose chain the record is in, + 1; 0 = in none
    int32_t newer         GUARDED_BY(bucket_mutex); // its neighbours there: index + 1, 0 = end
    int32_t older         GUARDED_BY(bucket_mutex);
    Mutex                 session_mutex; // the embedded session record
    Mutex                 id_mutex;      // client_id and ip
};

int32_t index_of(const mqtt_client_t *client) noexcept; // pool index, or kOutside
Side   *side_of(const mqtt_client_t *client) noexcept;  // null outside the pool
// The same, but all records outside the pool share one. Only its locks are used; the rest of it stays zero.
Side        &guards_of(const mqtt_client_t &client) noexcept;
inline Side &guards_of(const client_ref &client) noexcept
{
    return client.side() ? *client.side() : guards_of(*client);
}
Side          &side_at(int32_t index) noexcept;
mqtt_client_t *record_at(int32_t index) noexcept;

// True for the one caller that set the mark, or took it away. A record outside the pool has none: true always.
bool               set_mark(const mqtt_client_t &client, Mark mark) noexcept;
bool               clear_mark(const mqtt_client_t &client, Mark mark) noexcept;
[[nodiscard]] bool has_mark(const mqtt_client_t &client, Mark mark) noexcept;
[[nodiscard]] bool has_mark(const Side &side, Mark mark) noexcept;
// True when nobody holds or wipes the record: it may be given to a new client.
[[nodiscard]] bool is_idle(int32_t index) noexcept;
// Keeps everybody else from pinning, if nobody does now. wipe_done() lets them again.
[[nodiscard]] bool try_begin_wipe(int32_t index) noexcept;
void               wipe_done(int32_t index) noexcept;

// ---- the id's text (client_id.cpp)

Mutex &id_mutex(const mqtt_client_t &client) noexcept;
// The id as it stands in the record, also after release; id_of() shows a released record's as empty.
client_id_text stored_id(const mqtt_client_t &client) noexcept;
void           store_id(mqtt_client_t &client, const char *client_id) noexcept;

// ---- the embedded session record (session.cpp)

// Clears id, will flag and counts, so that the session is nobody's. The lists stay as they are until clear_session.
void empty_session(mqtt_client_t &client) noexcept;
// Of a record whose memory reads as zero again.
void forget_written(Side &side) noexcept;

// ---- memory (arena.cpp)

constexpr size_t whole_pages(size_t bytes)
{
    constexpr size_t kPage = 4096;
    return (bytes + kPage - 1) / kPage * kPage;
}
// A range of addresses that stays for the life of the process, made when first asked for; null when it cannot be.
char *reserved(std::atomic<char *> &area, size_t bytes, int protection) noexcept;

// Makes the records of a block usable; they are zero until written. False when the system gives no memory.
[[nodiscard]] bool  open_block(int32_t block) noexcept;
mqtt_client_t      *records_of(int32_t block) noexcept;
void                give_back_block(int32_t block) noexcept;         // the records read as zero afterwards
client_send_slot_t *make_ring(const mqtt_client_t &client) noexcept; // zeroed slots, or null
client_send_slot_t *own_ring(int32_t index) noexcept; // that of a pool record; null for others, and before one was made
// Frees a ring of this record's. The ring is not used by anyone any more.
void free_ring(const mqtt_client_t &client, client_send_slot_t *ring) noexcept;
// Gives back the pages of the record's ring, with the packets in it, if it is one that can do that and nobody sends.
void trim_ring(mqtt_client_t &client) noexcept REQUIRES(client.send_lock);

// ---- memory lent to rings that have packets in them (ring_loans.cpp)

// A packet is about to be queued into the ring, which is empty.
void lend_ring(mqtt_client_t &client) noexcept REQUIRES(client.send_lock);
// Its last packet was sent.
void ring_is_empty(mqtt_client_t &client) noexcept REQUIRES(client.send_lock);
// False: it was not lent.
bool free_lent_ring(const client_send_slot_t *ring, bool is_empty) noexcept;

// ---- the pool (pool.cpp)

extern Mutex pool_mutex; // the block list, used flags and counts

// A record's place in its block. Empty for a record of no block.
struct Place {
    client_pool_block_t *block = nullptr;
    int32_t              at    = 0;
    explicit             operator bool() const { return block != nullptr; }
    mqtt_client_t       &record() const { return block->records[at]; }
    Shared<uint8_t>     &used_flag() const { return block->used_flags[at]; }
};
Place place_of(const mqtt_client_t &client) noexcept;

enum class Taken { Place, TableFull, NoPlace };
Taken take_place(Place &place, int32_t &used_count) noexcept EXCLUDES(pool_mutex); // the lowest free one
void  give_place_back(const Place &place) noexcept EXCLUDES(pool_mutex);

[[nodiscard]] bool make_block_list() noexcept;         // empty, with room for the largest pool; false without memory
[[nodiscard]] bool fill_pool(int32_t blocks) noexcept; // false without memory for that many blocks
// Empties the manager: block list, counts, tables; every record is released and its memory given back.
void unlink_pool() noexcept;

// The record at this place in pool order; null behind the last block.
mqtt_client_t *record_in_order(int32_t place) noexcept;
// The next record at or after `place` whose used flag is set in its block, not pinned; null at the end. `place` is
// moved behind it. Records that nobody uses are not even read: they have no pages.
mqtt_client_t *next_flagged(int32_t &place) noexcept;

// ---- network events (network_events.cpp)

// A record with the address of the connection's peer, pinned.
client_ref create_client_of(net::Connection connection, broker_t *broker) noexcept;

// ---- tables (lookup.cpp)

uint32_t hash_of(const char *client_id) noexcept;
Mutex   &mutex_of_handle(uint32_t handle) noexcept;
// Takes the edge, under the lock of its handle, and the record out of both tables, where the entries are its own.
void leave_tables(mqtt_client_t &client, const Edge &edge) noexcept;
void clear_tables() noexcept;

// ---- records that share an entry of by_cid (id_buckets.cpp)

// Makes the bucket's entry name this record. Does nothing if the client was closed since its state was `seen_state`,
// because the close has left the tables already and would not remove the entry again.
void enter_bucket(mqtt_client_t &client, uint32_t hash, uint32_t seen_state) noexcept;
// Takes the record out of its chain. If the bucket's entry names it, the newest online record of the chain gets the
// entry; if there is none, the entry stays.
void leave_chain(mqtt_client_t &client) noexcept;
// If the bucket's entry names this record, gives it to the newest online record of the chain, or sets it to null.
void leave_entry(mqtt_client_t &client, uint32_t hash) noexcept;
// Looks through the chain, for profiles that find each client.
client_ref find_in_chain(uint32_t hash, const char *client_id) noexcept;
void       clear_buckets() noexcept;

// ---- sending (send_ring.cpp, send_list.cpp, send_thread.cpp, round_flush.cpp)

enum class Flushed {
    Drained, // nothing left
    Partly,  // 100 packets sent, more left
    Full,    // the socket takes no more
    Refused, // the connection takes none
    Busy,    // another thread sends for this client and will see what is queued
};
// Sends up to 100 packets. With online_only nothing leaves a ring whose client is not online.
Flushed flush_ring(mqtt_client_t &client, bool online_only) noexcept;
// The same, never Busy: waits for another thread's flush, which is one non-blocking write and may have looked before
// the latest packets came.
Flushed flush_when_free(mqtt_client_t &client, bool online_only) noexcept;
// Returns when no thread is sending from this ring. Nobody starts again once the client is not online.
void wait_for_flusher(mqtt_client_t &client) noexcept;
// Frees the ring, now or when the thread that sends from it is done.
void               drop_ring(mqtt_client_t &client) noexcept;
[[nodiscard]] bool has_packets(mqtt_client_t &client) noexcept;
[[nodiscard]] bool is_full(mqtt_client_t &client) noexcept; // its ring

// The send list: the records of the pool with packets that no thread has tried to send yet, each once. The thread that
// drains it takes all of them, oldest first. Each is off the list before it is served, so that a packet which comes
// behind the flush lists it again.
bool list_for_sending(int32_t index) noexcept; // false: it was listed already
// The list as a chain of index + 1, linked by Side::next_listed; 0 = it is empty.
int32_t take_send_list() noexcept;

// ---- memory that is needed soon (prefetch.cpp)

void prefetch_to_write(client_send_slot_t &slot) noexcept;
void prefetch_to_read(const client_send_slot_t &slot) noexcept;
void prefetch_to_send(mqtt_client_t &client) noexcept; // the first packets in its ring

template <class Serve> void drain_send_list(Serve serve)
{
    for (int32_t link = take_send_list(); link != 0;) {
        const int32_t index = link - 1;
        Side         &side  = side_at(index);
        link                = side.next_listed.load(std::memory_order_relaxed);
        if (link != 0)
            prefetch_to_send(*record_at(link - 1));
        side.listed.store(0);
        serve(index);
    }
}

void start_send_thread() noexcept;                // unless it runs
void stop_send_thread() noexcept;                 // waits for it
void hand_to_send_thread(int32_t index) noexcept; // lists the record and wakes the thread, unless it awaits a retry
void wake_send_thread() noexcept;                 // it drains the list
// What this flush left in the ring is the send thread's.
void hand_over_rest(mqtt_client_t &client, Flushed result) noexcept;

// Which thread serves a packet (packet_way.cpp): asked by the network layer about the types of kAskedTypes and about the
// end of a connection, for which the packet is empty.
constexpr uint16_t kAskedTypes = 1 << CONNECT | 1 << SUBSCRIBE | 1 << DISCONNECT;
net::Choice        way_of(net::Connection connection, std::span<const uint8_t> packet) noexcept;

void use_network_hooks() noexcept; // those of the profile in use
void begin_io_round() noexcept;    // called by the network layer
void end_io_round() noexcept;
bool send_in_io_round() noexcept; // what is queued, if that is for few
// The number of the I/O round that the calling thread is in, which drains the send list at its end; 0 outside one.
[[nodiscard]] uint32_t io_round() noexcept;
void                   list_in_round(int32_t index) noexcept;
// What a lane thread queues for the client whose packet it serves leaves when the packet is done, and not with the list,
// which other threads drain meanwhile: the client is not to answer before the broker is through. See send_kept_answer().
[[nodiscard]] bool is_own_answer(const mqtt_client_t &client) noexcept;
void               keep_answer(int32_t index) noexcept;
// For the send thread, every turn: false when no round has queued anything for a while. list_in_round wakes the thread
// then. `quiet_turns` is the caller's count.
bool rounds_are_watched(int &quiet_turns) noexcept;

// ---- answers that wait for the disk (held_answers.cpp)

[[nodiscard]] bool has_held_answers(const mqtt_client_t &client) noexcept;
// The client's next packet (empty: its end) is to wait: what begins or ends a session comes when all that was promised
// before is kept, and a client that publishes faster than the disk saves is not read meanwhile.
[[nodiscard]] bool waits_for_disk(const mqtt_client_t &client, std::span<const uint8_t> packet) noexcept;
void               drop_held_answers(mqtt_client_t &client) noexcept; // its life has ended

// ---- wills and scans (will_store.cpp, will_scan.cpp, timeout_scan.cpp)

void free_will_texts(mqtt_client_t &client) noexcept REQUIRES(client.will_lock);
void count_delayed_will(mqtt_client_t &client, uint64_t due_at_ms) noexcept;
void uncount_delayed_will(mqtt_client_t &client) noexcept;

void delete_expired_sessions() noexcept; // expired_sessions.cpp

// ---- the lines of wrong arguments, null pointers among them (activity.cpp, will_store.cpp)

void log_wrong_keepalive(uint32_t handle, int state) noexcept;
void log_wrong_will(const mqtt_client_t *client, const Will &asked) noexcept;

} // namespace tarn::client

#endif
