#include "broker/access/access.h"
#include "support/files.h"
#include "user_file.h"

#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <thread>

using namespace tarn::broker;
using namespace tarn::test;

namespace {

struct access : testing::Test {
    void SetUp() override
    {
        std::filesystem::create_directories("broker_data/subscription");
        write_text("users", user_lines({"alice", "bob"}));
        write_text("acl", "read news\nuser alice\nreadwrite home/#\n");
    }
    static void save_session(const std::string &id) { write_text("broker_data/subscription/" + id + ".json", "{}"); }
    static void sweeps(Access &access, const Ids &online)
    {
        for (int i = 0; i < 3; ++i)
            access.sweep(online);
    }
};

} // namespace

TEST_F(access, without_files_everything_is_allowed_but_before_connect)
{
    Access all("", "");
    EXPECT_FALSE(all.is_wanted());
    ASSERT_EQ(all.load(), "");
    EXPECT_TRUE(all.may_connect("x", "", ""));
    EXPECT_TRUE(all.may_publish("x", "a"));
    EXPECT_TRUE(all.may_subscribe("x", "#"));
    EXPECT_FALSE(all.may_publish("", "a"));
}

TEST_F(access, with_users_alone_who_is_logged_in_may_do_everything)
{
    Access some("users", "");
    EXPECT_TRUE(some.is_wanted());
    ASSERT_EQ(some.load(), "");
    EXPECT_FALSE(some.may_connect("x", "", ""));
    EXPECT_FALSE(some.may_connect("x", "alice", ""));
    EXPECT_FALSE(some.may_connect("x", "alice", "wrong"));
    EXPECT_FALSE(some.may_publish("x", "a"));
    EXPECT_FALSE(some.may_subscribe("x", "a"));
    EXPECT_TRUE(some.may_connect("x", "alice", "right"));
    EXPECT_TRUE(some.may_publish("x", "a"));
    EXPECT_TRUE(some.may_subscribe("x", "#"));
}

TEST_F(access, before_connect_and_with_bad_topics_nothing_is_allowed)
{
    for (const char *user_file : {"users", ""}) {
        write_text("all", "readwrite #\n");
        Access some(user_file, "all");
        ASSERT_EQ(some.load(), "");
        ASSERT_TRUE(some.may_connect("x", "alice", "right"));
        EXPECT_TRUE(some.may_publish("x", "a"));
        EXPECT_FALSE(some.may_publish("", "a"));
        EXPECT_FALSE(some.may_subscribe("", "a"));
        for (const char *topic : {"", "a/+", "#", "\xC3"})
            EXPECT_FALSE(some.may_publish("x", topic)) << topic;
        EXPECT_TRUE(some.may_subscribe("x", "a/+"));
        EXPECT_FALSE(some.may_subscribe("x", "\xC3"));
    }
}

TEST_F(access, with_both_the_rules_of_the_user_count)
{
    Access some("users", "acl");
    ASSERT_EQ(some.load(), "");
    ASSERT_TRUE(some.may_connect("x", "alice", "right"));
    ASSERT_TRUE(some.may_connect("y", "bob", "right"));
    EXPECT_TRUE(some.may_subscribe("x", "news"));
    EXPECT_TRUE(some.may_publish("x", "home/lamp"));
    EXPECT_FALSE(some.may_publish("x", "news"));
    EXPECT_TRUE(some.may_subscribe("y", "news"));
    EXPECT_FALSE(some.may_publish("y", "home/lamp"));
}

TEST_F(access, a_refusal_has_its_reason)
{
    write_text("acl", "read news\nuser bob\nclientid b*\n");
    Access some("users", "acl");
    ASSERT_EQ(some.load(), "");
    EXPECT_STREQ(some.may_connect("x", "", "right").why_not, "user name or password is missing");
    EXPECT_STREQ(some.may_connect("x", "alice", "").why_not, "user name or password is missing");
    EXPECT_STREQ(some.may_connect("x", "alice", "wrong").why_not, "unknown user or wrong password");
    EXPECT_STREQ(some.may_connect("x", "carol", "right").why_not, "unknown user or wrong password");
    EXPECT_STREQ(some.may_connect("auto_1", "alice", "right").why_not,
                 "ids of this form are not for clients to choose");
    EXPECT_STREQ(some.may_connect("x", "bob", "right").why_not, "the user may not have this id");
    EXPECT_STREQ(some.may_connect("", "bob", "right").why_not, "the user may not have this id");
    EXPECT_STREQ(some.may_connect("b1", "alice", "right").why_not, nullptr);
    EXPECT_STREQ(some.may_connect("b1", "bob", "right").why_not, "the id belongs to another user");
    EXPECT_STREQ(some.may_publish("b1", "news").why_not, "no rule allows it");
    EXPECT_STREQ(some.may_publish("b1", "a/+").why_not, "it is no topic to publish to");
    EXPECT_STREQ(some.may_publish("", "a").why_not, "it has not connected as somebody who may");
    EXPECT_STREQ(some.may_subscribe("b1", "#").why_not, "no rule allows it");
    EXPECT_STREQ(some.may_subscribe("b1", "\xC3").why_not, "the filter is not UTF-8");
    EXPECT_EQ(some.user_of("b1"), "alice");
    EXPECT_EQ(some.user_of("x"), "");
}

