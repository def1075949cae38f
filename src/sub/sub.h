/*
 * sub.h - topic filters and the table of all subscriptions.
 *
 * The module owns g_sub_mgr: the subscriptions of every client, connected or away, and the retained messages
 * (retain.h). Packet handling adds, removes and matches; persistence adds what was saved when the broker starts;
 * statistics read the counts.
 *
 *   threads   any, at once
 *   locks     each function takes and drops g_sub_mgr.lock unless it says that it takes none; the caller must not hold
 *             it, nor a client's send_lock or will_lock, nor g_persist_mutex
 *   memory    what is passed in is copied before the call returns, entries are handed out as copies
 *   texts     bytes up to a NUL. Upper and lower case differ; nobody checks UTF-8. Ids are cut to 64 characters and
 *             filters to 2048 before they are stored or compared.
 *   log       at DEBUG every step and every entry looked at; other lines are named with the functions
 */
#ifndef TARN_SUB_SUB_H
#define TARN_SUB_SUB_H

#include "sub_types.h"

TARN_API_BEGIN

/* The one manager of the process. A host may read it, and change its entries, while it holds the lock. */
extern sub_mgr_t g_sub_mgr;

/* ---------------------------------------------------------------------------------------------------- topic filters
 * Both work on their arguments alone and take no lock. */

/*
 * Tells whether a filter may be subscribed: '#' only at the end and alone in its level, '+' alone in its level
 * [MQTT-4.7.1-1] [MQTT-4.7.1-2], and, unlike in the standard, no '+' in front of a '#'. Empty levels are allowed.
 *
 *   filter    null counts as empty; judged as a whole, so "$share/g/" in front is part of it
 *   returns   1 valid, 0 not; then one ERROR line says why
 */
int mqtt_filter_is_valid(const char *filter);

/*
 * Tells whether a topic matches a filter [MQTT-4.7.1-2]; docs/deviations.md names the three differences. A "$share/"
 * and the group behind it are not compared.
 *
 *   filter    null matches nothing
 *   topic     null matches nothing; wildcards in it are ordinary characters
 *   returns   1 match, 0 none; an invalid filter matches nothing, and its ERROR line is written
 */
int topic_match_wildcard(const char *filter, const char *topic);

/* ------------------------------------------------------------------------------------------------ life of the table */

/*
 * Makes both arrays, about 24 MB, or empties them. Files are not touched.
 *
 *   returns   0, with an INFO line
 *             -2   too little memory; two ERROR lines. What could be made stays, and the next call goes on from there.
 *
 * Called by the broker's init. A running broker loses its subscriptions and retained messages in memory by it.
 */
int sub_init(void);

/*
 * Frees both arrays and zeroes the counts; one INFO line. Until the next sub_init the table is empty and full at once.
 * The lock stays valid. The library itself never calls this; pointers into the arrays end with it.
 */
void sub_deinit(void);

/* ---------------------------------------------------------------------------------------------------- subscriptions */

/*
 * Adds a subscription behind the others. One of the same id and filter gets the new QoS and flag instead and keeps its
 * place and its identifier [MQTT-3.8.4-3].
 *
 *   client_id      not null, not empty
 *   topic_filter   not null, valid; "$share/group/filter" is stored whole
 *   qos            0, 1 or 2: the highest to deliver at
 *   clean_session  flag, kept with the entry
 *   returns        0    added or updated; one INFO line
 *                  -1   an argument is wrong; one ERROR line, behind those of mqtt_filter_is_valid
 *                  -4   SUB_CAPACITY subscriptions are there, or there is no table; two ERROR lines
 */
int sub_add(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session);

/*
 * The same with an identifier of MQTT 5.0, which an update replaces [MQTT 5.0 3.8.2.1.2].
 *
 *   sub_identifier  0 makes it sub_add in every respect
 *   returns         as sub_add, but it writes no line except for an invalid filter, and takes an empty id
 */
int sub_add_with_id(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session,
                    uint32_t sub_identifier);

/*
 * Removes one subscription of a client, or all of them. The others keep their order.
 *
 *   client_id     not null, not empty
 *   topic_filter  exactly as it was added; null = all of this client
 *   returns       how many were removed, 0 included; one INFO line
 *                 -1   no client_id; one ERROR line
 */
int sub_remove(const char *client_id, const char *topic_filter);

/*
 * Copies the subscriptions that match a topic, in table order. A client with several that match is there several times,
 * and every member of a shared group is: shared_sub_mark_selected (shared_sub.h) chooses among them.
 *
 *   topic        not null
 *   matched      not null, room for max_matched entries of some 2 KB
 *   max_matched  1 or more; what matches beyond is left out silently. SUB_CAPACITY is enough.
 *   returns      how many were copied; one INFO line. 0 for a wrong argument, with one ERROR line. Invalid filters that
 *                a host wrote into the table have their ERROR line at each call.
 */
int sub_match(const char *topic, sub_entry_t *matched, int32_t max_matched);

/*
 * Counts a client's subscriptions.
 *
 *   client_id  not null, not empty
 *   returns    0 or more; one INFO line
 *              -1   no client_id; one ERROR line
 */
int sub_get_client_sub_count(const char *client_id);

/*
 * Finds the first subscription, of any client, with an identifier.
 *
 *   sub_identifier  1 or more
 *   out             not null; gets a copy, untouched unless the result is 0
 *   returns         0, or -1 when there is none or an argument is wrong. No line.
 */
int sub_find_by_identifier(uint32_t sub_identifier, sub_entry_t *out);

TARN_API_END

#endif
