#include "broker/access/users.h"
#include "broker/passwd.h"
#include "program.h"
#include "support/terminal.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace tarn::broker;
using namespace tarn::test;

namespace {

bool accepts(const std::string &file, const std::string &user, const std::string &password)
{
    Users users;
    EXPECT_EQ(users.parse(file, file_text(file)), "");
    return users.check(user, password);
}

// With these words behind "passwd" and this on standard input.
Result passwd(const std::string &words, const std::string &input = "")
{
    write_text("input", input);
    return result_of({"passwd", {"sh", "-c", "exec \"$0\" passwd " + words + " <input", TARN_BROKER_PROGRAM}});
}

const std::string kUsage = "Usage: tarn-broker passwd FILE NAME            set a user's password\n"
                           "       tarn-broker passwd --delete FILE NAME   take a user out\n";

// Asked for, and what is typed now is not shown.
bool asks(OnTerminal &terminal, const std::string &question)
{
    return terminal.shows(question) && wait_until([&] { return !terminal.echoes(); });
}

} // namespace

TEST(passwd, makes_a_file_that_only_its_owner_can_read)
{
    EXPECT_EQ(passwd("users alice", "secret\n"), (Result{0, "", ""}));
    EXPECT_TRUE(accepts("users", "alice", "secret"));
    EXPECT_FALSE(accepts("users", "alice", "secret\n"));
    EXPECT_EQ(mode_of("users"), 0600u);
    EXPECT_EQ(file_text("users").find("secret"), std::string::npos);
}

TEST(passwd, keeps_all_but_the_users_line)
{
    ASSERT_EQ(passwd("users alice", "one"), (Result{0, "", ""}));
    ASSERT_EQ(passwd("users bob", "two"), (Result{0, "", ""}));
    const std::string text  = file_text("users");
    const std::string first = text.substr(0, text.find('\n') + 1), second = text.substr(text.find('\n') + 1);
    write_text("users", "# comment\n" + first + "\n  " + second + "#alice:x"); // no end of line
    chmod("users", 0644);
    ASSERT_EQ(passwd("users alice", "three"), (Result{0, "", ""}));
    EXPECT_TRUE(accepts("users", "alice", "three"));
    EXPECT_TRUE(accepts("users", "bob", "two"));
    EXPECT_EQ(mode_of("users"), 0600u);
    const std::string now = file_text("users");
    EXPECT_EQ(now.substr(0, 16), "# comment\nalice:");
    EXPECT_EQ(now.substr(now.find('\n', 16)), "\n\n  " + second + "#alice:x\n");
}

TEST(passwd, deletes_a_user)
{
    ASSERT_EQ(passwd("users alice", "one"), (Result{0, "", ""}));
    ASSERT_EQ(passwd("users al", "two"), (Result{0, "", ""}));
    EXPECT_EQ(passwd("--delete users alice"), (Result{0, "", ""}));
    EXPECT_EQ(passwd("--delete users alice"), (Result{1, "", "tarn-broker: users has no user 'alice'\n"}));
    EXPECT_TRUE(accepts("users", "al", "two"));
    EXPECT_FALSE(accepts("users", "alice", "one"));
    EXPECT_EQ(passwd("--delete no_file alice"),
              (Result{1, "", "tarn-broker: cannot read no_file: No such file or directory\n"}));
    EXPECT_EQ(file_text("no_file"), "");
}

TEST(passwd, takes_a_line_as_the_password)
{
    EXPECT_EQ(passwd("users a", "with space \nsecond line"), (Result{0, "", ""}));
    EXPECT_TRUE(accepts("users", "a", "with space "));
    const std::string longest(64, 'x');
    EXPECT_EQ(passwd("users a", longest), (Result{0, "", ""}));
    EXPECT_TRUE(accepts("users", "a", longest));
    const std::string before = file_text("users");
    EXPECT_EQ(passwd("users a", longest + "x"), (Result{1, "", "tarn-broker: the password has more than 64 bytes\n"}));
    EXPECT_EQ(passwd("users a", "\nx"), (Result{1, "", "tarn-broker: the password is empty\n"}));
    EXPECT_EQ(passwd("users a", ""), (Result{1, "", "tarn-broker: no password on standard input\n"}));
    EXPECT_EQ(passwd("users a", std::string("a\0b", 3)),
              (Result{1, "", "tarn-broker: the password contains a NUL character\n"}));
    EXPECT_EQ(file_text("users"), before);
}

TEST(passwd, many_at_once_lose_no_user)
{
    constexpr int      kUsers = 20;
    std::vector<Child> children;
    for (int i = 0; i < kUsers; ++i) {
        const std::string name = "user" + std::to_string(i);
        children.emplace_back(name, std::vector<std::string>{"sh", "-c", "echo secret | \"$0\" passwd users " + name,
                                                             TARN_BROKER_PROGRAM});
    }
    for (Child &child : children)
        EXPECT_EQ(child.wait(kLimit_ms), 0);
    Users users;
    ASSERT_EQ(users.parse("users", file_text("users")), "");
    EXPECT_EQ(users.count(), static_cast<size_t>(kUsers));
}

