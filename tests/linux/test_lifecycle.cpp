// Start, run, stop and reconfigure of the live platform with ports that
// have no interface behind them: no sockets, so it runs anywhere.
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "live_fixture.h"

namespace {

const char* kConfig = R"(
[switch]
snooping_vlans = [10]
dataplane = "user"

[[port]]
name = "1/0/1"
vlan = 10
trust = true

[[port]]
name = "1/0/2"
vlan = 10
)";

class Lifecycle : public LiveTest {
protected:
    void TearDown() override
    {
        live::stop();
        live::logging::setSwitchInited(false);
        LiveTest::TearDown();
    }

    swcfg::SwitchConfig config(const std::string& text)
    {
        swcfg::SwitchConfig cfg;
        std::string error;
        EXPECT_TRUE(swcfg::parseSwitchConfig(text, "t.toml", cfg, error)) << error;
        return cfg;
    }
};

TEST_F(Lifecycle, StartRunStopAndCountersPerPort)
{
    live::Options opt;
    opt.useSyslog = false;
    opt.dataDir = "/tmp/live-lifecycle";
    std::string error;
    ASSERT_TRUE(live::start(config(kConfig), opt, error)) << error;
    EXPECT_STREQ(pal_file_path(DHCP_SNOOP_CFG_FILE_PATH), "/tmp/live-lifecycle/dhcpSnoop.cfg");
    EXPECT_EQ(isSwitchInited(), 0u) << "not before run";
    ASSERT_TRUE(live::run(error)) << error;
    EXPECT_EQ(isSwitchInited(), 1u);
    EXPECT_FALSE(live::run(error));
    EXPECT_NE(error.find("already"), std::string::npos) << error;
    auto c = live::counters();
    ASSERT_EQ(c.size(), 2u);
    EXPECT_EQ(c[0].name, "1/0/1");
    EXPECT_EQ(c[1].name, "1/0/2");
    EXPECT_TRUE(live::saveIdle());
    uint8_t mac[6];
    EXPECT_NE(getMacAddress(mac), 0u) << "no MAC configured and no interface to ask";
    live::stop();
    EXPECT_TRUE(live::run(error)) << "runs again after a stop";
}

TEST_F(Lifecycle, ReconfigureKeepsThePortsOrRefuses)
{
    std::string error;
    ASSERT_TRUE(live::start(config(kConfig), live::Options(), error)) << error;
    std::string text = kConfig;
    text.replace(text.find("trust = true"), 12, "trust = false");
    ASSERT_TRUE(live::reconfigure(config(text), error)) << error;
    uint8_t trust = 9;
    ::up h = UP_INVALID;
    ASSERT_TRUE(swcfg::parsePortName("1/0/1", &h));
    EXPECT_EQ(swDhcpSnoopGetPortTrust(h, &trust), 0u);
    EXPECT_EQ(trust, 0);
    std::string more = text + "\n[[port]]\nname = \"1/0/3\"\nvlan = 10\n";
    EXPECT_FALSE(live::reconfigure(config(more), error));
    EXPECT_FALSE(error.empty());
}

TEST_F(Lifecycle, OneInterfaceForTwoPortsIsRefusedBeforeAnythingOpens)
{
    std::string text = kConfig;
    text += "interface = \"veth9\"\n\n[[port]]\nname = \"1/0/3\"\nvlan = 10\ninterface = \"veth9\"\n";
    std::string error;
    EXPECT_FALSE(live::start(config(text), live::Options(), error));
    EXPECT_EQ(error, "interface veth9 is given to ports 1/0/2 and 1/0/3");
    EXPECT_FALSE(live::core::isUp());
}

TEST_F(Lifecycle, TheDataDirectoryIsMadeWhenMissingAndMustBeADirectory)
{
    char base[] = "/tmp/live-datadir-XXXXXX";
    ASSERT_NE(mkdtemp(base), nullptr);
    live::Options opt;
    opt.dataDir = std::string(base) + "/a/b";
    std::string error;
    ASSERT_TRUE(live::start(config(kConfig), opt, error)) << error;
    EXPECT_TRUE(std::filesystem::is_directory(opt.dataDir));
    std::string file = std::string(base) + "/plain";
    FILE* f = fopen(file.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    opt.dataDir = file;
    EXPECT_FALSE(live::start(config(kConfig), opt, error));
    EXPECT_EQ(error.rfind("data directory " + file + ": ", 0), 0u) << error;
    std::filesystem::remove_all(base);
}

TEST_F(Lifecycle, RunNeedsAStart)
{
    std::string error;
    EXPECT_FALSE(live::run(error));
    EXPECT_NE(error.find("not started"), std::string::npos) << error;
}

TEST_F(Lifecycle, BadSizesAreRefusedWithNothingLeftOpen)
{
    live::Options opt;
    opt.packetPool = 0;
    std::string error;
    EXPECT_FALSE(live::start(config(kConfig), opt, error));
    EXPECT_NE(error.find("size"), std::string::npos) << error;
    EXPECT_FALSE(live::core::isUp());
}

}  // namespace
