#include "quotas.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <set>
#include <utility>

namespace tarn::broker {
namespace {

constexpr int64_t kCountEvery_ms = 100;   // at most, of each quota: counting goes through the library's tables
constexpr int64_t kRestBetween   = 20;    // times as long as a count took: everybody waits for it
constexpr int64_t kYoung_ms      = 10000; // the library may not have heard of it yet
constexpr size_t  kKeptMin       = 1000;  // ids and topics for which looking what is gone is not worth it

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

} // namespace

// ---- connections

const char *Quotas::open(uint32_t handle, const std::string &address)
{
    if (limits_ == Limits{})
        return nullptr; // nor does anything else of this connection count
    const std::lock_guard lock(mutex_);
    Owner                &owner = addresses_[address];
    if (is_full(Quota::Connections, owner))
        return kWhy[place(Quota::Connections)];
    if (handle >= connections_.size())
        connections_.resize(handle + size_t{1});
    end(connections_[handle]); // a stale one
    connections_[handle] = {&owner, &owner, nullptr};
    ++owner.connections_from;
    add(Quota::Connections, owner);
    return nullptr;
}

void Quotas::close(uint32_t handle)
{
    const std::lock_guard lock(mutex_);
    if (Connection *const connection = find(handle))
        end(*connection);
}

Quotas::Connection *Quotas::find(uint32_t handle)
{
    return handle < connections_.size() && connections_[handle].address ? &connections_[handle] : nullptr;
}

void Quotas::end(Connection &connection)
{
    if (!connection.address)
        return;
    if (connection.id)
        leave(*connection.id);
    remove(Quota::Connections, *connection.owner);
    --connection.address->connections_from;
    connection = {};
}

// ---- ids

const char *Quotas::connect(uint32_t handle, std::string_view user, std::string &&client_id, bool keeps_session,
                            int64_t now_ms)
{
    const std::lock_guard lock(mutex_);
    Connection *const     connection = find(handle);
    if (!connection)
        return nullptr;
    Owner &owner = user.empty() ? *connection->address : users_[std::string(user)];
    if (const char *const why = refuses(*connection, owner, client_id, keeps_session, now_ms))
        return why;
    KnownId *const known = client_id.empty() ? nullptr : &remember(std::move(client_id), owner, keeps_session, now_ms);
    if (known)
        ++known->second.connections;
    if (KnownId *const before = std::exchange(connection->id, known)) // which stays until ids are counted
        --before->second.connections;
    add(Quota::Connections, owner);
    remove(Quota::Connections, *std::exchange(connection->owner, &owner));
    return nullptr;
}

// Whose an id is matters only where there is no room.
const char *Quotas::refuses(const Connection &connection, const Owner &owner, const std::string &client_id,
                            bool keeps_session, int64_t now_ms)
{
    if (connection.owner != &owner)
        if (const char *const why = fits(Quota::Connections, owner, now_ms))
            return why;
    if (!client_id.empty() && is_full(Quota::ClientIds, owner) && !id_of(owner, client_id))
        if (const char *const why = fits(Quota::ClientIds, owner, now_ms))
            return why;
    if (!keeps_session || !is_full(Quota::Sessions, owner))
        return nullptr;
    const Id *const known = id_of(owner, client_id);
    return known && known->keeps_session ? nullptr : fits(Quota::Sessions, owner, now_ms);
}

const Quotas::Id *Quotas::id_of(const Owner &owner, const std::string &client_id) const
{
    const auto known = ids_.find(client_id);
    return known != ids_.end() && known->second.owner == &owner ? &known->second : nullptr;
}

Quotas::KnownId &Quotas::remember(std::string &&client_id, Owner &owner, bool keeps_session, int64_t now_ms)
{
    KnownId &known = *ids_.try_emplace(std::move(client_id)).first;
    set_owner(known.second, &owner);
    set_session(known.second, keeps_session);
    known.second.since_ms = now_ms;
    return known;
}

// Without an owner it has no session either.
void Quotas::set_owner(Id &id, Owner *owner)
{
    if (id.owner == owner)
        return;
    if (id.owner) {
        set_session(id, false);
        remove(Quota::ClientIds, *id.owner);
    }
    id.owner = owner;
    if (owner)
        add(Quota::ClientIds, *owner);
}

void Quotas::set_session(Id &id, bool is_kept)
{
    if (is_kept == id.keeps_session)
        return;
    id.keeps_session = is_kept;
    if (!is_kept)
        return remove(Quota::Sessions, *id.owner);
    add(Quota::Sessions, *id.owner);
    id.may_stay = true;
}

// A clean session without subscriptions ends with its connection: nothing stays behind the id.
void Quotas::leave(KnownId &known)
{
    if (--known.second.connections == 0 && !known.second.may_stay)
        forget(ids_.find(known.first));
}

// Some of its connections may be open still, unknown to the library.
Quotas::IdTable::iterator Quotas::forget(IdTable::iterator known)
{
    if (known->second.connections > 0)
        for (Connection &connection : connections_)
            if (connection.id == &*known)
                connection.id = nullptr;
    set_owner(known->second, nullptr);
    return ids_.erase(known);
}

// ---- wills, subscriptions, retained messages

const char *Quotas::may_leave_will(uint32_t handle, const std::string &user, int64_t now_ms)
{
    const std::lock_guard   lock(mutex_);
    const Connection *const connection = find(handle);
    const Owner *const      owner      = connection ? owner_of_will(*connection, user) : nullptr;
    return owner ? fits(Quota::Wills, *owner, now_ms) : nullptr;
}

// Null for a user who has nothing: nobody has looked at the password yet, so any name may be there.
const Quotas::Owner *Quotas::owner_of_will(const Connection &connection, const std::string &user) const
{
    if (user.empty())
        return connection.address;
    const auto known = users_.find(user);
    return known == users_.end() ? nullptr : &known->second;
}

void Quotas::leave_will(uint32_t handle, const WillHolder &holder, int64_t now_ms)
{
    const std::lock_guard   lock(mutex_);
    const Connection *const connection = find(handle);
    if (!connection)
        return;
    Will &will = wills_[holder];
    if (will.owner)
        remove(Quota::Wills, *will.owner);
    will = {connection->owner, now_ms};
    add(Quota::Wills, *will.owner);
}

const char *Quotas::subscribe(uint32_t handle, const std::string &client_id, int64_t now_ms)
{
    const std::lock_guard   lock(mutex_);
    const Connection *const connection = find(handle);
    if (!connection)
        return nullptr;
    const auto known = ids_.find(client_id);
    // One that is not known was chosen by the library.
    KnownId &id = known != ids_.end() ? *known : remember(std::string(client_id), *connection->owner, false, now_ms);
    id.second.may_stay = true;
    if (const char *const why = fits(Quota::Subscriptions, *connection->owner, now_ms))
        return why;
    add(Quota::Subscriptions, *connection->owner);
    return nullptr;
}

const char *Quotas::publish_retained(uint32_t handle, const std::string &topic, int64_t now_ms)
{
    const std::lock_guard   lock(mutex_);
    const Connection *const connection = find(handle);
    if (!connection || topics_.contains(topic))
        return nullptr; // no topic more than there are
    if (const char *const why = fits(Quota::Retained, *connection->owner, now_ms))
        return why;
    topics_.emplace(topic, connection->owner);
    add(Quota::Retained, *connection->owner);
    return nullptr;
}

// ---- counting

void Quotas::turn(int64_t now_ms)
{
    const std::lock_guard lock(mutex_);
    if (!wills_.empty())
        count_wills(now_ms);
    if (ids_.size() > kKeptMin)
        count_ids(now_ms);
    if (topics_.size() > kKeptMin)
        count_topics();
    forget_idle_owners();
}

// Who has subscriptions has an id, too, so a count of them alone is an old one.
void Quotas::forget_idle_owners()
{
    const auto is_idle = [](const auto &one) {
        const Owner &owner = one.second;
        for (size_t quota = 0; quota < kQuotas; ++quota)
            if (owner.counts[quota] > 0 && quota != place(Quota::Subscriptions))
                return false;
        return owner.connections_from == 0;
    };
    std::erase_if(addresses_, is_idle);
    std::erase_if(users_, is_idle);
}

const char *Quotas::fits(Quota quota, const Owner &owner, int64_t now_ms)
{
    if (!is_full(quota, owner))
        return nullptr;
    count_again(quota, now_ms);
    return is_full(quota, owner) ? kWhy[place(quota)] : nullptr;
}

bool Quotas::is_full(Quota quota, const Owner &owner) const
{
    const size_t limit = limits_[place(quota)];
    return limit > 0 && owner.counts[place(quota)] >= limit;
}

void Quotas::add(Quota quota, Owner &owner)
{
    ++owner.counts[place(quota)];
}

void Quotas::remove(Quota quota, Owner &owner)
{
    --owner.counts[place(quota)];
}

void Quotas::count_again(Quota quota, int64_t now_ms)
{
    int64_t &next_ms = next_count_ms_[place(quota)];
    if (now_ms < next_ms)
        return;
    using namespace std::chrono;
    const auto began = steady_clock::now();
    count(quota, now_ms);
    const auto took = duration_cast<milliseconds>(steady_clock::now() - began);
    next_ms         = now_ms + std::max(kCountEvery_ms, kRestBetween * int64_t{took.count()});
}

void Quotas::count(Quota quota, int64_t now_ms)
{
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

void Quotas::count_subscriptions()
{
    const std::vector<std::string> subscribers =
        holdings_.subscriptions_of ? std::vector<std::string>() : holdings_.subscriber_ids();
    for (OwnerMap *const owners : {&addresses_, &users_})
        for (auto &[name, owner] : *owners)
            owner.counts[place(Quota::Subscriptions)] = 0;
    if (holdings_.subscriptions_of)
        for (const auto &[client_id, id] : ids_)
            id.owner->counts[place(Quota::Subscriptions)] += holdings_.subscriptions_of(client_id);
    for (const std::string &client_id : subscribers)
        if (const auto known = ids_.find(client_id); known != ids_.end())
            add(Quota::Subscriptions, *known->second.owner);
}

void Quotas::count_topics()
{
    const std::vector<std::string> topics = holdings_.retained_topics();
    const std::set<std::string>    there(topics.begin(), topics.end());
    std::erase_if(topics_, [&](const auto &one) {
        const bool is_gone = !there.contains(one.first);
        if (is_gone)
            remove(Quota::Retained, *one.second);
        return is_gone;
    });
}

void Quotas::count_ids(int64_t now_ms)
{
    const Ids                      online = holdings_.online();
    const std::vector<std::string> subscribers =
        holdings_.subscriber_ids ? holdings_.subscriber_ids() : std::vector<std::string>();
    const std::set<std::string> subscribed(subscribers.begin(), subscribers.end());
    for (auto at = ids_.begin(); at != ids_.end();) {
        auto &[client_id, id] = *at;
        bool stays            = now_ms - id.since_ms < kYoung_ms || is_online(online, client_id);
        if (!stays) {
            set_session(id, holdings_.has_session(client_id));
            stays = id.keeps_session || subscribed.contains(client_id);
        }
        at = stays ? std::next(at) : forget(at);
    }
}

void Quotas::count_wills(int64_t now_ms)
{
    std::erase_if(wills_, [&](const auto &one) {
        const auto &[holder, will] = one;
        const bool is_gone         = now_ms - will.since_ms >= kYoung_ms && !holdings_.holds_will(holder);
        if (is_gone)
            remove(Quota::Wills, *will.owner);
        return is_gone;
    });
}

} // namespace tarn::broker
