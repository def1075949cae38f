#include "client_fixture.h"

#include "base/clock.h"
#include "handler/handler.hpp"
#include "persist/persist.h"
#include "qos/qos_reliable.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace tarn::test {

Calls g_calls;

namespace {

std::mutex g_made_mutex;

void note(std::string call)
{
    const std::lock_guard<std::mutex> lock(g_made_mutex);
    g_calls.made.push_back(std::move(call));
}

// The C library's word of a lock: 0 = free, 1 = taken, 2 = taken and a thread sleeps until it is free.
bool is_waited_for(Mutex &lock)
{
    return std::atomic_ref(lock.raw.__data.__lock).load() == 2;
}

std::string id_text(mqtt_client_t *client)
{
    return client::stored_id(*client).text;
}

bool memory_fails()
{
    return g_calls.memory_fails_after >= 0 && g_calls.memory_fails_after-- == 0;
}

} // namespace

std::vector<std::string> take_calls()
{
    const std::lock_guard<std::mutex> lock(g_made_mutex);
    return std::exchange(g_calls.made, {});
}

Socket::Socket(uint32_t handle, int send_buffer) : handle_(handle)
{
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0)
        abort();
    if (send_buffer)
        setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof send_buffer);
    ours_              = pair[1];
    netip_conn_t &slot = g_netip_clients[handle];
    slot.handle        = handle;
    slot.type          = NETIP_TCP;
    slot.fd            = pair[0];
    slot.port          = 4321;
    strcpy(slot.ip, "192.0.2.7");
    poke_release(slot.in_use, 1);
}

Socket::~Socket()
{
    close(ours_);
    netip_conn_t &slot = g_netip_clients[handle_];
    if (swap_in(slot.in_use, 0))
        close(slot.fd);
}

Bytes Socket::received()
{
    Bytes   all;
    uint8_t part[4096];
    for (ssize_t got; (got = recv(ours_, part, sizeof part, 0)) > 0;)
        all.insert(all.end(), part, part + got);
    return all;
}

Bytes Socket::wait_for(size_t bytes)
{
    Bytes all;
    for (int i = 0; i < 2000 && all.size() < bytes; ++i) {
        pollfd ready{ours_, POLLIN, 0};
        poll(&ready, 1, 5);
        all = all + received();
    }
    return all;
}

bool Socket::closed_by_broker()
{
    (void)received();
    char byte;
    return recv(ours_, &byte, 1, 0) == 0;
}

void Socket::stuff()
{
    const Bytes filler(512, 0);
    for (ssize_t sent;
         (sent = ::send(g_netip_clients[handle_].fd, filler.data(), filler.size(), MSG_NOSIGNAL | MSG_DONTWAIT)) > 0;)
        stuffed_ += static_cast<size_t>(sent);
}

// Not a byte more: behind them comes already what the broker sends into the room that this makes.
void Socket::unstuff(size_t bytes)
{
    uint8_t      part[512];
    const size_t stay = stuffed_ - std::min(bytes, stuffed_);
    for (ssize_t got; stuffed_ > stay && (got = recv(ours_, part, std::min(sizeof part, stuffed_ - stay), 0)) > 0;)
        stuffed_ -= static_cast<size_t>(got);
}

Bytes Socket::some(size_t bytes)
{
    Bytes         part(bytes);
    const ssize_t got = recv(ours_, part.data(), part.size(), 0);
    part.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return part;
}

size_t Socket::drain()
{
    return received().size();
}

TcpPeer::TcpPeer() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family      = AF_INET;
    address.sin_port        = htons(NETIP_PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        abort();
}

TcpPeer::~TcpPeer()
{
    close(fd_);
}

void TcpPeer::send(const Bytes &bytes) const
{
    if (::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0)
        perror("send");
}

Bytes TcpPeer::wait_for(size_t bytes)
{
    Bytes all;
    for (int i = 0; i < 200 && all.size() < bytes; ++i) {
        pollfd ready{fd_, POLLIN, 0};
        if (poll(&ready, 1, 10) != 1)
            continue;
        Bytes         part(4096);
        const ssize_t got = recv(fd_, part.data(), part.size(), MSG_DONTWAIT);
        if (got <= 0)
            break;
        part.resize(static_cast<size_t>(got));
        all = all + part;
    }
    return all;
}

Manager::Manager(int32_t max_clients)
{
    const LogCapture quiet;
    if (client_mgr_init(max_clients) != 0)
        abort();
    mqtt_stop_send_thread();
    qos_reliable_destroy(); // the scan thread
    take_calls();
}

Manager::~Manager()
{
    const LogCapture quiet;
    client_mgr_deinit();
}

mqtt_client_t *log_in(uint32_t handle, const char *id, uint8_t clean, uint32_t version)
{
    mqtt_client_t *const client = client_create(handle, "10.0.0.1", 1000, nullptr);
    if (!client)
        return nullptr;
    client_set_cid(client, id);
    client->clean_session         = clean;
    shared(client->codec.version) = version;
    EXPECT_TRUE(mark_logged_in(*client));
    return client;
}

std::vector<std::string> ids_in_the_bucket_of(const char *id, size_t count)
{
    const uint32_t           hash = client::hash_of(id);
    uint32_t                 last = hash;
    std::vector<std::string> found;
    for (int i = 0; found.size() < count; ++i) {
        const std::string other      = "x" + std::to_string(i);
        const uint32_t    other_hash = client::hash_of(other.c_str());
        if (other_hash % CLIENT_MAX != hash % CLIENT_MAX || other_hash % CLIENT_LOCKS == last % CLIENT_LOCKS)
            continue;
        found.push_back(other);
        last = other_hash;
    }
    return found;
}

