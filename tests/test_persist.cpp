// Persistence: the binding file writer, the save task, the loader and its
// parsers, and the round trip through a restart.
#include <signal.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/fixture.h"

namespace {

const std::string kHeader = "1\r\nTYPE DHCP-SNOOPING\r\nBEGIN\r\n";
const std::string kEnd = "END\r\n";

// Running check value of the k-th binding line (from 1).
std::string check(uint32_t k)
{
    char buf[16];
    snprintf(buf, sizeof buf, "%08x", 30u + 67u * k);
    return buf;
}

std::string pad11(const std::string& port) { return std::string(11 - std::min<size_t>(11, port.size()), ' ') + port; }

// One binding line from its column texts (port given unpadded).
std::string bindLine(const std::string& ip, const std::string& mac, const std::string& vlan,
                     const std::string& port, const std::string& lease, const std::string& chk)
{
    return ip + "\t" + mac + "\t" + vlan + "\t" + pad11(port) + "\t" + lease + "\t" + chk + "\t\r\n";
}

// A well-formed line k for the i-th test binding 10.0.0.<i> on 1/0/<port>.
std::string goodLine(uint32_t k, uint32_t i, uint32_t port = 1, const std::string& lease = "00000e10")
{
    char ip[16], mac[24], p[16];
    snprintf(ip, sizeof ip, "0a.00.00.%02x", i & 0xFFu);
    snprintf(mac, sizeof mac, "00:11:22:33:44:%02x", i & 0xFFu);
    snprintf(p, sizeof p, "1/0/%u", port);
    return bindLine(ip, mac, "0001", p, lease, check(k));
}

class PersistTest : public SnoopTest {
protected:
    std::string cfgFile() const { return tmpDir + "/dhcpSnoop.cfg"; }

    void writeCfg(const std::string& text) const
    {
        std::ofstream f(cfgFile(), std::ios::binary | std::ios::trunc);
        f.write(text.data(), (std::streamsize)text.size());
    }

    bool cfgExists() const { return access(cfgFile().c_str(), F_OK) == 0; }

    std::string readCfg() const
    {
        std::ifstream f(cfgFile(), std::ios::binary);
        std::stringstream ss;
        ss << f.rdbuf();
        return ss.str();
    }

    // Loads as start-up does: with initFlag set.
    uint32_t load()
    {
        initFlag = 1;
        uint32_t rv = dhcpSnoopLoadDynEntry(DHCP_SNOOP_CFG_FILE_PATH);
        initFlag = 0;
        return rv;
    }

    uint32_t save() { return dhcpSnoopSaveDynEntry(dynamicTable, DHCP_SNOOP_CFG_FILE_PATH); }

    size_t saveRequests() const { return sim::queueDepth(sim::queueByName(DHCP_SNOOP_SAVE_QUEUE_NAME)); }

    // Links an element into the dynamic table by hand, first in its bucket,
    // as filing does.
    DhcpSnoopElement* linkByHand(uint8_t a, uint8_t b, uint8_t c, uint8_t d, const sim::Mac& mac,
                                 uint16_t vlan, up port, uint32_t ttl)
    {
        DhcpSnoopElement* e = dhcpSnoopGetMem();
        EXPECT_NE(e, nullptr);
        if (e == nullptr)
            return nullptr;
        e->clientIp[0] = a;
        e->clientIp[1] = b;
        e->clientIp[2] = c;
        e->clientIp[3] = d;
        memcpy(e->clientMac, mac.data(), 6);
        e->vlan = vlan;
        e->up = port;
        e->ttl = ttl;
        uint32_t bucket = d & DHCP_SNOOP_HASH_MASK;
        e->next = dynamicTable[bucket];
        if (e->next != nullptr)
            e->next->prev = e;
        dynamicTable[bucket] = e;
        return e;
    }

    // Files a binding through the table code.
    DhcpSnoopElement* fileBinding(uint8_t a, uint8_t b, uint8_t c, uint8_t d, const sim::Mac& mac,
                                  uint16_t vlan, up port, uint32_t ttl)
    {
        DhcpSnoopElement* e = dhcpSnoopGetMem();
        EXPECT_NE(e, nullptr);
        if (e == nullptr)
            return nullptr;
        e->clientIp[0] = a;
        e->clientIp[1] = b;
        e->clientIp[2] = c;
        e->clientIp[3] = d;
        memcpy(e->clientMac, mac.data(), 6);
        e->vlan = vlan;
        e->up = port;
        e->ttl = ttl;
        e->type = DHCP_SNOOP_TYPE_ACK;
        uint32_t rv = dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC);
        EXPECT_EQ(rv, 0u);
        if (rv != 0) {
            dhcpSnoopFreeMem(e);
            return nullptr;
        }
        return e;
    }

    DhcpSnoopElement* find(uint8_t a, uint8_t b, uint8_t c, uint8_t d, const sim::Mac& mac, uint16_t vlan)
    {
        DhcpSnoopElement key;
        memset(&key, 0, sizeof key);
        key.clientIp[0] = a;
        key.clientIp[1] = b;
        key.clientIp[2] = c;
        key.clientIp[3] = d;
        memcpy(key.clientMac, mac.data(), 6);
        key.vlan = vlan;
        return dhcpSnoopElementSearchByIpVlanMac(&key, DHCP_SNOOP_ELEMENT_DYNAMIC);
    }

    bool hasError(const std::string& text) const
    {
        for (const auto& l : sim::logs())
            if (l.error && l.message() == text)
                return true;
        return false;
    }
};

const sim::Mac kMacA = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const sim::Mac kMacB = {0x00, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};

// ==== writer ======================================================================

TEST_F(PersistTest, EmptyTableWritesHeaderAndEndOnly)
{
    startModule();
    ASSERT_EQ(save(), 0u);
    std::string text = readCfg();
    EXPECT_EQ(text.size(), 35u);
    EXPECT_EQ(text, kHeader + kEnd);
}

TEST_F(PersistTest, TwoBindingsCarryCheckValues61AndA4)
{
    startModule();
    // Buckets 5 and 9: bucket order decides the line order.
    linkByHand(10, 0, 0, 9, kMacB, 20, sim::physicalPort(1, 12), 0x1c20);
    linkByHand(10, 0, 0, 5, kMacA, 1, sim::physicalPort(1, 3), 3600);
    sim::setDebugFlag(1);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(readCfg(), kHeader +
                             "0a.00.00.05\t00:11:22:33:44:55\t0001\t      1/0/3\t00000e10\t00000061\t\r\n"
                             "0a.00.00.09\t00:aa:bb:cc:dd:ee\t0014\t     1/0/12\t00001c20\t000000a4\t\r\n" +
                             kEnd);
    EXPECT_TRUE(sim::hasMessage("Save dyn entry successfully."));
}

