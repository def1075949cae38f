#include "api_fixture.h"

#include "base/clock.h"
#include "client/client.h"
#include "handler/handler.hpp"
#include "net/net.hpp"
#include "persist/persist.h"
#include "stats/stats.hpp"
#include "sub/retain.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <map>
#include <mutex>

namespace tarn::test {

Modules g_modules;

namespace {

struct Entry {
    bool        is_line;
    std::string text;
};
thread_local std::vector<Entry> *t_entries; // of a thread that ever took its transcript

std::mutex                 g_counts_mutex;
std::map<std::string, int> g_counts;
std::atomic<int>           g_turns{0};
std::atomic<int>           g_pause_us{0};
std::atomic<int>           g_level_kept{-1};

std::vector<Entry> &entries()
{
    if (!t_entries)
        t_entries = new std::vector<Entry>;
    return *t_entries;
}

void note_call(const std::string &call)
{
    {
        std::lock_guard lock(g_counts_mutex);
        ++g_counts[call];
    }
    if (t_entries)
        t_entries->push_back({false, call});
}

void note_line(uint32_t level, const char *text)
{
    static const char *const names[] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
    if (t_entries)
        t_entries->push_back({true, std::string(names[level]) + " " + text});
}

Transcript take(bool lines, bool calls)
{
    Transcript texts;
    for (Entry &entry : entries())
        if (entry.is_line ? lines : calls)
            texts.push_back(std::move(entry.text));
    entries().clear();
    return texts;
}

} // namespace

Transcript take_transcript()
{
    return take(true, true);
}
Transcript take_lines()
{
    return take(true, false);
}
Transcript take_calls()
{
    return take(false, true);
}

Transcript take_calls_and(const std::string &part)
{
    Transcript texts;
    for (Entry &entry : std::exchange(entries(), {}))
        if (!entry.is_line || entry.text.find(part) != std::string::npos)
            texts.push_back(std::move(entry.text));
    return texts;
}

int times(const std::string &call)
{
    std::lock_guard lock(g_counts_mutex);
    return g_counts[call];
}
int turns()
{
    return g_turns.load();
}
int pause_us()
{
    return g_pause_us.load();
}
void forget_turns()
{
    g_turns.store(0);
}

QuietLog::QuietLog(uint32_t level) : log_(level)
{
    g_level_kept = static_cast<int>(level);
    (void)take_transcript();
}
QuietLog::~QuietLog()
{
    g_level_kept = -1;
}

Instance::Instance()
{
    broker_t nobody{};
    api::housekeeping_turn(nobody, wall_s());
    broker_ = tarn_sdk_mqtt_broker_create();
    (void)take_transcript();
}
Instance::~Instance()
{
    if (!broker_)
        return;
    tarn_sdk_mqtt_broker_stop(broker_);
    tarn_sdk_mqtt_broker_deinit(broker_);
    tarn_sdk_mqtt_broker_destroy(broker_);
}
int32_t Instance::start(int32_t port, int32_t max_clients)
{
    return tarn_sdk_mqtt_broker_start(broker_, port, max_clients);
}
broker_t *Instance::release()
{
    return std::exchange(broker_, nullptr);
}

mqtt_client_t *add_client(uint32_t handle, const char *id, broker_t *owner, uint32_t state)
{
    mqtt_client_t *const client = client_create(handle, "192.0.2.7", 40001, owner);
    client_set_cid(client, id);
    client->state = state;
    return client;
}

OwnClient::OwnClient(broker_t *owner, const char *id)
{
    strcpy(record_->client_id, id);
    record_->broker = owner;
}

} // namespace tarn::test

using namespace tarn;
using namespace tarn::test;

