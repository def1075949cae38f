#include "options.h"

#include <cerrno>
#include <cstdlib>
#include <getopt.h>
#include <iterator>
#include <variant>
#include <vector>

#include <tarn_sdk_mqtt_broker/base/limits.h>

namespace tarn::broker {
namespace {

// What an option's value is and where it goes.
struct Number { // a wrong one would be refused by the library, but without the option's name
    int32_t Options::*target;
    int32_t           lowest;
    int32_t           highest;
    bool Options::*given = nullptr; // set when it is
};
struct Level {};
struct Port {}; // nobody can choose it, and everybody tries
struct Text {
    std::string Options::*target;
};
struct Switch {
    bool Options::*target;
    bool           value = true;
};
using Target = std::variant<Number, Level, Port, Text, Switch, Wish>;

// The one place that knows the options: what is taken, what is refused and what --help says all follow from it. In an
// argument and a help text {} stands for the values that are taken.
struct Row {
    char        letter; // 0 without a short form
    const char *name;
    const char *argument; // null when it takes none
    Target      target;
    const char *help;
};
const Row kRows[] = {
    {'l', "log-level", "LEVEL", Level{},
     "{} (default; with --top it is warn);\n"
     "the log goes to standard output"},
    {0, "log-limit", "N", Number{&Options::log_limit, 0, 1000000},
     "lines of the log in a second that begin alike, {};\n"
     "0 = no limit"},
    {'k', "keep-alive", "SECONDS", Number{&Options::keepalive_s, 1, 3600},
     "silence after which a connection without CONNECT is closed, {}"},
    {0, "connect-within", "SECONDS", Number{&Options::connect_s, 0, 3600},
     "a connection without CONNECT is closed after so long, {};\n"
     "0 = after --keep-alive alone"},
    {0, "standard", nullptr, Switch{&Options::standard},
     "serve MQTT 3.1.1 and 5.0 as the standards have them, to clients of\n"
     "any make, over TCP alone"},
    {0, "udp", nullptr, Switch{&Options::udp}, "serve UDP as well"},
    {0, "no-udp", nullptr, Switch{&Options::udp, false}, "serve TCP alone (default)"},
    {'p', "port", "{}", Port{}, "the port is always this one"},
    {0, "max-packet-size", "BYTES", Number{&Options::max_packet_size, 256, 10485760, &Options::has_packet_size},
     "largest packet before and with CONNECT, {}; no packet of more than\n"
     "4096 bytes is taken in any case. With --standard the largest of any,\n"
     "10485760 unless it is given"},
    {'c', "max-clients", "N", Number{&Options::max_clients, 1, CLIENT_MAX}, "clients served at a time, {}"},
    {0, "directory", "DIR", Text{&Options::directory}, "work there: sessions, and relative names of files"},
    {0, "user-file", "FILE", Text{&Options::user_file},
     "who may connect, and by which password; see tarn-broker passwd --help"},
    {0, "acl-file", "FILE", Text{&Options::acl_file},
     "who may subscribe and publish to what; nothing else is allowed then"},
    {0, "password-wait", "SECONDS", Number{&Options::password_wait_s, 0, 3600},
     "longest wait after wrong passwords, {}; 0 = none"},
    {0, "quota-connections", "N", Number{&Options::quota_connections, 0, CLIENT_MAX},
     "connections of one user or address, {};\n"
     "0, here and below = four fifths of what there is"},
    {0, "quota-ids", "N", Number{&Options::quota_ids, 0, 1000000}, "client ids of one user or address, {}"},
    {0, "quota-sessions", "N", Number{&Options::quota_sessions, 0, 1000000},
     "kept sessions of one user or address, {}"},
    {0, "quota-subscriptions", "N", Number{&Options::quota_subscriptions, 0, SUB_CAPACITY},
     "subscriptions of one user or address, {}"},
    {0, "quota-retained", "N", Number{&Options::quota_retained, 0, RETAIN_CAPACITY},
     "retained topics of one user or address, {}"},
    {0, "quota-wills", "N", Number{&Options::quota_wills, 0, CLIENT_MAX}, "wills of one user or address, {}"},
    {0, "no-quotas", nullptr, Switch{&Options::quotas, false}, "no quotas: one may have everything"},
    {0, "keep-running", nullptr, Switch{&Options::keep_running},
     "do not end when wills have used up almost all client records"},
    {0, "user", "NAME", Text{&Options::user}, "become this user before anything is opened"},
    {0, "events", "FILE", Text{&Options::events},
     "append what happens to FILE as JSON, a line an event; - is standard output"},
    {0, "control", "PATH", Text{&Options::control}, "answer 'tarn-broker ctl PATH' at this Unix socket"},
    {0, "top", nullptr, Switch{&Options::top}, "show the running broker in this terminal; the log is part of it"},
    {'h', "help", nullptr, Wish::Help, "print this and end"},
    {'V', "version", nullptr, Wish::Version, "print the version and end"},
};

static_assert(NETIP_RX_SIZE == 4096, "the help on --max-packet-size says so");

constexpr const char *kLevels[] = {"debug", "info", "warn", "error"}; // in the library's numbering

// What getopt returns for a row: its letter, or a number that is no letter.
int code_of(const Row &row)
{
    return row.letter ? row.letter : 256 + static_cast<int>(&row - kRows);
}

const Row *row_of(int code)
{
    for (const Row &row : kRows)
        if (code_of(row) == code)
            return &row;
    return nullptr;
}

std::vector<option> long_options()
{
    std::vector<option> options;
    for (const Row &row : kRows)
        options.push_back({row.name, row.argument ? required_argument : no_argument, nullptr, code_of(row)});
    options.push_back({nullptr, 0, nullptr, 0});
    return options;
}

std::string short_options()
{
    std::string letters = ":"; // to be told of a missing value apart from an unknown option
    for (const Row &row : kRows) {
        if (row.letter == 0)
            continue;
        letters += row.letter;
        if (row.argument)
            letters += ':';
    }
    return letters;
}

// One for each kind of value: the values that are taken, as people write them.
struct Values {
    std::string operator()(const Number &number) const // its range, and what it is when not given
    {
        return std::to_string(number.lowest) + ".." + std::to_string(number.highest) + " (" +
               std::to_string(Options{}.*number.target) + ")";
    }
    std::string operator()(Level) const
    {
        std::string text = kLevels[0];
        for (size_t i = 1; i < std::size(kLevels); ++i)
            text += (i + 1 < std::size(kLevels) ? ", " : " or ") + std::string(kLevels[i]);
        return text;
    }
    std::string                        operator()(Port) const { return std::to_string(NETIP_PORT); }
    template <class Other> std::string operator()(const Other & /*takes any or none*/) const { return {}; }
};

// The text with the values in the place of {}.
std::string filled(std::string text, const Target &target)
{
    if (const size_t at = text.find("{}"); at != text.npos)
        text.replace(at, 2, std::visit(Values{}, target));
    return text;
}

// The same: each stores its value, or gives the mistake.
struct Read {
    const Row   &row;
    const char  *text; // null for an option without a value
    CommandLine &line;

