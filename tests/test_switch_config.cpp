// The switch configuration file: every key, its defaults, every kind of bad
// file refused with the key and line, and the configuration on the simulation.
#include <cstring>
#include <fstream>

#include "platform/qtable.h"
#include "platform/snoopcfg.h"
#include "support/fixture.h"
#include "tools/common/switch_config.h"
#include "tools/common/switch_config_sim.h"

namespace {

const char* kFull = R"([switch]
unit = 1
mac = "02:00:C6:12:FF:01"
snooping_vlans = [10, 20]
table_updates = false
ip_filter = true
arp_defend = true
debug = true
debug_level = 2

[[port]]
name = "1/0/1"
vlan = 10
tagged = [20, 30]
trust = true
interface = "eth1"

[[port]]
name = "po3"
vlan = 20
verify_mac = true
rate = 255
decline_rate = 7
option82 = true
option82_policy = "drop"
circuit_id = "rack-3"
remote_id = "sw-a"

[[port]]
name = "1/0/40"
vlan = 10
option82_policy = "replace"
)";

swcfg::SwitchConfig parseOk(const std::string& text)
{
    swcfg::SwitchConfig cfg;
    std::string error;
    EXPECT_TRUE(swcfg::parseSwitchConfig(text, "sw.toml", cfg, error)) << error;
    return cfg;
}

TEST(SwitchConfig, ReadsEveryKey)
{
    swcfg::SwitchConfig c = parseOk(kFull);
    EXPECT_EQ(c.unit, 1u);
    ASSERT_TRUE(c.hasMac);
    EXPECT_EQ(swcfg::macText(c.mac), "02:00:c6:12:ff:01");
    EXPECT_EQ(c.snoopingVlans, (std::vector<uint16_t>{10, 20}));
    EXPECT_FALSE(c.tableUpdates);
    EXPECT_TRUE(c.ipFilter);
    EXPECT_TRUE(c.arpDefend);
    EXPECT_TRUE(c.debug);
    EXPECT_EQ(c.debugLevel, 2u);
    ASSERT_EQ(c.ports.size(), 3u);

    const swcfg::PortConfig& a = c.ports[0];
    EXPECT_EQ(a.name, "1/0/1");
    EXPECT_EQ(a.handle, UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 1));
    EXPECT_EQ(a.vlan, 10);
    EXPECT_EQ(a.tagged, (std::vector<uint16_t>{20, 30}));
    EXPECT_TRUE(a.trust);
    EXPECT_EQ(a.interface, "eth1");
    EXPECT_EQ(a.line, 11u);
    EXPECT_TRUE(a.carries(10));
    EXPECT_TRUE(a.carries(30));
    EXPECT_FALSE(a.carries(40));
    EXPECT_FALSE(a.tags(10));
    EXPECT_TRUE(a.tags(20));

    const swcfg::PortConfig& b = c.ports[1];
    EXPECT_EQ(b.handle, UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 3));
    EXPECT_FALSE(b.trust);
    EXPECT_TRUE(b.verifyMac);
    EXPECT_EQ(b.rate, 255);
    EXPECT_EQ(b.declineRate, 7);
    EXPECT_TRUE(b.option82);
    EXPECT_EQ(b.option82Policy, 2);
    EXPECT_EQ(b.circuitId, "rack-3");
    EXPECT_EQ(b.remoteId, "sw-a");

    EXPECT_EQ(c.ports[2].option82Policy, 1);
    EXPECT_EQ(c.port(UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 40)), &c.ports[2]);
    EXPECT_EQ(c.port("po3"), &c.ports[1]);
    EXPECT_EQ(c.port("1/0/2"), nullptr);
}

