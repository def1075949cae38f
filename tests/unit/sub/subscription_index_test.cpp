// The indexed table against a table that is walked from the start, and against hosts that edit it by hand.
#include "sub/match_list.h"
#include "sub/sub.h"
#include "sub/subscription_index.h"

#include "base/thread.h"
#include "log/agent_log.h"
#include "support/faults.h"
#include "support/log_capture.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace tarn::test;
using tarn::sub::list_matches;
using tarn::sub::MatchList;

namespace {

// ---- the model: filters level by level, entries in a plain vector

using Levels = std::vector<std::string>;

Levels split(const std::string &text)
{
    Levels levels(1);
    for (const char c : text) {
        if (c == '/')
            levels.emplace_back();
        else
            levels.back() += c;
    }
    return levels;
}

bool model_valid(const std::string &filter)
{
    const Levels levels = split(filter);
    bool         plus   = false;
    if (filter.empty())
        return false;
    for (size_t i = 0; i < levels.size(); ++i) {
        const std::string &level = levels[i];
        if (level == "+")
            plus = true;
        else if (level == "#" && i + 1 == levels.size())
            return !plus;
        else if (level.find_first_of("+#") != level.npos)
            return false;
    }
    return true;
}

bool model_matches(std::string filter, const std::string &topic)
{
    if (filter.rfind("$share/", 0) == 0 && filter.find('/', 7) != filter.npos)
        filter = filter.substr(filter.find('/', 7) + 1);
    if (!model_valid(filter))
        return false;
    const Levels f = split(filter);
    Levels       t = split(topic);
    if (f.back() == "+" && t.size() == f.size() + 1 && t.back().empty())
        t.pop_back(); // a final '+' takes a final slash
    else if (f.back() == "+" && t.size() == f.size() && t.back().empty())
        return false; // but no empty level at the end
    for (size_t i = 0; i < f.size(); ++i) {
        if (f[i] == "#")
            return true;
        if (i >= t.size())
            return false;
        if (f[i] == "+" ? (i + 1 == t.size() && t[i].empty() && i + 1 < f.size()) : f[i] != t[i])
            return false;
        if (i + 1 == t.size())
            return i + 1 == f.size() || (i + 2 == f.size() && f[i + 1] == "#");
    }
    return f.size() == t.size();
}

struct Entry {
    std::string id, filter;
    uint32_t    qos, identifier;
    bool        operator==(const Entry &) const = default;
};

struct Model {
    std::vector<Entry> entries;

    int add(const std::string &id, const std::string &filter, uint32_t qos, uint32_t identifier)
    {
        if (!model_valid(filter))
            return -1;
        for (Entry &e : entries)
            if (e.id == id && e.filter == filter) {
                e.qos = qos;
                if (identifier)
                    e.identifier = identifier;
                return 0;
            }
        entries.push_back({id, filter, qos, identifier});
        return 0;
    }
    int remove(const std::string &id, const std::string *filter)
    {
        return static_cast<int>(
            std::erase_if(entries, [&](const Entry &e) { return e.id == id && (!filter || e.filter == *filter); }));
    }
    std::vector<Entry> match(const std::string &topic, size_t room) const
    {
        std::vector<Entry> found;
        for (const Entry &e : entries)
            if (found.size() < room && model_matches(e.filter, topic))
                found.push_back(e);
        return found;
    }
};

Entry as_entry(const sub_entry_t &e)
{
    return {e.client_id, e.topic_filter, e.qos, e.sub_identifier};
}

std::vector<Entry> table()
{
    std::vector<Entry> all;
    for (int i = 0; i < g_sub_mgr.sub_count; ++i)
        all.push_back(as_entry(g_sub_mgr.subs[i]));
    return all;
}

std::vector<Entry> matched(const std::string &topic, int room = 3000)
{
    static std::vector<sub_entry_t> area(3000);
    const int                       count = sub_match(topic.c_str(), area.data(), room);
    std::vector<Entry>              all;
    for (int i = 0; i < count; ++i)
        all.push_back(as_entry(area[static_cast<size_t>(i)]));
    return all;
}

std::vector<Entry> routed(const std::string &topic)
{
    static MatchList   list;
    std::vector<Entry> all;
    const int          count = list_matches(topic.c_str(), list);
    EXPECT_EQ(count, static_cast<int>(list.matches.size()));
    for (const auto &match : list.matches) {
        const sub_entry_t &e = g_sub_mgr.subs[match.index];
        EXPECT_STREQ(match.client_id, e.client_id);
        EXPECT_EQ(match.qos, e.qos);
        all.push_back(as_entry(e));
    }
    return all;
}

std::ostream &operator<<(std::ostream &out, const Entry &e)
{
    return out << e.id << ':' << e.filter;
}

// ---- random texts from few pieces, so that they meet often

struct Dice {
    std::mt19937 engine{20240607};
    unsigned     up_to(unsigned n) { return static_cast<unsigned>(engine() % n); }

