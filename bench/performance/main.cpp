// performance - messages, connections and memory of tarn-broker in both profiles, of mosquitto and of a bare relay.
//
//     performance [--rounds N] [--short] [--alone] [--only WORD]... [--broker NAME]... [--and NAME=PROGRAM]...
//                 [--markdown FILE] TARN_BROKER
//     performance --list
//
// Round after round each case meets each broker in turn, which is started for it in a directory and a network of its
// own. What counts are medians of the rounds, and ratios within a round. Prints Markdown tables, and which goals are
// met; with --markdown the tables go into FILE between two marks, and plots into a folder beside it. --only takes cases
// whose name has WORD in it, --broker one of native, standard, mosquitto and relay, --alone leaves mosquitto out, --and
// adds another tarn-broker in both profiles, --short takes a fifth of the time. Exit status 1 when a case has no
// result; goals are to be read. bench/apart.sh runs it so that nothing is left behind.
#include "beside/crowd.h"
#include "relay.h"
#include "report.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarn::performance {
namespace {

constexpr double kCaseLimit_s = 180; // for a case and a broker; then it has no result

struct Settings {
    std::string              broker, markdown;
    std::vector<std::string> only, brokers;
    std::vector<Contender>   more;
    unsigned                 rounds    = 5;
    bool                     shortened = false, alone = false, list = false;
};

struct Outcome {
    std::vector<std::pair<std::string, double>> values;
    std::string                                 fault;
};

void add_tarn(std::vector<Contender> &all, const std::string &name, const std::string &program)
{
    all.push_back({.name = name, .program = program});
    all.push_back(
        {.name = name == "native" ? "standard" : name + "-standard", .program = program, .options = {"--standard"}});
}

std::vector<Contender> contenders_of(const Settings &settings)
{
    std::vector<Contender> all;
    add_tarn(all, "native", settings.broker);
    for (const Contender &one : settings.more)
        add_tarn(all, one.name, one.program);
    if (!settings.alone)
        all.push_back({.name = "mosquitto", .program = ""});
    all.push_back({.name = "relay", .program = "/proc/self/exe", .options = {"--relay"}, .relay = true});
    std::erase_if(all, [&](const Contender &one) {
        const auto &wanted = settings.brokers;
        return !wanted.empty() && std::find(wanted.begin(), wanted.end(), one.name) == wanted.end();
    });
    return all;
}

std::vector<const Case *> cases_of(const Settings &settings)
{
    std::vector<const Case *> all;
    for (const Case &one : cases()) {
        const auto named = [&](const std::string &word) { return one.name.find(word) != std::string::npos; };
        if (settings.only.empty() || std::any_of(settings.only.begin(), settings.only.end(), named))
            all.push_back(&one);
    }
    return all;
}

[[noreturn]] void be_case(const Settings &settings, const Case &one, const Contender &contender, int output)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Stage stage(contender, settings.shortened, output);
    one.run(stage);
    exit(0);
}

// All that the other end writes, until it is closed or the time is up.
std::string read_all(int input, double limit_s)
{
    std::string  text;
    char         chunk[4096];
    const double end_s = beside::now_s() + limit_s;
    pollfd       wanted{input, POLLIN, 0};
    while (beside::now_s() < end_s) {
        if (poll(&wanted, 1, 100) == 0)
            continue;
        const ssize_t count = read(input, chunk, sizeof chunk);
        if (count <= 0)
            break;
        text.append(chunk, static_cast<size_t>(count));
    }
    return text;
}

Outcome outcome_of(const std::string &text)
{
    Outcome outcome;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
        const std::string line  = text.substr(at, end - at);
        const size_t      space = line.find(' ');
        if (line.starts_with("! "))
            outcome.fault = line.substr(2);
        else
            outcome.values.emplace_back(line.substr(0, space), strtod(line.c_str() + space, nullptr));
    }
    if (outcome.values.empty() && outcome.fault.empty())
        outcome.fault = "no result";
    return outcome;
}

// In a process of its own, so that network, directory, broker and all connections go with it.
Outcome run_case(const Settings &settings, const Case &one, const Contender &contender)
{
    int ends[2];
    fflush(stdout);
    if (pipe2(ends, O_CLOEXEC) != 0)
        return {.values = {}, .fault = "no pipe"};
    const pid_t process = fork();
    if (process == 0)
        be_case(settings, one, contender, ends[1]);
    close(ends[1]);
    const std::string text = read_all(ends[0], kCaseLimit_s);
    close(ends[0]);
    kill(process, SIGKILL); // and the broker with it
    waitpid(process, nullptr, 0);
    return outcome_of(text);
}