TEST(SwitchConfig, DataPlaneAndBridge)
{
    swcfg::SwitchConfig u = parseOk("[switch]\ndataplane = \"user\"\nbridge = \"br-lan\"\n");
    EXPECT_EQ(u.dataplane, swcfg::SwitchConfig::Dataplane::User);
    EXPECT_EQ(u.bridge, "br-lan");
    swcfg::SwitchConfig b = parseOk("[switch]\ndataplane = \"bridge\"\n");
    EXPECT_EQ(b.dataplane, swcfg::SwitchConfig::Dataplane::Bridge);
    EXPECT_TRUE(b.bridge.empty());
}

TEST(SwitchConfig, Defaults)
{
    swcfg::SwitchConfig c = parseOk("[[port]]\nname = \"1/0/2\"\nvlan = 1\n");
    EXPECT_EQ(c.unit, 1u);
    EXPECT_FALSE(c.hasMac);
    EXPECT_TRUE(c.snoopingVlans.empty());
    EXPECT_TRUE(c.tableUpdates);
    EXPECT_FALSE(c.ipFilter);
    EXPECT_FALSE(c.arpDefend);
    EXPECT_FALSE(c.dropIpv6);
    EXPECT_FALSE(c.debug);
    EXPECT_EQ(c.debugLevel, 0u);
    EXPECT_EQ(c.dataplane, swcfg::SwitchConfig::Dataplane::Bridge);
    EXPECT_TRUE(c.bridge.empty());
    ASSERT_EQ(c.ports.size(), 1u);
    const swcfg::PortConfig& p = c.ports[0];
    EXPECT_FALSE(p.trust);
    EXPECT_FALSE(p.verifyMac);
    EXPECT_EQ(p.rate, 0);
    EXPECT_EQ(p.declineRate, 0);
    EXPECT_FALSE(p.option82);
    EXPECT_EQ(p.option82Policy, 0);
    EXPECT_TRUE(p.circuitId.empty());
    EXPECT_TRUE(p.remoteId.empty());
    EXPECT_TRUE(p.tagged.empty());
}

TEST(SwitchConfig, DropIpv6IsASwitchOfItsOwn)
{
    EXPECT_TRUE(parseOk("[switch]\ndrop_ipv6 = true\n").dropIpv6);
    swcfg::SwitchConfig c;
    std::string error;
    EXPECT_FALSE(swcfg::parseSwitchConfig("[switch]\ndrop_ipv6 = 1\n", "t.toml", c, error));
    EXPECT_NE(error.find("drop_ipv6"), std::string::npos) << error;
}

TEST(SwitchConfig, EmptyFileIsASwitchWithoutPorts)
{
    swcfg::SwitchConfig c = parseOk("");
    EXPECT_TRUE(c.ports.empty());
}

struct BadCase {
    const char* what;
    std::string text;
    const char* error;
};

