/*
 * sub.h - topic filters and the table of all subscriptions.
 */
#ifndef TARN_SUB_SUB_H
#define TARN_SUB_SUB_H

#include "sub_types.h"

TARN_API_BEGIN

extern sub_mgr_t g_sub_mgr;

int mqtt_filter_is_valid(const char *filter);                    /* 1 valid, 0 invalid */
int topic_match_wildcard(const char *filter, const char *topic); /* 1 match, 0 none */

int  sub_init(void);
void sub_deinit(void);
int  sub_add(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session);
int  sub_add_with_id(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session,
                     uint32_t sub_identifier);
int  sub_remove(const char *client_id, const char *topic_filter); /* number removed; null filter = all */
int  sub_match(const char *topic, sub_entry_t *matched, int32_t max_matched);
int  sub_get_client_sub_count(const char *client_id);
int  sub_find_by_identifier(uint32_t sub_identifier, sub_entry_t *out);

TARN_API_END

#endif
