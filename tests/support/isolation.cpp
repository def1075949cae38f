#include "isolation.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tarn::test {
namespace {

std::string *g_directory;
pid_t        g_owner;

void remove_directory()
{
    if (getpid() != g_owner)
        return;
    std::error_code ignored;
    std::filesystem::current_path("/", ignored);
    std::filesystem::remove_all(*g_directory, ignored);
}

void enter_new_directory()
{
    const char *base = getenv("TMPDIR");
    std::string name = std::string(base && *base ? base : "/tmp") + "/tarn-test-XXXXXX";
    if (!mkdtemp(name.data()) || chdir(name.c_str()) != 0) {
        perror("test directory");
        exit(99);
    }
    g_directory = new std::string(name);
    g_owner     = getpid();
    atexit(remove_directory);
}

bool bring_loopback_up()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    ifreq request{};
    strcpy(request.ifr_name, "lo");
    bool up = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    if (up) {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP | IFF_RUNNING);
        up                = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    }
    close(fd);
    return up;
}

void wait_for_the_host_network()
{
    const int fd = open("/tmp/tarn-port-1883.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0)
        flock(fd, LOCK_EX); // held until the process ends
}

} // namespace

void isolate_process()
{
    enter_new_directory();
    if (!enter_new_network())
        wait_for_the_host_network();
}

bool enter_new_network()
{
    return (unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0) && bring_loopback_up();
}

} // namespace tarn::test
