// net_c.cpp - netip.h: what hosts call. Null pointers end here; everything else is net.hpp's.
#include "netip_internal.h"

using namespace tarn;

uint32_t netip_init(netip_event_cb_t cb, void *arg, int32_t io_threads)
{
    return cb ? static_cast<uint32_t>(net::start(cb, arg, io_threads)) : uint32_t{NETIP_INVALID};
}

void netip_deinit(void)
{
    net::stop();
}

uint32_t netip_send(uint32_t handle, const uint8_t *bytes, int32_t length)
{
    return net::send_packet(handle, {bytes, length});
}

void netip_close(uint32_t handle)
{
    net::close_connection(handle, 0);
}

uint32_t netip_get_free_handle(void) NO_LOCK_ANALYSIS
{
    return net::take_free_handle();
}

uint8_t netip_get_client_ip(uint32_t handle, char *dst, uint32_t size)
{
    return dst && size >= INET_ADDRSTRLEN && net::copy_ip(handle, {dst, size});
}

uint16_t netip_get_client_port(uint32_t handle)
{
    return net::port_of(handle);
}

uint64_t netip_get_client_last_active(uint32_t handle)
{
    return net::last_active_of(handle);
}

uint8_t netip_set_tcp_keepalive(uint32_t handle, int32_t idle_s, int32_t interval_s, int32_t count)
{
    return idle_s >= 1 && interval_s >= 1 && count >= 1 && net::set_keepalive(handle, idle_s, interval_s, count);
}

void netip_register_send_ready_cb(netip_send_ready_cb_t)
{
    // Writability is never reported: a host that has something to send tries again.
}
