// The main task's whole path for one trapped frame: the packet path posts it,
// the task receives it, validates, rate-checks, parses, applies the policy,
// handles option 82 and transmits, on the counting platform. Reported as
// frames per second (items_per_second).
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "bench/count_platform.h"
#include "snooping/dhcpSnoopInternal.h"
#include "support/frame_builder.h"

namespace {

constexpr uint16_t kVlan = 10;

struct Rig {
    up client = cp::physicalPort(3);
    up server = cp::physicalPort(24);
    PalMsgQ fdbQ = 0;

    explicit Rig(bool option82)
    {
        dhcpSnoopResetState();
        cp::reset();
        cp::setVlanSnooping(kVlan, true);
        cp::portCfg(server).trust = 1;
        cp::portCfg(client).op82Enable = option82 ? 1 : 0;
        cp::portCfg(server).op82Enable = option82 ? 1 : 0;
        ok = dhcpSnoopInit() == 0 && dhcpSnoopGetFdbEntryTaskStart() == 0;
        fdbQ = cp::queueByName(DHCP_SNOOP_FDB_QUEUE_NAME);
    }

    // Posts a frame as the packet path does and runs the task on it.
    void frame(up port, std::vector<uint8_t>& buf, uint32_t len)
    {
        DhcpSnoopMsg msg;
        memset(&msg, 0, sizeof msg);
        msg.type = DHCP_SNOOP_MSG_PACKET;
        msg.packet.ports = cp::portListOf(port);
        msg.packet.frame = buf.data();
        msg.packet.frameLen = len;
        msg.packet.vid = kVlan;
        dhcpSnoopSendMsgToMainQueue(&msg, 0);

        DhcpSnoopMsg rx;
        uint32_t word = 0;
        if (pal_msgQ_receive(dhcpSnoopQueue, &rx, sizeof rx, PAL_WAIT_FOREVER, &word) != -1)
            dhcpSnoopTaskHandleMsg(&rx);
        // The FDB task's queue: its work runs on a task of its own.
        FdbEntry e;
        while (cp::take(fdbQ, &e, sizeof e)) {
        }
    }

    bool ok = false;
};

// Elements linked in a table.
uint32_t tableCountOf(DhcpSnoopElement** table)
{
    uint32_t n = 0;
    for (uint32_t b = 0; b < DHCP_SNOOP_HASH_SIZE; b++)
        for (DhcpSnoopElement* e = table[b]; e != nullptr && n <= DHCP_SNOOP_POOL_SIZE; e = e->next)
            ++n;
    return n;
}

// A frame in a packet-pool-sized buffer.
struct Buf {
    std::vector<uint8_t> bytes;
    uint32_t len;
    explicit Buf(const fb::Frame& f)
    {
        fb::Bytes b = f.build();
        len = (uint32_t)b.size();
        bytes.assign(2048, 0);
        memcpy(bytes.data(), b.data(), b.size());
    }
};

fb::Params params()
{
    fb::Params p;
    p.clientIp = fb::ip(192, 168, 1, 100);
    return p;
}

void check(benchmark::State& state, const Rig& rig, uint64_t frames, uint64_t sentPerFrameTimes2)
{
    const cp::Counters& c = cp::counters();
    if (!rig.ok) {
        state.SkipWithError("start-up failed");
        return;
    }
    if (c.released != frames)
        state.SkipWithError("not every frame went back to the packet pool");
    else if (c.sent * 2 != frames * sentPerFrameTimes2)
        state.SkipWithError("the frames did not all leave the switch");
    state.SetItemsProcessed((int64_t)frames);
}

void discover(benchmark::State& state, bool option82)
{
    Rig rig(option82);
    Buf d(fb::discover(params()));
    for (auto _ : state)
        rig.frame(rig.client, d.bytes, d.len);
    check(state, rig, state.iterations(), 2);
}

void request(benchmark::State& state, bool option82)
{
    Rig rig(option82);
    Buf r(fb::request(params()));
    for (auto _ : state)
        rig.frame(rig.client, r.bytes, r.len);
    check(state, rig, state.iterations(), 2);
    if (tableCountOf(requestTable) != 1)
        state.SkipWithError("the request was not filed");
}

// Each ACK needs the REQUEST it answers: one iteration is the pair.
void requestAck(benchmark::State& state, bool option82)
{
    Rig rig(option82);
    Buf r(fb::request(params()));
    fb::Frame ackFrame = fb::ack(params());
    if (option82)
        ackFrame.relayAgent(fb::RelayAgentInfo().circuitId({0, kVlan, 1, 3}).remoteId({0, 0x0e, 0x5e, 0, 0, 1}));
    Buf a(ackFrame);
    for (auto _ : state) {
        rig.frame(rig.client, r.bytes, r.len);
        rig.frame(rig.server, a.bytes, a.len);
    }
    check(state, rig, state.iterations() * 2, 2);
    if (cp::counters().qtableAdds != (uint64_t)state.iterations())
        state.SkipWithError("the ACKs did not all bind");
}

}  // namespace

static void BM_DiscoverFlooded(benchmark::State& s) { discover(s, false); }
static void BM_DiscoverFloodedOption82(benchmark::State& s) { discover(s, true); }
static void BM_RequestFiled(benchmark::State& s) { request(s, false); }
static void BM_RequestFiledOption82(benchmark::State& s) { request(s, true); }
static void BM_RequestAckBinding(benchmark::State& s) { requestAck(s, false); }
static void BM_RequestAckBindingOption82(benchmark::State& s) { requestAck(s, true); }

BENCHMARK(BM_DiscoverFlooded);
BENCHMARK(BM_DiscoverFloodedOption82);
BENCHMARK(BM_RequestFiled);
BENCHMARK(BM_RequestFiledOption82);
BENCHMARK(BM_RequestAckBinding);
BENCHMARK(BM_RequestAckBindingOption82);

BENCHMARK_MAIN();