TEST_F(PersistTest, ChainOrderWithinABucketIsKept)
{
    startModule();
    // 10.0.0.5 and 10.0.1.133 share bucket 5; the later is first.
    linkByHand(10, 0, 0, 5, kMacA, 1, sim::physicalPort(1, 1), 10);
    linkByHand(10, 0, 1, 133, kMacB, 1, sim::physicalPort(1, 2), 11);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(readCfg(), kHeader +
                             "0a.00.01.85\t00:aa:bb:cc:dd:ee\t0001\t      1/0/2\t0000000b\t00000061\t\r\n"
                             "0a.00.00.05\t00:11:22:33:44:55\t0001\t      1/0/1\t0000000a\t000000a4\t\r\n" +
                             kEnd);
}

TEST_F(PersistTest, NeverExpiringBindingIsWrittenWithLeaseFfffffff)
{
    startModule();
    linkByHand(192, 168, 1, 200, kMacA, 4094, sim::portChannel(2), DHCP_SNOOP_TTL_FOREVER);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(readCfg(), kHeader +
                             "c0.a8.01.c8\t00:11:22:33:44:55\t0ffe\t        po2\tffffffff\t00000061\t\r\n" +
                             kEnd);
}

TEST_F(PersistTest, MoreThan512BindingsWriteOnly512WellFormedLines)
{
    startModule();
    for (uint32_t i = 0; i < 600; i++)
        linkByHand(10, 1, (uint8_t)(i >> 8), (uint8_t)i, kMacA, 1, sim::physicalPort(1, 1 + i % 28), 100 + i);
    ASSERT_EQ(save(), 0u);

    // Expected: bucket order, chain order, and once the text has reached
    // 34,300 bytes the rest of each chain is skipped.
    std::string expected = kHeader;
    for (uint32_t b = 0; b < DHCP_SNOOP_HASH_SIZE; b++) {
        for (DhcpSnoopElement* e = dynamicTable[b]; e != nullptr; e = e->next) {
            if (expected.size() >= 34300)
                break;
            char ip[16], mac[24], lease[16];
            snprintf(ip, sizeof ip, "%02x.%02x.%02x.%02x", e->clientIp[0], e->clientIp[1], e->clientIp[2],
                     e->clientIp[3]);
            snprintf(mac, sizeof mac, "%02x:%02x:%02x:%02x:%02x:%02x", e->clientMac[0], e->clientMac[1],
                     e->clientMac[2], e->clientMac[3], e->clientMac[4], e->clientMac[5]);
            snprintf(lease, sizeof lease, "%08x", e->ttl);
            uint32_t k = (uint32_t)(expected.size() - 30) / 67 + 1;
            expected += bindLine(ip, mac, "0001", sim::portName(e->up), lease, check(k));
        }
    }
    expected += kEnd;
    std::string text = readCfg();
    EXPECT_EQ(text.size(), 34339u);
    EXPECT_EQ(text, expected);

    // Well-formed: 512 lines of 67 bytes with running check values.
    ASSERT_EQ(text.compare(0, 30, kHeader), 0);
    for (uint32_t k = 1; k <= 512; k++) {
        std::string line = text.substr(30 + 67 * (k - 1), 67);
        EXPECT_EQ(line.substr(56, 11), check(k) + "\t\r\n") << "line " << k;
    }
    EXPECT_EQ(text.substr(text.size() - 5), kEnd);
}

TEST_F(PersistTest, PortTextOf12CharactersFailsTheSaveAndLeavesTheOldFile)
{
    startModule();
    writeCfg(kHeader + goodLine(1, 7) + kEnd);
    const std::string before = readCfg();
    up port = sim::physicalPort(1, 4);
    sim::setPortName(port, "1/0/4-abcdef");  // 12 characters
    linkByHand(10, 0, 0, 4, kMacA, 1, port, 50);
    sim::setDebugFlag(1);
    EXPECT_EQ(save(), 1313u);
    EXPECT_TRUE(hasError("Write file fail!"));
    EXPECT_EQ(readCfg(), before);
}

TEST_F(PersistTest, FailedSaveFreesItsBuffer)
{
    startModule();
    up port = sim::physicalPort(1, 4);
    sim::setPortName(port, "1/0/4-abcdef");
    linkByHand(10, 0, 0, 4, kMacA, 1, port, 50);
    size_t before = sim::outstandingAllocs();
    EXPECT_EQ(save(), 1313u);
    EXPECT_EQ(sim::outstandingAllocs(), before);
    // The mutex was given back: a second walk can take it.
    EXPECT_EQ(save(), 1313u);
}

TEST_F(PersistTest, PortTextOf11CharactersStillFits)
{
    startModule();
    up port = sim::physicalPort(1, 4);
    sim::setPortName(port, "1/0/4-abcde");
    linkByHand(10, 0, 0, 4, kMacA, 1, port, 50);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(readCfg(), kHeader +
                             "0a.00.00.04\t00:11:22:33:44:55\t0001\t1/0/4-abcde\t00000032\t00000061\t\r\n" + kEnd);
}

TEST_F(PersistTest, SaveTaskStopsAfterAFailedSave)
{
    startModule();
    writeCfg(kHeader + kEnd);
    up port = sim::physicalPort(1, 4);
    sim::setPortName(port, "1/0/4-abcdef");
    DhcpSnoopElement* e = linkByHand(10, 0, 0, 4, kMacA, 1, port, 50);
    sim::setDebugFlag(1);
    uint8_t msg = 1;
    ASSERT_NE(pal_msgQ_send(updateDynTableQ, &msg, 1, 0, 0), -1);
    EXPECT_EQ(simrun::pumpSave(), 1u);
    EXPECT_TRUE(simrun::saveTaskEnded());
    EXPECT_TRUE(hasError("E - 1313 call dhcpSnoopSaveDynEntry(dynamicTable, DHCP_SNOOP_CFG_FILE_PATH) failed."));
    EXPECT_FALSE(sim::hasMessage("Save the binding entries of dynamic table to the file system."));
    EXPECT_EQ(readCfg(), kHeader + kEnd);

    // Even once the save could succeed, no further request is taken.
    sim::setPortName(port, "1/0/4");
    (void)e;
    ASSERT_NE(pal_msgQ_send(updateDynTableQ, &msg, 1, 0, 0), -1);
    EXPECT_EQ(simrun::pumpSave(), 0u);
    EXPECT_EQ(saveRequests(), 1u);
    EXPECT_EQ(readCfg(), kHeader + kEnd);
}

TEST_F(PersistTest, FailedSaveAfterTableChangesEndsAllSaving)
{
    startModule();
    writeCfg(kHeader + kEnd);
    up port = sim::physicalPort(1, 4);
    sim::setPortName(port, "1/0/4-abcdef");
    ASSERT_NE(fileBinding(10, 0, 0, 4, kMacA, 1, port, 50), nullptr);
    simrun::runUntilIdle();
    EXPECT_TRUE(simrun::saveTaskEnded());
    EXPECT_EQ(readCfg(), kHeader + kEnd);

    // Later changes still ask for a save; nobody takes the request.
    sim::setPortName(port, "1/0/4");
    ASSERT_NE(fileBinding(10, 0, 0, 5, kMacA, 1, port, 50), nullptr);
    simrun::runUntilIdle();
    EXPECT_EQ(saveRequests(), 1u);
    EXPECT_EQ(readCfg(), kHeader + kEnd);
}

