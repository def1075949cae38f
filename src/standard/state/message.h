// message.h - one published message of the standard profile, shared by all who are to have it. What is sent of it never
// changes.
#ifndef TARN_STANDARD_MESSAGE_H
#define TARN_STANDARD_MESSAGE_H

#include "../../codec/standard/types.h"

#include <atomic>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

namespace tarn::standard {

// Where the parts of a message stand that is to be made.
struct MessageParts {
    uint64_t                 number     = 0; // of all messages, in the order they came; files know it by this
    uint64_t                 expires_ms = 0; // wall clock; 0 = never
    uint64_t                 sender     = 0; // session number; 0 = the host
    uint8_t                  qos        = 0;
    bool                     retain     = false;
    std::string_view         topic;
    std::span<const uint8_t> properties = {}; // a block as it is forwarded, without message expiry, alias, identifiers
    std::span<const uint8_t> payload    = {};
};

class Message {
public:
    uint64_t                 number() const { return parts_.number; }
    uint64_t                 expires_ms() const { return parts_.expires_ms; }
    uint64_t                 sender() const { return parts_.sender; }
    uint8_t                  qos() const { return parts_.qos; }
    bool                     retain() const { return parts_.retain; }
    std::string_view         topic() const { return parts_.topic; }
    std::span<const uint8_t> properties() const { return parts_.properties; }
    std::span<const uint8_t> payload() const { return parts_.payload; }
    std::span<const uint8_t> properties_and_payload() const // which stand behind each other
    {
        return {parts_.properties.data(), parts_.properties.size() + parts_.payload.size()};
    }
    inline size_t       size() const; // bytes of memory
    const MessageParts &parts() const { return parts_; }

    // The latest checkpoint that has it, 0 = none. Under the mutex of the engine.
    uint32_t copied_in() const { return copied_in_; }
    void     note_copied_in(uint32_t checkpoint) const { copied_in_ = checkpoint; }

private:
    friend class MessageRef;
    explicit Message(const MessageParts &parts) : parts_(parts) {}

    std::atomic<uint32_t> refs_{1};
    mutable uint32_t      copied_in_ = 0;
    MessageParts          parts_; // the three spans point behind this object
};

// Any thread; the message goes with the last.
class MessageRef {
public:
    static MessageRef make(const MessageParts &parts) noexcept;                  // empty without memory
    static MessageRef make(const MessageParts &parts, uint64_t number) noexcept; // the same with this number

    MessageRef() = default;
    MessageRef(const MessageRef &other) noexcept : message_(other.message_)
    {
        if (message_)
            message_->refs_.fetch_add(1, std::memory_order_relaxed);
    }
    MessageRef(MessageRef &&other) noexcept : message_(std::exchange(other.message_, nullptr)) {}
    MessageRef &operator=(MessageRef other) noexcept
    {
        std::swap(message_, other.message_);
        return *this;
    }
    ~MessageRef()
    {
        if (message_)
            let_go();
    }

    explicit       operator bool() const { return message_ != nullptr; }
    const Message &operator*() const { return *message_; }
    const Message *operator->() const { return message_; }

private:
    void let_go() noexcept;

    Message *message_ = nullptr;
};

// Bytes of memory, were it made.
[[nodiscard]] inline size_t size_of_message(const MessageParts &parts) noexcept
{
    return sizeof(Message) + parts.properties.size() + parts.topic.size() + parts.payload.size();
}
inline size_t Message::size() const
{
    return size_of_message(parts_);
}

// The PUBLISH that brought a message, if it may go on as it is to clients of that level who are to have it at its QoS: it
// has neither properties nor DUP nor RETAIN.
struct Original {
    std::span<const uint8_t> packet; // empty: there is none
    codec::standard::Level   level = codec::standard::Level::Mqtt311;
};

// A message that is being published. One that is only copied into outboxes never gets a block of its own: it is made when
// a queue, a file or the retained store is to have it. The parts stand where they came from until then.
class Draft {
public:
    explicit Draft(MessageRef message) noexcept : parts_(&message->parts()), message_(std::move(message)) {}
    Draft(const MessageParts &parts, std::atomic<uint64_t> &numbers, const Original &original = {}) noexcept
        : parts_(&parts), numbers_(&numbers), original_(original)
    {
    }

    const MessageParts &parts() const noexcept { return *parts_; }
    const Original     &original() const noexcept { return original_; }
    const MessageRef   &message() noexcept; // made by now; empty without memory

private:
    const MessageParts    *parts_;
    std::atomic<uint64_t> *numbers_ = nullptr; // of messages; the latest
    Original               original_;
    MessageRef             message_;
};

} // namespace tarn::standard

#endif
