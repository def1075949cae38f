// relay.h - the least that passes messages on: what a machine allows a broker of one thread at best. It knows how long
// a packet is, who asked for exactly that topic, and what each packet is answered with, but no sessions, no matching,
// no repetition and no limits.
#ifndef TARN_BENCH_PERFORMANCE_RELAY_H
#define TARN_BENCH_PERFORMANCE_RELAY_H

namespace tarn::performance {

[[noreturn]] void run_relay();

} // namespace tarn::performance

#endif
