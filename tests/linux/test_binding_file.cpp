// The binding file on the live platform: the last good copy beside it, the
// restore at start of a file a crash cut short, the owner-only modes, and a
// failed save made visible and restarted.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "live_fixture.h"
#include "platform/pal.h"

namespace {

const std::string kHeader = "1\r\nTYPE DHCP-SNOOPING\r\nBEGIN\r\n";
const std::string kEnd = "END\r\n";

// Line k (from 1) of a file as the module writes it.
std::string line(int k, uint8_t host, const char* port = "1/0/2", uint32_t lease = 0xe10)
{
    char b[80];
    snprintf(b, sizeof b, "%02x.%02x.%02x.%02x\t%02x:%02x:%02x:%02x:%02x:%02x\t%04x\t%11s\t%08x\t%08x\t\r\n", 198,
             18, 0, host, 2, 0, 0, 0, 0, host, 10, port, lease, 30 + 67 * k);
    return b;
}

std::string file(int lines, uint8_t firstHost = 10, uint32_t lease = 0xe10)
{
    std::string t = kHeader;
    for (int k = 1; k <= lines; ++k)
        t += line(k, (uint8_t)(firstHost + k), "1/0/2", lease);
    return t + kEnd;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream o;
    o << in.rdbuf();
    return o.str();
}

void writeFile(const std::string& path, const std::string& text, mode_t mode = 0644)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    chmod(path.c_str(), mode);
}

