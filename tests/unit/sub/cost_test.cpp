// What adding and removing cost in a full table, and that they do the same on the library's own threads, which ask the
// index, as on a host's.
#include "log/agent_log.h"
#include "sub/sub.h"
#include "sub/subscription_index.h"
#include "support/faults.h"
#include "support/library_thread.h"
#include "support/log_capture.h"
#include "support/log_lines/sub.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <utility>
#include <vector>

using namespace tarn::test;
using testing::ElementsAre;

namespace {

class cost : public testing::Test {
protected:
    cost() { sub_init(); }
    ~cost() override { sub_deinit(); }

    static std::string filter(int i) { return "building/floor/room/" + std::to_string(i); }
    static void        fill(int count, const char *id = "dev1")
    {
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(sub_add(id, filter(i).c_str(), 1, 1), 0);
    }
    static std::vector<std::pair<std::string, std::string>> table()
    {
        std::vector<std::pair<std::string, std::string>> entries;
        for (int i = 0; i < g_sub_mgr.sub_count; ++i)
            entries.emplace_back(g_sub_mgr.subs[i].client_id, g_sub_mgr.subs[i].topic_filter);
        return entries;
    }

    LogCapture log_{AGENT_LOG_WARN};
};

} // namespace

TEST_F(cost, several_filters_leave_a_full_table_in_one_pass)
{
    fill(SUB_CAPACITY);
    for (const bool on_library : {false, true}) {
        std::vector<std::string> texts;
        for (int i = 0; i < CODEC_FILTERS_MAX; ++i)
            texts.push_back(filter(100 * (i + 1) + (on_library ? 1 : 0)));
        std::vector<const char *> filters;
        for (const std::string &text : texts)
            filters.push_back(text.c_str());
        const int32_t  before = g_sub_mgr.sub_count;
        const uint64_t moved  = tarn::sub::g_entries_moved;
        const auto     remove = [&] {
            tarn::sub::Removal removal("dev1", filters);
            for (size_t at = 0; at < filters.size(); ++at)
                EXPECT_EQ(removal.log_and_count(at), 1) << at;
        };
        on_library ? on_a_library_thread(remove) : remove();
        EXPECT_EQ(g_sub_mgr.sub_count, before - CODEC_FILTERS_MAX);
        EXPECT_LT(tarn::sub::g_entries_moved - moved, uint64_t{SUB_CAPACITY});
    }
}

// The same filter twice in a packet: the first one removes.
TEST_F(cost, several_removals_have_the_lines_and_counts_of_one_by_one)
{
    fill(100);
    const std::string one = filter(7), other = filter(9);
    for (const uint32_t level : {AGENT_LOG_INFO, AGENT_LOG_DEBUG}) {
        sub_add("dev1", one.c_str(), 1, 1);
        const char *const  filters[] = {one.c_str(), "no", one.c_str(), other.c_str()};
        LogCapture         log(level);
        std::vector<int>   counts;
        tarn::sub::Removal removal("dev1", filters);
        for (size_t at = 0; at < std::size(filters); ++at)
            counts.push_back(removal.log_and_count(at));
        EXPECT_THAT(counts, ElementsAre(1, 0, 0, level == AGENT_LOG_INFO));
        EXPECT_THAT(log.take_from("INFO"),
                    ElementsAre(logged::subscription_removed("dev1", one, 1),
                                logged::subscription_removed("dev1", "no", 0),
                                logged::subscription_removed("dev1", one, 0),
                                logged::subscription_removed("dev1", other, level == AGENT_LOG_INFO)));
    }
}

