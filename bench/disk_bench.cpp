// disk_bench - what the disk costs, on a broker that already runs on loopback with an empty data directory.
//
//     disk_bench [--count N] NAME=PORT
//
// First single steps, one after the other: a QoS 1 message that somebody absent misses, a SUBSCRIBE of a session that is
// kept, a retained message, each from the packet to its acknowledgement and beside the same step that writes no file.
// Then two other clients that have nothing to do with them: their round trips alone, and while one client after the
// other does these steps as fast as they are acknowledged.
#include "support/message_loop.h"
#include "support/packets.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace tarn::test;

namespace {

double now_ms()
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

[[noreturn]] void give_up(const char *why)
{
    fprintf(stderr, "disk_bench: %s\n", why);
    exit(1);
}

// A client at level 4 that sends one packet and waits for the next one.
class Client {
public:
    Client(uint16_t port, const std::string &id, bool clean) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family      = AF_INET;
        address.sin_port        = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int at_once       = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
        if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            give_up("no broker there");
        ask(connect_packet(4, id, {.clean = clean, .keep_alive_s = 600}));
    }
    ~Client() { close(fd_); }
    Client(const Client &)            = delete;
    Client &operator=(const Client &) = delete;

    void ask(const Bytes &packet)
    {
        tell(packet);
        uint8_t answer[256];
        size_t  got = 0;
        while (packet_size(answer, got) == 0) {
            const ssize_t count = recv(fd_, answer + got, sizeof answer - got, 0);
            if (count <= 0)
                give_up("the connection ended");
            got += static_cast<size_t>(count);
        }
    }

    void leave()
    {
        tell(disconnect_packet(4));
        uint8_t byte;
        while (recv(fd_, &byte, 1, 0) > 0) {}
    }

private:
    void tell(const Bytes &packet)
    {
        if (send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(packet.size()))
            give_up("the connection ended");
    }

    int fd_;
};

struct Step {
    const char *name;
    bool        clean; // of the client that does it
    Bytes       packet;
};

const std::string kPayload(64, 'p');

// Those that write a file follow the same without.
const Step kSteps[] = {
    {"message, nobody absent", true, publish_packet(4, "nobody", kPayload, {.qos = 1})},
    {"message, one absent", true, publish_packet(4, "absent", kPayload, {.qos = 1})},
    {"SUBSCRIBE, clean", true, subscribe_packet(4, 1, "filter", 1)},
    {"SUBSCRIBE, kept", false, subscribe_packet(4, 1, "filter", 1)},
    {"retained message", true, publish_packet(4, "retained", kPayload, {.qos = 1, .retain = true})},
};

// So that messages on "absent" are kept for somebody.
void leave_one_absent(uint16_t port)
{
    Client client(port, "absent", false);
    client.ask(subscribe_packet(4, 1, "absent", 1));
    client.leave();
}

// Ends what was kept: each case starts with few messages.
void forget_messages(uint16_t port)
{
    Client(port, "absent", true).leave();
    leave_one_absent(port);
}

void time_step(uint16_t port, const Step &step, unsigned count)
{
    Client              client(port, "stepper", step.clean);
    std::vector<double> took_ms;
    for (unsigned i = 0; i < count; ++i) {
        if (i % 50 == 0)
            forget_messages(port);
        const double start_ms = now_ms();
        client.ask(step.packet);
        took_ms.push_back(now_ms() - start_ms);
    }
    std::sort(took_ms.begin(), took_ms.end());
    printf("%-26s median %8.3f ms  p99 %8.3f ms\n", step.name, took_ms[count / 2], took_ms[count * 99 / 100]);
    fflush(stdout);
}

LoopResult run_others(uint16_t port, unsigned messages)
{
    const LoopResult result = run_message_loop(
        {.port = port, .qos = 1, .window = 1, .messages = messages, .payload_bytes = 64, .topic = "o"});
    if (!result.error.empty() || result.lost || result.disordered)
        give_up("the other clients are not served");
    return result;
}

void time_others(uint16_t port, const Step &step, unsigned messages, const LoopResult &alone)
{
    std::atomic<bool>     go_on = true;
    std::atomic<unsigned> steps = 0;
    std::thread           stepper([&] {
        Client client(port, "stepper", step.clean);
        for (; go_on; ++steps) {
            if (steps % 50 == 0)
                forget_messages(port);
            client.ask(step.packet);
        }
    });
    const LoopResult      beside = run_others(port, messages);
    go_on                        = false;
    stepper.join();
    printf("beside: %-26s %8.0f/s = x %.2f of alone  p50 %8.3f ms  p99 %8.3f ms = x %.1f  (%.0f such steps/s)\n",
           step.name, beside.deliveries_per_s(), beside.deliveries_per_s() / alone.deliveries_per_s(), beside.p50_ms,
           beside.p99_ms, beside.p99_ms / alone.p99_ms, steps / beside.seconds);
    fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    unsigned count = 500;
    uint16_t port  = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string word   = argv[i];
        const size_t      equals = word.find('=');
        if (word == "--count" && i + 1 < argc)
            count = static_cast<unsigned>(strtoul(argv[++i], nullptr, 10));
        else if (equals != std::string::npos)
            port = static_cast<uint16_t>(strtoul(word.c_str() + equals + 1, nullptr, 10));
    }
    if (port == 0 || count == 0) {
        fprintf(stderr, "usage: disk_bench [--count N] NAME=PORT\n");
        return 2;
    }
    leave_one_absent(port);
    for (const Step &step : kSteps)
        time_step(port, step, count);
    const LoopResult alone = run_others(port, count * 10);
    printf("alone:  %-26s %8.0f/s                  p50 %8.3f ms  p99 %8.3f ms\n", "", alone.deliveries_per_s(),
           alone.p50_ms, alone.p99_ms);
    for (const Step &step : kSteps)
        time_others(port, step, count * 2, alone);
    return 0;
}