mode_t modeOf(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 07777;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

size_t eventsWithCode(uint32_t code)
{
    size_t n = 0;
    for (const auto& e : live::events())
        n += e.code == code ? 1 : 0;
    return n;
}

class BindingFile : public LiveTest {
protected:
    void SetUp() override
    {
        LiveTest::SetUp();
        char d[] = "/tmp/live-bindings-XXXXXX";
        ASSERT_NE(mkdtemp(d), nullptr);
        dir = d;
        live::runtime::setDataDir(dir);
        live::logging::configure(false, 64);
        live::logging::clearEvents();
        main = dir + "/dhcpSnoop.cfg";
        copy = main + ".good";
        ASSERT_EQ(live::persist::mainPath(), main);
        ASSERT_EQ(live::persist::copyPath(), copy);
    }
    void TearDown() override
    {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
        LiveTest::TearDown();
    }
    std::string dir, main, copy;
};

TEST_F(BindingFile, OnlyAWholeFileAsTheModuleWritesItIsComplete)
{
    size_t lines = 99;
    EXPECT_TRUE(live::persist::fileComplete(file(0), &lines));
    EXPECT_EQ(lines, 0u);
    EXPECT_TRUE(live::persist::fileComplete(file(3), &lines));
    EXPECT_EQ(lines, 3u);
    EXPECT_TRUE(live::persist::fileComplete(file(512), &lines));
    EXPECT_FALSE(live::persist::fileComplete(file(513), &lines)) << "more lines than the module writes";
    // Every cut of a save: empty, in the header, in a line, before END, in END.
    std::string whole = file(3);
    for (size_t n = 0; n < whole.size(); ++n)
        EXPECT_FALSE(live::persist::fileComplete(whole.substr(0, n), &lines)) << n << " bytes";
    EXPECT_FALSE(live::persist::fileComplete(whole + "x", &lines));
    // A line out of place: its running length is wrong.
    std::string swapped = kHeader + line(2, 11) + line(1, 12) + kEnd;
    EXPECT_FALSE(live::persist::fileComplete(swapped, &lines));
    std::string noTab = whole;
    noTab[30 + 11] = ' ';
    EXPECT_FALSE(live::persist::fileComplete(noTab, &lines));
    std::string upper = kHeader + line(1, 11);
    upper[30 + 63] = 'A';  // 00000061 -> 0000006A: wrong running length
    EXPECT_FALSE(live::persist::fileComplete(upper + kEnd, &lines));
}

TEST_F(BindingFile, AFileCutShortIsRestoredFromItsGoodCopyAtStart)
{
    std::string good = file(4);
    for (size_t cut : {(size_t)0, (size_t)17, good.size() - 70, good.size() - 3}) {
        live::logging::clearEvents();
        writeFile(main, good.substr(0, cut));
        writeFile(copy, good, 0600);
        live::persist::prepare(dir);
        EXPECT_EQ(readFile(main), good) << cut;
        EXPECT_EQ(readFile(copy), good) << cut;
        EXPECT_EQ(modeOf(main), 0600u);
        EXPECT_TRUE(live::saveStatus().restoredAtStart);
        EXPECT_EQ(eventsWithCode(live::kEventBindingFileRestored), 1u);
        EXPECT_FALSE(exists(dir + "/.dhcpSnoop.cfg.tmp"));
    }
}

TEST_F(BindingFile, ACompleteFileIsLoadedAsItIsAndBecomesTheGoodCopy)
{
    // The copy is older than the file the module will load: it follows the
    // file, so that a later cut save never falls back past what was loaded.
    writeFile(main, file(2, 40));
    writeFile(copy, file(5, 10), 0600);
    live::persist::prepare(dir);
    EXPECT_EQ(readFile(main), file(2, 40));
    EXPECT_EQ(readFile(copy), file(2, 40));
    EXPECT_FALSE(live::saveStatus().restoredAtStart);
    EXPECT_EQ(eventsWithCode(live::kEventBindingFileRestored), 0u);
    // An empty table is a complete file too.
    writeFile(main, file(0));
    live::persist::prepare(dir);
    EXPECT_EQ(readFile(copy), file(0));
}

TEST_F(BindingFile, NoFileNoRestoreAndNoCopyNoChange)
{
    // Removed on purpose (or never written): the copy does not bring it back.
    writeFile(copy, file(3), 0600);
    live::persist::prepare(dir);
    EXPECT_FALSE(exists(main));
    // Cut short without a copy: left to the module's loader as it is.
    std::filesystem::remove(copy);
    writeFile(main, file(3).substr(0, 100));
    live::persist::prepare(dir);
    EXPECT_EQ(readFile(main), file(3).substr(0, 100));
    EXPECT_FALSE(exists(copy));
    // A cut copy is no good copy either.
    writeFile(copy, file(3).substr(0, 120), 0600);
    live::persist::prepare(dir);
    EXPECT_EQ(readFile(main), file(3).substr(0, 100));
}

TEST_F(BindingFile, FilesAreTheOwnersOnly)
{
    writeFile(main, file(1), 0644);
    writeFile(copy, file(1), 0666);
    live::persist::prepare(dir);
    EXPECT_EQ(modeOf(main), 0600u);
    EXPECT_EQ(modeOf(copy), 0600u);
    std::filesystem::remove(copy);
    chmod(main.c_str(), 0644);
    live::persist::saveCompleted();
    EXPECT_EQ(modeOf(main), 0600u) << "the module's file after each save";
    EXPECT_EQ(modeOf(copy), 0600u);
}

TEST_F(BindingFile, ACompletedSaveRefreshesTheCopyAndACutOneDoesNot)
{
    uint64_t before = live::saveStatus().savesCompleted;
    writeFile(main, file(3));
    live::persist::saveCompleted();
    EXPECT_EQ(readFile(copy), file(3));
    live::SaveStatus st = live::saveStatus();
    EXPECT_EQ(st.savesCompleted, before + 1);
    EXPECT_EQ(st.lastGoodBindings, 3u);
    EXPECT_NE(st.lastGoodMs, 0u);
    // Not whole (changed behind the module's back): the copy stays.
    writeFile(main, file(4).substr(0, 200));
    live::persist::saveCompleted();
    EXPECT_EQ(readFile(copy), file(3));
    // A temporary file a crash left behind is no obstacle.
    writeFile(dir + "/.dhcpSnoop.cfg.good.tmp", "partial");
    writeFile(main, file(1));
    live::persist::saveCompleted();
    EXPECT_EQ(readFile(copy), file(1));
    EXPECT_FALSE(exists(dir + "/.dhcpSnoop.cfg.good.tmp"));
}

TEST_F(BindingFile, TheDataDirectoryIsMadeForItsOwnerOnly)
{
    swcfg::SwitchConfig cfg;
    std::string error;
    // Ports without interfaces: the user data plane opens none.
    ASSERT_TRUE(swcfg::parseSwitchConfig("[switch]\ndataplane = \"user\"\n\n[[port]]\nname = \"1/0/1\"\nvlan = 1\n", "t.toml",
                                         cfg, error))
        << error;
    live::Options opt;
    opt.useSyslog = false;
    opt.dataDir = dir + "/var/lib/dhcpsnoop";
    ASSERT_TRUE(live::start(cfg, opt, error)) << error;
    live::stop();
    EXPECT_EQ(modeOf(opt.dataDir), 0700u);
    // One that exists keeps its mode: it may be shared on purpose.
    opt.dataDir = dir;
    chmod(dir.c_str(), 0755);
    ASSERT_TRUE(live::start(cfg, opt, error)) << error;
    live::stop();
    EXPECT_EQ(modeOf(dir), 0755u);
}

// The module's save task ends after a failed save, and then no save ever
// happens again: the failure is an event, a counter and the status, and a
// restart (what SIGHUP does) brings saving back with one save at once.
TEST_F(BindingFile, AFailedSaveIsReportedAndSavingRestarts)
{
    moduleRunning = true;
    // One binding that expires two seconds after start: its removal saves.
    writeFile(main, file(1, 10, 2));
    live::persist::prepare(dir);
    bringUp("[switch]\nsnooping_vlans = [10]\n\n[[port]]\nname = \"1/0/1\"\nvlan = 10\ntrust = true\n\n"
            "[[port]]\nname = \"1/0/2\"\nvlan = 10\n");
    startModuleOnce();
    // The module's start-up writes its load flag on this thread with nothing
    // that orders it before the main task's reads; a message through its
    // queue does (the daemon's first frame does the same).
    DhcpSnoopMsg msg;
    memset(&msg, 0, sizeof msg);
    msg.type = DHCP_SNOOP_MSG_CFG_CHANGE;
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&msg, 500), DHCP_SNOOP_OK);
    // The file cannot be written: a directory stands in its place.
    std::filesystem::remove(main);
    ASSERT_TRUE(std::filesystem::create_directory(main));
    ASSERT_TRUE(waitUntil([] { return !live::saveStatus().saving; })) << "the binding never expired?";
    live::SaveStatus st = live::saveStatus();
    EXPECT_EQ(st.saveFailures, 1u);
    EXPECT_NE(st.failedMs, 0u);
    EXPECT_EQ(eventsWithCode(live::kEventSaveFailed), 1u);
    EXPECT_TRUE(live::saveIdle()) << "a stop does not wait for a task that is gone";
    // A change after the failure: its save request waits in the queue, for nobody.
    uint8_t request = 1;
    ASSERT_TRUE(live::runtime::postByName(DHCP_SNOOP_SAVE_QUEUE_NAME, &request, 1));
    EXPECT_TRUE(live::saveIdle()) << "nor for a request nobody will take";

    std::string error;
    std::filesystem::remove(main);
    uint64_t saves = st.savesCompleted;
    ASSERT_TRUE(live::restartSaving(error)) << error;
    EXPECT_TRUE(live::saveStatus().saving);
    EXPECT_FALSE(live::restartSaving(error));
    EXPECT_EQ(error, "saving was not stopped");
    ASSERT_TRUE(waitUntil([&] { return live::saveStatus().savesCompleted > saves; }));
    EXPECT_EQ(readFile(main), file(0)) << "the expired binding is gone from the file";
    EXPECT_EQ(readFile(copy), file(0));
    EXPECT_EQ(modeOf(main), 0600u);
    EXPECT_EQ(eventsWithCode(live::kEventSavesRestarted), 1u);
}

}  // namespace
