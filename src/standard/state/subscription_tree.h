// subscription_tree.h - which sessions subscribed to what, and which of these subscriptions a topic matches.
//
// A filter without wildcards is found by one look-up of the whole topic, so any number of them costs a publish nothing.
// Filters with wildcards stand in a tree. A walk goes on from a node by the topic's level, by "+" and by "#", and comes
// to a node at most once: of honest filters to a few, and at worst to less than two for each that is stored, comparing
// at most kMaxLevels addresses for each. What a topic matches is not remembered: that would save less than keeping it
// right costs. But the filter that was looked up last is at hand, as a publisher's messages come on one topic after each
// other.
//
// No locks: the engine's mutex is held around every call. match() takes no memory, and what it calls must not change
// the tree.
#ifndef TARN_STANDARD_SUBSCRIPTION_TREE_H
#define TARN_STANDARD_SUBSCRIPTION_TREE_H

#include "../../base/memory.h"
#include "level_tree.h"

#include <cstdint>
#include <iterator>
#include <string_view>

namespace tarn::standard {

struct SubscriptionOptions {
    uint32_t identifier          = 0; // 0 = none
    uint8_t  qos                 = 0;
    uint8_t  retain_handling     = 0;
    bool     no_local            = false;
    bool     retain_as_published = false;

    bool operator==(const SubscriptionOptions &) const = default;
};

struct Filter;
struct SessionSubscriptions;
class SharedGroup;

// One subscription of one session.
class Subscription : public InTable<Subscription> {
public:
    uint64_t                   session() const { return session_; }
    std::string_view           group() const;  // of "$share/group/filter"; empty if it is not shared
    std::string_view           filter() const; // without "$share/group/"
    const SubscriptionOptions &options() const;
    const Subscription        *next() const { return next_; } // of the session, in the order of subscribing

private:
    friend class SubscriptionTree;
    friend class Subscribers;
    friend class SubscriptionsOfSession;

    class Subscribers *subscribers() const; // among which it stands

    uint64_t              session_  = 0;
    size_t                position_ = 0; // among its subscribers
    Filter               *filter_   = nullptr;
    SharedGroup          *group_    = nullptr;
    SessionSubscriptions *list_     = nullptr;
    Subscription         *next_     = nullptr; // of the session
    Subscription         *previous_ = nullptr;
};

struct Subscriber {
    uint64_t            session = 0;
    SubscriptionOptions options;
    Subscription       *subscription = nullptr;
};

// Those of one filter or one shared group, side by side in memory.
class Subscribers {
public:
    bool              empty() const { return size_ == 0; }
    size_t            size() const { return size_; }
    Subscriber       &operator[](size_t position) { return array_[position]; }
    const Subscriber &operator[](size_t position) const { return array_[position]; }
    const Subscriber *begin() const { return array_.get(); }
    const Subscriber *end() const { return array_.get() + size_; }

private:
    friend class SubscriptionTree;

    [[nodiscard]] bool add(Subscription &subscription, const SubscriptionOptions &options) noexcept;
    void               remove(const Subscription &subscription) noexcept; // the last takes its place

    owned<Subscriber> array_;
    size_t            size_     = 0;
    size_t            capacity_ = 0;
};

// The members of one "$share/name/filter", of which one gets each message.
class SharedGroup {
public:
    std::string_view text; // its name

    const Subscribers &members() const { return members_; }

    // The member whose turn it is among those for which is_able(session, options) is true; null if there is none.
    template <class IsAble> const Subscriber *next(IsAble &&is_able)
    {
        for (size_t i = 0; i < members_.size(); ++i) {
            if (turn_ >= members_.size())
                turn_ = 0;
            const Subscriber &member = members_[turn_++];
            if (is_able(member.session, member.options))
                return &member;
        }
        return nullptr;
    }

private:
    friend class SubscriptionTree;
    friend class Subscription;

    Subscribers  members_;
    size_t       turn_       = 0;       // who is asked next
    SharedGroup *next_group_ = nullptr; // of the same filter
};

// A filter that has subscribers; "$share/group/" is no part of it.
struct Filter : InTable<Filter> {
    using Node = LevelTree<Filter>::Node;

    std::string_view text;
    Subscribers      plain;            // not shared
    SharedGroup     *groups = nullptr; // none is empty
    Node            *node   = nullptr; // null without wildcards
};

// All of one session, in the order of subscribing.
struct SessionSubscriptions : InTable<SessionSubscriptions> {
    uint64_t      session = 0;
    size_t        count   = 0;
    Subscription *first   = nullptr;
    Subscription *last    = nullptr;
};

// for (const Subscription &subscription : tree.of(session)); the tree is not changed meanwhile.
class SubscriptionsOfSession {
public:
    explicit SubscriptionsOfSession(const Subscription *first) : first_(first) {}

