// The packet fuzz target's input: one byte of configuration, then the frame.
#pragma once

#include <cstdint>

namespace fuzzpacket {

// Bits of the configuration byte.
constexpr uint8_t kTrust = 0x01;        // receive port trusted
constexpr uint8_t kMacVerify = 0x02;    // CHADDR verification on the port
constexpr uint8_t kOption82 = 0x04;     // option 82 on the port
constexpr uint8_t kVlanEnable = 0x08;   // snooping enabled in the frame's VLAN
constexpr uint8_t kDebug = 0x10;        // the module's debug switch
constexpr uint8_t kDumps = 0x20;        // debug levels 1 and 2 (dumps)
constexpr uint8_t kReplace = 0x40;      // option-82 policy replace (else keep)
constexpr uint8_t kPortChannel = 0x80;  // received on po1 (else 1/0/1)

constexpr uint16_t kVid = 1;

}  // namespace fuzzpacket