TEST_F(PersistTest, SaveTaskLoopReturnsAfterAFailedSave)
{
    startModule();
    up port = sim::physicalPort(1, 4);
    sim::setPortName(port, "1/0/4-abcdef");
    linkByHand(10, 0, 0, 4, kMacA, 1, port, 50);
    uint8_t msg = 1;
    ASSERT_NE(pal_msgQ_send(updateDynTableQ, &msg, 1, 0, 0), -1);
    // Returns instead of waiting for the next request.
    dhcpSnoopSaveDynEntryTask(nullptr);
    EXPECT_EQ(saveRequests(), 0u);
}

TEST_F(PersistTest, SaveTaskStepSleepsClearsTheCountAndSaves)
{
    startModule();
    linkByHand(10, 0, 0, 5, kMacA, 1, sim::physicalPort(1, 3), 3600);
    upMsgCnt = 1;
    sim::setDebugFlag(1);
    uint64_t slept = sim::sleptMs();
    EXPECT_EQ(dhcpSnoopSaveDynEntryTaskStep(), 0u);
    EXPECT_EQ(sim::sleptMs() - slept, 300u);
    EXPECT_EQ(upMsgCnt, 0u);
    EXPECT_EQ(sim::messages(), (std::vector<std::string>{
                                   "Execute dhcpSnoopSaveDynEntryTask.",
                                   "Save dyn entry successfully.",
                                   "Save the binding entries of dynamic table to the file system.",
                               }));
    EXPECT_EQ(readCfg(), kHeader +
                             "0a.00.00.05\t00:11:22:33:44:55\t0001\t      1/0/3\t00000e10\t00000061\t\r\n" + kEnd);
}

TEST_F(PersistTest, SaveTaskKeepsServingAfterSuccess)
{
    startModule();
    uint8_t msg = 1;
    ASSERT_NE(pal_msgQ_send(updateDynTableQ, &msg, 1, 0, 0), -1);
    EXPECT_EQ(simrun::pumpSave(), 1u);
    EXPECT_EQ(readCfg(), kHeader + kEnd);
    linkByHand(10, 0, 0, 5, kMacA, 1, sim::physicalPort(1, 3), 3600);
    ASSERT_NE(pal_msgQ_send(updateDynTableQ, &msg, 1, 0, 0), -1);
    EXPECT_EQ(simrun::pumpSave(), 1u);
    EXPECT_FALSE(simrun::saveTaskEnded());
    EXPECT_EQ(readCfg().size(), 35u + 67u);
}

TEST_F(PersistTest, SaveWithNullTableOrPathWritesNothing)
{
    startModule();
    EXPECT_EQ(dhcpSnoopSaveDynEntry(nullptr, DHCP_SNOOP_CFG_FILE_PATH), 0u);
    EXPECT_EQ(dhcpSnoopSaveDynEntry(dynamicTable, nullptr), 0u);
    EXPECT_FALSE(cfgExists());
}

TEST_F(PersistTest, SaveWithoutBufferFails1313)
{
    startModule();
    writeCfg(kHeader + goodLine(1, 1) + kEnd);
    sim::failNext("pal_alloc");
    EXPECT_EQ(save(), 1313u);
    EXPECT_EQ(readCfg(), kHeader + goodLine(1, 1) + kEnd);
}

TEST_F(PersistTest, SaveThatCannotOpenFails1312WithTheModulePath)
{
    startModule();
    // A directory where the file should be cannot be opened for writing.
    ASSERT_EQ(mkdir(cfgFile().c_str(), 0700), 0);
    size_t before = sim::outstandingAllocs();
    sim::setDebugFlag(1);
    EXPECT_EQ(save(), 1312u);
    EXPECT_TRUE(hasError("Open file /norvik/usrapp/data/dhcpSnoop.cfg fail"));
    EXPECT_EQ(sim::outstandingAllocs(), before);
}

TEST_F(PersistTest, SaveThatCannotWriteFails1313)
{
    startModule();
    // A file size limit of 0 lets the open truncate but refuses every byte;
    // the text is larger than stdio's buffer so that the single fwrite
    // itself meets the refusal.
    for (uint32_t i = 0; i < 100; i++)
        linkByHand(10, 2, 0, (uint8_t)i, kMacA, 1, sim::physicalPort(1, 1), 100);
    size_t before = sim::outstandingAllocs();
    sim::setDebugFlag(1);
    struct rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    struct rlimit none = old;
    none.rlim_cur = 0;
    void (*oldHandler)(int) = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
    uint32_t rv = save();
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, oldHandler);
    EXPECT_EQ(rv, 1313u);
    EXPECT_TRUE(hasError("Write file /norvik/usrapp/data/dhcpSnoop.cfg fail"));
    EXPECT_FALSE(sim::hasMessage("Save dyn entry successfully."));
    EXPECT_EQ(sim::outstandingAllocs(), before);
}

TEST_F(PersistTest, WriterAsksForItsBufferUnderTheModuleTag)
{
    startModule();
    sim::clearEvents();
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(sim::events(), (std::vector<std::string>{"alloc 34371 dhcpSnoop", "free 34371 dhcpSnoop"}));
}

// ==== parsers =======================================================================

TEST_F(PersistTest, HexStrtoIntAcceptsBothCasesAndStopsAtBlank)
{
    uint32_t v = 7;
    EXPECT_EQ(dhcpSnoopHexStrtoInt("DeadBEEF", &v), 1);
    EXPECT_EQ(v, 0xdeadbeefu);
    EXPECT_EQ(dhcpSnoopHexStrtoInt("1f 2", &v), 1);
    EXPECT_EQ(v, 0x1fu);
    EXPECT_EQ(dhcpSnoopHexStrtoInt("", &v), 1);
    EXPECT_EQ(v, 0u);
    // No overflow check: the high digits fall off.
    EXPECT_EQ(dhcpSnoopHexStrtoInt("123456789", &v), 1);
    EXPECT_EQ(v, 0x23456789u);
}

TEST_F(PersistTest, HexStrtoIntRefusesOtherCharactersAndNulls)
{
    sim::setDebugFlag(1);
    uint32_t v = 7;
    EXPECT_EQ(dhcpSnoopHexStrtoInt("12g4", &v), 0);
    EXPECT_EQ(v, 7u);
    EXPECT_TRUE(hasError("illegal char"));
    EXPECT_EQ(dhcpSnoopHexStrtoInt(nullptr, &v), 0);
    EXPECT_EQ(dhcpSnoopHexStrtoInt("12", nullptr), 0);
}

