// Writes the seed corpus of the packet fuzz target: one valid frame per
// message type and layout, each behind the configuration byte that makes it
// interesting, named after its scenario. Run by hand; the files are kept in
// fuzz/corpus/packet/.
//   fuzz_gen_corpus <directory>
#include <stdio.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz_packet.h"
#include "support/frame_builder.h"

namespace {

using namespace fuzzpacket;

struct Seed {
    std::string name;
    uint8_t cfg;
    fb::Frame frame;
    int op82 = -1;  // the option-82 byte, when cfg has kOp82Cfg
};

uint8_t op82(uint8_t policy, uint8_t flags, uint8_t lenIndex)
{
    return (uint8_t)(policy | flags | (lenIndex << kTextLenShift));
}

fb::Frame overloaded(uint8_t which)
{
    fb::Options inner;
    inner.requestedIp(fb::ip(192, 168, 1, 100)).serverId(fb::ip(192, 168, 1, 1)).end();
    fb::Frame f = fb::requestInitReboot().overload(which);
    if (which == fb::kOverloadFile || which == fb::kOverloadBoth)
        f.file(inner.encode());
    if (which == fb::kOverloadSname || which == fb::kOverloadBoth)
        f.sname(fb::Options().leaseTime(7200).end().encode());
    return f;
}

std::vector<Seed> seeds()
{
    const uint8_t on = kVlanEnable;
    const uint8_t trusted = kVlanEnable | kTrust;
    fb::RelayAgentInfo info;
    info.circuitId(fb::bytes("1/0/1")).remoteId(fb::bytes("switch-1"));

    std::vector<Seed> s = {
        {"discover", on, fb::discover()},
        {"offer-trusted", trusted, fb::offer()},
        {"offer-untrusted", on, fb::offer()},
        {"request-selecting", on, fb::requestSelecting()},
        {"request-init-reboot", on, fb::requestInitReboot()},
        {"request-renewing", on, fb::requestRenewing()},
        {"request-rebinding", on, fb::requestRebinding()},
        {"decline", on, fb::decline()},
        {"ack-trusted", trusted, fb::ack()},
        {"nak-trusted", trusted, fb::nak()},
        {"release", on, fb::release()},
        {"inform", on, fb::inform()},
        {"bootp-request", on, fb::bootpRequest()},
        {"bootp-reply-trusted", trusted, fb::bootpReply()},
        {"discover-snap", on, fb::discover().snap()},
        {"ack-snap-trusted", trusted, fb::ack().snap()},
        {"discover-vlan-off", 0, fb::discover()},
        {"discover-port-channel", on | kPortChannel, fb::discover()},
        {"discover-mac-verify", on | kMacVerify, fb::discover().chaddr(fb::Mac{0x02, 0, 0, 0, 0, 9})},
        {"discover-option82-insert", on | kOption82, fb::discover()},
        {"discover-option82-replace", on | kOption82 | kOp82Cfg, fb::discover().relayAgent(info), op82(1, 0, 0)},
        {"discover-option82-keep", on | kOption82, fb::discover().relayAgent(info)},
        {"discover-option82-drop", on | kOption82 | kOp82Cfg, fb::discover().relayAgent(info), op82(2, 0, 0)},
        {"request-option82-user-short", on | kOption82 | kOp82Cfg, fb::requestSelecting(),
         op82(0, kUserCircuit | kUserRemote, 2)},
        {"request-option82-user-circuit-long", on | kOption82 | kOp82Cfg, fb::requestSelecting(),
         op82(0, kUserCircuit, 12)},
        {"discover-option82-user-both-long", on | kOption82 | kOp82Cfg, fb::discover(),
         op82(0, kUserCircuit | kUserRemote, 8)},
        {"discover-option82-user-remote-max", on | kOption82 | kOp82Cfg, fb::discover().relayAgent(info),
         op82(1, kUserRemote, 0)},
        {"discover-option82-user-circuit-max", on | kOption82 | kOp82Cfg, fb::discover().relayAgent(info),
         op82(3, kUserCircuit, 15)},
        {"ack-option82-strip-user", trusted | kOption82 | kOp82Cfg, fb::ack().relayAgent(info),
         op82(1, kUserCircuit | kUserRemote, 5)},
        {"discover-snap-option82-replace", on | kOption82 | kOp82Cfg, fb::discover().snap().relayAgent(info),
         op82(1, kUserCircuit, 6)},
        {"offer-option82-strip", trusted | kOption82, fb::offer().relayAgent(info)},
        {"request-overload-file", on, overloaded(fb::kOverloadFile)},
        {"request-overload-sname", on, overloaded(fb::kOverloadSname)},
        {"request-overload-both", on, overloaded(fb::kOverloadBoth)},
        {"discover-no-end", on, fb::discover().noEnd()},
        {"discover-pad", on, fb::discover().pad(3)},
        {"discover-debug-dumps", on | kDebug | kDumps, fb::discover().relayAgent(info)},
        {"ipv6-debug-dumps", on | kDebug | kDumps, fb::discover().etherType(0x86DD)},
        {"discover-ihl6", on, fb::discover().ihl(6)},
    };
    return s;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s <directory>\n", argv[0]);
        return 2;
    }
    for (const Seed& seed : seeds()) {
        fb::Bytes frame = seed.frame.build();
        std::string path = std::string(argv[1]) + "/" + seed.name;
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.put(static_cast<char>(seed.cfg));
        if (seed.cfg & kOp82Cfg)
            out.put(static_cast<char>(seed.op82));
        out.write(reinterpret_cast<const char*>(frame.data()), static_cast<std::streamsize>(frame.size()));
        if (!out) {
            fprintf(stderr, "cannot write %s\n", path.c_str());
            return 1;
        }
        printf("%s (%zu bytes)\n", path.c_str(), frame.size() + 1);
    }
    return 0;
}
