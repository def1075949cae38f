#pragma GCC diagnostic ignored "-Wunused-parameter"
// Weak stand-ins that let the whole library link while the modules are being written.
#include "netip.h"
#include "netip_link.h"
extern "C" {
__attribute__((weak)) netip_conn_t g_netip_clients[11000];
__attribute__((weak)) uint32_t g_last_handle;
__attribute__((weak)) uint8_t g_netip_running;
__attribute__((weak)) tarn_mutex_t g_netip_lock;
__attribute__((weak)) netip_event_cb_t g_netip_cb;
__attribute__((weak)) void *g_netip_cb_arg;
__attribute__((weak)) int32_t g_io_thread_num;
__attribute__((weak)) pthread_t *g_io_threads;
__attribute__((weak)) int32_t g_netip_tcp_listen;
__attribute__((weak)) int32_t g_netip_udp;
__attribute__((weak)) int32_t netip_epoll_fd;
__attribute__((weak)) struct epoll_event g_epoll_events[2048];
__attribute__((weak)) uint32_t netip_init(netip_event_cb_t cb, void *arg, int32_t io_threads) { return {}; }
__attribute__((weak)) void netip_deinit(void) {}
__attribute__((weak)) uint32_t netip_send(uint32_t handle, const uint8_t *bytes, int32_t length) { return {}; }
__attribute__((weak)) void netip_close(uint32_t handle) {}
__attribute__((weak)) uint8_t netip_get_client_ip(uint32_t handle, char *dst, uint32_t size) { return {}; }
__attribute__((weak)) uint16_t netip_get_client_port(uint32_t handle) { return {}; }
__attribute__((weak)) uint64_t netip_get_client_last_active(uint32_t handle) { return {}; }
__attribute__((weak)) uint8_t netip_set_tcp_keepalive(uint32_t handle, int32_t idle_s, int32_t interval_s, int32_t count) { return {}; }
__attribute__((weak)) void netip_register_send_ready_cb(netip_send_ready_cb_t cb) {}
__attribute__((weak)) uint32_t netip_get_free_handle(void) { return {}; }
}
namespace tarn::net {
__attribute__((weak)) uint32_t generation_of(uint32_t) noexcept { return 0; }
__attribute__((weak)) void close_connection(uint32_t, uint32_t) noexcept {}
__attribute__((weak)) Connection current_connection() noexcept { return {}; }
__attribute__((weak)) bool is_open(Connection) noexcept { return false; }
__attribute__((weak)) Sent send_packets(uint32_t, const Packet *, int) noexcept { return {}; }
__attribute__((weak)) void set_round_hooks(RoundHooks) noexcept {}
__attribute__((weak)) void set_writable_hook(void (*)()) noexcept {}
__attribute__((weak)) bool is_up() noexcept { return false; }
}
