// Packet pipeline: receive port, VLAN check, element, header validation with
// its deliberate quirks, the tail, and frames that claim more than they hold.
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "intake_fixture.h"

namespace {

const char kParseStart[] = "===============Packet Parse start==================\n";
const char kParseOk[] = "=================Packet parse end, no error==============\n";
const char kParseFail[] = "Oh no! MSG Parser ERROR!!\r\n";
const char kTooShort[] = "The DHCP packet is too short.";
const char kParserEnd[] = "============DHCP parse end===============\n";

class PipelineTest : public IntakeTest {
protected:
    void SetUp() override
    {
        IntakeTest::SetUp();
        sim::setDebugFlag(1);
    }

    // Runs the frame and expects it refused with exactly this message.
    void expectRefused(const fb::Bytes& bytes, const std::string& message)
    {
        sim::clearLogs();
        EXPECT_EQ(handle(bytes), DHCP_SNOOP_E_PACKET);
        EXPECT_EQ(sim::countMessage(message), 1u) << message;
        EXPECT_EQ(sim::countMessage(kParseFail), 1u);
        EXPECT_FALSE(sim::hasMessage(kParseOk));
        EXPECT_FALSE(sim::hasMessage(kParserEnd));
        EXPECT_EQ(mallocCounter, tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC) + tableCount(DHCP_SNOOP_ELEMENT_REQUEST));
    }

    void expectAccepted(const fb::Bytes& bytes)
    {
        sim::clearLogs();
        EXPECT_EQ(handle(bytes), DHCP_SNOOP_OK);
        EXPECT_TRUE(sim::hasMessage(kParseOk));
        EXPECT_FALSE(sim::hasMessage(kParseFail));
        EXPECT_TRUE(sim::hasMessage(kParserEnd));
    }
};

// ---- arguments and the tail ----------------------------------------------------------

TEST_F(PipelineTest, NullRecordReturnsOneAndReleasesNothing)
{
    EXPECT_EQ(dhcpSnoopPacketHandle(nullptr), 1u);
    EXPECT_EQ(sim::releaseCount(), 0u);
}

TEST_F(PipelineTest, NullFrameIsAnErrorAndNothingIsReleased)
{
    DhcpSnoopMsg msg;
    memset(&msg, 0, sizeof msg);
    msg.packet.vid = kVid;
    EXPECT_EQ(dhcpSnoopPacketHandle(&msg), 0xFFFFFFFFu);
    EXPECT_EQ(sim::countMessage("Packet's mac header is NULL!"), 1u);
    EXPECT_TRUE(sim::logs()[0].error);
    EXPECT_TRUE(sim::hasMessage("free packet"));
    EXPECT_FALSE(sim::hasMessage("release packet pool"));
    EXPECT_EQ(sim::releaseCount(), 0u);
}

TEST_F(PipelineTest, ValidFrameRunsEveryStepAndIsReleasedOnce)
{
    fb::Bytes f = fb::discover().build();
    EXPECT_EQ(handle(f), DHCP_SNOOP_OK);
    std::vector<std::string> m = sim::messages();
    auto at = [&](const std::string& s) {
        for (size_t i = 0; i < m.size(); i++)
            if (m[i] == s)
                return (long)i;
        return -1L;
    };
    EXPECT_EQ(m.front(), "macHead len:800, etherType:0");
    EXPECT_EQ(m[1], "src mac:00:11:22:33:44:55, dst mac:ff:ff:ff:ff:ff:ff");
    EXPECT_EQ(m[2], "switchMac:00:0e:5e:00:00:01");
    EXPECT_EQ(m[3], "rcvPort 1/0/3 is swp:1, is valid:1");
    EXPECT_EQ(m[4], "vid = 10");
    EXPECT_EQ(m[5], "vlan enable status = 1");
    EXPECT_EQ(m[6], kParseStart);
    EXPECT_LT(at(kParseStart), at("Ether type"));
    EXPECT_LT(at("Ether type"), at("Message type:1"));
    EXPECT_LT(at("Message type:1"), at(kParseOk));
    EXPECT_LT(at(kParseOk), at("============ DHCP Parser ================\n"));
    EXPECT_LT(at(kParserEnd), at("free packet"));
    EXPECT_EQ(m[m.size() - 2], "free packet");
    EXPECT_EQ(m.back(), "release packet pool");
    EXPECT_EQ(sim::releaseCount(), 1u);
    EXPECT_EQ(mallocCounter, tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC) + tableCount(DHCP_SNOOP_ELEMENT_REQUEST));
}