TEST_F(PersistTest, HexStrtoIntCountsTheLengthInEightBits)
{
    // 257 characters count as 1: only the first is read.
    std::string text = "5" + std::string(256, 'z');
    uint32_t v = 0;
    EXPECT_EQ(dhcpSnoopHexStrtoInt(text.c_str(), &v), 1);
    EXPECT_EQ(v, 5u);
}

TEST_F(PersistTest, VlanParserNeedsFourCharactersAndRange1To4094)
{
    sim::setDebugFlag(1);
    uint16_t vlan = 0;
    EXPECT_EQ(dhcpSnoopParseVlanStr("0FFE", &vlan), 1);
    EXPECT_EQ(vlan, 4094u);
    EXPECT_TRUE(sim::hasMessage("vlan = 0ffe"));
    EXPECT_EQ(dhcpSnoopParseVlanStr("0001", &vlan), 1);
    EXPECT_EQ(vlan, 1u);

    EXPECT_EQ(dhcpSnoopParseVlanStr("0FFF", &vlan), 0);
    EXPECT_EQ(vlan, 4095u);  // stored before the check
    EXPECT_TRUE(hasError("wrong valn = 4095"));
    EXPECT_EQ(dhcpSnoopParseVlanStr("0000", &vlan), 0);
    EXPECT_TRUE(hasError("wrong valn = 0"));
    EXPECT_EQ(dhcpSnoopParseVlanStr("001", &vlan), 0);
    EXPECT_TRUE(hasError("len error len = 3"));
    EXPECT_EQ(dhcpSnoopParseVlanStr("00x1", &vlan), 0);
    EXPECT_EQ(dhcpSnoopParseVlanStr(nullptr, &vlan), 0);
    EXPECT_EQ(dhcpSnoopParseVlanStr("0001", nullptr), 0);
}

TEST_F(PersistTest, ChksumParserNeedsEightHexCharacters)
{
    sim::setDebugFlag(1);
    uint32_t v = 0;
    EXPECT_EQ(dhcpSnoopParseChksumStr("000000A4", &v), 1);
    EXPECT_EQ(v, 0xa4u);
    EXPECT_TRUE(sim::hasMessage("chkSum = 000000a4"));
    EXPECT_EQ(dhcpSnoopParseChksumStr("0000a4", &v), 0);
    EXPECT_TRUE(hasError("len error len = 6"));
    EXPECT_EQ(dhcpSnoopParseChksumStr("0000-0a4", &v), 0);
    EXPECT_EQ(dhcpSnoopParseChksumStr(nullptr, &v), 0);
    EXPECT_EQ(dhcpSnoopParseChksumStr("000000a4", nullptr), 0);
}

TEST_F(PersistTest, PortParserReadsBackWhatTheWriterRenders)
{
    sim::setDebugFlag(1);
    up port = 0;
    EXPECT_EQ(dhcpSnoopParsePortStr("     1/0/12", &port), 1);
    EXPECT_EQ(port, sim::physicalPort(1, 12));
    EXPECT_TRUE(sim::hasMessage("port =      1/0/12"));
    EXPECT_EQ(dhcpSnoopParsePortStr("        po3", &port), 1);
    EXPECT_EQ(port, sim::portChannel(3));
    for (up p : {sim::physicalPort(1, 1), sim::physicalPort(1, 28), sim::portChannel(8)}) {
        up back = 0;
        EXPECT_EQ(dhcpSnoopParsePortStr(pad11(sim::portName(p)).c_str(), &back), 1);
        EXPECT_EQ(back, p);
    }
}

TEST_F(PersistTest, PortParserNeedsElevenCharactersButNotAKnownName)
{
    sim::setDebugFlag(1);
    up port = 0;
    EXPECT_EQ(dhcpSnoopParsePortStr("1/0/12", &port), 0);
    EXPECT_TRUE(hasError("len error len = 6"));
    // usStr2Up's verdict is not looked at.
    EXPECT_EQ(dhcpSnoopParsePortStr("  nonsense!", &port), 1);
    EXPECT_EQ(port, UP_INVALID);
    EXPECT_EQ(dhcpSnoopParsePortStr(nullptr, &port), 0);
    EXPECT_EQ(dhcpSnoopParsePortStr("      1/0/1", nullptr), 0);
}

// ==== loader: outcomes ==================================================================

