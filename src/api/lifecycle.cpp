// lifecycle.cpp - create, init, start, stop, deinit, destroy.
//
// The tables behind the API belong to the process, so one instance at a time owns the running network layer: the one
// whose start brought it up, until any instance's deinit. Starting the owner again resumes it: its clients stay.
#include "../base/mutex.h"
#include "../base/text.h"
#include "../base/thread.h"
#include "../client/client.hpp"
#include "../handler/handler.hpp"
#include "../net/net.hpp"
#include "../persist/persist.hpp"
#include "../standard/standard.hpp"
#include "../stats/stats.hpp"
#include "api_internal.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

using namespace tarn;
using api::is_instance;

namespace {

constexpr int32_t kPort_max       = 65535;
constexpr int32_t kMaxClients_max = 50000; // what start takes; the client manager's own ceiling is lower

// What create() allocates: the instance that the host gets, and a link for those that stay for good.
struct Instance {
    broker_t  broker;
    Instance *next_kept;
};

// Serialises the calls of this file. A call from a callback only tries: the holder may be waiting for that very thread
// to end, or be further up on its stack, half-way through a deinit that closes clients.
constinit Mutex lifecycle_mutex{};

// Under lifecycle_mutex, but for looks at the owner, which stays until the layer is down.
constinit std::atomic<broker_t *> g_owner{nullptr};        // whose start brought the layer up
constinit bool                    g_free_owner    = false; // destroyed meanwhile, but client records still point to it
constinit Instance               *g_kept          = nullptr; // those that could not be freed, see keep()
constinit bool                    g_left_standing = false;   // a start failed after the layer's threads were up

class LifecycleLock {
public:
    LifecycleLock() NO_LOCK_ANALYSIS : held_(acquire()) {}
    ~LifecycleLock() NO_LOCK_ANALYSIS
    {
        if (held_)
            lifecycle_mutex.unlock();
    }
    LifecycleLock(const LifecycleLock &)            = delete;
    LifecycleLock &operator=(const LifecycleLock &) = delete;
    explicit       operator bool() const { return held_; }

private:
    static bool acquire() NO_LOCK_ANALYSIS
    {
        if (api::in_callback() || on_library_thread())
            return lifecycle_mutex.try_lock();
        lifecycle_mutex.lock();
        return true;
    }
    bool held_;
};

void clear_callbacks(broker_t &broker)
{
    poke_release(broker.event_cb, nullptr);
    poke_release(broker.auth_cb, nullptr);
    poke_release(broker.acl_cb, nullptr);
}

// For an instance that a caller further up, or another thread, still uses: it stays for good, emptied. The list
// tells leak checkers that it is not lost.
void keep(broker_t *broker)
{
    auto *const instance = reinterpret_cast<Instance *>(broker);
    instance->next_kept  = g_kept;
    g_kept               = instance;
}

void free_instance(broker_t *broker)
{
    if (api::in_callback()) // the callback's caller goes on with it
        keep(broker);
    else
        free(broker);
}

void forget_owner()
{
    broker_t *const owner = g_owner.exchange(nullptr);
    if (g_free_owner)
        free_instance(owner);
    g_free_owner = false;
}

// Down without the log lines of deinit: what is left of a start that failed half-way.
void take_down_leftovers()
{
    if (!g_left_standing)
        return;
    net::stop();
    standard::stop();
    forget_owner();
    g_left_standing = false;
}

int32_t bring_up(broker_t &broker, int32_t max_clients)
{
    if (!client::init(max_clients)) {
        LOG_ERROR("[SDK] client_mgr_init failed");
        return TARN_E_RESOURCE;
    }
    g_default_max_packet_size = static_cast<uint32_t>(shared(broker.max_packet_size));
    const bool is_standard    = api::standard_is_chosen();
    if (is_standard && !api::start_standard()) {
        client::deinit();
        return TARN_E_RESOURCE;
    }
    const net::Udp udp = is_standard ? net::Udp::Closed : net::Udp::Open;
    if (const net::Start result = net::start(mqtt_netip_event_cb, &broker, 1, udp); result != net::Start::Up) {
        LOG_ERROR("[SDK] netip_init failed[%d]", static_cast<int>(result));
        if (result == net::Start::NoMemory) { // perhaps the accept thread, which comes last: then everything else runs
            g_left_standing = true;
            g_owner         = &broker; // datagrams can still make clients of it
        }
        if (!g_left_standing)
            standard::stop(); // else its connections are still served
        client::deinit();
        return TARN_E_RESOURCE;
    }
    g_owner = &broker;
    return TARN_OK;
}

// The layer and its clients stayed while the owner was stopped.
void resume(broker_t &broker, int32_t max_clients)
{
    g_mqtt_max_clients        = max_clients;
    g_default_max_packet_size = static_cast<uint32_t>(shared(broker.max_packet_size));
}

int32_t start_layer(broker_t &broker, int32_t max_clients)
{
    if (max_clients > CLIENT_MAX) // refused in every state, with the client manager's own line
        return bring_up(broker, max_clients);
    take_down_leftovers();
    if (!net::is_up())
        return bring_up(broker, max_clients);
    if (g_owner != &broker) {
        LOG_ERROR("[SDK] netip_init failed[%d]", NETIP_BIND);
        return TARN_E_RESOURCE;
    }
    resume(broker, max_clients);
    return TARN_OK;
}

} // namespace

