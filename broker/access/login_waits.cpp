#include "login_waits.h"

#include <algorithm>

namespace tarn::broker {
namespace {

std::string key_of(std::string_view address)
{
    return std::string(address);
}

std::string key_of(std::string_view address, std::string_view name)
{
    return std::string(address).append(1, ' ').append(name); // no address contains a blank
}

} // namespace

bool LoginWaits::may_try(std::string_view address, std::string_view name, int64_t now_ms)
{
    if (longest_ms_ == 0)
        return true;
    const std::string     of_address = key_of(address), of_name = key_of(address, name);
    const std::lock_guard lock(mutex_);
    return !waits(of_address, now_ms) && !waits(of_name, now_ms);
}

void LoginWaits::was_wrong(std::string_view address, std::string_view name, int64_t now_ms)
{
    if (longest_ms_ == 0)
        return;
    const std::string     of_address = key_of(address), of_name = key_of(address, name);
    const std::lock_guard lock(mutex_);
    count(of_address, kFreeOfAddress, now_ms);
    count(of_name, kFree, now_ms);
}

void LoginWaits::was_right(std::string_view address, std::string_view name)
{
    if (longest_ms_ == 0)
        return;
    const std::string     of_address = key_of(address), of_name = key_of(address, name);
    const std::lock_guard lock(mutex_);
    forget(of_address);
    forget(of_name);
}

size_t LoginWaits::size()
{
    const std::lock_guard lock(mutex_);
    return entries_.size();
}

bool LoginWaits::waits(const std::string &key, int64_t now_ms)
{
    const Entry *const entry = find(key);
    return entry && now_ms < entry->until_ms;
}

void LoginWaits::count(const std::string &key, uint32_t free, int64_t now_ms)
{
    Entry *entry = find(key);
    if (!entry) {
        entries_.push_front({key});
        by_key_[key] = entries_.begin();
        entry        = &entries_.front();
    }
    ++entry->wrong;
    if (entry->wrong >= free) {
        const uint32_t doublings = std::min(entry->wrong - free, 20u);
        entry->until_ms          = now_ms + std::min(kFirst_ms << doublings, longest_ms_);
    }
    if (entries_.size() > kEntriesMax) {
        by_key_.erase(entries_.back().key);
        entries_.pop_back();
    }
}

void LoginWaits::forget(const std::string &key)
{
    const auto found = by_key_.find(key);
    if (found == by_key_.end())
        return;
    entries_.erase(found->second);
    by_key_.erase(found);
}

LoginWaits::Entry *LoginWaits::find(const std::string &key)
{
    const auto found = by_key_.find(key);
    if (found == by_key_.end())
        return nullptr;
    entries_.splice(entries_.begin(), entries_, found->second);
    return &entries_.front();
}

} // namespace tarn::broker
