// subscription_tree.cpp - see subscription_tree.h.
#include "subscription_tree.h"

#include "filter_match.h"

#include <algorithm>

namespace tarn::standard {

// ---- records

std::string_view Subscription::group() const
{
    return group_ ? group_->text : std::string_view();
}

std::string_view Subscription::filter() const
{
    return filter_->text;
}

Subscribers *Subscription::subscribers() const
{
    return group_ ? &group_->members_ : &filter_->plain;
}

const SubscriptionOptions &Subscription::options() const
{
    return (*subscribers())[position_].options;
}

bool Subscribers::add(Subscription &subscription, const SubscriptionOptions &options) noexcept
{
    if (size_ == capacity_) {
        const size_t wanted = capacity_ ? capacity_ * 2 : 1; // most filters have one
        auto        *grown  = static_cast<Subscriber *>(realloc(array_.get(), wanted * sizeof(Subscriber)));
        if (!grown)
            return false;
        static_cast<void>(array_.release());
        array_.reset(grown);
        capacity_ = wanted;
    }
    subscription.position_ = size_;
    array_[size_++]        = {subscription.session_, options, &subscription};
    return true;
}

void Subscribers::remove(const Subscription &subscription) noexcept
{
    Subscriber &freed             = array_[subscription.position_];
    freed                         = array_[--size_];
    freed.subscription->position_ = subscription.position_;
}

// ---- adding

struct SubscriptionTree::Parts {
    std::string_view group; // empty if it is not shared
    std::string_view filter;
};

SubscriptionTree::Parts SubscriptionTree::parts_of(std::string_view filter) noexcept
{
    constexpr std::string_view kShare = "$share/";
    const size_t               slash  = filter.find('/', kShare.size());
    if (!filter.starts_with(kShare) || slash == filter.npos)
        return {{}, filter};
    return {filter.substr(kShare.size(), slash - kShare.size()), filter.substr(slash + 1)};
}

namespace {

uint64_t hash_of(uint64_t session, const Filter *filter, const SharedGroup *group)
{
    return hash_pair(session, hash_pair(filter, group));
}

bool is_too_deep(std::string_view filter)
{
    return has_wildcard(filter) && static_cast<size_t>(std::ranges::count(filter, '/')) >= kMaxLevels;
}

} // namespace

SubscriptionTree::Added SubscriptionTree::add(uint64_t session, std::string_view filter,
                                              const SubscriptionOptions &options) noexcept
{
    const Parts parts = parts_of(filter);
    if (is_too_deep(parts.filter))
        return Added::TooDeep;
    Subscription *const old = find(session, parts);
    if (!old)
        return make_subscription(session, parts, options);
    (*old->subscribers())[old->position_].options = options;
    return Added::Replaced;
}

SubscriptionTree::Added SubscriptionTree::make_subscription(uint64_t session, const Parts &parts,
                                                            const SubscriptionOptions &options) noexcept
{
    const bool                  shared = !parts.group.empty();
    Filter *const               filter = find_or_make_filter(parts.filter);
    SharedGroup *const          group  = filter && shared ? find_or_make_group(*filter, parts.group) : nullptr;
    SessionSubscriptions *const list   = find_or_make_session(session);
    Subscription *const         made   = make_object<Subscription>();
    if (made && filter && list && (group || !shared)) {
        made->session_ = session;
        made->filter_  = filter;
        made->group_   = group;
        made->list_    = list;
        if (link(*made, options))
            return Added::New;
    }
    destroy_object(made);
    discard_unused(filter, group, list);
    return Added::NoMemory;
}

bool SubscriptionTree::link(Subscription &subscription, const SubscriptionOptions &options) noexcept
{
    if (!subscription.subscribers()->add(subscription, options))
        return false;
    SessionSubscriptions &list                  = *subscription.list_;
    subscription.previous_                      = list.last;
    (list.last ? list.last->next_ : list.first) = &subscription;
    list.last                                   = &subscription;
    ++list.count;
    subscriptions_.insert(subscription, hash_of(subscription.session_, subscription.filter_, subscription.group_));
    return true;
}

Filter *SubscriptionTree::find_or_make_filter(std::string_view text) noexcept
{
    if (Filter *const known = find_filter(text))
        return known;
    Filter *const filter = make_with_text<Filter>(text);
    if (!filter)
        return nullptr;
    if (has_wildcard(text)) {
        filter->node = tree_.make(text);
        if (!filter->node) {
            destroy_object(filter);
            return nullptr;
        }
        filter->node->value = filter;
    }
    filters_.insert(*filter, hash_(text));
    return filter;
}

SharedGroup *SubscriptionTree::find_or_make_group(Filter &filter, std::string_view name) noexcept
{
    if (SharedGroup *const known = find_group(filter, name))
        return known;
    SharedGroup *const group = make_with_text<SharedGroup>(name);
    if (group) {
        group->next_group_ = filter.groups;
        filter.groups      = group;
    }
    return group;
}

SessionSubscriptions *SubscriptionTree::find_or_make_session(uint64_t session) noexcept
{
    if (SessionSubscriptions *const known = find_session(session))
        return known;
    auto *const list = make_object<SessionSubscriptions>();
    if (list) {
        list->session = session;
        sessions_.insert(*list, hash_pair(session, 0));
    }
    return list;
}

// ---- removing

bool SubscriptionTree::remove(uint64_t session, std::string_view filter) noexcept
{
    Subscription *const subscription = find(session, parts_of(filter));
    if (subscription)
        remove(*subscription);
    return subscription != nullptr;
}

void SubscriptionTree::remove_all_of(uint64_t session) noexcept
{
    const SessionSubscriptions *const list = find_session(session);
    Subscription                     *next = list ? list->first : nullptr;
    while (Subscription *const subscription = next) {
        next = subscription->next_;
        remove(*subscription);
    }
}

SubscriptionTree::~SubscriptionTree()
{
    sessions_.for_each([this](const SessionSubscriptions &list) { remove_all_of(list.session); });
}

void SubscriptionTree::remove(Subscription &subscription) noexcept
{
    unlink(subscription);
    discard_unused(subscription.filter_, subscription.group_, subscription.list_);
    destroy_object(&subscription);
}

void SubscriptionTree::unlink(Subscription &subscription) noexcept
{
    if (cursor_ == &subscription)
        cursor_ = subscription.next_;
    SessionSubscriptions &list                = *subscription.list_;
    Subscription *const   next                = subscription.next_;
    Subscription *const   previous            = subscription.previous_;
    (previous ? previous->next_ : list.first) = next;
    (next ? next->previous_ : list.last)      = previous;
    --list.count;
    subscription.subscribers()->remove(subscription);
    subscriptions_.remove(subscription);
}

// Any of them may be null.
void SubscriptionTree::discard_unused(Filter *filter, SharedGroup *group, SessionSubscriptions *list) noexcept
{
    if (group && group->members_.empty())
        discard(*filter, *group);
    if (filter && filter->plain.empty() && !filter->groups)
        discard(*filter);
    if (list && list->count == 0) {
        sessions_.remove(*list);
        destroy_object(list);
    }
}

void SubscriptionTree::discard(Filter &filter, SharedGroup &group) noexcept
{
    SharedGroup **at = &filter.groups;
    while (*at != &group)
        at = &(*at)->next_group_;
    *at = group.next_group_;
    destroy_object(&group);
}

void SubscriptionTree::discard(Filter &filter) noexcept
{
    if (filter.node) {
        filter.node->value = nullptr;
        tree_.release(filter.node);
    }
    filters_.remove(filter);
    if (last_found_ == &filter)
        last_found_ = nullptr;
    destroy_object(&filter);
}

// ---- finding

Filter *SubscriptionTree::find_filter(std::string_view text) const noexcept
{
    if (last_found_ && last_found_->text == text)
        return last_found_;
    Filter *const found = filters_.find(hash_(text), [&](const Filter &filter) { return filter.text == text; });
    if (found)
        last_found_ = found;
    return found;
}

SharedGroup *SubscriptionTree::find_group(const Filter &filter, std::string_view name) const noexcept
{
    SharedGroup *group = filter.groups;
    while (group && group->text != name)
        group = group->next_group_;
    return group;
}

SessionSubscriptions *SubscriptionTree::find_session(uint64_t session) const noexcept
{
    return sessions_.find(hash_pair(session, 0),
                          [&](const SessionSubscriptions &list) { return list.session == session; });
}

Subscription *SubscriptionTree::find(uint64_t session, const Parts &parts) const noexcept
{
    const Filter *const      filter = find_filter(parts.filter);
    const SharedGroup *const group  = filter && !parts.group.empty() ? find_group(*filter, parts.group) : nullptr;
    if (!filter || (!group && !parts.group.empty()))
        return nullptr;
    return subscriptions_.find(hash_of(session, filter, group), [&](const Subscription &each) {
        return each.session_ == session && each.filter_ == filter && each.group_ == group;
    });
}

const Subscription *SubscriptionTree::find(uint64_t session, std::string_view filter) const noexcept
{
    return find(session, parts_of(filter));
}

SubscriptionsOfSession SubscriptionTree::of(uint64_t session) const noexcept
{
    const SessionSubscriptions *const list = find_session(session);
    return SubscriptionsOfSession(list ? list->first : nullptr);
}

size_t SubscriptionTree::count_of(uint64_t session) const noexcept
{
    const SessionSubscriptions *const list = find_session(session);
    return list ? list->count : 0;
}

// ---- matching

namespace {

// The levels of a topic, looked up when a walk first gets so deep.
class TopicLevels {
public:
    // cppcheck-suppress uninitMemberVar ; a level is written when it is counted
    TopicLevels(const LevelNames &names, std::string_view topic) : names_(names), reader_(topic) {}

