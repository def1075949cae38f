// recorder.h - appends to the journal what changed, so that restore.h makes the same state of it again. It writes of
// kept sessions alone (Session::is_kept), and the engine's mutex is held around all calls.
#ifndef TARN_STANDARD_RECORDER_H
#define TARN_STANDARD_RECORDER_H

#include "../journal/journal.h"
#include "records.h"
#include "../state/state.h"

namespace tarn::standard {

// What becomes of a publication beside its deliveries.
struct PublicationEffects {
    bool           is_retained = false;   // it is its topic's retained message; without payload: it has none
    const Session *sender      = nullptr; // that holds `packet_id`, at QoS 2; null or not kept: nothing is held
    uint16_t       packet_id   = 0;
};

class Recorder final : public DeliverySink {
public:
    explicit Recorder(Journal &journal) noexcept : journal_(journal) {}

    // Where the journal has the last record, or will have it, for those who wait until it is on the disk.
    [[nodiscard]] uint64_t position() const noexcept
    {
        return waiting_from_ == waiting_.size() ? position_ : position_behind_waiting();
    }

    // Records what waits because the journal had no room. To be called now and then; false: some of it waits still.
    bool catch_up() noexcept;

    // All false: there is no record, so that what changed must not be said to be kept.

    [[nodiscard]] bool key(const IdKey &key) noexcept; // of a new directory, before all else
    // The session is as it is now: made, come back, gone away, its will, how long it lasts.
    [[nodiscard]] bool session(const Session &session) noexcept;
    [[nodiscard]] bool session_is_gone(const Session &session) noexcept; // with all that it had
    [[nodiscard]] bool subscribed(const Session &session, std::string_view filter,
                                  const SubscriptionOptions &options) noexcept;
    [[nodiscard]] bool unsubscribed(const Session &session, std::string_view filter) noexcept;
    [[nodiscard]] bool released(const Session &session, uint16_t packet_id) noexcept; // PUBREL came
    [[nodiscard]] bool retained_is_gone(std::string_view topic) noexcept;

    // One record of a message and the deliveries that queued() is told of in between. Nothing is written if there are
    // none and no effects.
    void               begin_publication(const MessageRef &message) noexcept;
    [[nodiscard]] bool end_publication(const PublicationEffects &effects) noexcept;

    // ---- DeliverySink, of the deliveries of kept sessions. What a client acknowledged cannot be refused: if the
    // journal has no room for it, it waits here, and nothing is recorded before it.
    bool queued(uint64_t session, const DeliveryRecord &delivery) noexcept override; // false outside a publication
    void sent(uint64_t session, uint64_t number, uint16_t packet_id) noexcept override;
    void received(uint64_t session, uint64_t number, uint16_t packet_id) noexcept override;
    void done(uint64_t session, uint64_t number, uint16_t packet_id) noexcept override;

private:
    // Of a delivery.
    struct Step {
        RecordType type;
        uint16_t   packet_id;
        uint64_t   session;
        uint64_t   number;
    };

    uint64_t position_behind_waiting() const noexcept;

    bool append(RecordType type, RecordParts parts) noexcept;
    bool append_now(RecordType type, RecordParts parts) noexcept;
    bool append_now(const Step &step) noexcept;
    void append_or_keep(const Step &step) noexcept;

    Journal           &journal_;
    uint64_t           position_ = 0;
    MessageRef         message_;    // of the publication under way
    GrowArray<uint8_t> deliveries_; // of it, encoded
    GrowArray<Step>    waiting_;
    size_t             waiting_from_ = 0; // those before it are recorded
};

} // namespace tarn::standard

#endif
