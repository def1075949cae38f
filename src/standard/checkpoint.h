// checkpoint.h - copies all state into the journal's next checkpoint, a piece at a time.
#ifndef TARN_STANDARD_CHECKPOINT_H
#define TARN_STANDARD_CHECKPOINT_H

#include "journal.h"
#include "state.h"

namespace tarn::standard {

class Checkpointer {
public:
    Checkpointer(State &state, Journal &journal) noexcept : state_(state), journal_(journal) {}

    // Begins a checkpoint when the journal wants one, and goes on with one that is under way: as much as the journal
    // takes, but not for long. To be called every 10 ms or so, the engine's mutex held.
    void step() noexcept;

private:
    State   &state_;
    Journal &journal_;
};

} // namespace tarn::standard

#endif
