#include "quotas.h"

#include <set>
#include <string_view>
#include <utility>

namespace tarn::broker {
namespace {

constexpr int64_t kCountEvery_ms = 100;   // at most, of each quota: counting goes through the library's tables
constexpr int64_t kYoung_ms      = 10000; // the library may not have heard of it yet
constexpr size_t  kKeptMin       = 1000;  // ids and topics for which looking what is gone is not worth it

constexpr std::string_view kUser = "user ", kAddress = "address ";

// By Quota: words for the log that end a sentence about a client.
constexpr const char *kWhy[] = {
    "its user or address has as many connections as one may have",
    "its user or address has as many ids as one may have",
    "its user or address has as many kept sessions as one may have",
    "its user or address has as many subscriptions as one may have",
    "its user or address has as many retained topics as one may have",
    "its user or address has as many wills as one may have",
};
static_assert(std::size(kWhy) == kQuotas);

size_t place(Quota quota)
{
    return static_cast<size_t>(quota);
}

std::string owner_of(const std::string &user, const std::string &address)
{
    return user.empty() ? std::string(kAddress) + address : std::string(kUser) + user;
}

} // namespace

const char *Quotas::open(uint32_t handle, const std::string &address)
{
    std::string           owner = owner_of("", address);
    const std::lock_guard lock(mutex_);
    if (is_full(Quota::Connections, owner))
        return kWhy[place(Quota::Connections)];
    if (const auto stale = connections_.find(handle); stale != connections_.end())
        remove(Quota::Connections, stale->second.owner);
    connections_[handle] = {address, owner};
    add(Quota::Connections, owner);
    return nullptr;
}

void Quotas::close(uint32_t handle)
{
    const std::lock_guard lock(mutex_);
    const auto            found = connections_.find(handle);
    if (found == connections_.end())
        return;
    remove(Quota::Connections, found->second.owner);
    connections_.erase(found);
}

const char *Quotas::connect(uint32_t handle, const std::string &user, const std::string &client_id, bool keeps_session,
                            int64_t now_ms)
{
    const std::lock_guard lock(mutex_);
    const auto            found = connections_.find(handle);
    if (found == connections_.end())
        return nullptr; // it came before anybody counted
    const std::string owner   = owner_of(user, found->second.address);
    const auto        known   = ids_.find(client_id);
    const bool        is_own  = known != ids_.end() && known->second.owner == owner;
    const bool        changes = found->second.owner != owner;
    if (changes)
        if (const char *const why = fits(Quota::Connections, owner, now_ms))
            return why;
    if (!client_id.empty() && !is_own)
        if (const char *const why = fits(Quota::ClientIds, owner, now_ms))
            return why;
    if (keeps_session && !(is_own && known->second.keeps_session))
        if (const char *const why = fits(Quota::Sessions, owner, now_ms))
            return why;
    if (changes) {
        add(Quota::Connections, owner);
        remove(Quota::Connections, std::exchange(found->second.owner, owner));
    }
    if (!client_id.empty())
        remember(client_id, owner, keeps_session, now_ms);
    return nullptr;
}

// Behind an id of its own a session stays until it is looked at again.
void Quotas::remember(const std::string &client_id, const std::string &owner, bool keeps_session, int64_t now_ms)
{
    const auto [at, is_new] = ids_.try_emplace(client_id, Id{owner, keeps_session, now_ms});
    if (is_new || at->second.owner != owner) {
        if (!is_new) {
            remove(Quota::ClientIds, at->second.owner);
            if (at->second.keeps_session)
                remove(Quota::Sessions, at->second.owner);
        }
        at->second = {owner, keeps_session, now_ms};
        add(Quota::ClientIds, owner);
        if (keeps_session)
            add(Quota::Sessions, owner);
        return;
    }
    if (keeps_session != std::exchange(at->second.keeps_session, keeps_session)) {
        if (keeps_session)
            add(Quota::Sessions, owner);
        else
            remove(Quota::Sessions, owner);
    }
    at->second.since_ms = now_ms;
}

const char *Quotas::may_leave_will(uint32_t handle, const std::string &user, int64_t now_ms)
{
    const std::lock_guard lock(mutex_);
    const auto            found = connections_.find(handle);
    return found == connections_.end() ? nullptr : fits(Quota::Wills, owner_of(user, found->second.address), now_ms);
}

void Quotas::leave_will(uint32_t handle, const WillHolder &holder, int64_t now_ms)
{
    const std::lock_guard lock(mutex_);
    const auto            found = connections_.find(handle);
    if (found == connections_.end())
        return;
    if (const auto before = wills_.find(holder); before != wills_.end())
        remove(Quota::Wills, before->second.owner);
    wills_[holder] = {found->second.owner, now_ms};
    add(Quota::Wills, found->second.owner);
}

const char *Quotas::subscribe(uint32_t handle, const std::string &client_id, int64_t now_ms)
{
    const std::lock_guard lock(mutex_);
    const auto            found = connections_.find(handle);
    if (found == connections_.end())
        return nullptr;
    if (const auto known = ids_.find(client_id); known == ids_.end())
        remember(client_id, found->second.owner, false, now_ms); // the library chose this id
    return take(Quota::Subscriptions, found->second.owner, now_ms);
}

const char *Quotas::publish_retained(uint32_t handle, const std::string &topic, int64_t now_ms)
{
    const std::lock_guard lock(mutex_);
    const auto            found = connections_.find(handle);
    if (found == connections_.end() || topics_.contains(topic))
        return nullptr; // no topic more than there are
    if (const char *const why = take(Quota::Retained, found->second.owner, now_ms))
        return why;
    topics_[topic] = found->second.owner;
    return nullptr;
}

void Quotas::turn(int64_t now_ms)
{
    const std::lock_guard lock(mutex_);
    if (!wills_.empty())
        count_wills(now_ms);
    if (ids_.size() > kKeptMin)
        count_ids(now_ms);
    if (topics_.size() > kKeptMin)
        count_topics();
}

const char *Quotas::take(Quota quota, const std::string &owner, int64_t now_ms)
{
    if (const char *const why = fits(quota, owner, now_ms))
        return why;
    add(quota, owner);
    return nullptr;
}

const char *Quotas::fits(Quota quota, const std::string &owner, int64_t now_ms)
{
    if (is_full(quota, owner))
        count_again(quota, now_ms);
    return is_full(quota, owner) ? kWhy[place(quota)] : nullptr;
}

bool Quotas::is_full(Quota quota, const std::string &owner) const
{
    const size_t limit = limits_[place(quota)];
    if (limit == 0)
        return false;
    const auto found = counts_.find(owner);
    return found != counts_.end() && found->second[place(quota)] >= limit;
}

void Quotas::add(Quota quota, const std::string &owner)
{
    ++counts_[owner][place(quota)];
}

void Quotas::remove(Quota quota, const std::string &owner)
{
    const auto found = counts_.find(owner);
    if (found == counts_.end() || found->second[place(quota)] == 0)
        return;
    --found->second[place(quota)];
    if (found->second == Counts{})
        counts_.erase(found);
}

void Quotas::count_again(Quota quota, int64_t now_ms)
{
    int64_t &counted_ms = counted_ms_[place(quota)];
    if (counted_ms != 0 && now_ms - counted_ms < kCountEvery_ms)
        return;
    counted_ms = now_ms;
    switch (quota) {
    case Quota::Connections: // exact
        break;
    case Quota::ClientIds:
    case Quota::Sessions:
        count_ids(now_ms);
        break;
    case Quota::Subscriptions:
        count_subscriptions();
        break;
    case Quota::Retained:
        count_topics();
        break;
    case Quota::Wills:
        count_wills(now_ms);
        break;
    }
}

void Quotas::clear(Quota quota)
{
    for (auto &[owner, counts] : counts_)
        counts[place(quota)] = 0;
    std::erase_if(counts_, [](const auto &one) { return one.second == Counts{}; });
}

void Quotas::count_subscriptions()
{
    if (holdings_.subscriptions_of) {
        clear(Quota::Subscriptions);
        for (const auto &[client_id, id] : ids_)
            if (const size_t count = holdings_.subscriptions_of(client_id); count > 0)
                counts_[id.owner][place(Quota::Subscriptions)] += count;
        return;
    }
    const std::vector<std::string> subscribers = holdings_.subscriber_ids();
    clear(Quota::Subscriptions);
    for (const std::string &client_id : subscribers)
        if (const auto known = ids_.find(client_id); known != ids_.end())
            add(Quota::Subscriptions, known->second.owner);
}

void Quotas::count_topics()
{
    const std::vector<std::string> topics = holdings_.retained_topics();
    const std::set<std::string>    there(topics.begin(), topics.end());
    std::erase_if(topics_, [&](const auto &one) { return !there.contains(one.first); });
    clear(Quota::Retained);
    for (const auto &[topic, owner] : topics_)
        add(Quota::Retained, owner);
}

void Quotas::count_ids(int64_t now_ms)
{
    const Ids                      online = holdings_.online();
    const std::vector<std::string> subscribers =
        holdings_.subscriber_ids ? holdings_.subscriber_ids() : std::vector<std::string>();
    const std::set<std::string> subscribed(subscribers.begin(), subscribers.end());
    for (auto at = ids_.begin(); at != ids_.end();) {
        auto &[client_id, id] = *at;
        if (now_ms - id.since_ms >= kYoung_ms && !is_online(online, client_id)) {
            id.keeps_session = holdings_.has_session(client_id);
            if (!id.keeps_session && !subscribed.contains(client_id)) {
                at = ids_.erase(at);
                continue;
            }
        }
        ++at;
    }
    clear(Quota::ClientIds);
    clear(Quota::Sessions);
    for (const auto &[client_id, id] : ids_) {
        add(Quota::ClientIds, id.owner);
        if (id.keeps_session)
            add(Quota::Sessions, id.owner);
    }
}

void Quotas::count_wills(int64_t now_ms)
{
    std::erase_if(wills_, [&](const auto &one) {
        return now_ms - one.second.since_ms >= kYoung_ms && !holdings_.holds_will(one.first);
    });
    clear(Quota::Wills);
    for (const auto &[record, will] : wills_)
        add(Quota::Wills, will.owner);
}

} // namespace tarn::broker
