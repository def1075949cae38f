/*
 * persist_types.h - the part of a client that outlives its connection.
 */
#ifndef TARN_PERSIST_PERSIST_TYPES_H
#define TARN_PERSIST_PERSIST_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"
#include "../base/limits.h"

TARN_API_BEGIN

enum { /* bit set of persist_mark and persist_flush_single; callers pass one bit at a time */
       PERSIST_SESSION       = 1,
       PERSIST_SUBSCRIPTIONS = 2,
       PERSIST_MESSAGES      = 4
};

typedef struct {
    char    topic[256];
    uint8_t qos;
} persist_sub_t;

typedef struct {
    uint16_t msgid; /* 1..65535, random; not the publisher's identifier */
    char     topic[256];
    uint8_t  payload[1024];
    uint32_t payload_len;
    uint8_t  qos;
    uint64_t store_time; /* wall s, memory only */
} persist_msg_t;

typedef struct {
    char          client_id[128];
    uint8_t       clean_session; /* flag; while set nothing is written */
    uint8_t       clean_start;
    uint32_t      session_expiry_interval; /* s */
    uint64_t      session_expiry_deadline; /* wall s, 0 = none */
    uint64_t      last_online;             /* wall s */
    uint8_t       will_flag;
    char          will_topic[256];
    uint8_t       will_qos;
    uint8_t       will_payload[1024];
    uint32_t      will_len; /* may exceed 1024: then no bytes are kept */
    uint32_t      will_delay_interval;
    uint32_t      will_msg_expiry_interval;
    uint8_t       will_payload_format;
    char          will_content_type[64];
    char          will_response_topic[256];
    uint8_t       will_correlation_data[256]; /* never written to a file */
    uint32_t      will_correlation_len;
    persist_sub_t subs[64];
    int32_t       sub_count;
    persist_msg_t msgs[100];
    int32_t       msg_count;
} persist_session_t;

TARN_API_END

TARN_LAYOUT_SIZE(persist_sub_t, 257);
TARN_LAYOUT_SIZE(persist_msg_t, 1304);
TARN_LAYOUT_SIZE(persist_session_t, 148896);
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