TEST_F(PipelineTest, FdbLookUpIsPostedForTheDestination)
{
    fb::Bytes f = fb::requestRenewing().build();
    handle(f);
    FdbEntry q;
    PalMsgQ queue = sim::queueByName(DHCP_SNOOP_FDB_QUEUE_NAME);
    ASSERT_TRUE(sim::queueTake(queue, &q, sizeof q));
    fb::Params p;
    EXPECT_EQ(memcmp(q.mac, p.serverMac.data(), 6), 0);
    EXPECT_EQ(q.vlan, kVid);
    EXPECT_EQ(q.port, 0u);
    EXPECT_EQ(q.word, 0u);
    EXPECT_FALSE(sim::queueTake(queue, &q, sizeof q));
}

// ---- receive port ---------------------------------------------------------------------

TEST_F(PipelineTest, ReceivePortIsFoundForPhysicalPortsAndPortChannels)
{
    const up ports[] = {sim::physicalPort(1, 1), sim::physicalPort(1, 28), sim::portChannel(1),
                        sim::portChannel(8)};
    for (up p : ports) {
        sim::clearLogs();
        rcvPort = 0;
        handleFrom(fb::discover().build(), p);
        EXPECT_EQ(rcvPort, p) << sim::portName(p);
        std::string kind = UP_KIND(p) == UP_TYPE_PHYSICAL ? "1" : "0";
        EXPECT_TRUE(sim::hasMessage("rcvPort " + sim::portName(p) + " is swp:" + kind + ", is valid:1"));
    }
}

TEST_F(PipelineTest, ReceivePortOfTheLastMemberWhenSeveralAreSet)
{
    DhcpSnoopMsg msg = record(fb::discover().build(), sim::physicalPort(1, 2));
    PortList pc = sim::portListOf(sim::portChannel(2));
    for (int i = 0; i < 6; i++)
        msg.packet.ports.word[i] |= pc.word[i];
    dhcpSnoopPacketHandle(&msg);
    EXPECT_EQ(rcvPort, sim::portChannel(2));
    EXPECT_TRUE(sim::hasMessage("rcvPort 1/0/2 is swp:1, is valid:1"));
}

TEST_F(PipelineTest, ReceivePortKeepsThePreviousValueWithoutAMember)
{
    rcvPort = sim::physicalPort(1, 7);
    DhcpSnoopMsg msg = record(fb::discover().build(), port);
    memset(&msg.packet.ports, 0, sizeof msg.packet.ports);
    dhcpSnoopPacketHandle(&msg);
    EXPECT_EQ(rcvPort, sim::physicalPort(1, 7));
}

// ---- VLAN check and element ------------------------------------------------------------

TEST_F(PipelineTest, MalformedFrameInAVlanWithoutSnoopingIsForwardedUnread)
{
    sim::setVlanSnooping(kVid, false);
    fb::Bytes f = fb::discover().etherType(0x86DD).udpLength(3).build();
    fb::truncate(f, 40);
    handle(f);
    EXPECT_TRUE(sim::hasMessage("vlan enable status = 0"));
    EXPECT_TRUE(sim::hasMessage("DHCP Snooping feature is not enable in vlan 10, forward the DHCP packet in the "
                                "received vlan immediately."));
    EXPECT_FALSE(sim::hasMessage(kParseStart));
    EXPECT_FALSE(sim::hasMessage(kParseFail));
    EXPECT_EQ(mallocCounter, tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC) + tableCount(DHCP_SNOOP_ELEMENT_REQUEST));
    EXPECT_EQ(freeListCount(), DHCP_SNOOP_POOL_SIZE) << "no element is taken";
    // What is sent is the frame as it came.
    for (const sim::SentPacket& s : sim::sent())
        EXPECT_EQ(s.frame, f);
    // The two forwarding steps report failures with their own call texts.
    const std::regex sendFlag("E - -?[0-9]+ call dhcpSnoopPacketSetSendFlag\\(inputPacket, &uplist\\) failed\\.");
    const std::regex send("E - -?[0-9]+ call dhcpSnoopPacketSend\\(inputPacket, uplist\\) failed\\.");
    for (const sim::LogLine& l : sim::logs()) {
        if (l.message().rfind("E - ", 0) == 0) {
            EXPECT_TRUE(std::regex_match(l.message(), sendFlag) || std::regex_match(l.message(), send))
                << l.message();
        }
    }
    EXPECT_EQ(sim::releaseCount(), 1u);
}

