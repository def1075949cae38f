// crowd.h - many MQTT connections that one thread drives, none of which ever blocks.
#ifndef TARN_BENCH_BESIDE_CROWD_H
#define TARN_BENCH_BESIDE_CROWD_H

#include "support/packets.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarn::beside {

using test::Bytes;

double now_s(); // of the monotonic clock

// A socket on its way from that address to the broker, -1 when there is none to be had.
int start_connect(const std::string &from);

void raise_file_limit(); // of this process, to what it may have

enum Type : unsigned { kConnack = 2, kPublish = 3, kPuback = 4, kSuback = 9, kUnsuback = 11, kPingresp = 13 };

struct Packet {
    const uint8_t *data;
    size_t         size;

    unsigned type() const { return data[0] >> 4; }
    unsigned qos() const { return data[0] >> 1 & 3; }
    uint8_t  last() const { return data[size - 1]; } // the code of a SUBACK for one filter
};

unsigned publish_id(Packet packet); // identifier of a PUBLISH at QoS 1 or 2

class Crowd;

// One connection after another, from one address. Its functions may be called from its own callbacks.
class Actor {
public:
    std::function<void(Packet)> on_packet    = [](Packet) {};
    std::function<void()>       on_closed    = [] {}; // by the broker, or not let in
    unsigned                    received[16] = {};    // packets of each type since it was made

    Actor(Crowd &crowd, std::string address) : crowd_(crowd), address_(std::move(address)) {}
    ~Actor() { reset(); }
    Actor(const Actor &)            = delete;
    Actor &operator=(const Actor &) = delete;

    void open();                   // anew; what is sent goes out as soon as the connection stands
    void send(const Bytes &bytes); // what the socket does not take waits here
    void reset();                  // ends it with RST
    void close();                  // ends it with FIN
    bool is_open() const { return fd_ >= 0; }

private:
    friend class Crowd;
    void handle_event();
    bool flush();
    bool receive();
    void take_packets();
    void end(); // of a connection that the broker ended

    Crowd      &crowd_;
    std::string address_;
    int         fd_         = -1;
    unsigned    generation_ = 0; // connections so far
    Bytes       out_, in_;
};

class Crowd {
public:
    Crowd();
    ~Crowd();
    Crowd(const Crowd &)            = delete;
    Crowd &operator=(const Crowd &) = delete;

    Actor &add(const std::string &address);
    void   step(double limit_s); // waits for events, for so long at most, and handles them
    // Goes on until it holds or the time is up; whether it holds.
    bool run_until(double limit_s, const std::function<bool()> &condition);
    // Sends and waits for the next packet of that type.
    bool ask(Actor &actor, const Bytes &request, Type answer, double limit_s = 10);

private:
    friend class Actor;
    int                                 epoll_;
    std::vector<std::unique_ptr<Actor>> actors_; // lives as long as the crowd, as events point to them
};

} // namespace tarn::beside

#endif