OwnRecord::OwnRecord(uint32_t handle) : record_(new mqtt_client_t{})
{
    record_->handle          = handle;
    record_->state           = CLIENT_LOGINED;
    record_->used            = 1;
    record_->max_packet_size = 4096;
}

OwnRecord::~OwnRecord()
{
    free(record_->send_queue);
}

std::vector<LogLine> own_lines(LogCapture &log)
{
    std::vector<LogLine> lines = log.take();
    std::erase_if(lines, [](const LogLine &line) { return line.text.rfind("[QoS", 0) == 0; });
    return lines;
}

uint32_t send(mqtt_client_t *client, const Bytes &packet)
{
    return client_send(client, packet.data(), static_cast<int32_t>(packet.size()));
}

int queued(const mqtt_client_t *client)
{
    return (peek(client->send_tail) - peek(client->send_head) + CLIENT_SEND_SLOTS) % CLIENT_SEND_SLOTS;
}

bool is_free(Mutex &lock)
{
    if (!lock.try_lock())
        return false;
    lock.unlock();
    return true;
}

void while_it_waits(Mutex &lock, const std::function<void()> &act, const std::function<void()> &then)
{
    lock.lock();
    std::thread thread(act);
    EXPECT_TRUE(eventually([&] { return is_waited_for(lock); }));
    then();
    lock.unlock();
    thread.join();
}

} // namespace tarn::test

using namespace tarn;
using namespace tarn::test;

// The manager's calls to other modules arrive here (see CMakeLists.txt).
extern "C" {
bool  __real__ZN4tarn3qos4initEv(void);
void  __real__ZN4tarn3qos7destroyEv(void);
void  __real__ZN4tarn3qos18drop_deliveries_ofER13mqtt_client_t(mqtt_client_t &client);
void *__real_mmap(void *, size_t, int, int, int, off_t);
int   __real_mprotect(void *, size_t, int);

// handler::dispatch by its name for the linker
bool __wrap__ZN4tarn7handler8dispatchER13mqtt_client_tSt4spanIKhLm18446744073709551615EE(mqtt_client_t  &client,
                                                                                         handler::Packet packet)
{
    note("packet_dispatch " + hex(packet.data(), packet.size()));
    return !g_calls.on_packet || g_calls.on_packet(client, Bytes(packet.begin(), packet.end())) == 0;
}

bool __wrap__ZN4tarn7handler12publish_willER13mqtt_client_t(mqtt_client_t &client)
{
    note("packet_send_will_message " + id_text(&client) + " state " + std::to_string(peek(client.state)));
    if (g_calls.on_will)
        g_calls.on_will(client);
    client.will_sent = 1;
    return true;
}

void __wrap__ZN4tarn7handler10start_willER13mqtt_client_t(mqtt_client_t &client)
{
    note("packet_start_will_delay " + id_text(&client) + " state " + std::to_string(peek(client.state)));
    if (peek(client.will_delay_interval) == 0) {
        __wrap__ZN4tarn7handler12publish_willER13mqtt_client_t(client);
        return;
    }
    ScopedLock lock(client.will_lock);
    client.will_delay_pending  = 1;
    client.will_delay_deadline = mono_ms() + uint64_t{peek(client.will_delay_interval)} * 1000;
}

void __wrap__ZN4tarn7handler6forgetEPKch(const char *client_id, uint8_t clean_session)
{
    note("packet_handler_remove_client_subs " + std::string(client_id) + " " + std::to_string(clean_session));
    if (g_calls.on_remove_subs)
        g_calls.on_remove_subs();
}

void __wrap__ZN4tarn7persist4saveER17persist_session_th(persist_session_t &rec, uint8_t what)
{
    note("persist_mark " + std::to_string(what) + " expiry " + std::to_string(rec.session_expiry_interval) + " until " +
         std::to_string(rec.session_expiry_deadline));
    if (g_calls.on_mark)
        g_calls.on_mark();
}

bool __wrap__ZN4tarn7persist14remove_sessionEPKc(const char *client_id)
{
    note("persist_remove " + std::string(client_id));
    return true;
}

bool __wrap__ZN4tarn3qos4initEv(void)
{
    note("qos_reliable_init");
    if (g_calls.qos_fails || g_calls.qos_stands_in)
        return !g_calls.qos_fails;
    return __real__ZN4tarn3qos4initEv();
}

void __wrap__ZN4tarn3qos7destroyEv(void)
{
    note("qos_reliable_destroy");
    __real__ZN4tarn3qos7destroyEv();
}

void __wrap__ZN4tarn3qos18drop_deliveries_ofER13mqtt_client_t(mqtt_client_t &client)
{
    note("qos_reliable_clean_client_packets " + id_text(&client));
    if (g_calls.on_clean)
        g_calls.on_clean(client);
    __real__ZN4tarn3qos18drop_deliveries_ofER13mqtt_client_t(client);
}

void *__wrap_mmap(void *at, size_t bytes, int protection, int flags, int fd, off_t offset)
{
    return memory_fails() ? MAP_FAILED : __real_mmap(at, bytes, protection, flags, fd, offset);
}

int __wrap_mprotect(void *at, size_t bytes, int protection)
{
    return memory_fails() ? -1 : __real_mprotect(at, bytes, protection);
}
}
