/*
 * mqtt_stats.h - counters since start and for the current period, the report and its JSON form.
 *
 * The module owns g_mqtt_stats. The modules where something happens count it; the broker's housekeeping prints the
 * report every 60 s and begins a new period; hosts read the record, or take it as JSON.
 *
 *   threads   any, at once
 *   locks     none taken, any may be held
 *   memory    nothing is kept
 *   values    any thread counts, any thread reads, nobody waits. Several fields are thus several readings, not one
 *             moment's picture.
 */
#ifndef TARN_STATS_MQTT_STATS_H
#define TARN_STATS_MQTT_STATS_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"
#include "../base/limits.h"
#include "../base/mutex_type.h"

TARN_API_BEGIN

/* All counters. Totals run since mqtt_stats_init, period_* since mqtt_stats_reset_period. */
typedef struct {
    TARN_SHARED(uint64_t) start_ms;           /* monotonic clock, ms, at mqtt_stats_init */
    TARN_SHARED(uint32_t) online;             /* clients online at the last update */
    TARN_SHARED(uint32_t) max_online;         /* the most of them at any update */
    TARN_SHARED(uint64_t) pkt_rx;             /* packets handed to packet handling, good or bad */
    TARN_SHARED(uint64_t) pkt_tx;             /* packets queued for a client */
    TARN_SHARED(uint64_t) drop_offline;       /* not queued: the client is not online */
    TARN_SHARED(uint64_t) drop_queue_full;    /* not queued: CLIENT_SEND_SLOTS - 1 packets wait already */
    TARN_SHARED(uint64_t) drop_too_big;       /* not queued: above what the client takes */
    TARN_SHARED(uint64_t) drop_invalid_param; /* not queued: no client, bytes or memory, or a length no slot has */
    TARN_SHARED(uint64_t) drop_send_failed;   /* for hosts: the broker does not count it */
    TARN_SHARED(uint64_t) qos0;               /* PUBLISH packets decoded, at QoS 0 */
    TARN_SHARED(uint64_t) qos1;               /* ... at QoS 1 */
    TARN_SHARED(uint64_t) qos2;               /* ... at QoS 2, repetitions included */
    TARN_SHARED(uint64_t) offline_msg;        /* messages of clients kept for clients that are away */
    TARN_SHARED(uint32_t) retain_msg;         /* retained messages at the last update */
    TARN_SHARED(uint32_t) subs;               /* subscriptions at the last update */
    TARN_SHARED(uint32_t) timeout;            /* clients closed for their silence */
    TARN_SHARED(uint32_t) will_sent;          /* wills published */
    TARN_SHARED(uint32_t) parse_error;        /* packets that did not decode; in no report */
    TARN_SHARED(uint64_t) persist_write;      /* files written */
    TARN_SHARED(uint64_t) persist_read;       /* files read */
    TARN_SHARED(uint32_t) pool_cap;           /* client records that are allocated, at the last update */
    TARN_SHARED(uint32_t) pool_used;          /* client records in use, at the last update */
    TARN_SHARED(float) pool_usage;            /* percent of pool_cap, 0 without one, at the last update */
    TARN_SHARED(uint64_t) period_rx;          /* pkt_rx of this period, and so on */
    TARN_SHARED(uint64_t) period_tx;
    TARN_SHARED(uint64_t) period_drop_offline;
    TARN_SHARED(uint64_t) period_drop_queue_full;
    TARN_SHARED(uint64_t) period_drop_too_big;
    TARN_SHARED(uint64_t) period_drop_invalid_param;
    TARN_SHARED(uint64_t) period_drop_send_failed;
    TARN_SHARED(uint32_t) period_timeout;
    TARN_SHARED(uint32_t) period_will;
    TARN_SHARED(uint64_t) period_persist_write;
    TARN_SHARED(uint64_t) period_persist_read;
} mqtt_stats_t;

/* The one record of the process. Hosts may read every field; one that writes to it changes what the reports say. */
extern mqtt_stats_t g_mqtt_stats;

/* ----------------------------------------------------------------------------------------------- life of the module */

/*
 * Zeroes the record and notes the time; one INFO line. Called by the broker's init.
 */
void mqtt_stats_init(void);

/* Does nothing: the numbers stay readable. */
void mqtt_stats_deinit(void);

/* ---------------------------------------------------------------------------------------------------------- reading */

/*
 * Takes over what others know: clients online, the pool of client records, retained messages, subscriptions. No line.
 */
void mqtt_stats_update(void);

/*
 * Zeroes the fields period_*. Totals stay. What is counted meanwhile is in this period or the next. No line.
 */
void mqtt_stats_reset_period(void);

/*
 * Updates, then writes the report: 13 lines at WARN, so that they pass the broker's usual level.
 */
void mqtt_stats_print(void);

/*
 * Updates, then writes the totals as one JSON object, with a point in the percentage whatever the locale.
 *
 *   buf       not null; gets the text and its terminator
 *   size      of buf in bytes, STATS_JSON_SIZE_MIN or more; the text never takes more than some 700
 *   returns   0, or -1 for a wrong argument; then buf is as it was. No line.
 */
int mqtt_stats_to_json(char *buf, int32_t size);

/* --------------------------------------------------------------------------------------------------------- counting */

/*
 * Counts a PUBLISH that came in. A qos above 2 is ignored. There is no number for the period.
 */
void mqtt_stats_inc_qos(uint8_t qos);

/* Add 1 to the total of that name, which has no number for the period. */
void mqtt_stats_inc_offline_msg(void);
void mqtt_stats_inc_parse_error(void);

/* Add 1 to the total of that name (pkt_rx, pkt_tx for the first two) and to the number of the period. */
void mqtt_stats_inc_rx_pkt(void);
void mqtt_stats_inc_tx_pkt(void);
void mqtt_stats_inc_drop_offline(void);
void mqtt_stats_inc_drop_queue_full(void);
void mqtt_stats_inc_drop_too_big(void);
void mqtt_stats_inc_drop_invalid_param(void);
void mqtt_stats_inc_drop_send_failed(void);
void mqtt_stats_inc_will_sent(void);
void mqtt_stats_inc_timeout(void);
void mqtt_stats_inc_persist_write(void);
void mqtt_stats_inc_persist_read(void);

TARN_API_END

TARN_LAYOUT_SIZE(mqtt_stats_t, 240);
TARN_LAYOUT_OFFSET(mqtt_stats_t, retain_msg, 104);
TARN_LAYOUT_OFFSET(mqtt_stats_t, persist_write, 128);
TARN_LAYOUT_OFFSET(mqtt_stats_t, pool_usage, 152);
TARN_LAYOUT_OFFSET(mqtt_stats_t, period_rx, 160);

#endif
