// Writes the seed corpus of the live switching core's fuzz target: one file
// per scenario (configuration and a few operations), frames from the shared
// frame builder. Run by hand; the files are kept in fuzz/corpus/live/.
//   fuzz_gen_live_corpus <directory>
#include <stdio.h>

#include <fstream>
#include <string>
#include <vector>

#include "fuzz/fuzz_live.h"
#include "snooping/dhcpSnoop.h"
#include "support/frame_builder.h"

namespace {

using namespace fuzzlive;
using Bytes = std::vector<uint8_t>;

uint8_t portByte(bool trust, int vlanChoice, uint8_t tagged)
{
    return (uint8_t)((trust ? kTrust : 0) | (vlanChoice << kVlanShift) | (tagged << kTaggedShift));
}

// Ports 1/0/1 trusted (VLAN 10), 1/0/2-3 untrusted (VLAN 10), 1/0/4 a
// trusted trunk (access 1, tagged 10 and 20), 1/0/5 VLAN 20.
Bytes config(uint8_t sw)
{
    return {sw, portByte(true, 0, 0), portByte(false, 0, 0), portByte(false, 0, 0), portByte(true, 2, 3),
            portByte(false, 1, 0)};
}

struct Seed {
    std::string name;
    Bytes data;

    Seed& frame(int port, const Bytes& f, uint8_t tagMode = kNoKernelTag, uint16_t tci = 0,
                const Bytes& offload = {})
    {
        data.push_back((uint8_t)(kOpFrame | (port << kOpPortShift)));
        data.push_back((uint8_t)(tagMode | (offload.empty() ? 0 : kHasOffload)));
        if (tagMode == kKernel8021Q || tagMode == kKernel8021AD) {
            data.push_back((uint8_t)(tci >> 8));
            data.push_back((uint8_t)tci);
        }
        data.insert(data.end(), offload.begin(), offload.end());
        data.push_back((uint8_t)(f.size() >> 8));
        data.push_back((uint8_t)f.size());
        data.insert(data.end(), f.begin(), f.end());
        return *this;
    }
    Seed& op(uint8_t o, const Bytes& operands = {})
    {
        data.push_back(o);
        data.insert(data.end(), operands.begin(), operands.end());
        return *this;
    }
};

fb::Mac mac(uint8_t n) { return {0x02, 0x00, 0x00, 0x00, 0x00, n}; }
const fb::Mac kBroadcast = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

Bytes plainIp(uint8_t n, const fb::Mac& dst = kBroadcast)
{
    return fb::Frame().srcMac(mac(n)).dstMac(dst).srcIp(fb::ip(198, 18, 0, n)).dstPort(53).build();
}

Bytes bind(uint8_t n, uint8_t port)
{
    return {198, 18, 0, n, 0x02, 0x00, 0x00, 0x00, 0x00, n, 0 /* VLAN 10 */, port};
}

std::vector<Seed> seeds()
{
    const uint8_t guards = kIpFilter | kArpDefend;
    const Bytes tso = {1, 1, 0x05, 0xa8, 0, 66, 34, 16};
    const Bytes udpCsum = {1, 0, 0, 0, 0, 0, 34, 6};
    std::vector<Seed> s;
    s.push_back(Seed{"switching", config(0)});
    s.back().frame(0, plainIp(1)).frame(3, fb::addVlan(plainIp(4, mac(1)), 10)).frame(0, plainIp(1, mac(4)))
        .op(kOpLookup, {0x02, 0, 0, 0, 0, 4, 0});
    s.push_back(Seed{"dhcp-trap-and-send", config(0)});
    s.back().frame(1, fb::discover().srcMac(mac(2)).build()).frame(0, fb::offer().srcMac(mac(1)).build())
        .op(kOpDrain, {SEND_FLAG_TX | SEND_FLAG_FLOOD}).frame(1, fb::request().srcMac(mac(2)).build())
        .op(kOpDrain, {SEND_FLAG_TX | SEND_FLAG_BY_FDB});
    s.push_back(Seed{"source-guard", config(guards | kDropIpv6)});
    s.back().op(kOpBind, bind(2, 1)).frame(1, plainIp(2)).frame(1, plainIp(9))
        .frame(1, fb::arp(fb::kArpRequest, mac(2), fb::ip(198, 18, 0, 2), fb::ip(198, 18, 0, 1)))
        .frame(1, fb::arp(fb::kArpRequest, mac(2), 0, fb::ip(198, 18, 0, 2)))
        .frame(1, fb::Frame().etherType(fb::kEtherTypeIpv6).srcMac(mac(2)).build())
        .op(kOpUnbind, {198, 18, 0, 2}).frame(1, plainIp(2));
    s.push_back(Seed{"snap", config(guards)});
    s.back().frame(1, fb::snapOf(plainIp(3))).frame(1, fb::discover().snap().srcMac(mac(3)).build())
        .frame(1, fb::snapOf(fb::arp(fb::kArpReply, mac(3), fb::ip(198, 18, 0, 3), fb::ip(198, 18, 0, 1)), 0xf8));
    s.push_back(Seed{"stacked-tags", config(guards)});
    s.back().frame(3, fb::addVlan(fb::discover().build(), 0), kKernel8021Q, 10)
        .frame(3, fb::addVlan(fb::addVlan(plainIp(4), 20), 10))
        .frame(1, fb::addVlan(fb::addVlan(plainIp(2), 0), 0))
        .frame(1, fb::addVlan(plainIp(2), 20), kKernelPriority)
        .frame(3, plainIp(4), kKernel8021AD, 10)
        .frame(3, fb::addVlan(plainIp(4), 10, 0, fb::kTpid8021AD));
    s.push_back(Seed{"offloads", config(0)});
    s.back().frame(0, fb::Frame().srcMac(mac(1)).protocol(6).padTo(400).build(), kNoKernelTag, 0, tso)
        .frame(3, fb::addVlan(fb::Frame().srcMac(mac(4)).protocol(6).padTo(400).build(), 10), kNoKernelTag, 0,
               {1, 1, 0x05, 0xa8, 0, 70, 38, 16})
        .frame(1, fb::discover().srcMac(mac(2)).build(), kNoKernelTag, 0, udpCsum)
        .frame(1, fb::discover().srcMac(mac(2)).build(), kNoKernelTag, 0, tso)
        .op(kOpDrain, {SEND_FLAG_TX | SEND_FLAG_FLOOD});
    s.push_back(Seed{"fdb-share-and-aging", config((uint8_t)(1 << kLimitShift))});
    s.back().frame(0, plainIp(1)).frame(0, plainIp(5)).frame(0, plainIp(6)).frame(3, fb::addVlan(plainIp(1), 10))
        .op(kOpAge, {31}).frame(0, plainIp(7));
    s.push_back(Seed{"failing-ports-and-reload", config(guards)});
    s.back().op(kOpFail, {0x06}).frame(0, plainIp(1)).frame(1, fb::discover().srcMac(mac(2)).build())
        .op(kOpDrain, {SEND_FLAG_TX | SEND_FLAG_FLOOD}).op(kOpReload, config(kSnoop20))
        .frame(4, plainIp(5)).op(kOpFail, {0});
    s.push_back(Seed{"reserved-and-short", config(0)});
    s.back().frame(0, fb::Frame().dstMac({0x01, 0x80, 0xc2, 0, 0, 0}).build()).frame(0, Bytes(13, 0))
        .frame(0, Bytes()).frame(2, Bytes(16, 0x81));
    return s;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: fuzz_gen_live_corpus DIRECTORY\n");
        return 2;
    }
    for (const Seed& seed : seeds()) {
        std::string path = std::string(argv[1]) + "/" + seed.name;
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(seed.data.data()), static_cast<std::streamsize>(seed.data.size()));
        if (!out) {
            fprintf(stderr, "cannot write %s\n", path.c_str());
            return 1;
        }
    }
    return 0;
}
