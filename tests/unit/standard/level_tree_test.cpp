// Levels of topics, and the tree that they make.
#include "standard/state/level_tree.h"
#include "support/faults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace tarn::standard;
using namespace tarn::test;
using testing::ElementsAre;

namespace {

using Tree = LevelTree<int>;

std::vector<std::string> levels_of(std::string_view text)
{
    std::vector<std::string> levels;
    LevelReader              reader(text);
    for (std::string_view level; reader.next(level);)
        levels.emplace_back(level);
    return levels;
}

std::string path_of(const Tree::Node &node)
{
    std::string path;
    for (const Level *level : node.path())
        path += (path.empty() ? "" : "/") + std::string(level->text);
    return path;
}

} // namespace

TEST(standard_levels, stand_between_slashes)
{
    EXPECT_THAT(levels_of("a"), ElementsAre("a"));
    EXPECT_THAT(levels_of("a/bc/d"), ElementsAre("a", "bc", "d"));
    EXPECT_THAT(levels_of("/"), ElementsAre("", ""));
    EXPECT_THAT(levels_of("a//b/"), ElementsAre("a", "", "b", ""));
    EXPECT_THAT(levels_of(""), ElementsAre(""));
}

TEST(standard_levels, are_bounded_and_the_last_holds_the_rest)
{
    const std::string slashes(kMaxLevels - 1, '/');
    EXPECT_EQ(levels_of(slashes).size(), kMaxLevels);
    EXPECT_EQ(levels_of(slashes).back(), "");
    EXPECT_EQ(levels_of(slashes + "x/y").size(), kMaxLevels);
    EXPECT_EQ(levels_of(slashes + "x/y").back(), "x/y");
    EXPECT_EQ(levels_of(std::string(65535, '/')).size(), kMaxLevels);
}

TEST(standard_level_names, are_stored_once)
{
    LevelNames   names;
    const size_t nothing = names.bytes();
    EXPECT_EQ(names.find("a"), nullptr);
    Level *const one = names.hold("a"), *const two = names.hold("a"), *const empty = names.hold("");
    EXPECT_EQ(one, two);
    EXPECT_NE(one, empty);
    EXPECT_EQ(names.find("a"), one);
    EXPECT_EQ(names.find(""), empty);
    EXPECT_EQ(names.bytes(), nothing + 2 * sizeof(Level) + 1);
    names.let_go(one);
    EXPECT_EQ(names.find("a"), one);
    names.let_go(two);
    names.let_go(empty);
    EXPECT_EQ(names.find("a"), nullptr);
    EXPECT_EQ(names.bytes(), nothing);
}

TEST(standard_level_names, know_the_wildcards)
{
    LevelNames names;
    EXPECT_EQ(names.find("+"), names.plus());
    EXPECT_EQ(names.find("#"), names.rest());
    names.let_go(names.hold("+"));
    EXPECT_EQ(names.find("+"), names.plus());
}

// A tree with a value at each of its paths.
struct Values {
    explicit Values(std::initializer_list<std::string_view> paths)
    {
        for (const std::string_view path : paths)
            add(path);
    }
    ~Values()
    {
        while (!nodes.empty())
            remove(nodes.begin()->first);
        EXPECT_EQ(tree.nodes(), 0u);
        EXPECT_EQ(tree.bytes(), 0u);
    }

    void add(std::string_view path)
    {
        Tree::Node *const node   = tree.make(path);
        node->value              = &value;
        nodes[std::string(path)] = node;
    }
    void remove(const std::string &path)
    {
        Tree::Node *const node = nodes.at(path);
        nodes.erase(path);
        node->value = nullptr;
        tree.release(node);
    }
    Tree::Node &at(const std::string &path) { return *nodes.at(path); }

    Tree                                tree;
    int                                 value = 0;
    std::map<std::string, Tree::Node *> nodes;
};

TEST(standard_level_tree, has_nodes_where_paths_end_or_part)
{
    Values values({"a/b/c/d"});
    EXPECT_EQ(values.tree.nodes(), 1u);
    EXPECT_EQ(path_of(values.at("a/b/c/d")), "a/b/c/d");

    values.add("a/b/x"); // parts
    EXPECT_EQ(values.tree.nodes(), 3u);
    EXPECT_EQ(path_of(values.at("a/b/c/d")), "c/d");
    EXPECT_EQ(path_of(values.at("a/b/x")), "x");
    EXPECT_EQ(values.at("a/b/x").parent, values.at("a/b/c/d").parent);
    EXPECT_EQ(path_of(*values.at("a/b/x").parent), "a/b");

    values.add("a"); // ends
    EXPECT_EQ(values.tree.nodes(), 4u);
    EXPECT_EQ(path_of(values.at("a")), "a");
    EXPECT_EQ(path_of(*values.at("a/b/x").parent), "b");

    values.add("a/b/x/y"); // goes on
    EXPECT_EQ(values.tree.nodes(), 5u);
    EXPECT_EQ(path_of(values.at("a/b/x/y")), "y");
}

