// connect_decode.cpp - reading CONNECT, the packet that fixes a connection's protocol level.
//
// CONNECT:  10  remaining-length  name:text  level:u8  flags:u8  keep-alive:u16  [property-length property*, 5.0]
//           client-id:text  [[property-length will-property*, 5.0]  will-topic:text  will-payload:text]
//           [username:text]  [password:text]              (text = length:u16 and that many bytes)
//
// QUIRK(connect-text): no text is checked for well-formed UTF-8 or for NUL characters [MQTT-1.5.4-1] [MQTT-1.5.4-2].
// Bytes are kept as they come, and a NUL ends the text for the readers of the record: the decoder judges lengths only.
//   standard profile: lifted (strictness)
//   test: connect_decode.texts_are_kept_byte_by_byte
#include "codec_calls.h"
#include "codec_internal.h"

using namespace tarn;
using namespace tarn::codec;

namespace {

enum : uint8_t {
    FLAG_CLEAN_START = 0x02,
    FLAG_WILL        = 0x04,
    FLAG_WILL_RETAIN = 0x20,
    FLAG_PASSWORD    = 0x40,
    FLAG_USERNAME    = 0x80
};

uint8_t is_set(uint8_t flags, uint8_t flag)
{
    return (flags & flag) != 0;
}

// ---- fixed header

// Sets `end`, the bound of everything that follows.
int check_fixed_header(const uint8_t *buf, int input_len, FixedHeader &header, int &end)
{
    header = read_fixed_header(buf, input_len);
    if (buf[0] != CONNECT << 4)
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: invalid pkt type/flags (type=%d, flags=%d)", header.type,
                      header.flags);
    if (!header.length.ok())
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: invalid remaining length (len=%d, consumed=%d)",
                      header.length.value, header.length.bytes);

    // QUIRK(connect-short): a CONNECT shorter than it claims is parsed as far as it goes instead of being malformed
    // [MQTT 5.0 4.13.1], so a packet whose fields all arrived connects.
    //   standard profile: lifted (strictness)
    //   test: connect_decode.a_short_packet_is_parsed_as_far_as_it_goes
    end = header.end;
    if (input_len < end) {
        LOG_WARN("CONNECT decode: pkt len mismatch (expected=%d, actual=%d), truncate", end, input_len);
        end = input_len;
    }
    return CODEC_OK;
}

// ---- variable header

int read_protocol(Reader &in, mqtt_codec_ctx_t *ctx, uint8_t &level)
{
    uint16_t name_len = 0;
    if (!in.has(4) || !in.u16(name_len))
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: no enough data for protocol name (pos=%d, len=%d)", in.pos(),
                      in.end());
    if (name_len != 4 || !in.has(4) || memcmp(in.at(), "MQTT", 4) != 0)
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: invalid protocol name (len=%d, name=%.*s)", name_len,
                      name_len < in.left() ? name_len : in.left(), reinterpret_cast<const char *>(in.at()));
    in.skip(4);

    if (!in.u8(level))
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: no enough data for protocol version (pos=%d)", in.pos());
    if (!known_level(level))
        return REFUSE(CODEC_E_VERSION, "CONNECT decode: unsupported version %d (only 4/5 allowed)", level);
    set_level(ctx, level); // at once: a refusal further on is encoded for this level
    return CODEC_OK;
}

int read_flags(Reader &in, mqtt_connect_para_t &para)
{
    uint8_t flags = 0;
    if (!in.u8(flags))
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: no enough data for connect flags (pos=%d)", in.pos());

    // QUIRK(connect-flags): the reserved bit may be set [MQTT-3.1.2-3], will QoS and will retain may be set without a
    // will [MQTT-3.1.2-11] [MQTT-3.1.2-13], and 3.1.1 may give a password without a user name [MQTT-3.1.2-22 of 3.1.1].
    // Nothing depends on these bits, so a client that sets them still connects.
    //   standard profile: lifted (strictness)
    //   test: connect_decode.loose_flags_are_accepted
    para.clean_start   = is_set(flags, FLAG_CLEAN_START);
    para.will_flag     = is_set(flags, FLAG_WILL);
    para.will_qos      = flags >> 3 & 3;
    para.will_retain   = is_set(flags, FLAG_WILL_RETAIN);
    para.password_flag = is_set(flags, FLAG_PASSWORD);
    para.username_flag = is_set(flags, FLAG_USERNAME);
    if (para.will_flag && para.will_qos == 3)
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: invalid Will QoS %d", static_cast<int>(para.will_qos));
    return CODEC_OK;
}