// The entries in the middle cannot be read meanwhile.
TEST_F(cost, on_a_library_thread_other_entries_are_not_looked_at)
{
    ManualClock  clock; // the index is compared with the table once, before the entries are taken away
    const size_t bytes = SUB_CAPACITY * sizeof(sub_entry_t);
    auto *const  area =
        static_cast<sub_entry_t *>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(area, MAP_FAILED);
    sub_entry_t *const own = std::exchange(g_sub_mgr.subs, area);
    fill(1000);
    const auto protect = [&](int rights) {
        const auto first = reinterpret_cast<uintptr_t>(area + 10) / 4096 * 4096 + 4096;
        mprotect(reinterpret_cast<void *>(first), 900 * sizeof(sub_entry_t), rights);
    };
    on_a_library_thread([&] { sub_add("dev1", filter(0).c_str(), 1, 1); });
    protect(PROT_NONE);
    on_a_library_thread([&] {
        EXPECT_EQ(sub_add("dev1", filter(0).c_str(), 2, 1), 0);
        EXPECT_EQ(sub_add("dev2", filter(0).c_str(), 2, 1), 0);
        EXPECT_EQ(sub_add("dev1", filter(999).c_str(), 2, 1), 0);
        EXPECT_EQ(sub_remove("dev1", filter(998).c_str()), 1);
        EXPECT_EQ(sub_remove("dev1", "no"), 0);
        EXPECT_EQ(sub_remove("dev2", nullptr), 1);
        EXPECT_EQ(sub_remove("dev3", nullptr), 0);
    });
    protect(PROT_READ | PROT_WRITE);
    EXPECT_EQ(g_sub_mgr.sub_count, 999);
    EXPECT_EQ(g_sub_mgr.subs[0].qos, 2u);
    EXPECT_EQ(g_sub_mgr.subs[998].qos, 2u);
    g_sub_mgr.sub_count = 0;
    g_sub_mgr.subs      = own;
    munmap(area, bytes);
}

TEST_F(cost, a_library_thread_notices_entries_that_were_edited_by_hand_after_its_pause)
{
    ManualClock clock;
    fill(1000);
    on_a_library_thread([&] { sub_add("dev1", filter(0).c_str(), 1, 1); });
    strcpy(g_sub_mgr.subs[500].client_id, "dev2");
    strcpy(g_sub_mgr.subs[600].topic_filter, "by/hand");
    clock.advance_ms(1);
    on_a_library_thread([&] {
        EXPECT_EQ(sub_remove("dev1", filter(500).c_str()), 0); // found, but it is another client's
        EXPECT_EQ(sub_remove("dev1", filter(600).c_str()), 0);
    });
    clock.advance_ms(1);
    on_a_library_thread([&] {
        EXPECT_EQ(sub_add("dev2", filter(500).c_str(), 0, 1), 0);
        EXPECT_EQ(sub_add("dev1", "by/hand", 0, 1), 0);
    });
    EXPECT_EQ(g_sub_mgr.sub_count, 1000);
    EXPECT_EQ(g_sub_mgr.subs[500].qos, 0u);
    EXPECT_EQ(g_sub_mgr.subs[600].qos, 0u);
}

// Filters with more levels than a shape can have are looked at by topics of as many levels, or one more.
TEST_F(cost, deep_filters_are_candidates_of_deep_topics_only)
{
    const auto deep = [](int levels, const std::string &level, const std::string &last) {
        std::string text;
        for (int i = 1; i < levels; ++i)
            text += level + "/";
        return text + last;
    };
    for (int levels = 65; levels < 100; ++levels)
        ASSERT_EQ(sub_add("dev1", deep(levels, "+", "+").c_str(), 1, 1), 0);
    ASSERT_EQ(sub_add("dev2", ("+/" + deep(65, "a", "a")).c_str(), 1, 1), 0);
    const auto candidates = [](const std::string &topic) {
        tarn::ScopedLock    lock(g_sub_mgr.lock);
        tarn::sub::EntrySet found;
        tarn::sub::check_index(g_sub_mgr, tarn::sub::Trust::Sure);
        tarn::sub::candidates_for(g_sub_mgr, topic, found);
        return found.count();
    };
    EXPECT_EQ(candidates("a"), 0);
    EXPECT_EQ(candidates(deep(64, "a", "a")), 0);
    EXPECT_EQ(candidates(deep(65, "a", "a")), 1);
    EXPECT_EQ(candidates(deep(66, "a", "a")), 3);
    EXPECT_EQ(candidates(deep(101, "a", "a")), 0);
    sub_entry_t matched[4];
    EXPECT_EQ(sub_match(deep(66, "a", "a").c_str(), matched, 4), 2);
    EXPECT_EQ(sub_match((deep(66, "a", "a") + "/").c_str(), matched, 4), 1); // the final slash belongs to the '+'
}

