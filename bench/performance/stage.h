// stage.h - where one case meets one broker: the broker is started for it, in a directory and a network of its own, and
// what was measured goes to the process that compares.
#ifndef TARN_BENCH_PERFORMANCE_STAGE_H
#define TARN_BENCH_PERFORMANCE_STAGE_H

#include "beside/broker.h"

#include <memory>
#include <string>
#include <vector>

namespace tarn::performance {

// One of the brokers that are compared.
struct Contender {
    std::string              name;
    std::string              program; // empty: mosquitto
    std::vector<std::string> options = {};
    bool                     relay   = false;

    bool is_tarn() const { return !program.empty() && !relay; }
};

class Stage {
public:
    Stage(const Contender &contender, bool shortened, int output);

    // With these options, if it is tarn-broker. It serves when this returns; the calling process is in its network.
    // Nothing when it does not come up.
    std::unique_ptr<beside::Broker> start(const std::vector<std::string> &options = {});

    double   seconds(double full) const { return shortened_ ? full / 5 : full; }
    unsigned number(unsigned full) const { return shortened_ ? full / 10 : full; }
    void     put(const std::string &metric, double value);
    void     fail(const std::string &why); // there is no value

    const Contender &contender() const { return contender_; }

private:
    const Contender &contender_;
    const bool       shortened_;
    const int        output_;
    unsigned         started_ = 0;
};

} // namespace tarn::performance

#endif