int read_keep_alive(Reader &in, mqtt_connect_para_t &para)
{
    if (!in.u16(para.keep_alive))
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: no enough data for keep alive (pos=%d)", in.pos());
    return CODEC_OK;
}

// ---- 5.0 properties

struct PropertyRow {
    uint32_t id;
    int      width; // bytes of the value
    void (*store)(mqtt_connect_para_t &, uint32_t);
    const char *name; // as log lines spell it
};
constexpr PropertyRow kProperties[] = {
    {0x11, 4, [](mqtt_connect_para_t &p, uint32_t v) { p.session_expiry_interval = v; }, "Session Expiry Interval"},
    {0x19, 1, [](mqtt_connect_para_t &p, uint32_t v) { p.request_response_info = static_cast<uint8_t>(v); },
     "Request Response Info"},
    {0x1A, 1, [](mqtt_connect_para_t &p, uint32_t v) { p.request_problem_info = static_cast<uint8_t>(v); },
     "Request Problem Info"},
    {0x21, 2, [](mqtt_connect_para_t &p, uint32_t v) { p.receive_max = static_cast<uint16_t>(v); }, "Receive Maximum"},
    {0x22, 2, [](mqtt_connect_para_t &p, uint32_t v) { p.topic_alias_max = static_cast<uint16_t>(v); },
     "Topic Alias Maximum"},
    {0x27, 4, [](mqtt_connect_para_t &p, uint32_t v) { p.max_packet_size = v; }, "Max Packet Size"},
};

const PropertyRow *find_property(uint32_t id)
{
    for (const PropertyRow &row : kProperties)
        if (row.id == id)
            return &row;
    return nullptr;
}

// QUIRK(connect-property-id): an identifier with bit 7 set is two bytes, (first & 7F) * 256 + second, where the
// standard has a variable byte integer [MQTT 5.0 2.2.2.2]. All identifiers in use are below 0x80 and read alike.
//   standard profile: lifted (wire)
//   test: connect_decode.an_identifier_may_take_two_bytes
bool read_property_id(Reader &block, uint32_t &id)
{
    uint8_t first  = 0;
    uint8_t second = 0;
    if (!block.u8(first))
        return false;
    id = first;
    if (!(first & 0x80))
        return true;
    if (!block.u8(second))
        return false;
    id = (first & 0x7Fu) << 8 | second;
    return true;
}

// properties:  length:varint  (id:1..2 bytes  value:1, 2 or 4 bytes)*
int read_properties(Reader &in, mqtt_connect_para_t &para)
{
    const VarInt length = read_varint(in);
    if (!length.ok())
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: invalid MQTT 5.0 property length (len=%d, consumed=%d)",
                      length.value, length.bytes);
    Reader block = in.block(in.pos() + length.value);
    in.seek(block.end());

    while (!block.at_end()) {
        uint32_t id    = 0;
        uint32_t value = 0;
        if (!read_property_id(block, id))
            return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: incomplete extended property type (pos=%d)", block.pos());
        const PropertyRow *row = find_property(id);
        if (!row) {
            // QUIRK(connect-properties): any other property, standard or not, hides the ones behind it instead of
            // being read or refused [MQTT 5.0 2.2.2.2]; values are not judged and the last of several counts
            // [MQTT 5.0 3.1.2.11]. A client that sends more than this broker knows still connects.
            //   standard profile: lifted (wire): one that is not known, or stands twice, ends the connection
            //   test: connect_decode.an_unknown_property_hides_the_rest
            LOG_WARN("CONNECT decode: unknown property type=0x%02X, skip", id);
            return CODEC_OK;
        }
        if (!block.number(row->width, value))
            return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: incomplete %s (pos=%d)", row->name, block.pos());
        row->store(para, value);
    }
    return CODEC_OK;
}

