// Fuzz target: one trapped frame through the whole module on the simulated
// switch. The first input byte configures the receive port and the VLAN (and
// may announce a second one for option 82: policy, user-defined texts and
// their lengths), the rest is the frame, handed over in a packet-pool buffer of exactly its
// length so that AddressSanitizer sees any read past its end.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz/fuzz_packet.h"
#include "platform/sim/runner.h"
#include "platform/sim/sim.h"
#include "snooping/dhcpSnoopInternal.h"

namespace {

void check(bool ok, const char* what)
{
    if (!ok) {
        fprintf(stderr, "fuzz_packet: %s\n", what);
        abort();
    }
}

// The module's files go to a private directory, made once.
const std::string& fileRoot()
{
    static const std::string root = [] {
        const char* base = getenv("TMPDIR");
        std::string templ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/fuzz-packet-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        check(mkdtemp(buf.data()) != nullptr, "no directory for the module's files");
        return std::string(buf.data());
    }();
    return root;
}

// Elements linked in a table; a chain longer than the pool is a cycle.
uint32_t filedElements()
{
    uint32_t n = 0;
    DhcpSnoopElement** tables[2] = {dynamicTable, requestTable};
    for (DhcpSnoopElement** table : tables) {
        for (uint32_t b = 0; b < DHCP_SNOOP_HASH_SIZE; b++) {
            for (DhcpSnoopElement* e = table[b]; e != nullptr; e = e->next)
                check(++n <= DHCP_SNOOP_POOL_SIZE, "table chain does not end");
        }
    }
    return n;
}

uint32_t freeElements()
{
    uint32_t n = 0;
    for (DhcpSnoopElement* e = tableMemPoolUnused; e != nullptr; e = e->next)
        check(++n <= DHCP_SNOOP_POOL_SIZE, "free list does not end");
    return n;
}

// A NUL-terminated text of len printable bytes (clipped to the record).
void fillText(char* text, size_t room, size_t len, char first)
{
    if (len >= room)
        len = room - 1;
    for (size_t i = 0; i < len; i++)
        text[i] = (char)(first + (char)(i % 20));
    text[len] = '\0';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace fuzzpacket;

    if (size < 1)
        return 0;
    const uint8_t cfgBits = data[0];
    size_t head = 1;
    uint8_t op82Bits = 0;
    if (cfgBits & kOp82Cfg) {
        if (size < 2)
            return 0;
        op82Bits = data[1];
        head = 2;
    }
    const std::vector<uint8_t> frame(data + head, data + size);

    // A fresh switch and module for every input: nothing one frame leaves
    // behind can hide or cause a finding on the next.
    sim::reset();
    dhcpSnoopResetState();
    sim::setFileRoot(fileRoot());
    check(dhcpSnoopInit() == DHCP_SNOOP_OK, "start-up failed");
    simrun::startTasks();

    const up port = (cfgBits & kPortChannel) ? sim::portChannel(1) : sim::physicalPort(1, 1);
    DhcpSnoopPortCfg& cfg = sim::portCfg(port);
    cfg.trust = (cfgBits & kTrust) ? 1 : 0;
    cfg.macVerify = (cfgBits & kMacVerify) ? 1 : 0;
    cfg.op82Enable = (cfgBits & kOption82) ? 1 : 0;
    static const uint8_t policies[4] = {DHCP_SNOOP_OP82_POLICY_KEEP, DHCP_SNOOP_OP82_POLICY_REPLACE,
                                        DHCP_SNOOP_OP82_POLICY_DROP, DHCP_SNOOP_OP82_POLICY_REPLACE};
    cfg.Op82Policy = policies[op82Bits & kPolicyMask];
    cfg.circuitIdFormat = (op82Bits & kUserCircuit) ? 1 : 0;
    cfg.remoteIdFormat = (op82Bits & kUserRemote) ? 1 : 0;
    fillText(cfg.circuitId, sizeof cfg.circuitId, circuitLen(op82Bits), 'c');
    fillText(cfg.remoteId, sizeof cfg.remoteId, remoteLen(op82Bits), 'r');
    sim::setVlanSnooping(kVid, (cfgBits & kVlanEnable) != 0);
    sim::setDebugFlag((cfgBits & kDebug) ? 1 : 0);
    debugLevel = (cfgBits & kDumps) ? 3u : 0u;

    DhcpSnoopMsg msg;
    memset(&msg, 0, sizeof msg);
    msg.type = DHCP_SNOOP_MSG_PACKET;
    msg.packet.ports = sim::portListOf(port);
    msg.packet.frame = sim::newFrameExact(frame);
    msg.packet.frameLen = (uint32_t)frame.size();
    msg.packet.vid = kVid;
    check(msg.packet.frame != nullptr, "no frame buffer");
    check(dhcpSnoopSendMsgToMainQueue(&msg, 0) == DHCP_SNOOP_OK, "queue refused the frame");
    simrun::runUntilIdle();
    // One tick: aging and the counter reset see what the frame left.
    simrun::advance(1000);

    check(sim::framesOutstanding() == 0, "frame buffer not given back");
    check(sim::badReleases() == 0, "frame buffer given back twice");
    check(sim::badFrees() == 0, "bad free");
    const uint32_t filed = filedElements();
    check(mallocCounter == filed, "pool elements neither filed nor free");
    check(freeElements() + filed == DHCP_SNOOP_POOL_SIZE, "free list lost elements");
    return 0;
}
