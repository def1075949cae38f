// records.h - the bytes of the records that a Journal keeps: recorder.h and checkpoint.h write them, restore.h reads
// them. Their format belongs to the version of the journal's files.
//
//     Key          words 4 * u64
//     Counters     last session u64, last message u64
//     Session      session
//     SessionState session, last delivery u64, incoming u32, that many packet ids u16,
//                  deliveries u32, that many times: message u64 (0 once received), delivery
//     SessionGone  session number u64
//     Subscribed   session number u64, identifier u32 (0 = none), qos u8, options u8, filter to the end
//     Unsubscribed session number u64, filter to the end
//     Message      message
//     Publication  effects u8, sender's session number u64 (0 = it holds nothing), packet id u16, message,
//                  then to the end: session number u64, delivery
//     Sent, Received, Done   session number u64, delivery number u64, packet id u16
//     Released     session number u64, packet id u16
//     Retained     message number u64
//     RetainedGone topic to the end
//
//     session      number u64, expiry s u32, away ms u64, will flags u8, will delay s u32, will expiry s u32,
//                  size of the id u32, the id, and with a will: message
//     message      number u64, expires ms u64, sender u64, qos u8, retain u8, sizes of topic, properties, payload
//                  3 * u32, topic, properties, payload
//     delivery     number u64, flags u8, packet id u16, subscription identifiers u32, that many u32
//
// Numbers are little endian, as in the files. SessionState, Message, Retained and Counters are a checkpoint's.
#ifndef TARN_STANDARD_RECORDS_H
#define TARN_STANDARD_RECORDS_H

#include "../state/session.h"
#include "../state/subscription_tree.h"

#include <array>
#include <concepts>

namespace tarn::standard {

enum class RecordType : uint8_t {
    Key          = 1,
    Counters     = 2,
    Session      = 3,
    SessionState = 4,
    SessionGone  = 5,
    Subscribed   = 6,
    Unsubscribed = 7,
    Message      = 8,
    Publication  = 9,
    Sent         = 10,
    Received     = 11,
    Done         = 12,
    Released     = 13,
    Retained     = 14,
    RetainedGone = 15,
};

// Flags of a session's will
constexpr uint8_t kHasWill     = 0x01;
constexpr uint8_t kWillExpires = 0x02;

// Options of a subscription
constexpr uint8_t kNoLocal             = 0x01;
constexpr uint8_t kRetainAsPublished   = 0x02;
constexpr int     kRetainHandlingShift = 4; // two bits

// Effects of a publication
constexpr uint8_t kIsRetained = 0x01; // without payload: its topic has no retained message any more

// Flags of a delivery
constexpr uint8_t kDeliveryQos      = 0x03;
constexpr uint8_t kDeliveryRetain   = 0x04;
constexpr uint8_t kDeliveryReceived = 0x08;

using ByteSpan = std::span<const uint8_t>;

inline ByteSpan text_bytes(std::string_view text) noexcept
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

// ---- Writing

// The numbers one behind the other.
template <std::unsigned_integral... Number> auto bytes_of_numbers(Number... numbers) noexcept
{
    std::array<uint8_t, (sizeof(Number) + ...)> bytes{};
    size_t                                      at  = 0;
    const auto                                  put = [&](uint64_t number, size_t size) {
        for (; size > 0; --size, number >>= 8)
            bytes[at++] = static_cast<uint8_t>(number);
    };
    (put(numbers, sizeof numbers), ...);
    return bytes;
}

template <size_t size>
[[nodiscard]] bool append_bytes(GrowArray<uint8_t> &to, const std::array<uint8_t, size> &bytes) noexcept
{
    return to.append(bytes.data(), size);
}

// Behind it stand topic, properties and payload.
inline auto head_of(const Message &message) noexcept
{
    return bytes_of_numbers(message.number(), message.expires_ms(), message.sender(), message.qos(),
                            static_cast<uint8_t>(message.retain()), static_cast<uint32_t>(message.topic().size()),
                            static_cast<uint32_t>(message.properties().size()),
                            static_cast<uint32_t>(message.payload().size()));
}

// The four parts of a message; without one all are empty.
class MessageBytes {
public:
    explicit MessageBytes(const MessageRef &message) noexcept : message_(message ? &*message : nullptr)
    {
        if (message_)
            head_ = head_of(*message_);
    }

