/*
 * mqtt_codec.h - MQTT control packets to bytes and back, for protocol levels 4 (3.1.1) and 5 (5.0).
 *
 * The module owns nothing. Packet handling decodes what clients send and encodes the answers, pending deliveries encode
 * what they repeat; the other direction of each packet is for hosts that act as a client. Where forms and properties
 * depart from the standard, docs/deviations.md says so: each side of this codec speaks the forms that its peers know.
 *
 *   ctx       of the connection. Its level decides the form of what is encoded; which decoders go by it, and which find
 *             the level in the packet and set it, is said with each. Success notes the packet type, and for decoders
 *             the length.
 *   para      the packet's record (mqtt_codec_types.h). Decoders zero it before they fill it.
 *   buf       encoders: gets the packet and zeros behind it, up to the capacity; after a failure behind the first
 *             checks it holds zeros and header bytes. Decoders: exactly one packet, only read.
 *   buf_len   encoders: the capacity of buf in bytes on entry, the length of the packet on success. Decoders: the bytes
 *             in buf on entry, the bytes consumed on success. A failing call leaves it alone.
 *   returns   CODEC_OK, CODEC_E_PARAM for a null argument or too small a *buf_len, and what else is said. Smallest
 *             *buf_len: CODEC_MIN_CAPACITY for encoders, for decoders the number given.
 *   threads   any, at once, each with buffers and records of its own; a context may be shared
 *   locks     none taken, any may be held. Nothing is allocated, and nothing is kept outside the context.
 *   log       at DEBUG every step; one ERROR line for each failure; other lines are named with the functions
 */
#ifndef TARN_CODEC_MQTT_CODEC_H
#define TARN_CODEC_MQTT_CODEC_H

#include "mqtt_codec_types.h"

TARN_API_BEGIN

/* ---------------------------------------------------------------------------------------------- context and lengths */

/*
 * Makes a context ready: level 4 until a CONNECT says otherwise, all else 0.
 *
 *   ctx       the caller's memory; need not be zeroed
 *   returns   CODEC_OK; CODEC_E_PARAM for null
 */
int mqtt_codec_ctx_init(mqtt_codec_ctx_t *ctx);

/*
 * Writes a variable byte integer, as remaining lengths and property lengths are written [MQTT-1.5.5-1].
 *
 *   buf       room for four bytes
 *   len       0..CODEC_ENCODE_LEN_MAX
 *   returns   bytes written, 1..4; 0 for a null buf or too large a len
 */
uint32_t codec_encode_remaining_length(uint8_t *buf, uint32_t len);

/*
 * Reads one. A form with more bytes than needed is accepted.
 *
 *   avail      bytes in buf
 *   consumed   gets the bytes read, 1..3; untouched after a failure
 *   returns    the value, 0..CODEC_DECODE_LEN_MAX; -1 for a null pointer, when it does not end in avail bytes, or has
 *              more than three; without a line
 */
int codec_decode_remaining_length(const uint8_t *buf, int avail, uint32_t *consumed);

/* ---------------------------------------------------------------- CONNECT and CONNACK [MQTT 5.0 3.1] [MQTT 5.0 3.2] */

/*
 *   returns   CODEC_E_PARAM    also for an id of 0 or more than CODEC_CLIENT_ID_MAX characters (at 3.1.1
 *                              CODEC_CLIENT_ID_V4_MAX), a will with no topic or no payload or too long a one, a user
 *                              name or password of 0 or more than CODEC_CREDENTIAL_MAX bytes, a password without a name
 *             CODEC_E_VERSION  the context's level
 *             CODEC_E_BUFFER   more than CODEC_BODY_MAX bytes behind the fixed header, or than the capacity
 */
int mqtt_codec_encode_connect(mqtt_codec_ctx_t *ctx, const mqtt_connect_para_t *para, uint8_t *buf, int *buf_len);

/*
 * Sets the context's level as soon as it is read, so also when the call fails further on. An id above
 * CODEC_CLIENT_ID_MAX is cut, a packet that is shorter than it says is read as far as it goes, an unknown property ends
 * the properties: one WARN line each. An empty id with clean start is accepted with one WARN line.
 *
 *   *buf_len  10 or more
 *   returns   CODEC_E_VERSION    a level other than 4 and 5
 *             CODEC_E_MALFORMED  another packet or protocol name, a field that is cut, or too short or too long
 */
