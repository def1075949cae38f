#include "handler_fixture.h"

using namespace tarn::test;
using testing::ElementsAre;

namespace {

std::vector<sub_entry_t> matches(std::initializer_list<const char *> filters)
{
    std::vector<sub_entry_t> list;
    for (const char *filter : filters) {
        list.emplace_back();
        strcpy(list.back().topic_filter, filter);
    }
    return list;
}

std::vector<int> mark(const std::vector<sub_entry_t> &list)
{
    std::vector<uint8_t> flags(list.size());
    shared_sub_mark_selected(list.data(), static_cast<int>(list.size()), flags.data());
    return {flags.begin(), flags.end()};
}

} // namespace

TEST(shared_sub, members_take_turns_in_match_order)
{
    const auto list = matches({"$share/g/t", "$share/g/t", "$share/g/t"});
    EXPECT_THAT(mark(list), ElementsAre(1, 0, 0));
    EXPECT_THAT(mark(list), ElementsAre(0, 1, 0));
    EXPECT_THAT(mark(list), ElementsAre(0, 0, 1));
    EXPECT_THAT(mark(list), ElementsAre(1, 0, 0));
}

TEST(shared_sub, plain_filters_and_a_prefix_without_a_second_slash_are_never_flagged)
{
    EXPECT_THAT(mark(matches({"t", "$share/g", "$share/", "#"})), ElementsAre(0, 0, 0, 0));
    EXPECT_EQ(g_rr_counter, 0);
}

TEST(shared_sub, one_step_of_the_counter_a_group)
{
    EXPECT_THAT(mark(matches({"$share/b/t", "$share/a/t", "t", "$share/b/t", "$share/a/#"})),
                ElementsAre(1, 0, 0, 0, 1));
    EXPECT_EQ(g_rr_counter, 2);
}

TEST(shared_sub, groups_take_their_turns_by_first_appearance)
{
    g_rr_counter = 1; // the group named first gets 1, the other 2
    EXPECT_THAT(mark(matches({"$share/z/t", "$share/a/t", "$share/z/t", "$share/a/t", "$share/a/t"})),
                ElementsAre(0, 0, 1, 0, 1));
}

TEST(shared_sub, a_group_takes_in_the_groups_its_name_begins)
{
    // Members of a: entries 0, 1, 2. Members of ab: 1, 2.
    const auto list = matches({"$share/a/t", "$share/ab/t", "$share/ab/t"});
    EXPECT_THAT(mark(list), ElementsAre(1, 0, 1)); // a: 0 % 3, ab: 1 % 2
    EXPECT_THAT(mark(list), ElementsAre(0, 0, 1)); // a: 2 % 3, ab: 3 % 2: the same one
    EXPECT_THAT(mark(list), ElementsAre(0, 1, 1)); // a: 4 % 3, ab: 5 % 2
}

TEST(shared_sub, members_of_several_names_count_in_list_order)
{
    const auto list = matches({"$share/ab/t", "$share/a/t", "$share/ac/t", "$share/ab/t"});
    // ab: {0, 3}, a: {0, 1, 2, 3}, ac: {2}
    g_rr_counter = 1;
    EXPECT_THAT(mark(list), ElementsAre(0, 0, 1, 1)); // ab 1 % 2 -> 3; a 2 % 4 -> 2; ac 3 % 1 -> 2
    EXPECT_EQ(g_rr_counter, 4);
    EXPECT_THAT(mark(list), ElementsAre(1, 1, 1, 0)); // ab 4 % 2 -> 0; a 5 % 4 -> 1; ac -> 2
}

TEST(shared_sub, members_of_a_big_group_take_turns_in_match_order)
{
    std::vector<sub_entry_t> list;
    for (int i = 0; i < 50; i++) {
        list.push_back(matches({"$share/big/t"})[0]);
        list.push_back(matches({"$share/other/t"})[0]);
    }
    for (size_t turn = 0; turn < 50; turn++) {
        g_rr_counter = static_cast<int>(turn);
        EXPECT_EQ(mark(list)[2 * turn], 1) << turn;
    }
}

