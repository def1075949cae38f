/*
 * qos_reliable.h - QoS 1 and 2 deliveries that are not acknowledged yet: tracking, retransmission, expiry.
 *
 * The module owns the list of pending deliveries and the threads that scan it. Packet handling adds what it has sent
 * and hands in acknowledgements, the client manager drops what belongs to a client that it releases. A delivery is sent
 * again QOS_FIRST_RETRY_MS after its first transmission, then after twice that and so on up to QOS_MAX_RETRY_MS, and
 * given up after QOS_RETRIES_MAX times.
 *
 *   threads   any, at once
 *   locks     each function takes and drops g_queue_mutex. The caller must not hold it, nor a lock below it in
 *             docs/design.md: g_sub_mgr.lock, a client's send_lock or will_lock, g_persist_mutex, a leaf.
 *   clients   not owned. A released client has no deliveries, and none can be added for it.
 *   log       at DEBUG every step; other lines are named with the functions
 */
#ifndef TARN_QOS_QOS_RELIABLE_H
#define TARN_QOS_QOS_RELIABLE_H

#include <pthread.h>
#include "../client/client_types.h"

TARN_API_BEGIN

extern tarn_mutex_t g_queue_mutex; /* valid from load to exit: never initialised or destroyed */

/*
 * One delivery. Made, linked and freed by the module, all of it under g_queue_mutex. `mono ms` is CLOCK_MONOTONIC in
 * milliseconds.
 *
 * qos2_state: 1 awaits PUBREC, 2 has sent PUBREL, 3 has sent PUBCOMP. From 2 on it is not retransmitted any more.
 *
 * payload: freed with the entry. The deliveries that the broker made of one message share a payload of 256 bytes or
 * more, which is freed with the last of them: read it, or put another one from malloc in its place, but do not change or
 * free it. That of qos_reliable_add_packet is the entry's own.
 */
/* clang-format off */
typedef struct qos_packet_t {
    uint16_t             msg_id TARN_GUARDED_BY(g_queue_mutex); /* its packet identifier */
    uint8_t              qos    TARN_GUARDED_BY(g_queue_mutex); /* 1 or 2 */
    char                 topic[QOS_TOPIC_CHARS + 1] TARN_GUARDED_BY(g_queue_mutex);
    uint8_t             *payload           TARN_GUARDED_BY(g_queue_mutex); /* on the heap; see below */
    uint32_t             payload_len       TARN_GUARDED_BY(g_queue_mutex); /* bytes, 1..QOS_PAYLOAD_MAX */
    uint8_t              dup               TARN_GUARDED_BY(g_queue_mutex); /* flag of the next transmission */
    uint64_t             last_send_ms      TARN_GUARDED_BY(g_queue_mutex); /* mono ms: when it was queued last */
    uint32_t             retry_count       TARN_GUARDED_BY(g_queue_mutex); /* retransmissions, 0..QOS_RETRIES_MAX */
    uint32_t             retry_interval_ms TARN_GUARDED_BY(g_queue_mutex); /* pause before the next one */
    uint32_t             qos2_state        TARN_GUARDED_BY(g_queue_mutex); /* at QoS 2, see below; else 0 */
    mqtt_client_t       *client            TARN_GUARDED_BY(g_queue_mutex); /* identity only, not owned */
    uint64_t             create_ms         TARN_GUARDED_BY(g_queue_mutex); /* mono ms: when it was added */
    uint32_t             expiry_s          TARN_GUARDED_BY(g_queue_mutex); /* s that it lives from then; 0 = for ever */
    struct qos_packet_t *next              TARN_GUARDED_BY(g_queue_mutex); /* the one added before; null at the end */
} qos_packet_t;
/* clang-format on */

extern qos_packet_t *g_pending_queue TARN_GUARDED_BY(g_queue_mutex); /* the list, newest first; null = empty */

extern TARN_SHARED(uint8_t) g_scan_running; /* flag: the scan threads go on; any thread */
extern TARN_SHARED(pthread_t)
    g_scan_thread; /* the scan thread created last; changes under a lock of the module's own */

