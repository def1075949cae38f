#include "broker/access/bindings.h"

#include <gtest/gtest.h>
#include <thread>

using namespace tarn::broker;

namespace {

struct bindings : testing::Test {
    void sweep(const Ids &online = {})
    {
        table.sweep(online, [this](const std::string &id) { return saved.contains(id); });
    }
    void sweeps(int count, const Ids &online = {})
    {
        while (count-- > 0)
            sweep(online);
    }
    size_t        count() const { return count_of(table); }
    static size_t count_of(const Bindings &bindings)
    {
        return bindings.ids_where([](const std::string & /*any*/) { return true; }).size();
    }
    std::string to_text()
    {
        return table.to_text([this](const std::string &id) { return saved.contains(id); });
    }
    std::string restore(const std::string &text)
    {
        return table.restore("owners", text, [this](const std::string &id) { return saved.contains(id); });
    }
    Bindings table;
    Ids      saved;
};

} // namespace

TEST_F(bindings, an_id_belongs_to_who_came_first)
{
    EXPECT_EQ(table.user_of("x"), std::nullopt);
    EXPECT_TRUE(table.bind("x", "alice"));
    EXPECT_FALSE(table.bind("x", "bob"));
    EXPECT_TRUE(table.bind("x", "alice"));
    EXPECT_EQ(table.user_of("x"), "alice");
    EXPECT_EQ(table.user_of("y"), std::nullopt);
}

TEST_F(bindings, an_online_client_keeps_its_id)
{
    table.bind("x", "alice");
    sweeps(5, {"x"});
    EXPECT_FALSE(table.bind("x", "bob"));
}

TEST_F(bindings, one_that_is_about_to_come_online_is_left_alone)
{
    sweeps(3);
    table.bind("x", "alice");
    sweep();
    EXPECT_EQ(table.user_of("x"), "alice");
    table.bind("x", "alice"); // comes again
    sweep();
    EXPECT_EQ(table.user_of("x"), "alice");
    sweep();
    EXPECT_EQ(table.user_of("x"), std::nullopt);
    EXPECT_TRUE(table.bind("x", "bob"));
}

TEST_F(bindings, subscriptions_keep_the_id_of_an_offline_client)
{
    table.bind("x", "alice");
    table.subscribed("x");
    table.subscribed("unknown");
    sweeps(5);
    EXPECT_FALSE(table.bind("x", "bob"));
    EXPECT_EQ(count(), 1u);
}

TEST_F(bindings, a_saved_session_keeps_the_id)
{
    table.bind("x", "alice");
    saved = {"x"};
    sweeps(5);
    EXPECT_FALSE(table.bind("x", "bob"));
    saved = {};
    sweep();
    EXPECT_TRUE(table.bind("x", "bob"));
}

// A list shows "a,b" as two ids.
TEST_F(bindings, commas_in_ids_do_not_end_them)
{
    for (const char *id : {"a,b", ",", "a,", ",,b"})
        table.bind(id, "alice");
    sweeps(3, {"a", "b", ""});
    EXPECT_EQ(count(), 4u);
    sweeps(1, {"b"});
    EXPECT_EQ(count(), 0u);
}

TEST_F(bindings, a_user_has_so_many_ids_and_takes_nobody_elses)
{
    for (size_t i = 0; i < Bindings::kIdsMax; ++i)
        ASSERT_TRUE(table.bind("m" + std::to_string(i), "mallory"));
    EXPECT_FALSE(table.bind("one more", "mallory"));
    EXPECT_TRUE(table.bind("m0", "mallory")); // one that is there
    EXPECT_TRUE(table.bind("x", "alice"));
    sweeps(2);
    EXPECT_EQ(count(), 0u);
    EXPECT_TRUE(table.bind("one more", "mallory"));
}

TEST_F(bindings, of_the_subscribed_ones_that_are_offline_the_youngest_stay)
{
    table.bind("alices", "alice");
    table.subscribed("alices");
    for (const char *id : {"old", "older but saved", "online"}) {
        table.bind(id, "mallory");
        table.subscribed(id);
    }
    saved = {"older but saved"};
    sweep();
    for (size_t i = 0; i < Bindings::kKeptOffline; ++i) {
        table.bind("m" + std::to_string(i), "mallory");
        table.subscribed("m" + std::to_string(i));
    }
    sweeps(1, {"online"}); // the many are too young to count
    EXPECT_EQ(table.user_of("old"), "mallory");
    sweeps(1, {"online"});
    EXPECT_EQ(table.user_of("old"), std::nullopt);
    for (const char *id : {"older but saved", "online", "m0"})
        EXPECT_EQ(table.user_of(id), "mallory") << id;
    EXPECT_EQ(table.user_of("alices"), "alice");
    EXPECT_EQ(count(), Bindings::kKeptOffline + 3);
}

TEST_F(bindings, saved_ones_are_written_and_come_back)
{
    saved = {"x", "a b%#\n\xFF", "#"};
    for (const std::string &id : saved)
        table.bind(id, "al ice");
    table.bind("not saved", "alice");
    const std::string text = to_text();
    EXPECT_NE(text.find("x al%20ice\n"), text.npos);
    EXPECT_NE(text.find("a%20b%25%23%0A%FF al%20ice\n"), text.npos);
    EXPECT_NE(text.find("%23 al%20ice\n"), text.npos);

    const auto is_saved = [this](const std::string &id) { return saved.contains(id); };
    Bindings   later;
    EXPECT_EQ(later.restore("owners", text + "gone bob\n", is_saved), "");
    EXPECT_EQ(count_of(later), 3u);
    for (const std::string &id : saved)
        EXPECT_EQ(later.user_of(id), "al ice") << id;
    for (int i = 0; i < 5; ++i)
        later.sweep({}, is_saved);
    EXPECT_EQ(count_of(later), 3u);
}

TEST_F(bindings, of_a_broken_file_the_line_is_told)
{
    for (const char *line : {"x", "x ", "%4 alice", "%4g alice", "%ff alice", "x %"})
        EXPECT_EQ(restore(std::string("\n") + line + "\n"),
                  "owners:2: a line is ID USER, with %XX for bytes that are not visible")
            << line;
}

TEST_F(bindings, ids_by_user)
{
    table.bind("x", "alice");
    table.bind("y", "bob");
    EXPECT_EQ(table.ids_where([](const std::string &user) { return user == "bob"; }), std::vector<std::string>{"y"});
}

TEST_F(bindings, are_used_by_several_threads)
{
    Ids all;
    for (int i = 0; i < 300; ++i)
        all.insert(std::to_string(i));
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread)
        threads.emplace_back([this, thread] {
            for (int i = 0; i < 300; ++i) {
                const std::string id = std::to_string(i);
                table.bind(id, thread == 0 ? "alice" : "bob");
                table.subscribed(id);
                EXPECT_NE(table.user_of(id), std::nullopt);
            }
        });
    for (int i = 0; i < 20; ++i) {
        sweep(all);
        to_text();
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(count(), 300u);
}
