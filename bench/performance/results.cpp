#include "results.h"

#include <algorithm>

namespace tarn::performance {
namespace {

std::string key_of(const std::string &name, const std::string &contender, const std::string &metric)
{
    return name + ' ' + contender + ' ' + metric;
}

} // namespace

std::optional<Summary> summary_of(std::vector<double> values)
{
    if (values.empty())
        return std::nullopt;
    std::sort(values.begin(), values.end());
    const size_t half = values.size() / 2;
    return Summary{values.size() % 2 ? values[half] : (values[half - 1] + values[half]) / 2, values.front(),
                   values.back()};
}

void Results::put(const std::string &name, const std::string &contender, unsigned round, const std::string &metric,
                  double value)
{
    values_[key_of(name, contender, metric)][round] = value;
}

const Results::Rounds &Results::rounds(const std::string &name, const std::string &contender,
                                       const std::string &metric) const
{
    static const Rounds none;
    const auto          found = values_.find(key_of(name, contender, metric));
    return found == values_.end() ? none : found->second;
}

std::optional<Summary> Results::of(const std::string &name, const std::string &contender,
                                   const std::string &metric) const
{
    std::vector<double> values;
    for (const auto &[round, value] : rounds(name, contender, metric))
        values.push_back(value);
    return summary_of(values);
}

std::optional<Summary> Results::times(const std::string &name, const std::string &contender, const std::string &other,
                                      const std::string &metric) const
{
    std::vector<double> values;
    const Rounds       &others = rounds(name, other, metric);
    for (const auto &[round, value] : rounds(name, contender, metric))
        if (const auto found = others.find(round); found != others.end() && found->second > 0)
            values.push_back(value / found->second);
    return summary_of(values);
}

std::optional<bool> Results::meets_goal(const std::string &name, const std::string &contender, const Row &row) const
{
    std::optional<Summary> value;
    switch (row.goal.of) {
    case Goal::Of::none:
        break;
    case Goal::Of::mosquitto:
        value = times(name, contender, "mosquitto", row.metric);
        break;
    case Goal::Of::relay:
        value = times(name, contender, "relay", row.metric);
        break;
    case Goal::Of::itself:
        value = of(name, contender, row.metric);
        break;
    }
    if (!value)
        return std::nullopt;
    return row.more_is_better ? value->median >= row.goal.value : value->median <= row.goal.value;
}

} // namespace tarn::performance
