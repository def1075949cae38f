// codec.cpp - see codec.hpp.
#include "codec.hpp"

#include "codec_calls.h"

namespace tarn::codec {
namespace {

int size_of(Bytes packet)
{
    return static_cast<int>(packet.size());
}

Result cut(std::span<uint8_t> &packet, const int &length, int code)
{
    if (code == CODEC_OK)
        packet = packet.first(static_cast<size_t>(length));
    return Result{code};
}

} // namespace

Result decode_connect(mqtt_codec_ctx_t &ctx, Bytes packet, mqtt_connect_para_t &para) noexcept
{
    int length = size_of(packet);
    return Result{decode_connect(&ctx, packet.data(), &length, &para)};
}

Result decode_publish(mqtt_codec_ctx_t &ctx, Bytes packet, mqtt_publish_para_t &para) noexcept
{
    int length = size_of(packet);
    return Result{decode_publish(&ctx, packet.data(), &length, &para, false)};
}

Result decode_ack(mqtt_codec_ctx_t &ctx, int type, Bytes packet, mqtt_ack_para_t &para) noexcept
{
    int length = size_of(packet);
    return Result{decode_ack(&ctx, type, packet.data(), &length, &para)};
}

Result decode_subscribe(mqtt_codec_ctx_t &ctx, Bytes packet, mqtt_subscribe_para_t &para) noexcept
{
    int length = size_of(packet);
    return Result{decode_subscribe(&ctx, packet.data(), &length, &para)};
}

Result decode_unsubscribe(mqtt_codec_ctx_t &ctx, Bytes packet, mqtt_unsubscribe_para_t &para) noexcept
{
    int length = size_of(packet);
    return Result{decode_unsubscribe(&ctx, packet.data(), &length, &para)};
}

Result decode_disconnect(mqtt_codec_ctx_t &ctx, Bytes packet, mqtt_disconnect_para_t &para, bool &expiry_given) noexcept
{
    int length = size_of(packet);
    return Result{decode_disconnect(&ctx, packet.data(), &length, &para, &expiry_given)};
}

Result encode_connack(mqtt_codec_ctx_t &ctx, const mqtt_connack_para_t &para, std::span<uint8_t> &packet) noexcept
{
    int length = size_of(packet);
    return cut(packet, length, encode_connack(&ctx, &para, packet.data(), &length));
}

Result encode_publish(mqtt_codec_ctx_t &ctx, const mqtt_publish_para_t &para, std::span<uint8_t> &packet) noexcept
{
    int length = size_of(packet);
    return cut(packet, length, encode_publish(&ctx, &para, packet.data(), &length));
}

Result encode_publish(mqtt_codec_ctx_t &ctx, const PublishView &message, std::span<uint8_t> &packet) noexcept
{
    int length = size_of(packet);
    return cut(packet, length, encode_publish(ctx, message, packet.data(), &length));
}

Result encode_ack(mqtt_codec_ctx_t &ctx, int type, const mqtt_ack_para_t &para, std::span<uint8_t> &packet) noexcept
{
    int length = size_of(packet);
    return cut(packet, length, encode_ack(&ctx, type, &para, packet.data(), &length));
}

Result encode_disconnect(mqtt_codec_ctx_t &ctx, const mqtt_disconnect_para_t &para, std::span<uint8_t> &packet) noexcept
{
    int length = size_of(packet);
    return cut(packet, length, encode_disconnect(&ctx, &para, packet.data(), &length));
}

} // namespace tarn::codec