TEST(shared_sub, the_empty_group_takes_in_all)
{
    const auto list = matches({"$share//t", "$share/x/t"});
    g_rr_counter    = 1;
    EXPECT_THAT(mark(list), ElementsAre(0, 1)); // empty: 1 % 2 -> 1; x: 0
}

TEST(shared_sub, names_above_255_characters_are_no_group)
{
    const std::string longest(255, 'n');
    const auto        list = matches({("$share/" + longest + "/t").c_str(), ("$share/" + longest + "n/t").c_str()});
    EXPECT_THAT(mark(list), ElementsAre(1, 0)); // the longer one is only a member of the shorter one
    EXPECT_EQ(g_rr_counter, 1);
    EXPECT_THAT(mark(list), ElementsAre(0, 1));
}

TEST(shared_sub, the_counter_wraps_and_the_choice_stays_in_range)
{
    const auto list = matches({"$share/g/t", "$share/g/t", "$share/g/t"});
    g_rr_counter    = INT32_MAX;
    EXPECT_THAT(mark(list), ElementsAre(0, 1, 0)); // 2147483647 % 3
    EXPECT_EQ(g_rr_counter, INT32_MIN);
    EXPECT_THAT(mark(list), ElementsAre(0, 0, 1)); // 2147483648 % 3
    g_rr_counter = -1;
    EXPECT_THAT(mark(list), ElementsAre(1, 0, 0)); // 4294967295 % 3
    EXPECT_EQ(g_rr_counter, 0);
}

TEST(shared_sub, without_memory_nobody_is_flagged)
{
    const auto           list = matches({"$share/g/t", "$share/h/t"});
    std::vector<uint8_t> flags(2);
    for (int nth = 1; nth <= 4; nth++) {
        Fail fail(Call::Allocate, nth);
        shared_sub_mark_selected(list.data(), 2, flags.data());
        EXPECT_THAT(flags, ElementsAre(0, 0)) << nth;
        EXPECT_EQ(fail.failed(), 1) << nth;
    }
    EXPECT_EQ(g_rr_counter, 0);
}

TEST(shared_sub, an_empty_list_sets_no_flag)
{
    uint8_t     flag = 0;
    sub_entry_t entry{};
    strcpy(entry.topic_filter, "$share/g/t");
    shared_sub_mark_selected(&entry, 0, &flag);
    shared_sub_mark_selected(&entry, -1, &flag);
    shared_sub_mark_selected(nullptr, 1, &flag);
    shared_sub_mark_selected(&entry, 1, nullptr);
    EXPECT_EQ(flag, 0);
}

TEST(shared_sub, a_prefix_makes_a_filter_shared)
{
    EXPECT_TRUE(shared_is_shared_subscription("$share/"));
    EXPECT_TRUE(shared_is_shared_subscription("$share/g/t"));
    EXPECT_FALSE(shared_is_shared_subscription("$share"));
    EXPECT_FALSE(shared_is_shared_subscription("a/$share/g"));
    EXPECT_FALSE(shared_is_shared_subscription(""));
    EXPECT_FALSE(shared_is_shared_subscription(nullptr));
}

TEST(shared_sub, select_client_hashes_the_key)
{
    const auto  list = matches({"0", "1", "2", "3", "4"});
    const auto *all  = list.data();
    EXPECT_EQ(shared_select_client("", all, 5), all + 5381 % 5);
    EXPECT_EQ(shared_select_client("a", all, 5), all + (5381 * 33 + 'a') % 5);
    EXPECT_EQ(shared_select_client("\xFF", all, 5), all + (5381 * 33 + 255) % 5); // bytes are unsigned
    EXPECT_EQ(shared_select_client("key", all, 1), all);
    EXPECT_EQ(shared_select_client(nullptr, all, 5), nullptr);
    EXPECT_EQ(shared_select_client("a", nullptr, 5), nullptr);
    EXPECT_EQ(shared_select_client("a", all, 0), nullptr);
    EXPECT_EQ(shared_select_client("a", all, -1), nullptr);
}
