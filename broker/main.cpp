// tarn-broker - the library as a program: a small host on its public functions alone.
//
// The library's log goes to standard output, what this program has to say itself to standard error.
#include "options.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tarn_sdk_mqtt_broker.h>

using namespace tarn::broker;

namespace {

constexpr uint16_t kPort = 1883; // the library serves no other

enum ExitStatus { kEnded = 0, kCannotServe = 1, kBadOption = 2 };

// Each client takes a descriptor, and the usual soft limit is 1024. When it cannot be raised, fewer clients fit.
void raise_descriptor_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
        return;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
        perror("tarn-broker: cannot raise the limit of open files");
}

// The signals that end the broker wait, blocked, until main() asks for them: also those that come during the start.
sigset_t hold_ending_signals()
{
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    return ending;
}

void wait_for_ending_signal(const sigset_t &ending)
{
    int received = 0;
    while (sigwait(&ending, &received) != 0) {}
    // From here on the default action: the next one ends the process at once.
    for (const int number : {SIGINT, SIGTERM})
        signal(number, SIG_DFL);
    pthread_sigmask(SIG_UNBLOCK, &ending, nullptr);
}

// Why 1883 cannot be had: the library tells only that it could not, so one asks the system again. 0 when it can.
int listening_error()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on); // as the library: left-over connections are no obstacle
    sockaddr_in any{};
    any.sin_family      = AF_INET;
    any.sin_port        = htons(kPort);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    const bool can      = bind(fd, reinterpret_cast<const sockaddr *>(&any), sizeof any) == 0 && listen(fd, 1) == 0;
    const int  error    = can ? 0 : errno;
    close(fd);
    return error;
}

void explain_failed_start(int32_t code)
{
    if (const int error = listening_error())
        fprintf(stderr, "tarn-broker: cannot listen on port %d: %s\n", kPort, strerror(error));
    else
        fprintf(stderr, "tarn-broker: cannot start: %s\n", tarn_sdk_mqtt_broker_error_str(code));
}

int32_t start(broker_t *broker, const Options &options)
{
    tarn_sdk_mqtt_broker_init(broker);
    tarn_sdk_mqtt_broker_set_log_level(broker, options.log_level); // again, since init sets it back
    tarn_sdk_mqtt_broker_set_keepalive_timeout(broker, options.keepalive_s);
    tarn_sdk_mqtt_broker_set_max_packet_size(broker, options.max_packet_size);
    return tarn_sdk_mqtt_broker_start(broker, kPort, options.max_clients);
}

int serve(const Options &options)
{
    const sigset_t ending = hold_ending_signals();
    raise_descriptor_limit();
    tarn_sdk_mqtt_broker_set_log_level(nullptr, options.log_level);
    broker_t *broker = tarn_sdk_mqtt_broker_create();
    if (!broker) {
        fprintf(stderr, "tarn-broker: out of memory\n");
        return kCannotServe;
    }

    const int32_t code = start(broker, options);
    if (code == TARN_OK) {
        fprintf(stderr, "tarn-broker: serving MQTT 3.1.1 and 5.0 on 0.0.0.0:%d (TCP and UDP), at most %d clients\n",
                kPort, options.max_clients);
        wait_for_ending_signal(ending);
        fprintf(stderr, "tarn-broker: ending\n");
        tarn_sdk_mqtt_broker_stop(broker);
    } else {
        explain_failed_start(code);
    }
    tarn_sdk_mqtt_broker_deinit(broker);
    tarn_sdk_mqtt_broker_destroy(broker);
    return code == TARN_OK ? kEnded : kCannotServe;
}

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0); // log lines appear as they are written, also in a pipe
    signal(SIGPIPE, SIG_IGN);            // whoever reads the log may go; the broker stays

    const CommandLine line = read_command_line(argc, argv);
    if (!line.error.empty()) {
        fprintf(stderr, "tarn-broker: %s\nTry 'tarn-broker --help'.\n", line.error.c_str());
        return kBadOption;
    }
    switch (line.wish) {
    case Wish::Help:
        fputs(kHelp, stdout);
        return kEnded;
    case Wish::Version:
        printf("tarn-broker %s\n", tarn_sdk_mqtt_broker_version());
        return kEnded;
    case Wish::Serve:
        break;
    }
    return serve(line.options);
}
