// aliases.cpp - see aliases.h.
#include "aliases.h"

#include <cstdlib>
#include <cstring>

namespace tarn::standard {
namespace {

char *copy_of(std::string_view text)
{
    auto *const copy = static_cast<char *>(malloc(text.empty() ? 1 : text.size()));
    if (copy)
        memcpy(copy, text.data(), text.size());
    return copy;
}

} // namespace

// ---- of the client

bool IncomingAliases::set(uint32_t alias, std::string_view topic) noexcept
{
    if (!entries_ && !(entries_ = allocate_zeroed<Entry>(kMost)))
        return false;
    char *const text = copy_of(topic);
    if (!text)
        return false;
    Entry &entry = entries_[alias - 1];
    free(entry.text);
    entry = {text, topic.size()};
    return true;
}

std::string_view IncomingAliases::topic_of(uint32_t alias) const noexcept
{
    if (!entries_ || !is_valid(alias))
        return {};
    const Entry &entry = entries_[alias - 1];
    return {entry.text, entry.size};
}

void IncomingAliases::clear() noexcept
{
    for (size_t i = 0; entries_ && i < kMost; ++i)
        free(entries_[i].text);
    entries_.reset();
}

// ---- of the broker

OutgoingAliases::Found OutgoingAliases::find(std::string_view topic) const noexcept
{
    if (most_ == 0 || topic.size() < kTopicMin)
        return {};
    for (uint16_t i = 0; i < count_; ++i)
        if (topic == std::string_view(entries_[i].text, entries_[i].size))
            return {static_cast<uint16_t>(i + 1), false};
    if (count_ == most_)
        return {};
    return {static_cast<uint16_t>(count_ + 1), true};
}

void OutgoingAliases::remember(std::string_view topic) noexcept
{
    if (!entries_ && !(entries_ = allocate_zeroed<Entry>(kMost)))
        return; // the next packet sets the alias again
    if (char *const text = copy_of(topic))
        entries_[count_++] = {text, topic.size()};
}

void OutgoingAliases::clear() noexcept
{
    for (size_t i = 0; i < count_; ++i)
        free(entries_[i].text);
    entries_.reset();
    count_ = 0;
    most_  = 0;
}

} // namespace tarn::standard
