// connect_encode.cpp - writing CONNECT, for a client-side user of the codec; the broker only reads it.
//
// CONNECT:  10  remaining-length  00 04 "MQTT"  level:u8  flags:u8  keep-alive:u16  [property-length property*, 5.0]
//           client-id:text  [[property-length will-property*, 5.0]  will-topic:text  will-payload:text]
//           [username:text]  [password:text]              (text = length:u16 and that many bytes)
#include "../base/text.h"
#include "codec_calls.h"
#include "codec_internal.h"

using namespace tarn;
using namespace tarn::codec;

namespace {

int check_client_id(uint32_t level, std::string_view id)
{
    const auto length = static_cast<int>(id.size());
    if (length == 0)
        return REFUSE(CODEC_E_PARAM, "CONNECT encode: client id is empty (protocol violation)");
    if (level == 5 && length > CODEC_CLIENT_ID_MAX)
        return REFUSE(CODEC_E_PARAM, "CONNECT encode: 5.0 client id too long (len=%d, max=%d)", length,
                      CODEC_CLIENT_ID_MAX);
    if (level == 4 && length > CODEC_CLIENT_ID_V4_MAX)
        return REFUSE(CODEC_E_PARAM, "CONNECT encode: 3.1.1 client id too long (len=%d, max=23)", length);
    return CODEC_OK;
}

uint8_t flags_of(const mqtt_connect_para_t &para)
{
    uint32_t flags = para.clean_start * 2u;
    if (para.will_flag & 1)
        flags |= 0x04u | (para.will_qos & 3) << 3 | (para.will_retain == 1 ? 0x20u : 0u);
    if (para.password_flag == 1)
        flags |= 0x40;
    if (para.username_flag & 1)
        flags |= 0x80;
    return static_cast<uint8_t>(flags);
}

// QUIRK(connect-encode-ids): Session Expiry Interval goes out as 0x10 and Maximum Packet Size as 0x11, which the
// standard numbers 0x11 and 0x27 [MQTT 5.0 3.1.2.11.2] [MQTT 5.0 3.1.2.11.4]; Receive Maximum is written even when 0
// [MQTT 5.0 3.1.2.11.3]. The decoder reads the standard's numbers; both sides keep the bytes their peers know.
//   standard profile: stays: a broker sends no CONNECT; hosts that call this exported encoder meet it
//   test: connect_encode.v5_properties_in_their_order
//
// properties:  length:u8  10 u32  21 u16  [22 u16]  [11 u32]  [19 u8]  [1A u8]
void put_properties(Writer &body, const mqtt_connect_para_t &para)
{
    uint8_t area[3 + 5 + 5 + 3 + 2 + 2]; // each of them once
    Writer  properties(area);
    properties.u8(0x10).u32(para.session_expiry_interval);
    properties.u8(0x21).u16(para.receive_max);
    if (para.topic_alias_max)
        properties.u8(0x22).u16(para.topic_alias_max);
    if (para.max_packet_size)
        properties.u8(0x11).u32(para.max_packet_size);
    if (para.request_response_info)
        properties.u8(0x19).u8(para.request_response_info);
    if (para.request_problem_info)
        properties.u8(0x1A).u8(para.request_problem_info);
    body.u8(static_cast<uint8_t>(properties.size())).bytes(properties.data(), properties.size());
}

// will properties:  length:varint  [18 u32]  [02 u32]
void put_will_properties(Writer &body, const mqtt_connect_para_t &para)
{
    uint8_t area[5 + 5];
    Writer  properties(area);
    if (para.will_delay_interval)
        properties.u8(0x18).u32(para.will_delay_interval);
    if (para.will_msg_expiry_interval)
        properties.u8(0x02).u32(para.will_msg_expiry_interval);
    body.u8(static_cast<uint8_t>(properties.size())).bytes(properties.data(), properties.size());
    LOG_DEBUG("CONNECT encode: MQTT5 will enhance props - delay=%d, expiry=%d",
              static_cast<int>(para.will_delay_interval), static_cast<int>(para.will_msg_expiry_interval));
}

int put_will(Writer &body, uint32_t level, const mqtt_connect_para_t &para)
{
    const std::string_view topic = text_of(para.will_topic);
    if (topic.empty() || topic.size() > CODEC_TOPIC_MAX)
        return REFUSE(CODEC_E_PARAM, "CONNECT encode: invalid will topic (len=%d)", static_cast<int>(topic.size()));
    if (para.will_payload_len < 1 || para.will_payload_len > CODEC_PAYLOAD_MAX)
        return REFUSE(CODEC_E_PARAM, "CONNECT encode: invalid will payload (len=%d)", para.will_payload_len);

    if (level == 5)
        put_will_properties(body, para);
    body.text(topic);
    body.u16(static_cast<uint16_t>(para.will_payload_len))
        .bytes(para.will_payload, static_cast<size_t>(para.will_payload_len));
    return CODEC_OK;
}

int put_credentials(Writer &body, const mqtt_connect_para_t &para)
{
    const std::string_view username = text_of(para.username);
    const std::string_view password = text_of(para.password);
    if (para.username_flag & 1) {
        if (username.empty() || username.size() == sizeof para.username)
            return REFUSE(CODEC_E_PARAM, "CONNECT encode: invalid username (len=%d)",
                          static_cast<int>(username.size()));
        body.text(username);
    }
    if (para.password_flag & 1) {
        if (password.empty() || password.size() == sizeof para.password)
            return REFUSE(CODEC_E_PARAM, "CONNECT encode: invalid password (len=%d)",
                          static_cast<int>(password.size()));
        body.text(password);
    }
    return CODEC_OK;
}

int put_body(Writer &body, uint32_t level, const mqtt_connect_para_t &para)
{
    if ((para.password_flag & 1) && !(para.username_flag & 1))
        return REFUSE(CODEC_E_PARAM, "CONNECT encode: password flag set but username flag not set");

    body.text("MQTT").u8(static_cast<uint8_t>(level)).u8(flags_of(para)).u16(para.keep_alive);
    if (level == 5)
        put_properties(body, para);
    body.text(text_of(para.client_id));
    if (para.will_flag & 1)
        if (const int code = put_will(body, level, para))
            return code;
    return put_credentials(body, para);
}

} // namespace