TEST(standard_level_tree, finds_the_node_of_a_path_again)
{
    Values values({"a/b/c/d", "a/b/x", "a", "", "/", "//"});
    for (const auto &[path, node] : values.nodes)
        EXPECT_EQ(values.tree.make(path), node) << path;
    Tree::Node *const root_child = &values.at("a");
    EXPECT_EQ(values.tree.child(values.tree.root(), values.tree.levels().find("a")), root_child);
    EXPECT_EQ(values.tree.child(values.tree.root(), values.tree.levels().find("b")), nullptr);
    EXPECT_EQ(values.tree.child(*root_child, values.tree.levels().find("unknown")), nullptr);
}

TEST(standard_level_tree, joins_what_nothing_parts_any_more)
{
    Values values({"a", "a/b/c/d", "a/b/x", "z"});
    values.remove("a/b/x");
    EXPECT_EQ(values.tree.nodes(), 3u);
    EXPECT_EQ(path_of(values.at("a/b/c/d")), "b/c/d");
    values.remove("a"); // no value, and one below
    EXPECT_EQ(values.tree.nodes(), 2u);
    EXPECT_EQ(path_of(values.at("a/b/c/d")), "a/b/c/d");
    EXPECT_EQ(values.at("a/b/c/d").parent, &values.tree.root());
    values.add("a/b");
    values.add("a/b/x");
    values.remove("a/b"); // two below: stays as it is
    EXPECT_EQ(values.tree.nodes(), 4u);
}

TEST(standard_level_tree, keeps_nodes_with_values)
{
    Values values({"a", "a/b"});
    values.tree.release(&values.at("a"));
    EXPECT_EQ(path_of(values.at("a/b")), "b");
    values.remove("a/b");
    EXPECT_EQ(path_of(values.at("a")), "a");
    values.tree.release(values.tree.make("a/b/c")); // one that gets no value
    EXPECT_EQ(values.tree.nodes(), 1u);
    values.add("a/x/y");
    values.tree.release(values.tree.make("a/x")); // in the middle of a path
    EXPECT_EQ(values.tree.nodes(), 2u);
}

TEST(standard_level_tree, has_wildcards_at_hand)
{
    Values            values({"a/b", "a/+/c", "a/#"});
    Tree::Node *const a = values.at("a/b").parent;
    EXPECT_EQ(a->plus, &values.at("a/+/c"));
    EXPECT_EQ(a->rest, &values.at("a/#"));
    values.add("a/+");
    EXPECT_EQ(a->plus, &values.at("a/+"));
    values.remove("a/+");
    EXPECT_EQ(a->plus, &values.at("a/+/c"));
    values.remove("a/#");
    EXPECT_EQ(a->rest, nullptr);
    values.remove("a/+/c");
    EXPECT_EQ(values.tree.nodes(), 1u);
}

TEST(standard_level_tree, lists_children_also_after_one_in_the_middle_went)
{
    Values values({"x", "y", "z"});
    values.remove("y");
    EXPECT_EQ(values.tree.root().first_child, &values.at("z"));
    EXPECT_EQ(values.at("z").next, &values.at("x"));
    EXPECT_EQ(values.at("x").previous, &values.at("z"));
    values.remove("z");
    EXPECT_EQ(values.tree.root().first_child, &values.at("x"));
    EXPECT_EQ(values.at("x").previous, nullptr);
}

TEST(standard_level_tree, has_fewer_nodes_than_twice_its_values)
{
    Values       values({});
    std::mt19937 random(3);
    for (int step = 0; step < 2000; ++step) {
        std::string path;
        for (size_t left = 1 + random() % 6; left > 0; --left)
            path += "ab+"[random() % 3] + std::string(left > 1 ? "/" : "");
        if (values.nodes.contains(path))
            values.remove(path);
        else
            values.add(path);
        ASSERT_LE(values.tree.nodes(), 2 * values.nodes.size());
    }
    for (const auto &[path, node] : values.nodes)
        EXPECT_EQ(values.tree.make(path), node) << path;
}

TEST(standard_level_tree, without_memory_leaves_nothing_behind)
{
    int failed = 1, refused = 0;
    for (int nth = 1; failed > 0; ++nth) {
        Values       values({"a/b/c"});
        const size_t before = values.tree.bytes();
        Tree::Node  *made   = nullptr;
        {
            Fail no_memory(Call::Allocate, nth);
            made   = values.tree.make("a/+/d");
            failed = no_memory.failed();
        }
        if (made)
            values.tree.release(made);
        else
            ++refused;
        EXPECT_EQ(values.tree.bytes(), before);
        EXPECT_EQ(path_of(values.at("a/b/c")), "a/b/c");
    }
    EXPECT_EQ(refused, 3); // the name "d", the node where the paths part, and the new one
}