TEST_F(cost, members_of_one_group_name_it_once)
{
    const std::string group(200, 'g');
    for (int i = 0; i < 50; ++i)
        ASSERT_EQ(sub_add(("dev" + std::to_string(i)).c_str(), ("$share/" + group + "/t").c_str(), 1, 1), 0);
    ASSERT_EQ(sub_add("other", "$share/other/t", 1, 1), 0);
    tarn::sub::MatchList list;
    ASSERT_EQ(tarn::sub::list_matches("t", list), 51);
    EXPECT_EQ(list.names.size(), 205u);
    EXPECT_EQ(list.group_of(list.matches[0]), group);
    EXPECT_EQ(list.group_of(list.matches[49]), group);
    EXPECT_EQ(list.group_of(list.matches[50]), "other");
}

TEST_F(cost, random_changes_leave_the_same_table_on_either_thread)
{
    const auto run = [&] {
        sub_init();
        std::mt19937     random(7);
        std::vector<int> results;
        for (int step = 0; step < 6000; ++step) {
            const std::string id   = "dev" + std::to_string(random() % 12),
                              text = filter(static_cast<int>(random() % 60));
            switch (random() % 20) {
            case 0:
                results.push_back(sub_remove(id.c_str(), nullptr));
                break;
            case 1:
            case 2:
            case 3:
                results.push_back(sub_remove(id.c_str(), text.c_str()));
                break;
            case 4: {
                const std::string  second = filter(static_cast<int>(random() % 60));
                const char *const  both[] = {text.c_str(), second.c_str()};
                tarn::sub::Removal removal(id.c_str(), both);
                results.push_back(removal.log_and_count(0));
                results.push_back(removal.log_and_count(1));
                break;
            }
            default:
                results.push_back(sub_add(id.c_str(), text.c_str(), random() % 3, 1));
            }
        }
        return results;
    };
    const std::vector<int> here       = run();
    const auto             table_here = table();
    std::vector<int>       there;
    on_a_library_thread([&] { there = run(); });
    EXPECT_GT(table_here.size(), 100u);
    EXPECT_EQ(here, there);
    EXPECT_EQ(table_here, table());
}

TEST_F(cost, the_memory_of_removed_entries_is_given_back)
{
#ifdef TARN_SANITIZED
    GTEST_SKIP() << "the sanitizer's pages are not the table's alone";
#endif
    const auto pages = [] {
        const auto    first = (reinterpret_cast<uintptr_t>(g_sub_mgr.subs) + 4095) / 4096 * 4096;
        const size_t  bytes = (SUB_CAPACITY - 2) * sizeof(sub_entry_t) / 4096 * 4096;
        unsigned char in_core[SUB_CAPACITY * sizeof(sub_entry_t) / 4096];
        EXPECT_EQ(mincore(reinterpret_cast<void *>(first), bytes, in_core), 0);
        int count = 0;
        for (size_t page = 0; page < bytes / 4096; ++page)
            count += in_core[page] & 1;
        return count;
    };
    fill(100, "stays");
    fill(5000);
    const int full = pages();
    tarn::sub::give_back_unused_entries();
    EXPECT_EQ(pages(), full);
    EXPECT_EQ(sub_remove("dev1", nullptr), 5000);
    tarn::sub::give_back_unused_entries();
    EXPECT_LT(pages(), full / 5);
    EXPECT_EQ(g_sub_mgr.sub_count, 100);
    EXPECT_EQ(g_sub_mgr.subs[99].client_id, std::string("stays"));
    fill(5000);
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 5000);
    EXPECT_EQ(g_sub_mgr.subs[5099].topic_filter, filter(4999));
}