broker_t *tarn_sdk_mqtt_broker_create(void)
{
    auto *const instance = static_cast<Instance *>(calloc(1, sizeof(Instance)));
    if (!instance) {
        LOG_ERROR("[SDK] calloc instance failed");
        return nullptr;
    }
    broker_t *const broker = &instance->broker;
    LOG_INFO("[SDK] ========================================================");
    LOG_INFO("[SDK]   Version: V2.0.0 ");
    LOG_INFO("[SDK] ========================================================");
    broker->keepalive_timeout = 300;
    broker->max_packet_size   = CLIENT_PACKET_DEFAULT;
    broker->port              = NETIP_PORT;
    broker->max_clients       = 5000;
    copy_text(broker->data_dir, "./broker_data", sizeof broker->data_dir - 1);
    LOG_INFO("[SDK] create broker instance success");
    return broker;
}

void tarn_sdk_mqtt_broker_destroy(broker_t *broker)
{
    if (!broker)
        return;
    LifecycleLock life;
    if (!life)
        return; // the host is inside a lifecycle call that needs this instance
    shared(broker->running) = 0;
    clear_callbacks(*broker);
    if (!api::stop_housekeeping(*broker)) {
        pthread_detach(pthread_self()); // its own thread: nobody can wait for it any more
        keep(broker);
    } else if (broker == g_owner) {
        g_free_owner = true; // its clients know the record until the layer goes down
    } else {
        free_instance(broker);
    }
    LOG_INFO("[SDK] destroy broker instance success");
}

int32_t tarn_sdk_mqtt_broker_init(broker_t *broker)
{
    if (!is_instance(broker))
        return TARN_E_PARAM;
    LifecycleLock life;
    if (!life)
        return TARN_E_BUSY;
    const agent_log_config_t config = {
        .level         = AGENT_LOG_WARN,
        .output        = AGENT_LOG_TO_CONSOLE | AGENT_LOG_TO_FILE,
        .max_file_size = 0,
        .reserved_size = AGENT_LOG_RESERVED_SIZE,
        .file_path     = nullptr,
    };
    log::init(&config);
    stats::init();
    (void)handler::init();
    persist::init(broker->data_dir);
    LOG_INFO("[SDK] init success, port=%d, max_clients=%d", int32_t{shared(broker->port)},
             int32_t{shared(broker->max_clients)});
    return TARN_OK;
}

int32_t tarn_sdk_mqtt_broker_start(broker_t *broker, int32_t port, int32_t max_clients)
{
    if (!is_instance(broker))
        return TARN_E_PARAM;
    if (port < 1 || port > kPort_max) {
        LOG_ERROR("[SDK] invalid listen port: %d", port);
        return TARN_E_PARAM;
    }
    if (max_clients < 1 || max_clients > kMaxClients_max) {
        LOG_ERROR("[SDK] invalid max clients: %d", max_clients);
        return TARN_E_PARAM;
    }
    LifecycleLock life;
    if (!life)
        return TARN_E_BUSY;
    if (const int32_t result = start_layer(*broker, max_clients); result != TARN_OK)
        return result;

    shared(broker->port)        = port;
    shared(broker->max_clients) = max_clients;
    if (!shared(broker->running)) {
        (void)api::stop_housekeeping(*broker); // a stop inside a callback may have left it
        shared(broker->running) = 1;
    }
    // Before the first turn's report: lines that meet are lost.
    LOG_INFO("[SDK] start success, listen 0.0.0.0:%d", port);
    api::start_housekeeping(*broker);
    return TARN_OK;
}

int32_t tarn_sdk_mqtt_broker_stop(broker_t *broker)
{
    if (!is_instance(broker))
        return TARN_E_PARAM;
    shared(broker->running) = 0;
    {
        LifecycleLock life;
        if (life)
            (void)api::stop_housekeeping(*broker);
    }
    LOG_INFO("[SDK] broker stopped");
    return TARN_OK;
}

void tarn_sdk_mqtt_broker_deinit(broker_t *broker)
{
    if (!is_instance(broker))
        return;
    LifecycleLock life;
    if (!life)
        return;
    standard::end_all_connections();
    net::stop();
    standard::stop();
    persist::destroy();
    client::deinit();
    stats::deinit();
    log::deinit();
    clear_callbacks(*broker);
    forget_owner();
    g_left_standing = false;
    LOG_INFO("[SDK] deinit success"); // never seen: the log is off by now
}

broker_t *api::owner_of_layer() noexcept
{
    return g_owner;
}

bool tarn_sdk_mqtt_broker_is_running(broker_t *broker)
{
    return is_instance(broker) && shared(broker->running);
}
