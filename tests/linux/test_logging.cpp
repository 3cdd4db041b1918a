// The live platform's logging: what reaches standard error, the system log
// kept for the control interface, and the naming of drops by the main
// task's lines.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "live_fixture.h"
#include "snooping/dhcpSnoopInternal.h"

namespace {

// Standard error of the calls in between, as text.
class StderrCapture {
public:
    StderrCapture()
    {
        fflush(stderr);
        char name[] = "/tmp/live-stderr-XXXXXX";
        fd_ = mkstemp(name);
        path_ = name;
        saved_ = dup(2);
        dup2(fd_, 2);
    }
    ~StderrCapture()
    {
        restore();
        unlink(path_.c_str());
    }
    std::string text()
    {
        restore();
        std::ifstream in(path_);
        std::stringstream s;
        s << in.rdbuf();
        unlink(path_.c_str());
        return s.str();
    }

private:
    void restore()
    {
        if (saved_ < 0)
            return;
        fflush(stderr);
        dup2(saved_, 2);
        close(saved_);
        close(fd_);
        saved_ = -1;
    }
    int fd_ = -1;
    int saved_ = -1;
    std::string path_;
};

class Logging : public LiveTest {
protected:
    void TearDown() override
    {
        live::setDebug(false);
        live::logging::setMainTask(false);
        live::logging::configure(false, 256);
        live::logging::clearEvents();
        LiveTest::TearDown();
    }
};

TEST_F(Logging, TheModuleAlwaysWritesItsLines)
{
    EXPECT_EQ(debugFlagGet(MID_DHCP), 1u);
    live::setDebug(false);
    EXPECT_EQ(debugFlagGet(MID_DHCP), 1u);
    EXPECT_STREQ(midNameGet(MID_DHCP), "DHCPSNOOP");
    EXPECT_STREQ(pidNameGet(pidGetCurrent()), "dhcpsnoopd");
}

TEST_F(Logging, ErrorLinesAlwaysReachStandardErrorDebugLinesOnlyWithDebugOn)
{
    std::string text;
    {
        StderrCapture cap;
        live::setDebug(false);
        DHCP_SNOOP_DEBUG("quiet line %d", 1);
        DHCP_SNOOP_ERROR("loud line %d", 2);
        live::setDebug(true);
        DHCP_SNOOP_DEBUG("debug line %d", 3);
        text = cap.text();
    }
    EXPECT_EQ(text.find("quiet line 1"), std::string::npos) << text;
    EXPECT_NE(text.find("loud line 2\n"), std::string::npos) << text;
    EXPECT_NE(text.find("debug line 3\n"), std::string::npos) << text;
    EXPECT_EQ(text.find('\r'), std::string::npos) << "one line end";
    EXPECT_EQ(text.find("\x1b["), std::string::npos) << "no colour codes into a file";
    EXPECT_TRUE(live::debug());
}

TEST_F(Logging, TheFourCodesAreKeptWithReadableTexts)
{
    live::logging::configure(false, 16);
    const char* port = "1/0/3";
    syslogAdd(DHCP_SNOOP_LOG_LOAD_OK, 0, 0, 0, 0, 0, 0);
    syslogAdd(DHCP_SNOOP_LOG_LOAD_FAIL, 0, 0, 0, 0, 0, 0);
    syslogAdd(DHCP_SNOOP_LOG_RATE_OVERFLOW, (uintptr_t)port, 0, 0, 0, 0, 0);
    syslogAdd(DHCP_SNOOP_LOG_DECLINE_OVERFLOW, (uintptr_t)port, 0, 0, 0, 0, 0);
    syslogAdd(0x12345678u, 0, 0, 0, 0, 0, 0);
    auto e = live::events();
    ASSERT_EQ(e.size(), 5u);
    EXPECT_EQ(e[0].code, DHCP_SNOOP_LOG_LOAD_OK);
    EXPECT_EQ(e[0].text, "DHCP snooping: binding file loaded");
    EXPECT_EQ(e[1].text, "DHCP snooping: binding file could not be loaded");
    EXPECT_EQ(e[2].text, "DHCP snooping: DHCP rate limit exceeded on port 1/0/3");
    EXPECT_EQ(e[3].text, "DHCP snooping: DHCPDECLINE rate limit exceeded on port 1/0/3");
    EXPECT_EQ(e[4].text, "system log code 0x12345678");
    EXPECT_GT(e[0].unixMs, 1600000000000u);
    EXPECT_LE(e[0].unixMs, e[4].unixMs);
    // A missing text argument is no crash.
    syslogAdd(DHCP_SNOOP_LOG_RATE_OVERFLOW, 0, 0, 0, 0, 0, 0);
    EXPECT_EQ(live::events().back().text, "DHCP snooping: DHCP rate limit exceeded on port ");
}

TEST_F(Logging, OnlyTheNewestEntriesAreKept)
{
    live::logging::configure(false, 3);
    for (uint32_t i = 0; i < 5; ++i)
        syslogAdd(i == 4 ? DHCP_SNOOP_LOG_LOAD_FAIL : DHCP_SNOOP_LOG_LOAD_OK, 0, 0, 0, 0, 0, 0);
    auto e = live::events();
    ASSERT_EQ(e.size(), 3u);
    EXPECT_EQ(e[2].code, DHCP_SNOOP_LOG_LOAD_FAIL) << "oldest first, newest last";
}

TEST_F(Logging, SwitchCountsAsStartedOnlyWhenTold)
{
    live::logging::setSwitchInited(false);
    EXPECT_EQ(isSwitchInited(), 0u);
    live::logging::setSwitchInited(true);
    EXPECT_EQ(isSwitchInited(), 1u);
    live::logging::setSwitchInited(false);
}

// ---- naming drops ----------------------------------------------------------------

const char* kConfig = R"(
[switch]
mac = "02:00:00:00:00:fe"
snooping_vlans = [10]

[[port]]
name = "1/0/1"
vlan = 10
trust = true

[[port]]
name = "1/0/2"
vlan = 10

[[port]]
name = "1/0/5"
vlan = 20
)";

