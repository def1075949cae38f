// tarn-broker started by root and running as somebody else. Root alone can try that.
#include "program.h"
#include "support/peer.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace tarn::test;

namespace {

// The value of a line of /proc/PID/status, its white space made one.
std::string status_of(pid_t pid, const std::string &name)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(name + ":", 0) != 0)
            continue;
        std::istringstream words(line.substr(name.size() + 1));
        std::string        value;
        for (std::string word; words >> word;)
            value += (value.empty() ? "" : " ") + word;
        return value;
    }
    return "no such line";
}

struct privileges : testing::Test {
    void SetUp() override
    {
        nobody = getpwnam("nobody");
        if (geteuid() != 0 || !nobody || chown(".", nobody->pw_uid, nobody->pw_gid) != 0)
            GTEST_SKIP() << "only root can become nobody";
    }
    static std::string mistake_with(const std::vector<std::string> &options) { return mistake_of(run(options)); }
    const passwd      *nobody = nullptr;
};

} // namespace

TEST_F(privileges, are_gone_for_every_thread)
{
    Child broker = run({"--user", "nobody"});
    ASSERT_TRUE(serves(broker)) << broker.errors();
    const std::string uid = std::to_string(nobody->pw_uid), gid = std::to_string(nobody->pw_gid);
    EXPECT_EQ(status_of(broker.pid(), "Uid"), uid + " " + uid + " " + uid + " " + uid);
    EXPECT_EQ(status_of(broker.pid(), "Gid"), gid + " " + gid + " " + gid + " " + gid);
    EXPECT_EQ(status_of(broker.pid(), "Groups"), gid);
    for (const char *set : {"CapInh", "CapPrm", "CapEff", "CapAmb"})
        EXPECT_EQ(status_of(broker.pid(), set), "0000000000000000") << set;
    Peer::tcp().connect_v4("a").ping();

    struct stat made {};
    ASSERT_EQ(stat("broker_data/session", &made), 0);
    EXPECT_EQ(made.st_uid, nobody->pw_uid);
    EXPECT_TRUE(ends_well(broker));
}

TEST_F(privileges, files_are_read_without_them_so_that_they_can_be_read_again)
{
    write_text("rules", "readwrite #\n");
    ASSERT_EQ(chmod("rules", 0600), 0);
    EXPECT_EQ(mistake_with({"--user", "nobody", "--acl-file", "rules"}),
              "tarn-broker: cannot read rules: Permission denied\n");
    ASSERT_EQ(chown("rules", nobody->pw_uid, nobody->pw_gid), 0);
    Child broker = run({"--user", "nobody", "--acl-file", "rules"});
    ASSERT_TRUE(serves(broker)) << broker.errors();
    broker.signal(SIGHUP);
    EXPECT_TRUE(says(broker, "tarn-broker: users and rules were read again\n"));
}

TEST_F(privileges, the_data_directory_must_be_theirs)
{
    ASSERT_EQ(chown(".", 0, 0), 0);
    ASSERT_EQ(chmod(".", 0755), 0);
    EXPECT_EQ(mistake_with({"--user", "nobody"}), "tarn-broker: cannot keep sessions in " +
                                                      std::filesystem::current_path().string() +
                                                      ": Permission denied\n");
    for (const char *name : {"broker_data", "broker_data/session", "broker_data/subscription", "broker_data/message"})
        ASSERT_EQ(mkdir(name, 0755), 0);
    for (const char *name : {"broker_data", "broker_data/session", "broker_data/subscription", "broker_data/message"}) {
        EXPECT_EQ(mistake_with({"--user", "nobody"}), "tarn-broker: cannot keep sessions in " +
                                                          std::filesystem::current_path().string() + "/" + name +
                                                          ": Permission denied\n");
        ASSERT_EQ(chown(name, nobody->pw_uid, nobody->pw_gid), 0);
    }
    ASSERT_EQ(rmdir("broker_data/message"), 0); // will be made
    Child broker = run({"--user", "nobody"});
    EXPECT_TRUE(serves(broker)) << broker.errors();
}

TEST_F(privileges, a_user_that_is_not_there_or_may_do_everything_is_refused)
{
    EXPECT_EQ(mistake_with({"--user", "no such"}),
              "tarn-broker: cannot become user 'no such': there is no such user\n");
    EXPECT_EQ(mistake_with({"--user", "root"}),
              "tarn-broker: cannot become user 'root': it may do everything, which is what --user is to end\n");
    EXPECT_NE(access("broker_data", F_OK), 0);
}

// Without the privilege to change one can only stay who one is.
TEST_F(privileges, who_has_none_cannot_become_another_user)
{
    const std::string uid       = std::to_string(nobody->pw_uid);
    const auto        as_nobody = [&](const char *name, const std::string &user) {
        return Child(name, {"setpriv", "--reuid", uid, "--regid", std::to_string(nobody->pw_gid), "--clear-groups",
                            TARN_BROKER_PROGRAM, "--user", user});
    };
    Child other = as_nobody("other", "daemon");
    EXPECT_EQ(other.wait(kLimit_ms), 1);
    EXPECT_EQ(other.errors(), "tarn-broker: cannot become user 'daemon': Operation not permitted\n");
    Child same = as_nobody("same", "nobody");
    EXPECT_TRUE(serves(same)) << same.errors();
}

// A service manager may hand some over to a user who is not root.
TEST_F(privileges, capabilities_that_were_handed_over_are_given_up)
{
    Child broker("handed", {"setpriv", "--reuid", std::to_string(nobody->pw_uid), "--regid",
                            std::to_string(nobody->pw_gid), "--clear-groups", "--inh-caps", "+net_raw",
                            "--ambient-caps", "+net_raw", TARN_BROKER_PROGRAM, "--user", "nobody"});
    ASSERT_TRUE(serves(broker)) << broker.errors();
    for (const char *set : {"CapInh", "CapPrm", "CapEff", "CapAmb"})
        EXPECT_EQ(status_of(broker.pid(), set), "0000000000000000") << set;
}
