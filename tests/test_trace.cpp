// Packet trace: the four header lines, the message names and the option-82
// dump with its sign-extended bytes and its cut at 251 characters.
#include <string>
#include <vector>

#include "intake_fixture.h"

namespace {

const char kOpt82Prefix[] =
    "The packet contains option 82 field, binary dump of option 82 information, length: ";

class TraceTest : public IntakeTest {
protected:
    void SetUp() override
    {
        IntakeTest::SetUp();
        sim::setDebugFlag(1);
    }

    // Validates the frame, then traces it for an element of this type whose
    // option 82 sits at opt82Pos; returns the trace's lines.
    std::vector<std::string> trace(const fb::Bytes& bytes, uint8_t type, uint32_t opt82Pos)
    {
        DhcpSnoopMsg msg = record(bytes, port);
        DhcpSnoopElement *e = dhcpSnoopGetMem();
        EXPECT_EQ(dhcpSnoopPacketValidate(&msg.packet, e, sim::switchMac().data()), 0u);
        DhcpSnoopElement element;
        memset(&element, 0, sizeof element);
        element.type = type;
        element.opt82Pos = opt82Pos;
        sim::clearLogs();
        debugPacket(&msg.packet, &element);
        std::vector<std::string> lines = sim::messages();
        dhcpSnoopFreeMem(e);
        dhcpReleasePacketPool(msg.packet.frame);
        return lines;
    }

    // The option-82 line of a frame whose only other option is 53.
    std::string opt82Line(const fb::Bytes& value, uint8_t lengthByte)
    {
        const auto [f, layout] = fb::discover().optionWithLength(82, lengthByte, value).buildWithLayout();
        std::vector<std::string> lines = trace(f, 1, (uint32_t)layout.option[1]);
        EXPECT_EQ(lines.size(), 5u);
        return lines.empty() ? std::string() : lines.back();
    }

    static std::string pieces(const fb::Bytes& bytes)
    {
        std::string out;
        char piece[16];
        for (uint8_t b : bytes) {
            snprintf(piece, sizeof piece, " 0x%02x", b);
            out += piece;
        }
        return out;
    }
};

TEST_F(TraceTest, FrameWithoutOption82GivesExactlyTheFourHeaderLines)
{
    fb::Params prm;
    fb::Bytes f = fb::ack(prm).siaddr(fb::ip(10, 0, 0, 2)).giaddr(fb::ip(10, 0, 0, 3)).ciaddr(fb::ip(10, 0, 0, 4)).build();
    std::vector<std::string> lines = trace(f, 5, 0);
    const std::vector<std::string> expected = {
        " Process new DHCP packet:\n packet length:" + std::to_string(f.size()) + "\n message type:DHCP ACK",
        " Ethernet header information:\n dest MAC:00:11:22:33:44:55, src MAC:00:53:00:00:00:01",
        " IP header information:\n dest IP:192.168.1.100, src IP:192.168.1.1",
        " DHCP header information:\n DHCP CIADDR:10.0.0.4\n DHCP YIADDR:192.168.1.100\n DHCP SIADDR:10.0.0.2\n"
        " DHCP GIADDR:10.0.0.3\n DHCP CHADDR:00:11:22:33:44:55",
    };
    EXPECT_EQ(lines, expected);
}

TEST_F(TraceTest, MessageTypesAreNamed)
{
    const char *names[] = {"UNKOWN",       "DHCP DISCOVER", "DHCP OFFER",    "DHCP REQUEST",
                           "DHCP DECLINE", "DHCP ACK",      "DHCP NAK",      "DHCP RELEASE",
                           "DHCP INFORM",  "BOOTP REQUEST", "BOOTP REPLY",   "UNKOWN"};
    fb::Bytes f = fb::discover().build();
    for (uint8_t type = 0; type <= 11; type++) {
        std::vector<std::string> lines = trace(f, type, 0);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], " Process new DHCP packet:\n packet length:" + std::to_string(f.size()) +
                                "\n message type:" + names[type]);
    }
    EXPECT_NE(trace(f, 255, 0)[0].find("message type:UNKOWN"), std::string::npos);
}

TEST_F(TraceTest, Option82WithTwoValueBytes)
{
    EXPECT_EQ(opt82Line({0x01, 0x00}, 2), std::string(kOpt82Prefix) + "4 data: 0x52 0x02 0x01 0x00");
}

TEST_F(TraceTest, BytesFrom0x80AreSignExtended)
{
    EXPECT_EQ(opt82Line({0x01, 0x82}, 2), std::string(kOpt82Prefix) + "4 data: 0x52 0x02 0x01 0xffffff82");
    EXPECT_EQ(opt82Line({0x7f, 0x80}, 2), std::string(kOpt82Prefix) + "4 data: 0x52 0x02 0x7f 0xffffff80");
}

