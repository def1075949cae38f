#include "serve.h"

#include "loop.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tarn_sdk_mqtt_broker.h>

namespace tarn::broker {
namespace {

constexpr uint16_t kPort = 1883; // the library serves no other

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

// The first ending signal ends the loop; after it, during the end, the next one ends the process at once.
void end_on_signals(Loop &loop)
{
    for (const int number : {SIGINT, SIGTERM}) {
        loop.on_signal(number, [&loop] {
            loop.release_signal(SIGINT);
            loop.release_signal(SIGTERM);
            loop.end();
        });
    }
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

} // namespace

ExitStatus serve(const Options &options)
{
    Loop loop;
    end_on_signals(loop);
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
        loop.run();
        fprintf(stderr, "tarn-broker: ending\n");
        tarn_sdk_mqtt_broker_stop(broker);
    } else {
        explain_failed_start(code);
    }
    tarn_sdk_mqtt_broker_deinit(broker);
    tarn_sdk_mqtt_broker_destroy(broker);
    return code == TARN_OK ? kEnded : kCannotServe;
}

} // namespace tarn::broker
