// restore.h - makes state of what the journal's directory keeps.
#ifndef TARN_STANDARD_RESTORE_H
#define TARN_STANDARD_RESTORE_H

#include "replay.h"
#include "state.h"

namespace tarn::standard {

// Fills an empty state. Afterwards each session is away, since when its record says or else since `now_ms`; the sink of
// its deliveries is for the caller to set.
class Restorer final : public JournalVisitor {
public:
    Restorer(State &state, uint64_t now_ms) noexcept : state_(state), now_ms_(now_ms) {}
    Restorer(const Restorer &)            = delete;
    Restorer &operator=(const Restorer &) = delete;
    ~Restorer();

    bool record(uint8_t type, std::span<const uint8_t> bytes) noexcept override;
    void finish() noexcept; // behind the last record

private:
    State   &state_;
    uint64_t now_ms_;
};

} // namespace tarn::standard

#endif
