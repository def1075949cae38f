// arrivals.h - clients that come and go: connect, CONNECT, CONNACK, DISCONNECT, close, and the next one.
#ifndef TARN_BENCH_PERFORMANCE_ARRIVALS_H
#define TARN_BENCH_PERFORMANCE_ARRIVALS_H

#include "link.h"

namespace tarn::performance {

class Arrivals {
public:
    Arrivals(unsigned level, unsigned at_once);

    void     run_for(double seconds);
    uint64_t served() const { return served_; }         // had their CONNACK and left
    uint64_t unanswered() const { return unanswered_; } // waited in vain

private:
    struct Arrival {
        Link    *link;
        uint64_t since_ns = 0; // 0: comes as soon as there is a socket
    };

    void come(Arrival &arrival);
    void look_after(Link &link);
    void replace_unanswered();

    const unsigned       level_;
    Links                links_;
    std::vector<Arrival> arrivals_;
    uint64_t             served_ = 0, unanswered_ = 0;
};

} // namespace tarn::performance

#endif