// A module that has a C++ face is called through that, by its name for the linker.
extern "C" {

void       __real__ZN4tarn3log5writeEjPKcz(uint32_t, const char *, ...);
void       __real__ZN4tarn3log4initEPK18agent_log_config_t(const agent_log_config_t *);
void       __real__ZN4tarn3log6deinitEv(void);
void       __real__ZN4tarn5stats4initEv(void);
void       __real__ZN4tarn5stats6deinitEv(void);
void       __real__ZN4tarn5stats6reportEv(void);
void       __real__ZN4tarn5stats12begin_periodEv(void);
bool       __real__ZN4tarn7handler4initEv(void);
bool       __real__ZN4tarn7handler16publish_for_hostERKNS0_11HostMessageE(const tarn::handler::HostMessage &);
void       __real__ZN4tarn7handler15send_disconnectER13mqtt_client_th(mqtt_client_t &, uint8_t);
void       __real__ZN4tarn7persist4initEPKc(const char *);
void       __real__ZN4tarn7persist7destroyEv(void);
bool       __real__ZN4tarn6client4initEi(int32_t);
void       __real__ZN4tarn6client6deinitEv(void);
uint32_t   __real__ZN4tarn6client12close_silentEmj(uint64_t, uint32_t);
void       __real__ZN4tarn6client17publish_due_willsEm(uint64_t);
int32_t    __real__ZN4tarn6client8list_idsEPci(char *, int32_t);
net::Start __real__ZN4tarn3net5startEPFhjjPKhjjjPvES3_iNS0_3UdpE(netip_event_cb_t, void *, int32_t, net::Udp);
void       __real__ZN4tarn3net4stopEv(void);
void       __real__ZN4tarn3sub24discard_expired_retainedEv(void);
int32_t    __real__ZN4tarn3sub20list_retained_topicsEPci(char *, int32_t);
bool       __real__ZN4tarn8standard5startEPKcRKNS0_6LimitsE(const char *, const standard::Limits &);
void       __real__ZN4tarn8standard4stopEv(void);
void       __real__ZN4tarn8standard4turnEv(void);
void       __real__ZN4tarn8standard4kickER13mqtt_client_th(mqtt_client_t &, uint8_t);
int        __real_usleep(useconds_t);

void __wrap__ZN4tarn3log5writeEjPKcz(uint32_t level, const char *format, ...)
{
    char    text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    note_line(level, text);
    __real__ZN4tarn3log5writeEjPKcz(level, "%s", text);
}
void __wrap__ZN4tarn3log4initEPK18agent_log_config_t(const agent_log_config_t *config)
{
    note_call("agent_log_init level=" + std::to_string(config->level) + " output=" + std::to_string(config->output) +
              " size=" + std::to_string(config->max_file_size) + " reserved=" + std::to_string(config->reserved_size) +
              " path=" + (config->file_path ? config->file_path : "null"));
    __real__ZN4tarn3log4initEPK18agent_log_config_t(config);
    if (g_level_kept >= 0)
        agent_log_set_level(static_cast<uint32_t>(g_level_kept));
}
void __wrap__ZN4tarn3log6deinitEv(void)
{
    note_call("agent_log_deinit");
    __real__ZN4tarn3log6deinitEv();
}
void __wrap__ZN4tarn5stats4initEv(void)
{
    note_call("mqtt_stats_init");
    __real__ZN4tarn5stats4initEv();
}
void __wrap__ZN4tarn5stats6deinitEv(void)
{
    note_call("mqtt_stats_deinit");
    __real__ZN4tarn5stats6deinitEv();
}
void __wrap__ZN4tarn5stats6reportEv(void)
{
    note_call("mqtt_stats_print");
    __real__ZN4tarn5stats6reportEv();
}
void __wrap__ZN4tarn5stats12begin_periodEv(void)
{
    note_call("mqtt_stats_reset_period");
    __real__ZN4tarn5stats12begin_periodEv();
}
bool __wrap__ZN4tarn7handler4initEv(void)
{
    note_call("packet_handler_init");
    return g_modules.packet_handler_init ? g_modules.packet_handler_init() == 0 : __real__ZN4tarn7handler4initEv();
}
bool __wrap__ZN4tarn7handler16publish_for_hostERKNS0_11HostMessageE(const tarn::handler::HostMessage &message)
{
    note_call("packet_handler_broker_publish " + std::string(message.topic) + " " +
              std::to_string(message.payload.size()) + " " + std::to_string(message.qos) + " " +
              std::to_string(message.retain) + " " + std::to_string(message.expiry_s));
    return g_modules.packet_handler_broker_publish
               ? g_modules.packet_handler_broker_publish() == 0
               : __real__ZN4tarn7handler16publish_for_hostERKNS0_11HostMessageE(message);
}
void __wrap__ZN4tarn7handler15send_disconnectER13mqtt_client_th(mqtt_client_t &client, uint8_t reason)
{
    note_call("packet_handler_send_disconnect " + std::string(client.client_id) + " " + std::to_string(reason));
    __real__ZN4tarn7handler15send_disconnectER13mqtt_client_th(client, reason);
    if (g_modules.on_disconnect_sent)
        g_modules.on_disconnect_sent(client);
}
void __wrap__ZN4tarn7persist4initEPKc(const char *path)
{
    note_call("persist_init " + std::string(path));
    __real__ZN4tarn7persist4initEPKc(path);
}
void __wrap__ZN4tarn7persist7destroyEv(void)
{
    note_call("persist_destroy");
    __real__ZN4tarn7persist7destroyEv();
}
bool __wrap__ZN4tarn6client4initEi(int32_t max_clients)
{
    note_call("client_mgr_init " + std::to_string(max_clients));
    return __real__ZN4tarn6client4initEi(max_clients);
}
void __wrap__ZN4tarn6client6deinitEv(void)
{
    note_call("client_mgr_deinit");
    __real__ZN4tarn6client6deinitEv();
}
uint32_t __wrap__ZN4tarn6client12close_silentEmj(uint64_t now_ms, uint32_t threshold_ms)
{
    note_call("client_clean_timeout " + std::to_string(threshold_ms));
    return __real__ZN4tarn6client12close_silentEmj(now_ms, threshold_ms);
}
void __wrap__ZN4tarn6client17publish_due_willsEm(uint64_t now_ms)
{
    note_call("client_will_delay_scan");
    __real__ZN4tarn6client17publish_due_willsEm(now_ms);
}
int32_t __wrap__ZN4tarn6client8list_idsEPci(char *buf, int32_t size)
{
    return g_modules.list ? g_modules.list() : __real__ZN4tarn6client8list_idsEPci(buf, size);
}
net::Start __wrap__ZN4tarn3net5startEPFhjjPKhjjjPvES3_iNS0_3UdpE(netip_event_cb_t cb, void *arg, int32_t io_threads,
                                                                 net::Udp udp)
{
    note_call("netip_init threads=" + std::to_string(io_threads) + (cb == mqtt_netip_event_cb ? " bridge" : " ?") +
              " packets=" + std::to_string(g_default_max_packet_size) + (udp == net::Udp::Open ? "" : " without UDP"));
    return __real__ZN4tarn3net5startEPFhjjPKhjjjPvES3_iNS0_3UdpE(cb, arg, io_threads, udp);
}
void __wrap__ZN4tarn3net4stopEv(void)
{
    note_call("netip_deinit");
    __real__ZN4tarn3net4stopEv();
}
void __wrap__ZN4tarn3sub24discard_expired_retainedEv(void)
{
    note_call("retain_clean_expired");
    __real__ZN4tarn3sub24discard_expired_retainedEv();
}
int32_t __wrap__ZN4tarn3sub20list_retained_topicsEPci(char *buf, int32_t size)
{
    return g_modules.list ? g_modules.list() : __real__ZN4tarn3sub20list_retained_topicsEPci(buf, size);
}

bool __wrap__ZN4tarn8standard5startEPKcRKNS0_6LimitsE(const char *directory, const standard::Limits &limits)
{
    note_call("standard_start " + std::string(directory));
    g_modules.limits = limits;
    return !g_modules.standard_fails && __real__ZN4tarn8standard5startEPKcRKNS0_6LimitsE(directory, limits);
}
void __wrap__ZN4tarn8standard4stopEv(void)
{
    if (standard::is_on()) // else it does nothing
        note_call("standard_stop");
    __real__ZN4tarn8standard4stopEv();
}
void __wrap__ZN4tarn8standard4turnEv(void)
{
    note_call("standard_turn");
    __real__ZN4tarn8standard4turnEv();
}
void __wrap__ZN4tarn8standard4kickER13mqtt_client_th(mqtt_client_t &client, uint8_t reason)
{
    note_call("standard_kick " + std::to_string(client.handle) + " " + std::to_string(reason));
    __real__ZN4tarn8standard4kickER13mqtt_client_th(client, reason);
}

// Housekeeping threads are known by their pause, which only they make so.
int __wrap_usleep(useconds_t us)
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    if (strcmp(name, "tarn-house") == 0) {
        g_pause_us = static_cast<int>(us);
        g_turns.fetch_add(1);
        if (g_modules.on_turn)
            g_modules.on_turn();
    }
    return __real_usleep(us);
}
}
