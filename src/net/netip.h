/*
 * netip.h - the network layer: one TCP listener and one UDP socket on port 1883, known above by small handles.
 */
#ifndef TARN_NET_NETIP_H
#define TARN_NET_NETIP_H

#include "netip_types.h"

TARN_API_BEGIN

extern netip_conn_t       g_netip_clients[11000];
extern uint32_t           g_last_handle;
extern uint8_t            g_netip_running;
extern tarn_mutex_t       g_netip_lock;
extern netip_event_cb_t   g_netip_cb;
extern void              *g_netip_cb_arg;
extern int32_t            g_io_thread_num;
extern pthread_t         *g_io_threads;
extern int32_t            g_netip_tcp_listen; /* descriptors, -1 = none */
extern int32_t            g_netip_udp;
extern int32_t            netip_epoll_fd;
extern struct epoll_event g_epoll_events[2048];

uint32_t netip_init(netip_event_cb_t cb, void *arg, int32_t io_threads);
void     netip_deinit(void);
uint32_t netip_send(uint32_t handle, const uint8_t *bytes, int32_t length); /* NETIP_OK, _AGAIN or _INVALID */
void     netip_close(uint32_t handle);
uint8_t  netip_get_client_ip(uint32_t handle, char *dst, uint32_t size); /* size 16 or more */
uint16_t netip_get_client_port(uint32_t handle);
uint64_t netip_get_client_last_active(uint32_t handle); /* wall ms, 0 = unknown */
uint8_t  netip_set_tcp_keepalive(uint32_t handle, int32_t idle_s, int32_t interval_s, int32_t count);
void     netip_register_send_ready_cb(netip_send_ready_cb_t cb); /* accepted and ignored */
uint32_t netip_get_free_handle(void);                            /* g_netip_lock held */

TARN_API_END

#endif
