#include "bars.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tarn::performance {
namespace {

constexpr int kLabels = 300, kPlot = 460, kRight = 60, kBar = 8, kGap = 7, kTop = 44, kBottom = 26;

struct Scale {
    bool                linear;
    std::vector<double> marks; // with a line each, the first and the last at the ends

    double x(double value) const
    {
        const double low = marks.front(), high = marks.back(), inside = std::clamp(value, low, high);
        return kLabels +
               kPlot * (linear ? (inside - low) / (high - low) : std::log(inside / low) / std::log(high / low));
    }
};

struct Range {
    double low, high;
};

Range range_of(const Bars &bars)
{
    Range      range{INFINITY, 0};
    const auto include = [&](std::optional<double> value) {
        if (value && *value > 0)
            range = {std::min(range.low, *value), std::max(range.high, *value)};
    };
    for (const Bars::Group &group : bars.groups) {
        include(group.goal);
        for (const auto &value : group.values)
            include(value);
    }
    return range.high > 0 ? range : Range{1, 10};
}

// 1, 2, 5, 10, 20 ... around the range.
std::vector<double> round_marks(Range range)
{
    std::vector<double> marks;
    for (double ten = std::pow(10, std::floor(std::log10(range.low)) - 1); ten <= 10 * range.high; ten *= 10)
        for (const double mark : {1 * ten, 2 * ten, 5 * ten}) {
            if (mark < range.low)
                marks.clear(); // only the last one below it
            if (marks.empty() || marks.back() < range.high)
                marks.push_back(mark);
        }
    return marks;
}

Scale scale_of(const Bars &bars)
{
    const Range range = range_of(bars);
    if (!bars.linear)
        return {false, round_marks(range)};
    Scale        scale{true, {}};
    const double step = range.high > 200 ? 50 : 20;
    for (double mark = 0; mark < range.high + step; mark += step)
        scale.marks.push_back(mark);
    return scale;
}

template <class... Values> std::string format(const char *pattern, Values... values)
{
    char text[512];
    snprintf(text, sizeof text, pattern, values...);
    return text;
}

std::string short_number(double value)
{
    return value < 1000 ? format("%.3g", value) : format("%.0f", value);
}

std::string text_at(double x, double y, const char *anchor, const std::string &text)
{
    return format("<text x=\"%.0f\" y=\"%.0f\" text-anchor=\"%s\">", x, y, anchor) + text + "</text>\n";
}

std::string grid(const Scale &scale, int height)
{
    std::string out;
    for (const double mark : scale.marks) {
        out += format("<line x1=\"%.1f\" x2=\"%.1f\" y1=\"%d\" y2=\"%d\" stroke=\"#dddddd\"/>\n", scale.x(mark),
                      scale.x(mark), kTop - 4, height - kBottom);
        out += text_at(scale.x(mark), height - 10, "middle", mark < 1e5 ? format("%g", mark) : format("%.0f", mark));
    }
    return out;
}

std::string legend(const Bars &bars)
{
    std::string out = text_at(8, 18, "start", "<tspan font-weight=\"bold\">" + bars.title + "</tspan>, " + bars.unit);
    double      x   = kLabels;
    for (const Bars::Series &one : bars.series) {
        out += format("<rect x=\"%.0f\" y=\"9\" width=\"10\" height=\"10\" fill=\"%s\"/>\n", x, one.colour.c_str());
        out += text_at(x + 14, 18, "start", one.name);
        x += 30 + 7 * static_cast<double>(one.name.size());
    }
    out += format("<line x1=\"%.0f\" x2=\"%.0f\" y1=\"8\" y2=\"20\" stroke=\"#c00000\" stroke-width=\"2\"/>\n", x + 3,
                  x + 3);
    return out + text_at(x + 10, 18, "start", "goal");
}

std::string group_at(const Bars &bars, const Bars::Group &group, const Scale &scale, int y)
{
    const int   height = kBar * static_cast<int>(bars.series.size());
    std::string out    = text_at(kLabels - 8, y + height / 2 + 4, "end", group.label);
    std::string texts; // above all else
    for (size_t i = 0; i < group.values.size(); ++i)
        if (const auto value = group.values[i]) {
            const double end = scale.x(*value), at = y + kBar * static_cast<int>(i);
            out += format("<rect x=\"%d\" y=\"%.0f\" width=\"%.1f\" height=\"%d\" fill=\"%s\"/>\n", kLabels, at,
                          std::max(end - kLabels, 1.0), kBar - 1, bars.series[i].colour.c_str());
            texts += format("<text x=\"%.1f\" y=\"%.0f\" font-size=\"8\" paint-order=\"stroke\" stroke=\"#ffffff\" "
                            "stroke-width=\"2\">%s</text>\n",
                            end + 3, at + kBar - 1, short_number(*value).c_str());
        }
    if (group.goal)
        out += format("<line x1=\"%.1f\" x2=\"%.1f\" y1=\"%d\" y2=\"%d\" stroke=\"#c00000\" stroke-width=\"2\"/>\n",
                      scale.x(*group.goal), scale.x(*group.goal), y - 2, y + height + 1);
    return out + texts;
}

} // namespace

std::string svg_of(const Bars &bars)
{
    const int   row    = kBar * static_cast<int>(bars.series.size()) + kGap;
    const int   height = kTop + row * static_cast<int>(bars.groups.size()) + kBottom;
    const Scale scale  = scale_of(bars);
    std::string out    = format("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
                                   "font-family=\"DejaVu Sans, sans-serif\" font-size=\"11\">\n",
                                kLabels + kPlot + kRight, height) +
                      "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n" + grid(scale, height) + legend(bars);
    for (size_t i = 0; i < bars.groups.size(); ++i)
        out += group_at(bars, bars.groups[i], scale, kTop + row * static_cast<int>(i));
    return out + "</svg>\n";
}

} // namespace tarn::performance
