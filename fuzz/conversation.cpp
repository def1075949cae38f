// conversation.cpp - two clients talk to the library and to each other, in packets as the input has them, while time
// passes and their connections come and go. Threads and network are left out: packets go to the network callback as the
// network layer hands them on, and what is queued is sent when it is read.
//
// input:  steps of  kind:u8  length:u8  bytes      kind: low bit = which client, the next three = what happens
#include "api/broker.h"
#include "base/mutex.h"
#include "client/client_internal.h"
#include "handler/packet_handler.h"
#include "memory_files.h"
#include "net/netip_internal.h"
#include "promise.h"
#include "qos/qos_reliable.h"
#include "sub/retain.h"
#include "sub/sub.h"

#include <sanitizer/lsan_interface.h>
#include <ctime>
#include <span>
#include <sys/socket.h>
#include <sys/time.h>

using namespace tarn;
using namespace tarn::fuzz;

// The linker leads the library's calls here.
namespace {

uint64_t g_now_ms = 1'000'000;

}
extern "C" int __wrap_clock_gettime(clockid_t, timespec *now)
{
    *now = {static_cast<time_t>(g_now_ms / 1000), static_cast<long>(g_now_ms % 1000 * 1'000'000)};
    return 0;
}
extern "C" int __wrap_gettimeofday(timeval *now, void *)
{
    *now = {static_cast<time_t>(g_now_ms / 1000), static_cast<suseconds_t>(g_now_ms % 1000 * 1000)};
    return 0;
}
extern "C" time_t __wrap_time(time_t *now)
{
    if (now)
        *now = static_cast<time_t>(g_now_ms / 1000);
    return static_cast<time_t>(g_now_ms / 1000);
}

namespace {

constexpr int32_t kMaxClients = 100;

broker_t g_broker{};

// The packets of a stream, each whole and of a kind that a broker sends.
void check_stream(std::span<const uint8_t> stream)
{
    constexpr uint32_t kSent =
        1 << 2 | 1 << 3 | 1 << 4 | 1 << 5 | 1 << 6 | 1 << 7 | 1 << 9 | 1 << 11 | 1 << 13 | 1 << 14;
    while (!stream.empty()) {
        const uint8_t first = stream[0];
        size_t        size = 0, head = 1;
        for (unsigned shift = 0;; shift += 7) {
            PROMISE(head < stream.size() && shift <= 21);
            size |= size_t{stream[head] & 0x7Fu} << shift;
            if (!(stream[head++] & 0x80))
                break;
        }
        // A refused DISCONNECT is sent as it was left, as zeroes.
        PROMISE(first == 0 || (kSent >> (first >> 4) & 1));
        PROMISE(size <= stream.size() - head);
        stream = stream.subspan(head + size);
    }
}

class Line {
public:
    void open()
    {
        int pair[2];
        PROMISE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) == 0);
        end_ = pair[1];
        ScopedLock lock(g_netip_lock);
        connection_ = net::open_slot(NETIP_TCP, pair[0], {});
        const net::SlotPin accepted(connection_, net::SlotPin::Counted);
    }
    void hang_up()
    {
        if (const net::SlotPin hold(connection_); hold)
            net::hang_up(hold, sink());
        close(end_);
    }
    bool is_open() const { return net::is_current(connection_); }
    void send(std::span<const uint8_t> packet)
    {
        if (is_open() && !packet.empty())
            sink().data(connection_, packet.data(), static_cast<uint32_t>(packet.size()));
    }
    void read()
    {
        static uint8_t stream[1 << 20];
        size_t         count = 0;
        for (bool more = true; more;) {
            if (mqtt_client_t *const client = is_open() ? client_find_by_handle(connection_.handle) : nullptr)
                client_send_flush(client);
            const ssize_t got = recv(end_, stream + count, sizeof stream - count, MSG_DONTWAIT);
            more              = got > 0;
            count += more ? static_cast<size_t>(got) : 0;
        }
        check_stream({stream, count});
    }
    mqtt_client_t *record() const { return is_open() ? client_find_by_handle(connection_.handle) : nullptr; }

private:
    static net::EventSink sink() { return {mqtt_netip_event_cb, &g_broker}; }

    net::Connection connection_{};
    int             end_ = -1;
};

Line g_lines[2];

void pass(uint64_t ms)
{
    g_now_ms += ms;
    qos_reliable_scan_queue();
    (void)client_clean_timeout(g_now_ms);
    client::publish_due_wills(g_now_ms);
    retain_clean_expired();
}

void publish_from_host(std::span<const uint8_t> bytes)
{
    const size_t      split = bytes.size() / 3;
    const std::string topic(reinterpret_cast<const char *>(bytes.data()), split);
    packet_handler_broker_publish(topic.c_str(), bytes.data() + split, static_cast<int32_t>(bytes.size() - split),
                                  bytes.size() % 3, bytes.size() & 1, 0);
}

void step(uint8_t kind, std::span<const uint8_t> bytes)
{
    Line &line = g_lines[kind & 1];
    switch (kind >> 1 & 7) {
    case 5:
        line.hang_up();
        line.open();
        break;
    case 6:
        pass(bytes.empty() ? 1000 : bytes.size() * 1000);
        break;
    case 7:
        publish_from_host(bytes);
        break;
    default:
        line.send(bytes);
        break;
    }
    for (Line &each : g_lines)
        each.read();
}

void check_tables()
{
    ScopedLock lock(g_sub_mgr.lock);
    PROMISE(g_sub_mgr.sub_count >= 0 && g_sub_mgr.sub_count <= SUB_CAPACITY);
    PROMISE(g_sub_mgr.retain_count >= 0 && g_sub_mgr.retain_count <= RETAIN_CAPACITY);
}

// A conversation leaves nothing behind but records of clients whose wills were published at once. Taking the manager
// down and up takes longer than most conversations.
void begin_anew()
{
    constexpr int kEach = 20;
    static int    runs  = 0;
    g_now_ms            = 1'000'000;
    msgid_seed          = 1;
    sub_init();
    if (runs++ % kEach != 0)
        return;
    client_mgr_deinit();
    PROMISE(client_mgr_init(kMaxClients) == 0);
    mqtt_stop_send_thread();
    qos_reliable_destroy(); // the scan thread
    if (runs == 1)          // records do not stand on the heap, but own what does
        __lsan_register_root_region(client::record_at(0), kMaxClients * sizeof(mqtt_client_t));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    enter_data_directory();
    format_all_lines();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    begin_anew();
    for (Line &line : g_lines)
        line.open();

    for (std::span<const uint8_t> left(data, size); left.size() >= 2;) {
        const uint8_t kind   = left[0];
        const size_t  length = std::min<size_t>(left[1], left.size() - 2);
        step(kind, left.subspan(2, length));
        left = left.subspan(2 + length);
    }
    check_tables();

    for (Line &line : g_lines)
        line.hang_up();
    PROMISE(!g_pending_queue);
    remove_files();
    return 0;
}