TEST_F(PipelineTest, FailedVlanQueryIsReportedAndTheFrameIsNotSnooped)
{
    sim::failNext("swDhcpSnoopGetVlanEnableStatusByVid", 7);
    handle(fb::discover().build());
    EXPECT_EQ(sim::countMessage("E - 7 call swDhcpSnoopGetVlanEnableStatusByVid(inputPacket->vid, &isVlanSet) failed."),
              1u);
    EXPECT_TRUE(sim::hasMessage("vlan enable status = 0"));
    EXPECT_FALSE(sim::hasMessage(kParseStart));
}

TEST_F(PipelineTest, ExhaustedPoolDropsFramesOfSnoopedVlans)
{
    std::vector<DhcpSnoopElement *> held;
    for (uint32_t i = 0; i < DHCP_SNOOP_POOL_SIZE; i++)
        held.push_back(dhcpSnoopGetMem());
    ASSERT_EQ(dhcpSnoopGetMem(), nullptr);
    sim::clearLogs();
    EXPECT_EQ(handle(fb::discover().build()), DHCP_SNOOP_OK);
    EXPECT_TRUE(sim::hasMessage(
        "Get memory for the elemet of table failed, forward the DHCP packet immediately."));
    EXPECT_FALSE(sim::hasMessage(kParseStart));
    EXPECT_TRUE(sim::sent().empty()) << "dropped, not forwarded";
    EXPECT_EQ(sim::releaseCount(), 1u);
    EXPECT_EQ(mallocCounter, DHCP_SNOOP_POOL_SIZE);
    for (DhcpSnoopElement *e : held)
        dhcpSnoopFreeMem(e);
}

// ---- Ethernet layouts ------------------------------------------------------------------

TEST_F(PipelineTest, NonIpv4EtherTypeIsRefused)
{
    expectRefused(fb::discover().etherType(0x86DD).build(), "macHeader: type != 0800 type: 86dd=ntohs(86dd), error\r\n");
    EXPECT_TRUE(sim::hasMessage("Ether type"));
    EXPECT_FALSE(sim::hasMessage("%.2x-")) << "no dump without debug level 2";
    std::vector<std::string> after = messagesFrom("macHeader: type != 0800 type: 86dd=ntohs(86dd), error\r\n");
    ASSERT_GE(after.size(), 2u);
    EXPECT_EQ(after[1], kParseFail);
}

TEST_F(PipelineTest, NonIpv4FrameIsDumpedWithDebugLevelTwo)
{
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_DUMP;
    fb::Bytes f = fb::discover().etherType(0x86DD).build();
    expectRefused(f, "macHeader: type != 0800 type: 86dd=ntohs(86dd), error\r\n");
    std::vector<std::string> after = messagesFrom("macHeader: type != 0800 type: 86dd=ntohs(86dd), error\r\n");
    std::vector<std::string> expected;
    char piece[8];
    for (size_t i = 0; i < f.size(); i++) {
        snprintf(piece, sizeof piece, "%.2x-", f[i]);
        expected.push_back(piece);
        if ((i + 1) % 8 == 0)
            expected.push_back("   ");
        if ((i + 1) % 16 == 0)
            expected.push_back("\n");
    }
    expected.push_back("\n\n");
    ASSERT_GE(after.size(), expected.size() + 2);  // the error, the dump, the parser error
    EXPECT_EQ(std::vector<std::string>(after.begin() + 1, after.begin() + 1 + (long)expected.size()), expected);
    EXPECT_EQ(after[1], "ff-");
    EXPECT_EQ(after[9], "   ");
    EXPECT_EQ(after[18], "   ");
    EXPECT_EQ(after[19], "\n");
    EXPECT_EQ(after[1 + expected.size()], kParseFail);
}

TEST_F(PipelineTest, TypeOrLengthBetweenLengthsAndTypesIsRefused)
{
    expectRefused(fb::discover().etherType(0x05DD).build(), "MAC header error");
    expectRefused(fb::discover().etherType(0x05FF).build(), "MAC header error");
    // 0x0600 is a type again.
    expectRefused(fb::discover().etherType(0x0600).build(), "macHeader: type != 0800 type: 600=ntohs(600), error\r\n");
}

