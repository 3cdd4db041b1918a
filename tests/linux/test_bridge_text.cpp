// The bridge data plane's pieces that need no kernel: the nftables table and
// set elements as text, the counter listing, and the trap sockets' classic
// BPF program run on built frames.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/linux/nft_rules.h"
#include "platform/linux/trap_filter.h"
#include "support/frame_builder.h"

namespace {

using live::nft::Element;

Element element(const char* ifname, uint8_t last)
{
    Element e;
    e.ifname = ifname;
    const uint8_t mac[6] = {0x02, 0x00, 0xc6, 0x12, 0x00, last};
    const uint8_t ip[4] = {198, 18, 0, (uint8_t)(100 + last)};
    memcpy(e.mac, mac, 6);
    memcpy(e.ip, ip, 4);
    return e;
}

live::nft::Ruleset ruleset()
{
    live::nft::Ruleset r;
    live::nft::Port server;
    server.index = 0;
    server.ifname = "sw1";
    server.trusted = true;
    server.snooped = true;
    live::nft::Port client = server;
    client.index = 2;
    client.ifname = "sw3";
    client.trusted = false;
    live::nft::Port other = client;
    other.index = 3;
    other.ifname = "sw4";
    other.snooped = false;
    r.ports = {server, client, other};
    r.ipFilter = true;
    r.arpDefend = true;
    return r;
}

size_t count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

TEST(NftRules, ElementText)
{
    EXPECT_EQ(live::nft::elementText(element("sw3", 3)), "\"sw3\" . 02:00:c6:12:00:03 . 198.18.0.103");
}

TEST(NftRules, ElementsTextAddsOrDeletesInOneCommand)
{
    std::vector<Element> v = {element("sw3", 3), element("sw4", 4)};
    EXPECT_EQ(live::nft::elementsText(true, v),
              "add element bridge dhcpsnoopd bound { \"sw3\" . 02:00:c6:12:00:03 . 198.18.0.103, "
              "\"sw4\" . 02:00:c6:12:00:04 . 198.18.0.104 }\n");
    EXPECT_EQ(live::nft::elementsText(false, {v[0]}),
              "delete element bridge dhcpsnoopd bound { \"sw3\" . 02:00:c6:12:00:03 . 198.18.0.103 }\n");
    EXPECT_EQ(live::nft::elementsText(true, {}), "") << "no command without elements";
}

TEST(NftRules, TableReplacesTheOldOneInOneBuffer)
{
    std::string t = live::nft::tableText(ruleset(), {element("sw3", 3)});
    // Created, deleted, made anew: valid with or without a stale table.
    EXPECT_EQ(t.find("table bridge dhcpsnoopd {\n}\ndelete table bridge dhcpsnoopd\ntable bridge dhcpsnoopd {\n"), 0u);
    EXPECT_NE(t.find("elements = { \"sw3\" . 02:00:c6:12:00:03 . 198.18.0.103 }"), std::string::npos);
    EXPECT_NE(t.find("type filter hook prerouting priority -300; policy accept;"), std::string::npos);
}

TEST(NftRules, EverySnoopedPortTrapsDhcpOnlyUntrustedOnesAreGuarded)
{
    std::string t = live::nft::tableText(ruleset(), {});
    EXPECT_NE(t.find("iif vmap { \"sw1\" : jump port_p1, \"sw3\" : jump port_p3 }"), std::string::npos);
    EXPECT_EQ(t.find("\"sw4\""), std::string::npos) << "a port of no snooped VLAN is left alone";
    EXPECT_EQ(count(t, "udp dport 67-68 drop"), 2u) << "DHCP off the bridge on both snooped ports";
    EXPECT_EQ(count(t, "@ll,352,16 { 67, 68 } drop"), 2u) << "and in SNAP";
    // The trusted server's port: no guard, no counter.
    EXPECT_EQ(t.find("counter name \"sg_p1\""), std::string::npos);
    EXPECT_NE(t.find("counter sg_p3 {"), std::string::npos);
    EXPECT_NE(t.find("ether type 8021ad counter name \"sg_p3\" drop"), std::string::npos);
    EXPECT_NE(t.find("vlan type { 8021q, 8021ad } counter name \"sg_p3\" drop"), std::string::npos);
    EXPECT_NE(t.find("@ll,160,16 { 0x0800, 0x0806, 0x86dd } counter name \"sg_p3\" drop"), std::string::npos);
    // DHCP first, then the common case: IPv4 from a bound source.
    size_t chain = t.find("chain port_p3 {\n");
    ASSERT_NE(chain, std::string::npos);
    // IPv4 from a bound source meets two rules and nothing else; 802.3
    // frames (which no rule of an Ethernet II type can match) wait behind
    // one comparison.
    EXPECT_EQ(t.find("\t\tmeta protocol ip ip protocol udp udp dport 67-68 drop\n"
                     "\t\tmeta protocol ip iif . ether saddr . ip saddr @bound accept\n"
                     "\t\tether type <= 0x05dc jump llc_p3\n"
                     "\t\tether type 8021ad",
                     chain),
              chain + strlen("chain port_p3 {\n"));
    size_t llc = t.find("chain llc_p3 {\n");
    ASSERT_NE(llc, std::string::npos);
    size_t llcEnd = t.find("\t}\n", llc);
    EXPECT_LT(t.find("@ll,352,16 { 67, 68 } drop", llc), llcEnd);
    EXPECT_LT(t.find("@ll,160,16 { 0x0800, 0x0806, 0x86dd } counter name \"sg_p3\" drop", llc), llcEnd);
    // A trusted port: the DHCP drop and the jump, nothing else.
    size_t p1 = t.find("chain port_p1 {\n");
    ASSERT_NE(p1, std::string::npos);
    EXPECT_EQ(t.substr(p1, t.find("\t}\n", p1) - p1),
              "chain port_p1 {\n\t\tmeta protocol ip ip protocol udp udp dport 67-68 drop\n"
              "\t\tether type <= 0x05dc jump llc_p1\n");
    // The sender MAC and the frame's source are both looked up: an ARP
    // claiming another station's binding from this one is refused.
    EXPECT_NE(t.find("meta protocol arp iif . ether saddr . arp saddr ip @bound "
                     "iif . arp saddr ether . arp saddr ip @bound accept"),
              std::string::npos);
    // A probe passes only for an address bound to its sender.
    EXPECT_NE(t.find("meta protocol arp arp saddr ip 0.0.0.0 iif . ether saddr . arp daddr ip @bound "
                     "iif . arp saddr ether . arp daddr ip @bound accept"),
              std::string::npos);
    EXPECT_EQ(t.find("arp saddr ip 0.0.0.0 accept"), std::string::npos) << "no probe passes unchecked";
    EXPECT_EQ(t.find("meta protocol ip6"), std::string::npos) << "IPv6 passes unless asked";
    EXPECT_EQ(t.find("chain output"), std::string::npos) << "no host port";
}

TEST(NftRules, BoundIpv4IsAcceptedBeforeThePortsChainIsLookedFor)
{
    std::string t = live::nft::tableText(ruleset(), {});
    size_t pre = t.find("\tchain prerouting {\n\t\ttype filter hook prerouting priority -300; policy accept;\n");
    ASSERT_NE(pre, std::string::npos);
    std::string body = t.substr(pre, t.find("\t}\n", pre) - pre);
    // Ports 67-68 of any protocol go on to the port's chain, where DHCP is
    // trapped and anything else from the bound source accepted again; so do
    // frames without transport ports (fragments).
    EXPECT_NE(body.find("\t\tmeta protocol ip iif . ether saddr . ip saddr @bound th dport != 67-68 accept\n"
                        "\t\tiif vmap {"),
              std::string::npos)
        << body;
    size_t p3 = t.find("chain port_p3 {\n");
    ASSERT_NE(p3, std::string::npos);
    EXPECT_LT(t.find("udp dport 67-68 drop", p3), t.find("ip saddr @bound accept", p3)) << "DHCP first there";

    live::nft::Ruleset r = ruleset();
    r.ipFilter = false;
    EXPECT_EQ(live::nft::tableText(r, {}).find("th dport"), std::string::npos) << "no IPv4 guard, no short cut";
    r = ruleset();
    r.ports[1].trusted = true;
    EXPECT_EQ(live::nft::tableText(r, {}).find("th dport"), std::string::npos) << "only trusted ports";
}

TEST(NftRules, TrappedDhcpIsLoggedToThePortsGroup)
{
    live::nft::Ruleset r = ruleset();
    r.ports[1].logGroup = 0xD502;
    std::string t = live::nft::tableText(r, {});
    size_t p3 = t.find("chain port_p3 {\n");
    ASSERT_NE(p3, std::string::npos);
    EXPECT_LT(t.find("udp dport 67-68 log group 54530 drop\n", p3), t.find("\t}\n", p3));
    size_t llc = t.find("chain llc_p3 {\n");
    ASSERT_NE(llc, std::string::npos);
    EXPECT_LT(t.find("@ll,352,16 { 67, 68 } log group 54530 drop\n", llc), t.find("\t}\n", llc));
    EXPECT_LT(t.find("@ll,248,8 17 log group 54530 drop\n", llc), t.find("\t}\n", llc))
        << "SNAP with IP options too: the module decides";
    EXPECT_EQ(count(t, "log group"), 3u) << "port 1/0/1 has no group here: dropped, not logged";
}

TEST(NftRules, WithoutFiltersNothingButTheTrap)
{
    live::nft::Ruleset r = ruleset();
    r.ipFilter = false;
    r.arpDefend = false;
    std::string t = live::nft::tableText(r, {});
    EXPECT_EQ(t.find("counter name"), std::string::npos);
    EXPECT_EQ(t.find("@bound"), std::string::npos);
    r.arpDefend = true;
    t = live::nft::tableText(r, {});
    EXPECT_EQ(t.find("ip saddr @bound"), std::string::npos) << "arp_defend alone guards ARP only";
    EXPECT_NE(t.find("arp saddr ip @bound"), std::string::npos);
    EXPECT_NE(t.find("vlan type { 8021q, 8021ad }"), std::string::npos) << "smuggling is refused with any filter";
}

TEST(NftRules, DropIpv6RefusesIpv6OnUntrustedPortsOnly)
{
    live::nft::Ruleset r = ruleset();
    r.ipFilter = false;
    r.arpDefend = false;
    r.dropIpv6 = true;
    std::string t = live::nft::tableText(r, {});
    size_t p3 = t.find("chain port_p3 {\n");
    ASSERT_NE(p3, std::string::npos);
    size_t p3End = t.find("\t}\n", p3);
    size_t v6 = t.find("meta protocol ip6 counter name \"sg_p3\" drop", p3);
    EXPECT_LT(v6, p3End);
    EXPECT_NE(t.find("@ll,160,16 { 0x0800, 0x0806, 0x86dd } counter name \"sg_p3\" drop", p3), std::string::npos)
        << "IPv6 in SNAP is refused too";
    size_t p1 = t.find("chain port_p1 {\n");
    ASSERT_NE(p1, std::string::npos);
    EXPECT_GT(t.find("meta protocol ip6", p1), t.find("\t}\n", p1)) << "a trusted port keeps its IPv6";
    EXPECT_EQ(t.find("@bound accept"), std::string::npos) << "no set look-up without ip_filter or arp_defend";
}

TEST(NftRules, TheHostPortTrapsWhatTheHostSends)
{
    live::nft::Ruleset r = ruleset();
    live::nft::Port host;
    host.index = 4;
    host.ifname = "br0";
    host.trusted = true;
    host.snooped = true;
    host.host = true;
    r.ports.push_back(host);
    std::string t = live::nft::tableText(r, {});
    EXPECT_NE(t.find("chain output {\n\t\ttype filter hook output priority -300; policy accept;\n"
                     "\t\tmeta protocol ip ip protocol udp udp dport { 67, 68 } drop\n"),
              std::string::npos);
    EXPECT_EQ(t.find("\"br0\""), std::string::npos) << "nothing enters the bridge through its own device";
}

TEST(NftRules, WhatEntersFromTheHostsPairGoesUpToTheHostOnly)
{
    live::nft::Ruleset r = ruleset();
    std::string t = live::nft::tableText(r, {});
    EXPECT_EQ(t.find("hook forward"), std::string::npos) << "no host port: nothing on the forwarding path";
    r.hostBridgeEnd = "dhcpsnoop-br";
    t = live::nft::tableText(r, {});
    EXPECT_NE(t.find("\tchain forward {\n\t\ttype filter hook forward priority -300; policy accept;\n"
                     "\t\tiifname \"dhcpsnoop-br\" drop\n\t}\n"),
              std::string::npos);
    // Not trapped on the way in: the module sent those frames.
    EXPECT_EQ(t.find("\"dhcpsnoop-br\" : jump"), std::string::npos);
    EXPECT_EQ(count(t, "dhcpsnoop-br"), 1u);
}

TEST(NftRules, QuotableInterfaceNames)
{
    EXPECT_TRUE(live::nft::quotableIfname("sw3"));
    EXPECT_TRUE(live::nft::quotableIfname("br-lan.10"));
    EXPECT_TRUE(live::nft::quotableIfname("a23456789012345"));
    const char* bad[] = {"", "a234567890123456", "a\"b", "a\\b", "a b", "a/b", "a:b", ".", ".."};
    for (const char* b : bad)
        EXPECT_FALSE(live::nft::quotableIfname(b)) << b;
}

TEST(NftRules, CounterListing)
{
    const char* listing =
        "table bridge dhcpsnoopd {\n\tcounter sg_p3 {\n\t\tpackets 12 bytes 1008\n\t}\n\n"
        "\tcounter sg_p4 {\n\t\tpackets 0 bytes 0\n\t}\n}\n";
    std::map<std::string, uint64_t> p;
    ASSERT_TRUE(live::nft::parseCounters(listing, p));
    EXPECT_EQ(p.size(), 2u);
    EXPECT_EQ(p["sg_p3"], 12u);
    EXPECT_EQ(p["sg_p4"], 0u);
    EXPECT_EQ(live::nft::counterName(2), "sg_p3");
    std::map<std::string, uint64_t> none;
    EXPECT_FALSE(live::nft::parseCounters("Error: No such file or directory\n", none));
    EXPECT_FALSE(live::nft::parseCounters("table bridge x {\n\tcounter sg_p1 {\n\t\tpackets x\n", none));
}

// ---- the trap filter ----

bool trapped(const fb::Bytes& f)
{
    return live::trapfilter::run(live::trapfilter::program(), f.data(), f.size()) != 0;
}

TEST(TrapFilter, DhcpAsTheModuleTakesIt)
{
    EXPECT_TRUE(trapped(fb::Frame().build())) << "a DISCOVER to port 67";
    EXPECT_TRUE(trapped(fb::Frame().srcPort(67).dstPort(68).build())) << "a reply to port 68";
    EXPECT_TRUE(trapped(fb::Frame().vlan(10).build())) << "an 802.1Q tag left in the frame";
    EXPECT_TRUE(trapped(fb::Frame().snap().build())) << "802.3 with SNAP";
    EXPECT_TRUE(trapped(fb::Frame().ihl(6).ipOptions(fb::Bytes(4, 1)).build())) << "IP options";
}

TEST(TrapFilter, NothingElse)
{
    const struct {
        const char* what;
        fb::Bytes frame;
    } cases[] = {
        {"UDP to another port", fb::Frame().dstPort(53).build()},
        {"from port 67 to another", fb::Frame().srcPort(67).dstPort(1067).build()},
        {"TCP to port 67", fb::Frame().protocol(6).build()},
        {"TCP with IP options", fb::Frame().protocol(6).ihl(6).ipOptions(fb::Bytes(4, 1)).build()},
        {"UDP with IP options to another port", fb::Frame().dstPort(53).ihl(6).ipOptions(fb::Bytes(4, 1)).build()},
        // Where a 20-byte header would put the port, the options say 67.
        {"port 67 in the IP options", fb::Frame().dstPort(53).ihl(6).ipOptions(fb::Bytes{1, 1, 0, 67}).build()},
        {"TCP behind an 802.1Q tag", fb::Frame().vlan(10).protocol(6).build()},
        {"TCP in SNAP", fb::Frame().snap().protocol(6).build()},
        {"a later fragment", fb::Frame().fragment(0x0010).build()},
        {"IPv6 version", fb::Frame().ipVersion(6).build()},
        {"header shorter than 20 bytes", fb::Frame().ihl(4).build()},
        {"ARP type", fb::Frame().etherType(0x0806).build()},
        {"802.1ad outer tag", [] {
             fb::Frame f;
             f.vlan(10);
             f.eth.tag->tpid = 0x88A8;
             return f.build();
         }()},
        {"SNAP of another type", fb::Frame().snap().etherType(0x0806).build()},
    };
    for (const auto& c : cases)
        EXPECT_FALSE(trapped(c.frame)) << c.what;
}

TEST(TrapFilter, EveryCutOfADiscoverIsRefusedOrReadInBounds)
{
    fb::Bytes f = fb::Frame().build();
    const auto prog = live::trapfilter::program();
    // Cut before the destination port: the program must not take it.
    for (size_t len = 0; len < 14 + 20 + 4; ++len)
        EXPECT_EQ(live::trapfilter::run(prog, f.data(), len), 0u) << "cut at " << len;
    EXPECT_NE(live::trapfilter::run(prog, f.data(), 14 + 20 + 4), 0u) << "the port is all it needs";
}

}  // namespace