TEST(SwitchConfig, BadFilesAreRefusedNamingKeyAndLine)
{
    const std::string port = "[[port]]\nname = \"1/0/1\"\nvlan = 10\n";
    const BadCase cases[] = {
        // unknown keys
        {"unknown switch key", "[switch]\nunit = 1\nspeed = 10\n", "sw.toml:3: switch.speed: unknown key"},
        {"unknown port key", port + "duplex = \"full\"\n", "sw.toml:4: port.duplex: unknown key"},
        {"unknown table", "[switches]\nunit = 1\n", "sw.toml:1: switches: unknown key"},
        {"unknown top-level key", "name = 3\n", "sw.toml:1: name: unknown key"},
        {"switch not a table", "switch = 3\n", "sw.toml:1: switch: must be a table: [switch]"},
        {"port not an array of tables", "[port]\nname = \"1/0/1\"\n",
         "sw.toml:1: port: must be an array of tables: [[port]]"},
        // bad values: types
        {"vlan as text", "[[port]]\nname = \"1/0/1\"\nvlan = \"10\"\n",
         "sw.toml:3: port.vlan: must be an integer"},
        {"trust as text", port + "trust = \"yes\"\n", "sw.toml:4: port.trust: must be true or false"},
        {"rate as float", port + "rate = 1.5\n", "sw.toml:4: port.rate: must be an integer"},
        {"name as number", "[[port]]\nname = 3\nvlan = 1\n", "sw.toml:2: port.name: must be a string"},
        {"table_updates as number", "[switch]\ntable_updates = 1\n",
         "sw.toml:2: switch.table_updates: must be true or false"},
        {"snooping_vlans not a list", "[switch]\nsnooping_vlans = 10\n",
         "sw.toml:2: switch.snooping_vlans: must be a list of VLAN ids"},
        {"snooping_vlans of texts", "[switch]\nsnooping_vlans = [\"10\"]\n",
         "sw.toml:2: switch.snooping_vlans: must be a list of VLAN ids"},
        // bad values: ranges
        {"vlan 0", "[[port]]\nname = \"1/0/1\"\nvlan = 0\n", "sw.toml:3: port.vlan: 0 is out of range 1..4094"},
        {"vlan 4095", "[[port]]\nname = \"1/0/1\"\nvlan = 4095\n",
         "sw.toml:3: port.vlan: 4095 is out of range 1..4094"},
        {"tagged 4095", port + "tagged = [20, 4095]\n",
         "sw.toml:4: port.tagged: VLAN 4095 is out of range 1..4094"},
        {"tagged repeats", port + "tagged = [20, 20]\n", "sw.toml:4: port.tagged: VLAN 20 is listed twice"},
        {"tagged holds the access VLAN", port + "tagged = [10]\n",
         "sw.toml:4: port.tagged: VLAN 10 is the port's access VLAN"},
        {"snooping VLAN 0", "[switch]\nsnooping_vlans = [0]\n",
         "sw.toml:2: switch.snooping_vlans: VLAN 0 is out of range 1..4094"},
        {"rate 256", port + "rate = 256\n", "sw.toml:4: port.rate: 256 is out of range 0..255"},
        {"rate -1", port + "rate = -1\n", "sw.toml:4: port.rate: -1 is out of range 0..255"},
        {"decline_rate 1000", port + "decline_rate = 1000\n",
         "sw.toml:4: port.decline_rate: 1000 is out of range 0..255"},
        {"debug_level 4", "[switch]\ndebug_level = 4\n", "sw.toml:2: switch.debug_level: 4 is out of range 0..3"},
        {"unit 0", "[switch]\nunit = 0\n", "sw.toml:2: switch.unit: 0 is out of range 1..8"},
        {"bad dataplane", "[switch]\ndataplane = \"kernel\"\n",
         "sw.toml:2: switch.dataplane: \"kernel\" is not a data plane (\"bridge\" or \"user\")"},
        {"empty bridge", "[switch]\nbridge = \"\"\n",
         "sw.toml:2: switch.bridge: \"\" is not an interface name (1 to 15 characters)"},
        {"long bridge", "[switch]\nbridge = \"bridge-name-is-16\"\n",
         "sw.toml:2: switch.bridge: \"bridge-name-is-16\" is not an interface name (1 to 15 characters)"},
        {"bad policy", port + "option82_policy = \"strip\"\n",
         "sw.toml:4: port.option82_policy: \"strip\" is not one of \"keep\", \"replace\", \"drop\""},
        {"bad mac", "[switch]\nmac = \"02:00:c6:12:ff\"\n",
         "sw.toml:2: switch.mac: \"02:00:c6:12:ff\" is not a MAC address (aa:bb:cc:dd:ee:ff)"},
        {"group mac", "[switch]\nmac = \"01:00:5e:00:00:01\"\n",
         "sw.toml:2: switch.mac: \"01:00:5e:00:00:01\" is not a unicast address"},
        {"circuit_id too long", port + "circuit_id = \"" + std::string(257, 'c') + "\"\n",
         "sw.toml:4: port.circuit_id: 257 bytes, at most 256"},
        {"option 82 too long", port + "circuit_id = \"" + std::string(200, 'c') + "\"\nremote_id = \"" +
                                   std::string(52, 'r') + "\"\n",
         "sw.toml:4: port.circuit_id: circuit_id and remote_id together take 256 bytes of option 82, "
         "at most 255"},
        {"NUL in remote_id", port + "remote_id = \"a\\u0000b\"\n",
         "sw.toml:4: port.remote_id: must not contain a NUL character"},
        {"missing name", "[[port]]\nvlan = 10\n", "sw.toml:1: port.name: missing: every [[port]] needs a name"},
        {"missing vlan", "[[port]]\nname = \"1/0/1\"\n",
         "sw.toml:1: port.vlan: missing: port 1/0/1 needs its access VLAN"},
        // port names that do not parse
        {"port 65", "[[port]]\nname = \"1/0/65\"\nvlan = 1\n",
         "sw.toml:2: port.name: \"1/0/65\" is not a port (\"U/0/P\" with P 1..64, or \"poN\" with N 1..15)"},
        {"port 0", "[[port]]\nname = \"1/0/0\"\nvlan = 1\n",
         "sw.toml:2: port.name: \"1/0/0\" is not a port (\"U/0/P\" with P 1..64, or \"poN\" with N 1..15)"},
        {"slot 1", "[[port]]\nname = \"1/1/3\"\nvlan = 1\n",
         "sw.toml:2: port.name: \"1/1/3\" is not a port (\"U/0/P\" with P 1..64, or \"poN\" with N 1..15)"},
        {"po16", "[[port]]\nname = \"po16\"\nvlan = 1\n",
         "sw.toml:2: port.name: \"po16\" is not a port (\"U/0/P\" with P 1..64, or \"poN\" with N 1..15)"},
        {"interface name", "[[port]]\nname = \"eth0\"\nvlan = 1\n",
         "sw.toml:2: port.name: \"eth0\" is not a port (\"U/0/P\" with P 1..64, or \"poN\" with N 1..15)"},
        {"leading zero", "[[port]]\nname = \"1/0/03\"\nvlan = 1\n",
         "sw.toml:2: port.name: \"1/0/03\" is not a port (\"U/0/P\" with P 1..64, or \"poN\" with N 1..15)"},
        {"control characters in a name", "[[port]]\nname = \"1/0/3\\n\\u001b[2J\"\nvlan = 1\n",
         "sw.toml:2: port.name: \"1/0/3??[2J\" is not a port (\"U/0/P\" with P 1..64, or \"poN\" with N 1..15)"},
        {"trailing blank", "[[port]]\nname = \"1/0/3 \"\nvlan = 1\n",
         "sw.toml:2: port.name: \"1/0/3 \" is not a port (\"U/0/P\" with P 1..64, or \"poN\" with N 1..15)"},
        // duplicate ports
        {"duplicate port", port + "\n[[port]]\nname = \"1/0/1\"\nvlan = 20\n",
         "sw.toml:6: port.name: duplicate port \"1/0/1\" (first at line 1)"},
        {"duplicate port channel", "[[port]]\nname = \"po2\"\nvlan = 1\n[[port]]\nvlan = 1\nname = \"po2\"\n",
         "sw.toml:6: port.name: duplicate port \"po2\" (first at line 1)"},
        // not TOML at all
        {"syntax error", "[switch]\nunit = = 1\n", nullptr},
        {"duplicate key", "[switch]\nunit = 1\nunit = 2\n", nullptr},
    };
    for (const BadCase& c : cases) {
        swcfg::SwitchConfig cfg;
        cfg.unit = 77;
        std::string error;
        EXPECT_FALSE(swcfg::parseSwitchConfig(c.text, "sw.toml", cfg, error)) << c.what;
        if (c.error != nullptr)
            EXPECT_EQ(error, c.error) << c.what;
        else
            EXPECT_EQ(error.rfind("sw.toml:", 0), 0u) << c.what << ": " << error;
        // A refused file leaves the caller's configuration alone.
        EXPECT_EQ(cfg.unit, 77u) << c.what;
    }
}