TEST_F(PipelineTest, LengthOf05DCIsAn8023Frame)
{
    expectAccepted(fb::discover().snap().llcLength(0x05DC).build());
    EXPECT_FALSE(sim::hasMessage("Ether type"));
    EXPECT_EQ(ipHeaderPos, 22u);
    // The same length with a bad control byte proves it was read as 802.3.
    fb::Bytes f = fb::discover().snap().llcLength(0x05DC).build();
    fb::set8(f, 16, 0x13);
    expectRefused(f, "802.3 cntl error");
}

TEST_F(PipelineTest, SnapFrameIsAccepted)
{
    expectAccepted(fb::ack().snap().build());
    EXPECT_EQ(ipHeaderPos, 22u);
    EXPECT_EQ(udpHeaderPos, 42u);
    EXPECT_EQ(dhcpHeaderPos, 50u);
    EXPECT_EQ(optionsPos, 286u);
}

TEST_F(PipelineTest, LlcWithControlThreeButOtherSapsIsRefused)
{
    fb::Bytes f = fb::discover().snap().build();
    fb::set16(f, 14, 0x4242);
    expectRefused(f, "Parse packet error");
}

TEST_F(PipelineTest, SnapTypeOtherThanIpv4IsRefused)
{
    expectRefused(fb::discover().snap().etherType(0x86DD).build(), "macHeader: type != 0800, error\r\n");
}

// ---- IPv4 and UDP --------------------------------------------------------------------

TEST_F(PipelineTest, UdpLength248IsRefusedAnd249Accepted)
{
    expectRefused(fb::discover().udpLength(248).build(), "The value of length field in UDP header is invaild.");
    expectAccepted(fb::discover().udpLength(249).build());
}

TEST_F(PipelineTest, HeaderLengthBoundIsAbsolute)
{
    // Five words put the UDP header at 34, the bound itself.
    expectAccepted(fb::discover().ihl(5).build());
    EXPECT_EQ(udpHeaderPos, 34u);
    expectRefused(fb::discover().ihl(4).build(), "The DHCP packet with Invalid IP header.");
    expectRefused(fb::discover().ihl(3).build(), "The DHCP packet with Invalid IP header.");
    // In a SNAP frame three words reach 34 as well and pass. The UDP header
    // then starts inside the IP addresses: the source's low half is the
    // destination port.
    fb::Bytes snap = fb::discover().snap().srcIp(fb::ip(0, 0, 0, 67)).build();
    fb::set8(snap, 22, 0x43);
    sim::clearLogs();
    DhcpSnoopMsg msg = record(snap, port);
    DhcpSnoopElement *e = dhcpSnoopGetMem();
    EXPECT_EQ(dhcpSnoopPacketValidate(&msg.packet, e, sim::switchMac().data()), 0u);
    EXPECT_EQ(udpHeaderPos, 34u);
    EXPECT_FALSE(sim::hasMessage("The DHCP packet with Invalid IP header."));
    dhcpSnoopFreeMem(e);
    dhcpReleasePacketPool(msg.packet.frame);
}

TEST_F(PipelineTest, BroadcastSourceIpIsRefusedInEveryLayout)
{
    const char msg[] = "The DHCP packet with broacast IP source address in IP header.";
    expectRefused(fb::discover().srcIp(0xFFFFFFFF).build(), msg);
    expectRefused(fb::discover().snap().srcIp(0xFFFFFFFF).build(), msg);
    expectRefused(fb::discover().fragment(0x0800).srcIp(0xFFFFFFFF).build(), msg);
    expectRefused(fb::discover().dstMac(sim::switchMac()).snap().srcIp(0xFFFFFFFF).build(), msg);
    // One half alone is no broadcast.
    expectAccepted(fb::discover().srcIp(fb::ip(255, 255, 0, 0)).build());
}