TEST_F(access, a_will_needs_the_right_to_write)
{
    write_text("acl", "write own/%c\nuser alice\nwrite home/#\nclient sensor-*\nwrite sensors/#\n");
    Access some("users", "acl");
    ASSERT_EQ(some.load(), "");
    EXPECT_TRUE(some.may_leave_will("x", "alice", "home/x"));
    EXPECT_FALSE(some.may_leave_will("x", "bob", "home/x"));
    EXPECT_TRUE(some.may_leave_will("x", "bob", "own/x"));
    EXPECT_FALSE(some.may_leave_will("x", "bob", "own/y"));
    EXPECT_TRUE(some.may_leave_will("sensor-1", "bob", "sensors/1"));
    EXPECT_TRUE(some.may_leave_will("", "alice", "home/x"));
    EXPECT_FALSE(some.may_leave_will("", "alice", "own/"));
    EXPECT_FALSE(some.may_leave_will("x", "alice", "home/+"));
    const std::string cut(63, 'i');
    EXPECT_TRUE(some.may_leave_will(cut + "j", "bob", "own/" + cut));

    Access users_alone("users", "");
    ASSERT_EQ(users_alone.load(), "");
    EXPECT_TRUE(users_alone.may_leave_will("x", "alice", "any"));
    EXPECT_FALSE(users_alone.may_leave_will("x", "alice", "any/#"));

    Access rules_alone("", "acl2"); // whoever claims to be alice
    write_text("acl2", "write own/%c\n");
    ASSERT_EQ(rules_alone.load(), "");
    EXPECT_TRUE(rules_alone.may_leave_will("x", "alice", "own/x"));
    EXPECT_FALSE(rules_alone.may_leave_will("x", "alice", "home/x"));
}

TEST_F(access, with_rules_alone_everybody_connects)
{
    write_text("acl", "read news\nclient lamp*\nwrite lamps/%c\n");
    Access some("", "acl");
    EXPECT_TRUE(some.is_wanted());
    EXPECT_FALSE(some.asks_for_users());
    ASSERT_EQ(some.load(), "");
    EXPECT_TRUE(some.may_connect("lamp1", "", ""));
    EXPECT_TRUE(some.may_subscribe("x", "news"));
    EXPECT_FALSE(some.may_publish("x", "lamps/lamp1"));
    EXPECT_TRUE(some.may_publish("lamp1", "lamps/lamp1"));
    EXPECT_TRUE(some.may_subscribe("auto_1", "news"));
}

TEST_F(access, an_id_stays_with_its_user)
{
    Access some("users", "");
    ASSERT_EQ(some.load(), "");
    EXPECT_TRUE(some.may_connect("x", "alice", "right"));
    EXPECT_FALSE(some.may_connect("x", "bob", "right"));
    EXPECT_TRUE(some.may_connect("x", "alice", "right"));
    sweeps(some, {"x"});
    EXPECT_FALSE(some.may_connect("x", "bob", "right"));
    sweeps(some, {});
    EXPECT_TRUE(some.may_connect("x", "bob", "right"));
}

TEST_F(access, an_id_with_subscriptions_stays_also_offline)
{
    Access some("users", "acl");
    ASSERT_EQ(some.load(), "");
    some.may_connect("x", "alice", "right");
    EXPECT_FALSE(some.may_subscribe("x", "other"));
    some.may_connect("y", "alice", "right");
    EXPECT_TRUE(some.may_subscribe("y", "home/#"));
    sweeps(some, {});
    EXPECT_TRUE(some.may_connect("x", "bob", "right")); // was refused its only one
    EXPECT_FALSE(some.may_connect("y", "bob", "right"));
}