TEST_F(PersistTest, NoFileLoadsNothingAndCreatesNone)
{
    startModule();
    EXPECT_EQ(load(), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_FALSE(cfgExists());
}

TEST_F(PersistTest, NullPathIsRefused)
{
    startModule();
    EXPECT_EQ(dhcpSnoopLoadDynEntry(nullptr), 1u);
}

TEST_F(PersistTest, EmptyFileFails1314)
{
    startModule();
    writeCfg("");
    sim::setDebugFlag(1);
    EXPECT_EQ(load(), 1314u);
    EXPECT_TRUE(hasError("length error\n"));
    EXPECT_EQ(readCfg(), "");
}

TEST_F(PersistTest, FirstLine2Fails1315)
{
    startModule();
    const std::string text = "2\r\nTYPE DHCP-SNOOPING\r\nBEGIN\r\n" + goodLine(1, 1) + kEnd;
    writeCfg(text);
    sim::setDebugFlag(1);
    EXPECT_EQ(load(), 1315u);
    EXPECT_TRUE(sim::hasMessage("string:2\r"));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(readCfg(), text);
}

TEST_F(PersistTest, EachHeaderLineIsComparedWhole)
{
    struct Case {
        std::string text;
        std::string logged;
    };
    const std::vector<Case> cases = {
        {"1\r\nTYPE DHCP-SNOOPING \r\nBEGIN\r\n" + kEnd, "string:TYPE DHCP-SNOOPING \r"},
        {"1\r\nTYPE DHCP-SNOOPING\r\nBEGIN\n" + kEnd, "string:BEGIN"},
        {"1\nTYPE DHCP-SNOOPING\r\nBEGIN\r\n" + kEnd, "string:1"},
        {"1\r\nTYPE DHCP-SNOOPING\r\n", "string:"},
        {"1\r\ntype dhcp-snooping\r\nBEGIN\r\n" + kEnd, "string:type dhcp-snooping\r"},
    };
    startModule();
    sim::setDebugFlag(1);
    for (const auto& c : cases) {
        sim::clearLogs();
        writeCfg(c.text);
        EXPECT_EQ(load(), 1315u) << c.logged;
        EXPECT_TRUE(sim::hasMessage(c.logged)) << c.logged;
    }
}

TEST_F(PersistTest, HeaderAndEndOnlyLoadsNothing)
{
    startModule();
    writeCfg(kHeader + kEnd);
    sim::setDebugFlag(1);
    size_t before = sim::outstandingAllocs();
    EXPECT_EQ(load(), 0u);
    EXPECT_TRUE(sim::hasMessage("end successfully.\n"));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(mallocCounter, 0u);
    EXPECT_EQ(sim::outstandingAllocs(), before);
    EXPECT_EQ(readCfg(), kHeader + kEnd);
    EXPECT_EQ(saveRequests(), 0u);
}

TEST_F(PersistTest, HeaderOnlyWithoutEndLoadsNothing)
{
    startModule();
    writeCfg(kHeader);
    EXPECT_EQ(load(), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
}

TEST_F(PersistTest, LoaderReadsItsWholeTextIntoAZeroedBuffer)
{
    startModule();
    writeCfg(kHeader + kEnd);
    sim::setDebugFlag(1);
    sim::clearEvents();
    EXPECT_EQ(load(), 0u);
    EXPECT_EQ(sim::events(), (std::vector<std::string>{"alloc 34371 dhcpSnoop", "free 34371 dhcpSnoop"}));
    EXPECT_TRUE(sim::hasMessage(kHeader + kEnd));
}

TEST_F(PersistTest, MissingEndLoadsEveryLine)
{
    startModule();
    writeCfg(kHeader + goodLine(1, 1) + goodLine(2, 2) + goodLine(3, 3));
    EXPECT_EQ(load(), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 3u);
    for (uint8_t i = 1; i <= 3; i++) {
        sim::Mac mac = {0x00, 0x11, 0x22, 0x33, 0x44, i};
        EXPECT_NE(find(10, 0, 0, i, mac, 1), nullptr) << (int)i;
    }
}

TEST_F(PersistTest, LastLineWithoutLineFeedStillLoads)
{
    startModule();
    std::string last = goodLine(2, 2);
    last.pop_back();  // no LF: the line still measures 66
    writeCfg(kHeader + goodLine(1, 1) + last);
    EXPECT_EQ(load(), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 2u);
}

TEST_F(PersistTest, WrongCheckValueOnTheThirdOfFiveLinesKeepsTheFirstTwo)
{
    startModule();
    std::string third = goodLine(3, 3);
    third.replace(56, 8, check(4));
    const std::string text = kHeader + goodLine(1, 1) + goodLine(2, 2) + third + goodLine(4, 4) + goodLine(5, 5) + kEnd;
    writeCfg(text);
    sim::setDebugFlag(1);
    EXPECT_EQ(load(), 1316u);
    char msg[32];
    snprintf(msg, sizeof msg, "check sum error:%d", 30 + 67 * 4);
    EXPECT_TRUE(hasError(msg));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 2u);
    EXPECT_NE(find(10, 0, 0, 1, {0x00, 0x11, 0x22, 0x33, 0x44, 1}, 1), nullptr);
    EXPECT_NE(find(10, 0, 0, 2, {0x00, 0x11, 0x22, 0x33, 0x44, 2}, 1), nullptr);
    EXPECT_EQ(find(10, 0, 0, 3, {0x00, 0x11, 0x22, 0x33, 0x44, 3}, 1), nullptr);
    EXPECT_EQ(readCfg(), text);
    EXPECT_EQ(saveRequests(), 0u);
}

TEST_F(PersistTest, ExpiredLeaseEndsTheLoad1316)
{
    startModule();
    const std::string text = kHeader + goodLine(1, 1, 1, "00000000") + goodLine(2, 2) + kEnd;
    writeCfg(text);
    sim::setDebugFlag(1);
    EXPECT_EQ(load(), 1316u);
    EXPECT_TRUE(hasError("Entry is expired!"));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(mallocCounter, 0u);  // the element in hand went back
    EXPECT_EQ(readCfg(), text);
}

TEST_F(PersistTest, ExpiredLeaseAfterGoodLinesKeepsThem)
{
    startModule();
    writeCfg(kHeader + goodLine(1, 1) + goodLine(2, 2, 1, "00000000") + goodLine(3, 3) + kEnd);
    EXPECT_EQ(load(), 1316u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

TEST_F(PersistTest, VlanZeroOr4095EndsTheLoad)
{
    startModule();
    sim::setDebugFlag(1);
    for (const char* vlan : {"0000", "0FFF", "0fff"}) {
        sim::clearLogs();
        std::string line = bindLine("0a.00.00.01", "00:11:22:33:44:01", vlan, "1/0/1", "00000e10", check(1));
        writeCfg(kHeader + line + kEnd);
        EXPECT_EQ(load(), 1316u) << vlan;
        EXPECT_TRUE(sim::hasMessage("parse vlan string fail.")) << vlan;
        EXPECT_TRUE(hasError("Parse file error!")) << vlan;
    }
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(mallocCounter, 0u);
}

TEST_F(PersistTest, UpperCaseHexIsAcceptedEverywhere)
{
    startModule();
    const std::string line = bindLine("0A.0B.0C.FE", "AA:BB:CC:DD:EE:0F", "0FFE", "1/0/1", "00000E1F", "00000061");
    writeCfg(kHeader + line + kEnd);
    EXPECT_EQ(load(), 0u);
    DhcpSnoopElement* e = find(10, 11, 12, 254, {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0x0f}, 4094);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->ttl, 0xe1fu);
    EXPECT_EQ(e->up, sim::physicalPort(1, 1));
}

TEST_F(PersistTest, UpperCaseCheckValueMatchesTheRunningLength)
{
    startModule();
    // Line 2's check value a4 written as A4.
    writeCfg(kHeader + goodLine(1, 1) + bindLine("0a.00.00.02", "00:11:22:33:44:02", "0001", "1/0/1", "00000e10", "000000A4") +
             kEnd);
    EXPECT_EQ(load(), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 2u);
}

TEST_F(PersistTest, BindingOfAnotherUnitIsLeftOutAndTheFileRewritten)
{
    sim::setUnits({1, 2});
    startModule();
    const std::string other = bindLine("0a.00.00.02", "00:11:22:33:44:02", "0001", "2/0/5", "00000e10", check(2));
    writeCfg(kHeader + goodLine(1, 1) + other + goodLine(3, 3) + kEnd);
    sim::setDebugFlag(1);
    EXPECT_EQ(load(), 0u);
    expectedHeldElements = 1;  // the left-out line keeps its element
    EXPECT_TRUE(sim::hasMessage("update flash."));
    EXPECT_TRUE(sim::hasMessage("Execute dhcpSnoopSaveDynEntryTask."));
    EXPECT_TRUE(sim::hasMessage("Save the binding entries of dynamic table to the file system."));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 2u);
    // Rewritten at once, not through the save task.
    EXPECT_EQ(saveRequests(), 0u);
    EXPECT_EQ(readCfg(), kHeader + goodLine(1, 1) + goodLine(2, 3) + kEnd);
}

TEST_F(PersistTest, OnlyLeftOutBindingsLeaveAnEmptyFile)
{
    sim::setUnits({1, 2});
    startModule();
    // Another unit, a port channel, a port this unit does not have.
    writeCfg(kHeader + bindLine("0a.00.00.02", "00:11:22:33:44:02", "0001", "2/0/5", "00000e10", check(1)) +
             bindLine("0a.00.00.03", "00:11:22:33:44:03", "0001", "po1", "00000e10", check(2)) +
             bindLine("0a.00.00.04", "00:11:22:33:44:04", "0001", "1/0/29", "00000e10", check(3)) + kEnd);
    sim::setDebugFlag(1);
    EXPECT_EQ(load(), 0u);
    expectedHeldElements = 3;
    EXPECT_EQ(sim::countMessage("update flash."), 3u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(readCfg(), kHeader + kEnd);
}

TEST_F(PersistTest, FailedRewriteAfterTheLoadIsReportedButTheLoadSucceeds)
{
    sim::setUnits({1, 2});
    startModule();
    writeCfg(kHeader + bindLine("0a.00.00.02", "00:11:22:33:44:02", "0001", "2/0/5", "00000e10", check(1)) + kEnd);
    sim::setDebugFlag(1);
    // The loader's buffer comes, the writer's does not.
    sim::failNext("pal_alloc", 1, 1, 1);
    EXPECT_EQ(load(), 0u);
    expectedHeldElements = 1;
    EXPECT_TRUE(hasError("E - 1313 call dhcpSnoopSaveDynEntry(dynamicTable, DHCP_SNOOP_CFG_FILE_PATH) failed."));
    EXPECT_FALSE(sim::hasMessage("Save the binding entries of dynamic table to the file system."));
}

TEST_F(PersistTest, EmptyPoolFails4)
{
    startModule();
    writeCfg(kHeader + goodLine(1, 1) + kEnd);
    std::vector<DhcpSnoopElement*> held;
    while (DhcpSnoopElement* e = dhcpSnoopGetMem())
        held.push_back(e);
    ASSERT_EQ(held.size(), DHCP_SNOOP_POOL_SIZE);
    sim::setDebugFlag(1);
    size_t before = sim::outstandingAllocs();
    EXPECT_EQ(load(), 4u);
    EXPECT_TRUE(hasError("no memory to load dynamic entry."));
    EXPECT_EQ(sim::outstandingAllocs(), before);
    for (DhcpSnoopElement* e : held)
        dhcpSnoopFreeMem(e);
}

TEST_F(PersistTest, NoBufferFails1314)
{
    startModule();
    writeCfg(kHeader + kEnd);
    sim::setDebugFlag(1);
    sim::failNext("pal_alloc");
    EXPECT_EQ(load(), 1314u);
    EXPECT_TRUE(hasError("malloc fail\n"));
}

TEST_F(PersistTest, FileThatCannotBeOpenedFails1312)
{
    startModule();
    writeCfg(kHeader + kEnd);
    // No descriptor left for the open (file modes do not stop a privileged
    // user); the existence test still succeeds.
    int lowest = dup(0);
    ASSERT_GE(lowest, 0);
    close(lowest);
    struct rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    struct rlimit tight = old;
    tight.rlim_cur = (rlim_t)lowest;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    sim::setDebugFlag(1);
    uint32_t rv = load();
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(rv, 1312u);
    EXPECT_TRUE(hasError("Open file /norvik/usrapp/data/dhcpSnoop.cfg fail"));
}

TEST_F(PersistTest, DirectoryInPlaceOfTheFileReadsNothing)
{
    startModule();
    ASSERT_EQ(mkdir(cfgFile().c_str(), 0700), 0);
    EXPECT_EQ(load(), 1314u);
}

TEST_F(PersistTest, LoadDuringStartUpQueuesNoSave)
{
    writeCfg(kHeader + goodLine(1, 1) + goodLine(2, 2) + kEnd);
    startModule();
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 2u);
    EXPECT_EQ(saveRequests(), 0u);
    EXPECT_EQ(upMsgCnt, 0u);
    EXPECT_EQ(initFlag, 0u);
}

TEST_F(PersistTest, FailedLoadAtStartUpIsNoStartUpFailure)
{
    writeCfg("");
    ASSERT_EQ(dhcpSnoopInit(), 0u);
    simrun::startTasks();
    ASSERT_EQ(sim::syslog().size(), 1u);
    EXPECT_EQ(sim::syslog()[0].code, DHCP_SNOOP_LOG_LOAD_FAIL);
    EXPECT_EQ(sim::syslog()[0].code, 0x4C200003u);
    for (uintptr_t a : sim::syslog()[0].args)
        EXPECT_EQ(a, 0u);
    EXPECT_EQ(initFlag, 0u);
}

TEST_F(PersistTest, GoodLoadAtStartUpLogsTheSuccessCode)
{
    writeCfg(kHeader + kEnd);
    ASSERT_EQ(dhcpSnoopInit(), 0u);
    simrun::startTasks();
    ASSERT_EQ(sim::syslog().size(), 1u);
    EXPECT_EQ(sim::syslog()[0].code, DHCP_SNOOP_LOG_LOAD_OK);
}

// ==== loader: bad lines ====================================================================

struct BadLine {
    const char* name;
    std::string line;      // the second line of the file (the first is good)
    std::string message;   // debug line naming the failing step
    std::string error;     // error line of the failing parser, "" for none
};

TEST_F(PersistTest, BadLinesEndTheLoad1316)
{
    auto with = [](size_t at, const std::string& what) {
        std::string l = goodLine(2, 2);
        l.replace(at, what.size(), what);
        return l;
    };
    // Five TABs and no CR behind the last: five columns.
    std::string fiveColumns = with(11, "x");
    fiveColumns[65] = '\t';
    const std::vector<BadLine> cases = {
        {"short line", goodLine(2, 2).substr(0, 66 - 1) + "\n", "parse file error, length error.", ""},
        {"long line", goodLine(2, 2).substr(0, 65) + "x\r\n", "parse file error, length error.", ""},
        {"five columns", fiveColumns, "parse file error.", ""},
        {"ip dot at 2", with(0, "0.a00.00.02"), "parse IP string fail.", "Dot in the wrong place"},
        {"ip over size", with(0, "0a000.00.02"), "parse IP string fail.", "over size or too many dot"},
        {"ip illegal", with(0, "0a.0g.00.02"), "parse IP string fail.", "illegal char."},
        {"ip column short", with(0, "0a.0.00.02\t0"), "parse IP string fail.", "len error len = 10"},
        {"mac dot", with(12, "00:11:22:33:4:402"), "parse MAC string fail.", "Dot in the wrong place"},
        {"mac dash", with(12, "00-11"), "parse MAC string fail.", "illegal char."},
        {"mac over size", with(12, "00:11222:33:44:02"), "parse MAC string fail.", "over size or too many dot"},
        {"vlan illegal", with(30, "00x1"), "parse vlan string fail.", "illegal char"},
        {"vlan 4095", with(30, "0fff"), "parse vlan string fail.", "wrong valn = 4095"},
        {"port column short", with(35, "\t"), "parse port string fail.", "len error len = 10"},
        {"lease illegal", with(47, "0000e1z0"), "parse lease string fail.", "illegal char"},
        {"check illegal", with(56, "0000_0a4"), "parse check sum string fail.", "illegal char"},
    };
    startModule();
    sim::setDebugFlag(1);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        sim::clearLogs();
        const std::string text = kHeader + goodLine(1, 1) + c.line + goodLine(3, 3) + kEnd;
        writeCfg(text);
        EXPECT_EQ(load(), 1316u);
        EXPECT_TRUE(sim::hasMessage(c.message));
        if (!c.error.empty()) {
            EXPECT_TRUE(hasError(c.error));
        }
        EXPECT_TRUE(hasError("Parse file error!"));
        EXPECT_EQ(readCfg(), text);
    }
}

