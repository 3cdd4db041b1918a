// Input of the live switching core's fuzz target (fuzz_live.cpp), shared
// with its seed generator (gen_live_corpus.cpp).
//
//   byte 0      switch: kIpFilter, kArpDefend, kDropIpv6, kSnoop20, and the
//               FDB share per port in the top three bits (0: none, else 2^n)
//   bytes 1-5   the five ports 1/0/1..1/0/5: kTrust, the access VLAN
//               (bits 1-2: 10, 20, 1, 99), tagged VLANs (bit 3: 10, 4: 20,
//               5: 30; the access VLAN itself never)
//   then records, each an op byte (low three bits the op) and its operands:
//   kOpFrame    port in the op's top bits; a meta byte (bits 0-1: no kernel
//               tag, a kernel 802.1Q tag, a kernel 802.1ad tag, a kernel
//               priority tag; bit 2: an offload state follows as 8 bytes:
//               flags, gso type, gso size, hdr len, csum start, csum offset
//               with the sizes 1,1,2,2,1,1); the kernel TCI in 2 bytes when
//               tagged; the frame's length in 2 bytes and the frame
//   kOpDrain    one byte of send flags: every trapped frame is sent so by
//               the module and released
//   kOpBind     a source-guard entry: IPv4 (4), MAC (6), VLAN choice (1),
//               port (1)
//   kOpUnbind   the entry of an IPv4 address (4)
//   kOpAge      tens of seconds the clock moves on (1), then the FDB ages
//   kOpReload   a new configuration: six bytes as at the start
//   kOpFail     ports whose sends fail from now on, one bit each (1)
//   kOpLookup   an FDB look-up: MAC (6), VLAN choice (1)
#pragma once

#include <stdint.h>

namespace fuzzlive {

constexpr uint8_t kIpFilter = 0x01;
constexpr uint8_t kArpDefend = 0x02;
constexpr uint8_t kDropIpv6 = 0x04;
constexpr uint8_t kSnoop20 = 0x08;
constexpr int kLimitShift = 5;

constexpr uint8_t kTrust = 0x01;
constexpr int kVlanShift = 1;
constexpr int kTaggedShift = 3;

constexpr int kPorts = 5;
constexpr size_t kConfigBytes = 1 + kPorts;

enum Op : uint8_t {
    kOpFrame = 0,
    kOpDrain = 1,
    kOpBind = 2,
    kOpUnbind = 3,
    kOpAge = 4,
    kOpReload = 5,
    kOpFail = 6,
    kOpLookup = 7,
};
constexpr int kOpPortShift = 3;

enum TagMode : uint8_t { kNoKernelTag = 0, kKernel8021Q = 1, kKernel8021AD = 2, kKernelPriority = 3 };
constexpr uint8_t kHasOffload = 0x04;

}  // namespace fuzzlive
