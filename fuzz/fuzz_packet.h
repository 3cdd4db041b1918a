// The packet fuzz target's input: one byte of configuration, with kOp82Cfg a
// second one for option 82, then the frame.
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
constexpr uint8_t kOp82Cfg = 0x40;      // an option-82 byte follows (else keep, built-in IDs)
constexpr uint8_t kPortChannel = 0x80;  // received on po1 (else 1/0/1)

// Bits of the option-82 byte.
constexpr uint8_t kPolicyMask = 0x03;     // 0 keep, 1 replace, 2 drop, 3 replace
constexpr uint8_t kUserCircuit = 0x04;    // user-defined circuit-ID text
constexpr uint8_t kUserRemote = 0x08;     // user-defined remote-ID text
constexpr int kTextLenShift = 4;          // high nibble: index into kTextLens

// User-defined text lengths: empty, short, around the sub-option and option
// length limits (one byte each), and the longest the record keeps.
constexpr uint16_t kTextLens[16] = {0, 1, 7, 32, 63, 100, 125, 126, 127, 128, 200, 249, 251, 253, 255, 256};

// Circuit-ID text length of an option-82 byte; the remote ID takes the
// mirrored length so that one byte reaches both short/long mixes.
constexpr uint16_t circuitLen(uint8_t op82) { return kTextLens[op82 >> kTextLenShift]; }
constexpr uint16_t remoteLen(uint8_t op82) { return kTextLens[15 - (op82 >> kTextLenShift)]; }

constexpr uint16_t kVid = 1;

}  // namespace fuzzpacket
