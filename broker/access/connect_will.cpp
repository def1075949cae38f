#include "connect_will.h"

#include <algorithm>
#include <string_view>

#include <tarn_sdk_mqtt_broker/codec/mqtt_codec.h>

namespace tarn::broker {
namespace {

constexpr uint8_t kCleanFlag  = 0x02;
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

// What stands behind a property's identifier: its bytes, or that texts follow, each with its length.
struct PropertyForm {
    uint8_t id;
    size_t  bytes;
    int     texts;
};
constexpr PropertyForm kConnectProperties[] = {{0x11, 4, 0}, {0x15, 0, 1}, {0x16, 0, 1}, {0x17, 1, 0}, {0x19, 1, 0},
                                               {0x21, 2, 0}, {0x22, 2, 0}, {0x26, 0, 2}, {0x27, 4, 0}};
constexpr uint8_t      kExpiryInterval      = 0x11;

// The Session Expiry Interval in a block of properties with its length in front; 0 when there is none, and when the block
// cannot be read.
uint32_t expiry_interval(std::span<const uint8_t> block)
{
    Reader in(block, 0);
    for (size_t byte = 0; byte < 4 && (in.byte() & 0x80) != 0; ++byte) {} // the length
    while (!in.failed() && in.at() < block.size()) {
        const uint8_t id   = in.byte();
        const auto    form = std::find_if(std::begin(kConnectProperties), std::end(kConnectProperties),
                                          [&](const PropertyForm &one) { return one.id == id; });
        if (form == std::end(kConnectProperties))
            return 0;
        if (id == kExpiryInterval) {
            const uint32_t high = static_cast<uint32_t>(in.u16()), low = static_cast<uint32_t>(in.u16());
            return in.failed() ? 0 : high << 16 | low;
        }
        for (size_t i = 0; i < form->bytes; ++i)
            in.byte();
        for (int i = 0; i < form->texts; ++i)
            in.text(0, 0xFFFF);
    }
    return 0;
}

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

// Where the flags of a CONNECT stand, 0 when it is none or too short. Cuts the packet.
size_t flags_of_connect(std::span<const uint8_t> &packet)
{
    if (!is_connect(packet))
        return 0;
    const size_t body = cut_to_packet(packet);
    return body != 0 && packet.size() > body + kFlagsAfter ? body + kFlagsAfter : 0;
}

} // namespace

bool has_will_flag(std::span<const uint8_t> packet)
{
    const size_t flags = flags_of_connect(packet);
    return flags != 0 && (packet[flags] & kWillFlag) != 0;
}

std::optional<ConnectWill> find_will(std::span<const uint8_t> packet)
{
    if (!has_will_flag(packet))
        return {};
    ConnectWill will{};
    will.body           = cut_to_packet(packet);
    will.flags          = will.body + kFlagsAfter;
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

namespace {

bool has_expiry_interval(std::span<const uint8_t> packet, size_t flags)
{
    Reader in(packet, flags + 1);
    in.u16(); // the keep-alive
    const size_t begin = in.at();
    if (in.failed() || !in.skip_properties())
        return false;
    return expiry_interval(packet.subspan(begin, in.at() - begin)) != 0;
}

} // namespace

// At 3.1.1 what is not clean is kept; at 5.0 what has an expiry interval, and what continues a session.
bool keeps_session(std::span<const uint8_t> packet)
{
    const size_t flags = flags_of_connect(packet);
    if (flags == 0)
        return false;
    if ((packet[flags] & kCleanFlag) == 0)
        return true;
    return packet[flags - 1] == 5 && has_expiry_interval(packet, flags);
}

bool keeps_standard_session(std::span<const uint8_t> packet)
{
    const size_t flags = flags_of_connect(packet);
    if (flags == 0)
        return false;
    return packet[flags - 1] == 5 ? has_expiry_interval(packet, flags) : (packet[flags] & kCleanFlag) == 0;
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