    std::string topic()
    {
        static const char *const kLevels[] = {"a", "b",  "c",
                                              "",  "ab", "long-level-name-that-goes-beyond-the-first-words"};
        std::string              text;
        for (unsigned i = 0, n = 1 + up_to(5); i < n; ++i)
            text += (i ? "/" : "") + std::string(kLevels[up_to(6)]);
        return text;
    }
    std::string filter()
    {
        std::string  text   = topic();
        const Levels levels = split(text);
        text.clear();
        for (size_t i = 0; i < levels.size(); ++i)
            text += (i ? "/" : "") + (up_to(5) == 0 ? "+" : levels[i]);
        if (up_to(5) == 0)
            text += "/#";
        if (up_to(30) == 0)
            text = "#";
        if (up_to(8) == 0)
            text = "$share/" + std::string(up_to(2) ? "g" : "gg") + "/" + (up_to(9) ? text : "");
        return text;
    }
    std::string id() { return "client-" + std::to_string(up_to(40)); }
};

struct index_of_subscriptions : testing::Test {
    index_of_subscriptions()
    {
        agent_log_set_level(AGENT_LOG_FATAL);
        sub_init();
    }
    ManualClock clock;
    Model       model;
    Dice        dice;

    void add(const std::string &id, const std::string &filter, uint32_t qos = 0, uint32_t identifier = 0)
    {
        EXPECT_EQ(sub_add_with_id(id.c_str(), filter.c_str(), qos, 0, identifier),
                  model.add(id, filter, qos, identifier));
    }
    void fill(int count)
    {
        for (int i = 0; i < count; ++i)
            add("client-" + std::to_string(i), "fill/" + std::to_string(i));
    }
    // Writes into the exported array, as a host or a test may.
    void edit_by_hand(size_t place)
    {
        sub_entry_t &entry = g_sub_mgr.subs[place];
        Entry       &e     = model.entries[place];
        switch (dice.up_to(4)) {
        case 0:
            e.filter = dice.filter();
            strcpy(entry.topic_filter, e.filter.c_str());
            break;
        case 1:
            e.id = dice.id();
            strcpy(entry.client_id, e.id.c_str());
            break;
        case 2: // an invalid filter
            e.filter = "a#";
            strcpy(entry.topic_filter, "a#");
            break;
        case 3:
            g_sub_mgr.sub_count = static_cast<int>(place);
            model.entries.resize(place);
            break;
        }
    }
};

} // namespace

TEST_F(index_of_subscriptions, behaves_as_the_table_walked_from_the_start)
{
#ifdef TARN_SANITIZED
    constexpr int kSteps = 10000;
#else
    constexpr int kSteps = 40000;
#endif
    for (int step = 0; step < kSteps; ++step) {
        const std::string id     = dice.id();
        const std::string filter = dice.filter();
        const std::string topic  = dice.topic();
        const unsigned    action = dice.up_to(1000);
        if (action < 500) {
            add(id, filter, dice.up_to(3), dice.up_to(3));
        } else if (action < 700) {
            ASSERT_EQ(sub_remove(id.c_str(), filter.c_str()), model.remove(id, &filter));
        } else if (action < 706) {
            ASSERT_EQ(sub_remove(id.c_str(), nullptr), model.remove(id, nullptr));
        } else if (action < 850) {
            const auto room = static_cast<int>(1 + dice.up_to(400));
            ASSERT_EQ(matched(topic, room), model.match(topic, static_cast<size_t>(room))) << topic;
        } else if (action < 990) {
            ASSERT_EQ(routed(topic), model.match(topic, 10000)) << topic;
        } else if (!model.entries.empty()) {
            edit_by_hand(dice.up_to(static_cast<unsigned>(model.entries.size())));
        }
        ASSERT_EQ(g_sub_mgr.sub_count, static_cast<int>(model.entries.size()));
        if (step % 5000 == 0) {
            ASSERT_EQ(table(), model.entries) << step;
        }
    }
    EXPECT_EQ(table(), model.entries);
}