// ---- payload

int read_client_id(Reader &in, uint8_t level, mqtt_connect_para_t &para)
{
    uint16_t length = 0;
    if (!in.u16(length))
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: no enough data for ClientID length (pos=%d)", in.pos());
    if (length == 0 && para.clean_start) {
        LOG_WARN("CONNECT decode: empty ClientID (clean_start=1, MQTT standard allowed)");
        return CODEC_OK;
    }
    if (length == 0) {
        LOG_ERROR("CONNECT decode: client_id_len=0 (empty ClientID)");
        return REFUSE(CODEC_E_MALFORMED,
                      "CONNECT decode: clean_start=0 - empty ClientID is NOT allowed (MQTT standard)");
    }
    if (!in.has(length))
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: ClientID data out of bounds (pos=%d, len=%d, total=%d)",
                      in.pos(), length, in.end());
    if (level == 4 && length > CODEC_CLIENT_ID_V4_MAX)
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: MQTT 3.1.1 ClientID too long (len=%d, max=23)", length);

    // QUIRK(connect-long-id): a 5.0 id above 64 characters is cut instead of being refused with reason 0x85
    // [MQTT-3.1.3-8], and of the 64 the record keeps 63. A client without will and user name connects, and is the same
    // as any other whose first 63 characters are those, which then no longer hears anything. Of one with a will or a
    // user name the rest of the id is read as such, which normally fails and is not answered: the consumed count and
    // the record then agree on where the id ended.
    //   standard profile: lifted (ids): up to 65535 bytes; hosts see more than 63 as '~' and 32 hexadecimal digits
    //   test: connect_decode.the_rest_of_a_long_id_is_read_as_what_follows, connect.v5_ids_are_cut_at_64_characters,
    //   connect.two_long_v5_ids_that_begin_alike_are_one_client
    int kept = length;
    if (kept > CODEC_CLIENT_ID_MAX) {
        LOG_WARN("CONNECT decode: ClientID exceed buffer (len=%d, max=%d), truncate", length, CODEC_CLIENT_ID_MAX);
        kept = CODEC_CLIENT_ID_MAX;
    }
    (void)in.text(para.client_id, kept); // cannot fail: has(length) above
    return CODEC_OK;
}

// will properties:  length:varint  (id:u8  value:u32)*
//
// QUIRK(connect-will-properties): only Will Delay Interval and Message Expiry Interval are read; the first other one
// ends the walk, and a length that cannot be read means no properties and is itself read again as what follows
// [MQTT 5.0 3.1.3.2]. Wills of clients that send more keep at least their topic and payload.
//   standard profile: lifted (wire)
//   test: connect_decode.an_unknown_will_property_ends_their_walk
void read_will_properties(Reader &in, mqtt_connect_para_t &para)
{
    const VarInt length = read_varint(in);
    if (!length.ok())
        return;
    Reader block = in.block(in.pos() + length.value);
    in.seek(block.end());

    uint8_t id = 0;
    while (block.u8(id)) {
        if (id != 0x18 && id != 0x02) {
            LOG_WARN("CONNECT decode: unknown will prop type=0x%02X", id);
            return;
        }
        if (!block.u32(id == 0x18 ? para.will_delay_interval : para.will_msg_expiry_interval))
            return; // cut short: the will goes on behind the block
    }
}