int codec::encode_connect(mqtt_codec_ctx_t *ctx, const mqtt_connect_para_t *para, uint8_t *buf, int *buf_len) noexcept
{
    const int capacity = length_of(buf_len);
    if (!ctx || !para || !buf || capacity < CODEC_MIN_CAPACITY)
        return REFUSE(CODEC_E_PARAM, "CONNECT encode: invalid param (ctx=%p, para=%p, buf=%p, buf_len=%p, len=%d)",
                      addr(ctx), addr(para), addr(buf), addr(buf_len), capacity);
    const uint32_t level = level_of(ctx);
    if (!known_level(level))
        return REFUSE(CODEC_E_VERSION, "CONNECT encode: unsupported version %d (only 3.1.1/5.0 allowed)",
                      static_cast<int>(level));
    if (const int code = check_client_id(level, text_of(para->client_id)))
        return code;

    open_packet(buf, capacity, CONNECT << 4);
    uint8_t scratch[CODEC_BODY_MAX];
    Writer  body(scratch);
    if (const int code = put_body(body, level, *para))
        return code;

    const Sealed sealed = seal_packet(buf, capacity, body);
    if (sealed.length_bytes == 0)
        return REFUSE(CODEC_E_MALFORMED, "CONNECT encode: encode remaining length failed (var_len=%d)",
                      static_cast<int>(body.need()));
    if (!body.fits())
        return REFUSE(CODEC_E_BUFFER, "CONNECT encode: buffer full (need=%d, available=%d)",
                      static_cast<int>(body.need()), CODEC_BODY_MAX);
    if (sealed.total > capacity)
        return REFUSE(CODEC_E_BUFFER, "CONNECT encode: buffer full (need=%d, available=%d)", sealed.total, capacity);

    LOG_DEBUG("CONNECT encode success: version=%d, client_id=%s, total_len=%d", static_cast<int>(level),
              para->client_id, sealed.total);
    return encoded(ctx, CONNECT, sealed.total, buf_len);
}