// ---- edits by hand, in tables of every size

namespace {

struct edits_by_hand : index_of_subscriptions, testing::WithParamInterface<int> {
    edits_by_hand()
    {
        fill(GetParam());
        EXPECT_EQ(routed("fill/7").size(), 1u); // the index was used already
    }
    const int last   = GetParam() - 1;
    const int places = GetParam();

    static void write(int place, const std::string &id, const std::string &filter)
    {
        strcpy(g_sub_mgr.subs[place].client_id, id.c_str());
        strcpy(g_sub_mgr.subs[place].topic_filter, filter.c_str());
    }
    static size_t standing(const std::string &id, const std::string &filter)
    {
        const std::vector<Entry> all = table();
        return static_cast<size_t>(
            std::count_if(all.begin(), all.end(), [&](const Entry &e) { return e.id == id && e.filter == filter; }));
    }
    // What routing finds on one of the library's own threads.
    static std::vector<Entry> routed_by_the_library(const std::string &topic)
    {
        struct Call {
            std::string        topic;
            std::vector<Entry> found;
        } call{topic, {}};
        const auto body = [](void *arg) -> void * {
            Call &it = *static_cast<Call *>(arg);
            it.found = routed(it.topic);
            return nullptr;
        };
        pthread_t thread = 0;
        EXPECT_EQ(tarn::start_thread(&thread, "router", body, &call), 0);
        tarn::join_or_detach(thread);
        return call.found;
    }
};

} // namespace

INSTANTIATE_TEST_SUITE_P(in_a_table_of, edits_by_hand, testing::Values(64, 65, 1000, 10000),
                         testing::PrintToStringParamName());

TEST_P(edits_by_hand, adding_updates_a_pair_that_was_written_in)
{
    for (const int place : {0, places / 2, last}) {
        const std::string id = "hand-" + std::to_string(place);
        write(place, id, "by/hand");
        EXPECT_EQ(sub_add(id.c_str(), "by/hand", 2, 0), 0);
        EXPECT_EQ(sub_add_with_id(id.c_str(), "by/hand", 1, 0, 9), 0);
        EXPECT_EQ(standing(id, "by/hand"), 1u);
        EXPECT_EQ(g_sub_mgr.subs[place].qos, 1u);
        EXPECT_EQ(g_sub_mgr.subs[place].sub_identifier, 9u);
    }
    EXPECT_EQ(g_sub_mgr.sub_count, places);
}

TEST_P(edits_by_hand, adding_appends_a_pair_that_was_written_over)
{
    write(3, "client-3", "other");
    const bool full = places == 10000;
    EXPECT_EQ(sub_add("client-3", "fill/3", 1, 0), full ? -4 : 0);
    EXPECT_EQ(g_sub_mgr.sub_count, full ? places : places + 1);
    EXPECT_EQ(routed("fill/3").size(), full ? 0u : 1u);
    EXPECT_EQ(routed("other").size(), 1u);
}

TEST_P(edits_by_hand, of_equal_pairs_the_first_is_updated_and_all_are_removed)
{
    const std::string id = "client-" + std::to_string(last), filter = "fill/" + std::to_string(last);
    write(5, id, filter);
    write(places / 2, id, filter);
    EXPECT_EQ(sub_add(id.c_str(), filter.c_str(), 2, 0), 0);
    EXPECT_EQ(g_sub_mgr.subs[5].qos, 2u);
    EXPECT_EQ(g_sub_mgr.subs[places / 2].qos, 0u);
    EXPECT_EQ(g_sub_mgr.subs[last].qos, 0u);
    EXPECT_EQ(sub_remove(id.c_str(), filter.c_str()), 3);
    EXPECT_EQ(standing(id, filter), 0u);
    EXPECT_EQ(g_sub_mgr.sub_count, places - 3);
    EXPECT_EQ(routed(filter).size(), 0u);
}