void add_outcome(Report &report, const Case &one, const Contender &contender, const Outcome &outcome)
{
    const unsigned round = report.rounds + 1;
    fprintf(stderr, "round %u  %-22s %-10s", round, one.name.c_str(), contender.name.c_str());
    for (const auto &[metric, value] : outcome.values) {
        report.results.put(one.name, contender.name, round, metric, value);
        fprintf(stderr, "  %s %.*f", metric.c_str(), value < 100 ? 2 : 0, value);
    }
    fprintf(stderr, "  %s\n", outcome.fault.c_str());
    if (!outcome.fault.empty())
        report.faults.push_back("round " + std::to_string(round) + ", " + one.name + ", " + contender.name + ": " +
                                outcome.fault);
}

void run_round(const Settings &settings, Report &report)
{
    for (const Case *const one : report.cases)
        for (const Contender &contender : report.contenders)
            if (report.rounds < one->max_rounds && (one->with_relay || !contender.relay))
                add_outcome(report, *one, contender, run_case(settings, *one, contender));
    ++report.rounds;
}

int run(const Settings &settings)
{
    Report report{.contenders = contenders_of(settings), .cases = cases_of(settings), .results = {}, .faults = {}};
    if (report.contenders.empty() || report.cases.empty()) {
        fprintf(stderr, "performance: there is no such case or broker\n");
        return 2;
    }
    bool written = true;
    while (report.rounds < settings.rounds) {
        run_round(settings, report);
        if (!settings.markdown.empty()) // after each round: who has no time for all of them has something
            written = write_report(report, settings.markdown);
    }
    printf("%s\n%s", report.text().c_str(), report.goals_text().c_str());
    return written && report.faults.empty() ? 0 : 1;
}

bool read_pair(const std::string &word, std::vector<Contender> &more)
{
    const size_t equals = word.find('=');
    if (equals == std::string::npos || equals == 0)
        return false;
    more.push_back({.name = word.substr(0, equals), .program = std::filesystem::absolute(word.substr(equals + 1))});
    return true;
}

bool read_option(const std::string &word, const std::string &value, Settings &settings)
{
    if (word == "--rounds")
        return (settings.rounds = static_cast<unsigned>(strtoul(value.c_str(), nullptr, 10))) > 0;
    if (word == "--only")
        settings.only.push_back(value);
    else if (word == "--broker")
        settings.brokers.push_back(value);
    else if (word == "--markdown")
        settings.markdown = std::filesystem::absolute(value);
    else
        return word == "--and" && read_pair(value, settings.more);
    return true;
}

bool read_arguments(int argc, char **argv, Settings &settings)
{
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--short")
            settings.shortened = true;
        else if (word == "--alone")
            settings.alone = true;
        else if (word == "--list")
            settings.list = true;
        else if (word.starts_with("-") && i + 1 < argc && read_option(word, argv[i + 1], settings))
            ++i;
        else if (word.starts_with("-") || !settings.broker.empty())
            return false;
        else
            settings.broker = std::filesystem::absolute(word); // it runs in another directory
    }
    return settings.list || !settings.broker.empty();
}

int list_cases()
{
    for (const Case &one : cases())
        for (const Row &row : one.rows)
            printf("%-22s %s, %s\n", one.name.c_str(), row.what.c_str(), row.unit.c_str());
    return 0;
}

} // namespace
} // namespace tarn::performance

int main(int argc, char **argv)
{
    using namespace tarn::performance;
    Settings settings;
    if (argc == 2 && strcmp(argv[1], "--relay") == 0)
        run_relay();
    if (!read_arguments(argc, argv, settings)) {
        fprintf(stderr, "usage: performance [--rounds N] [--short] [--alone] [--only WORD]... [--broker NAME]...\n"
                        "                   [--and NAME=PROGRAM]... [--markdown FILE] TARN_BROKER\n"
                        "       performance --list\n");
        return 2;
    }
    if (settings.list)
        return list_cases();
    tarn::beside::raise_file_limit();
    return run(settings);
}
