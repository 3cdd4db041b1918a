// The texts and sums the module composes by hand on its hot paths: each must
// be exactly what the C library call it replaces gives.
#include <cstdio>
#include <string>
#include <vector>

#include "support/fixture.h"

namespace {

class TextTest : public SnoopTest {};

TEST_F(TextTest, BindingLineIsSnprintfsText)
{
    struct Case {
        uint8_t ip[4];
        uint8_t mac[6];
        uint32_t vlan;
        const char* port;
        uint32_t ttl;
        uint32_t check;
    };
    const Case cases[] = {
        {{192, 168, 1, 2}, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, 10, "1/0/3", 86400, 0x1234},
        {{0, 0, 0, 0}, {0, 0, 0, 0, 0, 0}, 0, "", 0, 0},
        {{255, 255, 255, 255}, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 0xFFFF, "po15", 0xFFFFFFFFu,
         0xFFFFFFFFu},
        // Wider than the columns: measured, not cut.
        {{10, 0, 0, 1}, {0x02, 0, 0, 0, 0, 1}, 0x12345, "12345678901", 0x1, 0xABCDEF},
        {{10, 0, 0, 1}, {0x02, 0, 0, 0, 0, 1}, 4094, "123456789012345", 0x1, 0xABCDEF},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.port);
        char want[160];
        int wantLen = snprintf(want, sizeof want,
                               "%02x.%02x.%02x.%02x\t%02x:%02x:%02x:%02x:%02x:%02x\t%04x\t%11s\t%08x\t%08x\t\r\n",
                               c.ip[0], c.ip[1], c.ip[2], c.ip[3], c.mac[0], c.mac[1], c.mac[2], c.mac[3],
                               c.mac[4], c.mac[5], (unsigned)c.vlan, c.port, (unsigned)c.ttl,
                               (unsigned)c.check);
        char got[160];
        memset(got, 'x', sizeof got);
        int gotLen = dhcpSnoopBindingLineFormat(got, sizeof got, c.ip, c.mac, c.vlan, c.port, c.ttl,
                                                c.check);
        EXPECT_EQ(gotLen, wantLen);
        EXPECT_STREQ(got, want);
        // A short buffer is cut as snprintf cuts, the length still counted.
        char shortGot[20];
        std::string shortWant(want, sizeof shortGot - 1);
        EXPECT_EQ(dhcpSnoopBindingLineFormat(shortGot, sizeof shortGot, c.ip, c.mac, c.vlan, c.port,
                                             c.ttl, c.check),
                  wantLen);
        EXPECT_EQ(std::string(shortGot), shortWant);
    }
}

TEST_F(TextTest, Sum16IsTheWordByWordSum)
{
    // Every length up to a few blocks, every start offset within a word,
    // all-ones bytes (the largest sums) and a mixed pattern.
    std::vector<uint8_t> bytes(70000);
    for (int pattern = 0; pattern < 2; ++pattern) {
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = pattern == 0 ? 0xFF : (uint8_t)(i * 131u + 7u);
        std::vector<uint32_t> lengths;
        for (uint32_t n = 0; n <= 40; n += 2)
            lengths.push_back(n);
        lengths.push_back(548);
        lengths.push_back(65534);
        for (uint32_t len : lengths) {
            for (size_t offset = 0; offset < 8; ++offset) {
                const uint8_t* p = bytes.data() + offset;
                uint32_t want = 0;
                for (uint32_t i = 0; i + 1 < len; i += 2)
                    want += ((uint32_t)p[i] << 8) | p[i + 1];
                EXPECT_EQ(dhcpSnoopSum16(p, len), want) << "length " << len << " offset " << offset;
            }
        }
    }
}

}  // namespace