TEST_P(edits_by_hand, removing_takes_what_was_written_in_and_nothing_else)
{
    model.entries[8].filter = "by/hand";
    model.entries[9].id = model.entries[static_cast<size_t>(last)].id = "client-2";
    write(8, "client-8", "by/hand");
    strcpy(g_sub_mgr.subs[9].client_id, "client-2");
    strcpy(g_sub_mgr.subs[last].client_id, "client-2");
    const std::string gone = "fill/8", written = "by/hand";
    EXPECT_EQ(sub_remove("client-8", gone.c_str()), model.remove("client-8", &gone));
    EXPECT_EQ(sub_remove("client-8", written.c_str()), model.remove("client-8", &written));
    EXPECT_EQ(sub_remove("client-9", nullptr), model.remove("client-9", nullptr));
    EXPECT_EQ(sub_remove("client-2", nullptr), 3);
    EXPECT_EQ(model.remove("client-2", nullptr), 3);
    EXPECT_EQ(table(), model.entries);
    EXPECT_EQ(routed("fill/7"), model.match("fill/7", 9));
}

TEST_P(edits_by_hand, routing_and_matching_find_what_was_written_in_beside_others)
{
    const std::string filters[] = {"#", "fill/+", "fill/7", "$share/g/fill/7",
                                   std::string(60, 'x') + "/#"}; // the last one never fits
    size_t            fitting   = 1;
    int               place     = 10;
    for (const std::string &filter : filters) {
        place += (last - 10) / 5;
        write(place, "hand", filter);
        model.entries[static_cast<size_t>(place)] = {"hand", filter, 0, 0};
        fitting += model_matches(filter, "fill/7");
        EXPECT_EQ(routed("fill/7").size(), fitting) << filter;
        EXPECT_EQ(routed("fill/7"), model.match("fill/7", 9));
        EXPECT_EQ(matched("fill/7"), model.match("fill/7", 9));
    }
    EXPECT_EQ(fitting, 5u);
    write(7, "client-7", "over");
    EXPECT_EQ(routed("fill/7").size(), 4u);
    EXPECT_EQ(routed("over").size(), 2u) << "itself and #";
}

TEST_P(edits_by_hand, are_seen_between_changes_of_the_table)
{
    write(4, "hand", "#");
    sub_remove("client-6", nullptr); // the index follows this change without having seen the edit
    EXPECT_EQ(routed("fill/7").size(), 2u);
    write(4, "hand", "by/hand");
    add("new", "fill/7");
    EXPECT_EQ(routed("fill/7").size(), 2u);
    EXPECT_EQ(routed("by/hand").size(), 1u);
    EXPECT_EQ(sub_remove("hand", "by/hand"), 1);
    EXPECT_EQ(routed("by/hand").size(), 0u);
}

TEST_P(edits_by_hand, reach_the_librarys_threads_within_5_ms)
{
    EXPECT_EQ(routed_by_the_library("fill/7").size(), 1u);
    write(7, "client-7", "over");
    EXPECT_EQ(routed_by_the_library("fill/7").size(), 0u) << "what is found was looked at";
    write(last, "hand", "#");
    clock.advance_ms(5);
    ASSERT_EQ(routed_by_the_library("over").size(), 2u);
    write(last, "by-hand", "#");
    EXPECT_EQ(routed_by_the_library("over").back().id, "by-hand") << "ids are read from the table";
}

TEST_P(edits_by_hand, are_looked_for_before_nothing_is_found_on_the_librarys_threads)
{
    EXPECT_EQ(routed_by_the_library("by/hand").size(), 0u);
    EXPECT_EQ(routed_by_the_library("fill/7").size(), 1u);
    write(last, "hand", "by/hand");
    EXPECT_EQ(routed_by_the_library("by/hand").size(), 1u);
}