TEST_F(PipelineTest, TransportChecksAreKeyedOnTheWordAtOffset20)
{
    // Ethernet II, DF set: the word at 20 is 0x4000 and the checks are skipped.
    expectAccepted(fb::discover().fragment(0x4000).dstPort(500).build());
    expectAccepted(fb::discover().fragment(0x4000).protocol(6).build());
    // The word happens to be 0x0800: the checks run.
    expectRefused(fb::discover().fragment(0x0800).dstPort(500).build(),
                  "The DHCP packet with invalid UDP destination port.");
    expectRefused(fb::discover().fragment(0x0800).protocol(6).build(), "The DHCP packet is not UDP packet.");
    // SNAP frames always have it.
    expectRefused(fb::discover().snap().dstPort(500).build(), "The DHCP packet with invalid UDP destination port.");
    expectRefused(fb::discover().snap().protocol(6).build(), "The DHCP packet is not UDP packet.");
    expectAccepted(fb::discover().snap().dstPort(68).build());
}

TEST_F(PipelineTest, FrameToTheSwitchSkipsProtocolAndPortChecksOnly)
{
    fb::Frame toSwitch = fb::requestRenewing().dstMac(sim::switchMac()).snap();
    expectAccepted(fb::Frame(toSwitch).protocol(6).dstPort(500).build());
    expectRefused(fb::Frame(toSwitch).protocol(6).dstPort(500).srcIp(0xFFFFFFFF).build(),
                  "The DHCP packet with broacast IP source address in IP header.");
}

TEST_F(PipelineTest, ValidationSetsTheFrameGlobalsAndTheOptionByteCount)
{
    fb::Bytes f = fb::discover().udpLength(400).build();
    DhcpSnoopMsg msg = record(f, port);
    DhcpSnoopElement *e = dhcpSnoopGetMem();
    ASSERT_EQ(dhcpSnoopPacketValidate(&msg.packet, e, sim::switchMac().data()), 0u);
    EXPECT_EQ(macHeader, msg.packet.frame);
    EXPECT_EQ(ipHeader, msg.packet.frame + 14);
    EXPECT_EQ(udpHeader, msg.packet.frame + 34);
    EXPECT_EQ(dhcpHeader, msg.packet.frame + 42);
    EXPECT_EQ(options, msg.packet.frame + 278);
    EXPECT_EQ(optionsPos, 278u);
    EXPECT_EQ(e->endOptPos, 400u - 248u);
    dhcpSnoopFreeMem(e);
    dhcpReleasePacketPool(msg.packet.frame);
}

// ---- results of the later steps ---------------------------------------------------------

TEST_F(PipelineTest, ParserFailureDropsTheFrameWithItsError)
{
    sim::clearLogs();
    EXPECT_EQ(handle(fb::discover().hlen(16).build()), DHCP_SNOOP_E_PACKET);
    EXPECT_EQ(sim::countMessage("Oh no! Options Parser ERROR!!\r\n"), 1u);
    EXPECT_TRUE(sim::hasMessage(kParseOk));
    EXPECT_EQ(mallocCounter, tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC) + tableCount(DHCP_SNOOP_ELEMENT_REQUEST));

    sim::portCfg(port).macVerify = 1;
    sim::clearLogs();
    EXPECT_EQ(handle(fb::discover().chaddr(fb::Mac{2, 0, 0, 0, 0, 1}).build()), DHCP_SNOOP_E_CHADDR);
    EXPECT_EQ(sim::countMessage("Oh no! Options Parser ERROR!!\r\n"), 1u);
    EXPECT_EQ(mallocCounter, tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC) + tableCount(DHCP_SNOOP_ELEMENT_REQUEST));
}

// ---- error lines and the cost of debug output ------------------------------------------

TEST_F(PipelineTest, ValidationErrorsAreSilentOnceTheSwitchRunsWithDebugOff)
{
    sim::setDebugFlag(0);
    sim::clearLogs();
    EXPECT_EQ(handle(fb::discover().udpLength(10).build()), DHCP_SNOOP_E_PACKET);
    EXPECT_TRUE(sim::logs().empty());
    sim::setSwitchInited(false);
    EXPECT_EQ(handle(fb::discover().udpLength(10).build()), DHCP_SNOOP_E_PACKET);
    EXPECT_EQ(sim::messages(), (std::vector<std::string>{"The value of length field in UDP header is invaild.", kParseFail}));
    EXPECT_TRUE(sim::logs()[0].error);
}