    bool has(size_t depth)
    {
        for (std::string_view text; count_ <= depth && reader_.next(text); ++count_) {
            levels_[count_] = names_.find(text);
            holds_many_     = text.find('/') != text.npos;
        }
        return depth < count_;
    }
    const Level *operator[](size_t depth) const { return levels_[depth]; } // null if no filter has such a level
    // Not what is left of a topic that has too many levels.
    bool is_single(size_t depth) const { return depth + 1 < kMaxLevels || !holds_many_; }

private:
    const LevelNames &names_;
    LevelReader       reader_;
    size_t            count_      = 0;
    bool              holds_many_ = false; // the last level so far
    const Level      *levels_[kMaxLevels];
};

class FilterWalk {
public:
    using Node = Filter::Node;

    FilterWalk(const LevelTree<Filter> &tree, std::string_view topic, const Visitor<Filter> &found)
        : tree_(tree), levels_(tree.levels(), topic), found_(found), is_dollar_topic_(topic.starts_with('$'))
    {
    }

    void run() { visit(tree_.root()); }

private:
    // The topic begins with the levels of this node and those above it.
    void visit(const Node &node)
    {
        if (levels_.has(node.depth))
            follow(tree_.child(node, levels_[node.depth]));
        else if (node.value)
            found_(*node.value);
        follow(node.plus);
        follow(node.rest);
    }