// The library cuts them, and asks with what is left.
TEST_F(access, ids_are_bound_as_the_library_cuts_them)
{
    Access            some("users", "");
    const std::string id(63, 'x');
    ASSERT_EQ(some.load(), "");
    EXPECT_TRUE(some.may_connect(id + "1", "alice", "right"));
    EXPECT_TRUE(some.may_publish(id, "a"));
    EXPECT_FALSE(some.may_connect(id + "2", "bob", "right"));
    EXPECT_FALSE(some.may_connect(id, "bob", "right"));
}

TEST_F(access, ids_that_the_library_chooses)
{
    Access some("users", "");
    ASSERT_EQ(some.load(), "");
    const auto two   = [] { return false; };
    const auto alone = [] { return true; };
    EXPECT_FALSE(some.may_connect("", "alice", "wrong"));
    EXPECT_TRUE(some.may_connect("", "alice", "right"));
    EXPECT_FALSE(some.may_publish("auto_17", "a"));
    EXPECT_TRUE(some.bind_chosen_id("auto_17", "alice", two));
    EXPECT_TRUE(some.may_publish("auto_17", "a"));
    EXPECT_TRUE(some.bind_chosen_id("auto_17", "alice", two));
    EXPECT_FALSE(some.bind_chosen_id("auto_17", "bob", two));
    EXPECT_TRUE(some.may_subscribe("auto_17", "a"));
    sweeps(some, {}); // no session stays behind them
    EXPECT_TRUE(some.bind_chosen_id("auto_17", "bob", two));
    EXPECT_TRUE(some.bind_chosen_id("auto_17", "alice", alone));
    EXPECT_TRUE(some.may_publish("auto_17", "a"));
    EXPECT_FALSE(some.bind_chosen_id("auto_17", "bob", two));
    EXPECT_FALSE(some.may_connect("auto_18", "alice", "right")); // nobody else's to choose
    for (const char *id : {"auto_", "auto_1x", "xauto_1", "Auto_1"})
        EXPECT_TRUE(some.may_connect(id, "alice", "right")) << id;
}

TEST_F(access, owners_of_saved_sessions_outlive_the_process)
{
    {
        Access some("users", "");
        ASSERT_EQ(some.load(), "");
        ASSERT_EQ(some.restore_owners(), ""); // no file yet
        some.may_connect("x", "alice", "right");
        some.may_connect("gone", "alice", "right");
        some.may_connect("a/b", "alice", "right");
        ASSERT_EQ(some.save_owners(), "");
        EXPECT_FALSE(std::filesystem::exists("broker_data/owners")); // nothing new yet
        some.may_subscribe("x", "a");
        some.may_subscribe("a/b", "a");
        ASSERT_EQ(some.save_owners(), "");
        EXPECT_EQ(file_text("broker_data/owners"), "");
        save_session("x"); // the library writes its file after it asked
        ASSERT_EQ(some.save_owners(), "");
        EXPECT_EQ(file_text("broker_data/owners"), "x alice\n");
        std::filesystem::remove("broker_data/owners");
        ASSERT_EQ(some.save_owners(), "");
        EXPECT_FALSE(std::filesystem::exists("broker_data/owners"));
        some.may_subscribe("x", "b");
        ASSERT_EQ(some.save_owners(), "");
    }
    Access later("users", "");
    ASSERT_EQ(later.load(), "");
    ASSERT_EQ(later.restore_owners(), "");
    sweeps(later, {});
    EXPECT_FALSE(later.may_connect("x", "bob", "right"));
    EXPECT_TRUE(later.may_connect("gone", "bob", "right"));
    EXPECT_TRUE(later.may_connect("x", "alice", "right"));
}

TEST_F(access, owners_that_cannot_be_saved_are_saved_later)
{
    Access some("users", "");
    ASSERT_EQ(some.load(), "");
    save_session("x");
    some.may_connect("x", "alice", "right");
    some.may_subscribe("x", "a");
    std::filesystem::rename("broker_data", "away");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(some.save_owners(), "cannot make a file beside broker_data/owners: No such file or directory");
    std::filesystem::rename("away", "broker_data");
    EXPECT_EQ(some.save_owners(), "");
    EXPECT_EQ(file_text("broker_data/owners"), "x alice\n");
}

TEST_F(access, a_broken_file_of_owners_is_told)
{
    write_text("broker_data/owners", "x\n");
    Access some("users", "");
    EXPECT_EQ(some.restore_owners(),
              "broker_data/owners:1: a line is ID USER, with %XX for bytes that are not visible");
    EXPECT_EQ(Access("", "acl").restore_owners(), ""); // not asked for
}

