// cases.h - what is measured, and what of it stands in the tables.
#ifndef TARN_BENCH_PERFORMANCE_CASES_H
#define TARN_BENCH_PERFORMANCE_CASES_H

#include "stage.h"

#include <functional>
#include <string>
#include <vector>

namespace tarn::performance {

enum class Section { messages, processor, connections, latency, beside };

// A goal is a bound of the value itself, or of how many times mosquitto's or the relay's of the same round it is.
struct Goal {
    enum class Of { none, mosquitto, relay, itself } of = Of::none;
    double value                                        = 0;
};

struct Row { // of the table of its section
    Section     section;
    std::string metric; // as Stage::put has it
    std::string what;
    std::string unit;
    bool        more_is_better = true;
    Goal        goal           = {};
};

struct Case {
    std::string                  name;
    std::function<void(Stage &)> run;
    std::vector<Row>             rows;
    bool                         with_relay = true;
    unsigned                     max_rounds = 99; // where more say nothing
};

const std::vector<Case> &cases();

} // namespace tarn::performance

#endif
