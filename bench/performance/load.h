// load.h - messages of 64 bytes from some publishers to some subscribers: in a closed loop, with so many in flight, or
// in an open one, so many a second whatever comes back.
#ifndef TARN_BENCH_PERFORMANCE_LOAD_H
#define TARN_BENCH_PERFORMANCE_LOAD_H

#include "link.h"

namespace tarn::performance {

struct LoadOptions {
    std::string name        = "load"; // begins topics and client ids
    unsigned    level       = 4;
    unsigned    qos         = 0; // of the publications and the subscriptions
    unsigned    publishers  = 1;
    unsigned    subscribers = 1;
    bool        pairs       = false; // each publisher has a subscriber of its own; else all share one topic
    // A message is in flight until each subscriber has it and, above QoS 0, its publisher is told that it arrived.
    unsigned window      = 64;    // in flight of each publisher
    double   rate        = 0;     // messages a second of each publisher, by schedule; 0 = a closed loop
    bool     acknowledge = true;  // false: the subscribers take what comes and acknowledge nothing
    bool     latencies   = false; // are kept
};

struct Counts {
    uint64_t published  = 0;
    uint64_t deliveries = 0;
    uint64_t lost       = 0; // deliveries that did not come before a later one did, or within a second
    uint64_t again      = 0; // deliveries that came twice, or behind a later one

    Counts operator-(const Counts &before) const;
};

class Load {
public:
    explicit Load(const LoadOptions &options);

    bool set_up();                                   // connects and subscribes
    void run_for(double seconds);                    // and until what is in flight by then has arrived
    bool publish(uint32_t messages, double limit_s); // each publisher so many more; whether all arrived in time
    void turn(uint64_t limit_ns);                    // takes what has come, after so long a wait at most

    bool          has_failed() const { return failed_; } // a connection has ended
    const Counts &counts() const { return counts_; }
    // From send, or from when the schedule says, to arrival; where they are kept.
    std::vector<uint32_t> &latencies_ns() { return latencies_ns_; }

    std::function<void()> aside = [] {}; // called now and then while it runs

private:
    static constexpr uint32_t kRing = 4096; // more than are ever in flight of a publisher

    struct Flow { // what one publisher sends
        Link                 *publisher;
        Bytes                 packet;                                 // the next one, but for its number and time
        std::vector<uint32_t> next;                                   // for each subscriber the number that comes next
        std::vector<uint16_t> missing = std::vector<uint16_t>(kRing); // subscribers that do not have that number yet
        std::vector<bool>     unacknowledged = std::vector<bool>(65536); // by identifier
        uint32_t              sent = 0, arrived = 0, acknowledged = 0;   // arrived: everywhere
        uint32_t              first = 0;                                 // number of the first one of this schedule
    };

    bool     connect(std::span<Link *const> links);
    bool     subscribe();
    Bytes    packet_of(const std::string &topic) const;
    void     run_until(uint64_t end_ns, const std::function<bool()> &done);
    bool     finish(double limit_s);
    uint32_t finished_of(const Flow &flow) const;
    uint32_t end_of(const Flow &flow) const;
    uint64_t due_ns(const Flow &flow, uint32_t number) const;
    uint64_t wait_ns() const;
    void     send_what_may_go();
    void     send(Flow &flow);
    void     take(Link &link, Packet packet);
    void     deliver(Link &link, Packet packet);
    void     arrive(Flow &flow, uint32_t slot, uint32_t number, uint64_t sent_ns);
    void     note_acknowledged(Flow &flow, unsigned id);
    void     answer(Link &link, uint8_t first, unsigned id);
    void     give_up();

    const LoadOptions     options_;
    Links                 links_;
    std::vector<Link *>   publishers_, subscribers_;
    std::vector<Flow>     flows_;
    Counts                counts_;
    std::vector<uint32_t> latencies_ns_;
    uint32_t              end_number_ = UINT32_MAX; // those below it are sent
    uint64_t              start_ns_   = 0;          // of the schedule
    uint64_t              moved_ns_   = 0;          // when something came last
    uint64_t              turn_ns_    = 0;          // the time, read once a turn
    bool                  sending_    = true;
    bool                  failed_     = false;
};

} // namespace tarn::performance

#endif
