#include "report.h"

#include "bars.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <sstream>
#include <sys/utsname.h>
#include <thread>

namespace tarn::performance {
namespace {

constexpr char kBegin[] = "<!-- measured: from here on the program writes -->", kEnd[] = "<!-- measured: to here -->";

struct Heading {
    Section     section;
    const char *title, *plot, *unit, *what;
};

constexpr Heading kHeadings[] = {
    {Section::messages, "Messages a second", "messages", "times mosquitto",
     "Deliveries a second in a closed loop: 64 in flight of each publisher, 8 at a fan-in of 10, 1 at one of 100."},
    {Section::processor, "Processor time", "processor", "us",
     "What the broker's process used, in user and kernel mode."},
    {Section::connections, "Connections", "connections", "bytes",
     "Clients that connect and leave again, 32 at a time; private memory for each of 10000 clients that stay."},
    {Section::latency, "Latency", "latency", "us",
     "From send to arrival with one message in flight; from the time that the schedule says, at 5000 messages a "
     "second."},
    {Section::beside, "What stands beside", "beside", "%",
     "Throughput of a pair with 64 in flight beside something else, in percent of that of a pair which is alone."},
};

std::string grouped(long long value)
{
    std::string text = std::to_string(value);
    for (long at = static_cast<long>(text.size()) - 3; at > (value < 0); at -= 3)
        text.insert(static_cast<size_t>(at), 1, ',');
    return text;
}

std::string number(double value)
{
    char text[32];
    if (std::fabs(value) >= 1000)
        return grouped(std::llround(value));
    snprintf(text, sizeof text, "%.*f", std::fabs(value) >= 100 ? 0 : std::fabs(value) >= 10 ? 1 : 2, value);
    return text;
}

std::string cell(const std::optional<Summary> &value)
{
    if (!value)
        return "-";
    if (value->lowest == value->highest)
        return number(value->median);
    return number(value->median) + " (" + number(value->lowest) + " to " + number(value->highest) + ")";
}

std::string goal_text(const Row &row)
{
    const std::string bound = (row.more_is_better ? "≥ " : "≤ ") + number(row.goal.value);
    switch (row.goal.of) {
    case Goal::Of::mosquitto:
        return bound + " x";
    case Goal::Of::relay:
        return bound + " x relay";
    case Goal::Of::itself:
        return bound;
    case Goal::Of::none:
        break;
    }
    return "";
}

bool has_mosquitto(const Report &report)
{
    for (const Contender &one : report.contenders)
        if (one.program.empty())
            return true;
    return false;
}

void for_each_row(const Report &report, Section section, const std::function<void(const Case &, const Row &)> &visit)
{
    for (const Case *const one : report.cases)
        for (const Row &row : one->rows)
            if (row.section == section)
                visit(*one, row);
}

std::string met_text(const Report &report, const Case &one, const Row &row)
{
    std::string missed;
    bool        known = false;
    for (const Contender &contender : report.contenders)
        if (const auto met =
                contender.is_tarn() ? report.results.meets_goal(one.name, contender.name, row) : std::nullopt) {
            known = true;
            if (!*met)
                missed += (missed.empty() ? "not " : ", ") + contender.name;
        }
    return !known ? "" : missed.empty() ? "yes" : missed;
}

std::string table(const Report &report, Section section)
{
    const bool         compared = has_mosquitto(report) && section != Section::beside;
    std::ostringstream head, line, body;
    head << "| |", line << "|---|";
    for (const Contender &one : report.contenders)
        head << ' ' << one.name << " |", line << "--:|";
    for (const Contender &one : report.contenders)
        if (one.is_tarn() && compared)
            head << ' ' << one.name << " / mosquitto |", line << "--:|";
    for_each_row(report, section, [&](const Case &which, const Row &row) {
        body << "| " << row.what << ", " << row.unit << " |";
        for (const Contender &one : report.contenders)
            body << ' ' << cell(report.results.of(which.name, one.name, row.metric)) << " |";
        for (const Contender &one : report.contenders)
            if (one.is_tarn() && compared)
                body << ' ' << cell(report.results.times(which.name, one.name, "mosquitto", row.metric)) << " |";
        body << ' ' << goal_text(row) << " | " << met_text(report, which, row) << " |\n";
    });
    if (body.str().empty())
        return "";
    return head.str() + " goal | met |\n" + line.str() + "--:|---|\n" + body.str();
}

std::string processor_name()
{
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("model name"))
            return line.substr(line.find(':') + 2);
    return "unknown processor";
}

std::string mosquitto_version()
{
    char        line[128] = "";
    FILE *const output    = popen("mosquitto -h 2>&1", "r");
    if (output && !fgets(line, sizeof line, output))
        line[0] = 0;
    if (output)
        pclose(output);
    return std::string(line, strcspn(line, "\n"));
}

std::string machine()
{
    utsname      names{};
    char         date[32];
    const time_t now = time(nullptr);
    uname(&names);
    strftime(date, sizeof date, "%Y-%m-%d", gmtime(&now));
    return std::to_string(std::thread::hardware_concurrency()) + " cores (" + processor_name() + "), Linux " +
           names.release + ", " + mosquitto_version() + ", " + date;
}

// How much of a core this program used in closed loops; were it near one, its own speed would be what is measured.
std::string client_share(const Report &report)
{
    std::string text;
    for (const Contender &contender : report.contenders) {
        double highest = 0;
        for (const Case *const one : report.cases)
            if (const auto share = report.results.of(one->name, contender.name, "client_share"))
                highest = std::max(highest, share->median);
        if (highest > 0)
            text += (text.empty() ? "" : ", ") + number(highest * 100) + " % beside " + contender.name;
    }
    return text.empty() ? "" : "The load generator used at most so much of a core: " + text + ".\n";
}

// What the brokers did wrong, if anything.
std::string delivery_faults(const Report &report)
{
    const std::pair<const char *, const char *> kinds[] = {{"lost", "did not come"}, {"again", "came again or late"}};
    std::string                                 text;
    for (const Case *const one : report.cases)
        for (const Contender &contender : report.contenders)
            for (const auto &[metric, what] : kinds)
                if (const auto count = report.results.of(one->name, contender.name, metric);
                    count && count->highest > 0)
                    text += "* " + one->name + ", " + contender.name + ": " +
                            std::to_string(std::llround(count->highest)) + " deliveries " + what +
                            " in the worst round.\n";
    return text;
}

std::string colour_of(const Contender &contender, size_t place)
{
    static const char *const others[] = {"#6a51a3", "#e377c2", "#17becf", "#bcbd22"};
    if (contender.relay)
        return "#8c8c8c";
    if (contender.program.empty())
        return "#2a9d5c";
    return contender.name == "native" ? "#1f6fb4" : contender.name == "standard" ? "#e08214" : others[place % 4];
}

// The messages are shown as multiples of mosquitto's, all else as it is.
bool is_relative(const Heading &heading)
{
    return heading.section == Section::messages;
}

std::vector<Contender> shown_in(const Report &report, const Heading &heading)
{
    std::vector<Contender> all = report.contenders;
    std::erase_if(all, [&](const Contender &one) {
        return (is_relative(heading) && one.program.empty()) || (heading.section == Section::beside && one.relay);
    });
    return all;
}

Bars bars_of(const Report &report, const Heading &heading)
{
    const bool                   relative = is_relative(heading);
    const std::vector<Contender> shown    = shown_in(report, heading);
    Bars bars{.title = heading.title, .unit = heading.unit, .linear = heading.section == Section::beside};
    for (const Contender &one : shown)
        bars.series.push_back({one.name, colour_of(one, bars.series.size())});
    for_each_row(report, heading.section, [&](const Case &which, const Row &row) {
        if (row.unit != heading.unit && !relative)
            return;
        Bars::Group group{.label = row.what};
        for (const Contender &one : shown) {
            const auto value = relative ? report.results.times(which.name, one.name, "mosquitto", row.metric)
                                        : report.results.of(which.name, one.name, row.metric);
            group.values.push_back(value ? std::optional(value->median) : std::nullopt);
        }
        if (row.goal.of == (relative ? Goal::Of::mosquitto : Goal::Of::itself))
            group.goal = row.goal.value;
        bars.groups.push_back(group);
    });
    return bars;
}

std::string plot_name(const Heading &heading)
{
    return std::string(heading.plot) + ".svg";
}

bool write_file(const std::filesystem::path &file, const std::string &text)
{
    std::ofstream output(file);
    output << text;
    output.close();
    if (!output)
        perror(file.c_str());
    return static_cast<bool>(output);
}

std::string read_file(const std::filesystem::path &file)
{
    std::ifstream      input(file);
    std::ostringstream text;
    text << input.rdbuf();
    return text.str();
}

} // namespace

