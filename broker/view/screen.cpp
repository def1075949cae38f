#include "screen.h"

#include "../profile.h"
#include "../text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cwchar>

#include <tarn_sdk_mqtt_broker/base/limits.h>

namespace tarn::broker {
namespace {

std::string printed(const char *format, double value)
{
    char text[32];
    snprintf(text, sizeof text, format, value);
    return text;
}

// Columns of a character; what is not printable is shown as a question mark.
int width_of(char32_t character)
{
    return character == kNoCharacter || is_control(character) ? -1 : wcwidth(static_cast<wchar_t>(character));
}

int width_of(const std::string &text)
{
    int width = 0;
    for (std::string_view rest = text; !rest.empty();) {
        const Decoded next = decode_utf8(rest);
        width += std::max(width_of(next.character), 0);
        rest.remove_prefix(next.bytes);
    }
    return width;
}

// ---- who gets how many rows

constexpr int kFlowRows = 1 + static_cast<int>(std::size(kFlows)); // with their head
static_assert(std::size(kFlows) == std::size(kDrops), "they stand side by side");

struct Plan {
    int flows = 0, gauges = 0, keys = 0, graph = 0, clients = 0, log = 0; // heads included, 0 = not shown
};

// What matters most comes first; what is left over goes to those that can use it.
Plan plan(int rows)
{
    Plan       result;
    int        left = rows - 1; // the title
    const auto take = [&left](int &section, int wanted) {
        if (left >= wanted) {
            section += wanted;
            left -= wanted;
        }
    };
    take(result.flows, kFlowRows);
    take(result.gauges, 2);
    take(result.keys, 1);
    take(result.graph, 4);
    take(result.clients, 2);
    take(result.log, 2);
    if (result.log == 0)
        return result;
    const int to_log   = std::min(left / 2, 6);
    const int to_graph = std::min((left - to_log) / 4, 4);
    result.log += to_log;
    result.graph += to_graph;
    result.clients += left - to_log - to_graph;
    return result;
}

// ---- the sections

Line cut(const Line &line, int columns)
{
    Line result;
    for (const Span &span : line) {
        result.push_back({fit(span.text, columns), span.style});
        columns -= width_of(result.back().text);
    }
    return result;
}

Line title(const View &view, int columns)
{
    const Counters &now = view.rates.now();
    return {{field(" tarn-broker " + view.version + "   up " + duration(now.uptime_s) + "   clients " +
                       std::to_string(now.online) + " of " + std::to_string(view.max_clients) + ", at most " +
                       std::to_string(now.most_online) + " so far",
                   columns),
             Style::Title}};
}

Line flow_head()
{
    return {{field("", 12) + field("a second", -9) + field("highest", -9) + field("in all", -12) + "    " +
                 field("dropped", 12) + field("a second", -9) + field("in all", -12),
             Style::Head}};
}

Line flow_row(const Rates &rates, size_t row)
{
    const RateRow &flow = kFlows[row], &drop = kDrops[row];
    const auto     number = [](double value, int columns) { return field(short_number(value), -columns); };
    const auto     total  = [&rates](uint64_t Counters::*counter, int columns) {
        const uint64_t value = rates.now().*counter;
        const auto     text  = std::to_string(value);
        return field(text.size() < 12 ? text : short_number(static_cast<double>(value)), -columns);
    };
    const bool dropped = rates.now().*drop.counter > 0;
    return {{field(flow.name, 12) + number(rates.per_second(flow.counter), 9) + number(rates.peak(flow.counter), 9) +
             total(flow.counter, 12) + "    "},
            {field(drop.name, 12) + number(rates.per_second(drop.counter), 9) + total(drop.counter, 12),
             dropped ? Style::Alert : Style::Plain}};
}

std::string bar(double share, int columns, bool blocks)
{
    const int   full = static_cast<int>(std::lround(std::clamp(share, 0.0, 1.0) * columns));
    std::string text;
    for (int i = 0; i < columns; ++i)
        text += i < full ? (blocks ? "█" : "#") : (blocks ? "░" : ".");
    return text;
}

std::vector<Line> gauges(const Counters &now, bool blocks)
{
    const double share = now.pool_capacity ? static_cast<double>(now.pool_used) / now.pool_capacity : 0;
    const auto   of    = [](const char *name, uint32_t used, uint32_t most) {
        return std::string(name) + ' ' + std::to_string(used) + '/' + std::to_string(most);
    };
    const auto of_table = [of](const char *name, uint32_t used, uint32_t most) { // the native ones have an end
        return g_serves_standard ? std::string(name) + ' ' + std::to_string(used) : of(name, used, most);
    };
    return {{{of("pool", now.pool_used, now.pool_capacity) + ' '},
             {bar(share, 16, blocks), Style::Graph},
             {printed(" %.1f%%", share * 100) + "  " + of_table("subscriptions", now.subscriptions, SUB_CAPACITY)}},
            {{of_table("retained", now.retained, RETAIN_CAPACITY) + "  stored offline " +
              std::to_string(now.stored_offline) + "  wills " + std::to_string(now.wills) + "  timeouts " +
              std::to_string(now.timeouts) + "  undecodable " + std::to_string(now.undecodable)}}};
}

// One character of a column of the graph: the part of the value that falls into this row of `height`.
const char *graph_cell(double value, double top, int height, int row_from_below, bool blocks)
{
    static constexpr const char *kBlocks[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    static constexpr const char *kAscii[]  = {" ", ".", ".", ".", ":", ":", ":", "|", "|"};
    const double                 eighths   = value / top * height * 8 - row_from_below * 8;
    const int                    level     = static_cast<int>(std::clamp(std::ceil(eighths), 0.0, 8.0));
    return (blocks ? kBlocks : kAscii)[level];
}

// The last seconds of one rate, the newest on the right. The first line names it and its scale.
std::vector<std::string> graph(const Rates &rates, const RateRow &row, int height, int columns, bool blocks)
{
    const auto width   = static_cast<size_t>(columns);
    double     highest = 0;
    for (size_t back = 0; back < width; ++back)
        highest = std::max(highest, rates.rate(row.counter, back));
    const double             top   = scale_top(highest);
    std::vector<std::string> lines = {std::string(row.name) + " a second, up to " + short_number(top)};
    for (int from_below = height - 2; from_below >= 0; --from_below) {
        std::string line;
        for (size_t back = width; back-- > 0;)
            line += graph_cell(rates.rate(row.counter, back), top, height - 1, from_below, blocks);
        lines.push_back(line);
    }
    return lines;
}

void add_graphs(std::vector<Line> &lines, const View &view, int height, int columns, bool blocks)
{
    const int  half = std::max((columns - 2) / 2, 1);
    const auto in   = graph(view.rates, kFlows[1], height, half, blocks),
               out  = graph(view.rates, kFlows[2], height, half, blocks);
    for (size_t i = 0; i < in.size(); ++i) {
        const Style style = i == 0 ? Style::Head : Style::Graph;
        lines.push_back({{field(in[i], half) + "  ", style}, {out[i], style}});
    }
}

void add_clients(std::vector<Line> &lines, const View &view, int height, int columns)
{
    const int id = std::max(columns - 48, 12);
    lines.push_back({{field("client", id) + ' ' + field("address", 22) + field("keep-alive", -12) + field("idle", -12),
                      Style::Head}});
    const size_t shown = std::min(view.clients.size(), static_cast<size_t>(height - 1));
    for (size_t i = 0; i < shown; ++i) {
        const ClientRow &client = view.clients[i];
        lines.push_back(
            {{field(client.id, id) + ' ' + field(client.address, 22) +
              field(std::to_string(client.keepalive_s) + " s", -12) + field(duration(client.idle_s), -12)}});
    }
    lines.resize(lines.size() + static_cast<size_t>(height - 1) - shown);
}

void add_log(std::vector<Line> &lines, const View &view, int height)
{
    lines.push_back({{"log", Style::Head}});
    const size_t shown = std::min(view.log.size(), static_cast<size_t>(height - 1));
    for (size_t i = view.log.size() - shown; i < view.log.size(); ++i) {
        const std::string &text  = view.log[i];
        const bool         alert = text.find("[ERROR]") != text.npos || text.find("[FATAL]") != text.npos;
        lines.push_back({{text, alert ? Style::Alert : Style::Plain}});
    }
    lines.resize(lines.size() + static_cast<size_t>(height - 1) - shown);
}

Line keys(const View &view)
{
    std::string text = "q ends the broker";
    if (view.rates.now().online > view.clients.size())
        text += "   arrows, page up and down: other clients (from " + std::to_string(view.first_client + 1) + ")";
    return {{text, Style::Head}};
}

} // namespace

std::string fit(std::string_view text, int columns)
{
    std::string result;
    while (!text.empty()) {
        const Decoded next  = decode_utf8(text);
        const int     width = width_of(next.character);
        columns -= width < 0 ? 1 : width;
        if (columns < 0)
            break;
        result += width < 0 ? "?" : text.substr(0, next.bytes);
        text.remove_prefix(next.bytes);
    }
    return result;
}

std::string field(std::string_view text, int columns)
{
    std::string       result = fit(text, std::abs(columns));
    const std::string blanks(static_cast<size_t>(std::max(std::abs(columns) - width_of(result), 0)), ' ');
    return columns < 0 ? blanks + result : result + blanks;
}

std::string short_number(double value)
{
    if (value < 9.95 && value != std::floor(value))
        return value < 0.05 ? "0" : printed("%.1f", value);
    if (value < 99999.5)
        return printed("%.0f", value);
    for (const char *unit = "MGTPE"; *unit; ++unit) {
        value /= unit[0] == 'M' ? 1e6 : 1e3;
        if (value < 999.5)
            return printed(value < 9.995 ? "%.2f" : value < 99.95 ? "%.1f" : "%.0f", value) + *unit;
    }
    return "many";
}

std::string duration(uint64_t seconds)
{
    char           text[48];
    const uint64_t days = seconds / 86400;
    snprintf(text, sizeof text, "%02u:%02u:%02u", static_cast<unsigned>(seconds / 3600 % 24),
             static_cast<unsigned>(seconds / 60 % 60), static_cast<unsigned>(seconds % 60));
    return days > 0 ? std::to_string(days) + "d " + text : text;
}

double scale_top(double highest)
{
    for (double decade = 1;; decade *= 10)
        for (const double step : {1.0, 2.0, 5.0})
            if (highest <= step * decade)
                return step * decade;
}

size_t client_rows(int rows)
{
    return static_cast<size_t>(std::max(plan(rows).clients - 1, 0));
}

size_t log_rows(int rows)
{
    return static_cast<size_t>(std::max(plan(rows).log - 1, 0));
}

std::vector<Line> lay_out(const View &view, int rows, int columns, bool blocks)
{
    if (rows < 1 || columns < 1)
        return {};
    const Plan        sections = plan(rows);
    std::vector<Line> lines    = {title(view, columns)};
    if (sections.flows > 0) {
        lines.push_back(flow_head());
        for (size_t row = 0; row < std::size(kFlows); ++row)
            lines.push_back(flow_row(view.rates, row));
    }
    if (sections.gauges > 0)
        for (const Line &line : gauges(view.rates.now(), blocks))
            lines.push_back(line);
    if (sections.graph > 0)
        add_graphs(lines, view, sections.graph, columns, blocks);
    if (sections.clients > 0)
        add_clients(lines, view, sections.clients, columns);
    if (sections.log > 0)
        add_log(lines, view, sections.log);
    if (sections.keys > 0)
        lines.push_back(keys(view));
    for (Line &line : lines)
        line = cut(line, columns);
    return lines;
}

} // namespace tarn::broker
