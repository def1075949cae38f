// standard_codec.cpp - any bytes to the standard's decoders; what decodes is encoded again and decodes equal.
//
// input:  choice:u8  packet      choice: 1 = level 5 instead of 4, 2 = a property block instead of a packet, of the
//         packet type in the high four bits. CONNECT says its level itself.
#include "../tests/support/standard_packets.h"
#include "promise.h"

#include <algorithm>
#include <memory>

using namespace tarn;
using namespace tarn::codec::standard;
using namespace tarn::fuzz;
using test::Packet;

namespace {

Bytes g_input; // what all views must point into

void check_inside(Bytes view)
{
    if (!view.empty())
        PROMISE(view.data() >= g_input.data() && view.data() + view.size() <= g_input.data() + g_input.size());
}
void check_inside(std::string_view view)
{
    check_inside(Bytes{reinterpret_cast<const uint8_t *>(view.data()), view.size()});
}

void check_verdict(Verdict verdict)
{
    PROMISE(verdict.ok() || (is_failure(verdict.reason) && *verdict.text));
}

// ---- properties

// Written for a packet of any type they can be read, and for their own they are the same.
void check_properties(const Properties &properties, PacketType packet)
{
    check_inside(properties.user_properties);
    for (unsigned type = 0; type <= AUTH; ++type) {
        const auto as = static_cast<PacketType>(type);
        Packet     block(size_of_properties(properties, as));
        PROMISE(encode_properties(properties, as, block) == block.size());
        Properties again;
        PROMISE(decode_properties(block, as, again).ok());
        PROMISE(as != packet || test::printed(again) == test::printed(properties));
    }
}

void run_block(PacketType packet, Bytes block)
{
    Properties    properties;
    const Verdict verdict = decode_properties(block, packet, properties);
    check_verdict(verdict);
    if (verdict.ok())
        check_properties(properties, packet);
    UserProperty user;
    for (Bytes rest = block; next_user_property(rest, user);) {
        check_inside(user.name);
        check_inside(user.value);
        check_inside(user.encoded);
    }
}

// ---- packets

// Decodes; true on success. Then the packet is as long as its header says.
template <class Struct, class Decode> bool decoded(Bytes packet, Struct &out, Decode decode)
{
    const Verdict verdict = decode(packet, out);
    check_verdict(verdict);
    if (!verdict.ok())
        return false;
    const PacketLength length = packet_length(packet);
    PROMISE(length.verdict.ok() && length.length == packet.size());
    return true;
}

// Decodes, encodes and decodes again; what comes out twice is the same.
template <class Struct, class Decode, class Encode> bool round(Bytes packet, Struct &out, Decode decode, Encode encode)
{
    if (!decoded(packet, out, decode))
        return false;
    const Packet once = encode(out);
    Struct       again;
    PROMISE(!once.empty() && once.size() <= packet.size());
    g_input = once;
    PROMISE(decoded(once, again, decode));
    PROMISE(encode(again) == once);
    g_input = packet;
    return true;
}

// Encodes for receivers with less and less room.
template <class Struct> void check_maxima(const Struct &packet, Level level)
{
    for (size_t maximum = 200; maximum > 0; maximum -= maximum > 20 ? 20 : 1) {
        const Receiver receiver = {level, maximum};
        const size_t   size     = size_of(packet, receiver);
        PROMISE(size <= maximum && test::encoded(packet, receiver).size() == size);
        Packet room(size ? size - 1 : 0);
        PROMISE(encode(packet, receiver, room) == 0);
    }
}

void run_connect(Bytes packet)
{
    Connect connect;
    if (!round(packet, connect, decode_connect, test::encode_connect))
        return;
    check_inside(connect.client_id);
    check_properties(connect.properties, CONNECT);
    if (connect.will) {
        check_inside(connect.will->topic);
        PROMISE(is_topic_name(connect.will->topic) && connect.will->qos <= 2);
        check_properties(connect.will->properties, WILL);
    }
    const Connack connack = {true, Reason::Success, connect.properties};
    check_maxima(connack, connect.level);
    Connack again;
    PROMISE(connect.level == Level::Mqtt311 ||
            test::decode_connack(test::encoded(connack, {connect.level}), again).ok());
}

// What the quick decoder takes, the other one takes as well, and sees the same.
void check_plain(Bytes packet, Level level)
{
    PlainPublish plain;
    Publish      publish;
    if (!decode_plain_publish(packet, level, plain))
        return;
    PROMISE(decode_publish(packet, level, publish).ok());
    PROMISE(plain.dup == publish.dup && plain.retain == publish.retain && plain.qos == publish.qos);
    PROMISE(plain.packet_id == publish.packet_id && plain.topic == publish.topic);
    PROMISE(plain.payload.data() == publish.payload.data() && plain.payload.size() == publish.payload.size());
    PROMISE(std::ranges::equal(test::encoded(publish, {level}), packet));
}

void run_publish(Bytes packet, Level level)
{
    check_plain(packet, level);
    Publish publish;
    if (!round(
            packet, publish, [&](Bytes bytes, Publish &out) { return decode_publish(bytes, level, out); },
            [&](const Publish &in) { return test::encoded(in, {level}); }))
        return;
    check_inside(publish.topic);
    check_inside(publish.payload);
    check_properties(publish.properties, PUBLISH);
    PROMISE(publish.qos <= 2 && (publish.qos == 0) == (publish.packet_id == 0));
    if (publish.qos == 0)
        return;
    Packet again = test::encoded(publish, {level});
    set_packet_id(again, 0xFEFF);
    set_dup(again);
    publish.packet_id = 0xFEFF;
    publish.dup       = true;
    PROMISE(again == test::encoded(publish, {level}));
}

void run_ack(Bytes packet, Level level)
{
    Ack ack;
    if (round(
            packet, ack, [&](Bytes bytes, Ack &out) { return decode_ack(bytes, level, out); },
            [&](const Ack &in) { return test::encoded(in, {level}); }))
        check_maxima(ack, level);
}

// The answer to a list: each entry's QoS as its reason.
void check_answer(PacketType type, const Properties &properties, const std::vector<Reason> &reasons, Level level)
{
    const SubscriptionAck ack = {type, 7, reasons, properties};
    check_maxima(ack, level);
    test::DecodedSubscriptionAck again;
    if (level == Level::Mqtt5) {
        PROMISE(test::decode_subscription_ack(test::encoded(ack, {level}), type, again).ok());
        PROMISE(again.reasons == reasons);
    }
}

void run_subscribe(Bytes packet, Level level)
{
    Subscribe subscribe;
    if (!round(
            packet, subscribe, [&](Bytes bytes, Subscribe &out) { return decode_subscribe(bytes, level, out); },
            [&](const Subscribe &in) { return test::encode_subscribe(in, level); }))
        return;
    std::vector<Reason> reasons;
    for (const Subscription &entry : subscribe.subscriptions) {
        check_inside(entry.text);
        check_inside(entry.filter.filter);
        PROMISE(entry.qos <= 2 && entry.retain_handling <= 2 && !entry.filter.filter.empty());
        reasons.push_back(static_cast<Reason>(entry.qos));
    }
    PROMISE(!reasons.empty() && reasons.size() == subscribe.subscriptions.size());
    check_properties(subscribe.properties, SUBSCRIBE);
    check_answer(SUBACK, subscribe.properties, reasons, level);
}

void run_unsubscribe(Bytes packet, Level level)
{
    Unsubscribe unsubscribe;
    if (!round(
            packet, unsubscribe, [&](Bytes bytes, Unsubscribe &out) { return decode_unsubscribe(bytes, level, out); },
            [&](const Unsubscribe &in) { return test::encode_unsubscribe(in, level); }))
        return;
    std::vector<Reason> reasons;
    for (const UnsubscribedFilter &entry : unsubscribe.filters) {
        check_inside(entry.text);
        reasons.push_back(Reason::NoSubscriptionExisted);
    }
    PROMISE(!reasons.empty() && reasons.size() == unsubscribe.filters.size());
    check_answer(UNSUBACK, unsubscribe.properties, reasons, level);
}

void run_disconnect(Bytes packet, Level level)
{
    Disconnect disconnect;
    const auto decode = [&](Bytes bytes, Disconnect &out) { return decode_disconnect(bytes, level, out); };
    if (level == Level::Mqtt311)
        PROMISE(!decoded(packet, disconnect, decode) || size_of(disconnect, {level}) == 0);
    else if (round(packet, disconnect, decode, [&](const Disconnect &in) { return test::encoded(in, {level}); }))
        check_maxima(disconnect, level);
}

void run_packet(Bytes packet, Level level)
{
    check_verdict(packet_length(packet, 100).verdict);
    switch (packet.empty() ? 0 : type_of(packet[0])) {
    case CONNECT:
        return run_connect(packet);
    case PUBLISH:
        return run_publish(packet, level);
    case SUBSCRIBE:
        return run_subscribe(packet, level);
    case UNSUBSCRIBE:
        return run_unsubscribe(packet, level);
    case PINGREQ:
        return check_verdict(decode_pingreq(packet, level));
    case DISCONNECT:
        return run_disconnect(packet, level);
    case AUTH: {
        Auth auth;
        round(
            packet, auth, [&](Bytes bytes, Auth &out) { return decode_auth(bytes, level, out); }, test::encode_auth);
        return;
    }
    default: // also types that are no acknowledgement
        return run_ack(packet, level);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t                    choice = data[0];
    const size_t                     length = size - 1;
    const std::unique_ptr<uint8_t[]> copy(new uint8_t[length]); // so that its end is the end of the memory
    memcpy(copy.get(), data + 1, length);
    g_input = {copy.get(), length};
    if (choice & 2)
        run_block(static_cast<PacketType>(choice >> 4), g_input);
    else
        run_packet(g_input, choice & 1 ? Level::Mqtt5 : Level::Mqtt311);
    return 0;
}
