/*
 * client.h - client records: creation, look-up, sending, closing, wills, and the callback for network events.
 *
 * The module owns g_client_mgr: the pool of records, the two tables that find them, and the send thread. The callback is
 * the callback of the network layer and hands packets to packet handling; packet handling fills the records, sends
 * through them and closes them; the housekeeping thread asks for the scans; start and deinit bring the manager up and
 * down.
 *
 *   threads   any, at once, unless a function says otherwise
 *   locks     each function takes and drops what it needs; where nothing else is said the caller holds none of
 *             g_client_mgr.locks and none that docs/design.md puts below them. What closes a client or publishes a will
 *             runs callbacks of the host and writes files: the caller holds no lock at all.
 *   records   null is ignored unless a function says otherwise. A pointer that a function returns is not owned by the
 *             caller and stays readable, but once the client is closed the record may become another client's: `handle`
 *             and `used` tell. A record that a caller made itself works with all functions but is in no pool.
 *   memory    what is passed in is copied before the call returns
 *   log       at DEBUG every step; other lines are named with the functions
 */
#ifndef TARN_CLIENT_CLIENT_H
#define TARN_CLIENT_CLIENT_H

#include <pthread.h>
#include "client_types.h"

TARN_API_BEGIN

/* ------------------------------------------------------------------------------------------------------------- globals
 * Any thread, unless a lock is named. */

/* clang-format off */
extern client_mgr_t          g_client_mgr;              /* guards: client_mgr_t */
extern TARN_SHARED(int32_t)  g_mqtt_max_clients;        /* records in use at most; CLIENT_MAX until start */
extern TARN_SHARED(uint32_t) g_default_max_packet_size; /* bytes, before CONNECT; CLIENT_PACKET_DEFAULT until start */
extern TARN_SHARED(int32_t)  g_will_delay_client_count; /* closed with a will, but for those released since; clients */
extern TARN_SHARED(uint8_t)  g_send_running;            /* flag: the send thread goes on; cleared by hand it ends */
extern pthread_t             g_send_thread;             /* 0 = none; a lock of the library's own */
/* clang-format on */

/* ------------------------------------------------------------------------------------------------------ up and down */

/*
 * Brings the manager up: empties it, makes records for max_clients, starts pending deliveries (qos_reliable_init) and
 * the send thread.
 *
 *   max_clients   1..CLIENT_MAX; g_mqtt_max_clients becomes it
 *   returns       0, with one INFO line
 *                 0xFFFFFFFF   a number out of range, too little memory, or pending deliveries did not start; an ERROR
 *                              line tells, for memory not always. Out of range nothing has changed, else the manager
 *                              is down.
 *
 * Records that were in use are released without a close: no will, no file, no callback, connections stay open.
 */
uint32_t client_mgr_init(int32_t max_clients);

/*
 * Takes the manager down: ends the send thread and pending deliveries, waits for their threads, releases every record
 * as init does and gives the memory back. One INFO line. The network layer is to be down before.
 */
void client_mgr_deinit(void);

/* ---------------------------------------------------------------------------------------------------------- records */

/*
 * Makes a client in the lowest free record: online, state CLIENT_CONNECTED, found by its handle. A record that was
 * found by the same handle is not any more.
 *
 *   handle    of its connection; NETIP_NO_HANDLE makes a client that no handle finds
 *   ip        as text, cut at NETIP_IP_CHARS; null counts as empty
 *   port      of the peer, host order
 *   broker    the instance it belongs to, not owned; may be null
 *   returns   the record; null when g_mqtt_max_clients are in use, with one ERROR line, or memory ran out
 */
mqtt_client_t *client_create(uint32_t handle, const char *ip, uint16_t port, broker_t *broker);

/*
 * Releases a record of the pool that is CLIENT_CLOSED or CLIENT_WILL_PENDING: drops its pending deliveries, its ring
 * and its will, and lets another client have it. Any other record is left alone. The end of client_close; by itself it
 * tells nobody and closes no connection. One WARN and one INFO line about the deliveries.
 */
void pool_free(mqtt_client_t *client);

