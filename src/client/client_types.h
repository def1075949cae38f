/*
 * client_types.h - the client record, its send ring and the client manager.
 */
#ifndef TARN_CLIENT_CLIENT_TYPES_H
#define TARN_CLIENT_CLIENT_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"
#include "../base/limits.h"
#include "../base/mutex_type.h"
#include "../codec/mqtt_codec_types.h"
#include "../persist/persist_types.h"

TARN_API_BEGIN

typedef struct broker_t      broker_t;
typedef struct mqtt_client_t mqtt_client_t;

enum {
    CLIENT_UNUSED       = 0,
    CLIENT_CONNECTED    = 1, /* online */
    CLIENT_LOGINED      = 2, /* online, CONNECT accepted */
    CLIENT_WILL_PENDING = 3,
    CLIENT_CLOSED       = 4
};

typedef struct {
    uint8_t data[4096];
    int32_t length;
    uint8_t ready;
} client_send_slot_t;

struct mqtt_client_t {
    uint32_t            handle; /* NETIP_NO_HANDLE once released */
    char                client_id[65];
    char                ip[64];
    uint16_t            port;
    uint32_t            state;
    uint64_t            last_active; /* mono ms */
    uint16_t            next_msg_id;
    uint16_t            qos2_pending_msg_id;
    uint16_t            qos1_pending_msg_id;
    uint8_t             clean_session;
    uint8_t             disconnect_received;
    uint8_t             session_restored;
    broker_t           *broker;
    mqtt_codec_ctx_t    codec;
    client_send_slot_t *send_queue; /* CLIENT_SEND_SLOTS slots, or null */
    uint8_t             send_head;
    uint8_t             send_tail;
    tarn_mutex_t        send_lock;
    uint8_t             used;
    uint8_t             timeout_closing;
    uint32_t            keepalive_ms;
    uint8_t             will_msg_used;
    char               *will_topic;
    uint8_t            *will_payload;
    uint32_t            will_payload_len;
    uint8_t             will_qos;
    uint8_t             will_retain;
    uint8_t             will_sent;
    tarn_mutex_t        will_lock;
    uint32_t            max_packet_size;          /* bytes */
    uint32_t            session_expiry_interval;  /* s */
    uint64_t            session_expiry_deadline;  /* wall s, 0 = none */
    uint32_t            will_delay_interval;      /* s */
    uint32_t            will_msg_expiry_interval; /* s */
    uint8_t             will_payload_format;
    char                will_content_type[64];
    char                will_response_topic[257];
    uint8_t             will_correlation_data[256];
    uint32_t            will_correlation_len;
    uint64_t            will_delay_deadline; /* mono ms */
    uint8_t             will_delay_pending;
    persist_session_t   session;
};

typedef struct {
    mqtt_client_t *records; /* 100 */
    uint8_t       *used_flags;
    int32_t        used;
    int32_t        capacity;
} client_pool_block_t;

typedef struct {
    client_pool_block_t *blocks;
    int32_t              block_count;
    int32_t              capacity;
    int32_t              used_count;
    mqtt_client_t       *by_handle[11000];
    mqtt_client_t       *by_cid[11000];
    tarn_mutex_t         locks[111];
    uint8_t              running;
} client_mgr_t;

TARN_API_END

TARN_LAYOUT_SIZE(client_send_slot_t, 4104);
TARN_LAYOUT_SIZE(client_pool_block_t, 24);

#if TARN_LAYOUT_HAS_MUTEX_SIZES
TARN_LAYOUT_SIZE(mqtt_client_t, 149880);
TARN_LAYOUT_OFFSET(mqtt_client_t, state, 136);
TARN_LAYOUT_OFFSET(mqtt_client_t, broker, 168);
TARN_LAYOUT_OFFSET(mqtt_client_t, codec, 176);
TARN_LAYOUT_OFFSET(mqtt_client_t, send_queue, 224);
TARN_LAYOUT_OFFSET(mqtt_client_t, send_lock, 240);
TARN_LAYOUT_OFFSET(mqtt_client_t, used, 280);
TARN_LAYOUT_OFFSET(mqtt_client_t, will_topic, 296);
TARN_LAYOUT_OFFSET(mqtt_client_t, will_lock, 320);
TARN_LAYOUT_OFFSET(mqtt_client_t, max_packet_size, 360);
TARN_LAYOUT_OFFSET(mqtt_client_t, will_delay_deadline, 968);
TARN_LAYOUT_OFFSET(mqtt_client_t, session, 984);
TARN_LAYOUT_SIZE(client_mgr_t, 180472);
TARN_LAYOUT_OFFSET(client_mgr_t, by_handle, 24);
TARN_LAYOUT_OFFSET(client_mgr_t, by_cid, 88024);
TARN_LAYOUT_OFFSET(client_mgr_t, locks, 176024);
TARN_LAYOUT_OFFSET(client_mgr_t, running, 180464);
#endif

#endif
