/*
 * netip.h - the network layer: one TCP listener and one UDP socket on port 1883, known above by small handles.
 *
 * The module owns the sockets, the table of connections, and the accept, I/O and lane threads; it cuts each stream
 * into whole MQTT packets and hands them up through one callback (netip_types.h). The broker's start and deinit bring
 * it up and down, mqtt_netip_event_cb of client.h is its callback, and the clients' senders send through it.
 *
 *   threads   any, at once, unless a function says otherwise; also inside the callback
 *   locks     a slot's lock is taken and dropped inside; the caller must not hold one. Where g_netip_lock is taken it
 *             says so; that one may be taken twice by a thread. Neither is held while the callback runs.
 *   handles   a function that is given an unknown or free handle does nothing and says so by its result
 *   memory    what is passed in is only read during the call
 *   log       nothing, unless a function names a line
 */
#ifndef TARN_NET_NETIP_H
#define TARN_NET_NETIP_H

#include "netip_types.h"

TARN_API_BEGIN

/* ------------------------------------------------------------------------------------------------------------- globals
 * Those with a lock change under it; one value of them may be read by any thread (relaxed). */

extern tarn_mutex_t g_netip_lock; /* recursive; valid from load to exit: never initialised or destroyed */

extern netip_conn_t g_netip_clients[NETIP_CLIENTS_MAX]; /* the table; guards: netip_conn_t. Zeroed by netip_init. */

/* clang-format off */
extern TARN_SHARED(uint32_t) g_last_handle      TARN_GUARDED_BY(g_netip_lock); /* where the search for a slot begins */
extern TARN_SHARED(uint8_t) g_netip_running     TARN_GUARDED_BY(g_netip_lock); /* flag: threads run */
extern TARN_SHARED(netip_event_cb_t) g_netip_cb TARN_GUARDED_BY(g_netip_lock); /* null while the layer is down */
extern TARN_SHARED(void *) g_netip_cb_arg       TARN_GUARDED_BY(g_netip_lock); /* the caller's, passed on as it is */
extern TARN_SHARED(int32_t) g_io_thread_num     TARN_GUARDED_BY(g_netip_lock); /* I/O threads, 1..NETIP_IO_THREADS_MAX */
extern TARN_SHARED(pthread_t *) g_io_threads    TARN_GUARDED_BY(g_netip_lock); /* so many; null while the layer is down */
extern TARN_SHARED(int32_t) g_netip_tcp_listen  TARN_GUARDED_BY(g_netip_lock); /* descriptor; -1 before any start */
/* clang-format on */

/* The other two descriptors, -1 = none. They change under a lock of the layer's own; any thread reads them. */
extern TARN_SHARED(int32_t) g_netip_udp;    /* one socket for all UDP peers */
extern TARN_SHARED(int32_t) netip_epoll_fd; /* the epoll instance of the I/O threads */

/* What epoll told in the round that is going on. The I/O thread inside the round. */
extern struct epoll_event g_epoll_events[NETIP_EPOLL_EVENTS];

/* ------------------------------------------------------------------------------------------------------ up and down */

/*
 * Brings the layer up: clears the table, opens port 1883 on all IPv4 interfaces for TCP and UDP, starts the threads.
 * Without UDP, when that part of the port is taken, it runs all the same.
 *
 *   cb          not null; is told of every connection until netip_deinit
 *   arg         passed to it; may be null. The caller keeps what it points to alive until netip_deinit returned.
 *   io_threads  below 1 counts as 1, above NETIP_IO_THREADS_MAX as that. Rounds of several threads take turns.
 *   returns     NETIP_OK
 *               NETIP_INVALID  cb is null
 *               NETIP_BIND     port 1883 is taken, or the layer is up, or on its way up or down
 *               NETIP_EPOLL, NETIP_SOCKET, NETIP_LISTEN  the system refused that part
 *               NETIP_NOMEM    too little memory, or a thread could not be created
 *               After a failure the layer is as it was, with one exception: when only the accept thread could not be
 *               created, an ERROR line tells, and the rest runs until netip_deinit or the next netip_init ends it.
 *
 * The listener of an earlier start is adopted; who connected meanwhile is told first. Takes g_netip_lock.
 */