TEST_F(PersistTest, BadLineGivesItsElementBack)
{
    startModule();
    writeCfg(kHeader + goodLine(1, 1).substr(0, 40) + "\r\n" + kEnd);
    EXPECT_EQ(load(), 1316u);
    EXPECT_EQ(mallocCounter, 0u);
    EXPECT_EQ(freeListCount(), DHCP_SNOOP_POOL_SIZE);
}

TEST_F(PersistTest, BlankInAnAddressEndsTheFieldEarly)
{
    startModule();
    // The bytes read so far are kept, the rest stay zero.
    writeCfg(kHeader + bindLine("0a.01 00.02", "00:11:22 33:44:02", "0001", "1/0/1", "00000e10", check(1)) + kEnd);
    EXPECT_EQ(load(), 0u);
    EXPECT_NE(find(10, 0, 0, 0, {0x00, 0x11, 0x00, 0x00, 0x00, 0x00}, 1), nullptr);
}

TEST_F(PersistTest, LastAddressByteIsNotRangeChecked)
{
    startModule();
    // Eleven hex digits and no dot: the accumulator, cut to a byte, is the
    // last byte.
    writeCfg(kHeader + bindLine("0a000000123", "00:11:22:33:44:02", "0001", "1/0/1", "00000e10", check(1)) + kEnd);
    EXPECT_EQ(load(), 0u);
    EXPECT_NE(find(0, 0, 0, 0x23, {0x00, 0x11, 0x22, 0x33, 0x44, 0x02}, 1), nullptr);
}