TEST_F(index_of_subscriptions, notices_edits_behind_the_first_characters)
{
    const std::string common(60, 'c');
    for (int i = 0; i < 3; ++i)
        add("c", common + std::to_string(i));
    EXPECT_EQ(routed(common + "x").size(), 0u);
    g_sub_mgr.subs[1].topic_filter[60] = 'x';
    EXPECT_EQ(routed(common + "x").size(), 1u);
    for (const size_t length : {45u, 46u, 47u, 48u}) { // around the end of the stretch that is read as words
        const std::string edge(length, 'e');
        add("c", edge);
        EXPECT_EQ(routed(edge + "x").size(), 0u);
        strcpy(g_sub_mgr.subs[g_sub_mgr.sub_count - 1].topic_filter, (edge + "x").c_str());
        EXPECT_EQ(routed(edge + "x").size(), 1u) << length;
    }
}

TEST_F(index_of_subscriptions, notices_that_a_filter_of_any_length_became_longer_shorter_or_another)
{
    for (size_t length = 2; length < 70; ++length) {
        sub_init();
        const std::string filter(length, 'e');
        ASSERT_EQ(sub_add("one", "a", 0, 0), 0);
        ASSERT_EQ(sub_add("two", filter.c_str(), 0, 0), 0);
        char *const written = g_sub_mgr.subs[1].topic_filter;
        EXPECT_EQ(routed(filter).size(), 1u);
        for (const std::string &next : {filter + "x", filter, filter.substr(1), filter, filter.substr(1) + "y"}) {
            const std::string before = written;
            strcpy(written, next.c_str());
            EXPECT_EQ(routed(before).size(), 0u) << length;
            EXPECT_EQ(routed(next).size(), 1u) << length;
        }
    }
}

TEST_F(index_of_subscriptions, follows_a_table_put_in_by_hand)
{
    fill(3);
    EXPECT_EQ(routed("fill/1").size(), 1u);
    std::vector<sub_entry_t> own(10000);
    strcpy(own[0].client_id, "own");
    strcpy(own[0].topic_filter, "own/topic");
    sub_entry_t *const before = g_sub_mgr.subs;
    g_sub_mgr.subs            = own.data();
    g_sub_mgr.sub_count       = 1;
    EXPECT_EQ(routed("own/topic").size(), 1u);
    EXPECT_EQ(routed("fill/1").size(), 0u);
    g_sub_mgr.subs      = before;
    g_sub_mgr.sub_count = 3;
    EXPECT_EQ(routed("fill/1").size(), 1u);
}

TEST_F(index_of_subscriptions, takes_out_equal_entries_made_by_hand)
{
    fill(2);
    g_sub_mgr.subs[1] = g_sub_mgr.subs[0];
    EXPECT_EQ(sub_remove("client-0", "fill/0"), 2);
    EXPECT_EQ(g_sub_mgr.sub_count, 0);
}

TEST_F(index_of_subscriptions, updates_the_first_of_equal_entries_made_by_hand)
{
    fill(3);
    g_sub_mgr.subs[2] = g_sub_mgr.subs[1];
    EXPECT_EQ(sub_add("client-1", "fill/1", 2, 0), 0);
    EXPECT_EQ(g_sub_mgr.subs[1].qos, 2u);
    EXPECT_EQ(g_sub_mgr.subs[2].qos, 0u);
}

TEST_F(index_of_subscriptions, stays_in_step_at_debug)
{
    fill(3);
    {
        LogCapture at_debug;
        sub_add("d", "debug", 0, 0);
        sub_remove("client-1", "fill/1");
    }
    EXPECT_EQ(routed("debug").size(), 1u);
    EXPECT_EQ(routed("fill/1").size(), 0u);
    EXPECT_EQ(routed("fill/2").size(), 1u);
}

TEST_F(index_of_subscriptions, starts_empty_with_an_emptied_table)
{
    fill(300);
    EXPECT_EQ(routed("fill/299").size(), 1u);
    sub_init();
    EXPECT_EQ(routed("fill/299").size(), 0u);
    for (int i = 0; i < 300; ++i) { // as many as before, by hand
        strcpy(g_sub_mgr.subs[i].client_id, "c");
        strcpy(g_sub_mgr.subs[i].topic_filter, "same");
    }
    g_sub_mgr.sub_count = 300;
    EXPECT_EQ(routed("same").size(), 300u);
}

