/*
 * persist_types.h - the part of a client that outlives its connection.
 *
 * The record inside a client belongs to the library, which guards it with a lock of its own: hosts leave it alone. One
 * that a caller made is the caller's, for one thread at a time. Texts end with a NUL, are cut to their arrays, and
 * nobody checks UTF-8. A file is what persist_flush_single writes and persist_load reads.
 */
#ifndef TARN_PERSIST_PERSIST_TYPES_H
#define TARN_PERSIST_PERSIST_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"
#include "../base/limits.h"

TARN_API_BEGIN

enum { /* which file; bits for persist_mark and persist_flush_single, and callers pass one at a time */
       PERSIST_SESSION       = 1,
       PERSIST_SUBSCRIPTIONS = 2,
       PERSIST_MESSAGES      = 4
};

/* One saved subscription. */
typedef struct {
    char    topic[PERSIST_TOPIC_CHARS + 1]; /* the filter, "$share/group/" included */
    uint8_t qos;                            /* granted, 0..2 */
} persist_sub_t;

/* One message kept for a client that is away. */
typedef struct {
    uint16_t msgid; /* 1..65535, drawn at random, two may be alike; not the publisher's identifier */
    char     topic[PERSIST_TOPIC_CHARS + 1];
    uint8_t  payload[PERSIST_MSG_PAYLOAD_MAX];
    uint32_t payload_len; /* bytes, 1..PERSIST_MSG_PAYLOAD_MAX */
    uint8_t  qos;         /* to deliver at, 0..2 */
    uint64_t store_time;  /* wall clock, s; in memory only, 0 after loading */
} persist_msg_t;

/*
 * A session. All zero but the id = an empty one. Embedded in a client record, it is written under a lock of the
 * library's own, its will included: will_lock guards the fields of the same names in the record itself.
 */
typedef struct {
    char          client_id[PERSIST_ID_CHARS + 1]; /* names the files; not empty, and without '/' if there are any */
    uint8_t       clean_session;                   /* flag (bit 0); while set nothing is written */
    uint8_t       clean_start;                     /* flag; written and read back, the broker does not set it */
    uint32_t      session_expiry_interval;         /* s, 0 = none */
    uint64_t      session_expiry_deadline;         /* wall clock, s, 0 = none; loading loses the first two digits */
    uint64_t      last_online;                     /* wall clock, s; written, never read; the broker does not set it */
    uint8_t       will_flag;                       /* flag: the fields of the will mean something */
    char          will_topic[PERSIST_TOPIC_CHARS + 1];
    uint8_t       will_qos; /* 0..2 */
    uint8_t       will_payload[PERSIST_WILL_PAYLOAD_MAX];
    uint32_t      will_len;                 /* bytes; above PERSIST_WILL_PAYLOAD_MAX no bytes are kept */
    uint32_t      will_delay_interval;      /* s */
    uint32_t      will_msg_expiry_interval; /* s, 0 = none */
    uint8_t       will_payload_format;      /* of MQTT 5.0, as the four below; the broker does not set them */
    char          will_content_type[PERSIST_CONTENT_CHARS + 1];
    char          will_response_topic[PERSIST_TOPIC_CHARS + 1];
    uint8_t       will_correlation_data[PERSIST_CORRELATION_MAX]; /* never written to a file */
    uint32_t      will_correlation_len;                           /* bytes */
    persist_sub_t subs[PERSIST_SUBS_MAX];
    int32_t       sub_count;              /* entries in use, 0..PERSIST_SUBS_MAX */
    persist_msg_t msgs[PERSIST_MSGS_MAX]; /* oldest first */
    int32_t       msg_count;              /* entries in use, 0..PERSIST_MSGS_MAX */
} persist_session_t;

TARN_API_END

TARN_LAYOUT_SIZE(persist_sub_t, 257);
TARN_LAYOUT_SIZE(persist_msg_t, 1304);
TARN_LAYOUT_SIZE(persist_session_t, 148896);
TARN_LAYOUT_FIELD(persist_sub_t, topic, 256);
TARN_LAYOUT_FIELD(persist_msg_t, topic, 256);
TARN_LAYOUT_FIELD(persist_msg_t, payload, 1024);
TARN_LAYOUT_FIELD(persist_session_t, client_id, 128);
TARN_LAYOUT_FIELD(persist_session_t, will_topic, 256);
TARN_LAYOUT_FIELD(persist_session_t, will_payload, 1024);
TARN_LAYOUT_FIELD(persist_session_t, will_content_type, 64);
TARN_LAYOUT_FIELD(persist_session_t, will_response_topic, 256);
TARN_LAYOUT_FIELD(persist_session_t, will_correlation_data, 256);
TARN_LAYOUT_OFFSET(persist_msg_t, payload, 258);
TARN_LAYOUT_OFFSET(persist_msg_t, payload_len, 1284);
TARN_LAYOUT_OFFSET(persist_msg_t, store_time, 1296);
TARN_LAYOUT_OFFSET(persist_session_t, session_expiry_deadline, 136);
TARN_LAYOUT_OFFSET(persist_session_t, will_topic, 153);
TARN_LAYOUT_OFFSET(persist_session_t, will_len, 1436);
TARN_LAYOUT_OFFSET(persist_session_t, subs, 2032);
TARN_LAYOUT_OFFSET(persist_session_t, sub_count, 18480);
TARN_LAYOUT_OFFSET(persist_session_t, msgs, 18488);
TARN_LAYOUT_OFFSET(persist_session_t, msg_count, 148888);

#endif