TEST_F(PipelineTest, DebugSwitchOffCostsNoPortNamesOrDumps)
{
    sim::setDebugFlag(0);
    debugLevel = 3;
    fb::RelayAgentInfo info;
    info.circuitId(fb::bytes("1/0/3"));
    handle(fb::discover().relayAgent(info).build());
    handle(fb::discover().etherType(0x86DD).build());
    EXPECT_EQ(sim::usUp2StrCalls(), 0u);
    EXPECT_TRUE(sim::logs().empty());
    // The counter does count: the same frame with the switch on names ports.
    sim::setDebugFlag(1);
    handle(fb::discover().relayAgent(info).build());
    EXPECT_GT(sim::usUp2StrCalls(), 0u);
}

bool noLineWanted(const char*) { return false; }

// A platform that wants only some lines (the replay wants those that name a
// drop) declines the rest at their sites: the port names those lines carry
// are then not composed either, nor is the element pool's entry line.
TEST_F(PipelineTest, LinesDeclinedAtTheirSitesCostNoPortNames)
{
    sim::setDebugFlag(1);
    sim::setLogFilter(noLineWanted);
    handle(fb::discover().build());  // each site is asked once
    size_t before = sim::usUp2StrCalls();
    handle(fb::discover().build());
    EXPECT_EQ(sim::usUp2StrCalls(), before);
    EXPECT_TRUE(sim::logs().empty());
    sim::setLogFilter(nullptr);
    handle(fb::discover().build());
    EXPECT_GT(sim::usUp2StrCalls(), before);
    EXPECT_TRUE(sim::hasMessage("dhcpSnoopFreeMem"));
}

// ---- frames that claim more than they hold -----------------------------------------------

TEST_F(PipelineTest, DiscoverCutAtEveryLengthIsRefusedOrCutShortWithinTheFrame)
{
    debugLevel = 3;
    fb::Frame frame = fb::discover();
    fb::RelayAgentInfo info;
    info.circuitId(fb::bytes("1/0/3")).remoteId(fb::bytes("sw"));
    const fb::Frame variants[] = {frame, fb::discover().snap().relayAgent(info), fb::requestSelecting()};
    for (const fb::Frame& v : variants) {
        const auto [full, layout] = v.buildWithLayout();
        for (size_t n = 0; n < full.size(); n++) {
            fb::Bytes cut(full.begin(), full.begin() + (long)n);
            size_t released = sim::releaseCount();
            sim::clearLogs();
            uint32_t rv = handle(cut);
            EXPECT_EQ(sim::releaseCount(), released + 1) << n;
            EXPECT_EQ(mallocCounter, tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC) + tableCount(DHCP_SNOOP_ELEMENT_REQUEST)) << n;
            if (n < layout.options) {
                EXPECT_EQ(rv, DHCP_SNOOP_E_PACKET) << n;
                EXPECT_EQ(sim::countMessage(kTooShort), 1u) << n;
            } else {
                // Past the cookie the walk stops where the frame ends.
                EXPECT_EQ(rv, DHCP_SNOOP_OK) << n;
                EXPECT_TRUE(sim::hasMessage(kParserEnd)) << n;
            }
        }
    }
    EXPECT_EQ(sim::badReleases(), 0u);
}

TEST_F(PipelineTest, FramesShorterThanTheEthernetHeaderInEveryPath)
{
    for (bool snooped : {true, false}) {
        sim::setVlanSnooping(kVid, snooped);
        for (size_t n = 0; n < 23; n++) {
            fb::Bytes cut = fb::discover().snap().build();
            fb::truncate(cut, n);
            sim::clearLogs();
            uint32_t rv = handle(cut);
            if (snooped) {
                EXPECT_EQ(rv, DHCP_SNOOP_E_PACKET) << n;
                EXPECT_EQ(sim::countMessage(kTooShort), 1u) << n;
            }
        }
    }
    // Bytes the frame lacks show as zero in the first lines, and only a whole
    // destination MAC is looked up.
    sim::setVlanSnooping(kVid, true);
    PalMsgQ queue = sim::queueByName(DHCP_SNOOP_FDB_QUEUE_NAME);
    FdbEntry q;
    while (sim::queueTake(queue, &q, sizeof q)) {
    }
    sim::clearLogs();
    fb::Bytes five = fb::discover().build();
    fb::truncate(five, 5);
    handle(five);
    EXPECT_EQ(sim::messages()[0], "macHead len:0, etherType:0");
    EXPECT_EQ(sim::messages()[1], "src mac:00:00:00:00:00:00, dst mac:ff:ff:ff:ff:ff:00");
    EXPECT_FALSE(sim::queueTake(queue, &q, sizeof q));
    fb::Bytes six = fb::discover().build();
    fb::truncate(six, 6);
    handle(six);
    EXPECT_TRUE(sim::queueTake(queue, &q, sizeof q));
}

