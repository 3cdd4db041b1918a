// dhcpsnoopd --user: which user, and what is handed over to it before the
// daemon gives up root. The change of user itself is process-wide and for
// good: tests/service/user.sh runs it in the daemon.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "tools/daemon/privilege.h"

namespace fs = std::filesystem;

namespace {

class Scratch : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/dhcpsnoop-priv-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override
    {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    std::string file(const std::string& name)
    {
        std::string p = dir_ + "/" + name;
        std::ofstream(p) << "x\n";
        return p;
    }
    static uid_t ownerOf(const std::string& p)
    {
        struct stat st;
        return lstat(p.c_str(), &st) == 0 ? st.st_uid : (uid_t)-1;
    }
    // Changing owners needs root; the test command runs as root.
    static bool root() { return geteuid() == 0; }
    static priv::User other()
    {
        priv::User u;
        u.name = "uid-4242";
        u.uid = 4242;
        u.gid = 4242;
        return u;
    }
    std::string dir_;
};

TEST(PrivilegeUser, RootAndUnknownUsersRefused)
{
    priv::User u;
    std::string error;
    EXPECT_FALSE(priv::lookUp("root", u, error));
    if (priv::supported()) {
        EXPECT_NE(error.find("that is root"), std::string::npos) << error;
    }
    EXPECT_FALSE(priv::lookUp("no-such-user-dse", u, error));
    EXPECT_FALSE(priv::lookUp("", u, error));
}

TEST(PrivilegeUser, NobodyFoundWhereSupported)
{
    priv::User u;
    std::string error;
    if (!priv::supported()) {
        EXPECT_FALSE(priv::lookUp("nobody", u, error));
        EXPECT_NE(error.find("libcap-ng"), std::string::npos) << error;
        return;
    }
    ASSERT_TRUE(priv::lookUp("nobody", u, error)) << error;
    EXPECT_NE(u.uid, 0u);
    EXPECT_EQ(u.name, "nobody");
}

TEST_F(Scratch, DataDirectoryAndItsFiles)
{
    file("dhcpSnoop.cfg");
    file("dhcpSnoop.cfg.good");
    std::vector<std::string> paths;
    std::string error;
    ASSERT_TRUE(priv::dataDirPaths(dir_, paths, error)) << error;
    std::sort(paths.begin() + 1, paths.end());
    EXPECT_EQ(paths, (std::vector<std::string>{dir_, dir_ + "/dhcpSnoop.cfg", dir_ + "/dhcpSnoop.cfg.good"}));
}

TEST_F(Scratch, DataDirectoryMissingGivesOnlyItself)
{
    std::vector<std::string> paths;
    std::string error;
    ASSERT_TRUE(priv::dataDirPaths(dir_ + "/none", paths, error)) << error;
    EXPECT_EQ(paths, std::vector<std::string>{dir_ + "/none"});
}

TEST_F(Scratch, TreeIsNotADataDirectory)
{
    // --data-dir /var/lib with --user would give the user the whole tree.
    fs::create_directory(dir_ + "/sub");
    std::vector<std::string> paths;
    std::string error;
    EXPECT_FALSE(priv::dataDirPaths(dir_, paths, error));
    EXPECT_NE(error.find("sub"), std::string::npos) << error;
    std::vector<std::string> rootPaths;
    EXPECT_FALSE(priv::dataDirPaths("/", rootPaths, error));
    EXPECT_FALSE(priv::dataDirPaths("/tmp/..", rootPaths, error));
}

TEST_F(Scratch, SymlinkInDataDirectoryRefused)
{
    fs::create_symlink("/etc/passwd", dir_ + "/dhcpSnoop.cfg");
    std::vector<std::string> paths;
    std::string error;
    EXPECT_FALSE(priv::dataDirPaths(dir_, paths, error));
}

TEST_F(Scratch, FilesAndDirectoryHandedOver)
{
    if (!root())
        GTEST_SKIP() << "changing owners needs root";
    std::string f = file("dhcpSnoop.cfg");
    std::string error;
    ASSERT_TRUE(priv::handOver(other(), {dir_, f, dir_ + "/missing", ""}, error)) << error;
    EXPECT_EQ(ownerOf(dir_), 4242u);
    EXPECT_EQ(ownerOf(f), 4242u);
}

TEST_F(Scratch, HardLinkedFileRefused)
{
    if (!root())
        GTEST_SKIP() << "changing owners needs root";
    // The user's own directory could hold a second name of any file.
    std::string victim = file("victim");
    ASSERT_EQ(link(victim.c_str(), (dir_ + "/dhcpSnoop.cfg").c_str()), 0);
    std::string error;
    EXPECT_FALSE(priv::handOver(other(), {dir_ + "/dhcpSnoop.cfg"}, error));
    EXPECT_NE(error.find("hard links"), std::string::npos) << error;
    EXPECT_EQ(ownerOf(victim), 0u);
}

TEST_F(Scratch, SymlinkRefusedAndNotFollowed)
{
    if (!root())
        GTEST_SKIP() << "changing owners needs root";
    std::string victim = file("victim");
    fs::create_symlink(victim, dir_ + "/link");
    std::string error;
    EXPECT_FALSE(priv::handOver(other(), {dir_ + "/link"}, error));
    EXPECT_EQ(ownerOf(victim), 0u);
    EXPECT_EQ(ownerOf(dir_ + "/link"), 0u);
}

TEST_F(Scratch, FifoRefused)
{
    if (!root())
        GTEST_SKIP() << "changing owners needs root";
    ASSERT_EQ(mkfifo((dir_ + "/fifo").c_str(), 0600), 0);
    std::string error;
    EXPECT_FALSE(priv::handOver(other(), {dir_ + "/fifo"}, error));
    EXPECT_EQ(ownerOf(dir_ + "/fifo"), 0u);
}

}  // namespace
