// bars.h - a plot of horizontal bars in groups.
#ifndef TARN_BENCH_PERFORMANCE_BARS_H
#define TARN_BENCH_PERFORMANCE_BARS_H

#include <optional>
#include <string>
#include <vector>

namespace tarn::performance {

struct Bars {
    struct Series {
        std::string name, colour;
    };
    struct Group {
        std::string                        label;
        std::vector<std::optional<double>> values = {}; // one a series
        std::optional<double>              goal   = {}; // a mark across the group
    };
    std::string         title, unit;
    bool                linear = false; // from 0 on; else the scale is logarithmic
    std::vector<Series> series = {};
    std::vector<Group>  groups = {};
};

std::string svg_of(const Bars &bars);

} // namespace tarn::performance

#endif