TEST_F(PipelineTest, UdpLengthBeyondTheFrameIsBoundedByTheFrame)
{
    // Without an END the walk would run as far as the UDP length says.
    fb::Bytes f = fb::discover().noEnd().udpLength(1400).build();
    sim::clearLogs();
    EXPECT_EQ(handle(f), DHCP_SNOOP_OK);
    EXPECT_TRUE(sim::hasMessage("tempElement->type: 1"));
    EXPECT_EQ(sim::countMessage("options checked 53"), 1u);
}

TEST_F(PipelineTest, OptionLengthsBeyondTheFrameStopTheWalk)
{
    const fb::Frame frames[] = {
        fb::discover().noEnd().optionWithLength(82, 200, {1, 2, 3}),
        fb::discover().noEnd().optionWithLength(51, 4, {0, 1}),
        fb::discover().noEnd().rawOptions({51}),
        fb::discover().noEnd().optionWithLength(52, 1, {}),
        fb::discover().noEnd().optionWithLength(12, 255, {'a'}),
    };
    debugLevel = 3;
    for (const fb::Frame& fr : frames) {
        sim::clearLogs();
        EXPECT_EQ(handle(fr.build()), DHCP_SNOOP_OK);
        EXPECT_TRUE(sim::hasMessage("tempElement->type: 1"));
        for (const std::string& m : sim::messages()) {
            EXPECT_NE(m.rfind("ttl:", 0), 0u) << m;
            EXPECT_NE(m.rfind("The packet contains option 82 field", 0), 0u) << m;
        }
        EXPECT_TRUE(sim::hasMessage(" IP header information:\n dest IP:255.255.255.255, src IP:0.0.0.0"));
    }
}

}  // namespace

// ---- receive-port walk against a plain reading of its rules ---------------------------

