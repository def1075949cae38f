// message.cpp - see message.h. A message is one block of memory: the object, then topic, properties and payload.
#include "message.h"

#include <cstdlib>
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
    if (message_)
        return message_;
    MessageParts numbered = *parts_;
    numbered.number       = ++*numbers_;
    message_              = MessageRef::make(numbered);
    return message_;
}

MessageRef MessageRef::make(const MessageParts &parts) noexcept
{
    MessageRef  made;
    const auto  rest  = parts.properties.size() + parts.topic.size() + parts.payload.size();
    void *const block = malloc(sizeof(Message) + rest);
    if (!block)
        return made;
    auto *const          at         = static_cast<uint8_t *>(block) + sizeof(Message);
    uint8_t *const       properties = append(at, parts.topic.data(), parts.topic.size());
    uint8_t *const       payload    = append(properties, parts.properties.data(), parts.properties.size());
    const uint8_t *const end        = append(payload, parts.payload.data(), parts.payload.size());
    MessageParts         inside     = parts;
    inside.topic                    = {reinterpret_cast<const char *>(at), parts.topic.size()};
    inside.properties               = {properties, payload};
    inside.payload                  = {static_cast<const uint8_t *>(payload), end};
    made.message_                   = new (block) Message(inside);
    return made;
}

void MessageRef::let_go() noexcept
{
    if (message_->refs_.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    message_->~Message();
    free(message_);
}

} // namespace tarn::standard
