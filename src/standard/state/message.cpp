// message.cpp - see message.h. A message is one block of memory: the object, then topic, properties and payload.
#include "message.h"

#include "spare_blocks.h"

#include <cstring>
#include <new>

namespace tarn::standard {
namespace {

uint8_t *append(uint8_t *to, const void *from, size_t size)
{
    if (size > 0)
        memcpy(to, from, size);
    return to + size;
}

} // namespace

const MessageRef &Draft::message() noexcept
{
    if (!message_)
        message_ = MessageRef::make(*parts_, ++*numbers_);
    return message_;
}

MessageRef MessageRef::make(const MessageParts &parts) noexcept
{
    return make(parts, parts.number);
}

MessageRef MessageRef::make(const MessageParts &parts, uint64_t number) noexcept
{
    MessageRef  made;
    void *const block = take_block(size_of_message(parts));
    if (!block)
        return made;
    auto *const          at         = static_cast<uint8_t *>(block) + sizeof(Message);
    uint8_t *const       properties = append(at, parts.topic.data(), parts.topic.size());
    uint8_t *const       payload    = append(properties, parts.properties.data(), parts.properties.size());
    const uint8_t *const end        = append(payload, parts.payload.data(), parts.payload.size());
    auto *const          message    = new (block) Message(parts);
    message->parts_.number          = number;
    message->parts_.topic           = {reinterpret_cast<const char *>(at), parts.topic.size()};
    message->parts_.properties      = {properties, payload};
    message->parts_.payload         = {static_cast<const uint8_t *>(payload), end};
    made.message_                   = message;
    return made;
}

void MessageRef::let_go() noexcept
{
    if (message_->refs_.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    const size_t size = message_->size();
    message_->~Message();
    give_back_block(message_, size);
}

} // namespace tarn::standard