TEST(SwitchConfig, SyntaxErrorsNameTheirLine)
{
    swcfg::SwitchConfig cfg;
    std::string error;
    ASSERT_FALSE(swcfg::parseSwitchConfig("[switch]\nunit = 1\nmac = \n", "sw.toml", cfg, error));
    EXPECT_EQ(error.rfind("sw.toml:3: ", 0), 0u) << error;
}

TEST(SwitchConfig, LongestTextsThatFit)
{
    // 245 + 6 (MAC remote ID) + 4 header bytes = 255.
    swcfg::SwitchConfig c =
        parseOk("[[port]]\nname = \"1/0/1\"\nvlan = 1\ncircuit_id = \"" + std::string(245, 'c') + "\"\n");
    ASSERT_EQ(c.ports.size(), 1u);
    EXPECT_EQ(c.ports[0].circuitId.size(), 245u);
}

TEST(SwitchConfig, PortNames)
{
    up h = 0;
    EXPECT_TRUE(swcfg::parsePortName("1/0/1", &h));
    EXPECT_EQ(h, UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 1));
    EXPECT_TRUE(swcfg::parsePortName("2/0/64", &h));
    EXPECT_EQ(h, UP_MAKE(UP_TYPE_PHYSICAL, 2, 0, 64));
    EXPECT_TRUE(swcfg::parsePortName("po15", &h));
    EXPECT_EQ(h, UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 15));
    for (const char* bad : {"", "po", "po0", "po1x", "1/0", "1//1", "0/0/1", "256/0/1", "1/0/1/",
                            "/0/1", "PO1", " 1/0/1"})
        EXPECT_FALSE(swcfg::parsePortName(bad, &h)) << bad;
}

