/*
 * retain.h - the store of retained messages, inside g_sub_mgr (sub.h) and under its lock.
 *
 * The module owns the last retained message of each topic, RETAIN_CAPACITY of them, in memory and, written with every
 * change, in retain.dat. Packet handling stores, the broker's housekeeping discards what has expired, hosts list and
 * delete through the API.
 *
 *   threads   any, at once
 *   locks     each function takes and drops g_sub_mgr.lock, and those that write the file take g_persist_mutex too; the
 *             caller must hold neither, nor a client's send_lock or will_lock
 *   memory    what is passed in is copied before the call returns, messages are handed out as copies
 *   texts     topics are bytes up to a NUL, cut to 256 characters before they are stored or compared; nobody looks for
 *             wildcards
 *   file      a change rewrites retain.dat as a whole, which takes as long as the disk does, and counts one
 *             persist_write. When it cannot be written, an ERROR line tells, and the result stays that of the store.
 *   log       at DEBUG every step and every entry looked at; other lines are named with the functions
 */
#ifndef TARN_SUB_RETAIN_H
#define TARN_SUB_RETAIN_H

#include "sub_types.h"

TARN_API_BEGIN

/* --------------------------------------------------------------------------------------------------------- changing */

/*
 * Stores the message of a topic in place of the one before [MQTT-3.3.1-5]; an empty payload deletes it [MQTT-3.3.1-6].
 * First discards what has expired. A replaced message keeps its place and its expiry interval, a new one has none.
 *
 *   topic        not null, not empty
 *   payload      may be null when payload_len is 0
 *   payload_len  bytes; above 2048 the rest is cut off
 *   qos          of the publication; stored as it is
 *   returns      0    stored, replaced or deleted, each with the file written and one INFO line; or there was nothing
 *                     to delete, without either
 *                -1   an empty or null topic, with one ERROR line; a null payload with a length, with none
 *                -4   RETAIN_CAPACITY other topics are stored, or there is no store; one ERROR line
 */
int retain_msg_set(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos);

/*
 * The same with a life of its own [MQTT-3.3.2-5].
 *
 *   expiry_interval  s from now; 0 makes it retain_msg_set in every respect
 *   returns          as retain_msg_set. After a 0 the file is written once more, for the interval.
 */
int retain_msg_set_with_expiry(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos,
                               uint32_t expiry_interval);

/*
 * Deletes the message of exactly this topic.
 *
 *   topic     not null
 *   returns   0    deleted and the file written
 *             -1   a null topic; one ERROR line
 *             -5   there is none
 */
int retain_msg_delete(const char *topic);

/*
 * Discards the messages whose life ended before this second: expiry_interval after they were stored, or
 * RETAIN_DEFAULT_LIFE_S when they have none. For each there is one INFO line, and one persist_write is counted; the file
 * is written once for all of them.
 */
void retain_clean_expired(void);

/* ---------------------------------------------------------------------------------------------------------- reading
 * No file is touched. */

/*
 * Copies the message of exactly this topic, expired or not.
 *
 *   topic     not null
 *   out       not null; untouched unless the result is 0
 *   returns   0    found
 *             -1   a null argument; one ERROR line
 *             -5   there is none
 */
int retain_msg_get(const char *topic, retain_msg_t *out);

/*
 * Lists the topics, each followed by a newline, oldest first.
 *
 *   buf       not null; gets the text with its terminator. A topic that does not fit as a whole is left out.
 *   size      of buf in bytes, 1 or more; 257 for each topic and one more are enough
 *   returns   the number of topics written, or -1 for a null buf or a size below 1. No line.
 */
int retain_fill_topic_list(char *buf, int32_t size);

TARN_API_END

#endif
