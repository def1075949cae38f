// honest.h - the clients that must not feel an attack: publishers that send a hundred messages a second to a subscriber
// each, one at QoS 0 and one at QoS 1, and a new client every 200 ms.
#ifndef TARN_BENCH_BESIDE_HONEST_H
#define TARN_BENCH_BESIDE_HONEST_H

#include "crowd.h"

#include <array>
#include <string>
#include <vector>

namespace tarn::beside {

struct Spread {
    double p50_ms = 0, p99_ms = 0, max_ms = 0;
};
Spread spread_of(std::vector<double> ms);

// What one pair saw in one phase. A message that did not come counts in the spread with the time it was waited for.
struct PairResult {
    Spread   spread;
    unsigned sent = 0, lost = 0;
};

// What the new clients saw: milliseconds from connect() to CONNACK; without an answer, those it was waited for.
struct DoorResult {
    Spread   spread;
    unsigned tried = 0, unanswered = 0, no_subscription = 0;
};

struct Measured {
    std::array<PairResult, 2> pairs; // by QoS
    DoorResult                door;
    double                    own_delay_ms = 0;     // the longest that this program itself came late to send
    bool                      cut_off      = false; // a pair's connection ended
};

class Pair {
public:
    Pair(Crowd &crowd, unsigned qos, const test::Connect &options);
    bool join(double limit_s);
    void begin_phase() { first_ = static_cast<uint32_t>(sent_at_s_.size()); }
    void publish();
    bool has_all() const { return arrived_ == sent_at_s_.size(); }
    bool is_cut_off() const { return !publisher_.is_open() || !subscriber_.is_open(); }
    // All that was published since begin_phase().
    PairResult result() const;

private:
    bool join(Actor &actor, const char *role, double limit_s);
    void take(Packet packet);

    Crowd              &crowd_;
    const unsigned      qos_;
    const test::Connect options_;
    Actor              &publisher_, &subscriber_;
    std::string         topic_;
    std::vector<double> sent_at_s_, latency_ms_; // by number; latency < 0: has not come
    uint32_t            first_ = 0, arrived_ = 0;
};

// The clients that come anew. Each subscribes, which others must leave room for, and leaves.
class Door {
public:
    Door(Crowd &crowd, const test::Connect &options) : crowd_(crowd), options_(options) {}
    void       begin_phase() { first_ = visits_.size(); }
    void       knock();
    bool       has_all() const;
    DoorResult result() const;

private:
    struct Visit {
        Actor *actor;
        double start_s, answer_ms = -1;
        bool   subscribed = false;
    };
    void take(size_t visit, Packet packet);

    Crowd              &crowd_;
    const test::Connect options_;
    std::vector<Visit>  visits_;
    size_t              first_ = 0;
};

class Honest {
public:
    explicit Honest(const test::Connect &options);
    bool     join(double limit_s) { return pairs_[0].join(limit_s) && pairs_[1].join(limit_s); }
    Measured measure(double seconds, double late_s); // and waits late_s at most for what has not come
    // Whether there is room for more than connections: empty, or what an honest client did not get.
    std::string what_is_refused();

private:
    void publish_due(double start_s, double seconds, unsigned &sent, Measured &measured);

    Crowd               crowd_;
    const test::Connect options_;
    Pair                pairs_[2];
    Door                door_;
};

} // namespace tarn::beside

#endif
