// checkpoint.h - copies all state into the journal's next checkpoint, a piece at a time.
#ifndef TARN_STANDARD_CHECKPOINT_H
#define TARN_STANDARD_CHECKPOINT_H

#include "../journal/journal.h"
#include "records.h"
#include "../state/state.h"

namespace tarn::standard {

class Checkpointer {
public:
    Checkpointer(State &state, Journal &journal) noexcept : state_(state), journal_(journal) {}

    // Begins a checkpoint when the journal wants one, and goes on with one that is under way: as much as the journal
    // takes, but not for long. To be called every 10 ms or so, the engine's mutex held.
    void step() noexcept;

private:
    // What is copied next. Where that stands, cursors of the state say, and `retained_`.
    enum class Phase : uint8_t { None, Counters, Sessions, Subscriptions, Retained };

    void         begin() noexcept;
    void         wait_for_less() noexcept;
    AppendStatus copy_next() noexcept;
    AppendStatus copy_counters() noexcept;
    AppendStatus copy_from_next_session() noexcept;
    AppendStatus copy_session(const Session &session) noexcept;
    AppendStatus copy_next_subscription() noexcept;
    AppendStatus copy_next_retained() noexcept;
    AppendStatus copy_message(const MessageRef &message) noexcept;
    AppendStatus append(RecordType type, RecordParts parts) noexcept;

    State             &state_;
    Journal           &journal_;
    Phase              phase_ = Phase::None;
    uint64_t           walks_ = 0; // number of the session through whose queue it walks
    RetainedInPieces   retained_;
    GrowArray<uint8_t> rest_;      // of the session that is being copied
    size_t             taken_ = 0; // bytes in this step
    uint32_t           pause_ = 0; // steps in which nothing is to be done

    bool told_too_large_ = false; // a line said so of this checkpoint
};

} // namespace tarn::standard

#endif
