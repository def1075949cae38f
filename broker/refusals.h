// refusals.h - what clients were refused, and the lines in the log that tell it. A client may ask for what it is refused
// as often as it likes: of each kind no more than kLinesMax lines are written in a period, and the rest is counted.
#ifndef TARN_BROKER_REFUSALS_H
#define TARN_BROKER_REFUSALS_H

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

namespace tarn::broker {

struct Refusal {
    enum Kind { Login, Publication, Subscription, Will, Connection };
    static constexpr size_t kKinds = 5;

    Kind        kind;
    std::string user;      // empty when there is none, as the next three
    std::string client_id; // as the client gave it
    std::string address;   // IP:PORT
    std::string topic;     // or filter
    std::string reason;
};

// "publication refused: user alice, id x, address 10.0.0.7:50000, topic home/x: no rule allows it". Names with anything
// unusual in them stand in quotes.
std::string refusal_text(const Refusal &refusal);

class RefusalLog {
public:
    static constexpr int                  kLinesMax = 20; // of each kind in a period
    static constexpr std::chrono::seconds kPeriod{10};

    using Put = std::function<void(const std::string &line)>;

    explicit RefusalLog(Put put) : put_(std::move(put)) {}

    void report(const Refusal &refusal); // from any thread
    void end_period();                   // to be called every kPeriod, and at the end: tells what was left out

private:
    struct Count {
        int      told     = 0;
        uint64_t left_out = 0;
    };
    using Counts = std::array<Count, Refusal::kKinds>;

    const Put  put_;
    std::mutex mutex_;
    Counts     counts_; // of this period; under mutex_
};

} // namespace tarn::broker

#endif