/* ------------------------------------------------------------------------------------------------------ up and down */

/*
 * Starts one more scan thread, which looks at the list every QOS_SCAN_PERIOD_MS. The broker has two: one from its init,
 * one from client_mgr_init. What is in the list stays.
 *
 *   returns   0, with one INFO line
 *             -1   no thread could be created; one ERROR line. The flag that keeps earlier threads going is cleared.
 */
int qos_reliable_init(void);

/*
 * Ends the scan threads, waits for them, and drops every delivery; one INFO line. Harmless when there are none. On a
 * scan thread itself it does not wait for that one.
 */
void qos_reliable_destroy(void);

/* ------------------------------------------------------------------------------------------------------- deliveries */

/*
 * Adds a delivery that the caller has sent, or is about to: it sends nothing by itself before the first retry
 * [MQTT-4.3.2-1] [MQTT-4.3.3-1].
 *
 *   client        not null
 *   msg_id        of the delivery; nobody checks that it is free
 *   qos           1 or 2
 *   topic         not null, not empty; copied, the first QOS_TOPIC_CHARS characters
 *   payload       not null; copied
 *   payload_len   bytes, 1..QOS_PAYLOAD_MAX
 *   returns       0, also for a released client, of which nothing is kept
 *                 -1   a bad argument, QOS_PENDING_MAX deliveries of this client, or too little memory; one ERROR line.
 *                      All deliveries together have 64 MiB, and 32 MiB more for clients with fewer than 16 of them.
 */
int qos_reliable_add_packet(mqtt_client_t *client, uint16_t msg_id, uint8_t qos, const char *topic, const void *payload,
                            uint32_t payload_len);

/*
 * Takes an acknowledgement from a client. PUBACK and PUBCOMP end the delivery; PUBREC is answered with PUBREL, and
 * PUBREL with PUBCOMP, when its turn has come [MQTT-4.3.3-4].
 *
 *   client        not null
 *   msg_id        not 0
 *   packet_type   4 PUBACK, 5 PUBREC, 6 PUBREL, 7 PUBCOMP
 *   returns       0   taken, also when it was not its turn; INFO lines tell of what followed, and one WARN line of a
 *                     PUBACK that ended a delivery at QoS 2
 *                 -1  no such delivery (DEBUG line only), a bad argument, a type that does not go with the delivery, or
 *                     the answer could not be encoded; one ERROR line
 *
 * The answer is queued with client_send while g_queue_mutex is held.
 */
int qos_reliable_handle_ack(mqtt_client_t *client, uint16_t msg_id, uint8_t packet_type);

/*
 * Limits the life of a delivery, whatever its state: the next scan after it drops it, with one WARN line. One INFO
 * line; a null client, an msg_id of 0 and an unknown delivery are ignored.
 *
 *   seconds   from when it was added; 0 = for ever
 */
void qos_reliable_set_packet_expiry(mqtt_client_t *client, uint16_t msg_id, uint32_t seconds);

/*
 * Drops every delivery of a client. One WARN and one INFO line; for null two WARN lines and nothing else.
 */
void qos_reliable_clean_client_packets(mqtt_client_t *client);

/*
 * Walks the list once: sends again what is due, drops what has expired or was sent often enough. Retransmissions are
 * encoded for the level of the client and queued with client_send while g_queue_mutex is held. INFO, WARN and ERROR
 * lines name each of them. What the scan threads do.
 */
void qos_reliable_scan_queue(void);

TARN_API_END

TARN_LAYOUT_SIZE(qos_packet_t, 336);
TARN_LAYOUT_OFFSET(qos_packet_t, topic, 3);
TARN_LAYOUT_OFFSET(qos_packet_t, payload, 264);
TARN_LAYOUT_OFFSET(qos_packet_t, client, 304);
TARN_LAYOUT_OFFSET(qos_packet_t, next, 328);

#endif
