#include "broker.h"

#include "crowd.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace tarn::beside {
namespace {

constexpr char kUsers[]    = "users";
constexpr char kSettings[] = "stock.conf";

[[noreturn]] void give_up(const char *what)
{
    perror(what);
    exit(1);
}

void make_users(const BrokerOptions &options)
{
    const std::string command = options.tarn_broker.empty()
                                    ? std::string("mosquitto_passwd -b -c ") + kUsers + " " + kUser + " " + kPassword
                                    : "'" + options.tarn_broker + "' passwd " + kUsers + " " + kUser;
    FILE *const       input   = popen(command.c_str(), "w");
    if (!input)
        give_up("passwd");
    fprintf(input, "%s\n", kPassword);
    if (pclose(input) != 0)
        give_up("passwd");
}

void write_settings(const BrokerOptions &options)
{
    FILE *const file = fopen(kSettings, "w");
    if (!file)
        give_up(kSettings);
    fprintf(file, "user root\nlistener 1883 127.0.0.1\nlog_dest stdout\nmax_inflight_messages 0\n"
                  "max_queued_messages 0\n");
    if (options.passwords)
        fprintf(file, "allow_anonymous false\npassword_file %s\n", kUsers);
    else
        fprintf(file, "allow_anonymous true\n");
    fprintf(file, "%s", options.settings.c_str());
    fclose(file);
}

std::vector<std::string> command_of(const BrokerOptions &options)
{
    if (options.tarn_broker.empty())
        return {"mosquitto", "-c", kSettings};
    std::vector<std::string> words = {options.tarn_broker};
    if (options.passwords)
        words.insert(words.end(), {"--user-file", kUsers});
    words.insert(words.end(), options.more.begin(), options.more.end());
    return words;
}

[[noreturn]] void become(const std::vector<std::string> &words, int output)
{
    std::vector<char *> argv;
    for (const std::string &word : words)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(open("broker.err", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), STDERR_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
}

} // namespace

Broker::Broker(const BrokerOptions &options) : log_read_(options.log_read)
{
    if (options.passwords)
        make_users(options);
    if (options.tarn_broker.empty())
        write_settings(options);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        give_up("pipe");
    pid_ = fork();
    if (pid_ < 0)
        give_up("fork");
    if (pid_ == 0)
        become(command_of(options), ends[1]);
    close(ends[1]);
    log_    = ends[0];
    reader_ = std::thread([this] { read_log(); });
}

Broker::~Broker()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    log_read_ = true;
    reader_.join();
    close(log_);
}

bool Broker::has_ended()
{
    siginfo_t info{};
    return pid_ <= 0 ||
           (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0);
}

std::optional<double> Broker::terminate(double limit_s)
{
    const double start_s = now_s();
    kill(pid_, SIGTERM);
    while (!has_ended() && now_s() - start_s < limit_s)
        usleep(1000);
    const bool ended = has_ended();
    if (!ended)
        kill(pid_, SIGKILL);
    waitpid(std::exchange(pid_, -1), nullptr, 0);
    return ended ? std::optional(now_s() - start_s) : std::nullopt;
}

double Broker::memory_mb() const
{
    const std::string name = "/proc/" + std::to_string(pid_) + "/statm";
    FILE *const       file = fopen(name.c_str(), "r");
    long              all = 0, resident = 0;
    if (!file)
        return 0;
    if (fscanf(file, "%ld %ld", &all, &resident) != 2)
        resident = 0;
    fclose(file);
    return static_cast<double>(resident * sysconf(_SC_PAGESIZE)) / 1e6;
}

// Until the broker, and with it the other end, is gone.
void Broker::read_log()
{
    char    chunk[65536];
    ssize_t count;
    while (!log_read_)
        usleep(10000);
    while ((count = read(log_, chunk, sizeof chunk)) > 0 || (count < 0 && errno == EINTR)) {
        if (count < 0)
            continue;
        log_bytes_ += static_cast<size_t>(count);
        count_lines({chunk, static_cast<size_t>(count)});
    }
}

void Broker::count_lines(std::string_view chunk)
{
    for (size_t end; (end = chunk.find('\n')) != chunk.npos; chunk.remove_prefix(end + 1)) {
        line_ += chunk.substr(0, end);
        lost_identifiers_ += line_.find("requires non-zero Packet ID") != line_.npos;
        line_.clear();
    }
    line_ += chunk;
}

} // namespace tarn::beside