int mqtt_codec_decode_connect(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_connect_para_t *para);

/*
 * 3.1.1: four bytes, and the code is 0 whatever reason_code says, with one WARN line. 5.0: always thirteen bytes, with
 * receive maximum and maximum packet size.
 *
 *   *buf_len  at level 4 a capacity of 4 is enough
 *   returns   CODEC_E_VERSION  the context's level
 */
int mqtt_codec_encode_connack(mqtt_codec_ctx_t *ctx, const mqtt_connack_para_t *para, uint8_t *buf, int *buf_len);

/*
 * Sets the context's level: 5 when anything stands behind the code, else 4. An unknown property is stepped over with
 * one WARN line.
 *
 *   *buf_len  4 or more
 *   returns   CODEC_E_MALFORMED  another packet, or one that is cut
 */
int mqtt_codec_decode_connack(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_connack_para_t *para);

/* ------------------------------------------------------------------------------------------- PUBLISH [MQTT 5.0 3.3] */

/*
 * Flags and wildcards are written as given.
 *
 *   returns   CODEC_E_PARAM    also for a topic of 0 or more than CODEC_TOPIC_MAX characters, an identifier of 0 at QoS
 *                              1 or 2, a payload above CODEC_PAYLOAD_MAX bytes
 *             CODEC_E_VERSION  the context's level
 *             CODEC_E_BUFFER   more than CODEC_BODY_MAX bytes behind the fixed header, or than the capacity
 */
int mqtt_codec_encode_publish(mqtt_codec_ctx_t *ctx, const mqtt_publish_para_t *para, uint8_t *buf, int *buf_len);

/*
 * Sets the context's level: 5 when properties seem to stand behind topic and identifier, else 4. Of a payload above
 * CODEC_PAYLOAD_MAX bytes the first are kept and the rest is not consumed, with one WARN line; an unknown property is
 * stepped over with one WARN line. UTF-8 and wildcards are not checked.
 *
 *   *buf_len  2 or more
 *   returns   CODEC_E_MALFORMED  another packet, QoS 3, a topic of 0 or more than CODEC_TOPIC_MAX bytes, an identifier
 *                                of 0 at QoS 1 or 2, or a packet that is cut
 */
int mqtt_codec_decode_publish(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_publish_para_t *para);

/* ------------------------------------------------------------- acknowledgements [MQTT 5.0 3.4] to 3.7, 3.9 and 3.11 */

/*
 * 5.0 packets carry the reason code and no properties; a SUBACK's reason code is written as 0. INFO lines list the
 * bytes.
 *
 *   type      4 PUBACK, 5 PUBREC, 6 PUBREL, 7 PUBCOMP, 9 SUBACK, 11 UNSUBACK
 *   returns   CODEC_E_UNSUPPORTED  another type
 *             CODEC_E_VERSION      the context's level
 */
int mqtt_codec_encode_ack(mqtt_codec_ctx_t *ctx, int type, const mqtt_ack_para_t *para, uint8_t *buf, int *buf_len);

/*
 * Sets the context's level: 5 when anything stands behind the identifier, else 4. Properties are stepped over, codes
 * beyond CODEC_FILTERS_MAX are left out. The record is zeroed once the type is right.
 *
 *   type      of the packet that is expected
 *   *buf_len  3 or more
 *   returns   CODEC_E_MALFORMED  another packet, or one that is cut
 */
int mqtt_codec_decode_ack(mqtt_codec_ctx_t *ctx, int type, const uint8_t *buf, int *buf_len, mqtt_ack_para_t *para);

/* ------------------------------------------------------------------ packets without content [MQTT 5.0 3.12] to 3.14 */

/*
 *   type      12 PINGREQ, 13 PINGRESP, 14 DISCONNECT
 *   returns   CODEC_E_UNSUPPORTED  another type
 *             CODEC_E_VERSION      the context's level
 */
