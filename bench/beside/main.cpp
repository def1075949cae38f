// beside - what honest clients feel while another client does its worst.
//
//     beside [--short] [--alone] [--only NAME]... [--option WORD]... TARN_BROKER
//     beside --list
//
// Each attack (attacks.cpp) meets a broker that was started for it, in a directory and a network of its own; then the
// same meets mosquitto, where it is installed, as a yardstick for the machine. Honest clients (honest.cpp) are measured
// before and with the attack, and at its height the broker gets SIGTERM. One line of a Markdown table a broker and
// attack; exit status 1 when tarn-broker fails in one. --short takes a quarter of the time, --alone leaves mosquitto
// out, --option goes to tarn-broker. bench/apart.sh runs it so that nothing is left behind.
#include "attacks.h"
#include "honest.h"
#include "support/isolation.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tarn::beside {
namespace {

struct Settings {
    std::string              broker;
    std::vector<std::string> only, more;
    bool                     short_run = false, alone = false, list = false;

    double before_s() const { return short_run ? 1 : 2.5; }
    double with_s() const { return short_run ? 2.5 : 8; }
};

constexpr double kWarmUp_s      = 0.5; // the kernel delays a new connection's first acknowledgements
constexpr double kLate_s        = 5;   // for messages that are still on their way in the end
constexpr double kJoinLimit_s   = 10;
constexpr double kEndLimit_s    = 30;  // then it is killed
constexpr double kRowLimit_s    = 240; // for an attack and a broker
constexpr double kLatency_ms    = 50;  // p99 may always be so much ...
constexpr double kLatencyFactor = 5;   // ... or so many times that of before
constexpr double kConnect_ms    = 1000;
constexpr double kTerminate_s   = 5;
constexpr double kOwnDelay_ms   = 20; // a machine that is late by more makes poor figures

struct Row {
    Measured              before, with;
    std::string           refused;
    std::optional<double> end_s;
    bool                  died      = false;
    unsigned              by_design = 0; // messages lost by the identifier 0
    std::string           seen;
};

struct Verdict {
    std::string text;
    void        add(const std::string &fault) { text += (text.empty() ? "" : ", ") + fault; }
};

Verdict judge(const Row &row)
{
    Verdict    verdict;
    unsigned   lost = 0;
    const auto slow = [&](const Spread &before, const Spread &with) {
        return with.p99_ms > std::max(kLatency_ms, kLatencyFactor * before.p99_ms);
    };
    for (size_t qos = 0; qos < 2; ++qos) {
        lost += row.with.pairs[qos].lost;
        if (slow(row.before.pairs[qos].spread, row.with.pairs[qos].spread))
            verdict.add("slow at QoS " + std::to_string(qos));
    }
    if (lost > row.by_design)
        verdict.add("messages lost");
    if (row.with.cut_off)
        verdict.add("pair cut off");
    if (row.with.door.unanswered || row.with.door.spread.max_ms > kConnect_ms)
        verdict.add("connecting");
    if (row.with.door.no_subscription)
        verdict.add("subscriptions refused");
    if (!row.refused.empty())
        verdict.add(row.refused);
    if (row.died)
        verdict.add("broker ended");
    if (!row.end_s || *row.end_s > kTerminate_s)
        verdict.add("SIGTERM");
    return verdict;
}

void print_head()
{
    printf("Latencies in ms: p50 / p99 / max, at QoS 0 and QoS 1, and of new connections to their CONNACK.\n\n");
    printf("| beside | broker | QoS 0 before | with | QoS 1 before | with | lost | connect before | with | unanswered "
           "| SIGTERM, s | seen | verdict |\n");
    printf("|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
}

void print_spread(const Spread &spread)
{
    printf("%.2f / %.2f / %.1f | ", spread.p50_ms, spread.p99_ms, spread.max_ms);
}

void print(const char *attack, const char *broker, const Row &row, const Verdict &verdict)
{
    printf("| %s | %s | ", attack, broker);
    for (size_t qos = 0; qos < 2; ++qos) {
        print_spread(row.before.pairs[qos].spread);
        print_spread(row.with.pairs[qos].spread);
    }
    const unsigned lost = row.with.pairs[0].lost + row.with.pairs[1].lost;
    printf("%u of %u | ", lost, row.with.pairs[0].sent + row.with.pairs[1].sent);
    print_spread(row.before.door.spread);
    print_spread(row.with.door.spread);
    printf("%u of %u | ", row.with.door.unanswered, row.with.door.tried);
    if (row.end_s)
        printf("%.2f | ", *row.end_s);
    else
        printf("over %.0f | ", kEndLimit_s);
    printf("%s | %s |\n", row.seen.c_str(), verdict.text.empty() ? "holds" : ("FAILS: " + verdict.text).c_str());
}

std::string seen_of(const Stage &stage, const Row &row)
{
    std::string seen = stage.seen;
    const auto  add  = [&](const std::string &text) { seen += (seen.empty() ? "" : "; ") + text; };
    if (row.by_design)
        add(std::to_string(row.by_design) + " deliveries drew identifier 0");
    const double late_ms = std::max(row.before.own_delay_ms, row.with.own_delay_ms);
    if (late_ms > kOwnDelay_ms)
        add("machine busy: " + std::to_string(static_cast<int>(late_ms)) + " ms late itself");
    return seen;
}

// The attack's threads step back behind those of the broker and of who measures: elsewhere they are other machines.
std::thread start_attack(Stage &stage, const std::function<void(Stage &)> &part)
{
    return std::thread([&] {
        setpriority(PRIO_PROCESS, 0, 5); // of this thread
        part(stage);
    });
}

Row measure(const Settings &settings, const Attack &attack, bool tarn)
{
    Row           row;
    test::Connect options{.keep_alive_s = 600};
    if (attack.passwords)
        options.username = kUser, options.password = kPassword;
    Broker broker({.tarn_broker = tarn ? settings.broker : "",
                   .more        = settings.more,
                   .passwords   = attack.passwords,
                   .log_read    = attack.log_read});
    Honest honest(options);
    if (!honest.join(kJoinLimit_s)) {
        row.refused = "the pair cannot connect";
        return row;
    }
    honest.measure(kWarmUp_s, 0);
    row.before = honest.measure(settings.before_s(), 0);

    Stage stage(broker);
    start_attack(stage, attack.prepare).join();
    std::thread attacker = start_attack(stage, attack.run);
    row.with             = honest.measure(settings.with_s(), kLate_s);
    row.refused          = honest.what_is_refused();
    row.died             = broker.has_ended();
    row.by_design        = broker.lost_identifiers();
    row.end_s            = broker.terminate(kEndLimit_s);
    stage.over           = true;
    attacker.join();
    row.seen = seen_of(stage, row);
    return row;
}

[[noreturn]] void be_row(const Settings &settings, const Attack &attack, bool tarn)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    test::isolate_process();
    const Row     row     = measure(settings, attack, tarn);
    const Verdict verdict = judge(row);
    print(attack.name.c_str(), tarn ? "tarn-broker" : "mosquitto", row, verdict);
    exit(verdict.text.empty() ? 0 : 1);
}

// In a process of its own, so that network, directory and all connections go with it. Whether the broker holds.
bool run_row(const Settings &settings, const Attack &attack, bool tarn)
{
    fflush(stdout);
    const pid_t  row   = fork();
    const double end_s = now_s() + kRowLimit_s;
    if (row == 0)
        be_row(settings, attack, tarn);
    int status = 0;
    while (waitpid(row, &status, WNOHANG) == 0) {
        usleep(10000);
        if (now_s() < end_s)
            continue;
        kill(row, SIGKILL); // and the broker with it
        waitpid(row, &status, 0);
        break;
    }
    if (!WIFEXITED(status))
        printf("| %s | %s | | | | | | | | | | | FAILS: no result |\n", attack.name.c_str(),
               tarn ? "tarn-broker" : "mosquitto");
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool run_all(const Settings &settings)
{
    bool holds = true;
    print_head();
    for (const Attack &attack : attacks()) {
        const auto &only = settings.only;
        if (!only.empty() && std::find(only.begin(), only.end(), attack.name) == only.end())
            continue;
        holds &= run_row(settings, attack, true);
        if (!settings.alone && !attack.tarn_only)
            run_row(settings, attack, false);
    }
    return holds;
}

bool is_attack(const std::string &name)
{
    return std::any_of(attacks().begin(), attacks().end(), [&](const Attack &attack) { return attack.name == name; });
}

bool read_arguments(int argc, char **argv, Settings &settings)
{
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--short")
            settings.short_run = true;
        else if (word == "--alone")
            settings.alone = true;
        else if (word == "--list")
            settings.list = true;
        else if (word == "--only" && i + 1 < argc && is_attack(argv[i + 1]))
            settings.only.push_back(argv[++i]);
        else if (word == "--option" && i + 1 < argc)
            settings.more.push_back(argv[++i]);
        else if (word.starts_with("-") || !settings.broker.empty())
            return false;
        else
            settings.broker = std::filesystem::absolute(word); // it runs in another directory
    }
    return settings.list || !settings.broker.empty();
}

} // namespace
} // namespace tarn::beside

int main(int argc, char **argv)
{
    using namespace tarn::beside;
    Settings settings;
    if (!read_arguments(argc, argv, settings)) {
        fprintf(stderr, "usage: beside [--short] [--alone] [--only NAME]... [--option WORD]... TARN_BROKER\n"
                        "       beside --list\n");
        return 2;
    }
    if (settings.list) {
        for (const Attack &attack : attacks())
            printf("%-16s %s\n", attack.name.c_str(), attack.what.c_str());
        return 0;
    }
    raise_file_limit();
    return run_all(settings) ? 0 : 1;
}