// The daemon is one unit of a stack, and the module finds a frame's receive
// port by walking the first 79 flat port indexes (unit 1's 64 ports, then
// either the 15 port channels on unit 1 or unit 2's first 15 ports): a port
// of another unit, or one past the walk, would be judged as another port or
// as no port at all.
TEST(SwitchConfig, PortsOfAnotherUnitOrPastTheReceiveWalkAreRefused)
{
    auto cfgWith = [](int unit, const char* name) {
        return "[switch]\nunit = " + std::to_string(unit) + "\n\n[[port]]\nname = \"" + name +
               "\"\nvlan = 1\n";
    };
    const BadCase cases[] = {
        {"2/0/5 on unit 1 (read as po6 by the walk)", cfgWith(1, "2/0/5"),
         "sw.toml:5: port.name: \"2/0/5\" is a port of unit 2, and this switch is unit 1 (switch.unit)"},
        {"1/0/3 on unit 2", cfgWith(2, "1/0/3"),
         "sw.toml:5: port.name: \"1/0/3\" is a port of unit 1, and this switch is unit 2 (switch.unit)"},
        {"2/0/16 on unit 2", cfgWith(2, "2/0/16"),
         "sw.toml:5: port.name: \"2/0/16\" cannot be handled on unit 2: the module finds receive ports "
         "2/0/1 to 2/0/15 only"},
        {"2/0/64 on unit 2", cfgWith(2, "2/0/64"),
         "sw.toml:5: port.name: \"2/0/64\" cannot be handled on unit 2: the module finds receive ports "
         "2/0/1 to 2/0/15 only"},
        {"port channel on unit 2", cfgWith(2, "po1"),
         "sw.toml:5: port.name: \"po1\" cannot be handled on unit 2: the module finds port channels on "
         "unit 1 only"},
        {"3/0/1 on unit 3", cfgWith(3, "3/0/1"),
         "sw.toml:5: port.name: \"3/0/1\" cannot be handled on unit 3: the module finds receive ports on "
         "units 1 and 2 only"},
        {"po15 on unit 8", cfgWith(8, "po15"),
         "sw.toml:5: port.name: \"po15\" cannot be handled on unit 8: the module finds port channels on "
         "unit 1 only"},
    };
    for (const BadCase& c : cases) {
        swcfg::SwitchConfig cfg;
        std::string error;
        EXPECT_FALSE(swcfg::parseSwitchConfig(c.text, "sw.toml", cfg, error)) << c.what;
        EXPECT_EQ(error, c.error) << c.what;
    }
    // The [switch] table may follow the ports: the unit is known only at the end.
    swcfg::SwitchConfig cfg;
    std::string error;
    EXPECT_FALSE(swcfg::parseSwitchConfig("[[port]]\nname = \"2/0/1\"\nvlan = 1\n[switch]\nunit = 1\n",
                                          "sw.toml", cfg, error));
    EXPECT_EQ(error, "sw.toml:2: port.name: \"2/0/1\" is a port of unit 2, and this switch is unit 1 (switch.unit)");
    // The edges that are reached.
    for (const auto& ok : {cfgWith(1, "1/0/64"), cfgWith(1, "po15"), cfgWith(2, "2/0/1"), cfgWith(2, "2/0/15")}) {
        swcfg::SwitchConfig c = parseOk(ok);
        EXPECT_EQ(c.ports.size(), 1u) << ok;
    }
}

