// options.h - the command line of tarn-broker.
#ifndef TARN_BROKER_OPTIONS_H
#define TARN_BROKER_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::broker {

struct Options {
    std::optional<uint32_t> log_level;             // 0 debug .. 3 error; nothing when not given
    int32_t                 log_limit       = 100; // lines of a kind in a second, 0 = no limit
    int32_t                 password_wait_s = 60;  // the longest, 0 = nobody waits
    int32_t                 connect_s       = 30;  // in which a connection has to say CONNECT, 0 = as long as it likes
    int32_t                 keepalive_s     = 300;
    int32_t                 max_packet_size = 4096;  // bytes
    bool                    has_packet_size = false; // it was given
    int32_t                 max_clients     = 5000;
    std::string             directory; // this and all below: empty when not given
    std::string             user_file;
    std::string             acl_file;
    std::string             user;                 // to run as
    std::string             events;               // a file, "-" = standard output, empty = none
    std::string             control;              // the path of the control socket, empty = none
    bool                    top          = false; // the live view
    bool                    standard     = false; // the library's standard profile
    bool                    udp          = false; // serve datagrams as well
    bool                    keep_running = false; // also when almost all client records are used up

    bool    quotas              = true; // of one user or address; each 0 = four fifths of what there is
    int32_t quota_connections   = 0;
    int32_t quota_ids           = 0;
    int32_t quota_sessions      = 0; // kept
    int32_t quota_subscriptions = 0;
    int32_t quota_retained      = 0; // topics
    int32_t quota_wills         = 0;

    // Who looks at the log wants to see more of it than a journal does.
    uint32_t level() const { return log_level.value_or(top ? 2 : 3); }
};

enum class Wish { Serve, Help, Version };

struct CommandLine {
    Wish        wish = Wish::Serve;
    Options     options;
    std::string error; // what is wrong with it; empty when nothing is
};

// The first --help or --version ends the reading, and so does the first mistake.
CommandLine read_command_line(int argc, char *const *argv);

std::string help_text();

} // namespace tarn::broker

#endif
