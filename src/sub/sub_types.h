/*
 * sub_types.h - subscriptions, retained messages and the manager that holds both.
 *
 * The entries in g_sub_mgr (sub.h) are guarded by its lock. A copy, as the functions of sub.h and retain.h hand it out,
 * is the caller's own. Texts end with a NUL; bytes behind it mean nothing.
 */
#ifndef TARN_SUB_SUB_TYPES_H
#define TARN_SUB_SUB_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"
#include "../base/limits.h"
#include "../base/mutex_type.h"

TARN_API_BEGIN

/* One client's subscription to one filter. The pair of id and filter is unique in the table. */
typedef struct {
    char     client_id[CODEC_CLIENT_ID_MAX + 1];
    char     topic_filter[SUB_FILTER_CHARS + 1]; /* as subscribed, "$share/group/" included */
    uint32_t qos;                                /* highest QoS to deliver at, 0..2 */
    uint8_t  clean_session;                      /* flag: what the client had said when it subscribed */
    uint32_t sub_identifier;                     /* of MQTT 5.0; 0 = none */
} sub_entry_t;

/* The retained message of one topic. Also one record of retain.dat, as it lies in memory. */
typedef struct {
    char     topic[CODEC_TOPIC_MAX + 1];
    uint8_t  payload[CODEC_PAYLOAD_MAX]; /* bytes behind payload_len mean nothing */
    uint32_t payload_len;                /* bytes, 1..CODEC_PAYLOAD_MAX */
    uint32_t qos;                        /* of the publication, 0..2 */
    int64_t  store_time;                 /* wall clock, s: stored, or replaced last */
    uint32_t expiry_interval;            /* s that it lives from store_time; 0 = RETAIN_DEFAULT_LIFE_S */
} retain_msg_t;

/* Subscriptions and retained messages. Both arrays are contiguous from 0 and in the order in which entries came. */
typedef struct {
    sub_entry_t *subs;                 /* SUB_CAPACITY entries, null before sub_init; under `lock` */
    TARN_SHARED(int32_t) sub_count;    /* entries in use; written under `lock`, any thread may read the number */
    retain_msg_t *retains;             /* RETAIN_CAPACITY entries, null before sub_init; under `lock` */
    TARN_SHARED(int32_t) retain_count; /* entries in use; as sub_count */
    tarn_mutex_t lock;                 /* valid from load to exit: never initialised or destroyed */
} sub_mgr_t;

TARN_API_END

TARN_LAYOUT_SIZE(sub_entry_t, 2128);
TARN_LAYOUT_FIELD(sub_entry_t, client_id, 65);
TARN_LAYOUT_FIELD(sub_entry_t, topic_filter, 2049);
TARN_LAYOUT_OFFSET(sub_entry_t, topic_filter, 65);
TARN_LAYOUT_OFFSET(sub_entry_t, qos, 2116);
TARN_LAYOUT_OFFSET(sub_entry_t, clean_session, 2120);
TARN_LAYOUT_OFFSET(sub_entry_t, sub_identifier, 2124);
TARN_LAYOUT_SIZE(retain_msg_t, 2336);
TARN_LAYOUT_FIELD(retain_msg_t, topic, 257);
TARN_LAYOUT_FIELD(retain_msg_t, payload, 2048);
TARN_LAYOUT_OFFSET(retain_msg_t, payload, 257);
TARN_LAYOUT_OFFSET(retain_msg_t, payload_len, 2308);
TARN_LAYOUT_OFFSET(retain_msg_t, qos, 2312);
TARN_LAYOUT_OFFSET(retain_msg_t, store_time, 2320);
TARN_LAYOUT_OFFSET(retain_msg_t, expiry_interval, 2328);

#if TARN_LAYOUT_HAS_MUTEX_SIZES
TARN_LAYOUT_SIZE(sub_mgr_t, 72);
TARN_LAYOUT_OFFSET(sub_mgr_t, lock, 32);
#endif

#endif
