// Fuzz target: the live platform's switching core (platform/linux) with any
// configuration and any frames: VLAN admission and tags, the DHCP trap and
// its packet pool, the source guard, the FDB, egress and the module's sends,
// offload states, failing interfaces. Input layout in fuzz_live.h. Every
// frame is handed over in a buffer of exactly its length, so that
// AddressSanitizer sees any read past its end, and every transmitted frame
// is read whole. At the end no packet-pool buffer may be held or released
// twice.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cerrno>
#include <string>
#include <vector>

#include "fuzz/fuzz_live.h"
#include "platform/linux/live_internal.h"
#include "snooping/dhcpSnoopInternal.h"

namespace {

using namespace fuzzlive;

void check(bool ok, const char* what)
{
    if (!ok) {
        fprintf(stderr, "fuzz_live: %s\n", what);
        abort();
    }
}

struct Input {
    const uint8_t* p;
    size_t n;
    bool take(size_t k, const uint8_t** out)
    {
        if (n < k)
            return false;
        *out = p;
        p += k;
        n -= k;
        return true;
    }
    bool byte(uint8_t* v)
    {
        const uint8_t* b;
        if (!take(1, &b))
            return false;
        *v = *b;
        return true;
    }
    bool word(uint16_t* v)
    {
        const uint8_t* b;
        if (!take(2, &b))
            return false;
        *v = (uint16_t)((b[0] << 8) | b[1]);
        return true;
    }
};

const uint16_t kVlans[4] = {10, 20, 1, 99};

std::string configText(const uint8_t* c)
{
    std::string t = "[switch]\nmac = \"02:00:00:00:00:fe\"\nsnooping_vlans = [10";
    if (c[0] & kSnoop20)
        t += ", 20";
    t += "]\n";
    t += std::string("ip_filter = ") + ((c[0] & kIpFilter) ? "true" : "false") + "\n";
    t += std::string("arp_defend = ") + ((c[0] & kArpDefend) ? "true" : "false") + "\n";
    t += std::string("drop_ipv6 = ") + ((c[0] & kDropIpv6) ? "true" : "false") + "\n";
    for (int i = 0; i < kPorts; ++i) {
        uint8_t b = c[1 + i];
        uint16_t access = kVlans[(b >> kVlanShift) & 3];
        t += "[[port]]\nname = \"1/0/" + std::to_string(i + 1) + "\"\nvlan = " + std::to_string(access) + "\n";
        t += std::string("trust = ") + ((b & kTrust) ? "true" : "false") + "\ntagged = [";
        const uint16_t tagged[3] = {10, 20, 30};
        bool first = true;
        for (int k = 0; k < 3; ++k) {
            if ((b >> (kTaggedShift + k)) & 1 && tagged[k] != access) {
                t += (first ? "" : ", ") + std::to_string(tagged[k]);
                first = false;
            }
        }
        t += "]\n";
    }
    return t;
}

bool parse(const uint8_t* c, swcfg::SwitchConfig& cfg)
{
    std::string error;
    bool ok = swcfg::parseSwitchConfig(configText(c), "fuzz.toml", cfg, error);
    check(ok, "a generated configuration was refused");
    return ok;
}

uint8_t gFailing = 0;
uint64_t gClockMs = 1000000;
volatile uint32_t gSink = 0;

int transmit(size_t port, const uint8_t* f, size_t len, int32_t tagVid, const live::core::Offload* off)
{
    check(port < (size_t)kPorts, "a send to a port that does not exist");
    check(len >= 12 && len <= live::core::kMaxFrame, "a send of an impossible length");
    check(tagVid < 4096, "a tag outside the VLAN range");
    uint32_t sum = 0;
    for (size_t i = 0; i < len; ++i)
        sum += f[i];
    if (off)
        sum += off->csumStart;
    gSink = gSink + sum;
    if ((gFailing >> port) & 1)
        return port % 2 ? ENOBUFS : EMSGSIZE;
    return 0;
}

void drain(uint8_t flags)
{
    DhcpSnoopMsg m;
    for (;;) {
        memset(&m, 0, sizeof m);
        if (pal_msgQ_receive(dhcpSnoopQueue, &m, sizeof m, 0, nullptr) != (int32_t)sizeof m)
            return;
        check(m.packet.frame != nullptr && m.packet.frameLen >= 14 &&
                  m.packet.frameLen <= live::core::kPoolBufferSize,
              "a trapped frame outside the pool's bounds");
        // What the module sends is a frame it may have rebuilt elsewhere.
        std::vector<uint8_t> copy(m.packet.frame, m.packet.frame + m.packet.frameLen);
        DhcpSnoopPacket p = m.packet;
        p.frame = copy.data();
        p.sendFlags = flags;
        (void)norvikPacketSend(&p);
        dhcpReleasePacketPool(m.packet.frame);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool once = [] {
        dhcpSnoopQueue = pal_msgQ_create(DHCP_SNOOP_QUEUE_NAME, 64, sizeof(DhcpSnoopMsg), 4);
        check(dhcpSnoopQueue > 0, "no queue");
        live::core::setClock([] { return gClockMs; });
        return true;
    }();
    (void)once;
    if (size < kConfigBytes)
        return 0;
    Input in{data + kConfigBytes, size - kConfigBytes};
    swcfg::SwitchConfig cfg;
    if (!parse(data, cfg))
        return 0;
    live::Options opt;
    opt.packetPool = 16;
    opt.fdbSize = 64;
    opt.sourceGuardSize = 16;
    uint8_t limit = data[0] >> kLimitShift;
    opt.fdbPortLimit = limit ? 1u << limit : 0;
    std::string error;
    gFailing = 0;
    gClockMs = 1000000;
    check(live::core::setUp(cfg, opt, transmit, error), "set-up refused");

    uint8_t op;
    while (in.byte(&op)) {
        switch (op & 7) {
        case kOpFrame: {
            size_t port = (size_t)(op >> kOpPortShift) % kPorts;
            uint8_t meta;
            uint16_t tci = 0, len = 0;
            if (!in.byte(&meta))
                break;
            int32_t kernelTci = -1;
            uint16_t tpid = 0x8100;
            switch (meta & 3) {
            case kKernel8021Q:
            case kKernel8021AD:
                if (!in.word(&tci))
                    goto done;
                kernelTci = tci;
                tpid = (meta & 3) == kKernel8021AD ? 0x88A8 : 0x8100;
                break;
            case kKernelPriority:
                kernelTci = 0;
                break;
            default:
                break;
            }
            live::core::Offload off;
            bool haveOff = (meta & kHasOffload) != 0;
            if (haveOff) {
                const uint8_t* o;
                if (!in.take(8, &o))
                    goto done;
                off.needsCsum = (o[0] & 1) != 0;
                off.gsoType = o[1];
                off.gsoSize = (uint16_t)((o[2] << 8) | o[3]);
                off.hdrLen = (uint16_t)((o[4] << 8) | o[5]);
                off.csumStart = o[6];
                off.csumOffset = o[7];
            }
            const uint8_t* f;
            if (!in.word(&len) || !in.take(len, &f))
                goto done;
            std::vector<uint8_t> frame(f, f + len);
            live::core::receive(port, frame.empty() ? nullptr : frame.data(), frame.size(), kernelTci, tpid,
                                haveOff ? &off : nullptr);
            break;
        }
        case kOpDrain: {
            uint8_t flags;
            if (!in.byte(&flags))
                goto done;
            drain(flags);
            break;
        }
        case kOpBind: {
            const uint8_t* b;
            if (!in.take(12, &b))
                goto done;
            SwQTableEntry e;
            memset(&e, 0, sizeof e);
            memcpy(e.ip, b, 4);
            memcpy(e.mac, b + 4, 6);
            e.vlan = kVlans[b[10] & 3];
            e.port = UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, b[11] % kPorts + 1);
            e.source = QTABLE_SOURCE_DHCP_SNOOP;
            (void)swQTableAdd(0, &e);
            break;
        }
        case kOpUnbind: {
            const uint8_t* b;
            if (!in.take(4, &b))
                goto done;
            SwQTableEntry e;
            memset(&e, 0, sizeof e);
            memcpy(e.ip, b, 4);
            e.source = QTABLE_SOURCE_DHCP_SNOOP;
            uint32_t index = 0, found = 0;
            while (swQTableSearchByIpAndSource(&e, &index, &found) == 0 && found) {
                check(swQTableDel(0, index, found) == 0, "a found entry could not be deleted");
                found = 0;
            }
            break;
        }
        case kOpAge: {
            uint8_t tens;
            if (!in.byte(&tens))
                goto done;
            gClockMs += (uint64_t)tens * 10000u;
            live::core::ageFdb();
            break;
        }
        case kOpReload: {
            const uint8_t* c;
            if (!in.take(kConfigBytes, &c))
                goto done;
            swcfg::SwitchConfig next;
            if (parse(c, next))
                check(live::core::reconfigure(next, error), "a reload with the same ports was refused");
            break;
        }
        case kOpFail:
            if (!in.byte(&gFailing))
                goto done;
            break;
        case kOpLookup: {
            const uint8_t* b;
            if (!in.take(7, &b))
                goto done;
            FdbEntry e;
            memset(&e, 0, sizeof e);
            memcpy(e.mac, b, 6);
            e.vlan = kVlans[b[6] & 3];
            if (swFdbGetEntry(&e) == 0)
                check(UP_KIND(e.port) == UP_TYPE_PHYSICAL && UP_PORT(e.port) >= 1 && UP_PORT(e.port) <= kPorts,
                      "the FDB named a port that is not configured");
            break;
        }
        }
    }
done:
    drain(SEND_FLAG_TX | SEND_FLAG_FLOOD);
    check(live::core::poolBuffersInUse() == 0, "a packet-pool buffer is still held");
    check(live::core::badReleases() == 0, "a buffer was released twice or was not the pool's");
    check(live::core::fdbLongestChain() <= 8, "an FDB chain grew past its bound");
    live::core::tearDown();
    return 0;
}
