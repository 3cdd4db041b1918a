#include "support/fixture.h"

#include <stdlib.h>
#include <sys/prctl.h>

#include <filesystem>

uint32_t tableCount(uint32_t tableType)
{
    DhcpSnoopElement **table = tableType == DHCP_SNOOP_ELEMENT_DYNAMIC ? dynamicTable : requestTable;
    if (table == nullptr)
        return 0;
    uint32_t n = 0;
    for (uint32_t b = 0; b < DHCP_SNOOP_HASH_SIZE; b++) {
        for (DhcpSnoopElement *e = table[b]; e != nullptr; e = e->next) {
            if (++n > DHCP_SNOOP_POOL_SIZE) {
                ADD_FAILURE() << "table " << tableType << " chain " << b << " does not end";
                return n;
            }
        }
    }
    return n;
}

uint32_t freeListCount()
{
    uint32_t n = 0;
    for (DhcpSnoopElement *e = tableMemPoolUnused; e != nullptr; e = e->next) {
        if (++n > DHCP_SNOOP_POOL_SIZE) {
            ADD_FAILURE() << "free list does not end";
            return n;
        }
    }
    return n;
}

void SnoopTest::SetUp()
{
    dhcpSnoopResetState();
    sim::reset();
    // Log lines carry the thread name: the module's work runs as "DSTask".
    prctl(PR_SET_NAME, "DSTask");
    const char *base = getenv("TMPDIR");
    std::string templ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/dhcpsnoop-test-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    ASSERT_NE(mkdtemp(buf.data()), nullptr);
    tmpDir = buf.data();
    sim::setFileRoot(tmpDir);
}

void SnoopTest::TearDown()
{
    EXPECT_EQ(sim::framesOutstanding(), 0u) << "frame buffers not given back to the packet pool";
    EXPECT_EQ(sim::badReleases(), 0u) << "frame buffers released twice or unknown";
    EXPECT_EQ(sim::badFrees(), 0u) << "pal_free of memory not handed out";
    if (tableMemPool != nullptr) {
        uint32_t filed = tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC) + tableCount(DHCP_SNOOP_ELEMENT_REQUEST);
        EXPECT_EQ(mallocCounter, filed + expectedHeldElements) << "pool elements leaked";
        EXPECT_EQ(freeListCount() + filed + expectedHeldElements, DHCP_SNOOP_POOL_SIZE)
            << "pool elements neither free nor filed";
    }
    dhcpSnoopResetState();
    sim::reset();
    std::error_code ec;
    if (!tmpDir.empty())
        std::filesystem::remove_all(tmpDir, ec);
}

void SnoopTest::startModule()
{
    ASSERT_EQ(dhcpSnoopInit(), DHCP_SNOOP_OK);
    simrun::startTasks();
    sim::clearLogs();
    sim::clearEvents();
}
