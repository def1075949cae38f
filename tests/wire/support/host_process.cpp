#include "host_process.h"

#include "host.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace tarn::test {
namespace {

struct Order {
    char     topic[256];
    char     payload[1024];
    uint32_t length;
    uint32_t qos;
    uint32_t retain;
    uint32_t expiry_s;
};

bool send_all(int fd, const void *bytes, size_t count)
{
    return send(fd, bytes, count, MSG_NOSIGNAL) == static_cast<ssize_t>(count);
}

bool receive_all(int fd, void *bytes, size_t count)
{
    return recv(fd, bytes, count, 0) == static_cast<ssize_t>(count);
}

// Until nobody gives orders any more.
void serve(int fd)
{
    Host    host;
    int32_t result = 0;
    Order   order;
    while (send_all(fd, &result, sizeof result) && receive_all(fd, &order, sizeof order))
        result = host.publish(order.topic, {order.payload, order.length}, order.qos, order.retain, order.expiry_s);
}

} // namespace

HostProcess::HostProcess()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        ADD_FAILURE() << "no socket pair";
        return;
    }
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ends[0]);
        serve(ends[1]);
        fflush(nullptr);
        _exit(testing::Test::HasFailure());
    }
    close(ends[1]);
    socket_       = ends[0];
    int32_t ready = -1;
    EXPECT_TRUE(receive_all(socket_, &ready, sizeof ready)) << "the host does not start";
}

HostProcess::~HostProcess()
{
    if (pid_ > 0)
        stop();
}

int32_t HostProcess::publish(std::string_view topic, std::string_view payload, unsigned qos, bool retain,
                             uint32_t expiry_s)
{
    Order order = {{}, {}, static_cast<uint32_t>(payload.size()), qos, retain, expiry_s};
    memcpy(order.topic, topic.data(), topic.size());
    memcpy(order.payload, payload.data(), payload.size());
    int32_t result = -1;
    EXPECT_TRUE(send_all(socket_, &order, sizeof order) && receive_all(socket_, &result, sizeof result));
    return result;
}

int HostProcess::wait()
{
    int status = 0;
    close(std::exchange(socket_, -1));
    waitpid(std::exchange(pid_, -1), &status, 0);
    return status;
}

void HostProcess::stop()
{
    const int status = wait(); // without orders it ends
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the host does not end well: " << status;
}

void HostProcess::crash()
{
    kill(pid_, SIGKILL);
    const int status = wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
}

} // namespace tarn::test
