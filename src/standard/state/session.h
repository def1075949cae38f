// session.h - what the broker knows of one client identifier, connected or away (4.1).
#ifndef TARN_STANDARD_SESSION_H
#define TARN_STANDARD_SESSION_H

#include "deliveries.h"
#include "due_heap.h"
#include "hash_table.h"
#include "incoming.h"
#include "retained_queue.h"
#include "text_hash.h"

#include <string_view>

namespace tarn::standard {

struct Connection;
struct Session;

constexpr uint32_t kForever_s = 0xFFFFFFFF; // a session expiry interval that never ends

// A will as CONNECT had it. Its message expires from when it is published on.
struct StoredWill {
    MessageRef              message; // empty: there is none
    uint32_t                delay_s = 0;
    std::optional<uint32_t> expiry_s;
};

// Finds a session by its number.
struct SessionNumber : InTable<SessionNumber> {
    Session *session = nullptr;
};

// In the table by id, and in the heap while it is away and something of it is due: its will, or its end.
struct Session : InTable<Session>, InDueHeap {
    Session(uint64_t its_number, DeliveryPool &pool, const DeliveryBounds &bounds) noexcept
        : number(its_number), deliveries(its_number, pool, bounds)
    {
        by_number.session = this;
    }

    [[nodiscard]] bool is_kept() const { return expiry_s > 0; } // files know it
    // Something of it is to go into the outbox, or its queue may no longer be full.
    [[nodiscard]] bool wants_filling() const { return deliveries.has_waiting() || retained.first() || told_full; }

    std::string_view text;   // the client identifier, whole
    const uint64_t   number; // never used again
    SessionNumber    by_number;

    uint32_t            expiry_s   = 0;
    uint64_t            away_ms    = 0;       // wall clock; since when it is, 0 = connected
    Connection         *connection = nullptr; // null: away
    Deliveries          deliveries;
    IncomingIdentifiers incoming; // publications at QoS 2 that are not released
    StoredWill          will;
    RetainedQueue       retained; // that it is still to be given
    size_t              wildcard_subscriptions = 0;
    bool                is_known_to_files      = false;
    bool                told_full              = false; // a line said that its queue is full
    uint64_t            next_look_ms           = 0;     // when expired messages may be looked for again

    // All sessions in the order of their numbers: what a checkpoint walks along.
    Session *previous = nullptr;
    Session *next     = nullptr;
};

// All sessions. It owns them.
class Sessions {
public:
    Sessions()                            = default;
    Sessions(const Sessions &)            = delete;
    Sessions &operator=(const Sessions &) = delete;
    ~Sessions();

    // An id with its hash, for who looks for it more than once.
    struct Key {
        std::string_view id;
        uint64_t         hash;
    };
    Key key_of(std::string_view id) const noexcept { return {id, hash_(id)}; }

    Session *find(const Key &key) const noexcept;
    Session *find(std::string_view id) const noexcept { return find(key_of(id)); }
    Session *find(uint64_t number) const noexcept;

    // Of an id that has none; null without memory. `number` 0: the next one.
    [[nodiscard]] Session *make(const Key &key, const DeliveryBounds &bounds, uint64_t number = 0) noexcept;
    [[nodiscard]] Session *make(std::string_view id, const DeliveryBounds &bounds, uint64_t number = 0) noexcept
    {
        return make(key_of(id), bounds, number);
    }
    void destroy(Session &session) noexcept;

    // What is due of it by the wall clock. Without memory for the heap it stays until its client comes back.
    void     set_due(Session &session, uint64_t due_ms) noexcept;
    void     set_nothing_due(Session &session) noexcept { due_.remove(session); }
    Session *first_due(uint64_t now_ms) const noexcept; // or null

    size_t   count() const noexcept { return by_id_.size(); }
    size_t   count_kept() const noexcept { return kept_; } // as set_known_to_files() was told
    void     set_known_to_files(Session &session, bool is_known) noexcept;
    Session *first() const noexcept { return first_; }
    uint64_t last_number() const noexcept { return last_number_; }
    void     note_number(uint64_t number) noexcept { last_number_ = number > last_number_ ? number : last_number_; }

    // The session that a walk through all of them comes to next. It is moved on when that session goes.
    Session *&cursor() noexcept { return cursor_; }

private:
    // Blocks of sessions that ended: a client that comes and goes takes one up again, which another thread let go.
    static constexpr size_t kShortId   = 32; // bytes; a session with a longer id leaves none
    static constexpr size_t kSparesMax = 256;
    struct Spare {
        Spare *next;
    };
    void *take_block(size_t id_size) noexcept;
    void  give_back_block(void *block, size_t id_size) noexcept;

    TextHash                 hash_;
    HashTable<Session>       by_id_;
    HashTable<SessionNumber> by_number_;
    DeliveryPool             pool_;
    DueHeap<Session>         due_;
    Session                 *first_       = nullptr;
    Session                 *last_        = nullptr;
    Session                 *cursor_      = nullptr;
    uint64_t                 last_number_ = 0;
    size_t                   kept_        = 0;
    Spare                   *spares_      = nullptr;
    size_t                   spare_count_ = 0;
};

} // namespace tarn::standard

#endif