TEST(passwd, leaves_a_file_with_mistakes_alone)
{
    write_text("users", "# mine\nsecret\n");
    EXPECT_EQ(passwd("users a", "x"),
              (Result{1, "", "tarn-broker: users:2: a line is NAME:HASH, and here is no ':'\n"}));
    EXPECT_EQ(file_text("users"), "# mine\nsecret\n");
}

TEST(passwd, replaces_what_a_link_points_to)
{
    ASSERT_EQ(mkdir("real", 0755), 0);
    write_text("real/users", "# mine\n");
    ASSERT_EQ(symlink("real/users", "users"), 0);
    EXPECT_EQ(passwd("users a", "x"), (Result{0, "", ""}));
    EXPECT_TRUE(accepts("real/users", "a", "x"));
    struct stat status {};
    ASSERT_EQ(lstat("users", &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
}

TEST(passwd, keeps_the_owner_of_the_file)
{
    write_text("users", "");
    if (geteuid() != 0 || chown("users", 12345, 23456) != 0)
        GTEST_SKIP() << "only root can give files away";
    EXPECT_EQ(passwd("users a", "x"), (Result{0, "", ""}));
    struct stat status {};
    ASSERT_EQ(stat("users", &status), 0);
    EXPECT_EQ(status.st_uid, 12345u);
    EXPECT_EQ(status.st_gid, 23456u);
}

TEST(passwd, says_that_it_cannot_write)
{
    EXPECT_EQ(passwd("no/users a", "x"),
              (Result{1, "", "tarn-broker: cannot make a file beside no/users: No such file or directory\n"}));
    ASSERT_EQ(mkdir("directory", 0755), 0);
    EXPECT_EQ(passwd("directory a", "x"), (Result{1, "", "tarn-broker: cannot read directory: Is a directory\n"}));
}

TEST(passwd, wants_a_file_and_a_name)
{
    for (const char *words : {"", "users", "users a b", "--delete", "--delete users", "'' a"})
        EXPECT_EQ(passwd(words), (Result{2, "", kUsage})) << words;
    EXPECT_EQ(passwd("--remove users a"), (Result{2, "", "tarn-broker: unknown option '--remove'\n" + kUsage}));
    EXPECT_EQ(passwd("users a:b"),
              (Result{2, "", "tarn-broker: a user's name may not begin with '#' or contain ':'\n"}));
    EXPECT_EQ(passwd("-- -users a", "x"), (Result{0, "", ""}));
    EXPECT_TRUE(accepts("-users", "a", "x"));
    EXPECT_EQ(result_of(run({"passwd", "--help"})), (Result{0, kUsage, ""}));
}

TEST(passwd, asks_twice_on_a_terminal_without_showing_what_is_typed)
{
    OnTerminal terminal({TARN_BROKER_PROGRAM, "passwd", "users", "alice"});
    ASSERT_TRUE(asks(terminal, "Password: "));
    terminal.type("secret\n");
    ASSERT_TRUE(asks(terminal, "Once more: "));
    terminal.type("secret\n");
    EXPECT_EQ(terminal.wait(), 0);
    EXPECT_EQ(terminal.shown(), "Password: \r\nOnce more: \r\n");
    EXPECT_TRUE(accepts("users", "alice", "secret"));
}

TEST(passwd, refuses_two_different_ones)
{
    OnTerminal terminal({TARN_BROKER_PROGRAM, "passwd", "users", "alice"});
    ASSERT_TRUE(asks(terminal, "Password: "));
    terminal.type("secret\n");
    ASSERT_TRUE(asks(terminal, "Once more: "));
    terminal.type("Secret\n");
    EXPECT_EQ(terminal.wait(), 1);
    EXPECT_EQ(terminal.shown(), "Password: \r\nOnce more: \r\ntarn-broker: the two passwords differ\r\n");
    EXPECT_NE(access("users", F_OK), 0);
}

TEST(passwd, ends_on_ctrl_c_with_the_terminal_as_it_was)
{
    // A shell that stays, so that there still is a terminal to look at.
    write_text("ask.sh", "\"$1\" passwd users alice\nstty -a\n");
    OnTerminal terminal({"sh", "-c", "trap : INT; . ./ask.sh", "sh", TARN_BROKER_PROGRAM});
    ASSERT_TRUE(asks(terminal, "Password: "));
    terminal.type("\x03");
    terminal.wait();
    EXPECT_NE(terminal.shown().find(" echo "), std::string::npos) << terminal.shown();
    EXPECT_NE(access("users", F_OK), 0);
}

TEST(with_user, places_the_line)
{
    EXPECT_EQ(with_user("", "a", "h"), "a:h\n");
    EXPECT_EQ(with_user("b:x\n", "a", "h"), "b:x\na:h\n");
    EXPECT_EQ(with_user("b:x", "a", "h"), "b:x\na:h\n");
    EXPECT_EQ(with_user("a:x\nb:x\n", "a", "h"), "a:h\nb:x\n");
    EXPECT_EQ(with_user("ab:x\n a:y \n", "a", "h"), "ab:x\na:h\n");
    EXPECT_EQ(with_user("# a:x\na:x\n\n", "a", ""), "# a:x\n\n");
    EXPECT_EQ(with_user("a:x\n", "a", ""), "");
}
