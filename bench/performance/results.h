// results.h - the figures of all rounds.
#ifndef TARN_BENCH_PERFORMANCE_RESULTS_H
#define TARN_BENCH_PERFORMANCE_RESULTS_H

#include "cases.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarn::performance {

struct Summary {
    double median, lowest, highest;
};

std::optional<Summary> summary_of(std::vector<double> values);

class Results {
public:
    void put(const std::string &name, const std::string &contender, unsigned round, const std::string &metric,
             double value);

    std::optional<Summary> of(const std::string &name, const std::string &contender, const std::string &metric) const;
    // How many times the other one's value of the same round it is.
    std::optional<Summary> times(const std::string &name, const std::string &contender, const std::string &other,
                                 const std::string &metric) const;
    // Nothing when it cannot be said.
    std::optional<bool> meets_goal(const std::string &name, const std::string &contender, const Row &row) const;

private:
    using Rounds = std::map<unsigned, double>;
    const Rounds &rounds(const std::string &name, const std::string &contender, const std::string &metric) const;

    std::map<std::string, Rounds> values_;
};

} // namespace tarn::performance

#endif
