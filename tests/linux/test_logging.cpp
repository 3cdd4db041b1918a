// The live platform's logging: what reaches standard error, the system log
// kept for the control interface, and the naming of drops by the main
// task's lines.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "live_fixture.h"
#include "snooping/dhcpSnoopInternal.h"
#include "tools/common/drop_reason.h"

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

TEST_F(Logging, TheMainTaskAlwaysWritesItsLinesOtherTasksTheirErrors)
{
    live::setDebug(false);
    live::logging::setMainTask(true);
    EXPECT_EQ(debugFlagGet(MID_DHCP), 1u);
    live::logging::setMainTask(false);
    // Debug lines need exactly 1; error lines anything but 0.
    EXPECT_EQ(debugFlagGet(MID_DHCP), 2u);
    live::setDebug(true);
    EXPECT_EQ(debugFlagGet(MID_DHCP), 1u);
    EXPECT_STREQ(midNameGet(MID_DHCP), "DHCPSNOOP");
    EXPECT_STREQ(pidNameGet(pidGetCurrent()), "dhcpsnoopd");
    EXPECT_EQ(pidGetCurrent(), (uint32_t)getpid());
}

TEST_F(Logging, OtherTasksKeepTheirErrorLinesWithDebugOff)
{
    std::string text;
    {
        StderrCapture cap;
        live::setDebug(false);
        std::thread other([] {
            DHCP_SNOOP_DEBUG("other task quiet %d", 1);
            DHCP_SNOOP_ERROR("other task loud %d", 2);
        });
        other.join();
        text = cap.text();
    }
    EXPECT_EQ(text.find("other task quiet"), std::string::npos) << text;
    EXPECT_NE(text.find("other task loud 2\n"), std::string::npos) << text;
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

TEST_F(Drops, FarBehindTheMainTaskIsSparedItsDebugLinesAndSaysSoOfItsDrops)
{
    // The main task's queue here is one of its own with a backlog; frames
    // are handed over by another thread.
    auto frameFromElsewhere = [this] {
        rx("1/0/2", fb::discover().build());
        DhcpSnoopMsg m;
        memset(&m, 0, sizeof m);
        std::thread t([&m] { EXPECT_EQ(pal_msgQ_receive(dhcpSnoopQueue, &m, sizeof m, 0, nullptr), (int32_t)sizeof m); });
        t.join();
        return m.packet;
    };
    PalMsgQ q = pal_msgQ_create("/backlogQ", 128, 4, 0);
    ASSERT_GT(q, 0);
    uint32_t v = 0;
    for (uint32_t i = 0; i < live::logging::kNamingOffBacklog + 1; ++i)
        ASSERT_EQ(pal_msgQ_send(q, &v, 4, 0, 0), 0);
    EXPECT_EQ(debugFlagGet(MID_DHCP), 1u) << "names drops while not behind";
    ASSERT_EQ(pal_msgQ_receive(q, &v, 4, 0, nullptr), 4);  // 64 still waiting
    EXPECT_EQ(debugFlagGet(MID_DHCP), 2u) << "behind: debug lines are not composed, error lines are";

    DhcpSnoopPacket p = frameFromElsewhere();
    DHCP_SNOOP_DEBUG("Drop DHCP nak packet received from untrusted port.");
    dhcpReleasePacketPool(p.frame);
    EXPECT_EQ(counters("1/0/2").dropped[live::logging::kUnnamedDrop], 1u);
    p = frameFromElsewhere();
    DHCP_SNOOP_ERROR("Oh no! MSG Parser ERROR!!\r\n");
    dhcpReleasePacketPool(p.frame);
    EXPECT_EQ(counters("1/0/2").dropped["invalid frame"], 1u) << "error lines still name their drops";

    // Naming comes back only once the backlog is down to 16.
    for (uint32_t left = live::logging::kNamingOffBacklog; left > live::logging::kNamingOnBacklog + 1; --left)
        ASSERT_EQ(pal_msgQ_receive(q, &v, 4, 0, nullptr), 4);
    EXPECT_EQ(debugFlagGet(MID_DHCP), 2u) << "17 waiting: not yet back";
    ASSERT_EQ(pal_msgQ_receive(q, &v, 4, 0, nullptr), 4);
    EXPECT_EQ(debugFlagGet(MID_DHCP), 1u) << "16 waiting: drops are named again";
    while (pal_msgQ_receive(q, &v, 4, 0, nullptr) == 4) {
    }
    p = frameFromElsewhere();
    DHCP_SNOOP_DEBUG("Drop DHCP nak packet received from untrusted port.");
    dhcpReleasePacketPool(p.frame);
    EXPECT_EQ(counters("1/0/2").dropped["untrusted server message"], 1u);
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

namespace {

// ---- lines left unformatted with debug off ------------------------------------

class SkippedLines : public Drops {
protected:
    // The reason the live platform names for one frame after these debug
    // lines (format, one text argument) of the main task, debug off.
    std::string reasonOf(const std::vector<std::pair<std::string, std::string>>& lines)
    {
        live::setDebug(false);
        DhcpSnoopPacket p = trapOne();
        for (const auto& l : lines)
            DHCP_SNOOP_DEBUG(l.first.c_str(), l.second.c_str());
        auto before = counters("1/0/2").dropped;
        dhcpReleasePacketPool(p.frame);
        auto after = counters("1/0/2").dropped;
        for (const auto& kv : after)
            if (kv.second != before[kv.first])
                return kv.first;
        return "(not counted)";
    }
    // What the replay tool names for the same lines, every one formatted.
    static std::string expected(const std::vector<std::pair<std::string, std::string>>& lines)
    {
        std::vector<std::string> msgs;
        for (const auto& l : lines) {
            char buf[1024];
            snprintf(buf, sizeof buf, l.first.c_str(), l.second.c_str());
            std::string m = buf;
            while (!m.empty() && (m.back() == '\n' || m.back() == '\r'))
                m.pop_back();
            msgs.push_back(m);
        }
        return dropreason::dropReason(msgs);
    }
};

std::string escapePercent(const std::string& s)
{
    std::string o;
    for (char c : s) {
        o += c;
        if (c == '%')
            o += '%';
    }
    return o;
}

TEST_F(SkippedLines, EveryRuleIsNamedWhereverItsTextIsCutByAConversion)
{
    auto texts = dropreason::ruleTexts();
    ASSERT_GT(texts.size(), 10u);
    for (const auto& t : texts) {
        // The module error names a frame through an error line only.
        if (t == "E - ")
            continue;
        std::string want = dropreason::dropReason({t});
        ASSERT_NE(want, "dropped") << t;
        for (size_t k = 0; k <= t.size(); ++k) {
            std::string fmt = escapePercent(t.substr(0, k)) + "%s";
            EXPECT_EQ(reasonOf({{"vid = %s", "10"}, {fmt, t.substr(k)}}), want) << fmt;
            EXPECT_EQ(reasonOf({{fmt + "\r\n", t.substr(k)}}), want) << fmt;
        }
        // Whole, without a conversion (the argument is not used).
        EXPECT_EQ(reasonOf({{escapePercent(t), ""}}), want) << t;
        // Longer than the text before the conversion: a prefix rule's line.
        std::vector<std::pair<std::string, std::string>> longer = {{escapePercent(t) + " 99 %s", "x"}};
        EXPECT_EQ(reasonOf(longer), expected(longer)) << t;
    }
}

TEST_F(SkippedLines, ADebugLineStartingAsAModuleErrorIsNamedSo)
{
    EXPECT_EQ(reasonOf({{"E - %s", "5 call x() failed."}}), "module error");
    EXPECT_EQ(reasonOf({{"E%s", " - 5 call x() failed."}}), "module error");
    EXPECT_EQ(reasonOf({{"%s", "E - 5 call x() failed."}}), "module error");
}

TEST_F(SkippedLines, RandomLinesNameWhatTheirFormattedTextsName)
{
    auto texts = dropreason::ruleTexts();
    const std::vector<std::string> others = {"vid = ", "Drop DHCP ", "port: ", "mac check ",
                                             "Forward ", "magic", "Oh no! ", "DHCP ack packet ",
                                             "", "\r\n", "E", "E - "};
    std::mt19937 rng(20261122u);
    auto pick = [&rng](size_t n) { return (size_t)(rng() % n); };
    for (int frame = 0; frame < 400; ++frame) {
        std::vector<std::pair<std::string, std::string>> lines;
        size_t count = 1 + pick(3);
        for (size_t i = 0; i < count; ++i) {
            // A piece of a rule text or another start, maybe cut short, a
            // conversion, and an argument that may finish a rule text.
            const std::string& a = pick(2) ? texts[pick(texts.size())] : others[pick(others.size())];
            std::string lit = a.substr(0, pick(a.size() + 1));
            if (pick(4) == 0)
                lit = a + " " + std::to_string(pick(100));
            const std::string& b = texts[pick(texts.size())];
            std::string arg = pick(2) ? b.substr(std::min(lit.size(), b.size())) : b.substr(pick(b.size() + 1));
            std::string tail = pick(3) == 0 ? "\r\n" : "";
            std::string fmt = pick(4) == 0 ? escapePercent(lit) + tail : escapePercent(lit) + "%s" + tail;
            lines.push_back({fmt, arg});
        }
        std::string want = expected(lines);
        std::string got = reasonOf(lines);
        ASSERT_EQ(got, want) << lines[0].first << " | " << lines[0].second;
    }
}

TEST_F(SkippedLines, OnlyLinesThatCannotNameADropAreLeftUnformatted)
{
    live::setDebug(false);
    DhcpSnoopPacket p = trapOne();
    const char* fmtOther = DHCP_SNOOP_DEBUG_PREFIX " vid = %d" DHCP_SNOOP_DEBUG_SUFFIX;
    const char* fmtRule = DHCP_SNOOP_DEBUG_PREFIX " Packet flow overflow" DHCP_SNOOP_DEBUG_SUFFIX;
    const char* fmtConv = DHCP_SNOOP_DEBUG_PREFIX " %s" DHCP_SNOOP_DEBUG_SUFFIX;
    EXPECT_EQ(debugPrintf(MID_DHCP, fmtOther, "p", "t", "m", "f", 1, 10), 0);
    EXPECT_GT(debugPrintf(MID_DHCP, fmtRule, "p", "t", "m", "f", 1), 0);
    EXPECT_GT(debugPrintf(MID_DHCP, fmtConv, "p", "t", "m", "f", 1, "x"), 0);
    // Debug on: every line is written.
    live::setDebug(true);
    {
        StderrCapture cap;
        EXPECT_GT(debugPrintf(MID_DHCP, fmtOther, "p", "t", "m", "f", 1, 10), 0);
        EXPECT_NE(cap.text().find("vid = 10"), std::string::npos);
    }
    live::setDebug(false);
    dhcpReleasePacketPool(p.frame);
    EXPECT_EQ(counters("1/0/2").dropped["rate limit"], 1u);
}

TEST(DropReasonStart, RelatedTextsEitherWayMatter)
{
    EXPECT_TRUE(dropreason::mayMatter("", 0));
    EXPECT_TRUE(dropreason::mayMatter("Drop DHCP ", 10));
    EXPECT_TRUE(dropreason::mayMatter("magicCookie: 99", 15));
    EXPECT_TRUE(dropreason::mayMatter("E - 5", 5));
    EXPECT_FALSE(dropreason::mayMatter("vid = ", 6));
    EXPECT_FALSE(dropreason::mayMatter("Drop DHCP request", 17));
}

}  // namespace

namespace {

TEST(ErrorLineLimit, AtMostTheBurstEachSecondThenTheHeldCount)
{
    live::logging::ErrorLineLimit limit(3);
    uint64_t held = 99;
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(limit.allow(5000 + (uint64_t)i, &held)) << i;
        EXPECT_EQ(held, 0u);
    }
    EXPECT_FALSE(limit.allow(5100, &held));
    EXPECT_FALSE(limit.allow(5999, &held));
    EXPECT_EQ(held, 0u) << "told only when a new second begins";
    EXPECT_TRUE(limit.allow(6000, &held));
    EXPECT_EQ(held, 2u);
    EXPECT_TRUE(limit.allow(6001, &held));
    EXPECT_EQ(held, 0u) << "told once";
    // A quiet spell: the next line starts a fresh second with nothing held.
    EXPECT_TRUE(limit.allow(60000, &held));
    EXPECT_EQ(held, 0u);
}

}  // namespace

TEST_F(Logging, AFloodOfErrorLinesIsHeldBackAndCountedWithDebugOff)
{
    const uint32_t n = live::logging::kErrorLinesPerSecond + 30;
    std::string quiet;
    {
        StderrCapture cap;
        live::setDebug(false);
        // A fresh second first, so the whole burst is available.
        usleep(1100 * 1000);
        DHCP_SNOOP_ERROR("warm-up");
        usleep(1100 * 1000);
        for (uint32_t i = 0; i < n; i++)
            DHCP_SNOOP_ERROR("flood line %u", i);
        usleep(1100 * 1000);
        DHCP_SNOOP_ERROR("after the flood");
        quiet = cap.text();
    }
    size_t written = 0;
    for (size_t pos = 0; (pos = quiet.find("flood line ", pos)) != std::string::npos; pos++)
        written++;
    EXPECT_EQ(written, live::logging::kErrorLinesPerSecond) << quiet;
    EXPECT_NE(quiet.find("dhcpsnoopd: 30 error lines held back"), std::string::npos) << quiet;
    EXPECT_NE(quiet.find("after the flood\n"), std::string::npos) << quiet;

    // With debug on the operator asked for everything.
    std::string loud;
    {
        StderrCapture cap;
        live::setDebug(true);
        for (uint32_t i = 0; i < n; i++)
            DHCP_SNOOP_ERROR("debug flood %u", i);
        loud = cap.text();
    }
    written = 0;
    for (size_t pos = 0; (pos = loud.find("debug flood ", pos)) != std::string::npos; pos++)
        written++;
    EXPECT_EQ(written, n);
}
