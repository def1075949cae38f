// idle.h - what else a broker has while others are measured.
#ifndef TARN_BENCH_PERFORMANCE_IDLE_H
#define TARN_BENCH_PERFORMANCE_IDLE_H

#include "load.h"

#include <string>
#include <vector>

namespace tarn::performance {

// Options of tarn-broker for more clients than it takes by itself.
inline const std::vector<std::string> kManyClients = {"--max-clients", "11000"};

// Clients that are connected and say little.
class IdleClients {
public:
    bool connect(unsigned clients);
    bool ping(); // each of them once

private:
    Links               links_;
    std::vector<Link *> clients_;
};

// Subscribers that take each 1000 messages at QoS 1 and acknowledge none.
LoadOptions pending_of(unsigned clients);
bool        make_pending(Load &load);

// Of clients that stay connected; they are part of links.
bool subscribe_to_others(Links &links, unsigned filters);
bool publish_retained(Links &links, unsigned messages);
bool leave_sessions(unsigned clients); // with a subscription each

} // namespace tarn::performance

#endif