/*
 * Gives a client its id, under which client_find_by_cid finds it from now on. An older client of the same id stays
 * connected and is found no more.
 *
 *   client      one that is CLIENT_CLOSED is left alone
 *   client_id   the first CLIENT_ID_CHARS characters count; null or empty becomes "auto_" and the time in seconds, with
 *               one INFO line [MQTT-3.1.3-6]
 */
void client_set_cid(mqtt_client_t *client, const char *client_id);

/*
 * Finds the client of a connection.
 *
 *   returns   the record; null for NETIP_NO_HANDLE, a handle without a client, or one that is CLIENT_CLOSED
 */
mqtt_client_t *client_find_by_handle(uint32_t handle);

/*
 * Finds a client by its exact id. Two ids can share the one place that both have in the table: then the client whose id
 * was set last is found, and the other one not before that one has left.
 *
 *   client_id   up to CLIENT_ID_CHARS characters; null or empty finds nobody
 *   returns     the record; null when there is none
 */
mqtt_client_t *client_find_by_cid(const char *client_id);

/* ---------------------------------------------------------------------------------------------------------- sending */

/*
 * Queues one packet for a client. It leaves soon: at the end of the I/O round when called inside one, else by the send
 * thread at once; what the socket does not take is tried again within some 10 ms. Packets leave in the order in which
 * they were queued. What is still queued when the client is closed is dropped.
 *
 *   client    null is refused
 *   bytes     not null; exactly one packet
 *   length    in bytes, 1..CLIENT_SEND_SLOT_BYTES, and at most the client's max_packet_size [MQTT-3.1.2-24]
 *   returns   0; counts the packet as sent and the client as active
 *             0xFFFFFFFF   not queued, and counted: dropped for a bad argument or for want of memory, as offline
 *                          (neither CLIENT_CONNECTED nor CLIENT_LOGINED), as too big, or because the ring is full
 *                          (CLIENT_SEND_SLOTS - 1 packets)
 *
 * g_queue_mutex and g_sub_mgr.lock may be held. Never waits for the socket. Writes no line.
 */
uint32_t client_send(mqtt_client_t *client, const uint8_t *bytes, int32_t length);

/*
 * Sends what is queued for a client now, on this thread, as far as its socket takes it and at most 100 packets; the
 * send thread sees to the rest. Waits while another thread sends for this client. A client that is CLIENT_CLOSED or
 * without a ring is left alone. g_queue_mutex and g_sub_mgr.lock may be held.
 */
void client_send_flush(mqtt_client_t *client);

/*
 * The body of the send thread: returns once g_send_running is 0, at once if it is. One INFO line at each end. Called by
 * mqtt_start_send_thread; to be run by one thread at a time.
 *
 *   unused    not used, may be null
 *   returns   null
 */
void *send_thread_proc(void *unused);

/*
 * Starts the send thread, unless it runs. A failure tells nobody: packets then leave with I/O rounds only.
 */
void mqtt_start_send_thread(void);

/*
 * Ends the send thread and waits for it; harmless without one. What is queued stays queued.
 */
void mqtt_stop_send_thread(void);

/* ---------------------------------------------------------------------------------------------- closing and silence */

/*
 * Closes a client: saves or deletes its session, starts its will unless it said DISCONNECT [MQTT-3.14.4-3], takes it
 * out of both tables, closes its connection and releases the record. With a will the record stays CLIENT_WILL_PENDING,
 * until the will's delay is over, or for good when it had none. Subscriptions stay.
 *
 *   client    null, and one that is CLIENT_CLOSED or being closed by another thread, gets a DEBUG line at most
 *
 * Files of its session are written or removed; the event callback is told of a will that is published at once; the
 * network's callback is told DISCONNECTED. INFO and WARN lines name each step. Any thread, also inside a callback.
 */
void client_close(mqtt_client_t *client);

/*
 * Looks for clients that have been silent for too long and closes them: longer than one and a half times their
 * keep-alive [MQTT-3.1.2-22], or than the threshold for one that has said none. Looks at ten blocks of records a call
 * and goes on from there with the next.
 *
 *   default_threshold_ms   ms; 0 closes every client that has said no keep-alive
 *   returns                clients closed, 256 at most; 0 while the manager is down or another thread is inside
 *
 * Each is counted as timed out, on top of what client_close does, and has some WARN lines; one INFO line tells
 * how many. The housekeeping thread calls this every ten seconds.
 */
