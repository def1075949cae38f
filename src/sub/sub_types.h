/*
 * sub_types.h - subscriptions, retained messages and the manager that holds both.
 */
#ifndef TARN_SUB_SUB_TYPES_H
#define TARN_SUB_SUB_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"
#include "../base/limits.h"
#include "../base/mutex_type.h"

TARN_API_BEGIN

typedef struct {
    char     client_id[65];
    char     topic_filter[2049]; /* as subscribed, "$share/group/" included */
    uint32_t qos;
    uint8_t  clean_session;
    uint32_t sub_identifier; /* 0 = none */
} sub_entry_t;

typedef struct { /* also one record of retain.dat */
    char     topic[257];
    uint8_t  payload[2048];
    uint32_t payload_len;
    uint32_t qos;
    int64_t  store_time;      /* wall s */
    uint32_t expiry_interval; /* s, 0 = RETAIN_DEFAULT_LIFE_S */
} retain_msg_t;

typedef struct {
    sub_entry_t  *subs; /* SUB_CAPACITY, insertion order, contiguous */
    int32_t       sub_count;
    retain_msg_t *retains; /* RETAIN_CAPACITY, likewise */
    int32_t       retain_count;
    tarn_mutex_t  lock;
} sub_mgr_t;

TARN_API_END

TARN_LAYOUT_SIZE(sub_entry_t, 2128);
TARN_LAYOUT_OFFSET(sub_entry_t, topic_filter, 65);
TARN_LAYOUT_OFFSET(sub_entry_t, qos, 2116);
TARN_LAYOUT_OFFSET(sub_entry_t, clean_session, 2120);
TARN_LAYOUT_OFFSET(sub_entry_t, sub_identifier, 2124);
TARN_LAYOUT_SIZE(retain_msg_t, 2336);
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
