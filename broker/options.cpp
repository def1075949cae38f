#include "options.h"

#include <cerrno>
#include <cstdlib>
#include <getopt.h>
#include <iterator>

namespace tarn::broker {
namespace {

// The numbers the library takes for each setting, so that a wrong one is refused with its name and range.
struct NumberRow {
    char        letter;
    const char *name;
    int32_t     lowest;
    int32_t     highest;
    int32_t Options::*target;
};
constexpr NumberRow kNumbers[] = {
    {'k', "--keep-alive", 1, 3600, &Options::keepalive_s},
    {'p', "--max-packet-size", 256, 10485760, &Options::max_packet_size},
    {'c', "--max-clients", 1, 11000, &Options::max_clients},
};

constexpr const char *kLevels[] = {"debug", "info", "warn", "error"}; // in the library's numbering

constexpr option kLongOptions[] = {
    {"log-level", required_argument, nullptr, 'l'},
    {"keep-alive", required_argument, nullptr, 'k'},
    {"max-packet-size", required_argument, nullptr, 'p'},
    {"max-clients", required_argument, nullptr, 'c'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {nullptr, 0, nullptr, 0},
};

std::string read_level(const std::string &text, uint32_t &level)
{
    for (size_t i = 0; i < std::size(kLevels); ++i) {
        if (text == kLevels[i]) {
            level = static_cast<uint32_t>(i);
            return {};
        }
    }
    return "--log-level takes debug, info, warn or error, not '" + text + "'";
}

std::string read_number(const NumberRow &row, const char *text, Options &options)
{
    char *end        = nullptr;
    errno            = 0;
    const long value = strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || value < row.lowest || value > row.highest)
        return std::string(row.name) + " takes a number from " + std::to_string(row.lowest) + " to " +
               std::to_string(row.highest) + ", not '" + text + "'";
    options.*row.target = static_cast<int32_t>(value);
    return {};
}

std::string read_value(int letter, const char *text, Options &options)
{
    for (const NumberRow &row : kNumbers)
        if (letter == row.letter)
            return read_number(row, text, options);
    return read_level(text, options.log_level);
}

// What getopt could not read. It names a short option, and a long one that was given a value it does not take, by its
// letter; a long one that it does not know stands in the argument before optind.
std::string describe_mistake(char *const *argv)
{
    for (const option &row : kLongOptions)
        if (row.name && optopt == row.val)
            return std::string("--") + row.name + " takes no value";
    if (optopt != 0)
        return std::string("unknown option '-") + static_cast<char>(optopt) + "'";
    return std::string("unknown option '") + argv[optind - 1] + "'";
}

} // namespace

CommandLine read_command_line(int argc, char *const *argv)
{
    CommandLine line;
    optind = 0; // 0, not 1: getopt starts afresh, also in its own static state
    opterr = 0;
    for (int letter; (letter = getopt_long(argc, argv, ":l:k:p:c:hV", kLongOptions, nullptr)) != -1;) {
        switch (letter) {
        case 'h':
            line.wish = Wish::Help;
            return line;
        case 'V':
            line.wish = Wish::Version;
            return line;
        case ':':
            line.error = std::string(argv[optind - 1]) + " needs a value";
            return line;
        case '?':
            line.error = describe_mistake(argv);
            return line;
        default:
            line.error = read_value(letter, optarg, line.options);
            if (!line.error.empty())
                return line;
        }
    }
    if (optind < argc)
        line.error = std::string("unexpected argument '") + argv[optind] + "'";
    return line;
}

const char *const kHelp = R"(Usage: tarn-broker [OPTION]...
Serves MQTT 3.1.1 and 5.0 on port 1883, TCP and UDP, until it gets SIGINT or SIGTERM.

  -l, --log-level LEVEL        debug, info, warn (default) or error; the log goes to standard output
  -k, --keep-alive SECONDS     silence after which a connection without CONNECT is closed, 1..3600 (300)
  -p, --max-packet-size BYTES  largest packet before and with CONNECT, 256..10485760 (4096); no packet of more than
                               4096 bytes is taken in any case
  -c, --max-clients N          clients served at a time, 1..11000 (5000)
  -h, --help                   print this and end
  -V, --version                print the version and end

Sessions and messages are kept in ./broker_data. A second signal ends the broker at once.
Exit status: 0 ended by a signal, 1 could not serve, 2 bad option.
)";

} // namespace tarn::broker
