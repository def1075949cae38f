// attacks.h - what is done to the broker beside the honest clients.
#ifndef TARN_BENCH_BESIDE_ATTACKS_H
#define TARN_BENCH_BESIDE_ATTACKS_H

#include "broker.h"
#include "crowd.h"

#include <atomic>
#include <functional>
#include <span>
#include <string>

namespace tarn::beside {

// Where an attack is carried out, on a thread of its own.
struct Stage {
    explicit Stage(const Broker &attacked) : broker(attacked) {}

    Crowd             crowd;
    const Broker     &broker;
    std::atomic<bool> over = false;
    std::string       seen = ""; // what the row says of it in the end

    std::vector<Actor *> actors; // that were prepared

    void play(double limit_s) // lets everybody act, until it is over or so long
    {
        crowd.run_until(limit_s, [this] { return over.load(); });
    }
};

struct Attack {
    std::string name;
    std::string what;
    // First what takes its time and is not the attack yet, then the attack, which ends when the stage says so.
    std::function<void(Stage &)> prepare   = [](Stage &) {};
    std::function<void(Stage &)> run       = [](Stage &stage) { stage.play(1e9); };
    bool                         passwords = false, log_read = true, tarn_only = false;
};

std::span<const Attack> attacks();

} // namespace tarn::beside

#endif