TEST_F(index_of_subscriptions, finds_filters_of_many_shapes)
{
    std::vector<std::string> filters;
    for (int shape = 1; shape < 256; ++shape) { // which of eight levels are '+'
        std::string filter;
        for (int level = 0; level < 8; ++level)
            filter += (level ? "/" : "") + (shape >> level & 1 ? "+" : std::to_string(level));
        filters.push_back(filter);
        add("c", filter);
    }
    EXPECT_EQ(routed("0/1/2/3/4/5/6/7").size(), 255u);
    EXPECT_EQ(routed("0/1/2/3/4/5/6/x").size(), 128u);
    EXPECT_EQ(routed("0/1/2/3/4/5/6/7/").size(), 128u); // those that end in '+'
    EXPECT_EQ(routed("0/1/2/3/4/5/6").size(), 0u);
    for (size_t i = 0; i < filters.size(); i += 2)
        EXPECT_EQ(sub_remove("c", filters[i].c_str()), 1);
    EXPECT_EQ(routed("0/1/2/3/4/5/6/7").size(), 127u);
    add("c", "+/+");
    EXPECT_EQ(routed("a/b").size(), 1u);
    EXPECT_EQ(sub_remove("c", nullptr), 128);
    EXPECT_EQ(routed("a/b").size(), 0u);
}

// There are as many places for shapes as entries: one that was kept for good would soon leave none.
TEST_F(index_of_subscriptions, forgets_shapes_that_no_filter_has)
{
    for (unsigned shape = 1; shape <= SUB_CAPACITY + 1000; ++shape) {
        std::string filter = "+/a";
        std::string topic  = "x/a";
        for (int level = 0; level < 14; ++level) {
            filter += shape >> level & 1 ? "/+" : "/a";
            topic += "/a";
        }
        EXPECT_EQ(sub_add("c", filter.c_str(), 0, 0), 0);
        EXPECT_EQ(routed(topic).size(), 1u) << filter;
        EXPECT_EQ(sub_remove("c", nullptr), 1); // and its shape goes
    }
    EXPECT_EQ(routed("x/a").size(), 0u);
}

TEST_F(index_of_subscriptions, finds_filters_with_more_levels_than_a_shape_has)
{
    for (const int levels : {63, 64, 65, 66, 128}) {
        std::string topic = "t";
        for (int level = 1; level < levels; ++level)
            topic += "/t";
        const std::string up_to_last = topic.substr(0, topic.size() - 1);
        add("c", "+" + topic.substr(1));
        add("c", up_to_last + "+");
        add("c", up_to_last + "#");
        add("c", topic);
        EXPECT_EQ(routed(topic).size(), 4u) << levels;
        EXPECT_EQ(routed(topic + "/").size(), 2u) << levels;
        sub_remove("c", nullptr);
    }
}

TEST_F(index_of_subscriptions, works_in_the_full_table)
{
    fill(10000);
    EXPECT_EQ(routed("fill/9999").size(), 1u);
    EXPECT_EQ(sub_remove("client-0", nullptr), 1);
    EXPECT_EQ(routed("fill/9999").size(), 1u);
    add("x", "#");
    EXPECT_EQ(routed("fill/9999").size(), 2u);
    EXPECT_EQ(matched("fill/5000").size(), 2u);
}

TEST(index_of_subscriptions_threads, share_the_table)
{
    agent_log_set_level(AGENT_LOG_FATAL);
    sub_init();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            const std::string id = "thread-" + std::to_string(t);
            MatchList         list;
            sub_entry_t       found;
            for (int i = 0; i < 300; ++i) {
                const std::string filter = std::to_string(i % 90) + (i % 3 ? "/+" : "/#");
                const std::string topic  = std::to_string(i % 90) + "/x";
                EXPECT_EQ(sub_add(id.c_str(), filter.c_str(), 1, 0), 0);
                EXPECT_GE(list_matches(topic.c_str(), list), 1);
                EXPECT_EQ(sub_match(topic.c_str(), &found, 1), 1);
                EXPECT_EQ(sub_find_by_identifier(1, &found), -1);
                if (i % 50 == 49) {
                    EXPECT_GE(sub_remove(id.c_str(), nullptr), 1);
                }
            }
            EXPECT_GE(sub_get_client_sub_count(id.c_str()), 0);
        });
    for (std::thread &thread : threads)
        thread.join();
}
