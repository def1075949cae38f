// restore.h - makes state of what the journal's directory keeps.
#ifndef TARN_STANDARD_RESTORE_H
#define TARN_STANDARD_RESTORE_H

#include "records.h"
#include "../journal/replay.h"
#include "../state/state.h"

namespace tarn::standard {

// Fills an empty state. Afterwards each session is away, since when its record says or else since `now_ms`; the sink of
// its deliveries, and what is due of it, are for the caller to set. Bounds do not hold.
//
// Whatever the bytes are, the state is one that could be: what cannot be is passed over.
class Restorer final : public JournalVisitor {
public:
    Restorer(State &state, uint64_t now_ms) noexcept : state_(state), now_ms_(now_ms) {}
    Restorer(const Restorer &)            = delete;
    Restorer &operator=(const Restorer &) = delete;
    ~Restorer();

    bool record(uint8_t type, std::span<const uint8_t> bytes) noexcept override; // false without memory
    void finish() noexcept;                                                      // behind the last record

    [[nodiscard]] bool has_key() const noexcept { return has_key_; }

private:
    // Of a checkpoint, until the end: sessions and retained messages refer to it by its number.
    struct KnownMessage : InTable<KnownMessage> {
        MessageRef message;
    };
    // What became of a record or of a part of it.
    enum class Read : uint8_t {
        Done,
        Passed, // it is not whole, cannot be, or is about a thing that is not there
        NoMemory,
    };

    Read restore(RecordType type, FieldReader &reader) noexcept;
    Read restore_key(FieldReader &reader) noexcept;
    Read restore_counters(FieldReader &reader) noexcept;
    Read restore_session(FieldReader &reader, Session *&session) noexcept;
    Read restore_session_state(FieldReader &reader) noexcept;
    Read restore_session_gone(FieldReader &reader) noexcept;
    Read restore_subscribed(FieldReader &reader) noexcept;
    Read restore_unsubscribed(FieldReader &reader) noexcept;
    Read restore_message(FieldReader &reader) noexcept;
    Read restore_publication(FieldReader &reader) noexcept;
    Read restore_step(RecordType type, FieldReader &reader) noexcept;
    Read restore_released(FieldReader &reader) noexcept;
    Read restore_retained(FieldReader &reader) noexcept;

    Read read_message(FieldReader &reader, MessageRef &message) noexcept;
    Read read_delivery(FieldReader &reader, DeliveryRecord &delivery) noexcept;
    Read find_or_make(uint64_t number, std::string_view id, Session *&session) noexcept;
    Read hold(uint64_t sender, uint16_t packet_id) noexcept;
    Read retain(const MessageRef &message) noexcept;

    Session      *read_session_number(FieldReader &reader) const noexcept; // null: it is not there
    MessageRef    find_message(const MessageParts &parts) const noexcept;
    KnownMessage *find_known(uint64_t number) const noexcept;
    void          note_message_number(uint64_t number) noexcept;
    void          forget(Session &session) noexcept;
    void          forget_messages() noexcept;

    State                  &state_;
    uint64_t                now_ms_;
    bool                    has_key_ = false;
    HashTable<KnownMessage> messages_;
    GrowArray<uint32_t>     identifiers_; // of the delivery that was read last
};

} // namespace tarn::standard

#endif
