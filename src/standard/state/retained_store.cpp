// retained_store.cpp - see retained_store.h.
#include "retained_store.h"

#include "filter_match.h"

namespace tarn::standard {

// ---- storing

RetainedStore::Set RetainedStore::set(const MessageRef &message) noexcept
{
    const Set result = set_within_bounds(message);
    switch (result) {
    case Set::Stored:
        ++counters_.stored;
        break;
    case Set::Replaced:
        ++counters_.replaced;
        break;
    case Set::Full:
    case Set::NoMemory:
        ++counters_.refused;
        break;
    }
    return result;
}

RetainedStore::Set RetainedStore::set_within_bounds(const MessageRef &message) noexcept
{
    RetainedEntry *const entry = find_entry(message->topic());
    return entry ? replace(*entry, message) : store(message);
}

RetainedStore::Set RetainedStore::replace(RetainedEntry &entry, const MessageRef &message) noexcept
{
    const size_t old_size = entry.message->size();
    if (bytes() - old_size + message->size() > bounds_.bytes)
        return Set::Full;
    if (!set_due(entry, message->expires_ms()))
        return Set::NoMemory;
    message_bytes_ = message_bytes_ - old_size + message->size();
    entry.message  = message;
    return Set::Replaced;
}

RetainedStore::Set RetainedStore::store(const MessageRef &message) noexcept
{
    if (count() >= bounds_.messages || bytes() + message->size() > bounds_.bytes)
        return Set::Full;
    auto *const entry = make_object<RetainedEntry>();
    if (!entry)
        return Set::NoMemory;
    if (!fill(*entry, message)) {
        destroy_object(entry);
        return Set::NoMemory;
    }
    if (bytes() <= bounds_.bytes)
        return Set::Stored;
    discard(*entry); // the path to it was too much
    return Set::Full;
}

bool RetainedStore::fill(RetainedEntry &entry, const MessageRef &message) noexcept
{
    RetainedEntry::Node *const node = tree_.make(message->topic());
    if (!node)
        return false;
    if (!set_due(entry, message->expires_ms())) {
        tree_.release(node);
        return false;
    }
    node->value   = &entry;
    entry.node    = node;
    entry.message = message;
    link(entry);
    return true;
}

// False without memory, and then nothing changed: only an entry that was not in the heap needs more room there.
bool RetainedStore::set_due(RetainedEntry &entry, uint64_t due_ms) noexcept
{
    expiring_.remove(entry);
    entry.due_ms = due_ms;
    return due_ms == 0 || expiring_.add(entry);
}

// A checkpoint may hold more for a moment than there was at any time, and a host may have set lower bounds.
RetainedStore::Set RetainedStore::restore(const MessageRef &message) noexcept
{
    const RetainedBounds bounds = std::exchange(bounds_, {SIZE_MAX, SIZE_MAX});
    const Set            result = set_within_bounds(message);
    bounds_                     = bounds;
    return result;
}

void RetainedStore::link(RetainedEntry &entry) noexcept
{
    entry.previous                 = last_;
    (last_ ? last_->next : first_) = &entry;
    last_                          = &entry;
    message_bytes_ += entry.message->size();
    entries_.insert(entry, hash_(entry.message->topic()));
}

size_t RetainedStore::bytes() const noexcept
{
    return message_bytes_ + count() * sizeof(RetainedEntry) + tree_.bytes();
}

// ---- removing

bool RetainedStore::remove(std::string_view topic) noexcept
{
    RetainedEntry *const entry = find_entry(topic);
    if (!entry)
        return false;
    discard(*entry);
    ++counters_.removed;
    return true;
}

void RetainedStore::restore_removal(std::string_view topic) noexcept
{
    if (RetainedEntry *const entry = find_entry(topic))
        discard(*entry);
}

size_t RetainedStore::discard_expired(uint64_t now_ms, size_t budget) noexcept
{
    size_t discarded = 0;
    for (; discarded < budget; ++discarded) {
        RetainedEntry *const entry = expiring_.first();
        if (!entry || entry->due_ms > now_ms)
            break;
        discard(*entry);
    }
    counters_.expired += discarded;
    return discarded;
}

RetainedStore::~RetainedStore()
{
    while (first_)
        discard(*first_);
}

void RetainedStore::discard(RetainedEntry &entry) noexcept
{
    unlink(entry);
    expiring_.remove(entry);
    entry.node->value = nullptr;
    tree_.release(entry.node);
    destroy_object(&entry);
}

void RetainedStore::unlink(RetainedEntry &entry) noexcept
{
    for (RetainedInPieces *walk = walks_; walk; walk = walk->next_)
        if (walk->at_ == &entry)
            walk->at_ = entry.next;
    (entry.previous ? entry.previous->next : first_) = entry.next;
    (entry.next ? entry.next->previous : last_)      = entry.previous;
    message_bytes_ -= entry.message->size();
    entries_.remove(entry);
}

// ---- finding

RetainedEntry *RetainedStore::find_entry(std::string_view topic) const noexcept
{
    return entries_.find(hash_(topic), [&](const RetainedEntry &entry) { return entry.message->topic() == topic; });
}

MessageRef RetainedStore::find(std::string_view topic) const noexcept
{
    const RetainedEntry *const entry = find_entry(topic);
    return entry ? entry->message : MessageRef();
}

namespace {

using Tree = LevelTree<RetainedEntry>;
using Node = RetainedEntry::Node;

class RetainedWalk {
public:
    RetainedWalk(const Tree &tree, const Visitor<const RetainedEntry> &found) : tree_(tree), found_(found) {}

