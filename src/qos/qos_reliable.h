/*
 * qos_reliable.h - QoS 1 and 2 deliveries that are not acknowledged yet: tracking, retransmission, expiry.
 */
#ifndef TARN_QOS_QOS_RELIABLE_H
#define TARN_QOS_QOS_RELIABLE_H

#include <pthread.h>
#include "../client/client_types.h"

TARN_API_BEGIN

typedef struct qos_packet_t {
    uint16_t             msg_id;
    uint8_t              qos;
    char                 topic[256];
    uint8_t             *payload; /* owned */
    uint32_t             payload_len;
    uint8_t              dup;
    uint64_t             last_send_ms; /* mono ms */
    uint32_t             retry_count;
    uint32_t             retry_interval_ms;
    uint32_t             qos2_state; /* 0 QoS 1; 1 awaits PUBREC, 2 PUBREL sent, 3 PUBCOMP sent */
    mqtt_client_t       *client;     /* identity only, not owned */
    uint64_t             create_ms;  /* mono ms */
    uint32_t             expiry_s;   /* 0 = none */
    struct qos_packet_t *next;
} qos_packet_t;

extern qos_packet_t *g_pending_queue; /* newest first */
extern tarn_mutex_t  g_queue_mutex;
extern uint8_t       g_scan_running;
extern pthread_t     g_scan_thread; /* the scan thread created last */

int  qos_reliable_init(void);
void qos_reliable_destroy(void);
int qos_reliable_add_packet(mqtt_client_t *client, uint16_t msg_id, uint8_t qos, const char *topic, const void *payload,
                            uint32_t payload_len);
int qos_reliable_handle_ack(mqtt_client_t *client, uint16_t msg_id, uint8_t packet_type);
void qos_reliable_set_packet_expiry(mqtt_client_t *client, uint16_t msg_id, uint32_t seconds);
void qos_reliable_clean_client_packets(mqtt_client_t *client);
void qos_reliable_scan_queue(void);

TARN_API_END

TARN_LAYOUT_SIZE(qos_packet_t, 336);
TARN_LAYOUT_OFFSET(qos_packet_t, topic, 3);
TARN_LAYOUT_OFFSET(qos_packet_t, payload, 264);
TARN_LAYOUT_OFFSET(qos_packet_t, client, 304);
TARN_LAYOUT_OFFSET(qos_packet_t, next, 328);

#endif