    class Iterator {
    public:
        explicit Iterator(const Subscription *at) : at_(at) {}
        const Subscription &operator*() const { return *at_; }
        const Subscription *operator->() const { return at_; }
        Iterator           &operator++()
        {
            at_ = at_->next_;
            return *this;
        }
        bool operator==(std::default_sentinel_t /*end*/) const { return at_ == nullptr; }

    private:
        const Subscription *at_;
    };

    Iterator                begin() const { return Iterator(first_); }
    std::default_sentinel_t end() const { return {}; }
    const Subscription     *first() const { return first_; } // null: there is none

private:
    const Subscription *first_;
};

class SubscriptionTree {
public:
    enum class Added { New, Replaced, TooDeep, NoMemory };

    SubscriptionTree() = default;
    ~SubscriptionTree();
    SubscriptionTree(const SubscriptionTree &)            = delete;
    SubscriptionTree &operator=(const SubscriptionTree &) = delete;

    // Filters are as clients send them, "$share/group/filter" too, and were checked to be filters. One with wildcards
    // may have kMaxLevels levels: deeper trees would let a few clients make each publish slow.
    Added add(uint64_t session, std::string_view filter, const SubscriptionOptions &options) noexcept;
    bool  remove(uint64_t session, std::string_view filter) noexcept; // false: there was none
    void  remove_all_of(uint64_t session) noexcept;

    const Subscription    *find(uint64_t session, std::string_view filter) const noexcept; // null: there is none
    SubscriptionsOfSession of(uint64_t session) const noexcept;
    size_t                 count_of(uint64_t session) const noexcept;
    size_t                 count() const noexcept { return subscriptions_.size(); }

    // The subscription that a walk in pieces through those of a session comes to next; it is moved on when that
    // subscription goes.
    const Subscription *&cursor() noexcept { return cursor_; }

    // Calls sink.plain(session, options) for each subscription that is not shared and matches, and sink.shared(group)
    // for each shared group that does, in no order. A session with several filters is called for each of them.
    template <class Sink> void match(std::string_view topic, Sink &&sink) const
    {
        auto give = [&sink](Filter &filter) {
            for (const Subscriber &subscriber : filter.plain)
                sink.plain(subscriber.session, subscriber.options);
            for (SharedGroup *group = filter.groups; group; group = group->next_group_)
                sink.shared(*group);
        };
        if (Filter *const exact = find_filter(topic))
            give(*exact);
        if (tree_.nodes() > 0)
            match_wildcards(topic, Visitor<Filter>(give));
    }

private:
    struct Parts;
    static Parts parts_of(std::string_view filter) noexcept;

    void match_wildcards(std::string_view topic, const Visitor<Filter> &found) const;

    Filter               *find_filter(std::string_view text) const noexcept;
    SessionSubscriptions *find_session(uint64_t session) const noexcept;
    SharedGroup          *find_group(const Filter &filter, std::string_view name) const noexcept;
    Subscription         *find(uint64_t session, const Parts &parts) const noexcept;

    Filter               *find_or_make_filter(std::string_view text) noexcept;
    SharedGroup          *find_or_make_group(Filter &filter, std::string_view name) noexcept;
    SessionSubscriptions *find_or_make_session(uint64_t session) noexcept;

    Added make_subscription(uint64_t session, const Parts &parts, const SubscriptionOptions &options) noexcept;
    bool  link(Subscription &subscription, const SubscriptionOptions &options) noexcept;
    void  unlink(Subscription &subscription) noexcept;
    void  remove(Subscription &subscription) noexcept;
    void  discard_unused(Filter *filter, SharedGroup *group, SessionSubscriptions *list) noexcept;
    void  discard(Filter &filter, SharedGroup &group) noexcept;
    void  discard(Filter &filter) noexcept;

    LevelTree<Filter>               tree_; // of the filters with wildcards
    TextHash                        hash_;
    HashTable<Filter>               filters_;              // by text
    HashTable<SessionSubscriptions> sessions_;             // by number
    HashTable<Subscription>         subscriptions_;        // by session, filter and group
    mutable Filter                 *last_found_ = nullptr; // by text
    const Subscription             *cursor_     = nullptr;
};

} // namespace tarn::standard

#endif