int mqtt_codec_encode_simple(mqtt_codec_ctx_t *ctx, int type, uint8_t *buf, int *buf_len);

/*
 * Sets the context's level: 5 when the packet has content, which is stepped over and may be cut, else 4.
 *
 *   type      of the packet that is expected, any
 *   *buf_len  2 or more
 *   returns   CODEC_E_MALFORMED  another packet, or a length that does not end
 */
int mqtt_codec_decode_simple(mqtt_codec_ctx_t *ctx, int type, const uint8_t *buf, int *buf_len);

/* --------------------------------------------------------- SUBSCRIBE and UNSUBSCRIBE [MQTT 5.0 3.8] [MQTT 5.0 3.10] */

/*
 * A filter of 0 or more than CODEC_TOPIC_MAX characters is left out, with one WARN line.
 *
 *   returns   CODEC_E_PARAM    also for a filter_count outside 1..CODEC_FILTERS_MAX, an identifier of 0, or when no
 *                              filter is left
 *             CODEC_E_VERSION  the context's level
 *             CODEC_E_BUFFER   more than CODEC_SUBSCRIBE_MAX bytes behind the fixed header, or than the capacity
 */
int mqtt_codec_encode_subscribe(mqtt_codec_ctx_t *ctx, const mqtt_subscribe_para_t *para, uint8_t *buf, int *buf_len);

/*
 * Goes by the context's level: properties are read at 5. The list of filters ends behind CODEC_FILTERS_MAX, and at the
 * first that is bad, with one WARN line. Filters are not judged; mqtt_filter_is_valid (sub.h) does that.
 *
 *   *buf_len  6 or more
 *   returns   CODEC_E_MALFORMED  another packet or other flags, an identifier of 0, no good filter, or a packet that is
 *                                cut
 */
int mqtt_codec_decode_subscribe(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_subscribe_para_t *para);

/* As mqtt_codec_encode_subscribe. */
int mqtt_codec_encode_unsubscribe(mqtt_codec_ctx_t *ctx, const mqtt_unsubscribe_para_t *para, uint8_t *buf,
                                  int *buf_len);

/*
 * Goes by the context's level; where that is neither 4 nor 5 the packet tells it, and the context is set. The type is
 * noted in the context even when the call fails behind the first byte. A packet without filters is accepted, filters
 * beyond CODEC_FILTERS_MAX are left out with one WARN line, but one bad filter fails the packet. INFO lines tell of
 * success and of a level that was found.
 *
 *   *buf_len  4 or more
 *   returns   CODEC_E_PARAM      also for an identifier that is 0 or missing
 *             CODEC_E_BUFFER     a remaining length beyond the input or above 2048, or a property length beyond the
 *             rest CODEC_E_MALFORMED  another first byte, properties that are cut, a filter of 0 or more than
 *                                CODEC_TOPIC_MAX bytes
 */
int mqtt_codec_decode_unsubscribe(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len,
                                  mqtt_unsubscribe_para_t *para);

/* --------------------------------------------------------------------------------------- DISCONNECT [MQTT 5.0 3.14] */

/*
 * Writes no lines.
 *
 *   *buf_len  a capacity of 1 or more
 *   returns   CODEC_E_VERSION  the context's level
 *             CODEC_E_BUFFER   a text above CODEC_REASON_MAX, or more than the capacity
 */
int mqtt_codec_encode_disconnect(mqtt_codec_ctx_t *ctx, const mqtt_disconnect_para_t *para, uint8_t *buf, int *buf_len);

/*
 * Goes by the context's level and leaves it. The type is noted in the context even when the call fails, with length 0.
 * At 5.0 reason code and property length must both be there.
 *
 *   *buf_len  1 or more
 *   returns   CODEC_E_VERSION      the context's level
 *             CODEC_E_BUFFER       a packet or value that is cut, or a text above CODEC_REASON_MAX
 *             CODEC_E_UNSUPPORTED  an unknown property
 *             CODEC_E_MALFORMED    another packet, content at 3.1.1, no property length or one beyond the packet
 */
int mqtt_codec_decode_disconnect(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_disconnect_para_t *para);

TARN_API_END

#endif