uint32_t netip_init(netip_event_cb_t cb, void *arg, int32_t io_threads);

/*
 * Takes the layer down: ends the I/O and lane threads and waits for them and for a CONNECTED that is being told, then
 * tells the callback DISCONNECTED with reason 2 for each connection and closes it, in order of their handles. Forgets
 * the callback. The listener stays open: who connects meanwhile waits for the next start. Harmless when the layer is
 * down.
 *
 * Any thread, also inside the callback. The caller holds no lock that the callback takes, nor g_netip_lock.
 */
void netip_deinit(void);

/* ------------------------------------------------------------------------------------------------------ connections */

/*
 * Sends bytes at once, without waiting: on TCP as one write, to a UDP peer as one datagram.
 *
 *   handle    of an open connection
 *   bytes     not null
 *   length    in bytes, 1..NETIP_SEND_MAX
 *   returns   NETIP_OK       the socket took them, on TCP at least one of them: the rest is dropped then
 *             NETIP_AGAIN    its buffer is full (TCP only); nothing was sent
 *             NETIP_INVALID  a bad argument, no such connection, or the socket refused; nothing was sent
 *
 * Nothing is counted and nothing is kept. client_send is the way to send to a client, which keeps packets apart and in
 * order; this one goes past its queue. A handle may have gone to another connection by now.
 */
uint32_t netip_send(uint32_t handle, const uint8_t *bytes, int32_t length);

/*
 * Ends a connection: frees its slot, tells the callback DISCONNECTED with reason 2 on this thread, then closes the
 * socket unless the callback returned 0. What was sent before still reaches the peer. Of several calls
 * for one connection one does it.
 *
 *   handle    an unknown or free one is ignored
 *
 * The end of one UDP peer closes the socket of all of them: UDP is off until the next netip_init. The caller holds no
 * lock that the callback takes. Takes g_netip_lock.
 */
void netip_close(uint32_t handle);

/*
 * Tells the address of a peer.
 *
 *   dst       gets the text, as in "192.0.2.7", terminated; zeros when there is no such connection. Null does nothing.
 *   size      of dst in bytes; below 16 (INET_ADDRSTRLEN) does nothing
 *   returns   1; 0 for a bad argument or no such connection
 */
uint8_t netip_get_client_ip(uint32_t handle, char *dst, uint32_t size);

/* Tells the port of a peer, host order; 0 for no such connection. */
uint16_t netip_get_client_port(uint32_t handle);

/*
 * Tells when a connection was opened or last received from, in ms of the wall clock; 0 for no such connection. Takes
 * g_netip_lock. The broker itself goes by last_active of the client record.
 */
uint64_t netip_get_client_last_active(uint32_t handle);

/*
 * Has the kernel probe a silent TCP connection. The broker itself does not use it.
 *
 *   idle_s, interval_s, count   1 or more each: silence before the first probe and time between probes in seconds,
 *                               unanswered probes before the connection is broken. What the kernel refuses of them is
 *                               not told.
 *   returns                     1; 0 for a bad argument, no such connection or a UDP peer
 *
 * Takes g_netip_lock.
 */
uint8_t netip_set_tcp_keepalive(uint32_t handle, int32_t idle_s, int32_t interval_s, int32_t count);

/*
 * Accepts a callback, null too, and forgets it: that a connection takes bytes again is never told to anybody outside.
 * Who got NETIP_AGAIN tries again after a while.
 */
void netip_register_send_ready_cb(netip_send_ready_cb_t cb);

/*
 * Names the free slot whose turn it is and moves g_last_handle behind it. The slot stays free; the caller fills it.
 *
 *   returns   its handle, or NETIP_NO_HANDLE when all NETIP_CLIENTS_MAX are taken
 *
 * g_netip_lock must be held until in_use of the slot is set.
 */
uint32_t netip_get_free_handle(void);

TARN_API_END

/* The arrays are part of the binary interface as well. */
TARN_LAYOUT_CHECK(sizeof g_netip_clients / sizeof g_netip_clients[0] == 11000);
TARN_LAYOUT_CHECK(sizeof g_epoll_events / sizeof g_epoll_events[0] == 2048);

#endif
