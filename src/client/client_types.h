/*
 * client_types.h - the client record, its send ring and the client manager.
 *
 * A record is one client: made with the first packet of a connection, found by the handle of the connection and, once
 * CONNECT was accepted, by the client's id. It is never freed, only released and used again for another client, so a
 * pointer to one stays readable for the life of the process, but may read as another client.
 *
 * What is said of each field is who may touch it. `any thread` means one value at a time, written and read atomically
 * (relaxed): TARN_SHARED, which inside the library sees to that. The others are read and written under the lock that is
 * named. What has both (TARN_GUARDED_BY, which the compiler checks) is written under the lock and read under it, or one
 * value without. A host that touches a record's fields does it likewise. `mono ms` is CLOCK_MONOTONIC in milliseconds.
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

/* What mqtt_client_t.state is. */
enum {
    CLIENT_UNUSED       = 0, /* never used */
    CLIENT_CONNECTED    = 1, /* online; no CONNECT accepted yet */
    CLIENT_LOGINED      = 2, /* online, CONNECT accepted */
    CLIENT_WILL_PENDING = 3, /* closed; the record waits for its will, or was kept with a will that is published */
    CLIENT_CLOSED       = 4  /* closed and released, or about to be */
};

/*
 * One packet on its way to a client. Slots from send_head on belong to the thread that sends, until it moves send_head;
 * the others are filled under send_lock. Once its packet was sent, a slot reads as anything, and while none waits the
 * ring may move: take send_queue anew each time, under send_lock.
 */
typedef struct {
    uint8_t data[CLIENT_SEND_SLOT_BYTES]; /* one whole MQTT packet */
    int32_t length;                       /* of it in bytes, 1..CLIENT_SEND_SLOT_BYTES */
    uint8_t ready;                        /* flag: to be sent; a slot that is not ready ends the ring */
} client_send_slot_t;

/* clang-format off */
struct mqtt_client_t {
    TARN_SHARED(uint32_t) handle; /* of its connection, NETIP_NO_HANDLE once released; any thread */

    /* Written under a lock of the library's own; the thread that handles the client's packets reads them without. */
    char client_id[CODEC_CLIENT_ID_MAX + 1]; /* CLIENT_ID_CHARS characters at most; empty before CONNECT */
    char ip[NETIP_IP_CHARS + 1];             /* of the peer, as in "192.0.2.7" */

    /* any thread */
    TARN_SHARED(uint16_t)   port;                /* of the peer, host order */
    TARN_SHARED(uint32_t)   state;               /* CLIENT_* */
    TARN_SHARED(uint64_t)   last_active;         /* mono ms: received from, or queued for, last */
    TARN_SHARED(uint16_t)   next_msg_id;         /* 1 from creation; the broker draws its identifiers elsewhere */
    TARN_SHARED(uint16_t)   qos2_pending_msg_id; /* of the last PUBLISH at QoS 2 that came in, 0 = exchange complete */
    TARN_SHARED(uint16_t)   qos1_pending_msg_id; /* of the last delivery at QoS 1 that awaits PUBACK, 0 = none */
    TARN_SHARED(uint8_t)    clean_session;       /* flag of CONNECT: clean session, at 5.0 clean start */
    TARN_SHARED(uint8_t)    disconnect_received; /* flag: it said DISCONNECT, so its end is no accident */
    TARN_SHARED(uint8_t)    session_restored;    /* flag: CONNECT found a saved session */
    TARN_SHARED(broker_t *) broker;              /* the instance it came in through, not owned */
    mqtt_codec_ctx_t        codec;               /* its protocol level */

    /* The send ring: empty when head == tail, full with one slot left. Written under send_lock, read like the will. */
    TARN_SHARED(client_send_slot_t *) send_queue TARN_GUARDED_BY(send_lock); /* CLIENT_SEND_SLOTS of them, or null */
    TARN_SHARED(uint8_t)  send_head TARN_GUARDED_BY(send_lock); /* next slot to send, 0..CLIENT_SEND_SLOTS - 1 */
    TARN_SHARED(uint8_t)  send_tail TARN_GUARDED_BY(send_lock); /* next slot to fill, likewise */
    tarn_mutex_t          send_lock; /* valid from load to exit, like will_lock */

    /* any thread */
    TARN_SHARED(uint8_t)  used;            /* flag: the record is some client's; set last: who sees it sees the rest */
    TARN_SHARED(uint8_t)  timeout_closing; /* flag: the scan for silent clients is about to close it */
    TARN_SHARED(uint32_t) keepalive_ms;    /* one and a half times that much silence is granted; until CONNECT that of
                                              the record's last client, 0 = none. Changes under the handle's lock. */

