// traffic.h - bytes over the process's TCP connections, which the library does not count but the kernel does. What a
// connection moved between the last look and its end is missed.
#ifndef TARN_BROKER_VIEW_TRAFFIC_H
#define TARN_BROKER_VIEW_TRAFFIC_H

#include <cstdint>
#include <unordered_map>

namespace tarn::broker {

class Traffic {
public:
    void     look(); // adds up what happened since the last look
    uint64_t bytes_in() const { return total_.in; }
    uint64_t bytes_out() const { return total_.out; }

private:
    struct Bytes {
        uint64_t in = 0, out = 0;
    };
    std::unordered_map<uint64_t, Bytes> connections_; // by the number the kernel gives each socket only once
    Bytes                               total_;
};

} // namespace tarn::broker

#endif