TEST_F(PersistTest, NulBytesInTheFileEndTheText)
{
    startModule();
    std::string text = kHeader + goodLine(1, 1) + std::string(1, '\0') + goodLine(2, 2).substr(1) + kEnd;
    writeCfg(text);
    // The running length points at the NUL: no further line.
    EXPECT_EQ(load(), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(readCfg(), text);
}

TEST_F(PersistTest, NulInsideALineShortensIt)
{
    startModule();
    std::string line = goodLine(1, 1);
    line[20] = '\0';
    writeCfg(kHeader + line + kEnd);
    EXPECT_EQ(load(), 1316u);
}

TEST_F(PersistTest, BlankLinesShiftTheNextLineAndItsCheckFails)
{
    startModule();
    // strtok's rule skips the empty line, so the line is read one byte on
    // from where the running length says.
    writeCfg(kHeader + "\n" + goodLine(1, 1) + kEnd);
    sim::setDebugFlag(1);
    EXPECT_EQ(load(), 0u);
    // The running length (30 + 67) now points into the line's own last
    // bytes, where nothing is left: the load ends there.
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_TRUE(sim::hasMessage("totalLen = 97"));
}

TEST_F(PersistTest, FileLargerThanTheBufferIsReadUpToItsSize)
{
    startModule();
    // 600 good lines: only what fits is read; line 513 is cut and refused.
    std::string text = kHeader;
    for (uint32_t k = 1; k <= 600; k++) {
        char ip[16];
        snprintf(ip, sizeof ip, "0a.%02x.%02x.%02x", (k >> 16) & 0xFF, (k >> 8) & 0xFF, k & 0xFF);
        text += bindLine(ip, "00:11:22:33:44:55", "0001", "1/0/1", "00000e10", check(k));
    }
    text += kEnd;
    writeCfg(text);
    EXPECT_EQ(load(), 1316u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 512u);
    EXPECT_EQ(readCfg(), text);
}

TEST_F(PersistTest, GarbageOfTheRightShapeIsRefused)
{
    startModule();
    std::string line(66, 'x');
    for (size_t at : {11u, 29u, 34u, 46u, 55u, 64u})
        line[at] = '\t';
    line[65] = '\r';
    writeCfg(kHeader + line + "\n" + kEnd);
    EXPECT_EQ(load(), 1316u);
    std::string tabs(66, '\t');
    writeCfg(kHeader + tabs + "\n" + kEnd);
    EXPECT_EQ(load(), 1316u);
    EXPECT_EQ(mallocCounter, 0u);
}

TEST_F(PersistTest, SuspendedTableChangesDoNotCostAnElement)
{
    startModule();
    sim::setQAddStatus(0);
    writeCfg(kHeader + goodLine(1, 1) + kEnd);
    EXPECT_EQ(load(), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(mallocCounter, 0u);
}

// ==== round trip ============================================================================

// Bindings filed through the tables survive a restart. (Filed with AddNew
// here; the same trip driven by DHCP frames comes with the policy.)
TEST_F(PersistTest, BindingsSurviveARestart)
{
    startModule();
    struct B {
        uint8_t ip[4];
        sim::Mac mac;
        uint16_t vlan;
        up port;
        uint32_t ttl;
    };
    const std::vector<B> bindings = {
        {{10, 0, 0, 5}, kMacA, 1, sim::physicalPort(1, 3), 3600},
        {{10, 0, 1, 133}, kMacB, 1, sim::physicalPort(1, 7), 120},
        {{192, 168, 7, 9}, {0x02, 0, 0, 0, 0, 9}, 4094, sim::physicalPort(1, 28), DHCP_SNOOP_TTL_FOREVER},
    };
    for (const auto& b : bindings)
        ASSERT_NE(fileBinding(b.ip[0], b.ip[1], b.ip[2], b.ip[3], b.mac, b.vlan, b.port, b.ttl), nullptr);
    // Let the leases run a little and the save task write the file.
    simrun::advance(3000);
    simrun::runUntilIdle();
    std::vector<uint32_t> ttls;
    for (const auto& b : bindings) {
        DhcpSnoopElement* e = find(b.ip[0], b.ip[1], b.ip[2], b.ip[3], b.mac, b.vlan);
        ASSERT_NE(e, nullptr);
        ttls.push_back(e->ttl);
    }
    ASSERT_EQ(dhcpSnoopSaveDynEntryTaskStep(), 0u);
    ASSERT_EQ(readCfg().size(), 35u + 3u * 67u);

    // Start afresh on the same file.
    dhcpSnoopResetState();
    sim::reset();
    sim::setFileRoot(tmpDir);
    ASSERT_EQ(dhcpSnoopInit(), 0u);
    simrun::startTasks();
    EXPECT_EQ(saveRequests(), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), bindings.size());
    ASSERT_EQ(sim::qtable().size(), bindings.size());
    for (size_t i = 0; i < bindings.size(); i++) {
        const B& b = bindings[i];
        DhcpSnoopElement* e = find(b.ip[0], b.ip[1], b.ip[2], b.ip[3], b.mac, b.vlan);
        ASSERT_NE(e, nullptr) << i;
        EXPECT_EQ(e->up, b.port);
        EXPECT_EQ(e->ttl, ttls[i]);
        bool inQTable = false;
        for (const auto& q : sim::qtable()) {
            if (memcmp(q.ip, b.ip, 4) == 0 && memcmp(q.mac, b.mac.data(), 6) == 0 && q.vlan == b.vlan &&
                q.port == b.port)
                inQTable = true;
        }
        EXPECT_TRUE(inQTable) << i;
    }
    ASSERT_EQ(sim::syslog().size(), 1u);
    EXPECT_EQ(sim::syslog()[0].code, DHCP_SNOOP_LOG_LOAD_OK);
}


// ---- failures during the load, the save task's loop ------------------------------------------

TEST_F(PersistTest, FailingInsertEndsTheLoadWithItsCode)
{
    startModule();
    const std::string text = kHeader + goodLine(1, 1) + goodLine(2, 2) + goodLine(3, 3) + kEnd;
    writeCfg(text);
    // The second binding's source-guard entry cannot be made.
    sim::failNext("swQTableAdd", 77, 1, 1);
    sim::setDebugFlag(1);
    EXPECT_EQ(load(), 77u);
    EXPECT_TRUE(hasError("add dynamic entry fail!"));
    // Filed before the failure, both stay; the third is not read.
    EXPECT_NE(find(10, 0, 0, 1, {0x00, 0x11, 0x22, 0x33, 0x44, 0x01}, 1), nullptr);
    EXPECT_NE(find(10, 0, 0, 2, {0x00, 0x11, 0x22, 0x33, 0x44, 0x02}, 1), nullptr);
    EXPECT_EQ(find(10, 0, 0, 3, {0x00, 0x11, 0x22, 0x33, 0x44, 0x03}, 1), nullptr);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 2u);
    EXPECT_EQ(readCfg(), text);
}