    ByteSpan head() const noexcept { return message_ ? ByteSpan(head_) : ByteSpan(); }
    ByteSpan topic() const noexcept { return message_ ? text_bytes(message_->topic()) : ByteSpan(); }
    ByteSpan properties() const noexcept { return message_ ? message_->properties() : ByteSpan(); }
    ByteSpan payload() const noexcept { return message_ ? message_->payload() : ByteSpan(); }

private:
    const Message                                     *message_;
    decltype(head_of(std::declval<const Message &>())) head_{};
};

// Behind it stands the id, and a will's message.
inline auto head_of(const Session &session) noexcept
{
    const StoredWill &will  = session.will;
    const auto        flags = static_cast<uint8_t>((will.message ? kHasWill : 0) | (will.expiry_s ? kWillExpires : 0));
    return bytes_of_numbers(session.number, session.expiry_s, session.away_ms, flags, will.delay_s,
                            will.expiry_s.value_or(0), static_cast<uint32_t>(session.text.size()));
}

// Behind it stands the filter.
inline auto head_of(uint64_t session, const SubscriptionOptions &options) noexcept
{
    const auto bits = static_cast<uint8_t>((options.no_local ? kNoLocal : 0) |
                                           (options.retain_as_published ? kRetainAsPublished : 0) |
                                           options.retain_handling << kRetainHandlingShift);
    return bytes_of_numbers(session, options.identifier, options.qos, bits);
}

// Behind the number of its session, or of its message. False without memory.
[[nodiscard]] inline bool append_delivery(GrowArray<uint8_t> &to, uint64_t number,
                                          const DeliveryRecord &delivery) noexcept
{
    const auto flags = static_cast<uint8_t>(delivery.qos | (delivery.retain ? kDeliveryRetain : 0) |
                                            (delivery.received ? kDeliveryReceived : 0));
    const auto count = static_cast<uint32_t>(delivery.subscription_identifiers.size());
    bool       done  = append_bytes(to, bytes_of_numbers(number, delivery.number, flags, delivery.packet_id, count));
    for (const uint32_t identifier : delivery.subscription_identifiers)
        done = done && append_bytes(to, bytes_of_numbers(identifier));
    return done;
}

// What a checkpoint has of a session beside its head, id and will. False without memory.
[[nodiscard]] bool append_rest_of(GrowArray<uint8_t> &to, const Session &session) noexcept;

// The filter as its client sent it, in the parts of a record.
struct FilterBytes {
    explicit FilterBytes(const Subscription &subscription) noexcept
        : group(text_bytes(subscription.group())), filter(text_bytes(subscription.filter()))
    {
        if (group.empty())
            return;
        share = text_bytes("$share/");
        slash = text_bytes("/");
    }
    ByteSpan share, group, slash, filter;
};

// ---- Reading

// Takes fields off the front of a record. What is not there reads as zeros, and so does everything behind it.
class FieldReader {
public:
    explicit FieldReader(ByteSpan bytes) noexcept : left_(bytes) {}

    template <std::unsigned_integral... Number> void numbers(Number &...numbers) noexcept { (number(numbers), ...); }
    ByteSpan                                         bytes(size_t size) noexcept
    {
        if (size > left_.size()) {
            complete_ = false;
            left_     = {};
            return {};
        }
        const ByteSpan taken = left_.first(size);
        left_                = left_.subspan(size);
        return taken;
    }
    std::string_view text(size_t size) noexcept
    {
        const ByteSpan taken = bytes(size);
        return {reinterpret_cast<const char *>(taken.data()), taken.size()};
    }
    std::string_view rest() noexcept { return text(left_.size()); }

    bool   is_complete() const noexcept { return complete_; } // all that was asked for was there
    size_t left() const noexcept { return left_.size(); }

private:
    template <std::unsigned_integral Number> void number(Number &value) noexcept
    {
        uint64_t read  = 0;
        int      shift = 0;
        for (const uint8_t byte : bytes(sizeof(Number))) {
            read |= uint64_t{byte} << shift;
            shift += 8;
        }
        value = static_cast<Number>(read);
    }

    ByteSpan left_;
    bool     complete_ = true;
};

} // namespace tarn::standard

#endif
