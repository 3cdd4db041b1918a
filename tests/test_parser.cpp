// DHCP message parser: admission checks, the options walk with overload, the
// client-IP choice, BOOTP types and the element dump; walks bounded by the
// frame.
#include <string>
#include <vector>

#include "intake_fixture.h"

namespace {

class ParserTest : public IntakeTest {};

const fb::Mac kForeign = {0x02, 0x00, 0x00, 0x00, 0x00, 0x99};

std::string ipOf(const DhcpSnoopElement& e) { return IntakeTest::ipText(e.clientIp); }

// ---- arguments ----------------------------------------------------------------------

TEST_F(ParserTest, BadCallsReturnOne)
{
    fb::Bytes f = fb::discover().build();
    DhcpSnoopMsg msg = record(f, port);
    DhcpSnoopElement *e = dhcpSnoopGetMem();
    ASSERT_EQ(dhcpSnoopPacketValidate(&msg.packet, e, sim::switchMac().data()), 0u);
    EXPECT_EQ(dhcpSnoopDhcpParser(&msg.packet, nullptr, 0, e), 1);
    EXPECT_EQ(dhcpSnoopDhcpParser(&msg.packet, options, 3, e), 1);
    EXPECT_EQ(dhcpSnoopDhcpParser(nullptr, options, 0, e), 1);
    EXPECT_EQ(dhcpSnoopDhcpParser(&msg.packet, options, 0, nullptr), 1);
    // An area outside the descriptor's frame is not read.
    uint8_t other[300] = {};
    EXPECT_EQ(dhcpSnoopDhcpParser(&msg.packet, other, 0, e), 1);
    EXPECT_EQ(e->type, 0u);
    dhcpSnoopFreeMem(e);
    dhcpReleasePacketPool(msg.packet.frame);
}

// ---- admission checks ----------------------------------------------------------------

TEST_F(ParserTest, AddressLengthIsTestedNotTheType)
{
    Parsed p = parse(fb::discover().htype(6).build());
    EXPECT_EQ(p.rv, 0);
    EXPECT_EQ(p.element.type, 1u);

    sim::setDebugFlag(1);
    p = parse(fb::discover().hlen(16).build());
    EXPECT_EQ(p.rv, 1304);
    EXPECT_EQ(sim::countMessage("The value of hardware type in DHCP header is not ethernet MAC address."), 1u);
}

TEST_F(ParserTest, ForeignChaddrOnAVerifyingUntrustedPortIsRefused)
{
    sim::setDebugFlag(1);
    fb::Bytes f = fb::requestSelecting().chaddr(kForeign).build();
    sim::portCfg(port).macVerify = 1;
    Parsed p = parse(f);
    EXPECT_EQ(p.rv, 1306);
    EXPECT_EQ(sim::countMessage("mac check enabled \r\n"), 1u);
    EXPECT_EQ(sim::countMessage("mac checking\r\n"), 1u);
    EXPECT_TRUE(sim::hasMessage("dhcpHeader->CHAddr:02:00:00:00:00:99, macHeader->srcMAC:00:11:22:33:44:55"));
    EXPECT_EQ(sim::countMessage("mac check failed."), 1u);
    EXPECT_EQ(sim::countMessage(
                  "Drop the DHCP Packet which DHCP CHADDR and ethernet source MAC address is not the same."),
              1u);

    sim::portCfg(port).trust = 1;
    EXPECT_EQ(parse(f).rv, 0);
    sim::portCfg(port).trust = 0;
    sim::portCfg(port).macVerify = 0;
    EXPECT_EQ(parse(f).rv, 0);
}

TEST_F(ParserTest, RepliesWithAForeignChaddrAlwaysPass)
{
    sim::portCfg(port).macVerify = 1;
    sim::setDebugFlag(1);
    // A server's reply names the client, not its own source.
    for (const fb::Frame& f : {fb::offer(), fb::ack(), fb::offer().chaddr(kForeign)}) {
        sim::clearLogs();
        Parsed p = parse(f.build());
        EXPECT_EQ(p.rv, 0);
        EXPECT_TRUE(sim::hasMessage("mac check enabled \r\n"));
        EXPECT_FALSE(sim::hasMessage("mac checking\r\n"));
    }
}

TEST_F(ParserTest, BroadcastDestinationIsMarkedEvenWhenRefused)
{
    sim::portCfg(port).macVerify = 1;
    Parsed p = parse(fb::discover().chaddr(kForeign).build());
    EXPECT_EQ(p.rv, 1306);
    EXPECT_EQ(p.element.isBroadcast, 1u);
    p = parse(fb::discover().cookie({0x63, 0x82, 0x53, 0x64}).build());
    EXPECT_EQ(p.rv, 1305);
    EXPECT_EQ(p.element.isBroadcast, 1u);
    p = parse(fb::requestRenewing().build());
    EXPECT_EQ(p.rv, 0);
    EXPECT_EQ(p.element.isBroadcast, 0u);
}

TEST_F(ParserTest, PortGetterFailuresAreReturned)
{
    sim::setDebugFlag(1);
    sim::failNext("swDhcpSnoopGetPortTrust", 7);
    EXPECT_EQ(parse(fb::discover().build()).rv, 7);
    EXPECT_EQ(sim::countMessage("E - 7 call swDhcpSnoopGetPortTrust(rcvPort, &trust) failed."), 1u);
    // Both are read for every frame, trusted or not.
    sim::portCfg(port).trust = 1;
    sim::failNext("swDhcpSnoopGetPortMacVerify", 9);
    EXPECT_EQ(parse(fb::discover().build()).rv, 9);
    EXPECT_EQ(sim::countMessage("E - 9 call swDhcpSnoopGetPortMacVerify(rcvPort, &macVerify) failed."), 1u);
}

TEST_F(ParserTest, MissingCookieIsRefused)
{
    sim::setDebugFlag(1);
    Parsed p = parse(fb::discover().cookie({1, 2, 3, 0x84}).build());
    EXPECT_EQ(p.rv, 1305);
    EXPECT_TRUE(sim::hasMessage("magicCookie:0x1 0x2 0x3 0x84\r\n"));
}

// ---- prefill and options ----------------------------------------------------------------

TEST_F(ParserTest, ElementIsPrefilledFromTheHeaderAndTheDescriptor)
{
    fb::Params prm;
    prm.xid = 0xA1B2C3D4;
    Parsed p = parse(fb::discover(prm).build());
    ASSERT_EQ(p.rv, 0);
    EXPECT_EQ(memcmp(p.element.clientMac, prm.clientMac.data(), 6), 0);
    EXPECT_EQ(p.element.xid[0], 0xA1);
    EXPECT_EQ(p.element.xid[3], 0xD4);
    EXPECT_EQ(p.element.ttl, 64u);
    EXPECT_EQ(p.element.isReuse, 1u);
    EXPECT_EQ(p.element.vlan, kVid);
    EXPECT_EQ(p.element.up, port);
    EXPECT_EQ(p.element.opt82Pos, 0u);
}

TEST_F(ParserTest, LeaseIsKeptAsSentAndDefaultsTo64)
{
    EXPECT_EQ(parse(fb::ack().removeOption(51).leaseTime(0xFFFFFFFF).build()).element.ttl, 0xFFFFFFFFu);
    EXPECT_EQ(parse(fb::ack().removeOption(51).leaseTime(0x01020304).build()).element.ttl, 0x01020304u);
    EXPECT_EQ(parse(fb::ack().removeOption(51).build()).element.ttl, 64u);
}

TEST_F(ParserTest, ServerIdentifierClearsIsReuse)
{
    EXPECT_EQ(parse(fb::requestSelecting().build()).element.isReuse, 0u);
    EXPECT_EQ(parse(fb::requestInitReboot().build()).element.isReuse, 1u);
}

TEST_F(ParserTest, PadIsSkippedAsACodeWithALengthByte)
{
    // 00 03 then three bytes that would read as "type 5" to a walk that took
    // pad as one byte long; the walk must land on the 53 behind them.
    Parsed p = parse(fb::Frame(fb::discover()).clearOptions().rawOptions({0, 3, 53, 1, 5}).messageType(3).build());
    EXPECT_EQ(p.rv, 0);
    EXPECT_EQ(p.element.type, 3u);
}

TEST_F(ParserTest, EndGivesItsFrameOffsetAndBootpTypes)
{
    const auto [f, layout] = fb::bootpRequest().buildWithLayout();
    Parsed p = parse(f);
    EXPECT_EQ(p.element.type, 9u);
    EXPECT_EQ(p.element.endOptPos, layout.end);
    EXPECT_EQ(parse(fb::bootpReply().build()).element.type, 10u);
    // Neither a request nor a reply: no type.
    EXPECT_EQ(parse(fb::bootpRequest().op(3).build()).element.type, 0u);

    const auto [d, dl] = fb::discover().buildWithLayout();
    p = parse(d);
    EXPECT_EQ(p.element.endOptPos, dl.end);
    EXPECT_EQ(p.element.endOptPos, 278u + 4u + 3u);
}

TEST_F(ParserTest, WithoutEndAndOption53TheTypeStaysZero)
{
    fb::Bytes f = fb::bootpRequest().noEnd().paramList({1, 3}).build();
    Parsed p = parse(f);
    EXPECT_EQ(p.rv, 0);
    EXPECT_EQ(p.element.type, 0u);
    EXPECT_EQ(p.element.endOptPos, fb::udpLength(f) - 248u);
}

TEST_F(ParserTest, EndIsSeenBeforeTheLimitIsTested)
{
    // A UDP length of 249 allows one option byte; option 53 starts there and
    // its value past the limit is read all the same; the END behind it counts.
    const auto [f, layout] = fb::discover().udpLength(249).buildWithLayout();
    Parsed p = parse(f);
    EXPECT_EQ(p.element.type, 1u);
    EXPECT_EQ(p.element.endOptPos, layout.end);
}

TEST_F(ParserTest, CodeAtTheLimitEndsTheWalk)
{
    // The limit falls on option 51's code: it is not read.
    fb::Frame fr = fb::discover().noEnd().leaseTime(100);
    fb::Bytes f = fr.build();
    fb::set16(f, 34 + 4, 248 + 3);
    Parsed p = parse(f);
    EXPECT_EQ(p.element.type, 1u);
    EXPECT_EQ(p.element.ttl, 64u);
    EXPECT_EQ(p.element.endOptPos, 3u);
}

TEST_F(ParserTest, Option82PositionIsItsFrameOffset)
{
    fb::RelayAgentInfo info;
    info.circuitId({1, 0});
    const auto [f, layout] = fb::discover().relayAgent(info).buildWithLayout();
    Parsed p = parse(f);
    EXPECT_EQ(p.element.opt82Pos, layout.option[1]);
}

TEST_F(ParserTest, OtherOption53ValuesAreStoredAsTheyAre)
{
    EXPECT_EQ(parse(fb::Frame(fb::discover()).clearOptions().messageType(11).build()).element.type, 11u);
    EXPECT_EQ(parse(fb::Frame(fb::discover()).clearOptions().messageType(0).build()).element.type, 9u);
}

// ---- client IP ---------------------------------------------------------------------------

TEST_F(ParserTest, SelectingRequestTakesOption50EvenWithCiaddr)
{
    Parsed p = parse(fb::requestSelecting().ciaddr(fb::ip(10, 0, 0, 7)).build());
    EXPECT_EQ(ipOf(p.element), "192.168.1.100");
}

TEST_F(ParserTest, RenewingRequestTakesCiaddr)
{
    fb::Params prm;
    prm.clientIp = fb::ip(10, 1, 2, 3);
    EXPECT_EQ(ipOf(parse(fb::requestRenewing(prm).requestedIp(fb::ip(10, 9, 9, 9)).build()).element), "10.1.2.3");
    // No ciaddr: option 50.
    EXPECT_EQ(ipOf(parse(fb::requestInitReboot(prm).build()).element), "10.1.2.3");
    // Neither: 0.0.0.0.
    EXPECT_EQ(ipOf(parse(fb::requestInitReboot(prm).removeOption(50).build()).element), "0.0.0.0");
}

TEST_F(ParserTest, DeclineTakesCiaddrThenOption50)
{
    EXPECT_EQ(ipOf(parse(fb::decline().ciaddr(fb::ip(10, 0, 0, 5)).build()).element), "10.0.0.5");
    EXPECT_EQ(ipOf(parse(fb::decline().build()).element), "192.168.1.100");
    Parsed p = parse(fb::decline().removeOption(50).yiaddr(fb::ip(1, 2, 3, 4)).siaddr(fb::ip(5, 6, 7, 8)).build());
    EXPECT_EQ(ipOf(p.element), "0.0.0.0");
}

TEST_F(ParserTest, AckAndNakTakeYiaddrReleaseAndInformCiaddr)
{
    EXPECT_EQ(ipOf(parse(fb::ack().build()).element), "192.168.1.100");
    EXPECT_EQ(ipOf(parse(fb::nak().yiaddr(fb::ip(10, 0, 0, 1)).build()).element), "10.0.0.1");
    EXPECT_EQ(ipOf(parse(fb::release().requestedIp(fb::ip(1, 1, 1, 1)).build()).element), "192.168.1.100");
    EXPECT_EQ(ipOf(parse(fb::inform().build()).element), "192.168.1.100");
    EXPECT_EQ(ipOf(parse(fb::inform().ciaddr(0).build()).element), "0.0.0.0");
}

TEST_F(ParserTest, OtherTypesLeaveTheClientIpAlone)
{
    EXPECT_EQ(ipOf(parse(fb::discover().ciaddr(fb::ip(1, 2, 3, 4)).requestedIp(fb::ip(1, 2, 3, 5)).build()).element),
              "9.9.9.9");
    EXPECT_EQ(ipOf(parse(fb::offer().build()).element), "9.9.9.9");
    EXPECT_EQ(ipOf(parse(fb::bootpReply().build()).element), "9.9.9.9");
    EXPECT_EQ(ipOf(parse(fb::Frame(fb::discover()).clearOptions().messageType(12).build()).element), "9.9.9.9");
}

// ---- option overload ------------------------------------------------------------------

fb::Frame overloaded(uint8_t which, const fb::Options& file, const fb::Options& sname)
{
    return fb::Frame(fb::discover()).clearOptions().messageType(1).overload(which).file(file.encode()).sname(
        sname.encode());
}

TEST_F(ParserTest, OverloadThreeWalksFileThenSname)
{
    fb::Options file;
    file.messageType(3).leaseTime(500).end();
    fb::Options sname;
    sname.messageType(4).serverId(fb::ip(1, 1, 1, 1)).end();
    Parsed p = parse(overloaded(3, file, sname).build());
    EXPECT_EQ(p.rv, 0);
    EXPECT_EQ(p.element.type, 4u) << "sname is walked after file";
    EXPECT_EQ(p.element.ttl, 500u);
    EXPECT_EQ(p.element.isReuse, 0u);
}

TEST_F(ParserTest, OverloadOneAndTwoWalkOneFieldEach)
{
    fb::Options file;
    file.messageType(3).end();
    fb::Options sname;
    sname.messageType(4).end();
    EXPECT_EQ(parse(overloaded(1, file, sname).build()).element.type, 3u);
    EXPECT_EQ(parse(overloaded(2, file, sname).build()).element.type, 4u);
}

TEST_F(ParserTest, OverloadFourWalksNothing)
{
    fb::Options file;
    file.messageType(3).leaseTime(500).end();
    fb::Options sname;
    sname.messageType(4).end();
    Parsed p = parse(overloaded(4, file, sname).build());
    EXPECT_EQ(p.element.type, 1u);
    EXPECT_EQ(p.element.ttl, 64u);
}

TEST_F(ParserTest, Option50OnlyInSnameLeavesASelectingRequestAtZero)
{
    fb::Options sname;
    sname.requestedIp(fb::ip(192, 168, 1, 100)).end();
    fb::Bytes f = fb::Frame(fb::discover())
                      .clearOptions()
                      .messageType(3)
                      .serverId(fb::ip(192, 168, 1, 1))
                      .overload(2)
                      .sname(sname.encode())
                      .build();
    Parsed p = parse(f);
    EXPECT_EQ(p.element.type, 3u);
    EXPECT_EQ(ipOf(p.element), "0.0.0.0");
}

TEST_F(ParserTest, Option82InsideFileIsCountedFromTheOptionsArea)
{
    fb::RelayAgentInfo info;
    info.circuitId({7});
    fb::Options file;
    file.pad(0).option(12, {'h'}).relayAgent(info).end();
    Parsed p = parse(overloaded(1, file, fb::Options()).build());
    // Offset 3 inside file, stored as if it were behind the cookie. Kept so.
    EXPECT_EQ(p.element.opt82Pos, 278u + 4u + 3u);
}

TEST_F(ParserTest, OverloadInsideAFieldIsNotFollowed)
{
    // file names itself: followed once only, so the walk ends.
    fb::Options file;
    file.overload(1).leaseTime(77).end();
    fb::Options sname;
    sname.messageType(4).end();
    sim::setDebugFlag(1);
    Parsed p = parse(overloaded(1, file, sname).build());
    EXPECT_EQ(p.rv, 0);
    EXPECT_EQ(p.element.ttl, 77u);
    EXPECT_EQ(sim::countMessage("options checked 51"), 1u);
    // file asking for sname does not reach it either.
    fb::Options toSname;
    toSname.overload(2).end();
    EXPECT_EQ(parse(overloaded(1, toSname, sname).build()).element.type, 1u);
}

TEST_F(ParserTest, OverloadWalksAreBoundedByTheirField)
{
    // An option in sname whose value would run into file ends the walk; so
    // does an option at sname's last byte.
    fb::Bytes sname = fb::Options().option(12, fb::Bytes(60, 'x')).encode();
    sname.push_back(51);
    sname.push_back(4);
    fb::Bytes f = fb::Frame(fb::discover())
                      .clearOptions()
                      .messageType(1)
                      .overload(2)
                      .sname(sname)
                      .file(fb::Options().leaseTime(99).end().encode())
                      .build();
    Parsed p = parse(f);
    EXPECT_EQ(p.rv, 0);
    EXPECT_EQ(p.element.ttl, 64u) << "the lease value would lie in file";
}

// ---- the element dump -----------------------------------------------------------------

TEST_F(ParserTest, ElementDumpWithDebugLevelTwo)
{
    sim::setDebugFlag(1);
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_DUMP;
    fb::Params prm;
    prm.xid = 0x0A0B0C0D;
    prm.lease = 0xFFFFFFFF;
    fb::Bytes f = fb::ack(prm).build();
    parse(f);
    std::vector<std::string> dump = messagesFrom("*****************************\r\nMsgType:\t");
    ASSERT_GE(dump.size(), 17u);
    const std::vector<std::string> expected = {
        "*****************************\r\nMsgType:\t",
        "ack\r\n",
        "clientIP:\t",
        "192.168.1.100\r\n",
        "clientMAC:\t",
        "00-11-22-33-44-55\r\n",
        "Lease/TTL:\t-1\r\n",
        "IsReuse:\t0\r\n",
        "Vlan:\t10\r\n",
        "port:\t1/0/3\r\n",
        "Xid:\t",
        "0A-0B-0C-0D\r\n",
        "-----------------------------\r\n",
        "mallocCounter:1\r\n",
        "*****************************\r\n",
    };
    EXPECT_EQ(std::vector<std::string>(dump.begin(), dump.begin() + (long)expected.size()), expected);
    EXPECT_EQ(dump[expected.size()],
              " Process new DHCP packet:\n packet length:" + std::to_string(f.size()) + "\n message type:DHCP ACK");
}

TEST_F(ParserTest, ElementDumpHasNoNameLineForOtherTypes)
{
    sim::setDebugFlag(1);
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_DUMP;
    parse(fb::bootpRequest().build());
    std::vector<std::string> dump = messagesFrom("*****************************\r\nMsgType:\t");
    ASSERT_GE(dump.size(), 2u);
    EXPECT_EQ(dump[1], "clientIP:\t");
}

TEST_F(ParserTest, ElementDumpOnlyWithDebugLevelTwo)
{
    sim::setDebugFlag(1);
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_ENTRY;
    parse(fb::discover().build());
    EXPECT_FALSE(sim::hasMessage("*****************************\r\nMsgType:\t"));
    EXPECT_TRUE(sim::hasMessage("tempElement->type: 1"));
    EXPECT_TRUE(sim::hasMessage("============DHCP parse end===============\n"));
}

TEST_F(ParserTest, NoPortNameIsRenderedWithTheDebugSwitchOff)
{
    debugLevel = 3;
    Parsed p = parse(fb::ack().build());
    EXPECT_EQ(p.rv, 0);
    EXPECT_EQ(sim::usUp2StrCalls(), 0u);
    EXPECT_TRUE(sim::logs().empty());
}

// ---- walks bounded by the frame ---------------------------------------------------------

TEST_F(ParserTest, TruncatedOptionsAreParsedAsFarAsTheFrameGoes)
{
    // Cut inside option 51 of an ACK: type and server id were seen, the lease not.
    const auto [full, layout] = fb::ack().buildWithLayout();
    size_t leaseAt = fb::findOptionOffset(full, 51);
    for (size_t n = layout.options; n < full.size(); n++) {
        fb::Bytes cut(full.begin(), full.begin() + (long)n);
        Parsed p = parse(cut);
        EXPECT_EQ(p.rv, 0) << n;
        EXPECT_EQ(p.element.ttl, n >= leaseAt + 6 ? 3600u : 64u) << n;
        EXPECT_EQ(p.element.endOptPos, fb::udpLength(full) - 248u) << "no END in a cut frame " << n;
    }
}

}  // namespace