TEST_F(PersistTest, ErrorAfterALeftOutLineEndsTheLoadWithoutRewritingTheFile)
{
    sim::setUnits({1, 2});
    startModule();
    const std::string other = bindLine("0a.00.00.02", "00:11:22:33:44:02", "0001", "2/0/5", "00000e10", check(2));
    const std::string bad = bindLine("0a.00.00.03", "00:11:22:33:44:03", "0001", "1/0/3", "00000e10", check(4));
    const std::string text = kHeader + goodLine(1, 1) + other + bad + kEnd;
    writeCfg(text);
    sim::setDebugFlag(1);
    EXPECT_EQ(load(), 1316u);
    expectedHeldElements = 1;  // the left-out line's
    EXPECT_TRUE(sim::hasMessage("update flash."));
    EXPECT_TRUE(hasError("check sum error:" + std::to_string(30 + 67 * 4)));
    EXPECT_FALSE(sim::hasMessage("Execute dhcpSnoopSaveDynEntryTask."));
    EXPECT_EQ(readCfg(), text);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(saveRequests(), 0u);
}

TEST_F(PersistTest, LeaseColumnOfOtherThanEightCharactersEndsTheLoad)
{
    startModule();
    // Nine and seven: the line keeps its 66 characters.
    const std::string line = bindLine("0a.00.00.01", "00:11:22:33:44:01", "0001", "1/0/1", "000000e10", "0000061");
    ASSERT_EQ(line.size(), 67u);
    writeCfg(kHeader + line + kEnd);
    sim::setDebugFlag(1);
    EXPECT_EQ(load(), 1316u);
    EXPECT_TRUE(hasError("len error len = 9"));
    EXPECT_TRUE(sim::hasMessage("parse lease string fail."));
    EXPECT_TRUE(hasError("Parse file error!"));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
}

TEST_F(PersistTest, SaveTaskRetriesAFailedReceive)
{
    startModule();
    ASSERT_NE(fileBinding(10, 0, 0, 1, kMacA, 1, sim::physicalPort(1, 1), 3600), nullptr);
    PalMsgQ q = sim::queueByName(DHCP_SNOOP_SAVE_QUEUE_NAME);
    ASSERT_EQ(sim::queueDepth(q), 1u);
    ASSERT_FALSE(cfgExists());
    sim::failNext("pal_msgQ_receive:" DHCP_SNOOP_SAVE_QUEUE_NAME, 0xFFFFFFFFu, 0, 2);
    // The task body runs until it waits on an empty queue.
    sim::onCall(
        "pal_msgQ_receive:" DHCP_SNOOP_SAVE_QUEUE_NAME,
        [q] {
            if (sim::queueDepth(q) == 0)
                throw sim::TaskStop{};
        },
        0, -1);
    bool looping = false;
    try {
        dhcpSnoopSaveDynEntryTask(nullptr);
    } catch (const sim::TaskStop&) {
        looping = true;
    }
    sim::clearFailures();
    EXPECT_TRUE(looping);
    EXPECT_EQ(sim::lastReceiveWait(q), -1);
    EXPECT_EQ(readCfg().size(), 35u + 67u);
    EXPECT_EQ(upMsgCnt, 0u);
}

// Lines of ports that are no longer valid each keep the element taken for
// them until the module starts again. The file is rewritten without them
// at once, so the next start takes none: the cost is bounded by the lines
// of one file and paid once.
TEST_F(PersistTest, LeftOutLinesHoldTheirElementsOnlyUntilTheNextStart)
{
    startModule();
    ASSERT_NE(fileBinding(10, 0, 0, 3, kMacA, 1, sim::physicalPort(1, 3), 3600), nullptr);
    ASSERT_NE(fileBinding(10, 0, 0, 20, kMacB, 1, sim::physicalPort(1, 20), 3600), nullptr);
    ASSERT_EQ(dhcpSnoopSaveDynEntryTaskStep(), 0u);

    // Start again with port 20 gone.
    auto restart = [this](uint32_t ports) {
        dhcpSnoopResetState();
        sim::reset();
        sim::setFileRoot(tmpDir);
        sim::setPortCount(1, ports);
        sim::setDebugFlag(1);
        ASSERT_EQ(dhcpSnoopInit(), 0u);
        simrun::startTasks();
    };
    restart(8);
    EXPECT_EQ(sim::countMessage("update flash."), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(mallocCounter, 2u);
    EXPECT_EQ(freeListCount(), DHCP_SNOOP_POOL_SIZE - 2u);
    EXPECT_EQ(readCfg().size(), 35u + 67u);

    restart(8);
    EXPECT_EQ(sim::countMessage("update flash."), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(mallocCounter, 1u);
    EXPECT_EQ(freeListCount(), DHCP_SNOOP_POOL_SIZE - 1u);
}

}  // namespace