TEST_F(access, loading_replaces_both_files)
{
    Access some("users", "acl");
    ASSERT_EQ(some.load(), "");
    some.may_connect("x", "alice", "right");
    some.may_connect("y", "bob", "right");
    write_text("users", user_lines({"bob", "carol"}));
    write_text("acl", "readwrite #\n");
    EXPECT_FALSE(some.may_publish("y", "anything"));
    ASSERT_EQ(some.load(), "");
    EXPECT_TRUE(some.may_publish("y", "anything"));
    EXPECT_TRUE(some.may_connect("z", "carol", "right"));
    EXPECT_FALSE(some.may_publish("x", "home/lamp")); // alice is gone
    EXPECT_FALSE(some.may_subscribe("x", "home/lamp"));
    EXPECT_FALSE(some.may_connect("x", "alice", "right"));
    EXPECT_EQ(some.ids_of_removed_users(), std::vector<std::string>{"x"});
}

TEST_F(access, with_a_mistake_nothing_changes)
{
    Access some("users", "acl");
    ASSERT_EQ(some.load(), "");
    write_text("users", user_lines({"carol"}));
    write_text("acl", "read news\n\nreed news\n");
    EXPECT_EQ(some.load(),
              "acl:3: a line begins with read, write, readwrite, user, clientid or client, not with 'reed'");
    EXPECT_FALSE(some.may_connect("x", "carol", "right"));
    EXPECT_TRUE(some.may_connect("x", "alice", "right"));
    EXPECT_TRUE(some.may_publish("x", "home/lamp"));

    write_text("users", "alice\n");
    EXPECT_EQ(some.load(), "users:1: a line is NAME:HASH, and here is no ':'");
    std::remove("users");
    EXPECT_EQ(some.load(), "cannot read users: No such file or directory");
    EXPECT_TRUE(some.may_connect("x", "alice", "right"));
    EXPECT_EQ(Access("", "no acl").load(), "cannot read no acl: No such file or directory");
    EXPECT_EQ(Access("", ".").load(), "cannot read .: Is a directory");
}

TEST_F(access, files_are_read_while_clients_ask)
{
    Access some("users", "acl");
    ASSERT_EQ(some.load(), "");
    ASSERT_TRUE(some.may_connect("x", "alice", "right"));
    std::vector<std::thread> clients;
    for (int i = 0; i < 2; ++i)
        clients.emplace_back([&some] {
            for (int turn = 0; turn < 500; ++turn) {
                EXPECT_TRUE(some.may_publish("x", "home/lamp"));
                EXPECT_FALSE(some.may_subscribe("x", "other"));
                EXPECT_TRUE(some.may_subscribe("x", "home/#"));
            }
        });
    for (int turn = 0; turn < 20; ++turn) {
        EXPECT_EQ(some.load(), "");
        some.sweep({"x"});
        EXPECT_EQ(some.save_owners(), "");
    }
    for (std::thread &client : clients)
        client.join();
}

TEST_F(access, of_the_standard_profile_holds_an_id_for_as_long_as_its_session)
{
    bool   has_session = true;
    Access standard("users", "");
    standard.be_standard("owners", [&](const std::string &) { return has_session; });
    ASSERT_EQ(standard.load(), "");
    EXPECT_TRUE(standard.may_connect("x", "alice", "right"));
    EXPECT_TRUE(standard.may_subscribe("x", "#"));
    sweeps(standard, {});
    EXPECT_FALSE(standard.may_connect("x", "bob", "right"));
    EXPECT_EQ(standard.save_owners(), "");
    EXPECT_EQ(file_text("owners"), "x alice\n");

    Access next("users", "");
    next.be_standard("owners", [&](const std::string &) { return has_session; });
    ASSERT_EQ(next.load(), "");
    ASSERT_EQ(next.restore_owners(), "");
    EXPECT_FALSE(next.may_connect("x", "bob", "right"));
    has_session = false;
    sweeps(next, {});
    EXPECT_TRUE(next.may_connect("x", "bob", "right")) << "no subscription is left behind";
}

TEST_F(access, of_the_standard_profile_lets_a_client_come_back_with_the_id_that_was_chosen)
{
    Access standard("users", "");
    standard.be_standard("owners", [](const std::string &) { return true; });
    ASSERT_EQ(standard.load(), "");
    ASSERT_TRUE(standard.bind_chosen_id("auto_17", "alice", [] { return true; }));
    EXPECT_TRUE(standard.may_connect("auto_17", "alice", "right"));
    EXPECT_FALSE(standard.may_connect("auto_17", "bob", "right"));
}