    std::string operator()(const Number &number) const
    {
        char *end        = nullptr;
        errno            = 0;
        const long value = strtol(text, &end, 10);
        if (end == text || *end != '\0' || errno != 0 || value < number.lowest || value > number.highest)
            return refused("a number from " + std::to_string(number.lowest) + " to " + std::to_string(number.highest));
        line.options.*number.target = static_cast<int32_t>(value);
        if (number.given)
            line.options.*number.given = true;
        return {};
    }

    std::string operator()(Level) const
    {
        for (size_t i = 0; i < std::size(kLevels); ++i) {
            if (std::string(text) == kLevels[i]) {
                line.options.log_level = static_cast<uint32_t>(i);
                return {};
            }
        }
        return refused(Values{}(Level{}));
    }

    std::string operator()(Port port) const
    {
        const std::string always = Values{}(port);
        return text == always ? "" : "the port is always " + always + ", it cannot be '" + text + "'";
    }

    std::string operator()(const Text &value) const
    {
        if (*text == '\0')
            return std::string("--") + row.name + " takes a name, not an empty one";
        line.options.*value.target = text;
        return {};
    }

    std::string operator()(const Switch &value) const
    {
        line.options.*value.target = value.value;
        return {};
    }

    std::string operator()(Wish wish) const
    {
        line.wish = wish;
        return {};
    }

