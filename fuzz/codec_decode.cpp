// codec_decode.cpp - any bytes to any decoder, and what it made of them to the encoder beside it.
//
// input:  choice:u8  packet      choice: low nibble = packet type, 30 = level of the context (see level_of), 40 = the
//         simple family
#include "codec/codec_calls.h"
#include "codec/mqtt_codec.h"
#include "promise.h"

#include <memory>

using namespace tarn::fuzz;

namespace {

constexpr mqtt_codec_ctx_t kBefore = {0, 77, 78, {1, 2, 3, 4, 5, 6, 7, 8}};

uint32_t level_of(uint8_t choice)
{
    constexpr uint32_t kLevels[] = {4, 5, 0, 9};
    return kLevels[choice >> 4 & 3];
}

// ---- what every record must hold after a decode, also a failed one

void check(const mqtt_connect_para_t &p)
{
    PROMISE(terminated(p.client_id) && terminated(p.will_topic) && terminated(p.username) && terminated(p.password));
    PROMISE(p.will_payload_len >= 0 && p.will_payload_len <= CODEC_PAYLOAD_MAX);
    PROMISE(p.username_len < sizeof p.username && p.password_len < sizeof p.password);
}
void check(const mqtt_connack_para_t &) {}
void check(const mqtt_publish_para_t &p)
{
    PROMISE(terminated(p.topic));
    PROMISE(p.payload_len <= CODEC_PAYLOAD_MAX);
}
void check(const mqtt_ack_para_t &p)
{
    PROMISE(p.return_code_count >= 0 && p.return_code_count <= CODEC_FILTERS_MAX);
}
template <class Filters> void check_filters(const Filters &p)
{
    PROMISE(p.filter_count >= 0 && p.filter_count <= CODEC_FILTERS_MAX);
    for (const auto &filter : p.topic_filters)
        PROMISE(terminated(filter));
}
void check(const mqtt_subscribe_para_t &p)
{
    check_filters(p);
}
void check(const mqtt_unsubscribe_para_t &p)
{
    check_filters(p);
}
void check(const mqtt_disconnect_para_t &p)
{
    PROMISE(terminated(p.reason_string) && terminated(p.user_property));
    PROMISE(p.user_property_len < sizeof p.user_property);
}

// ---- one call

struct Input {
    const uint8_t *packet; // ends where its heap block ends
    int            length;
    uint8_t        type;
    uint32_t       level;
};

// Runs `decode` and holds it to what every decoder promises. True on success.
template <class Decode> bool decoded(const Input &in, mqtt_codec_ctx_t &ctx, Decode decode)
{
    ctx              = kBefore;
    ctx.version      = in.level;
    int       length = in.length;
    const int code   = decode(&ctx, in.packet, &length);

    PROMISE(code <= 0 && code >= CODEC_E_UNSUPPORTED);
    PROMISE(memcmp(ctx.reserved, kBefore.reserved, sizeof ctx.reserved) == 0);
    if (code != CODEC_OK) {
        PROMISE(length == in.length);
        PROMISE(ctx.version == in.level || in.type == 1); // CONNECT keeps its level
        PROMISE(ctx.last_packet_type == kBefore.last_packet_type || in.type == 10 || in.type == 14);
        PROMISE(ctx.last_packet_len == kBefore.last_packet_len || in.type == 14);
        return false;
    }
    PROMISE(length > 0 && length <= in.length);
    PROMISE(ctx.last_packet_type == in.type);
    PROMISE(ctx.last_packet_len == static_cast<uint32_t>(length));
    return true;
}

// Encodes into a heap block of exactly this capacity.
template <class Encode> int encoded(mqtt_codec_ctx_t &ctx, int capacity, Encode encode)
{
    const std::unique_ptr<uint8_t[]> buffer(new uint8_t[static_cast<size_t>(capacity)]);
    int                              length = capacity;
    const int                        code   = encode(&ctx, buffer.get(), &length);
    PROMISE(code <= 0 && code >= CODEC_E_UNSUPPORTED);
    PROMISE(length > 0 && length <= capacity);
    return code;
}

// A PUBLISH that was read and written reads the same again. Its alias is left out, which is written in another form.
void check_again(const mqtt_publish_para_t &first, uint32_t level, const uint8_t *packet, int length)
{
    if (first.topic_alias)
        return;
    mqtt_codec_ctx_t ctx   = {9 - level, 0, 0, {}};
    const auto       again = std::make_unique<mqtt_publish_para_t>();
    PROMISE(mqtt_codec_decode_publish(&ctx, packet, &length, again.get()) == CODEC_OK);
    PROMISE(ctx.version == level);
    PROMISE(strcmp(again->topic, first.topic) == 0 && again->payload_len == first.payload_len);
    PROMISE(memcmp(again->payload, first.payload, first.payload_len) == 0);
    PROMISE(again->qos == first.qos && again->msg_id == first.msg_id && again->retain == first.retain);
    PROMISE(again->dup == first.dup && again->msg_expiry_interval == first.msg_expiry_interval);
}
template <class Record> void check_again(const Record &, uint32_t, const uint8_t *, int) {}

// Decodes, and encodes again what could be decoded.
template <class Record, class Decode, class Encode> void round(const Input &in, Decode decode, Encode encode)
{
    mqtt_codec_ctx_t ctx;
    const auto       record = std::make_unique<Record>();
    memset(record.get(), 0xEE, sizeof(Record));
    const bool success = decoded(
        in, ctx, [&](auto *c, const uint8_t *buf, int *length) { return decode(c, buf, length, record.get()); });
    if (!success)
        return;
    check(*record);
    for (const int capacity : {128, 1000, 4096})
        encoded(ctx, capacity, [&](auto *c, uint8_t *buf, int *length) {
            const int code = encode(c, record.get(), buf, length);
            if (code == CODEC_OK)
                check_again(*record, c->version, buf, *length);
            return code;
        });
}

int decode_disconnect(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_disconnect_para_t *para)
{
    bool      given = true;
    const int code  = tarn::codec::decode_disconnect(ctx, buf, buf_len, para, &given);
    PROMISE(code != CODEC_OK || given || para->session_expiry_interval == 0);
    return code;
}

void run_simple(const Input &in)
{
    mqtt_codec_ctx_t ctx;
    if (decoded(in, ctx, [&](auto *c, auto *buf, int *n) { return mqtt_codec_decode_simple(c, in.type, buf, n); }))
        encoded(ctx, 128, [&](auto *c, auto *buf, int *n) { return mqtt_codec_encode_simple(c, in.type, buf, n); });
}

void run(const Input &in)
{
    switch (in.type) {
    case 1:
        return round<mqtt_connect_para_t>(in, mqtt_codec_decode_connect, mqtt_codec_encode_connect);
    case 2:
        return round<mqtt_connack_para_t>(in, mqtt_codec_decode_connack, mqtt_codec_encode_connack);
    case 3:
        return round<mqtt_publish_para_t>(in, mqtt_codec_decode_publish, mqtt_codec_encode_publish);
    case 8:
        return round<mqtt_subscribe_para_t>(in, mqtt_codec_decode_subscribe, mqtt_codec_encode_subscribe);
    case 10:
        return round<mqtt_unsubscribe_para_t>(in, mqtt_codec_decode_unsubscribe, mqtt_codec_encode_unsubscribe);
    case 14:
        return round<mqtt_disconnect_para_t>(in, decode_disconnect, mqtt_codec_encode_disconnect);
    default: // also types that are no acknowledgement
        return round<mqtt_ack_para_t>(
            in, [&](auto *c, auto *buf, int *n, auto *para) { return mqtt_codec_decode_ack(c, in.type, buf, n, para); },
            [&](auto *c, auto *para, auto *buf, int *n) { return mqtt_codec_encode_ack(c, in.type, para, buf, n); });
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    format_all_lines();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const uint8_t                    choice = data[0];
    const size_t                     length = size - 1;
    const std::unique_ptr<uint8_t[]> packet(new uint8_t[length]);
    memcpy(packet.get(), data + 1, length);
    const Input in = {packet.get(), static_cast<int>(length), static_cast<uint8_t>(choice & 0x0F), level_of(choice)};
    choice & 0x40 ? run_simple(in) : run(in);
    return 0;
}