// What the length of a text field may be; the name is the one log lines use.
struct FieldRule {
    const char *name;
    int         min;
    int         max;
};
constexpr FieldRule kWillTopic   = {"Will Topic", 1, CODEC_TOPIC_MAX};
constexpr FieldRule kWillPayload = {"Will Payload", 0, CODEC_PAYLOAD_MAX};
// QUIRK(connect-credentials): an empty user name or password is refused, which the standard allows [MQTT 5.0 3.1.3.5]
// [MQTT 5.0 3.1.3.6], and so is one above 64 bytes, without an answer: the record has no room, and a flag without a text
// means nothing.
//   standard profile: lifted (wire): up to 65535 bytes, and a host's authentication callback gets them whole; it is not
//   asked about a password with a NUL, which counts as a wrong one
//   test: connect_decode.credentials_have_1_to_64_bytes
constexpr FieldRule kUsername = {"Username", 1, sizeof(mqtt_connect_para_t::username) - 1};
constexpr FieldRule kPassword = {"Password", 1, sizeof(mqtt_connect_para_t::password) - 1};

// Length and bytes of one field, into an array of at least rule.max bytes.
int read_field(Reader &in, const FieldRule &rule, void *to, uint16_t &length)
{
    if (!in.u16(length))
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: no enough data for %s length (pos=%d)", rule.name, in.pos());
    if (length < rule.min || length > rule.max || !in.bytes(to, length))
        return REFUSE(CODEC_E_MALFORMED, "CONNECT decode: invalid %s length %d", rule.name, length);
    return CODEC_OK;
}

int read_will(Reader &in, uint8_t level, mqtt_connect_para_t &para)
{
    if (!para.will_flag)
        return CODEC_OK;
    if (level == 5)
        read_will_properties(in, para);

    uint16_t length = 0;
    if (const int code = read_field(in, kWillTopic, para.will_topic, length))
        return code;
    if (const int code = read_field(in, kWillPayload, para.will_payload, length))
        return code;
    para.will_payload_len = length;
    return CODEC_OK;
}

int read_credential(Reader &in, const FieldRule &rule, uint8_t flag, char *to, uint32_t &to_len)
{
    uint16_t length = 0;
    if (!flag)
        return CODEC_OK;
    if (const int code = read_field(in, rule, to, length))
        return code;
    to_len = length;
    return CODEC_OK;
}

// ---- the packet in order

int read_connect(Reader &in, mqtt_codec_ctx_t *ctx, uint8_t &level, mqtt_connect_para_t &para)
{
    int code = read_protocol(in, ctx, level);
    if (!code)
        code = read_flags(in, para);
    if (!code)
        code = read_keep_alive(in, para);
    if (!code && level == 5)
        code = read_properties(in, para);
    if (!code)
        code = read_client_id(in, level, para);
    if (!code)
        code = read_will(in, level, para);
    if (!code)
        code = read_credential(in, kUsername, para.username_flag, para.username, para.username_len);
    if (!code)
        code = read_credential(in, kPassword, para.password_flag, para.password, para.password_len);
    return code;
}

} // namespace

int codec::decode_connect(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_connect_para_t *para) noexcept
{
    constexpr int kInputMin = 10;

    const int input_len = length_of(buf_len);
    if (!ctx || !buf || !para || input_len < kInputMin)
        return REFUSE(CODEC_E_PARAM, "CONNECT decode: invalid input (ctx=%p, buf=%p, len=%d < 10)", addr(ctx),
                      addr(buf), input_len);
    memset(para, 0, sizeof *para);
    LOG_DEBUG("========== CONNECT decode start ==========");
    LOG_DEBUG("CONNECT decode: input param - ctx=%p, buf=%p, buf_len=%p (len=%d), para=%p", addr(ctx), addr(buf),
              addr(buf_len), input_len, addr(para));
    LOG_HEXDUMP("CONNECT decode: full packet data", buf, input_len);

    FixedHeader header;
    int         end   = 0;
    uint8_t     level = 0;
    if (const int code = check_fixed_header(buf, input_len, header, end))
        return code;
    Reader in(buf, end, header.body);
    if (const int code = read_connect(in, ctx, level, *para))
        return code;

    LOG_DEBUG("CONNECT decode success: version=%d, client_id='%s', keep_alive=%d, parsed_len=%d", level,
              para->client_id, para->keep_alive, in.pos());
    return decoded(ctx, CONNECT, in.pos(), buf_len);
}
