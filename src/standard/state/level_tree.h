// level_tree.h - values by path: the tree below subscriptions and below retained messages.
//
// Where paths part, or one of them ends, is a node; the levels between two nodes stand side by side in the lower one.
// So n values make less than 2 n nodes, however deep they are, and what a walk costs depends on their number.
#ifndef TARN_STANDARD_LEVEL_TREE_H
#define TARN_STANDARD_LEVEL_TREE_H

#include "levels.h"
#include "object.h"

#include <algorithm>
#include <span>

namespace tarn::standard {

// The values belong to the caller. Each node but the root has a value or at least two children.
template <class Value> class LevelTree {
public:
    struct Node : InTable<Node> {
        Node   *parent      = nullptr;
        Node   *first_child = nullptr;
        Node   *plus        = nullptr; // the child whose path begins with "+", which is in no table
        Node   *rest        = nullptr; // the child "#", likewise
        Node   *next        = nullptr; // child of the same parent
        Node   *previous    = nullptr;
        Value  *value       = nullptr;
        Level **levels      = nullptr; // all from the root, of which only those of the path are filled in
        size_t  depth       = 0;       // how many that is
        size_t  length      = 0;       // of the path

        // The levels between the parent and what is below this node.
        std::span<Level *> path() const noexcept { return {levels + depth - length, length}; }
    };

    LevelTree()                             = default;
    LevelTree(const LevelTree &)            = delete;
    LevelTree &operator=(const LevelTree &) = delete;

    const LevelNames &levels() const noexcept { return levels_; }
    const Node       &root() const noexcept { return root_; }
    size_t            nodes() const noexcept { return nodes_; } // without the root
    size_t            bytes() const noexcept { return node_bytes_ + levels_.bytes(); }

    // The child whose path begins with this level, which is no wildcard.
    const Node *child(const Node &node, const Level *level) const noexcept
    {
        return table_.find(hash_pair(&node, level),
                           [&](const Node &child) { return child.parent == &node && child.path()[0] == level; });
    }

    // The node of a path of at most kMaxLevels levels, made if there is none; null without memory. The caller gives it
    // a value, or releases it.
    [[nodiscard]] Node *make(std::string_view text) noexcept
    {
        HeldPath    path;
        Node *const node = hold(text, path) ? make(path.levels()) : nullptr;
        for (Level *const level : path.levels())
            levels_.let_go(level);
        return node;
    }

    // Removes a node without value, where nothing is below or parts there.
    void release(Node *node) noexcept
    {
        while (node != &root_ && !node->value && !node->first_child) {
            Node *const parent = node->parent;
            unlink(*node);
            for (Level *const level : node->path())
                levels_.let_go(level);
            destroy(node);
            node = parent;
        }
        if (node != &root_ && !node->value && !node->first_child->next)
            join(*node, *node->first_child);
    }

private:
    struct HeldPath {
        Level *array[kMaxLevels];
        size_t count = 0;

        std::span<Level *> levels() noexcept { return {array, count}; }
    };

    // False without memory; what is held by then is in the path.
    bool hold(std::string_view text, HeldPath &path) noexcept
    {
        LevelReader reader(text);
        for (std::string_view level; reader.next(level); ++path.count)
            if (!(path.array[path.count] = levels_.hold(level)))
                return false;
        return true;
    }

    Node *make(std::span<Level *> path) noexcept
    {
        Node *const above = descend(path);
        if (!above || above->depth == path.size())
            return above;
        Node *const node = allocate_node(path.size());
        if (!node) {
            release(above);
            return nullptr;
        }
        fill_in(*node, path.subspan(above->depth));
        for (Level *const level : node->path())
            levels_.hold(*level);
        link(*above, *node);
        return node;
    }

    // The node at which a path of the tree ends, or a new one parts from it; null without memory.
    Node *descend(std::span<Level *> path) noexcept
    {
        Node *node = &root_;
        while (node && node->depth < path.size()) {
            Node *const child = find(*node, path[node->depth]);
            if (!child)
                break;
            const size_t shared = count_shared(child->path(), path.subspan(node->depth));
            node                = shared < child->length ? split(*child, shared) : child;
        }
        return node;
    }

    static size_t count_shared(std::span<Level *> a, std::span<Level *> b) noexcept
    {
        return static_cast<size_t>(std::ranges::mismatch(a, b).in1 - a.begin());
    }

    // Puts a node in the middle of a path.
    Node *split(Node &lower, size_t upper_length) noexcept
    {
        Node &parent = *lower.parent;
        Node *upper  = allocate_node(parent.depth + upper_length);
        if (!upper)
            return nullptr;
        unlink(lower);
        fill_in(*upper, lower.path().first(upper_length));
        lower.length -= upper_length;
        link(parent, *upper);
        link(*upper, lower);
        return upper;
    }

    // The opposite. It needs no memory, since a node has room for all levels from the root.
    void join(Node &upper, Node &lower) noexcept
    {
        Node &parent = *upper.parent;
        unlink(lower);
        unlink(upper);
        lower.length += upper.length;
        std::ranges::copy(upper.path(), lower.path().begin());
        link(parent, lower);
        destroy(&upper);
    }

    static void fill_in(Node &node, std::span<Level *> path) noexcept
    {
        node.length = path.size();
        std::ranges::copy(path, node.path().begin());
    }

    Node *find(Node &parent, const Level *level) noexcept
    {
        if (Node *const *wildcard = wildcard_of(parent, level))
            return *wildcard;
        return const_cast<Node *>(child(parent, level));
    }

    Node **wildcard_of(Node &parent, const Level *level) noexcept
    {
        if (level == levels_.plus())
            return &parent.plus;
        return level == levels_.rest() ? &parent.rest : nullptr;
    }

    void link(Node &parent, Node &node) noexcept
    {
        node.parent   = &parent;
        node.previous = nullptr;
        node.next     = parent.first_child;
        if (node.next)
            node.next->previous = &node;
        parent.first_child = &node;
        if (Node **const wildcard = wildcard_of(parent, node.path()[0]))
            *wildcard = &node;
        else
            table_.insert(node, hash_pair(&parent, node.path()[0]));
    }

    void unlink(Node &node) noexcept
    {
        Node &parent                                               = *node.parent;
        (node.previous ? node.previous->next : parent.first_child) = node.next;
        if (node.next)
            node.next->previous = node.previous;
        if (Node **const wildcard = wildcard_of(parent, node.path()[0]))
            *wildcard = nullptr;
        else
            table_.remove(node);
    }

    static size_t size_of(size_t depth) noexcept { return sizeof(Node) + depth * sizeof(void *); }

    Node *allocate_node(size_t depth) noexcept
    {
        void *const block = malloc(size_of(depth));
        if (!block)
            return nullptr;
        Node *const node = new (block) Node();
        node->levels     = reinterpret_cast<Level **>(node + 1);
        node->depth      = depth;
        ++nodes_;
        node_bytes_ += size_of(depth);
        return node;
    }

    void destroy(Node *node) noexcept
    {
        --nodes_;
        node_bytes_ -= size_of(node->depth);
        destroy_object(node);
    }

    LevelNames      levels_;
    HashTable<Node> table_; // by parent and first level
    Node            root_;
    size_t          nodes_      = 0;
    size_t          node_bytes_ = 0;
};

} // namespace tarn::standard

#endif
