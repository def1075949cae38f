#include "bars.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tarn::performance {
namespace {

constexpr const char *kColours[] = {"#1f6fb4", "#e08214", "#7f7f7f", "#2a9d5c", "#9467bd", "#c0392b"};
constexpr int         kLabels = 250, kPlot = 470, kRight = 60, kBar = 7, kGap = 7, kTop = 44, kBottom = 26;

struct Scale {
    double low, high; // powers of ten

    double x(double value) const
    {
        return kLabels + kPlot * (std::log10(std::max(value, low)) - std::log10(low)) / std::log10(high / low);
    }
};

Scale scale_of(const Bars &bars)
{
    double     low = INFINITY, high = 0;
    const auto see = [&](std::optional<double> value) {
        if (value && *value > 0)
            low = std::min(low, *value), high = std::max(high, *value);
    };
    for (const Bars::Group &group : bars.groups) {
        see(group.goal);
        for (const auto &value : group.values)
            see(value);
    }
    if (high == 0)
        return {1, 10};
    low  = std::pow(10, std::floor(std::log10(low) - 0.01));
    high = std::pow(10, std::ceil(std::log10(high) + 0.01));
    return {low, high};
}

template <class... Values> std::string format(const char *pattern, Values... values)
{
    char text[512];
    snprintf(text, sizeof text, pattern, values...);
    return text;
}

std::string text_at(double x, double y, const char *anchor, const std::string &text)
{
    return format("<text x=\"%.0f\" y=\"%.0f\" text-anchor=\"%s\">", x, y, anchor) + text + "</text>\n";
}

std::string grid(const Scale &scale, int height)
{
    std::string out;
    for (double at = scale.low; at <= scale.high * 1.001; at *= 10) {
        out += format("<line x1=\"%.1f\" x2=\"%.1f\" y1=\"%d\" y2=\"%d\" stroke=\"#dddddd\"/>\n", scale.x(at),
                      scale.x(at), kTop - 4, height - kBottom);
        out += text_at(scale.x(at), height - 10, "middle", format("%g", at));
    }
    return out;
}

std::string legend(const Bars &bars)
{
    std::string out = text_at(8, 18, "start", "<tspan font-weight=\"bold\">" + bars.title + "</tspan>, " + bars.unit);
    double      x   = kLabels;
    for (size_t i = 0; i < bars.series.size(); ++i) {
        out += format("<rect x=\"%.0f\" y=\"9\" width=\"10\" height=\"10\" fill=\"%s\"/>\n", x,
                      kColours[i % std::size(kColours)]);
        out += text_at(x + 14, 18, "start", bars.series[i]);
        x += 30 + 7 * static_cast<double>(bars.series[i].size());
    }
    out += format("<line x1=\"%.0f\" x2=\"%.0f\" y1=\"8\" y2=\"20\" stroke=\"#c00000\" stroke-width=\"2\"/>\n", x + 3,
                  x + 3);
    return out + text_at(x + 10, 18, "start", "goal");
}

std::string group_at(const Bars &bars, const Bars::Group &group, const Scale &scale, int y)
{
    const int   height = kBar * static_cast<int>(bars.series.size());
    std::string out    = text_at(kLabels - 8, y + height / 2 + 4, "end", group.label);
    for (size_t i = 0; i < group.values.size(); ++i)
        if (const auto value = group.values[i]) {
            const double end = scale.x(*value), at = y + kBar * static_cast<int>(i);
            out += format("<rect x=\"%d\" y=\"%.0f\" width=\"%.1f\" height=\"%d\" fill=\"%s\"/>\n", kLabels, at,
                          std::max(end - kLabels, 1.0), kBar - 1, kColours[i % std::size(kColours)]);
            out += format("<text x=\"%.1f\" y=\"%.0f\" font-size=\"8\">%.3g</text>\n", end + 3, at + kBar - 1, *value);
        }
    if (group.goal)
        out += format("<line x1=\"%.1f\" x2=\"%.1f\" y1=\"%d\" y2=\"%d\" stroke=\"#c00000\" stroke-width=\"2\"/>\n",
                      scale.x(*group.goal), scale.x(*group.goal), y - 2, y + height + 1);
    return out;
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