std::string Report::text(const std::string &plots) const
{
    std::ostringstream out;
    out << "Medians of " << rounds << " interleaved rounds (lowest to highest) on " << machine() << ".\n";
    for (const Heading &heading : kHeadings) {
        const std::string rows = table(*this, heading.section);
        if (rows.empty())
            continue;
        out << "\n### " << heading.title << "\n\n" << heading.what << "\n\n" << rows;
        if (!plots.empty())
            out << "\n![" << heading.title << "](" << plots << "/" << plot_name(heading) << ")\n";
    }
    out << "\n" << client_share(*this) << delivery_faults(*this);
    for (const std::string &fault : faults)
        out << "* " << fault << "\n";
    return out.str();
}

std::string Report::goals_text() const
{
    std::string text;
    for (const Heading &heading : kHeadings)
        for_each_row(*this, heading.section, [&](const Case &one, const Row &row) {
            const std::string met = met_text(*this, one, row);
            if (!met.empty())
                text += (met == "yes" ? "met:  " : "MISSED: ") + row.what + " (" + goal_text(row) + ")" +
                        (met == "yes" ? "" : ": " + met) + "\n";
        });
    return text;
}

bool Report::draw(const std::filesystem::path &folder) const
{
    std::error_code failed; // shows when the files are written
    bool            written = true;
    std::filesystem::create_directories(folder, failed);
    for (const Heading &heading : kHeadings)
        if (const Bars bars = bars_of(*this, heading); !bars.groups.empty())
            written &= write_file(folder / plot_name(heading), svg_of(bars));
    return written;
}

bool write_report(const Report &report, const std::filesystem::path &file)
{
    const std::string plots = file.stem();
    std::string       text  = read_file(file);
    const size_t      begin = text.find(kBegin), end = text.find(kEnd);
    const std::string part = std::string(kBegin) + "\n\n" + report.text(plots) + "\n" + kEnd;
    if (begin == std::string::npos || end == std::string::npos || end < begin)
        text += (text.empty() ? "# Performance\n\n" : "\n") + part + "\n";
    else
        text.replace(begin, end + sizeof kEnd - 1 - begin, part);
    const bool drawn = report.draw(file.parent_path() / plots);
    return write_file(file, text) && drawn;
}

} // namespace tarn::performance
