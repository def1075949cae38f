// broker.h - the broker that is attacked: a process of its own in this directory, and what is known of it from outside.
#ifndef TARN_BENCH_BESIDE_BROKER_H
#define TARN_BENCH_BESIDE_BROKER_H

#include <atomic>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace tarn::beside {

// With passwords there is one user.
inline constexpr char kUser[] = "honest", kPassword[] = "secret";

struct BrokerOptions {
    std::string              tarn_broker;    // the program; empty: mosquitto
    std::vector<std::string> more;           // options for tarn-broker
    std::string              settings  = {}; // further lines for mosquitto
    bool                     passwords = false;
    bool                     log_read  = true; // false: standard output is a pipe that is not read before the end
};

class Broker {
public:
    explicit Broker(const BrokerOptions &options);
    ~Broker(); // kills it
    Broker(const Broker &)            = delete;
    Broker &operator=(const Broker &) = delete;

    pid_t pid() const { return pid_; }
    bool  has_ended();
    // Sends SIGTERM; seconds until the process has ended, nothing when it had to be killed.
    std::optional<double> terminate(double limit_s);
    double                memory_mb() const; // resident now
    size_t                log_bytes() const { return log_bytes_; }
    // Deliveries whose identifier was drawn as 0, which this broker gives up by design (once in 65800).
    unsigned lost_identifiers() const { return lost_identifiers_; }

private:
    void read_log();
    void count_lines(std::string_view chunk);

    pid_t                 pid_ = -1;
    int                   log_ = -1; // read end of its standard output
    std::atomic<bool>     log_read_;
    std::atomic<size_t>   log_bytes_        = 0;
    std::atomic<unsigned> lost_identifiers_ = 0;
    std::string           line_;
    std::thread           reader_;
};

} // namespace tarn::beside

#endif