TEST_F(TraceTest, DumpIsCutAtAWholePieceBelow251Characters)
{
    // 100 value bytes below 0x80: 50 pieces of 5 characters are 250.
    fb::Bytes value(100, 0x11);
    fb::Bytes shown = {0x52, 100};
    shown.insert(shown.end(), value.begin(), value.begin() + 48);
    std::string line = opt82Line(value, 100);
    EXPECT_EQ(line, std::string(kOpt82Prefix) + "102 data:" + pieces(shown));
    EXPECT_EQ(line.size() - (std::string(kOpt82Prefix) + "102 data:").size(), 250u);

    // Long pieces: 0x52, 0x64 (10), then 21 pieces of 11 reach 241; one more
    // would make 252.
    fb::Bytes high(100, 0x90);
    line = opt82Line(high, 100);
    std::string data = line.substr((std::string(kOpt82Prefix) + "102 data:").size());
    EXPECT_EQ(data.size(), 10u + 21u * 11u);
    EXPECT_EQ(data.substr(data.size() - 11), " 0xffffff90");

    // Exactly at the bound: 0x52, 0x30 (10) + 48 pieces (240) = 250 fits.
    fb::Bytes fits(48, 0x01);
    line = opt82Line(fits, 48);
    data = line.substr((std::string(kOpt82Prefix) + "50 data:").size());
    EXPECT_EQ(data.size(), 250u);
}

TEST_F(TraceTest, LengthByteOf128OrMoreDumpsNothing)
{
    EXPECT_EQ(opt82Line(fb::Bytes(128, 0x01), 128), std::string(kOpt82Prefix) + "-126 data:");
    EXPECT_EQ(opt82Line(fb::Bytes(254, 0x01), 254), std::string(kOpt82Prefix) + "0 data:");
    // 0xFF is -1: one piece, the code byte.
    EXPECT_EQ(opt82Line(fb::Bytes(255, 0x01), 255), std::string(kOpt82Prefix) + "1 data: 0x52");
}

TEST_F(TraceTest, Option82PositionPastTheFrameDumpsNothingOutsideIt)
{
    // A position found inside sname may point behind the frame's end.
    const auto [f, layout] = fb::discover().buildWithLayout();
    EXPECT_EQ(trace(f, 1, (uint32_t)f.size() + 40).size(), 4u);
    EXPECT_EQ(trace(f, 1, (uint32_t)f.size() - 1).size(), 4u);
    // The length byte is the frame's last: the dump stops at the frame's end.
    fb::Bytes g = fb::discover().noEnd().rawOptions({82, 6}).build();
    std::vector<std::string> lines = trace(g, 1, (uint32_t)g.size() - 2);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[4], std::string(kOpt82Prefix) + "8 data: 0x52 0x06");
}

TEST_F(TraceTest, NullArgumentsAndDebugOffWriteNothing)
{
    fb::Bytes f = fb::discover().build();
    DhcpSnoopMsg msg = record(f, port);
    DhcpSnoopElement element;
    memset(&element, 0, sizeof element);
    sim::clearLogs();
    debugPacket(nullptr, &element);
    debugPacket(&msg.packet, nullptr);
    EXPECT_TRUE(sim::logs().empty());
    dhcpReleasePacketPool(msg.packet.frame);

    sim::setDebugFlag(0);
    EXPECT_TRUE(trace(f, 1, 0).empty());
}

TEST_F(TraceTest, ParserTracesEveryInvocationWithDebugLevelTwo)
{
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_DUMP;
    fb::Options file;
    file.leaseTime(5).end();
    fb::Options sname;
    sname.serverId(fb::ip(1, 1, 1, 1)).end();
    fb::Bytes f =
        fb::Frame(fb::discover()).overload(3).file(file.encode()).sname(sname.encode()).build();
    sim::clearLogs();
    handle(f);
    size_t traces = 0;
    for (const std::string& m : sim::messages())
        traces += m.rfind(" Process new DHCP packet:", 0) == 0 ? 1 : 0;
    EXPECT_EQ(traces, 3u) << "file, sname and the options area";

    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_ENTRY;
    sim::clearLogs();
    handle(f);
    for (const std::string& m : sim::messages())
        EXPECT_NE(m.rfind(" Process new DHCP packet:", 0), 0u);
}

TEST_F(TraceTest, ParsedOption82IsDumped)
{
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_DUMP;
    fb::RelayAgentInfo info;
    info.circuitId({0x81});
    sim::clearLogs();
    handle(fb::discover().relayAgent(info).build());
    EXPECT_TRUE(sim::hasMessage(std::string(kOpt82Prefix) + "5 data: 0x52 0x03 0x01 0x01 0xffffff81"));
}

}  // namespace
