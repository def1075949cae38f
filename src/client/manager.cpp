// manager.cpp - the client manager comes up and goes down. What its threads touch stays: the pool's memory keeps its
// type and its locks, only the pages go back.
#include "../qos/qos.hpp"
#include "client_internal.h"

namespace tarn::client {

bool init(int32_t max_clients) noexcept
{
    if (max_clients < 1 || max_clients > CLIENT_MAX) {
        LOG_ERROR("max_clients %d invalid, must <= %d", max_clients, CLIENT_MAX);
        return false;
    }
    g_mqtt_max_clients   = max_clients;
    g_client_mgr.running = 0;
    unlink_pool(); // of an init without a deinit, or of clients that were created before

    if (!make_block_list()) {
        LOG_ERROR("malloc pools failed");
        return false;
    }
    if (!fill_pool((max_clients + CLIENT_BLOCK_RECORDS - 1) / CLIENT_BLOCK_RECORDS)) {
        unlink_pool();
        return false;
    }
    g_client_mgr.running = 1;

    if (!qos::init()) {
        LOG_ERROR("QoS reliable init failed");
        deinit();
        return false;
    }
    use_network_hooks();
    start_send_thread();
    LOG_INFO("client_mgr_init success, dynamic max_clients = %d", max_clients);
    return true;
}

void deinit() noexcept
{
    stop_send_thread();
    g_client_mgr.running = 0;
    qos::destroy();
    unlink_pool();
    LOG_INFO("Client manager deinit success (QoS module destroyed)");
}

} // namespace tarn::client
