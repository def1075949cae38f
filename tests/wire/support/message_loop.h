// message_loop.h - a closed loop of one publisher and some subscribers: as many messages in flight as asked for, each
// numbered and stamped. Level 4, one thread, any broker on loopback.
#ifndef TARN_TESTS_WIRE_MESSAGE_LOOP_H
#define TARN_TESTS_WIRE_MESSAGE_LOOP_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarn::test {

struct LoopOptions {
    uint16_t    port          = 1883;
    unsigned    qos           = 0; // 0 or 1, of the publications and the subscriptions
    unsigned    subscribers   = 1;
    unsigned    window        = 64; // messages sent that have not reached every subscriber
    unsigned    messages      = 20000;
    size_t      payload_bytes = 32; // 16 or more
    double      limit_s       = 60;
    std::string topic         = "loop";
};

struct LoopResult {
    std::string error; // empty: all went well
    double      seconds    = 0;
    uint64_t    deliveries = 0;
    uint64_t    lost       = 0;                     // deliveries that never came
    uint64_t    disordered = 0;                     // deliveries that came twice or behind a later one
    double      p50_ms = 0, p99_ms = 0, max_ms = 0; // from send to delivery

    double deliveries_per_s() const { return seconds > 0 ? static_cast<double>(deliveries) / seconds : 0; }
};

LoopResult run_message_loop(const LoopOptions &options);

} // namespace tarn::test

#endif
