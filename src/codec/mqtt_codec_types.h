/*
 * mqtt_codec_types.h - packet records and result codes of the MQTT codec.
 *
 * Packet identifiers are plain numbers (7 for the wire bytes 00 07). Strings are NUL-terminated inside their arrays.
 */
#ifndef TARN_CODEC_MQTT_CODEC_TYPES_H
#define TARN_CODEC_MQTT_CODEC_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"
#include "../base/limits.h"

TARN_API_BEGIN

enum {
    CODEC_OK            = 0,
    CODEC_E_PARAM       = -1,
    CODEC_E_VERSION     = -2,
    CODEC_E_BUFFER      = -3,
    CODEC_E_MALFORMED   = -4,
    CODEC_E_UNSUPPORTED = -5
};

typedef struct {
    uint32_t version; /* 4 or 5; 0 = never initialised */
    uint32_t last_packet_type;
    uint32_t last_packet_len; /* set by decoders only */
    uint32_t reserved[8];
} mqtt_codec_ctx_t;

typedef struct {
    char     client_id[65];
    uint8_t  clean_start;
    uint16_t keep_alive; /* s */
    uint8_t  will_flag;
    uint32_t will_qos;
    uint8_t  will_retain;
    char     will_topic[257];
    uint8_t  will_payload[2048];
    int32_t  will_payload_len;
    uint32_t will_delay_interval;      /* s, 0 = absent */
    uint32_t will_msg_expiry_interval; /* s, 0 = absent */
    uint8_t  username_flag;
    char     username[65];
    uint32_t username_len;
    uint8_t  password_flag;
    char     password[65];
    uint32_t password_len;
    uint32_t session_expiry_interval; /* s */
    uint16_t receive_max;
    uint16_t topic_alias_max;
    uint8_t  request_response_info;
    uint8_t  request_problem_info;
    uint32_t max_packet_size; /* bytes */
} mqtt_connect_para_t;

typedef struct {
    uint8_t  session_present;
    uint8_t  reason_code;
    uint32_t session_expiry_interval; /* filled by the decoder, never encoded */
    uint16_t receive_max;
    uint16_t topic_alias_max; /* filled by the decoder, never encoded */
    uint32_t max_packet_size;
} mqtt_connack_para_t;

typedef struct {
    char     topic[257];
    uint8_t  payload[2048];
    uint32_t payload_len;
    uint16_t msg_id; /* non-zero for QoS 1 and 2 */
    uint32_t qos;
    uint8_t  retain;
    uint8_t  dup;
    uint32_t msg_expiry_interval; /* s, 0 = absent */
    uint16_t topic_alias;         /* 0 = absent */
} mqtt_publish_para_t;

typedef struct {
    uint16_t msg_id;
    uint8_t  reason_code;
    uint32_t return_codes[16]; /* SUBACK; the low byte of each goes on the wire */
    int32_t  return_code_count;
} mqtt_ack_para_t;

typedef struct {
    uint16_t msg_id;
    char     topic_filters[16][257];
    uint32_t qos[16];
    int32_t  filter_count;
    uint32_t subscription_identifier; /* one byte on the wire, 0 = absent */
    uint8_t  max_qos;
    uint8_t  retain_handling;
} mqtt_subscribe_para_t;

typedef struct {
    uint16_t msg_id;
    char     topic_filters[16][257];
    int32_t  filter_count;
    uint32_t subscription_identifier;
} mqtt_unsubscribe_para_t;

typedef struct {
    uint8_t  reason_code;
    uint32_t session_expiry_interval; /* s, 0 = absent */
    char     reason_string[65];
    uint16_t user_property_len;
    char     user_property[65];
} mqtt_disconnect_para_t;

TARN_API_END

TARN_LAYOUT_SIZE(mqtt_codec_ctx_t, 44);
TARN_LAYOUT_SIZE(mqtt_connect_para_t, 2556);
TARN_LAYOUT_SIZE(mqtt_connack_para_t, 16);
TARN_LAYOUT_SIZE(mqtt_publish_para_t, 2332);
TARN_LAYOUT_SIZE(mqtt_ack_para_t, 72);
TARN_LAYOUT_SIZE(mqtt_subscribe_para_t, 4192);
TARN_LAYOUT_SIZE(mqtt_unsubscribe_para_t, 4124);
TARN_LAYOUT_SIZE(mqtt_disconnect_para_t, 144);
TARN_LAYOUT_OFFSET(mqtt_connect_para_t, will_topic, 77);
TARN_LAYOUT_OFFSET(mqtt_connect_para_t, will_payload, 334);
TARN_LAYOUT_OFFSET(mqtt_connect_para_t, will_payload_len, 2384);
TARN_LAYOUT_OFFSET(mqtt_connect_para_t, session_expiry_interval, 2540);
TARN_LAYOUT_OFFSET(mqtt_publish_para_t, payload, 257);
TARN_LAYOUT_OFFSET(mqtt_publish_para_t, payload_len, 2308);
TARN_LAYOUT_OFFSET(mqtt_publish_para_t, msg_expiry_interval, 2324);
TARN_LAYOUT_OFFSET(mqtt_ack_para_t, return_code_count, 68);
TARN_LAYOUT_OFFSET(mqtt_subscribe_para_t, topic_filters, 2);
TARN_LAYOUT_OFFSET(mqtt_subscribe_para_t, qos, 4116);
TARN_LAYOUT_OFFSET(mqtt_subscribe_para_t, filter_count, 4180);
TARN_LAYOUT_OFFSET(mqtt_unsubscribe_para_t, filter_count, 4116);
TARN_LAYOUT_OFFSET(mqtt_disconnect_para_t, user_property, 76);

#endif
