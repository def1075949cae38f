// codec.h - lines of src/codec that tests expect in more than one place.
#ifndef TARN_TESTS_LOG_LINES_CODEC_H
#define TARN_TESTS_LOG_LINES_CODEC_H

#include "support/log_capture.h"

namespace tarn::test::logged {

inline LogLine ack_decode_wrong_type(int expected, int actual)
{
    return error(printed("ACK decode: packet type mismatch (expected=%d, actual=%d)", expected, actual));
}
inline LogLine ack_decode_bad_remaining_length(int length, int consumed)
{
    return error(printed("ACK decode: invalid remaining length (len=%d, consumed=%d)", length, consumed));
}
inline LogLine ack_decode_incomplete(int need, int actual)
{
    return error(printed("ACK decode: packet incomplete (need=%d, actual=%d)", need, actual));
}
inline LogLine ack_decode_no_packet_id()
{
    return error("ACK decode: buffer too short for msg id");
}

inline LogLine suback_code_forced(unsigned given)
{
    return info(
        printed("【QoS溯源3】MQTT 5.0 SUBACK全局Reason Code修正：强制设为0x00（Success），原参数值=0x%02X", given));
}
inline LogLine suback_variable_header()
{
    return info("【QoS溯源6】SUBACK可变头（前16字节）：");
}
inline LogLine suback_payload()
{
    return info("【QoS溯源6】SUBACK负载（前16字节）：");
}
inline LogLine suback_final(int length)
{
    return info(printed("【QoS溯源7】发送SUBACK前最终缓冲区（长度=%d）：", length));
}
inline LogLine suback_dump()
{
    return debug("【QoS溯源7】SUBACK final packet hex dump");
}
inline LogLine ack_encode_unsupported_version(int version)
{
    return error(printed("ACK encode: unsupported version %d", version));
}
inline LogLine ack_encoded(int type, int packet_id, int version, int length)
{
    return debug(
        printed("ACK encode success: type=%d, msg_id=%d, version=%d, len=%d", type, packet_id, version, length));
}

inline LogLine codec_context_ready()
{
    return debug("mqtt_codec_ctx_init: success");
}

inline LogLine connack_code_forced()
{
    return warn("CONNACK encode: 3.1.1 force code=0");
}
inline LogLine connack_encode_started()
{
    return debug("========== CONNACK encode start ==========");
}
inline LogLine connack_encode_invalid_param()
{
    return error("CONNACK encode: invalid param");
}
inline LogLine connack_encode_unsupported_version(int version)
{
    return error(printed("CONNACK encode: unsupported version %d", version));
}
inline LogLine connack_encoded(int length)
{
    return debug(printed("CONNACK encode success: total_len=%d", length));
}
inline LogLine connack_encode_ended()
{
    return debug("========== CONNACK encode end ==========");
}
inline LogLine connack_decode_unknown_property(unsigned type)
{
    return warn(printed("CONNACK decode: unknown property type 0x%02X", type));
}
inline LogLine connack_decode_bad_property_length()
{
    return error("CONNACK decode: invalid property length");
}
inline LogLine connack_decode_bad_remaining_length(int length, int consumed)
{
    return error(printed("CONNACK decode: invalid remaining length (len=%d, consumed=%d)", length, consumed));
}
inline LogLine connack_decode_too_short()
{
    return error("CONNACK decode: buffer too short for variable header");
}

inline LogLine connect_decode_bad_first_byte(int type, int flags)
{
    return error(printed("CONNECT decode: invalid pkt type/flags (type=%d, flags=%d)", type, flags));
}
inline LogLine connect_decode_no_protocol_name(int position, int length)
{
    return error(printed("CONNECT decode: no enough data for protocol name (pos=%d, len=%d)", position, length));
}
inline LogLine connect_decode_bad_protocol_name(int length, const std::string &name)
{
    return error(printed("CONNECT decode: invalid protocol name (len=%d, name=%s)", length, name.c_str()));
}
inline LogLine connect_decode_no_keep_alive(int position)
{
    return error(printed("CONNECT decode: no enough data for keep alive (pos=%d)", position));
}
inline LogLine connect_decode_bad_property_length(int length, int consumed)
{
    return error(printed("CONNECT decode: invalid MQTT 5.0 property length (len=%d, consumed=%d)", length, consumed));
}
inline LogLine connect_decode_no_property_type(int position)
{
    return error(printed("CONNECT decode: incomplete extended property type (pos=%d)", position));
}
inline LogLine connect_decode_unknown_property(unsigned type)
{
    return warn(printed("CONNECT decode: unknown property type=0x%02X, skip", type));
}
inline LogLine connect_decode_property_cut(const std::string &name, int position)
{
    return error(printed("CONNECT decode: incomplete %s (pos=%d)", name.c_str(), position));
}
inline LogLine connect_decode_no_client_id_length(int position)
{
    return error(printed("CONNECT decode: no enough data for ClientID length (pos=%d)", position));
}
inline LogLine connect_decode_client_id_cut(int position, int length, int total)
{
    return error(
        printed("CONNECT decode: ClientID data out of bounds (pos=%d, len=%d, total=%d)", position, length, total));
}
inline LogLine connect_decode_client_id_too_long(int length)
{
    return error(printed("CONNECT decode: MQTT 3.1.1 ClientID too long (len=%d, max=23)", length));
}
inline LogLine connect_decode_client_id_truncated(int length)
{
    return warn(printed("CONNECT decode: ClientID exceed buffer (len=%d, max=64), truncate", length));
}
inline LogLine connect_decode_no_length(const std::string &field, int position)
{
    return error(printed("CONNECT decode: no enough data for %s length (pos=%d)", field.c_str(), position));
}
inline LogLine connect_decode_bad_length(const std::string &field, int length)
{
    return error(printed("CONNECT decode: invalid %s length %d", field.c_str(), length));
}
inline LogLine connect_decode_invalid_input(const void *context, const void *buffer, int length)
{
    return error(printed("CONNECT decode: invalid input (ctx=%p, buf=%p, len=%d < 10)", context, buffer, length));
}

inline LogLine connect_encode_client_id_empty()
{
    return error("CONNECT encode: client id is empty (protocol violation)");
}
inline LogLine connect_encode_client_id_too_long(int length)
{
    return error(printed("CONNECT encode: 3.1.1 client id too long (len=%d, max=23)", length));
}
inline LogLine connect_encode_bad_will_topic(int length)
{
    return error(printed("CONNECT encode: invalid will topic (len=%d)", length));
}
inline LogLine connect_encode_bad_username(int length)
{
    return error(printed("CONNECT encode: invalid username (len=%d)", length));
}
inline LogLine connect_encode_bad_password(int length)
{
    return error(printed("CONNECT encode: invalid password (len=%d)", length));
}
inline LogLine connect_encode_password_without_username()
{
    return error("CONNECT encode: password flag set but username flag not set");
}
inline LogLine connect_encode_buffer_full(int need, int available)
{
    return error(printed("CONNECT encode: buffer full (need=%d, available=%d)", need, available));
}
inline LogLine connect_encoded(int version, const std::string &id, int length)
{
    return debug(
        printed("CONNECT encode success: version=%d, client_id=%s, total_len=%d", version, id.c_str(), length));
}

inline LogLine disconnect_decode_bad_property_length()
{
    return error("DISCONNECT decode: invalid property length");
}
inline LogLine disconnect_decode_properties_cut()
{
    return error("DISCONNECT decode: property length exceed remaining data");
}
inline LogLine disconnect_decode_properties_refused(int code)
{
    return error(printed("DISCONNECT decode: parse properties failed (err=%d)", code));
}
inline LogLine disconnect_decode_v4_body(int length)
{
    return error(printed("DISCONNECT decode: MQTT 3.1.1 remaining length must be 0 (got %d)", length));
}
inline LogLine disconnect_decode_wrong_type(int type)
{
    return error(printed("DISCONNECT decode: not a DISCONNECT packet (type=%d)", type));
}
inline LogLine disconnect_decode_bad_remaining_length()
{
    return error("DISCONNECT decode: invalid remaining length");
}
inline LogLine disconnect_decode_incomplete(int need, int have)
{
    return error(printed("DISCONNECT decode: buffer too short (need=%d, have=%d)", need, have));
}
inline LogLine disconnect_decoded(int version, int length)
{
    return debug(printed("DISCONNECT decode success: version=%d, len=%d", version, length));
}

inline LogLine publish_decode_expiry_cut(int position)
{
    return warn(printed("PUBLISH decode: msg_expiry_interval buffer short - pos=%d, need 4 bytes", position));
}
inline LogLine publish_decode_topic_alias_cut(int position)
{
    return warn(printed("PUBLISH decode: topic_alias buffer short - pos=%d, need 2 bytes", position));
}
inline LogLine publish_decode_failed(const std::string &why)
{
    return debug(printed("========== PUBLISH DECODE DEBUG END (FAIL: %s) ==========\n", why.c_str()));
}
inline LogLine publish_decode_started()
{
    return debug("========== PUBLISH DECODE DEBUG START ==========");
}
inline LogLine publish_decode_wrong_type(int type)
{
    return error(printed("PUBLISH decode: not a PUBLISH packet (type=%d, expect=3)", type));
}
inline LogLine publish_decode_bad_qos(int qos)
{
    return error(printed("PUBLISH decode: invalid QoS=%d (protocol require 0/1/2)", qos));
}
inline LogLine publish_decode_no_topic_length(int position, int length)
{
    return error(printed("PUBLISH decode: buffer too short for topic length (need 2 bytes) - pos=%d, buf_len=%d",
                         position, length));
}
inline LogLine publish_decode_topic_too_long(int length)
{
    return error(printed("PUBLISH decode: topic length exceed max (%d > 256)", length));
}
inline LogLine publish_decode_unknown_property(unsigned type, int position)
{
    return warn(printed("PUBLISH decode: unknown property type 0x%02X, pos=%d", type, position));
}
inline LogLine publish_decode_bad_property_length(unsigned type)
{
    return error(printed("PUBLISH decode: invalid attr len for type 0x%02X, skip 1 byte", type));
}
inline LogLine publish_decode_payload_truncated(int length)
{
    return warn(printed("PUBLISH decode: payload length exceed max (%d > 2048), truncate to max", length));
}
inline LogLine publish_decode_invalid_param(const void *context, const void *buffer, const void *buffer_length,
                                            int length, const void *record)
{
    return error(printed("PUBLISH decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)", context, buffer,
                         buffer_length, length, record));
}

inline LogLine publish_encode_no_packet_id()
{
    return error("[PUBLISH ENCODE] Step 1 ERROR: QoS1/2 requires non-zero Packet ID [MQTT 5.0 §3.3.2.2]\n");
}
inline LogLine publish_encode_bad_payload_length(int length)
{
    return error(
        printed("[PUBLISH ENCODE] Step 1 ERROR: Invalid payload len (len=%d, max=2048) [MQTT 5.0 §3.3.3]\n", length));
}
inline LogLine publish_encode_header_byte(int index, unsigned byte)
{
    return debug(printed("  var_header[%d] = 0x%02X\n", index, byte));
}
inline LogLine publish_encode_payload_overflow(int need)
{
    return error(printed("[PUBLISH ENCODE] Step 4.4 ERROR: Payload buffer overflow (need=%d, have=2112)\n", need));
}
inline LogLine publish_encode_overflow(int need, int have)
{
    return error(printed("[PUBLISH ENCODE] Step 6 ERROR: Final buffer overflow (need=%d, have=%d)\n", need, have));
}

inline LogLine remaining_length_no_buffer()
{
    return error("codec_encode_remaining_length: buf is NULL");
}
inline LogLine remaining_length_too_large(unsigned length)
{
    return error(printed("codec_encode_remaining_length: len=%u exceeds max=268435455", length));
}

inline LogLine simple_decode_wrong_type(int expected, int actual)
{
    return error(printed("Simple decode: packet type mismatch (expected=%d, actual=%d)", expected, actual));
}

inline LogLine subscribe_encode_bad_filter_length(int length, int index)
{
    return warn(printed("SUBSCRIBE encode: invalid filter len %d for index %d", length, index));
}
inline LogLine subscribe_encode_bad_filter_count(int count)
{
    return error(printed("SUBSCRIBE encode: invalid filter count %d", count));
}
inline LogLine subscribe_encode_buffer_full(int need, int have)
{
    return error(printed("SUBSCRIBE encode: buffer full (need %d, have %d)", need, have));
}
inline LogLine subscribe_decode_identifier_cut()
{
    return warn("SUBSCRIBE decode: incomplete subscription identifier");
}
inline LogLine subscribe_decode_unknown_property(unsigned type, int attribute_length)
{
    return warn(printed("SUBSCRIBE decode: unknown property type 0x%02X, attr_len=%d", type, attribute_length));
}
inline LogLine subscribe_decode_no_filter_length(int position, int end)
{
    return error(
        printed("SUBSCRIBE decode: buffer too short for topic filter length (pos=%d, payload_end=%d)", position, end));
}
inline LogLine subscribe_decode_no_qos(int position, int end)
{
    return error(printed("SUBSCRIBE decode: buffer too short for req qos (pos=%d, payload_end=%d)", position, end));
}
inline LogLine subscribe_decode_no_packet_id(int position, int end)
{
    return error(printed("SUBSCRIBE decode: buffer too short for msg id (pos=%d, payload_end=%d)", position, end));
}

inline LogLine unsubscribe_encode_bad_filter_length(int length, int index)
{
    return warn(printed("UNSUBSCRIBE encode: invalid filter len %d for index %d", length, index));
}
inline LogLine unsubscribe_encode_buffer_full(int need, int have)
{
    return error(printed("UNSUBSCRIBE encode: buffer full (need %d, have %d)", need, have));
}
inline LogLine unsubscribe_decode_too_large(unsigned length)
{
    return error(printed("UNSUBSCRIBE剩余长度超限：rem_len=%u 最大允许=2048", length));
}
inline LogLine unsubscribe_decode_no_property_length(int position, int end)
{
    return error(printed("UNSUBSCRIBE 5.0属性长度解码越界：offset=%d rem_len_end=%d", position, end));
}
inline LogLine unsubscribe_decode_properties_too_large(unsigned length, unsigned max)
{
    return error(printed("UNSUBSCRIBE 5.0属性长度超限：prop_len=%u 最大允许=%u", length, max));
}
inline LogLine unsubscribe_decode_unknown_property(unsigned type)
{
    return warn(printed("MQTT 5.0不支持的UNSUBSCRIBE属性：0x%02X", type));
}
inline LogLine unsubscribe_decode_takes_v4()
{
    return info("UNSUBSCRIBE自动识别为3.1.1版本");
}
inline LogLine unsubscribe_decode_takes_v5()
{
    return info("UNSUBSCRIBE自动识别为5.0版本");
}
inline LogLine unsubscribe_decode_no_topic_length(int position, int end)
{
    return error(printed("UNSUBSCRIBE Topic长度字段越界：offset=%d rem_len_end=%d", position, end));
}
inline LogLine unsubscribe_decode_topic(int index, const std::string &topic, unsigned length)
{
    return debug(printed("UNSUBSCRIBE解析Topic[%d]：%s（长度=%u）", index, topic.c_str(), length));
}
inline LogLine unsubscribe_decode_bad_first_byte(int type, unsigned flags)
{
    return error(printed("UNSUBSCRIBE固定报头非法：类型=%d 保留位=0x%02X（预期0x02）", type, flags));
}
inline LogLine unsubscribe_decode_packet_id(unsigned packet_id)
{
    return debug(printed("UNSUBSCRIBE解析消息ID：%u", packet_id));
}
inline LogLine unsubscribe_decoded(int consumed, int count, unsigned packet_id, const std::string &version)
{
    return info(printed("UNSUBSCRIBE解码完成：总解码字节=%d Topic数量=%d 消息ID=%u 版本=%s", consumed, count, packet_id,
                        version.c_str()));
}

} // namespace tarn::test::logged

#endif