    /* The will. Written under will_lock, read under it, or one value by anybody. */
    TARN_SHARED(uint8_t)   will_msg_used    TARN_GUARDED_BY(will_lock); /* flag: there is one */
    TARN_SHARED(char *)    will_topic       TARN_GUARDED_BY(will_lock); /* owned by the record, on the heap; or null */
    TARN_SHARED(uint8_t *) will_payload     TARN_GUARDED_BY(will_lock); /* likewise */
    TARN_SHARED(uint32_t)  will_payload_len TARN_GUARDED_BY(will_lock); /* bytes, 0..CLIENT_WILL_MAX */
    TARN_SHARED(uint8_t)   will_qos         TARN_GUARDED_BY(will_lock); /* 0..2 */
    TARN_SHARED(uint8_t)   will_retain      TARN_GUARDED_BY(will_lock); /* flag */
    TARN_SHARED(uint8_t)   will_sent        TARN_GUARDED_BY(will_lock); /* flag: published, or given up */
    tarn_mutex_t           will_lock;

    /* any thread; agreed in CONNECT */
    TARN_SHARED(uint32_t) max_packet_size;         /* bytes, both ways */
    TARN_SHARED(uint32_t) session_expiry_interval; /* s the session outlives its connection; 0 = none, and at 3.1.1 */
    TARN_SHARED(uint64_t) session_expiry_deadline; /* wall clock, s; 0 = none. Set at the close. */

    /* More of the will, from 5.0. Written under will_lock, read under it, or one value by anybody. */
    TARN_SHARED(uint32_t) will_delay_interval      TARN_GUARDED_BY(will_lock); /* s from close to will; 0 = at once */
    TARN_SHARED(uint32_t) will_msg_expiry_interval TARN_GUARDED_BY(will_lock); /* s the message lives; 0 = for ever */
    TARN_SHARED(uint8_t)  will_payload_format      TARN_GUARDED_BY(will_lock); /* this and the next four: never sent */
    char     will_content_type[CLIENT_CONTENT_CHARS + 1]       TARN_GUARDED_BY(will_lock);
    char     will_response_topic[CODEC_TOPIC_MAX + 1]          TARN_GUARDED_BY(will_lock);
    uint8_t  will_correlation_data[CLIENT_CORRELATION_MAX + 1] TARN_GUARDED_BY(will_lock);
    TARN_SHARED(uint32_t) will_correlation_len     TARN_GUARDED_BY(will_lock); /* bytes, 0..CLIENT_CORRELATION_MAX */
    TARN_SHARED(uint64_t) will_delay_deadline      TARN_GUARDED_BY(will_lock); /* mono ms; when a pending will is due */
    TARN_SHARED(uint8_t)  will_delay_pending       TARN_GUARDED_BY(will_lock); /* flag: closed, and its will waits */

    /* What is saved of it. Under a lock of the library's own, also held while a file is written from it. */
    persist_session_t session;
};

/*
 * Some records of the pool. The flags and their count change under a lock of the library's own, for any thread to read;
 * the rest stands once the block is counted in g_client_mgr.
 */
typedef struct {
    mqtt_client_t        *records;    /* CLIENT_BLOCK_RECORDS of them */
    TARN_SHARED(uint8_t) *used_flags; /* one a record: 1 = taken, or being released */
    TARN_SHARED(int32_t)  used;       /* flags that are set */
    int32_t               capacity;   /* CLIENT_BLOCK_RECORDS */
} client_pool_block_t;

/* All clients. One of the process: g_client_mgr (client.h). */
typedef struct {
    /* the pool; changes under a lock of the library's own; any thread */
    TARN_SHARED(client_pool_block_t *) blocks;      /* owned by the manager; null while it is down */
    TARN_SHARED(int32_t)               block_count; /* entries of blocks; seeing the count means seeing the blocks */
    TARN_SHARED(int32_t)               capacity;    /* records in them */
    TARN_SHARED(int32_t)               used_count;  /* records in use, at most g_mqtt_max_clients */

    /* the tables; one record an entry, null = none; any thread */
    TARN_SHARED(mqtt_client_t *) by_handle[CLIENT_MAX]; /* by handle modulo CLIENT_MAX; under the handle's lock */
    TARN_SHARED(mqtt_client_t *) by_cid[CLIENT_MAX];    /* by hash of the id modulo CLIENT_MAX: the record set last */

    /* Handle h has lock h / CLIENT_BLOCK_RECORDS, hash h has lock h modulo CLIENT_LOCKS. Valid from load to exit. */
    tarn_mutex_t locks[CLIENT_LOCKS];

    TARN_SHARED(uint8_t) running; /* flag: between init and deinit; any thread */
} client_mgr_t;
/* clang-format on */

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