    // The topic begins with the levels above this node, which may be null.
    void follow(const Node *node)
    {
        if (!node)
            return;
        size_t depth = node->depth - node->length;
        for (const Level *const level : node->path()) {
            if (level == tree_.levels().rest())
                return give_rest(*node, depth);
            if (!matches(level, depth++))
                return;
        }
        visit(*node);
    }

    bool matches(const Level *level, size_t depth)
    {
        if (!levels_.has(depth))
            return false;
        if (level == tree_.levels().plus())
            return takes_wildcard(depth) && levels_.is_single(depth);
        return level == levels_[depth];
    }

    // "#", which is last in a filter, stands for the level above it, too.
    void give_rest(const Node &node, size_t depth)
    {
        if (takes_wildcard(depth))
            found_(*node.value);
    }

    // No wildcard stands for a first level with "$" [MQTT-4.7.2-1].
    bool takes_wildcard(size_t depth) const { return depth > 0 || !is_dollar_topic_; }

    const LevelTree<Filter> &tree_;
    TopicLevels              levels_;
    const Visitor<Filter>   &found_;
    bool                     is_dollar_topic_;
};

} // namespace

void SubscriptionTree::match_wildcards(std::string_view topic, const Visitor<Filter> &found) const
{
    FilterWalk(tree_, topic, found).run();
}

} // namespace tarn::standard
