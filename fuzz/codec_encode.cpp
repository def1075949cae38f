// codec_encode.cpp - any bytes as the record of any encoder: texts without terminators, lengths and counts of any size.
//
// input:  choice:u8  capacity:u16  record      choice: low nibble = packet type, 10 = level 5 instead of 4, 20 = the
//         level is the capacity's first byte, 40 = the simple family. A short record is filled up with its last byte.
#include "codec/mqtt_codec.h"
#include "promise.h"

#include <memory>

using namespace tarn::fuzz;

namespace {

struct Input {
    uint8_t        type;
    uint32_t       level;
    int            capacity;
    const uint8_t *record;
    size_t         length;
};

template <class Encode> void call(const Input &in, Encode encode)
{
    mqtt_codec_ctx_t                 ctx = {in.level, 77, 78, {}};
    const std::unique_ptr<uint8_t[]> buffer(new uint8_t[static_cast<size_t>(in.capacity)]);
    int                              length = in.capacity;
    const int                        code   = encode(&ctx, buffer.get(), &length);

    PROMISE(code <= 0 && code >= CODEC_E_UNSUPPORTED);
    PROMISE(ctx.version == in.level && ctx.last_packet_len == 78);
    PROMISE(ctx.last_packet_type == (code == CODEC_OK ? in.type : 77u));
    PROMISE(code == CODEC_OK ? length > 0 && length <= in.capacity : length == in.capacity);
    PROMISE(code != CODEC_OK || buffer[0] >> 4 == in.type || in.type == 3); // `dup` and `retain` go in unmasked
    if (code != CODEC_OK || (in.type == 14 && length == 3)) // the bare 5.0 DISCONNECT says 0 and is a byte longer
        return;
    uint32_t  field     = 0;
    const int remaining = codec_decode_remaining_length(buffer.get() + 1, length - 1, &field);
    PROMISE(1 + static_cast<int>(field) + remaining == length);
}

template <class Record, class Encode> void call_with(const Input &in, Encode encode)
{
    const auto record = std::make_unique<Record>();
    memset(record.get(), in.length ? in.record[in.length - 1] : 0, sizeof(Record));
    memcpy(record.get(), in.record, in.length < sizeof(Record) ? in.length : sizeof(Record));
    call(in, [&](auto *ctx, uint8_t *buf, int *length) { return encode(ctx, record.get(), buf, length); });
}

void run_simple(const Input &in)
{
    call(in, [&](auto *ctx, auto *buf, int *length) { return mqtt_codec_encode_simple(ctx, in.type, buf, length); });
}

void run(const Input &in)
{
    switch (in.type) {
    case 1:
        return call_with<mqtt_connect_para_t>(in, mqtt_codec_encode_connect);
    case 2:
        return call_with<mqtt_connack_para_t>(in, mqtt_codec_encode_connack);
    case 3:
        return call_with<mqtt_publish_para_t>(in, mqtt_codec_encode_publish);
    case 8:
        return call_with<mqtt_subscribe_para_t>(in, mqtt_codec_encode_subscribe);
    case 10:
        return call_with<mqtt_unsubscribe_para_t>(in, mqtt_codec_encode_unsubscribe);
    case 14:
        return call_with<mqtt_disconnect_para_t>(in, mqtt_codec_encode_disconnect);
    default:
        return call_with<mqtt_ack_para_t>(in, [&](auto *ctx, auto *para, auto *buf, int *n) {
            return mqtt_codec_encode_ack(ctx, in.type, para, buf, n);
        });
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
    if (size < 3)
        return 0;
    const uint8_t choice = data[0];
    const Input   in     = {static_cast<uint8_t>(choice & 0x0F), choice & 0x20 ? data[1] : (choice & 0x10 ? 5u : 4u),
                            1 + ((data[1] << 8 | data[2]) & 0x0FFF), data + 3, size - 3};
    choice & 0x40 ? run_simple(in) : run(in);
    return 0;
}