uint32_t client_clean_timeout(uint32_t default_threshold_ms);

/*
 * Sets a client's keep-alive and counts it as active.
 *
 *   client    null, one that is CLIENT_CLOSED or has no handle: one ERROR line and nothing else
 *   seconds   0 becomes CLIENT_KEEPALIVE_0_MS
 */
void client_set_keepalive(mqtt_client_t *client, uint16_t seconds);

/*
 * Counts a client as active now; one that is CLIENT_CLOSED is left alone. Takes no lock, any may be held.
 */
void client_update_active(mqtt_client_t *client);

/* ------------------------------------------------------------------------------------------------------------ wills */

/*
 * Gives a client a will in place of the one it had [MQTT-3.1.2-8].
 *
 *   client        null is an error, here
 *   topic         not null; any length, the first CODEC_TOPIC_MAX characters are published
 *   payload       null makes the length 0
 *   payload_len   bytes, 0..CLIENT_WILL_MAX
 *   qos           0..2; a larger one becomes 0, with one WARN line
 *   retain        flag; kept, and handed on with the message
 *
 * One INFO line tells what the record holds then; when memory ran out that is no will at all. A wrong argument leaves
 * the old will and has one ERROR line.
 */
void client_set_will_msg(mqtt_client_t *client, const char *topic, const uint8_t *payload, uint32_t payload_len,
                         uint8_t qos, uint8_t retain);

/*
 * Adds to a client's will what a 5.0 client can say of it. One INFO line.
 *
 *   delay_s            seconds between close and will [MQTT 5.0 3.1.3.2.2]; 0 = at once
 *   expiry_s           seconds that the message lives; 0 = for ever
 *   payload_format, content_type, response_topic, correlation_data
 *                      kept in the record, never sent. Texts are cut to their fields; null leaves what is there, and so
 *                      do correlation data of more than CLIENT_CORRELATION_MAX bytes.
 *   correlation_len    of correlation_data in bytes
 */
void client_set_will_enhance(mqtt_client_t *client, uint32_t delay_s, uint32_t expiry_s, uint8_t payload_format,
                             const char *content_type, const char *response_topic, const uint8_t *correlation_data,
                             uint32_t correlation_len);

/*
 * Publishes each delayed will that is due and releases its record; one that is overdue by more than
 * CLIENT_WILL_OVERDUE_MS is dropped instead. One WARN line each. The housekeeping thread calls this when one may be
 * due.
 */
void client_will_delay_scan(void);

/*
 * Removes the session files of clients that wait for their will although their session has expired. Two INFO lines, and
 * one for each client. The broker itself does not call this.
 */
void client_clean_expired_sessions(void);

/* ----------------------------------------------------------------------------------------------- events and queries */

/*
 * The callback of the network layer, netip_event_cb_t (netip_types.h): DATA makes the client's record with the first
 * packet and hands every packet to packet_dispatch, DISCONNECTED closes the client. CONNECTED and DISCONNECTED have one
 * INFO line each, an unknown event one WARN line; ERROR lines tell of a connection without an address, and of a client
 * that could not be made, whose connection is closed.
 *
 *   error     goes into the INFO line only
 *   arg       the broker_t of new clients, not owned
 *   returns   0 for CONNECTED without an address, else 1
 *
 * Called by the layer's threads; no lock is held.
 */
uint8_t mqtt_netip_event_cb(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t len, uint32_t reason,
                            uint32_t error, void *arg);

/*
 * Lists the ids of the clients online, separated by commas and terminated, in the order of the pool. One without an id
 * is left out.
 *
 *   buf       gets the text; what does not fit is left out, and the last id may be cut
 *   size      of buf in bytes, 1 or more
 *   returns   characters written, 0 included; -1 for a null buf or a size below 1
 */
int32_t client_fill_id_list(char *buf, int32_t size);

/* Counts the clients online: CLIENT_CONNECTED or CLIENT_LOGINED. Takes no lock, any may be held. */
uint32_t client_get_connected_count(void);

/* For netip_register_send_ready_cb, which never calls it; does nothing. */
void on_netip_send_ready(uint32_t handle);

TARN_API_END

#endif
