#include "broker/access/users.h"
#include "broker/passwd.h"
#include "program.h"

#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace tarn::broker;
using namespace tarn::test;

namespace {

void write(const std::string &name, const std::string &text)
{
    std::ofstream(name) << text;
}

bool accepts(const std::string &file, const std::string &user, const std::string &password)
{
    Users users;
    EXPECT_EQ(users.parse(file, file_text(file)), "");
    return users.check(user, password);
}

struct Result {
    int         status;
    std::string errors;
    bool        operator==(const Result &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Result &result)
{
    return out << result.status << " " << result.errors;
}

// With these words behind "passwd" and this on standard input.
Result passwd(const std::string &words, const std::string &input = "")
{
    write("input", input);
    Child     child("passwd", {"sh", "-c", "exec \"$0\" passwd " + words + " <input", TARN_BROKER_PROGRAM});
    const int status = child.wait(kLimit_ms);
    return {status, child.errors()};
}

const std::string kUsage = "Usage: tarn-broker passwd FILE NAME            set a user's password\n"
                           "       tarn-broker passwd --delete FILE NAME   take a user out\n";

mode_t mode_of(const char *name)
{
    struct stat status {};
    EXPECT_EQ(stat(name, &status), 0);
    return status.st_mode & 07777;
}

// The program with a terminal.
class OnTerminal {
public:
    explicit OnTerminal(const std::vector<std::string> &words)
    {
        pid_ = forkpty(&fd_, nullptr, nullptr, nullptr);
        if (pid_ != 0)
            return;
        execl(TARN_BROKER_PROGRAM, "tarn-broker", words[0].c_str(), words[1].c_str(), words[2].c_str(), nullptr);
        _exit(127);
    }
    ~OnTerminal() { close(fd_); }
    OnTerminal(const OnTerminal &)            = delete;
    OnTerminal &operator=(const OnTerminal &) = delete;

