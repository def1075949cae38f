/*
 * mqtt_codec_types.h - packet records and result codes of the MQTT codec.
 *
 * Records belong to their caller, and to one thread at a time; only a context may be shared (mqtt_codec_ctx_t). Packet
 * identifiers are plain numbers (7 for the wire bytes 00 07). Texts are NUL-terminated inside their arrays; a decoder
 * zeroes the whole record first. Flags are 0 or 1.
 */
#ifndef TARN_CODEC_MQTT_CODEC_TYPES_H
#define TARN_CODEC_MQTT_CODEC_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"
#include "../base/limits.h"

TARN_API_BEGIN

/* What functions return; each says which of these it can return. */
enum {
    CODEC_OK            = 0,
    CODEC_E_PARAM       = -1, /* a null pointer, too short a buffer, a field that cannot be sent */
    CODEC_E_VERSION     = -2, /* a protocol level other than 4 and 5 */
    CODEC_E_BUFFER      = -3, /* it does not fit */
    CODEC_E_MALFORMED   = -4, /* not the packet that was asked for, or not well formed */
    CODEC_E_UNSUPPORTED = -5  /* a packet type or a property that is not handled here */
};

/* What one connection's packets have in common. Relaxed: any thread; each call reads the level once. */
typedef struct {
    uint32_t version;          /* protocol level, 4 = 3.1.1, 5 = 5.0; 0 = never initialised */
    uint32_t last_packet_type; /* of the last call that succeeded, 1..14 */
    uint32_t last_packet_len;  /* bytes that the last decoder consumed; encoders leave it */
    uint32_t reserved[8];      /* 0 */
} mqtt_codec_ctx_t;

/* CONNECT */
typedef struct {
    char     client_id[CODEC_CLIENT_ID_MAX + 1];
    uint8_t  clean_start; /* flag; at 3.1.1 clean session */
    uint16_t keep_alive;  /* s, 0 = off */

    uint8_t  will_flag; /* flag: the next seven count */
    uint32_t will_qos;  /* 0..2 */
    uint8_t  will_retain;
    char     will_topic[CODEC_TOPIC_MAX + 1];
    uint8_t  will_payload[CODEC_PAYLOAD_MAX];
    int32_t  will_payload_len;         /* bytes, 0..CODEC_PAYLOAD_MAX; the encoder wants 1 or more */
    uint32_t will_delay_interval;      /* s, 0 = absent; 5.0 */
    uint32_t will_msg_expiry_interval; /* s, 0 = absent; 5.0 */

    uint8_t  username_flag; /* flag: there is one */
    char     username[CODEC_CREDENTIAL_MAX + 1];
    uint32_t username_len;  /* bytes, filled by the decoder; the encoder goes by the text */
    uint8_t  password_flag; /* likewise */
    char     password[CODEC_CREDENTIAL_MAX + 1];
    uint32_t password_len;

    /* 5.0; 0 = absent */
    uint32_t session_expiry_interval; /* s */
    uint16_t receive_max;             /* packets */
    uint16_t topic_alias_max;
    uint8_t  request_response_info; /* flag */
    uint8_t  request_problem_info;  /* flag */
    uint32_t max_packet_size;       /* bytes */
} mqtt_connect_para_t;

/* CONNACK */
typedef struct {
    uint8_t  session_present;         /* flag */
    uint8_t  reason_code;             /* 5.0 reason, 3.1.1 return code */
    uint32_t session_expiry_interval; /* s; filled by the decoder, never encoded */
    uint16_t receive_max;             /* packets; 5.0, encoded even when 0 */
    uint16_t topic_alias_max;         /* filled by the decoder, never encoded */
    uint32_t max_packet_size;         /* bytes; 5.0, encoded even when 0, never decoded */
} mqtt_connack_para_t;

/* PUBLISH */
typedef struct {
    char     topic[CODEC_TOPIC_MAX + 1];
    uint8_t  payload[CODEC_PAYLOAD_MAX];
    uint32_t payload_len; /* bytes, 0..CODEC_PAYLOAD_MAX */
    uint16_t msg_id;      /* 1..65535 for QoS 1 and 2, else not used */
    uint32_t qos;         /* 0..2 */
    uint8_t  retain;
    uint8_t  dup;
    uint32_t msg_expiry_interval; /* s, 0 = absent; 5.0 */
    uint16_t topic_alias;         /* 0 = absent; 5.0 */
} mqtt_publish_para_t;

/* PUBACK, PUBREC, PUBREL, PUBCOMP, SUBACK, UNSUBACK */
typedef struct {
    uint16_t msg_id;
    uint8_t  reason_code;                     /* 5.0 */
    uint32_t return_codes[CODEC_FILTERS_MAX]; /* SUBACK; the low byte of each goes on the wire */
    int32_t  return_code_count;               /* 0..CODEC_FILTERS_MAX */
} mqtt_ack_para_t;

/* SUBSCRIBE */
typedef struct {
    uint16_t msg_id; /* 1..65535 */
    char     topic_filters[CODEC_FILTERS_MAX][CODEC_TOPIC_MAX + 1];
    uint32_t qos[CODEC_FILTERS_MAX];  /* asked for, one a filter; 0..2 */
    int32_t  filter_count;            /* 1..CODEC_FILTERS_MAX */
    uint32_t subscription_identifier; /* one byte on the wire, 0 = absent; 5.0 */
    uint8_t  max_qos;                 /* filled by the decoder at 5.0, never encoded */
    uint8_t  retain_handling;         /* likewise */
} mqtt_subscribe_para_t;

/* UNSUBSCRIBE */
typedef struct {
    uint16_t msg_id; /* 1..65535 */
    char     topic_filters[CODEC_FILTERS_MAX][CODEC_TOPIC_MAX + 1];
    int32_t  filter_count;            /* 0..CODEC_FILTERS_MAX; the encoder wants 1 or more */
    uint32_t subscription_identifier; /* one byte on the wire, 0 = absent; 5.0 */
} mqtt_unsubscribe_para_t;

/* DISCONNECT; at 3.1.1 none of it is on the wire */
typedef struct {
    uint8_t  reason_code;
    uint32_t session_expiry_interval; /* s, 0 = absent */
    char     reason_string[CODEC_REASON_MAX + 1];
    uint16_t user_property_len; /* bytes, 0..CODEC_REASON_MAX; 0 = absent */
    char     user_property[CODEC_REASON_MAX + 1];
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