    void run(std::string_view filter)
    {
        if (read_levels(filter))
            visit(tree_.root());
    }

private:
    // False if no topic of the store can match, because it has none of the levels that the filter names.
    bool read_levels(std::string_view filter)
    {
        LevelReader reader(filter);
        for (std::string_view text; reader.next(text); ++count_)
            if (!(levels_[count_] = tree_.levels().find(text)))
                return false;
        return true;
    }

    // The filter begins with levels that match those of this node and above it.
    void visit(const Node &node)
    {
        if (node.depth == count_)
            give(node);
        else if (is_rest(node.depth))
            give_all(node);
        else if (is_plus(node.depth))
            follow_children(node);
        else if (const Node *const child = tree_.child(node, levels_[node.depth]))
            follow(*child);
    }

    void follow_children(const Node &node)
    {
        for (const Node *child = node.first_child; child; child = child->next)
            if (!is_hidden(*child))
                follow(*child);
    }

    // The filter begins with levels that match those above this node.
    void follow(const Node &node)
    {
        size_t depth = node.depth - node.length;
        for (const Level *const level : node.path()) {
            if (depth == count_)
                return;
            if (is_rest(depth))
                return give_all(node);
            if (!matches(*level, depth++))
                return;
        }
        visit(node);
    }

    bool matches(const Level &level, size_t depth) const
    {
        if (is_plus(depth))
            return depth + 1 < kMaxLevels || !level.holds_many();
        return levels_[depth] == &level;
    }

    // "#" stands for the level above it, too.
    void give_all(const Node &node)
    {
        give(node);
        for (const Node *child = node.first_child; child; child = child->next)
            if (!is_hidden(*child))
                give_all(*child);
    }

    bool is_plus(size_t depth) const { return levels_[depth] == tree_.levels().plus(); }
    bool is_rest(size_t depth) const { return levels_[depth] == tree_.levels().rest(); }

    // No wildcard stands for a first level with "$" [MQTT-4.7.2-1].
    bool is_hidden(const Node &child) const
    {
        return child.parent == &tree_.root() && child.path()[0]->text.starts_with('$');
    }

    void give(const Node &node)
    {
        if (node.value)
            found_(*node.value);
    }

    const Tree                         &tree_;
    const Visitor<const RetainedEntry> &found_;
    size_t                              count_              = 0;
    const Level                        *levels_[kMaxLevels] = {}; // of the filter
};

} // namespace

void RetainedStore::match_entries(std::string_view filter, const Visitor<const RetainedEntry> &found) const
{
    if (has_wildcard(filter))
        RetainedWalk(tree_, found).run(filter);
    else if (const RetainedEntry *const entry = find_entry(filter))
        found(*entry);
}

// ---- walks in pieces

void RetainedStore::begin(RetainedInPieces &walk) noexcept
{
    walk.end();
    walk.at_   = first_;
    walk.list_ = &walks_;
    walk.next_ = walks_;
    if (walks_)
        walks_->previous_ = &walk;
    walks_ = &walk;
}

void RetainedInPieces::end() noexcept
{
    if (!list_)
        return;
    (previous_ ? previous_->next_ : *list_) = next_;
    if (next_)
        next_->previous_ = previous_;
    list_     = nullptr;
    previous_ = next_ = nullptr;
}

} // namespace tarn::standard
