// host_process.h - a host in a process of its own, for tests in which it is killed: a copy of this one with a Host in it,
// that publishes what it is told. To be made while the test runs no thread.
#ifndef TARN_TESTS_WIRE_HOST_PROCESS_H
#define TARN_TESTS_WIRE_HOST_PROCESS_H

#include <cstdint>
#include <string_view>
#include <sys/types.h>

namespace tarn::test {

class HostProcess {
public:
    HostProcess(); // serves once this returns
    ~HostProcess();
    HostProcess(const HostProcess &)            = delete;
    HostProcess &operator=(const HostProcess &) = delete;

    // As Host::publish.
    int32_t publish(std::string_view topic, std::string_view payload, unsigned qos = 0, bool retain = false,
                    uint32_t expiry_s = 0);
    void    stop();  // stop, deinit, destroy, and a good end is expected
    void    crash(); // kills it

private:
    int wait();

    pid_t pid_    = -1;
    int   socket_ = -1;
};

} // namespace tarn::test

#endif