namespace {

// Index by index, every handle tested, a unit without members skipped, the
// last member kept: what the pipeline's walk must always agree with.
up referenceReceivePort(const PortList& list, up previous)
{
    up found = previous;
    uint32_t index = 0;
    while (index < 79) {
        up h = UP_INVALID;
        inner_up_from_index(&h, index, 1, __func__, __LINE__);
        if (h == UP_INVALID)
            break;
        uint32_t word = 6;
        uint32_t n = 0;
        if (UP_KIND(h) == UP_TYPE_PHYSICAL) {
            uint32_t base = (UP_UNIT(h) - 1u) * 3u;
            if (base <= 3u && list.word[base] == 0 && list.word[base + 1] == 0 && list.word[base + 2] == 0) {
                index += 64;
                continue;
            }
            n = inner_up_slotbaseoffset_get(UP_SLOT(h)) + UP_PORT(h);
            word = base + (n / 32u) % 3u;
        } else if (UP_KIND(h) == UP_TYPE_PORT_CHANNEL) {
            n = UP_PORT(h) - 1u;
            word = 3u + (n / 32u) % 3u;
        }
        if (word < 6u && ((list.word[word] >> (n % 32u)) & 1u) != 0)
            found = h;
        index++;
    }
    return found;
}


// ---- rate limit, policy failure, switch MAC, lease line ---------------------------------

TEST_F(PipelineTest, FrameOverTheRateIsDroppedWithTheOverflowLineAndTheLimitsResult)
{
    sim::portCfg(port).limitRate = 1;
    EXPECT_EQ(handle(fb::discover().build()), DHCP_SNOOP_OK);
    EXPECT_FALSE(sim::hasMessage("Packet flow overflow\r\n"));
    sim::clearLogs();
    sim::clearSent();
    EXPECT_EQ(handle(fb::discover().build()), DHCP_SNOOP_E_RATE_LIMIT);
    EXPECT_EQ(sim::countMessage("Packet flow overflow\r\n"), 1u);
    // Dropped before the parser, its element given back.
    EXPECT_FALSE(sim::hasMessage("============ DHCP Parser ================\n"));
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_EQ(mallocCounter, 0u);
    // Any non-zero result of the limit drops: a port the limit cannot index.
    sim::clearLogs();
    EXPECT_EQ(handleFrom(fb::discover().build(), sim::physicalPort(1, 40)), DHCP_SNOOP_E_PARAM);
    EXPECT_EQ(sim::countMessage("Packet flow overflow\r\n"), 1u);
    EXPECT_TRUE(sim::sent().empty());
}

TEST_F(PipelineTest, PolicyFailureIsReportedWithItsCallText)
{
    // The parser reads the trust first; the policy's own read fails.
    sim::failNext("swDhcpSnoopGetPortTrust", 42, 1, 1);
    EXPECT_EQ(handle(fb::discover().build()), 42u);
    bool found = false;
    for (const sim::LogLine &l : sim::logs())
        found |= l.error && l.message() == "E - 42 call dhcpSnoopTableManage(inputPacket, pElement) failed.";
    EXPECT_TRUE(found);
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_EQ(mallocCounter, 0u);
}

TEST_F(PipelineTest, WithoutTheSwitchMacEveryFrameGetsTheTransportChecks)
{
    // Addressed to the switch: the protocol and port checks are skipped ...
    fb::Frame toSwitch = fb::requestRenewing().dstMac(sim::switchMac()).fragment(0x0800).dstPort(500);
    expectAccepted(toSwitch.build());
    EXPECT_TRUE(sim::hasMessage("switchMac:00:0e:5e:00:00:01"));
    // ... unless the switch's MAC cannot be had: the frame then counts as
    // addressed to another host, and the bad port is caught.
    sim::clearLogs();
    sim::failNext("getMacAddress", 9);
    EXPECT_EQ(handle(toSwitch.build()), DHCP_SNOOP_E_PACKET);
    bool found = false;
    for (const sim::LogLine &l : sim::logs())
        found |= l.error && l.message() == "E - 9 call DSLib.getMacAddress(switchMac) failed.";
    EXPECT_TRUE(found);
    EXPECT_TRUE(sim::hasMessage("switchMac:00:00:00:00:00:00"));
    EXPECT_TRUE(sim::hasMessage("The DHCP packet with invalid UDP destination port."));
    // Only the first one's request is filed.
    EXPECT_EQ(mallocCounter, 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 1u);
}

TEST_F(PipelineTest, LeaseOptionIsLoggedWithItsValue)
{
    fb::Params p;
    p.lease = 86400;
    sim::portCfg(port).trust = 1;
    EXPECT_EQ(handle(fb::offer(p).build()), DHCP_SNOOP_OK);
    EXPECT_EQ(sim::countMessage("ttl:86400"), 1u);
    // Without option 51 there is no such line.
    sim::clearLogs();
    EXPECT_EQ(handle(fb::discover().build()), DHCP_SNOOP_OK);
    for (const std::string &m : sim::messages())
        EXPECT_NE(m.rfind("ttl:", 0), 0u) << m;
}

}  // namespace

TEST_F(PipelineTest, ReceivePortWalkAgreesWithItsRulesOnAnyListAndStack)
{
    const std::vector<std::vector<uint32_t>> stacks = {{1}, {1, 2}, {2}, {1, 3}, {2, 3}};
    std::mt19937 rng(20261122);
    const up previous = UP_MAKE(UP_TYPE_PHYSICAL, 9, 0, 9);
    const fb::Bytes frame = fb::discover().build();
    size_t checked = 0;
    for (const std::vector<uint32_t>& units : stacks) {
        sim::setUnits(units);
        for (int round = 0; round < 150; round++) {
            PortList list{};
            // Mostly one or two bits, sometimes dense words, sometimes none.
            int bits = (int)(rng() % 4);
            for (int b = 0; b < bits; b++)
                list.word[rng() % 6] |= 1u << (rng() % 32);
            if (rng() % 8 == 0)
                list.word[rng() % 6] = (uint32_t)rng();
            const up expected = referenceReceivePort(list, previous);

            DhcpSnoopMsg msg = record(frame, sim::physicalPort(units[0], 1));
            msg.packet.ports = list;
            rcvPort = previous;
            dhcpSnoopPacketHandle(&msg);
            ASSERT_EQ(rcvPort, expected) << "stack of " << units.size() << " units, round " << round;
            checked += expected != previous;
        }
    }
    EXPECT_GT(checked, 100u) << "most lists name a member";
}
