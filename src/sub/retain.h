/*
 * retain.h - the store of retained messages, inside g_sub_mgr and under its lock.
 */
#ifndef TARN_SUB_RETAIN_H
#define TARN_SUB_RETAIN_H

#include "sub_types.h"

TARN_API_BEGIN

int  retain_msg_set(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos);
int  retain_msg_set_with_expiry(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos,
                                uint32_t expiry_interval);
int  retain_msg_get(const char *topic, retain_msg_t *out);
int  retain_msg_delete(const char *topic);
void retain_clean_expired(void);
int  retain_fill_topic_list(char *buf, int32_t size); /* topics written */

TARN_API_END

#endif