    std::string refused(const std::string &wanted) const
    {
        return std::string("--") + row.name + " takes " + wanted + ", not '" + text + "'";
    }
};

// What getopt could not read. It names a short option, and a long one that was given a value it does not take, by its
// code; a long one that it does not know stands in the argument before optind.
std::string describe_mistake(char *const *argv)
{
    if (const Row *row = row_of(optopt))
        return std::string("--") + row->name + " takes no value";
    if (optopt != 0)
        return std::string("unknown option '-") + static_cast<char>(optopt) + "'";
    return std::string("unknown option '") + argv[optind - 1] + "'";
}

// "  -k, --keep-alive SECONDS     " and the help text, whose further lines stand below its first.
std::string help_of(const Row &row)
{
    constexpr size_t kColumn = 31;
    std::string      text    = row.letter ? std::string("  -") + row.letter + ", --" : std::string("      --");
    text += row.name;
    if (row.argument)
        text += ' ' + filled(row.argument, row.target);
    text.resize(kColumn, ' ');
    for (const char c : filled(row.help, row.target)) {
        text += c;
        if (c == '\n')
            text.append(kColumn, ' ');
    }
    return text + "\n";
}

} // namespace

CommandLine read_command_line(int argc, char *const *argv)
{
    const std::string         letters = short_options();
    const std::vector<option> names   = long_options();
    CommandLine               line;
    optind = 0; // 0, not 1: getopt starts afresh, also in its own static state
    opterr = 0;
    for (int code; (code = getopt_long(argc, argv, letters.c_str(), names.data(), nullptr)) != -1;) {
        const Row *row = row_of(code);
        if (row)
            line.error = std::visit(Read{*row, optarg, line}, row->target);
        else if (code == ':')
            line.error = std::string(argv[optind - 1]) + " needs a value";
        else
            line.error = describe_mistake(argv);
        if (!line.error.empty() || line.wish == Wish::Help || line.wish == Wish::Version)
            return line;
    }
    if (optind < argc)
        line.error = std::string("unexpected argument '") + argv[optind] + "'";
    else if (line.options.standard && line.options.udp)
        line.error = "--udp is not for --standard, which serves TCP alone";
    return line;
}

std::string help_text()
{
    std::string text = "Usage: tarn-broker [OPTION]...\n"
                       "       tarn-broker passwd [--delete] FILE NAME\n"
                       "       tarn-broker ctl PATH [COMMAND [ARGUMENT]...]\n"
                       "Serves MQTT 3.1.1 and 5.0 on port " +
                       Values{}(Port{}) + ", until it gets SIGINT or SIGTERM.\n\n";
    for (const Row &row : kRows)
        text += help_of(row);
    return text + "\n"
                  "Sessions and messages are kept in ./broker_data, by one broker at a time. SIGHUP makes it read the\n"
                  "files of users and rules again. A second SIGINT or SIGTERM ends the broker at once.\n"
                  "SIGUSR1 prints the statistics as JSON on standard output.\n"
                  "Exit status: 0 ended by a signal, 1 could not serve or go on, 2 bad option.\n";
}

} // namespace tarn::broker