class Drops : public Logging {
protected:
    void SetUp() override
    {
        Logging::SetUp();
        dhcpSnoopQueue = pal_msgQ_create(DHCP_SNOOP_QUEUE_NAME, 8, sizeof(DhcpSnoopMsg), 4);
        ASSERT_GT(dhcpSnoopQueue, 0);
        bringUp(kConfig);
        live::logging::setMainTask(true);
        live::logging::clearDropLines();
    }

    void TearDown() override
    {
        dhcpSnoopQueue = 0;
        Logging::TearDown();
    }

    // Traps one frame from 1/0/2 and hands its descriptor over.
    DhcpSnoopPacket trapOne()
    {
        rx("1/0/2", fb::discover().build());
        DhcpSnoopMsg m;
        memset(&m, 0, sizeof m);
        EXPECT_EQ(pal_msgQ_receive(dhcpSnoopQueue, &m, sizeof m, 0, nullptr), (int32_t)sizeof m);
        return m.packet;
    }
};

TEST_F(Drops, AReleasedFrameIsNamedByTheMainTasksLines)
{
    DhcpSnoopPacket p = trapOne();
    DHCP_SNOOP_DEBUG("vid = %d", 10);
    DHCP_SNOOP_DEBUG("Drop DHCP nak packet received from untrusted port.");
    dhcpReleasePacketPool(p.frame);
    EXPECT_EQ(counters("1/0/2").dropped["untrusted server message"], 1u);

    // The next frame starts without the earlier lines.
    p = trapOne();
    dhcpReleasePacketPool(p.frame);
    EXPECT_EQ(counters("1/0/2").dropped["dropped"], 1u);

    p = trapOne();
    DHCP_SNOOP_ERROR("E - %d call %s failed.", 5, "x()");
    dhcpReleasePacketPool(p.frame);
    EXPECT_EQ(counters("1/0/2").dropped["module error"], 1u);

    p = trapOne();
    DHCP_SNOOP_ERROR("Oh no! MSG Parser ERROR!!\r\n");
    dhcpReleasePacketPool(p.frame);
    EXPECT_EQ(counters("1/0/2").dropped["invalid frame"], 1u);
}

TEST_F(Drops, LinesOfOtherTasksNameNothing)
{
    DhcpSnoopPacket p = trapOne();
    std::thread other([] { DHCP_SNOOP_DEBUG("Packet flow overflow\r\n"); });
    other.join();
    dhcpReleasePacketPool(p.frame);
    EXPECT_EQ(counters("1/0/2").dropped.count("rate limit"), 0u);
    EXPECT_EQ(counters("1/0/2").dropped["dropped"], 1u);
}

TEST_F(Drops, ASentFrameCountsAsForwardedOneSentNowhereAsNoEgress)
{
    DhcpSnoopPacket p = trapOne();
    p.sendFlags = SEND_FLAG_TX | SEND_FLAG_FLOOD;
    ASSERT_EQ(norvikPacketSend(&p), 0u);
    dhcpReleasePacketPool(p.frame);
    EXPECT_EQ(counters("1/0/2").dhcpForwarded, 1u);

    p = trapOne();
    p.sendFlags = SEND_FLAG_TX;
    PortList onlyOtherVlan;
    memset(&onlyOtherVlan, 0, sizeof onlyOtherVlan);
    onlyOtherVlan.word[0] = 1u << 5;  // 1/0/5, not in VLAN 10
    p.ports = onlyOtherVlan;
    ASSERT_EQ(norvikPacketSend(&p), 0u);
    dhcpReleasePacketPool(p.frame);
    EXPECT_EQ(counters("1/0/2").dhcpForwarded, 1u);
    EXPECT_EQ(counters("1/0/2").dropped["no egress port"], 1u);
}

TEST_F(Drops, ARebuiltCopyOfTheFrameCountsForItsBuffer)
{
    DhcpSnoopPacket p = trapOne();
    // The module sends a rebuilt frame from its own buffer (option 82).
    std::vector<uint8_t> copy(p.frame, p.frame + p.frameLen);
    uint8_t* pool = p.frame;
    p.frame = copy.data();
    p.sendFlags = SEND_FLAG_TX | SEND_FLAG_FLOOD;
    ASSERT_EQ(norvikPacketSend(&p), 0u);
    dhcpReleasePacketPool(pool);
    EXPECT_EQ(counters("1/0/2").dhcpForwarded, 1u);
    EXPECT_EQ(sentPorts(), std::vector<std::string>{"1/0/1"});
}

}  // namespace

namespace {

TEST_F(Drops, LinesBeforeTheMainTaskTookTheFrameDoNotCount)
{
    rx("1/0/2", fb::discover().build());
    // Lines of earlier work (a timer tick) come before the frame's record.
    DHCP_SNOOP_DEBUG("Packet flow overflow\r\n");
    DhcpSnoopMsg m;
    memset(&m, 0, sizeof m);
    ASSERT_EQ(pal_msgQ_receive(dhcpSnoopQueue, &m, sizeof m, 0, nullptr), (int32_t)sizeof m);
    dhcpReleasePacketPool(m.packet.frame);
    EXPECT_EQ(counters("1/0/2").dropped.count("rate limit"), 0u);
    EXPECT_EQ(counters("1/0/2").dropped["dropped"], 1u);
}

}  // namespace