// The TOML library reaches undefined behaviour on a non-ASCII character
// where its lexer may look for whitespace: the file must be ASCII, other
// characters are written in strings with escapes.
TEST(SwitchConfig, ABytePastAsciiIsRefusedBeforeTheTomlLibraryReadsIt)
{
    const std::string what = ": a byte that is not ASCII (write other characters in strings as \\uXXXX)";
    const std::string port = "[[port]]\nname = \"1/0/1\"\nvlan = 1\n";
    const BadCase cases[] = {
        {"bare value", "[switch]\nunit = \xcc\xac\n", "sw.toml:2"},
        {"after a value", "[switch]\nunit = 1 \xcc\xac\n", "sw.toml:2"},
        {"table name", "[[por\xcc\xac]]\nname = \"1/0/1\"\n", "sw.toml:1"},
        {"after a line-ending backslash", port + "circuit_id = \"\"\"a\\\n  \xcc\xac\"\"\"\n", "sw.toml:5"},
        {"in a number", "[switch]\nmac = 0\":02\xef\xba\xbf\"\n", "sw.toml:2"},
        {"in a string", port + "circuit_id = \"r\xc3\xa9seau\"\n", "sw.toml:4"},
        {"in a comment", "# r\xc3\xa9seau\n", "sw.toml:1"},
    };
    for (const BadCase& c : cases) {
        swcfg::SwitchConfig cfg;
        std::string error;
        EXPECT_FALSE(swcfg::parseSwitchConfig(c.text, "sw.toml", cfg, error)) << c.what;
        EXPECT_EQ(error, c.error + what) << c.what;
    }
    swcfg::SwitchConfig c = parseOk(port + "circuit_id = \"r\\u00e9seau \\u032c\"\n");
    ASSERT_EQ(c.ports.size(), 1u);
    EXPECT_EQ(c.ports[0].circuitId, "r\xc3\xa9seau \xcc\xac");
}

TEST(SwitchConfig, UnreadableFile)
{
    swcfg::SwitchConfig cfg;
    std::string error;
    EXPECT_FALSE(swcfg::loadSwitchConfig("/nonexistent/sw.toml", cfg, error));
    EXPECT_EQ(error, "/nonexistent/sw.toml: cannot be read");
}

class SwitchConfigSim : public SnoopTest {};

