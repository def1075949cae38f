#include "connect_will.h"

#include <algorithm>
#include <string_view>

#include <tarn_sdk_mqtt_broker/codec/mqtt_codec.h>

namespace tarn::broker {
namespace {

constexpr uint8_t kConnect    = 0x10;
constexpr uint8_t kWillFlag   = 0x04;
constexpr uint8_t kWillBits   = 0x3C; // the flag, its QoS, its retain flag
constexpr uint8_t kUserFlag   = 0x80;
constexpr size_t  kNameMax    = sizeof(mqtt_connect_para_t::username) - 1;
constexpr size_t  kFlagsAfter = 7; // "MQTT" with its length, and the level

// Reads from the front; what does not fit fails the whole reading, as it fails the library's.
class Reader {
public:
    Reader(std::span<const uint8_t> packet, size_t at) : packet_(packet), at_(at) {}

    bool   failed() const { return failed_; }
    size_t at() const { return at_; }

    uint8_t byte() { return take(1) ? packet_[at_ - 1] : 0; }
    size_t  u16() { return take(2) ? static_cast<size_t>(packet_[at_ - 2]) << 8 | packet_[at_ - 1] : 0; }
    // A text with its length, which lies within these bounds.
    std::string_view text(size_t least, size_t most)
    {
        const size_t length = u16();
        if (length < least || length > most)
            failed_ = true;
        return take(length) ? view(at_ - length, length) : std::string_view();
    }
    // An id that is longer than the library keeps is read no further than that; then come the fields behind it.
    std::string_view id(size_t most, size_t kept)
    {
        const size_t length = u16(), read = std::min(length, kept);
        if (length > most || length > packet_.size() - at_)
            failed_ = true;
        return take(read) ? view(at_ - read, read) : std::string_view();
    }
    // Over a block of properties and its length; false when that cannot be read, and then nothing moves. A block that
    // claims more than is there ends with the packet.
    bool skip_properties()
    {
        uint32_t  bytes = 0;
        const int length =
            codec_decode_remaining_length(packet_.data() + at_, static_cast<int>(packet_.size() - at_), &bytes);
        if (length < 0)
            return false;
        at_ = std::min(at_ + bytes + static_cast<size_t>(length), packet_.size());
        return true;
    }

private:
    bool take(size_t count)
    {
        if (failed_ || count > packet_.size() - at_)
            failed_ = true;
        else
            at_ += count;
        return !failed_;
    }
    std::string_view view(size_t at, size_t count) const
    {
        return {reinterpret_cast<const char *>(packet_.data() + at), count};
    }

    std::span<const uint8_t> packet_;
    size_t                   at_;
    bool                     failed_ = false;
};

std::string up_to_nul(std::string_view text)
{
    return std::string(text.substr(0, text.find('\0')));
}

// Cuts off what lies behind the packet's end. Returns where its body begins, 0 when its length cannot be read.
size_t cut_to_packet(std::span<const uint8_t> &packet)
{
    uint32_t  bytes  = 0;
    const int length = codec_decode_remaining_length(packet.data() + 1, static_cast<int>(packet.size() - 1), &bytes);
    if (length < 0)
        return 0;
    packet = packet.first(std::min(packet.size(), 1 + bytes + static_cast<size_t>(length)));
    return 1 + bytes;
}

} // namespace

std::optional<ConnectWill> find_will(std::span<const uint8_t> packet)
{
    if (packet.empty() || packet[0] != kConnect)
        return {}; // the usual case, at no cost
    ConnectWill will{};
    will.body  = cut_to_packet(packet);
    will.flags = will.body + kFlagsAfter;
    if (will.body == 0 || packet.size() <= will.flags || (packet[will.flags] & kWillFlag) == 0)
        return {};
    const uint8_t level = packet[will.flags - 1], flags = packet[will.flags];
    Reader        in(packet, will.flags + 1);
    in.u16(); // the keep-alive
    if (in.failed() || (level == 5 && !in.skip_properties()))
        return {};
    will.client_id = up_to_nul(level == 5 ? in.id(0xFFFF, CODEC_CLIENT_ID_MAX) : in.id(CODEC_CLIENT_ID_V4_MAX, 0xFFFF));
    will.begin     = in.at();
    if (level == 5 && !in.failed())
        in.skip_properties();
    will.topic = up_to_nul(in.text(1, CODEC_TOPIC_MAX));
    in.text(0, CODEC_PAYLOAD_MAX);
    will.end = in.at();
    if ((flags & kUserFlag) != 0)
        will.user = up_to_nul(in.text(1, kNameMax));
    if (in.failed())
        return {};
    return will;
}

std::vector<uint8_t> without_will(std::span<const uint8_t> packet, const ConnectWill &will)
{
    cut_to_packet(packet);
    std::vector<uint8_t> rest(packet.begin() + static_cast<ptrdiff_t>(will.body), packet.end());
    const auto           at = [&](size_t offset) { return rest.begin() + static_cast<ptrdiff_t>(offset - will.body); };
    *at(will.flags) &= static_cast<uint8_t>(~kWillBits);
    rest.erase(at(will.begin), at(will.end));

    uint8_t              length[4];
    const uint32_t       bytes = codec_encode_remaining_length(length, static_cast<uint32_t>(rest.size()));
    std::vector<uint8_t> result(1 + bytes + rest.size(), kConnect);
    std::copy_n(length, bytes, result.begin() + 1);
    std::copy(rest.begin(), rest.end(), result.begin() + 1 + bytes);
    return result;
}

} // namespace tarn::broker
