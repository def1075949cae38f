/*
 * netip_types.h - connection slots, events and result codes of the network layer.
 */
#ifndef TARN_NET_NETIP_TYPES_H
#define TARN_NET_NETIP_TYPES_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/epoll.h>
#include "../base/export.h"
#include "../base/limits.h"
#include "../base/mutex_type.h"

TARN_API_BEGIN

enum {
    NETIP_OK      = 0,
    NETIP_NOMEM   = 1, /* or a thread could not be created */
    NETIP_SOCKET  = 2,
    NETIP_BIND    = 3,
    NETIP_LISTEN  = 4,
    NETIP_AGAIN   = 5, /* the send would block */
    NETIP_INVALID = 6, /* bad argument, unknown handle or send error */
    NETIP_EPOLL   = 7
};

enum { NETIP_EVENT_CONNECTED = 0, NETIP_EVENT_DISCONNECTED = 1, NETIP_EVENT_DATA = 2 };
enum { NETIP_TCP = 1, NETIP_UDP = 2 };

#define NETIP_NO_HANDLE 0xFFFFFFFFu

/* Result 0 for "disconnected" asks the layer to leave the socket open; other results are ignored. */
typedef uint8_t (*netip_event_cb_t)(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t len, uint32_t reason,
                                    uint32_t error, void *arg);
typedef void (*netip_send_ready_cb_t)(uint32_t handle);

typedef struct {
    uint32_t           handle;
    uint32_t           type;
    int32_t            fd; /* UDP peers share one socket */
    uint8_t            in_use;
    uint64_t           last_active; /* wall ms */
    tarn_mutex_t       lock;
    struct sockaddr_in peer;
    uint32_t           peer_len;
    char               ip[64];
    uint16_t           port; /* host order */
    uint8_t            rx_buf[4096];
    int32_t            rx_len;
    int32_t            pkt_len; /* valid while pkt_len_known */
    uint8_t            pkt_len_known;
} netip_conn_t;

TARN_API_END

#if TARN_LAYOUT_HAS_MUTEX_SIZES
TARN_LAYOUT_SIZE(netip_conn_t, 4264);
TARN_LAYOUT_OFFSET(netip_conn_t, lock, 24);
TARN_LAYOUT_OFFSET(netip_conn_t, peer, 64);
TARN_LAYOUT_OFFSET(netip_conn_t, ip, 84);
TARN_LAYOUT_OFFSET(netip_conn_t, port, 148);
TARN_LAYOUT_OFFSET(netip_conn_t, rx_buf, 150);
TARN_LAYOUT_OFFSET(netip_conn_t, rx_len, 4248);
TARN_LAYOUT_OFFSET(netip_conn_t, pkt_len_known, 4256);
#endif

#endif