TEST_F(SwitchConfigSim, AppliesEveryKeyToTheSimulatedSwitch)
{
    swcfg::SwitchConfig c = parseOk(kFull);
    swcfg::applyToSim(c);

    up p1 = sim::physicalPort(1, 1), po3 = sim::portChannel(3), p40 = sim::physicalPort(1, 40);
    // The model grows to the ports named.
    EXPECT_EQ(inner_up_is_valid(p40), 1u);
    EXPECT_EQ(inner_up_is_valid(sim::physicalPort(1, 41)), 0u);
    EXPECT_EQ(inner_up_is_valid(po3), 1u);

    DhcpSnoopPortCfg pc;
    ASSERT_EQ(swDhcpSnoopGetPortCfg(p1, &pc), 0u);
    EXPECT_EQ(pc.trust, 1);
    EXPECT_EQ(pc.op82Enable, 0);
    ASSERT_EQ(swDhcpSnoopGetPortCfg(po3, &pc), 0u);
    EXPECT_EQ(pc.trust, 0);
    EXPECT_EQ(pc.macVerify, 1);
    EXPECT_EQ(pc.limitRate, 255);
    EXPECT_EQ(pc.decLimitRate, 7);
    EXPECT_EQ(pc.op82Enable, 1);
    EXPECT_EQ(pc.Op82Policy, DHCP_SNOOP_OP82_POLICY_DROP);
    EXPECT_EQ(pc.circuitIdFormat, 1);
    EXPECT_EQ(pc.remoteIdFormat, 1);
    EXPECT_STREQ(pc.circuitId, "rack-3");
    EXPECT_STREQ(pc.remoteId, "sw-a");
    ASSERT_EQ(swDhcpSnoopGetPortCfg(p40, &pc), 0u);
    EXPECT_EQ(pc.Op82Policy, DHCP_SNOOP_OP82_POLICY_REPLACE);
    EXPECT_EQ(pc.circuitIdFormat, 0);
    EXPECT_EQ(pc.remoteIdFormat, 0);
    EXPECT_EQ(pc.circuitId[0], '\0');

    uint8_t v = 0;
    ASSERT_EQ(swDhcpSnoopGetPortTrust(p1, &v), 0u);
    EXPECT_EQ(v, 1);
    ASSERT_EQ(swDhcpSnoopGetPortLimitRate(po3, &v), 0u);
    EXPECT_EQ(v, 255);
    ASSERT_EQ(swDhcpSnoopGetPortDecLimitRate(po3, &v), 0u);
    EXPECT_EQ(v, 7);
    ASSERT_EQ(swDhcpSnoopGetPortMacVerify(po3, &v), 0u);
    EXPECT_EQ(v, 1);
    for (uint16_t vid : {10, 20}) {
        v = 0;
        ASSERT_EQ(swDhcpSnoopGetVlanEnableStatusByVid(vid, &v), 0u);
        EXPECT_NE(v, 0) << vid;
    }
    v = 1;
    ASSERT_EQ(swDhcpSnoopGetVlanEnableStatusByVid(30, &v), 0u);
    EXPECT_EQ(v, 0);
    v = 1;
    ASSERT_EQ(swDhcpSnoopGetQAddStatus(&v), 0u);
    EXPECT_EQ(v, 0);
    uint32_t flag = 0;
    ASSERT_EQ(getIncludeIpFilter(&flag), 0u);
    EXPECT_NE(flag, 0u);
    flag = 0;
    ASSERT_EQ(getIncludeArpDefend(&flag), 0u);
    EXPECT_NE(flag, 0u);
    EXPECT_EQ(sim::switchMac(), (sim::Mac{0x02, 0x00, 0xc6, 0x12, 0xff, 0x01}));
    EXPECT_EQ(debugFlagGet(46), 1u);
}

TEST_F(SwitchConfigSim, DebugLevelGoesToTheModule)
{
    swcfg::SwitchConfig c = parseOk("[switch]\ndebug_level = 3\n");
    swcfg::applyToSim(c);
    startModule();
    EXPECT_EQ(swcfg::applyToModule(c), 0u);
    EXPECT_EQ(dhcpSnoopDebugLevel(), 3u);
}

}  // namespace
