/*
 * netip_types.h - connection slots, events and result codes of the network layer.
 *
 * A connection is a TCP stream or the peer of a UDP exchange. It has a slot, and a handle, which is the place of the
 * slot in g_netip_clients (netip.h). When the connection ends, slot and handle go to another one, as late as possible.
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

/* What functions return; each says which of these it can return. */
enum {
    NETIP_OK      = 0,
    NETIP_NOMEM   = 1, /* too little memory, or a thread could not be created */
    NETIP_SOCKET  = 2, /* no socket could be made */
    NETIP_BIND    = 3, /* the port is taken, or the layer runs already */
    NETIP_LISTEN  = 4, /* the socket could not be made to listen */
    NETIP_AGAIN   = 5, /* the send would block */
    NETIP_INVALID = 6, /* bad argument, unknown handle or send error */
    NETIP_EPOLL   = 7  /* no epoll instance could be made */
};

/* What the callback is told. */
enum {
    NETIP_EVENT_CONNECTED    = 0, /* before anything else about this handle */
    NETIP_EVENT_DISCONNECTED = 1, /* the last about this connection */
    NETIP_EVENT_DATA         = 2  /* one whole MQTT packet, or one datagram */
};

/* What a connection is. */
enum { NETIP_TCP = 1, NETIP_UDP = 2 };

/* The handle that nobody has. */
#define NETIP_NO_HANDLE 0xFFFFFFFFu

/*
 * Is told what happens on connections.
 *
 *   handle    of the connection, 0..NETIP_CLIENTS_MAX - 1
 *   event     a NETIP_EVENT_*
 *   data      the packet for DATA, else null; valid during the call only
 *   len       of data in bytes, 1..NETIP_RX_SIZE; else 0
 *   reason    for CONNECTED 0 = TCP, 3 = the first datagram of a UDP peer; for DISCONNECTED 0 = the peer or an error
 *             ended it, 2 = netip_close or netip_deinit did; for DATA 3
 *   error     always 0
 *   arg       as netip_init was given it
 *   returns   counts for DISCONNECTED only. Not 0 lets the connection end. 0 leaves its socket open: where the peer had
 *             ended it, the slot stays in use and the end is told again some 100 ms later; after netip_close the slot
 *             is free and the descriptor is closed by netip_deinit. netip_deinit does not heed it.
 *
 *   threads   CONNECTED on the accept thread, for UDP on an I/O thread; DATA on an I/O thread, or on a lane thread if
 *             the client manager is up and the packet may write files or wait (CONNECT, unless the host answers logins
 *             at once, or has no callback for them, nor for events); DISCONNECTED on any of them or on the thread
 *             inside netip_close or netip_deinit. DATA of one connection comes in order, by one thread at a time.
 *   locks     none of a slot's and not g_netip_lock are held: every function of netip.h may be called, netip_close and
 *             netip_deinit included. One that takes its time on an I/O thread holds up every connection.
 */
typedef uint8_t (*netip_event_cb_t)(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t len, uint32_t reason,
                                    uint32_t error, void *arg);

/* Would be told that a connection takes bytes again; see netip_register_send_ready_cb, which never calls it. */
typedef void (*netip_send_ready_cb_t)(uint32_t handle);

/*
 * One slot. `in_use` publishes the fields above it and the peer's: who reads 1 with acquire order sees them.
 *
 * Who fills a slot by hand, outside a running layer or with a socket of its own, fills all fields but the lock and sets
 * in_use last; it is served like any other.
 */
typedef struct {
    /* Read by any thread. These three are written under g_netip_lock and `lock` before in_use becomes 1. */
    TARN_SHARED(uint32_t) handle; /* its own place in the table */
    TARN_SHARED(uint32_t) type;   /* NETIP_TCP or NETIP_UDP */
    TARN_SHARED(int32_t) fd;      /* the connection's descriptor; UDP peers share one socket, see g_netip_udp */

    TARN_SHARED(uint8_t) in_use;       /* flag; 0 to 1 under g_netip_lock and `lock`, 1 to 0 under `lock` */
    TARN_SHARED(uint64_t) last_active; /* wall clock, ms: opened, or received from last */

    tarn_mutex_t lock; /* a leaf; valid from load to exit: never initialised or destroyed */

    /* lock */
    struct sockaddr_in peer;                   /* as accept or recvfrom told it */
    uint32_t           peer_len;               /* of peer in bytes */
    char               ip[NETIP_IP_CHARS + 1]; /* of the peer, as in "192.0.2.7" */
    uint16_t           port;                   /* of the peer, host order */

    /* The I/O thread that reads the connection, from one DATA to the next; of a free slot all zero. TCP only. */
    uint8_t rx_buf[NETIP_RX_SIZE]; /* what was received and not handed up, the next packet first */
    int32_t rx_len;                /* bytes held, 0..NETIP_RX_SIZE */
    int32_t pkt_len;               /* bytes of the packet at the front; valid while pkt_len_known */
    uint8_t pkt_len_known;         /* flag */
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