    void type(const std::string &text)
    {
        EXPECT_EQ(::write(fd_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    // Reads until this is on the screen and the echo is off.
    bool asks(const std::string &question)
    {
        while (shown.find(question) == std::string::npos && read_some())
            ;
        return shown.find(question) != std::string::npos && wait_until([this] { return !echoes(); });
    }
    bool echoes() const
    {
        termios terminal{};
        EXPECT_EQ(tcgetattr(fd_, &terminal), 0);
        return terminal.c_lflag & ECHO;
    }
    int wait()
    {
        while (read_some())
            ;
        int status = 0;
        waitpid(pid_, &status, 0);
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
    std::string shown;

private:
    bool read_some()
    {
        char          some[256];
        const ssize_t count = read(fd_, some, sizeof some);
        if (count > 0)
            shown.append(some, static_cast<size_t>(count));
        return count > 0;
    }
    pid_t pid_;
    int   fd_ = -1;
};

} // namespace

TEST(passwd, makes_a_file_that_only_its_owner_can_read)
{
    EXPECT_EQ(passwd("users alice", "secret\n"), (Result{0, ""}));
    EXPECT_TRUE(accepts("users", "alice", "secret"));
    EXPECT_FALSE(accepts("users", "alice", "secret\n"));
    EXPECT_EQ(mode_of("users"), 0600u);
    EXPECT_EQ(file_text("users").find("secret"), std::string::npos);
}

TEST(passwd, keeps_all_but_the_users_line)
{
    ASSERT_EQ(passwd("users alice", "one"), (Result{0, ""}));
    ASSERT_EQ(passwd("users bob", "two"), (Result{0, ""}));
    const std::string text  = file_text("users");
    const std::string first = text.substr(0, text.find('\n') + 1), second = text.substr(text.find('\n') + 1);
    write("users", "# comment\n" + first + "\n  " + second + "#alice:x"); // no end of line
    chmod("users", 0644);
    ASSERT_EQ(passwd("users alice", "three"), (Result{0, ""}));
    EXPECT_TRUE(accepts("users", "alice", "three"));
    EXPECT_TRUE(accepts("users", "bob", "two"));
    EXPECT_EQ(mode_of("users"), 0600u);
    const std::string now = file_text("users");
    EXPECT_EQ(now.substr(0, 16), "# comment\nalice:");
    EXPECT_EQ(now.substr(now.find('\n', 16)), "\n\n  " + second + "#alice:x\n");
}

TEST(passwd, deletes_a_user)
{
    ASSERT_EQ(passwd("users alice", "one"), (Result{0, ""}));
    ASSERT_EQ(passwd("users al", "two"), (Result{0, ""}));
    EXPECT_EQ(passwd("--delete users alice"), (Result{0, ""}));
    EXPECT_EQ(passwd("--delete users alice"), (Result{1, "tarn-broker: users has no user 'alice'\n"}));
    EXPECT_TRUE(accepts("users", "al", "two"));
    EXPECT_FALSE(accepts("users", "alice", "one"));
    EXPECT_EQ(passwd("--delete no_file alice"),
              (Result{1, "tarn-broker: cannot read no_file: No such file or directory\n"}));
    EXPECT_EQ(file_text("no_file"), "");
}

TEST(passwd, takes_a_line_as_the_password)
{
    EXPECT_EQ(passwd("users a", "with space \nsecond line"), (Result{0, ""}));
    EXPECT_TRUE(accepts("users", "a", "with space "));
    const std::string longest(64, 'x');
    EXPECT_EQ(passwd("users a", longest), (Result{0, ""}));
    EXPECT_TRUE(accepts("users", "a", longest));
    const std::string before = file_text("users");
    EXPECT_EQ(passwd("users a", longest + "x"), (Result{1, "tarn-broker: the password has more than 64 bytes\n"}));
    EXPECT_EQ(passwd("users a", "\nx"), (Result{1, "tarn-broker: the password is empty\n"}));
    EXPECT_EQ(passwd("users a", ""), (Result{1, "tarn-broker: no password on standard input\n"}));
    EXPECT_EQ(passwd("users a", std::string("a\0b", 3)),
              (Result{1, "tarn-broker: the password contains a NUL character\n"}));
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
    write("users", "# mine\nsecret\n");
    EXPECT_EQ(passwd("users a", "x"), (Result{1, "tarn-broker: users:2: a line is NAME:HASH, and here is no ':'\n"}));
    EXPECT_EQ(file_text("users"), "# mine\nsecret\n");
}

TEST(passwd, replaces_what_a_link_points_to)
{
    ASSERT_EQ(mkdir("real", 0755), 0);
    write("real/users", "# mine\n");
    ASSERT_EQ(symlink("real/users", "users"), 0);
    EXPECT_EQ(passwd("users a", "x"), (Result{0, ""}));
    EXPECT_TRUE(accepts("real/users", "a", "x"));
    struct stat status {};
    ASSERT_EQ(lstat("users", &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
}

TEST(passwd, keeps_the_owner_of_the_file)
{
    write("users", "");
    if (geteuid() != 0 || chown("users", 12345, 23456) != 0)
        GTEST_SKIP() << "only root can give files away";
    EXPECT_EQ(passwd("users a", "x"), (Result{0, ""}));
    struct stat status {};
    ASSERT_EQ(stat("users", &status), 0);
    EXPECT_EQ(status.st_uid, 12345u);
    EXPECT_EQ(status.st_gid, 23456u);
}

TEST(passwd, says_that_it_cannot_write)
{
    EXPECT_EQ(passwd("no/users a", "x"),
              (Result{1, "tarn-broker: cannot make a file beside no/users: No such file or directory\n"}));
    ASSERT_EQ(mkdir("directory", 0755), 0);
    EXPECT_EQ(passwd("directory a", "x"), (Result{1, "tarn-broker: cannot read directory: Is a directory\n"}));
}

TEST(passwd, wants_a_file_and_a_name)
{
    for (const char *words : {"", "users", "users a b", "--delete", "--delete users", "'' a"})
        EXPECT_EQ(passwd(words), (Result{2, kUsage})) << words;
    EXPECT_EQ(passwd("--remove users a"), (Result{2, "tarn-broker: unknown option '--remove'\n" + kUsage}));
    EXPECT_EQ(passwd("users a:b"), (Result{2, "tarn-broker: a user's name may not begin with '#' or contain ':'\n"}));
    EXPECT_EQ(passwd("-- -users a", "x"), (Result{0, ""}));
    EXPECT_TRUE(accepts("-users", "a", "x"));
    Child help = run({"passwd", "--help"});
    EXPECT_EQ(help.wait(kLimit_ms), 0);
    EXPECT_EQ(help.output(), kUsage);
}

TEST(passwd, asks_twice_on_a_terminal_without_showing_what_is_typed)
{
    OnTerminal terminal({"passwd", "users", "alice"});
    ASSERT_TRUE(terminal.asks("Password: "));
    terminal.type("secret\n");
    ASSERT_TRUE(terminal.asks("Once more: "));
    terminal.type("secret\n");
    EXPECT_EQ(terminal.wait(), 0);
    EXPECT_EQ(terminal.shown, "Password: \r\nOnce more: \r\n");
    EXPECT_TRUE(accepts("users", "alice", "secret"));
}

TEST(passwd, refuses_two_different_ones)
{
    OnTerminal terminal({"passwd", "users", "alice"});
    ASSERT_TRUE(terminal.asks("Password: "));
    terminal.type("secret\n");
    ASSERT_TRUE(terminal.asks("Once more: "));
    terminal.type("Secret\n");
    EXPECT_EQ(terminal.wait(), 1);
    EXPECT_EQ(terminal.shown, "Password: \r\nOnce more: \r\ntarn-broker: the two passwords differ\r\n");
    EXPECT_NE(access("users", F_OK), 0);
}

TEST(passwd, ends_on_ctrl_c_with_the_terminal_as_it_was)
{
    // A shell that stays, so that there still is a terminal to look at.
    write("ask.sh", "\"$1\" passwd users alice\nstty -a\n");
    int         fd  = -1;
    const pid_t pid = forkpty(&fd, nullptr, nullptr, nullptr);
    if (pid == 0) {
        execlp("sh", "sh", "-c", "trap : INT; . ./ask.sh", "sh", TARN_BROKER_PROGRAM, nullptr);
        _exit(127);
    }
    std::string shown;
    char        some[256];
    bool        typed = false;
    for (ssize_t count; (count = read(fd, some, sizeof some)) > 0;) {
        shown.append(some, static_cast<size_t>(count));
        termios terminal{};
        if (!typed && shown.find("Password: ") != std::string::npos) {
            EXPECT_TRUE(wait_until([&] { return tcgetattr(fd, &terminal) == 0 && !(terminal.c_lflag & ECHO); }));
            EXPECT_EQ(::write(fd, "\x03", 1), 1);
            typed = true;
        }
    }
    waitpid(pid, nullptr, 0);
    close(fd);
    EXPECT_NE(shown.find(" echo "), std::string::npos) << shown;
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
